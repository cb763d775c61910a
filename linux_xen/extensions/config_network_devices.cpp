// The sorted list of network devices, and which of them are real ones.
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "agent_common.h"
#include "agent_files.h"
#include "agent_handles.h"
#include "agent_text.h"
#include "config_network_internal.h"
#include "config_network_query.h"
#include "config_network_sysfs.h"

namespace zorvik
{

namespace
{

constexpr char device_table[] = "/proc/net/dev";

struct real_device_prefix_t {
    const char *prefix;
    int real;
};

constexpr real_device_prefix_t real_device_prefixes[] = {
    {"vif", 0}, // a hypervisor back-end interface
    {"vbx_tun.4090", 0},
    {"qcn", 1},
    {"vxlan", 1},
};

struct address_query_t {
    unsigned long request;
    char *eth_device_t::*field;
    const char *what;
};

// Each address is asked for only when the one before was had.
constexpr address_query_t address_queries[] = {
    {SIOCGIFADDR, &eth_device_t::inet_addr, "address"},
    {SIOCGIFBRDADDR, &eth_device_t::inet_brdcst, "broadcast"},
    {SIOCGIFNETMASK, &eth_device_t::inet_mask, "mask"},
};

constexpr char log_name[] = "get_network_device_list";

/** Whether one of the virtual-NIC drivers lists the device. */
bool check_vantix_device(const char *devName)
{
    return path_exists(path_t<128>("/proc/driver/vtnic/devices/%s", devName).text) ||
           path_exists(path_t<128>("/proc/driver/vte/devices/%s", devName).text);
}

/** Fills in the device's addresses up to the first that cannot be had. */
void query_addresses(query_socket_t &queries, eth_device_t *eth)
{
    if (!query_device(log_name, queries, eth->device_name, SIOCGIFHWADDR, "MAC"))
        return;
    eth->hw_addr = strdup(queries.mac().text);
    if (!eth->hw_addr)
        return;
    for (const address_query_t &query : address_queries) {
        if (!query_device(log_name, queries, eth->device_name, query.request, query.what))
            return;
        eth->*query.field = strdup(queries.inet().text);
        if (!(eth->*query.field))
            return;
    }
}

/**
 * Lists the device that a line of the kernel's table is about, if it is one to report; it is then
 * the `last` one listed.
 */
int list_device(query_socket_t &queries, const bond_list_t &bonds, const char *name_field,
                eth_header_t *hdr, eth_device_t *&last)
{
    unique_text name{string_trim(name_field)};
    if (!name) {
        error_print("? %s: unable to strdup device name\n", log_name);
        return ENOMEM;
    }
    if (!check_real_device(name.get(), bonds) && !check_vantix_device(name.get()))
        return 0;
    if (infiniband_device(name.get()))
        return 0;
    auto *eth = static_cast<eth_device_t *>(calloc(1, sizeof(eth_device_t)));
    if (!eth) {
        error_print("? %s: failed to allocate eth device\n", log_name);
        return ENOMEM;
    }
    eth->device_name = name.release();
    insert_device_sorted(hdr, eth, last);
    last = eth;
    query_addresses(queries, eth);
    return 0;
}

} // namespace

int list_network_devices(query_socket_t &queries, const bond_list_t &bonds, eth_header_t *hdr)
{
    if (queries.error)
        return error_errno(log_name, queries.error, "unable to open socket");
    const unique_stream table{fopen(device_table, "re")};
    if (!table)
        return error_errno(log_name, errno, "unable to open %s", device_table);
    eth_device_t *last = nullptr;
    char line[256];
    while (fgets(line, sizeof line, table.get())) {
        char *colon = strchr(line, ':');
        if (!colon)
            continue;
        *colon = '\0';
        if (const int status = list_device(queries, bonds, line, hdr, last))
            return status;
    }
    if (ferror(table.get()))
        return error_errno(log_name, errno, "error reading file");
    return 0;
}

int get_network_device_list(eth_header_t *hdr)
{
    if (!hdr)
        return error_invalid_arguments(__func__);
    query_socket_t queries;
    return list_network_devices(queries, {}, hdr);
}

void free_eth_device(eth_device_t *eth)
{
    if (!eth)
        return;
    free(eth->device_name);
    free(eth->inet_addr);
    free(eth->inet_mask);
    free(eth->inet_brdcst);
    free(eth->hw_addr);
    free(eth);
}

int print_network()
{
    device_list_t devices;
    if (const int status = get_network_device_list(&devices.head))
        return status;
    error_print("%8s  %-16s  %-20s\n", "Device", "Address", "H/W Address");
    while (const unique_device device = devices.take_first()) {
        char line[129];
        const int length = snprintf(line, sizeof line, "%8s  %-16s", device->device_name,
                                    device->inet_addr ? device->inet_addr : "");
        if (device->hw_addr && length < static_cast<int>(sizeof line))
            snprintf(line + length, sizeof line - static_cast<size_t>(length), "  %-20s",
                     device->hw_addr);
        error_print("%s\n", line);
    }
    return 0;
}

int check_real_device(const char *devName, const bond_list_t &bonds)
{
    if (!devName) {
        error_invalid_arguments(__func__);
        return 0;
    }
    if (bonds.has(devName))
        return 0;
    for (const real_device_prefix_t &row : real_device_prefixes)
        if (has_prefix(devName, row.prefix))
            return row.real;
    if (path_exists(path_t<128>("/proc/net/vlan/%s", devName).text) || has_hardware(devName))
        return 1;
    debug_errno(3, __func__, errno, "device '%s' - probably not a real device", devName);
    return 0;
}

int infiniband_device(const char *devName, int interfaces)
{
    if (interfaces >= 0)
        return path_exists(path_t<128>("%s/pkey", devName).text, interfaces);
    return path_exists(path_t<128>("%s/%s/pkey", net_class, devName).text);
}

bool bond_list_t::has(const char *name) const
{
    return exists && path_exists(path_t<128>("%s/%s", bonding_directory, name).text);
}

void insert_device_sorted(eth_header_t *hdr, eth_device_t *eth, eth_device_t *near)
{
    const auto is_behind = [eth](const eth_device_t *other) {
        return strcmp(other->device_name, eth->device_name) > 0;
    };
    eth_device_t *before = near ? near : TAILQ_LAST(hdr, eth_header_s);
    while (before && is_behind(before))
        before = TAILQ_PREV(before, eth_header_s, eth_entry);
    eth_device_t *next = before ? TAILQ_NEXT(before, eth_entry) : TAILQ_FIRST(hdr);
    while (next && !is_behind(next))
        next = TAILQ_NEXT(next, eth_entry);
    if (next)
        TAILQ_INSERT_BEFORE(next, eth, eth_entry);
    else
        TAILQ_INSERT_TAIL(hdr, eth, eth_entry);
}

} // namespace zorvik

// The Network element of the network document: every device with all that is told of it.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>

#include "agent_common.h"
#include "agent_files.h"
#include "agent_handles.h"
#include "agent_text.h"
#include "config_network_internal.h"
#include "config_network_link.h"
#include "config_network_query.h"
#include "config_network_sysfs.h"

namespace zorvik
{

char OrigIpString[64] = "";
char OrigMaskString[64] = "";

namespace
{

constexpr flag_table_t iffFlags[] = {
    {"IFF_UP", 0x1},           {"IFF_BROADCAST", 0x2},
    {"IFF_DEBUG", 0x4},        {"IFF_LOOPBACK", 0x8},
    {"IFF_POINTOPOINT", 0x10}, {"IFF_NOTRAILERS", 0x20},
    {"IFF_RUNNING", 0x40},     {"IFF_NOARP", 0x80},
    {"IFF_PROMISC", 0x100},    {"IFF_ALLMULTI", 0x200},
    {"IFF_MASTER", 0x400},     {"IFF_SLAVE", 0x800},
    {"IFF_MULTICAST", 0x1000}, {"IFF_PORTSEL", 0x2000},
    {"IFF_AUTOMEDIA", 0x4000}, {nullptr, 0},
};

// The steps of show_sysfs() speak in its name.
constexpr attribute_kind_t interface_attribute = {"show_sysfs", EACCES, 1024, whole_chunk};
constexpr attribute_kind_t hardware_attribute = {"show_sysfs", ENOENT, 1024, whole_chunk};

// By the beginning of their names: what is reported elsewhere in the element, or is no text.
constexpr const char *skipped_attributes[] = {"address", "broadcast", "brforward"};

constexpr const char *hardware_attributes[] = {"vendor", "device", "subsystem_vendor",
                                               "subsystem_device", "class"};

/** Writes the VLAN id and the device below it, as the name tells them: eth0.100. */
void vlan_info(int indent, const char *name)
{
    const char *dot = strchr(name, '.');
    if (!dot || !path_exists(path_t<128>("/proc/net/vlan/%s", name).text))
        return;
    const size_t digits = std::min(strspn(dot + 1, "0123456789"), size_t{4});
    const size_t base = std::min(static_cast<size_t>(dot - name), size_t{64});
    conn_send_lines(128, indent,
                    "<Vlanid>%.*s</Vlanid>\n"
                    "<Basename>%.*s</Basename>\n",
                    static_cast<int>(digits), dot + 1, static_cast<int>(base), name);
}

void send_hw_address(query_socket_t &queries, int indent, const char *name, int directory)
{
    char mac[128];
    if (!get_device_mac_addr(name, mac, sizeof mac, directory)) {
        if (!query_device("show_dev_info", queries, name, SIOCGIFHWADDR, "MAC"))
            return;
        snprintf(mac, sizeof mac, "%s", queries.mac().text);
    }
    conn_send_lines(128, indent, "<MAC>%s</MAC>\n", mac);
}

/** Writes the hardware address and the flags of a device. Returns whether they say it is down. */
bool show_dev_info(query_socket_t &queries, int indent, const char *name, int directory)
{
    send_hw_address(queries, indent, name, directory);
    if (!query_device(__func__, queries, name, SIOCGIFFLAGS, "flags"))
        return false;
    // The kernel's field is signed, and so is its way into the wider word.
    const int flags = queries.answer.ifr_flags;
    const unique_text text{flag_string(static_cast<unsigned int>(flags), iffFlags)};
    if (text)
        conn_send_XML_string("Flags", indent, text.get());
    return !(flags & IFF_UP);
}

/** Writes a Family element; only `address` has to be there. */
void send_family(int indent, const char *address, const char *mask, const char *broadcast)
{
    conn_send_lines(512, indent, "<%s>\n", family_start);
    conn_send_XML_string("Address", indent + 2, address);
    if (mask)
        conn_send_XML_string("Netmask", indent + 2, mask);
    if (broadcast)
        conn_send_XML_string("Broadcast", indent + 2, broadcast);
    conn_send_end("Family", indent);
}

/** Writes the addresses of a device, or those the host process has left for one without. */
void show_addresses(int indent, const eth_device_t *device)
{
    if (device->inet_addr) {
        send_family(indent, device->inet_addr, device->inet_mask, device->inet_brdcst);
    } else if (OrigIpString[0]) {
        for (char *text : {OrigIpString, OrigMaskString})
            text[sizeof OrigIpString - 1] = '\0'; // whoever wrote it may have left none
        send_family(indent, OrigIpString, OrigMaskString[0] ? OrigMaskString : nullptr, nullptr);
        memset(OrigIpString, 0, sizeof OrigIpString);
        memset(OrigMaskString, 0, sizeof OrigMaskString);
    }
}

bool is_skipped(const char *file)
{
    return std::any_of(std::begin(skipped_attributes), std::end(skipped_attributes),
                       [file](const char *skipped) { return has_prefix(file, skipped); });
}

/** What has been found out about a device. */
struct found_t {
    bool is_down, has_hardware;
};

/** Writes every readable sysfs attribute of an interface and of the hardware behind it, if any. */
void show_sysfs(int indent, const char *name, DIR *directory, const bond_list_t &bonds,
                const found_t &device)
{
    const path_t<128 + 1> prefix("%s%s/", net_class, name);
    const attribute_place_t place = {dirfd(directory), prefix.text, device.is_down};
    conn_send_start("SysFS", indent);
    while (const char *file = next_entry(directory, ENTRY_FILE | ENTRY_DOTTED))
        if (!is_skipped(file))
            send_attribute(interface_attribute, place, file, file, indent + 2);
    if (check_real_device(name, bonds)) {
        conn_send_start("SysFSDev", indent + 2);
        // Without hardware every one of them would be looked up in vain.
        for (const char *file : hardware_attributes)
            if (device.has_hardware)
                send_attribute(hardware_attribute, place, path_t<32>("device/%s", file).text, file,
                               indent + 4);
        conn_send_end("SysFSDev", indent + 2);
    }
    conn_send_end("SysFS", indent);
}

void show_device(query_socket_t &queries, int indent, const eth_device_t *device,
                 const bond_list_t &bonds)
{
    const char *name = device->device_name;
    const path_t<128> path("%s%s", net_class, name);
    const unique_directory directory{opendir(path.text)};
    const int error = errno;
    const int fd = directory ? dirfd(directory.get()) : -1;
    conn_send_lines(512, indent, "<Device Name=\"%s\">\n", name);
    if (has_prefix(name, "qcn") && !strchr(name, '.'))
        conn_send_XML_string("CloudNet", indent + 2, "1");
    vlan_info(indent + 2, name);
    const found_t found = {show_dev_info(queries, indent + 4, name, fd), has_hardware(name, fd)};
    if (found.has_hardware)
        show_link_layer(queries, indent + 4, name);
    show_addresses(indent + 4, device);
    if (directory)
        show_sysfs(indent + 4, name, directory.get(), bonds, found);
    else
        error_errno("show_sysfs", error, "failed to open '%s'", path.text);
    conn_send_end("Device", indent);
}

} // namespace

int config_show_network(int indent)
{
    query_socket_t queries;
    const bond_list_t bonds;
    device_list_t devices;
    if (const int status = list_network_devices(queries, bonds, &devices.head))
        return status;
    conn_send_start("Network", indent);
    while (const unique_device device = devices.take_first())
        if (device->device_name)
            show_device(queries, indent + 2, device.get(), bonds);
    conn_send_end("Network", indent);
    return 0;
}

} // namespace zorvik

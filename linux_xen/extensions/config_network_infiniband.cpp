// The Infiniband element: interfaces and their adapters' ports.
#include <cerrno>
#include <cstring>

#include "agent_common.h"
#include "agent_files.h"
#include "agent_handles.h"
#include "config_network_internal.h"
#include "config_network_sysfs.h"

namespace zorvik
{

namespace
{

/** Of a numbered value, "4: ACTIVE", the name. */
const char *after_colon(const char *chunk)
{
    const char *colon = strchr(chunk, ':');
    if (!colon)
        return chunk;
    return colon[1] == ' ' || colon[1] == '\t' ? colon + 2 : colon + 1;
}

// The steps of infiniband_config() speak in its name.
constexpr char log_name[] = "infiniband_config";
constexpr attribute_kind_t numbered_attribute = {log_name, ENOENT, 1023, after_colon};
constexpr attribute_kind_t plain_attribute = {log_name, ENOENT, 1023, whole_chunk};

struct port_attribute_t {
    const char *element;
    const char *file;
    const attribute_kind_t *kind;
};

// What the kernel tells of an adapter's port. The identifier is itself written with colons.
constexpr port_attribute_t port_attributes[] = {
    {"state", "state", &numbered_attribute},
    {"phys_state", "phys_state", &numbered_attribute},
    {"rate", "rate", &numbered_attribute},
    {"lid", "lid", &numbered_attribute},
    {"sm_lid", "sm_lid", &numbered_attribute},
    {"cap_mask", "cap_mask", &numbered_attribute},
    {"link_layer", "link_layer", &numbered_attribute},
    {"gid", "gids/0", &plain_attribute},
};

struct adapter_t {
    char name[64];
};

/** Finds the adapter behind an interface; an empty name stands for none. Returns 0 or an errno. */
int find_adapter(const char *name, adapter_t *adapter)
{
    *adapter = {};
    const path_t<64> path("%s%s/device/infiniband", net_class, name);
    const unique_directory directory{opendir(path.text)};
    if (!directory)
        return error_errno(log_name, errno, "unable to open '%s'", path.text);
    while (const char *entry = next_entry(directory.get(), ENTRY_DIRECTORY))
        snprintf(adapter->name, sizeof adapter->name, "%s", entry);
    return 0;
}

/** Writes what the kernel tells of the adapter's port behind an interface. */
void send_adapter_port(int indent, const char *name, const adapter_t &adapter, int port)
{
    conn_send_start("SysFSDev", indent);
    for (const port_attribute_t &attribute : port_attributes)
        send_attribute(*attribute.kind, {AT_FDCWD, ""},
                       path_t<128>("%s%s/device/infiniband/%s/ports/%d/%s", net_class, name,
                                   adapter.name, port, attribute.file)
                           .text,
                       attribute.element, indent + 2);
    conn_send_end("SysFSDev", indent);
}

/**
 * Writes one interface. `port` counts those with an adapter. Returns 0 or the error that ended it.
 */
int show_interface(int indent, const char *name, const bond_list_t &bonds, int *port)
{
    if (const int status = conn_send_lines(1024, indent, "<Device Name=\"%s\">\n", name))
        return status;
    int status = show_addr_info(indent + 2, name, with_mtu);
    adapter_t adapter = {};
    if (status == 0 && check_real_device(name, bonds))
        status = find_adapter(name, &adapter);
    if (status != 0)
        return conn_close_early("Device", indent, status);
    if (adapter.name[0])
        send_adapter_port(indent, name, adapter, ++*port);
    conn_send_end("Device", indent);
    return 0;
}

} // namespace

int infiniband_config(int indent)
{
    const unique_directory interfaces{opendir(net_class)};
    if (!interfaces)
        return error_errno(__func__, errno, "unable to open '%s'", net_class);
    conn_send_start("Infiniband", indent);
    int port = 0;
    while (const char *name = next_entry(interfaces.get(), ENTRY_LINK))
        if (infiniband_device(name, dirfd(interfaces.get())))
            if (const int status = show_interface(indent + 2, name, {}, &port))
                return conn_close_early("Infiniband", indent, status);
    conn_send_end("Infiniband", indent);
    return 0;
}

} // namespace zorvik

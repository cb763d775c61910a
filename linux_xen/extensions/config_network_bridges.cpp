// Bridges and their ports, the kernel's and Open vSwitch's.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <string_view>

#include "agent_common.h"
#include "agent_files.h"
#include "agent_handles.h"
#include "agent_sources.h"
#include "agent_text.h"
#include "config_network_internal.h"
#include "config_network_sysfs.h"

namespace zorvik
{

namespace
{

// The steps of show_opensw_ifs() speak in its name.
constexpr char log_name[] = "show_opensw_ifs";

constexpr const char *virtual_ports[] = {"vif", "tap"};

int begin_bridge(int indent, const char *name)
{
    if (const int status = conn_send_lines(1024, indent, "<Device Name=\"%s\">\n", name))
        return status;
    show_addr_info(indent + 2, name, without_mtu);
    conn_send_lines(1024, indent + 2, "<Interfaces>\n");
    return 0;
}

int send_bridge_port(int indent, const char *port)
{
    const char *element = "PhyInterface";
    for (const char *prefix : virtual_ports)
        if (has_prefix(port, prefix))
            element = "VirtInterface";
    return conn_send_lines(1024, indent, "<%s>%s</%s>\n", element, port, element);
}

int end_bridge(int indent)
{
    conn_send_lines(1024, indent + 2, "</Interfaces>\n");
    return conn_send_end("Device", indent);
}

/** Writes a bridge of the kernel's own. */
int show_bridge_ifs(int indent, const char *name)
{
    if (indent < 0)
        return error_invalid_arguments(__func__);
    const path_t<256> path("%s/%s/%s", net_class, name, "brif");
    const unique_directory ports{opendir(path.text)};
    if (!ports)
        return error_errno(__func__, errno, "unable to open '%s'", path.text);
    if (const int status = begin_bridge(indent, name))
        return status;
    while (const char *port = next_entry(ports.get(), ENTRY_OTHER_THAN_DIRECTORY | ENTRY_DOTTED))
        if (!has_prefix(port, "vif0") && send_bridge_port(indent + 4, port) != 0)
            break;
    return end_bridge(indent);
}

/** Writes a bridge of Open vSwitch. */
int show_opensw_ifs(int indent, const char *name, int64_t deadline)
{
    if (!name || indent < 0)
        return error_invalid_arguments(__func__);
    int status = begin_bridge(indent, name);
    if (status != 0)
        return status;
    char text[1024 + 1];
    status = list_switch_ports(name, deadline, text, sizeof text);
    if (status != 0) {
        conn_close_early("Interfaces", indent + 2, status);
        return conn_close_early("Device", indent, status);
    }
    char *port = text;
    while (char *end = strchr(port, '\n')) {
        *end = '\0';
        if (send_bridge_port(indent + 4, port) != 0)
            break;
        port = end + 1;
    }
    return end_bridge(indent);
}

/** Where the kernel shows the switch's module, and whether its bridges look like the kernel's. */
struct switch_module_t {
    const char *path;
    bool has_kernel_bridges;
    source_age age;
};

constexpr switch_module_t switch_modules[] = {
    {"/sys/module/openvswitch_mod", true, CLASSIC},
    {"/sys/module/openvswitch", false, CURRENT},
};

/** Which of the switch's modules is loaded, null for none. */
const switch_module_t *find_switch()
{
    for (const switch_module_t &module : switch_modules)
        if (is_asked(module.age) && path_exists(module.path))
            return &module;
    return nullptr;
}

/**
 * Whether a listed name is a bridge's that can be reported: of an interface, in ASCII, which the tool
 * does not take for an option and XML does not take for its own.
 */
bool is_bridge_name(std::string_view name)
{
    constexpr std::string_view refused = "/:\"<&";
    return !name.empty() && name.size() < IFNAMSIZ && name[0] != '-' && name != "." &&
           name != ".." && std::all_of(name.begin(), name.end(), [&](char character) {
               return character > ' ' && character < '\x7f' &&
                      refused.find(character) == refused.npos;
           });
}

/** Writes the bridges that the switch's tool lists. One that is gone meanwhile has no ports. */
void show_listed_bridges(int indent, int64_t deadline)
{
    unique_text names;
    size_t length = 0;
    if (list_switch_bridges(deadline, &names, &length) != 0)
        return;
    size_t refused = 0;
    char *const behind = names.get() + length;
    for (char *name = names.get(), *end; name < behind; name = end + 1) {
        end = std::find(name, behind, '\n');
        *end = '\0';
        if (!is_bridge_name({name, end})) {
            refused++;
            continue;
        }
        if (now_ms() >= deadline) {
            error_print("? %s: no time is left for the bridges from '%s' on\n", log_name, name);
            break;
        }
        if (show_opensw_ifs(indent, name, deadline) != 0)
            error_print("? %s: the ports of '%s' could not be listed\n", log_name, name);
    }
    if (refused)
        error_print("? %s: names listed that no bridge can have: %zu\n", log_name, refused);
}

} // namespace

int bridge_config(int indent)
{
    const unique_directory interfaces{opendir(net_class)};
    if (!interfaces)
        return error_errno(__func__, errno, "unable to open '%s'", net_class);
    conn_send_start("Bridges", indent);
    const int64_t deadline = switch_tool_deadline();
    while (const char *name = next_entry(interfaces.get(), ENTRY_LINK)) {
        if (!path_exists(path_t<128>("%s/bridge", name).text, dirfd(interfaces.get())))
            continue;
        const switch_module_t *module = find_switch();
        const int status = module && module->has_kernel_bridges
                               ? show_opensw_ifs(indent + 2, name, deadline)
                               : show_bridge_ifs(indent + 2, name);
        if (status != 0)
            return conn_close_early("Bridges", indent, status);
    }
    if (const switch_module_t *module = find_switch(); module && !module->has_kernel_bridges)
        show_listed_bridges(indent + 2, deadline);
    return conn_send_end("Bridges", indent);
}

} // namespace zorvik

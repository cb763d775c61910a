// The Family element: an interface's addresses.
#include <cerrno>
#include <cstdio>
#include <sys/ioctl.h>

#include "agent_common.h"
#include "config_network_internal.h"
#include "config_network_query.h"
#include "config_network_sysfs.h"

namespace zorvik
{

namespace
{

constexpr char log_name[] = "show_addr_info";

struct address_line_t {
    unsigned long request;
    const char *element;
};

// Each line needs the one before. The device list's order is another.
constexpr address_line_t address_lines[] = {
    {SIOCGIFADDR, "Address"},
    {SIOCGIFNETMASK, "Netmask"},
    {SIOCGIFBRDADDR, "Broadcast"},
};

/** Writes the lines of an address block, up to the first that cannot be had. */
void send_address_lines(query_socket_t &queries, int indent, const char *name, family_content mtu)
{
    char text[256] = "";
    if (!get_device_mac_addr(name, text, sizeof text) &&
        query_device(log_name, queries, name, SIOCGIFHWADDR, "MAC"))
        snprintf(text, sizeof text, "%s", queries.mac().text);
    conn_send_XML_string("MAC", indent, text);
    if (mtu == with_mtu) {
        if (!query_device(log_name, queries, name, SIOCGIFMTU, "mtu"))
            return;
        snprintf(text, sizeof text, "%d", queries.answer.ifr_mtu);
        conn_send_XML_string("mtu", indent, text);
    }
    for (const address_line_t &line : address_lines) {
        if (!query_device(log_name, queries, name, line.request, "address"))
            return;
        conn_send_XML_string(line.element, indent, queries.inet().text);
    }
}

} // namespace

int show_addr_info(int indent, const char *name, family_content mtu)
{
    query_socket_t queries;
    if (queries.error)
        return error_errno(log_name, queries.error, "unable to open socket");
    conn_send_start(family_start, indent);
    send_address_lines(queries, indent + 2, name, mtu);
    conn_send_end("Family", indent);
    return 0;
}

} // namespace zorvik

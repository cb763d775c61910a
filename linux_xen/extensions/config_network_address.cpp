// The Family element: an interface's addresses.
#include <cerrno>
#include <cstdio>
#include <sys/ioctl.h>

#include "agent_common.h"
#include "agent_handles.h"
#include "config_network_internal.h"
#include "config_network_query.h"
#include "config_network_sysfs.h"

namespace zorvik
{

namespace
{

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
void send_address_lines(int fd, int indent, const char *name, int mtu, const char *function)
{
    char text[256] = "";
    struct ifreq answer;
    if (!get_device_mac_addr(name, text, sizeof text) &&
        query_device(function, fd, SIOCGIFHWADDR, name, "MAC", &answer))
        snprintf(text, sizeof text, "%s", format_mac(answer).text);
    conn_send_XML_string("MAC", indent, text);
    if (mtu) {
        if (!query_device(function, fd, SIOCGIFMTU, name, "mtu", &answer))
            return;
        snprintf(text, sizeof text, "%d", answer.ifr_mtu);
        conn_send_XML_string("mtu", indent, text);
    }
    for (const address_line_t &line : address_lines) {
        if (!query_device(function, fd, line.request, name, "address", &answer) ||
            !format_inet(answer, text, sizeof text, function))
            return;
        conn_send_XML_string(line.element, indent, text);
    }
}

} // namespace

int show_addr_info(int indent, const char *name, int mtu)
{
    const unique_fd queries{open_query_socket()};
    if (!queries)
        return error_unable_to_open_socket(__func__, errno);
    conn_send_start(family_start, indent);
    send_address_lines(queries.fd, indent + 2, name, mtu, __func__);
    conn_send_end("Family", indent);
    return 0;
}

} // namespace zorvik

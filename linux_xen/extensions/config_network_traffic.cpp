// The Network element of the status document: packets and bytes.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>

#include "agent_common.h"
#include "agent_files.h"
#include "agent_handles.h"
#include "agent_text.h"
#include "config_network.h"
#include "config_network_sysfs.h"

namespace zorvik
{

namespace
{

/** A file of the kernel's statistics, named like its element. */
struct net_stat {
    const char *name;
};

constexpr net_stat net_stats[] = {{"rx_packets"}, {"rx_bytes"}, {"tx_packets"}, {"tx_bytes"}};

// By the beginning of their names: back-ends of the control domain itself, and tunnels.
constexpr const char *unreported_prefixes[] = {"vif0", "veth", "sit"};

// The steps of show_dev_stats() speak in its name.
constexpr char log_name[] = "show_dev_stats";

/**
 * Whether the traffic of an interface is reported: it is none of the virtual kinds, and no bridge.
 */
bool is_reported(const char *name, int interfaces)
{
    return std::none_of(std::begin(unreported_prefixes), std::end(unreported_prefixes),
                        [name](const char *prefix) { return has_prefix(name, prefix); }) &&
           !path_exists(path_t<128>("%s/bridge", name).text, interfaces);
}

/** Writes what one read of a counter file gives, without the white space behind it. */
void send_value(int fd)
{
    char text[1023 + 1];
    const ssize_t length = read_once(fd, text, sizeof text);
    if (length > 0)
        conn_send2(text, static_cast<int>(trimmed_length(text, static_cast<size_t>(length))));
}

/**
 * Writes the element of one counter, if its file can be opened. Returns 0 or the error of a failed
 * append.
 */
int send_traffic_counter(int indent, const attribute_place_t &statistics, const char *name)
{
    const unique_fd file = open_file(name, statistics.fd);
    if (!file) {
        const int error = errno;
        error_print("? %s: unable to open '%s%s', errno %d(%s)\n", log_name, statistics.prefix,
                    name, error, strerror(error));
        return 0;
    }
    if (const int status = conn_send_lines(256, indent, "<%s>", name))
        return status;
    send_value(file.fd);
    return conn_send_lines(256, 0, "</%s>\n", name);
}

/**
 * Writes the counters of one interface as a Device of the status document, in the minimal form.
 * Returns 0, EINVAL, the errno of statistics that cannot be opened, or the error of an append.
 */
int show_dev_stats(int indent, const char *name, int)
{
    if (indent < 0 || !name)
        return error_invalid_arguments(__func__);
    const path_t<256> path("%s/%s/%s", net_class, name, "statistics");
    const unique_directory directory{opendir(path.text)};
    if (!directory)
        return error_errno(__func__, errno, "unable to open '%s'", path.text);
    const path_t<256 + 1> prefix("%s/", path.text);
    const attribute_place_t statistics = {dirfd(directory.get()), prefix.text};
    if (const int status = conn_send_lines(256, indent, "<Device Name=\"%s\">\n", name))
        return status;
    if (const int status = conn_send_start("Statistics", indent + 2))
        return status;
    for (const net_stat &counter : net_stats)
        if (send_traffic_counter(indent + 4, statistics, counter.name) != 0)
            break;
    return conn_send_lines(256, indent,
                           "  </Statistics>\n"
                           "</Device>\n");
}

} // namespace

int network_status(int indent, int onlyMinimum)
{
    const unique_directory interfaces{opendir(net_class)};
    if (!interfaces)
        return error_errno(__func__, errno, "unable to open '%s'", net_class);
    conn_send_start("Network", indent);
    while (const char *name = next_interface(interfaces.get()))
        if (is_reported(name, dirfd(interfaces.get())))
            if (const int status = show_dev_stats(indent + 2, name, onlyMinimum))
                return conn_close_early("Network", indent, status);
    return conn_send_end("Network", indent);
}

} // namespace zorvik

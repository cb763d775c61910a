// Bridges and their ports, the kernel's and Open vSwitch's.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <sys/wait.h>

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

constexpr char switch_tool[] = "/usr/bin/ovs-vsctl";
constexpr int64_t tool_seconds = 5;
constexpr size_t most_listing = size_t{1024} * 1024; // characters of the switch's bridges

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

/** The child's part between fork and exec: async-signal-safe calls alone. */
[[noreturn]] void run_switch_tool(int output, const char *command, const char *bridge)
{
    // Already there when the host process has closed its own: then it must only stay open.
    if ((output == STDOUT_FILENO ? fcntl(output, F_SETFD, 0) : dup2(output, STDOUT_FILENO)) < 0)
        _exit(1);
    // Whoever writes more than is read is not to die of it, as under Python, which ignores it too.
    signal(SIGPIPE, SIG_IGN);
    execl(switch_tool, "ovs-vsctl", command, bridge, static_cast<char *>(nullptr));
    _exit(127);
}

/** The tool's process; without a status, others have reaped it. */
struct tool_t {
    pid_t child;
    bool ended = false;
    std::optional<int> status = std::nullopt;
};

/** Reaps the tool, or finds it reaped. */
bool has_ended(tool_t *tool)
{
    int status = 0;
    const pid_t reaped = tool->ended ? 0 : waitpid(tool->child, &status, WNOHANG);
    if (reaped == tool->child)
        tool->status = status;
    tool->ended = tool->ended || reaped == tool->child || (reaped < 0 && errno != EINTR);
    return tool->ended;
}

/** Waits for the tool's end. Returns whether it came before the deadline. */
bool ends_before(int64_t deadline, tool_t *tool)
{
    constexpr struct timespec pause = {0, 1000000};
    while (!has_ended(tool)) {
        if (now_ms() >= deadline)
            return false;
        nanosleep(&pause, nullptr);
    }
    return true;
}

enum output_state {
    OUTPUT_READ,
    OUTPUT_FAILED,
    OUTPUT_LATE,
    OUTPUT_FLOOD, // more than there is room for
    OUTPUT_HELD   // the tool ended without any, and another process keeps it open
};

/** Reads the tool's output once, the text or its end, whichever comes first. */
output_state read_output(int64_t deadline, int fd, tool_t *tool, char *text, size_t size)
{
    constexpr int64_t slice_ms = 20;
    text[0] = '\0';
    struct pollfd output = {fd, POLLIN, 0};
    // What the tool had to say is in the pipe when it has ended: then one more look is enough.
    for (bool last = false;; last = has_ended(tool)) {
        const int64_t left = std::max(deadline - now_ms(), int64_t{0});
        const int ready = poll(&output, 1, last ? 0 : static_cast<int>(std::min(left, slice_ms)));
        if (ready > 0)
            break;
        if (ready < 0 && errno != EINTR)
            return OUTPUT_FAILED;
        if (ready == 0 && last)
            return OUTPUT_HELD;
        if (left == 0)
            return OUTPUT_LATE;
    }
    ssize_t length;
    do {
        length = read(fd, text, size - 1);
    } while (length < 0 && errno == EINTR);
    text[std::max(length, ssize_t{0})] = '\0';
    return length < 0 ? OUTPUT_FAILED : OUTPUT_READ;
}

/** Reads the tool's output to its end. */
output_state read_whole_output(int64_t deadline, int fd, tool_t *tool, char *text, size_t size)
{
    output_state state = OUTPUT_READ;
    for (size_t length = 0; state == OUTPUT_READ; length += strlen(text + length)) {
        if (length == size - 1)
            return OUTPUT_FLOOD;
        state = read_output(deadline, fd, tool, text + length, size - length);
        if (state == OUTPUT_READ && !text[length])
            break;
    }
    return state;
}

using read_tool_t = output_state (*)(int64_t deadline, int fd, tool_t *tool, char *text,
                                     size_t size);

/** Has the switch's tool carry out a command, on a bridge or with null on none. */
int ask_switch(const char *command, const char *bridge, int64_t deadline, read_tool_t read_tool,
               char *text, size_t size)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return error_errno(log_name, errno, "can not Create pipe ");
    unique_fd reading{ends[0]};
    unique_fd writing{ends[1]};
    tool_t tool = {fork()};
    if (tool.child < 0)
        return error_errno(log_name, errno, "can not fork");
    if (tool.child == 0)
        run_switch_tool(writing.fd, command, bridge);
    writing.reset();
    const output_state output = read_tool(deadline, reading.fd, &tool, text, size);
    reading.reset();
    if (output == OUTPUT_HELD)
        error_print("? %s: %s ended, but another process keeps its output open\n", log_name,
                    switch_tool);
    if (output == OUTPUT_FLOOD) {
        error_print("? %s: %s %s writes more than %zu bytes\n", log_name, switch_tool, command,
                    size - 1);
        kill(tool.child, SIGKILL);
    }
    if (ends_before(output == OUTPUT_LATE ? now_ms() : deadline, &tool)) {
        const bool worked = tool.status ? *tool.status == 0 : output == OUTPUT_READ;
        return worked ? 0 : -1;
    }
    kill(tool.child, SIGKILL);
    ends_before(now_ms() + 1000, &tool); // only the kernel can hold it up now
    error_print("? %s: %s did not end within %ld seconds and was killed\n", log_name, switch_tool,
                tool_seconds);
    return -1;
}

} // namespace

int64_t switch_tool_deadline()
{
    return now_ms() + tool_seconds * 1000;
}

int list_switch_ports(const char *bridge, int64_t deadline, char *text, size_t size)
{
    return ask_switch("list-ports", bridge, deadline, read_output, text, size);
}

int list_switch_bridges(int64_t deadline, char *text, size_t size)
{
    return ask_switch("list-br", nullptr, deadline, read_whole_output, text, size);
}

namespace
{

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

/** Writes the bridges that the switch's tool lists. One that is gone meanwhile has no ports. */
void show_listed_bridges(int indent, int64_t deadline)
{
    const unique_text names{static_cast<char *>(malloc(most_listing + 1))};
    if (!names) {
        error_print("? %s: unable to allocate %zu bytes\n", log_name, most_listing);
        return;
    }
    if (list_switch_bridges(deadline, names.get(), most_listing + 1) != 0) {
        error_print("? %s: %s list-br failed\n", log_name, switch_tool);
        return;
    }
    char *name = names.get();
    while (char *end = strchr(name, '\n')) {
        *end = '\0';
        if (now_ms() >= deadline) {
            error_print("? %s: no time is left for the bridges from '%s' on\n", log_name, name);
            return;
        }
        // The tool would take it for an option.
        if (name[0] && name[0] != '-' && show_opensw_ifs(indent, name, deadline) != 0)
            error_print("? %s: the ports of '%s' could not be listed\n", log_name, name);
        name = end + 1;
    }
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

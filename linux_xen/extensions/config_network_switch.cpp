// The tool of Open vSwitch, in a child process that is bounded in time and in what it writes.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <sys/wait.h>

#include "agent_common.h"
#include "agent_handles.h"
#include "agent_text.h"
#include "config_network_internal.h"

namespace zorvik
{

namespace
{

constexpr char switch_tool[] = "/usr/bin/ovs-vsctl";
constexpr int64_t tool_seconds = 5;

// The caller of its functions, in whose name they speak.
constexpr char log_name[] = "show_opensw_ifs";

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

/** Room for what the tool writes, and how much of it has come; a NUL follows. */
struct output_t {
    char *text;
    size_t size;
    size_t length = 0;
};

/** Reads the tool's output once, the text or its end, whichever comes first. */
output_state read_output(int64_t deadline, int fd, tool_t *tool, output_t *taken)
{
    constexpr int64_t slice_ms = 20;
    char *text = taken->text + taken->length;
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
        length = read(fd, text, taken->size - taken->length - 1);
    } while (length < 0 && errno == EINTR);
    if (length < 0)
        return OUTPUT_FAILED;
    text[length] = '\0';
    taken->length += static_cast<size_t>(length);
    return OUTPUT_READ;
}

/** Reads the tool's output to its end. */
output_state read_whole_output(int64_t deadline, int fd, tool_t *tool, output_t *taken)
{
    output_state state = OUTPUT_READ;
    for (size_t before = 1; state == OUTPUT_READ && taken->length != before;) {
        before = taken->length;
        if (before < taken->size - 1) {
            state = read_output(deadline, fd, tool, taken);
            continue;
        }
        char more[2];
        output_t beyond = {more, sizeof more};
        state = read_output(deadline, fd, tool, &beyond);
        return state == OUTPUT_READ && beyond.length ? OUTPUT_FLOOD : state;
    }
    return state;
}

using read_tool_t = output_state (*)(int64_t deadline, int fd, tool_t *tool, output_t *taken);

/** Has the switch's tool carry out a command, on a bridge or with null on none. */
int ask_switch(const char *command, const char *bridge, int64_t deadline, read_tool_t read_tool,
               output_t *taken)
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
    const output_state output = read_tool(deadline, reading.fd, &tool, taken);
    reading.reset();
    if (output == OUTPUT_HELD)
        error_print("? %s: %s ended, but another process keeps its output open\n", log_name,
                    switch_tool);
    if (output == OUTPUT_FLOOD) {
        error_print("? %s: %s %s writes more than %zu bytes\n", log_name, switch_tool, command,
                    taken->size - 1);
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
    output_t taken = {text, size};
    return ask_switch("list-ports", bridge, deadline, read_output, &taken);
}

int list_switch_bridges(int64_t deadline, unique_text *names, size_t *length)
{
    constexpr size_t most_listing = size_t{1024} * 1024;
    names->reset(static_cast<char *>(malloc(most_listing + 1)));
    if (!*names) {
        error_print("? %s: unable to allocate %zu bytes\n", log_name, most_listing);
        return ENOMEM;
    }
    output_t taken = {names->get(), most_listing + 1};
    const int status = ask_switch("list-br", nullptr, deadline, read_whole_output, &taken);
    if (status != 0)
        error_print("? %s: %s list-br failed\n", log_name, switch_tool);
    *length = taken.length;
    return status;
}

} // namespace zorvik

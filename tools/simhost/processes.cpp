// The Open vSwitch tool of a simulated host: a real child process that runs a recorded script, or
// none where the recording has what the tool prints.
#include "simhost.h"

#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace simhost;

namespace
{

constexpr std::string_view output_heading = "#output\n";

// No process has this number: they end below 2^22.
constexpr pid_t printing_tool = 1 << 30;

int &last_writing_end()
{
    static int fd = -1;
    return fd;
}

/** Prints what the recorded tool does into the pipe. Returns whether that is all there is to do. */
bool print_in_place()
{
    constexpr size_t pipe_bytes = 65536;
    const node_t *tool = find("/usr/bin/ovs-vsctl", true);
    if (!tool || !tool->content.starts_with(output_heading) || tool->content.size() > pipe_bytes)
        return false;
    const std::string_view text = std::string_view{tool->content}.substr(output_heading.size());
    return write(last_writing_end(), text.data(), text.size()) >= 0;
}

} // namespace

extern "C" {

int pipe2(int *ends, int flags)
{
    const int result = plan("pipe2") == outcome::failed ? -1 : REAL(pipe2)(ends, flags);
    last_writing_end() = result == 0 ? ends[1] : -1;
    return result;
}

pid_t fork()
{
    if (plan("fork") == outcome::failed)
        return -1;
    return host().loaded && print_in_place() ? printing_tool : REAL(fork)();
}

pid_t waitpid(pid_t child, int *status, int options)
{
    if (plan("waitpid") == outcome::failed)
        return -1;
    if (child != printing_tool)
        return REAL(waitpid)(child, status, options);
    *status = 0;
    return child;
}

int execl(const char *path, const char *name, ...)
{
    // sh -c SCRIPT NAME ARGUMENT...
    std::vector<const char *> words{"sh", "-c", nullptr, name};
    va_list arguments;
    va_start(arguments, name);
    while (words.back())
        words.push_back(va_arg(arguments, const char *));
    va_end(arguments);
    auto **argv = const_cast<char **>(words.data());
    if (!served(path))
        return execv(path, argv + 3);
    const node_t *tool = find(path, true);
    if (!tool)
        return -1;
    if (tool->content.starts_with(output_heading)) {
        const std::string text = tool->content.substr(output_heading.size());
        _exit(write(STDOUT_FILENO, text.data(), text.size()) < 0);
    }
    words[2] = tool->content.c_str();
    return execv("/bin/sh", argv);
}

} // extern "C"

// The Open vSwitch tool of a simulated host: a real child process that runs a recorded script.
#include "simhost.h"

#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace simhost;

extern "C" {

int pipe2(int *ends, int flags)
{
    return plan("pipe2") == outcome::failed ? -1 : REAL(pipe2)(ends, flags);
}

pid_t fork()
{
    return plan("fork") == outcome::failed ? -1 : REAL(fork)();
}

pid_t waitpid(pid_t child, int *status, int options)
{
    return plan("waitpid") == outcome::failed ? -1 : REAL(waitpid)(child, status, options);
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
    constexpr char output[] = "#output\n";
    if (tool->content.rfind(output, 0) == 0) {
        const std::string text = tool->content.substr(sizeof output - 1);
        _exit(write(STDOUT_FILENO, text.data(), text.size()) < 0);
    }
    words[2] = tool->content.c_str();
    return execv("/bin/sh", argv);
}

} // extern "C"

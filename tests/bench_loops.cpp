// The bare loops that the reports are measured against: they make the system calls that the work
// cannot do without, and nothing else. A shared library, so that loop and report take turns in one
// process.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace
{

/** Reads a file below an open directory to its end. */
void read_file(int directory, const char *name)
{
    const int fd = openat(directory, name, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    char chunk[1024];
    while (read(fd, chunk, sizeof chunk) > 0) {
    }
    close(fd);
}

DIR *open_directory(int below, const char *name)
{
    const int fd = openat(below, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return fd < 0 ? nullptr : fdopendir(fd);
}

/** Calls `visit` with every entry of a type, but "." and "..". */
template <typename Visit> void for_each_entry(DIR *directory, unsigned char type, Visit visit)
{
    if (!directory)
        return;
    while (const struct dirent *entry = readdir(directory))
        if (entry->d_type == type && entry->d_name[0] != '.')
            visit(dirfd(directory), entry->d_name);
    closedir(directory);
}

} // namespace

extern "C" {

/** Lists every interface's directory and reads every attribute of it. */
__attribute__((visibility("default"))) void loop_network()
{
    for_each_entry(opendir("/sys/class/net"), DT_LNK, [](int net, const char *name) {
        for_each_entry(open_directory(net, name), DT_REG, read_file);
    });
}

/** Reads every process's stat file, once. */
__attribute__((visibility("default"))) void loop_processes()
{
    for_each_entry(opendir("/proc"), DT_DIR, [](int proc, const char *name) {
        if (name[0] < '0' || name[0] > '9')
            return;
        char path[300];
        char *end = path;
        while (*name)
            *end++ = *name++;
        for (const char *rest = "/stat"; *rest; rest++)
            *end++ = *rest;
        *end = '\0';
        const int fd = openat(proc, path, O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            return;
        char line[512];
        if (read(fd, line, sizeof line) < 0)
            line[0] = '\0';
        close(fd);
    });
}

} // extern "C"

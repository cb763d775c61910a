// The names that fortified calls go by, as compilers choose: they are the calls of these names.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

extern "C" {

int __open_2(const char *path, int flags)
{
    return open(path, flags);
}

int __openat_2(int at, const char *path, int flags)
{
    return openat(at, path, flags);
}

ssize_t __read_chk(int fd, void *buffer, size_t size, size_t)
{
    return read(fd, buffer, size);
}

ssize_t __readlink_chk(const char *path, char *target, size_t size, size_t)
{
    return readlink(path, target, size);
}

int __poll_chk(struct pollfd *files, nfds_t count, int milliseconds, size_t)
{
    return poll(files, count, milliseconds);
}

} // extern "C"

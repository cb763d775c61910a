#include "simhost.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace simhost;

namespace
{

// By the descriptor: threads of an interpreter close files while another one's report runs, and
// each has its own.
constexpr int most_descriptors = 65536;
std::atomic<open_file_t *> files[most_descriptors];
std::atomic<int> last_descriptor;

constexpr mode_t modes[] = {S_IFREG | 0444, S_IFDIR | 0555, S_IFLNK | 0777};

size_t size_of(const node_t &node)
{
    constexpr size_t page = 4096;
    size_t size = node.content.size();
    for (const auto &[address, bytes] : node.memory)
        size = std::max(size, (address + bytes.size() + page - 1) / page * page);
    return size;
}

/** Reads from the position `at`. Between the parts of a memory there are zeros. */
ssize_t read_node(const node_t &node, size_t at, char *buffer, size_t wanted)
{
    const size_t whole = size_of(node);
    const size_t size = at < whole ? std::min(wanted, whole - at) : 0;
    const size_t copied = at < node.content.size() ? node.content.copy(buffer, size, at) : 0;
    std::fill(buffer + copied, buffer + size, '\0');
    for (const auto &[address, bytes] : node.memory) {
        const size_t start = std::max<size_t>(at, address);
        const size_t end = std::min(at + size, address + bytes.size());
        if (start < end)
            bytes.copy(buffer + (start - at), end - start, start - address);
    }
    return static_cast<ssize_t>(size);
}

/** A file of the kernel's with the bytes, to be mapped; -1 where no descriptor is to be had. */
int make_file(const node_t &node)
{
    const int fd = memfd_create("simhost", MFD_CLOEXEC);
    if (fd < 0)
        return -1;
    bool written = ftruncate(fd, static_cast<off_t>(size_of(node))) == 0 &&
                   pwrite(fd, node.content.data(), node.content.size(), 0) >= 0;
    for (const auto &[address, bytes] : node.memory)
        written &= pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(address)) >= 0;
    if (!written)
        perror("simhost");
    return fd;
}

int open_path(const std::string &path, int flags)
{
    std::string canonical;
    const node_t *node = find(path, true, &canonical);
    if (!node)
        return -1;
    if (node->kind == node_t::directory && (flags & O_ACCMODE) != O_RDONLY) {
        errno = EISDIR;
        return -1;
    }
    return open_node(*node, canonical, flags);
}

ssize_t read_stream(void *cookie, char *buffer, size_t size)
{
    return read(*static_cast<const int *>(cookie), buffer, size);
}

int close_stream(void *cookie)
{
    return close(*static_cast<const int *>(cookie));
}

int stat_path(const char *path, struct stat *status, bool follow)
{
    const node_t *node = find(path, follow);
    if (!node)
        return -1;
    *status = {};
    status->st_mode = modes[node->kind];
    status->st_size = static_cast<off_t>(node->content.size());
    return 0;
}

/** The path that a relative one stands for below an open directory of the host's. */
std::string below(int at, const char *path)
{
    const open_file_t *base = opened(at);
    return path[0] == '/' || !base ? path : base->path + "/" + path;
}

mode_t mode_argument(int flags, va_list arguments)
{
    return flags & (O_CREAT | O_TMPFILE) ? va_arg(arguments, mode_t) : 0;
}

} // namespace

int simhost::open_node(const node_t &node, const std::string &path, int flags)
{
    if (node.open_error) {
        errno = node.open_error;
        return -1;
    }
    const int fd = eventfd(0, EFD_NONBLOCK | (flags & O_CLOEXEC ? EFD_CLOEXEC : 0));
    if (fd >= most_descriptors) {
        REAL(close)(fd);
        errno = EMFILE;
        return -1;
    }
    if (fd >= 0) {
        delete files[fd].exchange(new open_file_t{fd, path, &node, 0});
        last_descriptor = std::max<int>(last_descriptor, fd);
    }
    return fd;
}

open_file_t *simhost::opened(int fd)
{
    return fd >= 0 && fd < most_descriptors ? files[fd].load() : nullptr;
}

void simhost::forget_nodes()
{
    for (int fd = 0; fd <= last_descriptor; fd++)
        if (open_file_t *file = opened(fd))
            file->node = nullptr;
}

extern "C" {

int open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_argument(flags, arguments);
    va_end(arguments);
    if (!served(path))
        return REAL(open)(path, flags, mode);
    return plan("open", path) == outcome::failed ? -1 : open_path(path, flags);
}

int open64(const char *path, int flags, ...) __attribute__((alias("open")));

int openat(int at, const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_argument(flags, arguments);
    va_end(arguments);
    const std::string whole = below(at, path);
    if (!served(whole))
        return REAL(openat)(at, path, flags, mode);
    return plan("open", whole) == outcome::failed ? -1 : open_path(whole, flags);
}

int openat64(int at, const char *path, int flags, ...) __attribute__((alias("openat")));

int close(int fd)
{
    if (is_ipmi(fd))
        ipmi_close();
    if (opened(fd))
        delete files[fd].exchange(nullptr);
    return REAL(close)(fd);
}

ssize_t read(int fd, void *buffer, size_t size)
{
    open_file_t *file = opened(fd);
    if (!file)
        return REAL(read)(fd, buffer, size);
    auto &[same, path, node, at] = *file;
    const outcome wanted = plan("read", path);
    if (!node || node->read_error || node->kind == node_t::directory) {
        errno = !node ? EBADF : node->read_error ? node->read_error : EISDIR;
        return -1;
    }
    if (wanted == outcome::failed || wanted == outcome::ended)
        return wanted == outcome::failed ? -1 : 0;
    const ssize_t length =
        read_node(*node, at, static_cast<char *>(buffer), wanted == outcome::cut ? size / 2 : size);
    at += static_cast<size_t>(length);
    return length;
}

off_t lseek(int fd, off_t offset, int whence)
{
    open_file_t *file = opened(fd);
    if (!file)
        return REAL(lseek)(fd, offset, whence);
    auto &[same, path, node, at] = *file;
    if (plan("lseek", path) == outcome::failed)
        return -1;
    if (whence == SEEK_CUR)
        offset += static_cast<off_t>(at);
    else if (whence == SEEK_END && node)
        offset += static_cast<off_t>(size_of(*node));
    if (offset < 0) {
        errno = EINVAL;
        return -1;
    }
    at = static_cast<size_t>(offset);
    return offset;
}

off64_t lseek64(int fd, off64_t offset, int whence) __attribute__((alias("lseek")));

void *mmap(void *address, size_t size, int protection, int flags, int fd, off_t offset)
{
    const open_file_t *file = opened(fd);
    if (!file || !file->node)
        return REAL(mmap)(address, size, protection, flags, fd, offset);
    if (plan("mmap") == outcome::failed)
        return MAP_FAILED;
    // Behind its end a mapped file faults when it is touched, and so does the memory device.
    const int bytes = make_file(*file->node);
    if (bytes < 0)
        return MAP_FAILED;
    void *const mapped = REAL(mmap)(address, size, protection, flags, bytes, offset);
    REAL(close)(bytes);
    return mapped;
}

int munmap(void *address, size_t size)
{
    if (plan("munmap") == outcome::failed)
        return -1;
    return REAL(munmap)(address, size);
}

FILE *fopen(const char *path, const char *mode)
{
    if (!served(path))
        return REAL(fopen)(path, mode);
    const int flags = strchr(mode, 'e') ? O_CLOEXEC : 0;
    const int fd = plan("fopen", path) == outcome::failed ? -1 : open_path(path, flags);
    if (fd < 0)
        return nullptr;
    FILE *const stream =
        fopencookie(&opened(fd)->fd, "r", {read_stream, nullptr, nullptr, close_stream});
    if (!stream) {
        close(fd);
        errno = ENOMEM;
    }
    return stream;
}

FILE *fopen64(const char *path, const char *mode) __attribute__((alias("fopen")));

int stat(const char *path, struct stat *status)
{
    if (!served(path))
        return REAL(stat)(path, status);
    return plan("stat", path) == outcome::failed ? -1 : stat_path(path, status, true);
}

int faccessat(int at, const char *path, int mode, int flags)
{
    const std::string whole = below(at, path);
    if (!served(whole))
        return REAL(faccessat)(at, path, mode, flags);
    return plan("stat", whole) == outcome::failed || !find(whole, true) ? -1 : 0;
}

int lstat(const char *path, struct stat *status)
{
    return served(path) ? stat_path(path, status, false) : REAL(lstat)(path, status);
}

ssize_t readlink(const char *path, char *target, size_t size)
{
    if (!served(path))
        return REAL(readlink)(path, target, size);
    const node_t *node = find(path, false);
    if (node && node->kind == node_t::link)
        return static_cast<ssize_t>(node->content.copy(target, size));
    errno = node ? EINVAL : errno;
    return -1;
}

} // extern "C"

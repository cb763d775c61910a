#include "simhost.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <set>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace simhost;

namespace
{

using open_file_t = std::map<int, std::string>::value_type;

struct directory_t {
    std::vector<std::pair<std::string, unsigned char>> entries;
    size_t next;
    int fd;
    struct dirent entry;
};

/** Never destroyed: calls come before the first constructor and after the last destructor. */
struct state_t {
    std::map<int, std::string> descriptors;
    std::set<void *> directories;
};

state_t &state()
{
    static auto &the_state = *new state_t;
    return the_state;
}

constexpr unsigned char entry_types[] = {DT_REG, DT_DIR, DT_LNK};
constexpr mode_t modes[] = {S_IFREG | 0444, S_IFDIR | 0555, S_IFLNK | 0777};

/** A real descriptor with the file's bytes, so that everything after the open is the kernel's. */
int open_node(const node_t &node, const std::string &path, int flags)
{
    if (node.open_error) {
        errno = node.open_error;
        return -1;
    }
    const int fd = memfd_create(path.c_str(), flags & O_CLOEXEC ? MFD_CLOEXEC : 0);
    bool written = pwrite(fd, node.content.data(), node.content.size(), 0) >= 0;
    for (const auto &[address, bytes] : node.memory) {
        const off_t page = 4096;
        const off_t end = static_cast<off_t>(address + bytes.size());
        written = ftruncate(fd, (end + page - 1) / page * page) == 0 && written;
        written =
            pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(address)) >= 0 && written;
    }
    if (!written)
        perror("simhost");
    descriptors()[fd] = path;
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
    return read(static_cast<open_file_t *>(cookie)->first, buffer, size);
}

int close_stream(void *cookie)
{
    return close(static_cast<open_file_t *>(cookie)->first);
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
    const auto base = descriptors().find(at);
    return path[0] == '/' || base == descriptors().end() ? path : base->second + "/" + path;
}

mode_t mode_argument(int flags, va_list arguments)
{
    return flags & (O_CREAT | O_TMPFILE) ? va_arg(arguments, mode_t) : 0;
}

} // namespace

std::map<int, std::string> &simhost::descriptors()
{
    return state().descriptors;
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
    descriptors().erase(fd);
    return REAL(close)(fd);
}

ssize_t read(int fd, void *buffer, size_t size)
{
    const auto file = descriptors().find(fd);
    if (file == descriptors().end())
        return REAL(read)(fd, buffer, size);
    const node_t *node = find(file->second, true);
    const outcome wanted = plan("read", file->second);
    if (node && (node->read_error || node->kind == node_t::directory))
        errno = node->read_error ? node->read_error : EISDIR;
    else if (wanted == outcome::ended)
        return 0;
    else if (wanted != outcome::failed)
        return REAL(read)(fd, buffer, wanted == outcome::cut ? size / 2 : size);
    return -1;
}

ssize_t __read_chk(int fd, void *buffer, size_t size, size_t)
{
    return read(fd, buffer, size);
}

off_t lseek(int fd, off_t offset, int whence)
{
    const auto file = descriptors().find(fd);
    if (file != descriptors().end() && plan("lseek", file->second) == outcome::failed)
        return -1;
    return REAL(lseek)(fd, offset, whence);
}

off64_t lseek64(int fd, off64_t offset, int whence) __attribute__((alias("lseek")));

void *mmap(void *address, size_t size, int protection, int flags, int fd, off_t offset)
{
    if (descriptors().count(fd)) {
        // Behind its end a mapped file faults when it is touched, and so does the memory device.
        if (plan("mmap") == outcome::failed)
            return MAP_FAILED;
    }
    return REAL(mmap)(address, size, protection, flags, fd, offset);
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
    const int fd = plan("fopen", path) == outcome::failed
                       ? -1
                       : open_path(path, strchr(mode, 'e') ? O_CLOEXEC : 0);
    if (fd < 0)
        return nullptr;
    return fopencookie(&*descriptors().find(fd), "r",
                       {read_stream, nullptr, nullptr, close_stream});
}

FILE *fopen64(const char *path, const char *mode) __attribute__((alias("fopen")));

int stat(const char *path, struct stat *status)
{
    if (!served(path))
        return REAL(stat)(path, status);
    return plan("stat") == outcome::failed ? -1 : stat_path(path, status, true);
}

int faccessat(int at, const char *path, int mode, int flags)
{
    const std::string whole = below(at, path);
    if (!served(whole))
        return REAL(faccessat)(at, path, mode, flags);
    struct stat status;
    return plan("stat") == outcome::failed ? -1 : stat_path(whole.c_str(), &status, true);
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

DIR *opendir(const char *path)
{
    if (!served(path))
        return REAL(opendir)(path);
    if (plan("opendir", path) == outcome::failed)
        return nullptr;
    std::string canonical;
    const node_t *node = find(path, true, &canonical);
    if (node && node->kind != node_t::directory)
        errno = ENOTDIR;
    const int fd =
        node && node->kind == node_t::directory ? open_node(*node, canonical, O_CLOEXEC) : -1;
    if (fd < 0)
        return nullptr;
    auto *directory = new directory_t{{{".", DT_DIR}, {"..", DT_DIR}}, 0, fd, {}};
    for (const std::string &name : node->names) {
        const std::string entry = std::string(canonical).append("/").append(name);
        directory->entries.emplace_back(name, entry_types[host().nodes[entry].kind]);
    }
    state().directories.insert(directory);
    return reinterpret_cast<DIR *>(directory);
}

struct dirent *readdir(DIR *stream)
{
    if (!state().directories.count(stream))
        return REAL(readdir)(stream);
    auto *directory = reinterpret_cast<directory_t *>(stream);
    if (plan("readdir") == outcome::failed || directory->next == directory->entries.size())
        return nullptr;
    const auto &[name, type] = directory->entries[directory->next++];
    directory->entry.d_type = type;
    memcpy(directory->entry.d_name, name.c_str(), name.size() + 1);
    return &directory->entry;
}

struct dirent64 *readdir64(DIR *stream) __attribute__((alias("readdir")));

int dirfd(DIR *stream)
{
    return state().directories.count(stream) ? reinterpret_cast<directory_t *>(stream)->fd
                                             : REAL(dirfd)(stream);
}

int closedir(DIR *stream)
{
    if (!state().directories.erase(stream))
        return REAL(closedir)(stream);
    auto *directory = reinterpret_cast<directory_t *>(stream);
    close(directory->fd);
    delete directory;
    return 0;
}

} // extern "C"

// The directories of a simulated host.
#include "simhost.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <set>
#include <unistd.h>

using namespace simhost;

namespace
{

struct directory_t {
    std::vector<std::pair<std::string, unsigned char>> entries;
    size_t next;
    int fd;
    struct dirent entry;
};

constexpr unsigned char entry_types[] = {DT_REG, DT_DIR, DT_LNK};

/** Never destroyed: calls come before the first constructor and after the last destructor. */
std::set<void *> &directories()
{
    static auto &the_directories = *new std::set<void *>;
    return the_directories;
}

} // namespace

extern "C" {

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
    directories().insert(directory);
    return reinterpret_cast<DIR *>(directory);
}

struct dirent *readdir(DIR *stream)
{
    if (!directories().count(stream))
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
    return directories().count(stream) ? reinterpret_cast<directory_t *>(stream)->fd
                                       : REAL(dirfd)(stream);
}

int closedir(DIR *stream)
{
    if (!directories().erase(stream))
        return REAL(closedir)(stream);
    auto *directory = reinterpret_cast<directory_t *>(stream);
    close(directory->fd);
    delete directory;
    return 0;
}

} // extern "C"

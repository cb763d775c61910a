// Paths, small files and directories of the kernel's.
#include "agent_files.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "agent_handles.h"

namespace zorvik
{

bool path_exists(const char *path, int at)
{
    return faccessat(at, path, F_OK, 0) == 0;
}

unique_fd open_file(const char *path, int at)
{
    return unique_fd{openat(at, path, O_RDONLY | O_CLOEXEC)};
}

ssize_t read_once(int fd, char *text, size_t size)
{
    const ssize_t length = read(fd, text, size - 1);
    text[std::max(length, ssize_t{0})] = '\0';
    return length;
}

ssize_t read_up_to(int fd, char *text, size_t size)
{
    size_t length = 0;
    text[0] = '\0';
    while (length < size - 1) {
        const ssize_t count = read_once(fd, text + length, size - length);
        if (count == 0)
            break;
        if (count > 0)
            length += static_cast<size_t>(count);
        else if (errno != EINTR)
            return -1;
    }
    return static_cast<ssize_t>(length);
}

int read_whole(int fd, size_t limit, unique_heap<unsigned char> *block, size_t *length)
{
    constexpr size_t first_size = 65536;
    *length = 0;
    for (size_t size = std::min(first_size, limit); *length < limit;
         size = std::min(2 * size, limit)) {
        auto *grown = static_cast<unsigned char *>(realloc(block->get(), size + 1));
        if (!grown)
            return ENOMEM;
        static_cast<void>(block->release());
        block->reset(grown);
        char *text = reinterpret_cast<char *>(grown);
        const ssize_t count = read_up_to(fd, text + *length, size + 1 - *length);
        if (count < 0)
            return errno;
        *length += static_cast<size_t>(count);
        if (*length < size)
            return 0;
    }
    return EFBIG;
}

ssize_t read_first_line(int fd, char *line, size_t size)
{
    size_t length = 0;
    char *end = nullptr;
    errno = 0;
    while (!end && length < size - 1) {
        const ssize_t count = read_once(fd, line + length, size - length);
        if (count < 0)
            return -1;
        if (count == 0)
            break;
        end = static_cast<char *>(memchr(line + length, '\n', static_cast<size_t>(count)));
        length += static_cast<size_t>(count);
    }
    if (length == 0)
        return -1;
    if (!end)
        return static_cast<ssize_t>(length);
    *end = '\0';
    return end - line;
}

const struct dirent *next_dirent(DIR *directory, unsigned int kinds)
{
    while (const struct dirent *entry = readdir(directory)) {
        const unsigned int kind = 1U << entry->d_type;
        if ((kinds & kind) && (entry->d_name[0] != '.' || (kinds & ENTRY_DOTTED)))
            return entry;
    }
    return nullptr;
}

const char *next_entry(DIR *directory, unsigned int kinds)
{
    const struct dirent *entry = next_dirent(directory, kinds);
    return entry ? entry->d_name : nullptr;
}

} // namespace zorvik

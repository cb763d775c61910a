/**
 * Paths, small files and directories of the kernel's.
 */
#pragma once

#include <cstdarg>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <sys/types.h>

#include "agent_common.h"
#include "agent_handles.h"

namespace zorvik
{

/** A path built from a printf format, cut at `Size` - 1 characters. */
template <size_t Size> struct path_t {
    char text[Size];

    explicit path_t(const char *format, ...) PRINTF_FORMAT(2, 3)
    {
        va_list arguments;
        va_start(arguments, format);
        vsnprintf(text, Size, format, arguments);
        va_end(arguments);
    }
};

/**
 * Whether something stands at `path`, seen through links, below the open directory `at` where the
 * path does not begin with a slash; as far as the real user, who is root, may look. Leaves errno
 * as access(2) set it.
 */
bool path_exists(const char *path, int at = AT_FDCWD);

/**
 * Opens a file for reading, below the open directory `at` where its path does not begin with a
 * slash. No descriptor with errno set on failure.
 */
unique_fd open_file(const char *path, int at = AT_FDCWD);

/**
 * Reads once, up to `size` - 1 characters, and ends the text. Returns how many came, or -1 with
 * errno set and an empty text.
 */
ssize_t read_once(int fd, char *text, size_t size);

/**
 * Reads up to `size` - 1 characters, or to the end of the file, and ends the text; an interrupted
 * read is repeated. Returns how many came, or -1 with errno set.
 */
ssize_t read_up_to(int fd, char *text, size_t size);

/**
 * Reads a file to its end into a new block. Returns 0 with its length, EFBIG when it has `limit`
 * bytes or more, ENOMEM, or the errno of a failed read.
 */
int read_whole(int fd, size_t limit, unique_heap<unsigned char> *block, size_t *length);

/**
 * Reads the first line, cut to its buffer of `size` bytes, without its line feed. Returns its
 * length, or -1 when there is none: errno then tells what failed, and is 0 for an empty file.
 */
ssize_t read_first_line(int fd, char *line, size_t size);

/**
 * What a walk through a directory takes; kinds are combined. A leading dot is one more to ask for.
 */
enum entry_kinds : unsigned int {
    ENTRY_DIRECTORY = 1U << DT_DIR,
    ENTRY_FILE = 1U << DT_REG,
    ENTRY_LINK = 1U << DT_LNK,
    ENTRY_ANY = 0xFFFF,
    ENTRY_OTHER_THAN_DIRECTORY = ENTRY_ANY & ~ENTRY_DIRECTORY,
    ENTRY_DOTTED = 1U << 16
};

/**
 * The next entry of one of the `kinds`, in the order the directory yields them, or its name alone.
 * Valid until the next call; null at the end.
 */
const struct dirent *next_dirent(DIR *directory, unsigned int kinds);
const char *next_entry(DIR *directory, unsigned int kinds);

} // namespace zorvik

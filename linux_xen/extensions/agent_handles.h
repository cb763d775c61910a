/**
 * Handles that close on every path what a function opened.
 */
#pragma once

#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <unistd.h>
#include <utility>

namespace zorvik
{

struct free_heap {
    void operator()(void *block) const { free(block); }
};
struct close_stream {
    void operator()(FILE *stream) const { fclose(stream); }
};
struct close_directory {
    void operator()(DIR *directory) const { closedir(directory); }
};

template <typename Type> using unique_heap = std::unique_ptr<Type, free_heap>;
using unique_text = unique_heap<char>;
using unique_stream = std::unique_ptr<FILE, close_stream>;
using unique_directory = std::unique_ptr<DIR, close_directory>;

/** A file descriptor; -1 stands for none. */
struct unique_fd {
    int fd;

    explicit unique_fd(int opened) : fd(opened) {}
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;
    unique_fd &operator=(unique_fd &&other) noexcept
    {
        reset();
        fd = std::exchange(other.fd, -1);
        return *this;
    }
    ~unique_fd() { reset(); }

    explicit operator bool() const { return fd >= 0; }

    void reset()
    {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }
};

} // namespace zorvik

// Paths, small files and directories of the kernel's.
#include "agent_files.h"

#include <sys/stat.h>

namespace zorvik
{

bool path_exists(const char *path)
{
    struct stat status;
    return stat(path, &status) == 0;
}

const char *next_entry(DIR *directory, unsigned int kinds)
{
    while (const struct dirent *entry = readdir(directory)) {
        const unsigned int kind = 1U << entry->d_type;
        if ((kinds & kind) && (entry->d_name[0] != '.' || (kinds & ENTRY_DOTTED)))
            return entry->d_name;
    }
    return nullptr;
}

} // namespace zorvik

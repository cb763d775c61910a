/**
 * The kernel's entries of network interfaces below /sys/class/net, and their attributes.
 */
#pragma once

#include <cstddef>
#include <dirent.h>

namespace zorvik
{

/** The kernel's interface entries. Most paths below it are built with "%s/%s", a doubled slash. */
inline constexpr char net_class[] = "/sys/class/net/";

/**
 * The name of the next interface in the open directory of them, where older kernels have a
 * directory for each and newer ones a link. Valid until the next call; null at the end.
 */
const char *next_interface(DIR *interfaces);

/**
 * Whether there is hardware behind a device, rather than the kernel alone. `directory` is its open
 * entry, or -1. Leaves errno as access(2) set it.
 */
bool has_hardware(const char *name, int directory = -1);

/**
 * Copies the kernel's text of a device's hardware address into `mac`, a buffer of `mac_size` bytes.
 * `directory` is the device's open entry, or -1. Returns 1, or 0 when there is none.
 */
int get_device_mac_addr(const char *dev_name, char *mac, int mac_size, int directory = -1);

inline constexpr size_t most_chunk = 1024;

/** How a sysfs attribute is read and reported. */
struct attribute_kind_t {
    const char *log_name;
    int unlogged_error; // of an open that, like EACCES, is not worth a log line
    size_t chunk; // bytes read at once, at most `most_chunk`; each chunk loses its trailing blanks
    const char *(*shown_part)(const char *chunk); // of a chunk
};

/** A chunk as it is. */
inline const char *whole_chunk(const char *chunk)
{
    return chunk;
}

/**
 * An open directory of attributes, or AT_FDCWD, and what the log lines put before a name in it;
 * whether they are those of a device that is down.
 */
struct attribute_place_t {
    int fd;
    const char *prefix;
    bool is_down = false;
};

/**
 * Writes the file `name` as one element, unescaped, chunk by chunk to its end; one that cannot be
 * opened is left out.
 */
void send_attribute(const attribute_kind_t &kind, const attribute_place_t &place, const char *name,
                    const char *element, int indent);

} // namespace zorvik

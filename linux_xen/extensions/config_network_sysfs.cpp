// Attributes of network interfaces, as the kernel's files tell them.
#include "config_network_sysfs.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "agent_common.h"
#include "agent_files.h"
#include "agent_handles.h"
#include "agent_sources.h"
#include "agent_text.h"

namespace zorvik
{

namespace
{

/** How an interface stands in the directory of them, and what makes sure that it is one. */
struct interface_entry_t {
    int type;
    const char *needed;
    source_age age;
};

constexpr interface_entry_t interface_entries[] = {
    {DT_DIR, nullptr, CLASSIC},
    {DT_LNK, "statistics", CURRENT},
};

} // namespace

const char *next_interface(DIR *interfaces)
{
    while (const struct dirent *entry = next_dirent(interfaces, ENTRY_ANY))
        for (const interface_entry_t &row : interface_entries)
            if (row.type == entry->d_type && is_asked(row.age) &&
                (!row.needed || path_exists(path_t<320>("%s/%s/", entry->d_name, row.needed).text,
                                            dirfd(interfaces))))
                return entry->d_name;
    return nullptr;
}

bool has_hardware(const char *name, int directory)
{
    if (directory >= 0)
        return path_exists("device", directory);
    return path_exists(path_t<128>("%s/%s/device", net_class, name).text);
}

int get_device_mac_addr(const char *dev_name, char *mac, int mac_size, int directory)
{
    if (!dev_name || !mac || mac_size < 1) {
        error_invalid_arguments(__func__);
        return 0;
    }
    constexpr char address[] = "address";
    const path_t<128> path("%s/%s/%s", net_class, dev_name, address);
    const unique_fd file = directory < 0 ? open_file(path.text) : open_file(address, directory);
    if (!file) {
        const int error = errno;
        error_print("%s: unable to open %s, errno %d (%s)\n", __func__, path.text, error,
                    strerror(error));
        return 0;
    }
    char line[128];
    const ssize_t length = read_first_line(file.fd, line, sizeof line);
    if (length < 0 && errno != 0) {
        const int error = errno;
        error_print("%s: failed to read %s, errno %d (%s)\n", __func__, path.text, error,
                    strerror(error));
        return 0;
    }
    if (length < 0 || (length > 0 && line[0] == '\0'))
        return 0;
    snprintf(mac, static_cast<size_t>(mac_size), "%s", line);
    return 1;
}

namespace
{

/** An error that says that a device has no such attribute, if only because it is down. */
struct absence_t {
    int error;
    bool when_down;
    source_age age;
};

constexpr absence_t absences[] = {{EOPNOTSUPP, false, CURRENT}, {EINVAL, true, CURRENT}};

bool is_absent(int error, const attribute_place_t &place)
{
    return std::any_of(std::begin(absences), std::end(absences), [&](const absence_t &row) {
        return row.error == error && (place.is_down || !row.when_down) && is_asked(row.age);
    });
}

} // namespace

void send_attribute(const attribute_kind_t &kind, const attribute_place_t &place, const char *name,
                    const char *element, int indent)
{
    const auto log_error = [&](const char *what, int error) {
        error_errno(kind.log_name, error, "%s '%s%s'", what, place.prefix, name);
    };
    const unique_fd file = open_file(name, place.fd);
    if (!file) {
        const int error = errno;
        if (error != EACCES && error != kind.unlogged_error && !is_absent(error, place))
            log_error("unable to open", error);
        return;
    }
    // Mostly one chunk is all there is: the whole element is then one append.
    const tag_text_t start(indent, "<", element, ">");
    const tag_text_t end(0, "</", element, ">\n");
    char text[sizeof start.text + most_chunk + 1 + sizeof end.text];
    char *chunk = std::copy_n(start.text, start.length, text);
    ssize_t length;
    while ((length = read_once(file.fd, chunk, kind.chunk + 1)) > 0) {
        chunk[trimmed_length(chunk, static_cast<size_t>(length))] = '\0';
        const char *shown = kind.shown_part(chunk);
        chunk = std::copy_n(shown, strlen(shown), chunk);
        if (chunk > text + sizeof start.text) {
            conn_send2(text, static_cast<int>(chunk - text));
            chunk = text;
        }
    }
    const int error = errno;
    if (length < 0 && chunk == text + start.length && is_absent(error, place))
        return;
    chunk = std::copy_n(end.text, end.length, chunk);
    conn_send2(text, static_cast<int>(chunk - text));
    if (length < 0 && error != EINVAL)
        log_error("read failed on", error);
}

} // namespace zorvik

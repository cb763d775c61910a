// The three sources of memory figures.
#include "config_memory.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>

#include "agent_common.h"
#include "agent_files.h"
#include "agent_handles.h"
#include "agent_hypervisor.h"
#include "agent_text.h"

namespace zorvik
{

namespace
{

constexpr char meminfo_file[] = "/proc/meminfo";
constexpr unsigned long kb_per_page = 4;

/** Takes the figures of `contents` from a file's text. Returns whether they were all there. */
template <typename Contents> using parse_t = bool (*)(const char *text, Contents *contents);

/**
 * Reads a file whole and parses it, up to ten times: a driver may be caught in the middle of a
 * change. At most `Size` - 1 characters are looked at. Returns 0, EINVAL or an errno.
 */
template <size_t Size, typename Contents>
int read_contents(const char *path, parse_t<Contents> parse, Contents *contents)
{
    constexpr int most_failures = 10;
    *contents = {};
    const unique_fd file = open_file(path);
    if (!file)
        return errno;
    for (int sscanf_err_cnt = 0; sscanf_err_cnt < most_failures;) {
        char text[Size];
        if (lseek(file.fd, 0, SEEK_SET) < 0)
            return errno;
        const ssize_t length = read_once(file.fd, text, sizeof text);
        if (length < 0) {
            if (errno == EINTR)
                continue;
            return errno;
        }
        if (length == 0)
            break;
        if (parse(text, contents))
            return 0;
        sscanf_err_cnt++;
    }
    return EINVAL;
}

bool parse_meminfo(const char *text, struct meminfo_contents *mic)
{
    return sscanf(text,
                  "MemTotal: %lu kB\nMemFree: %lu kB\nBuffers: %lu kB\nCached: %lu kB\n"
                  "SwapCached: %lu kB\nActive: %lu kB\nInactive: %lu kB\nHighTotal: %lu kB\n"
                  "HighFree: %lu kB\nLowTotal: %lu kB\nLowFree: %lu kB\nSwapTotal: %lu kB\n"
                  "SwapFree: %lu kB\nDirty: %lu kB\nWriteback: %lu kB\nAnonPages: %lu kB\n"
                  "Mapped: %lu kB\nSlab: %lu kB\n",
                  &mic->mic_MemTotal_inKB, &mic->mic_MemFree_inKB, &mic->mic_Buffers_inKB,
                  &mic->mic_Cached_inKB, &mic->mic_SwapCached_inKB, &mic->mic_Active_inKB,
                  &mic->mic_Inactive_inKB, &mic->mic_HighTotal_inKB, &mic->mic_HighFree_inKB,
                  &mic->mic_LowTotal_inKB, &mic->mic_LowFree_inKB, &mic->mic_SwapTotal_inKB,
                  &mic->mic_SwapFree_inKB, &mic->mic_Dirty_inKB, &mic->mic_Writeback_inKB,
                  &mic->mic_AnonPages_inKB, &mic->mic_Mapped_inKB, &mic->mic_Slab_inKB) == 18;
}

bool parse_balloon(const char *text, struct xenballoon_contents *xbc)
{
    char limit[64] = "";
    const int item_count =
        sscanf(text,
               "Current allocation: %lu kB\nRequested target: %lu kB\nLow-mem balloon: %lu kB\n"
               "High-mem balloon: %lu kB\nDriver pages: %lu kB\nXen hard limit: %63s kB\n",
               &xbc->xbc_CurrentAllocation_inKB, &xbc->xbc_RequestedTarget_inKB,
               &xbc->xbc_LowMemBalloon_inKB, &xbc->xbc_HighMemBalloon_inKB,
               &xbc->xbc_DriverPages_inKB, limit);
    xbc->xbc_XenHardLimit_inKB = 0;
    // The driver writes question marks where the hypervisor has set no limit.
    if (item_count == 5 || (item_count == 6 && limit[0] == '?'))
        return true;
    return item_count == 6 && sscanf(limit, "%lu", &xbc->xbc_XenHardLimit_inKB) == 1;
}

/** Takes a number behind blanks. Returns what follows, or null where there is none that fits. */
const char *take_number(const char *text, unsigned long *value)
{
    text += strspn(text, " ");
    const auto [end, error] = std::from_chars(text, text + strlen(text), *value);
    return error == std::errc{} ? end : nullptr;
}

/** Takes the number that the line beginning with `key` has. Returns whether there is one. */
bool find_line(const char *text, const char *key, unsigned long *value)
{
    for (const char *line = text; line; line = strchr(line, '\n')) {
        line += *line == '\n';
        if (has_prefix(line, key))
            return take_number(line + strlen(key), value) != nullptr;
    }
    return false;
}

bool parse_meminfo_lines(const char *text, struct meminfo_contents *mic)
{
    return find_line(text, "MemTotal:", &mic->mic_MemTotal_inKB) &&
           find_line(text, "MemFree:", &mic->mic_MemFree_inKB);
}

struct figure_t {
    unsigned long value;
};

/** A figure that stands alone in its file. */
bool parse_figure(const char *text, figure_t *figure)
{
    const char *behind = take_number(text, &figure->value);
    return behind && (*behind == '\n' || *behind == '\0');
}

struct balloon_figure_t {
    const char *path;
    unsigned long xenballoon_contents::*value;
};

constexpr balloon_figure_t balloon_figures[] = {
    {"/sys/devices/system/xen_memory/xen_memory0/info/current_kb",
     &xenballoon_contents::xbc_CurrentAllocation_inKB},
    {"/sys/devices/system/xen_memory/xen_memory0/target_kb",
     &xenballoon_contents::xbc_RequestedTarget_inKB},
    {"/sys/devices/system/xen_memory/xen_memory0/info/low_kb",
     &xenballoon_contents::xbc_LowMemBalloon_inKB},
};

} // namespace

int read_meminfo_lines(struct meminfo_contents *contents)
{
    const int status = read_contents<8193>(meminfo_file, parse_meminfo_lines, contents);
    if (status == EINVAL)
        error_print("? %s: no figures in %s\n", __func__, meminfo_file);
    return status;
}

int read_xenballoon_sysfs(struct xenballoon_contents *contents)
{
    *contents = {};
    for (const balloon_figure_t &row : balloon_figures) {
        figure_t figure;
        const int status = read_contents<64>(row.path, parse_figure, &figure);
        // A kernel without the driver has none of them.
        if (status != 0 && (status != ENOENT || &row != balloon_figures))
            error_errno(__func__, status, "no figure in '%s'", row.path);
        if (status != 0)
            return status;
        contents->*row.value = figure.value;
    }
    return 0;
}

int read_meminfo(struct meminfo_contents *contents)
{
    if (!contents)
        return error_invalid_arguments(__func__);
    return read_contents<8193>(meminfo_file, parse_meminfo, contents);
}

int read_hypervisor_meminfo(struct hypervisor_meminfo_contents *contents)
{
    if (!contents)
        return error_invalid_arguments(__func__);
    *contents = {};
    unique_hypervisor handle = open_hypervisor();
    if (!handle)
        return errno;
    host_t host;
    const int status = get_host(handle.get(), &host);
    const int error = errno;
    handle.reset();
    errno = error;
    if (status == 0)
        *contents = {host.total_pages * kb_per_page, host.free_pages * kb_per_page,
                     host.scrub_pages * kb_per_page};
    return status;
}

int read_xenballoon_instantaneous(struct xenballoon_contents *contents)
{
    if (!contents)
        return error_invalid_arguments(__func__);
    return read_contents<4097>("/proc/xen/balloon", parse_balloon, contents);
}

} // namespace zorvik

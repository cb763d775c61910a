// Records what the module reads of this host: options and the files below /proc and /sys.
#include "record_host.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fnmatch.h>
#include <set>
#include <sys/stat.h>

#include "agent_common.h"
#include "agent_files.h"
#include "agent_handles.h"
#include "errno_names.h"

using namespace zorvik;

namespace
{

constexpr char help[] =
    "Usage: record-host [--mask] [-o FILE]\n"
    "Writes a recording of this host: all that the discovery module reads of it, as text. Needs\n"
    "root for the firmware, the management controller and the hypervisor; what cannot be read is\n"
    "told on standard error.\n\n"
    "  --mask   put stand-ins for serial numbers, UUIDs, hardware and IPv4 addresses, also for a\n"
    "           hardware address in an interface's name, for the text of ifalias and for the code\n"
    "           and stack addresses of processes; other names stay\n"
    "  -o FILE  write to FILE rather than to standard output\n\n"
    "Example: record a server, then see elsewhere what the module tells of it:\n"
    "  sudo record-host --mask -o /tmp/server\n"
    "  zorvik-report --host /tmp/server hardware\n";

// The files to record, each component a pattern. What stands at the end of a path is a file, a
// link, or a directory that only has to be there.
constexpr const char *wanted[] = {
    "/proc/@(cpuinfo|meminfo)",
    "/proc/xen/balloon",
    "/proc/net/dev",
    "/proc/net/@(vlan|bonding)/*",
    "/proc/driver/@(vtnic|vte)/devices/*",
    "/proc/[0-9]*/stat",
    "/sys/class/net/*/*",
    "/sys/class/net/*/device/@(vendor|device|subsystem_vendor|subsystem_device|class)",
    "/sys/class/net/*/device/infiniband/*/ports/*/@(state|phys_state|rate|link_layer)",
    "/sys/class/net/*/device/infiniband/*/ports/*/@(lid|sm_lid|cap_mask)",
    "/sys/class/net/*/device/infiniband/*/ports/*/gids/0",
    "/sys/class/net/*/statistics/@(rx|tx)_@(packets|bytes)",
    "/sys/class/net/*/bonding/@(slaves|mode)",
    "/sys/class/net/*/brif/*",
    "/sys/class/fc_host/*/statistics/@(rx|tx)_words",
    "/sys/devices/system/xen_memory/xen_memory0/@(target_kb|info)",
    "/sys/devices/system/xen_memory/xen_memory0/info/@(current|low)_kb",
    "/sys/module/openvswitch@(|_mod)",
};

void record_file(const std::string &path)
{
    const unique_fd file{open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    std::string content;
    char buffer[4096];
    ssize_t length = -1;
    while (file && (length = read(file.fd, buffer, sizeof buffer)) > 0)
        content.append(buffer, static_cast<size_t>(length));
    if (const int error = errno; length < 0) {
        if (error == EACCES || error == EPERM)
            perror(path.c_str());
        printf("=== %s %s=%s\n", mask_name(path).c_str(), file ? "read" : "open",
               error_name(error));
        return;
    }
    const bool cut = !content.empty() && content.back() != '\n';
    content = mask_file(path, content) + (cut ? "\n" : "");
    printf("=== %s%s\n", mask_name(path).c_str(), cut ? " noeol" : "");
    fwrite(content.data(), 1, content.size(), stdout);
}

/** Records what stands at a path and, as far as the `rest` of a wanted path says, below it. */
void record_tree(const std::string &path, const std::string &rest)
{
    static std::set<std::string> recorded;
    static std::set<std::string> populated; // directories with something in them
    struct stat status;
    if (lstat(path.c_str(), &status) != 0)
        return;
    populated.insert(path.substr(0, path.rfind('/')));
    const bool first = recorded.insert(path).second;
    char target[4096];
    if (first && S_ISREG(status.st_mode))
        record_file(path);
    else if (const ssize_t length = readlink(path.c_str(), target, sizeof target);
             first && length >= 0)
        printf("=== %s -> %s\n", mask_name(path).c_str(),
               mask_name(std::string(target, static_cast<size_t>(length))).c_str());
    if ((!rest.empty() && stat(path.c_str(), &status) != 0) || !S_ISDIR(status.st_mode))
        return;
    const size_t end = std::min(rest.find('/', 1), rest.size());
    if (end > 0)
        for (const std::string &name : list_directory(path, rest.substr(1, end - 1)))
            record_tree(std::string(path).append("/").append(name), rest.substr(end));
    if (populated.insert(path).second)
        printf("=== %s/\n", mask_name(path).c_str());
}

} // namespace

std::string format(const char *text, ...)
{
    char buffer[256];
    va_list arguments;
    va_start(arguments, text);
    vsnprintf(buffer, sizeof buffer, text, arguments);
    va_end(arguments);
    return buffer;
}

const char *error_name(int error)
{
    for (const auto &[value, name] : errno_names)
        if (value == error)
            return name;
    return "EIO"; // some drivers return what is no errno
}

std::vector<std::string> list_directory(const std::string &path, const std::string &pattern)
{
    std::vector<std::string> names;
    const unique_directory directory{opendir(path.c_str())};
    if (!directory) {
        perror(path.c_str());
        return {};
    }
    while (const char *name = next_entry(directory.get(), ENTRY_ANY | ENTRY_DOTTED))
        if (fnmatch(pattern.c_str(), name, FNM_EXTMATCH) == 0)
            names.emplace_back(name);
    std::erase(names, ".");
    std::erase(names, "..");
    return names;
}

int main(int count, char **words)
{
    const char *to = "standard output";
    for (int at = 1; at < count; at++) {
        const std::string word = words[at];
        if (word == "--mask") {
            masking = true;
        } else if (word != "-o" || at + 1 == count) {
            const bool asked = word == "--help" || word == "-h";
            fputs(help, asked ? stdout : stderr);
            return asked ? 0 : 2;
        } else if (to = words[++at]; !freopen(to, "we", stdout)) {
            perror(to);
            return 1;
        }
    }
    // Written at once in the end, so that a failure to write is told by its own errno.
    FILE *const output = stdout;
    char *text = nullptr;
    size_t size = 0;
    if (!(stdout = open_memstream(&text, &size))) {
        perror("record-host");
        return 1;
    }
    printf("=== # Written by record-host%s.\n=== [time]\nnow %ld\n", masking ? " --mask" : "",
           static_cast<long>(time(nullptr)));
    for (const std::string path : wanted)
        record_tree(path.substr(0, path.find('/', 1)), path.substr(path.find('/', 1)));
    record_interfaces();
    record_switch();
    record_firmware();
    record_controller();
    record_hypervisor();
    if (const char *log = conn_get()->logmsg)
        fputs(log, stderr);
    conn_free(conn_get());
    if (fclose(stdout) != 0 || fwrite(text, 1, size, output) != size || fclose(output) != 0) {
        perror(to);
        return 1;
    }
    return 0;
}

// Records what the module reads of this host: options, masks and the files below /proc and /sys.
#include "record_host.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fnmatch.h>
#include <map>
#include <regex.h>
#include <set>
#include <sys/stat.h>

#include "agent_handles.h"

using namespace zorvik;

bool masking = false;

namespace
{

constexpr char help[] =
    "Usage: record-host [--mask] [-o FILE]\n"
    "Writes a recording of this host: all that the discovery module reads of it, as text. Needs\n"
    "root for the firmware, the management controller and the hypervisor; what cannot be read is\n"
    "told on standard error.\n\n"
    "  --mask   put stand-ins for serial numbers, UUIDs, hardware and IPv4 addresses; the names "
    "of\n"
    "           processes and interfaces stay\n"
    "  -o FILE  write to FILE rather than to standard output\n\n"
    "Example: record a server, then see elsewhere what the module tells of it:\n"
    "  sudo build/record-host --mask -o /tmp/server\n"
    "  tools/zorvik-report --host /tmp/server hardware\n";

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
    "/sys/module/openvswitch_mod",
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
        printf("=== %s %s=%s\n", path.c_str(), file ? "read" : "open", error_name(error));
        return;
    }
    if (masking && path.find("/phys_") != std::string::npos) // an address without its colons
        std::replace_if(content.begin(), content.end(), isxdigit, '0');
    const bool cut = !content.empty() && content.back() != '\n';
    content = mask_text(content) + (cut ? "\n" : "");
    printf("=== %s%s\n", path.c_str(), cut ? " noeol" : "");
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
        printf("=== %s -> %.*s\n", path.c_str(), static_cast<int>(length), target);
    if ((!rest.empty() && stat(path.c_str(), &status) != 0) || !S_ISDIR(status.st_mode))
        return;
    const size_t end = std::min(rest.find('/', 1), rest.size());
    if (end > 0)
        for (const std::string &name : list_directory(path, rest.substr(1, end - 1)))
            record_tree(std::string(path).append("/").append(name), rest.substr(end));
    if (populated.insert(path).second)
        printf("=== %s/\n", path.c_str());
}

/** The stand-in of an address or identifier; one that many hosts share stays. */
std::string stand_in(std::string value)
{
    static std::map<std::string, size_t> numbers;
    std::string key = value;
    const bool dotted = key.find('.') != std::string::npos;
    if (!dotted)
        std::erase(key, ':');
    std::transform(key.begin(), key.end(), key.begin(), tolower);
    const auto begins = [&](const char *start) { return has_prefix(key.c_str(), start); };
    if (key.find_first_not_of(key[0]) == std::string::npos || begins("0.") || begins("127.") ||
        begins("255."))
        return value;
    const size_t number = numbers.try_emplace(key, numbers.size() + 1).first->second;
    if (dotted)
        return format("198.18.%zu.%zu", number / 256 % 256, number % 256);
    // Locally administered, and for a UUID no pattern that counts as none.
    const std::string digits = format("da%0*zx", static_cast<int>(key.size()) - 2, number);
    size_t at = 0;
    for (char &digit : value)
        if (digit != ':')
            digit = digits[at++];
    return value;
}

} // namespace

std::string mask_text(const std::string &text)
{
    static const regex_t addresses = [] {
        regex_t compiled;
        regcomp(&compiled,
                "\\b(([0-9]{1,3}\\.){3}[0-9]{1,3}|([0-9a-f]{4}:){7}[0-9a-f]{4}|"
                "([0-9a-f]{2}:){3,}[0-9a-f]{2})\\b",
                REG_EXTENDED | REG_ICASE);
        return compiled;
    }();
    if (!masking)
        return text;
    std::string masked;
    const char *start = text.c_str();
    const auto size = static_cast<regoff_t>(text.size());
    regoff_t at = 0;
    for (regmatch_t match = {0, size}; regexec(&addresses, start, 1, &match, REG_STARTEND) == 0;
         match = {at, size}) {
        masked.append(start + at, start + match.rm_so);
        masked += stand_in(std::string(start + match.rm_so, start + match.rm_eo));
        at = match.rm_eo;
    }
    return masked.append(text, static_cast<size_t>(at));
}

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
    const char *name = strerrorname_np(error);
    return name ? name : "EIO"; // some drivers return what is no errno
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
    for (int at = 1; at < count; at++) {
        const std::string word = words[at];
        if (word == "--mask") {
            masking = true;
        } else if (word != "-o" || at + 1 == count) {
            fputs(help, word == "--help" ? stdout : stderr);
            return word == "--help" ? 0 : 2;
        } else if (!freopen(words[++at], "we", stdout)) {
            perror(words[at]);
            return 1;
        }
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
    const bool failed = ferror(stdout) || fclose(stdout) != 0;
    if (failed)
        perror("record-host");
    return failed ? 1 : 0;
}

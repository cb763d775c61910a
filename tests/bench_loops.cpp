// The bare loops that the reports are measured against: the system calls that the work cannot do
// without, and nothing else. A shared library, so that loop and report take turns in one process.
// Preloaded, it is also a hypervisor's library that costs nothing, with 1,000 or more domains.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <initializer_list>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <unistd.h>

extern "C" {

#include <xenctrl.h>
}

#define LOOP extern "C" __attribute__((visibility("default")))

namespace
{

/** Reads a file below an open directory, to its end or once. */
void read_file(int directory, const char *name, bool to_end = true)
{
    const int fd = openat(directory, name, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    char chunk[1024];
    while (read(fd, chunk, sizeof chunk) > 0 && to_end) {
    }
    close(fd);
}

DIR *open_directory(int below, const char *name)
{
    const int fd = openat(below, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return fd < 0 ? nullptr : fdopendir(fd);
}

/** Calls `visit` with every entry of a type, but "." and "..". */
template <typename Visit> void for_each_entry(DIR *directory, unsigned char type, Visit visit)
{
    if (!directory)
        return;
    while (const struct dirent *entry = readdir(directory))
        if (entry->d_type == type && entry->d_name[0] != '.')
            visit(dirfd(directory), entry->d_name);
    closedir(directory);
}

struct joined_t {
    char text[300];

    joined_t(const char *name, const char *rest) { stpcpy(stpcpy(text, name), rest); }
};

int ask(int socket, const char *name, unsigned long request)
{
    struct ifreq question = {};
    memccpy(question.ifr_name, name, '\0', IFNAMSIZ - 1);
    return ioctl(socket, request, &question);
}

} // namespace

/** Lists every interface's directory and reads every attribute of it to its end. */
LOOP void loop_network()
{
    for_each_entry(opendir("/sys/class/net"), DT_LNK, [](int net, const char *name) {
        for_each_entry(open_directory(net, name), DT_REG,
                       [](int device, const char *file) { read_file(device, file); });
    });
}

/** Reads every process's stat file, once. */
LOOP void loop_processes()
{
    for_each_entry(opendir("/proc"), DT_DIR, [](int proc, const char *name) {
        if (name[0] >= '0' && name[0] <= '9')
            read_file(proc, joined_t(name, "/stat").text, false);
    });
}

/** Finds the bridges, lists their ports and asks for their addresses; looks through all again. */
LOOP void loop_bridges()
{
    for_each_entry(opendir("/sys/class/net"), DT_LNK, [](int net, const char *name) {
        if (faccessat(net, joined_t(name, "/bridge").text, F_OK, 0) != 0)
            return;
        for_each_entry(open_directory(net, joined_t(name, "/brif").text), DT_LNK,
                       [](int, const char *) {});
        const int queries = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        read_file(net, joined_t(name, "/address").text, false);
        ask(queries, name, SIOCGIFADDR);
        close(queries);
    });
    for_each_entry(opendir("/sys/class/net"), DT_DIR, [](int, const char *) {});
}

/** Reads the four counters of every interface that is a directory and no bridge. */
LOOP void loop_traffic()
{
    for_each_entry(opendir("/sys/class/net"), DT_DIR, [](int net, const char *name) {
        if (faccessat(net, joined_t(name, "/bridge").text, F_OK, 0) == 0)
            return;
        DIR *statistics = open_directory(net, joined_t(name, "/statistics").text);
        for (const char *file : {"rx_packets", "rx_bytes", "tx_packets", "tx_bytes"})
            read_file(dirfd(statistics), file, false);
        closedir(statistics);
    });
}

/** Reads the kernel's table of devices and asks for each one's addresses. */
LOOP void loop_devices()
{
    const int queries = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    FILE *table = fopen("/proc/net/dev", "re");
    char line[256], name[256];
    while (table && fgets(line, sizeof line, table))
        if (sscanf(line, " %255[^: ]:", name) == 1 && ask(queries, name, SIOCGIFHWADDR) == 0)
            ask(queries, name, SIOCGIFADDR);
    if (table)
        fclose(table);
    close(queries);
}

struct xc_interface_core {
};

static xc_interface_core the_hypervisor;

LOOP xc_interface *xc_interface_open(xentoollog_logger *, xentoollog_logger *, unsigned)
{
    return &the_hypervisor;
}

LOOP int xc_interface_close(xc_interface *)
{
    return 0;
}

static bool has_domain(uint32_t id)
{
    static const uint32_t domains =
        getenv("DOMAINS") ? static_cast<uint32_t>(atoi(getenv("DOMAINS"))) : 0;
    return id < domains;
}

#ifdef ZORVIK_HAVE_DOMAIN_GETINFO
LOOP int xc_domain_getinfo(xc_interface *, uint32_t first, unsigned int, xc_dominfo_t *info)
{
    *info = {};
    info->domid = first;
    info->nr_pages = 131072;
    info->max_memkb = 524288;
    info->cpu_time = 123456789 * uint64_t{first};
    return has_domain(first) ? 1 : -1;
}
#endif

LOOP int xc_domain_getinfolist(xc_interface *, uint32_t first, unsigned int, xc_domaininfo_t *info)
{
    *info = {};
    info->domain = static_cast<domid_t>(first);
    info->tot_pages = info->max_pages = 131072;
    info->cpu_time = 123456789 * uint64_t{first};
    return has_domain(first);
}

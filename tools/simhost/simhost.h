/**
 * A simulated host. Linked ahead of libc, or preloaded, it answers the system calls below /proc and
 * /sys, of /dev/mem and of the network devices from a recorded host.
 *
 * A recording is a text file of headings, each with its content in the lines below:
 *   === /PATH [noeol] [open=ERRNO] [read=ERRNO]   a file, or how opening or reading it fails
 *   === /PATH hex [@ADDRESS]                      bytes: hex pairs and "strings", # comments
 *   === /PATH/                                    a directory, needed only where it is empty, or
 *                                                 what the link at /PATH leads to
 *   === /PATH -> TARGET                           a link
 *   === [SECTION]                                 lines of "key value"; !ERRNO: the request fails
 *   === # anything                                a comment
 * The sections:
 *   [interface NAME]   a network device: hwaddr, address, netmask, broadcast, flags, mtu;
 *                      mii (16 hex words, the registers from 0), mii_phy and mii_N (only to fail),
 *                      mii_first (hex, the first read of register 1); glink, gset (SUPPORTED
 *                      ADVERTISING in hex, SPEED DUPLEX AUTONEG), glinksettings (the same and the
 *                      WORDS of a mask; 0: another number each time), gwol
 *   [hypervisor]       physical information by its C names, hw_cap (8 hex words), scheduler ID,
 *                      and open, physinfo and getinfo with !ERRNO; without it, opening fails
 *   [domain ID]        a domain: handle UUID, state WORDS, credit and credit2 WEIGHT CAP, sedf
 *                      PERIOD SLICE LATENCY EXTRATIME WEIGHT, rtds PERIOD BUDGET, and the numbers
 *                      of its record
 *   [ipmi]             what the controller replies to a request NETFN.COMMAND.DATA…, in hex bytes,
 *                      or behind "silence", "late", "endless" (replies to the request before),
 *                      "eintr", "eintr2", "pollerr", "nosend=ERRNO", "norecv=ERRNO" and "empty"; it
 *                      answers other requests by a code of c1
 *   [time]             now SECONDS, and step SECONDS: what each time() call adds for the next one
 * The file /usr/bin/ovs-vsctl is a /bin/sh script, which a real child process runs; or what it
 * prints, behind a first line "#output".
 * Directory entries are yielded in the order of the recording.
 */
#pragma once

#include <cstddef>
#include <dlfcn.h>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

extern "C" {

/** Reads a recorded host; calls are answered from it until simhost_unload(). Returns 0 or an errno.
 */
int simhost_load(const char *recording);
void simhost_unload();

/** Adds a file to the host, or replaces one. */
void simhost_put(const char *path, const void *content, size_t size);

} // extern "C"

namespace simhost
{

struct node_t {
    enum { file, directory, link } kind = directory;
    std::string content; // of a file; the target of a link
    std::map<unsigned long, std::string> memory;
    std::vector<std::string> names;
    int open_error = 0;
    int read_error = 0;
};

/** What becomes of a call; one that fails has errno set. */
enum class outcome { normal, failed, cut, ended };

struct host_t {
    bool loaded = false;
    int times_told = 0; // how often time() was called
    /** Decides on every call of a libc function, by its name and the path it has; null lets all be
     * normal. */
    outcome (*plan)(const char *call, const std::string &path) = nullptr;
    std::unordered_map<std::string, node_t> nodes; // by their paths, links resolved
    std::map<std::string, std::map<std::string, std::string>> sections;
};

host_t &host();

/** Whether the host answers for the path, rather than this machine. */
bool served(std::string_view path);

/** Finds what stands at a path. Returns null and sets errno when nothing does. */
node_t *find(const std::string &path, bool follow, std::string *canonical = nullptr);

/** The errno value of a name like "EACCES". */
int error_number(const std::string &name);

/** The value of `key` in a section, or null with errno set to what it says or else to `missing`. */
const char *answer(const std::string &section, const char *key, int missing);

/** What the host's plan makes of a call. */
outcome plan(const char *call, const std::string &path = "");

struct open_file_t {
    int fd;
    std::string path;
    const node_t *node; // null once its host is gone
    size_t at;
};

/** What the host has open at a descriptor, or null. */
open_file_t *opened(int fd);

/** A descriptor that is the kernel's; what is read from it is the recording's. */
int open_node(const node_t &node, const std::string &path, int flags);

/** Takes the loaded host from what is open: it cannot be read any more. */
void forget_nodes();

/** The IPMI device: whether a descriptor is one, and the answer to a request on it. */
bool is_ipmi(int fd);
int ipmi_ioctl(unsigned long request, void *argument);

/** Drops a reply that nobody has waited for, as the driver does when its device is closed. */
void ipmi_close();

template <typename Function> Function *real(const char *name, Function *)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace simhost

/** The libc function behind the one that the host puts in its place. */
#define REAL(name) simhost::real(#name, &name)

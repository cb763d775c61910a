/**
 * What only the config_network files share.
 */
#pragma once

#include <net/if.h>

#include "agent_handles.h"
#include "config_network.h"

namespace zorvik
{

/** The kernel's interface entries. Most paths below it are built with "%s/%s", a doubled slash. */
inline constexpr char net_class[] = "/sys/class/net/";

/** What all blocks of IPv4 addresses begin with. */
inline constexpr char family_start[] = "Family Type=\"AF_INET\"";

/** An interface request for `name`, cut to what the kernel takes; the rest is zero. */
struct ifreq interface_request(const char *name);

/** Opens the socket that interface requests go over. Returns -1 with errno set on failure. */
int open_query_socket();

/** Logs that `function` could not open a socket because of the errno value `error`. Returns
 * `error`. */
int error_unable_to_open_socket(const char *function, int error);

/**
 * Asks the kernel one question about the device `name`. Returns whether it was answered; a failure
 * is only worth a debug line of `function`, that it could not get `what`.
 */
bool query_device(const char *function, int fd, unsigned long request, const char *name,
                  const char *what, struct ifreq *answer);

/** The six address bytes of a SIOCGIFHWADDR answer as upper-case hex pairs joined by colons. */
struct mac_text_t {
    char text[18];
};
mac_text_t format_mac(const struct ifreq &answer);

/**
 * Writes the IPv4 address of an answer as dotted decimal into `text`, a buffer of `size` bytes.
 * Returns whether that worked; a failure is logged in the name of `function`.
 */
bool format_inet(const struct ifreq &answer, char *text, socklen_t size, const char *function);

/** 1 if `devName` is a device to report, else 0. */
int check_real_device(const char *devName);

/** 1 if one of the virtual-NIC drivers lists the device, else 0. */
int check_vantix_device(const char *devName);

/** 1 if the device is an InfiniBand interface, else 0. */
int infiniband_device(const char *devName);

/** Links `eth` behind the last entry whose name is not greater. */
void insert_device_sorted(eth_header_t *hdr, eth_device_t *eth);

/**
 * Copies the kernel's text of a device's hardware address into `mac`, a buffer of `mac_size` bytes.
 * Returns 1, or 0 when there is none.
 */
int get_device_mac_addr(const char *dev_name, char *mac, int mac_size);

/**
 * Writes the Family element of an interface, `indent` blanks deep: its hardware address, its MTU if
 * `mtu` is not 0, and its IPv4 addresses. Returns 0, or the errno of a socket that did not open.
 */
int show_addr_info(int indent, const char *name, int mtu);

/**
 * Writes the MII element of a device from its PHY's registers (IEEE 802.3, clause 22).
 * Returns 0; or, with nothing written, ENODEV or another errno when there are none to be had, and
 * EINVAL when they are not to be trusted; or the error of an append.
 */
int show_dev_mii_info(int indent, const char *devName);

/**
 * Writes the ETHTOOL element of a device from its driver's settings.
 * Returns 0, EINVAL, ENODEV when the driver does not say, -1 without a socket, or the error of an
 * append.
 */
int show_dev_ethtool_info(int indent, const char *devName);

/** Writes the WOL element of a device, what wakes it up. */
void show_dev_ethtool_wol(int indent, const char *devName);

/** When a switch's tool that is started now for all bridges is to be through with them, in
 * milliseconds of the monotonic clock: in 5 seconds. */
int64_t switch_tool_deadline();

/**
 * Has the switch's tool list a bridge's ports into `text`, a buffer of `size` bytes, as much of it
 * as one read gives. Returns 0, the errno of a failed pipe or fork, or -1 when the tool failed or
 * had not ended by the deadline. Where the host process leaves no status of the tool, because its
 * children are reaped by others, a text or the end of the output tells a tool that worked.
 */
int list_switch_ports(const char *bridge, int64_t deadline, char *text, size_t size);

/** How a sysfs attribute is read and reported. */
struct attribute_kind_t {
    const char *function; // whose name the log lines bear
    int missing;          // the errno of an open that, like EACCES, is not worth a log line
    size_t chunk;         // bytes read at once, at most 1024; each chunk loses its trailing blanks
    const char *(*text)(const char *chunk); // the part of a chunk that is reported
};

/** A chunk as it is. */
inline const char *whole_chunk(const char *chunk)
{
    return chunk;
}

/** Writes the file at `path` as one element, unescaped; one that cannot be opened is left out. */
void send_attribute(const attribute_kind_t &kind, const char *path, const char *element,
                    int indent);

/**
 * Writes the counters of one interface as a Device of the status document, in the minimal form.
 * Returns 0, EINVAL, the errno of statistics that cannot be opened, or the error of an append.
 */
int show_dev_stats(int indent, const char *name, int onlyMinimum);

} // namespace zorvik

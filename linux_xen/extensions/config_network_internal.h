/**
 * What only the config_network files share.
 */
#pragma once

#include <net/if.h>

#include "agent_handles.h"
#include "config_network.h"

/** The kernel's interface entries. Paths below it are built with "%s/%s", a doubled slash. */
inline constexpr char net_class[] = "/sys/class/net/";

/** An interface request for `name`, cut to what the kernel takes; the rest is zero. */
struct ifreq interface_request(const char *name);

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

/** Logs that `function` could not open a socket because of the errno value `error`. Returns
 * `error`. */
int error_unable_to_open_socket(const char *function, int error);

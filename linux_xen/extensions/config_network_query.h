/**
 * Questions to the kernel about network interfaces: ioctl requests on a socket (netdevice(7)).
 */
#pragma once

#include <net/if.h>
#include <sys/socket.h>

namespace zorvik
{

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

} // namespace zorvik

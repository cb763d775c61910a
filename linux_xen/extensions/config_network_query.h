/**
 * Questions to the kernel about network interfaces: ioctl requests on a socket (netdevice(7)).
 */
#pragma once

#include <net/if.h>
#include <netinet/in.h>

#include "agent_handles.h"

namespace zorvik
{

/** An interface request for `name`, cut to what the kernel takes; the rest is zero. */
struct ifreq interface_request(const char *name);

struct mac_text_t {
    char text[18];
};

struct inet_text_t {
    char text[INET_ADDRSTRLEN];
};

/** The socket that interface requests go over, and the last answer. */
struct query_socket_t {
    unique_fd socket;
    int error; // of the failed open, else 0
    struct ifreq answer = {};

    query_socket_t();

    /** Puts an ioctl request about the device `name`. Returns 0 with its answer, or an errno. */
    int ask(const char *name, unsigned long request);

    /**
     * Puts another request with what the last answer says. Returns 0 with its answer, or an errno.
     */
    int ask_again(unsigned long request);

    /** Puts an ethtool command; the answer comes in its place. Returns 0 or an errno. */
    int ethtool(const char *name, void *command);

    /** The answer to SIOCGIFHWADDR: six bytes as upper-case hex pairs joined by colons. */
    mac_text_t mac() const;

    /** The IPv4 address of an answer as dotted decimal. */
    inet_text_t inet() const;
};

/**
 * Asks about a device in the name of `log_name`. Returns whether it was answered; a failure is only
 * worth a debug line, that the device's `what` could not be had.
 */
bool query_device(const char *log_name, query_socket_t &queries, const char *name,
                  unsigned long request, const char *what);

} // namespace zorvik

// Questions to the kernel about network interfaces.
#include "config_network_query.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include "agent_common.h"

namespace zorvik
{

struct ifreq interface_request(const char *name)
{
    struct ifreq request = {};
    memcpy(request.ifr_name, name, strnlen(name, sizeof request.ifr_name - 1));
    return request;
}

int open_query_socket()
{
    return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

int error_unable_to_open_socket(const char *function, int error)
{
    error_errno(function, error, "unable to open socket");
    return error;
}

bool query_device(const char *function, int fd, unsigned long request, const char *name,
                  const char *what, struct ifreq *answer)
{
    *answer = interface_request(name);
    if (ioctl(fd, request, answer) >= 0)
        return true;
    debug_errno(1, function, errno, "Failed to get device '%s' %s", name, what);
    return false;
}

mac_text_t format_mac(const struct ifreq &answer)
{
    unsigned char bytes[6];
    memcpy(bytes, answer.ifr_hwaddr.sa_data, sizeof bytes);
    mac_text_t mac;
    snprintf(mac.text, sizeof mac.text, "%02X:%02X:%02X:%02X:%02X:%02X", bytes[0], bytes[1],
             bytes[2], bytes[3], bytes[4], bytes[5]);
    return mac;
}

bool format_inet(const struct ifreq &answer, char *text, socklen_t size, const char *function)
{
    struct sockaddr_in address;
    memcpy(&address, &answer.ifr_addr, sizeof address);
    if (inet_ntop(AF_INET, &address.sin_addr, text, size))
        return true;
    error_errno(function, errno, "inet_ntop failed");
    return false;
}

} // namespace zorvik

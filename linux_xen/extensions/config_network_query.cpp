// Questions to the kernel about network interfaces.
#include "config_network_query.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "agent_common.h"

namespace zorvik
{

struct ifreq interface_request(const char *name)
{
    struct ifreq request = {};
    memcpy(request.ifr_name, name, strnlen(name, sizeof request.ifr_name - 1));
    return request;
}

query_socket_t::query_socket_t()
    : socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), error(socket ? 0 : errno)
{
}

int query_socket_t::ask(const char *name, unsigned long request)
{
    answer = interface_request(name);
    return ask_again(request);
}

int query_socket_t::ask_again(unsigned long request)
{
    return ioctl(socket.fd, request, &answer) >= 0 ? 0 : errno;
}

int query_socket_t::ethtool(const char *name, void *command)
{
    answer = interface_request(name);
    answer.ifr_data = static_cast<char *>(command);
    return ask_again(SIOCETHTOOL);
}

mac_text_t query_socket_t::mac() const
{
    unsigned char bytes[6];
    memcpy(bytes, answer.ifr_hwaddr.sa_data, sizeof bytes);
    mac_text_t mac;
    snprintf(mac.text, sizeof mac.text, "%02X:%02X:%02X:%02X:%02X:%02X", bytes[0], bytes[1],
             bytes[2], bytes[3], bytes[4], bytes[5]);
    return mac;
}

inet_text_t query_socket_t::inet() const
{
    struct sockaddr_in address;
    memcpy(&address, &answer.ifr_addr, sizeof address);
    inet_text_t inet;
    inet_ntop(AF_INET, &address.sin_addr, inet.text, sizeof inet.text);
    return inet;
}

bool query_device(const char *log_name, query_socket_t &queries, const char *name,
                  unsigned long request, const char *what)
{
    const int error = queries.ask(name, request);
    if (error)
        debug_errno(1, log_name, error, "Failed to get device '%s' %s", name, what);
    return error == 0;
}

} // namespace zorvik

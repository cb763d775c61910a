#include "simhost.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

using namespace simhost;

namespace
{

int answer_hwaddr(const char *value, struct ifreq *request)
{
    auto *bytes = reinterpret_cast<unsigned char *>(request->ifr_hwaddr.sa_data);
    for (int i = 0; i < 6; i++)
        bytes[i] = static_cast<unsigned char>(strtol(value + 3 * i, nullptr, 16));
    return 0;
}

int answer_inet(const char *value, struct ifreq *request)
{
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, value, &address.sin_addr);
    memcpy(&request->ifr_addr, &address, sizeof address);
    return 0;
}

/** The requests to a network device: the key of the answer in its section, and the errno without
 * one. */
struct device_request_t {
    unsigned long request;
    const char *key;
    int missing;
    int (*fill)(const char *value, struct ifreq *request);
};

constexpr device_request_t device_requests[] = {
    {SIOCGIFHWADDR, "hwaddr", ENODEV, answer_hwaddr},
    {SIOCGIFADDR, "address", EADDRNOTAVAIL, answer_inet},
    {SIOCGIFBRDADDR, "broadcast", EADDRNOTAVAIL, answer_inet},
    {SIOCGIFNETMASK, "netmask", EADDRNOTAVAIL, answer_inet},
};

int answer_device(const device_request_t &row, struct ifreq *request)
{
    if (plan("ioctl") == outcome::failed)
        return -1;
    const std::string name(request->ifr_name, strnlen(request->ifr_name, IFNAMSIZ));
    const char *value = answer("interface " + name, row.key, row.missing);
    return value ? row.fill(value, request) : -1;
}

} // namespace

extern "C" {

int socket(int domain, int type, int protocol)
{
    if (domain == AF_INET && plan("socket") == outcome::failed)
        return -1;
    return REAL(socket)(domain, type, protocol);
}

int ioctl(int fd, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    if (is_ipmi(fd))
        return ipmi_ioctl(request, argument);
    if (host().loaded)
        for (const device_request_t &row : device_requests)
            if (row.request == request)
                return answer_device(row, static_cast<struct ifreq *>(argument));
    return REAL(ioctl)(fd, request, argument);
}

} // extern "C"

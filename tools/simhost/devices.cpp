#include "simhost.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/ethtool.h>
#include <linux/mii.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "interface_requests.h"

using namespace simhost;

namespace
{

std::string section_of(const struct ifreq &request)
{
    return "interface " + std::string(request.ifr_name, strnlen(request.ifr_name, IFNAMSIZ));
}

int answer_hwaddr(const char *value, struct ifreq *request)
{
    auto *bytes = reinterpret_cast<unsigned char *>(request->ifr_hwaddr.sa_data);
    for (size_t i = 0; i < 6; i++) {
        char *end = nullptr;
        bytes[i] = static_cast<unsigned char>(strtol(value, &end, 16));
        value = *end ? end + 1 : end;
    }
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

template <typename Number> int answer_number(const char *value, struct ifreq *request)
{
    const Number number = static_cast<Number>(strtol(value, nullptr, 0));
    memcpy(&request->ifr_ifru, &number, sizeof number);
    return 0;
}

/** The first read of the status register may have an answer of its own. */
bool status_unread = false;

/** Whether a key that need not be there makes the request fail. */
bool fails(const std::string &section, const std::string &key)
{
    return !answer(section, key.c_str(), 0) && errno != 0;
}

int answer_mii_phy(const char *, struct ifreq *request)
{
    status_unread = true;
    return fails(section_of(*request), "mii_phy") ? -1 : 0;
}

int answer_mii_register(const char *value, struct ifreq *request)
{
    struct mii_ioctl_data data;
    memcpy(&data, &request->ifr_ifru, sizeof data);
    const std::string section = section_of(*request);
    if (fails(section, "mii_" + std::to_string(data.reg_num)))
        return -1;
    std::istringstream words{value};
    for (int word = 0; word <= data.reg_num; word++)
        words >> std::hex >> data.val_out;
    if (data.reg_num == MII_BMSR && status_unread) {
        status_unread = false;
        if (const char *first = answer(section, "mii_first", 0))
            data.val_out = static_cast<uint16_t>(strtoul(first, nullptr, 16));
    }
    memcpy(&request->ifr_ifru, &data, sizeof data);
    return 0;
}

template <typename Command, auto Member>
int answer_ethtool(const char *value, struct ifreq *request)
{
    reinterpret_cast<Command *>(request->ifr_data)->*Member =
        static_cast<uint32_t>(strtoul(value, nullptr, 0));
    return 0;
}

int answer_settings(const char *value, struct ifreq *request)
{
    auto *settings = reinterpret_cast<struct ethtool_cmd *>(request->ifr_data);
    uint32_t speed = 0;
    sscanf(value, "%x %x %u %hhu %hhu", &settings->supported, &settings->advertising, &speed,
           &settings->duplex, &settings->autoneg);
    ethtool_cmd_speed_set(settings, speed);
    return 0;
}

/** The kernel tells the size of its masks, and answers who asks with that size. */
int answer_link_settings(const char *value, struct ifreq *request)
{
    auto *link = reinterpret_cast<struct ethtool_link_settings *>(request->ifr_data);
    uint32_t supported = 0, advertising = 0;
    static int8_t changing = 0;
    int words = 0;
    uint32_t speed = 0;
    uint8_t duplex = 0, autoneg = 0;
    sscanf(value, "%x %x %u %hhu %hhu %d", &supported, &advertising, &speed, &duplex, &autoneg,
           &words);
    if (words == 0)
        words = 1 + changing++ % 64;
    if (link->link_mode_masks_nwords != words) {
        link->link_mode_masks_nwords = static_cast<int8_t>(-words);
        return 0;
    }
    link->speed = speed;
    link->duplex = duplex;
    link->autoneg = autoneg;
    link->link_mode_masks[0] = supported;
    link->link_mode_masks[words] = advertising;
    return 0;
}

/** A request to a network device, and what fills in its answer from the recorded one. */
struct device_request_t {
    interface_request_t asked;
    int (*fill)(const char *value, struct ifreq *request);
};

constexpr device_request_t device_requests[] = {
    {hwaddr_request, answer_hwaddr},
    {address_request, answer_inet},
    {broadcast_request, answer_inet},
    {netmask_request, answer_inet},
    {flags_request, answer_number<short>},
    {mtu_request, answer_number<int>},
    {mii_request, answer_mii_phy},
    {{"mii", SIOCGMIIREG, 0, EOPNOTSUPP}, answer_mii_register},
    {glink_request, answer_ethtool<ethtool_value, &ethtool_value::data>},
    {gset_request, answer_settings},
    {link_settings_request, answer_link_settings},
    {gwol_request, answer_ethtool<ethtool_wolinfo, &ethtool_wolinfo::wolopts>},
};

bool matches(const device_request_t &row, unsigned long request, const void *argument)
{
    return row.asked.request == request &&
           (request != SIOCETHTOOL ||
            *reinterpret_cast<const uint32_t *>(
                static_cast<const struct ifreq *>(argument)->ifr_data) == row.asked.command);
}

int answer_device(const device_request_t &row, struct ifreq *request)
{
    if (plan("ioctl") == outcome::failed)
        return -1;
    const char *value = answer(section_of(*request), row.asked.key, row.asked.missing);
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
            if (matches(row, request, argument))
                return answer_device(row, static_cast<struct ifreq *>(argument));
    return REAL(ioctl)(fd, request, argument);
}

} // extern "C"

/**
 * What is asked of a network device, in the recorder and in the simulated host: a recording keeps
 * each answer under a key.
 */
#pragma once

#include <cerrno>
#include <cstdint>
#include <linux/ethtool.h>
#include <linux/sockios.h>

/** A request, and the errno that goes without saying where a device does not answer it. */
struct interface_request_t {
    const char *key;
    unsigned long request;
    uint32_t command; // of SIOCETHTOOL
    int missing;
};

inline constexpr interface_request_t hwaddr_request = {"hwaddr", SIOCGIFHWADDR, 0, ENODEV};
inline constexpr interface_request_t address_request = {"address", SIOCGIFADDR, 0, EADDRNOTAVAIL};
inline constexpr interface_request_t netmask_request = {"netmask", SIOCGIFNETMASK, 0,
                                                        EADDRNOTAVAIL};
inline constexpr interface_request_t broadcast_request = {"broadcast", SIOCGIFBRDADDR, 0,
                                                          EADDRNOTAVAIL};
inline constexpr interface_request_t flags_request = {"flags", SIOCGIFFLAGS, 0, ENODEV};
inline constexpr interface_request_t mtu_request = {"mtu", SIOCGIFMTU, 0, ENODEV};
inline constexpr interface_request_t mii_request = {"mii", SIOCGMIIPHY, 0, EOPNOTSUPP};
inline constexpr interface_request_t glink_request = {"glink", SIOCETHTOOL, ETHTOOL_GLINK,
                                                      EOPNOTSUPP};
inline constexpr interface_request_t gset_request = {"gset", SIOCETHTOOL, ETHTOOL_GSET, EOPNOTSUPP};
inline constexpr interface_request_t link_settings_request = {"glinksettings", SIOCETHTOOL,
                                                              ETHTOOL_GLINKSETTINGS, EOPNOTSUPP};
inline constexpr interface_request_t gwol_request = {"gwol", SIOCETHTOOL, ETHTOOL_GWOL, EOPNOTSUPP};

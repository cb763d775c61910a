// The ETHTOOL and WOL elements: what a device's driver says (linux/ethtool.h).
#include <cerrno>
#include <cstdio>
#include <linux/ethtool.h>

#include "agent_common.h"
#include "config_network_internal.h"
#include "config_network_link.h"
#include "config_network_query.h"

namespace zorvik
{

namespace
{

constexpr mode_name_t ethtool_modes[] = {
    {"10baseT-HD ", ADVERTISED_10baseT_Half},       {"10baseT-FD ", ADVERTISED_10baseT_Full},
    {"100baseT-HD ", ADVERTISED_100baseT_Half},     {"100baseT-FD ", ADVERTISED_100baseT_Full},
    {"1000baseT-HD ", ADVERTISED_1000baseT_Half},   {"1000baseT-FD ", ADVERTISED_1000baseT_Full},
    {"10000baseT-FD ", ADVERTISED_10000baseT_Full},
};

struct wol_name_t {
    uint32_t options;
    const char *text;
};

// One option at a time: no combination has a name.
constexpr wol_name_t wol_names[] = {{0, "disabled"},
                                    {WAKE_PHY, "phyActivity"},
                                    {WAKE_UCAST, "unicast"},
                                    {WAKE_MCAST, "multicast"},
                                    {WAKE_BCAST, "broadcast"},
                                    {WAKE_ARP, "ARP"},
                                    {WAKE_MAGIC, "MagicPacket"},
                                    {WAKE_MAGICSECURE, "secure"}};

mode_list_t ethtool_mode_string(uint32_t modes)
{
    return list_modes(ethtool_modes, modes);
}

/** What stands in an ETHTOOL element. Returns 0 or the error of an append. */
int send_ethtool_details(int indent, const struct ethtool_cmd &settings, bool up)
{
    const char *state = "Off";
    if (settings.autoneg & 1)
        state = up ? "Complete" : "Incomplete";
    char speed[16];
    snprintf(speed, sizeof speed, "%dbaseT-%sD", settings.speed, settings.duplex ? "F" : "H");
    if (const int status = send_link(indent, state, speed, up))
        return status;
    if (const int status = conn_send_XML_string("Capabilities", indent,
                                                ethtool_mode_string(settings.supported).text))
        return status;
    return conn_send_XML_string("Advertising", indent,
                                ethtool_mode_string(settings.advertising).text);
}

} // namespace

int show_dev_ethtool_info(query_socket_t &queries, int indent, const char *devName)
{
    if (!devName)
        return error_invalid_arguments(__func__);
    struct ethtool_value link = {};
    link.cmd = ETHTOOL_GLINK;
    struct ethtool_cmd settings = {};
    settings.cmd = ETHTOOL_GSET;
    const struct {
        const char *name;
        void *command;
    } questions[] = {{"ETHTOOL_GLINK", &link}, {"ETHTOOL_GSET", &settings}};
    for (const auto &question : questions) {
        if (queries.ethtool(devName, question.command) == 0)
            continue;
        debug_at(1, "%% %s: device '%s' %s failed\n", __func__, devName, question.name);
        return ENODEV;
    }
    if (const int status = conn_send_start("ETHTOOL", indent))
        return status;
    if (const int status = send_ethtool_details(indent + 2, settings, link.data != 0))
        return status;
    return conn_send_end("ETHTOOL", indent);
}

void show_dev_ethtool_wol(query_socket_t &queries, int indent, const char *devName)
{
    struct ethtool_wolinfo wake = {};
    wake.cmd = ETHTOOL_GWOL;
    const bool known = queries.ethtool(devName, &wake) == 0;
    if (!known)
        debug_at(1, "WOL IS NOT Supported on device %s\n", devName);
    const char *text = "NotSupported";
    for (const wol_name_t &row : wol_names)
        if (known && row.options == wake.wolopts)
            text = row.text;
    if (conn_send_start("WOL", indent) != 0)
        return;
    if (conn_send_lines(512, indent + 2, "<WakeOnLan>%s</WakeOnLan>\n", text) == 0)
        conn_send_end("WOL", indent);
}

} // namespace zorvik

// The ETHTOOL and WOL elements: what a device's driver says (linux/ethtool.h).
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <linux/ethtool.h>

#include "agent_common.h"
#include "agent_sources.h"
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

/** What a driver says of a link. */
struct link_settings_t {
    uint32_t supported, advertising;
    uint32_t speed; // in Mb/s
    uint8_t duplex, autoneg;
    bool is_told;
};

// What the older record has for a speed that is not known, or does not fit.
constexpr uint32_t old_unknown_speed = UINT16_MAX;

/** Reads the settings in the older record. Returns ENODATA when that is not all there is to tell. */
int read_settings(query_socket_t *queries, const char *devName, link_settings_t *settings)
{
    struct ethtool_cmd command = {};
    command.cmd = ETHTOOL_GSET;
    if (const int error = queries->ethtool(devName, &command))
        return error;
    *settings = {command.supported, command.advertising, ethtool_cmd_speed(&command),
                 command.duplex,    command.autoneg,     true};
    const bool has_speed = command.speed != old_unknown_speed && command.speed_hi == 0;
    return has_speed && command.duplex != DUPLEX_UNKNOWN ? 0 : ENODATA;
}

/**
 * Reads the settings in the record that has room for any speed, from Linux 4.6 on. The kernel
 * first tells how many words a mask of link modes has; the question is then put with that number.
 */
int read_link_settings(query_socket_t *queries, const char *devName, link_settings_t *settings)
{
    constexpr int most_questions = 4;
    constexpr size_t masks = sizeof(struct ethtool_link_settings) / sizeof(uint32_t);
    struct ethtool_link_settings link = {};
    for (int question = 0; question < most_questions; question++) {
        const int words = std::max(-link.link_mode_masks_nwords, 0);
        uint32_t command[masks + size_t{3} * (INT8_MAX + 1)] = {};
        link = {};
        link.cmd = ETHTOOL_GLINKSETTINGS;
        link.link_mode_masks_nwords = static_cast<int8_t>(std::min(words, INT8_MAX));
        memcpy(command, &link, sizeof link);
        if (const int error = queries->ethtool(devName, command))
            return error;
        memcpy(&link, command, sizeof link);
        if (words == 0 || link.link_mode_masks_nwords != words)
            continue;
        *settings = {command[masks], command[masks + static_cast<size_t>(words)],
                     link.speed,     link.duplex,
                     link.autoneg,   true};
        return 0;
    }
    error_print("? %s: the size of device '%s' link modes keeps changing\n", __func__, devName);
    return EPROTO;
}

constexpr source_t<query_socket_t *, const char *, link_settings_t *> settings_sources[] = {
    {read_settings, CLASSIC},
    {read_link_settings, CURRENT},
};

struct speed_text_t {
    char text[24];
};

/** The speed as far as the older record has it; a duplex mode that is not known counts as full. */
speed_text_t old_speed(const link_settings_t &settings)
{
    speed_text_t speed;
    snprintf(speed.text, sizeof speed.text, "%ubaseT-%sD", settings.speed & old_unknown_speed,
             settings.duplex ? "F" : "H");
    return speed;
}

speed_text_t whole_speed(const link_settings_t &settings)
{
    const bool is_known = settings.speed != static_cast<uint32_t>(SPEED_UNKNOWN) &&
                          settings.speed != old_unknown_speed;
    speed_text_t speed = {"Unknown"};
    if (is_known && settings.duplex != DUPLEX_UNKNOWN)
        snprintf(speed.text, sizeof speed.text, "%ubaseT-%sD", settings.speed,
                 settings.duplex ? "F" : "H");
    return speed;
}

struct speed_form_t {
    speed_text_t (*write)(const link_settings_t &settings);
    source_age age;
};

constexpr speed_form_t speed_forms[] = {{old_speed, CLASSIC}, {whole_speed, CURRENT}};

/** What stands in an ETHTOOL element. Returns 0 or the error of an append. */
int send_ethtool_details(int indent, const link_settings_t &settings, bool up)
{
    const char *state = "Off";
    if (settings.autoneg & 1)
        state = up ? "Complete" : "Incomplete";
    const speed_text_t speed = newest_asked(speed_forms).write(settings);
    if (const int status = send_link(indent, state, speed.text, up))
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
    link_settings_t settings = {};
    const char *failed = queries.ethtool(devName, &link) ? "ETHTOOL_GLINK" : nullptr;
    if (!failed && ask_sources(settings_sources, &queries, devName, &settings) != 0)
        failed = settings.is_told ? nullptr : "ETHTOOL_GSET";
    if (failed) {
        debug_at(1, "%% %s: device '%s' %s failed\n", __func__, devName, failed);
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

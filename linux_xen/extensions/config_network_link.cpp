// What the physical layer of a device knows: by MII, by ethtool, and what wakes it up.
#include <cerrno>
#include <cstring>
#include <linux/ethtool.h>
#include <linux/mii.h>
#include <linux/sockios.h>
#include <span>
#include <sys/ioctl.h>

#include "agent_common.h"
#include "agent_handles.h"
#include "agent_text.h"
#include "config_network_internal.h"
#include "config_network_query.h"

namespace zorvik
{

namespace
{

/** One row of a list of modes. Every text ends with what separates it from the next. */
struct mode_name_t {
    const char *text;
    uint32_t bit;
};

using mode_table_t = std::span<const mode_name_t>;

constexpr mode_name_t ethtool_modes[] = {
    {"10baseT-HD ", ADVERTISED_10baseT_Half},       {"10baseT-FD ", ADVERTISED_10baseT_Full},
    {"100baseT-HD ", ADVERTISED_100baseT_Half},     {"100baseT-FD ", ADVERTISED_100baseT_Full},
    {"1000baseT-HD ", ADVERTISED_1000baseT_Half},   {"1000baseT-FD ", ADVERTISED_1000baseT_Full},
    {"10000baseT-FD ", ADVERTISED_10000baseT_Full},
};

// The registers of a PHY, IEEE 802.3 clause 22.2.4.
constexpr mode_name_t estatus_modes[] = {{"1000baseT-FD ", ESTATUS_1000_TFULL},
                                         {"1000baseT-HD ", ESTATUS_1000_THALF}};
constexpr mode_name_t bmsr_modes[] = {
    {"100baseT-FD ", BMSR_100FULL},  {"100baseT-HD ", BMSR_100HALF},
    {"100base-4k ", BMSR_100BASE4},  {"100base2-FD ", BMSR_100FULL2},
    {"100base2-HD ", BMSR_100HALF2}, {"10baseT-FD ", BMSR_10FULL},
    {"10baseT-HD ", BMSR_10HALF},
};
constexpr mode_name_t ctrl1000_modes[] = {{"1000baseT-FD ", ADVERTISE_1000FULL},
                                          {"1000baseT-HD ", ADVERTISE_1000HALF}};
constexpr mode_name_t stat1000_modes[] = {{"1000baseT-FD ", LPA_1000FULL},
                                          {"1000baseT-HD ", LPA_1000HALF}};
// The same bits in what this side advertises and in what the partner is able to do.
constexpr mode_name_t ability_modes[] = {{"100baseT-FD ", LPA_100FULL},
                                         {"100baseT-HD ", LPA_100HALF},
                                         {"10baseT-FD ", LPA_10FULL},
                                         {"10baseT-HD ", LPA_10HALF}};
constexpr mode_name_t control_modes[] = {{"software reset, ", BMCR_RESET},
                                         {"loopback, ", BMCR_LOOPBACK},
                                         {"isolate, ", BMCR_ISOLATE},
                                         {"collision test, ", BMCR_CTST}};

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

struct mode_list_t {
    char text[128] = "";
};

void add_modes(mode_list_t *list, mode_table_t table, uint32_t bits)
{
    for (const mode_name_t &row : table)
        if (bits & row.bit)
            strlcat(list->text, row.text, sizeof list->text);
}

/** The names of one register's bits behind those of another's, without the last blank. */
mode_list_t list_modes(mode_table_t first, uint32_t first_bits, mode_table_t second = {},
                       uint32_t second_bits = 0)
{
    mode_list_t list;
    add_modes(&list, first, first_bits);
    add_modes(&list, second, second_bits);
    if (const size_t length = strlen(list.text))
        list.text[length - 1] = '\0';
    return list;
}

mode_list_t mii_cap_string(unsigned int bmsr, unsigned int estatus)
{
    return list_modes(estatus_modes, bmsr & BMSR_ESTATEN ? estatus : 0, bmsr_modes, bmsr);
}

mode_list_t mii_advert_string(unsigned int advert, unsigned int advert2)
{
    return list_modes(ctrl1000_modes, advert2, ability_modes, advert);
}

mode_list_t mii_lpa_string(unsigned int lpa, unsigned int lpa2)
{
    return list_modes(stat1000_modes, lpa2, ability_modes, lpa);
}

mode_list_t mii_control_string(unsigned int bmcr)
{
    mode_list_t list;
    add_modes(&list, control_modes, bmcr);
    return list;
}

mode_list_t mii_status_string(unsigned int bmcr, unsigned int bmsr)
{
    mode_list_t list;
    if (bmsr & BMSR_ANEGCOMPLETE)
        strlcat(list.text, "autonegotiation complete ", sizeof list.text);
    else if (bmcr & BMCR_ANRESTART)
        strlcat(list.text, "autonegotiation restarted ", sizeof list.text);
    if (bmsr & BMSR_RFAULT)
        strlcat(list.text, "remote fault", sizeof list.text);
    return list;
}

mode_list_t ethtool_mode_string(uint32_t modes)
{
    return list_modes(ethtool_modes, modes);
}

/** Reads one register of the PHY that `request` was answered about. Returns 0 or an errno. */
int read_mii_register(int fd, const char *devName, struct ifreq *request, int number,
                      uint16_t *value)
{
    struct mii_ioctl_data data;
    memcpy(&data, &request->ifr_ifru, sizeof data);
    data.reg_num = static_cast<uint16_t>(number);
    memcpy(&request->ifr_ifru, &data, sizeof data);
    if (ioctl(fd, SIOCGMIIREG, request) < 0) {
        const int error = errno;
        debug_at(3, "? %s: SIOCGMIIREG for register %d on '%s' failed, errno %d (%s)\n",
                 "get_mii_regs", number, devName, error, strerror(error));
        return error;
    }
    memcpy(&data, &request->ifr_ifru, sizeof data);
    *value = data.val_out;
    return 0;
}

/** Reads a PHY's registers 0 to `maxReg` - 1. Returns 0 or an errno. */
int get_mii_regs(const char *devName, uint16_t *mii_regs, int maxReg)
{
    const unique_fd queries{open_query_socket()};
    if (!queries)
        return error_errno(__func__, errno, "failed to open socket");
    struct ifreq request = interface_request(devName);
    if (ioctl(queries.fd, SIOCGMIIPHY, &request) < 0) {
        const int error = errno;
        if (error != ENODEV)
            debug_errno(3, __func__, error, "SIOCGMIIPHY on '%s' failed", devName);
        return error;
    }
    // Some bits of the status register hold what happened since it was last read: it is read twice.
    uint16_t past = 0;
    int status = read_mii_register(queries.fd, devName, &request, MII_BMSR, &past);
    for (int number = 0; status == 0 && number < maxReg; number++)
        status = read_mii_register(queries.fd, devName, &request, number, &mii_regs[number]);
    return status;
}

/** The best of the abilities that both sides have. */
unsigned int mii_nway_result(unsigned int negotiated)
{
    for (const unsigned int mode :
         std::initializer_list<unsigned int>{LPA_100FULL, LPA_100BASE4, LPA_100HALF, LPA_10FULL})
        if (negotiated & mode)
            return mode;
    return LPA_10HALF;
}

struct link_mode_t {
    const char *state;
    const char *speed; // null when it is not known
    bool full_duplex;
};

link_mode_t forced_mode(unsigned int bmcr)
{
    const char *speed = "10";
    if ((bmcr & (BMCR_SPEED1000 | BMCR_SPEED100)) == BMCR_SPEED1000)
        speed = "1000";
    else if (bmcr & BMCR_SPEED100)
        speed = "100";
    return {"Off", speed, (bmcr & BMCR_FULLDPLX) != 0};
}

link_mode_t negotiated_mode(const uint16_t *regs)
{
    const unsigned int lpa = regs[MII_LPA];
    const unsigned int common = regs[MII_ADVERTISE] & lpa;
    if (common == 0)
        return {"Failed", nullptr, false};
    const unsigned int best = mii_nway_result(common);
    const unsigned int gigabit = regs[MII_STAT1000];
    const char *speed = "10";
    if (gigabit & (LPA_1000FULL | LPA_1000HALF))
        speed = "1000";
    else if (best == LPA_100FULL || best == LPA_100HALF)
        speed = "100";
    return {lpa & LPA_LPACK ? "Complete" : "Incomplete", speed,
            (gigabit & LPA_1000FULL) || best == LPA_100FULL || best == LPA_10FULL};
}

link_mode_t mii_link_mode(const uint16_t *regs)
{
    if (!(regs[MII_BMCR] & BMCR_ANENABLE))
        return forced_mode(regs[MII_BMCR]);
    if (!(regs[MII_BMSR] & BMSR_ANEGCOMPLETE))
        return {regs[MII_BMCR] & BMCR_ANRESTART ? "Restarted" : "", nullptr, false};
    return negotiated_mode(regs);
}

/** Writes how the link came about, and whether it is there; an empty `speed` is left out. */
int send_link(int indent, const char *state, const char *speed, bool up)
{
    int status = conn_send_lines(512, indent,
                                 "<Autonegotiate>\n"
                                 "  <State>%s</State>\n",
                                 state);
    if (status == 0 && speed[0])
        status = conn_send_XML_string("Speed", indent + 2, speed);
    if (status == 0)
        status = conn_send_end("Autonegotiate", indent);
    if (status == 0)
        status = conn_send_XML_string("Link", indent, up ? "ok" : "none");
    return status;
}

/** Writes who made the PHY: its maker's OUI, model and revision. */
int send_product(int indent, unsigned int id1, unsigned int id2)
{
    return conn_send_lines(512, indent,
                           "<Product>\n"
                           "  <Vendor>%02x:%02x:%02x</Vendor>\n"
                           "  <Model>%d</Model>\n"
                           "  <Revision>%d</Revision>\n"
                           "</Product>\n",
                           id1 >> 10, id1 >> 2 & 0xFF, (id1 << 6 | id2 >> 10) & 0xFF,
                           static_cast<int>(id2 >> 4 & 0x3F), static_cast<int>(id2 & 0x0F));
}

/** What stands in an MII element. Returns the result of the first append that failed, or 0. */
int send_mii_details(int indent, const uint16_t *regs)
{
    const unsigned int bmcr = regs[MII_BMCR];
    const unsigned int bmsr = regs[MII_BMSR];
    const unsigned int lpa = regs[MII_LPA];
    constexpr unsigned int lpa_modes = LPA_100FULL | LPA_100BASE4 | LPA_100HALF | LPA_10FULL;
    const mode_list_t control = mii_control_string(bmcr);
    const mode_list_t progress = mii_status_string(bmcr, bmsr);
    const struct {
        const char *element;
        mode_list_t list;
        bool wanted;
    } lists[] = {
        {"ModeControl", control, control.text[0] != '\0'},
        {"Status", progress, progress.text[0] != '\0'},
        {"Capabilities", mii_cap_string(bmsr, regs[MII_ESTATUS]), true},
        {"Advertising", mii_advert_string(regs[MII_ADVERTISE], regs[MII_CTRL1000]), true},
        {"LinkPartner", mii_lpa_string(lpa, regs[MII_STAT1000]), (lpa & lpa_modes) != 0},
    };
    const link_mode_t mode = mii_link_mode(regs);
    char speed[16] = "";
    if (mode.speed)
        snprintf(speed, sizeof speed, "%sbaseT-%sD", mode.speed, mode.full_duplex ? "F" : "H");

    int status = send_link(indent, mode.state, speed, bmsr & BMSR_LSTATUS);
    if (status == 0)
        status = send_product(indent, regs[MII_PHYSID1], regs[MII_PHYSID2]);
    for (const auto &row : lists)
        if (status == 0 && row.wanted)
            status = conn_send_XML_string(row.element, indent, row.list.text);
    return status;
}

/** Puts an ethtool command to a device's driver; the answer comes in its place. */
bool ask_ethtool(int fd, const char *devName, void *command)
{
    struct ifreq request = interface_request(devName);
    request.ifr_data = static_cast<char *>(command);
    return ioctl(fd, SIOCETHTOOL, &request) >= 0;
}

int send_ethtool_details(int indent, const struct ethtool_cmd &settings, bool up)
{
    const char *state = "Off";
    if (settings.autoneg & 1)
        state = up ? "Complete" : "Incomplete";
    char speed[16];
    snprintf(speed, sizeof speed, "%dbaseT-%sD", settings.speed, settings.duplex ? "F" : "H");
    int status = send_link(indent, state, speed, up);
    if (status == 0)
        status = conn_send_XML_string("Capabilities", indent,
                                      ethtool_mode_string(settings.supported).text);
    if (status == 0)
        status = conn_send_XML_string("Advertising", indent,
                                      ethtool_mode_string(settings.advertising).text);
    return status;
}

} // namespace

int show_dev_mii_info(int indent, const char *devName)
{
    if (!devName)
        return error_invalid_arguments(__func__);
    uint16_t regs[16] = {};
    if (const int status = get_mii_regs(devName, regs, std::size(regs)))
        return status;
    const unsigned int bmcr = regs[MII_BMCR];
    if (bmcr == 0xFFFF) {
        debug_at(1, "%% %s: device '%s' has no MII\n", __func__, devName);
        return ENODEV;
    }
    // A gigabit PHY that is through with its negotiation but knows no gigabit partner is not to be
    // trusted.
    if ((bmcr & BMCR_ANENABLE) && (bmcr & BMCR_SPEED1000) && (regs[MII_BMSR] & BMSR_ANEGCOMPLETE) &&
        regs[MII_STAT1000] == 0)
        return EINVAL;
    int status = conn_send_start("MII", indent);
    if (status == 0)
        status = send_mii_details(indent + 2, regs);
    if (status == 0)
        status = conn_send_end("MII", indent);
    return status;
}

int show_dev_ethtool_info(int indent, const char *devName)
{
    if (!devName)
        return error_invalid_arguments(__func__);
    const unique_fd queries{open_query_socket()};
    if (!queries) {
        error_print("? %s: socket error\n", __func__);
        return -1;
    }
    struct ethtool_value link = {};
    link.cmd = ETHTOOL_GLINK;
    struct ethtool_cmd settings = {};
    settings.cmd = ETHTOOL_GSET;
    const struct {
        const char *name;
        void *command;
    } questions[] = {{"ETHTOOL_GLINK", &link}, {"ETHTOOL_GSET", &settings}};
    for (const auto &question : questions) {
        if (ask_ethtool(queries.fd, devName, question.command))
            continue;
        debug_at(1, "%% %s: device '%s' %s failed\n", __func__, devName, question.name);
        return ENODEV;
    }
    int status = conn_send_start("ETHTOOL", indent);
    if (status == 0)
        status = send_ethtool_details(indent + 2, settings, link.data != 0);
    if (status == 0)
        status = conn_send_end("ETHTOOL", indent);
    return status;
}

void show_dev_ethtool_wol(int indent, const char *devName)
{
    const unique_fd queries{open_query_socket()};
    if (!queries) {
        error_print("? %s: socket error\n", __func__);
        return;
    }
    struct ethtool_wolinfo wake = {};
    wake.cmd = ETHTOOL_GWOL;
    const bool known = ask_ethtool(queries.fd, devName, &wake);
    if (!known)
        debug_at(1, "WOL IS NOT Supported on device %s\n", devName);
    const char *text = "NotSupported";
    for (const wol_name_t &row : wol_names)
        if (known && row.options == wake.wolopts)
            text = row.text;
    int status = conn_send_start("WOL", indent);
    if (status == 0)
        status = conn_send_lines(512, indent + 2, "<WakeOnLan>%s</WakeOnLan>\n", text);
    if (status == 0)
        conn_send_end("WOL", indent);
}

} // namespace zorvik

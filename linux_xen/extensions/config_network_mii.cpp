// The MII element: what the registers of a device's PHY say (IEEE 802.3, clause 22).
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <linux/mii.h>
#include <linux/sockios.h>

#include "agent_common.h"
#include "agent_sources.h"
#include "agent_text.h"
#include "config_network_internal.h"
#include "config_network_link.h"
#include "config_network_query.h"

namespace zorvik
{

namespace
{

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

/** Reads one register of the PHY that was last answered about. Returns 0 or an errno. */
int read_mii_register(query_socket_t &queries, const char *devName, int number, uint16_t *value)
{
    struct mii_ioctl_data data;
    memcpy(&data, &queries.answer.ifr_ifru, sizeof data);
    data.reg_num = static_cast<uint16_t>(number);
    memcpy(&queries.answer.ifr_ifru, &data, sizeof data);
    if (const int error = queries.ask_again(SIOCGMIIREG)) {
        debug_at(3, "? %s: SIOCGMIIREG for register %d on '%s' failed, errno %d (%s)\n",
                 "get_mii_regs", number, devName, error, strerror(error));
        return error;
    }
    memcpy(&data, &queries.answer.ifr_ifru, sizeof data);
    *value = data.val_out;
    return 0;
}

/** How many of a PHY's registers have to be readable; one behind them counts as 0 if it is not. */
struct needed_registers_t {
    int count;
    source_age age;
};

// IEEE 802.3 has those of the basic set and of negotiation; what stands behind is up to the maker.
constexpr needed_registers_t needed_registers[] = {{16, CLASSIC}, {7, CURRENT}};

/** Reads a PHY's registers 0 to `maxReg` - 1. Returns 0 or an errno. */
int get_mii_regs(query_socket_t &queries, const char *devName, uint16_t *mii_regs, int maxReg)
{
    if (const int error = queries.ask(devName, SIOCGMIIPHY)) {
        if (error != ENODEV)
            debug_errno(3, __func__, error, "SIOCGMIIPHY on '%s' failed", devName);
        return error;
    }
    // Some bits of the status register hold what happened since it was last read: it is read twice.
    uint16_t past = 0;
    int status = read_mii_register(queries, devName, MII_BMSR, &past);
    const int needed = newest_asked(needed_registers).count;
    for (int number = 0; status == 0 && number < maxReg; number++) {
        status = read_mii_register(queries, devName, number, &mii_regs[number]);
        if (status != 0 && number >= needed)
            status = mii_regs[number] = 0;
    }
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

    if (const int status = send_link(indent, mode.state, speed, bmsr & BMSR_LSTATUS))
        return status;
    if (const int status = send_product(indent, regs[MII_PHYSID1], regs[MII_PHYSID2]))
        return status;
    for (const auto &row : lists)
        if (row.wanted)
            if (const int status = conn_send_XML_string(row.element, indent, row.list.text))
                return status;
    return 0;
}

} // namespace

int show_dev_mii_info(query_socket_t &queries, int indent, const char *devName)
{
    if (!devName)
        return error_invalid_arguments(__func__);
    uint16_t regs[16] = {};
    if (const int status = get_mii_regs(queries, devName, regs, std::size(regs)))
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
    if (const int status = conn_send_start("MII", indent))
        return status;
    if (const int status = send_mii_details(indent + 2, regs))
        return status;
    return conn_send_end("MII", indent);
}

} // namespace zorvik

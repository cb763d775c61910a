// Records the answers of network devices and of the switch's tool.
#include "record_host.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <fcntl.h>
#include <linux/ethtool.h>
#include <linux/mii.h>
#include <linux/sockios.h>
#include <sstream>
#include <sys/ioctl.h>

#include "agent_common.h"
#include "agent_files.h"
#include "agent_handles.h"
#include "config_network_internal.h"
#include "config_network_query.h"
#include "config_network_sysfs.h"
#include "interface_requests.h"

using namespace zorvik;

namespace
{

/** The socket with the answer to a request, and what an ethtool command was answered with. */
struct exchange_t {
    query_socket_t queries;
    union {
        uint32_t command;
        struct ethtool_value value;
        struct ethtool_cmd settings;
        struct ethtool_wolinfo wake;
        uint32_t room[sizeof(struct ethtool_link_settings) / sizeof(uint32_t) + size_t{3} * 128];
    } ethtool;
};

std::string inet_address(exchange_t &to)
{
    return mask_text(to.queries.inet().text);
}

/** The registers of the PHY that was answered about; the status register is read twice. */
std::string mii_registers(exchange_t &to)
{
    std::string words, refused;
    uint16_t first = 0;
    struct mii_ioctl_data data;
    for (int number = -1; number < 16; number++) {
        memcpy(&data, &to.queries.answer.ifr_ifru, sizeof data);
        data.reg_num = static_cast<uint16_t>(number < 0 ? MII_BMSR : number);
        memcpy(&to.queries.answer.ifr_ifru, &data, sizeof data);
        if (const int error = to.queries.ask_again(SIOCGMIIREG)) {
            refused += format("\nmii_%d !%s", data.reg_num, error_name(error));
            data.val_out = 0;
        } else {
            memcpy(&data, &to.queries.answer.ifr_ifru, sizeof data);
        }
        if (number < 0)
            first = data.val_out;
        else
            words += format("%04x ", data.val_out);
    }
    return words + format("\nmii_first %04x", first) + refused;
}

/** The settings in the newer record, for which the size is asked that was answered first. */
std::string link_settings(exchange_t &to)
{
    auto &link = *reinterpret_cast<struct ethtool_link_settings *>(to.ethtool.room);
    const int words = -link.link_mode_masks_nwords;
    link.cmd = ETHTOOL_GLINKSETTINGS;
    link.link_mode_masks_nwords = static_cast<int8_t>(words);
    if (words <= 0 || to.queries.ask_again(SIOCETHTOOL) || link.link_mode_masks_nwords != words)
        return format("!%s", error_name(EPROTO));
    return format("%x %x %u %u %u %d", link.link_mode_masks[0], link.link_mode_masks[words],
                  link.speed, link.duplex, link.autoneg, words);
}

/** A question to a network device, and how its answer is written. */
struct question_t {
    interface_request_t asked;
    std::string (*text)(exchange_t &to);
};

constexpr question_t questions[] = {
    {hwaddr_request, [](exchange_t &to) { return mask_text(to.queries.mac().text); }},
    {address_request, inet_address},
    {netmask_request, inet_address},
    {broadcast_request, inet_address},
    {flags_request, [](exchange_t &to) { return format("0x%hx", to.queries.answer.ifr_flags); }},
    {mtu_request, [](exchange_t &to) { return format("%d", to.queries.answer.ifr_mtu); }},
    {mii_request, mii_registers},
    {glink_request, [](exchange_t &to) { return format("%u", to.ethtool.value.data); }},
    {gset_request,
     [](exchange_t &to) {
         const struct ethtool_cmd &settings = to.ethtool.settings;
         return format("%x %x %u %u %u", settings.supported, settings.advertising,
                       ethtool_cmd_speed(&settings), settings.duplex, settings.autoneg);
     }},
    {link_settings_request, link_settings},
    {gwol_request, [](exchange_t &to) { return format("0x%x", to.ethtool.wake.wolopts); }},
};

} // namespace

const std::set<std::string> &interface_names()
{
    static const std::set<std::string> names = [] {
        const std::vector<std::string> listed = list_directory(net_class, "*");
        std::set<std::string> found{listed.begin(), listed.end()};
        const unique_stream table{fopen("/proc/net/dev", "re")};
        char line[256];
        while (table && fgets(line, sizeof line, table.get()))
            if (char *colon = strchr(line, ':'))
                found.insert(std::string(line + strspn(line, " "), colon));
        return found;
    }();
    return names;
}

void record_interfaces()
{
    exchange_t exchange = {};
    for (const std::string &name : interface_names()) {
        printf("=== [interface %s]\n", mask_name(name).c_str());
        for (const question_t &question : questions) {
            exchange.ethtool = {.command = question.asked.command};
            const int error = question.asked.request == SIOCETHTOOL
                                  ? exchange.queries.ethtool(name.c_str(), &exchange.ethtool)
                                  : exchange.queries.ask(name.c_str(), question.asked.request);
            if (error == 0)
                printf("%s %s\n", question.asked.key, question.text(exchange).c_str());
            else if (error != question.asked.missing)
                printf("%s !%s\n", question.asked.key, error_name(error));
        }
    }
}

/** A shell's command on one line that prints the lines of a text, none of which it looks into. */
std::string print_command(std::string text)
{
    std::replace(text.begin(), text.end(), '\0', '?');
    std::erase(text, '\''); // stands in no name
    std::string words;
    std::istringstream lines{text};
    for (std::string line; std::getline(lines, line);)
        words += " '" + mask_name(line) + "'";
    return words.empty() ? ":" : "printf '%s\\n'" + words;
}

void record_switch()
{
    const bool is_old = path_exists("/sys/module/openvswitch_mod");
    if ((!is_old && !path_exists("/sys/module/openvswitch")) || !path_exists("/usr/bin/ovs-vsctl"))
        return;
    unique_text text;
    size_t length = 0;
    const int failed = list_switch_bridges(switch_tool_deadline(), &text, &length);
    const std::string listed = failed ? "" : std::string(text.get(), length);
    printf("=== /usr/bin/ovs-vsctl\ncase \"$1 $2\" in\n'list-br ') %s; exit %d;;\n",
           print_command(listed).c_str(), failed ? 1 : 0);
    std::set<std::string> names;
    for (const std::string &name : list_directory(net_class, "*"))
        if (is_old && path_exists(path_t<512>("%s%s/bridge", net_class, name.c_str()).text))
            names.insert(name);
    std::istringstream lines{listed};
    for (std::string name; std::getline(lines, name);)
        if (name.find_first_of(std::string_view{"'\0", 2}) == name.npos)
            names.insert(name);
    for (const std::string &name : names) {
        char ports[1024 + 1] = "";
        const int status =
            list_switch_ports(name.c_str(), switch_tool_deadline(), ports, sizeof ports);
        const char *const end = strrchr(ports, '\n');
        const std::string listed_ports{static_cast<const char *>(ports),
                                       end ? end : ports}; // behind them nothing is reported
        printf("'list-ports %s') %s; exit %d;;\n", mask_name(name).c_str(),
               print_command(listed_ports).c_str(), status ? 1 : 0);
    }
    printf("*) exit 1;;\nesac\n");
}

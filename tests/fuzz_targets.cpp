// What the fuzz targets run: an input takes the place of what the firmware, the caller, the kernel,
// a tool or the controller says on a recorded host, or is a recorded host, and what reads it is run.
#include "fuzz.h"

#include <algorithm>
#include <cstring>
#include <sstream>

#include "agent_discover.h"
#include "agent_discover_internal.h"
#include "agent_status.h"
#include "config_ipmi.h"
#include "config_network.h"
#include "config_scsi.h"
#include "recorded.h"

using simhost::host;

namespace
{

/** Runs a report on a recorded host, which is read once and then `kept`. */
void on_host(simhost::host_t &kept, const std::string &name, const std::function<void()> &report)
{
    std::swap(kept, host());
    if (!host().loaded)
        simhost_load((HOSTS "/" + name + "/host").c_str());
    report();
    std::swap(kept, host());
}

// Low memory: an entry point, of which the last byte belongs to nobody, and the table. Two bits of
// that byte: do not put the checksums right, which mutations miss; the table can only be mapped.
constexpr size_t entry_bytes = sizeof(smbios_entry_point_t);
// Three more: only the kernel shows the table; it comes 64 times; its entry point stays 32-bit.
constexpr int as_it_is = 1, unreadable = 2, kernels_alone = 4, repeated = 8, narrow = 16;

/** Puts the table where the kernel shows it, behind a 64-bit entry point or the one there is. */
size_t put_kernel_table(std::string entry, std::string table, int control)
{
    if (!(control & (as_it_is | narrow))) {
        auto &smb = *reinterpret_cast<smbios3_entry_point_t *>(entry.data());
        entry.replace(0, 5, "_SM3_");
        smb.length = sizeof smb;
        smb.cksum = static_cast<uint8_t>(smb.cksum - verify_cksum(&smb, sizeof smb));
    }
    for (int doubled = 0; (control & repeated) && doubled < 6; doubled++)
        table += table;
    simhost_put("/sys/firmware/dmi/tables/smbios_entry_point", entry.data(), entry.size());
    simhost_put("/sys/firmware/dmi/tables/DMI", table.data(), table.size());
    return table.size();
}

void run_memory(std::string input)
{
    input.resize(std::max(input.size(), entry_bytes));
    const int control = input[entry_bytes - 1];
    auto &smb = *reinterpret_cast<smbios_entry_point_t *>(input.data());
    const bool legacy = input[1] == 'D';
    auto &dmi = legacy ? *reinterpret_cast<dmi_entry_point_t *>(&smb) : smb.dmi;
    dmi.length = static_cast<uint16_t>(std::min<size_t>(dmi.length, input.size() - entry_bytes));
    if (!(control & as_it_is)) {
        input.replace(0, legacy ? 5 : 4, legacy ? "_DMI_" : "_SM_");
        dmi.cksum = static_cast<uint8_t>(dmi.cksum - verify_cksum(&dmi, sizeof dmi - 1));
        const int whole = std::min<int>(smb.length, entry_bytes);
        if (!legacy)
            smb.cksum = static_cast<uint8_t>(smb.cksum - verify_cksum(&smb, whole));
    }
    simhost_put("/dev/mem", "", 0);
    auto &memory = host().nodes["/dev/mem"].memory;
    if (!(control & kernels_alone)) {
        memory[dmi.address] = input.substr(entry_bytes);
        memory[0xF0000] = input.substr(0, entry_bytes);
    }
    const size_t shown =
        put_kernel_table(input.substr(0, entry_bytes), input.substr(entry_bytes), control);

    const auto plan_faults = [&] {
        if (control & unreadable)
            simhost_fail("read", 3, EPERM, 2);
    };
    plan_faults();
    unsigned char *table = nullptr;
    smbios_entry_point_t found = {};
    int length = 0;
    if (get_smbios_structures(&found, &table, &length, nullptr) == 0)
        free(table);
    plan_faults();
    require(agent_unique_id(new_conn()) != 0 || strlen(the_connection.response) == 47);
    conn_free(&the_connection);
    plan_faults();
    show_smbios_info(0, 1);
    require_parsed();
    // A byte is dumped, and stands in each of five children as an entity at the most; a structure
    // has two bytes at the least and costs the tags of itself and its children.
    const size_t structures =
        std::min<size_t>(found.dmi.items, static_cast<size_t>(length) / 2 + 1);
    const size_t most = global_source_state && !table
                            ? 32 * shown + 384 * (shown / 2 + 1)
                            : 32 * static_cast<size_t>(length) + 384 * structures;
    require(response().size() < 512 + most);
}

void run_command(std::string input)
{
    static simhost::host_t kept;
    on_host(kept, "commands", [&] {
        if (agent_status(new_conn(), input.c_str()) == 0)
            require_parsed();
    });
}

void network()
{
    agent_unique_id(new_conn());
    config_show_network(0);
}

/** What the document has of the kernel's text, whose markup breaks it unless it is escaped. */
enum use_of_text { BRACKETED, KEYS, AS_IT_IS, AS_NAMES };

struct text_t {
    const char *host;
    const char *path;
    void (*report)();
    use_of_text use = AS_IT_IS;
};

// The first one is the target "switch", the others are "text".
constexpr text_t texts[] = {
    {"rack-server", "/usr/bin/ovs-vsctl", [] { bridge_config(0); }},
    {"current-server", "/sys/devices/system/xen_memory/xen_memory0/target_kb",
     [] { send_memory_info(0); }},
    {"rack-server", "/proc/cpuinfo", [] { config_send_cpuinfo(0); }, KEYS},
    {"status-cut", "/proc/1/stat", [] { send_proc_info(0, "1"); }, BRACKETED},
    {"rack-server", "/proc/meminfo", [] { send_memory_info(0); }},
    {"rack-server", "/proc/xen/balloon", [] { send_memory_info(0); }},
    {"cards", "/proc/net/dev", network},
    {"cards", "/sys/class/net/eth2/address", network},
    {"cards", "/sys/class/net/eth2/type", network},
    {"net-bonds", "/proc/net/bonding/bond0", [] { bonding_discover(0); }, AS_NAMES},
    {"net-bonds", "/sys/class/net/bond0/bonding/mode", [] { bonding_discover(0); }},
    {"status-odd", "/sys/class/net/eth0/statistics/rx_bytes", [] { network_status(0, 1); }},
    {"rack-server", "/sys/class/fc_host/host3/statistics/rx_words", [] { scsi_status(0); }},
    {"net-infiniband", "/sys/class/net/ib0/device/infiniband/exhca0/ports/1/state",
     [] { infiniband_config(0); }},
};

/** Whether each line of a CPU list fits the reader's buffer and has a key that can be a name. */
bool are_keys(const std::string &text)
{
    std::istringstream lines{text};
    for (std::string line; std::getline(lines, line);) {
        const std::string key = line.substr(0, line.find_first_of("\t:"));
        const bool named = !key.empty() && isalpha(key[0]) &&
                           std::all_of(key.begin(), key.end(), [](unsigned char byte) {
                               return isalnum(byte) || strchr("_ ", byte);
                           });
        if (!line.empty() &&
            (line.size() > 510 || !named ||
             line.find_first_not_of("\t", key.size()) != line.find(':') ||
             (key.starts_with("processor") && line.find_first_of("<>&\"") != std::string::npos)))
            return false;
    }
    return true;
}

/** Whether a document stands this text: no kernel's has control characters or is so long. */
bool has_place(std::string text, use_of_text use)
{
    // A process's name goes to its first blank, with current sources to its last parenthesis.
    const auto is_escaped = [](char byte) {
        return byte && (strchr("<>&\"", byte) || (global_source_state && iscntrl(byte)));
    };
    const auto open = std::find(text.begin(), text.end(), '(');
    const auto close = std::find(text.rbegin(), text.rend(), ')').base();
    if (use == BRACKETED)
        std::replace_if(
            open,
            global_source_state && open < close ? close : std::find_if(open, text.end(), isspace),
            is_escaped, '_');
    size_t word = 0, longest = 0;
    for (const char byte : text)
        longest = std::max(longest, word = byte == ' ' || byte == '\n' ? 0 : word + 1);
    const size_t first_line = std::min(text.find('\n'), text.size());
    return use != AS_NAMES && (use != KEYS || are_keys(text)) && longest <= 64 &&
           (use != BRACKETED || text.size() < 512) && first_line <= 96 &&
           std::none_of(text.begin(), text.end(), [&](unsigned char byte) {
               return (byte < ' ' && (!byte || !strchr("\t\n\r", byte))) ||
                      (use != KEYS && strchr("<>&\"", byte));
           });
}

void run_row(size_t row, const std::string &content)
{
    static simhost::host_t kept[std::size(texts)];
    on_host(kept[row], texts[row].host, [&] {
        simhost_put("/sys/module/openvswitch_mod", "", 0);
        simhost_put(texts[row].path, content.data(), content.size());
        texts[row].report();
        if (has_place(content, texts[row].use))
            require_parsed();
    });
}

/** The first byte chooses the file. */
void run_text(std::string input)
{
    const auto choice = static_cast<unsigned char>(input[0]);
    run_row(1 + choice % (std::size(texts) - 1), input.substr(!input.empty()));
}

/** The requests to the controller, in the order of a report on 15 channels that are all LANs. */
std::vector<std::string> requests()
{
    std::vector<std::string> keys{"06.37"};
    for (int channel = 0; channel < 15; channel++)
        for (const auto &[command, rest] : {std::pair{"06.42.", ""},
                                            {"0c.02.", ".05.00.00"},
                                            {"0c.02.", ".04.00.00"},
                                            {"0c.02.", ".03.00.00"}})
            keys.emplace_back(
                path_t<32>("%s%02x%s", command, static_cast<unsigned>(channel), rest).text);
    return keys;
}

void run_ipmi(std::string input)
{
    constexpr char digits[] = "0123456789abcdef";
    static const std::vector<std::string> keys = requests();
    simhost_put("/dev/ipmi0", "", 0);
    const std::vector<std::string> replies = split_replies(input);
    for (size_t number = 0; number < keys.size(); number++) {
        std::string &reply = host().sections["ipmi"][keys[number]] = "empty";
        for (const char byte : number < replies.size() ? replies[number] : "")
            reply.append({' ', digits[byte >> 4 & 15], digits[byte & 15]});
    }
    config_show_ipmi(0);
    require_parsed();
}

/** A whole recorded host, on which everything is asked. Its switch's tool must not be a script. */
void run_recording(std::string input)
{
    FILE *const file = tmpfile();
    require(file != nullptr);
    fwrite(input.data(), 1, input.size(), file);
    fflush(file);
    simhost_load(path_t<32>("/proc/self/fd/%d", fileno(file)).text);
    fclose(file);
    const auto tool = host().nodes.find("/usr/bin/ovs-vsctl");
    if (tool != host().nodes.end())
        tool->second.content.insert(0, "#output\n");
    agent_unique_id(new_conn());
    conn_free(&the_connection);
    agent_discover_hardware(new_conn());
    conn_free(&the_connection);
    agent_discover_network(0);
    conn_free(&the_connection);
    agent_status(new_conn(), "Option: All Option: Dom_Info_Brief");
}

} // namespace

std::vector<std::string> split_replies(const std::string &input)
{
    std::vector<std::string> replies;
    for (size_t at = 0; at < input.size(); at += 1 + replies.back().size())
        replies.push_back(input.substr(at + 1, static_cast<unsigned char>(input[at])));
    return replies;
}

const std::vector<target_t> targets = {
    {"memory", run_memory},
    {"command", run_command},
    {"switch", [](std::string input) { run_row(0, "#output\n" + input); }},
    {"text", run_text},
    {"ipmi", run_ipmi},
    {"recording", run_recording},
};

// The fuzz targets. What an input stands for - firmware, a command, a file, the controller's
// replies - is put in the place of its like on a recorded host, and what reads it is run. With a
// main() of its own this replays the seeds, which it takes from the recorded hosts, and what once
// failed.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fnmatch.h>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <string_view>
#include <unistd.h>

#include "agent_discover.h"
#include "agent_discover_internal.h"
#include "agent_status.h"
#include "config_ipmi.h"
#include "config_network.h"
#include "config_scsi.h"
#include "recorded.h"

namespace
{

using simhost::host;
using use_seed = std::function<void(std::string)>;

/** Runs a report and ends its call. Its response has at most `most` characters. */
void check(size_t most, const std::function<void()> &report)
{
    report();
    if (the_connection.response && strlen(the_connection.response) > most)
        abort();
    conn_free(&the_connection);
}

constexpr size_t any_length = SIZE_MAX;

/** Puts a recorded host, which is read once and then `kept`, in the place of this one. */
struct stage_t {
    simhost::host_t &kept;

    stage_t(simhost::host_t &place, const char *name) : kept(place)
    {
        if (!kept.loaded) {
            simhost_load((HOSTS "/" + std::string(name) + "/host").c_str());
            std::swap(kept, host());
        }
        std::swap(kept, host());
    }
    ~stage_t() { std::swap(kept, host()); }
    stage_t(const stage_t &) = delete;
    stage_t &operator=(const stage_t &) = delete;
};

// Low memory: an entry point of 32 bytes, and the table. Its anchor and checksums are put right,
// which few mutations would hit, unless the byte behind the entry point says so; or it forbids to
// read the table, so that it is mapped.
constexpr char raw = 'r', unreadable = 'u';

void run_memory(std::string input)
{
    input.resize(std::max(input.size(), sizeof(smbios_entry_point_t)));
    auto &smb = *reinterpret_cast<smbios_entry_point_t *>(input.data());
    const bool legacy = input[0] != '_' || input[1] == 'D';
    auto &dmi =
        *reinterpret_cast<dmi_entry_point_t *>(legacy ? input.data() : smb.dmi.anchor_string);
    const size_t table = std::min<size_t>(dmi.length, input.size() - sizeof smb);
    dmi.length = static_cast<uint16_t>(table);
    const char control = input[sizeof smb - 1];
    if (control != raw) {
        memcpy(input.data(), legacy ? "_DMI_" : "_SM_", legacy ? 5 : 4);
        dmi.cksum = static_cast<uint8_t>(dmi.cksum - verify_cksum(&dmi, sizeof dmi - 1));
        if (!legacy)
            smb.cksum = static_cast<uint8_t>(
                smb.cksum - verify_cksum(&smb, std::min<int>(smb.length, sizeof smb)));
    }
    simhost_put("/dev/mem", "", 0);
    auto &memory = host().nodes["/dev/mem"].memory;
    memory[dmi.address] = input.substr(sizeof smb);
    memory[0xF0000] = input.substr(0, sizeof smb);
    // A structure has two bytes at least, a frame, and five children, each of a string of its own.
    const size_t structures = std::min<size_t>(dmi.items, table / 2 + 1);
    const size_t most = 512 + 2 * table + structures * (128 + 5 * 64) + 5 * 6 * table;
    simhost_fail("read", 3, EPERM, control == unreadable);
    check(47, [] { agent_unique_id(new_conn()); });
    simhost_fail("read", 3, EPERM, control == unreadable);
    check(most, [] { show_smbios_info(0, 1); });
}

void seed_memory(const use_seed &use)
{
    const auto memory = host().nodes["/dev/mem"].memory;
    for (auto [address, bytes] : memory) {
        smbios_entry_point_t smb = {};
        memcpy(&smb, bytes.data(), std::min(bytes.size(), sizeof smb));
        const bool legacy = has_prefix(bytes.c_str(), "_DMI_");
        const auto table =
            memory.find((legacy ? *reinterpret_cast<dmi_entry_point_t *>(&smb) : smb.dmi).address);
        bytes.resize(sizeof smb);
        if (bytes[0] == '_' && table != memory.end())
            for (const char control : {'\0', raw, unreadable})
                use(bytes.substr(0, sizeof smb - 1) + control + table->second);
    }
}

void run_command(std::string input)
{
    static simhost::host_t kept;
    const stage_t stage(kept, "commands");
    check(any_length, [&] { agent_status(new_conn(), input.c_str()); });
}

void seed_command(const use_seed &use)
{
    for (const call_t &call : recorded_calls())
        if (call.function == "status")
            use(call.arguments);
}

struct text_t {
    const char *host;
    const char *path;
    const char *alike; // the recorded files that are its seeds
    void (*report)();
    const char *before = ""; // what stands ahead of the input
};

constexpr text_t texts[] = {
    {"rack-server", "/proc/cpuinfo", "/proc/cpuinfo", [] { config_send_cpuinfo(0); }},
    {"status-cut", "/proc/1/stat", "/proc/[0-9]*/stat", [] { send_proc_info(0, "1"); }},
    {"rack-server", "/proc/meminfo", "/proc/meminfo", [] { send_memory_info(0); }},
    {"rack-server", "/proc/xen/balloon", "/proc/xen/balloon", [] { send_memory_info(0); }},
    {"cards", "/proc/net/dev", "/proc/net/dev", [] { config_show_network(0); }},
    {"cards", "/sys/class/net/eth2/address", "*/address", [] { agent_unique_id(new_conn()); }},
    {"cards", "/sys/class/net/eth2/address", "*/address", [] { config_show_network(0); }},
    {"cards", "/sys/class/net/eth2/type", "*/net/*/*", [] { config_show_network(0); }},
    {"net-bonds", "/proc/net/bonding/bond0", "/proc/net/bonding/*", [] { bonding_discover(0); }},
    {"net-bonds", "/sys/class/net/bond0/bonding/mode", "*/mode", [] { bonding_discover(0); }},
    {"status-odd", "/sys/class/net/eth0/statistics/rx_bytes", "*/net/*/statistics/*",
     [] { network_status(0, 1); }},
    {"rack-server", "/sys/class/fc_host/host3/statistics/rx_words", "*/fc_host/*/statistics/*",
     [] { scsi_status(0); }},
    {"net-infiniband", "/sys/class/net/ib0/device/infiniband/exhca0/ports/1/state", "*/ports/1/*",
     [] { infiniband_config(0); }},
    {"rack-server", "/usr/bin/ovs-vsctl", "*/uevent", [] { bridge_config(0); }, "#output\n"},
};

/** The first byte chooses the file, the rest is what it says. */
void run_text(std::string input)
{
    static simhost::host_t hosts[std::size(texts)];
    const size_t row = input.empty() ? 0 : static_cast<unsigned char>(input[0]) % std::size(texts);
    const text_t &text = texts[row];
    const stage_t stage(hosts[row], text.host);
    const std::string content = text.before + input.substr(std::min<size_t>(input.size(), 1));
    simhost_put("/sys/module/openvswitch_mod", "", 0);
    simhost_put(text.path, content.data(), content.size());
    check(any_length, text.report);
}

void seed_text(const use_seed &use)
{
    for (const auto &[path, node] : host().nodes)
        for (const text_t &text : texts)
            if (node.kind == simhost::node_t::file && !fnmatch(text.alike, path.c_str(), 0))
                use(static_cast<char>(&text - texts) + node.content);
}

// The controller's replies, each behind a byte with its length or, from the end of the bytes, what
// else can come of its request.
constexpr const char *events[] = {"silence", "eintr",      "eintr2",
                                  "pollerr", "nosend=EIO", "norecv=EIO"};
constexpr size_t longest_reply = 0xFF - std::size(events);

/** The requests, in the order of a report on 15 channels that are all LANs. */
std::vector<std::string> requests()
{
    std::vector<std::string> keys{"06.37"};
    for (int channel = 0; channel < 15; channel++) {
        const std::string digits = path_t<8>("%02x", channel).text;
        keys.push_back("06.42." + digits);
        for (const char *parameter : {".05.00.00", ".04.00.00", ".03.00.00"})
            keys.push_back("0c.02." + digits + parameter);
    }
    return keys;
}

void run_ipmi(std::string input)
{
    static const std::vector<std::string> keys = requests();
    simhost_put("/dev/ipmi0", "", 0);
    auto &replies = host().sections["ipmi"];
    size_t at = 0;
    for (const std::string &key : keys) {
        const size_t length = at < input.size() ? static_cast<unsigned char>(input[at++]) : 0;
        std::string &reply = replies[key] =
            length > longest_reply ? events[0xFF - length] : "empty";
        for (size_t end = at + length; length <= longest_reply && at < std::min(end, input.size());)
            reply += path_t<4>(" %02x", static_cast<unsigned char>(input[at++])).text;
    }
    check(any_length, [] { config_show_ipmi(0); });
}

void seed_ipmi(const use_seed &use)
{
    std::string seed;
    for (const std::string &key : requests()) {
        std::istringstream words{host().sections["ipmi"][key]};
        std::string reply;
        for (std::string word; words >> word;)
            if (word.size() == 2)
                reply += static_cast<char>(std::stoi(word, nullptr, 16));
        seed += static_cast<char>(reply.size()) + reply;
    }
    use(seed);
}

struct target_t {
    const char *name;
    void (*run)(std::string input);
    void (*seed)(const use_seed &use); // with what the loaded host has
};

constexpr target_t targets[] = {
    {"memory", run_memory, seed_memory},
    {"command", run_command, seed_command},
    {"text", run_text, seed_text},
    {"ipmi", run_ipmi, seed_ipmi},
};

const target_t &find_target(const std::string &name)
{
    return *std::find_if(std::begin(targets), std::end(targets) - 1,
                         [&](const target_t &target) { return target.name == name; });
}

/** Runs a target on an input. No descriptor may stay open. */
void run(const target_t &target, std::string input)
{
    const auto lowest_free = [] {
        const int fd = dup(STDERR_FILENO);
        close(fd);
        return fd;
    };
    const int before = lowest_free();
    global_debug_state = input.size() % 8 ? 0 : 4;
    simhost_unload();
    target.run(std::move(input));
    if (lowest_free() != before)
        abort();
}

FILE *const debug_output = stdout = fopen("/dev/null", "w");

} // namespace

#ifdef FUZZER

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const target_t &target = find_target(getenv("FUZZ_TARGET"));
    run(target, {reinterpret_cast<const char *>(data), size});
    return 0;
}

#else

/** The seeds of every target, each once. */
static std::set<std::pair<const target_t *, std::string>> seeds()
{
    std::set<std::pair<const target_t *, std::string>> all;
    for (const auto &recording : std::filesystem::directory_iterator(HOSTS)) {
        simhost_load((recording.path() / "host").c_str());
        for (const target_t &target : targets)
            target.seed([&](std::string seed) { all.emplace(&target, std::move(seed)); });
    }
    return all;
}

/** Runs everything; with a folder as its argument, writes the seeds below it instead. */
int main(int argc, char **argv)
{
    namespace fs = std::filesystem;
    size_t count = 0;
    for (const auto &[target, seed] : seeds()) {
        count++;
        if (argc < 2) {
            run(*target, seed);
            continue;
        }
        const fs::path folder = fs::path(argv[1]) / target->name;
        fs::create_directories(folder);
        std::ofstream(folder / std::to_string(count)) << seed;
    }
    if (argc > 1)
        return 0;
    for (const auto &input : fs::recursive_directory_iterator(INPUTS)) {
        if (!input.is_regular_file())
            continue;
        std::ifstream file{input.path()};
        run(find_target(input.path().parent_path().filename()),
            {std::istreambuf_iterator<char>(file), {}});
        count++;
    }
    fprintf(stderr, "fuzz targets: %zu seeds and inputs that once failed, replayed\n", count);
    return 0;
}

#endif

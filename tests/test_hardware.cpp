// The hardware document: the rules behind its numbers, and what failing calls leave of it.
#include <cerrno>
#include <sstream>
#include <vector>

#include "agent_discover.h"
#include "agent_discover_internal.h"
#include "agent_sources.h"
#include "agent_text.h"
#include "config_ipmi.h"
#include "config_ipmi_internal.h"
#include "fixture.h"

namespace
{

class Hardware : public HostTest
{
protected:
    Hardware()
    {
        simhost_put("/dev/ipmi0", "", 0);
        simhost_put("/proc/cpuinfo", "processor: 0\nmodel: 1\n", 22);
        simhost::host().sections["hypervisor"] = {{"nr_cpus", "1"}};
        simhost::host().sections["domain 0"] = {{"online_vcpus", "1"}, {"max_vcpu_id", "1"}};
    }
};

TEST_F(Hardware, Topology)
{
    constexpr uint32_t cases[][6] = {
        {2, 8, 2, 32, 1, 2}, {2, 8, 1, 32, 2, 1}, {1, 16, 4, 32, 1, 2}, {1, 16, 1, 33, 3, 1},
        {1, 16, 4, 0, 0, 4}, {0, 16, 4, 8, 0, 4}, {1, 16, 0, 16, 0, 0}};
    for (const auto &[threads, cores, nodes, cpus, sockets_per_node, nodes_shown] : cases) {
        const topology_t topology = derive_topology(threads, cores, nodes, cpus);
        EXPECT_EQ(topology.sockets_per_node, sockets_per_node) << nodes << "/" << cpus;
        EXPECT_EQ(topology.nodes, nodes_shown) << nodes << "/" << cpus;
    }
}

TEST_F(Hardware, AddedProcessors)
{
    EXPECT_TRUE(is_cpu_to_add(4, 4, 7) && is_cpu_to_add(7, 4, 7) && is_cpu_to_add(0, 0, 0));
    EXPECT_FALSE(is_cpu_to_add(8, 4, 7) || is_cpu_to_add(4, 4, 3));
    EXPECT_FALSE(is_cpu_to_add(3, 4, 7)) << "the kernel lists fewer than are online";
    EXPECT_FALSE(is_cpu_to_add(4, 4, UINT32_MAX))
        << "the hypervisor's number of a domain without any";
}

TEST_F(Hardware, DumpLines)
{
    const std::vector<std::pair<int, std::vector<size_t>>> cases = {
        {0, {}}, {10, {16}}, {53, {72}}, {54, {72}}, {55, {72, 4}}, {108, {72, 72}}};
    const std::vector<unsigned char> bytes(108, 'x');
    char *dump = nullptr;
    for (const auto &[length, expected] : cases) {
        ASSERT_EQ(dump_dmi_buffer(bytes.data(), length, 3, &dump), 0);
        std::istringstream lines{taken(dump)};
        std::vector<size_t> widths;
        for (std::string line; std::getline(lines, line); widths.push_back(line.size() - 3))
            EXPECT_EQ(line.find_first_not_of(' '), 3U);
        EXPECT_EQ(widths, expected) << length;
    }
    simhost_fail("malloc", 1, ENOMEM, 1);
    EXPECT_EQ(dump_dmi_buffer(bytes.data(), 10, 3, &dump), ENOMEM);
}

TEST_F(Hardware, MessageIdsRunOn)
{
    const int first = next_message_id();
    for (int call = 1; call <= 2; call++) {
        EXPECT_EQ(config_show_ipmi(0), 0);
        EXPECT_EQ(next_message_id(), first + 17 * call) << "the GUID and 15 channels";
    }
}

TEST_F(Hardware, LateRepliesWithoutEnd)
{
    simhost::host().sections["ipmi"] = {{"06.42.03", "endless 00 03 04"}};
    global_source_state = 1;
    new_conn();
    const int64_t start = now_ms();
    EXPECT_EQ(config_show_ipmi(0), 0);
    EXPECT_LT(now_ms() - start, 1500) << "one of 16 requests waits its second";
    EXPECT_NE(logged().find("% ipmicmd: no data ready\n? check_channel_type"), std::string::npos);
}

} // namespace

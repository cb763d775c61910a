// Commands that no recorded call can hold, memory sources and the availability rule.
#include <climits>

#include "agent_status.h"
#include "config_memory.h"
#include "recorded.h"

struct Status : HostTest {
    static void put(const char *path, const std::string &content)
    {
        simhost_put(path, content.data(), content.size());
    }
};

TEST_F(Status, CommandsHoldLineFeedsAndAreNoNull)
{
    EXPECT_EQ(agent_status(new_conn(), "\nOption:\nCPU\n"), 0); // which no recorded call has
    EXPECT_EQ(agent_status(&the_connection, nullptr), EINVAL);
    EXPECT_EQ(logged(), "? agent_status: no command\n");
}

TEST_F(Status, TellsOfOneProcess)
{
    put("/proc/1/stat", "1 (init) S 0");
    EXPECT_EQ(send_proc_info(0, "1"), 0);
    EXPECT_EQ(response().rfind("<Process PID=\"1\">\n  <State>S</State>\n", 0), 0U);
    EXPECT_EQ(send_proc_info(0, "2"), ENOENT);
    EXPECT_EQ(send_proc_info(0, nullptr), EINVAL);
}

TEST_F(Status, ReadsMemoryFiles)
{
    meminfo_contents meminfo;
    put("/proc/meminfo", "MemTotal: 1 kB\nMemAvailable: 1 kB\n");
    simhost_fail("read", 2, EINTR, 3);
    EXPECT_EQ(read_meminfo(&meminfo), EINVAL);
    put("/proc/meminfo", "");
    EXPECT_EQ(read_meminfo(&meminfo), EINVAL);
    EXPECT_EQ(simhost_calls("read"), 3 + 10 + 1);

    constexpr long available[][2] = {{1024, 986}, {1023, 985}, {130, 100},
                                     {30, 1},     {29, 0},     {28, 0}};
    for (const auto &[free_mb, available_mb] : available)
        EXPECT_EQ(available_memory(free_mb), available_mb);
}

// Every call of every recorded host, byte for byte, twice, and nothing stays open; its debug lines.
#include <algorithm>
#include <sstream>
#include <unistd.h>

#include "recorded.h"

namespace
{

class Documents : public testing::TestWithParam<call_t>
{
protected:
    Documents() { close(STDIN_FILENO); } // as an agent can have it: then 0 is one as any other
};

TEST_P(Documents, AreExact)
{
    const call_t &call = GetParam();
    const long open_before = open_descriptors();
    for (int round = 0; round < 2; round++) {
        load(call);
        EXPECT_EQ(run(call), call.status);
        EXPECT_EQ(response(), expected(call, ".out"));
        EXPECT_EQ(logged(), expected(call, ".log"));
        EXPECT_EQ(open_descriptors(), open_before);
    }
    conn_free(&the_connection);
    simhost_unload();
}

/** What a call prints at a debug level, but for addresses in memory and the running message number. */
std::string debug_lines(const call_t &call, int level)
{
    load(call);
    global_debug_state = level;
    testing::internal::CaptureStdout();
    run(call);
    fflush(stdout);
    global_debug_state = 0;
    std::istringstream printed{testing::internal::GetCapturedStdout()};
    std::string lines;
    for (std::string line; std::getline(printed, line);)
        lines += line.starts_with("0x")
                     ? "0x\n"
                     : line.substr(0, std::min(line.find(" ID "), line.find(" request "))) + "\n";
    return lines;
}

/** A recorded line begins with the lowest level that has it. */
TEST_P(Documents, DebugLinesHaveTheirLevels)
{
    std::istringstream recorded{expected(GetParam(), ".debug")};
    std::string lines[5];
    for (std::string line; std::getline(recorded, line) && line != "(null)";)
        for (int level = line[0] - '0'; level <= 4; level++)
            lines[level] += line.substr(2) + "\n";
    for (int level = 0; level <= 4; level++)
        EXPECT_EQ(debug_lines(GetParam(), level), lines[level]) << level;
    conn_free(&the_connection);
    simhost_unload();
}

INSTANTIATE_TEST_SUITE_P(Recorded, Documents, testing::ValuesIn(recorded_calls()), name_of);

} // namespace

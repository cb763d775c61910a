// Every call of every recorded host, byte for byte, and again to see that nothing stays open.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "agent_discover.h"
#include "fixture.h"

namespace fs = std::filesystem;

namespace
{

struct call_t {
    fs::path host;
    std::string label, function, arguments;
    int status;
};

std::vector<call_t> recorded_calls()
{
    std::vector<call_t> calls;
    for (const auto &host : fs::directory_iterator(HOSTS)) {
        std::ifstream file{host.path() / "calls"};
        for (std::string line; std::getline(file, line);) {
            std::istringstream words{line};
            call_t call{host.path(), "", "", "", 0};
            if (words >> call.label >> call.status >> call.function && call.label[0] != '#') {
                std::getline(words.ignore(), call.arguments);
                calls.push_back(call);
            }
        }
    }
    return calls;
}

int run(const call_t &call)
{
    if (call.function == "discover_hardware")
        return agent_discover_hardware(new_conn());
    if (call.function == "unique_id")
        return agent_unique_id(new_conn());
    ADD_FAILURE() << "unknown function " << call.function;
    return -1;
}

std::string expected(const call_t &call, const char *suffix)
{
    std::ifstream file{call.host / (call.label + suffix)};
    return file ? std::string(std::istreambuf_iterator<char>(file), {}) : "(null)";
}

long open_descriptors()
{
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

class Documents : public testing::TestWithParam<call_t>
{
};

TEST_P(Documents, AreExact)
{
    const call_t &call = GetParam();
    ASSERT_EQ(simhost_load((call.host / "host").c_str()), 0);
    const long open_before = open_descriptors();
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(run(call), call.status);
        EXPECT_EQ(response(), expected(call, ".out"));
        EXPECT_EQ(logged(), expected(call, ".log"));
        conn_free(&the_connection);
        EXPECT_EQ(open_descriptors(), open_before);
    }
    simhost_unload();
}

std::string name_of(const testing::TestParamInfo<call_t> &call)
{
    std::string name = call.param.host.filename().string() + "_" + call.param.label;
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return !isalnum(c); }, '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Recorded, Documents, testing::ValuesIn(recorded_calls()), name_of);

} // namespace

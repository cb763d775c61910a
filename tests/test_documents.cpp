// Every call of every recorded host, byte for byte, twice, and nothing stays open.
#include "recorded.h"

namespace
{

class Documents : public testing::TestWithParam<call_t>
{
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

INSTANTIATE_TEST_SUITE_P(Recorded, Documents, testing::ValuesIn(recorded_calls()), name_of);

} // namespace

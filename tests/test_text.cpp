// Text utilities: trimming, bounded append, times, dumps, base 64, hex strings, flag names.
#include <cstddef>

// As glibc's <string.h> declares it from 2.38 on.
extern "C" size_t strlcat(char *dest, const char *source, size_t size) noexcept;

#include <algorithm>
#include <climits>
#include <cstring>

#include "fixture.h"

namespace zorvik
{

static_assert(std::is_same_v<decltype(strlcat(nullptr, "", sizeof(char[8]))), ssize_t>,
              "the product's own function is called, also with a size that fits libc's better");

}

using Text = HostTest;

TEST_F(Text, Trims)
{
    const struct {
        const char *line, *trimmed;
    } rows[] = {
        {"  \tabc \t\n", "abc"}, {"a b\r\n", "a b\r"}, {"\nx\n\n", "\nx"},  {"   ", "(null)"},
        {"\n", "(null)"},        {"", "(null)"},       {nullptr, "(null)"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(taken(string_trim(row.line)), row.trimmed);
}

TEST_F(Text, AppendsWithinABuffer)
{
    const struct {
        size_t held, source;
        ssize_t result;
        size_t length;
    } rows[] = {
        {0, 5, 5, 5},     {200, 100, 255, 255}, {254, 9, 255, 255},
        {255, 9, 1, 255}, {250, 5, 255, 255},
    };
    for (const auto &row : rows) {
        char buffer[256] = "";
        std::string(row.held, 'a').copy(buffer, row.held);
        buffer[row.held] = '\0';
        EXPECT_EQ(zorvik::strlcat(buffer, std::string(row.source, 'b').c_str(), sizeof buffer),
                  row.result);
        EXPECT_EQ(buffer, std::string(row.held, 'a') + std::string(row.length - row.held, 'b'));
    }
}

std::string dumped(int level, int length, int offset, int trail)
{
    const std::string bytes = std::string("\0\x1f ~\x7f\xff\nA", 8) + std::string(200, 'x');
    global_debug_state = level;
    testing::internal::CaptureStdout();
    hex_dump(bytes.data(), length, offset, trail);
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

TEST_F(Text, DumpsBytes)
{
    EXPECT_EQ(dumped(1, 17, 0xf0000, 1),
              "\n0xf0000:  00 1f 20 7e 7f ff 0a 41  78 78 78 78 78 78 78 78  .. ~...A xxxxxxxx\n"
              "0xf0010:  78" +
                  std::string(48, ' ') + "x\n\n");
    EXPECT_EQ(dumped(0, 1, 0, 1) + dumped(2, 129, 0, 1), "");
    const std::string eight_lines = dumped(1, 128, 0, 0);
    EXPECT_EQ(std::count(eight_lines.begin(), eight_lines.end(), '\n'), 9);
    EXPECT_EQ(dumped(3, 0, 0, 0), "\n");
}

TEST_F(Text, WritesBytesAndFlags)
{
    EXPECT_EQ(taken(BytesToString("\x00\xab", 2)), "00:ab");
    EXPECT_EQ(taken(BytesToString("", 0)), "");

    const flag_table_t table[] = {{"B", 0x6}, {"A", 0x1}, {"", 0}, {"never", 0xff}};
    EXPECT_EQ(taken(flag_string(0x1043, table)), "(0x1043) B A");
    EXPECT_EQ(taken(flag_string(0, table)), "(0x0)");
    EXPECT_EQ(taken(flag_string(0xffff8000, table + 2)), "(0xffff8000)");
    EXPECT_EQ(taken(flag_string(1, nullptr)), "(null)");

    // 505 characters of names and blanks are left beside "(0x1)" and one more for the terminator.
    const std::string fits(252, 'x'), too_long(253, 'y');
    const flag_table_t wide[] = {{fits.c_str(), 1}, {too_long.c_str(), 1}, {"z", 1}, {"", 0}};
    EXPECT_EQ(taken(flag_string(1, wide)), "(0x1) " + fits);
}

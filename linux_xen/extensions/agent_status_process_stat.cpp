// Takes the line of a process's stat file apart.
#include "agent_status_process_stat.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "agent_sources.h"
#include "agent_text.h"

namespace zorvik
{

namespace
{

enum number_kind : uint8_t { NUMBER_INT, NUMBER_LONG, NUMBER_UNSIGNED };

/** Of which kind the numbers from field `first` to `last` are. */
struct number_range_t {
    int first, last;
    number_kind kind;
};

constexpr number_range_t number_ranges[] = {
    {4, 8, NUMBER_INT},        // ppid to tpgid
    {9, 15, NUMBER_UNSIGNED},  // flags to stime
    {16, 21, NUMBER_LONG},     // cutime to itrealvalue
    {22, 23, NUMBER_UNSIGNED}, // starttime, vsize
    {24, 24, NUMBER_LONG},     // rss
    {25, 37, NUMBER_UNSIGNED}, // rsslim to cnswap
    {38, 39, NUMBER_INT},      // exit_signal, processor
};

/** Converts what almost every number is: blanks, perhaps a sign, up to 18 digits. */
bool scan_plain(const char *&at, long &value)
{
    const char *first = at;
    while (*first == ' ')
        first++;
    const bool negative = *first == '-';
    first += negative;
    const char *end = first;
    unsigned long digits = 0;
    for (; *end >= '0' && *end <= '9'; end++)
        digits = digits * 10 + static_cast<unsigned long>(*end - '0');
    if (end == first || end - first > 18)
        return false;
    at = end;
    value = static_cast<long>(negative ? 0 - digits : digits);
    return true;
}

/**
 * Converts the next number as scanf does, at a fraction of the cost. Returns whether there was one.
 */
bool scan_number(const char *&at, number_kind kind, long &value)
{
    if (!scan_plain(at, value)) {
        char *end = nullptr;
        value = kind == NUMBER_UNSIGNED ? static_cast<long>(strtoul(at, &end, 10))
                                        : strtol(at, &end, 10);
        if (std::exchange(at, end) == end)
            return false;
    }
    if (kind == NUMBER_INT)
        value = static_cast<int>(value);
    return true;
}

/**
 * Where a command's name ends: at its first blank, or with current sources behind the last
 * parenthesis, for the kernel writes none after its own.
 */
const char *end_of_name(const char *name)
{
    const char *last = is_asked(CURRENT) ? strrchr(name, ')') : nullptr;
    return last ? last + 1 : name + strcspn(name, white_space);
}

/** Takes the command's name; what does not fit is passed over. Returns its length. */
size_t scan_name(const char *&at, char *name, size_t size)
{
    at += strspn(at, white_space);
    const char *first = std::exchange(at, end_of_name(at));
    const size_t length = static_cast<size_t>(at - first);
    char *end = std::copy_n(first, std::min(length, size - 1), name);
    *end = '\0';
    if (is_asked(CURRENT)) // XML has no place for them
        std::replace_if(
            name, end, [](unsigned char byte) { return iscntrl(byte); }, '?');
    return length;
}

} // namespace

void scan_proc_stat(const char *at, proc_stat_t *stat)
{
    *stat = {};
    long pid = 0;
    if (!scan_number(at, NUMBER_INT, pid) || scan_name(at, stat->comm, sizeof stat->comm) == 0)
        return;
    at += strspn(at, white_space);
    stat->state = *at;
    if (!stat->state)
        return;
    at++;
    for (const number_range_t &range : number_ranges)
        for (int field = range.first; field <= range.last; field++)
            if (!scan_number(at, range.kind, stat->number[field]))
                return;
}

} // namespace zorvik

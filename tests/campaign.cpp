// The fault campaign: on every recorded host, every outside call fails once, in turn, in each way
// it can. What is asserted needs no knowledge of the call: see check().
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fnmatch.h>
#include <map>
#include <sstream>
#include <unistd.h>

#include "recorded.h"

namespace
{

// Ways to fail that are no errno value, as simhost_fail() takes them.
constexpr int cut_short = 0;
constexpr int end_of_file = -1;

struct way_t {
    const char *call;
    std::vector<int> errors;
};

const way_t ways[] = {
    {"open", {ENOENT, EACCES, EMFILE}},
    {"fopen", {ENOENT, EACCES, ENOMEM}},
    {"opendir", {ENOENT, ENOMEM}},
    {"readdir", {EIO, ENOENT}},
    {"read", {EIO, EINTR, ESRCH, cut_short, end_of_file}},
    {"lseek", {EINVAL}},
    {"stat", {ENOENT, EACCES}},
    {"socket", {EMFILE}},
    {"ioctl", {ENODEV, EOPNOTSUPP, EINTR}},
    {"mmap", {ENOMEM}},
    {"munmap", {EINVAL}},
    {"poll", {EINTR, EIO}},
    {"pipe2", {EMFILE}},
    {"fork", {EAGAIN, ENOMEM}},
    {"waitpid", {ECHILD, EINTR}},
    {"xc_interface_open", {EACCES}},
    {"xc_physinfo", {EPERM}},
    {"xc_domain_getinfo", {ESRCH}},
    {"xc_sched_id", {EPERM}},
    {"xc_sched_credit_domain_get", {ESRCH}},
    {"xc_sched_credit2_domain_get", {ESRCH}},
    {"xc_sched_rtds_domain_get", {ESRCH}},
    {"xc_sedf_domain_get", {ESRCH}},
    {"malloc", {ENOMEM}},
};

/** A failure that is no news by design: any error where it is 0, and a pattern of the path. */
struct silence_t {
    const char *call;
    int error;
    const char *path;
};

const silence_t silences[] = {
    {"stat", 0, "*"},              // what is not there is not reported
    {"ioctl", 0, "*"},             // worth a debug line
    {"readdir", 0, "*"},           // ends the list
    {"xc_domain_getinfo", 0, "*"}, // so does a domain number beyond the last
    {"malloc", 0, "*"},
    {"waitpid", 0, "*"},
    {"poll", 0, "*"},
    {"read", cut_short, "*"},
    {"read", end_of_file, "*"},
    {"read", 0, "*/net/*/statistics/*"}, // a counter is then empty
    {"open", 0, "/dev/ipmi0"},
    {"open", ENOENT, "*/device/*"},
    {"open", EACCES, "/sys/*/net/*"},
    {"open", 0, "/proc/[0-9]*/stat"}, // the process is gone
    {"opendir", 0, "/sys/class/fc_host"},
    {"open", 0, "/proc/xen/balloon"},
    {"open", 0, "/proc/meminfo"},
    {"open", ENOENT, "*/xen_memory0/info/current_kb"}, // a kernel without the driver
    {"lseek", 0, "/proc/*"},
    {"read", 0, "/proc/xen/balloon"},
    {"read", 0, "/proc/meminfo"},
    {"read", 0, "*/bonding/slaves"}, // the bond counts as one without
};

bool is_silent(const char *call, int error)
{
    return std::any_of(std::begin(silences), std::end(silences), [=](const silence_t &row) {
        return !strcmp(row.call, call) && (row.error == 0 || row.error == error) &&
               fnmatch(row.path, simhost_failed_path(), 0) == 0;
    });
}

std::map<std::string, int> failed_calls;
int variants = 0;

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream stream{text};
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

/** How many more start tags than end tags of each element the lines hold; balanced when all are 0.
 */
std::map<std::string, int> open_elements(const std::vector<std::string> &lines)
{
    std::map<std::string, int> open;
    for (const std::string &line : lines) {
        for (size_t at = line.find('<'); at != std::string::npos; at = line.find('<', at + 1)) {
            const bool end = line[at + 1] == '/';
            const size_t name = at + (end ? 2 : 1);
            const size_t close = line.find('>', at);
            if (close == std::string::npos || line[close - 1] == '/' || line[name] == '?')
                continue;
            open[line.substr(name, line.find_first_of(" >", name) - name)] += end ? -1 : 1;
        }
    }
    std::erase_if(open, [](const auto &row) { return row.second == 0; });
    return open;
}

/** In the scan of the BIOS area, thousands of equal calls, only some between the ends are failed.
 */
int step_at(int nth, int calls)
{
    return nth < 100 || nth >= calls - 100 ? 1 : std::min(97, calls - 100 - nth);
}

struct answer_t {
    int status;
    std::string response, log;

    bool operator==(const answer_t &) const = default;
};

answer_t ask(const call_t &call)
{
    const int status = run(call);
    answer_t answer{status, response(), logged()};
    conn_free(&the_connection);
    return answer;
}

/**
 * The faulty document is the healthy one with at most one run of lines replaced: all before it and
 * all after it is reported byte for byte, and elements stay as balanced as they were. A document
 * that differs says so in the log, unless that call's failures are silent by design.
 */
void check(const answer_t &healthy, const answer_t &faulty, const way_t &way, int error)
{
    if (!is_silent(way.call, error)) {
        EXPECT_TRUE(faulty == healthy || faulty.log != healthy.log) << simhost_failed_path();
    }
    if (!strcmp(way.call, "malloc") || faulty.response.find('<') == std::string::npos)
        return; // an append that failed took its lines, end tags among them, with it
    const auto before = lines_of(healthy.response), after = lines_of(faulty.response);
    if (!open_elements(before).empty())
        return; // the document ends early, or its lines are cut
    const auto start = std::mismatch(before.begin(), before.end(), after.begin(), after.end());
    if (start.second == after.end() && !strncmp(way.call, "xc_", 3))
        return; // the hardware document breaks off where the hypervisor does not answer
    const size_t shared = static_cast<size_t>(start.first - before.begin());
    const auto end = std::mismatch(before.rbegin(), before.rend() - static_cast<long>(shared),
                                   after.rbegin(), after.rend() - static_cast<long>(shared));
    EXPECT_EQ(open_elements({start.first, end.first.base()}),
              open_elements({start.second, end.second.base()}));
}

class Campaign : public testing::TestWithParam<call_t>
{
};

TEST_P(Campaign, EveryCallFailsOnce)
{
    const call_t &call = GetParam();
    load(call);
    const answer_t healthy = ask(call);
    simhost_count();
    EXPECT_EQ(ask(call), healthy);
    const long open_before = open_descriptors();
    for (const way_t &way : ways) {
        simhost_count();
        ask(call);
        const int calls = simhost_calls(way.call);
        for (int nth = 1; nth <= calls; nth += step_at(nth, calls)) {
            for (const int error : way.errors) {
                SCOPED_TRACE(std::string(way.call) + " " + std::to_string(nth) + ", error " +
                             std::to_string(error));
                variants++;
                failed_calls[way.call] += error == way.errors[0];
                alarm(60);
                simhost_fail(way.call, nth, error, 1);
                const answer_t faulty = ask(call);
                check(healthy, faulty, way, error);
                simhost_count();
                EXPECT_EQ(open_descriptors(), open_before);
#ifndef __SANITIZE_ADDRESS__ // too slow there to be asked each time
                EXPECT_EQ(ask(call), healthy);
#endif
                if (HasFailure())
                    return;
            }
        }
    }
    simhost_unload();
}

INSTANTIATE_TEST_SUITE_P(Recorded, Campaign, testing::ValuesIn(recorded_calls()), name_of);

struct Summary : testing::Environment {
    void TearDown() override
    {
        int total = 0;
        for (const auto &[call, count] : failed_calls) {
            printf("%8d %s\n", count, call.c_str());
            total += count;
        }
        printf("fault campaign: %d calls failed in %d variants\n", total, variants);
    }
};

const auto *const summary = testing::AddGlobalTestEnvironment(new Summary);

} // namespace

// The fault campaign: on every recorded host, outside calls of every kind and from every place fail,
// in each way they can: once, from then on, and two different ones in a report. What is asserted
// needs no knowledge of the call: see check().
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fnmatch.h>
#include <map>
#include <random>
#include <tuple>
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

bool is_silent(const char *call, int error, const char *path)
{
    return std::any_of(std::begin(silences), std::end(silences), [=](const silence_t &row) {
        return !strcmp(row.call, call) && (row.error == 0 || row.error == error) &&
               fnmatch(row.path, path, 0) == 0;
    });
}

std::map<std::string, int> failed_calls;
int variants = 0, pairs = 0;

int number_from(const char *variable, int otherwise)
{
    const char *value = getenv(variable);
    return value ? atoi(value) : otherwise;
}

#ifdef __SANITIZE_ADDRESS__
const int most_pairs = number_from("CAMPAIGN_PAIRS", 40);
#else
const int most_pairs = number_from("CAMPAIGN_PAIRS", 400);
#endif
const unsigned int seed = static_cast<unsigned int>(number_from("CAMPAIGN_SEED", 1));

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
 * A document that parses still does. One that differs says so in the log, unless the failures are
 * silent by design.
 */
void check(const answer_t &healthy, const answer_t &faulty, const std::vector<fault_t> &faults)
{
    bool is_loud = false, breaks_off = false, lost_lines = false;
    for (size_t at = 0; at < faults.size(); at++) {
        const char *path = simhost_failed_path(at);
        // A call that another failure put in this one's place may have failed that way by itself.
        const bool is_change =
            path && (faults[at].error != ENOENT || !*path || simhost::find(path, true));
        is_loud |= is_change && !is_silent(faults[at].call, faults[at].error, path);
        breaks_off |= !strncmp(faults[at].call, "xc_", 3);
        lost_lines |= !strcmp(faults[at].call, "malloc");
    }
    // Where memory lacks, the line that tells of the other failure can be lost as well.
    if (is_loud && !(lost_lines && faults.size() > 1)) {
        EXPECT_TRUE(faulty == healthy || faulty.log != healthy.log) << simhost_failed_path();
    }
    if (lost_lines || faulty.response.find('<') == std::string::npos)
        return; // an append that failed took its lines, end tags among them, with it
    if (!xml_error(healthy.response).empty())
        return; // the document ends early, or its lines are cut
    // The hardware document breaks off where the hypervisor does not answer.
    const size_t last_line = healthy.response.rfind('\n', healthy.response.size() - 2);
    if (breaks_off && !faulty.response.ends_with(healthy.response.substr(last_line + 1)))
        return;
    EXPECT_EQ(xml_error(faulty.response), "");
}

/** A call to fail: of the equal ones from one place, with an equal outcome, some stand for all. */
struct point_t {
    const way_t *way;
    int nth;
    bool is_first; // of its like
};

std::vector<point_t> choose_points(const std::vector<noted_call_t> &calls)
{
    // Equal are calls that fail with the same news, where what is asked for is there in both cases,
    // and which come equally often one after the other: a file's second read finds its end.
    std::map<std::tuple<std::string, size_t, bool, int, std::string>, std::vector<point_t>> groups;
    std::map<std::pair<std::string, std::string>, int> repeats;
    for (const noted_call_t &noted : calls) {
        const auto *way = std::find_if(std::begin(ways), std::end(ways),
                                       [&](const way_t &row) { return row.call == noted.call; });
        if (way == std::end(ways))
            continue;
        std::string silent;
        for (const int error : way->errors)
            silent += is_silent(way->call, error, noted.path.c_str()) ? '1' : '0';
        const int repeat = std::min(++repeats[{noted.call, noted.path}], 3);
        auto &points = groups[{noted.call, noted.site, noted.exists, repeat, silent}];
        points.push_back({way, noted.nth, points.empty()});
        // The first two and the last one stay.
        if (points.size() > 3)
            points.erase(points.end() - 2);
    }
    std::vector<point_t> chosen;
    for (const auto &[key, points] : groups)
        chosen.insert(chosen.end(), points.begin(), points.end());
    return chosen;
}

/** The way's first error that can come more than once. */
int lasting_error(const way_t &way)
{
    return *std::find_if(way.errors.begin(), way.errors.end(),
                         [](int error) { return error != EINTR; });
}

class Campaign : public testing::TestWithParam<call_t>
{
protected:
    Campaign()
    {
        load(GetParam());
        healthy = ask(GetParam());
        open_before = open_descriptors();
        simhost_note_calls();
        EXPECT_EQ(ask(GetParam()), healthy);
        points = choose_points(simhost_noted_calls());
        simhost_count();
    }

    ~Campaign() override { simhost_unload(); }

    void fail(const std::vector<fault_t> &faults)
    {
        std::string what;
        for (const fault_t &fault : faults)
            what += std::string(fault.call) + " " + std::to_string(fault.nth) + ", error " +
                    std::to_string(fault.error) + "; ";
        SCOPED_TRACE(what);
        alarm(60);
        simhost_fail(faults);
        const answer_t faulty = ask(GetParam());
        check(healthy, faulty, faults);
        simhost_count();
        EXPECT_EQ(open_descriptors(), open_before);
#ifndef __SANITIZE_ADDRESS__ // too slow there to be asked each time
        EXPECT_EQ(ask(GetParam()), healthy);
#endif
    }

    answer_t healthy;
    long open_before = 0;
    std::vector<point_t> points;
};

TEST_P(Campaign, CallsFailOnceAndForEver)
{
    for (const point_t &point : points) {
        failed_calls[point.way->call]++;
        for (const int error : point.way->errors) {
            variants++;
            fail({{point.way->call, point.nth, error}});
        }
        if (point.is_first)
            fail({{point.way->call, point.nth, lasting_error(*point.way), for_ever}});
        if (HasFailure())
            return;
    }
}

TEST_P(Campaign, TwoCallsFail)
{
    // What changes nothing alone may do so in silence beside another failure.
    std::erase_if(points, [&](const point_t &point) {
        simhost_fail(point.way->call, point.nth, lasting_error(*point.way), 1);
        return !point.is_first || ask(GetParam()) == healthy;
    });
    std::vector<std::pair<size_t, size_t>> chosen;
    for (size_t second = 1; second < points.size(); second++)
        for (size_t first = 0; first < second; first++)
            chosen.emplace_back(first, second);
    std::mt19937 generator{seed};
    if (chosen.size() > static_cast<size_t>(most_pairs)) {
        std::shuffle(chosen.begin(), chosen.end(), generator);
        chosen.resize(static_cast<size_t>(most_pairs));
    }
    for (const auto &[first, second] : chosen) {
        const point_t &a = points[first], &b = points[second];
        pairs++;
        fail({{a.way->call, a.nth, lasting_error(*a.way)},
              {b.way->call, b.nth, lasting_error(*b.way)}});
        if (HasFailure())
            return;
    }
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
        printf("fault campaign: %d calls failed in %d variants, %d pairs, seed %u\n", total,
               variants, pairs, seed);
    }
};

const auto *const summary = testing::AddGlobalTestEnvironment(new Summary);

} // namespace

#include "fault_plan.h"

#include <cerrno>
#include <execinfo.h>
#include <optional>

#include "simhost/simhost.h"

using namespace simhost;

namespace
{

/** Never destroyed: calls come after the last destructor. */
struct plan_t {
    std::vector<fault_t> faults;
    std::vector<std::optional<std::string>> failed_paths; // of each fault
    std::map<std::string, int> counts;
    bool is_noting;
    std::vector<noted_call_t> noted;
};

plan_t &the_plan()
{
    static auto &plan = *new plan_t{};
    return plan;
}

/** The functions that a call is made from, as a number. */
size_t caller_site()
{
    void *frames[24];
    const int count = backtrace(frames, static_cast<int>(std::size(frames)));
    size_t site = 0;
    for (int i = 2; i < count; i++)
        site = site * 31 + reinterpret_cast<size_t>(frames[i]);
    return site;
}

outcome decide(const char *call, const std::string &path)
{
    plan_t &plan = the_plan();
    const int count = ++plan.counts[call];
    if (plan.is_noting) {
        plan.is_noting = false; // for what is called here
        plan.noted.push_back({call, count, caller_site(), path, find(path, true) != nullptr});
        plan.is_noting = true;
    }
    for (size_t at = 0; at < plan.faults.size(); at++) {
        const fault_t &fault = plan.faults[at];
        if (count < fault.nth || count - fault.nth >= fault.times ||
            fault.call != std::string_view{call})
            continue;
        if (!plan.failed_paths[at])
            plan.failed_paths[at] = path;
        errno = fault.error;
        return fault.error > 0 ? outcome::failed : fault.error < 0 ? outcome::ended : outcome::cut;
    }
    return outcome::normal;
}

} // namespace

void simhost_fail(const std::vector<fault_t> &faults)
{
    plan_t &plan = the_plan();
    plan.faults = faults;
    if (!faults.empty()) // what failed is asked behind the count that follows
        plan.failed_paths.assign(faults.size(), std::nullopt);
    plan.counts.clear();
    plan.is_noting = false;
    host().plan = decide;
    host().times_told = 0;
}

void simhost_note_calls()
{
    simhost_count();
    the_plan().noted.clear();
    the_plan().is_noting = true;
}

const std::vector<noted_call_t> &simhost_noted_calls()
{
    return the_plan().noted;
}

const char *simhost_failed_path(size_t fault)
{
    const plan_t &plan = the_plan();
    return fault < plan.failed_paths.size() && plan.failed_paths[fault]
               ? plan.failed_paths[fault]->c_str()
               : nullptr;
}

int simhost_calls(const char *call)
{
    return the_plan().counts[call];
}

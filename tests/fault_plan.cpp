#include "fault_plan.h"

#include <cerrno>

#include "simhost/simhost.h"

using namespace simhost;

namespace
{

/** Never destroyed: calls come after the last destructor. */
struct plan_t {
    std::string call;
    int first, error, times;
    std::map<std::string, int> counts;
    std::string failed_path;
};

plan_t &the_plan()
{
    static auto &plan = *new plan_t{};
    return plan;
}

outcome decide(const char *call, const std::string &path)
{
    plan_t &plan = the_plan();
    const int count = ++plan.counts[call];
    if (plan.call != call || count < plan.first || count - plan.first >= plan.times)
        return outcome::normal;
    errno = plan.error;
    plan.failed_path = path;
    return plan.error > 0 ? outcome::failed : plan.error < 0 ? outcome::ended : outcome::cut;
}

} // namespace

void simhost_fail(const char *call, int nth, int error, int times)
{
    the_plan() = {call, nth, error, times, {}, the_plan().failed_path};
    host().plan = decide;
    host().times_told = 0;
}

const char *simhost_failed_path()
{
    return the_plan().failed_path.c_str();
}

int simhost_calls(const char *call)
{
    return the_plan().counts[call];
}

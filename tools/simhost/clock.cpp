// The time of day, from the section [time].
#include "simhost.h"

#include <cstdlib>
#include <ctime>

using namespace simhost;

extern "C" time_t time(time_t *also)
{
    const char *now = answer("time", "now", 0);
    const char *step = answer("time", "step", 0);
    if (!now)
        return REAL(time)(also);
    const time_t seconds = atol(now) + host().times_told++ * (step ? atol(step) : 0);
    if (also)
        *also = seconds;
    return seconds;
}

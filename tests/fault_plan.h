/** The fault plan: which call of the simulated host's libc functions fails, and how. */
#pragma once

/**
 * Makes the `nth` next call (from 1) of the libc function `call`, and of `times` - 1 after it, fail
 * with `error`; 0 makes a read short by half, -1 ends the file. The plan ends with the loaded host.
 */
void simhost_fail(const char *call, int nth, int error, int times);

/** Lets every call be normal, and counts the calls from here. */
inline void simhost_count()
{
    simhost_fail("", 0, 0, 0);
}

/** How many calls of a libc function were made below the host since the last fault plan. */
int simhost_calls(const char *call);

/** The path of the call that failed last, empty if it has none. */
const char *simhost_failed_path();

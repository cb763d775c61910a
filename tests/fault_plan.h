/** The fault plan: which calls of the simulated host's libc functions fail, and how. */
#pragma once

#include <climits>
#include <cstddef>
#include <string>
#include <vector>

/** The `nth` next call (from 1) of the libc function `call`, and `times` - 1 after it. */
struct fault_t {
    const char *call;
    int nth;
    int error; // an errno value; 0 makes a read short by half, -1 ends the file
    int times = 1;
};

inline constexpr int for_ever = INT_MAX;

/** Makes calls fail. The plan ends with the loaded host. */
void simhost_fail(const std::vector<fault_t> &faults);

inline void simhost_fail(const char *call, int nth, int error, int times)
{
    simhost_fail({{call, nth, error, times}});
}

/** Lets every call be normal, and counts the calls from here. */
inline void simhost_count()
{
    simhost_fail({});
}

/** How many calls of a libc function were made below the host since the last fault plan. */
int simhost_calls(const char *call);

/** The path of the call that a fault of the plan made fail first, empty if it has none; null if none failed. */
const char *simhost_failed_path(size_t fault = 0);

/** A call since simhost_note_calls(): of which function and which one of these. */
struct noted_call_t {
    std::string call;
    int nth;
    size_t site; // the functions that it was made from
    std::string path;
    bool exists; // what stands at the path
};

/** Counts the calls from here as simhost_count() does, and notes each. */
void simhost_note_calls();
const std::vector<noted_call_t> &simhost_noted_calls();

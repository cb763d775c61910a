/** The fuzz targets, and what is required of them on every input. */
#pragma once

#include <cstdlib>
#include <functional>

#include "recorded.h"

struct target_t {
    const char *name;
    void (*run)(std::string input);
};

extern const std::vector<target_t> targets;

inline void require(bool holds)
{
    if (!holds)
        abort();
}

/** Requires what has been written to parse. */
void require_parsed();

/** The replies in an input of the target "ipmi", each behind a byte with its length. */
std::vector<std::string> split_replies(const std::string &input);

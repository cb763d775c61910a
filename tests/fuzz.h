/** The fuzz targets, and what is required of them on every input. */
#pragma once

#include <cstdlib>
#include <functional>

#include "recorded.h"

using use_seed = std::function<void(const std::string &)>;

struct target_t {
    const char *name;
    void (*run)(std::string input);
    void (*seed)(const use_seed &use); // with what the loaded host has
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

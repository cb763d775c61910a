/** The calls of the recorded hosts, run on the product's own files. */
#pragma once

#include <filesystem>
#include <vector>

#include "fixture.h"

/**
 * A line of a host's "calls": LABEL STATUS FUNCTION [ARGUMENTS], with "current:" before a function
 * that is to ask current sources.
 */
struct call_t {
    std::filesystem::path host;
    std::string label, function, arguments;
    int status;
    bool current;
};

std::vector<call_t> recorded_calls();

/** A name for Google Test. */
std::string name_of(const testing::TestParamInfo<call_t> &call);

/** Loads the call's host. */
void load(const call_t &call);

/** Runs the call on the loaded host; its texts are left in the record. Returns its status. */
int run(const call_t &call);

/** An expected text of the call: the file LABEL with `suffix`, or "(null)" where there is none. */
std::string expected(const call_t &call, const char *suffix);

/**
 * What keeps a response from being XML, empty where nothing does. A status line is left out, and
 * elements without a root get one.
 */
std::string xml_error(std::string_view response);

long open_descriptors();

/**
 * Where a fact is told: kernels, hypervisors and drivers move what they tell. A fact with more than
 * one source has a table of them, in the order in which they are asked; the newer ones are marked
 * CURRENT, and a search for that word finds every one of them.
 */
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "agent_common.h"

namespace zorvik
{

/**
 * Which sources the host process wants: 0, the classic ones alone; 1, current ones too. The module
 * only reads it, once at the start of a call.
 */
MODULE_EXPORT int global_source_state;

/** CLASSIC: always asked. CURRENT: asked where the host process wants it. */
enum source_age : uint8_t { CLASSIC, CURRENT };

/** Fixes what the calling report asks for its whole length, which the second ends. */
void begin_sources();
void end_sources();

/** Whether this call asks sources of that age; outside of a call the classic ones alone are asked. */
bool is_asked(source_age age);

/** A function that reads a fact and returns 0, or an error where its source does not tell it. */
template <typename... Arguments> struct source_t {
    int (*read)(Arguments... arguments);
    source_age age;
};

/**
 * Asks the sources of a fact in turn, until one tells it. Returns 0, or what the last one that was
 * asked returned.
 */
template <typename... Arguments, size_t Count>
int ask_sources(const source_t<Arguments...> (&sources)[Count],
                std::type_identity_t<Arguments>... arguments)
{
    int status = ENOENT;
    for (const source_t<Arguments...> &source : sources)
        if (status != 0 && is_asked(source.age))
            status = source.read(arguments...);
    return status;
}

/** The last row of a table that is asked: for what has one value in each state. */
template <typename Row, size_t Count> const Row &newest_asked(const Row (&rows)[Count])
{
    size_t newest = 0;
    for (size_t row = 0; row < Count; row++)
        newest = is_asked(rows[row].age) ? row : newest;
    return rows[newest];
}

} // namespace zorvik

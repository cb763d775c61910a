/**
 * Text utilities: trimming, bounded append, times, dumps, base 64, hex strings, flag names. What
 * they say of characters holds whatever the host process's locale is.
 */
#pragma once

#include <cstdint>
#include <cstring>
#include <ctime>
#include <sys/types.h>

namespace zorvik
{

/** The characters of isspace() in the POSIX locale, whatever the host process's locale is. */
inline constexpr char white_space[] = " \t\n\v\f\r";

/** Whether a byte is printable ASCII, a blank included, whatever the host process's locale is. */
inline bool is_printable(char character)
{
    return character >= ' ' && character <= '~';
}

/** How many of the `length` characters of `text` are left without the white space behind them. */
size_t trimmed_length(const char *text, size_t length);

/** Whether `text` begins with `prefix`. */
bool has_prefix(const char *text, const char *prefix);

/** One named bit. A table of them ends with a row whose bit is 0. */
typedef struct flag_table_s {
    const char *name;
    uint32_t bit;
} flag_table_t;

/**
 * Copies `string` without the blanks and tabs around it and the line feeds behind it.
 * Returns a heap string, or null when nothing is left or there is no memory.
 */
char *string_trim(const char *string);

/**
 * Appends what fits of `source` to `dest`, a buffer of `total` bytes. Returns the new length of
 * `dest`, or, when not even one character fits, the room that was left, terminator included.
 */
ssize_t strlcat(char *dest, const char *source, ssize_t total);

/** Writes seconds since the epoch as UTC, "1970-01-01T00:00:00". Returns a heap string or null. */
char *xml_dateTime(time_t secs);

/** A moment on the clock that only goes forward, in milliseconds. */
int64_t now_ms();

/**
 * Debug dump of `length` bytes, 16 a line, numbered from `offset`; `trail` adds an empty line.
 * Printed at debug level 1, and above 128 bytes only at level 3.
 */
void hex_dump(const void *base, int length, int offset, int trail);

/**
 * Base 64 (RFC 4648, section 4) of `length` bytes as one line. `ascii` must have room for
 * 4 * ((length + 2) / 3) + 1 characters. Returns the characters written, without the terminator.
 */
int m64_encode(const unsigned char *binary, int length, char *ascii);

/** Writes bytes as lower-case hex pairs joined by colons. Returns a heap string or null. */
char *BytesToString(const void *data, int length);

/** Writes `flags` as "(0xVALUE) NAME NAME", names in table order. Returns a heap string or null. */
char *flag_string(unsigned int flags, const flag_table_t *ftable);

} // namespace zorvik

// Text utilities, and the dump of bytes for debug lines.
#include "agent_text.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent_common.h"

namespace zorvik
{

size_t trimmed_length(const char *text, size_t length)
{
    while (length > 0 && memchr(white_space, text[length - 1], sizeof white_space - 1))
        length--;
    return length;
}

bool has_prefix(const char *text, const char *prefix)
{
    return strncmp(text, prefix, strlen(prefix)) == 0;
}

char *string_trim(const char *string)
{
    if (!string)
        return nullptr;
    string += strspn(string, " \t");
    size_t length = strlen(string);
    while (length > 0 && strchr(" \t\n", string[length - 1]))
        length--;
    return length > 0 ? strndup(string, length) : nullptr;
}

ssize_t strlcat(char *dest, const char *source, ssize_t total)
{
    const size_t old = strlen(dest);
    const ssize_t room = total - static_cast<ssize_t>(old);
    if (room < 2) {
        debug_at(3, "%% %s: string '%s' already full, cannot append '%s'\n", __func__, dest,
                 source);
        return room;
    }
    size_t length = strlen(source);
    if (length > static_cast<size_t>(room) - 1) {
        debug_at(3, "%% %s: string '%s' too long to fully append '%s\n", __func__, dest, source);
        length = static_cast<size_t>(room) - 1;
    }
    memcpy(dest + old, source, length);
    dest[old + length] = '\0';
    return static_cast<ssize_t>(old + length);
}

char *xml_dateTime(time_t secs)
{
    struct tm utc;
    if (!gmtime_r(&secs, &utc))
        return nullptr;
    char text[80];
    snprintf(text, sizeof text, "%04ld-%02d-%02dT%02d:%02d:%02d", utc.tm_year + 1900L,
             utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
    return strndup(text, sizeof "1970-01-01T00:00:00" - 1);
}

namespace
{

constexpr int dump_width = 16;

/** One line of a dump: up to 16 bytes as hex pairs, then as characters, in two groups of eight. */
void print_dump_line(const unsigned char *bytes, int length, unsigned int offset)
{
    char line[128];
    char *end = line + snprintf(line, sizeof line, "0x%04x:", offset);
    for (int i = 0; i < dump_width; i++) {
        if (i % 8 == 0)
            *end++ = ' ';
        const size_t room = sizeof line - static_cast<size_t>(end - line);
        end += i < length ? snprintf(end, room, " %02x", bytes[i]) : snprintf(end, room, "   ");
    }
    *end++ = ' ';
    for (int i = 0; i < length; i++) {
        if (i % 8 == 0)
            *end++ = ' ';
        const char character = static_cast<char>(bytes[i]);
        *end++ = is_printable(character) ? character : '.';
    }
    *end++ = '\n';
    *end = '\0';
    debug_print("%s", line);
}

} // namespace

int64_t now_ms()
{
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

void hex_dump(const void *base, int length, int offset, int trail)
{
    if (!base) {
        error_invalid_arguments(__func__);
        return;
    }
    if (get_debug_state() < (length > 128 ? 3 : 1))
        return;
    const auto *bytes = static_cast<const unsigned char *>(base);
    debug_print("\n");
    for (int pos = 0; pos < length; pos += dump_width)
        print_dump_line(bytes + pos, std::min(length - pos, dump_width),
                        static_cast<unsigned int>(offset) + static_cast<unsigned int>(pos));
    if (trail)
        debug_print("\n");
}

namespace
{

constexpr char eTable[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

} // namespace

int m64_encode(const unsigned char *binary, int length, char *ascii)
{
    if (!binary || !ascii) {
        error_invalid_arguments(__func__);
        return 0;
    }
    char *end = ascii;
    for (int pos = 0; pos < length; pos += 3) {
        const int rest = length - pos;
        const unsigned int second = rest > 1 ? binary[pos + 1] : 0U;
        const unsigned int third = rest > 2 ? binary[pos + 2] : 0U;
        const unsigned int group =
            static_cast<unsigned int>(binary[pos]) << 16 | second << 8 | third;
        *end++ = eTable[group >> 18];
        *end++ = eTable[group >> 12 & 0x3f];
        *end++ = rest > 1 ? eTable[group >> 6 & 0x3f] : '=';
        *end++ = rest > 2 ? eTable[group & 0x3f] : '=';
    }
    *end = '\0';
    return static_cast<int>(end - ascii);
}

char *BytesToString(const void *data, int length)
{
    if (!data || length < 0) {
        error_invalid_arguments(__func__);
        return nullptr;
    }
    const size_t size = 3 * static_cast<size_t>(length) + 1;
    char *text = static_cast<char *>(malloc(size));
    if (!text) {
        error_print("? %s: unable to allocate string\n", __func__);
        return nullptr;
    }
    text[0] = '\0';
    const auto *bytes = static_cast<const unsigned char *>(data);
    for (int i = 0; i < length; i++) {
        char pair[4];
        snprintf(pair, sizeof pair, "%02x%s", bytes[i], i < length - 1 ? ":" : "");
        strlcat(text, pair, static_cast<ssize_t>(size));
    }
    return text;
}

char *flag_string(unsigned int flags, const flag_table_t *ftable)
{
    constexpr int most_rows = 32;
    if (!ftable) {
        error_print("? %s: no bit table specified\n", __func__);
        return nullptr;
    }
    char text[512];
    char *end = text + snprintf(text, sizeof text, "(0x%x)", flags);
    ssize_t budget = static_cast<ssize_t>(sizeof text) - (end - text);
    for (int row = 0; row < most_rows && ftable[row].bit; row++) {
        if (!(flags & ftable[row].bit))
            continue;
        budget -= static_cast<ssize_t>(strlen(ftable[row].name)) + 1;
        if (budget < 1)
            break;
        *end++ = ' ';
        end = stpcpy(end, ftable[row].name);
    }
    return strdup(text);
}

} // namespace zorvik

/**
 * The connection record that every report is written into, the emitters that
 * append to it, error and debug messages, and the text utilities they share.
 */
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <dirent.h>
#include <sys/types.h>

/** What the module shows to its host process; everything else is hidden. */
#define MODULE_EXPORT extern "C" __attribute__((visibility("default")))

#define PRINTF_FORMAT(text, arguments) __attribute__((format(printf, text, arguments)))

namespace zorvik
{

/** The answer of the current call; null stands for a text never written. Both texts are heap
 * strings. */
typedef struct conn_s {
    char *response;
    char *logmsg;
} conn_t;

enum rsp_codes {
    RSP_OK = 200,
    RSP_CLIENT_BAD_REQ = 400,
    RSP_FORBIDDEN = 403,
    RSP_NOT_FOUND = 404,
    RSP_REQ_TIMEOUT = 408,
    RSP_CONFLICT = 409,
    RSP_SERVER_INTERNAL_ERROR = 500,
    RSP_NOT_IMPLEMENTED = 501
};

/** The one record. Empty between calls from Python. */
MODULE_EXPORT conn_t the_connection;

/** Debug verbosity, 0 (silent) to 4. The module only reads it; the host process may write it. */
MODULE_EXPORT int global_debug_state;

inline int get_debug_state()
{
    return global_debug_state;
}

/** Both give the address of the_connection; new_conn() marks the start of a call. */
conn_t *new_conn();
conn_t *conn_get();

/** Takes both texts out of the record and leaves it empty; they are the caller's to free. */
conn_t conn_take(conn_t *conn);

/** Frees both texts and leaves the record empty. Returns 0, or EINVAL for a null record. */
int conn_free(conn_t *conn);

/** Appends the first `len` characters of `string` to the response. Returns 0, EINVAL or ENOMEM. */
int conn_send2(const void *string, int len);

/**
 * Appends a group of lines as one formatted text, cut at `size` - 1 characters. Every line of the
 * format is put `indent` blanks deeper than the blanks it begins with say; as in printf, a negative
 * depth counts as if it were positive. `size` is that of the text's buffer, terminator included,
 * 2048 at the most. Returns the result of conn_send2().
 */
int conn_send_lines(size_t size, int indent, const char *format, ...) PRINTF_FORMAT(3, 4);

/**
 * Replaces the response by the line "Status: CODE TEXT".
 * Returns 0, or ENOMEM when the line takes more than 1024 bytes or cannot be stored.
 */
int conn_send_response2(int code, const char *format, ...) PRINTF_FORMAT(2, 3);

/** Gives an empty response the status line of code 500. Returns 0, or EINVAL for a null record. */
int conn_close(conn_t *conn);

/**
 * Appends the line of a start tag (`start` not 0) or an end tag, `indent` blanks deep.
 * The element text is written as it stands, attributes included; the line is cut at 127 characters.
 * Returns 0, EINVAL or ENOMEM.
 */
int conn_send_XML_tag(const char *element, int indent, int start);

/** Appends the line of a start tag or of an end tag, as conn_send_XML_tag() does. */
int conn_send_start(const char *element, int indent);
int conn_send_end(const char *element, int indent);

/**
 * Closes an open element before its time because of `error`, which is returned. After an append
 * that failed in this call nothing more can be written, and nothing is tried.
 */
int conn_close_early(const char *element, int indent, int error);

/** Appends one element with `string`, escaped, as its text. Returns 0, EINVAL or ENOMEM. */
int conn_send_XML_string(const char *element, int indent, const char *string);

/** Appends a formatted message to the log text. Returns 0, EINVAL or ENOMEM. */
int error_print(const char *format, ...) PRINTF_FORMAT(1, 2);

/** Logs that `function` got arguments it cannot work with. Returns EINVAL. */
int error_invalid_arguments(const char *function);

/**
 * Logs "? FUNCTION: TEXT, errno NUMBER (ITS TEXT)", the formatted text cut at 1023 characters.
 * Returns `error`, the errno value.
 */
int error_errno(const char *function, int error, const char *format, ...) PRINTF_FORMAT(3, 4);

/** Writes a formatted message to standard output, whatever the debug level. */
int debug_print(const char *format, ...) PRINTF_FORMAT(1, 2);

/** Writes a formatted message to standard output from debug level `level` on. */
void debug_at(int level, const char *format, ...) PRINTF_FORMAT(2, 3);

/**
 * Writes "% FUNCTION: TEXT, errno NUMBER (ITS TEXT)" from debug level `level` on, the formatted
 * text cut at 1023 characters. Returns `error`, the errno value.
 */
int debug_errno(int level, const char *function, int error, const char *format, ...)
    PRINTF_FORMAT(4, 5);

/** Numbers the requests to the management controller: 0, 1, 2, … for the life of the process. */
int next_message_id();

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

/** A path built from a printf format, cut at `Size` - 1 characters. */
template <size_t Size> struct path_t {
    char text[Size];

    explicit path_t(const char *format, ...) PRINTF_FORMAT(2, 3)
    {
        va_list arguments;
        va_start(arguments, format);
        vsnprintf(text, Size, format, arguments);
        va_end(arguments);
    }
};

/** Whether something stands at `path`, seen through links. Leaves errno as stat(2) set it. */
bool path_exists(const char *path);

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

/** What a walk through a directory takes; kinds are combined. A leading dot is one more to ask for.
 */
enum entry_kinds : unsigned int {
    ENTRY_DIRECTORY = 1U << DT_DIR,
    ENTRY_FILE = 1U << DT_REG,
    ENTRY_LINK = 1U << DT_LNK,
    ENTRY_ANY = 0xFFFF,
    ENTRY_OTHER_THAN_DIRECTORY = ENTRY_ANY & ~ENTRY_DIRECTORY,
    ENTRY_DOTTED = 1U << 16
};

/**
 * The name of the next entry of one of the `kinds`, in the order the directory yields them.
 * Valid until the next call; null at the end.
 */
const char *next_entry(DIR *directory, unsigned int kinds);

} // namespace zorvik

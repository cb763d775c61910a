/**
 * The connection record that every report is written into, the emitters that append to it, and
 * error and debug messages.
 */
#pragma once

#include <cstddef>

/** What the module shows to its host process; everything else is hidden. */
#define MODULE_EXPORT extern "C" __attribute__((visibility("default")))

#define PRINTF_FORMAT(text, arguments) __attribute__((format(printf, text, arguments)))

namespace zorvik
{

/**
 * The answer of the current call; null stands for a text never written. Both texts are heap
 * strings.
 */
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

/** The text of a tag, `indent` blanks deep, between `before` and `behind`, cut at 127 characters. */
struct tag_text_t {
    char text[128];
    size_t length;

    tag_text_t(int indent, const char *before, const char *element, const char *behind);
};

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

/** Logs that `log_name` got arguments it cannot work with. Returns EINVAL. */
int error_invalid_arguments(const char *log_name);

/**
 * Logs "? FUNCTION: TEXT, errno NUMBER (ITS TEXT)", the formatted text cut at 1023 characters.
 * Returns `error`, the errno value.
 */
int error_errno(const char *log_name, int error, const char *format, ...) PRINTF_FORMAT(3, 4);

/** Writes a formatted message to standard output, whatever the debug level. */
int debug_print(const char *format, ...) PRINTF_FORMAT(1, 2);

/** Writes a formatted message to standard output from debug level `level` on. */
void debug_at(int level, const char *format, ...) PRINTF_FORMAT(2, 3);

/**
 * Writes "% FUNCTION: TEXT, errno NUMBER (ITS TEXT)" from debug level `level` on, the formatted
 * text cut at 1023 characters. Returns `error`, the errno value.
 */
int debug_errno(int level, const char *log_name, int error, const char *format, ...)
    PRINTF_FORMAT(4, 5);

/** Numbers the requests to the management controller: 0, 1, 2, … for the life of the process. */
int next_message_id();

} // namespace zorvik

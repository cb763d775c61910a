// The connection record, and the messages of the log and of the debug levels.
#include "agent_common.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "agent_handles.h"
#include "agent_sources.h"

namespace zorvik
{

conn_t the_connection = {nullptr, nullptr};
int global_debug_state = 0;

namespace
{

int unique_msg_id = 0;

// Whether the response lacks something that could not be appended.
bool response_is_cut = false;

/**
 * The length of a record's text as of the last append. Measuring it anew at every append would make
 * a report quadratic in its size. It holds only for the very string that the append stored: another
 * pointer in the record was put there by somebody else, and is measured. Who frees a text must do
 * so with conn_free(): the allocator may give its address to the next one.
 */
struct known_length_t {
    const char *text;
    size_t length;
};

known_length_t response_length = {nullptr, 0};
known_length_t logmsg_length = {nullptr, 0};

size_t length_of(const char *text, const known_length_t &known)
{
    if (!text)
        return 0;
    return text == known.text ? known.length : strlen(text);
}

/** Makes room for `extra` characters behind `existing`, exactly. Returns where they go, or null. */
char *string_grow(char **existing, const known_length_t &known, size_t extra)
{
    const size_t old = length_of(*existing, known);
    char *grown = static_cast<char *>(realloc(*existing, old + extra + 1));
    if (!grown)
        return nullptr;
    *existing = grown;
    return grown + old;
}

void remember(const char *text, const char *end, known_length_t &known)
{
    known = {text, static_cast<size_t>(end - text)};
}

int string_append(char **existing, known_length_t &known, const char *string, size_t len)
{
    char *end = string_grow(existing, known, len);
    if (!end)
        return ENOMEM;
    // A NUL inside the text ends it, as if every append measured what is there.
    const size_t copied = strnlen(string, len);
    memcpy(end, string, copied);
    end[copied] = '\0';
    remember(*existing, end + copied, known);
    return 0;
}

/** Takes a text out of the record. */
unique_text string_take(char **existing, known_length_t &known)
{
    known = {nullptr, 0};
    return unique_text{std::exchange(*existing, nullptr)};
}

} // namespace

conn_t *new_conn()
{
    begin_sources();
    return &the_connection;
}

conn_t *conn_get()
{
    return &the_connection;
}

conn_t conn_take(conn_t *conn)
{
    response_is_cut = false;
    end_sources();
    return {string_take(&conn->response, response_length).release(),
            string_take(&conn->logmsg, logmsg_length).release()};
}

int conn_free(conn_t *conn)
{
    if (!conn)
        return error_invalid_arguments(__func__);
    const conn_t texts = conn_take(conn);
    free(texts.response);
    free(texts.logmsg);
    return 0;
}

int conn_send2(const void *string, int len)
{
    if (!string || len < 0)
        return error_invalid_arguments(__func__);
    const int status = string_append(&conn_get()->response, response_length,
                                     static_cast<const char *>(string), static_cast<size_t>(len));
    response_is_cut = response_is_cut || status != 0;
    return status;
}

int conn_send_response2(int code, const char *format, ...)
{
    if (!format)
        return 0;
    conn_t *conn = conn_get();
    if (conn->response) {
        error_print("? %s: response string should be NULL, but was: %s\n", __func__,
                    conn->response);
        string_take(&conn->response, response_length);
    }
    char line[1024];
    const int prefix = snprintf(line, sizeof line, "Status: %d ", code);
    va_list arguments;
    va_start(arguments, format);
    const int text =
        vsnprintf(line + prefix, sizeof line - static_cast<size_t>(prefix), format, arguments);
    va_end(arguments);
    // A text too long for printf to count is at least INT_MAX characters long.
    const long needed = 2L + prefix + (text < 0 ? INT_MAX : text);
    if (needed > static_cast<long>(sizeof line)) {
        error_print("? %s: response too long: needed %ld chars, %zd available\n", __func__, needed,
                    static_cast<ssize_t>(sizeof line));
        return ENOMEM;
    }
    line[prefix + text] = '\n';
    return conn_send2(line, prefix + text + 1);
}

int conn_close(conn_t *conn)
{
    if (!conn)
        return error_invalid_arguments(__func__);
    if (!conn->response)
        conn_send_response2(RSP_SERVER_INTERNAL_ERROR, "Generic failure response on close");
    return 0;
}

int conn_close_early(const char *element, int indent, int error)
{
    // An element at a negative depth was refused when it was to be opened.
    if (!response_is_cut && indent >= 0)
        conn_send_end(element, indent);
    return error;
}

int error_print(const char *format, ...)
{
    if (!format)
        return EINVAL;
    va_list arguments;
    va_list measured;
    va_start(arguments, format);
    va_copy(measured, arguments);
    const int length = vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    int status = EINVAL;
    if (length >= 0) {
        conn_t *conn = conn_get();
        char *end = string_grow(&conn->logmsg, logmsg_length, static_cast<size_t>(length));
        status = end ? 0 : ENOMEM;
        if (end) {
            vsnprintf(end, static_cast<size_t>(length) + 1, format, arguments);
            remember(conn->logmsg, end + strlen(end), logmsg_length);
        }
    }
    va_end(arguments);
    return status;
}

int error_invalid_arguments(const char *log_name)
{
    error_print("? %s: invalid arguments\n", log_name);
    return EINVAL;
}

namespace
{

/**
 * The text of a message. Everything that goes into one is bounded: a path, a name, some numbers.
 */
struct message_t {
    char text[1024] = ""; // printf refuses a text that is longer than it can count

    message_t(const char *format, va_list arguments) PRINTF_FORMAT(2, 0)
    {
        vsnprintf(text, sizeof text, format, arguments);
    }
};

} // namespace

int error_errno(const char *log_name, int error, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const message_t message(format, arguments);
    va_end(arguments);
    error_print("? %s: %s, errno %d (%s)\n", log_name, message.text, error, strerror(error));
    return error;
}

int debug_print(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stdout, format, arguments);
    va_end(arguments);
    return 0;
}

void debug_at(int level, const char *format, ...)
{
    if (get_debug_state() < level)
        return;
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stdout, format, arguments);
    va_end(arguments);
}

int debug_errno(int level, const char *log_name, int error, const char *format, ...)
{
    if (get_debug_state() < level)
        return error;
    va_list arguments;
    va_start(arguments, format);
    const message_t message(format, arguments);
    va_end(arguments);
    debug_print("%% %s: %s, errno %d (%s)\n", log_name, message.text, error, strerror(error));
    return error;
}

int next_message_id()
{
    return unique_msg_id++;
}

} // namespace zorvik

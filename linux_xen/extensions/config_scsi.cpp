// The SCSI element: the counters of Fibre Channel ports.
#include "config_scsi.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>

#include "agent_common.h"
#include "agent_files.h"
#include "agent_handles.h"
#include "agent_text.h"

namespace zorvik
{

namespace
{

constexpr char port_class[] = "/sys/class/fc_host";
constexpr char port_prefix[] = "host";
constexpr size_t longest_port = 64;
// The steps of scsi_status() speak in its name, and number the places they speak from.
constexpr char log_name[] = "scsi_status";
enum log_place {
    PLACE_NAME = 108,
    PLACE_START = 120,
    PLACE_OPEN = 156,
    PLACE_READ = 179,
    PLACE_COUNTER = 205
};

struct scsi_stat {
    const char *sysfsName;
    const char *xmlName;
};

constexpr scsi_stat scsi_stats[] = {
    {"rx_words", "Rx_Words"},
    {"tx_words", "Tx_Words"},
};

/** A line of the report. One that fills its buffer is refused rather than cut. */
struct report_line_t {
    char text[1024];
    int length;

    explicit report_line_t(const char *format, ...) PRINTF_FORMAT(2, 3)
    {
        va_list arguments;
        va_start(arguments, format);
        length = vsnprintf(text, sizeof text, format, arguments);
        va_end(arguments);
    }

    bool too_long() const { return length >= static_cast<int>(sizeof text) - 1; }
    int send() const { return conn_send2(text, length); }
};

/** Logs that a step of the counter file at `path` failed because of the errno value `error`. */
void log_counter(log_place place, const char *what, const char *path, int error)
{
    error_print("? %u %s: %s '%s', errno %d(%s)\n", static_cast<unsigned int>(place), log_name,
                what, path, error, strerror(error));
}

/**
 * Reads a counter's text without the white space behind it. Returns whether there was any; a
 * failure is logged.
 */
bool read_counter(const char *path, char *text, size_t size)
{
    const unique_fd file = open_file(path);
    if (!file) {
        log_counter(PLACE_OPEN, "unable to open", path, errno);
        return false;
    }
    const ssize_t length = read_up_to(file.fd, text, size);
    if (length < 0) {
        log_counter(PLACE_READ, "read error", path, errno);
        return false;
    }
    text[trimmed_length(text, static_cast<size_t>(length))] = '\0';
    return length > 0;
}

/**
 * Writes one counter of a port, if it can be had; `indent` is the report's. Returns 0 or the error
 * of a failed append.
 */
int send_port_counter(const scsi_stat &counter, const char *port, int indent)
{
    const path_t<PATH_MAX> path("%s/%s/statistics/%s", port_class, port, counter.sysfsName);
    char text[128];
    if (!read_counter(path.text, text, sizeof text))
        return 0;
    const report_line_t line("%-*s<%s>%s</%s>\n", indent + 6, "", counter.xmlName, text,
                             counter.xmlName);
    if (!line.too_long())
        return line.send();
    error_print("? %u %s: impossible %d '%s' '%s'\n", PLACE_COUNTER, log_name, indent,
                counter.xmlName, text);
    return 0;
}

/**
 * Writes the element of one port; `indent` is the report's. Returns 0 or the error of a failed
 * append.
 */
int send_port(const char *port, int indent)
{
    const char *number = port + strlen(port_prefix);
    const report_line_t start("%-*s<Host Num=\"%s\">\n", indent + 2, "", number);
    if (start.too_long()) {
        error_print("? %u %s: impossible %d '%s'\n", PLACE_START, log_name, indent, number);
        return 0;
    }
    if (const int status = start.send())
        return status;
    conn_send_start("Statistics", indent + 4);
    for (const scsi_stat &counter : scsi_stats)
        if (const int status = send_port_counter(counter, port, indent))
            return status;
    if (const int status = conn_send_end("Statistics", indent + 4))
        return status;
    return conn_send_end("Host", indent + 2);
}

/** Whether a directory entry is a port to report. */
bool is_port(const char *name)
{
    const size_t length = strlen(name);
    if (!has_prefix(name, port_prefix) || length <= strlen(port_prefix))
        return false;
    if (length <= longest_port)
        return true;
    error_print("? %u %s: impossible  : %s/ '%s' too long [%lu]\n", PLACE_NAME, log_name,
                port_class, name, length);
    return false;
}

} // namespace

int show_scsi_status(int indent, int newWay, int)
{
    return newWay ? scsi_status(indent) : 0;
}

int scsi_status(int indent)
{
    const unique_directory ports{opendir(port_class)};
    if (!ports)
        return 0;
    conn_send_start("SCSI", indent);
    while (const char *name = next_entry(ports.get(), ENTRY_ANY))
        if (is_port(name))
            if (const int status = send_port(name, indent))
                return status;
    return conn_send_end("SCSI", indent);
}

} // namespace zorvik

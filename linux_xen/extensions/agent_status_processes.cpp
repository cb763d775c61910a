// The Processes element: the kernel's processes as /proc tells them.
#include "agent_status.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <span>
#include <string_view>
#include <unistd.h>

#include "agent_common.h"
#include "agent_files.h"
#include "agent_handles.h"
#include "agent_sources.h"
#include "agent_status_process_stat.h"
#include "agent_text.h"

namespace zorvik
{

namespace
{

constexpr char proc_root[] = "/proc";
constexpr int unknown_processor = 255;

enum row_form : uint8_t { ROW_START, ROW_END, ROW_DECIMAL, ROW_POINT, ROW_HEXADECIMAL };

/** A piece of text that is copied whole, whatever it holds: the copy is then a few instructions. */
struct piece_t {
    char text[24];
    uint8_t length;
};

constexpr piece_t make_piece(std::string_view first, std::string_view name, std::string_view last)
{
    piece_t piece = {};
    for (const std::string_view part : {first, name, last})
        for (const char character : part)
            piece.text[piece.length++] = character;
    return piece;
}

/** One line of the report: a tag alone, or an element with the number of a field. */
struct stat_row_t {
    row_form form;
    uint8_t field;
    bool can_be_omitted;
    uint8_t omitted; // the value that is then not worth a line
    piece_t before, behind;
};

constexpr stat_row_t tag_row(row_form form, std::string_view element)
{
    return {form, 0, false, 0, make_piece(form == ROW_END ? "</" : "<", element, ">\n"), {}};
}

constexpr stat_row_t number_row(std::string_view element, uint8_t field,
                                row_form form = ROW_DECIMAL)
{
    return {form,
            field,
            false,
            0,
            make_piece("<", element, form == ROW_HEXADECIMAL ? ">0x" : ">"),
            make_piece(form == ROW_POINT ? ".</" : "</", element, ">\n")};
}

constexpr stat_row_t optional_row(std::string_view element, uint8_t field, uint8_t omitted,
                                  row_form form = ROW_DECIMAL)
{
    stat_row_t row = number_row(element, field, form);
    row.can_be_omitted = true;
    row.omitted = omitted;
    return row;
}

// The rows behind the command, group by group: a group's lines are cut as a whole.
constexpr stat_row_t owner_rows[] = {
    number_row("ParentPID", 4), number_row("ProcessGroup", 5),    number_row("Session", 6),
    number_row("TTY", 7),       number_row("TTYProcessGroup", 8),
};
constexpr stat_row_t fault_rows[] = {
    tag_row(ROW_START, "Faults"), number_row("Minor", 10),      number_row("ChildMinor", 11),
    number_row("Major", 12),      number_row("ChildMajor", 13), tag_row(ROW_END, "Faults"),
};
constexpr stat_row_t scheduling_rows[] = {
    number_row("Priority", 18),
    number_row("Flags", 9, ROW_HEXADECIMAL),
    number_row("ExitSignal", 38),
};
constexpr stat_row_t address_rows[] = {
    number_row("StartCode", 26, ROW_HEXADECIMAL),  number_row("EndCode", 27, ROW_HEXADECIMAL),
    number_row("StartStack", 28, ROW_HEXADECIMAL), number_row("ESP", 29, ROW_HEXADECIMAL),
    number_row("EIP", 30, ROW_HEXADECIMAL),
};
constexpr stat_row_t memory_rows[] = {
    number_row("StartTime", 22),
    number_row("VSize", 23, ROW_HEXADECIMAL),
    number_row("RSSPages", 24, ROW_HEXADECIMAL),
    number_row("RLim", 25, ROW_HEXADECIMAL),
};
constexpr stat_row_t nice_rows[] = {optional_row("Nice", 19, 0)};
constexpr stat_row_t timer_rows[] = {optional_row("Itrealvalue", 21, 0)};
constexpr stat_row_t cpu_rows[] = {optional_row("CPU", 39, unknown_processor)};
constexpr stat_row_t wchan_rows[] = {optional_row("WchanVal", 35, 0, ROW_HEXADECIMAL)};
constexpr stat_row_t usage_rows[] = {
    tag_row(ROW_START, "RUsage"),
    number_row("UserTime", 14),
    number_row("ChildUserTime", 16),
    number_row("SystemTime", 15),
    number_row("ChildSystemTime", 17, ROW_POINT),
    tag_row(ROW_END, "RUsage"),
};
constexpr std::span<const stat_row_t> groups[] = {
    owner_rows, fault_rows, scheduling_rows, address_rows, memory_rows,
    nice_rows,  timer_rows, cpu_rows,        wchan_rows,   usage_rows,
};

constexpr size_t most_group = 255;

/** Copies a piece whole; what stands behind its text is overwritten by what comes next. */
char *put_piece(char *end, const piece_t &piece)
{
    memcpy(end, piece.text, sizeof piece.text);
    return end + piece.length;
}

char *put_text(char *end, std::string_view text)
{
    return std::copy(text.begin(), text.end(), end);
}

char *put_blanks(char *end, int count)
{
    return std::fill_n(end, std::min(static_cast<size_t>(std::abs(count)), most_group), ' ');
}

/** Writes a group's lines. Returns where they end, or are cut. */
char *put_group(char *start, int indent, std::span<const stat_row_t> rows, const proc_stat_t &stat)
{
    char *end = start;
    int deeper = 0;
    for (const stat_row_t &row : rows) {
        const long value = stat.number[row.field];
        if (row.can_be_omitted && value == row.omitted)
            continue;
        deeper -= row.form == ROW_END ? 2 : 0;
        end = put_blanks(end, indent + deeper);
        end = put_piece(end, row.before);
        deeper += row.form == ROW_START ? 2 : 0;
        if (row.form == ROW_DECIMAL || row.form == ROW_POINT)
            end = std::to_chars(end, end + 24, value).ptr;
        else if (row.form == ROW_HEXADECIMAL)
            end = std::to_chars(end, end + 24, static_cast<unsigned long>(value), 16).ptr;
        end = put_piece(end, row.behind);
    }
    return std::min(end, start + most_group);
}

/** What was read of one process. */
struct stat_file_t {
    char pidName[256];
    char line[512];
};

/** Writes the lines before the command as a group of their own. Returns where they end. */
char *put_start(char *start, int indent, const char *pidName, char state)
{
    char *end = put_text(put_blanks(start, indent), "<Process PID=\"");
    end = put_text(put_text(end, pidName), "\">\n");
    end = put_text(put_blanks(end, indent + 2), "<State>");
    *end++ = state;
    end = put_text(end, "</State>\n");
    return std::min(end, start + most_group);
}

/**
 * Writes one process: printf would take a fifth of the whole report's time, and an append for every
 * group a tenth.
 */
void send_process(int indent, const stat_file_t &file)
{
    proc_stat_t stat;
    scan_proc_stat(file.line, &stat);
    const int child = indent + 2;
    // Every group is cut; its last line takes at most its depth, two pieces, a number.
    constexpr size_t most_line = most_group + 3 * sizeof(piece_t);
    char text[(std::size(groups) + 1) * most_group + 8 * most_line];
    char *end = put_start(text, indent, file.pidName, stat.state ? stat.state : '0');
    conn_send2(text, static_cast<int>(end - text));
    if (stat.comm[0])
        conn_send_XML_string("Command", child, stat.comm);
    end = text;
    for (const std::span<const stat_row_t> rows : groups)
        end = put_group(end, child, rows, stat);
    end = put_text(put_blanks(end, indent), "</Process>\n");
    conn_send2(text, static_cast<int>(end - text));
}

/**
 * Reads the first line of a stat file, or with current sources the file, for a name can have line
 * feeds. Returns whether there is one.
 */
bool read_stat_line(int fd, stat_file_t *stat)
{
    errno = 0;
    return is_asked(CURRENT) ? read_up_to(fd, stat->line, sizeof stat->line) > 0
                             : read_first_line(fd, stat->line, sizeof stat->line) >= 0;
}

/**
 * Reads a process's stat file below the open directory `proc`, or AT_FDCWD. Returns whether that
 * worked; else errno says why.
 */
bool read_stat(int proc, const char *pidName, stat_file_t *stat)
{
    constexpr char log_name[] = "send_proc_info";
    char path[256] = "/proc/";
    strlcat(path, pidName, sizeof path);
    strlcat(path, "/stat", sizeof path);
    const char *name = proc == AT_FDCWD ? path : path + strlen("/proc/");
    const unique_fd file = open_file(name, proc);
    const bool had_line = file && read_stat_line(file.fd, stat);
    const int error = errno;
    if (had_line)
        *put_text(stat->pidName, {pidName, strnlen(pidName, sizeof stat->pidName - 1)}) = '\0';
    else if (file)
        error_errno(log_name, error, "unable to read '%s'", path);
    else
        debug_errno(1, log_name, error, "unable to open '%s'", path);
    errno = error;
    return had_line;
}

} // namespace

int send_proc_info(int indent, const char *pidName)
{
    if (!pidName) {
        error_print("? %s: null input\n", __func__);
        return EINVAL;
    }
    stat_file_t stat;
    if (!read_stat(AT_FDCWD, pidName, &stat))
        return errno;
    send_process(indent, stat);
    return 0;
}

int send_ps_info(int indent)
{
    const unique_directory proc{opendir(proc_root)};
    if (!proc)
        return error_errno(__func__, errno, "unable to open %s", proc_root);
    if (const int status = conn_send_start("Processes", indent))
        return status;
    // Reading and writing take turns of some processes each: every change between the kernel's code
    // and this one's costs a start with cold caches.
    stat_file_t batch[16];
    stat_file_t *end = batch;
    const auto flush = [&] {
        std::for_each(batch, end, [=](const stat_file_t &stat) { send_process(indent + 2, stat); });
        end = batch;
    };
    while (const char *name = next_entry(proc.get(), ENTRY_DIRECTORY)) {
        if (name[0] >= '0' && name[0] <= '9' && read_stat(dirfd(proc.get()), name, end))
            end++;
        if (end == std::end(batch))
            flush();
    }
    flush();
    return conn_send_end("Processes", indent);
}

} // namespace zorvik

// The kernel's clock rate, and its processes as /proc tells them.
#include "agent_status.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <utility>

#include "agent_common.h"
#include "agent_files.h"
#include "agent_handles.h"
#include "agent_text.h"

namespace zorvik
{

namespace
{

constexpr char proc_root[] = "/proc";
constexpr int unknown_processor = 255;

/** The fields of a stat line, as far as they are looked at; proc(5) numbers them in this order. */
struct proc_stat_t {
    int pid;
    char comm[64];
    char state;
    int ppid, pgrp, session, ttynr, tpgid;
    unsigned long flags, minflt, cminflt, majflt, cmajflt, utime, stime;
    long cutime, cstime, priority, nice, dummy, itrealvalue;
    unsigned long starttime, vsize;
    long rss;
    unsigned long rlim, startcode, endcode, startstack, kstkesp, kstkeip;
    unsigned long signal, blocked, sigignore, sigcatch, wchan, nswap, cnswap;
    int exitsignal, processor;
};

// Each scan() converts the next field exactly as the scanf conversion of its type does, at a
// fraction of the cost, and says whether there was one.

/** Converts what almost every number is, blanks and up to 18 digits; says no to all others. */
bool scan_plain(const char *&at, unsigned long &value)
{
    const char *first = at;
    while (*first == ' ')
        first++;
    const char *end = first;
    unsigned long digits = 0;
    for (; *end >= '0' && *end <= '9'; end++)
        digits = digits * 10 + static_cast<unsigned long>(*end - '0');
    if (end == first || end - first > 18)
        return false;
    at = end;
    value = digits;
    return true;
}

bool scan(const char *&at, unsigned long &value)
{
    if (scan_plain(at, value))
        return true;
    char *end = nullptr;
    value = strtoul(at, &end, 10);
    return std::exchange(at, end) != end;
}

bool scan(const char *&at, long &value)
{
    unsigned long plain = 0;
    if (scan_plain(at, plain)) {
        value = static_cast<long>(plain);
        return true;
    }
    char *end = nullptr;
    value = strtol(at, &end, 10);
    return std::exchange(at, end) != end;
}

bool scan(const char *&at, int &value)
{
    long wide = 0;
    const bool converted = scan(at, wide);
    value = static_cast<int>(wide);
    return converted;
}

bool scan(const char *&at, char &value)
{
    at += strspn(at, white_space);
    value = *at;
    return value && at++;
}

template <size_t Size> bool scan(const char *&at, char (&word)[Size])
{
    at += strspn(at, white_space);
    const size_t length = strcspn(at, white_space);
    memcpy(word, at, std::min(length, Size - 1)); // what does not fit is passed over
    at += length;
    return length > 0;
}

/** Converts fields up to the first that is none. */
template <typename... Field> void scan_fields(const char *at, Field &...fields)
{
    (scan(at, fields) && ...);
}

/** Takes a stat line apart word by word: a blank in the command's name shifts what follows it, and
 * what is missing stays 0. */
proc_stat_t scan_proc_stat(const char *line)
{
    proc_stat_t p = {};
    scan_fields(line, p.pid, p.comm, p.state, p.ppid, p.pgrp, p.session, p.ttynr, p.tpgid, p.flags,
                p.minflt, p.cminflt, p.majflt, p.cmajflt, p.utime, p.stime, p.cutime, p.cstime,
                p.priority, p.nice, p.dummy, p.itrealvalue, p.starttime, p.vsize, p.rss, p.rlim,
                p.startcode, p.endcode, p.startstack, p.kstkesp, p.kstkeip, p.signal, p.blocked,
                p.sigignore, p.sigcatch, p.wchan, p.nswap, p.cnswap, p.exitsignal, p.processor);
    return p;
}

/** A number's text, without leading zeros. */
template <unsigned int Base> struct digits_t {
    char text[24];
    char *first = text + sizeof text;

    explicit digits_t(unsigned long value, bool negative = false)
    {
        do {
            *--first = "0123456789abcdef"[value % Base];
            value /= Base;
        } while (value > 0);
        if (negative)
            *--first = '-';
    }

    std::string_view view() const { return {first, text + sizeof text}; }
};

/**
 * A group of lines, cut at 255 characters as a whole and appended at once. A host has thousands of
 * processes, and printf would take a fifth of the whole report's time.
 */
struct group_t {
    int indent;
    size_t length = 0;
    char lines[255];

    explicit group_t(int blanks) : indent(blanks) {}

    int send() const { return conn_send2(lines, static_cast<int>(length)); }

    template <typename... Piece> void line(Piece... pieces)
    {
        const size_t blanks = std::min(static_cast<size_t>(indent), sizeof lines - length);
        memset(lines + length, ' ', blanks);
        length += blanks;
        (put(pieces), ...);
    }

    void put(std::string_view piece)
    {
        const size_t fits = std::min(piece.size(), sizeof lines - length);
        memcpy(lines + length, piece.data(), fits);
        length += fits;
    }

    template <typename... Attribute> group_t &open(const char *name, Attribute... attribute)
    {
        line("<", name, attribute..., ">\n");
        indent += 2;
        return *this;
    }

    group_t &close(const char *name)
    {
        indent -= 2;
        line("</", name, ">\n");
        return *this;
    }

    group_t &text(std::string_view name, const char *value)
    {
        line("<", name, ">", value, "</", name, ">\n");
        return *this;
    }

    /** A value as %ld writes it, with `behind` behind it. */
    template <typename Value>
    group_t &decimal(std::string_view name, Value value, const char *behind = "")
    {
        const auto number = static_cast<long>(value);
        const auto bits = static_cast<unsigned long>(number);
        const digits_t<10> digits(number < 0 ? 0 - bits : bits, number < 0);
        line("<", name, ">", digits.view(), behind, "</", name, ">\n");
        return *this;
    }

    /** A value as 0x%lx writes it. */
    template <typename Value> group_t &hexadecimal(std::string_view name, Value value)
    {
        const digits_t<16> digits(static_cast<unsigned long>(value));
        line("<", name, ">0x", digits.view(), "</", name, ">\n");
        return *this;
    }
};

/** What was read of one process. */
struct stat_file_t {
    char pidName[256];
    char line[512];
};

void send_process(int indent, const stat_file_t &stat)
{
    const proc_stat_t p = scan_proc_stat(stat.line);
    const int c = indent + 2;
    const char state[] = {p.state ? p.state : '0', '\0'};
    group_t(indent).open("Process", " PID=\"", stat.pidName, "\"").text("State", state).send();
    if (p.comm[0])
        conn_send_XML_string("Command", c, p.comm);
    group_t(c)
        .decimal("ParentPID", p.ppid)
        .decimal("ProcessGroup", p.pgrp)
        .decimal("Session", p.session)
        .decimal("TTY", p.ttynr)
        .decimal("TTYProcessGroup", p.tpgid)
        .send();
    group_t(c)
        .open("Faults")
        .decimal("Minor", p.minflt)
        .decimal("ChildMinor", p.cminflt)
        .decimal("Major", p.majflt)
        .decimal("ChildMajor", p.cmajflt)
        .close("Faults")
        .send();
    group_t(c)
        .decimal("Priority", p.priority)
        .hexadecimal("Flags", p.flags)
        .decimal("ExitSignal", p.exitsignal)
        .send();
    group_t(c)
        .hexadecimal("StartCode", p.startcode)
        .hexadecimal("EndCode", p.endcode)
        .hexadecimal("StartStack", p.startstack)
        .hexadecimal("ESP", p.kstkesp)
        .hexadecimal("EIP", p.kstkeip)
        .send();
    group_t(c)
        .decimal("StartTime", p.starttime)
        .hexadecimal("VSize", p.vsize)
        .hexadecimal("RSSPages", p.rss)
        .hexadecimal("RLim", p.rlim)
        .send();
    if (p.nice != 0)
        group_t(c).decimal("Nice", p.nice).send();
    if (p.itrealvalue != 0)
        group_t(c).decimal("Itrealvalue", p.itrealvalue).send();
    if (p.processor != unknown_processor)
        group_t(c).decimal("CPU", p.processor).send();
    if (p.wchan != 0)
        group_t(c).hexadecimal("WchanVal", p.wchan).send();
    group_t(c)
        .open("RUsage")
        .decimal("UserTime", p.utime)
        .decimal("ChildUserTime", p.cutime)
        .decimal("SystemTime", p.stime)
        .decimal("ChildSystemTime", p.cstime, ".")
        .close("RUsage")
        .send();
    group_t(c).close("Process").send();
}

/** Reads a process's stat file below the open directory `proc`, or AT_FDCWD. Returns whether that
 * worked; else errno says why. */
bool read_stat(int proc, const char *pidName, stat_file_t *stat)
{
    constexpr char reporter[] = "send_proc_info";
    char path[256] = "/proc/";
    strlcat(path, pidName, sizeof path);
    strlcat(path, "/stat", sizeof path);
    const char *name = proc == AT_FDCWD ? path : path + strlen("/proc/");
    const unique_fd file = open_file(name, proc);
    const bool had_line = file && read_first_line(file.fd, stat->line, sizeof stat->line) >= 0;
    const int error = errno;
    if (had_line)
        *stpncpy(stat->pidName, pidName, sizeof stat->pidName - 1) = '\0';
    else if (file)
        error_errno(reporter, error, "unable to read '%s'", path);
    else
        debug_errno(1, reporter, error, "unable to open '%s'", path);
    errno = error;
    return had_line;
}

} // namespace

int send_CPU_time(int indent, int)
{
    conn_send_lines(512, indent,
                    "<CPUTime>\n"
                    "  <Rate>%ld</Rate>\n",
                    sysconf(_SC_CLK_TCK));
    return conn_send_end("CPUTime", indent);
}

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

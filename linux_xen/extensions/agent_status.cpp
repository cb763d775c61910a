// The status command: its language, the driver of its document, and the clock rate.
#include "agent_status.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "agent_common.h"
#include "agent_handles.h"
#include "agent_text.h"
#include "config_network.h"
#include "config_scsi.h"

namespace zorvik
{

namespace
{

typedef struct status_option_s {
    const char *name;
    int flags;
} status_option_t;

// A clause may run several names together, in this order.
constexpr status_option_t opts[] = {
    {"All", STS_FLAG_EXCEPT_DOM},
    {"CPU", STS_FLAG_CPU},
    {"Memory", STS_FLAG_MEMORY},
    {"Network", STS_FLAG_NETWORK},
    {"Processes", STS_FLAG_PROCS},
    {"Scheduler", STS_FLAG_SCHEDULER},
    {"SCSI", STS_FLAG_SCSI},
    {"Dom_Info_Brief", STS_FLAG_DOMINFO_BRIEF},
    {"Bridge_Config", STS_FLAG_BR_CONFIG},
};

constexpr int default_flags = STS_FLAG_EXCEPT_DOM & ~STS_FLAG_PROCS;

struct section_t {
    int flag;
    int (*write)(int indent);
};

constexpr section_t sections[] = {
    {STS_FLAG_CPU, [](int indent) { return send_CPU_time(indent, 1); }},
    {STS_FLAG_PROCS, send_ps_info},
    {STS_FLAG_DOMINFO_BRIEF, send_Domain_Info},
    {STS_FLAG_MEMORY, send_memory_info},
    {STS_FLAG_NETWORK, [](int indent) { return network_status(indent, 1); }},
    {STS_FLAG_SCHEDULER, send_scheduler},
    {STS_FLAG_SCSI, [](int indent) { return show_scsi_status(indent, 1, 1); }},
    {STS_FLAG_BR_CONFIG, bridge_config},
    {STS_FLAG_BR_CONFIG, bond_config},
};

constexpr char log_name[] = "agent_status";

/** An ASCII letter in lower case, whatever the host process's locale makes of an "I". */
char lower(char letter)
{
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

/** Moves `at` behind `word`, letter case ignored. Returns whether it stood there. */
bool skip_word(const char *&at, const char *word)
{
    const char *next = at;
    for (; *word && lower(*next) == lower(*word); word++)
        next++;
    if (*word)
        return false;
    at = next;
    return true;
}

/** Takes the option names at `at`. Returns their flags, 0 when there is none. */
int take_options(const char *&at)
{
    int flags = 0;
    for (const status_option_t &option : opts)
        if (skip_word(at, option.name))
            flags |= option.flags;
    return flags;
}

/** Answers that something is wrong with a clause, in at most 255 characters. Returns EINVAL. */
int reject_clause(const char *what, const char *rest)
{
    char reason[256] = ""; // printf refuses a text that is longer than it can count
    snprintf(reason, sizeof reason, "%s '%s'", what, rest);
    conn_send_response2(RSP_CLIENT_BAD_REQ, "%s", reason);
    debug_at(1, "%% %s: %s\n", log_name, reason);
    return EINVAL;
}

void send_allowed_options()
{
    char line[256] = "Allowed options are:";
    for (const status_option_t &option : opts) {
        strlcat(line, " ", sizeof line);
        strlcat(line, option.name, sizeof line);
    }
    strlcat(line, "\n", sizeof line);
    conn_send2(line, static_cast<int>(strlen(line)));
}

/** Collects the flags of a command. Returns 0, or EINVAL when it was answered with a rejection. */
int parse_command(const char *at, int &flags)
{
    for (at += strspn(at, white_space); *at; at += strspn(at, white_space)) {
        if (!skip_word(at, "Option")) {
            conn_send_response2(RSP_CLIENT_BAD_REQ, "Unknown command '%s'", at);
            debug_at(1, "%% %s: unknown command '%s'\n", log_name, at);
            return EINVAL;
        }
        const char *colon = strchr(at, ':');
        if (!colon)
            return reject_clause("Badly formed command option", at);
        at = colon + 1;
        at += strspn(at, white_space);
        const int selected = take_options(at);
        if (!selected) {
            reject_clause("Unknown command option", at);
            send_allowed_options();
            return EINVAL;
        }
        flags |= selected;
    }
    return 0;
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

int generate_status(sts_flags_t flags)
{
    if (!conn_get()) {
        error_print("? %s: no connection structure\n", __func__);
        return ENOENT;
    }
    constexpr int indent = 2;
    const time_t start = time(nullptr);
    const unique_text local_time{xml_dateTime(start)};
    if (const int status = conn_send_lines(
            1024, 0, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Status LocalTime=\"%s\">\n",
            local_time ? local_time.get() : ""))
        return status;
    for (const section_t &section : sections)
        if (flags & section.flag)
            section.write(indent);
    const time_t end = time(nullptr);
    const time_t delta = end > start ? end - start : start - end;
    if (const int status = conn_send_lines(
            1024, indent, "<StatusDeltaTime units=\"seconds\">%lu</StatusDeltaTime>\n",
            static_cast<unsigned long>(delta)))
        return status;
    return conn_send_lines(1024, 0, "</Status>\n");
}

int agent_status(conn_t *conn, const char *cmdstring)
{
    if (!conn)
        return error_invalid_arguments(__func__);
    if (!cmdstring) {
        error_print("? %s: no command\n", __func__);
        return EINVAL;
    }
    int flags = 0;
    int status = parse_command(cmdstring, flags);
    if (status == 0) {
        conn_send_response2(RSP_OK, "Success");
        status = generate_status(static_cast<sts_flags_t>(flags ? flags : default_flags));
    }
    conn_close(conn);
    return status;
}

} // namespace zorvik

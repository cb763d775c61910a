// The hypervisor's domains and its scheduler.
#include "agent_status.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <uuid/uuid.h>

#include "agent_common.h"
#include "agent_hypervisor.h"
#include "agent_sources.h"

namespace zorvik
{

namespace
{

constexpr const char *shutdown_reasons[] = {"Poweroff", "Reboot", "Suspend", "Crashed"};

/** One bit of a domain's state, and the element that shows it. */
struct domain_state_t {
    const char *name;
    bool domain_t::*is_set;
    bool has_reason = false;
};

constexpr domain_state_t domain_states[] = {
    {"Dying", &domain_t::dying},
    {"Crashed", &domain_t::crashed},
    {"Shutdown", &domain_t::shutdown, true},
    {"Paused", &domain_t::paused},
    {"Blocked", &domain_t::blocked},
    {"Running", &domain_t::running},
};

int send_state(int indent, const domain_t &domain)
{
    conn_send_start("State", indent);
    const int child = indent + 2;
    bool ready = true;
    for (const domain_state_t &state : domain_states) {
        if (!(domain.*state.is_set))
            continue;
        ready = false;
        if (state.has_reason) {
            conn_send_start(state.name, child);
            conn_send_XML_string("Reason", child + 2,
                                 shutdown_reason(static_cast<int>(domain.shutdown_reason)));
            conn_send_end(state.name, child);
        } else {
            conn_send_lines(256, child, "<%s />\n", state.name);
        }
    }
    if (ready)
        conn_send_lines(256, child, "<Ready />\n");
    return conn_send_end("State", indent);
}

void send_domain(int indent, const domain_t &domain)
{
    const int child = indent + 2;
    conn_send_lines(256, indent, "<Domain Id=\"%d\">\n", static_cast<int>(domain.domid));
    char handle[UUID_STR_LEN];
    uuid_unparse(domain.handle, handle);
    conn_send_XML_string("Handle", child, handle);
    constexpr int pages_group = 789; // the name of this group of lines in the log
    char text[1024];
    const int length =
        snprintf(text, sizeof text,
                 "%-*s<SSIDRef>%d</SSIDRef>\n%-*s<Pages>%lu</Pages>\n"
                 "%-*s<SharedInfoFrame>0x%lx</SharedInfoFrame>\n%-*s<MaxMemKB>%lu</MaxMemKB>\n"
                 "%-*s<CPUTime>%lu</CPUTime>\n",
                 child, "", static_cast<int>(domain.ssidref), child, "", domain.nr_pages, child, "",
                 domain.shared_info_frame, child, "", domain.max_memkb, child, "", domain.cpu_time);
    if (length > static_cast<int>(sizeof text) - 1)
        error_print("? %s: [%d] string too short %d bytes written, %zd desired\n",
                    "send_Domain_Info", pages_group, length, static_cast<ssize_t>(sizeof text));
    conn_send2(text, std::min(length, static_cast<int>(sizeof text) - 1));
    send_state(child, domain);
    conn_send_end("Domain", indent);
}

/** Logs that the parameters of a domain cannot be read. */
void log_schedule(const char *scheduler, int domid, int status)
{
    error_print("? %s: failed to get %s schedule info for domain %d, sts %d\n", "send_scheduler",
                scheduler, domid, status);
}

void send_sedf(xc_interface_core *handle, int indent, uint32_t domid)
{
    sedf_share_t share;
    const int id = static_cast<int>(domid);
    if (const int status = get_sedf_share(handle, domid, &share))
        return log_schedule("SEDF", id, status);
    conn_send_lines(256, indent,
                    "<Domain Id=\"%d\">\n"
                    "  <Period>%lu</Period>\n"
                    "  <Slice>%lu</Slice>\n"
                    "  <Latency>%lu</Latency>\n"
                    "  <Extratime>%hu</Extratime>\n"
                    "  <Weight>%hu</Weight>\n"
                    "</Domain>\n",
                    id, share.period, share.slice, share.latency, share.extratime, share.weight);
}

/** Writes what a call of one of the credit schedulers says. */
void send_weight(int indent, int id, const char *scheduler, int status, const credit_share_t &share)
{
    if (status != 0)
        return log_schedule(scheduler, id, status);
    conn_send_lines(256, indent,
                    "<Domain Id=\"%d\">\n"
                    "  <Weight>%hu</Weight>\n"
                    "  <Cap>%hu</Cap>\n"
                    "</Domain>\n",
                    id, share.weight, share.cap);
}

void send_credit(xc_interface_core *handle, int indent, uint32_t domid)
{
    credit_share_t share;
    const int status = get_credit_share(handle, domid, &share);
    send_weight(indent, static_cast<int>(domid), "CREDIT", status, share);
}

void send_credit2(xc_interface_core *handle, int indent, uint32_t domid)
{
    credit_share_t share;
    const int status = get_credit2_share(handle, domid, &share);
    send_weight(indent, static_cast<int>(domid), "CREDIT2", status, share);
}

void send_rtds(xc_interface_core *handle, int indent, uint32_t domid)
{
    rtds_share_t share;
    const int id = static_cast<int>(domid);
    if (const int status = get_rtds_share(handle, domid, &share))
        return log_schedule("RTDS", id, status);
    conn_send_lines(256, indent,
                    "<Domain Id=\"%d\">\n"
                    "  <Period>%u</Period>\n"
                    "  <Budget>%u</Budget>\n"
                    "</Domain>\n",
                    id, share.period, share.budget);
}

/** The hypervisor's number of a scheduler, and what tells a domain's share under it. */
struct scheduler_t {
    int id;
    const char *name;
    void (*send)(xc_interface_core *handle, int indent, uint32_t domid);
    source_age age;
};

constexpr scheduler_t schedulers[] = {
    {4, "sedf", send_sedf, CLASSIC},
    {5, "credit", send_credit, CLASSIC},
    {6, "credit2", send_credit2, CURRENT},
    {8, "rtds", send_rtds, CURRENT},
};

constexpr scheduler_t unknown_scheduler = {0, "unknown", [](xc_interface_core *, int, uint32_t) {},
                                           CLASSIC};

const scheduler_t &find_scheduler(int id)
{
    for (const scheduler_t &scheduler : schedulers)
        if (scheduler.id == id && is_asked(scheduler.age))
            return scheduler;
    return unknown_scheduler;
}

} // namespace

const char *shutdown_reason(int reason)
{
    if (reason < 0 || reason >= static_cast<int>(std::size(shutdown_reasons)))
        return "Unknown";
    return shutdown_reasons[reason];
}

int send_Domain_Info(int indent)
{
    const unique_hypervisor handle = open_hypervisor(__func__);
    if (!handle)
        return errno;
    if (const int status = conn_send_start("Domains", indent))
        return status;
    for_each_domain(handle.get(), [=](const domain_t &domain) { send_domain(indent + 2, domain); });
    return conn_send_end("Domains", indent);
}

int send_scheduler(int indent)
{
    const unique_hypervisor handle = open_hypervisor(__func__);
    if (!handle)
        return errno;
    int id = 0;
    if (const int status = get_scheduler(handle.get(), &id)) {
        error_print("? %s: failed to get sched type, sts %d\n", __func__, status);
        return status;
    }
    const scheduler_t &scheduler = find_scheduler(id);
    conn_send_lines(256, indent, "<Scheduler Type=\"%s\" Index=\"%d\" >\n", scheduler.name, id);
    for_each_domain(handle.get(), [&](const domain_t &domain) {
        scheduler.send(handle.get(), indent + 2, domain.domid);
    });
    return conn_send_end("Scheduler", indent);
}

} // namespace zorvik

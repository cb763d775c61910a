// The hypervisor's domains and its scheduler.
#include "agent_status.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <uuid/uuid.h>

#include "agent_common.h"
#include "agent_hypervisor.h"

namespace zorvik
{

namespace
{

constexpr const char *shutdown_reasons[] = {"Poweroff", "Reboot", "Suspend", "Crashed"};

/** One bit of a domain's state, and the element that shows it. */
struct domain_state_t {
    const char *name;
    bool (*is_set)(const xc_dominfo_t &info);
    bool has_reason = false;
};

constexpr domain_state_t domain_states[] = {
    {"Dying", [](const xc_dominfo_t &info) -> bool { return info.dying; }},
    {"Crashed", [](const xc_dominfo_t &info) -> bool { return info.crashed; }},
    {"Shutdown", [](const xc_dominfo_t &info) -> bool { return info.shutdown; }, true},
    {"Paused", [](const xc_dominfo_t &info) -> bool { return info.paused; }},
    {"Blocked", [](const xc_dominfo_t &info) -> bool { return info.blocked; }},
    {"Running", [](const xc_dominfo_t &info) -> bool { return info.running; }},
};

int send_state(int indent, const xc_dominfo_t &info)
{
    conn_send_start("State", indent);
    const int child = indent + 2;
    bool ready = true;
    for (const domain_state_t &state : domain_states) {
        if (!state.is_set(info))
            continue;
        ready = false;
        if (state.has_reason) {
            conn_send_start(state.name, child);
            conn_send_XML_string("Reason", child + 2,
                                 shutdown_reason(static_cast<int>(info.shutdown_reason)));
            conn_send_end(state.name, child);
        } else {
            conn_send_lines(256, child, "<%s />\n", state.name);
        }
    }
    if (ready)
        conn_send_lines(256, child, "<Ready />\n");
    return conn_send_end("State", indent);
}

void send_domain(int indent, const xc_dominfo_t &info)
{
    const int child = indent + 2;
    conn_send_lines(256, indent, "<Domain Id=\"%d\">\n", static_cast<int>(info.domid));
    char handle[UUID_STR_LEN];
    uuid_unparse(info.handle, handle);
    conn_send_XML_string("Handle", child, handle);
    char text[1024];
    const int length =
        snprintf(text, sizeof text,
                 "%-*s<SSIDRef>%d</SSIDRef>\n%-*s<Pages>%lu</Pages>\n"
                 "%-*s<SharedInfoFrame>0x%lx</SharedInfoFrame>\n%-*s<MaxMemKB>%lu</MaxMemKB>\n"
                 "%-*s<CPUTime>%lu</CPUTime>\n",
                 child, "", static_cast<int>(info.ssidref), child, "", info.nr_pages, child, "",
                 info.shared_info_frame, child, "", info.max_memkb, child, "", info.cpu_time);
    if (length > static_cast<int>(sizeof text) - 1)
        error_print("? %s: [%d] string too short %d bytes written, %zd desired\n",
                    "send_Domain_Info", 789, length, static_cast<ssize_t>(sizeof text));
    conn_send2(text, std::min(length, static_cast<int>(sizeof text) - 1));
    send_state(child, info);
    conn_send_end("Domain", indent);
}

/** Logs that the parameters of a domain cannot be read. */
void log_schedule(const char *scheduler, int domid, int status)
{
    error_print("? %s: failed to get %s schedule info for domain %d, sts %d\n", "send_scheduler",
                scheduler, domid, status);
}

void send_sedf(xc_interface *handle, int indent, uint32_t domid)
{
    uint64_t period = 0, slice = 0, latency = 0;
    uint16_t extratime = 0, weight = 0;
    const int id = static_cast<int>(domid);
    const int status = xc_sedf_domain_get ? xc_sedf_domain_get(handle, domid, &period, &slice,
                                                               &latency, &extratime, &weight)
                                          : -1;
    if (status != 0) {
        log_schedule("SEDF", id, status);
        return;
    }
    conn_send_lines(256, indent,
                    "<Domain Id=\"%d\">\n"
                    "  <Period>%lu</Period>\n"
                    "  <Slice>%lu</Slice>\n"
                    "  <Latency>%lu</Latency>\n"
                    "  <Extratime>%hu</Extratime>\n"
                    "  <Weight>%hu</Weight>\n"
                    "</Domain>\n",
                    id, period, slice, latency, extratime, weight);
}

void send_credit(xc_interface *handle, int indent, uint32_t domid)
{
    struct xen_domctl_sched_credit credit = {};
    const int id = static_cast<int>(domid);
    if (const int status = xc_sched_credit_domain_get(handle, domid, &credit)) {
        log_schedule("CREDIT", id, status);
        return;
    }
    conn_send_lines(256, indent,
                    "<Domain Id=\"%d\">\n"
                    "  <Weight>%hu</Weight>\n"
                    "  <Cap>%hu</Cap>\n"
                    "</Domain>\n",
                    id, credit.weight, credit.cap);
}

/** The hypervisor's number of a scheduler, and what tells a domain's share under it. */
struct scheduler_t {
    int id;
    const char *name;
    void (*send)(xc_interface *handle, int indent, uint32_t domid);
};

constexpr scheduler_t schedulers[] = {
    {4, "sedf", send_sedf},
    {5, "credit", send_credit},
};

constexpr scheduler_t unknown_scheduler = {0, "unknown", [](xc_interface *, int, uint32_t) {}};

const scheduler_t &find_scheduler(int id)
{
    for (const scheduler_t &scheduler : schedulers)
        if (scheduler.id == id)
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
    for_each_domain(handle.get(), [=](const xc_dominfo_t &info) { send_domain(indent + 2, info); });
    return conn_send_end("Domains", indent);
}

int send_scheduler(int indent)
{
    const unique_hypervisor handle = open_hypervisor(__func__);
    if (!handle)
        return errno;
    int id = 0;
    if (const int status = xc_sched_id(handle.get(), &id)) {
        error_print("? %s: failed to get sched type, sts %d\n", __func__, status);
        return status;
    }
    const scheduler_t &scheduler = find_scheduler(id);
    conn_send_lines(256, indent, "<Scheduler Type=\"%s\" Index=\"%d\" >\n", scheduler.name, id);
    for_each_domain(handle.get(), [&](const xc_dominfo_t &info) {
        scheduler.send(handle.get(), indent + 2, info.domid);
    });
    return conn_send_end("Scheduler", indent);
}

} // namespace zorvik

// The hypervisor's control library, answered from the sections [hypervisor] and [domain ID].
#include "simhost.h"

#include <cinttypes>
#include <cstring>
#include <sstream>
#include <uuid/uuid.h>

extern "C" {

#include <xenctrl.h>

// Left the library with Xen 4.6.
int xc_sedf_domain_get(xc_interface *handle, uint32_t id, uint64_t *period, uint64_t *slice,
                       uint64_t *latency, uint16_t *extratime, uint16_t *weight);
}

using namespace simhost;

/** What a handle points at: a block of memory, so that a leak checker finds a forgotten one. */
struct xc_interface_core {
};

namespace
{

const std::string hypervisor = "hypervisor";

struct state_t {
    const char *name;
    uint32_t flag; // in a list of domains: there a crash is a shutdown for that reason
};

// In the order of the older record's bits, which stand right behind its second word.
constexpr state_t states[] = {
    {"dying", XEN_DOMINF_dying},       {"crashed", XEN_DOMINF_shutdown},
    {"shutdown", XEN_DOMINF_shutdown}, {"paused", XEN_DOMINF_paused},
    {"blocked", XEN_DOMINF_blocked},   {"running", XEN_DOMINF_running},
};

/** Sets a field to the number of its key, 0 without one. */
template <typename Field> void set(const std::string &section, const char *key, Field *field)
{
    const char *value = answer(section, key, 0);
    *field = static_cast<Field>(value ? strtoul(value, nullptr, 0) : 0);
}

std::string domain(uint32_t id)
{
    return "domain " + std::to_string(id);
}

bool in_state(const std::string &section, const char *state)
{
    const char *words = answer(section, "state", 0);
    return words && strstr(words, state);
}

/** Finds the lowest domain number from `first` on. */
bool find_domain(uint32_t first, uint32_t *found)
{
    *found = UINT32_MAX;
    for (const auto &row : host().sections)
        if (uint32_t id = 0; sscanf(row.first.c_str(), "domain %" SCNu32, &id) == 1)
            *found = id < first || id > *found ? *found : id;
    return *found != UINT32_MAX;
}

/** Sets what both records of a domain call by the same names. */
template <typename Info> void set_common(const std::string &section, Info *info)
{
    set(section, "ssidref", &info->ssidref);
    set(section, "shared_info_frame", &info->shared_info_frame);
    set(section, "cpu_time", &info->cpu_time);
    set(section, "online_vcpus", &info->nr_online_vcpus);
    set(section, "max_vcpu_id", &info->max_vcpu_id);
    if (const char *uuid = answer(section, "handle", 0))
        uuid_parse(uuid, info->handle);
}

/** Whether a call is answered: neither the fault plan nor the value of `key` makes it fail. */
bool granted(const char *call, const std::string &section, const char *key, int missing = 0)
{
    return plan(call) == outcome::normal && (answer(section, key, missing) || errno == 0);
}

/** Answers a call for a domain's share under a scheduler from the numbers of `key`. */
template <typename... Numbers>
int get_share(const char *call, uint32_t id, const char *key, const char *format, Numbers... to)
{
    if (!granted(call, domain(id), key, EINVAL))
        return -1;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // one for each scheduler
    return sscanf(answer(domain(id), key, EINVAL), format, to...) == sizeof...(to) ? 0 : -1;
#pragma GCC diagnostic pop
}

} // namespace

/** Asks the real library where there is no host. */
#define WITHOUT_HOST(call, ...)                                                                    \
    if (!host().loaded)                                                                            \
    return REAL(call)(__VA_ARGS__)

extern "C" {

xc_interface *xc_interface_open(xentoollog_logger *log, xentoollog_logger *build, unsigned flags)
{
    WITHOUT_HOST(xc_interface_open, log, build, flags);
    const int missing = host().sections.count(hypervisor) ? 0 : ENOENT;
    const bool opened = granted("xc_interface_open", hypervisor, "open", missing);
    return opened ? new xc_interface_core : nullptr;
}

int xc_interface_close(xc_interface *handle)
{
    WITHOUT_HOST(xc_interface_close, handle);
    delete handle;
    return 0;
}

int xc_physinfo(xc_interface *handle, xc_physinfo_t *info)
{
    WITHOUT_HOST(xc_physinfo, handle, info);
    if (!granted("xc_physinfo", hypervisor, "physinfo"))
        return -1;
    set(hypervisor, "threads_per_core", &info->threads_per_core);
    set(hypervisor, "cores_per_socket", &info->cores_per_socket);
    set(hypervisor, "nr_cpus", &info->nr_cpus);
    set(hypervisor, "nr_nodes", &info->nr_nodes);
    set(hypervisor, "cpu_khz", &info->cpu_khz);
    set(hypervisor, "total_pages", &info->total_pages);
    set(hypervisor, "free_pages", &info->free_pages);
    set(hypervisor, "scrub_pages", &info->scrub_pages);
    const char *words = answer(hypervisor, "hw_cap", 0);
    std::istringstream stream{words ? words : ""};
    for (uint32_t &word : info->hw_cap)
        stream >> std::hex >> word;
    return 0;
}

#ifdef ZORVIK_HAVE_DOMAIN_GETINFO
int xc_domain_getinfo(xc_interface *handle, uint32_t first, unsigned most, xc_dominfo_t *info)
{
    WITHOUT_HOST(xc_domain_getinfo, handle, first, most, info);
    if (!granted("xc_domain_getinfo", hypervisor, "getinfo"))
        return errno ? -1 : 0;
    *info = {};
    errno = ESRCH;
    if (!find_domain(first, &info->domid))
        return -1;
    const std::string section = domain(info->domid);
    set_common(section, info);
    set(section, "nr_pages", &info->nr_pages);
    set(section, "max_memkb", &info->max_memkb);
    set(section, "shutdown_reason", &info->shutdown_reason);
    uint32_t bits = 0;
    for (uint32_t bit = 0; bit < std::size(states); bit++)
        bits |= in_state(section, states[bit].name) ? 1U << bit : 0U;
    memcpy(reinterpret_cast<char *>(info) + sizeof(uint32_t[2]), &bits, sizeof bits);
    return 1;
}
#endif

int xc_domain_getinfolist(xc_interface *handle, uint32_t first, unsigned most,
                          xc_domaininfo_t *info)
{
    WITHOUT_HOST(xc_domain_getinfolist, handle, first, most, info);
    // Which of the two calls is asked makes no difference to a fault plan.
    if (!granted("xc_domain_getinfo", hypervisor, "getinfo"))
        return errno ? -1 : 0;
    *info = {};
    uint32_t id = 0;
    if (!find_domain(first, &id))
        return 0;
    info->domain = static_cast<domid_t>(id);
    const std::string section = domain(id);
    set_common(section, info);
    set(section, "nr_pages", &info->tot_pages);
    set(section, "max_memkb", &info->max_pages);
    info->max_pages /= XC_PAGE_SIZE / 1024;
    set(section, "shutdown_reason", &info->flags);
    info->flags = (info->flags & XEN_DOMINF_shutdownmask) << XEN_DOMINF_shutdownshift;
    for (const state_t &state : states)
        info->flags |= in_state(section, state.name) ? state.flag : 0;
    return 1;
}

int xc_sched_id(xc_interface *handle, int *id)
{
    WITHOUT_HOST(xc_sched_id, handle, id);
    if (!granted("xc_sched_id", hypervisor, "scheduler"))
        return -1;
    set(hypervisor, "scheduler", id);
    return 0;
}

int xc_sched_credit_domain_get(xc_interface *handle, uint32_t id,
                               struct xen_domctl_sched_credit *to)
{
    WITHOUT_HOST(xc_sched_credit_domain_get, handle, id, to);
    return get_share("xc_sched_credit_domain_get", id, "credit", "%" SCNu16 " %" SCNu16,
                     &to->weight, &to->cap);
}

int xc_sched_credit2_domain_get(xc_interface *handle, uint32_t id,
                                struct xen_domctl_sched_credit2 *to)
{
    WITHOUT_HOST(xc_sched_credit2_domain_get, handle, id, to);
    return get_share("xc_sched_credit2_domain_get", id, "credit2", "%" SCNu16 " %" SCNu16,
                     &to->weight, &to->cap);
}

int xc_sched_rtds_domain_get(xc_interface *handle, uint32_t id, struct xen_domctl_sched_rtds *to)
{
    WITHOUT_HOST(xc_sched_rtds_domain_get, handle, id, to);
    return get_share("xc_sched_rtds_domain_get", id, "rtds", "%" SCNu32 " %" SCNu32, &to->period,
                     &to->budget);
}

int xc_sedf_domain_get(xc_interface *handle, uint32_t id, uint64_t *period, uint64_t *slice,
                       uint64_t *latency, uint16_t *extratime, uint16_t *weight)
{
    WITHOUT_HOST(xc_sedf_domain_get, handle, id, period, slice, latency, extratime, weight);
    constexpr char format[] = "%" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu16 " %" SCNu16;
    return get_share("xc_sedf_domain_get", id, "sedf", format, period, slice, latency, extratime,
                     weight);
}

} // extern "C"

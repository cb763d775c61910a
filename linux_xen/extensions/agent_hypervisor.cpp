// The one door to the hypervisor: no other file of the product sees its library.
#include "agent_hypervisor.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <unistd.h>

#include "agent_common.h"

extern "C" { // the library's header is plain C

#include <xenctrl.h>

/** Left the library with Xen 4.6: null where it is not there. */
int xc_sedf_domain_get(xc_interface *xch, uint32_t domid, uint64_t *period, uint64_t *slice,
                       uint64_t *latency, uint16_t *extratime, uint16_t *weight)
    __attribute__((weak));
}

namespace zorvik
{

namespace
{

/** What both of the library's records of a domain call by the same names. */
template <typename Info> void copy_common(const Info &info, domain_t *domain)
{
    domain->ssidref = info.ssidref;
    domain->shared_info_frame = info.shared_info_frame;
    domain->cpu_time = info.cpu_time;
    domain->nr_online_vcpus = info.nr_online_vcpus;
    domain->max_vcpu_id = info.max_vcpu_id;
    static_assert(sizeof info.handle == sizeof domain->handle);
    std::copy(std::begin(info.handle), std::end(info.handle), domain->handle);
}

} // namespace

void close_hypervisor::operator()(xc_interface_core *handle) const
{
    xc_interface_close(handle);
}

unique_hypervisor open_hypervisor()
{
    return unique_hypervisor{xc_interface_open(nullptr, nullptr, 0)};
}

unique_hypervisor open_hypervisor(const char *log_name)
{
    unique_hypervisor handle = open_hypervisor();
    if (!handle) {
        const int error = errno;
        error_print("? %s: unable to get hypervisor handle, errno %d\n", log_name, error);
        errno = error;
    }
    return handle;
}

int get_host(xc_interface_core *handle, host_t *host)
{
    *host = {};
    xc_physinfo_t info = {};
    if (const int status = xc_physinfo(handle, &info))
        return status;
    *host = {info.threads_per_core, info.cores_per_socket, info.nr_cpus,
             info.nr_nodes,         info.cpu_khz,          info.total_pages,
             info.free_pages,       info.scrub_pages,      {}};
    static_assert(std::size(info.hw_cap) == std::size(host_t{}.hw_cap));
    std::copy(std::begin(info.hw_cap), std::end(info.hw_cap), host->hw_cap);
    return 0;
}

#ifdef ZORVIK_HAVE_DOMAIN_GETINFO

int get_domain_from(xc_interface_core *handle, uint32_t first, domain_t *domain)
{
    *domain = {};
    xc_dominfo_t info = {};
    const int count = xc_domain_getinfo(handle, first, 1, &info);
    if (count < 1)
        return count;
    copy_common(info, domain);
    domain->domid = info.domid;
    domain->dying = info.dying;
    domain->crashed = info.crashed;
    domain->shutdown = info.shutdown;
    domain->paused = info.paused;
    domain->blocked = info.blocked;
    domain->running = info.running;
    domain->shutdown_reason = info.shutdown_reason;
    domain->nr_pages = info.nr_pages;
    domain->max_memkb = info.max_memkb;
    return count;
}

#else // the library lost that call with Xen 4.18, and the rules below with it

int get_domain_from(xc_interface_core *handle, uint32_t first, domain_t *domain)
{
    *domain = {};
    xc_domaininfo_t info = {};
    const int count = xc_domain_getinfolist(handle, first, 1, &info);
    if (count < 1) {
        errno = count ? errno : ESRCH;
        return -1;
    }
    copy_common(info, domain);
    domain->domid = info.domain;
    domain->dying = info.flags & XEN_DOMINF_dying;
    domain->shutdown = info.flags & XEN_DOMINF_shutdown;
    domain->paused = info.flags & XEN_DOMINF_paused;
    domain->blocked = info.flags & XEN_DOMINF_blocked;
    domain->running = info.flags & XEN_DOMINF_running;
    domain->shutdown_reason = info.flags >> XEN_DOMINF_shutdownshift & XEN_DOMINF_shutdownmask;
    domain->crashed = domain->shutdown && domain->shutdown_reason == SHUTDOWN_crash;
    domain->shutdown = domain->shutdown && !domain->crashed;
    domain->nr_pages = info.tot_pages;
    domain->max_memkb = info.max_pages << (XC_PAGE_SHIFT - 10); // a KiB has 10 bits
    return count;
}

#endif

int get_scheduler(xc_interface_core *handle, int *id)
{
    *id = 0;
    return xc_sched_id(handle, id);
}

int get_credit_share(xc_interface_core *handle, uint32_t domid, credit_share_t *share)
{
    struct xen_domctl_sched_credit credit = {};
    const int status = xc_sched_credit_domain_get(handle, domid, &credit);
    *share = {credit.weight, credit.cap};
    return status;
}

int get_credit2_share(xc_interface_core *handle, uint32_t domid, credit_share_t *share)
{
    struct xen_domctl_sched_credit2 credit = {};
    const int status = xc_sched_credit2_domain_get(handle, domid, &credit);
    *share = {credit.weight, credit.cap};
    return status;
}

int get_rtds_share(xc_interface_core *handle, uint32_t domid, rtds_share_t *share)
{
    struct xen_domctl_sched_rtds rtds = {};
    const int status = xc_sched_rtds_domain_get(handle, domid, &rtds);
    *share = {rtds.period, rtds.budget};
    return status;
}

int get_sedf_share(xc_interface_core *handle, uint32_t domid, sedf_share_t *share)
{
    *share = {};
    if (!xc_sedf_domain_get)
        return -1;
    return xc_sedf_domain_get(handle, domid, &share->period, &share->slice, &share->latency,
                              &share->extratime, &share->weight);
}

} // namespace zorvik

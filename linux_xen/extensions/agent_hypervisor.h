/**
 * The one door to the hypervisor: plain records of what its control library tells of the host and
 * of its domains.
 */
#pragma once

#include <cstdint>
#include <memory>

struct xc_interface_core;

namespace zorvik
{

struct close_hypervisor {
    void operator()(xc_interface_core *handle) const;
};

/** An open handle to the hypervisor. */
using unique_hypervisor = std::unique_ptr<xc_interface_core, close_hypervisor>;

/** Opens a handle. Returns null with errno set on failure. */
unique_hypervisor open_hypervisor();

/** The same; a failure is also logged in the name of `log_name`, and leaves errno as it was set. */
unique_hypervisor open_hypervisor(const char *log_name);

/** What the hypervisor says of the machine. Memory is counted in pages of 4 KiB. */
struct host_t {
    uint32_t threads_per_core;
    uint32_t cores_per_socket;
    uint32_t nr_cpus;
    uint32_t nr_nodes;
    uint32_t cpu_khz;
    uint64_t total_pages;
    uint64_t free_pages;
    uint64_t scrub_pages;
    uint32_t hw_cap[8];
};

/** Fills in `host`. Returns the library's result, 0 for success, with errno set on failure. */
int get_host(xc_interface_core *handle, host_t *host);

/** A domain, as the hypervisor knows it. */
struct domain_t {
    uint32_t domid;
    uint32_t ssidref;
    bool dying, crashed, shutdown, paused, blocked, running;
    unsigned int shutdown_reason;
    unsigned long nr_pages;
    unsigned long shared_info_frame;
    uint64_t cpu_time; // in nanoseconds
    unsigned long max_memkb;
    uint32_t nr_online_vcpus;
    uint32_t max_vcpu_id;
    uint8_t handle[16];
};

/**
 * Finds the first domain whose number is `first` or above. Returns how many records the library
 * gave, 1; or its result when there is none, 0 or negative, with errno set.
 */
int get_domain_from(xc_interface_core *handle, uint32_t first, domain_t *domain);

/** Calls `report` with every domain, in the order of their numbers. */
template <typename Report> void for_each_domain(xc_interface_core *handle, Report report)
{
    domain_t domain;
    for (uint32_t first = 0; first <= UINT16_MAX; first = domain.domid + 1) {
        if (get_domain_from(handle, first, &domain) < 1 || domain.domid < first ||
            domain.domid > UINT16_MAX)
            return;
        report(domain);
    }
}

/** Which scheduler the hypervisor uses, by its number. Returns the library's result. */
int get_scheduler(xc_interface_core *handle, int *id);

/** A domain's share under the credit schedulers. */
struct credit_share_t {
    uint16_t weight;
    uint16_t cap;
};

/** A domain's share under the RTDS scheduler; times are in microseconds. */
struct rtds_share_t {
    uint32_t period;
    uint32_t budget;
};

/** A domain's share under the SEDF scheduler; times are in nanoseconds. */
struct sedf_share_t {
    uint64_t period;
    uint64_t slice;
    uint64_t latency;
    uint16_t extratime;
    uint16_t weight;
};

/**
 * All fill in a domain's share. They return the library's result, or -1 where it has no call for
 * that: SEDF left it with Xen 4.6.
 */
int get_credit_share(xc_interface_core *handle, uint32_t domid, credit_share_t *share);
int get_credit2_share(xc_interface_core *handle, uint32_t domid, credit_share_t *share);
int get_rtds_share(xc_interface_core *handle, uint32_t domid, rtds_share_t *share);
int get_sedf_share(xc_interface_core *handle, uint32_t domid, sedf_share_t *share);

} // namespace zorvik

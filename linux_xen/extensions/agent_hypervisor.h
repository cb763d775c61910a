/**
 * The hypervisor's control library, for the files that ask it something.
 */
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>
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

struct close_hypervisor {
    void operator()(xc_interface *handle) const { xc_interface_close(handle); }
};
using unique_hypervisor = std::unique_ptr<xc_interface, close_hypervisor>;

/** Opens a handle. A failure is logged in the name of `function` and leaves errno as it was set. */
inline unique_hypervisor open_hypervisor(const char *function)
{
    unique_hypervisor handle{xc_interface_open(nullptr, nullptr, 0)};
    if (!handle) {
        const int error = errno;
        error_print("? %s: unable to get hypervisor handle, errno %d\n", function, error);
        errno = error;
    }
    return handle;
}

/** Calls `report` with every domain, in the order of their ids. */
template <typename Report> void for_each_domain(xc_interface *handle, Report report)
{
    xc_dominfo_t info;
    for (uint32_t first = 0; first <= UINT16_MAX; first = info.domid + 1) {
        if (xc_domain_getinfo(handle, first, 1, &info) < 1 || info.domid < first ||
            info.domid > UINT16_MAX)
            return;
        report(info);
    }
}

} // namespace zorvik

/**
 * The three sources of memory figures, each read into one record. All figures are in KiB; one that
 * could not be read is 0.
 */
#pragma once

#include "agent_common.h"

namespace zorvik
{

struct hypervisor_meminfo_contents {
    unsigned long hmi_MemTotal_inKB;
    unsigned long hmi_MemFree_inKB;
    unsigned long hmi_Scrub_inKB;
};

/** The control domain's own memory, in the order of the file. */
struct meminfo_contents {
    unsigned long mic_MemTotal_inKB;
    unsigned long mic_MemFree_inKB;
    unsigned long mic_Buffers_inKB;
    unsigned long mic_Cached_inKB;
    unsigned long mic_SwapCached_inKB;
    unsigned long mic_Active_inKB;
    unsigned long mic_Inactive_inKB;
    unsigned long mic_HighTotal_inKB;
    unsigned long mic_HighFree_inKB;
    unsigned long mic_LowTotal_inKB;
    unsigned long mic_LowFree_inKB;
    unsigned long mic_SwapTotal_inKB;
    unsigned long mic_SwapFree_inKB;
    unsigned long mic_Dirty_inKB;
    unsigned long mic_Writeback_inKB;
    unsigned long mic_AnonPages_inKB;
    unsigned long mic_Mapped_inKB;
    unsigned long mic_Slab_inKB;
};

/** The control domain's balloon driver. It has no minimum and maximum target: they are 0. */
struct xenballoon_contents {
    unsigned long xbc_CurrentAllocation_inKB;
    unsigned long xbc_RequestedTarget_inKB;
    unsigned long xbc_MinimumTarget_inKB;
    unsigned long xbc_MaximumTarget_inKB;
    unsigned long xbc_LowMemBalloon_inKB;
    unsigned long xbc_HighMemBalloon_inKB;
    unsigned long xbc_DriverPages_inKB;
    unsigned long xbc_XenHardLimit_inKB;
};

/**
 * Reads /proc/meminfo (format: proc(5)), in the layout of older kernels, with lines for high and
 * low memory: later ones have other keys between these. Returns 0, EINVAL for another layout, or an
 * errno.
 */
MODULE_EXPORT int read_meminfo(struct meminfo_contents *contents);

/** Reads the total and what is free from the lines of /proc/meminfo, wherever they stand. */
int read_meminfo_lines(struct meminfo_contents *contents);

/** Asks the hypervisor. Returns 0, the errno of the failed open, or the result of xc_physinfo(). */
MODULE_EXPORT int read_hypervisor_meminfo(struct hypervisor_meminfo_contents *contents);

/**
 * Reads /proc/xen/balloon, with or without its hard limit. Returns 0, EINVAL for another layout, or
 * an errno.
 */
MODULE_EXPORT int read_xenballoon_instantaneous(struct xenballoon_contents *contents);

/**
 * Reads the figures that the balloon driver of newer kernels has in sysfs: allocation, target and
 * low memory. Returns 0, EINVAL for one that is no number, or an errno.
 */
int read_xenballoon_sysfs(struct xenballoon_contents *contents);

} // namespace zorvik

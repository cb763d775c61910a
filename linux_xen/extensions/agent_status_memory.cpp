// The memory section of the status document.
#include "agent_status.h"

#include <cerrno>
#include <cstring>

#include "agent_common.h"
#include "agent_sources.h"
#include "config_memory.h"

namespace zorvik
{

namespace
{

constexpr long ovhdMB = 28; // what the hypervisor keeps back for itself and for a new machine

/** The memory above the overhead, in MiB. */
long beyond_overhead(long freeMB)
{
    return freeMB > ovhdMB ? freeMB - ovhdMB : 0;
}

int send_available(int indent, unsigned long free_kb)
{
    const long freeMB = static_cast<long>(free_kb / 1024);
    debug_at(3, "%% %s: freeMB %ld ovhdMB %ld availMB %ld\n", "send_memory_info", freeMB, ovhdMB,
             beyond_overhead(freeMB));
    return conn_send_lines(256, indent, "<AvailableMB>%ld</AvailableMB>\n",
                           available_memory(freeMB));
}

int send_hypervisor(int indent, const struct hypervisor_meminfo_contents &hmi)
{
    conn_send_start("PhysicalInfo", indent);
    if (const int status =
            conn_send_lines(256, indent + 2,
                            "<TotalKB>%lu</TotalKB>\n"
                            "<FreeKB>%lu</FreeKB>\n"
                            "<ScrubKB>%lu</ScrubKB>\n",
                            hmi.hmi_MemTotal_inKB, hmi.hmi_MemFree_inKB, hmi.hmi_Scrub_inKB))
        return status;
    conn_send_end("PhysicalInfo", indent);
    return 0;
}

int send_balloon(int indent, const struct xenballoon_contents &xbc)
{
    conn_send_start("Balloon", indent);
    if (const int status =
            conn_send_lines(256, indent + 2,
                            "<CurrentKB>%lu</CurrentKB>\n"
                            "<RequestedKB>%lu</RequestedKB>\n"
                            "<LowMemKB>%lu</LowMemKB>\n",
                            xbc.xbc_CurrentAllocation_inKB, xbc.xbc_RequestedTarget_inKB,
                            xbc.xbc_LowMemBalloon_inKB))
        return status;
    conn_send_end("Balloon", indent);
    return 0;
}

int send_meminfo(int indent, const struct meminfo_contents &mic)
{
    conn_send_start("Meminfo", indent);
    if (const int status = conn_send_lines(256, indent + 2,
                                           "<TotalKB>%lu</TotalKB>\n"
                                           "<FreeKB>%lu</FreeKB>\n",
                                           mic.mic_MemTotal_inKB, mic.mic_MemFree_inKB))
        return status;
    conn_send_end("Meminfo", indent);
    return 0;
}

constexpr source_t<struct xenballoon_contents *> balloon_sources[] = {
    {read_xenballoon_instantaneous, CLASSIC},
    {read_xenballoon_sysfs, CURRENT},
};
constexpr source_t<struct meminfo_contents *> meminfo_sources[] = {
    {read_meminfo, CLASSIC},
    {read_meminfo_lines, CURRENT},
};

} // namespace

long available_memory(long freeMB)
{
    // One part in 101 of what is handed out goes into its administration.
    return beyond_overhead(freeMB) * 100 / 101;
}

int send_memory_info(int indent)
{
    const int child = indent + 2;
    if (const int status = conn_send_start("Memory", indent))
        return status;
    struct hypervisor_meminfo_contents hmi;
    if (const int status = read_hypervisor_meminfo(&hmi))
        error_errno(__func__, errno, "dmc_read_hypervisor_meminfo failed, sts %d", status);
    if (const int status = send_available(child, hmi.hmi_MemFree_inKB))
        return status;
    if (const int status = send_hypervisor(child, hmi))
        return status;
    struct xenballoon_contents xbc;
    const int balloon = ask_sources(balloon_sources, &xbc);
    if (balloon != 0 && !is_asked(CURRENT))
        return conn_close_early("Memory", indent, balloon);
    if (balloon == 0)
        if (const int status = send_balloon(child, xbc))
            return status;
    struct meminfo_contents mic;
    if (const int status = ask_sources(meminfo_sources, &mic))
        return conn_close_early("Memory", indent, status);
    if (const int status = send_meminfo(child, mic))
        return status;
    return conn_send_end("Memory", indent);
}

} // namespace zorvik

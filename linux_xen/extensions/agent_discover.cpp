#include "agent_discover.h"

#include <cerrno>
#include <cstring>
#include <iterator>

#include "agent_discover_internal.h"
#include "agent_hypervisor.h"
#include "config_ipmi.h"

namespace zorvik
{

topology_t derive_topology(uint32_t threads_per_core, uint32_t cores_per_socket, uint32_t nr_nodes,
                           uint32_t nr_cpus)
{
    // The hypervisor counts nodes, of which a socket can hold several.
    const uint32_t node_product = threads_per_core * cores_per_socket * nr_nodes;
    const uint32_t nodes_per_socket = nr_cpus ? node_product / nr_cpus : 0;
    return {
        node_product ? (nr_cpus + node_product - 1) / node_product : 0,
        nodes_per_socket > 1 ? nr_nodes / nodes_per_socket : nr_nodes,
    };
}

namespace
{

constexpr size_t text_bytes = 2048;

void send_physical_info(const xc_physinfo_t &info)
{
    const topology_t topology =
        derive_topology(info.threads_per_core, info.cores_per_socket, info.nr_nodes, info.nr_cpus);
    constexpr int indent = 8;
    conn_send_XML_tag("PhysicalInfo", 6, 1);
    conn_send_format(text_bytes,
                     "%-*s<ThreadsPerCore>%u</ThreadsPerCore>\n"
                     "%-*s<CoresPerSocket>%u</CoresPerSocket>\n"
                     "%-*s<SocketsPerNode>%u</SocketsPerNode>\n"
                     "%-*s<Nodes>%u</Nodes>\n"
                     "%-*s<CPUKHz>%u</CPUKHz>\n"
                     "%-*s<TotalPages>%lu</TotalPages>\n"
                     "%-*s<FreePages>%lu</FreePages>\n",
                     indent, "", info.threads_per_core, indent, "", info.cores_per_socket, indent,
                     "", topology.sockets_per_node, indent, "", topology.nodes, indent, "",
                     info.cpu_khz, indent, "", info.total_pages, indent, "", info.free_pages);
    conn_send_XML_tag("HW_Caps", 8, 1);
    for (int i = 0; i < static_cast<int>(std::size(info.hw_cap)); i++)
        conn_send_format(text_bytes, "%-*s<Item_%d>0x%08x</Item_%d>\n", 10, "", i, info.hw_cap[i],
                         i);
    conn_send_XML_tag("HW_Caps", 8, 0);
    conn_send_XML_tag("PhysicalInfo", 6, 0);
}

/** Ends where the hypervisor does not answer, with what is open then left open. */
void send_discover()
{
    conn_send_format(text_bytes,
                     "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n%s%*s<NodeInformation>\n",
                     "<Discover_Hardware_Result>\n", 2, " ");
    const unique_hypervisor hypervisor = open_hypervisor(__func__);
    if (!hypervisor)
        return;

    conn_send_XML_tag("VMM", 4, 1);
    xc_physinfo_t info = {};
    if (const int status = xc_physinfo(hypervisor.get(), &info)) {
        error_errno(__func__, errno, "xc_physinfo failed, sts %d", status);
        return;
    }
    send_physical_info(info);
    conn_send_XML_tag("VMM", 4, 0);

    config_send_cpuinfo(4);

    conn_send_XML_tag("IO", 4, 1);
    conn_send_format(text_bytes, "%-*s##STORAGE_DISCOVERY##\n", 6, "");
    conn_send_XML_tag("IO", 4, 0);

    config_show_ipmi(4);
    show_smbios_info(4, 1);

    conn_send_format(text_bytes, "%-*s##SERVER_RESERVED##\n", 4, "");
    conn_send_XML_tag("NodeInformation", 2, 0);
    conn_send_XML_tag("Discover_Hardware_Result", 0, 0);
}

} // namespace

int agent_discover_hardware(conn_t *)
{
    debug_at(1, "%s:\n", __func__);
    send_discover();
    return 0;
}

} // namespace zorvik

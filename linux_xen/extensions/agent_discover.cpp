// The hardware document: its driver, and what the hypervisor says of the machine.
#include "agent_discover.h"

#include <cerrno>
#include <cstring>
#include <iterator>

#include "agent_common.h"
#include "agent_discover_internal.h"
#include "agent_hypervisor.h"
#include "agent_sources.h"
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

void send_physical_info(const host_t &host)
{
    const topology_t topology =
        derive_topology(host.threads_per_core, host.cores_per_socket, host.nr_nodes, host.nr_cpus);
    conn_send_start("PhysicalInfo", 6);
    conn_send_lines(text_bytes, 8,
                    "<ThreadsPerCore>%u</ThreadsPerCore>\n"
                    "<CoresPerSocket>%u</CoresPerSocket>\n"
                    "<SocketsPerNode>%u</SocketsPerNode>\n"
                    "<Nodes>%u</Nodes>\n"
                    "<CPUKHz>%u</CPUKHz>\n"
                    "<TotalPages>%lu</TotalPages>\n"
                    "<FreePages>%lu</FreePages>\n",
                    host.threads_per_core, host.cores_per_socket, topology.sockets_per_node,
                    topology.nodes, host.cpu_khz, host.total_pages, host.free_pages);
    conn_send_start("HW_Caps", 8);
    for (int i = 0; i < static_cast<int>(std::size(host.hw_cap)); i++)
        conn_send_lines(text_bytes, 10, "<Item_%d>0x%08x</Item_%d>\n", i, host.hw_cap[i], i);
    conn_send_end("HW_Caps", 8);
    conn_send_end("PhysicalInfo", 6);
}

// The steps of send_discover() speak in its name.
constexpr char log_name[] = "send_discover";

/**
 * Writes the VMM element. Returns whether the document goes on: it ends where the hypervisor does
 * not answer, with what is open then left open, unless current sources are asked.
 */
bool send_vmm()
{
    const bool goes_on = is_asked(CURRENT);
    const unique_hypervisor hypervisor = open_hypervisor(log_name);
    if (!hypervisor && !goes_on)
        return false;
    conn_send_start("VMM", 4);
    host_t host;
    const int status = hypervisor ? get_host(hypervisor.get(), &host) : ENODEV;
    if (status == 0)
        send_physical_info(host);
    else if (hypervisor)
        error_errno(log_name, errno, "xc_physinfo failed, sts %d", status);
    if (status != 0 && !goes_on)
        return false;
    conn_send_end("VMM", 4);
    return true;
}

void send_discover()
{
    conn_send_lines(text_bytes, 0,
                    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                    "<Discover_Hardware_Result>\n"
                    "  <NodeInformation>\n");
    if (!send_vmm())
        return;
    config_send_cpuinfo(4);

    conn_send_start("IO", 4);
    conn_send_lines(text_bytes, 6, "##STORAGE_DISCOVERY##\n");
    conn_send_end("IO", 4);

    config_show_ipmi(4);
    show_smbios_info(4, 1);

    conn_send_lines(text_bytes, 4, "##SERVER_RESERVED##\n");
    conn_send_end("NodeInformation", 2);
    conn_send_end("Discover_Hardware_Result", 0);
}

} // namespace

int agent_discover_hardware(conn_t *)
{
    debug_at(1, "%s:\n", __func__);
    send_discover();
    return 0;
}

} // namespace zorvik

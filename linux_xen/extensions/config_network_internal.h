/**
 * What only the config_network files share.
 */
#pragma once

#include <cstddef>
#include <cstdint>

#include "agent_files.h"
#include "config_network.h"
#include "config_network_query.h"

namespace zorvik
{

/** What all blocks of IPv4 addresses begin with. */
inline constexpr char family_start[] = "Family Type=\"AF_INET\"";

/** Where the bonding driver lists its devices. */
inline constexpr char bonding_directory[] = "/proc/net/bonding";

/** Which devices are bonds; without the driver none is. */
struct bond_list_t {
    bool exists = path_exists(bonding_directory);

    bool has(const char *name) const;
};

/** Lists the devices worth reporting as get_network_device_list() does, over an open socket. */
int list_network_devices(query_socket_t &queries, const bond_list_t &bonds, eth_header_t *hdr);

/** 1 if `devName` is a device to report, else 0. */
int check_real_device(const char *devName, const bond_list_t &bonds);

/**
 * 1 if the device is an InfiniBand interface, else 0. `interfaces` is the kernel's open directory of
 * them, or -1.
 */
int infiniband_device(const char *devName, int interfaces = -1);

/**
 * Links `eth` behind the last entry whose name is not greater. The search begins at the entry
 * `near`, or at the tail: the kernel lists devices in runs of ascending names.
 */
void insert_device_sorted(eth_header_t *hdr, eth_device_t *eth, eth_device_t *near = nullptr);

/** Whether an address block tells the MTU. */
enum family_content { without_mtu, with_mtu };

/**
 * Writes the Family element of an interface, `indent` blanks deep: its hardware address, its MTU if
 * it is wanted, and its IPv4 addresses. Returns 0, or the errno of a socket that did not open.
 */
int show_addr_info(int indent, const char *name, family_content mtu);

/**
 * When a switch's tool that is started now for all bridges is to be through with them, in
 * milliseconds of the monotonic clock: in 5 seconds.
 */
int64_t switch_tool_deadline();

/**
 * Has the switch's tool list a bridge's ports into `text`, a buffer of `size` bytes, as much of it
 * as one read gives. Returns 0, the errno of a failed pipe or fork, or -1 when the tool failed or
 * had not ended by the deadline. Where the host process leaves no status of the tool, because its
 * children are reaped by others, a text or the end of the output tells a tool that worked.
 */
int list_switch_ports(const char *bridge, int64_t deadline, char *text, size_t size);

/**
 * The same for the names of all bridges, a line for each, to the end of what the tool writes: their
 * text and its length. It has a MiB at the most. Failures are logged.
 */
int list_switch_bridges(int64_t deadline, unique_text *names, size_t *length);

} // namespace zorvik

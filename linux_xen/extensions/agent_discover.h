/**
 * The report drivers of the hardware document, the network document and the unique identifier.
 */
#pragma once

#include "agent_common.h"

namespace zorvik
{

/** Writes the hardware document, as far as the hypervisor lets it. Returns 0. */
int agent_discover_hardware(conn_t *conn);

/**
 * Writes the machine's 16-byte identifier as 47 characters: the SMBIOS system UUID, or the
 * addresses of the physical network cards where the firmware has no usable one.
 * Returns 0, or 1 when no identifier could be made.
 */
int agent_unique_id(conn_t *conn);

/**
 * Writes the network document: the elements Network, Bonding, Bridges and Infiniband side by side,
 * `indent` blanks deep, without a root. Returns 0; failures show in the log text.
 */
int agent_discover_network(int indent);

} // namespace zorvik

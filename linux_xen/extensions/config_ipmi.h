/**
 * What the server's management controller says about itself and its LAN channels.
 */
#pragma once

namespace zorvik
{

/**
 * Writes the IPMI element `indent` blanks deep: the controller's GUID, and address and MAC of every
 * LAN channel. Nothing is written on a host without an IPMI device. Returns 0.
 * A controller that does not answer costs a second for each of 16 requests.
 */
int config_show_ipmi(int indent);

} // namespace zorvik

// The driver of the network document.
#include <algorithm>

#include "agent_common.h"
#include "agent_discover.h"
#include "config_network.h"

namespace zorvik
{

int agent_discover_network(int indent)
{
    debug_at(1, "%s:\n", __func__);
    // Far beyond what a line has room for, a depth is only work, and in the end an overflow.
    constexpr int deepest = 1 << 16;
    indent = std::clamp(indent, -deepest, deepest);
    config_show_network(indent);
    bonding_discover(indent);
    bridge_config(indent);
    infiniband_config(indent);
    return 0;
}

} // namespace zorvik

#include <algorithm>

#include "agent_discover.h"
#include "config_network.h"

int agent_discover_network(int indent)
{
    if (get_debug_state() >= 1)
        debug_print("%s:\n", __func__);
    // Beyond what any line has room for, a depth from outside is only work, or even an overflow.
    constexpr int deepest = 4096;
    indent = std::clamp(indent, -deepest, deepest);
    config_show_network(indent);
    bonding_discover(indent);
    bridge_config(indent);
    infiniband_config(indent);
    return 0;
}

// What the physical layer of a device knows, and what MII and ethtool share in telling it.
#include "config_network_link.h"

#include <cstring>

#include "agent_common.h"
#include "agent_text.h"
#include "config_network_internal.h"
#include "config_network_query.h"

namespace zorvik
{

void show_link_layer(query_socket_t &queries, int indent, const char *name)
{
    constexpr char log_name[] = "config_show_network";
    if (show_dev_mii_info(queries, indent, name) != 0) {
        debug_at(3, "%% %s: device '%s' has no MII calling ethtool\n", log_name, name);
        if (show_dev_ethtool_info(queries, indent, name) != 0)
            error_print("? %s: unable to read device '%s' info\n", log_name, name);
    }
    show_dev_ethtool_wol(queries, indent, name);
}

int send_link(int indent, const char *state, const char *speed, bool up)
{
    if (const int status = conn_send_lines(512, indent,
                                           "<Autonegotiate>\n"
                                           "  <State>%s</State>\n",
                                           state))
        return status;
    if (speed[0])
        if (const int status = conn_send_XML_string("Speed", indent + 2, speed))
            return status;
    if (const int status = conn_send_end("Autonegotiate", indent))
        return status;
    return conn_send_XML_string("Link", indent, up ? "ok" : "none");
}

void add_modes(mode_list_t *list, mode_table_t table, uint32_t bits)
{
    for (const mode_name_t &row : table)
        if (bits & row.bit)
            strlcat(list->text, row.text, sizeof list->text);
}

mode_list_t list_modes(mode_table_t first, uint32_t first_bits, mode_table_t second,
                       uint32_t second_bits)
{
    mode_list_t list;
    add_modes(&list, first, first_bits);
    add_modes(&list, second, second_bits);
    if (const size_t length = strlen(list.text))
        list.text[length - 1] = '\0';
    return list;
}

} // namespace zorvik

/**
 * The physical layer of a network device: what its PHY or its driver says of the link.
 */
#pragma once

#include <cstdint>
#include <span>

#include "config_network_query.h"

namespace zorvik
{

/** Writes what is known of a device's link, by MII or else by ethtool, and what wakes it up. */
void show_link_layer(query_socket_t &queries, int indent, const char *name);

/**
 * Writes the MII element of a device from its PHY's registers (IEEE 802.3, clause 22).
 * Returns 0; or, with nothing written, ENODEV or another errno when there are none to be had, and
 * EINVAL when they are not to be trusted; or the error of an append.
 */
int show_dev_mii_info(query_socket_t &queries, int indent, const char *devName);

/**
 * Writes the ETHTOOL element of a device from its driver's settings.
 * Returns 0, EINVAL, ENODEV when the driver does not say, or the error of an append.
 */
int show_dev_ethtool_info(query_socket_t &queries, int indent, const char *devName);

/** Writes the WOL element of a device, what wakes it up. */
void show_dev_ethtool_wol(query_socket_t &queries, int indent, const char *devName);

/**
 * Writes how a link came about, and whether it is there; an empty `speed` is left out. Returns 0 or
 * the error of an append.
 */
int send_link(int indent, const char *state, const char *speed, bool up);

/** One row of a list of modes. Every text ends with what separates it from the next. */
struct mode_name_t {
    const char *text;
    uint32_t bit;
};

using mode_table_t = std::span<const mode_name_t>;

/** Names of modes, as many as the text has room for. */
struct mode_list_t {
    char text[128] = "";
};

void add_modes(mode_list_t *list, mode_table_t table, uint32_t bits);

/** The names of one register's bits behind those of another's, without the last blank. */
mode_list_t list_modes(mode_table_t first, uint32_t first_bits, mode_table_t second = {},
                       uint32_t second_bits = 0);

} // namespace zorvik

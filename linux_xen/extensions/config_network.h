/**
 * The host's network devices and the sections written about them.
 */
#pragma once

#include <cstddef>
#include <memory>
#include <sys/queue.h>

#include "agent_common.h"

namespace zorvik
{

/** One network device. Every text is a heap string; an address that is not known is null. */
typedef struct eth_device_s {
    TAILQ_ENTRY(eth_device_s) eth_entry;
    char *device_name;
    char *inet_addr;
    char *inet_mask;
    char *inet_brdcst;
    char *hw_addr;
    int card_nr;
} eth_device_t;

typedef TAILQ_HEAD(eth_header_s, eth_device_s) eth_header_t;

/**
 * Texts reported as address and netmask of the first device without an address of its own, and
 * cleared then. The host process may write them; the module only clears them.
 */
MODULE_EXPORT char OrigIpString[64];
MODULE_EXPORT char OrigMaskString[64];

/**
 * Lists the devices worth reporting onto the empty list `hdr`, sorted by name in byte order.
 * The caller unlinks and frees the entries, also after a failure.
 * Returns 0, EINVAL, ENOMEM, or the errno of a failed system call.
 */
MODULE_EXPORT int get_network_device_list(eth_header_t *hdr);

/** Frees an entry that is no longer in a list. */
MODULE_EXPORT void free_eth_device(eth_device_t *eth);

/**
 * Writes the device list into the log text, for diagnosis. Returns as get_network_device_list().
 */
MODULE_EXPORT int print_network();

/**
 * Writes the Network element, `indent` blanks deep: every device with its addresses, its link and
 * its sysfs attributes. Returns 0, or the error of get_network_device_list() with nothing written.
 */
MODULE_EXPORT int config_show_network(int indent);

/**
 * Writes the Bonding element of the network document: mode, driver status and slaves of every bond
 * that has slaves. Returns 0, or the error of the bond that ended it.
 */
MODULE_EXPORT int bonding_discover(int indent);

/**
 * Writes the Bonding element of the status document: which slaves belong to which bond. Returns 0
 * or an error.
 */
MODULE_EXPORT int bond_config(int indent);

/**
 * Writes the Bridges element: every bridge with its addresses and its ports. Returns 0, -1 when the
 * Open vSwitch tool failed, or the error that ended the element.
 */
MODULE_EXPORT int bridge_config(int indent);

/**
 * Writes the Infiniband element: every InfiniBand interface with its addresses and its adapter's
 * port. Returns 0, or the error that ended the element.
 */
MODULE_EXPORT int infiniband_config(int indent);

/**
 * Writes the Network element of the status document: every interface's packets and bytes, both
 * ways. There is only the minimal form. Returns 0, or the error that ended the element.
 */
MODULE_EXPORT int network_status(int indent, int onlyMinimum);

struct free_device {
    void operator()(eth_device_t *device) const { free_eth_device(device); }
};
using unique_device = std::unique_ptr<eth_device_t, free_device>;

/** A device list that frees what is left in it. */
struct device_list_t {
    eth_header_t head;

    device_list_t() { TAILQ_INIT(&head); }
    device_list_t(const device_list_t &) = delete;
    device_list_t &operator=(const device_list_t &) = delete;
    ~device_list_t()
    {
        while (take_first()) {
        }
    }

    /** Unlinks the first entry; null at the end of the list. */
    unique_device take_first()
    {
        eth_device_t *first = TAILQ_FIRST(&head);
        if (first)
            TAILQ_REMOVE(&head, first, eth_entry);
        return unique_device{first};
    }
};

} // namespace zorvik

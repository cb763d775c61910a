/**
 * The request/response channel to the management controller, behind the IPMI element.
 * Formats: the kernel's linux/ipmi.h; IPMI 2.0, sections 22.14 (Get System GUID), 22.24 (Get
 * Channel Info) and 23.2 (Get LAN Configuration Parameters).
 */
#pragma once

#include <linux/ipmi.h>
#include <memory>

#include "agent_handles.h"

namespace zorvik
{

struct free_ipmi_reply {
    void operator()(struct ipmi_msg *reply) const
    {
        free(reply->data);
        free(reply);
    }
};

/**
 * A controller's reply. Byte 0 of its data is the completion code. The data block is longer than
 * any answer that is read from it, and zero behind the `data_len` bytes that were received.
 */
using unique_reply = std::unique_ptr<struct ipmi_msg, free_ipmi_reply>;

/**
 * Sends one request through the device's descriptor and takes the next message that comes back
 * within a second, whatever it answers; with current sources, the one that answers it. Returns null
 * after a failure, which is logged.
 */
unique_reply ipmicmd(int fd, const struct ipmi_msg *msg);

/** Asks for LAN configuration parameter `param` of channel `chan`: its data is at byte 2. */
unique_reply get_lan_param(int fd, int chan, int param);

enum reply_state { REPLY_USABLE, REPLY_MISSING, REPLY_EMPTY, REPLY_REFUSED };

/** Whether a reply, null when there is none, can be used, or what is wrong with it. */
reply_state judge_reply(const struct ipmi_msg *reply);

} // namespace zorvik

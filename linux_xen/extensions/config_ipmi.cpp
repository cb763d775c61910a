// The channel to the management controller, and the IPMI element.
#include "config_ipmi.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <poll.h>
#include <sys/ioctl.h>

#include "agent_common.h"
#include "agent_handles.h"
#include "agent_sources.h"
#include "agent_text.h"
#include "config_ipmi_internal.h"

namespace zorvik
{

static_assert(sizeof(struct ipmi_system_interface_addr) == 8 && sizeof(struct ipmi_msg) == 16);
static_assert(sizeof(struct ipmi_req) == 40 && sizeof(struct ipmi_recv) == 48);

namespace
{

constexpr char ipmi_device[] = "/dev/ipmi0";
constexpr unsigned int bmc_address = 0x20; // where the controller sits on its management bus

constexpr int reply_timeout_ms = 1000;
constexpr size_t reply_bytes = 1024;

// Network functions and commands.
constexpr unsigned char netfn_application = 0x06;
constexpr unsigned char netfn_transport = 0x0C;
constexpr unsigned char cmd_get_system_guid = 0x37;
constexpr unsigned char cmd_get_channel_info = 0x42;
constexpr unsigned char cmd_get_lan_param = 0x02;

// Channel 15 is the system interface itself.
constexpr int last_channel = 14;

constexpr int medium_lan = 4;
constexpr int medium_other_lan = 6;

/** The answer to Get Channel Info (IPMI 2.0, section 22.24). */
typedef struct channel_info_response_s {
    uint8_t completion_code;
    uint8_t channel;
    uint8_t medium;
    uint8_t protocol;
    uint8_t session;
    uint8_t vendor[3];
} channel_info_response_t;

constexpr int guid_offset = 1;
constexpr int guid_bytes = 16;
constexpr int param_offset = 2;

// The steps of ipmicmd() speak in its name.
constexpr char log_name[] = "ipmicmd";

void dump_buffer(const char *label, const void *buffer, size_t length)
{
    debug_print("%% %s: %s:\n", log_name, label);
    hex_dump(buffer, static_cast<int>(length), static_cast<int>(reinterpret_cast<intptr_t>(buffer)),
             1);
}

/** Sends a request. Returns its number, or -1 after a failure. */
int send_request(int fd, const struct ipmi_msg *msg)
{
    const int id = next_message_id();
    struct ipmi_system_interface_addr address = {};
    address.addr_type = IPMI_SYSTEM_INTERFACE_ADDR_TYPE;
    address.channel = IPMI_BMC_CHANNEL;
    struct ipmi_req request = {};
    request.addr = reinterpret_cast<unsigned char *>(&address);
    request.addr_len = sizeof address;
    request.msgid = id;
    request.msg.netfn = msg->netfn;
    request.msg.cmd = msg->cmd;
    request.msg.data_len = msg->data_len;
    request.msg.data = msg->data;
    if (get_debug_state() >= 1) {
        debug_print("%% %s: Sending IPMI Message, ID %ld\n", log_name, request.msgid);
        dump_buffer("Request Buffer", &request, sizeof request);
        dump_buffer("Request address buffer", &address, sizeof address);
        dump_buffer("Request message structure", &request.msg, sizeof request.msg);
        dump_buffer("Request message data", request.msg.data, request.msg.data_len);
    }
    if (ioctl(fd, IPMICTL_SEND_COMMAND, &request) >= 0)
        return id;
    error_errno(log_name, errno, "failed to send command");
    return -1;
}

void error_no_data()
{
    error_print("%% %s: no data ready\n", log_name);
}

bool wait_for_reply(int fd)
{
    struct pollfd waiting = {fd, POLLIN, 0};
    int count = poll(&waiting, 1, reply_timeout_ms);
    if (count < 0 && errno == EINTR)
        count = poll(&waiting, 1, reply_timeout_ms);
    if (count < 0) {
        error_errno(log_name, errno, "poll failed");
        return false;
    }
    if (waiting.revents != POLLIN) {
        error_no_data();
        return false;
    }
    return true;
}

/** Takes the message that has come, and the number of the request that it answers. */
unique_reply receive_reply(int fd, long *id)
{
    unique_heap<unsigned char> data{static_cast<unsigned char *>(calloc(1, reply_bytes))};
    if (!data) {
        error_print("? %s: failed to allocate response data buffer\n", log_name);
        return nullptr;
    }
    struct ipmi_addr address = {};
    struct ipmi_recv received = {};
    received.addr = reinterpret_cast<unsigned char *>(&address);
    received.addr_len = sizeof address;
    received.msg.data = data.get();
    received.msg.data_len = reply_bytes;
    if (ioctl(fd, IPMICTL_RECEIVE_MSG_TRUNC, &received) < 0) {
        error_errno(log_name, errno, "failed to receive response");
        return nullptr;
    }
    if (get_debug_state() >= 1) {
        debug_print("%% %s: Received IPMI Message, ID %ld\n", log_name, received.msgid);
        dump_buffer("Receive Buffer", &received, sizeof received);
        dump_buffer("Receive address buffer", &address, sizeof address);
        dump_buffer("Receive message structure", &received.msg, sizeof received.msg);
        dump_buffer("Receive message data", data.get(),
                    std::min<size_t>(received.msg.data_len, reply_bytes));
    }
    unique_reply reply{static_cast<struct ipmi_msg *>(calloc(1, sizeof(struct ipmi_msg)))};
    if (!reply) {
        error_print("? %s: failed to allocate response\n", log_name);
        return nullptr;
    }
    *id = received.msgid;
    reply->netfn = received.msg.netfn;
    reply->cmd = received.msg.cmd;
    reply->data_len = received.msg.data_len;
    reply->data = data.release();
    return reply;
}

/** Takes the next message that comes, whatever it answers. */
unique_reply take_next_reply(int fd, int)
{
    long answered = 0;
    return wait_for_reply(fd) ? receive_reply(fd, &answered) : nullptr;
}

/** Waits until `deadline`, through any number of signals. Returns whether a message is there. */
bool wait_until(int fd, int64_t deadline)
{
    struct pollfd waiting = {fd, POLLIN, 0};
    int count = -1;
    do {
        const int64_t left = std::max(deadline - now_ms(), int64_t{0});
        count = poll(&waiting, 1, static_cast<int>(left));
    } while (count < 0 && errno == EINTR && now_ms() < deadline);
    if (count < 0 && errno != EINTR)
        error_errno(log_name, errno, "poll failed");
    else if (waiting.revents != POLLIN)
        error_no_data();
    return count > 0 && waiting.revents == POLLIN;
}

/**
 * Takes the reply to the request `id`; one that comes late for another is dropped, and with it the
 * time is up, however many more there are.
 */
unique_reply take_own_reply(int fd, int id)
{
    const int64_t deadline = now_ms() + reply_timeout_ms;
    do {
        long answered = 0;
        unique_reply reply = wait_until(fd, deadline) ? receive_reply(fd, &answered) : nullptr;
        if (!reply || answered == id)
            return reply;
        debug_at(1, "%% %s: reply to request %ld dropped\n", log_name, answered);
    } while (now_ms() < deadline);
    error_no_data();
    return nullptr;
}

struct reply_rule_t {
    unique_reply (*take)(int fd, int id);
    source_age age;
};

constexpr reply_rule_t reply_rules[] = {{take_next_reply, CLASSIC}, {take_own_reply, CURRENT}};

} // namespace

unique_reply ipmicmd(int fd, const struct ipmi_msg *msg)
{
    if (!msg || fd < 0) {
        error_invalid_arguments(__func__);
        return nullptr;
    }
    const int id = send_request(fd, msg);
    return id < 0 ? nullptr : newest_asked(reply_rules).take(fd, id);
}

unique_reply get_lan_param(int fd, int chan, int param)
{
    unsigned char data[] = {static_cast<unsigned char>(chan), static_cast<unsigned char>(param), 0,
                            0};
    const struct ipmi_msg request = {netfn_transport, cmd_get_lan_param, sizeof data, data};
    unique_reply reply = ipmicmd(fd, &request);
    if (!reply)
        error_print("? %s: Get LAN Parameter command failed", __func__);
    return reply;
}

reply_state judge_reply(const struct ipmi_msg *reply)
{
    if (!reply)
        return REPLY_MISSING;
    if (reply->data_len == 0)
        return REPLY_EMPTY;
    return reply->data[0] == 0 ? REPLY_USABLE : REPLY_REFUSED;
}

namespace
{

void get_system_guid(int indent, int fd)
{
    constexpr const char *complaints[] = {nullptr, "failed", "returned no data",
                                          "returned invalid data"};
    static_assert(std::size(complaints) == REPLY_REFUSED + 1, "one for each state, in their order");
    const struct ipmi_msg request = {netfn_application, cmd_get_system_guid, 0, nullptr};
    const unique_reply reply = ipmicmd(fd, &request);
    const reply_state state = judge_reply(reply.get());
    if (state != REPLY_USABLE) {
        error_print("? %s: Get System GUID command %s\n", __func__, complaints[state]);
        return;
    }
    const unique_text guid{BytesToString(reply->data + guid_offset, guid_bytes)};
    if (guid)
        conn_send_XML_string("GUID", indent, guid.get());
}

/** Whether the channel's medium is a LAN. */
bool check_channel_type(int fd, int channel)
{
    unsigned char data[] = {static_cast<unsigned char>(channel)};
    const struct ipmi_msg request = {netfn_application, cmd_get_channel_info, sizeof data, data};
    const unique_reply reply = ipmicmd(fd, &request);
    if (!reply) {
        error_print("? %s: Get channel info command failed", __func__);
        return false;
    }
    // A refused request has no such byte, and zero is no LAN.
    const int medium = reply->data[offsetof(channel_info_response_t, medium)];
    debug_at(1, "%% %s: Channel %d is type %d\n", __func__, channel, medium);
    return medium == medium_lan || medium == medium_other_lan;
}

void send_lan_mac(int indent, const unsigned char *mac)
{
    conn_send_lines(128, indent, "<MAC>%02x:%02x:%02x:%02x:%02x:%02x</MAC>\n", mac[0], mac[1],
                    mac[2], mac[3], mac[4], mac[5]);
}

void send_address_source(int indent, const unsigned char *source)
{
    constexpr const char *typeString[] = {"Unknown", "Static", "DHCP", "BIOS", "Other"};
    conn_send_XML_string("Type", indent, typeString[*source < std::size(typeString) ? *source : 0]);
}

void send_ip_address(int indent, const unsigned char *address)
{
    conn_send_lines(128, indent, "<IP_Address>%d.%d.%d.%d</IP_Address>\n", address[0], address[1],
                    address[2], address[3]);
}

struct lan_param_t {
    int param;
    const char *what;
    void (*send)(int indent, const unsigned char *value);
};

constexpr lan_param_t lan_params[] = {
    {5, "MAC address", send_lan_mac},
    {4, "IP address source", send_address_source},
    {3, "IP address", send_ip_address},
};

void get_lan_info(int indent, int fd, int chan)
{
    if (indent < 0) {
        error_invalid_arguments(__func__);
        return;
    }
    conn_send_lines(128, indent, "<Channel Number=\"%d\">\n", chan);
    for (const lan_param_t &row : lan_params) {
        const unique_reply reply = get_lan_param(fd, chan, row.param);
        if (judge_reply(reply.get()) == REPLY_USABLE)
            row.send(indent + 2, reply->data + param_offset);
        else
            debug_at(1, "%% %s: unable to get LAN %s for channel %d\n", __func__, row.what, chan);
    }
    conn_send_lines(128, indent, "</Channel>\n");
}

} // namespace

int config_show_ipmi(int indent)
{
    const unique_fd device{open(ipmi_device, O_RDWR | O_CLOEXEC)};
    if (!device) {
        debug_errno(1, __func__, errno, "no IPMI device '%s'", ipmi_device);
        return 0;
    }
    debug_at(1, "%% %s: Setting address\n", __func__);
    unsigned int address = bmc_address;
    ioctl(device.fd, IPMICTL_SET_MY_ADDRESS_CMD, &address);

    conn_send_lines(512, indent, "<IPMI>\n");
    get_system_guid(indent + 2, device.fd);
    for (int channel = 0; channel <= last_channel; channel++) {
        debug_at(1, "%% %s: Checking channel %d\n", __func__, channel);
        if (!check_channel_type(device.fd, channel))
            continue;
        debug_at(1, "%% %s: Channel %d is a LAN\n", __func__, channel);
        get_lan_info(indent + 2, device.fd, channel);
    }
    conn_send_lines(512, indent, "</IPMI>\n");
    return 0;
}

} // namespace zorvik

// The IPMI driver and the management controller behind it, answered from the section [ipmi].
#include "simhost.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/ipmi.h>
#include <optional>
#include <poll.h>
#include <sstream>
#include <sys/ioctl.h>
#include <utility>

using namespace simhost;

namespace
{

/** The requests there may be, and how many data bytes each carries. */
constexpr struct {
    int netfn, cmd, data_len;
} commands[] = {{0x06, 0x37, 0}, {0x06, 0x42, 1}, {0x0c, 0x02, 4}};

/** What became of the last request. */
struct exchange_t {
    struct ipmi_req request;
    std::string data;
    int interrupted;
    short events;
    int receive_error;
    bool late, endless;
};

exchange_t &exchange()
{
    static auto &the_exchange = *new exchange_t{{nullptr, 0, -1, {}}, "", 0, 0, 0, false, false};
    return the_exchange;
}

/** The exchange whose reply was late, until that is received. */
std::optional<exchange_t> &earlier()
{
    static auto &the_earlier = *new std::optional<exchange_t>;
    return the_earlier;
}

bool well_formed(const struct ipmi_req &request)
{
    struct ipmi_system_interface_addr address = {};
    if (request.addr_len != sizeof address)
        return false;
    memcpy(&address, request.addr, sizeof address);
    return address.addr_type == 0x0c && address.channel == 0x0f && address.lun == 0 &&
           request.msgid > exchange().request.msgid &&
           std::any_of(std::begin(commands), std::end(commands), [&](const auto &row) {
               return row.netfn == request.msg.netfn && row.cmd == request.msg.cmd &&
                      row.data_len == request.msg.data_len;
           });
}

int fail(int error)
{
    errno = error;
    return -1;
}

int send_command(const struct ipmi_req &request)
{
    char key[32];
    int length = snprintf(key, sizeof key, "%02x.%02x", request.msg.netfn, request.msg.cmd);
    if (!well_formed(request)) {
        fprintf(stderr, "simhost: wrong IPMI request %s, id %ld\n", key, request.msgid);
        return fail(EINVAL);
    }
    for (int i = 0; i < request.msg.data_len; i++)
        length += snprintf(key + length, 4, ".%02x", request.msg.data[i]);
    const char *reply = answer("ipmi", key, 0);
    // What came too late for the last request is there before the reply to this one.
    earlier().reset();
    if (exchange().late) {
        earlier() = exchange();
        earlier()->events = POLLIN;
    }
    exchange() = {request, "", 0, POLLIN, 0, false, false};
    std::istringstream words{reply ? reply : "c1"};
    for (std::string word; words >> word;) {
        if (word == "silence" || word == "late")
            exchange().events = 0, exchange().late = word == "late";
        else if (word == "endless")
            exchange().endless = true;
        else if (word == "pollerr")
            exchange().events = POLLIN | POLLERR;
        else if (word.rfind("eintr", 0) == 0)
            exchange().interrupted = word == "eintr2" ? 2 : 1;
        else if (word.rfind("nosend=", 0) == 0)
            return fail(error_number(word.substr(7)));
        else if (word.rfind("norecv=", 0) == 0)
            exchange().receive_error = error_number(word.substr(7));
        else if (word != "empty")
            exchange().data += static_cast<char>(strtoul(word.c_str(), nullptr, 16));
    }
    return 0;
}

int receive_message(struct ipmi_recv *received)
{
    exchange_t last = exchange();
    if (earlier())
        last = *std::exchange(earlier(), std::nullopt);
    else if (!last.endless)
        exchange().events = 0;
    const short events = last.events;
    if (events != POLLIN || last.receive_error)
        return fail(events == POLLIN ? last.receive_error : EAGAIN);
    if (received->addr_len < sizeof(struct ipmi_addr) || received->msg.data_len < last.data.size())
        return fail(EMSGSIZE);
    received->recv_type = IPMI_RESPONSE_RECV_TYPE;
    received->msgid = last.request.msgid - last.endless;
    received->addr_len = last.request.addr_len;
    received->msg.netfn = last.request.msg.netfn | 1;
    received->msg.cmd = last.request.msg.cmd;
    received->msg.data_len = static_cast<unsigned short>(last.data.size());
    memcpy(received->msg.data, last.data.data(), last.data.size());
    return 0;
}

} // namespace

bool simhost::is_ipmi(int fd)
{
    const open_file_t *file = opened(fd);
    return file && file->path == "/dev/ipmi0";
}

void simhost::ipmi_close()
{
    exchange().late = false;
    earlier().reset();
}

int simhost::ipmi_ioctl(unsigned long request, void *argument)
{
    if (plan("ioctl") == outcome::failed)
        return -1;
    switch (request) {
    case IPMICTL_SET_MY_ADDRESS_CMD:
        return *static_cast<unsigned int *>(argument) == 0x20 ? 0 : fail(EINVAL);
    case IPMICTL_SEND_COMMAND:
        return send_command(*static_cast<struct ipmi_req *>(argument));
    case IPMICTL_RECEIVE_MSG_TRUNC:
        return receive_message(static_cast<struct ipmi_recv *>(argument));
    }
    return fail(ENOTTY);
}

extern "C" int poll(struct pollfd *waiting, nfds_t count, int timeout)
{
    if (plan("poll") == outcome::failed)
        return -1;
    if (count != 1 || !is_ipmi(waiting->fd))
        return REAL(poll)(waiting, count, timeout);
    if (exchange().interrupted-- > 0)
        return fail(EINTR);
    waiting->revents = earlier() ? earlier()->events : exchange().events;
    return waiting->revents ? 1 : 0;
}

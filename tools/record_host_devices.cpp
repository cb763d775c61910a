// Records what is no file: the answers of network devices and of the switch's tool, the firmware's
// memory, the management controller and the hypervisor.

#include "record_host.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <fcntl.h>
#include <linux/ethtool.h>
#include <linux/mii.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <uuid/uuid.h>

#include "agent_common.h"
#include "agent_discover_internal.h"
#include "agent_files.h"
#include "agent_handles.h"
#include "agent_hypervisor.h"
#include "config_ipmi_internal.h"
#include "config_network_internal.h"
#include "config_network_query.h"
#include "config_network_sysfs.h"
#include "interface_requests.h"

using namespace zorvik;

namespace
{

/** The socket with the answer to a request, and what an ethtool command was answered with. */
struct exchange_t {
    query_socket_t queries;
    union {
        uint32_t command;
        struct ethtool_value value;
        struct ethtool_cmd settings;
        struct ethtool_wolinfo wake;
    } ethtool;
};

std::string inet_address(exchange_t &to)
{
    return mask_text(to.queries.inet().text);
}

/** The registers of the PHY that was answered about; the status register is read twice. */
std::string mii_registers(exchange_t &to)
{
    std::string words;
    uint16_t first = 0;
    struct mii_ioctl_data data;
    for (int number = -1; number < 16; number++) {
        memcpy(&data, &to.queries.answer.ifr_ifru, sizeof data);
        data.reg_num = static_cast<uint16_t>(number < 0 ? MII_BMSR : number);
        memcpy(&to.queries.answer.ifr_ifru, &data, sizeof data);
        if (const int error = to.queries.ask_again(SIOCGMIIREG))
            return format("!%s", error_name(error)); // the module wants all of them
        memcpy(&data, &to.queries.answer.ifr_ifru, sizeof data);
        if (number < 0)
            first = data.val_out;
        else
            words += format("%04x ", data.val_out);
    }
    return words + format("\nmii_first %04x", first);
}

/** A question to a network device, and how its answer is written. */
struct question_t {
    interface_request_t asked;
    std::string (*text)(exchange_t &to);
};

constexpr question_t questions[] = {
    {hwaddr_request, [](exchange_t &to) { return mask_text(to.queries.mac().text); }},
    {address_request, inet_address},
    {netmask_request, inet_address},
    {broadcast_request, inet_address},
    {flags_request, [](exchange_t &to) { return format("0x%hx", to.queries.answer.ifr_flags); }},
    {mtu_request, [](exchange_t &to) { return format("%d", to.queries.answer.ifr_mtu); }},
    {mii_request, mii_registers},
    {glink_request, [](exchange_t &to) { return format("%u", to.ethtool.value.data); }},
    {gset_request,
     [](exchange_t &to) {
         const struct ethtool_cmd &settings = to.ethtool.settings;
         return format("%x %x %u %u %u", settings.supported, settings.advertising, settings.speed,
                       settings.duplex, settings.autoneg);
     }},
    {gwol_request, [](exchange_t &to) { return format("0x%x", to.ethtool.wake.wolopts); }},
};

/** Puts a stand-in in place of an address or identifier, written with the separator "." or ":". */
void mask_bytes(unsigned char *bytes, size_t count, char separator)
{
    std::string text;
    for (size_t i = 0; i < count; i++)
        text += format(separator == '.' ? "%d." : "%02x:", bytes[i]);
    text = mask_text(text.substr(0, text.size() - 1));
    char *at = text.data();
    for (size_t i = 0; i < count; i++, at++)
        bytes[i] = static_cast<unsigned char>(strtoul(at, &at, separator == '.' ? 10 : 16));
}

// Where it is told which string is a serial number or an asset tag, DMTF DSP0134 (SMBIOS), section
// 7: of system, boards, chassis and processors, of memory modules, batteries and power supplies.
constexpr struct {
    uint8_t type, offset;
} serial_fields[] = {{1, 0x07}, {2, 0x07},  {2, 0x08},  {3, 0x07},  {3, 0x08},  {4, 0x20},
                     {4, 0x21}, {17, 0x18}, {17, 0x19}, {22, 0x07}, {39, 0x08}, {39, 0x09}};

void mask_table(const dmi_entry_point_t &entry, unsigned char *table)
{
    constexpr uint8_t oem_strings = 11, first_oem_type = 128;
    dmi_walk_t walk = {entry, table};
    dmi_structure_t structure = {};
    while (next_structure(&walk, &structure)) {
        const uint8_t type = structure.header->type;
        const bool whole = type == oem_strings || type >= first_oem_type;
        for (unsigned int number = 1; number < 256; number++)
            if (whole ||
                std::any_of(
                    std::begin(serial_fields), std::end(serial_fields), [&](const auto &row) {
                        return row.type == type && dmi_number(structure, {row.offset, 1}) == number;
                    }))
                if (char *string = get_dmi_string(structure, static_cast<int>(number)))
                    std::fill_n(string, strlen(string), 'X');
        uint8_t *uuid = dmi_field(structure, DMI_FIELD(dmi_system_t, uuid));
        if (type == DMI_SYSTEM && uuid && is_valid_uuid(uuid, sizeof(dmi_system_t::uuid)))
            mask_bytes(uuid, sizeof(dmi_system_t::uuid), ':');
    }
}

void record_memory(off_t address, const unsigned char *bytes, int count)
{
    printf("=== /dev/mem hex @0x%lx", address);
    for (int i = 0; i < count; i++)
        printf("%s%02x", i % 16 ? " " : "\n", bytes[i]);
    printf("\n");
}

/** Records a failure, and tells of it in the same words. */
void record_failure(const char *what)
{
    const int error = errno;
    for (FILE *to : {stdout, stderr})
        fprintf(to, "%s%s\n", what, error_name(error));
}

/** Puts a request, its data behind the network function and the command, and records the reply, the
 * address of `count` bytes at `offset` masked. */
unique_reply record_request(int fd, std::vector<unsigned char> bytes, size_t offset = 0,
                            size_t count = 0, char separator = ':')
{
    const struct ipmi_msg request = {bytes[0], bytes[1],
                                     static_cast<unsigned short>(bytes.size() - 2), &bytes[2]};
    unique_reply reply = ipmicmd(fd, &request);
    if (count && judge_reply(reply.get()) == REPLY_USABLE)
        mask_bytes(reply->data + offset, count, separator);
    for (size_t i = 0; i < bytes.size(); i++)
        printf("%s%02x", i ? "." : "", bytes[i]);
    printf("%s", !reply ? " silence" : reply->data_len == 0 ? " empty" : "");
    for (int i = 0; reply && i < std::min<int>(reply->data_len, 1024); i++)
        printf(" %02x", reply->data[i]);
    printf("\n");
    return reply;
}

void record_domain(xc_interface_core *handle, domain_t info)
{
    if (masking && is_valid_uuid(info.handle, sizeof info.handle))
        mask_bytes(info.handle, sizeof info.handle, ':');
    char uuid[UUID_STR_LEN];
    uuid_unparse(info.handle, uuid);
    printf("=== [domain %u]\nhandle %s\nssidref %u\nnr_pages %lu\nshared_info_frame 0x%lx\n"
           "max_memkb %lu\ncpu_time %lu\nonline_vcpus %u\nmax_vcpu_id %u\nshutdown_reason %u\n",
           info.domid, uuid, info.ssidref, info.nr_pages, info.shared_info_frame, info.max_memkb,
           info.cpu_time, info.nr_online_vcpus, info.max_vcpu_id, info.shutdown_reason);
    printf("state%s%s%s%s%s%s\n", info.dying ? " dying" : "", info.crashed ? " crashed" : "",
           info.shutdown ? " shutdown" : "", info.paused ? " paused" : "",
           info.blocked ? " blocked" : "", info.running ? " running" : "");
    credit_share_t share;
    if (get_credit_share(handle, info.domid, &share) == 0)
        printf("credit %u %u\n", share.weight, share.cap);
}

} // namespace

const std::set<std::string> &interface_names()
{
    static const std::set<std::string> names = [] {
        const std::vector<std::string> listed = list_directory(net_class, "*");
        std::set<std::string> found{listed.begin(), listed.end()};
        const unique_stream table{fopen("/proc/net/dev", "re")};
        char line[256];
        while (table && fgets(line, sizeof line, table.get()))
            if (char *colon = strchr(line, ':'))
                found.insert(std::string(line + strspn(line, " "), colon));
        return found;
    }();
    return names;
}

void record_interfaces()
{
    exchange_t exchange = {};
    for (const std::string &name : interface_names()) {
        printf("=== [interface %s]\n", mask_name(name).c_str());
        for (const question_t &question : questions) {
            exchange.ethtool = {.command = question.asked.command};
            const int error = question.asked.request == SIOCETHTOOL
                                  ? exchange.queries.ethtool(name.c_str(), &exchange.ethtool)
                                  : exchange.queries.ask(name.c_str(), question.asked.request);
            if (error == 0)
                printf("%s %s\n", question.asked.key, question.text(exchange).c_str());
            else if (error != question.asked.missing)
                printf("%s !%s\n", question.asked.key, error_name(error));
        }
    }
}

void record_switch()
{
    if (!path_exists("/sys/module/openvswitch_mod") || !path_exists("/usr/bin/ovs-vsctl"))
        return;
    printf("=== /usr/bin/ovs-vsctl\ncase \"$2\" in\n");
    for (const std::string &name : list_directory(net_class, "*")) {
        if (!path_exists(path_t<512>("%s%s/bridge", net_class, name.c_str()).text))
            continue;
        char ports[1024 + 1] = "";
        const int status =
            list_switch_ports(name.c_str(), switch_tool_deadline(), ports, sizeof ports);
        ports[strcspn(ports, "'")] = '\0'; // the shell's quote stands in no name
        printf("%s) printf %%s '%s'; exit %d;;\n", mask_name(name).c_str(),
               mask_name(ports).c_str(), status ? 1 : 0);
    }
    printf("*) exit 1;;\nesac\n");
}

void record_firmware()
{
    const unique_fd memory{open("/dev/mem", O_RDONLY | O_CLOEXEC)};
    if (!memory)
        return record_failure("=== /dev/mem open=");
    smbios_entry_point_t smb;
    off_t offset = 0;
    errno = find_entry_point(memory.fd, &smb, &offset);
    if (errno == EINVAL) // a memory where none is found
        return record_memory(0xFFFFF, reinterpret_cast<const unsigned char *>(""), 1);
    if (errno)
        return record_failure("=== /dev/mem read=");

    const int size = smb.anchor_string[0] ? std::max<int>(smb.length, sizeof smb) : 16;
    unsigned char entry[UINT8_MAX];
    unsigned char *data = nullptr;
    const int refused = get_smbios_structures(&smb, &data, nullptr, nullptr);
    const unique_heap<unsigned char> table{data};
    // An entry point that leads to no readable table would lead the recorded host astray.
    if ((refused && refused != EINVAL) || read_devmem(memory.fd, entry, size, offset))
        return;
    record_memory(offset, entry, size);
    if (refused)
        return;
    if (masking)
        mask_table(smb.dmi, table.get());
    record_memory(smb.dmi.address, table.get(), smb.dmi.length);
}

void record_controller()
{
    const unique_fd device{open("/dev/ipmi0", O_RDWR | O_CLOEXEC)};
    if (!device)
        return record_failure("=== /dev/ipmi0 open=");
    unsigned int address = 0x20; // where the controller sits on its management bus
    ioctl(device.fd, IPMICTL_SET_MY_ADDRESS_CMD, &address);
    printf("=== /dev/ipmi0\n=== [ipmi]\n");
    record_request(device.fd, {0x06, 0x37}, 1, 16); // Get System GUID
    for (unsigned char channel = 0; channel < 15; channel++) {
        const unique_reply info = record_request(device.fd, {0x06, 0x42, channel});
        if (!info || (info->data[2] != 4 && info->data[2] != 6)) // a LAN's medium
            continue;
        // Get LAN Configuration Parameters: hardware address, source of the address, address.
        record_request(device.fd, {0x0C, 0x02, channel, 5, 0, 0}, 2, 6);
        record_request(device.fd, {0x0C, 0x02, channel, 4, 0, 0});
        record_request(device.fd, {0x0C, 0x02, channel, 3, 0, 0}, 2, 4, '.');
    }
}

void record_hypervisor()
{
    const unique_hypervisor handle = open_hypervisor("record-host");
    printf("=== [hypervisor]\n");
    if (!handle)
        return record_failure("open !");
    int scheduler = 0;
    if (get_scheduler(handle.get(), &scheduler) == 0)
        printf("scheduler %d\n", scheduler);
    else
        record_failure("scheduler !");
    host_t info;
    if (get_host(handle.get(), &info) != 0)
        record_failure("physinfo !");
    printf("threads_per_core %u\ncores_per_socket %u\nnr_cpus %u\nnr_nodes %u\ncpu_khz %u\n"
           "total_pages %lu\nfree_pages %lu\nscrub_pages %lu\nhw_cap",
           info.threads_per_core, info.cores_per_socket, info.nr_cpus, info.nr_nodes, info.cpu_khz,
           info.total_pages, info.free_pages, info.scrub_pages);
    for (const uint32_t word : info.hw_cap)
        printf(" %08x", word);
    domain_t domain;
    printf("\n");
    if (get_domain_from(handle.get(), 0, &domain) < 1)
        record_failure("getinfo !");
    for_each_domain(handle.get(),
                    [&](const domain_t &found) { record_domain(handle.get(), found); });
}

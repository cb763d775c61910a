// Records what stands behind the devices: the firmware's table, the management controller and the
// hypervisor.
#include "record_host.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <uuid/uuid.h>

#include "agent_common.h"
#include "agent_discover_internal.h"
#include "agent_files.h"
#include "agent_handles.h"
#include "agent_hypervisor.h"
#include "agent_sources.h"
#include "config_ipmi_internal.h"

using namespace zorvik;

namespace
{

// Where it is told which string is a serial number or an asset tag, DMTF DSP0134 (SMBIOS), section
// 7: of system, boards, chassis and processors, of memory modules, batteries and power supplies.
constexpr struct {
    uint8_t type, offset;
} serial_fields[] = {{1, 0x07}, {2, 0x07},  {2, 0x08},  {3, 0x07},  {3, 0x08},  {4, 0x20},
                     {4, 0x21}, {17, 0x18}, {17, 0x19}, {22, 0x07}, {39, 0x08}, {39, 0x09}};

void mask_table(const dmi_extent_t &extent, unsigned char *table)
{
    constexpr uint8_t oem_strings = 11, first_oem_type = 128;
    dmi_walk_t walk = {extent, table};
    dmi_structure_t structure = {};
    int walked = 0;
    while (next_structure(&walk, &structure)) {
        // Behind the end there may be a header that ended the walk, and still is to end it.
        const bool is_end = structure.header->type == DMI_TABLE_END;
        walked = walk.index + (is_end ? 0 : static_cast<int>(sizeof(dmi_element_t)));
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
    std::fill(table + std::min(walked, extent.length), table + extent.length, 'X');
}

void record_bytes(const std::string &heading, const unsigned char *bytes, int count)
{
    printf("=== %s", heading.c_str());
    for (int i = 0; i < count; i++)
        printf("%s%02x", i % 16 ? " " : "\n", bytes[i]);
    printf("\n");
}

void record_memory(off_t address, const unsigned char *bytes, int count)
{
    record_bytes(format("/dev/mem hex @0x%lx", address), bytes, count);
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
    if (get_credit2_share(handle, info.domid, &share) == 0)
        printf("credit2 %u %u\n", share.weight, share.cap);
    rtds_share_t times;
    if (get_rtds_share(handle, info.domid, &times) == 0)
        printf("rtds %u %u\n", times.period, times.budget);
}

/** Records the firmware's table as the kernel shows it. */
void record_kernel_table()
{
    constexpr char folder[] = "/sys/firmware/dmi/tables/";
    firmware_table_t table = {};
    const std::string entry_file = format("%ssmbios_entry_point", folder);
    const std::string table_file = format("%sDMI", folder);
    const unique_fd file = open_file(entry_file.c_str());
    if (!file && errno == ENOENT) // a kernel without them
        return;
    unsigned char entry[UINT8_MAX + 1];
    const ssize_t size = file ? read(file.fd, entry, sizeof entry) : 0;
    if (!file || size < 0)
        return record_failure(
            format("=== %s %s=", entry_file.c_str(), file ? "read" : "open").c_str());
    record_bytes(format("%s hex", entry_file.c_str()), entry, static_cast<int>(size));
    const int error = read_kernel_table(&table);
    if (error == EINVAL) // an entry point that leads to none
        return;
    if (error) {
        const char *failing = open_file(table_file.c_str()) ? "read" : "open";
        errno = error;
        return record_failure(format("=== %s %s=", table_file.c_str(), failing).c_str());
    }
    if (masking)
        mask_table(table.extent, table.bytes.get());
    record_bytes(format("%s hex", table_file.c_str()), table.bytes.get(), table.extent.length);
}

void record_memory_table()
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
        mask_table({smb.dmi.length, smb.dmi.items}, table.get());
    record_memory(smb.dmi.address, table.get(), smb.dmi.length);
}

} // namespace

void record_firmware()
{
    record_memory_table();
    record_kernel_table();
}

void record_controller()
{
    const unique_fd device{open("/dev/ipmi0", O_RDWR | O_CLOEXEC)};
    if (!device)
        return record_failure("=== /dev/ipmi0 open=");
    unsigned int address = 0x20; // where the controller sits on its management bus
    ioctl(device.fd, IPMICTL_SET_MY_ADDRESS_CMD, &address);
    printf("=== /dev/ipmi0\n=== [ipmi]\n");
    // By current sources, or a late reply would be recorded, and masked, as that of another request.
    global_source_state = 1;
    begin_sources();
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
    end_sources();
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

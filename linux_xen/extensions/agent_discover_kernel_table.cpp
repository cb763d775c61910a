// The firmware's SMBIOS table as the kernel shows it, from Linux 4.2 on: also where its physical
// memory cannot be read, and where only a 64-bit entry point leads to it.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "agent_common.h"
#include "agent_discover_internal.h"
#include "agent_files.h"
#include "agent_handles.h"

namespace zorvik
{

namespace
{

constexpr char entry_point_file[] = "/sys/firmware/dmi/tables/smbios_entry_point";
constexpr char table_file[] = "/sys/firmware/dmi/tables/DMI";
constexpr size_t most_table = size_t{16} * 1024 * 1024;

// The steps of read_kernel_table() speak in its name.
constexpr char log_name[] = "read_kernel_table";

/** An entry point's bytes; behind them there are zeros. */
struct entry_bytes_t {
    uint8_t byte[UINT8_MAX + 1];
};

/** What an entry point says of the length of its table, in bytes. */
struct announced_t {
    uint32_t length;
    bool is_limit; // it may well be shorter
};

announced_t take_smbios3(const entry_bytes_t &entry, firmware_table_t *table)
{
    smbios3_entry_point_t smb;
    memcpy(&smb, entry.byte, sizeof smb);
    table->has_smbios = true;
    table->major = smb.major;
    table->minor = smb.minor;
    table->revision = smb.docrev;
    table->dmi_revision = static_cast<uint8_t>(smb.major << 4 | (smb.minor & 0xF));
    return {smb.max, true};
}

announced_t take_legacy(const entry_bytes_t &entry, firmware_table_t *table)
{
    smbios_entry_point_t smb = {};
    memcpy(&smb.dmi, entry.byte, sizeof smb.dmi);
    take_entry_point(smb, table);
    return {smb.dmi.length, false};
}

announced_t take_smbios(const entry_bytes_t &entry, firmware_table_t *table)
{
    smbios_entry_point_t smb;
    memcpy(&smb, entry.byte, sizeof smb);
    take_entry_point(smb, table);
    return {smb.dmi.length, false};
}

/** A kind of entry point, told by what it begins with. */
struct entry_kind_t {
    const char *anchor;
    size_t length_at; // where it tells its own length; 0: it has the shortest one
    size_t shortest;
    announced_t (*take)(const entry_bytes_t &entry, firmware_table_t *table);
};

// A DMI entry point has 15 bytes, and one of SMBIOS 2.x that much behind its own 16. Some firmware
// of SMBIOS 2.1 tells of 30 bytes for the 31 that there are.
constexpr entry_kind_t entry_kinds[] = {
    {"_SM3_", offsetof(smbios3_entry_point_t, length), sizeof(smbios3_entry_point_t), take_smbios3},
    {"_SM_", offsetof(smbios_entry_point_t, length), 30, take_smbios},
    {"_DMI_", 0, 15, take_legacy},
};

const entry_kind_t *find_kind(const entry_bytes_t &entry)
{
    for (const entry_kind_t &kind : entry_kinds)
        if (memcmp(entry.byte, kind.anchor, strlen(kind.anchor)) == 0)
            return &kind;
    return nullptr;
}

/** Reads and checks the entry point. Returns 0 with what it says, EINVAL or an errno. */
int read_entry_point(firmware_table_t *table, announced_t *announced)
{
    const unique_fd file = open_file(entry_point_file);
    if (!file)
        return error_errno(log_name, errno, "unable to open %s", entry_point_file);
    entry_bytes_t entry = {};
    const ssize_t count =
        read_up_to(file.fd, reinterpret_cast<char *>(entry.byte), sizeof entry.byte);
    if (count < 0)
        return error_errno(log_name, errno, "unable to read %s", entry_point_file);
    const entry_kind_t *kind = find_kind(entry);
    if (!kind) {
        error_print("? %s: no entry point in %s\n", log_name, entry_point_file);
        return EINVAL;
    }
    const size_t length = kind->length_at ? entry.byte[kind->length_at] : kind->shortest;
    if (length < kind->shortest || static_cast<size_t>(count) < length) {
        error_print("? %s: entry point %s of %zd bytes is too short, it says %zu\n", log_name,
                    kind->anchor, count, length);
        return EINVAL;
    }
    if (verify_cksum(entry.byte, static_cast<int>(length)) != 0) {
        error_print("? %s: checksum of entry point %s failed\n", log_name, kind->anchor);
        return EINVAL;
    }
    *announced = kind->take(entry, table);
    return 0;
}

/** Counts the structures, up to the one that ends the table, and measures the largest. */
void count_structures(firmware_table_t *table)
{
    dmi_walk_t walk = {{table->extent.length, INT_MAX}, table->bytes.get()};
    dmi_structure_t structure = {};
    int largest = 0;
    while (walk.index < table->extent.length && next_structure(&walk, &structure)) {
        if (structure.header->length < sizeof *structure.header) {
            error_print("? %s: structure %d has a length of %d\n", log_name, walk.item,
                        structure.header->length);
            walk.item--;
            break;
        }
        largest = std::max(largest, structure.total);
        if (structure.header->type == DMI_TABLE_END)
            break;
    }
    table->extent.items = walk.item + 1;
    // A 64-bit entry point has no such field.
    if (table->max == 0)
        table->max = static_cast<uint32_t>(largest);
}

} // namespace

int read_kernel_table(firmware_table_t *table)
{
    *table = {};
    announced_t announced = {};
    if (const int status = read_entry_point(table, &announced))
        return status;
    const unique_fd file = open_file(table_file);
    if (!file)
        return error_errno(__func__, errno, "unable to open %s", table_file);
    size_t length = 0;
    if (const int status = read_whole(file.fd, most_table, &table->bytes, &length))
        return error_errno(__func__, status, "unable to read %s", table_file);
    if (announced.is_limit ? length > announced.length : length != announced.length)
        error_print("? %s: table of %zu bytes, its entry point says %u\n", __func__, length,
                    announced.length);
    table->extent.length = static_cast<int>(length);
    count_structures(table);
    debug_at(1, "%% %s: %d bytes, %d structures\n", __func__, table->extent.length,
             table->extent.items);
    return 0;
}

} // namespace zorvik

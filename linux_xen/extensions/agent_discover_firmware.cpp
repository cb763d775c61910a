// The firmware's SMBIOS table: finding and checking it, and copying it from physical memory.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "agent_common.h"
#include "agent_discover_internal.h"
#include "agent_handles.h"
#include "agent_sources.h"
#include "agent_text.h"

namespace zorvik
{

namespace
{

constexpr char memory_device[] = "/dev/mem";

// The BIOS area of a PC, in which an entry point stands on a 16-byte boundary.
constexpr off_t bios_area = 0xF0000;
constexpr off_t last_paragraph = 0xFFFF0;
constexpr int paragraph = 16;

// The steps of get_smbios_structures() speak in its name.
constexpr char log_name[] = "get_smbios_structures";

/** Sums the whole SMBIOS entry point, also where it is longer than the record that was read. */
bool smb_cksum_valid(int fd, const smbios_entry_point_t *smb, off_t offset)
{
    uint8_t whole[UINT8_MAX];
    memcpy(whole, smb, sizeof *smb);
    const int missing = smb->length - static_cast<int>(sizeof *smb);
    if (missing > 0 &&
        read_devmem(fd, whole + sizeof *smb, missing, offset + static_cast<off_t>(sizeof *smb)))
        return false;
    return verify_cksum(whole, smb->length) == 0;
}

int verify_entry_point(int fd, const smbios_entry_point_t *smb, off_t offset)
{
    const bool legacy = smb->anchor_string[0] != '_';
    if (!legacy && smb->length != 0 && !smb_cksum_valid(fd, smb, offset)) {
        error_print("? %s: SMB checksum failed\n", log_name);
        return EINVAL;
    }
    if (verify_cksum(&smb->dmi, offsetof(dmi_entry_point_t, filler)) != 0) {
        error_print("? %s: DMI checksum failed\n", log_name);
        return EINVAL;
    }
    return 0;
}

/**
 * Copies a mapping through the kernel, which answers EFAULT where a page of it is not there; to
 * touch such a page would kill the process. Returns whether all `size` bytes could be had.
 */
bool copy_through_pipe(unsigned char *to, const unsigned char *mapped, size_t size)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    const unique_fd reading{ends[0]};
    const unique_fd writing{ends[1]};
    // One turn is enough for the largest table, unless the kernel made the pipe a small one.
    for (size_t copied = 0; copied < size;) {
        const ssize_t count = write(writing.fd, mapped + copied, size - copied);
        if (count <= 0 || read(reading.fd, to + copied, static_cast<size_t>(count)) != count)
            return false;
        copied += static_cast<size_t>(count);
    }
    return true;
}

/** Some kernels refuse to read(2) a table beyond low memory but let it be mapped. */
int copy_mapped_table(int fd, const dmi_entry_point_t *dmi, unsigned char *table)
{
    const off_t page = sysconf(_SC_PAGESIZE);
    const off_t address = dmi->address;
    const auto before = static_cast<size_t>(address % page);
    const size_t size = before + dmi->length;
    void *mapped =
        mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, address - static_cast<off_t>(before));
    const bool copied =
        mapped != MAP_FAILED &&
        copy_through_pipe(table, static_cast<unsigned char *>(mapped) + before, dmi->length);
    const bool unmapped = mapped == MAP_FAILED || munmap(mapped, size) == 0;
    if (!copied)
        error_print("? %s: mmap failed with error MAP_FAILED\n", log_name);
    else if (!unmapped)
        error_print("? %s: munmap failed\n", log_name);
    return copied && unmapped ? 0 : -1;
}

} // namespace

int read_devmem(int fd, void *buffer, int length, off_t offset)
{
    if (!buffer || length < 0)
        return error_invalid_arguments(__func__);
    if (lseek(fd, offset, SEEK_SET) < 0)
        return error_errno(__func__, errno, "unable to seek to BIOS data area position %lu",
                           static_cast<unsigned long>(offset));
    const ssize_t count = read(fd, buffer, static_cast<size_t>(length));
    if (count < 0)
        return error_errno(__func__, errno, "unable to read BIOS data area");
    if (count != length) {
        error_print("? %s: short data read - %d bytes of %d\n", __func__, static_cast<int>(count),
                    length);
        return EIO;
    }
    return 0;
}

int find_entry_point(int fd, smbios_entry_point_t *smb, off_t *found)
{
    for (off_t offset = bios_area; offset <= last_paragraph; offset += paragraph) {
        if (const int status = read_devmem(fd, smb, paragraph, offset))
            return status;
        *found = offset;
        if (memcmp(smb, "_SM_", 4) == 0) {
            debug_at(2, "%% %s: _SM_ found at offset 0x%lx\n", log_name, offset);
            return read_devmem(fd, &smb->dmi, paragraph, offset + paragraph);
        }
        if (memcmp(smb, "_DMI_", 5) == 0) {
            debug_at(2, "%% %s: _DMI_ found at offset 0x%lx\n", log_name, offset);
            memcpy(&smb->dmi, smb, paragraph);
            memset(smb, 0, paragraph);
            return 0;
        }
    }
    debug_at(1, "%% %s: unable to find entry points\n", log_name);
    return EINVAL;
}

int get_smbios_structures(smbios_entry_point_t *smb, unsigned char **data, int *retLen,
                          uint32_t *smbBase)
{
    if (!data || !smb)
        return error_invalid_arguments(__func__);
    const unique_fd memory{open(memory_device, O_RDONLY | O_CLOEXEC)};
    if (!memory)
        return error_errno(__func__, errno, "error opening %s", memory_device);
    if (lseek(memory.fd, bios_area, SEEK_SET) < 0)
        return error_errno(__func__, errno, "unable to seek to BIOS data area");
    debug_at(1, "%% %s: BIOS examination starting at 0x%lx, until 0x%x\n", __func__, bios_area,
             static_cast<unsigned int>(last_paragraph));

    off_t offset = bios_area;
    if (const int status = find_entry_point(memory.fd, smb, &offset))
        return status;
    if (get_debug_state() >= 3) {
        debug_print("%% %s: Entry points:\n", __func__);
        hex_dump(smb, sizeof *smb, static_cast<int>(offset), 1);
    }
    if (const int status = verify_entry_point(memory.fd, smb, offset))
        return status;

    const int length = smb->dmi.length;
    unique_heap<unsigned char> table{
        static_cast<unsigned char *>(malloc(static_cast<size_t>(std::max(length, 1))))};
    if (!table) {
        error_print("? %s: unable to allocate SMB buffer of %d bytes\n", __func__, length);
        return ENOMEM;
    }
    if (read_devmem(memory.fd, table.get(), length, smb->dmi.address) != 0) {
        if (const int status = copy_mapped_table(memory.fd, &smb->dmi, table.get()))
            return status;
    }
    debug_at(1, "%% %s: %d bytes at 0x%x, %d structures\n", __func__, length, smb->dmi.address,
             smb->dmi.items);
    *data = table.release();
    if (retLen)
        *retLen = length;
    if (smbBase)
        *smbBase = smb->dmi.address;
    return 0;
}

uint8_t verify_cksum(const void *buf, int length)
{
    const auto *bytes = static_cast<const uint8_t *>(buf);
    uint8_t sum = 0;
    for (int i = 0; i < length; i++)
        sum = static_cast<uint8_t>(sum + bytes[i]);
    return sum;
}

namespace
{

/** Reads the table from physical memory. Returns as get_smbios_structures(). */
int read_memory_table(firmware_table_t *table)
{
    smbios_entry_point_t smb = {};
    unsigned char *bytes = nullptr;
    if (const int status = get_smbios_structures(&smb, &bytes, nullptr, nullptr))
        return status;
    take_entry_point(smb, table);
    table->bytes.reset(bytes);
    return 0;
}

constexpr source_t<firmware_table_t *> table_sources[] = {
    {read_memory_table, CLASSIC},
    {read_kernel_table, CURRENT},
};

} // namespace

void take_entry_point(const smbios_entry_point_t &smb, firmware_table_t *table)
{
    table->has_smbios = smb.anchor_string[0] == '_';
    table->major = smb.major;
    table->minor = smb.minor;
    table->revision = smb.revision;
    table->max = smb.max;
    table->dmi_revision = smb.dmi.revision;
    table->extent = {smb.dmi.length, smb.dmi.items};
}

int read_firmware_table(firmware_table_t *table)
{
    return ask_sources(table_sources, table);
}

} // namespace zorvik

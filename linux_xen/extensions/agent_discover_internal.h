/**
 * What only the agent_discover files share: the sections of the hardware document, and the
 * firmware's SMBIOS table, its layouts and the functions that read, walk and decode it.
 * Formats: DMTF DSP0134 (SMBIOS), sections 5.2 (entry point), 6.1 (structures) and 7.1 to 7.5.
 * The layouts only say where a field lies; whether a structure has it, dmi_field() decides.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

#include "agent_handles.h"

namespace zorvik
{

/** How much of a structure table there is: the fields of an entry point end at 65,535. */
struct dmi_extent_t {
    int length; // in bytes
    int items;
};

/** The DMI entry point: part of the SMBIOS one, or alone (legacy). */
typedef struct __attribute__((packed)) dmi_entry_point_s {
    char anchor_string[5];
    uint8_t cksum;
    uint16_t length;
    uint32_t address;
    uint16_t items;
    uint8_t revision;
    uint8_t filler;
} dmi_entry_point_t;

/** The SMBIOS 2.x entry point, 31 bytes, and the byte behind it. */
typedef struct __attribute__((packed)) smbios_entry_point_s {
    char anchor_string[4];
    uint8_t cksum;
    uint8_t length;
    uint8_t major;
    uint8_t minor;
    uint16_t max;
    uint8_t revision;
    uint8_t filler[5];
    dmi_entry_point_t dmi;
} smbios_entry_point_t;

/** The SMBIOS 3.x entry point, "_SM3_", for tables anywhere in memory. */
typedef struct __attribute__((packed)) smbios3_entry_point_s {
    char anchor_string[5];
    uint8_t cksum;
    uint8_t length;
    uint8_t major;
    uint8_t minor;
    uint8_t docrev;
    uint8_t revision;
    uint8_t filler;
    uint32_t max; // of the whole table, in bytes: it may well be shorter
    uint64_t address;
} smbios3_entry_point_t;

typedef struct __attribute__((packed)) dmi_element_s {
    uint8_t type;
    uint8_t length;
    uint16_t handle;
} dmi_element_t;

enum dmi_types {
    DMI_BIOS = 0,
    DMI_SYSTEM = 1,
    DMI_MODULE = 2,
    DMI_CHASSIS = 3,
    DMI_PROCESSOR = 4,
    DMI_TABLE_END = 127
};

typedef struct __attribute__((packed)) dmi_bios_s {
    dmi_element_t header;
    uint8_t Svendor;
    uint8_t Sversion;
    uint16_t start;
    uint8_t Srelease;
    uint8_t size;
    uint64_t characteristics;
} dmi_bios_t;

typedef struct __attribute__((packed)) dmi_system_s {
    dmi_element_t header;
    uint8_t Smanufacturer;
    uint8_t Sproduct;
    uint8_t Sversion;
    uint8_t Sserialno;
    uint8_t uuid[16];
    uint8_t wakeup;
} dmi_system_t;

typedef struct __attribute__((packed)) dmi_module_s {
    dmi_element_t header;
    uint8_t Smanufacturer;
    uint8_t Sproduct;
    uint8_t Sversion;
    uint8_t Sserialno;
    uint8_t Sasset_tag;
    uint8_t features;
    uint8_t Slocation;
    uint16_t chassis_handle;
    uint8_t board_type;
    uint8_t object_count;
} dmi_module_t;

typedef struct __attribute__((packed)) dmi_chassis_s {
    dmi_element_t header;
    uint8_t Smanufacturer;
    uint8_t type;
    uint8_t Sversion;
    uint8_t Sserialno;
    uint8_t Sasset_tag;
    uint8_t bootup;
    uint8_t power;
    uint8_t thermal;
    uint8_t security;
    uint32_t oem;
    uint8_t height;
    uint8_t power_cords;
    uint8_t element_count;
    uint8_t element_length;
} dmi_chassis_t;

typedef struct __attribute__((packed)) dmi_processor_s {
    dmi_element_t header;
    uint8_t socket_designation;
    uint8_t type;
    uint8_t family;
    uint8_t manufacturer;
    uint64_t id;
    uint8_t version;
    uint8_t voltage;
    uint16_t ext_clock;
    uint16_t max_speed;
    uint16_t current_speed;
    uint8_t status;
    uint8_t upgrade;
    uint16_t l1_cache_handle;
    uint16_t l2_cache_handle;
    uint16_t l3_cache_handle;
    uint8_t serial_number;
    uint8_t asset_tag;
    uint8_t part_number;
    uint8_t core_count;
    uint8_t core_enabled;
    uint8_t thread_count;
    uint16_t characteristics;
    uint16_t family2;
} dmi_processor_t;

static_assert(sizeof(dmi_entry_point_t) == 16 && sizeof(smbios_entry_point_t) == 32);
static_assert(sizeof(smbios3_entry_point_t) == 24);
static_assert(sizeof(dmi_bios_t) == 18 && sizeof(dmi_system_t) == 25 && sizeof(dmi_module_t) == 15);
static_assert(sizeof(dmi_chassis_t) == 21 && sizeof(dmi_processor_t) == 42);

/**
 * A structure inside the table copy: its header, the bytes that belong to it, strings included, and
 * all that there are from its header to the end of the copy.
 */
struct dmi_structure_t {
    dmi_element_t *header;
    int total;
    int available;
};

/** A walk through a table copy, from its first structure on. */
struct dmi_walk_t {
    dmi_extent_t dmi;
    unsigned char *table;
    int item = -1; // the number of the current structure
    int index = 0; // where the next one begins
};

/** Where a field lies in the formatted area of a structure. */
struct dmi_field_t {
    uint8_t offset;
    uint8_t width;
};

#define DMI_FIELD(layout, member)                                                                  \
    dmi_field_t                                                                                    \
    {                                                                                              \
        offsetof(layout, member), sizeof(layout::member)                                           \
    }

/** The bytes of a field, or null when the structure is too short to have it. */
uint8_t *dmi_field(const dmi_structure_t &structure, dmi_field_t field);

/** A little-endian number of up to four bytes; 0 when the structure is too short to have it. */
unsigned int dmi_number(const dmi_structure_t &structure, dmi_field_t field);

/**
 * Reads `length` bytes of physical memory at `offset` through the descriptor `fd`.
 * Returns 0, EINVAL, EIO for a short read, or the errno of the call that failed.
 */
int read_devmem(int fd, void *buffer, int length, off_t offset);

/**
 * Scans the BIOS area of physical memory. The first anchor decides, whatever its checksums say.
 * Returns 0 with the entry point and its physical address, EINVAL when there is none, or an error.
 */
int find_entry_point(int fd, smbios_entry_point_t *smb, off_t *found);

/**
 * Finds the SMBIOS or legacy DMI entry point in physical memory and copies its structure table.
 * Fills `smb`, `data` with a heap block of `smb->dmi.length` bytes that the caller frees, and where
 * they are given `retLen` and `smbBase` with the table's length in bytes and its physical address.
 * Returns 0, EINVAL (no or bad entry point), ENOMEM, an errno, or -1 when the table was unreadable.
 */
int get_smbios_structures(smbios_entry_point_t *smb, unsigned char **data, int *retLen,
                          uint32_t *smbBase);

/** The firmware's structure table, with what its entry point says of it. */
struct firmware_table_t {
    bool has_smbios; // and not a legacy DMI entry point alone
    uint8_t major, minor, revision;
    uint32_t max;         // bytes of the largest structure, told or measured
    uint8_t dmi_revision; // a digit in each half
    dmi_extent_t extent;
    unique_heap<unsigned char> bytes;
};

/** Puts into `table` what a 32-bit entry point says, or a legacy one alone, with zeros before it. */
void take_entry_point(const smbios_entry_point_t &smb, firmware_table_t *table);

/**
 * Reads the table from physical memory; where that has none and current sources are asked, from the
 * kernel's copy. Returns 0, or the error of the last source.
 */
int read_firmware_table(firmware_table_t *table);

/**
 * Reads the table from the files in which the kernel shows it, whatever kind of entry point it has.
 * A table of 16 MiB or more is refused. Returns 0, EINVAL, ENOMEM or an errno.
 */
int read_kernel_table(firmware_table_t *table);

/** The sum of `length` bytes modulo 256; 0 for a valid entry point. */
uint8_t verify_cksum(const void *buf, int length);

/**
 * Steps to the next structure of the table copy `dmiBuf`. Before the first call the caller sets
 * `*itemp` to -1 and `*indexp` to 0; each call leaves there the structure's number and where the
 * next one begins. Returns the structure's total length in bytes, all of them inside the copy, or 0
 * at the end of the table.
 */
int iter_dmi_elements(const dmi_extent_t *dmi, unsigned char *dmiBuf, int *itemp, int *indexp,
                      dmi_element_t **element);

/** Steps to the next structure of a walk. Returns false at the end of the table. */
bool next_structure(dmi_walk_t *walk, dmi_structure_t *structure);

/**
 * String `num` (from 1) of a structure, its unprintable bytes replaced by "." in the table copy.
 * Returns null when the structure has no such string, when it is empty, or when the table ends
 * before its terminator.
 */
char *get_dmi_string(dmi_structure_t &structure, int num);

/** Whether `uuid` can identify a machine: not all 0x00, not all 0xFF, not only small numbers. */
int is_valid_uuid(const uint8_t *uuid, int uuid_len);

/**
 * Puts the UUID in place into network byte order: SMBIOS 2.6 and later store three fields reversed.
 */
void adjust_sys_uuid(dmi_system_t *DMIsystem, int major, int minor);

/** How the host's processors are spread over its sockets and memory nodes. */
struct topology_t {
    uint32_t sockets_per_node;
    uint32_t nodes;
};

/**
 * Derives the spread from the hypervisor's counts of threads, cores, memory nodes and logical
 * processors. A quotient whose divisor is zero counts as 0.
 */
topology_t derive_topology(uint32_t threads_per_core, uint32_t cores_per_socket, uint32_t nr_nodes,
                           uint32_t nr_cpus);

/**
 * Writes the CPUInfo element: the processors that the kernel lists, and those it could be given.
 */
void config_send_cpuinfo(int indent);

/**
 * Whether a processor is to be added behind the `vcpus` that there are so far: the kernel has
 * listed all that are online, and the domain can have more, up to the number `max_vcpu_id`. No
 * domain has a number of 8192 or above: such a value adds none.
 */
bool is_cpu_to_add(uint32_t vcpus, uint32_t nr_online_vcpus, uint32_t max_vcpu_id);

/**
 * Writes the DMTF element, `dumpDMTF` not 0 with the whole table in base 64. Returns 0, or the
 * result of get_smbios_structures() when the table cannot be read: then nothing is written.
 */
int show_smbios_info(int indent, int dumpDMTF);

/**
 * Encodes `binLen` bytes in base 64 into the heap string `retString`, in lines of 72 characters
 * behind `indent` blanks. Returns 0, EINVAL or ENOMEM.
 */
int dump_dmi_buffer(const unsigned char *binary, int binLen, int indent, char **retString);

} // namespace zorvik

// The structures of the firmware's SMBIOS table: walking the table and reading them.
#include <algorithm>
#include <cstring>

#include "agent_common.h"
#include "agent_discover_internal.h"
#include "agent_text.h"

namespace zorvik
{

int iter_dmi_elements(const dmi_extent_t *dmi, unsigned char *dmiBuf, int *itemp, int *indexp,
                      dmi_element_t **element)
{
    const int item = *itemp + 1;
    if (item >= dmi->items)
        return 0;
    const int index = *indexp;
    const int rest = dmi->length - index;
    if (rest < 1) {
        error_print("? %s: table is too short\n", __func__);
        return 0;
    }
    *element = reinterpret_cast<dmi_element_t *>(dmiBuf + index);
    debug_at(3, "%% %s: element %d, offset 0x%x\n", __func__, item,
             static_cast<unsigned int>(index));

    // In the table's very last byte only a type fits; the length behind it cannot be read.
    const int formatted = rest > 1 ? (*element)->length : static_cast<int>(sizeof **element);
    if (formatted > rest) {
        error_print("? %s: ran off end of table\n", __func__);
        return 0;
    }
    const unsigned char *strings = dmiBuf + index + formatted;
    const void *end = memmem(strings, static_cast<size_t>(rest - formatted), "\0", 2);
    const int total =
        end ? formatted + static_cast<int>(static_cast<const unsigned char *>(end) - strings) + 2
            : rest;
    *itemp = item;
    *indexp = index + total;
    return total;
}

bool next_structure(dmi_walk_t *walk, dmi_structure_t *structure)
{
    structure->available = walk->dmi.length - walk->index;
    structure->total =
        iter_dmi_elements(&walk->dmi, walk->table, &walk->item, &walk->index, &structure->header);
    return structure->total > 0;
}

uint8_t *dmi_field(const dmi_structure_t &structure, dmi_field_t field)
{
    // The header counts as formatted area, whatever a structure says of its own length.
    const int formatted =
        std::max<int>(structure.header->length, static_cast<int>(sizeof *structure.header));
    if (field.offset + field.width > std::min(formatted, structure.available))
        return nullptr;
    return reinterpret_cast<uint8_t *>(structure.header) + field.offset;
}

unsigned int dmi_number(const dmi_structure_t &structure, dmi_field_t field)
{
    const uint8_t *bytes = dmi_field(structure, field);
    unsigned int number = 0;
    for (int i = bytes ? field.width : 0; i > 0; i--)
        number = number << 8 | bytes[i - 1];
    return number;
}

char *get_dmi_string(dmi_structure_t &structure, int num)
{
    if (num < 0 || !structure.header) {
        error_invalid_arguments(__func__);
        return nullptr;
    }
    if (num == 0)
        return nullptr;
    char *string = reinterpret_cast<char *>(structure.header) + structure.header->length;
    char *end = reinterpret_cast<char *>(structure.header) + structure.total;
    char *terminator = nullptr;
    for (;;) {
        // A length of less than a header puts the strings there, where "." may change the length.
        if (string >= end)
            return nullptr;
        terminator = static_cast<char *>(memchr(string, '\0', static_cast<size_t>(end - string)));
        if (!terminator || terminator == string)
            return nullptr;
        if (--num == 0)
            break;
        string = terminator + 1;
    }
    std::replace_if(
        string, terminator, [](char character) { return !is_printable(character); }, '.');
    return string;
}

int is_valid_uuid(const uint8_t *uuid, int uuid_len)
{
    if (uuid_len <= 0)
        return 0;
    const auto every = [&](auto test) { return std::all_of(uuid, uuid + uuid_len, test); };
    if (every([](uint8_t byte) { return byte == 0x00; }) ||
        every([](uint8_t byte) { return byte == 0xFF; }))
        return 0;
    // Some boards ship a counting pattern in place of an identifier.
    return every([&](uint8_t byte) { return byte <= uuid_len; }) ? 0 : 1;
}

void adjust_sys_uuid(dmi_system_t *DMIsystem, int major, int minor)
{
    if (major < 2 || (major == 2 && minor < 6))
        return;
    uint8_t *uuid = DMIsystem->uuid;
    std::reverse(uuid, uuid + 4);     // time_low
    std::reverse(uuid + 4, uuid + 6); // time_mid
    std::reverse(uuid + 6, uuid + 8); // time_hi_and_version
}

} // namespace zorvik

// The DMTF element: the SMBIOS table, raw and decoded.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <span>

#include "agent_common.h"
#include "agent_discover_internal.h"
#include "agent_handles.h"
#include "agent_text.h"

namespace zorvik
{

namespace
{

// The length of a line of MIME text, and the bytes that it encodes.
constexpr int MIME_LINE_CHARS = 72;
constexpr int mime_line_bytes = MIME_LINE_CHARS / 4 * 3;

// The steps of show_smbios_info() speak in its name.
constexpr char log_name[] = "show_smbios_info";

enum child_kind { CHILD_STRING, CHILD_UUID, CHILD_HEIGHT, CHILD_COUNT };

struct dmi_child_t {
    const char *element;
    dmi_field_t field;
    child_kind kind;
};

constexpr dmi_child_t bios_children[] = {
    {"Vendor", DMI_FIELD(dmi_bios_t, Svendor), CHILD_STRING},
    {"Version", DMI_FIELD(dmi_bios_t, Sversion), CHILD_STRING},
    {"ReleaseDate", DMI_FIELD(dmi_bios_t, Srelease), CHILD_STRING},
};
constexpr dmi_child_t system_children[] = {
    {"UUID", DMI_FIELD(dmi_system_t, uuid), CHILD_UUID},
    {"Manufacturer", DMI_FIELD(dmi_system_t, Smanufacturer), CHILD_STRING},
    {"ProductName", DMI_FIELD(dmi_system_t, Sproduct), CHILD_STRING},
    {"Version", DMI_FIELD(dmi_system_t, Sversion), CHILD_STRING},
    {"SerialNumber", DMI_FIELD(dmi_system_t, Sserialno), CHILD_STRING},
};
constexpr dmi_child_t module_children[] = {
    {"Manufacturer", DMI_FIELD(dmi_module_t, Smanufacturer), CHILD_STRING},
    {"ProductName", DMI_FIELD(dmi_module_t, Sproduct), CHILD_STRING},
    {"Version", DMI_FIELD(dmi_module_t, Sversion), CHILD_STRING},
    {"SerialNumber", DMI_FIELD(dmi_module_t, Sserialno), CHILD_STRING},
    {"AssetTag", DMI_FIELD(dmi_module_t, Sasset_tag), CHILD_STRING},
};
constexpr dmi_child_t chassis_children[] = {
    {"Height", DMI_FIELD(dmi_chassis_t, height), CHILD_HEIGHT},
    {"Manufacturer", DMI_FIELD(dmi_chassis_t, Smanufacturer), CHILD_STRING},
    {"Version", DMI_FIELD(dmi_chassis_t, Sversion), CHILD_STRING},
    {"SerialNumber", DMI_FIELD(dmi_chassis_t, Sserialno), CHILD_STRING},
    {"AssetTag", DMI_FIELD(dmi_chassis_t, Sasset_tag), CHILD_STRING},
};
constexpr dmi_child_t processor_children[] = {
    {"Cores", DMI_FIELD(dmi_processor_t, core_count), CHILD_COUNT},
    {"Threads", DMI_FIELD(dmi_processor_t, thread_count), CHILD_COUNT},
    {"CoresEnabled", DMI_FIELD(dmi_processor_t, core_enabled), CHILD_COUNT},
};

/** A structure type that the inventory describes, unless it is shorter than `shortest` bytes. */
struct dmi_section_t {
    dmi_types type;
    const char *element;
    const char *trace;
    int shortest;
    std::span<const dmi_child_t> children;
};

// A processor says how many cores it has since SMBIOS 2.5, which made its structure longer.
constexpr dmi_section_t sections[] = {
    {DMI_BIOS, "BIOS", "BIOS", 0, bios_children},
    {DMI_SYSTEM, "System", "SYSTEM", 0, system_children},
    {DMI_MODULE, "Module", "MODULE", 0, module_children},
    {DMI_CHASSIS, "Chassis", "CHASSIS", 0, chassis_children},
    {DMI_PROCESSOR, "Processor", "PROCESSOR", 38, processor_children},
};

void send_string(dmi_structure_t &structure, const dmi_child_t &child, int indent)
{
    const auto index = static_cast<int>(dmi_number(structure, child.field));
    if (const char *string = get_dmi_string(structure, index))
        conn_send_XML_string(child.element, indent, string);
}

void send_uuid(dmi_structure_t &structure, const dmi_child_t &child, int indent,
               const firmware_table_t &table)
{
    const uint8_t *bytes = dmi_field(structure, child.field);
    if (!bytes)
        return;
    adjust_sys_uuid(reinterpret_cast<dmi_system_t *>(structure.header), table.major, table.minor);
    const unique_text uuid{BytesToString(bytes, child.field.width)};
    if (uuid)
        conn_send_XML_string(child.element, indent, uuid.get());
}

void send_number(dmi_structure_t &structure, const dmi_child_t &child, int indent, const char *unit)
{
    conn_send_lines(1024, indent, "<%s>%u%s</%s>\n", child.element,
                    dmi_number(structure, child.field), unit, child.element);
}

void send_child(dmi_structure_t &structure, const dmi_child_t &child, int indent,
                const firmware_table_t &table)
{
    switch (child.kind) {
    case CHILD_STRING:
        return send_string(structure, child, indent);
    case CHILD_UUID:
        return send_uuid(structure, child, indent, table);
    case CHILD_HEIGHT:
        return send_number(structure, child, indent, "U");
    case CHILD_COUNT:
        return send_number(structure, child, indent, "");
    }
}

void send_section(dmi_structure_t &structure, const dmi_section_t &section, int item, int indent,
                  const firmware_table_t &table)
{
    debug_at(2, "%% %s:   %s\n", log_name, section.trace);
    if (structure.header->length < section.shortest)
        return;
    conn_send_lines(1024, indent, "<%s Type=\"%d\" Item=\"%d\" Handle=\"0x%x\">\n", section.element,
                    structure.header->type, item,
                    dmi_number(structure, DMI_FIELD(dmi_element_t, handle)));
    for (const dmi_child_t &child : section.children)
        send_child(structure, child, indent + 2, table);
    conn_send_end(section.element, indent);
}

void send_structure(dmi_structure_t &structure, int item, int indent, const firmware_table_t &table)
{
    for (const dmi_section_t &section : sections)
        if (section.type == structure.header->type)
            return send_section(structure, section, item, indent, table);
    if (get_debug_state() >= 4)
        hex_dump(structure.header, structure.total, 0, 1);
}

void send_structures(const firmware_table_t &table, int indent)
{
    dmi_walk_t walk = {table.extent, table.bytes.get()};
    dmi_structure_t structure = {};
    while (next_structure(&walk, &structure)) {
        const dmi_element_t &header = *structure.header;
        debug_at(3, "%% %s:   type 0x%x, fixed 0x%x, total 0x%x handle 0x%x\n", log_name,
                 header.type, header.length, static_cast<unsigned int>(structure.total),
                 dmi_number(structure, DMI_FIELD(dmi_element_t, handle)));
        if (header.type == DMI_TABLE_END) {
            debug_at(2, "%% %s:   TABLE_END\n", log_name);
            return;
        }
        send_structure(structure, walk.item, indent, table);
    }
}

void send_table_dump(const unsigned char *table, int length, int indent)
{
    debug_at(2, "%% %s: creating MIME output\n", log_name);
    char *text = nullptr;
    dump_dmi_buffer(table, length, indent + 2, &text);
    const unique_text dump{text};
    if (!dump)
        return;
    conn_send_start("Buffer", indent);
    conn_send2(text, static_cast<int>(strlen(text)));
    conn_send_end("Buffer", indent);
}

} // namespace

int dump_dmi_buffer(const unsigned char *binary, int binLen, int indent, char **retString)
{
    if (!binary || !retString || binLen < 0 || indent < 0)
        return error_invalid_arguments(__func__);
    const int characters = 4 * ((binLen + 2) / 3);
    const int lines = characters / MIME_LINE_CHARS + 1;
    const int size = lines * (indent + MIME_LINE_CHARS + 2);
    debug_at(2, "%% %s: binary length %d, base ASCII length %d\n", __func__, binLen, characters);
    debug_at(2, "%% %s:    MIME_LINE_CHARS %d lines %d\n", __func__, MIME_LINE_CHARS, lines);
    debug_at(2, "%% %s: creating %d byte ASCII output buffer\n", __func__, size);
    unique_text text{static_cast<char *>(malloc(static_cast<size_t>(size)))};
    if (!text) {
        error_print("? %s: unable to allocate ASCII output buffer, length %d\n", __func__, size);
        return ENOMEM;
    }
    memset(text.get(), ' ', static_cast<size_t>(size));
    char *end = text.get();
    int offset = 0;
    for (; binLen - offset >= mime_line_bytes; offset += mime_line_bytes) {
        debug_at(3, "%% %s: encoding bytes - offset %d remain %d\n", __func__, offset,
                 binLen - offset);
        const int obytes = m64_encode(binary + offset, mime_line_bytes, end + indent);
        if (obytes != MIME_LINE_CHARS) {
            error_print("? %s: m64 encode error, obytes %d\n", __func__, obytes);
            return EINVAL;
        }
        end += indent + obytes;
        *end++ = '\n';
    }
    if (offset < binLen) {
        debug_at(3, "%% %s: encoding last bytes - offset %d remain %d\n", __func__, offset,
                 binLen - offset);
        end += indent + m64_encode(binary + offset, binLen - offset, end + indent);
        *end++ = '\n';
    }
    *end = '\0';
    debug_at(2, "%% %s: DMI dump string %zd bytes ascptr %d\n", __func__, end - text.get(),
             static_cast<int>(end - text.get()));
    *retString = text.release();
    return 0;
}

int show_smbios_info(int indent, int dumpDMTF)
{
    debug_at(1, "%% %s: getting SMBIOS information\n", __func__);
    firmware_table_t table = {};
    if (const int status = read_firmware_table(&table))
        return status;

    conn_send_start("DMTF", indent);
    if (table.has_smbios)
        conn_send_lines(1024, indent + 2,
                        "<SMBIOS Version=\"%u.%u.%u\">\n"
                        "  <MaxSize>%u</MaxSize>\n"
                        "</SMBIOS>\n",
                        table.major, table.minor, table.revision, table.max);
    conn_send_lines(1024, indent + 2,
                    "<DMI Version=\"%u.%u\">\n"
                    "  <TableLength>%d</TableLength>\n"
                    "  <Items>%d</Items>\n",
                    table.dmi_revision >> 4, table.dmi_revision & 0xFU, table.extent.length,
                    table.extent.items);
    // First the dump: the sections rewrite the strings and the UUID inside the table.
    if (dumpDMTF)
        send_table_dump(table.bytes.get(), table.extent.length, indent + 4);
    conn_send_end("DMI", indent + 2);
    send_structures(table, indent + 2);
    conn_send_end("DMTF", indent);
    return 0;
}

} // namespace zorvik

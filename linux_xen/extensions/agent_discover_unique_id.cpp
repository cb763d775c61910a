// The machine's identifier, from the firmware or else from its network cards.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "agent_common.h"
#include "agent_discover.h"
#include "agent_discover_internal.h"
#include "agent_handles.h"
#include "agent_text.h"
#include "config_network.h"
#include "config_network_sysfs.h"

namespace zorvik
{

namespace
{

/** Reads the hex pairs of a hardware address into at most `room` bytes. Returns how many. */
int parse_hw_addr(const char *hw_addr, uint8_t *bytes, int room)
{
    const int length = static_cast<int>(strlen(hw_addr));
    int count = 0;
    for (int at = 0; at < length && count < room; at += 3)
        bytes[count++] = static_cast<uint8_t>(strtol(hw_addr + at, nullptr, 16));
    return count;
}

/**
 * Joins the hardware addresses of the physical devices. Returns 0, 1 when there are none, or an
 * error.
 */
int generate_fallback_unique_id(uint8_t *uuid, int uuid_len)
{
    memset(uuid, 0xFF, static_cast<size_t>(uuid_len));
    device_list_t devices;
    if (const int status = get_network_device_list(&devices.head))
        return status;
    int filled = 0;
    while (const unique_device device = devices.take_first()) {
        if (!has_hardware(device->device_name) || filled >= uuid_len || !device->hw_addr)
            continue;
        uint8_t *bytes = uuid + filled;
        const int count = parse_hw_addr(device->hw_addr, bytes, uuid_len - filled);
        // An address of only 0xFF says nothing: the next card's takes its place.
        if (std::any_of(bytes, bytes + count, [](uint8_t byte) { return byte != 0xFF; }))
            filled += count;
    }
    return filled == 0 ? 1 : 0;
}

/** Finds the firmware's UUID, in network byte order. Returns whether there is a usable one. */
bool firmware_unique_id(uint8_t *uuid, int uuid_len)
{
    firmware_table_t table = {};
    if (read_firmware_table(&table) != 0)
        return false;
    dmi_walk_t walk = {table.extent, table.bytes.get()};
    dmi_structure_t structure = {};
    do {
        if (!next_structure(&walk, &structure))
            return false;
    } while (structure.header->type != DMI_SYSTEM);

    const uint8_t *bytes = dmi_field(structure, DMI_FIELD(dmi_system_t, uuid));
    if (!bytes || !is_valid_uuid(bytes, uuid_len))
        return false;
    adjust_sys_uuid(reinterpret_cast<dmi_system_t *>(structure.header), table.major, table.minor);
    memcpy(uuid, bytes, static_cast<size_t>(uuid_len));
    return true;
}

} // namespace

int agent_unique_id(conn_t *)
{
    uint8_t uuid[sizeof(dmi_system_t::uuid)];
    constexpr int uuid_len = sizeof uuid;
    const char *source = "";
    unique_text text;
    if (firmware_unique_id(uuid, uuid_len))
        text.reset(BytesToString(uuid, uuid_len));
    if (!text) {
        if (generate_fallback_unique_id(uuid, uuid_len) != 0)
            return 1;
        source = "fallback ";
        text.reset(BytesToString(uuid, uuid_len));
    }
    if (!text)
        return 1;
    debug_at(1, "%% %s: %sunique system ID: %s\n", __func__, source, text.get());
    return conn_send2(text.get(), static_cast<int>(strlen(text.get()))) == 0 ? 0 : 1;
}

} // namespace zorvik

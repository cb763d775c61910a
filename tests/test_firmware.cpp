// Firmware tables: entry points, the walk, strings and fields of hostile tables, the identifier.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "agent_discover.h"
#include "agent_discover_internal.h"
#include "fixture.h"

using bytes_t = std::string;

bytes_t system_structure(const bytes_t &uuid)
{
    return bytes_t("\x01\x19\x34\x12\x00\x00\x00\x00", 8) + uuid + bytes_t("\x06\x00\x00", 3);
}

const bytes_t good_uuid = "\x33\x22\x11\xaa\x55\x44\x77\x66\x88\x99\xaa\xbb\xcc\xdd\xee\xff";
const char stored_order[] = "33:22:11:aa:55:44:77:66:88:99:aa:bb:cc:dd:ee:ff";
const char card_order[] = "00:16:3e:00:00:01:ff:ff:ff:ff:ff:ff:ff:ff:ff:ff";

class Firmware : public HostTest
{
protected:
    std::string unique_id()
    {
        conn_free(&the_connection);
        const int status = agent_unique_id(new_conn());
        return status == 0 ? response() : "status " + std::to_string(status);
    }
};

TEST_F(Firmware, SomeIdentifiersIdentifyNothing)
{
    const auto valid = [](const bytes_t &uuid) {
        return is_valid_uuid(reinterpret_cast<const uint8_t *>(uuid.data()),
                             static_cast<int>(uuid.size()));
    };
    EXPECT_FALSE(valid(bytes_t(16, '\0')) || valid(bytes_t(16, '\xff')) || valid(""));
    EXPECT_FALSE(valid(bytes_t("\x03\0\x02\0\x04\0\x05\0\0\x06\0\x07\0\x08\0\x10", 16)));
    EXPECT_TRUE(valid(bytes_t(15, '\0') + "\x11") && valid(bytes_t(15, '\xff') + "\xfe"));
}

/** The structures of a table as "TYPE:TOTAL", and what the walk logged. */
std::string walked(const bytes_t &table, int items)
{
    conn_free(&the_connection);
    std::vector<unsigned char> copy(table.begin(), table.end()); // exact, for AddressSanitizer
    dmi_walk_t walk = {{static_cast<int>(table.size()), items}, copy.data()};
    dmi_structure_t structure = {};
    std::string seen;
    while (next_structure(&walk, &structure)) {
        seen +=
            std::to_string(structure.header->type) + ":" + std::to_string(structure.total) + " ";
        if (const unsigned handle = dmi_number(structure, DMI_FIELD(dmi_element_t, handle));
            handle > 0xFF)
            seen.append("#").append(std::to_string(handle)).append(" ");
        for (int num = 0; num < 5; num++)
            if (const char *string = get_dmi_string(structure, num))
                seen += std::string("'") + string + "' ";
    }
    return seen + (the_connection.logmsg ? the_connection.logmsg : "");
}

TEST_F(Firmware, WalksHostileTables)
{
    const std::string short_table = "? iter_dmi_elements: table is too short\n";
    const std::string off_end = "? iter_dmi_elements: ran off end of table\n";
    const bytes_t plain("\x07\x04\x01\x00\x00\x00", 6);
    const bytes_t strings("\x01\x05\x01\x00\x01"
                          "a\tb\0\xe9\0\0",
                          12);
    const struct {
        bytes_t table;
        int items;
        std::string seen;
    } rows[] = {
        {plain + strings + plain, 3, "7:6 1:12 'a.b' '.' 7:6 "},
        {plain + strings, 1, "7:6 "},
        {plain, 2, "7:6 " + short_table},
        {"", 1, short_table},
        {bytes_t("\x07\x09\x01\x00\x00\x00\x00\x00", 8), 1, off_end},
        {bytes_t("\x07", 1), 1, off_end},
        // No double NUL: the structure ends with the table, its open string is none.
        {plain + bytes_t("\x01\x04\x01\x00"
                         "abc\0de",
                         10),
         3, "7:6 1:10 'abc' " + short_table},
        {bytes_t("\x01\x04\x01\x00"
                 "abc",
                 7),
         1, "1:7 "},
        {bytes_t("\x01\x04\x01\x00", 4), 1, "1:4 "},
        // A length that does not even cover the header.
        {bytes_t("\x09\x00\x00\x00", 4), 9, "9:3 '.' " + off_end},
        {bytes_t("\x01\x01\x41\0\0", 5), 1, "1:5 '.A' "},
        {bytes_t("\x09\x02\x41", 3), 9, "9:3 " + short_table},
        // A length of 0, whose strings end inside the handle: all of it that the table has.
        {bytes_t("\x09\x00\x00\x12", 4), 1, "9:3 #4608 '.' "},
        {bytes_t("\x09\x00\x00", 3), 1, "9:3 '.' "},
    };
    for (const auto &row : rows)
        EXPECT_EQ(walked(row.table, row.items), row.seen);
}

TEST_F(Firmware, PrintableIsWhatAsciiPrintsInAnyLocale)
{
    // As under a Latin-1 locale, which a test machine need not have.
    const unsigned short *const table = *__ctype_b_loc();
    unsigned short latin1[384];
    std::copy_n(table - 128, std::size(latin1), latin1);
    std::fill(latin1 + 128 + 0xA0, latin1 + 384, _ISprint | _ISgraph);
    *__ctype_b_loc() = latin1 + 128;
    const std::string seen = walked(bytes_t("\x01\x04\x01\x00 ~\x7f\xa0\xe9\0\0", 11), 1);
    global_debug_state = 1;
    testing::internal::CaptureStdout();
    hex_dump("\xe9", 1, 0, 0);
    fflush(stdout);
    const std::string dump = testing::internal::GetCapturedStdout();
    *__ctype_b_loc() = table;
    EXPECT_EQ(seen, "1:11 ' ~...' ");
    EXPECT_EQ(dump.substr(dump.size() - 3), " .\n");
}

TEST_F(Firmware, FieldsEndWithTheFormattedArea)
{
    bytes_t table("\x04\x16\x22\x11"
                  "0123456789abcdefgh\0\0",
                  24);
    dmi_structure_t structure = {reinterpret_cast<dmi_element_t *>(table.data()), 24, 24};
    dmi_structure_t none = {};
    EXPECT_EQ(dmi_number(structure, DMI_FIELD(dmi_element_t, handle)), 0x1122U);
    EXPECT_EQ(dmi_number(structure, DMI_FIELD(dmi_processor_t, max_speed)), 0x6867U);
    EXPECT_EQ(dmi_number(structure, DMI_FIELD(dmi_processor_t, current_speed)), 0U);
    EXPECT_EQ(get_dmi_string(none, 1), nullptr);
    EXPECT_EQ(get_dmi_string(structure, -1), nullptr);
}

TEST_F(Firmware, KernelsCopyIsReadWhateverItsSize)
{
    const bytes_t structure("\x0b\x04\x00\x00\0\0", 6), end("\x7f\x04\x02\x00\0\0", 6);
    bytes_t many = system_structure(good_uuid);
    for (int count = 0; count < 70000; count++)
        many += structure;
    ASSERT_EQ(simhost_load(HOSTS "/kernel-table/host"), 0);
    global_source_state = 1;
    const auto put = [](const bytes_t &table) {
        simhost_put("/sys/firmware/dmi/tables/DMI", table.data(), table.size());
    };
    put(bytes_t(16 * 1024 * 1024, '\0'));
    EXPECT_EQ(unique_id(), card_order);
    EXPECT_EQ(logged(),
              "? read_kernel_table: unable to read /sys/firmware/dmi/tables/DMI, errno 27 "
              "(File too large)\n");
    put(many + end + many); // nothing behind the end of the table counts
    firmware_table_t table = {};
    EXPECT_EQ(read_kernel_table(&table), 0);
    EXPECT_EQ(table.extent.items, 70002);
    EXPECT_EQ(table.extent.length, static_cast<int>(2 * many.size() + end.size()));
    EXPECT_EQ(table.max, 27U);
}

TEST_F(Firmware, EveryFailingCallIsToldAndTheCardsAnswer)
{
    ASSERT_EQ(simhost_load(HOSTS "/firmware-2.5/host"), 0);
    const std::string read = "? read_devmem: unable to read BIOS data area, errno 5 (Input/output "
                             "error)\n";
    const struct {
        const char *call;
        int nth, error;
        const char *identifier;
        std::string logged;
    } rows[] = {
        {"open", 1, EACCES, card_order,
         "? get_smbios_structures: error opening /dev/mem, errno 13 (Permission denied)\n"},
        {"lseek", 1, EIO, card_order,
         "? get_smbios_structures: unable to seek to BIOS data area, errno 5 (Input/output "
         "error)\n"},
        {"lseek", 2, EIO, card_order,
         "? read_devmem: unable to seek to BIOS data area position 983040, errno 5 (Input/output "
         "error)\n"},
        {"read", 1, EIO, card_order, read},
        {"read", 2, 0, card_order, "? read_devmem: short data read - 8 bytes of 16\n"},
        // The table is mapped when it cannot be read.
        {"read", 3, EIO, stored_order, read},
        {"read", 3, 0, stored_order, "? read_devmem: short data read - 13 bytes of 27\n"},
        {"malloc", 1, ENOMEM, card_order,
         "? get_smbios_structures: unable to allocate SMB buffer of 27 bytes\n"},
        {"malloc", 2, ENOMEM, card_order, "? BytesToString: unable to allocate string\n"},
    };
    for (const auto &row : rows) {
        simhost_fail(row.call, row.nth, row.error, 1);
        EXPECT_EQ(unique_id(), row.identifier) << row.call << row.nth;
        EXPECT_EQ(logged(), row.logged);
    }
}

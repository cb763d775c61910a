// What no caller may pass: every function with a rule for it refuses it, says so and writes nothing.
#include <functional>

#include "agent_discover_internal.h"
#include "agent_status.h"
#include "config_ipmi_internal.h"
#include "config_memory.h"
#include "config_network.h"
#include "config_network_internal.h"
#include "config_network_link.h"
#include "config_network_sysfs.h"
#include "fixture.h"

class Arguments : public HostTest
{
};

TEST_F(Arguments, AreRefused)
{
    query_socket_t queries;
    smbios_entry_point_t smb = {};
    const struct ipmi_msg message = {};
    unsigned char *table = nullptr;
    char text[8] = "1234567";
    const auto *bytes = reinterpret_cast<unsigned char *>(text);
    dmi_structure_t none = {};
    const struct {
        const char *name;
        std::function<int()> call;
        int result = EINVAL;
    } rows[] = {
        {"conn_free", [] { return conn_free(nullptr); }},
        {"conn_close", [] { return conn_close(nullptr); }},
        {"conn_send2", [] { return conn_send2(nullptr, 1); }},
        {"conn_send2", [] { return conn_send2("x", -1); }},
        {"conn_send_XML_tag", [] { return conn_send_XML_tag(nullptr, 0, 1); }},
        {"conn_send_XML_tag", [] { return conn_send_XML_tag("A", -1, 1); }},
        {"conn_send_XML_string", [] { return conn_send_XML_string("A", 0, nullptr); }},
        {"conn_send_XML_string", [] { return conn_send_XML_string(nullptr, 0, "x"); }},
        {"conn_send_XML_string", [] { return conn_send_XML_string("A", -1, "x"); }},
        {"read_devmem", [] { return read_devmem(0, nullptr, 1, 0); }},
        {"read_devmem", [&] { return read_devmem(0, text, -1, 0); }},
        {"get_smbios_structures",
         [&] { return get_smbios_structures(&smb, nullptr, nullptr, nullptr); }},
        {"get_smbios_structures",
         [&] { return get_smbios_structures(nullptr, &table, nullptr, nullptr); }},
        {"dump_dmi_buffer", [&] { return dump_dmi_buffer(nullptr, 1, 0, nullptr); }},
        {"dump_dmi_buffer", [&] { return dump_dmi_buffer(bytes, 1, 0, nullptr); }},
        {"get_dmi_string", [&] { return get_dmi_string(none, 1) ? 1 : 0; }, 0},
        {"hex_dump", [] { return hex_dump(nullptr, 1, 0, 0), 0; }, 0},
        {"m64_encode", [&] { return m64_encode(nullptr, 1, text); }, 0},
        {"m64_encode", [&] { return m64_encode(bytes, 1, nullptr); }, 0},
        {"BytesToString", [] { return BytesToString(nullptr, 1) ? 1 : 0; }, 0},
        {"BytesToString", [&] { return BytesToString(text, -1) ? 1 : 0; }, 0},
        {"ipmicmd", [] { return ipmicmd(0, nullptr) ? 1 : 0; }, 0},
        {"ipmicmd", [&] { return ipmicmd(-1, &message) ? 1 : 0; }, 0},
        {"agent_status", [] { return agent_status(nullptr, ""); }},
        {"read_meminfo", [] { return read_meminfo(nullptr); }},
        {"read_hypervisor_meminfo", [] { return read_hypervisor_meminfo(nullptr); }},
        {"read_xenballoon_instantaneous", [] { return read_xenballoon_instantaneous(nullptr); }},
        {"get_network_device_list", [] { return get_network_device_list(nullptr); }},
        {"check_real_device", [] { return check_real_device(nullptr, {}); }, 0},
        {"show_dev_mii_info", [&] { return show_dev_mii_info(queries, 0, nullptr); }},
        {"show_dev_ethtool_info", [&] { return show_dev_ethtool_info(queries, 0, nullptr); }},
        {"get_device_mac_addr", [&] { return get_device_mac_addr(nullptr, text, 8); }, 0},
        {"get_device_mac_addr", [&] { return get_device_mac_addr("x", nullptr, 8); }, 0},
        {"get_device_mac_addr", [&] { return get_device_mac_addr("x", text, 0); }, 0},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(row.call(), row.result) << row.name;
        EXPECT_EQ(logged(), std::string("? ") + row.name + ": invalid arguments\n");
        EXPECT_EQ(response(), "(null)") << row.name;
        conn_free(&the_connection);
    }
}

// The network device list and its predicates.
#include <cerrno>
#include <cstring>

#include "config_network_internal.h"
#include "fixture.h"

class Devices : public HostTest
{
protected:
    Devices() { simhost_load(HOSTS "/cards/host"); }

    /** The list as "NAME hw address broadcast netmask" lines; "-" for what is not known. */
    std::string listed(int status = 0)
    {
        device_list_t devices;
        EXPECT_EQ(get_network_device_list(&devices.head), status);
        std::string lines;
        while (const unique_device device = devices.take_first()) {
            lines += device->device_name;
            for (const char *field :
                 {device->hw_addr, device->inet_addr, device->inet_brdcst, device->inet_mask})
                lines += std::string(" ") + (field ? field : "-");
            lines += "\n";
        }
        return lines;
    }
};

TEST_F(Devices, AreListedSortedWithTheirAddresses)
{
    EXPECT_EQ(listed(), "em1 - - - -\n"
                        "eth0.100 00:16:3E:00:00:01 - - -\n"
                        "eth1 FF:FF:FF:FF:FF:FF 10.0.0.5 - -\n"
                        "eth10 00:16:3E:00:00:0A 10.1.0.5 10.1.255.255 255.255.0.0\n"
                        "eth2 00:16:3E:00:00:02 192.168.1.2 192.168.1.255 -\n"
                        "qcn2 00:16:3E:00:00:03 - - -\n"
                        "vtn0 00:16:3E:00:00:04 - - -\n"
                        "vxlan7 00:16:3E:00:00:05 - - -\n");
    EXPECT_EQ(logged(), "(null)");
    EXPECT_EQ(get_network_device_list(nullptr), EINVAL);
    EXPECT_EQ(check_real_device(nullptr), 0);
}

TEST_F(Devices, AreListedForDiagnosis)
{
    EXPECT_EQ(print_network(), 0);
    const std::string log = logged();
    EXPECT_EQ(log.substr(0, log.find("em1")),
              "  Device  Address           H/W Address         \n     ");
    EXPECT_NE(log.find("   eth10  10.1.0.5          00:16:3E:00:00:0A   \n"), std::string::npos);
}

TEST_F(Devices, FailuresEndTheListAndKeepWhatItHad)
{
    const std::string first = "eth10 00:16:3E:00:00:0A 10.1.0.5 10.1.255.255 255.255.0.0\n";
    const struct {
        const char *call;
        int nth, error;
        std::string lines, log;
    } rows[] = {
        {"socket", 1, EMFILE, "",
         "? get_network_device_list: unable to open socket, errno 24 (Too many open files)\n"},
        {"fopen", 1, EACCES, "",
         "? get_network_device_list: unable to open /proc/net/dev, errno 13 (Permission denied)\n"},
        {"read", 1, EIO, "",
         "? get_network_device_list: error reading file, errno 5 (Input/output error)\n"},
        {"malloc", 2, ENOMEM, "", "? get_network_device_list: failed to allocate eth device\n"},
        // The first device's four texts follow its entry; the next line's name has no memory.
        {"malloc", 7, ENOMEM, first, "? get_network_device_list: unable to strdup device name\n"},
    };
    for (const auto &row : rows) {
        conn_free(&the_connection);
        simhost_fail(row.call, row.nth, row.error, 1);
        EXPECT_EQ(listed(row.error), row.lines) << row.call << row.nth;
        EXPECT_EQ(logged(), row.log);
    }
    conn_free(&the_connection);
    simhost_put("/proc/net/dev", "a\n   : 0\n", 9);
    EXPECT_EQ(listed(ENOMEM), "");
    EXPECT_EQ(logged(), "? get_network_device_list: unable to strdup device name\n");
}

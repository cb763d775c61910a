// The network device list: what recorded documents do not show of it.
#include <cerrno>

#include "config_network_internal.h"
#include "fixture.h"

struct Devices : HostTest {
    Devices() { simhost_load(HOSTS "/cards/host"); }
};

TEST_F(Devices, AreListedForDiagnosis)
{
    EXPECT_EQ(print_network(), 0);
    EXPECT_EQ(logged().substr(0, 141), "  Device  Address           H/W Address         \n"
                                       "     em1                  \n"
                                       "eth0.100                    00:16:3E:00:00:01   \n"
                                       "    eth1  10.0.0");
}

TEST_F(Devices, FailuresEndTheListAndKeepWhatItHad)
{
    const struct {
        const char *call;
        int nth, error;
        bool first; // whether the table's first device was listed
        std::string log;
    } rows[] = {
        {"socket", 1, EMFILE, false, "unable to open socket, errno 24 (Too many open files)"},
        {"malloc", 2, ENOMEM, false, "failed to allocate eth device"},
        // The first device's four texts follow its entry; the next line's name has no memory.
        {"malloc", 7, ENOMEM, true, "unable to strdup device name"},
    };
    for (const auto &row : rows) {
        conn_free(&the_connection);
        simhost_fail(row.call, row.nth, row.error, 1);
        device_list_t devices;
        EXPECT_EQ(get_network_device_list(&devices.head), row.error);
        const unique_device device = devices.take_first();
        EXPECT_EQ(device != nullptr, row.first);
        EXPECT_TRUE(!device || std::string(device->inet_mask) == "255.255.0.0");
        EXPECT_EQ(logged(), "? get_network_device_list: " + row.log + "\n");
    }
    EXPECT_EQ(get_network_device_list(nullptr), EINVAL);
    EXPECT_EQ(check_real_device(nullptr, {}), 0);
}

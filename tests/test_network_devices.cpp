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
}

TEST_F(Devices, AreSortedWhereverTheSearchBegins)
{
    for (int start = 0; start < 8; start++) {
        device_list_t devices;
        std::vector<eth_device_t *> listed;
        for (const char *name : {"d", "b", "e", "b", "a", "d", "c", "b"}) {
            auto *eth = static_cast<eth_device_t *>(calloc(1, sizeof(eth_device_t)));
            eth->device_name = strdup(name);
            eth->card_nr = static_cast<int>(listed.size());
            const size_t near = static_cast<size_t>(start);
            insert_device_sorted(&devices.head, eth, near < listed.size() ? listed[near] : nullptr);
            listed.push_back(eth);
        }
        std::string order;
        while (const unique_device device = devices.take_first())
            order += device->device_name + std::to_string(device->card_nr);
        EXPECT_EQ(order, "a4b1b3b7c6d0d5e2") << start;
    }
}

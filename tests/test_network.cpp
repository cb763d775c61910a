// The rules of the network document that a recorded host cannot show case by case.
#include <cerrno>
#include <fstream>
#include <sys/wait.h>

#include "config_network_internal.h"
#include "recorded.h"

namespace
{

const std::string bond = "=== /sys/class/net/bond0/bonding/slaves\neth0\n"
                         "=== /sys/class/net/bond0/bonding/mode\nbalance-rr\n"
                         "=== /sys/class/net/bond0/address\n00:16:3e:00:00:01\n"
                         "=== /proc/net/bonding/bond0\nDriver: 1\n\nBonding Mode: none\n";

class Network : public HostTest
{
protected:
    void load(const std::string &recording)
    {
        const std::string path = testing::TempDir() + "host-" + std::to_string(getpid());
        std::ofstream{path} << recording;
        conn_free(&the_connection);
        ASSERT_EQ(simhost_load(path.c_str()), 0);
        remove(path.c_str());
    }

    /** The texts of an element in the response, in order, each with a bar before it. */
    std::string texts(const std::string &element)
    {
        std::string found;
        const std::string all = response();
        const std::string start = "<" + element + ">";
        for (size_t at = 0; (at = all.find(start, at)) != std::string::npos; at++)
            found += std::string("|") +
                     all.substr(at + start.size(), all.find('<', at + 1) - at - start.size());
        return found;
    }
};

TEST_F(Network, AutonegotiationAndSpeed)
{
    // Control, status, what this side and the partner advertise, 1000BASE-T status.
    const struct {
        std::string bmcr, bmsr, advertised, partner, stat1000, state_and_speed;
        int result = 0;
    } rows[] = {
        {"1000", "782d", "01e1", "45e1", "0000", "|Complete|100baseT-FD"},
        {"1000", "782d", "01e1", "05e1", "0000", "|Incomplete|100baseT-FD"},
        {"1000", "782d", "03e1", "4281", "0000", "|Complete|10baseT-HD"}, // 100BASE-T4
        {"1000", "782d", "01e1", "40e1", "0000", "|Complete|100baseT-HD"},
        {"1000", "782d", "01e1", "4061", "0000", "|Complete|10baseT-FD"},
        {"1000", "782d", "01e1", "4021", "0000", "|Complete|10baseT-HD"},
        {"1140", "782d", "01e1", "40a1", "0800", "|Complete|1000baseT-FD"},
        {"1140", "782d", "01e1", "40a1", "0400", "|Complete|1000baseT-HD"},
        {"1140", "782d", "01e1", "41e1", "0400", "|Complete|1000baseT-FD"},
        {"1000", "782d", "0101", "4080", "0000", "|Failed"},
        {"1200", "780d", "01e1", "45e1", "0000", "|Restarted"},
        {"1140", "780d", "01e1", "45e1", "0000", "|"},
        {"2100", "780d", "01e1", "0000", "0000", "|Off|100baseT-FD"},
        {"0140", "780d", "01e1", "0000", "0000", "|Off|1000baseT-FD"},
        {"2040", "780d", "01e1", "0000", "0000", "|Off|100baseT-HD"},
        {"0000", "780d", "01e1", "0000", "0000", "|Off|10baseT-HD"},
        {"1140", "782d", "01e1", "45e1", "0000", "", EINVAL}, // not to be trusted
        {"ffff", "ffff", "ffff", "ffff", "ffff", "", ENODEV},
    };
    for (const auto &row : rows) {
        load("=== [interface eth0]\nmii " + row.bmcr + " " + row.bmsr + " 0 0 " + row.advertised +
             " " + row.partner + " 0 0 0 0 " + row.stat1000 + "\n");
        EXPECT_EQ(show_dev_mii_info(0, "eth0"), row.result) << row.bmcr << row.partner;
        EXPECT_EQ(texts("State") + texts("Speed"), row.state_and_speed) << row.bmcr << row.partner;
    }
}

TEST_F(Network, ModeLists)
{
    load("=== [interface eth0]\n"
         "mii c680 ff14 0022 ffff 03e0 03e0 0 0 0 0300 0c00 0 0 0 0 3000\nmii_first ff10\n"
         "gset 0x102f 0 65535 1 1\nglink 0\n"
         "=== [interface eth1]\nmii 0 0 0 0 0 0020 0 0 0 0 0c00 0 0 0 0 f000\ngset 0 40 10 0 2\n"
         "=== [interface eth2]\nmii 0\nmii_15 !EIO\nglink 1\n");
    const std::string low = "100baseT-FD 100baseT-HD 10baseT-FD 10baseT-HD";
    ASSERT_EQ(show_dev_mii_info(0, "eth0"), 0);
    EXPECT_EQ(simhost_calls("ioctl"), 18);
    EXPECT_EQ(texts("Link") + texts("Vendor") + texts("Model") + texts("Revision"),
              "|ok|00:08:bf|63|15");
    EXPECT_EQ(texts("ModeControl") + texts("Status"),
              "|software reset, loopback, isolate, collision test, "
              "|autonegotiation restarted remote fault");
    EXPECT_EQ(texts("Capabilities") + texts("Advertising") + texts("LinkPartner"),
              "|1000baseT-FD 1000baseT-HD 100baseT-FD 100baseT-HD 100base-4k 100base2-FD "
              "100base2-HD 10baseT-FD 10baseT-HD|1000baseT-FD 1000baseT-HD " +
                  low + "|1000baseT-FD 1000baseT-HD " + low);
    conn_free(&the_connection);
    ASSERT_EQ(show_dev_mii_info(0, "eth1"), 0);
    EXPECT_EQ(texts("Capabilities") + texts("Advertising") + texts("LinkPartner"), "||");
    EXPECT_EQ(show_dev_mii_info(0, "eth2"), EIO);
    EXPECT_EQ(show_dev_mii_info(0, "eth3"), EOPNOTSUPP);

    conn_free(&the_connection);
    ASSERT_EQ(show_dev_ethtool_info(0, "eth0"), 0);
    EXPECT_EQ(texts("State") + texts("Speed") + texts("Link"), "|Incomplete|65535baseT-FD|none");
    EXPECT_EQ(texts("Capabilities") + texts("Advertising"),
              "|10baseT-HD 10baseT-FD 100baseT-HD 100baseT-FD 1000baseT-FD 10000baseT-FD|");
    EXPECT_EQ(show_dev_ethtool_info(0, "eth1"), ENODEV);
    EXPECT_EQ(show_dev_ethtool_info(0, "eth2"), ENODEV);
}

TEST_F(Network, BondLines)
{
    load(bond +
         "Slave queue ID: 0\n\tNumber of ports: 2\n \tPorts: 2\n802.3ad: info\n802.3ad info\n"
         "Transmit Hash Policy: layer2 (0)\nLACP rate: slow\nActive Aggregator Info:\n"
         "Aggregator ID: 1\n  : no key\n(only) : a unit\nNo value: \nPermanent HW addr: 00:16\n"
         "ARP IP target/s (n.n.n.n form): 10.0.0.1\nPrimary Slave: eth0 (failure)\n"
         "Currently Active Slave:eth0\nUp Delay (ms): 0\n"
         "Slave Interface: eth0\nSpeed: 10\nSlave Other: eth1\nNothing:");
    EXPECT_EQ(bonding_discover(0), 0);
    EXPECT_EQ(
        response().substr(0, response().find("    <Family")),
        "<Bonding>\n  <Device Name=\"bond0\">\n    <Bonding_Mode>balance-rr</Bonding_Mode>\n"
        "    <Ports>2</Ports>\n    <No_value></No_value>\n"
        "    <Permanent_HW_addr>00:16</Permanent_HW_addr>\n"
        "    <ARP_IP_target>10.0.0.1</ARP_IP_target>\n"
        "    <Primary_Slave>eth0 (failure)</Primary_Slave>\n"
        "    <Currently_Active_Slave>th0</Currently_Active_Slave>\n    <Up_Delay>0</Up_Delay>\n"
        "    <Slave_Interface Name=\"eth0\">\n      <Speed>10</Speed>\n    </Slave_Other>\n"
        "    <Slave_Other Name=\"eth1\">\n      <Nothing></Nothing>\n    </Slave_Interface>\n");
}

TEST_F(Network, VlanIdsAndBaseNames)
{
    std::string table, files;
    for (const std::string name : {".7", "eth0.100", "eth0.12345", "eth0.7.8", "eth0.x", "vlan7"}) {
        table += name + ": 0\n";
        files += "=== /proc/net/vlan/" + name + "\n";
    }
    load("=== /proc/net/dev\n" + table + files);
    EXPECT_EQ(config_show_network(0), 0);
    EXPECT_EQ(texts("Vlanid"), "|7|100|1234|7|");
    EXPECT_EQ(texts("Basename"), "||eth0|eth0|eth0|eth0");
}

TEST_F(Network, OpenSwitchTool)
{
    const std::string host = "=== /sys/module/openvswitch_mod/\n"
                             "=== /sys/class/net/xenbr0 -> ../../devices/virtual/net/xenbr0\n"
                             "=== /sys/class/net/xenbr0/bridge/\n"
                             "=== /sys/class/net/xenbr0/address\n00:16:3e:00:00:01\n";
    const std::string tool = host + "=== /usr/bin/ovs-vsctl\n";
    std::string many;
    for (int port = 1000; port < 1102; port++)
        many += std::string("|port-") + std::to_string(port);
    const struct {
        std::string recording, physical, virtuals;
        int result = 0;
        std::string log = "(null)";
        const char *failing = "";
    } rows[] = {
        {tool + "printf \"$1\\nvif0.0\\ntap$2\\n\\neth1\"", "|list-ports|", "|vif0.0|tapxenbr0"},
        {tool + "exec seq -f port-%.0f 1000 1299", many, ""},
        {tool + "echo eth0; sleep 0.2; echo eth1 2>&-; exit 0", "|eth0", ""}, // one read
        {tool + "sleep 0.1; exit 0", "", ""},
        {tool + "for n in 0 2 3 4 5 6 7 8; do [ /proc/$$/fd/$n -ef /proc/$$/fd/1 ] && echo $n; "
                "done; :",
         "", ""}, // neither end of the pipe stands open a second time
        {tool + "echo eth0; exit 2", "", "", -1},
        {tool + "echo eth0; kill -9 $$", "", "", -1},
        {host, "", "", -1},
        {tool + "echo eth0; exec sleep 60", "", "", -1,
         "? show_opensw_ifs: /usr/bin/ovs-vsctl did not end within 5 seconds and was killed\n"},
        {host, "", "", ENOMEM,
         "? show_opensw_ifs: can not Create pipe , errno 12 (Cannot allocate memory)\n", "pipe2"},
        {host, "", "", ENOMEM,
         "? show_opensw_ifs: can not fork, errno 12 (Cannot allocate memory)\n", "fork"},
    };
    const long open_before = open_descriptors();
    for (const auto &row : rows) {
        load(row.recording);
        simhost_fail(row.failing, 1, ENOMEM, 1);
        EXPECT_EQ(bridge_config(0), row.result) << row.recording;
        EXPECT_EQ(texts("PhyInterface"), row.physical) << row.recording;
        EXPECT_EQ(texts("VirtInterface"), row.virtuals) << row.recording;
        EXPECT_EQ(response().substr(response().find("    </Int")),
                  "    </Interfaces>\n  </Device>\n</Bridges>\n");
        EXPECT_EQ(logged(), row.log);
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        EXPECT_EQ(open_descriptors(), open_before);
    }
}

TEST_F(Network, NothingIsClosedAfterAFailedAppend)
{
    load(bond + "Slave Interface: eth0\nSpeed: 10\n");
    ASSERT_EQ(bonding_discover(0), 0);
    const std::string whole = response();
    int ended = 0;
    for (int nth = 1; nth <= simhost_calls("malloc") + 1; nth++) {
        conn_free(&the_connection);
        simhost_fail("malloc", nth, ENOMEM, 1);
        if (bonding_discover(0) != ENOMEM)
            continue;
        EXPECT_EQ(whole.rfind(response(), 0), 0U) << response();
        ended++;
    }
    EXPECT_GT(ended, 3);
}

} // namespace

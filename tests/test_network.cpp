// The rules of the network document that a recorded host cannot show case by case.
#include <cerrno>
#include <csignal>
#include <fstream>
#include <sys/time.h>
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
            found.append("|").append(all, at + start.size(),
                                     all.find('<', at + 1) - at - start.size());
        return found;
    }
};

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
                "readlink /proc/$$/fd/$n | grep eventfd; done; :",
         "", ""}, // neither end of the pipe is open a second time, nor a file of the host
        {tool + "echo eth0; exit 2", "", "", -1},
        {tool + "echo eth0; kill -9 $$", "", "", -1},
        {host, "", "", -1},
        {tool + "sleep 2 &", "", "", 0,
         "? show_opensw_ifs: /usr/bin/ovs-vsctl ended, but another process keeps its output "
         "open\n"},
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

TEST_F(Network, KeysOfABondBecomeNames)
{
    load(bond + "802.3ad info\nLACP rate: slow\n802.3ad: x\n NS IPv6 target/s (xx::xx form): ::\n"
                "2nd key<&>: 7\n\xc3\xa9 &: 8\n");
    global_source_state = 1;
    new_conn();
    ASSERT_EQ(bonding_discover(0), 0);
    EXPECT_EQ(texts("NS_IPv6_target_s_") + texts("_nd_key___") + texts("\xc3\xa9__"),
              "|xx form): ::|7|8");
    EXPECT_EQ(response().find("ad>"), std::string::npos);
}

TEST_F(Network, ListedSwitchBridgesAreBounded)
{
    const std::string host =
        "=== /sys/module/openvswitch/\n=== /sys/class/net/\n"
        "=== /usr/bin/ovs-vsctl\n[ $1 = list-br ] || exec seq -f port-%.0f 2\n";
    const std::string failed = "? show_opensw_ifs: /usr/bin/ovs-vsctl list-br failed\n";
    const struct {
        std::string tool, ports, log;
    } rows[] = {
        {"echo br0; sleep 0.1; printf br1", "|port-1|port-2|port-1|port-2", ""},
        {"printf '%s\\n' --help '' a.longest.name1 ..; printf "
         "'a\\0b\\na<\\na\"\\na&\\na\\tb\\nbr\\377\\n%01024d' 0",
         "|port-1|port-2", "? show_opensw_ifs: names listed that no bridge can have: 10\n"},
        {"yes abc", "",
         "? show_opensw_ifs: /usr/bin/ovs-vsctl list-br writes more than 1048576 bytes\n" + failed},
        {"echo br0; sleep 30", "",
         "? show_opensw_ifs: /usr/bin/ovs-vsctl did not end within 5 seconds and was killed\n" +
             failed},
        {"echo br0; exit 3", "", failed},
        {"yes '' | head -c 1048572; echo br0", "|port-1|port-2",
         "? show_opensw_ifs: names listed that no bridge can have: 1048572\n"},
    };
    for (const auto &row : rows) {
        load(host + "exec 2>&-; " + row.tool + "\n");
        global_source_state = 1;
        new_conn();
        EXPECT_EQ(bridge_config(0), 0);
        EXPECT_EQ(texts("PhyInterface"), row.ports) << row.tool;
        const size_t mac_lines = logged().find("? ");
        EXPECT_EQ(mac_lines < logged().size() ? logged().substr(mac_lines) : "", row.log);
    }
}

TEST_F(Network, OpenSwitchToolHasFiveSecondsForAllBridges)
{
    load("=== /sys/module/openvswitch_mod/\n=== /sys/class/net/br0 -> ../../b\n=== /sys/b/bridge/\n"
         "=== /sys/class/net/br1 -> ../../b\n=== /sys/b/address\n00:16:3e:00:00:01\n"
         "=== /usr/bin/ovs-vsctl\necho $2; [ $2 = br0 ] && sleep 2 || exec sleep 60");
    const time_t start = time(nullptr);
    EXPECT_EQ(bridge_config(0), -1);
    EXPECT_LE(time(nullptr) - start, 6);
    EXPECT_EQ(texts("PhyInterface"), "|br0");
    EXPECT_EQ(
        logged(),
        "? show_opensw_ifs: /usr/bin/ovs-vsctl did not end within 5 seconds and was killed\n");
}

TEST_F(Network, OpenSwitchToolReapedByOthersWhileSignalsCome)
{
    const std::string host = "=== /sys/module/openvswitch_mod/\n=== /sys/class/net/br0 -> ../../b\n"
                             "=== /sys/b/bridge/\n=== /usr/bin/ovs-vsctl\n";
    const auto kept = signal(SIGCHLD, SIG_IGN);
    signal(SIGALRM, [](int) {});
    const struct itimerval often = {{0, 10000}, {0, 10000}}, never = {};
    setitimer(ITIMER_REAL, &often, nullptr);
    for (const auto &[script, result] :
         {std::pair{"echo eth0", 0}, {"sleep 0.1", 0}, {"sleep 1 &", -1}}) {
        load(host + script);
        EXPECT_EQ(bridge_config(0), result) << script;
    }
    setitimer(ITIMER_REAL, &never, nullptr);
    signal(SIGCHLD, kept);
}

TEST_F(Network, NothingIsClosedAfterAFailedAppend)
{
    load(bond + "Slave Interface: eth0\nSpeed: 10\n");
    simhost_count();
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
    for (int nth = 1; nth <= 4;
         nth++) { // reads of the slaves, the mode and, twice, the status file
        conn_free(&the_connection);
        simhost_fail("read", nth, EIO, 1);
        EXPECT_EQ(bonding_discover(0), nth > 1 ? EIO : 0) << nth;
        EXPECT_EQ(xml_error(response()), "");
    }
    EXPECT_NE(response().find("</Slave_Interface>"), std::string::npos);
    load("=== /proc/net/dev\n");
    EXPECT_EQ(bonding_discover(0), 0) << "without bonds";
}

} // namespace

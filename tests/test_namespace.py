"""The network document of a real kernel, in network and mount namespaces that go with the test.

    PYTHONPATH=build/python3 /usr/bin/python3 tests/test_namespace.py
"""
import ctypes
import ipaddress
import json
import os
import signal
import socket
import subprocess
import unittest
import xml.etree.ElementTree as ElementTree

import ZorvikDiscoverExtension as module

CLONE_NEWNS, CLONE_NEWNET, PR_SET_PDEATHSIG = 0x00020000, 0x40000000, 1
NET = "/sys/class/net/"
OVS_SCHEMA = "/usr/share/openvswitch/vswitch.ovsschema"
libc = ctypes.CDLL(None)


def run(command):
    return subprocess.run(command.split(), check=True, stdout=subprocess.PIPE).stdout


def enter_namespaces():
    return (libc.unshare(CLONE_NEWNS | CLONE_NEWNET) == 0 and
            subprocess.call("mount --make-rprivate / && mount -t sysfs sysfs /sys", shell=True) == 0)


def document():
    status, response, log = module.discover_network(0)
    assert status == 0
    return ElementTree.fromstring("<all>" + response + "</all>"), log or ""


def status(sections):
    return ElementTree.fromstring(module.status("Option: " + sections)[1].partition("\n")[2])


def ports(root, bridge):
    path = "Bridges/Device[@Name='%s']/Interfaces/*" % bridge
    return {(port.tag, port.text) for port in root.findall(path)}


def attributes(device):
    skipped = ("address", "broadcast", "brforward")
    return {entry.name: attribute(device, entry.name) for entry in os.scandir(NET + device)
            if entry.is_file(follow_symlinks=False) and entry.stat().st_mode & 0o444
            and not entry.name.startswith(skipped)}


def attribute(device, entry):
    try:
        with open(NET + device + "/" + entry, encoding="utf-8") as stream:
            return stream.read().rstrip()
    except OSError:
        return ""


@unittest.skipUnless(enter_namespaces(), "namespaces are not allowed here")
class KernelTest(unittest.TestCase):
    def test_devices_and_bridges(self):
        for command in (
                "link add qcn2 type veth peer tap2.0", "link add eth9 type veth peer vif3.0",
                "link add vif0.0 type veth peer eth8", "link add xenbr0 type bridge",
                "link add vxlan7 type vxlan id 7 dstport 4789 dev qcn2",
                "link set tap2.0 master xenbr0", "link set vif3.0 master xenbr0",
                "link set vif0.0 master xenbr0", "link set eth9 master xenbr0",
                "link set qcn2 mtu 1400 up", "link set tap2.0 up", "link set vxlan7 arp off",
                "addr add 10.1.2.3/20 brd + dev qcn2", "addr add 10.9.0.1/32 dev vxlan7",
                "addr add 192.168.7.1/24 brd + dev xenbr0"):
            run("ip " + command)
        root, log = document()
        for line in log.splitlines():
            self.assertRegex(line, r"^\? show_sysfs: read failed on ")
        links = {link["ifname"]: link for link in json.loads(run("ip -j addr"))}
        devices = {device.get("Name"): device for device in root.find("Network")}
        self.assertEqual(list(devices), ["qcn2", "vxlan7"])
        for name, device in devices.items():
            link = links[name]
            self.assertEqual(device.find("MAC").text, link["address"])
            self.check_flags(device.find("Flags").text.split(), link)
            self.check_addresses(device.find("Family"), link)
            shown = {child.tag: child.text or "" for child in device.find("SysFS")}
            self.assertEqual(shown.pop("SysFSDev", "").strip(), "")
            self.assertEqual(shown["mtu"], str(link["mtu"]))
            self.assertEqual(shown, attributes(name))
        self.assertEqual(ports(root, "xenbr0"), {
            ("VirtInterface", "tap2.0"), ("VirtInterface", "vif3.0"), ("PhyInterface", "eth9")})
        self.check_addresses(root.find("Bridges/Device/Family"), links["xenbr0"])

    def check_flags(self, words, link):
        running = 0x40 if link["operstate"] in ("UP", "UNKNOWN") else 0
        kernel = int(attribute(link["ifname"], "flags"), 16)
        self.assertEqual(int(words[0].strip("()"), 16), kernel & ~0x40 | running)
        known = {"IFF_" + name for name in link["flags"]} - {"IFF_NO-CARRIER", "IFF_LOWER_UP"}
        self.assertEqual(set(words[1:]) - {"IFF_RUNNING"}, known)

    def check_addresses(self, family, link):
        address = next(entry for entry in link["addr_info"] if entry["family"] == "inet")
        interface = ipaddress.ip_interface("%(local)s/%(prefixlen)s" % address)
        self.assertEqual([line.text for line in family if line.tag != "MAC"],
                         [address["local"], str(interface.netmask),
                          address.get("broadcast", "0.0.0.0")])

    @unittest.skipUnless(os.path.exists(OVS_SCHEMA), "Open vSwitch is not installed")
    def test_open_switch(self):
        self.overlay("/run", "openvswitch")
        run("ovsdb-tool create /run/openvswitch/conf.db " + OVS_SCHEMA)
        self.daemon("ovsdb-server --remote=punix:/run/openvswitch/db.sock /run/openvswitch/conf.db")
        run("ovs-vsctl --retry --timeout=20 --no-wait init")
        self.daemon("ovs-vswitchd")
        run("ip link add eth5 type veth peer name vif0.5")
        run("ovs-vsctl --timeout=20 add-br ovsbr0 -- set bridge ovsbr0 datapath_type=netdev"
            " -- add-port ovsbr0 eth5 -- add-port ovsbr0 vif0.5")
        # As the switch's kernel module of old showed itself and its bridges.
        self.overlay("/sys/module", "openvswitch_mod")
        self.overlay("/sys/class/net", ".devices/ovsbr0/bridge")
        os.symlink(".devices/ovsbr0", NET + "ovsbr0")
        self.assertEqual(ports(document()[0], "ovsbr0"),
                         {("PhyInterface", "eth5"), ("VirtInterface", "vif0.5")})
        # As it shows itself now: by its module alone.
        os.rename("/sys/module/openvswitch_mod", "/sys/module/openvswitch")
        os.remove(NET + "ovsbr0")
        self.assertEqual(ports(document()[0], "ovsbr0"), set())
        self.ask_current_sources()
        self.assertEqual(ports(document()[0], "ovsbr0"),
                         {("PhyInterface", "eth5"), ("VirtInterface", "vif0.5")})
        run("ovs-vsctl --timeout=20 del-br ovsbr0")
        self.assertEqual(ports(document()[0], "ovsbr0"), set())

    def ask_current_sources(self):
        state = ctypes.c_int.in_dll(ctypes.CDLL(module.__file__), "global_source_state")
        state.value = 1
        self.addCleanup(setattr, state, "value", 0)

    def test_current_sources(self):
        for command in ("link add eth6 type veth peer eth7", "link set eth6 addrgenmode none up",
                        "link set eth7 addrgenmode none up", "link add eth10 type bridge"):
            run("ip " + command)
        for name in "eth6", "eth10":
            self.addCleanup(run, "ip link del " + name)
        with socket.socket(socket.AF_PACKET, socket.SOCK_RAW) as packets:
            packets.bind(("eth6", 0))
            packets.send(bytes(60))
        self.assertEqual(len(status("MemoryNetwork").find("Network")), 0)
        self.ask_current_sources()
        found = status("MemoryNetwork")
        for name in "eth6", "eth7":
            for counter in found.find("Network/Device[@Name='%s']/Statistics" % name):
                self.assertEqual(counter.text, attribute(name, "statistics/" + counter.tag))
        self.assertEqual(found.findtext("Network/Device[@Name='eth7']/Statistics/rx_packets"), "1")
        self.assertNotIn("eth10", [device.get("Name") for device in found.find("Network")])
        with open("/proc/meminfo") as lines:
            self.assertEqual(["MemTotal:", found.findtext("Memory/Meminfo/TotalKB"), "kB"],
                             next(lines).split())
        # As cards have it: hardware behind them, which no device here has.
        self.overlay("/sys/class/net", "eth6/device")
        os.makedirs(NET + "eth10/device")
        root, log = document()
        self.assertEqual({device.get("Name"): device.findtext("ETHTOOL/Autonegotiate/Speed")
                          for device in root.find("Network")}, {"eth6": "10000baseT-FD", "eth10": "Unknown"})
        self.assertNotIn("link modes", log)

    def overlay(self, mount, path):
        run("mount -t tmpfs tmpfs " + mount)
        self.addCleanup(run, "umount -l " + mount)
        os.makedirs(os.path.join(mount, path))

    def daemon(self, command):
        process = subprocess.Popen(command.split(), stderr=subprocess.DEVNULL, preexec_fn=lambda:
                                   libc.prctl(PR_SET_PDEATHSIG, signal.SIGTERM))
        self.addCleanup(process.wait)
        self.addCleanup(process.terminate)


if __name__ == "__main__":
    unittest.main()

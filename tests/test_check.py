"""zorvik-report check of recorded hosts, by the build of RECORD_HOST."""
import os
import pty
import re
import unittest

import test_report

HOSTS = os.path.join(test_report.TESTS, "hosts")
CURRENT = "--current asks "
# What is refused, and names that nobody should see as they are.
REFUSED = """=== [hypervisor]
open !EACCES
=== /dev/mem open=EACCES
=== /dev/ipmi0 open=EACCES
=== /proc/net/dev
Inter-|   Receive
 face |bytes
  eth0: 0 0
=== /sys/class/net/eth0/device/vendor
=== [interface eth0]
hwaddr 00:00:5e:00:53:01
flags 0x1003
mii !EPERM
=== /sys/module/openvswitch/
=== /usr/bin/ovs-vsctl
echo no database >&2; exit 1
=== /sys/class/fc_host/host\x1b[2J\u202e\udc9b/statistics/rx_words open=EIO
"""

# A host, whether current sources are asked, the exit status, and by its source what a line begins and
# ends with.
CHECKS = (
    ("rack-server", False, 1, {
        "hypervisor": ("works", ""), "entry point": ("works", "32 bits (_SM_)"), "Fibre Channel": ("works", ""),
        "management controller": ("works", "requests without an answer: 1"), "Open vSwitch": ("none", ""),
        "bonds": ("missing", "none of bond0; " + CURRENT + "links named lower_"), "bridges": ("works", "")}),
    ("current-server", False, 1, {
        "scheduler": ("missing", CURRENT + "credit2 and rtds"),
        "/dev/mem": ("refused", CURRENT + "/sys/firmware/dmi/tables"),
        "entry point": ("refused", "see /dev/mem; " + CURRENT + "/sys/firmware/dmi/tables"),
        "balloon driver": ("missing", CURRENT + "/sys/devices/system/xen_memory"),
        "PHY registers": ("fails", CURRENT + "registers 0 to 6 alone"),
        "link speed": ("missing", "none of eth3; " + CURRENT + "ethtool's newer record"),
        "sysfs layout": ("missing", CURRENT + "the links in /sys/class/net")}),
    ("current-server", True, 0, {
        "/dev/mem": ("refused", "told by /sys/firmware/dmi/tables"), "bonds": ("works", "told by links named lower_"),
        "kernel memory": ("works", "told by the lines of /proc/meminfo by name"), "network devices": ("works", "")}),
    ("firmware-64", False, 1, {"entry point": ("missing", CURRENT + "/sys/firmware/dmi/tables")}),
    ("no-hypervisor", False, 1, {
        "hypervisor": ("missing", "load xen-privcmd, mount xenfs"), "/dev/mem": ("works", ""),
        "processors": ("missing", "--current goes on without it"), "InfiniBand": ("none", "")}),
    ("traffic-stops", False, 1, {"bridges": ("missing", "xenbr1/brif', errno 2 (No such file or directory)")}),
    ("memory-ends", False, 1, {"/dev/mem": ("fails", "short data read - 32 bytes of 44")}),
    ("bare", True, 1, {"management controller": ("fails", "command returned invalid data")}),
    ("status-sedf", False, 1, {"scheduler": ("fails", "SEDF schedule info for domain 2, sts -1")}),
    ("net-infiniband", False, 1, {"InfiniBand": ("works", "")}),
    ("net-switch-fails", False, 1, {"bridges": ("fails", "none of xapi2"), "Open vSwitch": ("fails", "see the bridges")}),
    ("switch-current", False, 1, {"Open vSwitch": ("missing", CURRENT + "ovs-vsctl list-br")}),
    (REFUSED, True, 1, {
        "hypervisor": ("refused", "run as root"), "scheduler": ("refused", "see the hypervisor"),
        "/dev/mem": ("refused", "run as root"), "management controller": ("refused", "run as root"),
        "PHY registers": ("refused", "run with CAP_NET_ADMIN"), "bridges": ("none", ""),
        "Open vSwitch": ("fails", "list-br failed"),
        "Fibre Channel": ("fails", "/host?[2J??/statistics/rx_words', errno 5(Input/output error)")}),
)


class CheckTest(test_report.ToolTest):
    def check(self, host, *options, **streams):
        if host == REFUSED:
            host = self.write("refused", REFUSED.encode("utf-8", "surrogateescape"))
        path = os.path.join(HOSTS, host)
        return self.report("check", "--host", path, *options, timeout=60, **streams)

    def test_sources(self):
        for host, current, status, expected in CHECKS:
            with self.subTest(host, current=current):
                ended = self.check(host, *["--current"] * current)
                self.assertEqual((ended.returncode, ended.stderr), (status, ""))
                lines = [re.split("   *", line, maxsplit=2) for line in ended.stdout.splitlines()]
                found = {line[0]: (line[1], (line + [""])[2]) for line in lines}
                self.assertEqual(len(found), 18)
                for source, (state, end) in expected.items():
                    self.assertEqual(found[source][0], state, source)
                    self.assertTrue(found[source][1].endswith(end), found[source])

    def test_colour(self):
        """On a terminal alone, and not where it is not wanted."""
        for no_colour, works in ("", b"\x1b[32mworks  \x1b[m"), ("1", b"works"):
            control, terminal = pty.openpty()
            self.check("rack-server", stdout=terminal,
                       env=dict(os.environ, TERM="xterm", NO_COLOR=no_colour))
            os.close(terminal)
            self.assertTrue(os.read(control, 4096).startswith(b"hypervisor             " + works + b"\r\n"))
            os.close(control)


if __name__ == "__main__":
    unittest.main()

"""Recordings of a server with many domains, each with an interface in the bridge and a process.

    crowded_host.py DOMAINS        prints one
"""
import os
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BASE = os.path.join(ROOT, "tests", "hosts", "current-server", "host")
DOMAIN = """=== [domain {id}]
handle {id:08x}-0000-4000-8000-00000000c0de
nr_pages 262144
shared_info_frame 0x{id:x}
max_memkb 1052672
cpu_time {cpu_time}
state blocked
credit 256 0
credit2 256 0
=== /sys/class/net/vif{id}.0 -> ../../devices/vif-{id}-0/net/vif{id}.0
=== /sys/class/net/vif{id}.0/address
fe:ff:ff:ff:ff:ff
=== /sys/class/net/vif{id}.0/statistics/rx_packets
{packets}
=== /sys/class/net/vif{id}.0/statistics/rx_bytes
{bytes}
=== /sys/class/net/vif{id}.0/statistics/tx_packets
{packets}
=== /sys/class/net/vif{id}.0/statistics/tx_bytes
{bytes}
=== /sys/class/net/xenbr0/brif/vif{id}.0 -> ../../vif{id}.0/brport
=== [interface vif{id}.0]
hwaddr fe:ff:ff:ff:ff:ff
flags 0x1143
=== /proc/{pid}/stat
{pid} (device-model) S 1 {pid} 1 0 -1 4202752 314 0 2 0 57 120 0 0 20 0 1 0 1 10633216 172""" + " 0" * 28 + "\n"


def crowded_host(domains, step=0):
    """A recording whose counters grow from step to step, at a pace of their own in each domain."""
    with open(BASE, encoding="utf-8") as base:
        head, names, rest = base.read().partition(" face |bytes packets|bytes packets\n")
    ids = range(1, domains + 1)
    names += "".join("vif%d.0: 1 2\n" % domain for domain in ids)
    return head + names + rest + "".join(
        DOMAIN.format(id=domain, pid=20000 + domain, cpu_time=10**12 + step * domain * 15 * 10**7,
                      packets=10**6 + step * domain * 131, bytes=10**9 + step * domain * 130171)
        for domain in ids)


if __name__ == "__main__":
    sys.stdout.write(crowded_host(int(sys.argv[1])))

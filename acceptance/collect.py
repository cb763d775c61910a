#!/usr/bin/python3
"""Asks the module and the system's own tools of this control domain: DIR/findings.json."""
import ctypes
import glob
import json
import os
import resource
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.realpath(__file__)))
import ZorvikDiscoverExtension as module

NOBODY = 65534
CALLS = 100
STEADY_SECONDS = 40  # a report's calls end earlier where the emulated machine is slow
REPORTS = {
    "hardware": lambda: module.discover_hardware(),
    "network": lambda: module.discover_network(0),
    "unique_id": lambda: module.unique_id(),
    "status": lambda: module.status("Option: All Option: Dom_Info_Brief Option: Bridge_Config"),
}
TOOLS = {
    "xl info": "xl info",
    "xl list": "xl list",
    "xl vm-list": "xl vm-list",
    "xl list -l": "xl list -l",
    "xl sched-credit": "xl sched-credit",
    "dmidecode": "dmidecode -s system-uuid; dmidecode -q -t 1",
    "ipmitool": "ipmitool -I open raw 6 0x37",
    "ip link": "ip -json -details link",
    "ip address": "ip -json address",
    "brctl": "brctl show",
    "ovs-vsctl": "ovs-vsctl --timeout=10 list-ports switch0",
    "bond": "cat /proc/net/bonding/bond7",
    "cpuinfo": "cat /proc/cpuinfo",
    "mii-tool": "for card in card1 card2 card3 card4; do mii-tool -v $card; done",
    "ethtool": "for card in card1 card2 card3 card4; do ethtool $card; done",
    "sysfs": "cd /sys/class/net; grep -s . card?/mtu card?/speed card?/duplex card?/carrier",
    "clock": "getconf CLK_TCK",
}


def tool(command):
    """The command's output; the processes it takes are gone when it is there."""
    done = subprocess.run(command, shell=True, stdin=subprocess.DEVNULL, timeout=120, check=False,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return done.stdout.decode("utf-8", "replace")


def timed(report):
    """A report, and the seconds it took."""
    start = time.monotonic()
    answer = list(REPORTS[report]())
    return answer, time.monotonic() - start


def held():
    """Descriptors, children and resident KiB of this process."""
    with open("/proc/self/task/%d/children" % os.getpid(), encoding="ascii") as file:
        children = len(file.read().split())
    with open("/proc/self/statm", encoding="ascii") as file:
        pages = int(file.read().split()[1])
    return [len(os.listdir("/proc/self/fd")), children, pages * resource.getpagesize() // 1024]


def steady(report):
    """What the process holds before and after many calls, and how many there were."""
    for _ in range(3):
        REPORTS[report]()
    before, start, calls = held(), time.monotonic(), 0
    while calls < CALLS and time.monotonic() - start < STEADY_SECONDS:
        REPORTS[report]()
        calls += 1
    return {"before": before, "after": held(), "calls": calls}


def as_nobody():
    """The four answers that a process without rights gets."""
    code = ("import json, os, sys; sys.path.insert(0, %r); os.setgid(%d); os.setuid(%d); "
            "import ZorvikDiscoverExtension as m; print(json.dumps([m.discover_hardware(), "
            "m.discover_network(0), m.unique_id(), m.status('Option: CPU')]))")
    code %= (sys.path[0], NOBODY, NOBODY)
    done = subprocess.run([sys.executable, "-c", code], stdout=subprocess.PIPE, check=False,
                          stderr=subprocess.PIPE, timeout=120)
    return {"status": done.returncode, "answers": done.stdout.decode("utf-8", "replace")}


def process_table():
    """The lines of the processes, by their number, as the kernel tells them."""
    lines = {}
    for path in glob.glob("/proc/[0-9]*/stat"):
        try:
            with open(path, encoding="utf-8", errors="replace") as file:
                lines[path.split("/")[2]] = file.read()
        except OSError:
            pass  # it is gone
    return lines


def main():
    """Writes after each step, so that a machine that is given up leaves what it had."""
    folder, findings = sys.argv[1], {}
    sources = ctypes.c_int.in_dll(ctypes.CDLL(module.__file__), "global_source_state")

    def keep(name, value):
        findings[name] = value
        with open(folder + "/findings.json", "w", encoding="ascii") as file:
            json.dump(findings, file)
        print("collected:", name, flush=True)

    keep("tools", {name: tool(command) for name, command in TOOLS.items()})
    for name in ("DMI", "smbios_entry_point"):
        path = "/sys/firmware/dmi/tables/" + name
        if os.path.exists(path):
            with open(path, "rb") as file:
                keep(name, file.read().hex())
    for sources.value in (0, 1):
        suffix = " current" if sources.value else ""
        keep("processes" + suffix, process_table())
        for report in REPORTS:
            keep(report + suffix, timed(report))
    sources.value = 0
    keep("nobody", as_nobody())
    keep("steady", {report: steady(report) for report in REPORTS})


main()

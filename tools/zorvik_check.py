"""Tells of each source of the documents, in a line, whether it works, and what to do where it does not.

The source works, is missing, is refused to this user or by the kernel, or fails; or the machine has
no such thing (none), which is nothing to mend. Behind "no" stands what the documents lack for it.
The exit status is 0 where nothing lacks, else 1.
"""
import collections
import contextlib
import os

import zorvik_findings as find
import zorvik_progress
import zorvik_reports

COLOURS = {"works": "32", "missing": "31", "refused": "33", "fails": "31", "none": "2"}
# What the documents lack without a source, how it is tried, what to do where it is missing, and where
# it is refused although root asks, and the current source of the same facts.
Source = collections.namedtuple("Source", "name facts find missing refused current")
KERNEL_TABLE = "/sys/firmware/dmi/tables"
SOURCES = (
    Source("hypervisor", "machine, domains and their memory", find.hypervisor,
           "boot under Xen, load xen-privcmd, mount xenfs", "run in the control domain", ""),
    Source("scheduler", "domain shares", find.scheduler,
           "one of credit, credit2 or rtds", "run in the control domain", "credit2 and rtds"),
    Source("processors", "CPUInfo", find.processors, "mount proc on /proc", "", ""),
    Source("/dev/mem", "inventory and identifier of the firmware", find.memory,
           "a kernel with CONFIG_DEVMEM", "boot without lockdown, with iomem=relaxed", KERNEL_TABLE),
    Source("entry point", "inventory and identifier of the firmware", find.entry_point,
           "firmware with an SMBIOS table", "run as root", KERNEL_TABLE),
    Source("management controller", "IPMI", find.controller,
           "load ipmi_si and ipmi_devintf", "", ""),
    Source("balloon driver", "Balloon", find.element("Balloon>", "read_xenballoon_sysfs",
                                                     "status", "Option: Memory"),
           "boot under Xen, with CONFIG_XEN_BALLOON", "", "/sys/devices/system/xen_memory"),
    Source("kernel memory", "Meminfo", find.element("Meminfo>", "read_meminfo_lines",
                                                    "status", "Option: Memory"),
           "mount proc on /proc", "", "the lines of /proc/meminfo by name"),
    Source("processes", "Processes", find.without_complaint("send_ps_info", "status", "Option: Processes"),
           "mount proc on /proc", "", ""),
    Source("network devices", "Network", find.without_complaint("get_network_device_list|show_addr_info", "network"),
           "mount proc on /proc", "", ""),
    Source("PHY registers", "MII elements", find.registers,
           "another driver", "run with CAP_NET_ADMIN", "registers 0 to 6 alone"),
    Source("link speed", "link state", find.links, "another driver", "", "ethtool's newer record"),
    Source("sysfs layout", "traffic counters", find.layout,
           "mount sysfs on /sys", "", "the links in /sys/class/net"),
    Source("bonds", "slaves in the status", find.bonds, "", "", "links named lower_"),
    Source("bridges", "bridges in the status", find.bridges, "", "", ""),
    Source("Open vSwitch", "bridges and ports of the switch", find.switch,
           "install openvswitch-switch", "", "ovs-vsctl list-br"),
    Source("InfiniBand", "port attributes", find.infiniband, "", "", ""),
    Source("Fibre Channel", "port counters", find.fibre_channel, "", "", ""),
)


@contextlib.contextmanager
def quiet():
    """Drops what the hypervisor's library and the switch's tool print: the lines below say it."""
    kept, nowhere = os.dup(2), os.open(os.devnull, os.O_WRONLY)
    os.dup2(nowhere, 2)
    os.close(nowhere)
    try:
        yield
    finally:
        os.dup2(kept, 2)
        os.close(kept)


def make_view(module, current, recorded):
    """Asks reports once, however many sources are told from them."""
    told = {}

    def ask(*report):
        if report not in told:
            zorvik_reports.set_variable(module, "global_source_state", current)
            with zorvik_progress.told(report[0]), quiet():
                answer = zorvik_reports.ask(module, *report)
            told[report] = tuple(text.decode("utf-8", "surrogateescape")
                                 for text in (answer.response, answer.log))
        return told[report]
    return find.View(ask, current, recorded)


def examine(source, asked, other):
    """What became of a source, with the sources asked and with the others; and what to say of it."""
    found = source.find(asked)
    elsewhere = source.find(other) if source.current and (found.lacks or asked.current) else None
    if found.lacks:
        to_do = [found.note] * bool(found.note)
        # What is there and fails tells more than what is missing.
        better = elsewhere and (not elsewhere.lacks or (found.state, elsewhere.state) == ("missing", "fails"))
        if better and not asked.current:
            to_do += ["--current asks " + source.current]
        if not to_do:
            to_do += [getattr(source, found.state, "") or found.message]
        return found, "no %s: %s" % (source.facts, "; ".join(to_do))
    if elsewhere and elsewhere.lacks or found.state == "refused":
        return found, "told by " + source.current
    return found, found.note


def add_arguments(parser):
    """It has no arguments of its own."""


def run(module, arguments):
    asked, other = (make_view(module, current, arguments.host is not None)
                    for current in (arguments.current, not arguments.current))
    coloured = (arguments.output is None and os.isatty(1) and not os.environ.get("NO_COLOR")
                and os.environ.get("TERM", "dumb") != "dumb")
    width = max(len(source.name) for source in SOURCES)
    lines, lacks = "", False
    for source in SOURCES:
        found, text = examine(source, asked, other)
        state = found.state.ljust(7)
        if coloured:
            state = "\x1b[%sm%s\x1b[m" % (COLOURS[found.state], state)
        lines += "%s  %s  %s" % (source.name.ljust(width), state, text)
        lines = lines.rstrip() + "\n"
        lacks = lacks or found.lacks
    zorvik_reports.write_output(arguments.output, zorvik_reports.text_bytes(lines))
    return int(lacks)

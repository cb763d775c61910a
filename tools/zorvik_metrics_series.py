"""The series of the metrics, from the documents of the reports."""
import collections
import re
import xml.etree.ElementTree

import zorvik_reports

SUFFIXES = {"gauge": "", "counter": "_total", "info": "_info"}
UNITS = ("bytes", "seconds", "ratio")
PAGE, KB, MB, WORD = 4096, 1 << 10, 1 << 20, 4
NANOSECOND, MICROSECOND, PERCENT = 1e-9, 1e-6, 0.01
MEGABIT = 1000 * 1000 // 8  # in bytes

# Each metric without the suffix of its kind: its kind, its labels and its help text.
METRICS = {
    "zorvik": ("info", "identifier version", "The machine's identifier, the version of the tools."),
    "zorvik_report_success":
        ("gauge", "report", "Whether a report succeeded with a well-formed document."),
    "zorvik_report_duration_seconds": ("gauge", "report", "How long a report took."),
    "zorvik_report_log_lines":
        ("gauge", "report", "Lines of a report's log text: what could not be read."),
    "zorvik_domain_memory_bytes": ("gauge", "id handle", "Memory that a domain has."),
    "zorvik_domain_memory_max_bytes": ("gauge", "id handle", "Memory that a domain may have."),
    "zorvik_domain_cpu_seconds": ("counter", "id handle", "Processor time that a domain took."),
    "zorvik_domain_state":
        ("gauge", "id handle state", "Whether a domain is in a state; it can be in several."),
    "zorvik_domain_shutdown": ("info", "id handle reason", "Why a domain was shut down."),
    "zorvik_scheduler": ("info", "scheduler", "The hypervisor's scheduler."),
    "zorvik_domain_weight": ("gauge", "id handle", "A domain's weight with the scheduler."),
    "zorvik_domain_cap_ratio":
        ("gauge", "id handle", "Processors that a domain may take at most; 0: no limit."),
    "zorvik_domain_period_seconds": ("gauge", "id handle", "A domain's period with the scheduler."),
    "zorvik_domain_slice_seconds": ("gauge", "id handle", "A domain's time in a period, by SEDF."),
    "zorvik_domain_latency_seconds": ("gauge", "id handle", "A domain's latency, by SEDF."),
    "zorvik_domain_extratime": ("gauge", "id handle", "Whether a domain gets spare time, by SEDF."),
    "zorvik_domain_budget_seconds": ("gauge", "id handle", "A domain's time in a period, by RTDS."),
    "zorvik_hypervisor_memory_available_bytes": ("gauge", "", "Memory that is left for new domains."),
    "zorvik_hypervisor_memory_total_bytes": ("gauge", "", "Memory of the machine."),
    "zorvik_hypervisor_memory_free_bytes": ("gauge", "", "Memory that no domain has."),
    "zorvik_hypervisor_memory_scrub_bytes": ("gauge", "", "Memory that is still to be cleared."),
    "zorvik_balloon_current_bytes": ("gauge", "", "Memory that the balloon driver leaves the control domain."),
    "zorvik_balloon_requested_bytes": ("gauge", "", "Memory that the balloon driver is to leave it."),
    "zorvik_balloon_low_memory_bytes": ("gauge", "", "Low memory in the balloon."),
    "zorvik_kernel_memory_total_bytes": ("gauge", "", "Memory of the control domain's kernel."),
    "zorvik_kernel_memory_free_bytes": ("gauge", "", "Memory that the control domain's kernel has free."),
    "zorvik_processes": ("gauge", "state", "Processes of the control domain by state."),
    "zorvik_link_up": ("gauge", "device", "Whether a network device or InfiniBand port has a link."),
    "zorvik_link_speed_bytes": ("gauge", "device", "Speed of a link that is up, per second."),
    "zorvik_bond_up": ("gauge", "bond", "Whether a bond has a link."),
    "zorvik_bond_slave_up": ("gauge", "bond device", "Whether a bond's slave has a link."),
    "zorvik_bond_slave_active": ("gauge", "bond device", "Whether a bond's traffic takes this slave."),
    "zorvik_bond_slave_link_failures": ("counter", "bond device", "How often a slave lost its link."),
    "zorvik_bridge_ports": ("gauge", "bridge kind", "Ports of a bridge."),
    "zorvik_bridge_port": ("info", "bridge device kind", "Which bridge a device is a port of."),
    "zorvik_network_receive_bytes": ("counter", "device", "Bytes that a device received."),
    "zorvik_network_receive_packets": ("counter", "device", "Packets that a device received."),
    "zorvik_network_transmit_bytes": ("counter", "device", "Bytes that a device sent."),
    "zorvik_network_transmit_packets": ("counter", "device", "Packets that a device sent."),
    "zorvik_fibre_channel_receive_bytes": ("counter", "host", "Bytes that a Fibre Channel port received."),
    "zorvik_fibre_channel_transmit_bytes": ("counter", "host", "Bytes that a Fibre Channel port sent."),
    "zorvik_firmware": ("info", "vendor version release_date", "The machine's firmware."),
    "zorvik_machine": ("info", "manufacturer product serial_number", "The machine as its firmware has it."),
}

# Figures of an element: the metric, where it stands, and what it is counted in.
MEMORY = (
    ("zorvik_hypervisor_memory_available_bytes", "Memory/AvailableMB", MB),
    ("zorvik_hypervisor_memory_total_bytes", "Memory/PhysicalInfo/TotalKB", KB),
    ("zorvik_hypervisor_memory_free_bytes", "Memory/PhysicalInfo/FreeKB", KB),
    ("zorvik_hypervisor_memory_scrub_bytes", "Memory/PhysicalInfo/ScrubKB", KB),
    ("zorvik_balloon_current_bytes", "Memory/Balloon/CurrentKB", KB),
    ("zorvik_balloon_requested_bytes", "Memory/Balloon/RequestedKB", KB),
    ("zorvik_balloon_low_memory_bytes", "Memory/Balloon/LowMemKB", KB),
    ("zorvik_kernel_memory_total_bytes", "Memory/Meminfo/TotalKB", KB),
    ("zorvik_kernel_memory_free_bytes", "Memory/Meminfo/FreeKB", KB),
)
DOMAIN = (
    ("zorvik_domain_memory_bytes", "Pages", PAGE),
    ("zorvik_domain_memory_max_bytes", "MaxMemKB", KB),
    ("zorvik_domain_cpu_seconds", "CPUTime", NANOSECOND),
)
SHARE = (
    ("zorvik_domain_weight", "Weight", 1),
    ("zorvik_domain_cap_ratio", "Cap", PERCENT),
    ("zorvik_domain_slice_seconds", "Slice", NANOSECOND),
    ("zorvik_domain_latency_seconds", "Latency", NANOSECOND),
    ("zorvik_domain_extratime", "Extratime", 1),
    ("zorvik_domain_budget_seconds", "Budget", MICROSECOND),
)
TRAFFIC = (
    ("zorvik_network_receive_bytes", "Statistics/rx_bytes", 1),
    ("zorvik_network_receive_packets", "Statistics/rx_packets", 1),
    ("zorvik_network_transmit_bytes", "Statistics/tx_bytes", 1),
    ("zorvik_network_transmit_packets", "Statistics/tx_packets", 1),
)
FIBRE_CHANNEL = (
    ("zorvik_fibre_channel_receive_bytes", "Statistics/Rx_Words", WORD),
    ("zorvik_fibre_channel_transmit_bytes", "Statistics/Tx_Words", WORD),
)
DOMAIN_STATES = ("Running", "Blocked", "Paused", "Ready", "Shutdown", "Crashed", "Dying")
PROCESS_STATES = "RSDZTtI"  # those that always have a series, so that none comes and goes
LINK_STATES = {
    "ok": 1, "none": 0,  # MII and ethtool
    "1": 1, "0": 0, "up": 1, "down": 0, "lowerlayerdown": 0, "dormant": 0, "notpresent": 0,  # sysfs, bonds
    "ACTIVE": 1, "ARMED": 0, "INIT": 0, "DOWN": 0,  # InfiniBand
}
# Where a device tells of its link, and of its speed in Mb/s: the first one that does counts. The old
# ethtool record has only 16 bits of the speed, so sysfs comes first.
LINKS = ("MII/Link", "ETHTOOL/Link", "SysFS/carrier", "SysFS/operstate", "SysFSDev/state")
SPEEDS = ("SysFS/speed", "MII/Autonegotiate/Speed", "ETHTOOL/Autonegotiate/Speed")
PORT_RATE = "SysFSDev/rate"  # of InfiniBand: 2.5 Gb/sec (1X SDR)
UNKNOWN_SPEEDS = (0, 65535, 2**32 - 1)
NO_STATISTICS = 2**64 - 1  # of a Fibre Channel driver without them


class Samples:
    """Values by metric and labels: of equal labels, as two devices of one name have, the first stays."""

    def __init__(self):
        self.values = {name: {} for name in METRICS}
        self.handles = {}  # of the domains, by id

    def add(self, name, labels, value):
        if value is not None and not (METRICS[name][0] == "counter" and value < 0):
            self.values[name].setdefault(tuple(label or "" for label in labels), value)

    def add_figures(self, rows, labels, element):
        for name, path, unit in rows:
            figure = number(element.findtext(path))
            self.add(name, labels, None if figure is None else round(figure * unit, 9))

    def domain(self, element):
        """The labels of a domain."""
        domain = element.get("Id")
        return domain, self.handles.get(domain)

    def families(self):
        """What the client library makes its text from."""
        from prometheus_client.core import Metric
        for name, (kind, labels, text) in METRICS.items():
            unit = next((unit for unit in UNITS if name.endswith("_" + unit)), "")
            family = Metric(name, text, kind, unit)
            for values, value in self.values[name].items():
                family.add_sample(name + SUFFIXES[kind], dict(zip(labels.split(), values)), value)
            if family.samples:
                yield family


def number(text):
    """The number that a text is, None where it is none, or one that no counter holds."""
    found = re.fullmatch(r"\s*(?:0x([0-9a-fA-F]{1,16})|(-?[0-9]{1,20}))\s*", text or "", re.ASCII)
    return found and (int(found.group(1), 16) if found.group(1) else int(found.group(2)))


def add_identifier(samples, identifier):
    samples.add("zorvik", (identifier, zorvik_reports.version()), 1)


def add_memory(samples, document):
    samples.add_figures(MEMORY, (), document)


def add_domains(samples, document):
    for element in document.iterfind("Domains/Domain"):
        samples.handles.setdefault(element.get("Id"), element.findtext("Handle"))
        labels = samples.domain(element)
        samples.add_figures(DOMAIN, labels, element)
        state = element.find("State")
        for name in DOMAIN_STATES if state is not None else ():
            samples.add("zorvik_domain_state", (*labels, name.lower()), int(state.find(name) is not None))
        reason = element.findtext("State/Shutdown/Reason")
        samples.add("zorvik_domain_shutdown", (*labels, reason), reason and 1)


def add_scheduler(samples, document):
    for scheduler in document.iterfind("Scheduler"):
        samples.add("zorvik_scheduler", (scheduler.get("Type"),), 1)
        period = MICROSECOND if scheduler.get("Type") == "rtds" else NANOSECOND
        for element in scheduler.iterfind("Domain"):
            samples.add_figures((*SHARE, ("zorvik_domain_period_seconds", "Period", period)),
                                samples.domain(element), element)


def add_processes(samples, document):
    if document.find("Processes") is None:
        return
    counts = collections.Counter(dict.fromkeys(PROCESS_STATES, 0))
    counts.update(process.findtext("State") for process in document.iterfind("Processes/Process"))
    for state, count in counts.items():
        samples.add("zorvik_processes", (state,), count)


def add_traffic(samples, document):
    for device in document.iterfind("Network/Device"):
        samples.add_figures(TRAFFIC, (device.get("Name"),), device)


def add_fibre_channel(samples, document):
    for host in document.iterfind("SCSI/Host"):
        told = [row for row in FIBRE_CHANNEL if number(host.findtext(row[1])) != NO_STATISTICS]
        samples.add_figures(told, (host.get("Num"),), host)


def speed_of(device):
    for path in SPEEDS:
        digits = re.match("[0-9]{1,10}", device.findtext(path) or "")
        if digits and int(digits.group()) not in UNKNOWN_SPEEDS:
            return int(digits.group()) * MEGABIT
    rate = re.match(r"([0-9]{1,4}(?:\.[0-9])?) Gb/sec", device.findtext(PORT_RATE) or "")
    return rate and float(rate.group(1)) * 1000 * MEGABIT


def add_links(samples, document):
    for device in [*document.iterfind("Network/Device"), *document.iterfind("Infiniband/Device")]:
        up = next((LINK_STATES[text] for text in map(device.findtext, LINKS) if text in LINK_STATES), None)
        samples.add("zorvik_link_up", (device.get("Name"),), up)
        samples.add("zorvik_link_speed_bytes", (device.get("Name"),), speed_of(device) if up else None)


def add_bonds(samples, document):
    for bond in document.iterfind("Bonding/Device"):
        name, active = bond.get("Name"), bond.findtext("Currently_Active_Slave")
        samples.add("zorvik_bond_up", (name,), LINK_STATES.get(bond.findtext("MII_Status")))
        for slave in bond.iterfind("Slave_Interface"):
            labels = name, slave.get("Name")
            samples.add("zorvik_bond_slave_up", labels, LINK_STATES.get(slave.findtext("MII_Status")))
            samples.add("zorvik_bond_slave_link_failures", labels, number(slave.findtext("Link_Failure_Count")))
            if active is not None:
                samples.add("zorvik_bond_slave_active", labels, int(slave.get("Name") == active))


def add_bridges(samples, document):
    for bridge in document.iterfind("Bridges/Device"):
        for kind, element in ("physical", "PhyInterface"), ("virtual", "VirtInterface"):
            ports = bridge.findall("Interfaces/" + element)
            samples.add("zorvik_bridge_ports", (bridge.get("Name"), kind), len(ports))
            for port in ports:
                samples.add("zorvik_bridge_port", (bridge.get("Name"), port.text, kind), 1)


def add_network(samples, document):
    for add in add_links, add_bonds, add_bridges:
        add(samples, document)


def add_hardware(samples, document):
    for metric, element, parts in (("zorvik_firmware", "BIOS", ("Vendor", "Version", "ReleaseDate")),
                                   ("zorvik_machine", "System", ("Manufacturer", "ProductName", "SerialNumber"))):
        found = next(document.iter(element), None)
        if found is not None:
            samples.add(metric, [(found.findtext(part) or "").strip() for part in parts], 1)


# Each report as it is typed, and what makes series of its document. Sections are asked for one by one:
# a document that is not well-formed costs its own alone.
REPORTS = (
    ("unique-id", (), add_identifier),
    ("network", (0,), add_network),
    ("status Dom_Info_Brief", ("Option: Dom_Info_Brief",), add_domains),
    ("status Scheduler", ("Option: Scheduler",), add_scheduler),
    ("status Memory", ("Option: Memory",), add_memory),
    ("status Processes", ("Option: Processes",), add_processes),
    ("status Network", ("Option: Network",), add_traffic),
    ("status SCSI", ("Option: SCSI",), add_fibre_channel),
    ("hardware", (), add_hardware),
)


def readable(text):
    """A text of the host, in which a byte that is no UTF-8 is told: \\xff."""
    return text.decode("utf-8", "backslashreplace")


def parse(document):
    """The root element of a document, None where it is not well-formed for more than a foreign byte."""
    try:
        return xml.etree.ElementTree.fromstring(readable(document).encode("utf-8"))
    except (xml.etree.ElementTree.ParseError, ValueError):
        return None


def whole_siblings(response):
    """A root with the well-formed ones of the elements that stand side by side, at the left margin."""
    root = xml.etree.ElementTree.Element("Root")
    for sibling in re.finditer(rb"^<(\w+)>\n.*?^</\1>$", response, re.MULTILINE | re.DOTALL):
        element = parse(sibling.group())
        if element is not None:
            root.append(element)
    return root


def read_host(module, with_hardware):
    """Asks for the reports and gives their metrics, as families of the client library."""
    samples = Samples()
    for report, given, add in REPORTS:
        if report == "hardware" and not with_hardware:
            continue
        answer = zorvik_reports.ask(module, report.partition(" ")[0], *given)
        content = readable(answer.response) if answer.document is None else parse(answer.document)
        add(samples, whole_siblings(answer.response) if content is None else content)
        samples.add("zorvik_report_success", (report,), int(answer.status == 0 and content is not None))
        samples.add("zorvik_report_duration_seconds", (report,), answer.seconds)
        samples.add("zorvik_report_log_lines", (report,), len(answer.log.splitlines()))
    return samples.families()

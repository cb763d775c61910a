"""What a page tells of a host, as tables, from the documents of its reports."""
import collections
import re
import xml.etree.ElementTree

from zorvik_metrics_series import (DOMAIN_STATES, LINK_STATES, LINKS, MEGABIT, NO_STATISTICS, WORD, number, readable,
                                   speed_of)

# Columns are pairs of a heading and whether numbers stand below it; a row has a cell for each.
Table = collections.namedtuple("Table", "name caption columns rows")
# A text, whether it is bad news, and the part of 100 that a bar beside it shows, None for no bar.
Cell = collections.namedtuple("Cell", "text bad share", defaults=(False, None))

MIB = 1024  # in KB
PAGE_KB = 4
BAD_STATES = ("Shutdown", "Crashed", "Dying")
# Of the machine: what it is called, and where the hardware document has it.
MACHINE = (
    ("Manufacturer", ".//DMTF/System/Manufacturer"), ("Product", ".//DMTF/System/ProductName"),
    ("Serial number", ".//DMTF/System/SerialNumber"), ("Board", ".//DMTF/Module/ProductName"),
    ("Chassis", ".//DMTF/Chassis/Height"), ("Firmware", ".//DMTF/BIOS/Vendor"),
    ("Firmware version", ".//DMTF/BIOS/Version"), ("Firmware date", ".//DMTF/BIOS/ReleaseDate"),
    ("NUMA nodes", ".//VMM/PhysicalInfo/Nodes"), ("Sockets a node", ".//VMM/PhysicalInfo/SocketsPerNode"),
    ("Cores a socket", ".//VMM/PhysicalInfo/CoresPerSocket"),
    ("Threads a core", ".//VMM/PhysicalInfo/ThreadsPerCore"), ("Clock, kHz", ".//VMM/PhysicalInfo/CPUKHz"),
)
PROCESSOR = (("Model", "model_name"), ("Vendor", "vendor_id"), ("Family", "cpu_family"), ("Model number", "model"),
             ("Stepping", "stepping"), ("Microcode", "microcode"), ("Cache", "cache_size"))


def begun(text):
    """The root element of a document with what stands in it before it breaks off."""
    parser = xml.etree.ElementTree.XMLPullParser(["start"])
    parser.feed(text)
    root = None
    try:
        for _, element in parser.read_events():
            root = element if root is None else root
    except xml.etree.ElementTree.ParseError:
        pass
    return xml.etree.ElementTree.Element("Root") if root is None else root


def read(document):
    """The root element of a document. Of one that is not well-formed it has the sections that are."""
    text = readable(document or b"")
    try:
        return xml.etree.ElementTree.fromstring(text.encode())
    except (xml.etree.ElementTree.ParseError, ValueError):
        root = begun(text)
    if root.tag in ("Root", "Status"):
        whole = xml.etree.ElementTree.Element(root.tag, root.attrib)
        indent = "  " if root.tag == "Status" else ""
        for section in re.finditer(r"^(?:<Root>)?%s<(\w+)[^>\n]*>\n.*?^%s</\1>" % (indent, indent), text,
                                   re.MULTILINE | re.DOTALL):
            whole.append(begun(section.group().replace("<Root>", "", 1)))
        return whole
    return root


def natural(text):
    """A key that sorts eth2 before eth10."""
    return [int(part) if part.isdecimal() else part for part in re.split(r"([0-9]{1,18})", text or "")]


def by_name(elements, key="Name"):
    return sorted(elements, key=lambda element: natural(element.get(key)))


def told(element, path):
    return (element.findtext(path) or "").strip()


def mebibytes(kilobytes):
    return "" if kilobytes is None else "{:,} MiB".format(round(kilobytes / MIB))


def size(count):
    """A number of bytes as a person reads it."""
    for unit in "bytes", "KiB", "MiB", "GiB", "TiB":
        if count < 1024 or unit == "TiB":
            return ("%d %s" if unit == "bytes" else "%.1f %s") % (count, unit)
        count /= 1024
    return ""


def duration(nanoseconds):
    seconds = nanoseconds / 1e9
    for length, unit in (86400, "days"), (3600, "h"), (60, "min"):
        if seconds >= 2 * length:
            return "%.1f %s" % (seconds / length, unit)
    return "%.1f s" % seconds


def link_up(device):
    """Whether a device has a link, None where it does not tell."""
    return next((LINK_STATES[text] for text in (told(device, path) for path in LINKS) if text in LINK_STATES), None)


def speed(device):
    """The speed of a device's link as a text."""
    rate = speed_of(device)
    if not rate:
        return ""
    megabits = rate / MEGABIT
    return "%g Gb/s" % (megabits / 1000) if megabits >= 1000 else "%g Mb/s" % megabits


def is_down(up):
    return up is not None and not up


def link_cell(up):
    return Cell("not told" if up is None else "up" if up else "down", is_down(up))


def address(device):
    found = ["%s / %s" % (told(family, "Address"), told(family, "Netmask"))
             for family in device.iterfind("Family") if told(family, "Address")]
    return ", ".join(found)


def table(name, caption, headings, rows):
    """A table of the rows; a heading that begins with '#' stands over numbers."""
    columns = [(heading.lstrip("#"), heading.startswith("#")) for heading in headings]
    return Table(name, caption, columns,
                 [[cell if isinstance(cell, Cell) else Cell(cell or "") for cell in row] for row in rows])


def element_table(name, caption, first, attribute, elements):
    """A table with a column for each child that one of the elements has."""
    tags = list(dict.fromkeys(child.tag for element in elements for child in element))
    rows = [[element.get(attribute)] + [told(element, tag) for tag in tags] for element in by_name(elements, attribute)]
    return table(name, caption, [first] + [tag.replace("_", " ") for tag in tags], rows)


def devices(network):
    rows = [[device.get("Name"), told(device, "Vlanid"), link_cell(link_up(device)),
             speed(device) if link_up(device) else "", address(device),
             told(device, "MAC") or told(device, "Family/MAC"), told(device, "SysFS/mtu") or told(device, "Family/mtu")]
            for device in by_name([*network.iterfind("Network/Device"), *network.iterfind("Infiniband/Device")])]
    return table("devices", "Network devices", ["Device", "#VLAN", "Link", "Speed", "Address", "MAC", "#MTU"], rows)


def bonds(network):
    rows = []
    for bond in by_name(network.iterfind("Bonding/Device")):
        active = told(bond, "Currently_Active_Slave")
        for slave in by_name(bond.iterfind("Slave_Interface")):
            rows.append([bond.get("Name"), told(bond, "Bonding_Mode"), slave.get("Name"),
                         link_cell(LINK_STATES.get(told(slave, "MII_Status"))),
                         "active" if slave.get("Name") == active else "", told(slave, "Link_Failure_Count")])
    return table("bonds", "Bonds", ["Bond", "Mode", "Slave", "Link", "Traffic", "#Failures"], rows)


def bridges(network):
    rows = [[bridge.get("Name"), address(bridge)] +
            [", ".join(sorted((told(port, ".") for port in bridge.iterfind("Interfaces/" + kind)), key=natural))
             for kind in ("PhyInterface", "VirtInterface")] for bridge in by_name(network.iterfind("Bridges/Device"))]
    return table("bridges", "Bridges", ["Bridge", "Address", "Physical ports", "Virtual ports"], rows)


def traffic(status):
    rows = []
    for device in by_name(status.iterfind("Network/Device")):
        counts = [number(told(device, "Statistics/" + name))
                  for name in ("rx_bytes", "rx_packets", "tx_bytes", "tx_packets")]
        rows.append([device.get("Name")] +
                    ["" if count is None else size(count) if place % 2 == 0 else "{:,}".format(count)
                     for place, count in enumerate(counts)])
    return table("traffic", "Traffic", ["Device", "#Received", "#Packets", "#Sent", "#Packets"], rows)


def inventory(hardware):
    rows = [[element.tag, element.get("Handle", ""),
             "; ".join("%s %s" % (child.tag, told(child, ".")) for child in element if told(child, "."))]
            for element in hardware.iterfind(".//DMTF/*") if element.get("Type") is not None]
    return table("inventory", "Inventory of the firmware", ["Part", "Handle", "What it tells"], rows)


def processors(hardware):
    models = collections.defaultdict(list)
    for processor in hardware.iterfind(".//CPUInfo/Proc_Info/CPU"):
        models[tuple(told(processor, tag) for _, tag in PROCESSOR)].append(processor.get("ID", ""))
    rows = [[*model, str(len(found)), ", ".join(sorted(found, key=natural))] for model, found in models.items()]
    return table("processors", "Processors of the control domain's kernel",
                 [heading for heading, _ in PROCESSOR] + ["#Count", "Numbers"], rows)


def memory(status):
    """The table of the memory, and its parts as (kind, part of 100) for one bar."""
    total, free = (number(told(status, "Memory/PhysicalInfo/" + name)) for name in ("TotalKB", "FreeKB"))
    pages = {domain.get("Id", ""): number(told(domain, "Pages"))
             for domain in by_name(status.iterfind("Domains/Domain"), "Id")}
    parts = [("control" if domain == "0" else "domain", "Control domain" if domain == "0" else "Domain " + domain,
              count * PAGE_KB) for domain, count in pages.items() if count is not None]
    if total and free is not None:
        rest = total - free - sum(kilobytes for _, _, kilobytes in parts)
        parts[:0] = [("hypervisor", "Hypervisor, and what is not told", rest)] * (rest > 0)
        parts.append(("free", "Free", free))
    whole = max(total or 0, sum(kilobytes for _, _, kilobytes in parts), 1)
    shares = [(kind, label, kilobytes, round(100 * kilobytes / whole, 2)) for kind, label, kilobytes in parts]
    rows = [[label, mebibytes(kilobytes), Cell("%.1f %%" % share, False, share)]
            for _, label, kilobytes, share in shares]
    return (table("memory", "Memory of the machine", ["Who has it", "#Memory", "Part"], rows),
            [(kind, label, share) for kind, label, _, share in shares])


def domains(status):
    rows = []
    for domain in by_name(status.iterfind("Domains/Domain"), "Id"):
        states = [name for name in DOMAIN_STATES if domain.find("State/" + name) is not None]
        reason = told(domain, "State/Shutdown/Reason")
        pages, spent = number(told(domain, "Pages")), number(told(domain, "CPUTime"))
        text = ", ".join(states).lower() + (" (%s)" % reason if reason else "")
        rows.append([domain.get("Id"), told(domain, "Handle"), Cell(text, any(name in BAD_STATES for name in states)),
                     mebibytes(None if pages is None else pages * PAGE_KB), mebibytes(number(told(domain, "MaxMemKB"))),
                     "" if spent is None else duration(spent)])
    return table("domains", "Domains", ["#Domain", "Handle", "State", "#Memory", "#At most", "#Processor time"], rows)


def shares(status):
    scheduler = status.find("Scheduler")
    found = [] if scheduler is None else list(scheduler.iterfind("Domain"))
    name = "" if scheduler is None else scheduler.get("Type", "")
    made = element_table("shares", ("Shares of the scheduler " + name).strip(), "Domain", "Id", found)
    weights = {domain.get("Id"): number(told(domain, "Weight")) for domain in found}
    total = sum(weight or 0 for weight in weights.values())
    if total:
        made.columns.append(("Part of the weights", False))
        for row in made.rows:
            part = 100 * (weights[row[0].text] or 0) / total if row[0].text in weights else 0
            row.append(Cell("%.1f %%" % part, False, round(part, 2)))
    return made._replace(columns=[(heading, place < len(made.columns) - bool(total))
                                  for place, (heading, _) in enumerate(made.columns)])


def fibre_channel(status):
    rows = []
    for host in by_name(status.iterfind("SCSI/Host"), "Num"):
        counts = [number(told(host, "Statistics/" + name)) for name in ("Rx_Words", "Tx_Words")]
        rows.append([host.get("Num")] + ["not told" if count in (None, NO_STATISTICS) else size(count * WORD)
                                         for count in counts])
    return table("fibre", "Fibre Channel ports", ["#Host", "#Received", "#Sent"], rows)


def controller(hardware):
    return element_table("controller", "LAN channels of the management controller", "Channel", "Number",
                         hardware.findall(".//IPMI/Channel"))


def processes(status):
    counts = collections.Counter(told(process, "State") for process in status.iterfind("Processes/Process"))
    return ", ".join("%d in state %s" % (count, state) for state, count in sorted(counts.items()))


def facts(identifier, hardware, network, status):
    """What the template tells: its names and their values."""
    memory_table, parts = memory(status)
    machine = [(heading, told(hardware, path)) for heading, path in MACHINE]
    machine += [("Identifier", identifier), ("Management controller", told(hardware, ".//IPMI/GUID")),
                ("Left for new domains, MiB", told(status, "Memory/AvailableMB")), ("Processes", processes(status))]
    machine = [(heading, text) for heading, text in machine if text]
    return {
        "title": told(hardware, ".//DMTF/System/ProductName") or "Server", "identifier": identifier,
        "time": status.get("LocalTime", ""), "machine": machine, "parts": parts,
        "network": [devices(network), bonds(network), bridges(network), traffic(status)],
        "sections": [("Processors", [processors(hardware)]), ("Domains", [domains(status), shares(status)]),
                     ("Fibre Channel", [fibre_channel(status)]), ("Management controller", [controller(hardware)]),
                     ("Inventory", [inventory(hardware)])],
        "memory": memory_table,
    }

#!/usr/bin/python3
"""Compares the reports that acceptance/collect.py brought back with what the system's tools said.

Prints a line for each fact that differs, then how many were compared and how many differ.
"""
import base64
import json
import re
import sys
from ipaddress import IPv4Network
from xml.etree import ElementTree

FINDINGS = {}
TOOLS = {}
TALLY = {"compared": 0, "differ": 0}
SUBJECTS = {}
CARDS = ("card1", "card2", "card3", "card4")
GROWTH_KIB = 512  # of memory that many calls may take: an allocator's, not a leak's
STATES = {"r": "Running", "b": "Blocked", "p": "Paused", "s": "Shutdown", "c": "Crashed",
          "d": "Dying"}


def same(subject, what, ours, theirs):
    """One fact: of the module, and of the system's tool."""
    TALLY["compared"] += 1
    SUBJECTS[subject] = SUBJECTS.get(subject, 0) + 1
    if ours != theirs:
        TALLY["differ"] += 1
        print(f"differs: {subject}: {what}: module {ours!r}, tool {theirs!r}")


def near(subject, what, ours, theirs, allowed):
    """A figure that moves on between the two questions: what differs by more than that."""
    if ours is not None and theirs is not None and abs(ours - theirs) <= allowed:
        ours = theirs
    same(subject, what, ours, theirs)


def document(report, current=False):
    """The document of a report, below one root element."""
    answer, _ = FINDINGS[report + (" current" if current else "")]
    body = answer[1] or ""
    if body.startswith("Status:"):
        body = body.partition("\n")[2]
    body = re.sub(r"^<\?xml[^>]*\?>", "", body)
    try:
        return ElementTree.fromstring(f"<root>{body}</root>")
    except ElementTree.ParseError as error:
        same("reports", f"{report}, current {current}, is well-formed", str(error), "")
        return ElementTree.fromstring("<root/>")


def field(tool, name):
    """The text behind "NAME   :" in what a tool said."""
    found = re.search(rf"^\s*{re.escape(name)}\s*:\s*(.*?)\s*$", TOOLS[tool], re.M)
    return found and found[1]


def number(text):
    """A number, or None where there is none."""
    return int(text, 0) if text and re.fullmatch(r"-?\d+|0x[0-9a-f]+", text) else None


def rows(tool):
    """The words of each line below the headings, but for lines of warnings."""
    return [line.split() for line in TOOLS[tool].splitlines() if re.match(r"\S+\s+\d+\s", line)]


def hypervisor(current):
    """Topology, clock rate, pages, capabilities and processors."""
    info = document("hardware", current).find(".//VMM/PhysicalInfo")
    if info is None:
        same("xl info", "there is an answer", None, "")
        return
    for ours, theirs in (("ThreadsPerCore", "threads_per_core"), ("Nodes", "nr_nodes"),
                         ("CoresPerSocket", "cores_per_socket")):
        same("xl info", ours, info.findtext(ours), field("xl info", theirs))
    processors = 1
    for part in ("ThreadsPerCore", "CoresPerSocket", "SocketsPerNode", "Nodes"):
        processors *= int(info.findtext(part))
    same("xl info", "processors", str(processors), field("xl info", "nr_cpus"))
    same("xl info", "CPUKHz", int(info.findtext("CPUKHz")),
         round(float(field("xl info", "cpu_mhz")) * 1000))
    same("xl info", "total MiB", str(int(info.findtext("TotalPages")) // 256),
         field("xl info", "total_memory"))
    near("xl info", "free MiB", int(info.findtext("FreePages")) // 256,
         number(field("xl info", "free_memory")), 1)
    capabilities = [f"{int(item.text, 16):08x}" for item in info.find("HW_Caps")]
    same("xl info", "HW_Caps", ":".join(capabilities), field("xl info", "hw_caps"))


def processors(current):
    """The processors of the control domain, field by field, as the kernel lists them."""
    listed = document("hardware", current).findall(".//Proc_Info/CPU")
    blocks = [block for block in TOOLS["cpuinfo"].split("\n\n") if block.strip()]
    same("/proc/cpuinfo", "processors", len(listed), len(blocks))
    for cpu, block in zip(listed, blocks):
        lines = dict(re.findall(r"^(.*?)\s*:[ \t]*(.*?)[ \t]*$", block, re.M))
        for element in cpu:
            name = element.tag.replace("_", " ")
            theirs = lines.get(name, lines.get(element.tag))
            same("/proc/cpuinfo", element.tag, element.text, theirs)


def firmware(current):
    """The raw table, its figures and the identifier."""
    found = document("hardware", current).find(".//DMTF/DMI")
    table = bytes.fromhex(FINDINGS.get("DMI", ""))
    ours = b"" if found is None else base64.b64decode("".join(found.findtext("Buffer").split()))
    same("SMBIOS", "table", ours.hex(), table.hex())
    same("SMBIOS", "length", None if found is None else number(found.findtext("TableLength")),
         len(table))
    identifier = FINDINGS["unique_id" + (" current" if current else "")][0][1] or ""
    uuid = [line for line in TOOLS["dmidecode"].splitlines()
            if re.fullmatch(r"[0-9a-f-]{36}", line)]
    # dmidecode shows the first three fields as the firmware's byte order has them
    same("SMBIOS", "identifier", identifier.replace(":", ""), "".join(uuid).replace("-", ""))


def domains(current):
    """Identity, memory, time, state and scheduling of every domain."""
    status = document("status", current)
    listed = {domain.get("Id"): domain for domain in status.findall(".//Domains/Domain")}
    theirs = {row[-5]: row for row in rows("xl list")}
    same("xl list", "domains", sorted(listed), sorted(theirs))
    handles = {row[1]: row[0] for row in rows("xl vm-list")}
    if not handles:
        handles = {row.split()[1]: row.split()[0] for row in TOOLS["xl vm-list"].splitlines()[1:]}
    for key in set(listed) & set(theirs):
        domain, row = listed[key], theirs[key]
        same("xl list", f"{key} MiB", str(int(domain.findtext("Pages")) // 256), row[-4])
        near("xl list", f"{key} seconds", int(domain.findtext("CPUTime")) / 1e9, float(row[-1]), 60)
        states = sorted(STATES[letter] for letter in row[-2] if letter in STATES) or ["Ready"]
        same("xl list", f"{key} state", sorted(state.tag for state in domain.find("State")), states)
        if key in handles:
            same("xl list", f"{key} handle", domain.findtext("Handle"), handles[key])
    scheduled = {domain.get("Id"): [domain.findtext("Weight"), domain.findtext("Cap")]
                 for domain in status.findall(".//Scheduler/Domain")}
    same("xl sched-credit", "weights and caps", scheduled,
         {row[1]: row[2:4] for row in rows("xl sched-credit")})
    memory = status.find(".//Memory/PhysicalInfo")
    same("xl info", "total KiB as MiB", memory is not None and
         str(int(memory.findtext("TotalKB")) // 1024), field("xl info", "total_memory"))


def controller(current):
    """The GUID, by the raw answer of the management controller."""
    raw = re.findall(r"\b[0-9a-f]{2}\b", TOOLS["ipmitool"])
    theirs = ":".join(reversed(raw)) if len(raw) == 16 else None
    same("ipmitool", "GUID", document("hardware", current).findtext(".//IPMI/GUID"), theirs)


def flags(link):
    """The flags that ip names, of those that the document names."""
    return sorted(set(link["flags"]) - {"LOWER_UP", "NO-CARRIER", "M-DOWN", "UP", "RUNNING"})


def network(current):
    """Devices with address, flags and attributes; bonds, bridges and their ports."""
    root = document("network", current)
    links = {link["ifname"]: link for link in json.loads(TOOLS["ip link"])}
    addresses = {link["ifname"]: link for link in json.loads(TOOLS["ip address"])}
    devices = {device.get("Name"): device for device in root.findall("Network/Device")}
    same("ip", "cards", [name for name in devices if name in CARDS], list(CARDS))
    same("ip", "VLAN", "card3.5" in devices, "card3.5" in links)
    for name in set(devices) & set(links):
        device, link = devices[name], links[name]
        same("ip", f"{name} MAC", device.findtext("MAC"), link["address"])
        words = (device.findtext("Flags") or "").replace("IFF_", "").split()[1:]
        same("ip", f"{name} flags", sorted(set(words) - {"UP", "RUNNING"}), flags(link))
        same("ip", f"{name} up", "UP" in words, "UP" in link["flags"])
    for line in TOOLS["sysfs"].splitlines():
        path, _, value = line.partition(":")
        name, attribute = path.split("/")
        same("sysfs", path, devices[name].findtext("SysFS/" + attribute), value)
    for name, text in zip(CARDS, re.split(r"(?=^card\d:)", TOOLS["mii-tool"], flags=re.M)[1:]):
        link = devices[name].find("MII")
        if link is not None:
            same("mii-tool", f"{name} link", link.findtext("Link") == "ok", "link ok" in text)
            revision = re.search(r"product info: .*rev (\d+)", text)
            same("mii-tool", f"{name} revision", link.findtext("Product/Revision"),
                 revision and revision[1])
            maker = re.search(r"vendor ([0-9a-f: or]+), model (\d+)", text)
            if maker:  # else mii-tool has a name for both
                same("mii-tool", f"{name} vendor", link.findtext("Product/Vendor") in
                     maker[1].split(" or "), True)
                same("mii-tool", f"{name} model", link.findtext("Product/Model"), maker[2])
    for name, text in zip(CARDS, re.split(r"(?=^Settings for )", TOOLS["ethtool"], flags=re.M)[1:]):
        link = devices[name].find("ETHTOOL")
        if link is not None:
            same("ethtool", f"{name} link", link.findtext("Link") == "ok",
                 "Link detected: yes" in text)
    bond = root.find("Bonding/Device[@Name='bond7']")
    same("bonding", "slaves", bond is not None and
         sorted(slave.get("Name") for slave in bond.findall("Slave_Interface")),
         sorted(re.findall(r"^Slave Interface: (\S+)", TOOLS["bond"], re.M)))
    active = re.search(r"^Currently Active Slave: (\S+)", TOOLS["bond"], re.M)
    same("bonding", "active slave", bond is not None and
         bond.findtext("Currently_Active_Slave"), active and active[1])
    bridges = {bridge.get("Name"): bridge for bridge in root.findall("Bridges/Device")}
    ports = sorted(re.findall(r"\s(\S+)$", TOOLS["brctl"].partition("\n")[2], re.M))
    bridge = bridges.get("br0")
    if bridge is None:
        same("brctl", "br0 is there", False, True)
    else:
        same("brctl", "ports", sorted(port.text for port in bridge.find("Interfaces")), ports)
        info = [one for one in addresses["br0"]["addr_info"] if one["family"] == "inet"][0]
        family = bridge.find("Family")
        same("ip", "br0 address", [family.findtext("Address"), family.findtext("Netmask"),
                                   family.findtext("Broadcast")],
             [info["local"], str(IPv4Network((0, info["prefixlen"])).netmask), info["broadcast"]])
    if current:
        switch = bridges.get("switch0")
        same("ovs-vsctl", "ports", switch is not None and
             sorted(port.text for port in switch.find("Interfaces")), TOOLS["ovs-vsctl"].split())


def processes(current):
    """Every process that there was before and after, by the kernel's line."""
    listed = {process.get("PID"): process for process in
              document("status", current).findall(".//Processes/Process")}
    lines = FINDINGS["processes" + (" current" if current else "")]
    common = set(listed) & set(lines)
    same("/proc", "there are processes", len(common) > 20, True)
    for key in common:
        process = listed[key]
        words = re.sub(r"\(.*\)", lambda name: name[0].replace(" ", "_"), lines[key]).split()
        if re.search(r"\(.* .*\)", lines[key]):
            continue  # a blank in the name shifts the fields behind it, as the README says
        ours = [process.findtext(name) for name in
                ("Command", "ParentPID", "ProcessGroup", "Session", "TTY", "StartTime")]
        theirs = words[1:2] + words[3:7] + words[21:22]
        for names in (ours, theirs):  # a worker of the kernel is named after what it does just now
            names[0] = re.sub(r"^(\(kworker/[^-+]*)[-+].*", r"\1)", names[0] or "")
        same("/proc", f"process {key}", ours, theirs)
    same("/proc", "clock", document("status", current).findtext(".//CPUTime/Rate"),
         TOOLS["clock"].strip())


def conduct():
    """What four functions do to the process that calls them, and without any right."""
    nobody = FINDINGS["nobody"]
    same("nobody", "answers", [nobody["status"], len(json.loads(nobody["answers"] or "[]"))],
         [0, 4])
    for report, held in FINDINGS["steady"].items():
        before, after = held["before"], held["after"]
        print(f"{report}: {held['calls']} calls, memory {after[2] - before[2]:+d} KiB")
        same("calls", f"{report}: descriptors and children", after[:2], before[:2])
        same("calls", f"{report}: memory grew", after[2] - before[2] > GROWTH_KIB, False)


def main():
    """Each subject by itself: one that did not come back does not hide the others."""
    with open(sys.argv[1] + "/findings.json", encoding="ascii") as file:
        FINDINGS.update(json.load(file))
    TOOLS.update(FINDINGS["tools"])
    checks = [(check, (current,)) for current in (False, True) for check in
              (hypervisor, processors, firmware, domains, controller, network, processes)]
    for check, arguments in checks + [(conduct, ())]:
        try:
            check(*arguments)
        except (KeyError, IndexError, AttributeError, TypeError, ValueError) as error:
            same(check.__name__, f"with current sources {arguments}", repr(error), None)
    for subject, count in SUBJECTS.items():
        print(f"{count:5d}  {subject}")
    print(f"{TALLY['compared']} compared, {TALLY['differ']} differ")
    return 1 if TALLY["differ"] or not TALLY["compared"] else 0


sys.exit(main())

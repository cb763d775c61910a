"""How each source of the documents is tried: in the documents and their logs, and where these do not
tell, in what stands in the file system.
"""
import collections
import errno
import fcntl
import os
import re
import socket
import struct

MISSING = (errno.ENOENT, errno.ENODEV, errno.ENXIO, errno.ENOTDIR)
REFUSED = (errno.EACCES, errno.EPERM)
NET_CLASS = "/sys/class/net"
LONGEST_MESSAGE = 150
SIOCGMIIPHY, SIOCGMIIREG = 0x8947, 0x8948
NEEDED_REGISTERS, REGISTERS = 7, 16  # those of IEEE 802.3, and all that classic sources ask for

# What is asked, of which sources: ask(name, ...) gives a report's document and log as texts.
View = collections.namedtuple("View", "ask current recorded")
# What became of a source. Where the documents have its facts all the same, nothing lacks. What to do
# is in the note, else in the source's row, else it is left to the message of the log.
Finding = collections.namedtuple("Finding", "state note lacks message")


def plain(text):
    """A text of the host's as one that a terminal takes for nothing else."""
    return "".join(sign if sign.isprintable() else "?" for sign in text)


def good(note="", state="works"):
    return Finding(state, note, False, "")


def lacking(state, note="", message=""):
    return Finding(state, note, True, message)


WORKS, NONE = good(), good(state="none")


def raw(text):
    """The bytes of a text from a document, which may be no UTF-8."""
    return text.encode("utf-8", "surrogateescape")


def exists(path):
    """As the module asks, and so of a recorded host too."""
    return os.access(raw(path), os.F_OK, effective_ids=True)


def failing(error, view, message=""):
    """What an errno value says of a source."""
    if error not in REFUSED:
        return lacking("missing" if error in MISSING else "fails", "", message)
    as_root = error == errno.EPERM if view.recorded else os.geteuid() == 0
    return lacking("refused", "" if as_root else "run as root", message)


def complaint(log, functions, view):
    """What the first message of one of the functions says, None where there is none."""
    message = re.search(r"[?%%] (?:\d+ )?((?:%s): [^\n]*)" % functions, log)
    if not message:
        return None
    text = plain(message.group(1).split("? ")[0])
    if len(text) > LONGEST_MESSAGE:
        text = text[:LONGEST_MESSAGE] + "..."
    error = re.search(r"errno (\d+)", text)
    return failing(int(error.group(1)) if error else 0, view, "the log has: " + text)


def without_complaint(functions, *report):
    """A finder for a source that works where none of the functions complains of it."""
    return lambda view: complaint(view.ask(*report)[1], functions, view) or WORKS


def element(name, functions, *report):
    """A finder for a source that a document's element comes from."""
    def find(view):
        document, log = view.ask(*report)
        return WORKS if "<" + name in document else complaint(log, functions, view) or lacking("missing")
    return find


def list_folder(path, links=False):
    """The names in a folder, or the links' alone; none where it cannot be read."""
    try:
        return [entry.name.decode("utf-8", "surrogateescape") for entry in os.scandir(raw(path))
                if entry.is_symlink() or not links]
    except OSError:
        return []


def devices(document, element):
    """The device elements within an element, by their names."""
    inner = re.search("<%s>\n(.*?)\n *</%s>" % (element, element), document, re.DOTALL)
    found = re.findall('<Device Name="([^"\n]*)">(.*?)</Device>', inner.group(1) if inner else "", re.DOTALL)
    return dict(found)


def is_cut(view):
    """Whether the hardware document ends with the hypervisor's part."""
    return "</Discover_Hardware_Result>" not in view.ask("hardware")[0]


def hypervisor(view):
    log = view.ask("status", "Option: Memory")[1]
    failed = complaint(log, "send_memory_info", view)
    if failed and failed.state == "refused" and "sts -1," in log:  # it was opened, and then refused to tell
        return failed._replace(note="run as root in the control domain")
    if failed:
        return failed
    if "<Domain " not in view.ask("status", "Option: Dom_Info_Brief")[0]:
        return lacking("fails", "it lists no domain: run in the control domain")
    return WORKS


def scheduler(view):
    document, log = view.ask("status", "Option: Scheduler")
    if hypervisor(view).lacks:
        return lacking(hypervisor(view).state, "see the hypervisor")
    if 'Type="unknown"' in document:
        return lacking("missing")
    return complaint(log, "send_scheduler", view) or WORKS


def memory(view):
    """The device alone: what stands in it is the entry point's line."""
    log = view.ask("unique-id")[1]
    found = complaint(log, "read_devmem|get_smbios_structures(?=: (?:error|unable|mmap))", view)
    if found and view.current and not complaint(log, "read_kernel_table", view):
        return found._replace(lacks=False)
    return found or WORKS


def read_at(path, offset, size):
    """Bytes of a file, fewer where it cannot be read further."""
    read = b""
    try:
        file = os.open(raw(path), os.O_RDONLY)
    except OSError:
        return read
    try:
        os.lseek(file, offset, os.SEEK_SET)
        while len(read) < size:
            part = os.read(file, min(4096, size - len(read)))
            if not part:
                break
            read += part
    except OSError:
        pass
    finally:
        os.close(file)
    return read


def entry_point(view):
    kinds = {b"_SM_": "32 bits (_SM_)", b"_DMI": "32 bits (_DMI_)", b"_SM3": "64 bits (_SM3_)"}
    area = read_at("/dev/mem", 0xF0000, 0x10000)
    anchors = [area[at:at + 4] for at in range(0, len(area), 16) if area[at:at + 4] in kinds]
    kind = next((anchor for anchor in anchors if anchor != b"_SM3"), None)
    if kind is None and view.current:
        kind = read_at("/sys/firmware/dmi/tables/smbios_entry_point", 0, 4)
    device = memory(view)
    log = view.ask("unique-id")[1]
    if kind in kinds:
        failed = "read_kernel_table" if view.current else "get_smbios_structures(?=: [SD])"
        return complaint(log, failed + "|iter_dmi_elements", view) or good(kinds[kind])
    if device.lacks:
        return lacking(device.state, "see /dev/mem")
    if anchors:
        return lacking("missing", "firmware with %s alone" % kinds[anchors[0]])
    return complaint(log, "read_kernel_table", view) or lacking("missing")


def processors(view):
    document, log = view.ask("hardware")
    if "<CPU ID=" in document:
        return complaint(log, "show_proc_cpuinfo(?=: /)", view) or WORKS
    if is_cut(view):
        return lacking("missing", "see the hypervisor; --current goes on without it")
    return complaint(log, "show_proc_cpuinfo", view) or lacking("missing")


def controller(view):
    document, log = view.ask("hardware")
    if re.search("<IPMI>\n *<[GC]", document):
        silent = log.count("% ipmicmd: no data ready")
        return good("requests without an answer: %d" % silent if silent else "")
    if "<IPMI>" in document:
        return complaint(log, "ipmicmd|get_system_guid", view) or lacking("fails", "it tells nothing")
    if is_cut(view):
        return lacking("missing", "see the hypervisor; --current goes on without it")
    try:
        os.close(os.open("/dev/ipmi0", os.O_RDWR))
    except OSError as error:
        # The firmware's tables tell of a controller to the kernel, with or without its driver.
        known = any(exists(sign) for sign in (
            "/sys/firmware/dmi/entries/38-0", "/sys/bus/acpi/devices/IPI0001:00", "/sys/class/ipmi"))
        return NONE if error.errno in MISSING and not known else failing(
            error.errno, view, "cannot open /dev/ipmi0: " + error.strerror)
    return lacking("fails", "the document has nothing of it")


def ask_register(asked, name, number):
    """What a PHY's register holds; raises OSError."""
    request = struct.pack("16s4H16x", raw(name)[:15], 0, 0, 0, 0)
    phy = struct.unpack_from("H", fcntl.ioctl(asked, SIOCGMIIPHY, request), 16)[0]
    request = struct.pack("16s4H16x", raw(name)[:15], phy, number, 0, 0)
    return struct.unpack_from("4H", fcntl.ioctl(asked, SIOCGMIIREG, request), 16)[3]


def registers(view):
    found = devices(view.ask("network")[0], "Network")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as asked:
        for name in (name for name, element in found.items() if "<MII>" not in element):
            for number in range(REGISTERS):
                try:
                    if ask_register(asked, name, number) == 0xFFFF and number == 0:
                        break  # no PHY
                except OSError as error:
                    if number >= NEEDED_REGISTERS and not view.current or error.errno in REFUSED:
                        return failing(error.errno, view, "register %d of %s: %s" % (
                            number, plain(name), error.strerror))
                    break
    return WORKS if any("<MII>" in element for element in found.values()) else NONE


def links(view):
    document, log = view.ask("network")
    silent = re.findall("config_show_network: unable to read device '([^'\n]*)' info", log)
    cards = [plain(name) for name in silent if exists("%s/%s/device/vendor" % (NET_CLASS, name))]
    if cards:
        return lacking("missing", "the driver tells none of " + ", ".join(cards))
    return WORKS if devices(document, "Network") else NONE


def layout(view):
    if not exists(NET_CLASS):
        return lacking("missing", "mount sysfs on /sys")
    document, log = view.ask("status", "Option: Network")
    counted = any(exists("%s/%s/statistics" % (NET_CLASS, name)) for name in list_folder(NET_CLASS)
                  if not re.match("vif0|veth|sit", name)
                  and not exists("%s/%s/bridge" % (NET_CLASS, name)))
    if counted and not devices(document, "Network"):
        return lacking("missing", "/sys/class/net has links, no directories")
    found = complaint(log, "network_status|show_dev_stats", view)
    return found._replace(state="fails") if found and found.state == "missing" else found or WORKS


def bonds(view):
    slaves = {}
    for name in list_folder(NET_CLASS):
        if exists("%s/%s/bonding" % (NET_CLASS, name)):
            slaves[name] = read_at("%s/%s/bonding/slaves" % (NET_CLASS, name), 0, 4096).strip()
    if not slaves:
        return NONE
    document, log = view.ask("status", "Option: Bridge_Config")
    known = devices(document, "Bonding")
    untold = [name for name in slaves if slaves[name] and re.match(r"bond\d+\Z", name) and name not in known]
    return (complaint(view.ask("network")[1], "bonding_discover|show_bond_status", view)
            or complaint(log, "bond_config", view)
            or (lacking("missing", "none of " + ", ".join(untold)) if untold else WORKS))


def bridges(view):
    names = [name for name in list_folder(NET_CLASS, links=True) if exists("%s/%s/bridge" % (NET_CLASS, name))]
    if not names:
        return NONE
    document, log = view.ask("status", "Option: Bridge_Config")
    told = devices(document, "Bridges")
    untold = [plain(name) for name in names if name not in told]
    return (complaint(log, "bridge_config|show_bridge_ifs", view)
            or (lacking("fails", "none of " + ", ".join(untold)) if untold else WORKS))


def switch(view):
    modules = [name for name in ("openvswitch_mod", "openvswitch") if exists("/sys/module/" + name)]
    if not modules:
        return NONE
    if modules == ["openvswitch"] and not view.current:
        return lacking("missing", "the kernel's module has its new name")
    if not exists("/usr/bin/ovs-vsctl"):
        return lacking("missing")
    found = complaint(view.ask("status", "Option: Bridge_Config")[1], "show_opensw_ifs", view)
    if found and not view.recorded and os.geteuid():
        return lacking("refused", "run as root")
    # A bridge of the kernel's that cannot be told ends the list before the switch is asked.
    kernel = bridges(view)
    return found or (lacking(kernel.state, "see the bridges") if kernel.lacks else WORKS)


def infiniband(view):
    document, log = view.ask("network")
    if not devices(document, "Infiniband"):
        return NONE
    return complaint(log, "infiniband_config", view) or WORKS


def fibre_channel(view):
    if not list_folder("/sys/class/fc_host"):
        return NONE
    return complaint(view.ask("status", "Option: SCSI")[1], "scsi_status", view) or WORKS

"""The inventory of recorded hosts against Debian's dmidecode, which reads the same bytes.

Runs under Python 3 with the simulated host preloaded: /dev/mem is the recorded one.
"""
import base64
import os
import re
import struct
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree as ElementTree

import test_module
import ZorvikDiscoverExtension as module

KEYWORDS = {
    "BIOS": {"Vendor": "bios-vendor", "Version": "bios-version", "ReleaseDate": "bios-release-date"},
    "System": {"UUID": "system-uuid", "Manufacturer": "system-manufacturer",
               "ProductName": "system-product-name", "Version": "system-version",
               "SerialNumber": "system-serial-number"},
    "Module": {"Manufacturer": "baseboard-manufacturer", "ProductName": "baseboard-product-name",
               "Version": "baseboard-version", "SerialNumber": "baseboard-serial-number",
               "AssetTag": "baseboard-asset-tag"},
    "Chassis": {"Manufacturer": "chassis-manufacturer", "Version": "chassis-version",
                "SerialNumber": "chassis-serial-number", "AssetTag": "chassis-asset-tag"},
}
ABSENT = {"Not Specified", "Not Present", "Not Settable", "<BAD INDEX>", ""}


def read_memory(offset, length):
    with open("/dev/mem", "rb") as memory:
        memory.seek(offset)
        return memory.read(length)


def firmware_dump():
    """The entry point and the table behind it, as dmidecode wants them in a file."""
    area = read_memory(0xF0000, 0x10020)
    at = next(at for at in range(0, 0x10000, 16) if area[at:at + 4] in (b"_SM_", b"_DMI"))
    entry = bytearray(area[at:at + 32])
    dmi = 16 if entry.startswith(b"_SM_") else 0
    length, address = struct.unpack_from("<HI", entry, dmi + 6)
    struct.pack_into("<I", entry, dmi + 8, len(entry))
    entry[dmi + 5] = 0
    entry[dmi + 5] = -sum(entry[dmi:dmi + 15]) & 0xFF
    return bytes(entry), read_memory(address, length)


def dmidecode(path, *options):
    environment = dict(os.environ, LD_PRELOAD="")
    return subprocess.check_output(("/usr/sbin/dmidecode", "--from-dump", path) + options,
                                   env=environment).decode()


class InventoryTest(unittest.TestCase):
    def check(self, host):
        test_module.load(host)
        inventory = ElementTree.fromstring(module.discover_hardware()[1]).find(".//DMTF")
        entry, table = firmware_dump()
        self.assertEqual(base64.b64decode(inventory.findtext("DMI/Buffer")), table)
        with tempfile.NamedTemporaryFile() as dump:
            dump.write(entry + table)
            dump.flush()
            listing = dmidecode(dump.name)
            for element, keywords in KEYWORDS.items():
                for child, keyword in keywords.items():
                    told = dmidecode(dump.name, "-s", keyword).splitlines()
                    ours = [found.findtext(child, "") for found in inventory.findall(element)]
                    if child == "UUID":
                        ours = [uuid.replace(":", "") for uuid in ours]
                        told = [uuid.replace("-", "") for uuid in told]
                    told = ["" if text in ABSENT else text for text in told]
                    self.assertEqual(ours, told or [""] * len(ours), (element, child))
        items = int(inventory.findtext("DMI/Items"))
        self.assertIn("%d structures occupying %d bytes" % (items, len(table)), listing)
        smbios = inventory.find("SMBIOS")
        version = inventory.find("DMI").get("Version") if smbios is None else smbios.get("Version").rsplit(".", 1)[0]
        self.assertIn(" %s present" % version, listing)
        for element, decoded in (("BIOS", "(?:BIOS|Platform Firmware) Information"),
                                 ("Module", "Base Board Information"), ("Chassis", "Chassis Information")):
            self.assertEqual(len(inventory.findall(element)), len(re.findall(decoded, listing)), element)
        for child, told in (("Cores", "Core Count"), ("Threads", "Thread Count"),
                            ("CoresEnabled", "Core Enabled")):
            self.assertEqual([found.text for found in inventory.iter(child)],
                             re.findall(told + r": (\d+)", listing), child)

    def test_entry_points(self):
        for host in ("rack-server", "old-server"):
            self.check(host)


if __name__ == "__main__":
    unittest.main()

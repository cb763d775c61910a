"""A recording of a recorded host: the module tells the same of both.

Runs under Python 3 with the simulated host preloaded; RECORD_HOST names the recorder.
"""
import base64
import ctypes
import os
import re
import subprocess
import tempfile
import unittest

import test_module
import ZorvikDiscoverExtension as module

# Whose late replies are recorded as none, and not as what classic sources take them for.
LATE = {"damaged-table", "late-reply"}

# A host of a scheduler that the hypervisor's library has no call for any more cannot be recorded.
HOSTS = set(os.listdir(test_module.HOSTS)) - {"status-sedf"}
CALLS = (module.discover_hardware, lambda: module.discover_network(0), module.unique_id,
         lambda: module.status("Option: All"), lambda: module.status("Option: Dom_Info_Brief"),
         lambda: module.status("Option: Bridge_Config"))

SHARED = {"00:00:00:00:00:00", "127.0.0.1", " " * 8}  # what identifies no host

# A name with a parenthesis and a blank in it, and no address left.
MASKED_STAT = ("(b) h) S 1322 1410 1410 34816 1577 4202496 1891 23012 0 3 6 11 45 102 20 0 1 0 803112 "
               "67706880 391 18446744073709551615 0 0 0 0 0 0 65536 3686404 1266761467 0 0 0 17 2 "
               "0 0 0 0 0 0 0 0 0 0 0 0 0\n")


def documents(path):
    """What is told with classic sources, and behind it with current ones."""
    test_module.simhost.simhost_load(path.encode())
    sources = ctypes.c_int.in_dll(ctypes.CDLL(module.__file__), "global_source_state")
    told = [call()[:2] for sources.value in (0, 1) for call in CALLS]
    return [(status, re.sub('LocalTime=".*?"|<StatusDelta.*', "", text or "")) for status, text in told]


class RecordHostTest(unittest.TestCase):
    def record(self, host, *options):
        """The documents of a host and of a recording of it, and the recording."""
        original = os.path.join(test_module.HOSTS, host, "host")
        with tempfile.NamedTemporaryFile("r", errors="surrogateescape") as copy:
            subprocess.run((os.environ["RECORD_HOST"], "-o", copy.name) + options, check=True,
                           env=dict(os.environ, SIMHOST=original), stderr=subprocess.DEVNULL)
            return documents(original), documents(copy.name), copy.read()

    def test_round_trip(self):
        for host in sorted(HOSTS):
            with self.subTest(host):
                original, copy, _ = self.record(host)
                begin = len(CALLS) if host in LATE else 0
                self.assertEqual(copy[begin:], original[begin:])

    def test_masks(self):
        original, masked, recording = self.record("rack-server", "--mask")
        table = base64.b64decode(re.search("<Buffer[^>]*>([^<]*)<", masked[0][1]).group(1))
        told = str(masked).lower() + recording.lower() + table.decode("latin-1").lower()
        secret = re.compile("<(?:SerialNumber|AssetTag|UUID|GUID|MAC|Address|IP_Address)>(.*?)<")
        for before, after in zip(original, masked):
            secrets = secret.findall(before[1])
            self.assertEqual(len(secret.findall(after[1])), len(secrets))
            for text in set(secrets) - SHARED:
                self.assertNotIn(text.lower(), told)
        equal = [[macs.index(mac) for mac in macs] for macs in
                 (re.findall("<MAC>(.*?)<", told[1][1].upper()) for told in (original, masked))]
        self.assertEqual(*equal)

    def test_masks_of_names_and_processes(self):
        for host, mac in ("rack-server", "00:00:5e:00:53:10"), ("net-switch", "00:00:5e:00:53:02"):
            name = "enx" + mac.replace(":", "")
            with self.subTest(host), tempfile.TemporaryDirectory() as folder:
                with open(os.path.join(test_module.HOSTS, host, "host")) as recorded:
                    text = recorded.read().replace("eth0", name).replace("(bash)", "(b) h)")
                with open(os.path.join(folder, "host"), "w") as renamed:
                    renamed.write(text)
                original, masked, recording = self.record(folder, "--mask")
                self.assertFalse(name[3:] in recording.replace(":", ""))
                stand_in, mac = re.search('"(enxda.*?)"(?s:.*?)<MAC>(.*?)<', masked[1][1]).groups()
                self.assertEqual(stand_in, "enx" + mac.lower().replace(":", ""))
                for call in range(len(CALLS)):
                    self.assertEqual(masked[call][1].count(stand_in), original[call][1].count(name))
                aliases = [re.findall("/ifalias\n(?!===)(.*)", told) for told in (text, recording)]
                self.assertEqual(aliases[1], ["X" * len(alias) for alias in aliases[0]])
                if host == "rack-server":
                    self.assertIn(MASKED_STAT, recording)

    def test_kernel_table(self):
        """What stands behind its end is masked; how its files fail is recorded."""
        with open(os.path.join(test_module.HOSTS, "firmware-64", "host")) as recorded:
            text = recorded.read()
        tables = "/sys/firmware/dmi/tables/"
        for changed, expected in (
                (text.replace("7f 04 ff fe 00 00", '7f 04 ff fe 00 00 "secret"'),
                 "7f 04 ff fe 00 00 58 58 58 58 58 58\n"),
                (text.replace(tables + "DMI hex", tables + "DMI read=EIO\n=== /x hex"),
                 tables + "DMI read=EIO\n"),
                (text.replace(tables + "smbios_entry_point hex",
                              tables + "smbios_entry_point open=EACCES\n=== /x hex"),
                 tables + "smbios_entry_point open=EACCES\n")):
            with tempfile.TemporaryDirectory() as folder, self.subTest(expected):
                with open(os.path.join(folder, "host"), "w") as host:
                    host.write(changed)
                _, _, recording = self.record(folder, "--mask")
                self.assertIn(expected, re.sub(r"\n(?=\w\w )", " ", recording))

    def test_switch(self):
        """A name that the switch lists is no shell's command and no heading of the recording."""
        names = "a$(exit)", "=== /proc/meminfo", "--help"
        with open(os.path.join(test_module.HOSTS, "switch-current", "host")) as recorded:
            text = recorded.read().replace("--help", "\\n".join(names))
        with tempfile.TemporaryDirectory() as folder:
            with open(os.path.join(folder, "host"), "w") as host:
                host.write(text)
            original, copy, recording = self.record(folder)
        self.assertEqual(copy, original)
        for name in names:
            self.assertIn("\n'list-ports %s')" % name, recording)
        self.assertNotIn("\n" + names[1], recording)

    def test_options(self):
        for options, status, stream, words in (
                (("-h",), 0, "stdout", "Usage: "), (("-x",), 2, "stderr", "Usage: "),
                (("-o", "/dev/full"), 1, "stderr", "/dev/full: No space left on device\n"),
                (("-o", "/no/file"), 1, "stderr", "/no/file: No such file or directory\n")):
            ended = subprocess.run((os.environ["RECORD_HOST"],) + options, capture_output=True,
                                   text=True)
            self.assertEqual(ended.returncode, status, options)
            self.assertIn(words, getattr(ended, stream), options)


if __name__ == "__main__":
    unittest.main()

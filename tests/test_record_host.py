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
    def record(self, host, *options, changes=()):
        """Records a host with some texts replaced: the documents of both, and their texts."""
        path = os.path.join(test_module.HOSTS, host, "host")
        with open(path, errors="surrogateescape") as recorded:
            text = recorded.read()
        for changed in changes:
            text = text.replace(*changed)
        with (tempfile.NamedTemporaryFile("w", errors="surrogateescape") as original,
              tempfile.NamedTemporaryFile("r", errors="surrogateescape") as copy):
            original.write(text)
            original.flush()
            subprocess.run((os.environ["RECORD_HOST"], "-o", copy.name) + options, check=True,
                           env=dict(os.environ, SIMHOST=original.name), stderr=subprocess.DEVNULL)
            return documents(original.name), documents(copy.name), text, copy.read()

    def test_round_trip(self):
        for host in sorted(HOSTS):
            with self.subTest(host):
                original, copy, _, _ = self.record(host)
                begin = len(CALLS) if host in LATE else 0
                self.assertEqual(copy[begin:], original[begin:])

    def test_masks(self):
        original, masked, _, recording = self.record("rack-server", "--mask")
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
            with self.subTest(host):
                original, masked, text, recording = self.record(
                    host, "--mask", changes=(("eth0", name), ("(bash)", "(b) h)")))
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
        for text, added, expected in (
                ("7f 04 ff fe 00 00", ' "secret"', " 58 58 58 58 58 58\n"),
                ("tables/DMI", " read=EIO\n=== /x", " read=EIO\n"),
                ("tables/smbios_entry_point", " open=EACCES\n=== /x", " open=EACCES\n")):
            with self.subTest(text):
                changes = [(text, text + added)]
                *_, recording = self.record("firmware-64", "--mask", changes=changes)
                self.assertIn(text + expected, re.sub(r"\n(?=\w\w )", " ", recording))

    def test_switch(self):
        """A name that the switch lists is no shell's command and no heading of the recording."""
        names = "a$(exit)", "=== /proc/meminfo", "--help"
        changes = [("--help", "\\n".join(names))]
        original, copy, _, recording = self.record("switch-current", changes=changes)
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

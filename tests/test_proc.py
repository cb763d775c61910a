"""The process report against this machine's own /proc, with the module of either Python."""
import os
import re
import unittest

import ZorvikDiscoverExtension as module

# Element and field number of what stays as it is, or only grows, while a process lives.
FIXED = {"ProcessGroup": 5, "Session": 6, "TTY": 7, "ExitSignal": 38, "StartTime": 22,
         "StartCode": 26, "EndCode": 27, "StartStack": 28, "RLim": 25}
GROWING = {"Minor": 10, "ChildMinor": 11, "Major": 12, "ChildMajor": 13, "UserTime": 14,
           "SystemTime": 15, "ChildUserTime": 16, "ChildSystemTime": 17}


def stat_lines():
    lines = {}
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open("/proc/%s/stat" % pid, "rb") as stat:
                lines[pid] = stat.read().decode("latin-1").split()
        except EnvironmentError:
            pass
    return lines


def reported_processes(text):
    """PID to element to value, of a text whose values are not worth a strict parser."""
    parts = re.split(r'<Process PID="(\d+)">', text)
    return {pid: dict(re.findall(r"<(\w+)>([^<]*)</", body))
            for pid, body in zip(parts[1::2], parts[2::2])}


class ProcTest(unittest.TestCase):
    def test_living_processes(self):
        before = stat_lines()
        status, response, log = module.status("Option: Processes")
        after = stat_lines()
        self.assertEqual(status, 0)
        reported = reported_processes(response)
        self.assertIn(str(os.getpid()), reported)
        for pid in set(before) & set(after):
            self.assertIn(pid, reported)
            first, values, last = before[pid], reported[pid], after[pid]
            if not first[1].endswith(")") or first[1] != last[1]:
                continue  # a blank in its name shifts the fields, or it has become another program
            for element, number in FIXED.items():
                if first[number - 1] == last[number - 1]:
                    self.assertEqual(int(values[element], 0), int(first[number - 1]), (pid, element))
            for element, number in GROWING.items():
                value = int(values[element].rstrip("."))
                self.assertTrue(int(first[number - 1]) <= value <= int(last[number - 1]),
                                (pid, element, value))


if __name__ == "__main__":
    unittest.main()

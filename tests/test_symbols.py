"""What the built module files use of the interpreter, and what they show to it.

    test_symbols.py python2 ZorvikDiscoverExtension.so
"""
import subprocess
import sys
import unittest

ENTRY = {"python2": "initZorvikDiscoverExtension", "python3": "PyInit_ZorvikDiscoverExtension"}
PYTHON2_USES = {"Py_InitModule4_64", "PyArg_ParseTuple", "Py_BuildValue"}
EXPORTS = {
    "the_connection", "global_debug_state", "global_source_state", "OrigIpString", "OrigMaskString",
    "get_network_device_list", "free_eth_device", "print_network", "network_status",
    "config_show_network", "bonding_discover", "bond_config", "bridge_config", "infiniband_config",
    "read_meminfo", "read_hypervisor_meminfo", "read_xenballoon_instantaneous",
}


def symbols(*options):
    lines = subprocess.check_output(("nm", "-D") + options + (MODULE,)).decode().splitlines()
    return {line.split()[-1].split("@")[0] for line in lines}


class SymbolsTest(unittest.TestCase):
    def test_interpreter(self):
        used = {name for name in symbols("--undefined-only") if name.lstrip("_").startswith("Py")}
        if PYTHON == "python2":
            self.assertLessEqual(used, PYTHON2_USES)
        self.assertFalse([name for name in used if name.startswith("_Py")])

    def test_exports(self):
        self.assertEqual(symbols("--defined-only"), EXPORTS | {ENTRY[PYTHON]})


if __name__ == "__main__":
    MODULE, PYTHON = sys.argv.pop(), sys.argv.pop()
    unittest.main()

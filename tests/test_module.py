"""The built module under a real interpreter: the tuple, its texts, and every recorded document.

Runs under Python 2.7 and 3 with the simulated host preloaded:
    LD_PRELOAD=libsimhost.so PYTHONPATH=build/python3 python3 tests/test_module.py
"""
import ctypes
import gc
import os
import unittest
import weakref

from recorded import HOSTS, document, expected, recorded_calls, root_of, told_to_be_broken
import ZorvikDiscoverExtension as module

simhost = ctypes.CDLL(None)


def load(host):
    assert simhost.simhost_load(os.path.join(HOSTS, host, "host").encode()) == 0


def call(host, function, arguments):
    """Calls a function of the module with the arguments of a line of "calls"."""
    load(host)
    library = ctypes.CDLL(module.__file__)
    sources, _, function = function.rpartition(":")
    ctypes.c_int.in_dll(library, "global_source_state").value = sources == "current"
    if function == "discover_network":
        words = arguments.split(" ")
        for name, value in zip(("OrigIpString", "OrigMaskString"), words[1:]):
            (ctypes.c_char * 64).in_dll(library, name).value = value.encode()
        return module.discover_network(int(words[0]))
    return module.status(arguments) if function == "status" else getattr(module, function)()


class Garbage(object):
    """What only the collector frees, once it refers to itself."""


class ModuleTest(unittest.TestCase):
    maxDiff = None

    def tearDown(self):
        ctypes.c_int.in_dll(ctypes.CDLL(module.__file__), "global_source_state").value = 0
        simhost.simhost_unload()

    def test_recorded_documents(self):
        broken = set()
        for host, label, status, function, arguments in recorded_calls():
            result = call(host, function, arguments)
            self.assertEqual(result, (status, expected(host, label, "out"), expected(host, label, "log")),
                             (host, label))
            text = document(function, result[1])
            if text and root_of(text) is None:
                broken.add((host, label))
        self.assertEqual(broken, told_to_be_broken())

    def test_arguments(self):
        load("cards")
        alone = module.unique_id()
        self.assertEqual(module.unique_id(1, "two"), alone)
        self.assertIs(type(alone[0]), int)

    def test_call_within_a_call(self):
        """Building the answer may collect garbage, whose finalizer asks this module again."""
        load("cards")
        outer, inner = module.unique_id(), module.status("nonsense")
        nested, rounds = [], 50
        used_up = [(None,) * 3 for _ in range(5000)]  # a new tuple must be allocated
        self.addCleanup(gc.set_threshold, *gc.get_threshold())
        for _ in range(rounds):
            gc.disable()
            garbage = Garbage()
            watch = weakref.ref(garbage, lambda _: nested.append(module.status("nonsense")))
            garbage.itself = garbage
            del garbage
            gc.set_threshold(1)
            gc.enable()
            answer = module.unique_id()
            gc.collect()
            self.assertEqual(answer, outer)
            used_up.append(answer)
            del watch
        self.assertEqual(nested, [inner] * rounds)

    def test_sources(self):
        """A call asks what the variable says as it begins, also one within a call."""
        load("firmware-64")
        state = ctypes.c_int.in_dll(ctypes.CDLL(module.__file__), "global_source_state")
        answers = []
        for state.value in (0, 1, 0, 2, -1):
            answers.append(module.unique_id()[0])
        self.assertEqual(answers, [1, 0, 1, 0, 1])

    def test_exported_data(self):
        library = ctypes.CDLL(module.__file__)
        for name in ("global_debug_state", "global_source_state"):
            self.assertEqual(ctypes.c_int.in_dll(library, name).value, 0)
        record = (ctypes.c_void_p * 2).in_dll(library, "the_connection")
        for name in ("OrigIpString", "OrigMaskString"):
            self.assertEqual((ctypes.c_char * 64).in_dll(library, name).raw, b"\0" * 64)
        load("cards")
        module.unique_id()
        self.assertEqual(list(record), [None, None])


if __name__ == "__main__":
    unittest.main()

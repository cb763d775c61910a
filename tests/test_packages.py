"""The packages of the build in BUILD: what is in them, and that it works where they are unpacked."""
import glob
import os
import re
import subprocess
import sys
import tempfile
import unittest

TESTS = os.path.dirname(os.path.abspath(__file__))
sys.path.append(os.path.join(os.path.dirname(TESTS), "packaging"))
import installed

BUILD = os.environ["BUILD"]
HOST = os.path.join(TESTS, "hosts", "rack-server")
USE = """import ZorvikDiscoverExtension as module
status, response, log = module.%s
number: int = status
text: str = response or log or ""
"""
# What is typed, in order, and what completes it.
COMPLETIONS = (
    (["zorvik-report", "n"], ["network"]),
    (["zorvik-report", "status", "S"], ["Scheduler", "SCSI"]),
    (["zorvik-report", "--format", "j"], ["json"]),
    (["zorvik-report", "--debug", ""], ["0", "1", "2", "3", "4"]),
    (["record-host", "--"], ["--mask"]),
)


def output(*command, **environment):
    """Of a command that fails, all that it says is the message."""
    ended = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                           env=dict(os.environ, **environment))
    if ended.returncode:
        raise AssertionError("%s\n%s" % (" ".join(command), ended.stdout))
    return ended.stdout


def pack(folder):
    output("cpack", "--config", os.path.join(BUILD, "CPackConfig.cmake"), "-B", os.path.join(folder, "work"),
           "-D", "CPACK_OUTPUT_FILE_PREFIX=" + folder)
    return sorted(glob.glob(os.path.join(folder, "*.deb")))


class PackagesTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        os.umask(0o022)  # folders in a package have the permissions of those that were packed
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        cls.packages = pack(os.path.join(cls.folder.name, "packages"))
        cls.root = os.path.join(cls.folder.name, "root")
        for package in cls.packages:
            output("dpkg-deb", "-x", package, cls.root)
        cls.tool = os.path.join(cls.root, "usr/bin/zorvik-report")
        cls.modules = os.path.join(cls.root, "usr/lib/python3/dist-packages")

    def test_lintian(self):
        told = output("lintian", "--fail-on", "none", *self.packages)
        # The agent that the Python 2 file is for looks there; a release that does not know the tag yet
        # takes no override of it.
        self.assertEqual(re.findall("^E: (?!.* package-installs-deprecated-python2-path ).*", told, re.MULTILINE), [])

    def test_dependencies(self):
        for package in self.packages:
            depends = output("dpkg-deb", "-f", package, "Depends")
            self.assertRegex(depends, r"(^|, )libxen\S+(,|$)", "a security build is not everywhere")

    def test_reproducible(self):
        for first, second in zip(self.packages, pack(os.path.join(self.folder.name, "again"))):
            output("cmp", first, second)

    def test_version(self):
        version = output("/usr/bin/python3", "-c", "import importlib.metadata as metadata;"
                         "print(metadata.version('ZorvikDiscoverExtension'))", PYTHONPATH=self.modules)
        self.assertEqual(output(self.tool, "--version"), "zorvik-report " + version)
        for package in self.packages:
            self.assertEqual(output("dpkg-deb", "-f", package, "Version").partition("+")[0] + "\n", version)

    def test_documents(self):
        python2 = os.path.isdir(os.path.join(BUILD, "python2"))
        for options in [[]] + [["--python2"]] * python2:
            self.assertEqual(list(installed.complaints(HOST, self.tool, *options)), [])

    def test_metrics(self):
        self.assertIn("zorvik_domain_memory_bytes{", output(self.tool, "metrics", "--host", HOST))

    def test_page(self):
        self.assertIn("<svg", output(self.tool, "page", "--host", HOST))

    def test_manual(self):
        pages = glob.glob(os.path.join(self.root, "usr/share/man/man*/*"))
        self.assertEqual(len(pages), 3)
        for page in pages:
            text = output("sh", "-c", "man --warnings -l %s 2>&1 >/dev/null" % page, LC_ALL="C.UTF-8", MANROFFSEQ="")
            self.assertEqual(text, "")
        told = output("man", "-l", os.path.join(self.root, "usr/share/man/man1/zorvik-report.1.gz"), LC_ALL="C.UTF-8")
        self.assertRegex(told, r"-o(?: FILE)?, --output FILE\n")  # Python 3.13 names the file once

    def test_stub(self):
        found = {"PYTHONPATH": self.modules, "MYPY_CACHE_DIR": os.path.join(self.folder.name, "cache")}
        mypy = ["/usr/bin/python3", "-m", "mypy", "--strict", "-c"]
        for call in "discover_hardware()", "discover_network(2)", "status('')", "unique_id()":
            output(*mypy, USE % call, **found)
        for call in "discover_network('x')", "status()":
            self.assertRaisesRegex(AssertionError, "call-arg|arg-type", output, *mypy, USE % call, **found)
        output("/usr/bin/python3", "-m", "mypy.stubtest", "ZorvikDiscoverExtension", **found)

    def test_completion(self):
        path = "%s:%s" % (os.path.join(self.root, "usr/bin"), os.environ["PATH"])
        for words, completed in COMPLETIONS:
            script = os.path.join(self.root, "usr/share/bash-completion/completions", words[0])
            text = output("bash", "-c", '. "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1));'
                          ' _zorvik_discover "$1"; echo "${COMPREPLY[@]}"', script, *words, PATH=path)
            self.assertEqual(text.split(), completed)


if __name__ == "__main__":
    unittest.main()

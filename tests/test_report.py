"""tools/zorvik-report as a person calls it, copied to where it finds the build of RECORD_HOST."""
import json
import os
import pty
import re
import shutil
import signal
import subprocess
import tempfile
import unittest

TESTS = os.path.dirname(os.path.abspath(__file__))
BUILD = os.path.dirname(os.environ["RECORD_HOST"])
os.environ.pop("LD_PRELOAD", None)  # the tool is to preload the simulated host itself
RACK, CUT = (["--host", os.path.join(TESTS, "hosts", host)] for host in ("rack-server", "no-hypervisor"))
INCOMPLETE = "the document is not complete"

# Arguments, exit status, what is on standard output and on standard error, and what is on neither.
CALLS = (
    (RACK + ["status", "Option: Memory"], 0, "<Memory>", "", "<CPUTime>"),
    (["status", "memory", "cpu"] + RACK, 0, "<CPUTime>\n    <Rate>100</Rate>", "", "<Scheduler"),
    (["status", "nonsense"] + RACK, 22, "options are: All CPU Memory", "", INCOMPLETE),
    (["status", "CPU; Memory"] + RACK, 22, "Unknown command 'CPU; Memory'", "", INCOMPLETE),
    (["status", "CPU", "Option: Memory"] + RACK, 0, "<CPUTime>", "", "<Scheduler"),
    (["status", "option:", "CPU", "memory"] + RACK, 0, "<Memory>", "", "<Scheduler"),
    (["status", "\u00e9t\u00e9"] + RACK, 22, "Unknown command '\u00e9t\u00e9'", "", "Traceback"),
    (["network", "3"] + RACK, 0, '   <Network>\n     <Device Name="bond0.20"', "", INCOMPLETE),
    (["hardware"] + CUT, 0, "<Discover_Hardware_Result>", INCOMPLETE, "Traceback"),
    (["unique-id", "--debug", "9"], 2, "", "--debug: invalid choice", "Traceback"),
    (["--debug", "1", "status", "x"] + RACK, 22, "% agent_status: Unknown", "", "Traceback"),
    (["unique-id", "--host", __file__], 2, "", "is no recorded host", "Traceback"),
    (["hardware", "--debug", "1", "-o", "/dev/full"] + RACK, 1, "agent_discover_hardware:\n",
     "zorvik-report: cannot write /dev/full: No space left on device\n", "<?xml"),
    (["unique-id", "--host", ""], 2, "", "an empty file name", "Traceback"),
    (["--version"], 0, "zorvik-report 7.0.1\n", "", "Traceback"),
)


class ToolTest(unittest.TestCase):
    """What the tests of the tool share: the copy of it, in a folder of its own."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="a blank:")
        self.addCleanup(folder.cleanup)
        os.symlink(BUILD, os.path.join(folder.name, "build"))
        self.folder = shutil.copytree(os.path.join(os.path.dirname(TESTS), "tools"),
                                      os.path.join(folder.name, "tools"))
        self.write("../CMakeLists.txt", "project(Some VERSION 7.0.1 LANGUAGES CXX)\n")
        self.tool = self.folder + "/zorvik-report"

    def write(self, name, text):
        """Writes a file beside the tool. Returns its path."""
        path = os.path.join(self.folder, name)
        with open(path, "wb") as stream:
            stream.write(text if isinstance(text, bytes) else text.encode())
        return path

    def report(self, *arguments, **options):
        """Runs the tool; its texts are captured unless the options of run() say otherwise."""
        return subprocess.run([self.tool, *arguments],
                              **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True, **options})


class ReportTest(ToolTest):
    pythons = [[]] + [["--python2"]] * os.path.isdir(os.path.join(BUILD, "python2"))

    def test_calls(self):
        for python in self.pythons:
            for arguments, status, output, error, nowhere in CALLS:
                with self.subTest(python + arguments):
                    ended = self.report(*python, *arguments)
                    self.assertEqual(ended.returncode, status, ended.stderr)
                    self.assertIn(output, ended.stdout)
                    self.assertIn(error, ended.stderr)
                    self.assertNotIn(nowhere, ended.stdout + ended.stderr)

    def test_sections(self):
        """Those that the module has are told by the help text and by the README, in its order."""
        rejection, told = self.report("status", "nonsense", *RACK), self.report("--help")
        with open(os.path.join(os.path.dirname(TESTS), "README.md"), encoding="utf-8") as readme:
            tables = readme.read()
        names = rejection.stdout.split("options are: ")[1].split()
        self.assertEqual(re.findall("^  ([A-Z]\\w+)  ", told.stdout, re.MULTILINE), names)
        self.assertEqual(re.findall("^[|] `([A-Z]\\w+)` [|]", tables, re.MULTILINE), names)

    def test_streams(self):
        """What cannot be written is told in one line; FILE does not take a closed stream's place."""
        no = "zorvik-report: cannot write "
        for python in self.pythons:
            for words, error in (("--help >/dev/full", no + "standard output: No space left on device\n"),
                                 ("unique-id >&-", no + "standard output: Bad file descriptor\n"),
                                 ("unique-id --debug 4 -o out >&-",
                                  no + "the debug lines to standard output\n")):
                with self.subTest(python + [words]):
                    ended = subprocess.run(["sh", "-c", '"$@" ' + words, "sh", self.tool] + CUT + python,
                                           text=True, capture_output=True, cwd=self.folder)
                    self.assertEqual(ended.stderr, error)

    def test_json(self):
        for arguments, status, document in (
                (RACK + ["unique-id"], 0, "0f:1c:2b:3a:4d:5e:6f:70:81:92:02:16:3e:5a:01:ff"),
                (RACK + ["status", "CPU; Memory"], 22, None), (CUT + ["hardware"], 0, None)):
            ended = self.report("--format", "json", *arguments)
            told = json.loads(ended.stdout)
            self.assertEqual((ended.returncode, told["status"], told["document"]), (status, status, document))
            self.assertEqual(ended.stderr, "")
        self.assertIn(INCOMPLETE, told["log"][-1])

    @unittest.skipUnless(shutil.which("ansible", path="/usr/bin"), "no ansible on this machine")
    def test_ansible_fact(self):
        with tempfile.TemporaryDirectory() as folder:  # no blank in its name
            shutil.copy(os.path.join(os.path.dirname(TESTS), "share", "zorvik", "zorvik.fact"), folder)
            os.symlink(self.tool, folder + "/tool")
            ended = subprocess.run(
                ["/usr/bin/ansible", "localhost", "-c", "local", "-m", "setup", "-a",
                 "filter=ansible_local fact_path=" + folder], text=True, capture_output=True,
                env=dict(os.environ, HOME=folder, ZORVIK_REPORT=" ".join([folder + "/tool"] + RACK)))
        self.assertEqual(ended.returncode, 0, ended.stdout + ended.stderr)
        facts = json.loads(ended.stdout.partition("=>")[2])["ansible_facts"]["ansible_local"]["zorvik"]
        self.assertEqual(facts["status"]["document"]["CPUTime"]["Rate"], 100)
        self.assertEqual(facts["unique_id"]["status"], 0)

    def test_without_module(self):
        build = os.path.join(os.path.dirname(self.folder), "build")
        os.remove(build)
        module = os.path.join(build, "python3", "ZorvikDiscoverExtension.abi3.so")
        for error in "install python3-zorvik-discover,", "cannot be loaded: %s: file too short" % module:
            ended = self.report("unique-id", env={})
            self.assertEqual(ended.returncode, 2)
            self.assertIn(error, ended.stderr)
            os.makedirs(os.path.dirname(module), exist_ok=True)
            open(module, "w").close()

    def slow_host(self, script):
        """A recorded host whose Open vSwitch tool is the script, and a file beside it."""
        with open(os.path.join(TESTS, "hosts", "net-switch", "host"), encoding="utf-8") as recording:
            slow = recording.read() + "=== /usr/bin/ovs-vsctl\n" + script
        return self.write("slow", slow), self.write("kept", "the last")

    def test_progress(self):
        """On a terminal a line tells what a report waits for; it ends with the tool, whatever ends that."""
        host, kept = self.slow_host("exec 2>&-; [ $2 = xapi0 ] || exit 0; sleep 1.4; echo eth7\n")
        waiting = rb"(\r\x1b\[Kzorvik-report: network: waiting for Open vSwitch \(\d s\))+"
        for end, status, shown in (None, 0, waiting + rb"\r\x1b\[K"), (signal.SIGKILL, -9, waiting):
            with self.subTest(end):
                control, terminal = pty.openpty()
                with subprocess.Popen([self.tool, "network", "--host", host, "-o", kept], stdout=terminal,
                                      stderr=terminal, env=dict(os.environ, TERM="xterm")) as tool:
                    os.close(terminal)
                    output = b""
                    while b"1 s)" not in output:
                        output += os.read(control, 4096)
                    if end:
                        tool.send_signal(end)
                    self.assertEqual(tool.wait(timeout=5), status)
                    with self.assertRaises(OSError):  # once nobody has the terminal open
                        while True:
                            output += os.read(control, 4096)
                os.close(control)
                self.assertRegex(output, rb"\A" + shown + rb"\Z")
        ended = self.report("network", "--host", host, env=dict(os.environ, TERM="xterm"))
        self.assertEqual(ended.stderr, "")
        with open(kept, encoding="utf-8") as stream:
            self.assertEqual(stream.read(), ended.stdout)
        self.assertIn("<PhyInterface>eth7</PhyInterface>", ended.stdout)

    def test_interrupt(self):
        """Ctrl-C ends the tool at once and in silence, also while the module waits."""
        host, kept = self.slow_host("echo called >&2; exec 2>&-; sleep 6\n")
        for python in self.pythons:
            with self.subTest(python), subprocess.Popen(
                    [self.tool, "network", "--host", host, "-o", kept] + python,
                    stderr=subprocess.PIPE) as tool:
                self.assertEqual(tool.stderr.readline(), b"called\n")
                tool.send_signal(signal.SIGINT)
                self.assertEqual(tool.wait(timeout=5), -signal.SIGINT)
                self.assertNotIn(b"zorvik", tool.stderr.read())
        with open(kept, encoding="utf-8") as stream:
            self.assertEqual(stream.read(), "the last")


if __name__ == "__main__":
    unittest.main()

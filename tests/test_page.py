"""The page: what is on it, whoever named the devices, and what a browser makes of it."""
import html.parser
import os
import shutil
import subprocess
import tempfile
import unittest

import test_report

HOSTS = os.path.join(test_report.TESTS, "hosts")
TABLES = ("devices", "bonds", "bridges", "memory", "processors", "domains", "shares", "fibre", "controller",
          "inventory")
# Names that want to be more than text, in the page or in the picture, and a byte that is no UTF-8.
NAMES = rb"&lt;b&quot;\N &amp;amp; \l];{x|[i e\xff'\ ".replace(rb"\xff", b"\xff").split()
HOSTILE = b"=== /proc/net/dev\nInter-|\n face |\n" + b"".join(b"%s: 0 0\n" % name for name in NAMES) + b"".join(
    b"=== /sys/class/net/%s -> ../../devices/pci0/net/%s\n=== /sys/class/net/%s/device -> ../../../pci0\n"
    b"=== /sys/class/net/%s/carrier\n0\n=== [interface %s]\nhwaddr 00:00:5e:00:53:01\nflags 0x1003\n"
    % ((name,) * 5) for name in NAMES)
# A recorded host, and what its page has.
FACTS = (
    ("rack-server", ("eth0 up, 1 Gb/s", "bond0 up, active-backup", "xenbr0 bridge", "Domain 7",
                     "Northwind & Sons Firmware", "Control domain 2,048 MiB", "blocked, paused 1,024 MiB",
                     "3 418.7 GiB 10.0 GiB", "3 512 150 50.0 %", "10.200.0.21")),
    ("no-hypervisor", ("hardware is not complete", "unable to get hypervisor handle")),
    ("current-server", ("network is not complete", "eth1 down", "eth0 up, 100 Gb/s", "xenbr0 bridge", "bond0 up")),
    ("status-cut", ("status is not complete", "Left for new domains, MiB 0 Processes 1 in state S")),
    ("net-infiniband", ("ib1 down", "ib0 up, 40 Gb/s")),
    ("memory-ends", ("to the domains eth0 From the left",)),  # a single one, joined to nothing
    (HOSTILE, (r"""&amp; down <b"\N down \l];{x|[i down e\xff'\ down""",)),
)


class Reader(html.parser.HTMLParser):
    """Tells of every tag that is not closed in turn, of every attribute, and of all the text."""

    def __init__(self, page):
        super().__init__()
        self.open, self.tags, self.attributes, self.text = [], set(), [], ""
        self.feed(page)
        self.close()
        self.text = " ".join(self.text.split())

    def handle_starttag(self, tag, attributes):
        self.tags.add(tag)
        self.attributes += attributes
        self.open += [tag] * (tag not in ("link", "meta"))

    def handle_endtag(self, tag):
        assert self.open.pop() == tag, (tag, self.getpos())

    def handle_data(self, text):
        self.text += text + " "


class PageTest(test_report.ToolTest):
    def page(self, host, status=0, **changes):
        """The page of a recorded host, and what is on standard error."""
        if isinstance(host, bytes):
            host = self.write("made", host)
        made = self.report("page", "--host", os.path.join(HOSTS, host),
                           env=dict(os.environ, **changes))
        self.assertEqual(made.returncode, status, made.stderr)
        return made.stdout, made.stderr

    def test_every_host(self):
        """Well-formed, and nothing is fetched or run, even where the documents break off or names are hostile."""
        for host in [*sorted(set(os.listdir(HOSTS)) - {"commands"}), HOSTILE]:
            reader = Reader(self.page(host)[0])
            self.assertEqual((reader.open, reader.tags & {"script", "iframe", "object", "img", "b"}), ([], set()))
            odd = [(name, value) for name, value in reader.attributes if name.startswith("on")
                   or name.split(":")[-1] in ("href", "src") and not value.startswith(("#", "data:,"))]
            self.assertEqual(odd, [], host)

    def test_facts(self):
        for host, parts in FACTS:
            text = Reader(self.page(host)[0]).text
            for part in parts:
                self.assertTrue(part in text, part)

    def test_missing_packages(self):
        """The picture alone lacks without Graphviz, and where it ends early."""
        with tempfile.TemporaryDirectory() as folder:  # no colon in its name
            troubles = [(self.page("rack-server", PATH=folder), "takes the package graphviz")]
            for dot, reason in ("exit 3", "it ended with 3"), ("echo '<'", "failed"):
                os.chmod(self.write(folder + "/dot", "#!/bin/sh\n%s\n" % dot), 0o755)
                troubles.append((self.page("rack-server", PATH=folder), reason))
        for (text, error), reason in troubles:
            self.assertRegex(error, "^zorvik-report: no picture of the network: .*%s.*\n$" % reason)
            self.assertEqual((reason in text, "<svg" in text, 'id="domains"' in text), (True, False, True))
        self.write("jinja2.py", "raise ImportError\n")
        self.assertEqual(self.page("rack-server", 1), ("", "zorvik-report: a page takes the package python3-jinja2, "
                                                           "which is not installed\n"))

    @unittest.skipUnless(shutil.which("chromium"), "takes the package chromium")
    def test_browser(self):
        """Without a word on the console, and with the picture and every table."""
        for host, tables in (("rack-server", TABLES), ("no-hypervisor", ())):
            path = self.write("page.html", self.page(host)[0])
            seen = subprocess.run(["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--enable-logging=stderr",
                                   "--user-data-dir=" + os.path.join(self.folder, "profile"), "--dump-dom", path],
                                  capture_output=True, text=True, timeout=120)
            self.assertNotIn("CONSOLE", seen.stderr)
            self.assertEqual([name for name in tables if '<table id="%s">' % name not in seen.stdout], [])
            self.assertEqual(('role="img"' in seen.stdout, "</html>" in seen.stdout), (bool(tables), True))


if __name__ == "__main__":
    unittest.main()

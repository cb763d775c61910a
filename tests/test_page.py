"""The page: what is on it, whoever named the devices, and what a browser makes of it."""
import html.parser
import os
import re
import shutil
import subprocess
import unittest

import test_report

HOSTS = os.path.join(test_report.TESTS, "hosts")
TABLES = ("devices", "bonds", "bridges", "memory", "processors", "domains", "shares", "fibre", "controller",
          "inventory")
EMPTY = {"area", "base", "br", "col", "hr", "img", "input", "link", "meta", "source", "wbr"}
# Names that want to be more than text, in the page or in the picture, and a byte that is no UTF-8.
NAMES = rb"&lt;b&quot;\N &amp;amp; \l];{x|[i e\xff'\ ".replace(rb"\xff", b"\xff").split()
HOSTILE = b"=== /proc/net/dev\nInter-|\n face |\n" + b"".join(b"%s: 0 0\n" % name for name in NAMES) + b"".join(
    b"=== /sys/class/net/%s -> ../../devices/pci0/net/%s\n=== /sys/class/net/%s/device -> ../../../pci0\n"
    b"=== /sys/class/net/%s/carrier\n0\n=== [interface %s]\nhwaddr 00:00:5e:00:53:01\nflags 0x1003\n"
    % ((name,) * 5) for name in NAMES)
DOMAIN = """=== [domain {id}]
handle {id:08x}-0000-4000-8000-00000000c0de
nr_pages {pages}
max_memkb 1052672
cpu_time {id}000000000000
state {state}
credit 256 0
=== /sys/class/net/xenbr0/brif/vif{id}.0 -> ../../vif{id}.0/brport
"""
CARD = """=== /sys/class/net/eth{id} -> ../../devices/pci0000:00/0000:00:1c.0/0000:0{bus}:00.0/net/eth{id}
=== /sys/class/net/eth{id}/device -> ../../../0000:0{bus}:00.0
=== /sys/class/net/eth{id}/carrier
{up}
=== /sys/class/net/eth{id}/speed
10000
=== [interface eth{id}]
hwaddr 00:00:5e:00:53:{id:02x}
flags 0x1043
"""


def crowded_host():
    """A recording of a server with 30 network cards and 40 domains more."""
    with open(os.path.join(HOSTS, "rack-server", "host"), encoding="utf-8") as base:
        text = base.read()
    cards = range(2, 30)
    text = re.sub("(?m)^bond0:|^ *bond0: ", lambda found: "".join("eth%d: 1 2\n" % card for card in cards)
                  + found.group(), text, count=1)
    text += "".join(CARD.format(id=card, bus=card % 9, up=int(card % 5 > 0)) for card in cards)
    return text + "".join(DOMAIN.format(id=domain, pages=100000 + 9000 * domain,
                                        state="dying" if domain == 33 else "blocked") for domain in range(10, 50))


class Reader(html.parser.HTMLParser):
    """Tells of every tag that is not closed in turn, of every reference, and of all the text."""

    def __init__(self, page):
        super().__init__()
        self.open, self.attributes, self.texts, self.tags = [], [], [], set()
        self.feed(page)
        self.close()

    def handle_starttag(self, tag, attributes):
        self.handle_startendtag(tag, attributes)
        if tag not in EMPTY:
            self.open.append(tag)

    def handle_startendtag(self, tag, attributes):
        self.tags.add(tag)
        self.attributes += attributes

    def handle_endtag(self, tag):
        assert self.open.pop() == tag, (tag, self.getpos())

    def handle_data(self, text):
        self.texts.append(text)


class PageTest(unittest.TestCase):
    setUp = test_report.ReportTest.setUp

    def page(self, host, **changes):
        if not isinstance(host, str):
            with open(os.path.join(os.path.dirname(self.tool), "made"), "wb") as recording:
                recording.write(host)
            host = recording.name
        made = subprocess.run([self.tool, "page", "--host", os.path.join(HOSTS, host)], capture_output=True,
                              env=dict(os.environ, **changes))
        self.assertEqual((made.returncode, b"Traceback" in made.stderr), (0, False), made.stderr)
        return made.stdout.decode(), made.stderr.decode()

    def test_every_host(self):
        """Well-formed, and nothing is fetched or run, even where the documents break off or names are hostile."""
        for host in [*sorted(set(os.listdir(HOSTS)) - {"commands"}), HOSTILE]:
            reader = Reader(self.page(host)[0])
            self.assertEqual((reader.open, reader.tags & {"script", "iframe", "object", "img"}), ([], set()))
            links = [value for name, value in reader.attributes if name.split(":")[-1] in ("href", "src")]
            self.assertEqual([link for link in links if not re.match("#|data:,", link)], [], host)
            self.assertFalse([name for name, _ in reader.attributes if name.startswith("on")])

    def test_facts(self):
        text, error = self.page("rack-server")
        self.assertEqual(error, "")
        words = " ".join(" ".join(Reader(text).texts).split())
        for part in ("eth0 up, 1 Gb/s", "bond0 up, active-backup", "xenbr0 bridge", "Domain 7", "Northwind & Sons Firmware",
                     "Control domain 2,048 MiB", "blocked, paused 1,024 MiB", "3 418.7 GiB 10.0 GiB", "3 512 150 50.0 %",
                     "10.200.0.21"):
            self.assertIn(part, words)

    def test_not_complete(self):
        """What is missing is told of; what is there is shown."""
        for host, parts in (("no-hypervisor", ("hardware is not complete", "unable to get hypervisor handle")),
                            ("current-server", ("network is not complete", "eth0", "xenbr0", "bond0")),
                            ("status-cut", ("status is not complete",))):
            words = " ".join(Reader(self.page(host)[0]).texts)
            for part in parts:
                self.assertIn(part, words)

    def test_missing_packages(self):
        text, error = self.page("rack-server", PATH="/nowhere")
        self.assertEqual((error.count("\n"), "graphviz" in error, "graphviz" in text, "<svg" in text), (1, True, True, False))
        with open(os.path.join(os.path.dirname(self.tool), "jinja2.py"), "w") as module:
            module.write("raise ImportError\n")
        made = subprocess.run([self.tool, "page", *test_report.RACK], capture_output=True, text=True)
        self.assertEqual((made.returncode, made.stdout, made.stderr),
                         (1, "", "zorvik-report: a page takes the package python3-jinja2, which is not installed\n"))

    @unittest.skipUnless(shutil.which("chromium"), "takes the package chromium")
    def test_browser(self):
        """Without a word on the console, and with the picture and every table taking room."""
        folder = os.path.dirname(self.tool)
        for host, tables in ((crowded_host().encode(), TABLES), ("no-hypervisor", ())):
            path = os.path.join(folder, "page.html")
            with open(path, "w", encoding="utf-8") as page:
                page.write(self.page(host)[0])
            seen = subprocess.run(["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--enable-logging=stderr",
                                   "--user-data-dir=" + os.path.join(folder, "profile"), "--dump-dom", path],
                                  capture_output=True, text=True, timeout=120)
            self.assertNotIn("CONSOLE", seen.stderr)
            self.assertEqual([name for name in tables if '<table id="%s">' % name not in seen.stdout], [])
            self.assertEqual('role="img"' in seen.stdout, bool(tables))


if __name__ == "__main__":
    unittest.main()

"""The metrics: what is in them, who can read them, the file and the server."""
import contextlib
import gzip
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import threading
import time
import unittest
import urllib.request

import test_report

sys.path.append(os.path.join(os.path.dirname(test_report.TESTS), "tools"))
import crowded_host

HOSTS = os.path.join(test_report.TESTS, "hosts")
HANDLE = 'handle="6f1c2a3b-4d5e-4f60-8172-93a4b5c6d7e8",id="3"'
# A recorded host, series that it has, and texts that are nowhere.
SERIES = (
    ("rack-server", ('zorvik_info{identifier="0f:1c:2b:3a:4d:5e:6f:70:81:92:02:16:3e:5a:01:ff",version="7.0.1"} 1.0',
                     "zorvik_domain_memory_bytes{%s} 1.073741824e+09" % HANDLE,
                     "zorvik_domain_cpu_seconds_total{%s} 1234.567890123" % HANDLE,
                     'zorvik_domain_state{%s,state="paused"} 1.0' % HANDLE,
                     'zorvik_domain_state{%s,state="running"} 0.0' % HANDLE,
                     "zorvik_domain_cap_ratio{%s} 1.5" % HANDLE, 'zorvik_processes{state="Z"} 0.0',
                     'zorvik_link_speed_bytes{device="eth0"} 1.25e+08',
                     'zorvik_bond_slave_link_failures_total{bond="bond0",device="eth1"} 1.0',
                     'zorvik_bridge_ports{bridge="xenbr0",kind="virtual"} 2.0',
                     'zorvik_fibre_channel_transmit_bytes_total{host="4"} 28.0'), ("firmware",)),
    ("status-odd", ('zorvik_network_receive_packets_total{device="lo"} 1.8446744073709552e+19',
                    'zorvik_domain_shutdown_info{handle="55555555-0000-4000-8000-00000000000b",id="5",reason="Reboot"} 1.0',
                    'zorvik_network_receive_packets_total{device="eth1"} 42.0'), ('receive_bytes_total{device="eth2"}',)),
    # The bonds' element is not well-formed, nor is that of the processes: the others are.
    ("current-server", ('zorvik_report_success{report="network"} 0.0', 'zorvik_link_up{device="eth0"} 1.0',
                        'zorvik_bridge_ports{bridge="xenbr0",kind="physical"} 1.0'), ("bond_up",)),
    ("status-cut", ('zorvik_report_success{report="status Processes"} 0.0',
                    'zorvik_report_success{report="status Memory"} 1.0'), ("zorvik_processes",)),
    ("net-infiniband", ('zorvik_link_speed_bytes{device="ib0"} 5e+09', 'zorvik_link_up{device="ib1"} 0.0'),
     ('speed_bytes{device="ib1"}',)),
)
# A byte that is no UTF-8 is told; a quote leaves a document that is not well-formed.
TRAFFIC = b"=== [hypervisor]\n=== /sys/class/net/%s/statistics/rx_bytes\n5\n"


class MetricsTest(test_report.ToolTest):
    def metrics(self, *options, host="rack-server"):
        return self.report("metrics", "--host", os.path.join(HOSTS, host), *options)

    @contextlib.contextmanager
    def server(self, host="rack-server", address=":0"):
        """(its process, the URL it serves)"""
        with subprocess.Popen([self.tool, "metrics", "--host", os.path.join(HOSTS, host), "--listen", address],
                              stderr=subprocess.PIPE, text=True) as tool:
            try:
                yield tool, tool.stderr.readline().split()[-1]
            finally:
                tool.terminate()

    def test_series(self):
        for host, series, nowhere in SERIES:
            text = self.metrics(host=host).stdout
            for line in series:
                self.assertTrue(line + "\n" in text, line)
            for part in nowhere:
                self.assertFalse(part in text, part)

    def test_odd_names(self):
        for name, line in ((b"a\\\xff", 'zorvik_network_receive_bytes_total{device="a\\\\\\\\xff"} 5.0\n'),
                           (b'a"&<', 'zorvik_report_success{report="status Network"} 0.0\n')):
            self.assertIn(line, self.metrics(host=self.write("odd", TRAFFIC % name)).stdout)

    @unittest.skipUnless(shutil.which("promtool"), "takes the package prometheus")
    def test_readers(self):
        """The texts of every recorded host, in both forms."""
        from prometheus_client.openmetrics import parser
        for host in sorted(os.listdir(HOSTS)):
            text, other = (self.metrics("--hardware", *form, host=host).stdout for form in ([], ["--openmetrics"]))
            checked = subprocess.run(["promtool", "check", "metrics"], capture_output=True, text=True, input=text)
            self.assertEqual((checked.returncode, checked.stdout + checked.stderr), (0, ""), host)
            list(parser.text_string_to_metric_families(other))

    def test_file(self):
        """Two writers and a reader: the file is whole at all times, and alone in its folder in the end."""
        folder = os.path.join(self.folder, "textfiles")
        path, link = (os.path.join(folder, name) for name in ("host.prom", "link"))
        os.mkdir(folder)
        os.symlink("host.prom", link)
        self.assertEqual(self.metrics("-o", link).returncode, 0)
        writers = [threading.Thread(target=lambda: [self.metrics("-o", path) for _ in range(5)]) for _ in range(2)]
        for writer in writers:
            writer.start()
        while any(writer.is_alive() for writer in writers):
            with open(path, encoding="utf-8") as stream:
                self.assertRegex(stream.read(), r"\A# HELP (?s:.*)zorvik_fibre_channel_transmit_bytes_total.* 28.0\n\Z")
            self.assertEqual([name for name in os.listdir(folder) if name.endswith(".prom")], ["host.prom"])
        self.assertEqual(sorted(os.listdir(folder)), ["host.prom", "link"])
        self.assertEqual(os.stat(path).st_mode & 0o777, 0o644)
        self.assertIn("No space left", self.metrics("-o", "/dev/full").stderr)

    def test_refused(self):
        self.write("prometheus_client.py", "raise ImportError\n")
        for options, error in (([], "python3-prometheus-client"), (["--listen", "x"], "no ADDRESS:PORT"),
                               (["--listen", ":65536"], "no ADDRESS:PORT")):
            self.assertIn(error, self.metrics(*options).stderr.splitlines()[-1])

    def test_server(self):
        with self.server(address="[::1]:0") as (tool, url):
            port = int(re.search(":([0-9]+)/", url).group(1))
            waiting = socket.create_connection(("::1", port))  # says nothing
            for _ in range(20):  # gone before the answer
                with socket.create_connection(("::1", port)) as gone:
                    gone.sendall(b"GET /metrics HTTP/1.0\r\n\r\n")
            for accept, ending in ("text/plain", "28.0\n"), ("application/openmetrics-text", "# EOF\n"):
                request = urllib.request.Request(url, headers={"Accept": accept, "Accept-Encoding": "gzip"})
                with urllib.request.urlopen(request, timeout=10) as answer:
                    self.assertTrue(gzip.decompress(answer.read()).decode().endswith(ending))
                    self.assertIn(accept, answer.headers["Content-Type"])
            self.assertRaisesRegex(OSError, "404", urllib.request.urlopen, url + "x")
            self.assertIn("Address already in use", self.metrics("--listen", "[::1]:%d" % port).stderr)
            tool.send_signal(signal.SIGTERM)
            self.assertEqual(tool.wait(timeout=5), -signal.SIGTERM)
            self.assertEqual(tool.stderr.read(), "")
            waiting.close()

    @unittest.skipUnless(shutil.which("prometheus"), "takes the package prometheus")
    def test_prometheus(self):
        host = self.write("crowd", crowded_host.crowded_host(20))
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            own = "127.0.0.1:%d" % free.getsockname()[1]
        with self.server(host=host) as (_, url):
            self.write("prometheus.yml", json.dumps({
                "global": {"scrape_interval": "1s", "scrape_timeout": "1s"}, "scrape_configs": [
                    {"job_name": "zorvik", "static_configs": [{"targets": [url.split("/")[2]]}]}]}))
            with subprocess.Popen(["prometheus", "--config.file=prometheus.yml", "--storage.tsdb.path=data",
                                   "--web.listen-address=" + own], cwd=self.folder, stderr=subprocess.DEVNULL) as watch:
                self.addCleanup(watch.kill)
                query = "http://%s/api/v1/query?query=count(zorvik_domain_cpu_seconds_total)" % own
                found, until = [], time.monotonic() + 30
                while not found and time.monotonic() < until:
                    time.sleep(0.3)
                    with contextlib.suppress(OSError), urllib.request.urlopen(query) as answer:
                        found = json.load(answer)["data"]["result"]
                watch.terminate()
        self.assertEqual(found and found[0]["value"][1], "21")


if __name__ == "__main__":
    unittest.main()

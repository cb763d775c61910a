"""What the metrics of a fleet cost: a scrape of one server, and Prometheus with many of them.

    script/bench_fleet.py                        scrape time, series and bytes by the number of domains
    bench_fleet.py HOSTS DOMAINS SECONDS  memory, processor and samples of a Prometheus that scrapes
                                          as many recorded servers every 15 seconds, each at an
                                          address of its own from 127.1.0.1 on

It asks the build and takes the packages prometheus and python3-psutil.
"""
import gzip
import http.server
import itertools
import json
import os
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

import psutil

TOOLS = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "tools")
sys.path.append(TOOLS)
import crowded_host

TOOL = os.path.join(TOOLS, "zorvik-report")
PORT, OWN = 19105, "127.0.0.1:19090"
STEPS = 8  # recordings whose counters grow, one for each scrape in turn


def tool(folder, domains, step, *options, **given):
    host = os.path.join(folder, "host")
    with open(host, "w", encoding="utf-8") as recording:
        recording.write(crowded_host.crowded_host(domains, step))
    return subprocess.Popen([TOOL, "metrics", "--current", "--host", host, *options], **given)


def exposition(folder, domains, step):
    with tool(folder, domains, step, stdout=subprocess.PIPE) as ended:
        return ended.stdout.read()


def fetch(url):
    request = urllib.request.Request(url, headers={"Accept": "application/openmetrics-text", "Accept-Encoding": "gzip"})
    with urllib.request.urlopen(request) as answer:
        return answer.read()


def scrapes(folder):
    print("| domains | series | text | compressed | scrape | memory |\n|---|---|---|---|---|---|")
    for domains in 10, 100, 1000:
        with tool(folder, domains, 0, "--listen", "127.0.0.1:0", stderr=subprocess.PIPE, text=True) as server:
            url = server.stderr.readline().split()[-1]
            times = []
            for _ in range(10):
                begun = time.perf_counter()
                body = fetch(url)
                times.append(time.perf_counter() - begun)
            memory = psutil.Process(server.pid).memory_info().rss
            server.terminate()
        text = gzip.decompress(body)
        series = sum(not line.startswith(b"#") for line in text.splitlines())
        print("| %d | %d | %d kB | %d kB | %.0f ms | %d MB |" % (
            domains, series, len(text) / 1e3, len(body) / 1e3, sorted(times)[5] * 1e3, memory / 1e6))


class Replay(http.server.BaseHTTPRequestHandler):
    """Any server of the fleet; a text of OpenMetrics is not needed for what is measured."""
    protocol_version = "HTTP/1.1"  # Prometheus keeps its connections

    def do_GET(self):
        body = self.server.bodies[int(time.monotonic() / 15) % STEPS]
        self.wfile.write(b"HTTP/1.1 200 OK\r\nContent-Type: text/plain; version=0.0.4\r\n"
                         b"Content-Encoding: gzip\r\nContent-Length: %d\r\n\r\n" % len(body) + body)


def query(expression):
    with urllib.request.urlopen("http://%s/api/v1/query?query=%s" % (OWN, expression)) as answer:
        found = json.load(answer)["data"]["result"]
    return float(found[0]["value"][1]) if found else 0


def fleet(folder, hosts, domains, seconds):
    server = http.server.ThreadingHTTPServer(("0.0.0.0", PORT), Replay)
    server.bodies = [gzip.compress(exposition(folder, domains, step)) for step in range(STEPS)]
    threading.Thread(target=server.serve_forever, daemon=True).start()
    targets = ["127.1.%d.%d:%d" % (host // 250, host % 250 + 1, PORT) for host in range(hosts)]
    with open(os.path.join(folder, "prometheus.yml"), "w", encoding="utf-8") as config:
        json.dump({"global": {"scrape_interval": "15s"}, "scrape_configs": [
            {"job_name": "zorvik", "static_configs": [{"targets": targets}]},
            {"job_name": "prometheus", "static_configs": [{"targets": [OWN]}]}]}, config)
    with subprocess.Popen(["prometheus", "--config.file=prometheus.yml", "--storage.tsdb.path=data",
                           "--web.listen-address=" + OWN, "--log.level=warn"], cwd=folder) as prometheus:
        watch = psutil.Process(prometheus.pid)
        begun, peak = time.monotonic(), 0
        for _ in itertools.takewhile(lambda _: time.monotonic() - begun < seconds, itertools.count()):
            time.sleep(1)
            peak = max(peak, watch.memory_info().rss)
        used = watch.cpu_times()
        print("%d hosts of %d domains, %d s: %d up, %d series, %.0f samples/s; resident %.0f MB, at most %.0f MB; "
              "%.0f%% of a processor; slowest scrape %.2f s" % (
                  hosts, domains, seconds, query('sum(up{job="zorvik"})'), query("prometheus_tsdb_head_series"),
                  query("rate(prometheus_tsdb_head_samples_appended_total[1m])"),
                  watch.memory_info().rss / 1e6, peak / 1e6, 100 * (used.user + used.system) / seconds,
                  query('max(scrape_duration_seconds{job="zorvik"})')))
        prometheus.terminate()


if __name__ == "__main__":
    with tempfile.TemporaryDirectory() as work:
        if len(sys.argv) > 1:
            fleet(work, *map(int, sys.argv[1:4]))
        else:
            scrapes(work)

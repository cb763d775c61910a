"""What the reports cost, against bare loops of the system calls that they cannot do without.

    bench_reports.py FOLDER       FOLDER holds bench_crowd, libbench_loops.so and bench_empty.so

Loop and report take turns in one process; the best of several rounds counts. "growth" is the time
of one more item, between a row and the one before, over the time of an item in that row before.
"""
import ctypes
import os
import subprocess
import sys
import time

import ZorvikDiscoverExtension as module

FOLDER = sys.argv[1]
loops = ctypes.CDLL(os.path.join(FOLDER, "libbench_loops.so"))
before = {}


def timed(function):
    start = time.perf_counter()
    function()
    return time.perf_counter() - start


def row(work, size, loop, report, seconds=2.0):
    """Measures and prints one line of the table. Returns the report's time."""
    loop_times, report_times, end = [], [], time.perf_counter() + seconds
    while time.perf_counter() < end or len(report_times) < 3:
        loop_times.append(timed(loop) if loop else 0)
        report_times.append(timed(report))
    bare, ours = min(loop_times), min(report_times)
    growth = ""
    if work in before:
        last_size, last_time = before[work]
        growth = "%.2f" % ((ours - last_time) / (size - last_size) * last_size / last_time)
    before[work] = size, ours
    print("%-38s %6d %10s %10.3f %6s %9.2f %7s" % (
        work, size, "%.3f" % (bare * 1e3) if loop else "", ours * 1e3,
        "%.2f" % (ours / bare) if loop else "", ours / size * 1e6, growth), flush=True)
    return ours


def in_namespace():
    """Starts over in namespaces of its own, for the interfaces that are made."""
    if "NAMESPACE" not in os.environ:
        os.environ["NAMESPACE"] = "1"
        os.execvp("unshare", ["unshare", "-n", "-m", sys.executable] + sys.argv)
    subprocess.check_call(["mount", "-t", "sysfs", "sysfs", "/sys"])


def ip(commands):
    subprocess.run(["ip", "-batch", "-"], input="\n".join(commands) + "\n", text=True, check=True)


def psutil_fields():
    """What psutil has of the report's fields, read afresh as the report is."""
    import psutil
    fields = ["name", "status", "ppid", "terminal", "cpu_times", "nice", "memory_info", "cpu_num",
              "create_time"]
    for process in psutil.process_iter():
        try:
            process.as_dict(fields), process.rlimit(psutil.RLIMIT_RSS)
            os.getpgid(process.pid), os.getsid(process.pid)
        except (psutil.Error, ProcessLookupError):
            pass


def bench_processes():
    for count in (300, 3000, 20000):
        crowd = subprocess.Popen([os.path.join(FOLDER, "bench_crowd"), str(count)],
                                 stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        crowd.stdout.readline()
        ours = row("process list", count, loops.loop_processes,
                   lambda: module.status("Option: Processes"), 4)
        psutil_fields()
        other = min(timed(psutil_fields) for _ in range(2))
        print("%-38s %6d %10.3f %10s %6.1f times ours" % ("    psutil", count, other * 1e3, "", other / ours))
        crowd.stdin.close()
        crowd.wait()
        while len(os.listdir("/proc")) > count:
            time.sleep(0.1)


def bench_network():
    for made, count in ((0, 100), (100, 400)):
        ip("link add vxlan%d type vxlan id %d dstport 4789" % (i, i) for i in range(made, count))
        row("discover_network, VXLAN devices", count, loops.loop_network,
            lambda: module.discover_network(0))
    for made, count in ((400, 1000), (1000, 5000), (5000, 20000)):
        ip("link add vxlan%d type vxlan id %d dstport 4789" % (i, i) for i in range(made, count))
        row("unique_id, device list", count, loops.loop_devices, module.unique_id)


def bench_bridges():
    for made, count in ((0, 125), (125, 500)):
        ip("link add br%d type bridge" % i for i in range(made, count))
        ip("link add p%d type vxlan id %d dstport 4789\nlink set p%d master br%d" % (i, i, i, i // 2)
           for i in range(2 * made, 2 * count))
        row("Bridge_Config, bridges with 2 ports", count, loops.loop_bridges,
            lambda: module.status("Option: Bridge_Config"))


def bench_traffic():
    # Kernels of today have links there, of which nothing is told: directories as older ones had.
    subprocess.check_call(["mount", "-t", "tmpfs", "tmpfs", "/sys/class/net"])
    for made, count in ((0, 250), (250, 1000)):
        for number in range(made, count):
            os.makedirs("/sys/class/net/eth%d/statistics" % number)
            for name in ("rx_packets", "rx_bytes", "tx_packets", "tx_bytes"):
                with open("/sys/class/net/eth%d/statistics/%s" % (number, name), "w") as counter:
                    counter.write("%d\n" % (number * 1234567))
            if number % 2:
                os.makedirs("/sys/class/net/br%d/bridge" % number)
        row("traffic, interfaces beside bridges", count, loops.loop_traffic,
            lambda: module.status("Option: Network"))


def bench_domains():
    """One size a process, for the preloaded library is told by the environment how many there are."""
    count = int(os.environ["DOMAINS"])
    row("Dom_Info_Brief, library for nothing", count, None, lambda: module.status("Option: Dom_Info_Brief"))


def bench_import():
    code = "import time; s = time.perf_counter(); import %s; print(time.perf_counter() - s)"
    times = {}
    for _ in range(25):
        for name in ("bench_empty", "ZorvikDiscoverExtension"):
            told = subprocess.check_output([sys.executable, "-c", code % name])
            times[name] = min(times.get(name, 9), float(told))
    print("%-38s %6s %10.3f %10.3f" % (("import, an empty module against ours", "") + tuple(
        seconds * 1e3 for seconds in times.values())))


def main():
    if len(sys.argv) > 2:
        if sys.argv[2] in ("network", "bridges", "traffic"):
            in_namespace()
        globals()["bench_" + sys.argv[2]]()
        return
    print("%-38s %6s %10s %10s %6s %9s %7s" % (
        "work", "items", "loop ms", "ours ms", "ratio", "us each", "growth"), flush=True)
    for part in ("processes", "network", "bridges", "traffic", "import"):
        subprocess.check_call([sys.executable, __file__, FOLDER, part])
    for domains in ("250", "1000", "4000"):
        subprocess.check_call([sys.executable, __file__, FOLDER, "domains"], env=dict(
            os.environ, DOMAINS=domains, LD_PRELOAD=os.path.join(FOLDER, "libbench_loops.so")))


if __name__ == "__main__":
    main()

"""How the reports' time grows with the host, measured side by side on the running kernel.

    bench_reports.py processes CROWD_PROGRAM    status("Option: Processes") against a bare loop and psutil
    bench_reports.py network                    discover_network(0) for up to 2,000 real interfaces
"""
import os
import resource
import subprocess
import sys
import time

import ZorvikDiscoverExtension as module


def best(function, rounds):
    times = []
    for _ in range(rounds):
        start = time.perf_counter()
        function()
        times.append(time.perf_counter() - start)
    return min(times)


def psutil_fields():
    """What psutil has of the report's fields, read afresh as the report is."""
    import psutil
    fields = ["name", "status", "ppid", "terminal", "cpu_times", "nice", "memory_info", "cpu_num",
              "create_time"]
    processes = []
    for pid in psutil.pids():
        try:
            process = psutil.Process(pid)
            processes.append((process.as_dict(fields), process.rlimit(psutil.RLIMIT_RSS),
                              os.getpgid(pid), os.getsid(pid)))
        except (psutil.Error, ProcessLookupError):
            pass
    return processes


def bench_processes(crowd_program):
    print("processes   status    bare loop  ratio   psutil   ratio   us each   memory")
    for count in (300, 3000, 20000):
        crowd = subprocess.Popen([crowd_program, str(count)], stdin=subprocess.PIPE,
                                 stdout=subprocess.PIPE, text=True, bufsize=1)
        crowd.stdout.readline()

        def bare_loop():
            crowd.stdin.write("\n")
            return float(crowd.stdout.readline())

        held = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
        size = len(module.status("Option: Processes")[1])
        grown = (resource.getrusage(resource.RUSAGE_SELF).ru_maxrss - held) * 1024
        loops, reports = [], []
        for _ in range(max(7, 20000 // count)):  # in turn, so that both see the same machine
            loops.append(bare_loop())
            reports.append(best(lambda: module.status("Option: Processes"), 1))
        loop, report = min(loops), min(reports)
        other = best(psutil_fields, 2)
        print("%9d %7.2f ms %7.2f ms  %5.2f %7.0f ms  %6.1f  %7.2f  %5.2f x response"
              % (count, report * 1e3, loop * 1e3, report / loop, other * 1e3, other / report,
                 report / count * 1e6, grown / size))
        crowd.stdin.close()
        crowd.wait()
        while len(os.listdir("/proc")) > count:
            time.sleep(0.1)


def bench_network():
    if "NAMESPACE" not in os.environ:
        os.environ["NAMESPACE"] = "1"
        os.execvp("unshare", ["unshare", "-n", "-m", sys.executable] + sys.argv)
    subprocess.check_call(["mount", "-t", "sysfs", "sysfs", "/sys"])
    print("interfaces   report   us each   with 8 descriptors to spare")
    made = 0
    for count in (250, 500, 1000, 2000):
        commands = "".join("link add vxlan%d type vxlan id %d dstport 4789\n" % (i, i)
                           for i in range(made, count))
        subprocess.run(["ip", "-batch", "-"], input=commands, text=True, check=True)
        made = count
        report = best(lambda: module.discover_network(0), 3)
        limits = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (len(os.listdir("/proc/self/fd")) + 8, limits[1]))
        log = module.discover_network(0)[2]
        resource.setrlimit(resource.RLIMIT_NOFILE, limits)
        spared = "same" if "Too many open files" not in (log or "") else "not enough"
        print("%10d %7.1f ms %7.1f   %s" % (count, report * 1e3, report / count * 1e6, spared))


if __name__ == "__main__":
    {"processes": bench_processes, "network": bench_network}[sys.argv[1]](*sys.argv[2:])

"""Soaks the module as an agent of many threads would, for SOAK_SECONDS (60). For Python 2.7 too.

Runs with the simulated host preloaded. Each round takes a recorded host, every third time one on
which reports start a child process, and else every one in its turn, asks what it is asked when
nothing disturbs, and then asks it from four threads and the main one, with garbage whose finalizers
close files and ask too, with a thread that forks, with signals every 10 ms, and now and then
without descriptors or address space. Outside of such pressure every answer has to be the
undisturbed one; an answer that pressure changed has to say so, by its status or its log text.
"""
import ctypes
import errno
import gc
import os
import random
import re
import resource
import signal
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests"))
from recorded import HOSTS, recorded_calls  # noqa: E402
import ZorvikDiscoverExtension as module  # noqa: E402

ROUND_SECONDS = 2.0    # at most: a minute has to do for all hosts
WRONG = 3              # what a forked child ends with whose answer is wrong
SLOW_CALL = 0.1        # seconds: hosts that hang are for other tests
MOST_GROWTH_KIB = 8192  # of the memory in use, from the second quarter of the rounds to the last
PAGE_KIB = os.sysconf("SC_PAGE_SIZE") // 1024
# Of glibc's allocator: a block of a page comes from the kernel and goes back to it, so that a want
# of address space is felt: M_MMAP_THRESHOLD, M_TRIM_THRESHOLD, M_TOP_PAD, M_ARENA_MAX.
MALLOC_OPTIONS = (-3, 4096), (-1, 0), (-2, 0), (-8, 1)
# What these lack, where a file cannot be opened, is not worth a log line: a process that has ended,
# a kernel without the driver.
SILENT = "(?s) *<(Processes|IPMI|SCSI|Balloon|Meminfo)>.*?</\\1>\n"
# Of a recorded host whose switch's tool is run, not only its output recorded.
STARTS_CHILDREN = "(?m)^=== /usr/bin/ovs-vsctl$\n(?!#output)"
UNLIMITED = {limit: resource.getrlimit(limit)
             for limit in (resource.RLIMIT_NOFILE, resource.RLIMIT_AS)}

simhost = ctypes.CDLL(None)
library = ctypes.CDLL(module.__file__)
sources = ctypes.c_int.in_dll(library, "global_source_state")
counts = dict.fromkeys(("calls", "pressed", "told", "refused", "forks", "finalizers", "signals"), 0)
faults = []
healthy = {}           # the undisturbed answers of the round's host, by the call
epoch = 0              # odd while pressure lasts
pressures = set()      # of which kinds there were in this round


def lacks_alone(text, whole):
    """Whether a text is the whole one but for what is silently left out."""
    text, whole = text or "", whole or ""
    if re.sub(SILENT, "", text) == re.sub(SILENT, "", whole):
        return True
    # Where memory is wanting, so it may be for the log line; an append that failed took its text.
    rest = iter(whole)
    return "memory" in pressures and all(character in rest for character in text)


def ask(call):
    function, arguments = call
    return getattr(module, function)(*arguments)


def check(call):
    """Makes a call. Returns whether its answer is the undisturbed one, or says why it is not."""
    before = epoch
    try:
        answer = ask(call)
    except MemoryError:
        counts["refused"] += 1
        return before % 2 or epoch != before
    pressed = before % 2 or epoch != before
    right = healthy[call]
    counts["calls"] += 1
    counts["pressed"] += bool(pressed)
    if answer == right:
        return True
    counts["told"] += 1
    if pressed and (answer[0] or answer[2] != right[2] or lacks_alone(answer[1], right[1])):
        return True
    if len(faults) < 10:
        faults.append("%s%r, %s, not %r but %r" % (
            call + ("pressed" if pressed else "undisturbed", right, answer)))
    return False


class Closer(object):
    """What a cycle holds: its finalizer, wherever the collector runs it, closes a file and asks."""

    stream = None

    def __del__(self):
        if self.stream:
            self.stream.close()
        counts["finalizers"] += 1
        check(random.choice(list(healthy)))


class Node(object):
    pass


def litter():
    node = Node()
    node.itself, node.closer = node, Closer()
    node.closer.stream = open(os.devnull)
    time.sleep(0.001)


def reap(child, deadline):
    """Waits for a child until a time. Returns its status, None for one that hangs and is killed."""
    while time.time() < deadline:
        reaped, status = os.waitpid(child, os.WNOHANG)
        if reaped:
            return status
        time.sleep(0.005)
    os.kill(child, signal.SIGKILL)
    os.waitpid(child, 0)
    return None


def fork():
    before, deadline = epoch, time.time() + 20
    child = os.fork()
    if child == 0:
        right = 1
        try:
            right = check(random.choice(list(healthy)))
            if not right:
                os.write(2, ("? in a child, %s\n" % faults[-1:]).encode())
        finally:
            os._exit(0 if right else WRONG)
    while True:
        try:
            status = reap(child, deadline)
            break
        except MemoryError:
            pass
    counts["forks"] += 1
    # Without memory an interpreter can die of a fork itself.
    if status in (None, WRONG << 8) or (status and before % 2 == 0 and epoch == before):
        faults.append("a forked child hangs or ends wrongly: %r" % status)


def until(deadline, step):
    """Repeats a step; memory and descriptors may run out within it, or between two."""
    while time.time() < deadline:
        try:
            while time.time() < deadline:
                step()
        except MemoryError:
            pass
        except Exception as error:
            if getattr(error, "errno", None) not in (errno.EMFILE, errno.ENOMEM, errno.EAGAIN):
                faults.append(repr(error))
                return


def relieve():
    """Gives back what pressure took, which itself needs a little memory."""
    global epoch
    while epoch % 2:
        try:
            for limit, values in UNLIMITED.items():
                resource.setrlimit(limit, values)
            epoch += 1
        except MemoryError:
            pass


def press(chance, size_kib):
    """Takes descriptors or address space away for a moment."""
    global epoch
    limit = chance.choice(sorted(UNLIMITED))
    lowest = os.dup(0)
    os.close(lowest)
    room = lowest + chance.randrange(8) if limit == resource.RLIMIT_NOFILE else \
        size_kib * 1024 + chance.randrange(1 << 21)
    epoch |= 1
    pressures.add("descriptors" if limit == resource.RLIMIT_NOFILE else "memory")
    try:
        for _ in range(20):
            resource.setrlimit(limit, (room, UNLIMITED[limit][1]))
            check(chance.choice(list(healthy)))
            time.sleep(0.005)
    finally:
        relieve()


def take_host(host, calls, state):
    """Loads a host and keeps its answers. Returns whether it is quick, and always gives the same."""
    healthy.clear()
    pressures.clear()
    sources.value = state
    assert simhost.simhost_load(os.path.join(HOSTS, host, "host").encode()) == 0
    for call in calls:
        start = time.time()
        healthy[call] = ask(call)
        if time.time() - start > SLOW_CALL or ask(call) != healthy[call]:
            return False
    return True


def starts_children(host):
    with open(os.path.join(HOSTS, host, "host"), "rb") as recording:
        return bool(re.search(STARTS_CHILDREN, recording.read().decode("latin-1")))


def usage():
    """What the process has: open files, KiB of address space and KiB in use. No host is loaded."""
    with open("/proc/self/statm") as statm:
        size, resident = [int(word) * PAGE_KIB for word in statm.read().split()[:2]]
    try:
        child = os.waitpid(-1, os.WNOHANG)
        faults.append("a child is left: %r" % (child,))
    except OSError as error:
        assert error.errno == errno.ECHILD
    descriptors = []
    for descriptor in os.listdir("/proc/self/fd"):
        try:
            descriptors.append(os.readlink("/proc/self/fd/" + descriptor))
        except OSError:  # of the list itself
            pass
    return sorted(descriptors), size, resident


def round_of(chance, size_kib, end):
    """Asks the loaded host from all sides until a time."""
    workers = [lambda: check(random.choice(list(healthy)))] * 4 + [litter, fork]
    threads = [threading.Thread(target=until, args=(end, step)) for step in workers]
    for thread in threads:
        thread.daemon = True
        thread.start()
    signal.setitimer(signal.ITIMER_REAL, 0.01, 0.01)
    calm_end = time.time() + (end - time.time()) / 3
    until(calm_end, workers[0])
    until(end, lambda: press(chance, size_kib))
    signal.setitimer(signal.ITIMER_REAL, 0)
    for thread in threads:
        thread.join(60)
        if thread.is_alive():
            faults.append("a thread hangs")
    gc.collect()  # the finalizers ask this host


def count_signal(*_):
    counts["signals"] += 1


def main():
    seconds = float(os.environ.get("SOAK_SECONDS", 60))
    seed = int(os.environ.get("SOAK_SEED", random.SystemRandom().randrange(1 << 31)))
    chance = random.Random(seed)
    hosts = {}
    for host, _, _, function, arguments in recorded_calls():
        function = function.split(":")[-1]
        words = (int(arguments.split(" ")[0]),) if function == "discover_network" else \
            (arguments,) if function == "status" else ()
        hosts.setdefault(host, set()).add((function, words))
    parents = [host for host in sorted(hosts) if starts_children(host)]
    signal.signal(signal.SIGALRM, count_signal)
    signal.siginterrupt(signal.SIGALRM, True)
    gc.set_threshold(100)
    for option, value in MALLOC_OPTIONS:
        simhost.mallopt(option, value)
    start = time.time()
    used = []
    turns = []
    tried = 0
    # A third of the rounds are the parents', and some time is between rounds.
    round_seconds = min(ROUND_SECONDS, 0.3 * seconds / len(hosts))
    while time.time() < start + seconds and not faults:
        if not turns:
            turns = sorted(hosts)
            chance.shuffle(turns)
        host = chance.choice(parents) if tried % 3 == 2 else turns.pop()
        state = chance.randrange(2)
        tried += 1
        used.append(usage())
        if take_host(host, hosts[host], state):
            round_of(chance, used[-1][1], min(time.time() + round_seconds, start + seconds))
        else:
            used.pop()
        simhost.simhost_unload()
        if faults:
            faults.append("on the host %s, with %s sources" % (host, ("classic", "current")[state]))
    used.append(usage())
    quarter = len(used) // 4
    descriptors, _, resident = zip(*used[quarter:])
    growth = max(resident[-quarter - 1:]) - max(resident[:quarter + 1])
    for name in sorted(set(used[0][0] + descriptors[-1])):
        before, now = used[0][0].count(name), descriptors[-1].count(name)
        if before != now:
            faults.append("%d open of %s, %d before" % (now, name, before))
    if growth > MOST_GROWTH_KIB:
        faults.append("memory grew by %d KiB" % growth)
    peak = max(resident + (resource.getrusage(resource.RUSAGE_SELF).ru_maxrss,))
    print("Python %d.%d, seed %d: %d rounds, %s; "
          "%d descriptors, %d KiB in use, %d more than before, %d at most" % (
        sys.version_info[:2] + (seed, len(used) - 1) +
        (", ".join("%d %s" % (counts[name], name) for name in sorted(counts)),
         len(descriptors[-1]), resident[-1], growth, peak)))
    for fault in faults:
        print("? " + fault)
    return bool(faults) or len(used) < 2


if __name__ == "__main__":
    sys.exit(main())

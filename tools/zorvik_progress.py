"""Tells on a terminal what a report waits for, in a line that is erased when the report is there.

A call of the module holds the interpreter, and no thread could tell; a child process does, which
only looks at this one. Under Python 2 a report waits in silence.
"""
import contextlib
import ctypes
import itertools
import os
import re
import select
import signal
import sys
import threading
import time

FIRST_SECONDS = 1  # what takes less is worth no line
ERROR = 2  # standard error
PR_SET_PDEATHSIG = 1
# What the programs that the module has started and the files that it has open say of its source.
SOURCES = (
    (r"(^|/)ovs-vsctl\b", "Open vSwitch"),
    (r"^/dev/ipmi", "the management controller"),
    (r"^/dev/mem$|^/sys/firmware/", "the firmware"),
    (r"/xen/privcmd$", "the hypervisor"),
    (r"/fc_host(/|$)", "the Fibre Channel ports"),
    (r"^socket:|^/sys/.*/net(/|$)|^/proc/(\d+/)?net/", "the network devices"),
    (r"^/proc(/\d+/stat)?$", "the processes"),
)


def is_ours():
    """Whether the terminal is this job's to write to, and not a shell's with its prompt there."""
    try:
        return os.tcgetpgrp(ERROR) == os.getpgrp()
    except OSError:
        return True  # a terminal that no shell controls


def draw(text):
    """Has the text alone in the terminal's line, unless the terminal is stopped."""
    if is_ours() and select.select([], [ERROR], [], 0)[1]:
        os.write(ERROR, b"\r\x1b[K" + text.encode("ascii"))


def is_open(descriptor):
    try:
        os.fstat(descriptor)
    except OSError:
        return False
    return True


def read_below(folder, name):
    with open(os.open(name, os.O_RDONLY, dir_fd=folder), "rb") as file:
        return file.read()


def list_below(folder, name):
    listed = os.open(name, os.O_RDONLY | os.O_DIRECTORY, dir_fd=folder)
    try:
        return os.listdir(listed)
    finally:
        os.close(listed)


def programs(process):
    """The command lines of the programs that the watched process has started, word for word."""
    for task in list_below(process, "task"):
        for child in read_below(process, "task/%s/children" % task).split():
            if int(child) != os.getpid():
                for word in os.fsdecode(read_below(process, b"../%s/cmdline" % child)).split("\0"):
                    yield word


def files(process):
    """What the watched process has opened since this one was forked off, the newest first."""
    for descriptor in sorted(map(int, list_below(process, "fd")), reverse=True):
        if not is_open(descriptor):
            yield os.readlink("fd/%d" % descriptor, dir_fd=process)


def find_source(process):
    """What the watched process waits for, None where that is not known."""
    for traces in programs, files:
        with contextlib.suppress(OSError):  # it goes on meanwhile, and closes what was just listed
            for trace in traces(process):
                for pattern, source in SOURCES:
                    if re.search(pattern, trace):
                        return source
    return None


def watch(process, parent, report):
    """The child's part, which ends when it is killed: by its parent, or with it."""
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
    signal.signal(signal.SIGTTOU, signal.SIG_IGN)  # which would stop the whole job
    begun = time.monotonic()
    for seconds in itertools.count(FIRST_SECONDS):
        time.sleep(max(begun + seconds - time.monotonic(), 0))
        if os.getppid() != parent:
            return  # it was gone before this process could ask to die with it
        source = find_source(process)
        text = "zorvik-report: %s: %s (%d s)" % (
            report, "waiting for " + source if source else "at work", seconds)
        with contextlib.suppress(OSError):
            draw(text[:(os.get_terminal_size(ERROR).columns or 80) - 1])


def start_watch(report):
    """The process that tells of this one, None where there can be none."""
    parent = os.getpid()
    process = child = None
    try:
        process = os.open("/proc/self", os.O_RDONLY | os.O_DIRECTORY)
        child = os.fork()
    except OSError:
        pass
    if child == 0:
        try:
            watch(process, parent, report)
        finally:
            os._exit(0)
    if process is not None:
        os.close(process)
    return child


def end_watch(child, seconds):
    """Ends the process, and then erases what it may have drawn."""
    with contextlib.suppress(OSError):  # others may have reaped it
        os.kill(child, signal.SIGKILL)
        os.waitpid(child, 0)
    if seconds >= FIRST_SECONDS:
        with contextlib.suppress(OSError):
            draw("")


def is_wanted():
    """Whether a person looks on, at a terminal that can erase a line."""
    return (sys.version_info[0] > 2 and os.isatty(ERROR) and os.environ.get("TERM", "dumb") != "dumb"
            and threading.active_count() == 1)  # a server's terminal is for its own lines


@contextlib.contextmanager
def told(report):
    """Tells of the report, unless that is None, for as long as the block takes."""
    begun = time.monotonic() if report and is_wanted() else None
    child = None if begun is None else start_watch(report)
    if child is None:
        yield
        return
    try:
        yield
    finally:
        end_watch(child, time.monotonic() - begun)

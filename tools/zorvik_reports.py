"""The module's four reports as the tools ask for them: of this host, or of a recorded one.

It runs under every Python that there is a module for.
"""
import collections
import ctypes
import io
import os
import re
import sys
import time
import xml.parsers.expat

import zorvik_progress

VERSION = "@PROJECT_VERSION@"  # filled in as the tools are installed
PACKAGES = {2: "python-zorvik-discover", 3: "python3-zorvik-discover"}
if VERSION[0] == "@":
    ROOT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))  # the checkout
    MODULES = os.path.join(ROOT, "build", "python%d" % sys.version_info[0])
    SIMHOST = os.path.join(ROOT, "build", "tools", "simhost", "libsimhost.so")
    SCHEMAS = os.path.join(ROOT, "build", "share", "zorvik")
else:
    ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))  # the prefix
    MODULES = os.path.join(ROOT, "lib", "python2.7" if sys.version_info[0] == 2 else "python3",
                           "dist-packages")
    SIMHOST = os.path.join(ROOT, "lib", "zorvik-discover", "replay", "libsimhost.so")
    SCHEMAS = os.path.dirname(os.path.realpath(__file__))

# What the module answered, as bytes. The document is XML with one root, None where the answer is no
# document by its nature: an identifier, a command that is not understood. It is complete where it is
# well-formed. The time is in seconds.
Report = collections.namedtuple("Report", "status response log document complete seconds")


def status_document(response):
    """What stands behind the status line, None for a rejected command."""
    return None if response.startswith(b"Status: 4") else response.partition(b"\n")[2]


# For each report: how the module is asked for it, and the document of what it answers.
REPORTS = {
    "unique-id": (lambda module: module.unique_id(), lambda _: None),
    "hardware": (lambda module: module.discover_hardware(), lambda response: response),
    "network": (lambda module, indent=0: module.discover_network(indent),
                lambda response: b"<Root>" + response + b"</Root>"),
    "status": (lambda module, command="": module.status(command), status_document),
}


now = getattr(time, "monotonic", time.time)  # Python 2 has no clock that is never set


def fail(reason):
    sys.exit("zorvik-report: " + reason)


def text_bytes(text):
    """The very bytes of a text that may be None."""
    if sys.version_info[0] > 2:
        text = (text or "").encode("utf-8", "surrogateescape")
    return text or b""


def version():
    """The version, of a checkout that of its CMakeLists.txt; None where there is none."""
    if VERSION[0] != "@":
        return VERSION
    try:
        with io.open(os.path.join(ROOT, "CMakeLists.txt"), encoding="utf-8") as lists:
            return str(re.search(r"^project\(.* VERSION (\S+)", lists.read(), re.MULTILINE).group(1))
    except (EnvironmentError, AttributeError):
        return None


def load_module():
    """The module for this Python."""
    sys.path[:0] = [MODULES]
    try:
        import ZorvikDiscoverExtension
    except ImportError as error:
        if not str(error).startswith("No module named"):
            raise ImportError("the module cannot be loaded: %s" % error)
        raise ImportError("no module for this Python: install %s, or build it with script/run"
                          % PACKAGES[sys.version_info[0]])
    return ZorvikDiscoverExtension


def load_host(recording):
    """Has the simulated host, which is preloaded, answer from a recording."""
    error = ctypes.CDLL(None).simhost_load(text_bytes(recording))
    if error:
        fail("cannot read %s: %s" % (recording, os.strerror(error)))


def variable(module, name):
    """A variable that the module exports for its host process."""
    return ctypes.c_int.in_dll(ctypes.CDLL(module.__file__), name)


def set_variable(module, name, value):
    variable(module, name).value = value


def is_complete(document):
    try:
        xml.parsers.expat.ParserCreate().Parse(document, True)
    except xml.parsers.expat.ExpatError:
        return False
    return True


def ask(module, name, *given):
    """Asks for a report: of the network with its indent, of the status with its command, or with neither."""
    call, document_of = REPORTS[name]
    debugs = variable(module, "global_debug_state").value  # its lines tell enough
    with zorvik_progress.told(None if debugs else name):
        begun = now()
        status, response, log = call(module, *given)
        seconds = now() - begun
    response, log = text_bytes(response), text_bytes(log)
    document = document_of(response)
    return Report(status, response, log, document, document is None or is_complete(document), seconds)


def write(descriptor, name, text):
    """Writes all of a text, past the interpreter's own buffer."""
    rest = memoryview(text)
    try:
        while rest:
            rest = rest[os.write(descriptor, rest):]
    except EnvironmentError as error:
        fail("cannot write %s: %s" % (name, error.strerror))


def open_output(path):
    """A descriptor to write a response to, which empties the file: there is something to put in.

    A file that is standard output or error already keeps what was written there.
    """
    if path is None:
        return 1
    try:
        for number in 1, 2:
            if os.path.exists(path) and os.path.samestat(os.stat(path), os.fstat(number)):
                return number
        return os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o666)
    except EnvironmentError as error:
        fail("cannot write %s: %s" % (path, error.strerror))


def write_output(path, text):
    """Writes what a tool has made to a file, or for None to standard output."""
    write(open_output(path), path or "standard output", text)

"""The recorded hosts: the calls made on them and the texts expected of these. For Python 2.7 too."""
import glob
import io
import os
import re
import sys
import xml.etree.ElementTree as ElementTree

HOSTS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "hosts")


def document(function, response):
    """The bytes of the document in a response, the network's elements below a root; None for none."""
    function = function.split(":")[-1]
    if function == "status":
        status_line, _, response = response.partition("\n")
        response = response if status_line == "Status: 200 Success" else None
    if function == "unique_id" or not response:
        return None
    if function == "discover_network":
        response = "<Discover_Network_Result>%s</Discover_Network_Result>" % response
    if not isinstance(response, bytes):
        response = response.encode("utf-8", "replace")  # a name may hold any byte
    return response


def root_of(text):
    """The root element of a document, None where it is not well-formed."""
    try:
        return ElementTree.fromstring(text)
    except ElementTree.ParseError:
        return None


def told_to_be_broken():
    """The host and the label of each document that the README tells not to be well-formed."""
    with io.open(os.path.join(HOSTS, "..", "..", "README.md"), encoding="utf-8") as readme:
        return set(re.findall("^[|] `([a-z-]+)`, `([a-z-]+)` [|]", readme.read(), re.MULTILINE))


def expected(host, label, kind):
    """The text that a call is expected to give, "out" or "log", or None; as the interpreter's own str."""
    path = os.path.join(HOSTS, host, "%s.%s" % (label, kind))
    if not os.path.exists(path):
        return None
    with io.open(path, "rb") as stream:
        text = stream.read()
    return text if sys.version_info[0] == 2 else text.decode("utf-8", "surrogateescape")


def recorded_calls():
    """Lists host, label, expected status, function and arguments of every recorded call."""
    for path in sorted(glob.glob(os.path.join(HOSTS, "*", "calls"))):
        with io.open(path, encoding="utf-8", newline="\n") as calls:  # a command may hold a \r
            for line in calls:
                words = line.rstrip("\n").split(" ", 3) + [""]
                if len(words) > 3 and not line.startswith("#"):
                    host = os.path.basename(os.path.dirname(path))
                    yield host, words[0], int(words[1]), words[2], words[3]

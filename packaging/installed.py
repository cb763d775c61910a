"""Asks an installed zorvik-report for what it has to tell, from outside the checkout.

    installed.py HOST [TOOL]     with a folder of tests/hosts; prints nothing, as long as all is well
"""
import os
import subprocess
import sys

REPORTS = {"discover_hardware": "hardware", "discover_network": "network", "unique_id": "unique-id"}


def run(*command):
    """Exit status, standard output and standard error."""
    ended = subprocess.run(command, cwd="/", stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    return ended.returncode, ended.stdout, ended.stderr


def expected(host, label, kind):
    path = os.path.join(host, label + kind)
    if not os.path.exists(path):
        return b""
    with open(path, "rb") as file:
        return file.read()


def complaints(host, tool="zorvik-report", *options):
    """A line for each call of a recorded host whose answer is not the recorded one."""
    with open(os.path.join(host, "calls")) as calls:
        for line in calls:
            label, status, function, arguments = (line.rstrip("\n").split(" ", 3) + [""])[:4]
            sources, _, function = function.rpartition(":")
            words = [REPORTS.get(function, function)] + [arguments] * bool(arguments)
            words += ["--current"] * bool(sources)
            answer = run(tool, *options, "--host", os.path.abspath(host), *words)
            if answer != (int(status), expected(host, label, ".out"), expected(host, label, ".log")):
                yield "%s: %r" % (label, answer)


if __name__ == "__main__":
    found = list(complaints(*sys.argv[1:]))
    status, response, log = run("zorvik-report", "status")
    if status or not response.startswith(b"Status: 200 Success\n"):
        found.append("status of this machine: %r %r" % (response, log))
    sys.exit("\n".join(found) if found else 0)

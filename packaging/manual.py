#!/usr/bin/python3
"""Fills in a manual page: what the README, the stub and a --help text tell already is taken from there.

    manual.py VERSION PAGE.in PAGE.gz [COMMAND]

Of the lines of PAGE.in, these are replaced:

    .TABLE HEADING      the table below the README's heading, an entry for each row
    .CODE HEADING       the first lines of code below it
    .DOC [FUNCTION]     the stub's documentation, of the module or of a function
    .OPTIONS            the options that COMMAND --help tells
"""
import ast
import gzip
import os
import re
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
STUB = os.path.join(ROOT, "linux_xen", "extensions", "ZorvikDiscoverExtension.pyi")
SIGNS = {"\\": "\\e", "-": "\\-", "'": "\\(aq", "`": "\\(ga", "^": "\\(ha", "~": "\\(ti", '"': "\\(dq"}


def read(*path):
    with open(os.path.join(ROOT, *path), encoding="utf-8") as file:
        return file.read()


def literal(text):
    """Code as it is typed, which typesetting would improve."""
    return "".join(SIGNS.get(sign, sign) for sign in text)


def prose(text):
    """A text with `code` and [links](where); a line of it is no request."""
    parts = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", text).split("`")
    parts[::2] = (part.replace("\\", "\\e") for part in parts[::2])
    parts[1::2] = ("\\fB%s\\fR" % literal(part) for part in parts[1::2])
    return re.sub("^(?=[.'])", "\\&", "".join(parts), flags=re.MULTILINE)


def entry(name, text):
    return ".TP\n%s\n%s\n" % (prose(name), prose(text))


def below(heading):
    found = re.search("^#+ %s\n(.*?)(^#|\\Z)" % re.escape(heading), read("README.md"), re.DOTALL | re.MULTILINE)
    return found.group(1)


def table(heading):
    rows = [[cell.strip() for cell in line.strip("|").split(" | ")]
            for line in below(heading).splitlines() if line.startswith("| ")]
    return "".join(entry(row[0], ". Else: ".join(row[1:])) for row in rows[1:])


def code(heading):
    lines = re.search("^(?: {4}.*\n|\n(?= {4}))+", below(heading), re.MULTILINE).group()
    return ".EX\n%s.EE\n" % literal(re.sub("^ {4}", "", lines, flags=re.MULTILINE))


def documentation(name):
    tree = ast.parse(read(STUB))
    nodes = [tree] + [node for node in tree.body if isinstance(node, ast.FunctionDef)]
    text = ast.get_docstring(next(node for node in nodes if getattr(node, "name", "") == name))
    return prose(text.replace("\n\n", "\n.PP\n")).replace("\\&.PP", ".PP") + "\n"


def options(command):
    told = subprocess.run([command, "--help"], stdout=subprocess.PIPE, env=dict(os.environ, COLUMNS="500"),
                          universal_newlines=True, check=True).stdout
    found = re.findall(r"^  (-\S*(?: \S+)*)(?:  +|\n {9,})(.*(?:\n    +.*)*)", told, re.MULTILINE)
    return "".join(entry("`%s`" % name, re.sub(r"\s+", " ", text)) for name, text in found)


def main(version, source, target, command=None):
    directives = {
        ".TABLE": table, ".CODE": code, ".DOC": documentation, ".OPTIONS": lambda _: options(command),
    }
    page = ""
    for line in read(os.path.abspath(source)).splitlines():
        name, _, rest = line.partition(" ")
        page += directives[name](rest) if name in directives else line.replace("@VERSION@", version) + "\n"
    with open(target, "wb") as file:
        file.write(gzip.compress(page.encode("utf-8"), mtime=0))


if __name__ == "__main__":
    main(*sys.argv[1:])

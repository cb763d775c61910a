#!/usr/bin/python3
"""Writes a package's changelog, in Debian's format, from CHANGELOG.md.

    changelog.py PACKAGE VERSION RELEASE MAINTAINER CHANGELOG.md changelog.gz

RELEASE is what a package's version has behind the project's. The newest section must be VERSION's.
"""
import datetime
import gzip
import os
import re
import sys
import textwrap


def item(text):
    return textwrap.fill(re.sub(r"\s+", " ", text), 78, initial_indent="  * ", subsequent_indent="    ",
                         break_on_hyphens=False)


def main(package, version, release, maintainer, source, target):
    with open(source, encoding="utf-8") as file:
        sections = re.findall(r"^## ([0-9.]+) - ([0-9-]+)\n(.*?)(?=^## |\Z)", file.read(), re.MULTILINE | re.DOTALL)
    if not sections or sections[0][0] != version:
        sys.exit("%s: the newest section is not '## %s - DATE'" % (source, version))
    text = ""
    for number, day, notes in sections:
        items = "\n".join(item(note) for note in re.split("^- ", notes, flags=re.MULTILINE)[1:])
        date = datetime.datetime.strptime(day, "%Y-%m-%d").strftime("%a, %d %b %Y 00:00:00 +0000")
        text += "%s (%s%s) unstable; urgency=medium\n\n%s\n\n -- %s  %s\n\n" % (
            package, number, release, items, maintainer, date)
    os.makedirs(os.path.dirname(target), exist_ok=True)  # Ninja makes the folder of a target, make does not
    with open(target, "wb") as file:
        file.write(gzip.compress(text.encode("utf-8"), mtime=0))


if __name__ == "__main__":
    main(*sys.argv[1:])

#!/usr/bin/python3
"""Reads the schemas of the documents and writes a reference page of their elements.

usage: zorvik_schema.py PAGE FILE...
Each file is a schema (.rng), which becomes a table, or a text, which is shown as it is.
"""
import collections
import html
import os
import sys
import xml.etree.ElementTree as ElementTree

RELAX_NG = "{http://relaxng.org/ns/structure/1.0}"
DOCUMENTATION = "{http://relaxng.org/ns/compatibility/annotations/1.0}documentation"
NUMBERS = {"int", "long", "unsignedByte", "unsignedShort", "unsignedInt", "unsignedLong", "decimal"}

# One element or attribute of a document, as one place of the schema describes it.
#   path      "Status/Memory", "Status/@LocalTime"; "*" stands for any name
#   repeats   whether it can stand several times side by side
#   optional  whether it can be absent
#   content   "elements", "empty", "number", "text", or the texts that it can have, as a tuple
#   comment   its meaning under "", and what it says of "unit", "source" and "absent"
Item = collections.namedtuple("Item", "path repeats optional content comment")


def local_name(node):
    return node.tag[len(RELAX_NG):] if node.tag.startswith(RELAX_NG) else ""


def read_comment(node):
    """Takes a comment apart: lines of meaning, then "unit:", "source:" and "absent:"."""
    comment, field = collections.defaultdict(str), ""
    for line in (node.findtext(DOCUMENTATION) or "").splitlines():
        word, colon, rest = line.partition(": ")
        if colon and word in ("unit", "source", "absent"):
            field, line = word, rest
        comment[field] = (comment[field] + " " + line).strip()
    return dict(comment)


def read_content(nodes, defines):
    """Classes what an element holds by the patterns inside, those of its attributes aside."""
    kinds, values = set(), []
    for node in nodes:
        name = local_name(node)
        if name == "ref":
            inner = read_content(defines[node.get("name")], defines)
        elif name == "value":
            inner = (node.text or "",)
        elif name == "data":
            inner = "number" if node.get("type") in NUMBERS else "text"
        elif name in ("element", "text", "empty"):
            inner = "elements" if name == "element" else name
        elif name in ("choice", "group", "mixed", "optional", "zeroOrMore", "oneOrMore"):
            inner = read_content(node, defines)
        else:
            continue  # attributes, names, comments
        if isinstance(inner, tuple):
            values += inner
        elif inner:
            kinds.add(inner)
    for kind in "elements", "text", "number":
        if kind in kinds:
            return kind
    return tuple(values) or ("empty" if kinds else None)


def read_items(nodes, defines, parent="", repeats=False, optional=False):
    for node in nodes:
        name = local_name(node)
        if name == "ref":
            yield from read_items(defines[node.get("name")], defines, parent, repeats, optional)
        elif name in ("element", "attribute"):
            path = node.findtext(RELAX_NG + "name", "*")
            path = parent + ("@" if name == "attribute" else "") + path
            yield Item(path, repeats, optional, read_content(node, defines) or "text",
                       read_comment(node))
            yield from read_items(node, defines, path + "/")
        else:
            yield from read_items(node, defines, parent, repeats or name.endswith("OrMore"),
                                  optional or name in ("optional", "zeroOrMore", "choice"))


def read_schema(path):
    """Lists the elements and attributes of a schema in the document's order."""
    grammar = ElementTree.parse(path).getroot()
    defines = {define.get("name"): define for define in grammar.findall(RELAX_NG + "define")}
    return list(read_items(grammar.findall(RELAX_NG + "start"), defines))


def check_comment(item):
    """Tells what is wrong with a comment, so that no element stays unexplained."""
    if not item.comment.get("") or not item.comment.get("source"):
        return "no meaning or no source"
    if item.content == "number" and not item.comment.get("unit"):
        return "a number without a unit"
    can_be_absent = item.optional and not item.repeats and "@" not in item.path
    if can_be_absent != ("absent" in item.comment):
        return "absent, but never said when" if can_be_absent else "said to be absent, but is not"
    return None


def row(item):
    words = item.content
    if isinstance(words, tuple):
        words = "one of " + ", ".join(word or "(empty)" for word in words) if words[1:] else words[0]
    unit = item.comment.get("unit", "none")
    absent = item.comment.get("absent", "never")
    if item.repeats:
        absent = "any number of times" if item.optional else "once or more"
    cells = (item.comment[""], words if unit == "none" else "%s, %s" % (words, unit),
             item.comment["source"], absent)
    return "<tr><td><code>%s</code></td>%s</tr>" % (
        html.escape(item.path), "".join("<td>%s</td>" % html.escape(cell) for cell in cells))


def section(path):
    """Shows a schema as a table, or a text as it is."""
    name, extension = os.path.splitext(os.path.basename(path))
    if extension != ".rng":
        with open(path, encoding="utf-8") as stream:
            content = "<pre>%s</pre>" % html.escape(stream.read())
    else:
        items = read_schema(path)
        for item in items:
            if complaint := check_comment(item):
                sys.exit("%s: %s: %s" % (path, item.path, complaint))
        heads = "Element", "Meaning", "Content and unit", "Source", "Absent"
        content = "<table>\n<tr>%s</tr>\n%s\n</table>" % (
            "".join("<th>%s</th>" % head for head in heads),
            "\n".join(dict.fromkeys(map(row, items))))  # branches can say the same
    return "<h2>%s</h2>\n%s\n" % (html.escape(name.replace("-", " ")), content)


def main(arguments):
    if len(arguments) < 2:
        sys.exit(__doc__)
    sections = "".join(map(section, arguments[1:]))
    with open(arguments[0], "w", encoding="utf-8") as page:
        page.write("""<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"><title>ZorvikDiscoverExtension: the documents</title>
<style>
body { font-family: sans-serif; margin: 2em }
table { border-collapse: collapse }
td, th { border: 1px solid #aaa; padding: 0.2em 0.5em; text-align: left; vertical-align: top }
</style></head><body>
<h1>The documents of ZorvikDiscoverExtension</h1>
<p>Each element stands below its parent, attributes with an @; * is any name.</p>
%s</body></html>
""" % sections)


if __name__ == "__main__":
    try:
        main(sys.argv[1:])
    except (OSError, UnicodeDecodeError, ElementTree.ParseError) as error:
        sys.exit("zorvik_schema.py: %s" % error)

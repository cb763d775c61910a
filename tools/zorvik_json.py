"""A report as JSON. What is a list and what is a number is the schema's to say, not the document's.

An object has the report's "status", its "log" as a list of lines and its "document", null where there
is none or it cannot be read; a status has its "status_line" too, and the identifier, which is plain
text, is its document itself.
"""
import collections
import json
import os
import xml.etree.ElementTree as ElementTree

import zorvik_schema
from zorvik_reports import SCHEMAS

# The root that stands for each in its schema; the network's elements are side by side.
ROOTS = {"hardware": "Discover_Hardware_Result", "network": "Discover_Network_Result", "status": "Status"}


# What a schema says of a path: whether it repeats, what it holds, and which of its elements repeat.
Shape = collections.namedtuple("Shape", "repeats contents lists")
UNKNOWN = Shape(False, {"text"}, ())


def read_shapes(name):
    """The shape of each path in a document's schema, which can describe one in several branches."""
    shapes = {}
    for item in zorvik_schema.read_schema(os.path.join(SCHEMAS, name + ".rng")):
        known = shapes.get(item.path, Shape(False, set(), []))
        shapes[item.path] = Shape(known.repeats or item.repeats, known.contents | {item.content}, known.lists)
        parent, _, tag = item.path.rpartition("/")
        if item.repeats and tag != "*" and tag not in shapes[parent].lists:
            shapes[parent].lists.append(tag)
    return shapes


def shape_of(path, shapes):
    """That of a path: by its name, or where it can have any by its parent's."""
    return shapes.get(path) or shapes.get(path.rpartition("/")[0] + "/*") or UNKNOWN


def value_of(text, shape):
    """A text, or the integer that it is; one kind of them has a full stop behind it."""
    try:
        return int(text[:-1] if text.endswith(".") else text) if shape.contents == {"number"} else text
    except ValueError:
        return text


def object_of(element, path, shapes):
    """An element: its text where it can have nothing else, else an object of attributes and elements."""
    shape = shape_of(path, shapes)
    content = {"@" + name: value_of(value, shape_of("%s/@%s" % (path, name), shapes))
               for name, value in element.items()}
    content.update((tag, []) for tag in shape.lists)
    for child in element:
        child_path = path + "/" + child.tag
        value = object_of(child, child_path, shapes)
        if shape_of(child_path, shapes).repeats:
            content.setdefault(child.tag, []).append(value)
        else:
            content[child.tag] = value
    text = "".join([element.text or ""] + [child.tail or "" for child in element])
    if not content and "elements" not in shape.contents:
        return value_of(text, shape)
    if text.strip():
        content["#text"] = value_of(text.strip(), shape)
    return content


def document_of(name, document):
    """The object of a document, None where it is not well-formed; odd bytes are replaced."""
    try:
        root = ElementTree.fromstring(document.decode("utf-8", "replace").encode("utf-8"))
    except ElementTree.ParseError:
        return None
    return object_of(root, ROOTS[name], read_shapes(name))


def write_json(name, report, log):
    """The JSON text of a report, all of it ASCII, as bytes."""
    told = {"status": report.status, "log": log.decode("utf-8", "backslashreplace").splitlines()}
    response = report.response.decode("utf-8", "replace")
    if name == "status":
        told["status_line"] = response.partition("\n")[0]
    if name == "unique-id":
        told["document"] = response or None
    else:
        told["document"] = None if report.document is None else document_of(name, report.document)
    return (json.dumps(told, indent=2) + "\n").encode("ascii")

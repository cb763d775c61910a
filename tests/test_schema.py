"""The schemas: every recorded document is valid, and with one thing wrong in it no longer is.

xmllint reads the form made from the schemas (in the folder SCHEMAS), jing their source.
"""
import collections
import copy
import json
import os
import re
import subprocess
import sys
import tempfile
import unittest
from xml.etree import ElementTree

from recorded import document, expected, recorded_calls, root_of

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tools"))
import zorvik_json
import zorvik_reports
import zorvik_schema

MADE = os.path.join(os.path.abspath(os.environ["SCHEMAS"]), "%s.rng")
SOURCE = os.path.join(ROOT, "share", "zorvik", "%s.rnc")
JING = "/usr/share/java/jing.jar"
SCHEMAS = {"discover_hardware": "hardware", "discover_network": "network", "status": "status"}

CHANGES = {
    "renamed": lambda element, parent, key: setattr(element, "tag", "Renamed"),
    "stranger": lambda element, parent, key: ElementTree.SubElement(element, "Stranger"),
    "removed": lambda element, parent, key: parent.remove(element),
    "emptied": lambda element, parent, key: element.__setitem__(slice(None), []),
    "repeated": lambda element, parent, key: parent.insert(list(parent).index(element), element),
    "letter": lambda element, parent, key: setattr(element, "text", "x" + (element.text or "")),
    "removed @": lambda element, parent, key: element.attrib.pop(key),
    "letter @": lambda element, parent, key: element.set(key, "x" + element.get(key)),
}


def recorded_documents():
    """The well-formed recorded documents of each schema, {schema: {"host/label": bytes}}."""
    documents = collections.defaultdict(dict)
    for host, label, _, function, _ in recorded_calls():
        text = document(function, expected(host, label, "out"))
        if text and root_of(text) is not None:
            documents[SCHEMAS[function.split(":")[-1]]][host + "/" + label] = text
    return documents


def refused(schema, documents):
    """The names of those documents that xmllint refuses, and of those that jing does."""
    with tempfile.TemporaryDirectory() as folder:
        names = {"%d.xml" % number: name for number, name in enumerate(documents)}
        for file, name in names.items():
            with open(os.path.join(folder, file), "wb") as stream:
                stream.write(documents[name])
        linted, jinged = (
            subprocess.run(command + list(names), cwd=folder, stdout=subprocess.PIPE,
                           stderr=subprocess.STDOUT, encoding="utf-8").stdout
            for command in (["xmllint", "--nonet", "--noout", "--relaxng", MADE % schema],
                            ["java", "-jar", JING, "-c", SOURCE % schema]))
    valid = re.findall(r"^(\d+\.xml) validates$", linted, re.M)
    wrong = re.findall(r"([^/\n]+):\d+:\d+: error", jinged)
    return set(documents) - {names[file] for file in valid}, {names[file] for file in wrong}


def accepted_changes():
    """What the file beside this one says is valid all the same, {what: {"parent/element"}}."""
    accepted = collections.defaultdict(set)
    with open(os.path.join(ROOT, "tests", "schema-accepted"), encoding="ascii") as lines:
        for what, _, elements in (line.partition(": ") for line in lines if ": " in line):
            accepted[what].update(elements.split())
    return accepted


def instances(element, path="", parent=None, branch=None):
    """All that a document holds, in its order: path, the Type that it is below, element and parent."""
    path, branch = path + "/" + element.tag, element.get("Type", branch)
    yield path, branch, element, parent
    for child in element:
        yield from instances(child, path, element, branch)


def tags(element, besides=None):
    return frozenset(child.tag for child in element if child is not besides) if element is not None else ()


def spoilt(texts, described):
    """
    Spoils an element of each path, the one in the largest company, in every way but those that other
    recorded documents show to be right: {(what, path, ...): bytes}.
    """
    roots = sorted(map(ElementTree.fromstring, texts), key=lambda root: len(list(root.iter())))
    samples, companies, plural = {}, collections.defaultdict(set), set()
    for root in roots:
        for number, (path, branch, element, parent) in enumerate(instances(root)):
            companies[path].add(tags(element))
            if parent is not None and len(parent.findall(element.tag)) > 1:
                plural.add(path)
            largest = samples.get((path, branch))
            if path in described and (not largest or len(tags(parent)) > len(tags(largest[3]))):
                samples[path, branch] = root, number, element, parent
    documents = {}
    for (path, branch), (root, number, element, parent) in samples.items():
        wrongs = [("renamed", None), ("stranger", None), ("letter", None)]
        if parent is not None and tags(parent, element) not in companies[path.rpartition("/")[0]]:
            wrongs.append(("removed", None))
        if len(element) and frozenset() not in companies[path]:
            wrongs.append(("emptied", None))
        if parent is not None and path not in plural:
            wrongs.append(("repeated", None))
        wrongs += [(wrong, key) for key in element.keys() for wrong in ("removed @", "letter @")]
        for wrong, key in wrongs:
            copied = copy.deepcopy(root)
            CHANGES[wrong](*list(instances(copied))[number][2:], key)
            documents[wrong, path, key, branch] = ElementTree.tostring(copied)
    return documents


class SchemaTest(unittest.TestCase):
    maxDiff = None

    def test_recorded_documents(self):
        for schema, texts in recorded_documents().items():
            self.assertEqual(refused(schema, texts), (set(), set()))

    def test_spoilt_documents(self):
        accepted = collections.defaultdict(set)
        for schema, texts in recorded_documents().items():
            items = zorvik_schema.read_schema(MADE % schema)
            documents = spoilt(texts.values(), {"/" + item.path for item in items})
            by_xmllint, by_jing = refused(schema, documents)
            self.assertEqual(by_xmllint, by_jing)
            for wrong, path, *_ in set(documents) - by_xmllint:
                accepted[wrong].add("/".join(path.split("/")[-2:]))
        self.assertEqual(accepted, accepted_changes())

    def test_json(self):
        """A path has one kind of value in all documents, and none of their texts is lost."""
        kinds, leaves = collections.defaultdict(set), []

        def walk(value, path):
            kinds[path].add(type(value))
            for key in value if isinstance(value, dict) else ():
                walk(value[key], path + "/" + key)
            for item in value if isinstance(value, list) else ():
                walk(item, path + "[]")
            if not isinstance(value, (dict, list)):
                leaves.append(str(value).strip())

        zorvik_json.SCHEMAS = os.environ["SCHEMAS"]
        for schema, texts in recorded_documents().items():
            for name, text in texts.items():
                report = zorvik_reports.Report(0, b"", b"", text, True, 0)
                told = json.loads(zorvik_json.write_json(schema, report, b"a\n\xff\x1b"))
                self.assertEqual(told["log"], ["a", "\\xff\x1b"])
                leaves.clear()
                walk(told["document"], schema)
                words = {"".join(element.itertext()).strip() for element in ElementTree.fromstring(text).iter()
                         if not len(element) and element.tag != "ChildSystemTime"}
                self.assertLessEqual(words - {""}, set(leaves), name)
        self.assertEqual({path for path in kinds if len(kinds[path]) > 1}, set())
        for path, kind in (("network/Network/Device[]/SysFS/mtu", list),
                           ("status/Domains/Domain[]/@Id", int),
                           ("status/Processes/Process[]/RUsage/ChildSystemTime", int),
                           ("hardware/NodeInformation/DMTF/System[]/SerialNumber", str)):
            self.assertEqual(kinds[path], {kind}, path)


if __name__ == "__main__":
    unittest.main()

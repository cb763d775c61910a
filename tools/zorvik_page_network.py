"""The picture of a host's network, from its cards to its domains, drawn by Graphviz."""
import re
import shutil
import subprocess
import tempfile
import xml.etree.ElementTree

from zorvik_metrics_series import LINK_STATES
from zorvik_page_facts import BAD_STATES, by_name, is_down, link_up, natural, speed, told

SECONDS = 30  # that drawing may take
LONGEST = 48  # characters of a name in the picture
SVG = "http://www.w3.org/2000/svg"
ROW = 6  # cards that nothing is joined to, side by side
VIRTUAL = re.compile(r"vif([0-9]{1,9})\.[0-9]+", re.ASCII)  # the interface of a domain
HEAD = """digraph {
rankdir=LR; bgcolor=transparent; nodesep=0.12; pad=0.1; splines=line; outputorder=edgesfirst;
node [shape=box, style="rounded,filled", fontname="Helvetica,Arial,sans-serif", fontsize=11];
node [height=0.3, margin="0.14,0.05"];
edge [arrowhead=none, tailport=e, headport=w];
"""


def quoted(*lines):
    """A label of these lines as Graphviz takes it, which reads backslashes and the names of characters."""
    texts = (re.sub(r"[\x00-\x1f\x7f-\x9f\s]", " ", line) for line in lines if line)
    texts = (text if len(text) <= LONGEST else text[:LONGEST - 1] + "\u2026" for text in texts)
    return '"%s"' % "\\n".join(text.replace("&", "&amp;").replace("\\", "\\\\").replace('"', '\\"') for text in texts)


class Graph:
    """Nodes by kind and name, in the order in which they are first told of, and the edges between them."""

    def __init__(self):
        self.nodes, self.edges = {}, {}

    def add(self, name, kind, note="", down=False):
        """What is told of a name first is what it is."""
        self.nodes.setdefault(name, (kind, note, down))

    def join(self, left, right, down=False):
        if left != right and (right, left) not in self.edges:
            self.edges[left, right] = down or self.edges.get((left, right), False)

    def text(self):
        ids = {name: "n%d" % place for place, name in enumerate(self.nodes, 1)}
        joined = {name for edge in self.edges for name in edge}
        alone = [ids[name] for name in self.nodes if name not in joined]
        # Wider where many lines leave a bridge, or they would run into one another.
        lines = [HEAD, "ranksep=%.1f;" % (0.7 + min(len(self.edges), 150) / 120)]
        rows = {node: place // ROW for place, node in enumerate(alone)}
        # What is told of last is drawn on top.
        for name in sorted(self.nodes, key=lambda name: -rows.get(ids[name], -1)):
            kind, note, down = self.nodes[name]
            lines.append('%s [label=%s, class="%s%s"];' % (ids[name], quoted(name[1], note), kind, " down" * down))
        for kind, rank in ("card", "min"), ("domain", "max"):
            alike = [ids[name] for name, (found, _, _) in self.nodes.items() if found == kind and name in joined]
            lines += ["{rank=%s; %s}" % (rank, "; ".join(alike))] * bool(alike)
        for (left, right), down in self.edges.items():
            lines.append('%s -> %s [class="%s"];' % (ids[left], ids[right], "down" if down else ""))
        for begin in range(0, len(alone), ROW):
            row = alone[begin:begin + ROW]
            lines += [" -> ".join(row) + " [style=invis];"] * (len(row) > 1)  # else it would be of the node
        return "\n".join(lines) + "\n}\n"


def state_note(up, text=""):
    return "down" if is_down(up) else ", ".join(part for part in ("up" if up else "", text) if part)


def graph(network, status):
    """The network as nodes: devices by their names, domains by their numbers."""
    made = Graph()
    found = {device.get("Name", ""): device for device in
             [*network.iterfind("Network/Device"), *network.iterfind("Infiniband/Device")]}
    bonds = {bond.get("Name", ""): bond for bond in by_name(network.iterfind("Bonding/Device"))}
    bridges = {bridge.get("Name", ""): bridge for bridge in by_name(network.iterfind("Bridges/Device"))}

    def device(name):
        return "device", name

    def add_port(name):
        """What no element of its own describes: an interface of a domain, or one that only a bridge knows."""
        made.add(device(name), "virtual" if VIRTUAL.fullmatch(name) else "other")
        return device(name)

    for name in sorted(found, key=natural):
        one = found[name]
        up = link_up(one)
        if name not in bonds and name not in bridges:
            vlan = told(one, "Vlanid")
            kind = "virtual" if VIRTUAL.fullmatch(name) else "vlan" if vlan else "card"
            made.add(device(name), kind, state_note(up, "VLAN " + vlan if vlan else speed(one)), is_down(up))
    for name, bond in bonds.items():
        up = LINK_STATES.get(told(bond, "MII_Status"))
        made.add(device(name), "bond", state_note(up, told(bond, "Bonding_Mode")), is_down(up))
        for slave in by_name(bond.iterfind("Slave_Interface")):
            below = LINK_STATES.get(told(slave, "MII_Status"))
            made.add(device(slave.get("Name", "")), "card", state_note(below), is_down(below))
            made.join(device(slave.get("Name", "")), device(name), is_down(below))
    for name in bridges:
        made.add(device(name), "bridge", "bridge")
    for name, one in found.items():
        if told(one, "Basename"):
            made.join(add_port(told(one, "Basename")), device(name), is_down(link_up(one)))
    for name, bridge in bridges.items():
        for port in bridge.iterfind("Interfaces/PhyInterface"):
            made.join(add_port(told(port, ".")), device(name), made.nodes[device(told(port, "."))][2])
        for port in sorted((told(port, ".") for port in bridge.iterfind("Interfaces/VirtInterface")), key=natural):
            made.join(device(name), add_port(port), made.nodes[device(port)][2])
    running = {domain.get("Id"): domain for domain in status.iterfind("Domains/Domain")}
    for kind, name in sorted((name for name, (kind, _, _) in made.nodes.items() if kind == "virtual"),
                             key=lambda name: natural(name[1])):
        number = VIRTUAL.fullmatch(name).group(1)
        trouble = "not listed" if running and number not in running else ", ".join(
            state.lower() for state in BAD_STATES if running and running[number].find("State/" + state) is not None)
        domain = "domain", "Domain %s%s" % (number, trouble and ": " + trouble)
        made.add(domain, "domain", down=bool(trouble))
        made.join((kind, name), domain)
    return made


def described(svg):
    """An SVG text of Graphviz as a part of a page: without names of its own, told of to whom cannot see it."""
    xml.etree.ElementTree.register_namespace("", SVG)
    root = xml.etree.ElementTree.fromstring(svg)
    for element in root.iter("{%s}g" % SVG):
        element.attrib.pop("id", None)
        for title in element.findall("{%s}title" % SVG):
            element.remove(title)
    root.set("role", "img")
    root.set("aria-labelledby", "picture-title")
    title = xml.etree.ElementTree.Element("{%s}title" % SVG, id="picture-title")
    title.text = "The network from the cards, through bonds and bridges, to the domains"
    root.insert(0, title)
    return xml.etree.ElementTree.tostring(root, "unicode")


def draw(network, status):
    """(the picture as SVG, or None; what stands against it, or None)"""
    made = graph(network, status)
    if not made.nodes:
        return None, None
    dot = shutil.which("dot")
    if dot is None:
        return None, "no picture of the network: it takes the package graphviz, which is not installed"
    try:
        with tempfile.TemporaryFile() as text:  # no pipe: one that is not read to its end would end this process
            text.write(made.text().encode("utf-8", "replace"))
            text.seek(0)
            drawn = subprocess.run([dot, "-Tsvg"], stdin=text, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                   timeout=SECONDS, check=True)
        return described(drawn.stdout), None
    except subprocess.TimeoutExpired:
        return None, "no picture of the network: Graphviz took longer than %d seconds" % SECONDS
    except (OSError, subprocess.CalledProcessError, xml.etree.ElementTree.ParseError) as error:
        reason = getattr(error, "returncode", None)
        return None, "no picture of the network: Graphviz failed: %s" % (
            error if reason is None else "it ended with %d" % reason)

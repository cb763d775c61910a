"""Makes a page of this host to look at: one HTML file that needs nothing else and runs no script.

On top is a picture of the network, from the cards to the domains; below it the machine, processors, memory,
domains, shares, Fibre Channel, management controller, and what the reports logged.

examples:
  zorvik-report page -o host.html
  zorvik-report page --host tests/hosts/rack-server -o host.html
"""
import collections
import os

import zorvik_reports
from zorvik_reports import fail

HERE = os.path.dirname(os.path.realpath(__file__))
STATUS = "Option: All Option: Dom_Info_Brief Option: Bridge_Config"
REPORTS = (("unique-id", ()), ("hardware", ()), ("network", (0,)), ("status", (STATUS,)))

# A report as the page tells of it: whether it is all there, and the lines of its log text.
Told = collections.namedtuple("Told", "name whole status log")


def add_arguments(parser):
    """It has no arguments of its own."""


def template():
    try:
        import jinja2
    except ImportError:
        fail("a page takes the package python3-jinja2, which is not installed")
    return jinja2.Environment(autoescape=True, trim_blocks=True, lstrip_blocks=True, undefined=jinja2.StrictUndefined,
                              loader=jinja2.FileSystemLoader(HERE)).get_template("page.html.j2")


def run(module, arguments):
    page = template()  # first: nobody waits for a report in vain
    import zorvik_page_facts  # and the picture: no plain report waits for what they take
    import zorvik_page_network
    from zorvik_metrics_series import readable
    answers = {name: zorvik_reports.ask(module, name, *given) for name, given in REPORTS}
    told = [Told(name, answer.complete and answer.status == 0, answer.status,
                 readable(answer.log).splitlines()) for name, answer in answers.items()]
    identifier = readable(answers["unique-id"].response).strip()
    hardware, network, status = (zorvik_page_facts.read(answers[name].document)
                                 for name in ("hardware", "network", "status"))
    picture, trouble = zorvik_page_network.draw(network, status)
    if trouble:
        zorvik_reports.write(2, "standard error", zorvik_reports.text_bytes("zorvik-report: %s\n" % trouble))
    text = page.render(
        zorvik_page_facts.facts(identifier, hardware, network, status), reports=told, picture=picture, trouble=trouble,
        recorded=arguments.host, version=zorvik_reports.version() or "")
    zorvik_reports.write_output(arguments.output, text.encode("utf-8", "replace"))
    return 0

"""Prints the state of this host as metrics for Prometheus, or serves them.

They are made from the reports unique-id, network and status, and with --hardware from that one too. What
a document lacks has no series; zorvik_report_success and zorvik_report_log_lines tell of it.

examples:
  zorvik-report metrics
  zorvik-report metrics -o /var/lib/prometheus/node-exporter/zorvik.prom
  zorvik-report metrics --listen :9105                    on the loopback address
  zorvik-report metrics --listen 192.0.2.10:9105
"""
import argparse
import os
import re
import tempfile
import threading
import types

import zorvik_reports
from zorvik_reports import fail


def listen_address(text):
    """(ADDRESS, PORT) of a text such as 192.0.2.10:9105, [::1]:9105 or :9105."""
    found = re.fullmatch(r"(?:\[([^][]+)\]|([^][:]*)):([0-9]{1,5})", text)
    if not found or int(found.group(3)) > 65535:
        raise argparse.ArgumentTypeError("no ADDRESS:PORT such as :9105 or [::1]:9105: %s" % ascii(text))
    return found.group(1) or found.group(2) or "127.0.0.1", int(found.group(3))


def add_arguments(parser):
    parser.add_argument("--listen", metavar="ADDRESS:PORT", type=listen_address,
                        help="serve the metrics by HTTP, read afresh for each request; without ADDRESS on "
                             "127.0.0.1")
    parser.add_argument("--openmetrics", action="store_true",
                        help="OpenMetrics text; else it is Prometheus' text, which alone the textfile "
                             "directory of its node exporter takes. --listen gives what is asked for")
    parser.add_argument("--hardware", action="store_true",
                        help="ask for the hardware report too, which a silent management controller makes "
                             "seconds long")


def replace_file(path, text):
    """Replaces a file as a whole: a reader finds either the old or the new one, whoever else writes it.

    The new one is hidden, and ends otherwise, until it is in its place: the node exporter takes all *.prom.
    """
    path = os.path.realpath(path)  # a link to it stays
    folder, name = os.path.split(path)
    new = None
    try:
        descriptor, new = tempfile.mkstemp(".new", ".%s." % name[:128], folder)
        with open(descriptor, "wb") as stream:
            stream.write(text)
            os.fchmod(descriptor, 0o644)
        os.replace(new, path)
    except OSError as error:
        if new is not None and os.path.exists(new):
            os.unlink(new)
        fail("cannot write %s: %s" % (path, error.strerror))


def write_metrics(path, text):
    """To a device or pipe as to standard output, for none could take its place."""
    if path is None or (os.path.exists(path) and not os.path.isfile(path)):
        zorvik_reports.write_output(path, text)
    else:
        replace_file(path, text)


def run(module, arguments):
    try:
        from prometheus_client import exposition
        from prometheus_client.openmetrics import exposition as openmetrics
    except ImportError:
        fail("metrics take the package python3-prometheus-client, which is not installed")
    if arguments.listen and arguments.output:
        fail("--listen serves the metrics, and --output writes them: one of them, please")
    import zorvik_metrics_series  # and the server below: no plain report waits for what they take
    # To the client library it is a registry, which it asks for its families with each text it makes.
    host = types.SimpleNamespace(
        collect=lambda: zorvik_metrics_series.read_host(module, arguments.hardware))
    if arguments.listen is None:
        encode = openmetrics.generate_latest if arguments.openmetrics else exposition.generate_latest
        write_metrics(arguments.output, encode(host))
        return 0
    import zorvik_metrics_server
    one_at_a_time = threading.Lock()

    def answer(accept):
        encode, content_type = exposition.choose_encoder(accept)
        with one_at_a_time:
            return content_type, encode(host)

    return zorvik_metrics_server.serve(arguments.listen, answer)

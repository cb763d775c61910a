"""The server of the metrics: one page, for a scraper that may be slow, gone or a stranger."""
import gzip
import http.server
import signal
import socket
import socketserver
import threading

from zorvik_reports import fail, text_bytes, write

IDLE_SECONDS = 10  # that a client may say and take nothing
REQUEST_SECONDS = 60  # that it may take altogether
CONNECTIONS = 32  # at a time; what comes beyond is closed


class Scrape(http.server.BaseHTTPRequestHandler):
    timeout = IDLE_SECONDS
    server_version, sys_version = "zorvik-report", ""

    def do_GET(self):
        if self.path.partition("?")[0] not in ("/", "/metrics"):
            self.send_error(404)
            return
        content_type, body = self.server.answer(self.headers.get("Accept", ""))
        self.send_response(200)
        self.send_header("Content-Type", content_type)
        if "gzip" in self.headers.get("Accept-Encoding", ""):
            self.send_header("Content-Encoding", "gzip")
            body = gzip.compress(body, 1)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, format, *arguments):
        """Nothing: a line for each scrape would fill the journal."""


class Server(socketserver.ThreadingTCPServer):
    allow_reuse_address = True
    daemon_threads = True
    request_queue_size = 128

    def __init__(self, family, address, answer):
        self.address_family = family
        self.answer = answer
        self.places = threading.BoundedSemaphore(CONNECTIONS)
        super().__init__(address, Scrape)

    def process_request(self, request, client_address):
        if not self.places.acquire(blocking=False):
            self.shutdown_request(request)
            return
        try:
            super().process_request(request, client_address)
        except RuntimeError:  # no more threads
            self.places.release()
            self.shutdown_request(request)

    def process_request_thread(self, request, client_address):
        limit = threading.Timer(REQUEST_SECONDS, close_slowly_read, [request])
        try:
            limit.start()
            super().process_request_thread(request, client_address)
        finally:
            limit.cancel()
            self.places.release()

    def handle_error(self, request, client_address):
        """Nothing: the client is gone, which is its own affair."""


def close_slowly_read(connection):
    try:
        connection.shutdown(socket.SHUT_RDWR)
    except OSError:
        pass  # it ended just now


def serve(address, answer):
    """Serves what answer(ACCEPT) gives, a content type and bytes, until a signal ends the process."""
    # A client that is gone must not end the server. A handler, unlike SIG_IGN, is not handed on to the
    # tools that a report starts.
    signal.signal(signal.SIGPIPE, lambda *_: None)
    try:
        family, _, _, _, found = socket.getaddrinfo(*address, type=socket.SOCK_STREAM)[0]
        server = Server(family, found, answer)
    except (OSError, UnicodeError) as error:
        fail("cannot listen on %s, port %d: %s" % (*address, getattr(error, "strerror", None) or error))
    place = "[%s]:%d" if family == socket.AF_INET6 else "%s:%d"
    write(2, "standard error",
          text_bytes("zorvik-report: serving http://%s/metrics\n" % (place % server.server_address[:2])))
    server.serve_forever()
    return 0

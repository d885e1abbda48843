#!/usr/bin/env python3
"""The fault server: an HTTP/1.1 server that misbehaves on purpose, so the tests can show how the
mirror and the transfer tool meet servers that hang, reset, cut answers short or change files.

The request path chooses the behaviour; whatever follows the listed parts is free for the test
(a file name, a unique folder):

  /hang/...                 reads the request and never answers
  /reset/...                closes the connection with a TCP reset before any answer
  /short/<N>/...            200 with Content-Length N, sends N/2 bytes, closes
  /status/<CODE>/...        that status code with a small body
  /bytes/<N>/...            200 with exactly N bytes ("0123456789" repeated)
  /slow/<N>/<MS>/...        N bytes, a pause of MS milliseconds between 1 KB chunks
  /toggle/<A>/<B>/<key>/... A bytes, then B bytes, then A... on successive requests for <key>
  /count/<key>              how many requests <key> has seen (digits only); a <key> with a slash
                            in it is a request path: /count/bytes/10/a.bin counts /bytes/10/a.bin

Everything else is 404. Requests in absolute-URI form (as a proxy would send them) work too.
"""

import argparse
import http.server
import os
import select
import socket
import socketserver
import struct
import sys
import threading
import time
import urllib.parse

PATTERN = b"0123456789"
SEND_CHUNK = 64 * 1024
SLOW_CHUNK = 1024


def pattern_bytes(offset, length):
    """length bytes of the repeating pattern, starting at byte offset of the whole body"""
    start = offset % len(PATTERN)
    reps = (start + length) // len(PATTERN) + 1
    return (PATTERN * reps)[start : start + length]


class Counters:
    """Requests seen so far, by toggle key and by request path."""

    def __init__(self):
        self._lock = threading.Lock()
        self._keys = {}
        self._paths = {}

    def hit_path(self, path):
        with self._lock:
            self._paths[path] = self._paths.get(path, 0) + 1

    def hit_key(self, key):
        """counts one more request for key and returns the number seen, this one included"""
        with self._lock:
            self._keys[key] = self._keys.get(key, 0) + 1
            return self._keys[key]

    def get(self, key):
        with self._lock:
            if "/" in key:
                return self._paths.get("/" + key, 0)
            return self._keys.get(key, 0)


def parse_count(text):
    """a non-negative decimal number, or None"""
    if not (text.isascii() and text.isdigit()):
        return None
    return int(text)


class FaultHandler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True  # each /slow chunk leaves at once
    server_version = "EmFaultServer/1"

    def version_string(self):
        return self.server_version

    def do_GET(self):
        self._dispatch(head=False)

    def do_HEAD(self):
        self._dispatch(head=True)

    def log_message(self, format, *args):
        self.server.log("%s %s" % (self.address_string(), format % args))

    def _dispatch(self, head):
        # origin form "/bytes/10/a" or absolute form "http://host:port/bytes/10/a"
        if self.path.startswith("/"):
            path = self.path.split("?", 1)[0]
        else:
            path = urllib.parse.urlsplit(self.path).path or "/"
        parts = path.split("/")[1:]
        kind, args = parts[0], parts[1:]
        numbers = [parse_count(a) for a in args]

        def numeric(n):
            """whether the first n arguments are there and are numbers"""
            return len(numbers) >= n and None not in numbers[:n]

        counters = self.server.counters
        if kind != "count":
            counters.hit_path(path)

        if kind == "hang":
            self.server.log("%s hang %s" % (self.address_string(), path))
            self._hang()
        elif kind == "reset":
            self.server.log("%s reset %s" % (self.address_string(), path))
            self._reset()
        elif kind == "short" and numeric(1):
            self._send_head(200, numbers[0])
            if not head:
                self._send_pattern(numbers[0] // 2)
            self.close_connection = True
        elif kind == "status" and numeric(1) and 200 <= numbers[0] <= 599:
            code = numbers[0]
            bodiless = code in (204, 304)
            body = b"" if bodiless else ("status %d\n" % code).encode()
            self._send_head(code, len(body), "text/plain", with_length=not bodiless)
            if not head:
                self.wfile.write(body)
        elif kind == "bytes" and numeric(1):
            self._send_head(200, numbers[0])
            if not head:
                self._send_pattern(numbers[0])
        elif kind == "slow" and numeric(2):
            self._send_head(200, numbers[0])
            if not head:
                self._send_pattern(numbers[0], chunk=SLOW_CHUNK, pause=numbers[1] / 1000.0)
        elif kind == "toggle" and numeric(2) and len(args) >= 3 and args[2]:
            seen = counters.hit_key(args[2])
            n = numbers[0] if seen % 2 == 1 else numbers[1]
            self._send_head(200, n)
            if not head:
                self._send_pattern(n)
        elif kind == "count" and args and args[-1]:
            self._send_text(200, "%d" % counters.get("/".join(args)), head)
        else:
            self._send_text(404, "not found\n", head)

    def _send_text(self, code, text, head):
        body = text.encode()
        self._send_head(code, len(body), "text/plain")
        if not head:
            self.wfile.write(body)

    def _send_head(self, code, length, content_type="application/octet-stream", with_length=True):
        self.send_response(code)
        self.send_header("Content-Type", content_type)
        if with_length:
            self.send_header("Content-Length", str(length))
        self.end_headers()

    def _send_pattern(self, length, chunk=SEND_CHUNK, pause=0.0):
        sent = 0
        while sent < length:
            n = min(chunk, length - sent)
            if pause and sent:
                time.sleep(pause)
            self.wfile.write(pattern_bytes(sent, n))
            sent += n

    def _hang(self):
        # Holds the connection without a word until the client gives up or the server stops;
        # the thread ends when the client closes, so hung clients leave no thread behind.
        self.close_connection = True
        sock = self.connection
        while True:
            readable, _, _ = select.select([sock], [], [], 1.0)
            if readable:
                try:
                    if not sock.recv(4096):
                        return
                except OSError:
                    return

    def _reset(self):
        # A zero linger time makes closing the descriptor send RST instead of FIN. The descriptor is
        # taken from the socket object and closed at once: the base class's orderly shutdown of the
        # connection afterwards meets a closed socket and sends nothing.
        self.close_connection = True
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        os.close(self.connection.detach())


class FaultServer(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True
    request_queue_size = 64

    def __init__(self, address, log_path):
        self.counters = Counters()
        self._log_lock = threading.Lock()
        self._log = open(log_path, "a", buffering=1, encoding="utf-8") if log_path else sys.stderr
        super().__init__(address, FaultHandler)

    def server_bind(self):
        # HTTPServer.server_bind would look up the host's name, which can take seconds.
        socketserver.TCPServer.server_bind(self)
        self.server_name, self.server_port = self.server_address[:2]

    def handle_error(self, request, client_address):
        # Clients that give up in the middle of an answer are the daily bread of this server:
        # one line in the log, not a traceback.
        self.log("%s connection ended: %s" % (client_address[0], sys.exc_info()[1]))

    def log(self, line):
        stamp = time.strftime("%Y-%m-%d %H:%M:%S")
        with self._log_lock:
            self._log.write("%s %s\n" % (stamp, line))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--host", default="127.0.0.1")
    parser.add_argument("--port", type=int, required=True)
    parser.add_argument("--log", help="file that gets one line per request (default: standard error)")
    options = parser.parse_args()
    try:
        server = FaultServer((options.host, options.port), options.log)
    except OSError as e:
        print("fault server: cannot listen on %s:%d: %s" % (options.host, options.port, e), file=sys.stderr)
        return 1
    server.log("listening on %s:%d" % (options.host, options.port))
    try:
        server.serve_forever(poll_interval=0.2)
    except KeyboardInterrupt:
        pass
    return 0


if __name__ == "__main__":
    sys.exit(main())

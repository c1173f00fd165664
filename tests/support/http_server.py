#!/usr/bin/env python3
"""A server that misbehaves on request, for tests: http_server.py FOLDER [CERTIFICATE KEY].

Writes its ports at 127.0.0.1 into FOLDER/ports, on one line: two for HTTP, one on which nobody
listens and, with a certificate, three for HTTPS. Those ask for a certificate of the client; the last
two demand it, the very last one in TLS 1.2. Ends when its standard input does.
"""

import gzip
import http.server
import json
import os
import socket
import ssl
import struct
import sys
import threading
import time
import urllib.parse
import zlib

folder = sys.argv[1]
attempts = {}
lock = threading.Lock()
plain = b"plain " * 1000
coded = {
    "gzip": ("gzip", gzip.compress(plain)),
    "twice": ("gzip", gzip.compress(plain) * 2 + b"\0"),
    "nothing": ("gzip", gzip.compress(b"")),
    "short": ("gzip", gzip.compress(plain)[:-9]),
    "bad": ("gzip", b"no gzip at all"),
    "deflate": ("deflate", zlib.compress(plain)),
    "bare": ("deflate", zlib.compress(plain)[2:-4]),
    "brotli": ("br", b"any"),
}
ok = b"HTTP/1.1 200 OK\r\n"
chunked = ok + b"Transfer-Encoding: chunked\r\n\r\n"
broken = {  # the whole answer, then the connection ends
    "empty": b"",
    "half": ok + b"Content-Length: 1000\r\n\r\nhalf",
    "garbage": b"this is no HTTP at all\r\n\r\n",
    "badchunk": chunked + b"no size\r\n",
    "badtrailer": chunked + b"0\r\nno field\r\n\r\n",
    "encoded": ok + b"Transfer-Encoding: gzip, chunked\r\n\r\n0\r\n\r\n",
}
endless = {  # what comes first, and what comes then until the client gives up
    "interim": (b"", b"HTTP/1.1 103 Early Hints\r\n\r\n"),
    "trailers": (chunked + b"0\r\n", b"X-Trailer: again\r\n"),
    "announced": (ok + b"Content-Length: 1001\r\n\r\n", b""),
}


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *arguments):
        pass

    def handle(self):
        try:
            super().handle()
        except OSError:
            pass  # a client that gave up

    def answer(self, status=200, body=b"", headers=()):
        self.send_response(status)
        for name, value in headers:
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(body)

    def reset(self):
        self.wfile.write(broken["half"])
        linger = struct.pack("ii", 1, 0)
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, linger)
        self.hang_up()

    def hang_up(self):
        self.close_connection = True
        self.wfile.flush()
        # The file objects would keep the descriptor open.
        self.rfile.close()
        self.connection.close()

    def echo(self, body):
        text = json.dumps({
            "method": self.command,
            "path": self.path,
            "headers": {name.lower(): value for name, value in self.headers.items()},
            "body": body.decode("latin-1"),
        })
        self.answer(body=text.encode(), headers=[("X-Kind", "echo"), ("Set-Cookie", "s=hidden")])

    def serve(self):
        url = urllib.parse.urlparse(self.path)
        query = dict(urllib.parse.parse_qsl(url.query))
        if url.path == "/early":  # an answer before the body was read
            self.close_connection = True
            return self.answer(413, b"too much")
        body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        match url.path:
            case "/never":
                self.connection.recv(1)  # until the client goes
                self.close_connection = True
            case path if path[1:] in broken:
                self.wfile.write(broken[path[1:]])
                self.hang_up()
            case path if path[1:] in endless:
                first, then = endless[path[1:]]
                self.wfile.write(first)
                while then:
                    self.wfile.write(then)
                self.connection.recv(1)
            case "/reset":
                self.reset()
            case "/redirect":
                self.answer(int(query["status"]), headers=[("Location", query["to"])])
            case "/loop":
                self.answer(302, headers=[("Location", "/loop")])
            case "/coded":
                coding, content = coded[url.query]
                self.answer(body=content, headers=[("Content-Encoding", coding)])
            case "/bigheader":
                self.answer(headers=[("X-Big", "x" * 400_000)])
            case "/drip":
                self.send_response(200)
                self.send_header("Content-Length", "12")
                self.end_headers()
                for _ in range(12):
                    time.sleep(0.25)
                    self.wfile.write(b".")
            case "/flaky":  # the first two requests fail
                with lock:
                    count = attempts[url.query] = attempts.get(url.query, 0) + 1
                if count <= 2:
                    return self.reset()
                self.echo(body)
            case "/store":
                with open(os.path.join(folder, "stored"), "wb") as file:
                    file.write(body)
                self.answer()
            case path if path.startswith("/status/"):
                self.answer(int(path[8:]), b"status")
            case _:
                self.echo(body)

    def __getattr__(self, name):
        if name.startswith("do_"):  # any method
            return self.serve
        raise AttributeError(name)


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 256

    def handle_error(self, request, client_address):
        pass  # clients that refuse our certificate


def listen(context=None):
    server = Server(("127.0.0.1", 0), Handler)
    if context:
        # The handshake is each connection's own affair: accepting must not wait for it.
        server.socket = context.wrap_socket(
            server.socket, server_side=True, do_handshake_on_connect=False)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return str(server.server_port)


closed = socket.socket()
closed.bind(("127.0.0.1", 0))
ports = [listen(), listen(), closed.getsockname()[1]]
if len(sys.argv) > 2:
    for verify, newest in [(ssl.CERT_OPTIONAL, ssl.TLSVersion.TLSv1_3),
                           (ssl.CERT_REQUIRED, ssl.TLSVersion.TLSv1_3),
                           (ssl.CERT_REQUIRED, ssl.TLSVersion.TLSv1_2)]:
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        tls.load_cert_chain(sys.argv[2], sys.argv[3])
        tls.verify_mode = verify
        tls.maximum_version = newest
        ports.append(listen(tls))
with open(os.path.join(folder, "ports"), "w") as file:
    print(*ports, file=file)
sys.stdin.buffer.read()

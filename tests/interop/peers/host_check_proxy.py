#!/usr/bin/env python3
"""A reverse proxy on [::1] that checks the Host field as nginx does, in front of a server on
127.0.0.1:UPSTREAM (the first argument). A request without Host, or whose Host is not
"[::1]:PORT" (this proxy's own port, brackets and all), gets 400; any other POST is passed on
and its reply passed back. Prints "PORT <n>" once it listens. Runs until killed."""

import http.client
import http.server
import socket
import sys

UPSTREAM = int(sys.argv[1])


class Server(http.server.HTTPServer):
    address_family = socket.AF_INET6


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", "0")))
        expected = "[::1]:%d" % self.server.server_address[1]
        if self.headers.get_all("Host") != [expected]:
            text = ("400 Bad Request: Host %r, not %r\n" % (self.headers.get_all("Host"), expected)).encode()
            self.send_response(400)
            self.send_header("Content-Type", "text/plain")
            self.send_header("Content-Length", str(len(text)))
            self.end_headers()
            self.wfile.write(text)
            return
        upstream = http.client.HTTPConnection("127.0.0.1", UPSTREAM, timeout=30)
        upstream.request("POST", self.path, body, {"Content-Type": self.headers.get("Content-Type", "text/xml")})
        reply = upstream.getresponse()
        data = reply.read()
        self.send_response(reply.status)
        self.send_header("Content-Type", reply.getheader("Content-Type", "text/xml"))
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)


server = Server(("::1", 0), Handler)
print("PORT %d" % server.server_address[1], flush=True)
try:
    server.serve_forever()
except KeyboardInterrupt:
    pass

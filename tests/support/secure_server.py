#!/usr/bin/env python3
"""The transport tests' peer for authentication, TLS and compression, on 127.0.0.1.

Prints "PORT <n>" once it accepts connections. Every reply body is the XML-RPC string "hello".
  --cert FILE --key FILE   serve HTTPS with this certificate (PEM)
  --client-ca FILE         and require a client certificate signed by this CA
Paths (POST):
  /plain          the reply
  /basic          Basic authentication as user "alice", password "s3cret:x", else 401
  /digest         Digest authentication (MD5, qop auth) with the same credentials, else 401
  /gzip           the reply gzip-compressed (Content-Encoding: gzip), whatever was asked
  /bomb           100 MiB of spaces gzip-compressed into about 100 KiB
  /redirect?to=U  a 302 to the URL U
"""
import argparse
import gzip
import hashlib
import http.server
import os
import ssl
import urllib.parse
import urllib.request

USER, PASSWORD = "alice", "s3cret:x"
REALM = "hv-tests"
REPLY = (b'<?xml version="1.0"?>\n<methodResponse><params><param><value><string>hello'
         b'</string></value></param></params></methodResponse>\n')
NONCE = os.urandom(8).hex()
_bomb = None


def bomb():
    global _bomb
    if _bomb is None:
        _bomb = gzip.compress(b" " * (100 * 1024 * 1024), compresslevel=9)
    return _bomb


def md5(text):
    return hashlib.md5(text.encode()).hexdigest()


def digest_fields(header):
    fields = {}
    for part in urllib.request.parse_http_list(header[len("Digest "):]):
        name, _, value = part.strip().partition("=")
        fields[name.strip()] = value.strip().strip('"')
    return fields


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def send(self, status, body, headers=()):
        self.send_response(status)
        for name, value in headers:
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def refuse(self, challenge):
        self.send(401, b"who are you?", [("Content-Type", "text/plain"), ("WWW-Authenticate", challenge)])

    def basic_ok(self):
        import base64
        given = self.headers.get("Authorization", "")
        wanted = "Basic " + base64.b64encode(f"{USER}:{PASSWORD}".encode()).decode()
        return given == wanted

    def digest_ok(self):
        given = self.headers.get("Authorization", "")
        if not given.startswith("Digest "):
            return False
        f = digest_fields(given)
        if f.get("username") != USER or f.get("nonce") != NONCE:
            return False
        ha1 = md5(f"{USER}:{REALM}:{PASSWORD}")
        ha2 = md5(f"{self.command}:{f.get('uri', '')}")
        if f.get("qop") == "auth":
            expected = md5(f"{ha1}:{NONCE}:{f.get('nc')}:{f.get('cnonce')}:auth:{ha2}")
        else:
            expected = md5(f"{ha1}:{NONCE}:{ha2}")
        return f.get("response") == expected

    def do_POST(self):
        length = int(self.headers.get("Content-Length", "0"))
        self.rfile.read(length)
        url = urllib.parse.urlsplit(self.path)
        xml = [("Content-Type", "text/xml")]
        if url.path == "/plain":
            self.send(200, REPLY, xml)
        elif url.path == "/basic":
            if self.basic_ok():
                self.send(200, REPLY, xml)
            else:
                self.refuse(f'Basic realm="{REALM}"')
        elif url.path == "/digest":
            if self.digest_ok():
                self.send(200, REPLY, xml)
            else:
                self.refuse(f'Digest realm="{REALM}", nonce="{NONCE}", qop="auth", algorithm=MD5')
        elif url.path == "/gzip":
            self.send(200, gzip.compress(REPLY), xml + [("Content-Encoding", "gzip")])
        elif url.path == "/bomb":
            self.send(200, bomb(), xml + [("Content-Encoding", "gzip")])
        elif url.path == "/redirect":
            target = urllib.parse.parse_qs(url.query).get("to", [""])[0]
            self.send(302, b"", [("Location", target)])
        else:
            self.send(404, b"no such path", [("Content-Type", "text/plain")])


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--cert")
    parser.add_argument("--key")
    parser.add_argument("--client-ca")
    args = parser.parse_args()
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.daemon_threads = True
    if args.cert:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(args.cert, args.key)
        if args.client_ca:
            context.verify_mode = ssl.CERT_REQUIRED
            context.load_verify_locations(args.client_ca)
        server.socket = context.wrap_socket(server.socket, server_side=True)
    print(f"PORT {server.server_address[1]}", flush=True)
    server.serve_forever()


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""An XML-RPC peer on Python's standard xmlrpc.server, for the interoperability tests.

Listens on 127.0.0.1 at a port the system picks and prints "PORT <n>" as its first line on
standard output once it accepts connections; prints nothing else there. Runs until killed.

Options:
  --no-nil   refuse None (allow_none off): types() then leaves out its "nil" member
  --http11   answer with HTTP/1.1 and keep connections alive (Python's default is HTTP/1.0)
  --requests N  serve N requests, then exit (for a client that reads the port from a pipe)
  --wire-types  keep dates and base64 as xmlrpc.client.DateTime and Binary (use_builtin_types
             off), so that echo returns them as they came: Python's datetime parser refuses the
             "Z" zone designator our dates carry

Methods: echo(x), add(a, b), fault(code, string), types(), sleep(seconds), and the standard
system.listMethods, system.methodHelp, system.methodSignature and system.multicall.
"""

import argparse
import datetime
import socketserver
import sys
import time
import xmlrpc.client
from xmlrpc.server import SimpleXMLRPCRequestHandler, SimpleXMLRPCServer

# Python's marshaller refuses integers beyond 32 bits; writing them as <i8> lets clients
# see the 64-bit type from this peer too.
_plain_int = xmlrpc.client.Marshaller.dispatch[int]


def _dump_int(marshaller, value, write):
    if xmlrpc.client.MININT <= value <= xmlrpc.client.MAXINT:
        _plain_int(marshaller, value, write)
    elif -(2**63) <= value < 2**63:
        write("<value><i8>%d</i8></value>\n" % value)
    else:
        raise OverflowError("int exceeds 64 bits")


xmlrpc.client.Marshaller.dispatch[int] = _dump_int


class ThreadedServer(socketserver.ThreadingMixIn, SimpleXMLRPCServer):
    """One thread per connection, so a sleeping call does not hold up the others."""

    daemon_threads = True


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--no-nil", action="store_true")
    parser.add_argument("--http11", action="store_true")
    parser.add_argument("--wire-types", action="store_true")
    parser.add_argument("--requests", type=int, default=0)
    options = parser.parse_args()
    allow_none = not options.no_nil

    class Handler(SimpleXMLRPCRequestHandler):
        protocol_version = "HTTP/1.1" if options.http11 else "HTTP/1.0"
        rpc_paths = ()  # any path

    server = ThreadedServer(("127.0.0.1", 0), requestHandler=Handler, logRequests=False,
                            allow_none=allow_none,
                            use_builtin_types=not options.wire_types)
    server.register_introspection_functions()
    server.register_multicall_functions()

    def echo(x):
        """Returns its argument unchanged."""
        return x

    def add(a, b):
        """Returns a + b."""
        return a + b

    def fault(code, string):
        """Answers with an XML-RPC fault carrying code and string."""
        raise xmlrpc.client.Fault(code, string)

    def types():
        """Returns a struct holding one value of every type this server writes."""
        values = {
            "int": 42,
            "negative": -7,
            "i8": 2**40 + 3,
            "double": 3.25,
            "string": "a<b & c>d \"q\" 'a' \u00e9\u20ac\u65e5\u672c",
            "empty": "",
            "boolean": True,
            "false": False,
            "dateTime": datetime.datetime(2024, 2, 29, 13, 45, 7),
            "base64": b"\x00\x01binary\xff",
            "array": [1, "two", 3.5, False],
            "struct": {"name": "inner", "list": [], "nested": {"deep": 1}},
        }
        if allow_none:
            values["nil"] = None
        return values

    def sleep(seconds):
        """Sleeps for seconds, then returns them."""
        time.sleep(seconds)
        return seconds

    for function in (echo, add, fault, types, sleep):
        server.register_function(function)

    print("PORT %d" % server.server_address[1], flush=True)
    if options.requests:
        server.daemon_threads = False  # server_close then waits for the last replies
        for _ in range(options.requests):
            server.handle_request()
        server.server_close()
        return 0
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass
    return 0


if __name__ == "__main__":
    sys.exit(main())

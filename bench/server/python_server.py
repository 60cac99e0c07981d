#!/usr/bin/python3
"""Python's threaded SimpleXMLRPCServer with the methods the server benchmark calls.
usage: python_server.py PORT  (prints the port on the first line)"""
import socketserver
import sys
from xmlrpc.server import SimpleXMLRPCRequestHandler, SimpleXMLRPCServer


class Handler(SimpleXMLRPCRequestHandler):
    protocol_version = "HTTP/1.1"  # keep-alive, as the other servers


class Server(socketserver.ThreadingMixIn, SimpleXMLRPCServer):
    daemon_threads = True


server = Server(("127.0.0.1", int(sys.argv[1])), requestHandler=Handler, logRequests=False)
server.register_function(lambda a, b: a + b, "examples.add")
server.register_function(lambda v: v, "examples.echo")
print(server.server_address[1], flush=True)
server.serve_forever()

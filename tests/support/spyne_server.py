#!/usr/bin/env python3
"""A SOAP 1.1 peer on spyne, for the interoperability tests.

Listens on 127.0.0.1 at a port the system picks and prints "PORT <n>" as its first line on
standard output once it accepts connections; prints nothing else there. Serves one request at
a time (wsgiref's simple server, no threads) on any path until killed; GET ?wsdl gives the WSDL.

Service namespace: urn:halvos:test (TNS below). Operations (rpc-style names, document/literal
wrapped as spyne writes them):
  echo(s: string) -> string
  add(a: int, b: int) -> int
  records(count: int) -> array of Record {id: int, name: string, score: double,
                                           active: boolean, stamp: dateTime}
  fail(code: string, message: string) -> a SOAP fault with that faultcode and faultstring
  echoAny(v: any XML) -> the first element inside v, as spyne parsed it, written back by its
                          own XML writer (SOAP-encoded values of any kind travel through it)
  echoDouble(d: double) -> double, echoLong(n: long) -> long: spyne's own reading of them

Options:
  --parse-xsi-type   let xsi:type attributes in requests pick the type, as spyne does by default.
                     Off here: spyne looks the attribute up among its own classes only, so a
                     SOAP-encoded request with xsi:type="xsd:int" would be refused; the
                     operations' declared types decide instead.
"""

import argparse
import datetime
import logging
import sys
from wsgiref.simple_server import WSGIRequestHandler, make_server

from spyne import (Application, AnyXml, Array, Boolean, ComplexModel, DateTime, Double, Fault,
                   Integer, Long, ServiceBase, Unicode, rpc)
from spyne.protocol.soap import Soap11
from spyne.server.wsgi import WsgiApplication

TNS = "urn:halvos:test"


class Record(ComplexModel):
    __namespace__ = TNS
    _type_info = [
        ("id", Integer),
        ("name", Unicode),
        ("score", Double),
        ("active", Boolean),
        ("stamp", DateTime),
    ]


class TestService(ServiceBase):
    @rpc(Unicode, _returns=Unicode)
    def echo(ctx, s):
        return s

    @rpc(Integer, Integer, _returns=Integer)
    def add(ctx, a, b):
        return (a or 0) + (b or 0)

    @rpc(Integer, _returns=Array(Record))
    def records(ctx, count):
        base = datetime.datetime(2024, 1, 2, 3, 4, 5, tzinfo=datetime.timezone.utc)
        return [Record(id=i, name="record %d <&>" % i, score=i * 1.5, active=(i % 2 == 0),
                       stamp=base + datetime.timedelta(days=i))
                for i in range(count or 0)]

    @rpc(AnyXml, _returns=AnyXml)
    def echoAny(ctx, v):
        return v

    @rpc(Double, _returns=Double)
    def echoDouble(ctx, d):
        return d

    @rpc(Long, _returns=Long)
    def echoLong(ctx, n):
        return n

    @rpc(Unicode, Unicode)
    def fail(ctx, code, message):
        raise Fault(faultcode=code or "Server", faultstring=message or "failure")


class QuietHandler(WSGIRequestHandler):
    def log_message(self, format, *args):
        pass


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--parse-xsi-type", action="store_true")
    options = parser.parse_args()
    logging.basicConfig(level=logging.CRITICAL)
    application = Application([TestService], tns=TNS, name="HalvosTest",
                              in_protocol=Soap11(parse_xsi_type=options.parse_xsi_type),
                              out_protocol=Soap11())
    server = make_server("127.0.0.1", 0, WsgiApplication(application), handler_class=QuietHandler)
    print("PORT %d" % server.server_port, flush=True)
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass
    return 0


if __name__ == "__main__":
    sys.exit(main())

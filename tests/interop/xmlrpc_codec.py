#!/usr/bin/env python3
"""The XML-RPC peer of the interoperability tests, on Python's standard xmlrpc.client.

  xmlrpc_codec.py call METHOD PARAMS     prints dumps(PARAMS, METHOD) (PARAMS: a tuple expression)
  xmlrpc_codec.py response VALUE         prints dumps((VALUE,), methodresponse=True)
  xmlrpc_codec.py fault CODE STRING      prints dumps(Fault(CODE, STRING), methodresponse=True)
  xmlrpc_codec.py check FILE EXPECTED    loads FILE and compares it with EXPECTED: a
                                         (params, methodname) tuple, or Fault(code, string)

Expressions are evaluated with Binary, DateTime, Fault and datetime in scope. Documents are
written as UTF-8 bytes; nil is allowed. "check" prints what Python read and exits 1 when it
differs from what was expected.
"""
import datetime
import sys
import xmlrpc.client as xc

SCOPE = {"Binary": xc.Binary, "DateTime": xc.DateTime, "Fault": xc.Fault, "datetime": datetime}


def evaluate(text):
    return eval(text, dict(SCOPE))  # the expressions come from our own test sources


def same(a, b):
    """Equality that also tells a bool from an int and compares Fault contents."""
    if isinstance(a, xc.Fault) and isinstance(b, xc.Fault):
        return a.faultCode == b.faultCode and a.faultString == b.faultString
    if type(a) is not type(b):
        return False
    if isinstance(a, (list, tuple)):
        return len(a) == len(b) and all(same(x, y) for x, y in zip(a, b))
    if isinstance(a, dict):
        return a.keys() == b.keys() and all(same(a[k], b[k]) for k in a)
    if isinstance(a, float):
        return a == b or (a != a and b != b)
    return a == b


def show(value):
    """repr, with the contents of Binary values."""
    if isinstance(value, xc.Binary):
        return "Binary(%r)" % value.data
    if isinstance(value, (list, tuple)):
        inner = ", ".join(show(v) for v in value)
        return "[%s]" % inner if isinstance(value, list) else "(%s%s)" % (inner, "," if len(value) == 1 else "")
    if isinstance(value, dict):
        return "{%s}" % ", ".join("%r: %s" % (k, show(v)) for k, v in value.items())
    return repr(value)


def main(argv):
    mode = argv[1]
    if mode == "call":
        text = xc.dumps(evaluate(argv[3]), argv[2], allow_none=True)
    elif mode == "response":
        text = xc.dumps((evaluate(argv[2]),), methodresponse=True, allow_none=True)
    elif mode == "fault":
        text = xc.dumps(xc.Fault(int(argv[2]), argv[3]), methodresponse=True)
    elif mode == "check":
        with open(argv[2], "rb") as f:
            document = f.read()
        try:
            got = xc.loads(document)
        except xc.Fault as fault:
            got = fault
        except xc.ResponseError:
            got = "ResponseError"  # a methodResponse without params or fault
        expected = evaluate(argv[3])
        if not same(got, expected):
            print("python read %s\n    expected %s" % (show(got), show(expected)))
            return 1
        return 0
    else:
        print("unknown mode " + mode)
        return 2
    sys.stdout.buffer.write(text.encode("utf-8"))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))

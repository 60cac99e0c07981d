#!/usr/bin/python3
"""The server benchmark: wrk (with a Lua body) against hvserve, xmlrpc-c's own server (Abyss) and
Python's threaded SimpleXMLRPCServer, all on loopback in one run, each answering the same
methods. Small calls (examples.add) at 1 and 8 keep-alive connections, and a large reply
(examples.echo of a 100 KB string) at 8.

usage: run_server_bench.py BUILD_DIRECTORY [SECONDS]   (a release build: ./hv bench makes one)

Prints one table of requests per second. xmlrpc_c_server.cpp is compiled into BUILD/bench-server
on first use (xmlrpc-c-config names its libraries)."""
import os
import re
import socket
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def start(argv):
    child = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    child.stdout.readline()  # the port: the server accepts connections
    return child


def xmlrpc_c_server(build):
    out = os.path.join(build, "bench-server")
    binary = os.path.join(out, "xmlrpc_c_server")
    if not os.path.exists(binary):
        os.makedirs(out, exist_ok=True)
        libs = subprocess.check_output(["xmlrpc-c-config", "c++2", "abyss-server", "--libs"], text=True).split()
        subprocess.check_call(["g++", "-O2", "-std=c++17", "-o", binary,
                               os.path.join(HERE, "xmlrpc_c_server.cpp")] + libs)
    return binary


def call(method, params):
    return ("<?xml version=\"1.0\"?><methodCall><methodName>%s</methodName><params>%s</params></methodCall>"
            % (method, "".join("<param><value>%s</value></param>" % p for p in params)))


def wrk(url, body, connections, seconds):
    with tempfile.NamedTemporaryFile("w", suffix=".lua", delete=False) as script:
        script.write('wrk.method = "POST"\nwrk.headers["Content-Type"] = "text/xml"\n')
        script.write("wrk.body = [==[%s]==]\n" % body)
    try:
        out = subprocess.check_output(["wrk", "-t", str(min(connections, 2)), "-c", str(connections),
                                       "-d", "%ds" % seconds, "-s", script.name, url], text=True)
    finally:
        os.unlink(script.name)
    rate = float(re.search(r"Requests/sec:\s+([\d.]+)", out).group(1))
    if "Non-2xx" in out or "Socket errors" in out:
        rate = -rate  # marks a run with errors
    return rate


def main():
    build = sys.argv[1]
    seconds = int(sys.argv[2]) if len(sys.argv) > 2 else 5
    servers = []
    port = free_port()
    servers.append(("hvserve", "http://127.0.0.1:%d/RPC2" % port,
                    start([os.path.join(build, "tools", "hvserve"), "--port", str(port), "--threads", "8"])))
    port = free_port()
    servers.append(("xmlrpc-c (Abyss)", "http://127.0.0.1:%d/RPC2" % port,
                    start([xmlrpc_c_server(build), str(port)])))
    port = free_port()
    servers.append(("Python threaded", "http://127.0.0.1:%d/RPC2" % port,
                    start([sys.executable, os.path.join(HERE, "python_server.py"), str(port)])))
    small = call("examples.add", ["<i4>2</i4>", "<i4>3</i4>"])
    large = call("examples.echo", ["<string>%s</string>" % ("x" * 100000)])
    cases = [("small call, 1 connection", small, 1), ("small call, 8 connections", small, 8),
             ("100 KB echo, 8 connections", large, 8)]
    try:
        rates = {name: [wrk(url, body, c, seconds) for _, body, c in cases] for name, url, _ in servers}
    finally:
        for _, _, child in servers:
            child.terminate()
            child.wait()
    print("| server | " + " | ".join(case for case, _, _ in cases) + " |")
    print("|---|" + "---:|" * len(cases))
    for name, _, _ in servers:
        print("| %s | %s |" % (name, " | ".join("%.0f/s%s" % (abs(r), " (errors)" if r < 0 else "")
                                                for r in rates[name])))
    hv, xc, py = (rates[name] for name, _, _ in servers)
    print("\nhvserve / xmlrpc-c at 8 connections: %.1fx; hvserve / Python: %.1fx" % (hv[1] / xc[1], hv[1] / py[1]))


if __name__ == "__main__":
    main()

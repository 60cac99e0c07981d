#!/usr/bin/python3
"""Python's standard xmlrpc module as a benchmark peer, writing Google Benchmark's JSON form.

usage: python_xmlrpc_peer.py DOCUMENT_DIRECTORY OUTPUT.json [--smoke]

On the XML-RPC reply that bench_documents writes (the same bytes the C++ programs read):
  BM_Python_ReplyToValues    xmlrpc.client.loads of the reply (values built, then dropped)
  BM_Python_ValuesToRequest  xmlrpc.client.dumps of the same values as a methodCall
  BM_Python_ReplyPeakRSS     peak memory of one loads in a fresh interpreter, as a multiple of
                             the reply (the reply's own bytes count as 1)
Each timing is the median of five runs of at least half a second (one call with --smoke).
"""
import json
import os
import statistics
import subprocess
import sys
import time
import xmlrpc.client

REPETITIONS = 5
MIN_SECONDS = 0.5


def measure(operation, smoke):
    """Median seconds per call, and the calls made in the median run."""
    runs = []
    for _ in range(1 if smoke else REPETITIONS):
        calls, start = 0, time.perf_counter()
        cpu_start = time.process_time()
        while True:
            operation()
            calls += 1
            elapsed = time.perf_counter() - start
            if smoke or elapsed >= MIN_SECONDS:
                break
        runs.append(((time.process_time() - cpu_start) / calls, elapsed / calls, calls))
    return sorted(runs)[len(runs) // 2]


def entry(name, per_call, size_of=None):
    cpu, real, calls = per_call
    result = {"name": name + "_median", "run_name": name, "run_type": "aggregate",
              "aggregate_name": "median", "iterations": calls, "repetitions": REPETITIONS,
              "real_time": real * 1e3, "cpu_time": cpu * 1e3, "time_unit": "ms"}
    if size_of is not None:
        result["bytes_per_second"] = size_of / cpu
    return result


def peak_rss_ratio(path):
    """Runs one loads in a new interpreter; its growth of the peak resident set over the reply."""
    # VmHWM belongs to the new process image; ru_maxrss would carry this interpreter's peak
    # across the exec.
    probe = ("import sys, xmlrpc.client\n"
             "def peak():\n"
             "    for line in open('/proc/self/status'):\n"
             "        if line.startswith('VmHWM:'):\n"
             "            return int(line.split()[1]) * 1024\n"
             "data = open(sys.argv[1], 'rb').read()\n"
             "before = peak()\n"
             "xmlrpc.client.loads(data)\n"
             "print((len(data) + peak() - before) / len(data))\n")
    out = subprocess.run([sys.executable, "-c", probe, path], check=True, capture_output=True, text=True)
    return float(out.stdout)


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    smoke = "--smoke" in sys.argv[3:]
    path = os.path.join(sys.argv[1], "xmlrpc_reply.xml")
    with open(path, "rb") as f:
        reply = f.read()
    params, _ = xmlrpc.client.loads(reply)
    if len(params) != 1 or len(params[0]) < 1:
        sys.exit("python_xmlrpc_peer: the reply did not read back")
    request = xmlrpc.client.dumps(params, "records.put")
    benchmarks = [
        entry("BM_Python_ReplyToValues", measure(lambda: xmlrpc.client.loads(reply), smoke), len(reply)),
        entry("BM_Python_ValuesToRequest",
              measure(lambda: xmlrpc.client.dumps(params, "records.put"), smoke), len(request)),
        {"name": "BM_Python_ReplyPeakRSS_median", "run_name": "BM_Python_ReplyPeakRSS",
         "run_type": "aggregate", "aggregate_name": "median", "iterations": 1,
         "real_time": 0, "cpu_time": 0, "time_unit": "ms", "peak_rss_ratio": peak_rss_ratio(path)},
    ]
    context = {"executable": "python3 " + os.path.basename(__file__), "python": sys.version.split()[0],
               "num_cpus": os.cpu_count(), "load_avg": list(os.getloadavg())}
    with open(sys.argv[2], "w") as f:
        json.dump({"context": context, "benchmarks": benchmarks}, f, indent=1)


if __name__ == "__main__":
    main()

#!/usr/bin/python3
"""The side-by-side table of one benchmark run.

usage: report.py RESULTS_DIRECTORY

Reads every Google Benchmark JSON file in the directory (one per program, as bench/run.py
writes them) and prints one Markdown table: for each task the library's figure, its floor's and
its peers', each with the library's ratio to it, and whether the aims are met. Every ratio reads
"how many times better the library does": throughput over throughput, time over time, and for
memory the other side's ratio over the library's. Figures from a run with repetitions are the
medians; a missing program or case shows as "-".
"""
import glob
import json
import os
import sys

# Where each figure comes from: (program, benchmark name). The library's figures come from the
# per-unit benchmarks; peers and floors from bench/peers.
OURS, FLOOR = "HalvosCore", "floor"
PEERS = ["xmlrpc-c", "Python xmlrpc", "gSOAP"]

# kind: "read" (MB/s of the same document), "write" (MB/s of each side's own document; the
# ratio is by time, since all sides write the same values), "calls" (calls per second),
# "memory" (peak resident memory as a multiple of the document).
TASKS = [
    {"task": "XML-RPC reply to values", "kind": "read",
     OURS: ("xmlrpc_benchmark", "BM_XMLRPCReplyToResult"),
     FLOOR: ("floor_benchmark", "BM_Expat_XMLRPCReply", "raw expat"),
     "xmlrpc-c": ("xmlrpc_c_benchmark", "BM_XmlrpcC_ReplyToValues"),
     "Python xmlrpc": ("python_xmlrpc_peer", "BM_Python_ReplyToValues"),
     "aims": [(FLOOR, 0.6)]},
    {"task": "XML-RPC values to request", "kind": "write",
     OURS: ("xmlrpc_benchmark", "BM_XMLRPCParamsToRequest"),
     "xmlrpc-c": ("xmlrpc_c_benchmark", "BM_XmlrpcC_ValuesToRequest"),
     "Python xmlrpc": ("python_xmlrpc_peer", "BM_Python_ValuesToRequest"),
     "aims": [("xmlrpc-c", 2.0)]},
    {"task": "SOAP reply to values", "kind": "read",
     OURS: ("soap_benchmark", "BM_SOAPReplyToResult"),
     FLOOR: ("floor_benchmark", "BM_Expat_SOAPReply", "raw expat"),
     "gSOAP": ("gsoap_benchmark", "BM_GSoap_ReplyToValues"),
     "aims": [("gSOAP", 0.8)]},
    {"task": "SOAP reply with href/id multi-references", "kind": "read",
     OURS: ("soap_benchmark", "BM_SOAPMultiRefReplyToResult"),
     FLOOR: ("floor_benchmark", "BM_Expat_SOAPMultiRefReply", "raw expat"),
     "gSOAP": ("gsoap_benchmark", "BM_GSoap_MultiRefReplyToValues"),
     "aims": [("gSOAP", 2.0)]},
    {"task": "SOAP values to envelope", "kind": "write",
     OURS: ("soap_benchmark", "BM_SOAPParamsToRequest"),
     "gSOAP": ("gsoap_benchmark", "BM_GSoap_ValuesToEnvelope"),
     "aims": [("gSOAP", 1.5)]},
    {"task": "peak memory reading the XML-RPC reply", "kind": "memory",
     OURS: ("xmlrpc_benchmark", "BM_XMLRPCReplyPeakRSS"),
     FLOOR: ("floor_benchmark", "BM_Expat_XMLRPCReplyPeakRSS", "raw expat"),
     "xmlrpc-c": ("xmlrpc_c_benchmark", "BM_XmlrpcC_ReplyPeakRSS"),
     "Python xmlrpc": ("python_xmlrpc_peer", "BM_Python_ReplyPeakRSS"),
     "aims": [("document", 1.5)]},
    {"task": "peak memory reading the SOAP reply", "kind": "memory",
     OURS: ("soap_benchmark", "BM_SOAPReplyPeakRSS"),
     "gSOAP": ("gsoap_benchmark", "BM_GSoap_ReplyPeakRSS"),
     "aims": [("document", 2.0)]},
    {"task": "peak memory reading the SOAP multi-reference reply", "kind": "memory",
     OURS: ("soap_benchmark", "BM_SOAPMultiRefReplyPeakRSS"),
     "gSOAP": ("gsoap_benchmark", "BM_GSoap_MultiRefReplyPeakRSS"),
     "aims": [("document", 3.0)]},
    {"task": "small calls over loopback, keep-alive", "kind": "calls",
     OURS: ("transport_benchmark", "BM_InvokeNewInvocation"),
     FLOOR: ("floor_benchmark", "BM_Curl_SmallCalls", "plain libcurl"),
     "xmlrpc-c": ("xmlrpc_c_benchmark", "BM_XmlrpcC_SmallCalls"),
     "aims": [(FLOOR, 0.95), ("xmlrpc-c", 1.0)]},
    {"task": "large calls (3 MB each way)", "kind": "calls",
     OURS: ("transport_benchmark", "BM_InvokeLargeCall"),
     FLOOR: ("floor_benchmark", "BM_Curl_LargeCalls", "plain libcurl"),
     "xmlrpc-c": ("xmlrpc_c_benchmark", "BM_XmlrpcC_LargeCalls"),
     "aims": [("xmlrpc-c", 4.0)]},
    {"task": "32 calls in flight on one run loop", "kind": "calls",
     OURS: ("transport_benchmark", "BM_AsyncInFlight/32"),
     FLOOR: ("floor_benchmark", "BM_CurlMulti_InFlight/32", "libcurl multi"),
     "xmlrpc-c": ("xmlrpc_c_benchmark", "BM_XmlrpcC_AsyncInFlight/32"),
     "aims": [("xmlrpc-c", 1.5), (FLOOR, 0.9)]},
]

UNITS = {"read": "MB/s", "write": "MB/s", "calls": "calls/s", "memory": "x document"}
TIME_UNITS = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}


def load(directory):
    """{program: {benchmark name: entry}}, preferring median aggregates over single runs."""
    results, contexts = {}, []
    for path in sorted(glob.glob(os.path.join(directory, "*.json"))):
        try:
            with open(path) as f:
                data = json.load(f)
        except (OSError, ValueError):
            continue
        program = os.path.splitext(os.path.basename(path))[0]
        contexts.append(data.get("context", {}))
        entries = results.setdefault(program, {})
        for b in data.get("benchmarks", []):
            if b.get("error_occurred"):
                continue
            # "BM_X/real_time" and "BM_X/iterations:1" are still BM_X; "BM_X/32/real_time"
            # is BM_X/32.
            parts = b.get("run_name", b["name"]).split("/")
            name = "/".join([parts[0]] + [p for p in parts[1:] if p.isdigit()])
            if b.get("run_type") == "aggregate":
                if b.get("aggregate_name") == "median":
                    entries[name] = b
            elif name not in entries or entries[name].get("run_type") != "aggregate":
                entries[name] = b
    return results, contexts


def figure(entry, kind):
    """The figure a table cell shows, in the task's unit."""
    if entry is None:
        return None
    if kind in ("read", "write"):
        v = entry.get("bytes_per_second")
        return v / 1e6 if v else None
    if kind == "calls":
        return entry.get("items_per_second")
    return entry.get("peak_rss_ratio")


def seconds(entry):
    """Seconds per iteration: real time for calls (UseRealTime), else CPU time."""
    unit = TIME_UNITS.get(entry.get("time_unit", "ns"), 1e-9)
    key = "real_time" if entry.get("run_name", entry["name"]).endswith("real_time") else "cpu_time"
    return entry[key] * unit


def ratio(ours, theirs, kind):
    """How many times better the library does than the other side (None when unknown)."""
    if ours is None or theirs is None:
        return None
    if kind == "write":
        return seconds(theirs) / seconds(ours) if seconds(ours) > 0 else None
    a, b = figure(ours, kind), figure(theirs, kind)
    if not a or not b:
        return None
    return b / a if kind == "memory" else a / b


def fmt(value):
    if value is None:
        return "-"
    if value >= 1000:
        return f"{value:,.0f}"
    if value >= 100:
        return f"{value:.0f}"
    return f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def build_table(results):
    columns = [FLOOR] + PEERS
    lines = ["| task | unit | HalvosCore | floor | " + " | ".join(PEERS) + " | aims |",
             "|---|---|---|---|" + "---|" * len(PEERS) + "---|"]
    for row in TASKS:
        kind = row["kind"]

        def entry_of(side):
            source = row.get(side)
            return results.get(source[0], {}).get(source[1]) if source else None

        ours = entry_of(OURS)
        cells = [row["task"], UNITS[kind], fmt(figure(ours, kind))]
        for side in columns:
            if side not in row:
                cells.append("")
                continue
            theirs = entry_of(side)
            text = fmt(figure(theirs, kind))
            if side == FLOOR and theirs is not None:
                text = f"{row[FLOOR][2]} {text}"
            r = ratio(ours, theirs, kind)
            if r is not None:
                text += f" (x{r:.2f})"
            cells.append(text)
        aims = []
        for side, wanted in row["aims"]:
            if side == "document":
                got = figure(ours, kind)
                verdict = "-" if got is None else ("met" if got <= wanted else "not met")
                aims.append(f"<= {wanted:g}x document: {verdict}")
                continue
            got = ratio(ours, entry_of(side), kind)
            name = row[FLOOR][2] if side == FLOOR else side
            verdict = "-" if got is None else ("met" if got >= wanted else "not met")
            aims.append(f">= {wanted:g}x {name}: {verdict}")
        cells.append("; ".join(aims))
        lines.append("| " + " | ".join(cells) + " |")
    return "\n".join(lines)


def describe_machine(contexts):
    c = next((c for c in contexts if "mhz_per_cpu" in c), contexts[0] if contexts else {})
    loads = [c["load_avg"][0] for c in contexts if c.get("load_avg")]
    parts = [c.get("date", ""), f"{c.get('num_cpus', '?')} CPUs at {c.get('mhz_per_cpu', '?')} MHz"]
    if loads:
        parts.append(f"load average {min(loads):.1f} to {max(loads):.1f} during the run")
    return ", ".join(p for p in parts if p)


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    results, contexts = load(sys.argv[1])
    print(build_table(results))
    print()
    print("Machine: " + describe_machine(contexts) + ". Ratios: how many times better HalvosCore does.")


if __name__ == "__main__":
    main()

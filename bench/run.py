#!/usr/bin/python3
"""Runs every benchmark program and peer of a build, then prints the side-by-side table.

usage: run.py BUILD_DIRECTORY [--smoke] [--out DIRECTORY] [BENCHMARK ARGUMENTS...]

Runs BUILD/bench/*_benchmark and BUILD/bench/peers/*_benchmark one after the other (never two at
once: they would share the two cores), writes each one's JSON and console output into the
output directory (default BUILD/bench-results), runs the Python peer on the same documents, and
prints report.py's table. Without --smoke each case is repeated five times in random order and
the medians count; --smoke runs every case once with one iteration, to show that everything
still builds and runs. Other arguments go to every program (e.g. --benchmark_filter=Reply).
Exits non-zero when a program fails or a case reports an error.
"""
import glob
import json
import os
import shutil
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import report  # noqa: E402


def programs(build):
    found = glob.glob(os.path.join(build, "bench", "*_benchmark"))
    found += glob.glob(os.path.join(build, "bench", "peers", "*_benchmark"))
    return sorted(p for p in found if os.access(p, os.X_OK) and os.path.isfile(p))


def errors_in(path):
    try:
        with open(path) as f:
            data = json.load(f)
    except (OSError, ValueError):
        return ["no readable results"]
    return [f"{b['name']}: {b.get('error_message', 'error')}" for b in data.get("benchmarks", [])
            if b.get("error_occurred")]


def main():
    args = sys.argv[1:]
    if not args or args[0].startswith("-"):
        sys.exit(__doc__)
    build, args = args[0], args[1:]
    smoke = "--smoke" in args
    out = os.path.join(build, "bench-results")
    if "--out" in args:
        i = args.index("--out")
        out = args[i + 1]
        del args[i:i + 2]
    extra = [a for a in args if a != "--smoke"]
    if smoke:
        mode = ["--benchmark_min_time=0"]
    else:
        mode = ["--benchmark_repetitions=5", "--benchmark_report_aggregates_only=true",
                "--benchmark_enable_random_interleaving=true"]
    shutil.rmtree(out, ignore_errors=True)
    os.makedirs(out)

    failures = []
    found = programs(build)
    if not found:
        sys.exit(f"run.py: no benchmark programs under {build}/bench (configure with HV_BUILD_BENCH=ON)")
    for program in found:
        name = os.path.basename(program)
        print(f"run.py: {name}", file=sys.stderr, flush=True)
        json_path = os.path.join(out, name + ".json")
        with open(os.path.join(out, name + ".txt"), "w") as console:
            rc = subprocess.run([program, f"--benchmark_out={json_path}", "--benchmark_out_format=json"]
                                + mode + extra, stdout=console, stderr=subprocess.STDOUT).returncode
        if rc == 0 and (not os.path.exists(json_path) or os.path.getsize(json_path) == 0):
            continue  # a --benchmark_filter that matched none of its cases
        problems = ([f"exit status {rc}"] if rc != 0 else []) + errors_in(json_path)
        failures += [f"{name}: {p}" for p in problems]

    # The Python peer reads the same documents, written out by bench_documents.
    documents = os.path.join(build, "bench", "peers", "bench_documents")
    if os.access(documents, os.X_OK):
        docs = os.path.join(out, "documents")
        os.makedirs(docs)
        print("run.py: python_xmlrpc_peer", file=sys.stderr, flush=True)
        peer = [sys.executable, os.path.join(HERE, "peers", "python_xmlrpc_peer.py"), docs,
                os.path.join(out, "python_xmlrpc_peer.json")] + (["--smoke"] if smoke else [])
        if subprocess.run([documents, docs]).returncode != 0 or subprocess.run(peer).returncode != 0:
            failures.append("python_xmlrpc_peer: failed")
        shutil.rmtree(docs, ignore_errors=True)

    results, contexts = report.load(out)
    print(report.build_table(results))
    print()
    print("Machine: " + report.describe_machine(contexts) + ". Ratios: how many times better HalvosCore does."
          + (" Smoke run: one iteration each, figures mean nothing." if smoke else ""))
    for f in failures:
        print(f"run.py: FAILED {f}", file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())

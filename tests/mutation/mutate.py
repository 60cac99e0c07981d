#!/usr/bin/env python3
"""./hv mutate: how many realistic one-line faults in the libraries the fast tests catch.

Each mutant changes one line of RtCore/RtNetwork/HalvosCore sources in one of the ways a real
slip does (a flipped or off-by-one comparison, a swapped boolean or constant, && for ||, a
dropped call, a dropped escape); the mutants are drawn with a fixed seed so that two runs judge
the same faults. For each mutant the file is changed in place, the mutation build (build/mutate,
no sanitizers, so that a rebuild is quick) is rebuilt, and the fast test programs run one after
the other until one fails. A mutant that does not compile is not counted. The file is always
restored. The report (build/mutate/report.md) gives the share killed and every survivor.

usage: tests/mutation/mutate.py [--count N] [--seed S] [--jobs J] [--only PATH_SUBSTRING]
"""
import argparse
import os
import random
import re
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.path.join(ROOT, "build", "mutate")
SOURCES = ("RtCore/Source", "RtNetwork/Source", "HalvosCore/Source")
# The fast programs, cheapest first: a mutant dies at the first one that fails.
TEST_PROGRAMS = ("RtCoreTests", "RtNetworkTests", "HalvosCoreTests", "IntegrationTests", "ToolsTests")
TEST_TIMEOUT = 300

# (name, pattern, replacement): applied to one occurrence on one line.
OPERATORS = [
    ("flip <", re.compile(r"(?<![<\-])<(?![<=])(?=\s)"), ">="),
    ("flip >", re.compile(r"(?<![>\-])>(?![>=])(?=\s)"), "<="),
    ("off-by-one <", re.compile(r"(?<=\s)<(?=\s)"), "<="),
    ("off-by-one <=", re.compile(r"(?<=\s)<=(?=\s)"), "<"),
    ("off-by-one >", re.compile(r"(?<=\s)>(?=\s)"), ">="),
    ("off-by-one >=", re.compile(r"(?<=\s)>=(?=\s)"), ">"),
    ("== to !=", re.compile(r"(?<=\s)==(?=\s)"), "!="),
    ("!= to ==", re.compile(r"(?<=\s)!=(?=\s)"), "=="),
    ("&& to ||", re.compile(r"(?<=\s)&&(?=\s)"), "||"),
    ("|| to &&", re.compile(r"(?<=\s)\|\|(?=\s)"), "&&"),
    ("+ 1 to - 1", re.compile(r"\+ 1\b"), "- 1"),
    ("- 1 to + 1", re.compile(r"- 1\b"), "+ 1"),
    ("true to false", re.compile(r"\btrue\b"), "false"),
    ("false to true", re.compile(r"\bfalse\b"), "true"),
    ("0 to 1 in a comparison", re.compile(r"(?<=[<>=] )0(?![\w.x])"), "1"),
    ("return 0 to 1", re.compile(r"(?<=return )0(?=;)"), "1"),
    ("drop !", re.compile(r"(?<![!=])!(?!=)"), ""),
    ("drop escape", re.compile(r'"&(amp|lt|gt|quot|apos);"'), '"&"'),
]
CALL_LINE = re.compile(r"^\s*[A-Za-z_][\w:.>\-]*\s*\(.*\);\s*$")
# Dropped releases and frees only leak: the sanitizer build judges those, not this run.
MEMORY_CALL = re.compile(r"\b(RtRelease|RtRetain|free|delete|release|retain)\b")
SKIP_LINE = re.compile(r"^\s*(//|/\*|\*|#|static_assert|assert\()")


def candidates():
    found = []
    for folder in SOURCES:
        for name in sorted(os.listdir(os.path.join(ROOT, folder))):
            if not name.endswith(".cpp"):
                continue
            path = os.path.join(folder, name)
            with open(os.path.join(ROOT, path), encoding="utf-8") as f:
                lines = f.read().split("\n")
            for i, line in enumerate(lines):
                code = line.split("//")[0]
                if SKIP_LINE.match(line) or not code.strip():
                    continue
                for op, pattern, repl in OPERATORS:
                    for m in pattern.finditer(code):
                        if code.count('"', 0, m.start()) % 2 and op != "drop escape":
                            continue  # inside a string literal
                        found.append((path, i, op, m.start(), m.end(), repl))
                if CALL_LINE.match(code) and not re.match(r"\s*(return|if|while|for|else)\b", code) \
                        and not MEMORY_CALL.search(code):
                    found.append((path, i, "drop call", 0, len(line), None))
    return found


def sh(cmd, timeout=None):
    return subprocess.run(cmd, cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          timeout=timeout, text=True)


def configure(jobs):
    if not os.path.exists(os.path.join(BUILD, "build.ninja")):
        r = sh(["cmake", "-S", ".", "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                "-DHV_BUILD_BENCH=OFF", "-DHV_WERROR=OFF", "-DCMAKE_CXX_FLAGS=-O1",
                "-DCMAKE_C_COMPILER_LAUNCHER=ccache", "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"])
        if r.returncode:
            sys.exit(r.stdout)
    r = sh(["cmake", "--build", BUILD, "-j", str(jobs)])
    if r.returncode:
        sys.exit("the unmutated tree does not build:\n" + r.stdout[-3000:])
    for program in TEST_PROGRAMS:
        if run_program(program) is not None:
            sys.exit(f"{program} fails on the unmutated tree")


def run_program(program):
    exe = os.path.join(BUILD, "tests", program)
    if not os.path.exists(exe):
        return None
    env = dict(os.environ, HV_SOURCE_DIR=ROOT, HV_BINARY_DIR=BUILD)
    try:
        r = subprocess.run([exe, "--gtest_brief=1"], cwd=ROOT, env=env, stdout=subprocess.PIPE,
                           stderr=subprocess.STDOUT, timeout=TEST_TIMEOUT, text=True)
    except subprocess.TimeoutExpired:
        return program + " (timed out)"
    return None if r.returncode == 0 else program


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--count", type=int, default=300)
    ap.add_argument("--seed", type=int, default=20261125)
    ap.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    ap.add_argument("--only", default="")
    args = ap.parse_args()

    configure(args.jobs)
    pool = [c for c in candidates() if args.only in c[0]]
    random.Random(args.seed).shuffle(pool)
    chosen = pool[:args.count]
    killed, survived, stillborn = [], [], 0
    started = time.time()
    for n, (path, index, op, start, end, repl) in enumerate(chosen, 1):
        full = os.path.join(ROOT, path)
        with open(full, encoding="utf-8") as f:
            original = f.read()
        lines = original.split("\n")
        before = lines[index]
        if repl is None:
            lines[index] = ""
        else:
            code = before
            lines[index] = code[:start] + repl + code[end:]
        where = f"{path}:{index + 1} [{op}] {before.strip()}  =>  {lines[index].strip()}"
        try:
            with open(full, "w", encoding="utf-8") as f:
                f.write("\n".join(lines))
            build = sh(["cmake", "--build", BUILD, "-j", str(args.jobs)], timeout=900)
            if build.returncode:
                stillborn += 1
                verdict = "does not compile"
            else:
                failing = None
                for program in TEST_PROGRAMS:
                    failing = run_program(program)
                    if failing:
                        break
                (killed if failing else survived).append(where)
                verdict = f"killed by {failing}" if failing else "SURVIVED"
        finally:
            with open(full, "w", encoding="utf-8") as f:
                f.write(original)
        print(f"[{n}/{len(chosen)}] {verdict}: {where}", flush=True)
    sh(["cmake", "--build", BUILD, "-j", str(args.jobs)])

    judged = len(killed) + len(survived)
    score = 100.0 * len(killed) / judged if judged else 0.0
    report = [f"# Mutation run: seed {args.seed}, {len(chosen)} mutants",
              "",
              f"{len(killed)} of {judged} killed ({score:.1f}%); {stillborn} did not compile; "
              f"{(time.time() - started) / 60:.0f} minutes.",
              "", "## Survivors", ""] + [f"- `{s}`" for s in survived]
    os.makedirs(BUILD, exist_ok=True)
    with open(os.path.join(BUILD, "report.md"), "w", encoding="utf-8") as f:
        f.write("\n".join(report) + "\n")
    print("\n".join(report))


if __name__ == "__main__":
    main()

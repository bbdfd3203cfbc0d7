#!/usr/bin/env python3
"""Mutation check: does the suite notice faults a developer could make?

Each mutant in tests/mutants.txt is one small change to production code. The
tree is copied once to a scratch folder and built there; then each mutant is
applied alone, the tree rebuilt and the suite run until its first failure. A
mutant the suite fails on is killed; one it passes survives. A mutant that does
not build is reported and not counted. The score is killed / (killed + survived).

  tools/mutants.py [--build DIR] [--only ID[,ID...]] [--jobs N] [--keep-going]

The list's format, one block per mutant, blocks separated by blank lines:

  id: request-version-check
  file: src/protocol/requesthandler.cpp
  find: if (version != QLatin1String("1.00"))
  replace: if (version == QLatin1String("1.00"))

`find` must occur exactly once in the file (leading and trailing blanks of
the line are ignored); a mutant whose text is gone is reported as stale.
"""
import argparse
import os
import shutil
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def read_mutants(path):
    mutants, block = [], {}
    with open(path, encoding="utf-8") as f:
        lines = f.read().split("\n")
    for n, line in enumerate(lines + [""], 1):
        if line.startswith("#"):
            continue
        if not line.strip():
            if block:
                missing = {"id", "file", "find", "replace"} - block.keys()
                if missing:
                    sys.exit(f"{path}:{n}: mutant {block.get('id', '?')} lacks {', '.join(sorted(missing))}")
                mutants.append(block)
                block = {}
            continue
        key, sep, value = line.partition(":")
        if not sep or key not in ("id", "file", "find", "replace", "why"):
            sys.exit(f"{path}:{n}: expected 'id:', 'file:', 'find:', 'replace:' or 'why:', got: {line}")
        block[key] = value.strip()
    ids = [m["id"] for m in mutants]
    dup = {i for i in ids if ids.count(i) > 1}
    if dup:
        sys.exit(f"{path}: ids used twice: {', '.join(sorted(dup))}")
    return mutants


def run(cmd, cwd, log, timeout=None):
    with open(log, "w") as out:
        try:
            return subprocess.run(cmd, cwd=cwd, stdout=out, stderr=subprocess.STDOUT, timeout=timeout).returncode
        except subprocess.TimeoutExpired:
            return 124


def copy_tree(dest):
    files = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, capture_output=True, check=True).stdout
    tracked = set(filter(None, files.decode().split("\0")))
    # Files the tree no longer has leave the copy too (tests are found by name).
    for top, _, names in os.walk(dest):
        for name in names:
            path = os.path.join(top, name)
            if os.path.relpath(path, dest) not in tracked:
                os.remove(path)
    for rel in sorted(tracked):
        src, dst = os.path.join(ROOT, rel), os.path.join(dest, rel)
        if not os.path.isfile(src):
            continue
        os.makedirs(os.path.dirname(dst), exist_ok=True)
        # Unchanged files keep their times, so the scratch build stays incremental;
        # a changed one gets the time of the copy, not its own: a mutant restored
        # after the source's last change left a newer object file behind.
        if not os.path.exists(dst) or open(src, "rb").read() != open(dst, "rb").read():
            shutil.copy(src, dst)


def layer_of(path):
    parts = path.split("/")
    return parts[1] if len(parts) > 2 and parts[0] == "src" else ""


def failed(ctest, build, log, layer):
    """Runs the tests of the mutated layer first: they are the likeliest to fail."""
    if layer:
        if run(ctest + ["-R", f"^{layer}_"], build, log + ".test-own.log"):
            return True
        return run(ctest + ["-E", f"^{layer}_"], build, log + ".test-rest.log") != 0
    return run(ctest, build, log + ".test.log") != 0


def main():
    ap = argparse.ArgumentParser(description="Apply each mutant alone and run the suite against it.")
    ap.add_argument("--build", default=os.path.join(ROOT, "build-mutants"), help="scratch folder")
    ap.add_argument("--list", default=os.path.join(ROOT, "tests", "mutants.txt"))
    ap.add_argument("--only", default="", help="comma-separated mutant ids")
    ap.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    ap.add_argument("--keep-going", action="store_true", help="run the whole suite, not up to its first failure")
    args = ap.parse_args()

    mutants = read_mutants(args.list)
    if args.only:
        wanted = set(args.only.split(","))
        unknown = wanted - {m["id"] for m in mutants}
        if unknown:
            sys.exit(f"no such mutant: {', '.join(sorted(unknown))}")
        mutants = [m for m in mutants if m["id"] in wanted]

    tree, build, logs = (os.path.join(args.build, d) for d in ("tree", "build", "logs"))
    os.makedirs(logs, exist_ok=True)
    os.makedirs(tree, exist_ok=True)
    copy_tree(tree)

    # Every mutant's text must be found once before any time is spent building.
    stale = []
    for m in mutants:
        path = os.path.join(tree, m["file"])
        text = open(path, encoding="utf-8").read() if os.path.isfile(path) else ""
        if text.count(m["find"]) != 1:
            stale.append(f"{m['id']}: '{m['find']}' occurs {text.count(m['find'])} times in {m['file']}")
    if stale:
        print("Stale mutants (the code changed; edit tests/mutants.txt):", *stale, sep="\n  ")
        return 2

    launcher = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
    if not os.path.exists(os.path.join(build, "build.ninja")):
        if run(["cmake", "-S", tree, "-B", build, "-G", "Ninja", *launcher], tree, os.path.join(logs, "configure.log")):
            sys.exit(f"configure failed: {logs}/configure.log")
    ctest = ["ctest", "-j", str(args.jobs), "--timeout", "300"] + ([] if args.keep_going else ["--stop-on-failure"])

    print(f"Baseline: building and running the suite unchanged in {build}", flush=True)
    if run(["cmake", "--build", build, "-j", str(args.jobs)], tree, os.path.join(logs, "baseline-build.log")):
        sys.exit(f"the unchanged tree does not build: {logs}/baseline-build.log")
    if run(ctest, build, os.path.join(logs, "baseline-test.log")):
        sys.exit(f"the suite fails on the unchanged tree: {logs}/baseline-test.log")

    killed, survived, broken = [], [], []
    for k, m in enumerate(mutants, 1):
        path = os.path.join(tree, m["file"])
        original = open(path, encoding="utf-8").read()
        started = time.monotonic()
        try:
            with open(path, "w", encoding="utf-8") as f:
                f.write(original.replace(m["find"], m["replace"], 1))
            log = os.path.join(logs, m["id"])
            if run(["cmake", "--build", build, "-j", str(args.jobs)], tree, log + ".build.log"):
                verdict = "does not build"
                broken.append(m["id"])
            elif failed(ctest, build, log, layer_of(m["file"])):
                verdict = "killed"
                killed.append(m["id"])
            else:
                verdict = "SURVIVED"
                survived.append(m["id"])
        finally:
            with open(path, "w", encoding="utf-8") as f:
                f.write(original)
        print(f"[{k}/{len(mutants)}] {m['id']:<40} {verdict:<15} {time.monotonic() - started:6.0f} s", flush=True)

    counted = len(killed) + len(survived)
    print()
    if survived:
        print("Survived:", *survived, sep="\n  ")
    if broken:
        print("Do not build (not counted):", *broken, sep="\n  ")
    if counted:
        print(f"Mutation score: {len(killed)} of {counted} killed, {100.0 * len(killed) / counted:.1f}%")
    return 0 if counted else 1


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Test lines against production lines: non-blank lines of .cpp and .h files
that are not // comments. Production is src/ and tools/, tests are tests/;
bench/ is neither.

  tools/testratio.py [--max R]    exits 1 when the ratio is above R
"""
import argparse
import os
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def count(folder):
    lines = 0
    for top, _, files in os.walk(os.path.join(ROOT, folder)):
        for name in files:
            if name.endswith((".cpp", ".h")):
                with open(os.path.join(top, name), encoding="utf-8", errors="replace") as f:
                    lines += sum(1 for l in f if l.strip() and not l.lstrip().startswith("//"))
    return lines


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--max", type=float)
    args = ap.parse_args()
    production = count("src") + count("tools")
    tests = count("tests")
    ratio = tests / production
    print(f"production {production}, tests {tests}, ratio {ratio:.2f}")
    return 1 if args.max is not None and ratio > args.max else 0


if __name__ == "__main__":
    sys.exit(main())

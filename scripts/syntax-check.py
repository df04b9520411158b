#!/usr/bin/python3
"""Runs every compile command of a configured build tree with -fsyntax-only.

Clang's thread-safety analysis runs during semantic analysis, so checking the
annotations needs no code generation: this is the whole `make thread-safety`
build at a fraction of its cost.

Usage: syntax-check.py BUILD_DIR [JOBS [SKIP_DIR...]]; files under a SKIP_DIR
(relative to the source tree, e.g. tests) are left out.
"""
import json
import os
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor


def syntax_only(entry):
    args = entry.get("arguments") or shlex.split(entry["command"])
    out = []
    skip = False
    for arg in args:
        if skip:
            skip = False
        elif arg == "-o":
            skip = True  # nothing is written
        else:
            out.append(arg)
    out.append("-fsyntax-only")
    result = subprocess.run(out, cwd=entry["directory"], capture_output=True, text=True)
    return entry["file"], result.returncode, result.stdout + result.stderr


def main():
    build = sys.argv[1]
    jobs = int(sys.argv[2]) if len(sys.argv) > 2 else 2
    source = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    skipped = tuple(os.path.join(source, d.strip("/")) + "/" for d in sys.argv[3:])
    with open(f"{build}/compile_commands.json") as f:
        entries = [e for e in json.load(f) if not e["file"].startswith(skipped)]
    failed = 0
    with ThreadPoolExecutor(max_workers=jobs) as pool:
        for name, code, text in pool.map(syntax_only, entries):
            if text:
                sys.stderr.write(text)
            if code != 0:
                failed += 1
                print(f"FAILED: {name}", file=sys.stderr)
    print(f"{len(entries)} files checked, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())

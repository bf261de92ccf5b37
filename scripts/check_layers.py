#!/usr/bin/env python3
"""Fails on an include that points up the layers of src/ (docs/development.md, "Layers").

    check_layers.py [--src DIR] [--allow FILE]     check a tree; exit 1 on a finding
    check_layers.py --self-test                    the check's own cases on small temporary trees

Layers, bottom to top: base (memory/, core/ but the daemon's files), event, tls, http, s3, storage
(storage/, access/, versions/), daemon (control/, ctl/, core/orbs3_main, orbs3_process, orbs3_worker). A file
may include its own layer and those below. Three more rules:
  - a private header may be included only from its own directory (PRIVATE below);
  - an engine file (listed as `engine` in the allow-list file) includes nothing of http/;
  - every `allow` entry must still match an include, so the list only shrinks.

The allow-list file has one entry a line, each with its reason after a colon:
    allow <file> -> <header> : <reason>
    engine <file> : <what it does>
Blank lines and lines starting with '#' are ignored.
"""

import argparse
import os
import re
import subprocess
import sys
import tempfile

RANKS = {"base": 0, "event": 1, "tls": 2, "http": 3, "s3": 4, "storage": 5, "daemon": 6}
DIR_LAYER = {"memory": "base", "core": "base", "event": "event", "tls": "tls", "http": "http", "s3": "s3",
             "storage": "storage", "access": "storage", "versions": "storage", "control": "daemon",
             "ctl": "daemon"}
DAEMON_CORE = {"core/orbs3_main", "core/orbs3_process", "core/orbs3_worker"}
# Headers whose module is one directory: nothing outside that directory includes them.
PRIVATE = {"s3/orbs3_s3_sign_parts.h": "s3/"}

INCLUDE = re.compile(r'^\s*#\s*include\s+"([a-z0-9_]+/[a-z0-9_]+\.h)"')
ENTRY = re.compile(r'^(allow)\s+(\S+)\s*->\s*(\S+)\s*:\s*(\S.*)$|^(engine)\s+(\S+)\s*:\s*(\S.*)$')


def layer_of(path):
    stem = path.rsplit(".", 1)[0]
    if stem in DAEMON_CORE:
        return "daemon"
    return DIR_LAYER.get(path.split("/", 1)[0])


def read_allow(path):
    allow, engine, errors = {}, {}, []
    if path is None or not os.path.exists(path):
        return allow, engine, errors
    for n, line in enumerate(open(path, encoding="utf-8"), 1):
        line = line.strip()
        if not line or line.startswith("#"):
            continue
        m = ENTRY.match(line)
        if m is None:
            errors.append(f"{path}:{n}: not an entry (allow <file> -> <header> : <reason>, engine <file> : <reason>)")
        elif m.group(1):
            allow[(m.group(2), m.group(3))] = n
        else:
            engine[m.group(6)] = n
    return allow, engine, errors


def sources(src):
    for d in sorted(os.listdir(src)):
        full = os.path.join(src, d)
        if not os.path.isdir(full):
            continue
        for f in sorted(os.listdir(full)):
            if f.endswith((".h", ".cpp")):
                yield f"{d}/{f}"


def check(src, allow_path):
    allow, engine, problems = read_allow(allow_path)
    used = set()
    for path in sources(src):
        mine = layer_of(path)
        if mine is None:
            problems.append(f"{path}: directory of no layer; name its layer in scripts/check_layers.py")
            continue
        with open(os.path.join(src, path), encoding="utf-8") as f:
            for n, line in enumerate(f, 1):
                m = INCLUDE.match(line)
                if m is None:
                    continue
                header = m.group(1)
                theirs = layer_of(header)
                findings = []
                if theirs is not None and RANKS[theirs] > RANKS[mine]:
                    findings.append(f"{mine} includes {theirs}")
                owner = PRIVATE.get(header)
                if owner is not None and not path.startswith(owner):
                    findings.append(f"private header of {owner}")
                if path in engine and header.startswith("http/"):
                    findings.append("engine file includes http/")
                if not findings:
                    continue
                if (path, header) in allow and "engine file includes http/" not in findings:
                    used.add((path, header))
                    continue
                problems.append(f"{path}:{n}: {header}: {'; '.join(findings)}")
    for (path, header), n in sorted(allow.items(), key=lambda e: e[1]):
        if (path, header) not in used:
            problems.append(f"{allow_path}:{n}: {path} -> {header} is no longer needed; remove the entry")
    for path, n in sorted(engine.items(), key=lambda e: e[1]):
        if not os.path.exists(os.path.join(src, path)):
            problems.append(f"{allow_path}:{n}: engine file {path} does not exist")
    return problems


def self_test():
    """Each case is a tree, an allow-list and whether the check must pass on it."""
    cases = [
        ("downward includes pass", {"http/a.cpp": ["memory/b.h", "event/c.h"]}, "", True),
        ("an upward include fails", {"memory/b.cpp": ["http/a.h"]}, "", False),
        ("the daemon's core files are above storage", {"storage/s.cpp": ["core/orbs3_worker.h"]}, "", False),
        ("an allowed upward include passes", {"memory/b.cpp": ["http/a.h"]},
         "allow memory/b.cpp -> http/a.h : test\n", True),
        ("a stale allow entry fails", {"memory/b.cpp": ["memory/c.h"]},
         "allow memory/b.cpp -> http/a.h : test\n", False),
        ("a private header outside its directory fails", {"storage/o.cpp": ["s3/orbs3_s3_sign_parts.h"]}, "",
         False),
        ("a private header inside its directory passes", {"s3/v.cpp": ["s3/orbs3_s3_sign_parts.h"]}, "", True),
        ("an engine file that includes http fails", {"storage/e.cpp": ["http/h.h"]},
         "engine storage/e.cpp : test\n", False),
        ("an engine file fails even when allowed", {"storage/e.cpp": ["http/h.h"]},
         "engine storage/e.cpp : test\nallow storage/e.cpp -> http/h.h : test\n", False),
        ("a handler file beside an engine file may include http",
         {"storage/h.cpp": ["http/h.h"], "storage/e.cpp": ["memory/b.h"]}, "engine storage/e.cpp : x\n", True),
        ("a listed engine file that does not exist fails", {"storage/h.cpp": ["memory/b.h"]},
         "engine storage/e.cpp : x\n", False),
        ("an entry without a reason fails", {"memory/b.cpp": ["http/a.h"]}, "allow memory/b.cpp -> http/a.h\n",
         False),
    ]
    failed = 0
    for name, tree, allow_text, want_pass in cases:
        with tempfile.TemporaryDirectory() as root:
            src = os.path.join(root, "src")
            for path, includes in tree.items():
                os.makedirs(os.path.join(src, os.path.dirname(path)), exist_ok=True)
                with open(os.path.join(src, path), "w", encoding="utf-8") as f:
                    f.write("".join(f'#include "{h}"\n' for h in includes))
            allow = os.path.join(root, "allow.txt")
            with open(allow, "w", encoding="utf-8") as f:
                f.write(allow_text)
            # The real command line, as ctest runs it.
            run = subprocess.run([sys.executable, os.path.abspath(__file__), "--src", src, "--allow", allow],
                                 capture_output=True, text=True)
            passed = run.returncode == 0
            if passed != want_pass:
                failed += 1
                print(f"FAIL {name}: exit {run.returncode}\n{run.stdout}{run.stderr}")
            else:
                print(f"ok   {name}")
    return 1 if failed else 0


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--src", default=os.path.join(here, "..", "src"))
    ap.add_argument("--allow", default=os.path.join(here, "layers_allow.txt"))
    ap.add_argument("--self-test", action="store_true")
    args = ap.parse_args()
    if args.self_test:
        return self_test()
    problems = check(args.src, args.allow)
    for p in problems:
        print(p)
    if problems:
        print(f"{len(problems)} layer problem(s); see docs/development.md, \"Layers\"")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())

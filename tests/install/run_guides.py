#!/usr/bin/env python3
"""Runs the commands of the guides in docs/ and checks what they print.

The convention the guides are written in:
  - every ```sh block runs, in the order of the guide, in one bash with
    `set -euo pipefail`, so `cd` and variables carry on to later blocks;
  - an ```output block right after an sh block holds lines that its commands
    must print, in that order; "..." in a line stands for any text.

The guides run one after the other, in the order of GUIDES, on one machine:
TARNCORE_ROOT is a fresh folder, HOME an empty one, and apt-get and systemctl
are the stand-ins in bin/, which act on that machine root. Each starts in a
checkout whose scripts/ is this tree's; ./scripts/package there packages the
build tree under test. install.md makes the packages and ends with a purge;
kits.md installs them again and adds a kit, which clients.md calls.

usage: run_guides.py SOURCE_DIR BUILD_TREE WORK_DIR
"""
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent


def blocks(text):
    """[commands, expected lines or None, line number] for each sh block."""
    found, after_sh = [], False  # after_sh: only blank lines since an sh block closed
    lines = iter(enumerate(text.splitlines(), 1))
    for number, line in lines:
        opening = re.fullmatch(r"```(\w*)\s*", line)
        if not opening:
            if line.strip():
                after_sh = False
            continue
        body = []
        for _, inner in lines:
            if inner.strip() == "```":
                break
            body.append(inner)
        kind = opening.group(1)
        if kind == "sh":
            found.append(["\n".join(body), None, number])
        elif kind == "output":
            if not after_sh:
                raise ValueError(f"line {number}: an output block must follow an sh block")
            found[-1][1] = [l.rstrip() for l in body if l.strip()]
        after_sh = kind == "sh"
    return found


def matches(expected, printed):
    """Whether the expected lines occur in printed, in order."""
    printed = [l.rstrip() for l in printed.splitlines()]
    at = 0
    for want in expected:
        pattern = re.compile(".*".join(re.escape(part) for part in want.split("...")))
        while at < len(printed) and not pattern.fullmatch(printed[at]):
            at += 1
        if at == len(printed):
            return False
        at += 1
    return True


GUIDES = ["install.md", "kits.md", "clients.md"]


def run_guide(guide, env, checkout, outputs):
    steps = blocks(guide.read_text())
    outputs.mkdir(parents=True)
    script = ['set -euo pipefail', f'out="{outputs}"']
    for n, (commands, _, _) in enumerate(steps, 1):
        script += [f'echo {n} > "$out/at"', "{", commands, f'}} > "$out/{n}" 2>&1 < /dev/null']
    print(f"== {guide.name}: {len(steps)} blocks", flush=True)
    result = subprocess.run(["bash", "-c", "\n".join(script)], cwd=checkout, env=env)

    failures = []
    last = int((outputs / "at").read_text()) if (outputs / "at").exists() else 0
    for n, (commands, expected, line) in enumerate(steps[:last], 1):
        printed = (outputs / str(n)).read_text(errors="replace")
        failed = (n == last and result.returncode != 0)
        if failed or (expected is not None and not matches(expected, printed)):
            why = f"exit status {result.returncode}" if failed else "output differs"
            failures.append(f"{guide.name}:{line}: {why}\n--- commands\n{commands}\n--- printed\n{printed}"
                            + ("" if failed else "--- expected\n" + "\n".join(expected)))
    if result.returncode == 0 and last != len(steps):  # a block ended the shell early
        failures.append(f"{guide.name}: stopped after block {last} of {len(steps)}")
    return failures


def main():
    source, tree, work = (Path(a).resolve() for a in sys.argv[1:4])
    unknown = {p.name for p in (source / "docs").glob("*.md")} - set(GUIDES)
    if unknown:
        print(f"guides without a place in the run: {sorted(unknown)}", file=sys.stderr)
        return 1
    shutil.rmtree(work, ignore_errors=True)
    checkout, root, home = work / "checkout", work / "root", work / "home"
    for folder in (checkout, root, home):
        folder.mkdir(parents=True)
    (checkout / "scripts").symlink_to(source / "scripts")
    env = dict(os.environ)
    env.update(TARNCORE_ROOT=str(root), HOME=str(home), TARN_PACKAGE_TREE=str(tree),
               PATH=f"{HERE / 'bin'}:{root / 'usr/bin'}:{env['PATH']}",
               CMAKE_PREFIX_PATH=str(root / "usr"), PKG_CONFIG_PATH=str(root / "usr/lib/pkgconfig"))
    # A program that loads a sanitized tree's client library must start with
    # the sanitizer's runtime: the guides' builds get the tree's sanitizers.
    if "TARN_SANITIZE:BOOL=ON" in (tree / "CMakeCache.txt").read_text():
        env.update(CXXFLAGS="-fsanitize=address,undefined", LDFLAGS="-fsanitize=address,undefined")

    failures = []
    try:
        for name in GUIDES:
            failures = run_guide(source / "docs" / name, env, checkout, work / "out" / name)
            if failures:
                break  # the next guide goes on from this one's machine
    finally:
        subprocess.run([str(HERE / "bin" / "systemctl"), "stop", "TarnCoreService"], env=env)
    for failure in failures:
        print(failure, file=sys.stderr)
    if not failures:
        shutil.rmtree(root, ignore_errors=True)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())

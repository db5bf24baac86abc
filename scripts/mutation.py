#!/usr/bin/env python3
"""Mutation check: applies each plausible fault of a list, one at a time, rebuilds, runs the test
suite and restores the file. A fault the suite notices is killed; one it does not is a survivor.

The list (tests/mutants.txt by default) holds one fault per block:

    @ src/coordinator/cycle.cc
    - coordinator->broadcast_addr.sin_addr.s_addr = address;
    + (void)address;
    ? an edited broadcast address is logged but never applied

`@` names the file, `-` the exact original text and `+` its replacement (`\\n` stands for a line
feed, `\\\\` for a backslash), `?` what the fault breaks. A block may also carry `= equivalent:
<why>` when the fault cannot be told apart from the original by any test; it is then reported but
not run. A fault whose original text is not found exactly once is reported as stale.
"""
import argparse
import os
import shutil
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)


def unescape(text):
    out, i = [], 0
    while i < len(text):
        if text[i] == "\\" and i + 1 < len(text):
            nxt = text[i + 1]
            out.append({"n": "\n", "t": "\t", "\\": "\\"}.get(nxt, "\\" + nxt))
            i += 2
        else:
            out.append(text[i])
            i += 1
    return "".join(out)


def read_mutants(path):
    mutants, cur = [], None
    with open(path, encoding="utf-8") as f:
        for number, raw in enumerate(f, 1):
            line = raw.rstrip("\n")
            if not line.strip() or line.lstrip().startswith("#"):
                continue
            tag, body = line[:1], line[2:] if len(line) > 1 else ""
            if tag == "@":
                cur = {"file": body.strip(), "line": number, "equivalent": None}
                mutants.append(cur)
            elif cur is None:
                sys.exit(f"{path}:{number}: a block starts with '@ FILE'")
            elif tag == "-":
                cur["original"] = unescape(body)
            elif tag == "+":
                cur["replacement"] = unescape(body)
            elif tag == "?":
                cur["breaks"] = body.strip()
            elif tag == "=":
                cur["equivalent"] = body.strip()
            else:
                sys.exit(f"{path}:{number}: unknown line '{line}'")
    for m in mutants:
        for key in ("original", "replacement", "breaks"):
            if key not in m:
                sys.exit(f"{path}:{m['line']}: the block lacks its '{key}' line")
    return mutants


def run(cmd, log, timeout):
    try:
        with open(log, "w") as out:
            return subprocess.run(cmd, cwd=ROOT, stdout=out, stderr=subprocess.STDOUT, timeout=timeout).returncode
    except subprocess.TimeoutExpired:
        return -1


def suite_command(build, jobs):
    # The browser check is no part of the default suite (it needs Chromium and takes a minute). The
    # scenarios mostly wait on scaled pauses: three times as many run at once as there are processors.
    ctest = ["ctest", "--test-dir", build, "-j", str(3 * jobs), "--stop-on-failure", "--output-on-failure",
             "-LE", "browser"]
    # The suite talks to simulated nodes on loopback; a private network namespace keeps two runs
    # (or other work on the machine) from meeting on the same ports.
    if os.geteuid() == 0 and shutil.which("unshare") and shutil.which("ip"):
        return ["unshare", "-n", "sh", "-c", "ip link set lo up && exec " + " ".join(ctest)]
    return ctest


def failed_tests(log):
    """The tests a suite run reported as failed, as its log names them."""
    names = []
    try:
        with open(log, encoding="utf-8", errors="replace") as f:
            lines = f.read().splitlines()
    except OSError:
        return names
    # A test program's own failures name the GoogleTest cases; otherwise CTest names the program.
    for line in lines:
        if line.startswith("[  FAILED  ] ") and "," not in line and " tests, " not in line:
            case = line[len("[  FAILED  ] "):].split(" ", 1)[0]
            if case not in names:
                names.append(case)
    if names:
        return names
    if "The following tests FAILED:" in lines:
        for line in lines[lines.index("The following tests FAILED:") + 1:]:
            parts = line.strip().split(" - ", 1)
            if len(parts) == 2 and parts[0].isdigit():
                names.append(parts[1].rsplit(" (", 1)[0])
    return names


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--list", default=os.path.join(ROOT, "tests", "mutants.txt"))
    parser.add_argument("--build", default=os.path.join(ROOT, "build-mutation"))
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    parser.add_argument("--only", action="append",
                        help="run only the faults whose file or description contains this text (repeatable)")
    parser.add_argument("--timeout", type=int, default=900, help="seconds for one suite run")
    parser.add_argument("--check", action="store_true",
                        help="only check that every original is found exactly once; nothing is built")
    args = parser.parse_args()

    mutants = read_mutants(args.list)
    if args.only:
        mutants = [m for m in mutants if any(o in m["breaks"] or o in m["file"] for o in args.only)]
    if args.check:
        stale = 0
        for m in mutants:
            try:
                with open(os.path.join(ROOT, m["file"]), encoding="utf-8") as f:
                    found = f.read().count(m["original"])
            except OSError:
                found = 0
            if found != 1:
                stale += 1
                print(f"{m['file']}:{m['line']}: {m['breaks']}: STALE (original found {found} times)")
        print(f"{len(mutants)} faults, {stale} stale")
        return 1 if stale else 0
    logs = os.path.join(args.build, "mutation-logs")
    os.makedirs(logs, exist_ok=True)
    configure = ["cmake", "-S", ROOT, "-B", args.build, "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                 "-DZUNTA_BUILD_BENCH=OFF"]
    build = ["cmake", "--build", args.build, "-j", str(args.jobs)]
    if run(configure, os.path.join(logs, "configure.log"), 600) != 0 or \
       run(build, os.path.join(logs, "build.log"), 3600) != 0:
        sys.exit("mutation: the unchanged tree does not build; see " + logs)
    # A suite that fails without any fault would count every fault as killed.
    started = time.monotonic()
    if run(suite_command(args.build, args.jobs), os.path.join(logs, "unchanged.log"), args.timeout) != 0:
        sys.exit("mutation: the suite fails on the unchanged tree; see " + os.path.join(logs, "unchanged.log"))
    print(f"the unchanged tree passes the suite [{time.monotonic() - started:.0f} s]", flush=True)

    killed = survived = stale = invalid = equivalent = 0
    for n, m in enumerate(mutants, 1):
        path = os.path.join(ROOT, m["file"])
        label = f"{n:3d} {m['file']}: {m['breaks']}"
        try:
            with open(path, encoding="utf-8") as f:
                text = f.read()
        except OSError:
            text = ""
        if text.count(m["original"]) != 1:
            stale += 1
            print(f"{label}: STALE (original found {text.count(m['original'])} times)", flush=True)
            continue
        if m["equivalent"]:
            equivalent += 1
            print(f"{label}: equivalent ({m['equivalent']})", flush=True)
            continue
        started = time.monotonic()
        try:
            with open(path, "w", encoding="utf-8") as f:
                f.write(text.replace(m["original"], m["replacement"], 1))
            log = os.path.join(logs, f"mutant-{n:03d}.log")
            if run(build, log, 3600) != 0:
                invalid += 1
                fate = "does not build (not a valid fault)"
            else:
                code = run(suite_command(args.build, args.jobs), log, args.timeout)
                if code == 0:
                    survived += 1
                    fate = "SURVIVED"
                else:
                    killed += 1
                    fate = "killed" if code > 0 else "killed (suite timed out)"
                    by = failed_tests(log)
                    if by:
                        fate += " by " + ", ".join(by)
        finally:
            # Written back with a fresh time, so the next build compiles the file again.
            with open(path, "w", encoding="utf-8") as f:
                f.write(text)
        print(f"{label}: {fate} [{time.monotonic() - started:.0f} s]", flush=True)

    # Leave the build matching the tree again.
    run(build, os.path.join(logs, "build.log"), 3600)
    if stale or invalid or equivalent:
        print(f"stale {stale}, not building {invalid}, equivalent {equivalent}")
    print(f"killed {killed} of {killed + survived}")
    return 0 if survived == 0 and stale == 0 and invalid == 0 else 1


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/python3
"""Mutation runner: measures which real faults the test suites catch.

Usage: run_mutants.py [--build DIR] [--only ID[,ID...]] [--out FILE] [--timeout S] [--jobs N]
       run_mutants.py --list

Each mutant of tools/mutants/mutants.json is a small change to one source file (a text that
occurs exactly once, and its replacement) standing for a fault a user would suffer from. For
each mutant in turn the runner applies it to the working tree, rebuilds the test programs of the
file's folder incrementally, runs them one after another, and restores the file byte for byte
(also on Ctrl-C, SIGTERM or an error of the runner). A mutant is
  killed          when a test program fails, crashes or runs past its time limit,
  survived        when every test program of its folder passes,
  not compiling   when the build fails (the compiler caught it: not a test's merit).
The programs of a folder run in the listed order (closest and fastest first) and stop at the
first one that kills the mutant. A program is a build target in DIR/bin: without arguments a
GoogleTest program (the failed cases are named), with arguments a check that fails by its exit
status. The programs are first run once on the unchanged tree: they must pass, and their time
sets each one's limit (3x, at least --timeout).

--list checks every entry without building (the text occurs exactly once in its file, the file
has a folder with programs) and prints the list. Exit status: 0 done, 1 stale entries or a
failing baseline, 2 bad usage or uncommitted changes to a listed file.
Standard library only (Debian's /usr/bin/python3).
"""

import argparse
import json
import os
import re
import signal
import subprocess
import sys
import tempfile
import time

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
LIST = os.path.join(ROOT, "tools", "mutants", "mutants.json")
RUN = re.compile(r"^\[ RUN      \] (\S+)")
DONE = re.compile(r"^\[ +(?:OK|FAILED|SKIPPED) +\] (\S+)")
FAILED = re.compile(r"^\[  FAILED  \] ([A-Za-z_]\S*?)(?:,| \(|$)")


def load():
    with open(LIST, encoding="utf-8") as handle:
        data = json.load(handle)
    return data["suites"], data["mutants"]


def folder_of(path, suites):
    """The longest folder of the suite map that holds path, or None."""
    best = None
    for folder in suites:
        if path.startswith(folder.rstrip("/") + "/") and (best is None or len(folder) > len(best)):
            best = folder
    return best


def problems(mutant, suites):
    """What makes an entry unusable (stale text, unknown file or folder), or None."""
    path = os.path.join(ROOT, mutant["file"])
    if not os.path.isfile(path):
        return "%s: no such file" % mutant["file"]
    count = open(path, encoding="utf-8").read().count(mutant["find"])
    if count != 1:
        return "%s: the text to find occurs %d times (must be once): %r" % (
            mutant["file"], count, mutant["find"])
    if mutant["find"] == mutant["replace"]:
        return "%s: the replacement is the text itself" % mutant["file"]
    if folder_of(mutant["file"], suites) is None:
        return "%s: no folder of the suite map holds this file" % mutant["file"]
    return None


def run_program(build, suite, limit):
    """(passed, killers, seconds): runs one program of a suite in its own process group."""
    words = suite.split()
    argv = [os.path.join(build, "bin", words[0])] + (words[1:] or ["--gtest_color=no"])
    began = time.monotonic()
    with tempfile.TemporaryFile() as log:
        child = subprocess.Popen(argv, cwd=ROOT, stdout=log, stderr=subprocess.STDOUT,
                                 stdin=subprocess.DEVNULL, start_new_session=True)
        try:
            status = child.wait(timeout=limit)
        except subprocess.TimeoutExpired:
            status = None
        finally:  # a hung, interrupted or finished program leaves no process behind
            try:
                os.killpg(child.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            child.wait()
        log.seek(0)
        lines = log.read().decode("utf-8", "replace").splitlines()
    seconds = time.monotonic() - began
    if status == 0:
        return True, [], seconds
    killers, running = [], []
    for line in lines:
        if RUN.match(line):
            running.append(RUN.match(line).group(1))
        elif DONE.match(line) and DONE.match(line).group(1) in running:
            running.remove(DONE.match(line).group(1))
        match = FAILED.match(line)
        if match and match.group(1) not in killers:
            killers.append(match.group(1))
    if status is None:
        how = "timeout %.0f s" % limit
    elif status < 0:
        how = "signal %d" % -status
    else:
        how = "exit %d" % status
    if status is None or status < 0 or not killers:
        # The case that never finished is the one that hung or crashed.
        killers.append("%s (%s)" % (running[-1] if running else words[0], how))
    return False, ["%s: %s" % (words[0], k) for k in killers], seconds


def build(build_dir, targets, jobs):
    done = subprocess.run(["cmake", "--build", build_dir, "-j", str(jobs), "--target"] + targets,
                          cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return done.returncode == 0, done.stdout.decode("utf-8", "replace")


def uncommitted(files):
    done = subprocess.run(["git", "status", "--porcelain", "--"] + sorted(files), cwd=ROOT,
                          stdout=subprocess.PIPE, check=True)
    return done.stdout.decode().strip()


def run_mutant(mutant, programs, args, limits):
    path = os.path.join(ROOT, mutant["file"])
    with open(path, "rb") as handle:
        original = handle.read()
    text = original.decode("utf-8")
    result = dict(id=mutant["id"], file=mutant["file"], fault=mutant["fault"], killers=[])
    began = time.monotonic()
    try:
        with open(path, "wb") as handle:
            handle.write(text.replace(mutant["find"], mutant["replace"], 1).encode("utf-8"))
        targets = sorted({p.split()[0] for p in programs})
        built, output = build(args.build, targets, args.jobs)
        if not built:
            errors = [l for l in output.splitlines() if "error:" in l]
            result.update(status="not compiling", detail=(errors or ["build failed"])[0][:200])
        else:
            result["status"] = "survived"
            for program in programs:
                passed, killers, _ = run_program(args.build, program, limits[program])
                if not passed:
                    result.update(status="killed", killers=killers)
                    break
    finally:
        with open(path, "wb") as handle:
            handle.write(original)
    result["seconds"] = round(time.monotonic() - began, 1)
    return result


def report(results, folders):
    print("\n%-34s %-14s %6s  %s" % ("mutant", "result", "s", "killed by / fault"))
    for r in results:
        told = "; ".join(r["killers"][:3]) + (" ..." if len(r["killers"]) > 3 else "")
        print("%-34s %-14s %6.0f  %s" % (r["id"], r["status"], r["seconds"],
                                         told or r.get("detail") or r["fault"]))
    totals = {}
    for r in results:
        for key in (folders[r["id"]], "total"):
            row = totals.setdefault(key, {"killed": 0, "survived": 0, "not compiling": 0})
            row[r["status"]] += 1
    print("\n%-30s %7s %9s %14s %7s" % ("folder", "killed", "survived", "not compiling", "score"))
    for key, row in sorted(totals.items(), key=lambda kv: (kv[0] == "total", kv[0])):
        tested = row["killed"] + row["survived"]
        score = "%.0f %%" % (100.0 * row["killed"] / tested) if tested else "-"
        print("%-30s %7d %9d %14d %7s" % (key, row["killed"], row["survived"],
                                          row["not compiling"], score))
    return totals


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build", default="build/default")
    parser.add_argument("--only", help="comma-separated mutant ids")
    parser.add_argument("--out", help="JSON results file")
    parser.add_argument("--list", action="store_true", help="check and list, without building")
    parser.add_argument("--timeout", type=float, default=120, help="least time limit, s")
    parser.add_argument("--jobs", type=int, default=2, help="build jobs")
    args = parser.parse_args()
    args.build = os.path.abspath(os.path.join(ROOT, args.build))
    suites, mutants = load()
    ids = [m["id"] for m in mutants]
    if len(set(ids)) != len(ids):
        print("mutants.json: duplicate ids: %s" % sorted({i for i in ids if ids.count(i) > 1}))
        return 1
    if args.only:
        wanted = args.only.split(",")
        unknown = [i for i in wanted if i not in ids]
        if unknown:
            print("unknown mutant ids: %s" % ", ".join(unknown))
            return 2
        mutants = [m for m in mutants if m["id"] in wanted]
    stale = [(m["id"], problems(m, suites)) for m in mutants if problems(m, suites)]
    for mutant_id, why in stale:
        print("STALE %s: %s" % (mutant_id, why))
    folders = {m["id"]: folder_of(m["file"], suites) for m in mutants}
    if args.list:
        for m in mutants:
            print("%-34s %-48s %s" % (m["id"], m["file"], m["fault"]))
        counts = {}
        for folder in folders.values():
            counts[folder] = counts.get(folder, 0) + 1
        for folder, count in sorted(counts.items(), key=lambda kv: str(kv[0])):
            print("%4d  %s" % (count, folder))
        print("%d mutants, %d stale" % (len(mutants), len(stale)))
        return 1 if stale else 0
    if stale:
        return 1
    dirty = uncommitted({m["file"] for m in mutants})
    if dirty:
        print("uncommitted changes to listed files; commit or stash them first:\n" + dirty)
        return 2
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # runs the restoring finally

    programs = {f: suites[f] for f in sorted(set(folders.values()))}
    needed = sorted({p for ps in programs.values() for p in ps})
    built, output = build(args.build, sorted({p.split()[0] for p in needed}), args.jobs)
    if not built:
        print("the unchanged tree does not build:\n" + output[-2000:])
        return 1
    limits, baseline = {}, {}
    for program in needed:
        passed, killers, seconds = run_program(args.build, program, 3600)
        baseline[program] = round(seconds, 1)
        limits[program] = max(args.timeout, 3 * seconds)
        print("baseline %-40s %6.1f s %s" % (program, seconds, "ok" if passed else killers))
        if not passed:
            print("the unchanged tree fails %s: fix it before measuring" % program)
            return 1
    results = []
    began = time.monotonic()
    for n, mutant in enumerate(mutants, 1):
        result = run_mutant(mutant, programs[folders[mutant["id"]]], args, limits)
        results.append(result)
        print("[%d/%d] %-34s %-14s %5.0f s %s" % (n, len(mutants), result["id"], result["status"],
                                                  result["seconds"],
                                                  "; ".join(result["killers"][:2])), flush=True)
    # Leave the build directory matching the restored tree.
    build(args.build, sorted({p.split()[0] for p in needed}), args.jobs)
    totals = report(results, folders)
    print("%d mutants in %.0f s" % (len(results), time.monotonic() - began))
    if args.out:
        with open(args.out, "w", encoding="utf-8") as handle:
            json.dump(dict(results=results, totals=totals, baseline_s=baseline,
                           seconds=round(time.monotonic() - began, 1)), handle, indent=1)
    return 0


if __name__ == "__main__":
    sys.exit(main())

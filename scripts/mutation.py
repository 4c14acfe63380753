#!/usr/bin/env python3
"""Mutation check: how many small faults planted in the core files do the tests catch?

Makes mutants of the core files by classic operators, takes a fixed, seeded sample spread over the
areas below, and for each mutant: writes it into the file, rebuilds incrementally, runs the tests
labelled for that area (bounded in time; a hang counts as caught), and restores the file. Prints
caught/total and every surviving mutant with its diff.

A mutant is named by its file, its operator and the exact text of its line, not by a line number,
so the same sample can be run again after the tests (not the code) have changed. Mutants listed in
scripts/mutation-equivalent.txt cannot change behaviour and are left out of the score.

Usage: scripts/mutation.sh [--sample N] [--seed S] [--list] [--only AREA] [--timeout SECONDS]
                          [--save FILE | --load FILE]
"""

import argparse
import collections
import difflib
import json
import os
import random
import re
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.path.join(ROOT, "build-mutation")
EQUIVALENT = os.path.join(ROOT, "scripts", "mutation-equivalent.txt")

# area: (files, ctest labels whose tests guard them). Labels are the library folders' names.
AREAS = collections.OrderedDict([
    ("value codec", (["ka/src/wire/value_codec.cpp"], ["ka"])),
    ("frames and connection", (["ka/src/wire/frame_header.cpp", "ka/src/wire/messages.cpp",
                                "ka/src/wire/connection.cpp", "ka/src/wire/connection_requests.cpp",
                                "ka/src/wire/connection_serving.cpp"], ["ka"])),
    ("event loop", (["ka/src/eventloop.cpp"], ["ka"])),
    ("sqlite stores", (["services/sqlite/src/sqlite_triplet_store.cpp",
                        "services/sqlite/src/group_commit.cpp",
                        "services/sqlite/src/sqlite_user_store.cpp"],
                       ["storage", "sqlite", "knowledge", "usersession"])),
    ("postgresql stores", (["services/postgres/src/postgres_triplet_store.cpp",
                            "services/postgres/src/postgres_user_store.cpp",
                            "services/postgres/src/event_feed.cpp"], ["storage", "postgres"])),
    ("data store", (["qvuserinfo/src/qvuserinfoprivate.cpp", "qvuserinfo/src/qvuserinfoprivate_store.cpp",
                     "qvuserinfo/src/qvuserinfoprivate_range.cpp",
                     "qvuserinfo/src/qvuserinfoprivate_age.cpp"], ["qvuserinfo"])),
    ("front", (["qvuserinfo/src/qvuserinfo.cpp"], ["qvuserinfo"])),
])

# Binary operators are written with a space on each side (clang-format), which tells them from
# template brackets, pointers and references.
SWAPS = [
    (" == ", " != "), (" != ", " == "),
    (" < ", " <= "), (" <= ", " < "), (" > ", " >= "), (" >= ", " > "),
    (" < ", " > "), (" > ", " < "),
    (" && ", " || "), (" || ", " && "),
    (" + ", " - "), (" - ", " + "), (" * ", " / "),
    (" += ", " -= "), (" -= ", " += "),
]
CALL_STATEMENT = re.compile(r"^\s*[A-Za-z_][\w:.>\-\[\]]*(\(.*\));\s*$")
IF_CONDITION = re.compile(r"\b(if|while) \(")
BOOL = re.compile(r"\b(true|false)\b")
INT_LITERAL = re.compile(r"(?<![\w.])(\d+)(?![\w.'])")


def code_part(line):
    """The line without a trailing comment, or None for lines that are not code."""
    stripped = line.strip()
    if not stripped or stripped.startswith(("//", "#", "*", "/*")):
        return None
    cut = line.find("//")
    return line if cut < 0 else line[:cut]


def outside_strings(line, index):
    return line[:index].count('"') % 2 == 0


def matching_paren(text, open_index):
    depth = 0
    for i in range(open_index, len(text)):
        if text[i] == "(":
            depth += 1
        elif text[i] == ")":
            depth -= 1
            if depth == 0:
                return i
    return -1


def line_mutants(line):
    """(operator, mutated line) pairs for one line of code."""
    code = code_part(line)
    if code is None:
        return []
    out = []
    for old, new in SWAPS:
        start = 0
        while True:
            i = code.find(old, start)
            if i < 0:
                break
            if outside_strings(code, i) and "operator" not in code:
                out.append(("swap '%s' for '%s'" % (old.strip(), new.strip()),
                            line[:i] + new + line[i + len(old):]))
            start = i + 1
    for m in IF_CONDITION.finditer(code):
        open_index = m.end() - 1
        close = matching_paren(code, open_index)
        if close > 0 and outside_strings(code, m.start()):
            inner = code[open_index + 1:close]
            out.append(("negate condition",
                        line[:open_index + 1] + "!(" + inner + ")" + line[close:]))
    for m in BOOL.finditer(code):
        if outside_strings(code, m.start()):
            flipped = "false" if m.group(1) == "true" else "true"
            out.append(("flip boolean", line[:m.start()] + flipped + line[m.end():]))
    for m in INT_LITERAL.finditer(code):
        if outside_strings(code, m.start()) and re.search(r"[<>=]\s*$", code[:m.start()]):
            value = int(m.group(1))
            out.append(("bound off by one",
                        line[:m.start()] + str(value + 1) + line[m.end():]))
    stripped = code.strip()
    if CALL_STATEMENT.match(code) and not stripped.startswith(("return", "throw", "delete")):
        indent = line[:len(line) - len(line.lstrip())]
        out.append(("remove statement", indent + "(void)0;  // removed\n"))
    if stripped == "return;":
        indent = line[:len(line) - len(line.lstrip())]
        out.append(("remove return", indent + "(void)0;  // removed\n"))
    return out


def all_mutants(path):
    with open(os.path.join(ROOT, path)) as f:
        lines = f.readlines()
    mutants = []
    for number, line in enumerate(lines):
        for operator, mutated in line_mutants(line):
            mutants.append({"file": path, "line": number + 1, "original": line,
                            "mutated": mutated, "operator": operator})
    return mutants


def key_of(m):
    return "%s | %s | %s" % (m["file"], m["operator"], m["mutated"].strip())


def load_equivalent():
    if not os.path.exists(EQUIVALENT):
        return set()
    keys = set()
    with open(EQUIVALENT) as f:
        for line in f:
            if line.strip() and not line.startswith("#"):
                # "file | operator | mutated line  # why": the reason is for the reader only.
                keys.add(line.split("  # ")[0].strip())
    return keys


def sample(total, seed, only):
    rng = random.Random(seed)
    areas = [a for a in AREAS if only is None or a == only]
    per_area = {a: total // len(areas) + (1 if i < total % len(areas) else 0)
                for i, a in enumerate(areas)}
    equivalent = load_equivalent()
    chosen = []
    for area in areas:
        files, labels = AREAS[area]
        pool = []
        for path in files:
            if os.path.exists(os.path.join(ROOT, path)):
                pool.extend(all_mutants(path))
        pool = [m for m in pool if key_of(m) not in equivalent]
        rng.shuffle(pool)
        for m in pool[:per_area[area]]:
            m["area"], m["labels"] = area, labels
            chosen.append(m)
    return chosen


def locate(lines, m):
    """The index of the mutant's line: where it was, or the nearest line with the same text."""
    candidates = [i for i, line in enumerate(lines) if line == m["original"]]
    if not candidates:
        return None
    return min(candidates, key=lambda i: abs(i - (m["line"] - 1)))


def run(cmd, timeout):
    try:
        done = subprocess.run(cmd, cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              timeout=timeout)
        return done.returncode, done.stdout.decode(errors="replace")
    except subprocess.TimeoutExpired:
        return None, "timed out"


def configure():
    # Tests do not relink when only a shared library changed, so a mutant costs one object file
    # and one library link.
    code, out = run(["cmake", "-S", ".", "-B", BUILD, "-G", "Ninja", "-DQV_BUILD_TESTS=ON",
                     "-DQV_BUILD_BENCH=OFF", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON"], 600)
    if code != 0:
        sys.exit("mutation: configure failed\n" + out)
    code, out = run(["cmake", "--build", BUILD, "-j%d" % os.cpu_count()], 7200)
    if code != 0:
        sys.exit("mutation: the unmutated tree does not build\n" + out)


def test(labels, timeout):
    """'caught', 'survived' or 'hang' (a hang counts as caught)."""
    pattern = "^(%s)$" % "|".join(labels)
    code, _ = run(["ctest", "--test-dir", BUILD, "-L", pattern, "-j%d" % os.cpu_count(),
                   "--timeout", str(timeout), "--stop-on-failure"], timeout * 4)
    if code is None:
        return "hang"
    return "survived" if code == 0 else "caught"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--sample", type=int, default=150)
    parser.add_argument("--seed", type=int, default=26)
    parser.add_argument("--list", action="store_true", help="print the sample and stop")
    parser.add_argument("--only", choices=list(AREAS), help="one area only")
    parser.add_argument("--timeout", type=int, default=120, help="seconds per test")
    parser.add_argument("--save", metavar="FILE", help="write the sample to FILE (JSON)")
    parser.add_argument("--load", metavar="FILE", help="run the sample saved in FILE")
    args = parser.parse_args()

    if args.load:
        with open(args.load) as f:
            mutants = json.load(f)
    else:
        mutants = sample(args.sample, args.seed, args.only)
    if args.save:
        with open(args.save, "w") as f:
            json.dump(mutants, f, indent=1)
    if args.list:
        for m in mutants:
            print("%-22s %s:%d  %s\n    %s" % (m["area"], m["file"], m["line"], m["operator"],
                                              m["mutated"].strip()))
        print("%d mutants" % len(mutants))
        return
    configure()
    counts = collections.Counter()
    survivors = []
    started = time.time()
    for index, m in enumerate(mutants):
        path = os.path.join(ROOT, m["file"])
        with open(path) as f:
            original = f.read()
        lines = original.splitlines(True)
        at = locate(lines, m)
        if at is None:
            counts["gone"] += 1
            print("[%3d/%d] gone      %s:%d (line no longer there)" % (index + 1, len(mutants),
                                                                  m["file"], m["line"]))
            continue
        lines[at] = m["mutated"]
        try:
            with open(path, "w") as f:
                f.write("".join(lines))
            code, _ = run(["cmake", "--build", BUILD, "-j%d" % os.cpu_count()], 1800)
            verdict = "stillborn" if code != 0 else test(m["labels"], args.timeout)
        finally:
            with open(path, "w") as f:
                f.write(original)
        counts[verdict] += 1
        print("[%3d/%d] %-9s %s:%d %s" % (index + 1, len(mutants), verdict, m["file"], m["line"],
                                          m["operator"]), flush=True)
        if verdict == "survived":
            survivors.append(m)
    run(["cmake", "--build", BUILD, "-j%d" % os.cpu_count()], 1800)  # back to the real code

    total = counts["caught"] + counts["hang"] + counts["survived"]
    print("\nsurvivors:")
    for m in survivors:
        diff = difflib.unified_diff([m["original"]], [m["mutated"]], m["file"], m["file"], n=0)
        print("".join(list(diff)[2:]).rstrip())
        print("    equivalent-list key: %s" % key_of(m))
    print("\ncaught %d/%d (%d by a hang); %d did not compile; %d gone; %.0f min" %
          (counts["caught"] + counts["hang"], total, counts["hang"], counts["stillborn"],
           counts["gone"],
           (time.time() - started) / 60))


if __name__ == "__main__":
    main()

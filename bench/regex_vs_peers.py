#!/usr/bin/env python3
"""Regular-expression replace of ostrel against the usual stream editors.

Generates one UTF-8 text (50 MB by default, words from a vocabulary with some
non-ASCII ones), then times, for each case, `ostrel -r` rewriting a copy of
the file in place against `sed -E` and `perl -pe` writing the same text to a
file (and `sd` when it is installed). Each command runs --runs times; the
median wall time counts. Prints a table and, per case, the ratio of ostrel's
time to the fastest peer's: the goal is at most 0.5.

    bench/regex_vs_peers.py --ostrel build/ostrel [--mb 50] [--runs 3]

The cases:
  word     (\\w+) -> \\1\\1         every word doubled
  prefix   order-[0-9]+ -> ID     a pattern that starts with a literal
  alt20    (w1|...|w20) -> <\\1>  a 20-word alternation
"""
import argparse
import os
import random
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

VOCABULARY = (
    "the of and to in is was for on that with as by at from his her this which or had not but be are "
    "text file line word encoding replace pattern search engine buffer window letter number value table "
    "caf\u00e9 na\u00efve \u00fcber stra\u00dfe \u00e9t\u00e9 gar\u00e7on \u4e2d\u6587 \u6587\u672c "
    "\u0442\u0435\u043a\u0441\u0442 \u03bb\u03cc\u03b3\u03bf\u03c2"
).split()

ALTERNATION = ("alpha bravo charlie delta echo foxtrot golf hotel india juliet kilo lima mike november "
               "oscar papa quebec romeo sierra tango").split()


def make_text(path, megabytes):
    rng = random.Random(20261123)
    words = VOCABULARY + ALTERNATION
    target = int(megabytes * 1024 * 1024)
    written = 0
    with open(path, "w", encoding="utf-8", newline="\n") as out:
        while written < target:
            line = []
            for _ in range(rng.randint(8, 14)):
                roll = rng.random()
                if roll < 0.02:
                    line.append("order-%d" % rng.randint(1, 999999))
                else:
                    line.append(rng.choice(words))
            text = " ".join(line) + ".\n"
            out.write(text)
            written += len(text.encode("utf-8"))


# (name, ostrel pattern, ostrel replacement, sed script, perl script)
def cases():
    alt = "|".join(ALTERNATION)
    return [
        ("word", r"(\w+)", r"\1\1", r"s/([[:alnum:]_]+)/\1\1/g", r"s/(\w+)/$1$1/g"),
        ("prefix", r"order-[0-9]+", "ID", r"s/order-[0-9]+/ID/g", r"s/order-[0-9]+/ID/g"),
        ("alt20", "(%s)" % alt, r"<\1>", r"s/(%s)/<\1>/g" % alt, r"s/(%s)/<$1>/g" % alt),
    ]


def timed(command, prepare=None, output=None):
    if prepare:
        prepare()
    sink = open(output, "wb") if output else subprocess.DEVNULL
    try:
        start = time.perf_counter()
        done = subprocess.run(command, stdout=sink, stderr=subprocess.PIPE)
        elapsed = time.perf_counter() - start
    finally:
        if output:
            sink.close()
    if done.returncode != 0:
        raise RuntimeError("%s failed (%d): %s" % (command[0], done.returncode, done.stderr.decode(errors="replace")))
    return elapsed


def median_time(runs, command, prepare=None, output=None):
    return statistics.median(timed(command, prepare, output) for _ in range(runs))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--ostrel", default="build/ostrel")
    parser.add_argument("--mb", type=float, default=50)
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--only", help="comma-separated case names")
    args = parser.parse_args()
    ostrel = os.path.abspath(args.ostrel)
    if not os.access(ostrel, os.X_OK):
        sys.exit("no ostrel at %s: build it first" % ostrel)
    os.environ["LC_ALL"] = "C.UTF-8"

    peers = [("sed -E", shutil.which("sed")), ("perl -pe", shutil.which("perl")), ("sd", shutil.which("sd"))]
    missing = [name for name, path in peers if not path]
    peers = [(name, path) for name, path in peers if path]
    if missing:
        print("not installed, skipped: " + ", ".join(missing))

    with tempfile.TemporaryDirectory(prefix="ostrel-bench-") as scratch:
        source = os.path.join(scratch, "source.txt")
        work = os.path.join(scratch, "work.txt")
        peer_out = os.path.join(scratch, "peer.txt")
        args_file = os.path.join(scratch, "pairs.txt")
        make_text(source, args.mb)
        print("text: %.1f MB UTF-8, median of %d runs" % (os.path.getsize(source) / 1e6, args.runs))

        def fresh_copy():
            shutil.copyfile(source, work)

        selected = set(args.only.split(",")) if args.only else None
        worst = 0.0
        print("%-8s %10s %10s %10s %10s  %s" % ("case", "ostrel", "sed -E", "perl -pe", "sd", "ostrel/fastest"))
        for name, pattern, replacement, sed_script, perl_script in cases():
            if selected and name not in selected:
                continue
            with open(args_file, "w", encoding="utf-8") as f:
                f.write("%s->%s\n" % (pattern, replacement))
            ours = median_time(args.runs, [ostrel, work, "-r", "-argfile:" + args_file, "-encin:UTF-8", "-force"],
                               prepare=fresh_copy)
            figures = {}
            for peer, path in peers:
                if peer == "sed -E":
                    command = [path, "-E", sed_script, source]
                elif peer == "perl -pe":
                    command = [path, "-pe", perl_script, source]
                else:
                    command = [path, "-p", pattern, replacement.replace("\\", "$"), source]
                figures[peer] = median_time(args.runs, command, output=peer_out)
            fastest = min(figures.values())
            ratio = ours / fastest
            worst = max(worst, ratio)
            cell = lambda peer: ("%9.2fs" % figures[peer]) if peer in figures else "%10s" % "-"
            print("%-8s %9.2fs %s %s %s  %.2fx" % (name, ours, cell("sed -E"), cell("perl -pe"), cell("sd"), ratio))
        print("worst ratio %.2fx (goal: at most 0.50x)" % worst)


if __name__ == "__main__":
    main()

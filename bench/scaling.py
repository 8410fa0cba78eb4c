#!/usr/bin/env python3
"""How ostrel's cost grows: every dimension of its work at n and at 4n.

Linear work must look linear. For each dimension below the script makes the
input at size n and at 4n, times ostrel on both (its processor time, user and
system, the least of --runs runs: on a busy machine the wall time mostly
counts the waiting), and prints the exponent log4(t(4n) / t(n)): 1.0 is linear, 2.0
quadratic. The targets are wall times, each run against sed's next to it. Where a
peer does the same job (sed, sed -i) its times and exponent stand beside, and
the last column is ostrel's peak memory at 4n. Every exponent should be at
most 1.15; a row above that is marked with "!".

    bench/scaling.py --ostrel build/ostrel [--scale 1] [--runs 5] [--only NAME ...] [--targets]

--scale multiplies every n (use 0.25 for a quick look, 4 to see past the
noise of a busy machine); --only runs the rows whose name contains one of
the words given; --targets first times the two jobs with goals of their own
(200 MB of lines through a pipe and 100 MB without line feeds in place, each
at most half sed's time, run by run, in at most 64 MB and three times the
file). The script exits with status 1 when an exponent is above the bound
or a target is missed, so that it can guard a change.

A row is a function that makes its input in a directory for a given n and
returns a Job: the command, the files to restore before each run (jobs that
rewrite files in place), standard input, and the peer's command. Add rows to
ROWS.
"""
import argparse
import math
import os
import random
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

BOUND = 1.15
MB = 1 << 20

WORDS = (
    "the of and to in is was for on that with as by at from this which or had not but be are "
    "text file line word encoding replace pattern search engine buffer window letter number value table "
    "caf\u00e9 na\u00efve \u00fcber stra\u00dfe \u00e9t\u00e9 gar\u00e7on \u4e2d\u6587 \u6587\u672c "
    "\u0442\u0435\u043a\u0441\u0442 \u03bb\u03cc\u03b3\u03bf\u03c2"
).split()
# What the pairs look for: rare enough that the cost is the text's.
FIND = "bookkeeper"
REPLACE = "accountant"


class Job:
    def __init__(self, command, peer=None, restore=(), stdin=None, env=None, peer_env=None):
        self.command = command      # ostrel's argument vector
        self.peer = peer            # the peer's, or None
        self.restore = list(restore)  # (pristine copy, working file) pairs
        self.stdin = stdin          # a file for standard input, or None
        self.env = env or {}
        self.peer_env = peer_env or self.env


def text_block(rng, size, line_feeds=True, ascii_only=False, density=1000):
    """About `size` characters of words, one FIND in about `density`."""
    words = [w for w in WORDS if w.isascii()] if ascii_only else WORDS
    out, length, since = [], 0, 0
    while length < size:
        line = []
        for _ in range(rng.randint(8, 14)):
            if since >= density:
                line.append(FIND)
                since = 0
            else:
                line.append(rng.choice(words))
            since += len(line[-1]) + 1
        text = " ".join(line) + ("\n" if line_feeds else " ")
        out.append(text)
        length += len(text)
    return "".join(out)


def make_text(path, megabytes, line_feeds=True, encoding="utf-8", ascii_only=False, density=1000):
    """A file of about `megabytes` MB; a 1 MB block repeated, for speed."""
    rng = random.Random(20261123)
    block = text_block(rng, MB, line_feeds, ascii_only, density).encode(encoding, errors="replace")
    target = int(megabytes * MB)
    with open(path, "wb") as out:
        written = 0
        while written < target:
            piece = block[: target - written]
            out.write(piece)
            written += len(piece)
    return path


def pairs_file(work, lines, name="pairs.txt", encoding="utf-8"):
    path = os.path.join(work, name)
    with open(path, "wb") as out:
        out.write(("\n".join(lines) + "\n").encode(encoding))
    return path


def in_place(work, source, ostrel_args, ostrel, peer_args=None, env=None, peer_env=None):
    """A job that rewrites `source` in place; both tools get their own copy."""
    pristine = source + ".pristine"
    os.replace(source, pristine)
    mine, theirs = os.path.join(work, "ostrel.txt"), os.path.join(work, "peer.txt")
    restore = [(pristine, mine)]
    peer = None
    if peer_args:
        restore.append((pristine, theirs))
        peer = peer_args + [theirs]
    return Job([ostrel, mine] + ostrel_args, peer, restore, env=env, peer_env=peer_env)


UTF8 = {"LC_ALL": "C.UTF-8"}
BYTES = {"LC_ALL": "C"}


# ---- the rows: name, unit, n at scale 1, and the maker ------------------------------------


def file_size(work, n, ostrel):
    src = make_text(os.path.join(work, "in.txt"), n)
    p = pairs_file(work, [FIND + "->" + REPLACE])
    return in_place(work, src, ["-f", "-argfile:" + p], ostrel, ["sed", "-i", "s/%s/%s/g" % (FIND, REPLACE)], UTF8)


def no_line_feed(work, n, ostrel):
    src = make_text(os.path.join(work, "in.txt"), n, line_feeds=False)
    p = pairs_file(work, [FIND + "->" + REPLACE])
    return in_place(work, src, ["-f", "-argfile:" + p], ostrel, ["sed", "-i", "s/%s/%s/g" % (FIND, REPLACE)], UTF8)


def long_lines(work, n, ostrel):
    # Lines of n/4 MB: four lines at n, four at 4n, each longer than a piece.
    rng = random.Random(7)
    line = text_block(rng, int(n * MB / 4), line_feeds=False).encode() + b"\n"
    src = os.path.join(work, "in.txt")
    with open(src, "wb") as out:
        out.write(line * 4)
    p = pairs_file(work, [FIND + "->" + REPLACE])
    return in_place(work, src, ["-f", "-argfile:" + p], ostrel, ["sed", "-i", "s/%s/%s/g" % (FIND, REPLACE)], UTF8)


def stream(line_feeds):
    def make(work, n, ostrel):
        src = make_text(os.path.join(work, "in.txt"), n, line_feeds=line_feeds)
        p = pairs_file(work, [FIND + "->" + REPLACE])
        return Job([ostrel, "-f", "-argfile:" + p], ["sed", "s/%s/%s/g" % (FIND, REPLACE)], stdin=src, env=UTF8)
    return make


def stream_whole(work, n, ostrel):
    # A find across a line end: no pieces, the input is read whole.
    src = make_text(os.path.join(work, "in.txt"), n, ascii_only=True)
    p = pairs_file(work, ["x\\nthe->X"])
    return Job([ostrel, "-f", "-argfile:" + p], ["sed", "-z", "s/x\\nthe/X/g"], stdin=src, env=UTF8)


def regex_no_line_feed(work, n, ostrel):
    src = make_text(os.path.join(work, "in.txt"), n, line_feeds=False)
    p = pairs_file(work, ["b[a-z]+r->" + REPLACE])
    return in_place(work, src, ["-r", "-argfile:" + p], ostrel, ["sed", "-i", "-E", "s/b[a-z]+r/%s/g" % REPLACE],
                    UTF8)


def pair_count(work, n, ostrel):
    # n pairs that never match, and one that does, over 256 KB: every pair
    # reads the whole text, so the cost is pairs times text.
    src = make_text(os.path.join(work, "in.txt"), 0.25)
    lines = ["zq%06dx->y" % i for i in range(int(n))] + [FIND + "->" + REPLACE]
    p = pairs_file(work, lines)
    script = os.path.join(work, "script.sed")
    with open(script, "w") as out:
        out.write("".join("s/%s/%s/g\n" % tuple(line.split("->")) for line in lines))
    return in_place(work, src, ["-f", "-argfile:" + p], ostrel, ["sed", "-i", "-f", script], UTF8)


def match_count(replace):
    # A text of nothing but matches: the cost is the replacements'.
    def make(work, n, ostrel):
        src = os.path.join(work, "in.txt")
        with open(src, "wb") as out:
            out.write((("ab " * 20).strip() + "\n").encode() * int(n * MB / 60))
        p = pairs_file(work, ["ab->" + replace])
        return in_place(work, src, ["-f", "-argfile:" + p], ostrel, ["sed", "-i", "s/ab/%s/g" % replace], UTF8)
    return make


def method(switch, find, sed_script, sed_flags=()):
    def make(work, n, ostrel):
        src = make_text(os.path.join(work, "in.txt"), n)
        p = pairs_file(work, [find + "->" + REPLACE])
        return in_place(work, src, [switch, "-argfile:" + p], ostrel, ["sed", "-i"] + list(sed_flags) + [sed_script],
                        UTF8)
    return make


def encoding(name, switches, env, python_codec, ascii_only=False):
    def make(work, n, ostrel):
        src = make_text(os.path.join(work, "in.txt"), n, encoding=python_codec, ascii_only=ascii_only)
        p = pairs_file(work, [FIND + "->" + REPLACE])
        return in_place(work, src, ["-f", "-argfile:" + p] + switches, ostrel,
                        ["sed", "-i", "s/%s/%s/g" % (FIND, REPLACE)], env, peer_env=BYTES)
    return make


def wide_units(work, n, ostrel):
    src = os.path.join(work, "in.txt")
    rng = random.Random(3)
    block = text_block(rng, MB // 4, ascii_only=True).encode("utf-32-le")
    with open(src, "wb") as out:
        out.write(block * max(1, int(n * 4)))
    wide_pairs = pairs_file(work, [FIND + "->" + REPLACE], "pairs.bin", "utf-32-le")
    return in_place(work, src, ["-f", "-argfile:" + wide_pairs, "-encarg:UTF-16", "-encin:UTF-16"], ostrel, env=UTF8)


def no_exp(switch, find):
    def make(work, n, ostrel):
        src = make_text(os.path.join(work, "in.txt"), n)
        p = pairs_file(work, [find + "->" + REPLACE])
        return in_place(work, src, [switch, "-noexp", "-argfile:" + p], ostrel, env=UTF8)
    return make


def tree_of_files(work, count, depth, ostrel):
    """`count` small files spread evenly over a chain of `depth` directories,
    each with one match; ostrel -s and find + sed -i each get their own copy
    of the tree."""
    rng = random.Random(11)
    body = text_block(rng, 300).encode() + (FIND + "\n").encode()
    pristine = os.path.join(work, "pristine")
    os.makedirs(pristine)
    relative = []
    for i in range(int(count)):
        level = i * int(depth) // int(count)
        name = os.path.join(*(["d"] * level + ["f%06d.txt" % i])) if level else "f%06d.txt" % i
        path = os.path.join(pristine, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as out:
            out.write(body)
        relative.append(name)
    mine, theirs = os.path.join(work, "ostrel"), os.path.join(work, "peer")
    shutil.copytree(pristine, mine)
    shutil.copytree(pristine, theirs)
    restore = [(os.path.join(pristine, r), os.path.join(tree, r)) for tree in (mine, theirs) for r in relative]
    p = pairs_file(work, [FIND + "->" + REPLACE])
    return Job([ostrel, os.path.join(mine, "*.txt"), "-s", "-f", "-argfile:" + p],
               ["find", theirs, "-name", "*.txt", "-exec", "sed", "-i", "s/%s/%s/g" % (FIND, REPLACE), "{}", "+"],
               restore, env=UTF8)


def file_count(work, n, ostrel):
    return tree_of_files(work, n, 1, ostrel)


def tree_depth(work, n, ostrel):
    # The same files at every depth: the search's cost, not the names'. (A
    # file on every level would make the names themselves grow as n*n, and
    # each open walks its file's whole path.)
    return tree_of_files(work, 20, n, ostrel)


# (name, unit, n at scale 1, maker)
ROWS = [
    ("file size, lines, -f in place", "MB", 8, file_size),
    ("line length: no line feed, -f in place", "MB", 8, no_line_feed),
    ("line length: four long lines, -f in place", "MB", 8, long_lines),
    ("standard input, lines, -f", "MB", 8, stream(True)),
    ("standard input, no line feed, -f", "MB", 8, stream(False)),
    ("standard input read whole (a find across lines)", "MB", 16, stream_whole),
    ("no line feed, -r", "MB", 8, regex_no_line_feed),
    ("number of pairs, 256 KB, -f", "pairs", 2500, pair_count),
    ("number of matches, longer replacement", "MB", 4, match_count("xyz")),
    ("number of matches, shorter replacement", "MB", 4, match_count("x")),
    ("method -fic", "MB", 8, method("-fic", FIND, "s/%s/%s/gI" % (FIND, REPLACE))),
    ("method -r, a literal", "MB", 8, method("-r", FIND, "s/%s/%s/g" % (FIND, REPLACE), ["-E"])),
    ("method -r, a class", "MB", 8, method("-r", "b[a-z]+r", "s/b[a-z]+r/%s/g" % REPLACE, ["-E"])),
    ("method -ric", "MB", 8, method("-ric", FIND, "s/%s/%s/gI" % (FIND, REPLACE), ["-E"])),
    ("method -rnnl", "MB", 8, method("-rnnl", FIND, "s/%s/%s/g" % (FIND, REPLACE), ["-E"])),
    ("method -rnnlic", "MB", 8, method("-rnnlic", FIND, "s/%s/%s/gI" % (FIND, REPLACE), ["-E"])),
    ("encoding GBK", "MB", 8, encoding("GBK", ["-encin:GBK", "-encarg:UTF-8"], UTF8, "gbk")),
    ("encoding ISO-8859-1", "MB", 8, encoding("ISO-8859-1", ["-encin:ISO-8859-1", "-encarg:UTF-8"], UTF8,
                                               "latin-1")),
    ("encoding of the C locale, UTF-8 bytes", "MB", 8, encoding("C", [], BYTES, "utf-8")),
    ("wide units (-encin:UTF-16)", "MB", 8, wide_units),
    ("-noexp, -f", "MB", 8, no_exp("-f", FIND)),
    ("-noexp, -r", "MB", 8, no_exp("-r", FIND)),
    ("number of files, one directory, -s", "files", 1000, file_count),
    ("depth of the tree, 20 files spread over it, -s", "levels", 400, tree_depth),
]


# A child's peak memory counts the pages it shared with its parent when it was
# forked, and this script is larger than the tool: the peak is taken by GNU
# time, itself small, where it is installed.
TIME = "/usr/bin/time" if os.access("/usr/bin/time", os.X_OK) else None


def spawn(command, stdin, env):
    """Starts `command`; returns the process and a function giving its peak in MB."""
    if not TIME:
        child = subprocess.Popen(command, stdin=stdin, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, env=env)
        return child, lambda usage: usage.ru_maxrss / 1024.0
    report = tempfile.NamedTemporaryFile(prefix="ostrel-peak-", delete=False)
    report.close()
    child = subprocess.Popen([TIME, "-f", "%M", "-o", report.name] + command, stdin=stdin,
                             stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, env=env)

    def peak(_):
        with open(report.name) as text:
            lines = text.read().split()
        os.unlink(report.name)
        return float(lines[-1]) / 1024.0 if lines else 0.0
    return child, peak


def run_once(command, job, env_extra):
    for pristine, working in job.restore:
        shutil.copyfile(pristine, working)
    if job.restore:
        # A copy just made is still being written back, and a tool that
        # writes over it in place would wait for that.
        os.sync()
    env = dict(os.environ)
    env.update(env_extra)
    stdin = open(job.stdin, "rb") if job.stdin else subprocess.DEVNULL
    try:
        start = time.perf_counter()
        child, peak = spawn(command, stdin, env)
        err = child.stderr.read()
        _, status, usage = os.wait4(child.pid, 0)
        elapsed = time.perf_counter() - start
        child.returncode = os.waitstatus_to_exitcode(status)
    finally:
        if job.stdin:
            stdin.close()
    if child.returncode != 0:
        raise RuntimeError("%s failed (%d): %s" % (command[0], child.returncode, err.decode(errors="replace")))
    return elapsed, usage.ru_utime + usage.ru_stime, peak(usage)


def measure(command, job, env, runs):
    """The least processor time (user and system) of the runs, which a busy
    machine disturbs far less than the wall time (the system's part, taking
    fresh memory, still varies with what else runs: the least is the run
    least disturbed), and the largest peak."""
    times, peak = [], 0.0
    for _ in range(runs):
        _, cpu, rss = run_once(command, job, env)
        times.append(cpu)
        peak = max(peak, rss)
    return min(times), peak


def piped(command, source, env_extra):
    """`cat source | command > /dev/null`: wall time and the command's peak."""
    env = dict(os.environ)
    env.update(env_extra)
    start = time.perf_counter()
    cat = subprocess.Popen(["cat", source], stdout=subprocess.PIPE)
    child, peak = spawn(command, cat.stdout, env)
    cat.stdout.close()
    child.stderr.read()
    _, status, usage = os.wait4(child.pid, 0)
    cat.wait()
    elapsed = time.perf_counter() - start
    if os.waitstatus_to_exitcode(status) != 0:
        raise RuntimeError("%s failed" % command[0])
    return elapsed, usage.ru_utime + usage.ru_stime, peak(usage)


def targets(ostrel, runs, scale):
    """The two targets: a stream of lines through a pipe, and a file without
    line feeds in place, each against sed doing the same job, run by run.
    The goal holds for the median of the runs' wall-time ratios; the ratio
    of processor times stands beside it."""
    rows = []
    with tempfile.TemporaryDirectory(prefix="ostrel-targets-") as work:
        p = pairs_file(work, [FIND + "->" + REPLACE])
        script = "s/%s/%s/g" % (FIND, REPLACE)
        lines = make_text(os.path.join(work, "lines.txt"), 200 * scale)
        flat = make_text(os.path.join(work, "flat.txt"), 100 * scale, line_feeds=False)
        job = in_place(work, flat, ["-f", "-argfile:" + p], ostrel, ["sed", "-i", script], UTF8)
        cases = [
            ("%g MB of UTF-8 lines through a pipe" % (200 * scale), 64.0,
             lambda: piped([ostrel, "-f", "-argfile:" + p], lines, UTF8), lambda: piped(["sed", script], lines, UTF8)),
            ("%g MB without a line feed, in place" % (100 * scale), 3 * 100 * scale,
             lambda: run_once(job.command, job, job.env), lambda: run_once(job.peer, job, job.peer_env)),
        ]
        for name, memory, mine, theirs in cases:
            walls, cpus, peak = [], [], 0.0
            for _ in range(runs):
                t, tc, rss = mine()
                u, uc, _ = theirs()
                walls.append(t / u)
                cpus.append(tc / uc)
                peak = max(peak, rss)
            rows.append((name, walls, cpus, peak, memory))
    print("| target | ostrel / sed, wall time, each run | processor time | peak | goal |")
    print("|---|---|---|---|---|")
    met = True
    for name, walls, cpus, peak, memory in rows:
        ok = statistics.median(walls) <= 0.5 and peak <= memory
        met = met and ok
        print("| %s | %s | %.2fx | %.0f MB | 0.5x, %.0f MB |%s" % (
            name, " ".join("%.2fx" % r for r in walls), statistics.median(cpus), peak, memory, "" if ok else " !"))
    return met


def exponent(small, large):
    return math.log(large / small, 4) if small > 0 and large > 0 else float("nan")


def main():
    # Deep trees are copied and removed by recursive library routines.
    sys.setrecursionlimit(20000)
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--ostrel", required=True)
    parser.add_argument("--scale", type=float, default=1.0)
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--only", nargs="*", default=[])
    parser.add_argument("--no-peers", action="store_true")
    parser.add_argument("--targets", action="store_true",
                        help="also time the two targets (200 MB stream, 100 MB without line feeds; times --scale)")
    args = parser.parse_args()
    ostrel = os.path.abspath(args.ostrel)
    have_sed = shutil.which("sed") is not None and not args.no_peers
    met = True
    if args.targets:
        print("load average %.1f; %d runs" % (os.getloadavg()[0], args.runs))
        print()
        met = targets(ostrel, args.runs, args.scale)
        print()

    print("load average %.1f; processor time, least of %d runs; exponent = log4(t(4n)/t(n))" % (
        os.getloadavg()[0], args.runs))
    print()
    print("| dimension | n -> 4n | ostrel t(n) | t(4n) | exponent | peer t(n) | t(4n) | peer exponent | peak at 4n |")
    print("|---|---|---|---|---|---|---|---|---|")
    worst = 0.0
    for name, unit, base, maker in ROWS:
        if args.only and not any(word in name for word in args.only):
            continue
        n = base * args.scale
        if unit != "MB":
            n = max(1, int(round(n)))
        results = []
        for size in (n, 4 * n):
            with tempfile.TemporaryDirectory(prefix="ostrel-scaling-") as work:
                job = maker(work, size, ostrel)
                mine = measure(job.command, job, job.env, args.runs)
                theirs = measure(job.peer, job, job.peer_env, args.runs) if job.peer and have_sed else None
                results.append((mine, theirs))
        (t1, _), peer1 = results[0]
        (t4, peak), peer4 = results[1]
        e = exponent(t1, t4)
        worst = max(worst, e)
        mark = " !" if e > BOUND else ""
        size_text = ("%g -> %g %s" % (n, 4 * n, unit))
        if peer1 and peer4:
            peer_text = "%.3f s | %.3f s | %.2f" % (peer1[0], peer4[0], exponent(peer1[0], peer4[0]))
        else:
            peer_text = "- | - | -"
        print("| %s | %s | %.3f s | %.3f s | %.2f%s | %s | %.0f MB |" % (name, size_text, t1, t4, e, mark, peer_text,
                                                                       peak))
        sys.stdout.flush()
    print()
    print("worst exponent %.2f (bound %.2f)" % (worst, BOUND))
    return 1 if worst > BOUND or not met else 0


if __name__ == "__main__":
    sys.exit(main())

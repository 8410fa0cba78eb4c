#!/usr/bin/env python3
"""One literal pair over a large UTF-8 file in place: ostrel -f against sd -s
and sed -i, run after run.

The targets are about every run, not the best one: ostrel at most 1.0x the
time of sd -s and at most 0.5x that of sed -i. So the tools take turns (the
order rotates each round), each on its own copy of the same file, restored
and written to disk before its run so that every run starts from a clean
cached file; the table shows each run's wall, user and system time, then the
median and the spread of each tool and the ratios of each round.

    bench/in_place_vs_peers.py --ostrel build/ostrel [--megabytes 200] [--rounds 7]

The script exits with status 1 when a round misses a target.
"""
import argparse
import filecmp
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import scaling  # noqa: E402  (the corpus maker)

FIND, REPLACE = scaling.FIND, scaling.REPLACE
DENSITY = 100  # one match in about this many characters
TARGETS = {"sd": 1.0, "sed": 0.5}


def run(command, env):
    start = time.perf_counter()
    child = subprocess.Popen(command, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    err = child.stderr.read()
    _, status, usage = os.wait4(child.pid, 0)
    elapsed = time.perf_counter() - start
    if os.waitstatus_to_exitcode(status) != 0:
        raise RuntimeError("%s failed: %s" % (command[0], err.decode(errors="replace")))
    return elapsed, usage.ru_utime, usage.ru_stime, usage.ru_maxrss / 1024.0


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--ostrel", required=True)
    parser.add_argument("--megabytes", type=float, default=200)
    parser.add_argument("--rounds", type=int, default=7)
    args = parser.parse_args()
    ostrel = os.path.abspath(args.ostrel)
    env = dict(os.environ, LC_ALL="C.UTF-8")

    with tempfile.TemporaryDirectory(prefix="ostrel-in-place-") as work:
        pristine = scaling.make_text(os.path.join(work, "pristine.txt"), args.megabytes, density=DENSITY)
        size = os.path.getsize(pristine)
        pairs = scaling.pairs_file(work, [FIND + "->" + REPLACE])
        tools = {
            "ostrel": lambda path: [ostrel, path, "-f", "-argfile:" + pairs],
            "sd": lambda path: ["sd", "-s", FIND, REPLACE, path],
            "sed": lambda path: ["sed", "-i", "s/%s/%s/g" % (FIND, REPLACE), path],
        }
        tools = {name: make for name, make in tools.items() if name == "ostrel" or shutil.which(name)}
        names = list(tools)
        times = {name: [] for name in names}
        loads = []
        for round_ in range(args.rounds):
            order = names[round_ % len(names):] + names[: round_ % len(names)]
            loads.append(os.getloadavg()[0])
            for name in order:
                path = os.path.join(work, name + ".txt")
                shutil.copyfile(pristine, path)
                with open(path, "rb") as copy:
                    os.fsync(copy.fileno())
                times[name].append(run(tools[name](path), env))
            # Compared a block at a time: a process's peak size counts what
            # its parent held when it was started.
            if "sed" in tools and not filecmp.cmp(os.path.join(work, "ostrel.txt"), os.path.join(work, "sed.txt"),
                                                  shallow=False):
                raise RuntimeError("ostrel and sed -i wrote different bytes")

    print("%.0f MB of UTF-8 lines, one pair %s->%s (one match in about %d characters); load average %.1f to %.1f"
          % (size / (1 << 20), FIND, REPLACE, DENSITY, min(loads), max(loads)))
    print()
    print("| round | " + " | ".join("%s wall (user + sys)" % name for name in names) + " | " +
          " | ".join("ostrel / %s" % name for name in names if name != "ostrel") + " |")
    print("|---" * (1 + len(names) + len(names) - 1) + "|")
    missed = False
    ratios = {name: [] for name in names if name != "ostrel"}
    for i in range(args.rounds):
        cells = ["%.3f s (%.2f + %.2f)" % times[name][i][:3] for name in names]
        for name in ratios:
            ratio = times["ostrel"][i][0] / times[name][i][0]
            ratios[name].append(ratio)
            missed |= ratio > TARGETS[name]
        print("| %d | %s | %s |" % (i + 1, " | ".join(cells), " | ".join("%.2fx" % ratios[n][i] for n in ratios)))
    print()
    for name in names:
        wall = [t[0] for t in times[name]]
        print("%-7s median %.3f s, from %.3f to %.3f s; system time %.2f to %.2f s; peak %.0f MB" % (
            name, statistics.median(wall), min(wall), max(wall), min(t[2] for t in times[name]),
            max(t[2] for t in times[name]), max(t[3] for t in times[name])))
    for name, values in ratios.items():
        print("ostrel / %-4s median %.2fx, worst round %.2fx (target %.1fx)" % (
            name, statistics.median(values), max(values), TARGETS[name]))
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())

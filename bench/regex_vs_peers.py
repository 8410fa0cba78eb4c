#!/usr/bin/env python3
"""Find-and-replace of ostrel against the usual stream editors, end to end.

Generates three texts of the same shape (50 MB each by default): prose with
code lines among it, in ASCII, in UTF-8 with many words beyond ASCII, and in
GBK. Then, for each job and text, it times ostrel rewriting a copy of the file
in place, and sed -E, perl and sd writing the same result to a file. Each
command runs --runs times, the tools taking turns within a round. Shown are
the median wall times, and two ratios of ostrel's time to the faster of sed
and perl and to sd: of wall time (the median of the rounds' ratios), and of
processor time (user and system, of every process of the command; the
median of the rounds' ratios too), which a machine busy with other work
disturbs far less. The goal: at most 0.5x the faster of sed and perl, and at
most 1.0x sd. Ratios are compared with the goals unrounded, and each row
names the goals it misses, with the load average when it ended. Every peer's
output is compared with ostrel's; a difference is printed and fails the run.

    bench/regex_vs_peers.py --ostrel build/ostrel [--mb 50] [--runs 5]
                            [--only JOB,...] [--texts ascii,utf8,gbk]

The jobs:
  alnum    ([[:alnum:]_]+) -> \\1\\1        every word doubled
  struct   struct [a-z_]+ -> S             a pattern that starts with a literal
  alt20    a 20-word alternation -> W      a set of literals
  swap     ([a-z]+)_([a-z]+)\\( -> \\2_\\1(  two groups exchanged
  fic      -fic, one literal -> BUF        case-blind literal

How the peers are run, and why:
  - A pattern of ASCII only finds in UTF-8 bytes what it finds in the text,
    so sed (in the C locale) and perl take such jobs on the bytes, which is
    their fastest correct way. So does the case-blind literal, which is
    ASCII and meets no character beyond ASCII that folds into it (the text
    holds none; see NO_FOLDING_INTO_ASCII).
  - [[:alnum:]_] on text beyond ASCII means letters of every script: sed
    runs in the C.UTF-8 locale, perl with -CSD, and sd, whose [[:alnum:]] is
    ASCII only, gets [\\p{L}\\p{Nd}_] (the text holds no marks or other
    numbers, where the definitions part).
  - None of the three reads GBK (no GBK locale is installed, and GBK's
    second bytes include ASCII letters, so a byte-wise run could match across
    characters). Each runs in a pipeline that converts with iconv to UTF-8,
    replaces as above, and converts back: the way a user of that tool does
    this job. The whole pipeline is timed, its stages running side by side.
  - sd's replacement names groups as ${1}; perl's as $1.
"""
import argparse
import hashlib
import os
import random
import resource
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

# Words of the prose. The case-blind job looks for "buffer", which appears in
# several casings; the alternation's words appear now and then.
ASCII_WORDS = (
    "the of and to in is was for on that with as by at from his her this which or had not but be are "
    "text file line word encoding replace pattern search engine window letter number value table "
    "reader writer stream header record field column string parser state count size offset length "
    "buffer Buffer BUFFER buffers"
).split()

# Beyond ASCII, in scripts whose letters every tool classifies alike. No
# character that the library's folding maps into ASCII (U+0130, U+212A), nor
# U+017F, which other tools' case folding equates with "s".
UTF8_WORDS = (
    "caf\u00e9 na\u00efve \u00fcber gr\u00f6\u00dfe fa\u00e7ade d\u00e9j\u00e0 \u00e9l\u00e8ve ni\u00f1o "
    "\u0442\u0435\u043a\u0441\u0442 \u0441\u043b\u043e\u0432\u043e \u0444\u0430\u0439\u043b "
    "\u03bb\u03cc\u03b3\u03bf\u03c2 \u03ba\u03b5\u03af\u03bc\u03b5\u03bd\u03bf "
    "\u4e2d\u6587 \u6587\u672c \u7f16\u7801 \u66ff\u6362 \u6a21\u5f0f \u641c\u7d22 \u6587\u4ef6 \u884c"
).split()

# What GBK can encode: Chinese, kana, Greek and Cyrillic without accents,
# and the few Latin letters of pinyin.
GBK_WORDS = (
    "\u4e2d\u6587 \u6587\u672c \u7f16\u7801 \u66ff\u6362 \u6a21\u5f0f \u641c\u7d22 \u6587\u4ef6 \u884c "
    "\u6570\u636e \u7f13\u51b2\u533a \u5b57\u7b26\u4e32 \u89e3\u6790\u5668 \u3072\u3089\u304c\u306a "
    "\u30ab\u30bf\u30ab\u30ca \u0442\u0435\u043a\u0441\u0442 \u0441\u043b\u043e\u0432\u043e "
    "\u03bb\u03bf\u03b3\u03bf\u03c3 caf\u00e9 \u00fcber d\u00e9j\u00e0"
).split()

ALTERNATION = ("alpha bravo charlie delta echo foxtrot golf hotel india juliet kilo lima mike november "
               "oscar papa quebec romeo sierra tango").split()

# The goals: ostrel's time over the faster of sed and perl, and over sd.
PEER_GOAL = 0.5
SD_GOAL = 1.0

NO_FOLDING_INTO_ASCII = ("\u0130", "\u212a", "\u017f")

CODE_LINES = (
    "struct list_node *next = find_node(head, key);",
    "static int parse_header(struct header_info *info, const char *text)",
    "    count = read_block(file_handle, buffer, size);",
    "    if (check_bounds(offset, length) < 0) return set_error(state, 22);",
    "typedef struct stream_state { int fd; size_t used; } stream_state;",
    "    write_record(out_stream, &record, sizeof record);",
)


def make_text(path, megabytes, kind):
    """Writes the text of `kind` (ascii, utf8, gbk) to path."""
    rng = random.Random(20261123)
    extra = {"ascii": [], "utf8": UTF8_WORDS, "gbk": GBK_WORDS}[kind]
    encoding = "gbk" if kind == "gbk" else "utf-8"
    target = int(megabytes * 1024 * 1024)
    written = 0
    with open(path, "w", encoding=encoding, newline="\n") as out:
        while written < target:
            if rng.random() < 0.12:
                text = rng.choice(CODE_LINES) + "\n"
            else:
                line = []
                for _ in range(rng.randint(8, 14)):
                    roll = rng.random()
                    if roll < 0.02:
                        line.append(rng.choice(ALTERNATION))
                    elif extra and roll < 0.35:
                        line.append(rng.choice(extra))
                    else:
                        line.append(rng.choice(ASCII_WORDS))
                text = " ".join(line) + ".\n"
            out.write(text)
            written += len(text.encode(encoding))


class Job:
    def __init__(self, name, method, find, replace, ascii_only):
        self.name, self.method, self.find, self.replace = name, method, find, replace
        self.ascii_only = ascii_only  # finds in UTF-8 bytes what it finds in the text


def jobs():
    words = "|".join(ALTERNATION)
    return [
        Job("alnum", "-r", r"([[:alnum:]_]+)", r"\1\1", False),
        Job("struct", "-r", r"struct [a-z_]+", "S", True),
        Job("alt20", "-r", words, "W", True),
        Job("swap", "-r", r"([a-z]+)_([a-z]+)\(", r"\2_\1(", True),
        Job("fic", "-fic", "buffer", "BUF", True),
    ]


def peer_commands(job, kind, beyond_ascii):
    """The shell command of each peer for a job on a text, reading "$IN"."""
    find = job.find
    if job.method == "-fic":
        sed_script = "s/%s/%s/gI" % (find, job.replace)
        perl_script = "s/\\Q%s\\E/%s/gi" % (find, job.replace)
        sd_args = ["-s", "-f", "i", find, job.replace]
    else:
        sed_script = "s/%s/%s/g" % (find, job.replace)
        perl_script = "s/%s/%s/g" % (find, job.replace.replace("\\1", "$1").replace("\\2", "$2"))
        sd_find = find
        if not job.ascii_only and beyond_ascii:
            sd_find = find.replace("[[:alnum:]_]", r"[\p{L}\p{Nd}_]")
        sd_args = [sd_find, job.replace.replace("\\1", "${1}").replace("\\2", "${2}")]
    bytewise = job.ascii_only or not beyond_ascii
    sed = "%s sed -E %s" % ("LC_ALL=C" if bytewise else "LC_ALL=C.UTF-8", quote(sed_script))
    perl = "perl %s-pe %s" % ("" if bytewise else "-CSD ", quote(perl_script))
    sd = "sd " + " ".join(quote(a) for a in sd_args)
    commands = {}
    for name, tool in (("sed", sed), ("perl", perl), ("sd", sd)):
        if kind == "gbk":
            commands[name] = 'iconv -f GBK -t UTF-8 "$IN" | %s | iconv -f UTF-8 -t GBK' % tool
        else:
            commands[name] = '%s < "$IN"' % tool
    return commands


def quote(text):
    return "'" + text.replace("'", "'\\''") + "'"


def run(command, output, env):
    """Runs a command; returns its wall time and processor time."""
    with open(output, "wb") as sink:
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        start = time.perf_counter()
        done = subprocess.run(command, stdout=sink, stderr=subprocess.PIPE, env=env)
        elapsed = time.perf_counter() - start
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
    if done.returncode != 0:
        raise RuntimeError("%s failed (%d): %s" % (command, done.returncode, done.stderr.decode(errors="replace")))
    cpu = (after.ru_utime - before.ru_utime) + (after.ru_stime - before.ru_stime)
    return elapsed, cpu


def digest(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(1 << 20), b""):
            h.update(block)
    return h.hexdigest()


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--ostrel", default="build/ostrel")
    parser.add_argument("--mb", type=float, default=50)
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--only", help="comma-separated job names")
    parser.add_argument("--texts", default="ascii,utf8,gbk", help="comma-separated text kinds")
    args = parser.parse_args()
    ostrel = os.path.abspath(args.ostrel)
    if not os.access(ostrel, os.X_OK):
        sys.exit("no ostrel at %s: build it first" % ostrel)
    missing = [tool for tool in ("sed", "perl", "sd", "iconv") if not shutil.which(tool)]
    if missing:
        sys.exit("not installed: " + ", ".join(missing))
    env = dict(os.environ, LC_ALL="C.UTF-8")
    selected = set(args.only.split(",")) if args.only else None
    failed = False
    worst = {"wall": (0.0, 0.0), "cpu": (0.0, 0.0)}

    with tempfile.TemporaryDirectory(prefix="ostrel-bench-") as scratch:
        pairs = os.path.join(scratch, "pairs.txt")
        work = os.path.join(scratch, "work.txt")
        print("median of %d runs; load average %.1f" % (args.runs, os.getloadavg()[0]))
        print("%-6s %-7s %9s %9s %9s %9s   %-15s  %-15s  %4s  %s"
              % ("text", "job", "ostrel", "sed -E", "perl", "sd", "wall: /sed|perl /sd", "cpu: /sed|perl /sd",
                 "load", "goals missed"))
        for kind in args.texts.split(","):
            source = os.path.join(scratch, "source-%s.txt" % kind)
            make_text(source, args.mb, kind)
            env["IN"] = source
            for job in jobs():
                if selected and job.name not in selected:
                    continue
                with open(pairs, "w", encoding="utf-8") as f:
                    f.write("%s->%s\n" % (job.find, job.replace))
                encoding = "GBK" if kind == "gbk" else "UTF-8"
                ours_command = [ostrel, work, job.method, "-argfile:" + pairs, "-encarg:UTF-8",
                                "-encin:" + encoding]
                peers = peer_commands(job, kind, kind != "ascii")
                wall = {name: [] for name in ["ostrel"] + list(peers)}
                cpu = {name: [] for name in wall}
                for _ in range(args.runs):
                    shutil.copyfile(source, work)
                    w, c = run(ours_command, os.devnull, env)
                    wall["ostrel"].append(w)
                    cpu["ostrel"].append(c)
                    for name, command in peers.items():
                        w, c = run(["sh", "-c", command], os.path.join(scratch, name + ".out"), env)
                        wall[name].append(w)
                        cpu[name].append(c)
                expected = digest(work)
                differs = [name for name in peers if digest(os.path.join(scratch, name + ".out")) != expected]

                def ratios(times):
                    to_peer = statistics.median(o / max(min(s, p), 1e-9) for o, s, p in
                                                zip(times["ostrel"], times["sed"], times["perl"]))
                    to_sd = statistics.median(o / max(s, 1e-9) for o, s in zip(times["ostrel"], times["sd"]))
                    return to_peer, to_sd

                wall_peer, wall_sd = ratios(wall)
                cpu_peer, cpu_sd = ratios(cpu)
                worst["wall"] = (max(worst["wall"][0], wall_peer), max(worst["wall"][1], wall_sd))
                worst["cpu"] = (max(worst["cpu"][0], cpu_peer), max(worst["cpu"][1], cpu_sd))
                median = {name: statistics.median(t) for name, t in wall.items()}
                # Compared unrounded: a ratio printed as 0.500x may be a miss.
                missed = [what for what, value, goal in (("wall/sed|perl", wall_peer, PEER_GOAL),
                                                         ("wall/sd", wall_sd, SD_GOAL),
                                                         ("cpu/sed|perl", cpu_peer, PEER_GOAL),
                                                         ("cpu/sd", cpu_sd, SD_GOAL)) if value > goal]
                print("%-6s %-7s %8.3fs %8.3fs %8.3fs %8.3fs   %6.3fx %6.3fx  %6.3fx %6.3fx  %4.1f  %s%s"
                      % (kind, job.name, median["ostrel"], median["sed"], median["perl"], median["sd"],
                         wall_peer, wall_sd, cpu_peer, cpu_sd, os.getloadavg()[0], " ".join(missed) or "-",
                         "  OUTPUT DIFFERS: " + ", ".join(differs) if differs else ""), flush=True)
                failed = failed or bool(differs)
    for what in ("wall", "cpu"):
        print("worst %s: %.3fx the faster of sed and perl (goal at most %.2fx: %s), %.3fx sd (goal at most %.2fx: %s)"
              % (what, worst[what][0], PEER_GOAL, "met" if worst[what][0] <= PEER_GOAL else "MISSED",
                 worst[what][1], SD_GOAL, "met" if worst[what][1] <= SD_GOAL else "MISSED"))
    print("load average at the end %.1f" % os.getloadavg()[0])
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())

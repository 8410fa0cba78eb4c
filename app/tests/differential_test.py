#!/usr/bin/env python3
"""The promise, against an independent model: ostrel changes only the bytes
that a pair matched.

Random texts in several encodings (random bytes among them, and text with
random broken bytes), random literal pairs (ASCII, beyond ASCII, raw bytes
that no encoding decodes), every method (the patterns are the literals
escaped), both replace forms, file and stream mode, pieces down to one byte.
The model is Python's own codecs with errors="surrogateescape": decode,
replace, encode. The tool's result must equal the model's byte for byte, and
a file without a match must be left untouched, its time stamp included.

    differential_test.py OSTREL [--cases N] [--seed S]

Exits with 1 and prints the failing cases (with a command to rerun one).
"""
import argparse
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile
import unicodedata

# Encodings the tool and Python's codecs agree on, with the characters the
# texts are made of, bytes that are broken in them (some only in some places:
# a lead byte without its trail), and bytes where the two disagree, which the
# texts leave out: the C library reads 0x80 as U+20AC in GBK, and 0x80 to
# 0xA0 as control characters in EUC-KR, where Python reads no character. The C library reads 0x5C as
# U+00A5 in Shift_JIS, so patterns there cannot escape with a backslash.
ENCODINGS = [
    # (ostrel name, Python codec, locale, letters beyond ASCII, broken bytes, left out, backslash)
    ("UTF-8", "utf-8", "C.UTF-8", "\u00e9\u00c9\u00fc\u00dc\u03b1\u0391\u0431\u0411\u4e2d\u6587\U0001f600",
     bytes(range(0x80, 0x100)), b"", True),
    ("UTF-8", "ascii", "C", "", bytes(range(0x80, 0x100)), b"", True),  # the C locale: no -encin
    ("GBK", "gbk", "C.UTF-8", "\u00e9\u00fc\u03b1\u0391\u0431\u0411\u4e2d\u6587", b"\xff\x81\xfe", b"\x80", True),
    ("SHIFT_JIS", "shift_jis", "C.UTF-8", "\u03b1\u0391\u0431\u0411\u4e2d\u6587\u3042", b"\x81\x9f\xe0\xfd", b"",
     False),
    ("EUC-KR", "euc_kr", "C.UTF-8", "\u03b1\u0391\u0431\u0411\u4e2d\uac00\ub098", b"\xb0\xc8\xff", bytes(range(0x80, 0xA1)), True),
    ("CP1252", "cp1252", "C.UTF-8", "\u00e9\u00c9\u00e0\u00c0\u00fc\u00dc\u20ac", b"\x81\x8d\x8f\x90\x9d", b"",
     True),
    ("ISO-8859-1", "latin-1", "C.UTF-8", "\u00e9\u00c9\u00e0\u00c0\u00fc\u00dc", b"", b"", True),
    ("KOI8-R", "koi8_r", "C.UTF-8", "\u0431\u0411\u044f\u042f\u0436\u0416", b"", b"", True),
]
ASCII_LETTERS = "abcABC xyz,;:-_"
METHODS = ["-f", "-fic", "-r", "-ric", "-rnnl", "-rnnlic"]
PIECES = [None, 1, 2, 3, 5, 17, 64]
REGEX_SPECIAL = set(".[](){}*+?|^")


def fold(c):
    low = c.lower()
    return low if len(low) == 1 else c


def replace_all(text, find, replace, blind):
    """Leftmost matches without overlap, the scan going on behind each."""
    if not blind:
        return text.replace(find, replace), text.count(find)
    folded = "".join(fold(c) for c in text)
    key = "".join(fold(c) for c in find)
    out, at, count = [], 0, 0
    while True:
        hit = folded.find(key, at)
        if hit < 0:
            break
        out.append(text[at:hit])
        out.append(replace)
        at = hit + len(find)
        count += 1
    out.append(text[at:])
    return "".join(out), count


def swapped(c, codec):
    """The other case of c, where the encoding has it."""
    other = c.swapcase()
    try:
        return other if len(other) == 1 and other.encode(codec) else c
    except UnicodeError:
        return c


def blank(c):
    return unicodedata.category(c) in ("Mc", "Zs", "Zl", "Zp", "Cc")


def random_piece(rng, alphabet, broken, codec, low, high):
    """A short run of text, with now and then a broken byte, as a str."""
    out = []
    for _ in range(rng.randint(low, high)):
        if broken and rng.random() < 0.15:
            out.append(bytes([rng.choice(broken)]).decode(codec, "surrogateescape"))
        else:
            out.append(rng.choice(alphabet))
    return "".join(out)


def make_case(rng, case_id):
    name, codec, locale, letters, broken, left_out, backslash = rng.choice(ENCODINGS)
    alphabet = ASCII_LETTERS + letters
    if rng.random() < 0.15:
        # Random bytes, as the encoding reads them.
        raw = bytes(b for b in (rng.randrange(256) for _ in range(rng.randint(0, 60))) if b not in left_out)
        text = raw.decode(codec, "surrogateescape")
    else:
        lines = [random_piece(rng, alphabet, broken, codec, 0, 25) for _ in range(rng.randint(1, 5))]
        text = ("\n" if rng.random() < 0.7 else " ").join(lines)
    method = rng.choice(METHODS)
    blind = method in ("-fic", "-ric", "-rnnlic")
    pairs = []
    for _ in range(rng.randint(1, 3)):
        for _attempt in range(20):
            if text and rng.random() < 0.6:
                at = rng.randrange(len(text))
                find = text[at:at + rng.randint(1, 4)]
            else:
                find = random_piece(rng, alphabet, broken, codec, 1, 3)
            if blind and rng.random() < 0.5:
                find = "".join(swapped(c, codec) for c in find)
            replace = random_piece(rng, alphabet, broken, codec, 0, 4)
            line = find + "->" + replace
            usable = ("\n" not in find and "->" not in find and "->" not in replace and "\n" not in replace
                      and not blank(line[0]) and not blank(line[-1]) and "\\" not in line and "$" not in line
                      and "\r" not in line
                      and (backslash or not method.startswith("-r") or not REGEX_SPECIAL.intersection(find)))
            if usable:
                pairs.append((find, replace))
                break
    if not pairs:
        pairs = [("a", "b")]
    return {
        "id": case_id, "encoding": name, "codec": codec, "locale": locale, "text": text, "pairs": pairs,
        "method": method, "blind": blind, "noexp": rng.random() < 0.3, "stream": rng.random() < 0.4,
        "pieces": rng.choice(PIECES),
    }


# Texts past the size at which a double-byte encoding fills its tables: the
# tool then searches pieces of GBK for finds and patterns of ASCII in a view
# of their bytes, where second bytes that read as ASCII (0x81 0x61 is U+4E64, 0x81 0x5C
# U+4E57) must not match, and where a replace text that holds such bytes
# must not match the next pair either.
LARGE_LETTERS = "ab A\u4e64\u4e65\u4e57\u4e2d"
LARGE_FINDS = ["ab", "b a", "a", "ba", "A b", "b"]
LARGE_REPLACES = ["", "\u4e64", "\u4e57x", "a\u4e65", "B"]


def make_large_case(rng, case_id):
    lines = ["".join(rng.choice(LARGE_LETTERS) for _ in range(rng.randint(0, 40))) for _ in range(60000)]
    if rng.random() < 0.5:
        lines[rng.randrange(len(lines))] += "\udcff"  # a broken byte, read as the decoder carries it
    pairs = [(rng.choice(LARGE_FINDS), rng.choice(LARGE_REPLACES)) for _ in range(rng.randint(1, 3))]
    method = rng.choice(["-f", "-fic", "-r", "-ric"])
    return {
        "id": case_id, "encoding": "GBK", "codec": "gbk", "locale": "C.UTF-8", "text": "\n".join(lines),
        "pairs": pairs, "method": method, "blind": method in ("-fic", "-ric"), "noexp": rng.random() < 0.3,
        "stream": rng.random() < 0.4, "pieces": None,
    }


def model(before, pairs_file, case):
    """What the bytes become: both the text and the pairs are decoded from
    their bytes, as a broken byte may join what follows it."""
    codec = case["codec"]
    text = before.decode(codec, "surrogateescape")
    if text.startswith("\ufeff"):
        text = text[1:]
    total = 0
    for line in pairs_file.decode(codec, "surrogateescape").split("\n"):
        if "->" not in line:
            continue
        find, replace = line.split("->")[:2]
        if case["method"].startswith("-r"):
            find = re.sub(r"\\(.)", r"\1", find)
        text, count = replace_all(text, find, replace, case["blind"])
        total += count
    return text.encode(codec, "surrogateescape"), total


def pattern(find):
    return "".join("\\" + c if c in REGEX_SPECIAL else c for c in find)


def run_case(case, ostrel, work):
    codec = case["codec"]
    before = case["text"].encode(codec, "surrogateescape")
    regex = case["method"].startswith("-r")
    lines = [(pattern(f) if regex else f) + "->" + r for f, r in case["pairs"]]
    pairs_file = ("\n".join(lines) + "\n").encode(codec, "surrogateescape")
    with open(os.path.join(work, "pairs.txt"), "wb") as out:
        out.write(pairs_file)
    args = [ostrel, case["method"], "-argfile:pairs.txt"]
    if codec != "ascii":
        args += ["-encin:" + case["encoding"], "-encarg:" + case["encoding"]]
    if case["noexp"]:
        args.append("-noexp")
    env = dict(os.environ, LC_ALL=case["locale"])
    if case["pieces"]:
        env["OSTREL_PIECE_BYTES"] = str(case["pieces"])
    expected, count = model(before, pairs_file, case)
    target = os.path.join(work, "t.txt")
    if case["stream"]:
        done = subprocess.run(args, input=before, capture_output=True, env=env, cwd=work, timeout=60)
        got = done.stdout
    else:
        with open(target, "wb") as out:
            out.write(before)
        os.utime(target, (1000000000, 1000000000))
        done = subprocess.run(args + ["t.txt"], capture_output=True, env=env, cwd=work, timeout=60)
        with open(target, "rb") as file:
            got = file.read()
        if count == 0:
            expected = before
            if os.stat(target).st_mtime != 1000000000:
                return "a file without a match was rewritten"
    if done.returncode != 0:
        return "status %d: %s" % (done.returncode, done.stderr.decode(errors="replace"))
    if got != expected:
        if len(expected) < 200:
            return "got %r, expected %r" % (got, expected)
        at = next((k for k, (g, e) in enumerate(zip(got, expected)) if g != e), min(len(got), len(expected)))
        return "differs from byte %d of %d: got %r, expected %r" % (
            at, len(expected), got[max(0, at - 20):at + 20], expected[max(0, at - 20):at + 20])
    return None


def describe(case):
    if len(case["text"]) > 200:
        case = dict(case, text=case["text"][:100] + "...")
    return ("case %d: %s (%s, %s) %s%s%s%s\n  text %r\n  pairs %r" % (
        case["id"], case["encoding"], case["codec"], case["locale"], case["method"],
        " -noexp" if case["noexp"] else "", " stream" if case["stream"] else " file",
        " pieces of %s" % case["pieces"] if case["pieces"] else "", case["text"], case["pairs"]))


def sanitized(ostrel):
    """A build under the sanitizers runs fewer cases: each run costs more."""
    try:
        libraries = subprocess.run(["ldd", ostrel], capture_output=True, text=True, timeout=10).stdout
    except (OSError, subprocess.SubprocessError):
        return False
    return "libasan" in libraries or "libtsan" in libraries or "libubsan" in libraries


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("ostrel")
    parser.add_argument("--cases", type=int, default=0)
    parser.add_argument("--seed", type=int, default=20261123)
    parser.add_argument("--only", type=int, default=-1, help="run this case alone")
    args = parser.parse_args()
    cases = args.cases or (60 if sanitized(args.ostrel) else 300)
    large = 2 if sanitized(args.ostrel) else 6
    rng = random.Random(args.seed)
    failures = 0
    work = tempfile.mkdtemp(prefix="ostrel-differential-")
    try:
        for case_id in range(cases + large):
            case = make_case(rng, case_id) if case_id < cases else make_large_case(rng, case_id)
            if args.only >= 0 and case_id != args.only:
                continue
            problem = run_case(case, os.path.abspath(args.ostrel), work)
            if problem:
                failures += 1
                print("FAIL " + describe(case) + "\n  " + problem)
                print("  rerun: %s %s --seed %d --cases %d --only %d" % (
                    sys.argv[0], args.ostrel, args.seed, cases, case_id))
                if failures >= 10:
                    break
    finally:
        shutil.rmtree(work, ignore_errors=True)
    print("%d cases, %d failed" % (cases + large, failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())

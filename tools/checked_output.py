"""The one way a generator in tools/ puts its output in place.

Without arguments the output file is rewritten; with --check nothing is
written and the exit status says whether the checked-in file is exactly what
the generator makes now (the build registers every generator as such a test).
"""
import sys


def write_or_check(path, text, generator):
    """Returns the exit status for the generator's main."""
    if '--check' in sys.argv[1:]:
        try:
            with open(path, encoding='utf-8') as f:
                current = f.read()
        except OSError:
            current = None
        if current != text:
            print(f'{path} is out of date: run {generator}', file=sys.stderr)
            return 1
        return 0
    with open(path, 'w', encoding='utf-8') as f:
        f.write(text)
    return 0

#!/usr/bin/env python3
"""Generate the encoding table and the conversion groups of the text
converters.

Output: lib/utilitis/src/TextConv/encoding_table.inc, included by TextConv.cpp
and compat.cpp.

The rows below are the whole knowledge of the converters about encoding
names: the code page handed to a back end that does not know a name, and the
description printed by the listing. Some code pages are deliberately not the
"right" ones (ASCII is 437, ISO-8859-14 is 28591, ARMSCII-8 is 1254, ...):
they are what earlier releases shipped, files and scripts depend on them, and
they stay.

The rows must already be in the order of the table's lookup: case-insensitive,
byte by byte after tolower, bytes compared as signed, a prefix first. The
generator refuses data out of that order, so the listing order can be read
straight off this file.

Usage: gen_encodings.py [--check]   (--check compares with the checked-in file)
"""
import os
import sys

from checked_output import write_or_check

OUT = os.path.join(os.path.dirname(__file__), '..', 'lib', 'utilitis', 'src',
                   'TextConv', 'encoding_table.inc')

# name, code page, right-to-left mark, description
ENCODINGS = [
    ('ANSI-Arabic', 1256, 1, 'Arabic - ANSI'),
    ('ANSI-Baltic', 1257, 0, 'Baltic - ANSI'),
    ('ANSI-CentralEuropean', 1250, 0, 'Central European - ANSI'),
    ('ANSI-Cyrillic', 1251, 0, 'Cyrillic - ANSI'),
    ('ANSI-Greek', 1253, 0, 'Greek - ANSI'),
    ('ANSI-Hebrew', 1255, 1, 'Hebrew - ANSI'),
    ('ANSI-LatinI', 1252, 0, 'Latin I - ANSI'),
    ('ANSI-Thai', 874, 0, 'Thai - ANSI'),
    ('ANSI-Turkish', 1254, 0, 'Turkish - ANSI'),
    ('ANSI_x3.4-1968', 20127, 0, 'English - ASCII (x3.4-1968)'),
    ('ARMSCII-8', 1254, 0, 'Armenian - ARMSCII'),
    ('ASCII', 437, 0, 'English - ASCII (DOS OEM)'),
    ('BIG5', 950, 0, 'Traditional Chinese - BIG5'),
    ('BIG5-HKSCS', 950, 0, 'Traditional Chinese - BIG5-HKSCS'),
    ('BIG5-HKSCS:1999', 950, 0, 'Traditional Chinese - BIG5-HKSCS:1999'),
    ('BIG5-HKSCS:2001', 950, 0, 'Traditional Chinese - BIG5-HKSCS:2001'),
    ('BIG5-HKSCS:2004', 950, 0, 'Traditional Chinese - BIG5-HKSCS:2004'),
    ('C', 20127, 0, 'English - C Default'),
    ('EUC-CN', 51936, 0, 'Simplified Chinese - EUC'),
    ('EUC-JP', 51932, 0, 'Japanese - EUC'),
    ('EUC-KR', 51949, 0, 'Korean - EUC'),
    ('EUC-TW', 51950, 0, 'Traditional Chinese - EUC'),
    ('GB18030', 54936, 0, 'Simplified Chinese - GB18030'),
    ('GB2312', 20936, 0, 'Simplified Chinese - GB2312'),
    ('GBK', 936, 0, 'Simplified Chinese - GBK'),
    ('HZ', 52936, 0, 'Simplified Chinese - HZ-GB2312'),
    ('ISO-2022-CN', 50227, 0, 'Simplified Chinese - ISO-2022-CN'),
    ('ISO-2022-CN-EXT', 50227, 0, 'Simplified Chinese - ISO-2022-CN-EXT'),
    ('ISO-2022-JP', 50220, 0, 'Japanese - ISO-2022-JP'),
    ('ISO-2022-JP-1', 50221, 0, 'Japanese - ISO-2022-JP-1'),
    ('ISO-2022-JP-2', 50222, 0, 'Japanese - ISO-2022-JP-2'),
    ('ISO-2022-KR', 50225, 0, 'Korean - ISO-2022-KR'),
    ('ISO-646', 20127, 0, 'English - ASCII (ISO-646)'),
    ('ISO-8859-1', 28591, 0, 'Latin 1 (West European) - ISO-8859-1'),
    ('ISO-8859-10', 28594, 0, 'Latin 6 (Nordic) - ISO-8859-10'),
    ('ISO-8859-11', 874, 0, 'Thai - ISO-8859-11'),
    ('ISO-8859-13', 28603, 0, 'Latin 7 (Baltic Rim) - ISO-8859-13'),
    ('ISO-8859-14', 28591, 0, 'Latin 8 (Celtic) - ISO-8859-14'),
    ('ISO-8859-15', 28605, 0, 'Latin 9 (West European) - ISO-8859-15'),
    ('ISO-8859-2', 28592, 0, 'Latin 2 (Central and East European) - ISO-8859-2'),
    ('ISO-8859-3', 28593, 0, 'Latin 3 (South European) - ISO-8859-3'),
    ('ISO-8859-4', 28594, 0, 'Latin 4 (North European / Baltic) - ISO-8859-4'),
    ('ISO-8859-5', 28595, 0, 'Cyrillic - ISO-8859-5'),
    ('ISO-8859-6', 28596, 1, 'Arabic - ISO-8859-6'),
    ('ISO-8859-7', 28597, 0, 'Greek - ISO-8859-7'),
    ('ISO-8859-8', 28598, 1, 'Hebrew - ISO-8859-8'),
    ('ISO-8859-9', 28599, 0, 'Latin 5 (Turkish) - ISO-8859-9'),
    ('JOHAB', 1361, 0, 'Korean - Johab'),
    ('KOI8', 20866, 0, 'Russian - KOI8-R'),
    ('KOI8-R', 20866, 0, 'Russian - KOI8-R'),
    ('KOI8-U', 21866, 0, 'Ukrainian - KOI8-U'),
    ('KSC', 949, 0, 'Korean - Unified Hangeul Code'),
    ('MacArabic', 10004, 1, 'Arabic - MAC'),
    ('MacCentralEurope', 10029, 0, 'Central Europe - MAC'),
    ('MacCroatian', 10082, 0, 'Croatian - MAC'),
    ('MacCyrillic', 10007, 0, 'Cyrillic - MAC'),
    ('MacGreek', 10006, 0, 'Greek - MAC'),
    ('MacHebrew', 10005, 1, 'Hebrew - MAC'),
    ('MacIceland', 10079, 0, 'Iceland - MAC'),
    ('Macintosh', 10029, 0, 'Macintosh - MAC'),
    ('MacRoman', 10000, 0, 'Roman - MAC'),
    ('MacRomania', 10010, 0, 'Romania - MAC'),
    ('MacThai', 10021, 0, 'Thai - MAC'),
    ('MacTurkish', 10081, 0, 'Turkish - MAC'),
    ('MacUkraine', 10017, 0, 'Ukraine - MAC'),
    ('OEM-Arabic', 864, 1, 'Arabic - OEM'),
    ('OEM-Baltic', 775, 0, 'Baltic - OEM'),
    ('OEM-CanadianFrench', 863, 0, 'Canadian French - OEM'),
    ('OEM-Cyrillic', 855, 0, 'Cyrillic (primarily Russian) - OEM'),
    ('OEM-Greek', 737, 0, 'Greek (formerly 437G) - OEM'),
    ('OEM-Hebrew', 862, 1, 'Hebrew - OEM'),
    ('OEM-Icelandic', 861, 0, 'Icelandic - OEM'),
    ('OEM-LatinI', 850, 0, 'Latin 1 (West European) - OEM'),
    ('OEM-LatinII', 852, 0, 'Latin 2 (Central and East European) - OEM'),
    ('OEM-ModernGreek', 869, 0, 'Modern Greek - OEM'),
    ('OEM-MultilingualLatinI', 850, 0, 'Multilingual Latin 1 - OEM'),
    ('OEM-MultlingualLatinI+EuroSymbol', 858, 0, 'Multlingual Latin I + Euro symbol - OEM'),
    ('OEM-Nordic', 865, 0, 'Nordic - OEM'),
    ('OEM-Portuguese', 860, 0, 'Portuguese - OEM'),
    ('OEM-Russian', 866, 0, 'Russian - OEM'),
    ('OEM-Turkish', 857, 0, 'Turkish - OEM'),
    ('SHIFT_JIS', 932, 0, 'Japanese - SHIFT-JIS'),
    ('TCVN', 1258, 0, 'Vietnamese - TCVN'),
    ('TIS-620', 874, 0, 'Thai - TIS-620'),
    ('UCS-2', 1200, 0, 'Unicode - UCS-2'),
    ('UCS-2BE', 1201, 0, 'Unicode - UCS-2 Big-Endian'),
    ('UCS-2LE', 1200, 0, 'Unicode - UCS-2 Little-Endian (BMP of ISO 10646)'),
    ('UHC', 949, 0, 'Korean - Unified Hangeul Code'),
    ('US-ASCII', 437, 0, 'English - US-ASCII'),
    ('UTF-16', 1200, 0, 'Unicode - UTF-16'),
    ('UTF-16BE', 1201, 0, 'Unicode - UTF-16 Big-Endian'),
    ('UTF-16LE', 1200, 0, 'Unicode - UTF-16 Little-Endian'),
    ('UTF-7', 65000, 0, 'Unicode - UTF-7'),
    ('UTF-8', 65001, 0, 'Unicode - UTF-8'),
    ('VISCII', 1258, 0, 'Vietnamese - VISCII'),
]

UNICODE = ['UTF-7', 'UTF-8', 'UTF-16', 'UTF-16LE', 'UTF-16BE', 'UCS-2', 'UCS-2LE', 'UCS-2BE',
           'GB18030']
ENGLISH = ['C', 'ASCII', 'US-ASCII', 'ISO-646', 'ANSI_x3.4-1968']
SIMPLIFIED = ['EUC-CN', 'GBK', 'GB2312', 'GB18030', 'HZ', 'ISO-2022-CN', 'ISO-2022-CN-EXT']
TRADITIONAL = ['BIG5', 'BIG5-HKSCS', 'BIG5-HKSCS:1999', 'BIG5-HKSCS:2001', 'BIG5-HKSCS:2004',
               'EUC-TW']
KOREAN = ['EUC-KR', 'ISO-2022-KR', 'JOHAB', 'KSC', 'UHC']
JAPANESE = ['EUC-JP', 'SHIFT_JIS', 'ISO-2022-JP', 'ISO-2022-JP-1', 'ISO-2022-JP-2']
CYRILLIC = ['ISO-8859-5', 'KOI8', 'KOI8-R', 'KOI8-U', 'MacCyrillic', 'MacUkraine', 'OEM-Russian',
            'OEM-Cyrillic']
GREEK = ['ISO-8859-7', 'ANSI-Greek', 'MacGreek', 'OEM-Greek', 'OEM-ModernGreek']

# Conversions that lose nothing. name, mutual, from, to; an empty side of a
# one-way group means any encoding. A mutual group keeps its members in `from`.
# Each group is a judgement about repertoires, made by hand; an encoding in no
# group (ANSI-Cyrillic, ISO-8859-11, Macintosh) converts only to the targets of
# the groups open to any source.
GROUPS = [
    ('Unicode Charset', False, [], UNICODE),
    ('Standard English', False, ENGLISH, []),
    ('West European', True,
     ['ISO-8859-1', 'ISO-8859-9', 'ISO-8859-14', 'ISO-8859-15', 'ANSI-LatinI', 'MacRoman',
      'MacIceland', 'OEM-LatinI', 'OEM-MultilingualLatinI', 'OEM-MultlingualLatinI+EuroSymbol',
      'OEM-Portuguese', 'OEM-Icelandic', 'OEM-CanadianFrench'], []),
    ('Central and East European', True,
     ['ISO-8859-2', 'ANSI-CentralEuropean', 'MacCentralEurope', 'MacCroatian', 'MacRomania',
      'OEM-LatinII'], []),
    ('South European', True,
     ['ISO-8859-3', 'ISO-8859-9', 'ANSI-Turkish', 'MacTurkish', 'OEM-Turkish', 'ARMSCII-8'], []),
    ('North European', True,
     ['ISO-8859-4', 'ISO-8859-10', 'ISO-8859-13', 'ANSI-Baltic', 'OEM-Baltic', 'OEM-Nordic'], []),
    ('Cyrillic', True, CYRILLIC, []),
    ('Greek', True, GREEK, []),
    ('Arabic', True, ['ISO-8859-6', 'ANSI-Arabic', 'OEM-Arabic', 'MacArabic'], []),
    ('Hebrew', True, ['ISO-8859-8', 'ANSI-Hebrew', 'OEM-Hebrew', 'MacHebrew'], []),
    ('Simplified Chinese', True, SIMPLIFIED, []),
    ('Traditional Chinese', True, TRADITIONAL, []),
    ('Korean', True, KOREAN, []),
    ('Japanese', True, JAPANESE, []),
    ('Thai', True, ['ANSI-Thai', 'TIS-620', 'MacThai'], []),
    ('Vietnamese', True, ['VISCII', 'TCVN'], []),
    ('GB Special', False,
     ['GB2312', 'ISO-8859-1'] + CYRILLIC + GREEK + ['EUC-CN'] + JAPANESE,
     ['GB2312', 'GBK', 'GB18030']),
    ('CJK Charset', False, SIMPLIFIED + TRADITIONAL + KOREAN, ['GBK', 'GB18030']),
]


def sort_key(name):
    """The table's ordering: tolower, then bytes as signed values."""
    return [b - 256 if b > 127 else b for b in name.lower().encode('ascii')]


def c_string(text):
    return '"' + text.replace('\\', '\\\\').replace('"', '\\"') + '"'


def render():
    keys = [sort_key(row[0]) for row in ENCODINGS]
    if keys != sorted(keys) or len(set(map(tuple, keys))) != len(keys):
        raise SystemExit('encoding rows are not in lookup order (or repeat a name)')
    known = {row[0].lower() for row in ENCODINGS}
    for name, _, src, dst in GROUPS:
        for member in src + dst:
            if member.lower() not in known:
                raise SystemExit(f'group {name!r} names an unknown encoding {member!r}')

    out = ['// Generated by tools/gen_encodings.py; edit the generator, not this file.',
           '// Rows in lookup order (case-insensitive); groups in the order they are tried.',
           '',
           f'static constexpr EncodingRow kEncodingRows[{len(ENCODINGS)}] = {{']
    for name, cp, flag, desc in ENCODINGS:
        out.append(f'    {{{c_string(name)}, {cp}, {"true" if flag else "false"}, {c_string(desc)}}},')
    out.append('};')
    out.append('')
    for index, (name, _, src, dst) in enumerate(GROUPS):
        for side, members in (('From', src), ('To', dst)):
            body = ', '.join(c_string(m) for m in members) + ', ' if members else ''
            out.append(f'static constexpr const char* kGroup{index}{side}[] = {{{body}nullptr}};')
    out.append('')
    out.append(f'static constexpr CompatRow kCompatRows[{len(GROUPS)}] = {{')
    for index, (name, mutual, _, _) in enumerate(GROUPS):
        out.append(f'    {{{c_string(name)}, {"true" if mutual else "false"}, '
                   f'kGroup{index}From, kGroup{index}To}},')
    out.append('};')
    return '\n'.join(out) + '\n'


def main():
    text = render()
    return write_or_check(OUT, text, 'tools/gen_encodings.py')


if __name__ == '__main__':
    sys.exit(main())

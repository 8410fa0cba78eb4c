// Working a file by pieces must give exactly the bytes of the whole-text run:
// every row runs at several piece sizes (down to one byte, so that every
// line feed becomes a cut) and is compared with decoding, replacing and
// encoding the text whole.
#include "pieces.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <karu/string/unicode.h>

using namespace Karu;

namespace {

ReplacePairs Pairs(std::initializer_list<std::pair<const wchar_t*, const wchar_t*>> list)
{
    ReplacePairs pairs;
    for (const auto& [find, replace] : list)
        pairs.push_back(REPLACE_PAIR{wstringEx(find), wstringEx(replace), {}, {}});
    return pairs;
}

// Pairs whose finds are compiled as the tool compiles them.
ReplacePairs Patterns(std::initializer_list<std::pair<const wchar_t*, const wchar_t*>> list, bool ignoreCase = false,
                      bool ignoreNewline = false)
{
    ReplacePairs pairs = Pairs(list);
    for (REPLACE_PAIR& pair : pairs)
        CompilePairPatterns(pair, ignoreCase, ignoreNewline);
    return pairs;
}

// What the tool does with the text held whole.
// `refused`: whether the output ended in front of a broken byte.
std::string Whole(const std::string& bytes, int32_t method, const ReplacePairs& pairs, TTextConv& in,
                  TTextConv& out, uint32_t& replaced, EscapeWriting escapes = EscapeWriting::kCarry,
                  bool inPlace = false, bool* refused = nullptr)
{
    wstringEx text, scratch;
    in.MBtoWCCarrying(text, stringEx(bytes.data(), bytes.size()));
    replaced = 0;
    if (!text.empty() && text[0] == L'\uFEFF')
        text.erase(0, 1);
    for (const REPLACE_PAIR& pair : pairs) {
        bool known;
        replaced += ApplyPair(method, pair, text, scratch, inPlace, known);
    }
    stringEx encoded;
    const uint64_t stop = EncodeText(out, escapes, text, encoded);
    if (refused)
        *refused = stop != wstringEx::npos;
    return std::string(encoded.data(), encoded.size());
}

// A double-byte converter fills its tables, and with them its ASCII view,
// only once a large text has gone through it; later converters of the
// encoding find them made.
void FillTables(const char* encoding)
{
    wstringEx text;
    TTextConv::CreateConv(0, stringEx(encoding))->MBtoWC(text, stringEx(std::string(1 << 20, 'x').c_str()));
}

PIECES_OPTIONS Sized(uint64_t pieceBytes, EscapeWriting escapes = EscapeWriting::kCarry, bool inPlace = false)
{
    PIECES_OPTIONS options;
    options.pieceBytes = pieceBytes;
    options.escapes = escapes;
    options.inPlace = inPlace;
    return options;
}

TEST(Pieces, GiveTheBytesOfTheWholeText)
{
    const struct Row {
        const char* name;
        const char* in;
        const char* out;
        int32_t method;
        ReplacePairs pairs;
        std::string text;
    } rows[] = {
        {"plain lines", "UTF-8", "UTF-8", kMethodLiteral, Pairs({{L"cat", L"dog"}}),
         "cat\ncat and cat\n\ncatcat\ncat"},
        {"match at each line's end and start", "UTF-8", "UTF-8", kMethodLiteral, Pairs({{L"ab", L"X"}}),
         "ab\nab\nxab\nabab"},
        {"chained pairs see earlier output", "UTF-8", "UTF-8", kMethodLiteral,
         Pairs({{L"a", L"b\n"}, {L"b", L"c"}, {L"\u00e9t\u00e9", L"summer"}}), "a\naa\n\u00e9t\u00e9\nb"},
        {"signature dropped once", "UTF-8", "UTF-8", kMethodLiteral, Pairs({{L"x", L"y"}}),
         "\xEF\xBB\xBFx\n\xEF\xBB\xBFx\n"},
        {"multibyte text and bad bytes next to line feeds", "UTF-8", "UTF-8", kMethodLiteral,
         Pairs({{L"\u4e2d", L"zh"}, {L"?", L"Q"}}), "\xE4\xB8\xAD\n\xE4\xB8\n\xE4\n\xFF\xFE\n\xE4\xB8\xAD\xE4"},
        {"case-blind", "UTF-8", "UTF-8", kMethodLiteralNoCase, Pairs({{L"stra\u00dfe", L"road"}}),
         "STRA\xC3\x9F" "E\nStra\xC3\x9F" "e\nstrasse\n"},
        // Case-blind finds of ASCII are replaced in the bytes, unless a piece
        // holds a character beyond ASCII that folds like one of their letters.
        {"case-blind ASCII among characters beyond ASCII", "UTF-8", "UTF-8", kMethodLiteralNoCase,
         Pairs({{L"buffer", L"BUF"}, {L"b@", L"at"}}),
         "Buffer \xC3\xA9t\xC3\xA9 BUFFER\nbUfFeRbuffer b` B@ \xE4\xB8\xAD" "buffer\n"},
        {"a Kelvin sign folds to k", "UTF-8", "UTF-8", kMethodLiteralNoCase, Pairs({{L"kilo", L"K"}}),
         "\xE2\x84\xAAILO kilo\nKILO\n\xE2\x84\xAAilo"},
        {"a dotted capital I folds to i", "UTF-8", "UTF-8", kMethodLiteralNoCase, Pairs({{L"in", L"-"}}),
         "\xC4\xB0N in\nIN\n"},
        {"a Kelvin sign next to a find without k", "UTF-8", "UTF-8", kMethodLiteralNoCase, Pairs({{L"ilo", L"-"}}),
         "\xE2\x84\xAAILO kilo\n"},
        {"a replace text makes a Kelvin sign for a later pair", "UTF-8", "UTF-8", kMethodLiteralNoCase,
         Pairs({{L"x", L"\u212A"}, {L"k", L"[k]"}}), "x k\nK\n"},
        {"a unit beyond the plane whose low bits are a letter", "UTF-8", "UTF-8", kMethodLiteralNoCase,
         Pairs({{L"k", L"-"}}), "\xF0\x90\x81\x8B k\n"},
        {"broken bytes around case-blind finds", "UTF-8", "UTF-8", kMethodLiteralNoCase, Pairs({{L"ok", L"-"}}),
         "\xE2\x84OK\xFFok\n\xE2\x84\xAAo\xE2\x84\xAA\n"},
        {"single-byte in, UTF-8 out", "CP1252", "UTF-8", kMethodLiteral, Pairs({{L"\u20ac", L"EUR"}}),
         "5 \x80\n\x80\x80\n\x81\n"},
        {"UTF-8 in, single-byte out with unmappable text", "UTF-8", "CP1252", kMethodLiteral,
         Pairs({{L"e", L"\u00e9"}}), "e\xE4\xB8\xAD\ne\n"},
        {"patterns anchored at line ends and word starts", "UTF-8", "UTF-8", kMethodRegex,
         Patterns({{L"^[a-z]+", L"<\\0>"}, {L"[0-9]+$", L"N"}, {L"\\<\\w", L"_"}}),
         "ab cd 12\nef\n\n34 xy\nz9"},
        {"back-references and chained patterns", "UTF-8", "UTF-8", kMethodRegex,
         Patterns({{L"(\\w)\\1", L"\\1"}, {L"l+", L"L"}, {L"L[^ ]", L"\\0\\0"}}), "hello all\nbook\n\nll\n"},
        {"case-blind pattern", "UTF-8", "UTF-8", kMethodRegex,
         Patterns({{L"stra(ss|\u00df)e", L"road"}}, true), "Strasse STRA\xC3\x9F" "E\nstrasse\n"},
        {"a word start next to letters beyond ASCII", "UTF-8", "UTF-8", kMethodRegex,
         Patterns({{L"***:\\ma", L"X"}, {L"order-[0-9]+", L"ID"}}), "\xC3\xA9" "a ba a\n\xE4\xB8\xAD" "a order-12\n"},
        {"a word end next to letters beyond ASCII", "UTF-8", "UTF-8", kMethodRegex, Patterns({{L"***:b\\M", L"Y"}}),
         "ab\xC3\xA9 b\n"},
        {"a character beyond U+FFFF, read by its low 16 bits", "UTF-8", "UTF-8", kMethodRegex,
         Patterns({{L"ab", L"X"}}), "\xF0\x90\x81\xA1" "b ab\nab\n"},
        {"pattern outside line mode", "CP1252", "CP1252", kMethodRegex,
         Patterns({{L"order-[0-9]+", L"ID"}}, false, true), "order-1\norder-22 \x80 order-\norder-3"},
        {"double-byte with bad bytes before line feeds", "GBK", "GBK", kMethodLiteral,
         Pairs({{L"\u4e2d", L"\u6587"}, {L"?", L"Q"}}), "\xD6\xD0\n\xD6\n\xD6\xD0\xD6\xD0\n\x81\n\xD6"},
        {"no line feed: cut after characters no find holds", "UTF-8", "UTF-8", kMethodLiteral,
         Pairs({{L"ab", L"<\u00e9>"}, {L"b <", L"-"}, {L"\u00e9", L"e"}}), "ab ab, ab <ab>\xC3\xA9 ab \xFF ab ab"},
        {"no line feed, case-blind: a folded find holds the cut", "UTF-8", "UTF-8", kMethodLiteralNoCase,
         Pairs({{L"A b", L"X"}, {L"x", L"yy"}}), "a ba Ba B a b a, a B x"},
        {"no line feed, double-byte: trail bytes never cut", "GBK", "GBK", kMethodLiteral,
         Pairs({{L"\u4e2d", L"Z"}, {L"@", L"A"}}), "\xD6\xD0@\xD6\xD0 A\xD6\xD0@\x81@ \xD6\xD0"},
        {"broken bytes carried by a pair", "UTF-8", "UTF-8", kMethodLiteral,
         Pairs({{std::wstring(1, EscapeUnit(0xE9)).c_str(), L"\u00e9"}}), "caf\xE9 caf\xC3\xA9\ncaf\xE9"},
        {"the C locale's ASCII carries every other byte", "ANSI_X3.4-1968", "ANSI_X3.4-1968", kMethodLiteral,
         Pairs({{L"cat", L"dog"}}), "caf\xC3\xA9 cat \xE4\xB8\xAD\xE6\x96\x87 cat\n\x80\xFF"},
        {"the C locale, patterns and case-blind finds past the first line", "ANSI_X3.4-1968", "ANSI_X3.4-1968",
         kMethodRegex, Patterns({{L"c[a-z]t", L"dog"}, {L"CAF", L"-"}}, true),
         "first\ncaf\xC3\xA9 cat \xE4\xB8\xAD\xE6\x96\x87 cAt\n\x80\xFF cat\n"},
        // Pieces after the first are searched in their ASCII view: second
        // bytes that read as s, t, a, b and a backslash are not letters,
        // neither in the text nor in what a pair writes for the next one.
        {"double-byte patterns: second bytes that look like ASCII", "GBK", "GBK", kMethodRegex,
         Patterns({{L"s?truct [a-z]+", L"<\\0>"}, {L"x", L"\u4e64\u4e65"}, {L"ab|b", L"[\\0]"}}),
         "first\n\x81struct ab\x81s\n\x81struct \x81\x61\x81\x62 x\xD6\xD0\n\x81\x5C\x81\x74 truct\n"},
        {"double-byte literals of ASCII: second bytes that look like ASCII", "GBK", "GBK", kMethodLiteral,
         Pairs({{L"ab", L"\u4e64"}, {L"a", L"A"}, {L"\\", L"/"}}), "first\n\x81\x61\x62 ab\n\x81\x5C\\\n"},
        {"double-byte case-blind literals of ASCII", "GBK", "GBK", kMethodLiteralNoCase,
         Pairs({{L"AB", L"\u4e65"}, {L"b", L"-"}}), "first\n\x81\x61\x62 aB Ab\x81\x42\n"},
        {"single-byte: a pair that replaces nothing, then one that does", "CP1252", "CP1252", kMethodRegex,
         Patterns({{L"zz", L"y"}, {L"a+", L"<\\0>"}, {L"\u00e9", L"e"}}), "first\naaa \xE9 aa\nb\xE9" "aa\n\x81" "a\n"},
        {"single-byte literals", "CP1252", "CP1252", kMethodLiteral, Pairs({{L"zz", L"y"}, {L"a", L"\u20ac"}}),
         "first\naaa \xE9 aa\nb\xE9" "aa\n\x81" "a\n"},
        {"double-byte patterns: a backslash inside a replace text", "GBK", "GBK", kMethodRegex,
         Patterns({{L"t", L"\u4e57t"}}), "first\nt\x81\x74t\n"},
        {"double-byte patterns: broken bytes and a lone lead byte", "GBK", "GBK", kMethodRegex,
         Patterns({{L"ab", L"-"}}), "first\n\xFF" "ab\nab\x81\n\x81\x61\x62\n"},
        // Big5 reads 0xA2CC as the character it writes as 0xA451: a piece
        // holding it is written as converting it would write it.
        {"double-byte: a character read from a second form", "BIG5", "BIG5", kMethodLiteral, Pairs({{L"ab", L"X"}}),
         "first\n\xA2\xCC ab\n"},
        {"double-byte patterns: a character read from a second form", "BIG5", "BIG5", kMethodRegex,
         Patterns({{L"a+", L"X"}}), "first\naa\xA2\xCC\n"},
    };
    FillTables("GBK");
    FillTables("BIG5");
    for (const Row& row : rows) {
        const TextConvPtr in = TTextConv::CreateConv(0, stringEx(row.in));
        const TextConvPtr out = TTextConv::CreateConv(0, stringEx(row.out));
        ASSERT_TRUE(in->ConvertsByLines() && out->ConvertsByLines()) << row.name;
        ASSERT_TRUE(PairsAllowPieces(row.method, row.pairs)) << row.name;
        // Broken bytes carried, or refused: then the output ends in front of
        // the first, as the whole's does. (Written ordinarily, under -force,
        // a broken byte is dropped or marked by where the conversion's
        // rounds fall, in the whole as in pieces.)
        for (const EscapeWriting escapes : {EscapeWriting::kCarry, EscapeWriting::kRefuse}) {
            uint32_t wholeCount;
            bool refused;
            const std::string whole =
                Whole(row.text, row.method, row.pairs, *in, *out, wholeCount, escapes, false, &refused);
            for (const uint64_t pieceBytes : {1, 2, 3, 7, 4096}) {
                // The input given whole, and trickling in a few bytes a read;
                // the output kept, and taken piece by piece as a stream's is.
                for (const uint64_t trickle : {uint64_t(0), uint64_t(1), uint64_t(5)}) {
                    uint64_t at = 0;
                    const PieceReader read = [&](char* room, uint64_t n) {
                        const uint64_t take = std::min({n, trickle, row.text.size() - at});
                        std::memcpy(room, row.text.data() + at, take);
                        at += take;
                        return take;
                    };
                    for (const bool inPlace : {false, true}) {
                        at = 0;
                        stringEx encoded("head:");
                        std::string streamed;
                        PIECES_OPTIONS options = Sized(pieceBytes, escapes, inPlace);
                        if (trickle == 5)
                            options.flush = [&streamed](stringEx& out) {
                                streamed.append(out.data(), out.size());
                                out.clear();
                            };
                        const stringEx bytes(row.text.data(), row.text.size());
                        const PIECES_RESULT result =
                            trickle ? ReplaceByPieces(read, row.method, row.pairs, *in, *out, encoded, options)
                                    : ReplaceByPieces(bytes, row.method, row.pairs, *in, *out, encoded, options);
                        const std::string where = std::string(row.name) + ", pieces of " + std::to_string(pieceBytes) +
                                                  ", reads of " + std::to_string(trickle) +
                                                  (inPlace ? ", in place" : "") +
                                                  (escapes == EscapeWriting::kRefuse ? ", refused" : "");
                        EXPECT_EQ(streamed + std::string(encoded.data(), encoded.size()), "head:" + whole) << where;
                        EXPECT_EQ(result.unwritable, refused) << where;
                        if (!refused) {
                            EXPECT_EQ(result.replaced, wholeCount) << where;
                        }
                        EXPECT_FALSE(result.empty) << where;
                    }
                }
            }
        }
    }
}

TEST(Pieces, AreRefusedWhereACutCouldSplitAMatchOrAChararacter)
{
    const struct Row {
        const char* name;
        int32_t method;
        ReplacePairs pairs;
        bool allowed;
    } methods[] = {
        {"literal", kMethodLiteral, Pairs({{L"a", L"\n"}}), true},
        {"a find holding a line feed", kMethodLiteral, Pairs({{L"a", L"b"}, {L"x\ny", L"z"}}), false},
        {"case-blind find holding a line feed", kMethodLiteralNoCase, Pairs({{L"\n", L"z"}}), false},
        {"a pattern within lines", kMethodRegex, Patterns({{L"a.c", L"b"}, {L"(", L"never compiles"}}), true},
        {"a dot outside line mode", kMethodRegex, Patterns({{L"a.c", L"b"}}, false, true), false},
        {"a pattern that can match empty", kMethodRegex, Patterns({{L"a", L"b"}, {L"x*", L"y"}}), false},
        {"white space takes line feeds", kMethodRegex, Patterns({{L"a\\sb", L"b"}}), false},
    };
    for (const Row& row : methods)
        EXPECT_EQ(PairsAllowPieces(row.method, row.pairs), row.allowed) << row.name;

    const struct Encoding {
        const char* name;
        bool byLines;
    } encodings[] = {
        {"UTF-8", true}, {"ISO-8859-1", true}, {"CP1252", true}, {"GBK", true}, {"SHIFT_JIS", true},
        // A line feed byte inside a character, or shift states.
        {"UTF-16LE", false}, {"UTF-32BE", false}, {"UTF-7", false}, {"ISO-2022-JP", false},
    };
    for (const Encoding& e : encodings)
        EXPECT_EQ(TTextConv::CreateConv(0, stringEx(e.name))->ConvertsByLines(), e.byLines) << e.name;
}

TEST(Pieces, AnEmptyFileIsNoText)
{
    const TextConvPtr conv = TTextConv::CreateConv(0, stringEx("UTF-8"));
    stringEx encoded;
    const PIECES_RESULT result =
        ReplaceByPieces(stringEx(), kMethodLiteral, Pairs({{L"a", L"b"}}), *conv, *conv, encoded, Sized(16));
    EXPECT_TRUE(result.empty);
    EXPECT_EQ(result.replaced, 0u);
    EXPECT_TRUE(encoded.empty());
}

}  // namespace

// Random patterns over random lines: wherever the analysis lets a pattern be
// worked by pieces, the pieces must give the whole text's bytes, and so must
// the bytes of a piece wherever a pattern is compiled for them: UTF-8 as it
// is, GBK through its ASCII view. The UTF-8 text has characters of every
// length, one beyond U+FFFF whose low 16 bits are an 'a'; the GBK text has
// characters whose second byte is a, b or a backslash, and broken bytes.
TEST(Pieces, RandomPatternsGiveTheWholeTextsBytes)
{
    const wchar_t* const atoms[] = {L"a",  L"b",   L".",    L"[^a]", L"\\w", L"\\s", L"\\n", L"^",     L"$",
                                    L"\\<", L"\\>", L"\\A", L"\\Z",  L"[ab]", L"(a)", L"(b|)", L"(?=a)", L"\\1",
                                    L"\u00e9", L"[a\u00e9]", L"\\d", L"[[:alpha:]]", L"\\m", L"\\M", L"[a-z]"};
    const wchar_t* const quantifiers[] = {L"", L"", L"*", L"+", L"?", L"{2}", L"*?"};
    const wchar_t* const prefixes[] = {L"", L"***:"};
    const wchar_t* const replaces[] = {L"<\\0\\1>", L"\u4e64\\0", L"\u4e57"};
    const struct Text {
        const char* encoding;
        std::vector<const char*> letters;
    } texts[] = {
        {"UTF-8", {"a", "b", " ", "A", "\n", "\xC3\xA9", "\xE4\xB8\xAD", "\xF0\x90\x81\xA1"}},
        {"GBK", {"a", "b", " ", "A", "\n", "\n", "\xA8\xA6", "\xD6\xD0", "\x81\x61", "\x81\x62", "\x81\x5C",
                 "\xFF", "\x81"}},
    };
    FillTables("GBK");
    for (const Text& t : texts) {
        const TextConvPtr conv = TTextConv::CreateConv(0, stringEx(t.encoding));
        std::mt19937 rng(20261123);
        int worked = 0, inBytes = 0;
        for (int round = 0; round < 3000; ++round) {
            std::wstring pattern = prefixes[rng() % 2];
            for (int n = 1 + static_cast<int>(rng() % 4); n > 0; --n) {
                pattern += atoms[rng() % std::size(atoms)];
                pattern += quantifiers[rng() % std::size(quantifiers)];
            }
            const bool ignoreCase = rng() % 4 == 0, ignoreNewline = rng() % 3 == 0;
            ReplacePairs pairs = Patterns({{pattern.c_str(), replaces[rng() % std::size(replaces)]}, {L"a", L"\\\\"}},
                                          ignoreCase, ignoreNewline);
            pairs.resize(1 + rng() % 2);
            if (!pairs[0].regex || !PairsAllowPieces(kMethodRegex, pairs))
                continue;
            ++worked;
            inBytes += pairs[0].bytesRegex ? 1 : 0;
            std::string text = "first line\n";
            for (int n = static_cast<int>(rng() % 30); n > 0; --n)
                text += t.letters[rng() % t.letters.size()];
            uint32_t wholeCount;
            const std::string whole = Whole(text, kMethodRegex, pairs, *conv, *conv, wholeCount);
            stringEx encoded;
            const PIECES_RESULT result = ReplaceByPieces(stringEx(text.data(), text.size()), kMethodRegex, pairs,
                                                         *conv, *conv, encoded, Sized(1));
            const std::string where = std::string(t.encoding) + ": pattern " +
                                      std::string(pattern.begin(), pattern.end()) + " on \"" + text + "\"";
            ASSERT_EQ(std::string(encoded.data(), encoded.size()), whole) << where;
            ASSERT_EQ(result.replaced, wholeCount) << where;
        }
        EXPECT_GT(worked, 300) << t.encoding << ": too few patterns qualified to test anything";
        EXPECT_GT(inBytes, 100) << t.encoding << ": too few patterns were worked in bytes";
    }
}

// Case-blind finds over random lines of characters that fold across
// scripts: the pieces, in bytes or converted, must give the whole text's
// bytes whatever the pieces hold.
TEST(Pieces, RandomCaseBlindFindsGiveTheWholeTextsBytes)
{
    const TextConvPtr conv = TTextConv::CreateConv(0, stringEx("UTF-8"));
    std::mt19937 rng(20261128);
    const char* const letters[] = {"k", "K", "i", "I", " ", "\n", "\xE2\x84\xAA", "\xC4\xB0", "\xC5\xBF",
                                   "\xC3\xA9", "\xF0\x90\x81\x8B", "s", "S", "\xE2\x84", "\xFF"};
    const wchar_t* const finds[] = {L"k", L"ki", L"s", L"KIS", L"i k", L"\u212A", L"\u00e9k"};
    const wchar_t* const replaces[] = {L"", L"x", L"\u212A", L"\u0130", L"KK"};
    for (int round = 0; round < 1500; ++round) {
        ReplacePairs pairs;
        for (int n = 1 + static_cast<int>(rng() % 2); n > 0; --n)
            pairs.push_back(REPLACE_PAIR{wstringEx(finds[rng() % std::size(finds)]),
                                         wstringEx(replaces[rng() % std::size(replaces)]), {}, {}});
        std::string text;
        for (int n = static_cast<int>(rng() % 30); n > 0; --n)
            text += letters[rng() % std::size(letters)];
        uint32_t wholeCount;
        const std::string whole = Whole(text, kMethodLiteralNoCase, pairs, *conv, *conv, wholeCount);
        for (const uint64_t pieceBytes : {1, 4096}) {
            stringEx encoded;
            const PIECES_RESULT result = ReplaceByPieces(stringEx(text.data(), text.size()), kMethodLiteralNoCase,
                                                         pairs, *conv, *conv, encoded, Sized(pieceBytes));
            ASSERT_EQ(std::string(encoded.data(), encoded.size()), whole) << "round " << round << " on \"" << text << "\"";
            ASSERT_EQ(result.replaced, wholeCount) << "round " << round;
        }
    }
}

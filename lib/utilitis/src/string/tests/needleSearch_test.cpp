// The searches that look at many units at a time, held to models written
// here: a position-by-position scan of the needles, and folding both sides
// at every position for the case-blind search. Random rows reach the block
// edges of the vector forms (32 bytes, 8 units) and the ends of the text.
#include <karu/string/needleSearch.h>
#include <karu/string/replace.h>
#include <karu/string/stringEx.h>
#include <karu/string/unicode.h>

#include <gtest/gtest.h>

#include <cctype>
#include <random>
#include <string>
#include <vector>

using namespace Karu;

namespace {

// The model: the first position where a needle fits and matches.
const char* NaiveFind(const std::vector<ByteNeedle>& needles, const char* from, const char* to)
{
    for (const char* p = from; p < to; ++p)
        for (const ByteNeedle& n : needles) {
            if (static_cast<size_t>(to - p) < n.size())
                continue;
            size_t i = 0;
            while (i < n.size() && n[i][static_cast<unsigned char>(p[i])]) ++i;
            if (i == n.size()) return p;
        }
    return nullptr;
}

ByteSet Bytes(std::initializer_list<int> list)
{
    ByteSet s;
    for (int b : list) s.set(static_cast<size_t>(b));
    return s;
}

ByteNeedle Word(const char* w, bool bothCases = false)
{
    ByteNeedle n;
    for (; *w; ++w)
        n.push_back(bothCases ? Bytes({std::tolower(*w), std::toupper(*w)}) : Bytes({static_cast<unsigned char>(*w)}));
    return n;
}

TEST(NeedleSearch, Rows)
{
    const std::string pad(40, '.');
    struct Row {
        const char* why;
        std::vector<ByteNeedle> needles;
        std::string text;
        long expected;  // -1: none
    };
    const Row rows[] = {
        {"one word", {Word("moon")}, "the moon", 4},
        {"either case", {Word("moon", true)}, "the MoOn", 4},
        {"a needle running past the end is not found", {Word("moon")}, "the moo", -1},
        {"the last place a needle fits", {Word("on")}, pad + "on", 40},
        {"the first of several words", {Word("tango"), Word("alpha"), Word("echo")}, pad + "echo alpha", 40},
        {"a shorter needle narrows the filter", {Word("x"), Word("yyyy")}, pad + "yyyyx", 40},
        {"bytes beyond ASCII", {ByteNeedle{Bytes({0xE2}), Bytes({0x84}), Bytes({0xAA})}}, pad + "\xE2\x84\xAA", 40},
        {"a byte of the filter at a block's end", {Word("ab")}, std::string(31, '.') + "ab", 31},
        {"just past a block", {Word("ab")}, std::string(32, '.') + "ab", 32},
        {"no needles", {}, "anything", -1},
        // Needles alike but in one position are searched as one.
        {"alike but in the last position", {Word("struct a"), Word("struct b"), Word("struct c")}, pad + "struct b", 40},
        {"alike but in the first position", {Word("xab"), Word("yab")}, pad + "zab yab", 44},
        {"alike in none: no mixing of two places", {Word("ab"), Word("cd")}, pad + "ad cb cd", 46},
        {"a needle twice", {Word("ab"), Word("ab")}, pad + "ab", 40},
        {"one alike with two others in different places", {Word("abc"), Word("xbc"), Word("ayc")}, pad + "xyc ayc", 44},
        // The pair a single needle goes by is its rarest positions; the
        // rest must still be checked.
        {"rare positions hold, the others do not", {Word("struct s")}, pad + "xtrucx s struct s", 49},
        {"rare positions at the text's end", {Word("kxk")}, std::string(62, '.') + "kxk", 62},
    };
    for (const Row& row : rows) {
        const ByteNeedles needles(row.needles);
        const char* from = row.text.data();
        const char* to = from + row.text.size();
        for (const char* got : {needles.Find(from, to), needles.FindPortable(from, to)})
            EXPECT_EQ(got ? got - from : -1, row.expected) << row.why;
    }
}

// Random needle sets of every kind a caller makes (single bytes, both cases,
// small and large classes), more than there are buckets, over texts of few
// letters so that they occur.
TEST(NeedleSearch, RandomNeedlesAgreeWithTheModel)
{
    std::mt19937 rng(20261124);
    const unsigned char alphabet[] = {'a', 'b', 'c', 'A', 'B', ' ', '_', 0x80, 0xC3, 0xFF, 0x00};
    auto randomSet = [&] {
        ByteSet s;
        switch (rng() % 4) {
        case 0: s.set(alphabet[rng() % sizeof alphabet]); break;
        case 1: s.set('a'); s.set('A'); break;
        case 2: for (int k = 0; k < 3; ++k) s.set(alphabet[rng() % sizeof alphabet]); break;
        default: for (int b = 0; b < 256; ++b) s[static_cast<size_t>(b)] = rng() % 2; break;
        }
        return s;
    };
    for (int round = 0; round < 3000; ++round) {
        std::vector<ByteNeedle> needles(1 + rng() % (round % 3 == 0 ? 30 : 4));
        for (ByteNeedle& n : needles) {
            n.resize(1 + rng() % 5);
            for (ByteSet& s : n) s = randomSet();
        }
        std::string text(rng() % 120, ' ');
        for (char& c : text) c = static_cast<char>(alphabet[rng() % sizeof alphabet]);
        const ByteNeedles set(needles);
        const size_t a = text.empty() ? 0 : rng() % (text.size() + 1);
        const size_t b = a + rng() % (text.size() - a + 1);
        const char* from = text.data() + a;
        const char* to = text.data() + b;
        const char* expected = NaiveFind(needles, from, to);
        EXPECT_EQ(set.Find(from, to), expected) << "round " << round;
        EXPECT_EQ(set.FindPortable(from, to), expected) << "round " << round;
    }
}

TEST(NeedleSearch, UnitOrBeyondAgreesWithTheModel)
{
    std::mt19937 rng(20261125);
    const wchar_t alphabet[] = {L'a', L'b', L'K', static_cast<wchar_t>(0x212A), static_cast<wchar_t>(0xFFFF),
                                static_cast<wchar_t>(0x10000), static_cast<wchar_t>(0x1006B), static_cast<wchar_t>(-1)};
    for (int round = 0; round < 3000; ++round) {
        std::wstring text(rng() % 40, L'a');
        for (wchar_t& c : text) c = rng() % 3 ? L'a' : alphabet[rng() % std::size(alphabet)];
        const int count = 1 + static_cast<int>(rng() % 4);
        wchar_t units[4];
        for (wchar_t& u : units) u = alphabet[rng() % 4];
        const size_t from = text.empty() ? 0 : rng() % text.size();
        const wchar_t* expected = nullptr;
        for (size_t i = from; i < text.size() && !expected; ++i) {
            const uint32_t u = static_cast<uint32_t>(text[i]);
            if (u > 0xFFFF || std::find(units, units + count, text[i]) != units + count) expected = &text[i];
        }
        EXPECT_EQ(FindUnitOrBeyond(text.data() + from, text.data() + text.size(), units, count), expected)
            << "round " << round;
    }
}

// Which units fold into ASCII, and which fold to a unit, by a scan of every
// unit: the tables read once must be the tables.
TEST(NeedleSearch, TheInverseOfTheFolding)
{
    std::vector<wchar_t> intoAscii;
    for (uint32_t u = 0x80; u <= 0x10FFFF; ++u)
        if (static_cast<uint32_t>(ToLower(static_cast<wchar_t>(u))) < 0x80) intoAscii.push_back(static_cast<wchar_t>(u));
    EXPECT_EQ(UnitsLoweringIntoAscii(), intoAscii);
    EXPECT_NE(std::find(intoAscii.begin(), intoAscii.end(), static_cast<wchar_t>(0x212A)), intoAscii.end());
    EXPECT_NE(std::find(intoAscii.begin(), intoAscii.end(), static_cast<wchar_t>(0x130)), intoAscii.end());

    std::vector<std::vector<wchar_t>> lowering(0x10000);
    for (uint32_t u = 0; u <= 0xFFFF; ++u) {
        const uint32_t lower = static_cast<uint32_t>(ToLower(static_cast<wchar_t>(u)));
        ASSERT_LE(lower, 0xFFFFu) << "the basic plane folds into itself: " << u;
        lowering[lower].push_back(static_cast<wchar_t>(u));
    }
    for (uint32_t lower = 0; lower <= 0xFFFF; ++lower) {
        wchar_t out[8];
        const int n = UnitsLoweringTo(static_cast<wchar_t>(lower), out, 8);
        ASSERT_EQ(static_cast<size_t>(n), lowering[lower].size()) << lower;
        std::vector<wchar_t> got(out, out + std::min(n, 8));
        std::sort(got.begin(), got.end());
        EXPECT_EQ(got, lowering[lower]) << lower;
    }
}

// The case-blind search against folding both sides at every position, in
// the units that fold across scripts and planes: the Kelvin sign and the
// dotted capital I into ASCII, final sigma, units beyond the basic plane
// (folded by their low 16 bits, high bits kept) and a unit with the top bit.
TEST(NeedleSearch, CaseBlindWideAgreesWithFoldingEveryPosition)
{
    std::mt19937 rng(20261126);
    const wchar_t alphabet[] = {L'a', L'k', L'K', L'i', L'I', static_cast<wchar_t>(0x212A), static_cast<wchar_t>(0x130),
                                static_cast<wchar_t>(0x3A3), static_cast<wchar_t>(0x3C3), static_cast<wchar_t>(0x3C2),
                                static_cast<wchar_t>(0x1004B), static_cast<wchar_t>(0x1006B), static_cast<wchar_t>(-1),
                                static_cast<wchar_t>(0x1E9E), static_cast<wchar_t>(0xDF)};
    for (int round = 0; round < 4000; ++round) {
        std::wstring text(rng() % 50, L'a'), needle(1 + rng() % 3, L'a');
        for (wchar_t& c : text) c = alphabet[rng() % std::size(alphabet)];
        for (wchar_t& c : needle) c = alphabet[rng() % std::size(alphabet)];
        const wstringEx t(text.data(), text.size()), n(needle.data(), needle.size());
        const NoCaseFinder<wchar_t> finder(n);
        for (uint64_t start = 0; start <= text.size() + 1; start += 1 + rng() % 7) {
            uint64_t expected = wstringEx::npos;
            for (uint64_t p = start; p + needle.size() <= text.size() && expected == wstringEx::npos; ++p) {
                uint64_t i = 0;
                while (i < needle.size() && ToLower(text[p + i]) == ToLower(needle[i])) ++i;
                if (i == needle.size()) expected = p;
            }
            EXPECT_EQ(finder.Next(t, start), expected) << "round " << round << " from " << start;
        }
    }
}

// Bytes: by the C library's folding, and for UTF-8 bytes by the wide
// folding of ASCII alone, every other byte matching only itself.
TEST(NeedleSearch, CaseBlindBytesAgreeWithFoldingEveryPosition)
{
    std::mt19937 rng(20261127);
    const char alphabet[] = {'a', 'A', 'z', 'Z', '@', '`', '[', '{', '\xC3', '\xA9', '\x89', '\0'};
    for (int round = 0; round < 4000; ++round) {
        std::string text(rng() % 60, 'a'), needle(1 + rng() % 4, 'a');
        for (char& c : text) c = alphabet[rng() % std::size(alphabet)];
        for (char& c : needle) c = alphabet[rng() % std::size(alphabet)];
        const stringEx t(text.data(), text.size()), n(needle.data(), needle.size());
        for (const bool ascii : {false, true}) {
            auto fold = [ascii](char c) {
                const auto b = static_cast<unsigned char>(c);
                if (!ascii) return std::tolower(b);
                return b < 0x80 ? static_cast<int>(ToLower(static_cast<wchar_t>(b))) : static_cast<int>(b);
            };
            const NoCaseFinder<char> finder(n, ascii);
            const uint64_t start = rng() % (text.size() + 2);
            uint64_t expected = stringEx::npos;
            for (uint64_t p = start; p + needle.size() <= text.size() && expected == stringEx::npos; ++p) {
                uint64_t i = 0;
                while (i < needle.size() && fold(text[p + i]) == fold(needle[i])) ++i;
                if (i == needle.size()) expected = p;
            }
            EXPECT_EQ(finder.Next(t, start), expected) << "round " << round << (ascii ? " (ASCII)" : "");
        }
    }
}

}  // namespace

// Literal replace: the copying and the in-place form must agree on every
// row, in both widths, and the copying form must size its buffer as planned.
#include <karu/string/replace.h>

#include <gtest/gtest.h>

#include "file/tests/text_helpers.h"

#include <random>
#include <string>

using namespace Karu;

namespace {

using KaruTest::W;

struct Row {
    const char* why;
    const wchar_t* text;
    const wchar_t* find;
    const wchar_t* replace;
    bool noCase;
    const wchar_t* expected;
    uint32_t count;
};

const Row kRows[] = {
    {"whole text removed", L"abc", L"abc", L"", false, L"", 1},
    {"find longer than text", L"ab", L"abc", L"x", false, L"ab", 0},
    {"no match leaves a copy", L"hello", L"z", L"y", false, L"hello", 0},
    {"empty text", L"", L"a", L"b", false, L"", 0},
    {"matches do not overlap", L"aaa", L"aa", L"b", false, L"ba", 1},
    {"replaced text is not rescanned", L"aXa", L"a", L"aa", false, L"aaXaa", 2},
    {"growing replace", L"a-a-a", L"a", L"long", false, L"long-long-long", 3},
    {"text of only matches grows", L"aaaaaaaa", L"a", L"xyz", false, L"xyzxyzxyzxyzxyzxyzxyzxyz", 8},
    {"shrinking replace", L"abcabcab", L"abc", L"Z", false, L"ZZab", 2},
    {"match at the very end", L"xxab", L"ab", L"Q", false, L"xxQ", 1},
    {"first unit repeats before a match", L"aab", L"ab", L"-", false, L"a-", 1},
    {"case matters by default", L"Abc abc", L"abc", L"x", false, L"Abc x", 1},
    {"case-blind ascii", L"Abc ABC abc", L"abc", L"x", true, L"x x x", 3},
    {"case-blind keeps replace case", L"strasse", L"STRASSE", L"Road", true, L"Road", 1},
    {"case-blind greek", L"\u03A3\u039F\u03A6\u03B9\u03B1", L"\u03C3\u03BF\u03C6", L"s", true, L"s\u03B9\u03B1", 1},
    {"sharp s is no two letters", L"stra\u00DFe", L"STRASSE", L"x", true, L"stra\u00DFe", 0},
    {"units above the plane fold by their low half", L"\U00010041", L"\U00010061", L"ok", true, L"ok", 1},
    {"case-blind no overlap", L"AaA", L"aa", L"b", true, L"bA", 1},
};

TEST(LiteralReplace, BothFormsAgreeOnEveryRow)
{
    for (const Row& row : kRows) {
        const wstringEx text(row.text), find(row.find), replace(row.replace);
        wstringEx dest(L"stale content");
        const uint32_t copied =
            row.noCase ? ReplaceCopyNoCase(text, dest, find, replace) : ReplaceCopy(text, dest, find, replace);
        EXPECT_EQ(copied, row.count) << row.why;
        EXPECT_EQ(W(dest), row.expected) << row.why;
        EXPECT_EQ(dest.c_str()[dest.size()], L'\0') << row.why;
        EXPECT_EQ(text, wstringEx(row.text)) << row.why << ": the source must stay as it was";

        wstringEx inPlace = text;
        const uint32_t replaced =
            row.noCase ? ReplaceInPlaceNoCase(inPlace, find, replace) : ReplaceInPlace(inPlace, find, replace);
        EXPECT_EQ(replaced, row.count) << row.why;
        EXPECT_EQ(W(inPlace), row.expected) << row.why;
        EXPECT_EQ(text, wstringEx(row.text)) << row.why << ": a sharer of the text must keep it";
    }
}

TEST(LiteralReplace, StartPositionAndSingleReplace)
{
    struct StartRow {
        const char* why;
        const char* text;
        uint64_t start;
        bool all;
        const char* expected;
        uint32_t count;
    } rows[] = {
        {"text in front of start is kept", "a.a.a", 1, true, "a.b.b", 2},
        {"start at the size replaces nothing", "aaa", 3, true, "aaa", 0},
        {"only the first", "a.a.a", 0, false, "b.a.a", 1},
    };
    for (const auto& row : rows) {
        stringEx inPlace(row.text);
        EXPECT_EQ(ReplaceInPlace(inPlace, stringEx("a"), stringEx("b"), row.start, row.all), row.count) << row.why;
        EXPECT_EQ(inPlace, stringEx(row.expected)) << row.why;
        if (row.all && row.start < 3) {
            stringEx dest;
            EXPECT_EQ(ReplaceCopy(stringEx(row.text), dest, stringEx("a"), stringEx("b"), row.start), row.count);
            EXPECT_EQ(dest, stringEx(row.expected)) << row.why;
        }
    }
    // Below the size the copy is empty: there is nothing behind the start.
    stringEx dest("x");
    EXPECT_EQ(ReplaceCopy(stringEx("aaa"), dest, stringEx("a"), stringEx("b"), 3), 0u);
    EXPECT_TRUE(dest.empty());
    // An empty find replaces nothing; the copy then holds nothing at all,
    // which is why the pair reader never lets such a pair through.
    stringEx kept("abc");
    EXPECT_EQ(ReplaceInPlace(kept, stringEx(""), stringEx("x")), 0u);
    EXPECT_EQ(kept, stringEx("abc"));
    EXPECT_EQ(ReplaceCopy(kept, dest, stringEx(""), stringEx("x")), 0u);
    EXPECT_TRUE(dest.empty());
}

TEST(LiteralReplace, NarrowTwinFoldsByLocale)
{
    stringEx dest;
    EXPECT_EQ(ReplaceCopyNoCase(stringEx("One ONE one"), dest, stringEx("one"), stringEx("1")), 3u);
    EXPECT_EQ(dest, stringEx("1 1 1"));
    stringEx text("xXx");
    EXPECT_EQ(ReplaceInPlaceNoCase(text, stringEx("x"), stringEx("yy")), 3u);
    EXPECT_EQ(text, stringEx("yyyyyy"));
}

TEST(LiteralReplace, CopySizesItsBufferFromTheGuess)
{
    // Replace no longer than find: exactly the source size and a terminator.
    wstringEx source(std::wstring(700, L'a').c_str()), dest;
    ReplaceCopy(source, dest, wstringEx(L"ab"), wstringEx(L"c"));
    EXPECT_EQ(dest.capacity(), 701u);
    // Longer replace: one match per 70 units of growth is planned for.
    wstringEx fresh;
    ReplaceCopy(source, fresh, wstringEx(L"b"), wstringEx(L"ccc"));
    EXPECT_EQ(fresh.capacity(), 700u + 30u + 1u);
    // The buffer keeps its storage from call to call.
    const wchar_t* before = fresh.data();
    ReplaceCopy(wstringEx(L"short"), fresh, wstringEx(L"o"), wstringEx(L"0"));
    EXPECT_EQ(fresh.data(), before);
    EXPECT_EQ(fresh, wstringEx(L"sh0rt"));
}

TEST(LiteralReplace, ArgumentsMayBeTheSameObject)
{
    wstringEx text(L"ab");
    EXPECT_EQ(ReplaceInPlace(text, wstringEx(L"a"), text), 1u);
    EXPECT_EQ(text, wstringEx(L"abb"));
    wstringEx shrink(L"abcabc");
    EXPECT_EQ(ReplaceInPlace(shrink, wstringEx(L"abcabc"), shrink), 1u);
    EXPECT_EQ(shrink, wstringEx(L"abcabc"));
    wstringEx same(L"xyx");
    EXPECT_EQ(ReplaceCopy(same, same, wstringEx(L"x"), wstringEx(L"zz")), 2u);
    EXPECT_EQ(same, wstringEx(L"zzyzz"));
}

// A small alphabet makes matches dense, overlapping candidates frequent and
// the case-blind search meet mixed case.
TEST(LiteralReplace, RandomTextsGiveTheSameResultInBothForms)
{
    std::mt19937 random(7);
    const wchar_t alphabet[] = L"abAB";
    auto pick = [&](size_t minLength, size_t maxLength) {
        std::wstring s(minLength + random() % (maxLength - minLength + 1), L' ');
        for (wchar_t& c : s)
            c = alphabet[random() % 4];
        return wstringEx(s.c_str());
    };
    for (int round = 0; round < 2000; ++round) {
        const wstringEx text = pick(0, 40), find = pick(1, 3), replace = pick(0, 5);
        const bool noCase = round % 2;
        wstringEx dest, inPlace = text;
        const uint32_t a =
            noCase ? ReplaceCopyNoCase(text, dest, find, replace) : ReplaceCopy(text, dest, find, replace);
        const uint32_t b =
            noCase ? ReplaceInPlaceNoCase(inPlace, find, replace) : ReplaceInPlace(inPlace, find, replace);
        ASSERT_EQ(a, b) << "round " << round;
        ASSERT_EQ(W(dest), W(inPlace)) << "round " << round;
    }
}

// Bytes against a plain model (leftmost match, the scan going on behind
// it), over few letters, so that a find's first bytes often come without
// its last: short texts, and long ones, where the search changes its way
// after many such false starts.
TEST(LiteralReplace, BytesAgreeWithAPlainModel)
{
    std::mt19937 random(11);
    const char alphabet[] = "ab\xE9\n";
    auto pick = [&](size_t minLength, size_t maxLength) {
        std::string s(minLength + random() % (maxLength - minLength + 1), ' ');
        for (char& c : s)
            c = alphabet[random() % 4];
        return s;
    };
    for (int round = 0; round < 3000; ++round) {
        const std::string text = round % 8 ? pick(0, 300) : pick(2000, 6000), find = pick(1, 5), replace = pick(0, 4);
        std::string model = text;
        uint32_t count = 0;
        for (size_t at = model.find(find); at != std::string::npos; at = model.find(find, at + replace.size())) {
            model.replace(at, find.size(), replace);
            ++count;
        }
        const stringEx source(text.data(), text.size()), f(find.data(), find.size()), r(replace.data(), replace.size());
        stringEx dest, inPlace = source;
        ASSERT_EQ(ReplaceCopy(source, dest, f, r), count) << "round " << round;
        ASSERT_EQ(std::string(dest.data(), dest.size()), model) << "round " << round;
        ASSERT_EQ(ReplaceInPlace(inPlace, f, r), count) << "round " << round;
        ASSERT_EQ(std::string(inPlace.data(), inPlace.size()), model) << "round " << round;
    }
}

}  // namespace

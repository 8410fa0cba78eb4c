// The two regular-expression replace loops (copying and in place) with their
// anchors, empty matches, escapes and counts.
#include <karu/string/regexReplace.h>

#include <gtest/gtest.h>

#include "wide_text.h"

#include <random>
#include <string>

using namespace Karu;

namespace {

using test::Narrow;
using test::Show;

// The four switches of the tool, as (ignoreCase, newlineSensitive).
struct Method {
    const char* name;
    uint8_t ignoreCase, newlineSensitive;
};
constexpr Method kR{"-r", 0, 1}, kRic{"-ric", 1, 1}, kRnnl{"-rnnl", 0, 0}, kRnnlic{"-rnnlic", 1, 0};

TEST(RegexReplace, BothFormsOverWholeTexts)
{
    struct Row {
        const wchar_t* pattern;
        Method method;
        const wchar_t* text;
        const wchar_t* replacement;
        const wchar_t* copied;
        uint32_t count;
        const wchar_t* inPlace;  // null: the same as copied
        int inPlaceCount;        // -1: the same as copied
    } rows[] = {
        // empty matches step one unit; nothing matches at the very end
        {L"x*", kR, L"abc", L"-", L"-a-b-c", 3, nullptr, -1},
        {L"b*", kR, L"abbc", L"-", L"-a--c", 3, nullptr, -1},
        {L"$", kRnnl, L"abc", L"!", L"abc!", 1, nullptr, -1},  // found from an earlier offset
        // line starts: the copying form asks its output, the in-place form
        // the text as it stands
        {L"^", kR, L"ab\ncd", L"> ", L"> ab\n> cd", 2, nullptr, -1},
        {L"^", kRnnl, L"ab\ncd", L"> ", L"> ab\ncd", 1, nullptr, -1},
        {L"^a", kR, L"aaa", L"", L"", 3, nullptr, -1},
        {L"^a", kRnnl, L"aaa", L"", L"", 3, nullptr, -1},
        {L"^a", kR, L"aaa", L"b", L"baa", 1, nullptr, -1},
        {L"^[a-z]", kR, L"x\nyz\n\nw", L"#", L"#\n#z\n\n#", 3, nullptr, -1},
        {L"$", kR, L"ab\ncd", L";", L"ab;\ncd;", 2, nullptr, -1},
        // behind an empty match the copying output lacks the stepped-over
        // newline, the rewritten text has it
        {L"^x*", kR, L"\nab", L"-", L"-\nab", 1, L"-\n-ab", 2},
        // groups in the replacement
        {L"(\\w+)", kR, L"ab cd", L"\\1\\1", L"abab cdcd", 2, nullptr, -1},
        {L"(\\w+)=(\\w+)", kR, L"k=v; x=y", L"\\2=\\1", L"v=k; y=x", 2, nullptr, -1},
        {L"a(x)?", kR, L"ab", L"[\\1]", L"[]b", 1, nullptr, -1},
        {L"a", kR, L"a", L"\\\\1", L"\\1", 1, nullptr, -1},
        // escapes of the replacement, and literal quotes
        {L"\\s+", kR, L"a  b", L"\\t", L"a\tb", 1, nullptr, -1},
        {L",", kR, L"a,b", L"\\\"\\'", L"a\"'b", 1, nullptr, -1},
        {L",", kR, L"a,b", L"\\\\t", L"a\\tb", 1, nullptr, -1},
        // case, and newlines in the pattern
        {L"ab", kRic, L"AB ab aB", L"-", L"- - -", 3, nullptr, -1},
        {L"ab", kR, L"AB ab aB", L"-", L"AB - aB", 1, nullptr, -1},
        {L"a.b", kR, L"a\nb", L"-", L"a\nb", 0, nullptr, -1},
        {L"a.b", kRnnlic, L"A\nb", L"-", L"-", 1, nullptr, -1},
        {L"x\n", kR, L"ax\nx", L"", L"ax", 1, nullptr, -1},
        // advanced patterns
        {L"***:<(.+?)>", kR, L"<a><b>", L"\\1", L"ab", 2, nullptr, -1},
        {L"***:(\\w)\\1", kR, L"aabcc", L"\\1", L"abc", 2, nullptr, -1},
        {L"***:o(?=k)", kR, L"ok no", L"0", L"0k no", 1, nullptr, -1},
        // non-ASCII text
        {L"\u4E2D(\\w)", kR, L"\u4E2D\u6587 \u4E2Dx", L"<\\1>", L"<\u6587> <x>", 2, nullptr, -1},
        {L"\u00C4", kRic, L"\u00E4\u00C4", L"A", L"AA", 2, nullptr, -1},
        // units above the basic plane
        {L"\U0001F600+", kR, L"a\U0001F600\U0001F600b", L"-", L"a-b", 1, nullptr, -1},
    };
    for (const Row& r : rows) {
        wstringEx pattern(r.pattern);
        const RegexHandle h = RegexCompile(pattern, r.method.ignoreCase, r.method.newlineSensitive, 1, 1);
        ASSERT_FALSE(h.IsNull()) << "row " << Narrow(r.pattern);
        const wstringEx source(r.text);
        wstringEx dest(L"stale");
        const uint32_t copied = RegexReplaceCopy(source, dest, h, wstringEx(r.replacement), false, false, true);
        const std::string row = "row " + Narrow(r.pattern) + " " + r.method.name + " on " + Narrow(r.text);
        EXPECT_EQ(Show(dest), std::wstring(r.copied)) << row;
        EXPECT_EQ(copied, r.count) << row;
        EXPECT_EQ(Show(source), std::wstring(r.text)) << row;
        wstringEx text(r.text);
        const uint32_t inPlace = RegexReplaceInPlace(text, h, wstringEx(r.replacement), false, false, true);
        EXPECT_EQ(Show(text), std::wstring(r.inPlace ? r.inPlace : r.copied)) << "in place " << row;
        EXPECT_EQ(inPlace, r.inPlaceCount < 0 ? r.count : uint32_t(r.inPlaceCount)) << "in place " << row;
    }
}

TEST(RegexReplace, NullHandleAndUntouchedInputs)
{
    const RegexHandle none;
    const wstringEx source(L"abc");
    wstringEx dest(L"old");
    // A pattern that did not compile leaves the whole text as the result.
    EXPECT_EQ(RegexReplaceCopy(source, dest, none, wstringEx(L"x"), false, false, true), 0u);
    EXPECT_EQ(Show(dest), L"abc");
    wstringEx text(L"abc");
    EXPECT_EQ(RegexReplaceInPlace(text, none, wstringEx(L"x"), false, false, true), 0u);
    EXPECT_EQ(Show(text), L"abc");

    // Nothing matches: the destination is a whole copy. The caller's
    // replacement text is not rewritten by the escape pass.
    wstringEx pattern(L"z");
    const RegexHandle h = RegexCompile(pattern, 0, 1, 1, 1);
    const wstringEx replacement(L"\\t");
    EXPECT_EQ(RegexReplaceCopy(source, dest, h, replacement, false, false, true), 0u);
    EXPECT_EQ(Show(dest), L"abc");
    EXPECT_EQ(Show(replacement), L"\\t");
    // Without escape expansion "\t" is a backslash-escaped "t".
    wstringEx t(L"z");
    EXPECT_EQ(RegexReplaceInPlace(t, h, replacement, false, false, false), 1u);
    EXPECT_EQ(Show(t), L"t");
    // Empty text.
    EXPECT_EQ(RegexReplaceCopy(wstringEx(), dest, h, replacement, false, false, true), 0u);
    EXPECT_TRUE(dest.empty());
}

TEST(RegexReplace, FormsAgreeOnRandomTextsAndNarrowTwin)
{
    // Without anchors the two forms must give the same text and count, and
    // the narrow twin the same as the wide on ASCII.
    const wchar_t* patterns[] = {L"a+", L"(ab|b)c?", L"x*", L"[^a]b", L"(a)|(b)", L"\\w\\d"};
    const wchar_t* replacements[] = {L"", L"<\\0>", L"\\2\\1", L"-", L"\\1\\1\\1"};
    std::mt19937 random(12345);
    const char alphabet[] = "abcx1\n";
    for (int round = 0; round < 300; ++round) {
        std::string s;
        const int length = static_cast<int>(random() % 24);
        for (int i = 0; i < length; ++i)
            s += alphabet[random() % 6];
        const std::wstring ws(s.begin(), s.end());
        const wchar_t* p = patterns[round % 6];
        const wchar_t* r = replacements[round % 5];
        wstringEx wp(p);
        const RegexHandle h = RegexCompile(wp, 0, round % 2, 1, 1);
        ASSERT_FALSE(h.IsNull());
        wstringEx copied, inPlace(ws.c_str());
        const uint32_t n1 = RegexReplaceCopy(wstringEx(ws.c_str()), copied, h, wstringEx(r), false, false, true);
        const uint32_t n2 = RegexReplaceInPlace(inPlace, h, wstringEx(r), false, false, true);
        const std::string row = "pattern " + Narrow(p) + " replacement " + Narrow(r) + " text [" + s + "]";
        ASSERT_EQ(Show(copied), Show(inPlace)) << row;
        ASSERT_EQ(n1, n2) << row;

        stringEx np(Narrow(p).c_str());
        const RegexHandle nh = RegexCompile(np, 0, round % 2, 1, 1);
        stringEx narrow;
        const uint32_t n3 = RegexReplaceCopy(stringEx(s.c_str()), narrow, nh, stringEx(Narrow(r).c_str()), false,
                                             false, true);
        ASSERT_EQ(std::string(narrow.data(), narrow.size()), Narrow(Show(copied))) << "narrow " << row;
        ASSERT_EQ(n3, n1) << "narrow " << row;
    }
}

}  // namespace

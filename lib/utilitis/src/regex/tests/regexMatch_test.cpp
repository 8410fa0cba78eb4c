// Compiling and matching through the front end: flag words, null handles,
// the match loop's line-start decisions, the handle and the per-thread cache.
#include <karu/regex/regexFront.h>

#include <gtest/gtest.h>

#include "string/tests/wide_text.h"

#include <string>
#include <thread>
#include <vector>

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

RegexHandle Compile(const wchar_t* pattern, const Method& m)
{
    wstringEx p(pattern);
    return RegexCompile(p, m.ignoreCase, m.newlineSensitive, 1, 1);
}

TEST(RegexFront, CompileFlagsAndNullHandles)
{
    struct Row {
        const wchar_t* pattern;
        Method method;
        bool compiles;
        uint32_t flags;
    } rows[] = {
        {L"a", kR, true, 0xC1},
        {L"a", kRic, true, 0xC9},
        {L"a", kRnnl, true, 0x01},
        {L"a", kRnnlic, true, 0x09},
        {L"***:a", kR, true, 0x01},
        {L"***:a", kRic, true, 0x09},
        {L"***:(?n)a", kRnnl, true, 0xC1},
        {L"***=a(", kR, true, 0x01},
        {L"", kR, false, 0},
        {L"***", kR, false, 0},
        {L"***?a", kR, false, 0},
        {L"a\\", kR, false, 0},          // trailing backslash survives translation, engine refuses it
        {L"[[:dq:]]", kR, false, 0},     // no such class
        {L"(a", kR, false, 0},
        {L"a{2,1}", kR, false, 0},
        {L"\\1", kR, true, 0xC1},        // not a back-reference without the prefix
        {L"***:(a)\\2", kR, false, 0},   // back-reference to a missing group
    };
    for (const Row& r : rows) {
        const RegexHandle h = Compile(r.pattern, r.method);
        EXPECT_EQ(!h.IsNull(), r.compiles) << "row " << Narrow(r.pattern) << " " << r.method.name;
        EXPECT_EQ(h.CompileFlags(), r.flags) << "row " << Narrow(r.pattern) << " " << r.method.name;
        // A null handle answers no match everywhere.
        if (h.IsNull()) {
            RegexMatches m{{1, 1}};
            int64_t s = 7, e = 7;
            EXPECT_FALSE(RegexFind(wstringEx(L"aaa"), m, h, 0, 0, false, false, false));
            EXPECT_TRUE(m.empty());
            EXPECT_FALSE(RegexTest(wstringEx(L"aaa"), h, false, false));
            EXPECT_FALSE(RegexFirst(wstringEx(L"aaa"), h, s, e, false, false));
        }
    }
    // The pattern is rewritten in place by the translation; a prefixed one is not.
    wstringEx p(L"\\d+");
    EXPECT_FALSE(RegexCompile(p, 0, 1, 1, 1).IsNull());
    EXPECT_EQ(Show(p), std::wstring(L"[[:digit:]]+"));
    wstringEx q(L"***:\\d+");
    EXPECT_FALSE(RegexCompile(q, 0, 1, 1, 1).IsNull());
    EXPECT_EQ(Show(q), std::wstring(L"***:\\d+"));
}

TEST(RegexFront, HandleCountsShareAndRelease)
{
    RegexHandle a = Compile(L"a+", kR);
    ASSERT_FALSE(a.IsNull());
    EXPECT_EQ(a.UseCount(), 1u);
    {
        RegexHandle b = a;
        RegexHandle c;
        c = b;
        EXPECT_EQ(a.UseCount(), 3u);
        RegexHandle d = std::move(c);
        EXPECT_TRUE(c.IsNull());
        EXPECT_EQ(a.UseCount(), 3u);
        RegexHandle& alias = d;
        d = alias;
        EXPECT_EQ(a.UseCount(), 3u);
    }
    EXPECT_EQ(a.UseCount(), 1u);
    EXPECT_EQ(a.UnitSize(), 4);
    stringEx narrow("a+");
    const RegexHandle n = RegexCompile(narrow, 0, 1, 1, 1);
    EXPECT_EQ(n.UnitSize(), 1);
    // A handle of one width does not match text of the other.
    RegexMatches m;
    EXPECT_FALSE(RegexFind(wstringEx(L"aa"), m, n, 0, 0, false, false, false));
    EXPECT_TRUE(RegexFind(stringEx("aa"), m, n, 0, 0, false, false, false));
}

// A span list written as "offset:length offset:length ...", "" for no match.
std::string Spans(bool found, const RegexMatches& m)
{
    if (!found)
        return "";
    std::string s;
    for (const RegexSpan& g : m)
        s.append(s.empty() ? "" : " ").append(std::to_string(g.offset)).append(":").append(std::to_string(g.length));
    return s;
}

TEST(RegexFront, FindWalksOccurrencesAndLineStarts)
{
    struct Row {
        const wchar_t* pattern;
        Method method;
        const wchar_t* text;
        uint32_t occurrence;
        uint64_t start;
        bool notBol, usePriorChar;
        const char* spans;
    } rows[] = {
        // groups, one of which took no part (its offset lies before the attempt)
        {L"(a)(x)?(b)", kR, L"zab", 0, 0, false, false, "1:2 1:1 -1:0 2:1"},
        {L"a(x)?", kR, L"a", 0, 0, false, false, "0:1 -1:0"},
        // occurrences, and empty matches stepping one unit
        {L"\\d+", kR, L"a12b345", 1, 0, false, false, "4:3"},
        {L"\\d+", kR, L"a12b345", 2, 0, false, false, ""},
        {L"x*", kR, L"abc", 0, 0, false, false, "0:0"},
        {L"x*", kR, L"abc", 2, 0, false, false, "2:0"},
        {L"x*", kR, L"abc", 3, 0, false, false, ""},  // nothing at the very end
        {L"x*", kR, L"abc", 0, 3, false, false, ""},
        // "^" in line mode: after a newline yes, mid-line no
        {L"^b", kR, L"a\nb", 0, 2, false, true, "2:1"},
        {L"^b", kR, L"ab", 0, 1, false, true, ""},
        {L"^b", kR, L"ab", 0, 1, false, false, "1:1"},  // the caller's word for the first attempt
        {L"^b", kR, L"a\nb", 0, 2, true, false, ""},
        {L"^b", kRnnl, L"a\nb", 0, 2, false, true, ""},  // without line mode only the text's start
        {L"^.", kR, L"ab\ncd", 1, 0, false, false, "3:1"},
        {L"^.", kRnnl, L"ab\ncd", 1, 0, false, false, ""},
        // dot and newline
        {L"a.b", kR, L"a\nb", 0, 0, false, false, ""},
        {L"a.b", kRnnl, L"a\nb", 0, 0, false, false, "0:3"},
        {L"$", kR, L"ab\ncd", 0, 0, false, false, "2:0"},
        // case
        {L"ABC", kRic, L"xabc", 0, 0, false, false, "1:3"},
        {L"ABC", kR, L"xabc", 0, 0, false, false, ""},
        {L"\u00C9t\u00E9", kRnnlic, L"\u00E9T\u00C9", 0, 0, false, false, "0:3"},
        // advanced syntax
        {L"***:<.+?>", kR, L"<a><b>", 0, 0, false, false, "0:3"},
        {L"***:(\\w)\\1", kR, L"abccd", 0, 0, false, false, "2:2 2:1"},
        {L"***:a(?=b)", kR, L"acab", 0, 0, false, false, "2:1"},
        {L"***:\\d+", kR, L"x42", 0, 0, false, false, "1:2"},
        {L"***=a.", kR, L"abca.", 0, 0, false, false, "3:2"},
    };
    for (const Row& r : rows) {
        const RegexHandle h = Compile(r.pattern, r.method);
        ASSERT_FALSE(h.IsNull()) << "row " << Narrow(r.pattern);
        RegexMatches m;
        const bool found = RegexFind(wstringEx(r.text), m, h, r.occurrence, r.start, r.notBol, false, r.usePriorChar);
        EXPECT_EQ(Spans(found, m), r.spans) << "row " << Narrow(r.pattern) << " on " << Narrow(r.text) << " #"
                                            << r.occurrence << " from " << r.start;
    }
}

TEST(RegexFront, TestAndFirstLookAtTheWholeText)
{
    const RegexHandle h = Compile(L"^b+", kR);
    int64_t s = -5, e = -5;
    EXPECT_TRUE(RegexTest(wstringEx(L"a\nbb"), h, false, false));
    EXPECT_TRUE(RegexFirst(wstringEx(L"a\nbb"), h, s, e, false, false));
    EXPECT_EQ(s, 2);
    EXPECT_EQ(e, 4);
    EXPECT_FALSE(RegexTest(wstringEx(L"abb"), h, false, false));
    const RegexHandle start = Compile(L"^a", kRnnl);
    EXPECT_FALSE(RegexTest(wstringEx(L"ab"), start, true, false));
    EXPECT_TRUE(RegexTest(wstringEx(L"ab"), start, false, false));
}

TEST(RegexFront, CacheRecompilesOnlyOnChange)
{
    struct Row {
        const wchar_t* pattern;
        uint8_t ignoreCase, newlineSensitive, translate;
        const wchar_t* text;
        uint64_t start;
        const char* spans;
    } rows[] = {
        {L"\\d+", 0, 1, 1, L"ab12", 0, "2:2"},
        {L"\\d+", 0, 1, 1, L"ab12", 3, "3:1"},   // same pattern, other text
        {L"\\d+", 0, 1, 0, L"ab12", 0, ""},      // untranslated: \d is a literal d
        {L"\\d+", 0, 1, 0, L"add", 0, "1:2"},
        {L"AB", 1, 1, 1, L"xab", 0, "1:2"},      // flags change
        {L"AB", 0, 1, 1, L"xab", 0, ""},
        {L"(", 0, 1, 1, L"(", 0, ""},            // compile failure, then recovery
        {L"a", 0, 1, 1, L"ba", 0, "1:1"},
        {L"a", 0, 1, 1, L"ba", 2, ""},           // start at the end
        // the prefix's line rule: "***:" keeps the caller's newline bits at
        // compile time but turns off line starts in the loop
        {L"***:^b", 0, 1, 1, L"a\nb", 2, ""},
        {L"***:(?n)^b", 0, 1, 1, L"a\nb", 2, "2:1"},
        {L"^b", 0, 1, 1, L"a\nb", 2, "2:1"},
    };
    for (const Row& r : rows) {
        RegexMatches m;
        const bool found = RegexFindCached(wstringEx(r.text), m, wstringEx(r.pattern), 0, r.start, r.ignoreCase,
                                           r.newlineSensitive, 1, false, false, r.translate, true);
        EXPECT_EQ(Spans(found, m), r.spans) << "row " << Narrow(r.pattern) << " on " << Narrow(r.text);
    }
    // The narrow cache is a separate slot.
    RegexMatches m;
    EXPECT_TRUE(RegexFindCached(stringEx("x7"), m, stringEx("\\d"), 0, 0, 0, 1, 1, false, false, 1, false));
    EXPECT_EQ(Spans(true, m), "1:1");
    EXPECT_FALSE(RegexFindCached(wstringEx(L"x7"), m, wstringEx(), 0, 0, 0, 1, 1, false, false, 1, false));
    RegexCacheRelease<char>();
    RegexCacheRelease<char>();
}

TEST(RegexFrontConcurrency, OneHandleAndOneCachePerThread)
{
    const RegexHandle shared = Compile(L"(\\w+)@(\\w+)", kR);
    ASSERT_FALSE(shared.IsNull());
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            const wstringEx text(L"mail me: joe@example now");
            const wstringEx own = t % 2 ? wstringEx(L"e\\w") : wstringEx(L"\\d");
            for (int i = 0; i < 200; ++i) {
                RegexHandle copy = shared;
                RegexMatches m;
                if (!RegexFind(text, m, copy, 0, 0, false, false, false) || m.size() != 3 || m[2].offset != 13)
                    ++failures[t];
                const bool cached = RegexFindCached(text, m, own, 0, 0, 0, 1, 1, false, false, 1, false);
                if (cached != (t % 2 == 1))
                    ++failures[t];
            }
            RegexCacheRelease<wchar_t>();
        });
    }
    for (auto& th : threads)
        th.join();
    for (int t = 0; t < 4; ++t)
        EXPECT_EQ(failures[t], 0) << "thread " << t;
    EXPECT_EQ(shared.UseCount(), 1u);
}

}  // namespace

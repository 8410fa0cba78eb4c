// The literal-prefix search: a pattern whose matches all begin with a literal
// (or a run of small classes, such as both cases of a letter)
// starts its search at the literal's first occurrence, and a pattern that is
// only a literal is matched without an automaton. Each row is checked
// against the expected outcome and against the same pattern compiled to
// report details, which runs the automata from the start of the subject.
#include "regex/internals.h"
#include "rx_test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using namespace Karu;

namespace {

template <class Ch>
std::string runBoth(int flags, const std::basic_string<Ch>& pattern, const std::basic_string<Ch>& subject,
                    int runFlags, std::string* withDetails)
{
    std::string out[2];
    for (int pass = 0; pass < 2; ++pass) {
        RxObject o{};
        const int c = rxcomp(&o, pattern.data(), pattern.size(), flags | (pass ? RX_WANTDETAILS : 0));
        if (c != RX_OK) return "compile " + std::to_string(c);
        std::vector<RxMatch> m(o.groupCount + 1);
        RxDetails details{};
        const int r = rxexec(&o, subject.data(), subject.size(), &details, m.size(), m.data(), runFlags);
        out[pass] = std::to_string(r);
        if (r == RX_OK)
            for (const RxMatch& g : m) out[pass] += " " + std::to_string(g.start) + "," + std::to_string(g.end);
        rxfree(&o);
    }
    *withDetails = out[1];
    return out[0];
}

TEST(RegexPrefix, SearchStartsAtTheLiteral)
{
    struct Row {
        int flags;
        const char* pattern;
        const char* subject;
        int runFlags;
        const char* expected;
    };
    const Row rows[] = {
        // A whole literal, found by the string search alone.
        {RX_SYNTAX_EXT, "bookkeeper", "the bookkeeper", 0, "0 4,14"},
        {RX_SYNTAX_EXT, "bookkeeper", "bookkeepe", 0, "1"},
        {RX_SYNTAX_EXT, "bookkeeper", "a bookkeepe", 0, "1"},
        {RX_SYNTAX_EXT, "bookkeeper", "bookkeepbookkeeper", 0, "0 8,18"},
        {RX_LITERAL, "a.b", "aab a.b", 0, "0 4,7"},
        {RX_SYNTAX_EXT, "ab", "", 0, "1"},
        {RX_SYNTAX_EXT, "x", "x", 0, "0 0,1"},
        // Groups still go through the automata, from the literal on.
        {RX_SYNTAX_EXT, "(book)keeper", "a bookkeeper", 0, "0 2,12 2,6"},
        {RX_SYNTAX_EXT, "book(k|x)+", "book bookkx", 0, "0 5,11 10,11"},
        // A prefix with more after it: the automata finish the match.
        {RX_SYNTAX_EXT, "ab+c", "abab abbbc", 0, "0 5,10"},
        {RX_SYNTAX_EXT, "ab+c", "abbb", 0, "1"},
        {RX_SYNTAX_ADV, "ab(?=c)", "abd abc", 0, "0 4,6"},
        // Constraints on either side: the literal is not the whole match rule.
        {RX_SYNTAX_EXT, "^ab", "xab", 0, "1"},
        {RX_SYNTAX_EXT, "^ab", "abx", RX_NOLINESTART, "1"},
        {RX_SYNTAX_EXT, "ab$", "ab ab", 0, "0 3,5"},
        {RX_SYNTAX_EXT, "ab$", "ab", RX_NOLINEEND, "1"},
        {RX_SYNTAX_EXT | RX_LINEANCHORS, "^ab$", "xab\nab\n", 0, "0 4,6"},
        {RX_SYNTAX_ADV, "\\yab\\y", "cab ab", 0, "0 4,6"},
        {RX_SYNTAX_ADV, "\\Yab", "ab cab", 0, "0 4,6"},
        // Case folding gives colours of two characters: both cases are found.
        {RX_SYNTAX_EXT | RX_FOLDCASE, "keeper", "KeEpEr", 0, "0 0,6"},
        {RX_SYNTAX_EXT | RX_FOLDCASE, "keeper", "kEEPE keepeR", 0, "0 6,12"},
        {RX_SYNTAX_EXT | RX_FOLDCASE, "keeper", "xKEEPE", 0, "1"},
        {RX_SYNTAX_EXT | RX_FOLDCASE, "(k)eep", "a KEEP", 0, "0 2,6 2,3"},
        {RX_SYNTAX_EXT, "a[bc]d", "abc acd", 0, "0 4,7"},
        {RX_SYNTAX_EXT, "x[a-z]", "x1 xy", 0, "0 3,5"},
        // Not a prefix: an alternation or a class first.
        {RX_SYNTAX_EXT, "ab|ac", "xxac", 0, "0 2,4"},
        {RX_SYNTAX_EXT, "[ab]c", "xbc", 0, "0 1,3"},
        {RX_SYNTAX_EXT, "a*b", "caab", 0, "0 1,4"},
        // Back-references search from the literal too.
        {RX_SYNTAX_ADV, "x(a|b)\\1", "xab xbb", 0, "0 4,7 5,6"},
        {RX_SYNTAX_ADV, "x(a|b)\\1", "xab xa", 0, "1"},
    };
    for (const Row& r : rows) {
        std::string detailed;
        const std::string got = runBoth<char>(r.flags, r.pattern, r.subject, r.runFlags, &detailed);
        EXPECT_EQ(got, r.expected) << r.pattern << " on \"" << r.subject << "\"";
        EXPECT_EQ(got, detailed) << r.pattern << " on \"" << r.subject << "\", compared with a full search";
        const std::string wide =
            runBoth<wchar_t>(r.flags, rxtest::widen<wchar_t>(r.pattern), rxtest::widen<wchar_t>(r.subject),
                             r.runFlags, &detailed);
        EXPECT_EQ(wide, r.expected) << r.pattern << " on \"" << r.subject << "\" (wide)";
        EXPECT_EQ(wide, detailed) << r.pattern << " on \"" << r.subject << "\" (wide), compared with a full search";
    }
}

// The wide colour map reads a unit by its low 16 bits; the literal search
// must read it the same way, or the two routes would disagree.
TEST(RegexPrefix, WideUnitsBeyondTheBasicPlane)
{
    struct Row {
        std::wstring pattern;
        std::wstring subject;
    };
    const Row rows[] = {
        {L"ab", std::wstring(L"x") + static_cast<wchar_t>(0x10061) + L"b"},
        {L"ab", std::wstring(L"a") + static_cast<wchar_t>(0x20062) + L" ab"},
        {L"a(b)", std::wstring(L"a") + static_cast<wchar_t>(0x20062)},
        {L"[aA]b", std::wstring(L"x") + static_cast<wchar_t>(0x10041) + L"b"},
    };
    for (const Row& r : rows) {
        std::string detailed;
        const std::string got = runBoth<wchar_t>(RX_SYNTAX_EXT, r.pattern, r.subject, 0, &detailed);
        EXPECT_EQ(got, detailed) << "row " << (&r - rows);
    }
}

// What the analysis finds, for the patterns where it decides the route.
TEST(RegexPrefix, Analysis)
{
    struct Row {
        int flags;
        const char* pattern;
        const char* prefix;  // its leading colours of one character each
        size_t colours;
        bool whole;
    };
    const Row rows[] = {
        {RX_SYNTAX_EXT, "bookkeeper", "bookkeeper", 10, true},
        {RX_SYNTAX_EXT, "book(keeper)", "bookkeeper", 10, true},
        {RX_SYNTAX_EXT, "ab+c", "ab", 2, false},
        {RX_SYNTAX_EXT, "^ab", "ab", 2, false},
        {RX_SYNTAX_EXT, "ab$", "ab", 2, false},
        {RX_SYNTAX_EXT | RX_FOLDCASE, "ab", "", 2, true},
        {RX_SYNTAX_EXT, "a[bc]d", "a", 3, true},
        {RX_SYNTAX_EXT, "order-[0-9]+", "order-", 7, false},
        {RX_SYNTAX_EXT, "[a-z]x", "", 0, false},
        {RX_SYNTAX_EXT, "a|b", "", 0, false},
        {RX_SYNTAX_EXT, "", "", 0, false},
    };
    for (const Row& r : rows) {
        RxObject o{};
        ASSERT_EQ(rxcomp(&o, r.pattern, std::strlen(r.pattern), r.flags), RX_OK) << r.pattern;
        const auto& in = *static_cast<const IMPL::rx::Internals*>(o.internals);
        EXPECT_EQ(in.prefixBytes, r.prefix) << r.pattern;
        EXPECT_EQ(in.prefix.size(), r.colours) << r.pattern;
        EXPECT_EQ(in.prefixIsWhole, r.whole) << r.pattern;
        rxfree(&o);
    }
}

}  // namespace

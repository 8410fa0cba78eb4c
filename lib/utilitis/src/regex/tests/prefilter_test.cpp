// The literal-prefix search: a pattern whose matches all begin with a literal
// (or a run of small classes, such as both cases of a letter)
// starts its search at the literal's first occurrence, and a pattern that is
// only a literal is matched without an automaton. Each row is checked
// against the expected outcome and against the same pattern compiled to
// report details, which runs the automata from the start of the subject.
#include "regex/internals.h"
#include "karu/string/unicode.h"
#include "rx_test_support.h"

#include <gtest/gtest.h>

#include <random>
#include <regex.h>

#include <algorithm>
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
            for (const RxMatch& g : m)
                out[pass].append(" ").append(std::to_string(g.start)).append(",").append(std::to_string(g.end));
        rxfree(&o);
    }
    *withDetails = out[1];
    return out[0];
}

TEST(RegexPrefilter, SearchStartsAtTheLiteral)
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
TEST(RegexPrefilter, WideUnitsBeyondTheBasicPlane)
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

// What the analysis finds, for the patterns where it decides the route: the
// needles (as text, a class shown by its first character), whether a back
// set stands in front of them, and whether the needle is the whole match.
TEST(RegexPrefilter, Analysis)
{
    struct Row {
        int flags;
        const char* pattern;
        const char* needles;  // space-separated; empty: no prefilter
        bool back;
        bool whole;
    };
    const Row rows[] = {
        {RX_SYNTAX_EXT, "bookkeeper", "bookkeeper", false, true},
        {RX_SYNTAX_EXT, "book(keeper)", "bookkeeper", false, true},
        {RX_SYNTAX_EXT, "ab+c", "abbbbbbb abbbbbbc abbbbbc abbbbc abbbc abbc abc", false, false},
        {RX_SYNTAX_EXT, "^ab", "ab", false, false},
        {RX_SYNTAX_EXT, "ab$", "ab", false, false},
        {RX_SYNTAX_EXT | RX_FOLDCASE, "ab", "AB", false, true},
        {RX_SYNTAX_EXT, "order-[0-9]+", "order-0", false, false},
        {RX_SYNTAX_EXT, "alpha|bravo|charlie", "charlie alpha bravo", false, false},
        {RX_SYNTAX_EXT, "[a-z]x", "ax xx", false, false},
        // A needle inside the match, with what may stand in front of it.
        {RX_SYNTAX_EXT, "[a-z]+ing", "ing", true, false},
        {RX_SYNTAX_ADV, "(\\w+)@(\\w+)\\.com", ".com", true, false},
        {RX_SYNTAX_EXT, "([a-z]+)_([a-z]+)\\(", "(", true, false},
        // Nothing rare enough, or nothing every match holds.
        {RX_SYNTAX_EXT, "[a-z]+", "", false, false},
        {RX_SYNTAX_EXT, "([[:alnum:]_]+)", "", false, false},
        {RX_SYNTAX_EXT, "a*", "", false, false},
        {RX_SYNTAX_EXT, "e", "e", false, true},
    };
    for (const Row& r : rows) {
        RxObject o{};
        ASSERT_EQ(rxcomp(&o, r.pattern, std::strlen(r.pattern), r.flags), RX_OK) << r.pattern;
        const auto& in = *static_cast<const IMPL::rx::Internals*>(o.internals);
        // A needle shown by the first character of each colour.
        std::vector<std::string> shown;
        for (const auto& needle : in.prefilter.needles) {
            std::string text;
            for (const IMPL::rx::colour c : needle)
                for (int b = 0; b < 256; ++b)
                    if (in.colourMap.colourOf(static_cast<uint32_t>(b)) == c) {
                        text += static_cast<char>(b);
                        break;
                    }
            shown.push_back(text);
        }
        std::sort(shown.begin(), shown.end(), [](const std::string& a, const std::string& b) {
            return a.size() != b.size() ? a.size() > b.size() : a < b;
        });
        std::string joined;
        for (const std::string& n : shown) joined += (joined.empty() ? "" : " ") + n;
        EXPECT_EQ(joined, r.needles) << r.pattern;
        EXPECT_EQ(!in.prefilter.back.empty(), r.back) << r.pattern;
        EXPECT_EQ(in.prefilter.whole, r.whole) << r.pattern;
        rxfree(&o);
    }
}

// Every match in turn, as a replace loop walks them: each as "start,end"
// with its groups, the next call starting at its end (one further after an
// empty match) and told that it is not at a line start.
template <class Ch>
std::string walk(const RxObject& o, const std::basic_string<Ch>& subject)
{
    std::string out;
    std::vector<RxMatch> m(o.groupCount + 1);
    for (size_t pos = 0; pos <= subject.size();) {
        RxDetails details{};
        const int r = rxexec(&o, subject.data() + pos, subject.size() - pos, &details, m.size(), m.data(),
                             pos ? RX_NOLINESTART : 0);
        if (r != RX_OK) {
            out += "| " + std::to_string(r);
            break;
        }
        out += "|";
        for (const RxMatch& g : m)
            out.append(" ")
                .append(std::to_string(g.start < 0 ? -1 : g.start + static_cast<long>(pos)))
                .append(",")
                .append(std::to_string(g.end < 0 ? -1 : g.end + static_cast<long>(pos)));
        pos += static_cast<size_t>(m[0].end > 0 ? m[0].end : 1);
    }
    return out;
}

// The same walk by the C library, group 0 only.
std::string walkTheirs(const regex_t& re, const std::string& subject)
{
    std::string out;
    for (size_t pos = 0; pos <= subject.size();) {
        regmatch_t m[1];
        m[0].rm_so = 0;
        m[0].rm_eo = static_cast<regoff_t>(subject.size() - pos);
        if (regexec(&re, subject.c_str() + pos, 1, m, REG_STARTEND | (pos ? REG_NOTBOL : 0)) != 0) {
            out += "| 1";
            break;
        }
        out += "| " + std::to_string(m[0].rm_so + static_cast<long>(pos)) + "," +
               std::to_string(m[0].rm_eo + static_cast<long>(pos));
        pos += static_cast<size_t>(m[0].rm_eo > 0 ? m[0].rm_eo : 1);
    }
    return out;
}

// Just group 0 of a walk, to compare with the C library.
std::string wholeMatches(const std::string& walked)
{
    std::string out;
    for (size_t at = 0; at < walked.size();) {
        const size_t bar = walked.find('|', at + 1);
        const std::string item = walked.substr(at, bar == std::string::npos ? std::string::npos : bar - at);
        const size_t second = item.find(' ', 2);
        out += second == std::string::npos ? item : item.substr(0, second);
        at = bar == std::string::npos ? walked.size() : bar;
    }
    return out;
}

// Patterns built to have needles (literals, words in alternation, a literal
// behind a class), over long subjects that hold them: the prefilter's
// search, its jumps from idle sets and its walk back over the back set meet
// blocks, block edges and the ends of the subject. Each walk must agree with
// the same pattern compiled to report details, which runs the automata from
// the start of each call without any prefilter, in both builds; extended
// patterns must also agree with the C library.
TEST(RegexPrefilter, RandomPatternsAgreeWithTheFullSearch)
{
    std::mt19937 rng(20261129);
    auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
    const char* const words[] = {"ab", "cab", "x_y", "q", "zz", "\\.co", "ing", "abcabcabcabcabcabcab"};
    const char* const classes[] = {"[a-z]+", "[a-c]*", "[^ ]+", "[[:alpha:]]+", ".?", "(x|y)", "[_a-z]+", "b*", ".", "[^_]"};
    const char* const subjectPieces[] = {"a", "b", "c", "x", "y", "z", "q", "_", ".", " ", "\n", "A", "B",
                                         "ab", "cab", "x_y", "zz", ".co", "ing", "abcabcabcabcabcabcab"};
    int withPrefilter = 0, withBack = 0;
    for (int round = 0; round < 1500; ++round) {
        std::string pattern;
        const size_t pieces = 1 + pick(3);
        for (size_t i = 0; i < pieces; ++i) {
            switch (pick(4)) {
            case 0: pattern += classes[pick(std::size(classes))]; break;
            case 1: {
                std::string alt = "(";
                for (size_t k = 1 + pick(4); k > 0; --k) alt += std::string(words[pick(std::size(words))]) + "|";
                alt.back() = ')';
                pattern += alt;
                break;
            }
            default: pattern += words[pick(std::size(words))]; break;
            }
        }
        if (pick(10) == 0) pattern = "^" + pattern;
        if (pick(10) == 0) pattern += "$";
        const int flags = RX_SYNTAX_EXT | (pick(4) == 0 ? RX_FOLDCASE : 0) |
                          (pick(3) == 0 ? RX_DOTNONL | RX_LINEANCHORS : 0);
        std::string subject;
        for (size_t n = pick(300); subject.size() < n;) subject += subjectPieces[pick(std::size(subjectPieces))];

        RxObject fast{}, full{};
        ASSERT_EQ(rxcomp(&fast, pattern.data(), pattern.size(), flags), RX_OK) << pattern;
        ASSERT_EQ(rxcomp(&full, pattern.data(), pattern.size(), flags | RX_WANTDETAILS), RX_OK) << pattern;
        const auto& in = *static_cast<const IMPL::rx::Internals*>(fast.internals);
        withPrefilter += !in.prefilter.needles.empty();
        withBack += !in.prefilter.back.empty();
        const std::string where = "pattern \"" + pattern + "\" flags " + std::to_string(flags) + " subject \"" +
                                  subject + "\"";
        const std::string ours = walk<char>(fast, subject);
        ASSERT_EQ(ours, walk<char>(full, subject)) << where;

        regex_t theirs;
        const int cflags = REG_EXTENDED | ((flags & RX_FOLDCASE) ? REG_ICASE : 0) |
                           ((flags & RX_LINEANCHORS) ? REG_NEWLINE : 0);
        if (regcomp(&theirs, pattern.c_str(), cflags) == 0) {
            EXPECT_EQ(wholeMatches(ours), walkTheirs(theirs, subject)) << where << ", against the C library";
            regfree(&theirs);
        }
        rxfree(&fast);
        rxfree(&full);

        // The wide build, with units beyond the basic plane that read as
        // letters of the pattern, and a carried byte.
        std::wstring wideSubject = rxtest::widen<wchar_t>(subject);
        for (wchar_t& c : wideSubject)
            if (pick(8) == 0) c = pick(2) ? static_cast<wchar_t>(0x10000 + c) : Karu::EscapeUnit(0x80);
        const std::wstring widePattern = rxtest::widen<wchar_t>(pattern);
        ASSERT_EQ(rxcomp(&fast, widePattern.data(), widePattern.size(), flags), RX_OK) << pattern;
        ASSERT_EQ(rxcomp(&full, widePattern.data(), widePattern.size(), flags | RX_WANTDETAILS), RX_OK) << pattern;
        ASSERT_EQ(walk<wchar_t>(fast, wideSubject), walk<wchar_t>(full, wideSubject)) << where << " (wide)";
        rxfree(&fast);
        rxfree(&full);
    }
    EXPECT_GT(withPrefilter, 600) << "too few patterns had a prefilter to test it";
    EXPECT_GT(withBack, 100) << "too few patterns had a back set";
}

}  // namespace

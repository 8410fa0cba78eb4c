// The engine's behaviour as a table: flags, pattern, subject, the expected
// result and the expected match and group offsets. Rows run on both builds
// unless marked otherwise, and every matching row runs again with the small
// matcher cache, which must not change any answer.
#include "rx_test_support.h"

#include <gtest/gtest.h>

#include <cstring>

#include <karu/string/unicode.h>

using namespace Karu;

namespace {

constexpr int B = RX_SYNTAX_BASIC;
constexpr int E = RX_SYNTAX_EXT;
constexpr int A = RX_SYNTAX_ADV;
constexpr int I = RX_FOLDCASE;
constexpr int NL = RX_DOTNONL | RX_LINEANCHORS;

enum Builds { kBoth, kNarrowOnly, kWideOnly };

struct Row {
    int flags;
    const char* pattern;
    const char* subject;
    int code;            // compile error, else exec result
    const char* expect;  // offsets of group 0 and each group when matched
    int execFlags = 0;
    Builds builds = kBoth;
};

// clang-format off
const Row kRows[] = {
    // Plain search finds the leftmost match, even when it is empty.
    {E, "abc", "xxabcx", RX_OK, "2,5"},
    {E, "a*b", "xaaab", RX_OK, "1,5"},
    {E, "a*", "baaa", RX_OK, "0,0"},
    {E, "", "abc", RX_OK, "0,0"},
    {E, "()", "", RX_OK, "0,0 0,0"},
    {E, "x*", "", RX_OK, "0,0"},
    {E, "a?", "b", RX_OK, "0,0"},
    {E, "abc", "abd", RX_NOMATCH, ""},

    // POSIX: longest overall, then earlier groups take as much as they can.
    {E, "(a*)(a*)", "aaa", RX_OK, "0,3 0,3 3,3"},
    {E, "(a|ab)(c|bcd)", "abcd", RX_OK, "0,4 0,1 1,4"},
    {E, "(a|ab)(c|bcd)(d*)", "abcd", RX_OK, "0,4 0,2 2,3 3,4"},
    {E, "(wee|week)(knights|night)", "weeknights", RX_OK, "0,10 0,3 3,10"},
    {E, "a|ab|abc", "abcd", RX_OK, "0,3"},
    {E, "(.*)c(.*)", "abcde", RX_OK, "0,5 0,2 3,5"},
    {E, "(a)|b", "b", RX_OK, "0,1 -1,-1"},
    // A right side too large for an automaton of its own answers whether it
    // spans the rest from its parts: here the longest left side leaves a
    // rest its first group can end in but its second part can't take.
    {E, "(.*)(x?)yc{0,80}", "xy", RX_OK, "0,2 0,1 1,1"},
    {A, "(.*)(x?)yc{0,80}\\1", "xyx", RX_OK, "0,3 0,1 1,1"},
    {E, "((a)(b(c)))", "abc", RX_OK, "0,3 0,3 0,1 1,3 2,3"},
    {E, "(a(b)?)+", "aba", RX_OK, "0,3 2,3 -1,-1"},
    {E, "(ab){2}", "ababab", RX_OK, "0,4 2,4"},
    {E, "(a*)+", "b", RX_OK, "0,0 0,0"},

    // Non-greedy quantifiers, and a whole pattern that prefers the shortest.
    {A, "a+?", "aaa", RX_OK, "0,1"},
    {A, "a{2,4}?", "aaaaa", RX_OK, "0,2"},
    {A, "a.*?b", "axbyb", RX_OK, "0,3"},
    {A, "(a*?)(a*)", "aaa", RX_OK, "0,0 0,0 0,0"},
    {A, "(a+?)(a*)", "aaa", RX_OK, "0,1 0,1 1,1"},
    {A, "a??b", "ab", RX_OK, "0,2"},

    // Back-references, with alternation, bounds and case folding.
    {A, "(a)\\1", "aa", RX_OK, "0,2 0,1"},
    {A, "(a)\\1", "ab", RX_NOMATCH, ""},
    {A, "(.)\\1", "abb", RX_OK, "1,3 1,2"},
    {A, "()\\1", "", RX_OK, "0,0 0,0"},
    {A, "(a|b)\\1", "abba", RX_OK, "1,3 1,2"},
    {A, "(a|bc)\\1x", "abcbcx", RX_OK, "1,6 1,3"},
    {A, "(a*)b\\1", "aaba", RX_OK, "1,4 1,2"},
    {A, "(a*)b\\1", "aabaa", RX_OK, "0,5 0,2"},
    {A, "(a)\\1{2}", "aaa", RX_OK, "0,3 0,1"},
    {A, "(a)\\1{2}", "aa", RX_NOMATCH, ""},
    // A reference is compared with its group, then its automaton checks the
    // constraints it copies in the new place; candidates narrow down.
    {A, "(\\ya)\\1", "a aa", RX_NOMATCH, ""},
    {A, "(\\w+)\\s+\\1\\y", "ab ab", RX_OK, "0,5 0,2"},
    {A, "(a+)(a*)\\2x", "aaaaax", RX_OK, "0,6 0,5 5,5"},
    {A, "(a*)(a*)\\1\\2b", "aaaab", RX_OK, "0,5 0,2 2,2"},
    {A, "((a)|b)\\2*c", "bbc", RX_OK, "1,3 1,2 -1,-1"},
    {A, "(a|ab)(bc|c)\\2", "abcbc", RX_OK, "0,5 0,1 1,3"},
    {A | I, "(a)\\1", "aA", RX_OK, "0,2 0,1"},
    {A, "(a)\\1", "aA", RX_NOMATCH, ""},
    {B, "\\(a\\)\\1", "xaa", RX_OK, "1,3 1,2"},
    // A back-reference under a quantifier with minimum 0 takes copies of its
    // group's text or nothing, never other text the group could match;
    // greedy takes as many copies as fit, non-greedy as few as let the rest
    // match; a group that took no part makes the reference take nothing.
    {A, "(.)\\1*", "ab", RX_OK, "0,1 0,1"},
    {A, "(.)\\1*", "aab", RX_OK, "0,2 0,1"},
    {A, "(.)\\1{0,}", "aaab", RX_OK, "0,3 0,1"},
    {A, "(.)\\1?", "aab", RX_OK, "0,2 0,1"},
    {A, "(.)\\1{0,2}", "aaaa", RX_OK, "0,3 0,1"},
    {A, "(.)\\1*?", "aab", RX_OK, "0,1 0,1"},
    {A, "(.)\\1??", "aa", RX_OK, "0,1 0,1"},
    {A, "(.)\\1{0,}?b", "aab", RX_OK, "0,3 0,1"},
    {A, "(.)\\1*x", "abx", RX_OK, "1,3 1,2"},
    {A, "(x(b)*c)\\2*", "xcbb", RX_OK, "0,2 0,2 -1,-1"},
    {A, "(a)|b\\1*", "b", RX_OK, "0,1 -1,-1"},
    // The same inside groups: every iteration is checked, each with the
    // atom's groups unset at its start, and the last reports the captures.
    {A, "(.)(\\1)*", "aab", RX_OK, "0,2 0,1 1,2"},
    {A, "(.)(?:\\1)*", "aaab", RX_OK, "0,3 0,1"},
    {A, "(.)(x\\1)*", "axbxa", RX_OK, "0,1 0,1 -1,-1"},
    {A, "(.)(x\\1)*", "axaxa", RX_OK, "0,5 0,1 3,5"},
    {A, "(.)(x\\1)*?", "axaxa", RX_OK, "0,1 0,1 -1,-1"},
    {A, "((.)\\2)*", "aabbcd", RX_OK, "0,4 2,4 2,3"},
    {A, "((.)\\2)+?", "aabb", RX_OK, "0,2 0,2 0,1"},
    {A, "((.)\\2){0,2}", "aabbcc", RX_OK, "0,4 2,4 2,3"},
    {A, "(.)(\\1{0,2}?b)+", "aabaaab", RX_OK, "0,3 0,1 1,3"},
    // With back-references, a search that fails at an empty candidate goes
    // on from the next position.
    {A, "(()bb)*?\\2", "aabbbc", RX_OK, "2,4 2,4 2,2"},
    {A, "\\1(a)", "", RX_ERR_BACKREF, ""},
    {A, "(a|\\1b)", "", RX_ERR_BACKREF, ""},
    {A, "a(?=(b))\\1", "", RX_ERR_BACKREF, ""},
    {A, "((a)){0}\\2", "", RX_ERR_BACKREF, ""},

    // Anchors, and the newline-sensitive flags.
    {E, "^a", "ba", RX_NOMATCH, ""},
    {E, "^a", "ab", RX_OK, "0,1"},
    {E, "^a", "ab", RX_NOMATCH, "", RX_NOLINESTART},
    {E, "a$", "ba", RX_OK, "1,2"},
    {E, "a$", "ba", RX_NOMATCH, "", RX_NOLINEEND},
    {E, "^b", "a\nb", RX_NOMATCH, ""},
    {E | NL, "^b", "a\nb", RX_OK, "2,3"},
    {E | NL, "^b", "a\nb", RX_OK, "2,3", RX_NOLINESTART},
    {E | NL, "a$", "a\nb", RX_OK, "0,1"},
    {E, "a$", "a\nb", RX_NOMATCH, ""},
    {E, "a.b", "a\nb", RX_OK, "0,3"},
    {E | RX_DOTNONL, "a.b", "a\nb", RX_NOMATCH, ""},
    {E | RX_DOTNONL, "a[^x]b", "a\nb", RX_NOMATCH, ""},
    {E | RX_DOTNONL, "a[^x]b", "a\tb", RX_OK, "0,3"},
    {A | NL, "\\Aa", "b\na", RX_NOMATCH, ""},
    {A | NL, "a\\Z", "a\nb", RX_NOMATCH, ""},
    {A | NL, "a\\Z", "b\na", RX_OK, "2,3", RX_NOLINEEND},
    {E, "a^b", "a^b", RX_NOMATCH, ""},
    {E, "x|^a", "ba", RX_NOMATCH, ""},
    {E | RX_ANCHORSTART, "b", "ab", RX_NOMATCH, ""},

    // Anchors inside loops: an iteration that consumes nothing tests its
    // position again, which changes nothing; such patterns compile.
    {A, "($)*^a", "a", RX_OK, "0,1 -1,-1"},
    {A, "(^$)*", "", RX_OK, "0,0 0,0"},
    {A, "(^$)*", "a", RX_OK, "0,0 -1,-1"},
    {A, "(^|$)*a", "a", RX_OK, "0,1 0,0"},
    {A, "(a|^)*b", "aab", RX_OK, "0,3 1,2"},
    {A, "(^a)+", "aa", RX_OK, "0,1 0,1"},
    {A, "x($)*", "x", RX_OK, "0,1 1,1"},
    {A, "(a^)*b", "b", RX_OK, "0,1 -1,-1"},
    {A, "((^)*a)*", "aa", RX_OK, "0,2 1,2 -1,-1"},
    {A | NL, "(^a\n?)*", "a\na\nb", RX_OK, "0,4 2,4"},
    {A | NL, "(?:$\n|b)+c", "b\nc", RX_OK, "0,3"},
    {A, "(?:\\y|b){16}x", "bx", RX_OK, "0,2"},
    {A, "(?:$|b){16}^", "", RX_OK, "0,0"},
    {E | RX_ANCHORSTART, "b", "ba", RX_OK, "0,1"},

    // Bounds at their limits.
    {E, "a{256}", "", RX_ERR_BOUND, ""},
    {E, "a{3,2}", "", RX_ERR_BOUND, ""},
    {E, "a{2", "", RX_ERR_BRACE, ""},
    {E, "a{2x}", "", RX_ERR_BOUND, ""},
    {E, "a{,3}", "a{,3}", RX_OK, "0,5"},
    {E, "a{2,}", "aaaa", RX_OK, "0,4"},
    {E, "a{2,3}", "aaaa", RX_OK, "0,3"},
    {E, "a{2}", "aaa", RX_OK, "0,2"},
    {E, "a{0}b", "ab", RX_OK, "1,2"},
    {E, "(a){0}b", "ab", RX_OK, "1,2 -1,-1"},
    {E, "x{2,3}?", "", RX_ERR_REPEAT, ""},
    {B, "a\\{2\\}", "aaa", RX_OK, "0,2"},
    {B, "a\\{1", "", RX_ERR_BRACE, ""},

    // Case-insensitive characters, ranges and classes.
    {E | I, "abc", "xABCx", RX_OK, "1,4"},
    {E | I, "[a-c]+", "xAbCx", RX_OK, "1,4"},
    {E | I, "[[:lower:]]+", "aBc1", RX_OK, "0,3"},
    {E | I, "[^a]", "A", RX_NOMATCH, ""},
    {E | I, "x[[=b=]]", "XB", RX_OK, "0,2"},

    // Brackets, classes, collating elements.
    {E, "[[:digit:]]+", "ab123c", RX_OK, "2,5"},
    {E, "[[:alpha:]]+", "12ab3", RX_OK, "2,4"},
    {E, "[[:space:][:punct:]]+", "a ,.b", RX_OK, "1,4", 0, kNarrowOnly},
    {E, "[[:foo:]]", "", RX_ERR_CLASS, ""},
    {E, "[[:ascii:]]", "", RX_ERR_CLASS, "", 0, kNarrowOnly},
    {E, "[[:ascii:]]", "a", RX_OK, "0,1", 0, kWideOnly},
    {E, "[[:print:]]", " ", RX_OK, "0,1", 0, kNarrowOnly},
    {E, "[[:print:]]", " ", RX_NOMATCH, "", 0, kWideOnly},
    {E, "[[.space.]]", "a b", RX_OK, "1,2"},
    {E, "[[.hyphen.]a]+", "x-a-", RX_OK, "1,4"},
    {E, "[[.foo.]]", "", RX_ERR_COLLATE, ""},
    {E, "[[=a=]]", "ba", RX_OK, "1,2"},
    {E | RX_SELFTEST, "[[=x=]]", "y", RX_OK, "0,1"},
    {E, "[[:alpha:]", "", RX_ERR_BRACKET, ""},
    {E, "[a", "", RX_ERR_BRACKET, ""},
    {E, "[]a]", "]", RX_OK, "0,1"},
    {E, "[^]a]", "]ab", RX_OK, "2,3"},
    {E, "[a-]", "-", RX_OK, "0,1"},
    {E, "[z-a]", "", RX_ERR_RANGE, ""},
    {E, "[a-c-e]", "", RX_ERR_RANGE, ""},
    {E, "[a-\xE9]", "", RX_ERR_RANGE, "", 0, kNarrowOnly},
    {E, "[\xE0-\xE9]", "x\xE5", RX_OK, "1,2", 0, kNarrowOnly},
    {E, "[ab]c[ab]", "xacb", RX_OK, "1,4"},
    {E, "[ab]a", "bba", RX_OK, "1,3"},
    // A bracket met again takes the colours it came to before only while no
    // character has changed colour since: here a splits from b in between.
    {E, "[ab][ab]a[ab]", "abab", RX_OK, "0,4"},
    {E, "[ab][ab]a[ab]", "abaa", RX_OK, "0,4"},
    {E, "[[:<:]]a", "ba a", RX_OK, "3,4"},
    {E, "a[[:>:]]", "ab a", RX_OK, "3,4"},

    // Advanced escapes and word edges.
    {A, "\\d+", "ab12", RX_OK, "2,4"},
    {A, "\\D\\S\\W", "1a ,", RX_NOMATCH, ""},
    {A, "\\w+", "..a_1..", RX_OK, "2,5"},
    {A, "[\\d]", "x5", RX_OK, "1,2"},
    {A, "[\\s\\w]+", ".a b.", RX_OK, "1,4"},
    {A, "[\\D]", "", RX_ERR_ESCAPE, ""},
    {A, "[\\q]", "", RX_ERR_ESCAPE, ""},
    {A, "\\x41\\u0042\\U00000043", "ABC", RX_OK, "0,3"},
    {A, "\\101", "A", RX_OK, "0,1"},
    {A, "\\cA", "\x01", RX_OK, "0,1"},
    {A, "\\e\\a\\t\\B", "\x1b\x07\t\\", RX_OK, "0,4"},
    {A, "\\q", "", RX_ERR_ESCAPE, ""},
    {A, "\\u12", "", RX_ERR_ESCAPE, ""},
    {A, "\\c", "", RX_ERR_ESCAPE, ""},
    {E, "a\\", "", RX_ERR_ESCAPE, ""},
    {E, "\\d\\.", "d.", RX_OK, "0,2"},
    {A, "\\mfoo\\M", "xfoo foo", RX_OK, "5,8"},
    {A, "\\yfoo\\y", "xfoo foo", RX_OK, "5,8"},
    {A, "\\Yoo", "foo", RX_OK, "1,3"},
    {B, "\\<a\\>", "ab a", RX_OK, "3,4"},

    // Look-ahead constraints consume nothing.
    {A, "a(?=b)", "acab", RX_OK, "2,3"},
    {A, "a(?!b)", "abac", RX_OK, "2,3"},
    {A, "x(?=a)a", "xxa", RX_OK, "1,3"},
    {A, "(?=.*z)\\w+", "abz", RX_OK, "0,3"},
    {A, "(?=.*z)\\w+", "abc", RX_NOMATCH, ""},
    {A, "(a)(?=(b))b", "ab", RX_OK, "0,2 0,1"},

    // Directors and embedded options.
    {E, "***=a.b", "axb a.b", RX_OK, "4,7"},
    {E, "***?x", "", RX_ERR_DIRECTOR, ""},
    {E, "***x", "", RX_ERR_REPEAT, ""},
    {E, "***:(?i)a", "A", RX_OK, "0,1"},
    {E, "(?i)a", "", RX_ERR_REPEAT, ""},
    {A, "(?i)a", "A", RX_OK, "0,1"},
    {E, "***:(?z)a", "", RX_ERR_OPTION, ""},
    {A, "(?i", "", RX_ERR_OPTION, ""},
    {A, "(?x) a b # c\n c", "abc", RX_OK, "0,3"},
    {A, "(?q)a.b", "axb a.b", RX_OK, "4,7"},
    {A, "(?b)\\(a\\)*", "aa", RX_OK, "0,2 1,2"},
    {A, "(?e)a+?", "", RX_ERR_REPEAT, ""},  // no non-greedy forms in plain extended
    {A, "(?n)^b", "a\nb", RX_OK, "2,3"},
    {A | I, "(?c)a", "A", RX_NOMATCH, ""},
    {RX_LITERAL, "a.b", "axb a.b", RX_OK, "4,7"},
    {RX_LITERAL | I, "A.B", "a.b", RX_OK, "0,3"},

    // Parentheses and quantifiers without operands.
    {E, ")", "a)", RX_OK, "1,2"},
    {A, ")", "", RX_ERR_PAREN, ""},
    {E, "(", "", RX_ERR_PAREN, ""},
    {E, "(a", "", RX_ERR_PAREN, ""},
    {E, "a|", "b", RX_OK, "0,0"},
    {E, "*a", "", RX_ERR_REPEAT, ""},
    {E, "a|*b", "", RX_ERR_REPEAT, ""},
    {B, "*a", "x*a", RX_OK, "1,3"},
    {B, "^*", "*", RX_OK, "0,1"},
    {B, "a|b", "a|b", RX_OK, "0,3"},
    {B, "\\(ab\\)*c", "ababc", RX_OK, "0,5 2,4"},
    {A, "(?:a)(b)", "ab", RX_OK, "0,2 1,2"},
    {A, "(?#note)a", "ba", RX_OK, "1,2"},
    {A, "(?%a)", "", RX_ERR_REPEAT, ""},
    {A, "(?", "", RX_ERR_REPEAT, ""},
};
// clang-format on

std::string describe(const Row& r)
{
    std::string s = "flags=" + std::to_string(r.flags) + " pattern=\"" + r.pattern + "\" subject=\"" + r.subject + "\"";
    if (r.execFlags) s += " exec=" + std::to_string(r.execFlags);
    return s;
}

template <class Ch>
void checkRow(const Row& row, const char* build)
{
    const auto pattern = rxtest::widen<Ch>(row.pattern);
    const auto subject = rxtest::widen<Ch>(row.subject);
    const rxtest::Outcome got = rxtest::run<Ch>(row.flags, pattern, subject, row.execFlags);
    const std::string where = std::string(build) + " " + describe(row);
    if (got.compile != RX_OK) {
        EXPECT_EQ(got.compile, row.code) << where;
        return;
    }
    EXPECT_EQ(got.exec, row.code) << where;
    EXPECT_EQ(got.matches, row.expect) << where;
    const rxtest::Outcome small = rxtest::run<Ch>(row.flags, pattern, subject, row.execFlags | RX_SMALLCACHE);
    EXPECT_EQ(small.exec, got.exec) << where << " (small cache)";
    EXPECT_EQ(small.matches, got.matches) << where << " (small cache)";
}

TEST(RegexConformance, TableOnBothBuilds)
{
    for (const Row& row : kRows) {
        if (row.builds != kWideOnly) checkRow<char>(row, "narrow");
        if (row.builds != kNarrowOnly) checkRow<wchar_t>(row, "wide");
    }
}

// The analysis bits of a pattern compiled by either build; 0 if it does not
// compile (which no row expects).
long InfoOf(int flags, const char* pattern, bool wide)
{
    RxObject o{};
    const std::wstring w(pattern, pattern + std::strlen(pattern));
    const int rc = wide ? rxcomp(&o, w.data(), w.size(), flags) : rxcomp(&o, pattern, std::strlen(pattern), flags);
    EXPECT_EQ(rc, RX_OK) << pattern;
    const long info = rc == RX_OK ? o.info : 0;
    if (rc == RX_OK) rxfree(&o);
    return info;
}

// What the analysis bits say about a pattern.
TEST(RegexConformance, AnalysisBits)
{
    struct InfoRow {
        int flags;
        const char* pattern;
        long expected;
    };
    const InfoRow rows[] = {
        {A, "(a)\\1", RX_USES_BACKREF},
        {A, "a(?=b)", RX_USES_LOOKAHEAD | RX_USES_NONPOSIX},
        {E, "a{2}", RX_USES_BOUNDS},
        {E, "a{x", RX_USES_LITERALBRACE | RX_USES_UNSPECIFIED},
        {E, "\\d", RX_USES_ESCALNUM | RX_USES_UNSPECIFIED},
        {E, "x*", RX_CAN_BE_EMPTY},
        {E, "()", RX_CAN_BE_EMPTY},
        {E, "a^b", RX_NEVER_MATCHES},
        {A, "a*?", RX_PREFERS_SHORTEST | RX_USES_NONPOSIX},
        {E, "[[:alpha:]]", RX_USES_LOCALE},
        {E, "[a-z]", RX_USES_UNPORTABLE},
        {E, "a|", RX_USES_UNSPECIFIED},
        {A, "[\\d]", RX_USES_BRACKETESC},
        {E, ")", RX_USES_LONEPAREN},
    };
    for (const InfoRow& r : rows) {
        const long info = InfoOf(r.flags, r.pattern, false);
        EXPECT_EQ(info & r.expected, r.expected) << r.pattern << " info=" << std::hex << info;
    }
    EXPECT_EQ(InfoOf(E, "abc", false), RX_STAYS_IN_LINES | RX_MATCHES_ASCII) << "a plain literal uses nothing special";
}

// Whether a pattern's matches stay within lines decides whether a caller may
// cut a text at line feeds: saying yes wrongly would change what is replaced.
TEST(RegexConformance, StaysInLinesOnlyWhenNoMatchCanTellACut)
{
    const struct {
        int flags;
        const char* pattern;
        bool stays;
    } rows[] = {
        {E, "a.c", false},             // the dot takes a line feed
        {E | NL, "a.c", true},         // not in line mode
        {E, "[^a]x", false},
        {E | NL, "[^a]x", true},
        {E, "a\nb", false},            // a line feed in the pattern
        {A | NL, "a\\nb", false},      // the same as an escape
        {A | NL, "a\\sb", false},      // white space includes the line feed
        {A | NL, "\\w+@\\w+", true},
        {E, "^ab", false},             // string start only: a cut would look like one
        {E | NL, "^ab", true},         // after any line feed as well
        {E, "ab$", true},              // the end is never at a cut
        {A | NL, "\\Aab", false},      // the string start, even in line mode
        {A | NL, "a(?=b)", false},     // look-ahead reads past the match
        {A | NL, "([a-z])\\1", true},
        {E | NL | I, "order-[0-9]+", true},
    };
    for (const auto& r : rows)
        for (const bool wide : {false, true})
            EXPECT_EQ((InfoOf(r.flags, r.pattern, wide) & RX_STAYS_IN_LINES) != 0, r.stays)
                << r.pattern << " flags " << r.flags << (wide ? " wide" : " narrow");
}

// Whether a pattern finds in the UTF-8 bytes of a text what it finds in the
// text: saying yes wrongly would let a caller replace in bytes where the text
// gives another result. The builds differ where their classes do.
TEST(RegexConformance, MatchesAsciiOnlyWhenBytesFindTheSame)
{
    const struct {
        int flags;
        const char* pattern;
        bool narrow, wide;
    } rows[] = {
        {E, "order-[0-9]+", true, true},
        {E, "(alpha|bravo)", true, true},
        {E, "[a-z]+ing", true, true},
        {E | NL, "^ab", true, true},     // a line start is a line feed before, in bytes too
        {E, "ab$", true, true},
        {A, "\\Aab", true, true},
        {A, "([a-z])\\1", true, true},
        {E | I, "abc", true, true},
        {E | NL, "a.c", false, false},   // the dot takes any character
        {E, "[^a]x", false, false},
        {E, "x*", false, false},         // an empty match could fall inside a character
        {A, "\\mab", false, false},    // a word start reads the character before
        {A, "ab\\M", false, false},    // a word end the one after
        {A, "a(?=b)", false, false},
        {E, "[[:alpha:]]+", true, false},
        {A, "\\d+", true, false},      // the wide digits are more than ASCII ones
        {A, "[[:space:]]x", true, false},
    };
    for (const auto& r : rows)
        for (const bool wide : {false, true})
            EXPECT_EQ((InfoOf(r.flags, r.pattern, wide) & RX_MATCHES_ASCII) != 0, wide ? r.wide : r.narrow)
                << r.pattern << " flags " << r.flags << (wide ? " wide" : " narrow");
}

// Invalid calls are refused with the argument and width codes.
TEST(RegexConformance, InvalidCalls)
{
    RxObject o{};
    EXPECT_EQ(rxcomp(nullptr, "a", 1, E), RX_ERR_ARGUMENT);
    EXPECT_EQ(rxcomp(&o, static_cast<const char*>(nullptr), 1, E), RX_ERR_ARGUMENT);
    EXPECT_EQ(rxcomp(&o, "a", 1, RX_LITERAL | E), RX_ERR_ARGUMENT);
    EXPECT_EQ(rxcomp(&o, "a", 1, RX_LITERAL | RX_DOTNONL), RX_ERR_ARGUMENT);
    EXPECT_EQ(rxcomp(&o, "a", 1, RX_SYNTAX_ADVBIT), RX_ERR_ARGUMENT);
    EXPECT_EQ(o.magic, 0);

    ASSERT_EQ(rxcomp(&o, "a", 1, E), RX_OK);
    RxMatch m[1];
    EXPECT_EQ(rxexec(&o, L"a", 1, nullptr, 1, m, 0), RX_ERR_WIDTH);
    EXPECT_EQ(rxexec(&o, static_cast<const char*>(nullptr), 0, nullptr, 1, m, 0), RX_ERR_ARGUMENT);
    EXPECT_EQ(rxexec(nullptr, "a", 1, nullptr, 1, m, 0), RX_ERR_ARGUMENT);
    rxfree(&o);
    EXPECT_EQ(o.magic, 0);
    EXPECT_EQ(rxexec(&o, "a", 1, nullptr, 1, m, 0), RX_ERR_ARGUMENT) << "released object";
    rxfree(&o);  // a second release is harmless
    rxfree(nullptr);

    ASSERT_EQ(rxcomp(&o, "a", 1, E | RX_WANTDETAILS), RX_OK);
    EXPECT_EQ(rxexec(&o, "xa", 2, nullptr, 1, m, 0), RX_ERR_ARGUMENT);
    RxDetails d{};
    EXPECT_EQ(rxexec(&o, "xa", 2, &d, 1, m, 0), RX_OK);
    EXPECT_LE(d.coldStart, 1);
    EXPECT_EQ(d.end, 2);
    rxfree(&o);
    char text[64];
    EXPECT_GT(rxerror(RX_ERR_BRACKET, text, sizeof text), 1u);
    EXPECT_STREQ(text, rxerrorText(RX_ERR_BRACKET));
}

// The largest bounds the syntax allows compile, as far as the memory limits
// of the engine go; nested bounds beyond them are refused as out of memory,
// at once. Subjects are runs of a of the given length.
TEST(RegexConformance, LargestBounds)
{
    const struct {
        const char* pattern;
        size_t length;
        int code;
        const char* expect;
    } rows[] = {
        {"a{255}", 255, RX_OK, "0,255"},
        {"a{255}", 254, RX_NOMATCH, ""},
        {"(a{2}){255}", 511, RX_OK, "0,510 508,510"},
        {"(a{255}){255}", 300, RX_NOMATCH, ""},
        {"(a?){255}", 3, RX_OK, "0,3 3,3"},
        {"(([a-c]*)*){100}", 3, RX_OK, "0,3 3,3 3,3"},
        {"((a{255}){255}){255}", 0, RX_ERR_MEMORY, ""},
        {"((a{255}){255}){2}", 0, RX_ERR_MEMORY, ""},
    };
    for (const auto& r : rows) {
        const std::string subject(r.length, 'a');
        for (const bool wide : {false, true}) {
            const rxtest::Outcome got = wide ? rxtest::run<wchar_t>(E, rxtest::widen<wchar_t>(r.pattern),
                                                                    rxtest::widen<wchar_t>(subject))
                                             : rxtest::run<char>(E, r.pattern, subject);
            const std::string where =
                std::string(r.pattern) + " on " + std::to_string(r.length) + (wide ? " wide" : " narrow");
            EXPECT_EQ(got.compile ? got.compile : got.exec, r.code) << where;
            EXPECT_EQ(got.matches, r.expect) << where;
        }
    }
}

// Groups beyond those asked for, groups beyond the pattern's, no groups.
TEST(RegexConformance, GroupReporting)
{
    std::string pattern;
    for (int i = 0; i < 30; ++i) pattern += "(.)";
    pattern += "\\30";
    std::string subject = "--abcdefghijklmnopqrstuvwxyz01233--";
    RxObject o{};
    ASSERT_EQ(rxcomp(&o, pattern.data(), pattern.size(), A), RX_OK);
    ASSERT_EQ(o.groupCount, 30u);
    RxMatch all[31], ten[10];
    ASSERT_EQ(rxexec(&o, subject.data(), subject.size(), nullptr, 31, all, 0), RX_OK);
    ASSERT_EQ(rxexec(&o, subject.data(), subject.size(), nullptr, 10, ten, 0), RX_OK);
    EXPECT_EQ(all[0].start, 2);
    EXPECT_EQ(all[0].end, 33);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(ten[i].start, all[i].start) << "group " << i;
        EXPECT_EQ(ten[i].end, all[i].end) << "group " << i;
    }
    rxfree(&o);

    ASSERT_EQ(rxcomp(&o, "(a)", 3, E), RX_OK);
    RxMatch extra[4];
    ASSERT_EQ(rxexec(&o, "a", 1, nullptr, 4, extra, 0), RX_OK);
    EXPECT_EQ(extra[2].start, -1) << "beyond the pattern's groups";
    EXPECT_EQ(extra[3].end, -1);
    EXPECT_EQ(rxexec(&o, "b", 1, nullptr, 0, nullptr, 0), RX_NOMATCH);
    EXPECT_EQ(rxexec(&o, "a", 1, nullptr, 0, nullptr, 0), RX_OK) << "a test without positions";
    rxfree(&o);

    ASSERT_EQ(rxcomp(&o, "(a)(b)", 6, E | RX_NOGROUPS), RX_OK);
    EXPECT_EQ(o.groupCount, 0u);
    RxMatch untouched[2] = {{-7, -7}, {-7, -7}};
    ASSERT_EQ(rxexec(&o, "ab", 2, nullptr, 2, untouched, 0), RX_OK);
    EXPECT_EQ(untouched[0].start, -7) << "no group reporting at all";
    rxfree(&o);
}

// Units of the wide build beyond what ASCII rows can say.
TEST(RegexConformance, WideCharacters)
{
    struct WideRow {
        int flags;
        const wchar_t* pattern;
        const wchar_t* subject;
        int code;
        const char* expect;
    };
    const WideRow rows[] = {
        {E, L"\uF600", L"x\U0001F600", RX_OK, "1,2"},            // above the BMP: its low 16 bits
        {E | I, L"\u00e4", L"\u00c4", RX_OK, "0,1"},             // Latin-1 case pair
        {E | I, L"[\u03b1-\u03c9]+", L"\u0391\u0392", RX_OK, "0,2"},  // Greek range folded
        {E, L"[[:alpha:]]+", L"1\u4e2d\u6587!", RX_OK, "1,3"},
        {E, L"[[:digit:]]", L"\u0663", RX_OK, "0,1"},            // Arabic-Indic three
        {E, L"[[:upper:]]", L"\u0430", RX_NOMATCH, ""},
        {A, L"\\u00e9", L"\u00e9", RX_OK, "0,1"},
        {A | I, L"(\u00e9)\\1", L"\u00e9\u00c9", RX_OK, "0,2 0,1"},
        {E, L"[\u0100-\uffff]+", L"a\u0101\uffffb", RX_OK, "1,3"},
        {A, L"[^\\u0000-\uffff]", L"a", RX_NOMATCH, ""},
    };
    for (const WideRow& r : rows) {
        const rxtest::Outcome got = rxtest::run<wchar_t>(r.flags, r.pattern, r.subject);
        const std::string where = "row with expectation " + std::string(r.expect);
        ASSERT_EQ(got.compile, RX_OK) << where;
        EXPECT_EQ(got.exec, r.code) << where;
        EXPECT_EQ(got.matches, r.expect) << where;
    }
}

// Undecodable bytes carried through wide text as escape units: matched by
// themselves, "." and negated classes, never by a character of the basic
// plane or beyond it, nor by a named class, and folded to themselves.
TEST(RegexConformance, EscapeUnits)
{
    const std::wstring esc80(1, EscapeUnit(0x80)), esc81(1, EscapeUnit(0x81));
    const std::wstring aliasOne(1, static_cast<wchar_t>(0x1DC80)), aliasTwo(1, static_cast<wchar_t>(0x2DC80));
    struct Row {
        const char* why;
        int flags;
        std::wstring pattern, subject;
        int code;
        const char* expect;
    };
    const Row rows[] = {
        {"itself", E, esc80, L"a" + esc80, RX_OK, "1,2"},
        {"itself, case folded", E | I, L"a" + esc80, L"A" + esc80, RX_OK, "0,2"},
        {"another byte", E | I, esc80, esc81, RX_NOMATCH, ""},
        {"a character above the plane with its low bits", E, aliasOne, esc80, RX_NOMATCH, ""},
        {"nor the other way", E, esc80, aliasTwo, RX_NOMATCH, ""},
        {"that character still finds itself", E, aliasTwo, L"x" + aliasTwo, RX_OK, "1,2"},
        {"a range above the plane over the slots", E,
         L"[" + std::wstring(1, static_cast<wchar_t>(0x1DC00)) + L"-" + std::wstring(1, static_cast<wchar_t>(0x1DCFF)) +
             L"]",
         esc80 + aliasOne, RX_OK, "1,2"},
        {"dot", E, L"a.b", L"a" + esc80 + L"b", RX_OK, "0,3"},
        {"negated class", E, L"[^a]+", L"a" + esc80 + esc81, RX_OK, "1,3"},
        {"negated shorthand", A, L"\\W", L"a" + esc80, RX_OK, "1,2"},
        {"word shorthand", A, L"\\w", esc80, RX_NOMATCH, ""},
        {"alpha", E, L"[[:alpha:]]", esc80, RX_NOMATCH, ""},
        {"alpha folded", E | I, L"[[:lower:]]", esc80, RX_NOMATCH, ""},
        {"print", E, L"[[:print:]]", esc80, RX_NOMATCH, ""},
        {"graph", E, L"[[:graph:]]", esc80, RX_NOMATCH, ""},
        {"punct", E, L"[[:punct:]]", esc80, RX_NOMATCH, ""},
        {"cntrl", E, L"[[:cntrl:]]", esc80, RX_NOMATCH, ""},
        {"space", E, L"[[:space:]]", esc80, RX_NOMATCH, ""},
        {"a class of characters", E, L"[\u00e9\u4e2d]", esc80, RX_NOMATCH, ""},
    };
    for (const Row& r : rows) {
        const rxtest::Outcome got = rxtest::run<wchar_t>(r.flags, r.pattern, r.subject);
        ASSERT_EQ(got.compile, RX_OK) << r.why;
        EXPECT_EQ(got.exec, r.code) << r.why;
        EXPECT_EQ(got.matches, r.expect) << r.why;
    }
}

}  // namespace

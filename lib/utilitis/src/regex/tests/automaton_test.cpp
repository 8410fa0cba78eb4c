// What compilation leaves behind: how the colour map splits the alphabet,
// and the shape of the search automaton. These are the properties the
// matcher's speed and correctness rest on, checked through the compiled
// object's internals.
#include "regex/internals.h"
#include "rx_test_support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <unistd.h>

using namespace Karu;
using namespace Karu::IMPL::rx;

namespace {

template <class Ch>
struct Compiled {
    RxObject object{};
    int code;
    Compiled(const std::basic_string<Ch>& pattern, int flags)
    {
        code = rxcomp(&object, pattern.data(), pattern.size(), flags);
    }
    ~Compiled() { rxfree(&object); }
    const Internals& in() const { return *static_cast<const Internals*>(object.internals); }
    int realColours() const
    {
        const ColourMap& map = in().colourMap;
        int n = 0;
        for (colour c = 0; c <= map.max(); ++c)
            if (map.live(c) && !map.pseudo(c)) ++n;
        return n;
    }
};

// Colours are the sets of characters the pattern can't tell apart.
TEST(RegexAutomaton, ColourSplitting)
{
    struct Row {
        const char* pattern;
        int colours;
        const char* why;
    };
    const Row rows[] = {
        {"a", 2, "a, and white for the rest"},
        {"[ab]c[ab]", 3, "a and b stay together"},
        {"[ab]a", 3, "a splits from b"},
        {"[a-z]x", 3, "x splits out of the range"},
        {"...", 1, "dot needs no split"},
    };
    for (const Row& r : rows) {
        Compiled<char> c(r.pattern, RX_SYNTAX_EXT);
        ASSERT_EQ(c.code, RX_OK) << r.pattern;
        EXPECT_EQ(c.realColours(), r.colours) << r.pattern << ": " << r.why;
        Compiled<wchar_t> w(rxtest::widen<wchar_t>(r.pattern), RX_SYNTAX_EXT);
        EXPECT_EQ(w.realColours(), r.colours) << r.pattern << " (wide): " << r.why;
    }
    Compiled<char> nl("[^a]", RX_SYNTAX_EXT | RX_DOTNONL);
    EXPECT_EQ(nl.realColours(), 3) << "newline gets a colour of its own";
    // A range over the whole wide alphabet goes block by block and empties white.
    Compiled<wchar_t> full(L"[\\u0000-\\uffff]", RX_SYNTAX_ADV);
    ASSERT_EQ(full.code, RX_OK);
    EXPECT_EQ(full.in().colourMap.desc(kWhite).charCount, 0u);
    EXPECT_EQ(full.in().colourMap.colourOf(0x1234), full.in().colourMap.colourOf(0xFFFF));
}

// The search automaton: no empty arcs survive (compaction keeps only real
// colours and look-ahead references), an anchored pattern has no loop on its
// entry, an unanchored one does.
TEST(RegexAutomaton, SearchShape)
{
    struct Row {
        const char* pattern;
        int flags;
        bool entryLoop;
    };
    const Row rows[] = {
        {"(a|b)*c", RX_SYNTAX_EXT, true},
        {"^a", RX_SYNTAX_EXT, false},
        {"\\Aab|\\Ac", RX_SYNTAX_ADV, false},
        {"x(?=y)", RX_SYNTAX_ADV, true},
    };
    for (const Row& r : rows) {
        Compiled<char> c(r.pattern, r.flags);
        ASSERT_EQ(c.code, RX_OK) << r.pattern;
        const CompactNfa& s = c.in().search;
        bool loop = false;
        for (const CompactArc* a = &s.arcs[s.rows[static_cast<size_t>(s.entry)] + 1]; a->co != kNoColour; ++a)
            if (a->to == s.entry) loop = true;
        EXPECT_EQ(loop, r.entryLoop) << r.pattern;
        for (const CompactArc& a : s.arcs) EXPECT_LT(a.co, s.colourCount + 16) << r.pattern;
    }
    Compiled<char> la("a(?=b)", RX_SYNTAX_ADV);
    EXPECT_TRUE(la.in().search.flags & kHasLookahead) << "a trailing look-ahead stays a reference";
}

// Bounds cost one copy per count; nested bounds are refused once the
// automaton would grow past its limit, rather than exhausting memory.
TEST(RegexAutomaton, BoundsAndLimits)
{
    Compiled<char> big("a{255}", RX_SYNTAX_EXT);
    ASSERT_EQ(big.code, RX_OK);
    EXPECT_GE(big.in().search.stateCount, 255);
    Compiled<char> huge("((a{255}){255}){255}", RX_SYNTAX_EXT);
    EXPECT_EQ(huge.code, RX_ERR_MEMORY);
}

// Matching on a subject longer than the cache can hold sets for, with and
// without the small cache, gives the same ends: a match end survives eviction.
TEST(RegexAutomaton, LongSubjectsAndEviction)
{
    std::string subject;
    for (int i = 0; i < 20000; ++i) subject += "abcdefgh"[(i * 7) % 8];
    const size_t last = subject.size();
    subject += "xyz";
    const char* patterns[] = {"[a-h]+xyz", "(a|b|c|d|e|f|g|h)*x", "[^z]*"};
    for (const char* p : patterns) {
        Compiled<char> c(p, RX_SYNTAX_EXT);
        ASSERT_EQ(c.code, RX_OK);
        RxMatch big[1], small[1];
        ASSERT_EQ(rxexec(&c.object, subject.data(), subject.size(), nullptr, 1, big, 0), RX_OK) << p;
        ASSERT_EQ(rxexec(&c.object, subject.data(), subject.size(), nullptr, 1, small, RX_SMALLCACHE), RX_OK) << p;
        EXPECT_EQ(big[0].start, 0) << p;
        EXPECT_EQ(big[0].end, small[0].end) << p;
        EXPECT_GE(big[0].end, static_cast<int64_t>(last)) << p;
    }
}

// The compile trace goes to standard output only when asked for.
TEST(RegexAutomaton, TraceOutput)
{
    fflush(stdout);
    const int saved = dup(1);
    FILE* capture = tmpfile();
    ASSERT_NE(capture, nullptr);
    dup2(fileno(capture), 1);
    {
        Compiled<char> traced("(a)b", RX_SYNTAX_EXT | RX_TRACEOUT);
        Compiled<char> quiet("(c)d", RX_SYNTAX_EXT);
    }
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    std::string text;
    rewind(capture);
    for (int ch; (ch = fgetc(capture)) != EOF;) text += static_cast<char>(ch);
    fclose(capture);
    EXPECT_NE(text.find("========= RAW =========="), std::string::npos);
    EXPECT_NE(text.find("========= TREE FIXED =========="), std::string::npos);
    EXPECT_NE(text.find("========= SEARCH =========="), std::string::npos);
    EXPECT_NE(text.find(" hascapture"), std::string::npos);
    EXPECT_NE(text.find("(#1)"), std::string::npos);
    EXPECT_EQ(text.find("========= RAW ==========", text.find("SEARCH")), std::string::npos)
        << "the untraced compile printed nothing";
}

}  // namespace

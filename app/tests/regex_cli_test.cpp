// The regular-expression methods from the outside: shorthand and escapes,
// advanced patterns, group references, line ends, case, text in other
// encodings, and a pattern that does not compile. Every case runs in both
// replace forms, which must write the same bytes and count the same.
#include <gtest/gtest.h>

#include "cli_harness.h"

using namespace ostrel_test;

namespace {

// The swapped names keep the two low bytes of each unit in the other order.
std::u32string Swapped(std::u32string text)
{
    for (char32_t& c : text)
        c = ((c & 0xFF) << 8) | ((c >> 8) & 0xFF);
    return text;
}

std::string Total(int count)
{
    return count ? "\n## total replaced " + std::to_string(count) + " matchs\n" : "";
}

struct Case {
    const char* why;
    const char* method;
    std::string pairs, text, expected;
    int count;
    std::vector<std::string> extra = {};  // encoding switches
};

void RunBothForms(const Case& c)
{
    Sandbox box;
    box.Put("p.txt", c.pairs);
    box.Put("copy.txt", c.text);
    box.Put("inplace.txt", c.text);
    std::vector<std::string> args = {c.method, "-argfile:p.txt", "-trc"};
    args.insert(args.end(), c.extra.begin(), c.extra.end());
    for (const char* form : {"copy.txt", "inplace.txt"}) {
        std::vector<std::string> run = args;
        run.insert(run.begin(), form);
        if (form[0] == 'i')
            run.push_back("-noexp");
        const RunResult result = box.Run(run, {"", "C.UTF-8"});
        EXPECT_EQ(result.status, 0) << c.why << " (" << form << ")\n" << result.err;
        EXPECT_EQ(result.err, "") << c.why << " (" << form << ")";
        EXPECT_EQ(Visible(box.Get(form)), Visible(c.expected)) << c.why << " (" << form << ")";
        EXPECT_EQ(result.out, Total(c.count)) << c.why << " (" << form << ")";
    }
}

TEST(RegexMethods, ShorthandEscapesAndGroups)
{
    const Case cases[] = {
        {"digits and groups swapped", "-r", "(\\d+)-(\\d+)->\\2-\\1\n", "call 555-1234 now", "call 1234-555 now", 1},
        {"every word doubled", "-r", "(\\w+)->\\1\\1\n", "ab, c_d 42!", "abab, c_dc_d 4242!", 3},
        {"word edges take the character beside the word", "-r", "\\<cat\\>->[\\0]\n", "a cat sat", "a[ cat ]sat",
         1},
        {"runs of blanks become one tab", "-r", "\\s+->\\t\n", "a  b \t c", "a\tb\tc", 2},
        {"quotes escaped in pattern and replacement", "-r", "\\\"(\\w+)\\\"->\\'\\1\\'\n",
         "say \"hi\" and \"bye\"", "say 'hi' and 'bye'", 2},
        {"non-digits, then a digit before a non-digit", "-r", "\\D+->#\n\\d\\D->@\n", "a1b22c", "#@2@", 5},
        {"a group the pattern lacks gives nothing; a doubled backslash, doubled again for the pair reader, gives one", "-r",
         "(a)->\\9\\\\\\\\1\n", "xa", "x\\1", 1},
        {"pairs apply in order, each to the output of the last", "-r", "a+->b\nb+->c\n", "aab ba", "c c", 4},
        {"ignoring case", "-ric", "hello->bye\n", "Hello HELLO hello", "bye bye bye", 3},
        {"ignoring case in a class", "-ric", "[a-c]+->-\n", "ABC xyz Cab", "- xyz -", 2},
        {"an unknown escape is the character itself", "-r", "a\\.b->x\n", "a.b acb", "x acb", 1},
    };
    for (const Case& c : cases)
        RunBothForms(c);
}

TEST(RegexMethods, AdvancedPatterns)
{
    const Case cases[] = {
        {"non-greedy", "-r", "***:<(.+?)>->[\\1]\n", "<a><b>", "[a][b]", 2},
        {"back-reference", "-r", "***:(\\w)\\1->\\1\n", "aabbcd", "abcd", 2},
        {"look-ahead", "-r", "***:\\w+(?=:)->K\n", "key: value", "K: value", 1},
        {"negative look-ahead", "-r", "***:a(?!b)->X\n", "ab ac a", "ab Xc X", 2},
        {"the engine's own classes under the prefix", "-r", "***:\\d{2}->N\n", "1 22 333", "1 N N3", 2},
        {"embedded case option", "-r", "***:(?i)ab->x\n", "AB ab", "x x", 2},
        {"a literal pattern", "-r", "***=a.b->x\n", "acb a.b", "acb x", 1},
        {"a group that took no part is empty", "-r", "***:(a)|(b)->[\\1\\2]\n", "ab", "[a][b]", 2},
        {"a repeated back-reference takes copies of its group only", "-r", "***:(.)\\1*-><\\0>\n", "abc aab\n",
         "<a><b><c>< ><aa><b><\n>", 7},
        {"the same, the fewest copies that let the rest match", "-r", "***:(.)\\1*?x-><\\0>\n", "aaxbxc",
         "<aax><bx>c", 2},
        {"an anchor inside a loop", "-r", "***:($)*^a-><\\0>\n", "aba", "<a>ba", 1},
    };
    for (const Case& c : cases)
        RunBothForms(c);
}

TEST(RegexMethods, LineEnds)
{
    const Case cases[] = {
        {"line starts with -r", "-r", "^->>>\n", "one\ntwo", ">>one\n>>two", 2},
        {"only the text's start with -rnnl", "-rnnl", "^->>>\n", "one\ntwo", ">>one\ntwo", 1},
        {"line ends with -r", "-r", "(\\w+)$-><\\1>\n", "ab cd\nef", "ab <cd>\n<ef>", 2},
        {"dot stops at a newline with -r", "-r", "a.b->X\n", "a\nb a-b", "a\nb X", 1},
        {"dot crosses a newline with -rnnl", "-rnnl", "a.b->X\n", "a\nb a-b", "X X", 2},
        {"dot crosses a newline with -rnnlic", "-rnnlic", "A.B->X\n", "a\nB", "X", 1},
        {"complemented bracket stops at a newline with -ric", "-ric", "X[^y]+->-\n", "x1\nx2", "-\n-", 2},
        {"a newline written in the pattern", "-r", "o\\nt->o+t\n", "two\nthree", "two+three", 1},
        {"a newline written in the replacement", "-rnnl", ", *->\\n\n", "a, b,c", "a\nb\nc", 2},
        {"CR LF lines", "-r", "\\r$->\n", "a\r\nb\r\n", "a\nb\n", 2},
        {"an empty match at each position but the end", "-r", "x*->-\n", "abc", "-a-b-c", 3},
        {"anchored removal repeats at the start", "-rnnl", "^a->\n", "aaab", "b", 3},
    };
    for (const Case& c : cases)
        RunBothForms(c);
}

TEST(RegexMethods, TextInOtherEncodings)
{
    const std::u32string text = U"\u4E2D\u6587 \u4E2Dx \u00C4rger";
    const std::u32string expected = U"<\u6587> <x> rger";
    const std::string pairs = "\xE4\xB8\xAD(\\w)-><\\1>\n\xC3\xA4->\n";  // UTF-8
    const Case cases[] = {
        {"UTF-8", "-ric", pairs, "\xE4\xB8\xAD\xE6\x96\x87 \xE4\xB8\xADx \xC3\x84rger", "<\xE6\x96\x87> <x> rger", 3,
         {"-encin:UTF-8"}},
        {"GBK", "-r", "\xE4\xB8\xAD(\\w)-><\\1>\n", "\xD6\xD0\xCE\xC4 \xD6\xD0x", "<\xCE\xC4> <x>", 2,
         {"-encin:GBK"}},
        // Patterns of ASCII over UTF-8 are replaced in the bytes, unless a
        // character beyond U+FFFF sends the text through the wide matcher.
        {"UTF-8 with ASCII patterns", "-r", "order-[0-9]+->ID\n(alpha|beta)-><\\1>\n",
         "caf\xC3\xA9 order-12 alpha\n\xE4\xB8\xAD order-3 beta alphabet\n",
         "caf\xC3\xA9 ID <alpha>\n\xE4\xB8\xAD ID <beta> <alpha>bet\n", 5, {"-encin:UTF-8"}},
        {"UTF-8 with ASCII patterns and a character beyond U+FFFF", "-r", "order-[0-9]+->ID\n",
         "\xF0\x9F\x98\x80 order-12\n", "\xF0\x9F\x98\x80 ID\n", 1, {"-encin:UTF-8"}},
        {"UTF-16", "-ric", pairs, Units(text), Units(expected), 3, {"-encin:UTF-16"}},
        {"UTF-16BE", "-ric", pairs, Units(Swapped(text)), Units(Swapped(expected)), 3, {"-encin:UTF-16BE"}},
    };
    for (const Case& c : cases)
        RunBothForms(c);
}

TEST(RegexMethods, PatternThatDoesNotCompileReplacesNothing)
{
    const Case cases[] = {
        {"the other pairs still apply", "-r", "([a->X\nb->Y\n", "a([a b", "a([a Y", 1},
        {"a bracket alias is no class", "-r", "[[:dq:]]->X\n\"->Q\n", "say \"x\"", "say QxQ", 2},
        {"a lone director", "-r", "***->X\n", "***", "***", 0},
        {"a trailing backslash", "-rnnl", "a\\->X\n", "a\\", "a\\", 0},
        {"a back-reference to a missing group", "-r", "***:(a)\\2->X\n", "aa", "aa", 0},
    };
    for (const Case& c : cases)
        RunBothForms(c);

    // A file with nothing replaced is not rewritten.
    Sandbox box;
    box.Put("p.txt", "(->X\n");
    box.Put("t.txt", "(((");
    box.Age("t.txt");
    const RunResult run = box.Run({"t.txt", "-r", "-argfile:p.txt", "-frc"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(box.ModTime("t.txt"), 1000000000);
}

}  // namespace

// Reading pairs from the arguments text: trimming, the delimiter, escapes,
// environment references, and which lines give no pair.
#include "pairs.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

using namespace Karu;

namespace {

std::wstring W(const wstringEx& s)
{
    return std::wstring(s.data(), s.size());
}

// Pairs rendered as "find|replace" lines, for compact expectations.
std::vector<std::wstring> Render(const wchar_t* text, const wchar_t* delimiter = L"->")
{
    ReplacePairs pairs;
    pairs.push_back(REPLACE_PAIR{wstringEx(L"stale"), wstringEx(L"pair"), {}, {}});
    LoadPairs(pairs, wstringEx(text), wstringEx(delimiter), false, false, false);
    std::vector<std::wstring> out;
    for (const REPLACE_PAIR& pair : pairs) {
        out.push_back(W(pair.find) + L"|" + W(pair.replace));
        EXPECT_FALSE(pair.regex) << "no pattern outside regular-expression mode";
    }
    return out;
}

class Pairs : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("KARU_T_HOME", "/home/me", 1);
        setenv("KARU_T_NEST", "${KARU_T_HOME}/x", 1);
        setenv("KARU_T_LOOP", "<$KARU_T_LOOP>", 1);
        setenv("KARU_T_EMPTY", "", 1);
        setenv("KARU_T_ESC", "a\\nb", 1);
        unsetenv("KARU_T_UNSET");
    }
};

TEST_F(Pairs, LinesDelimitersAndTrimming)
{
    struct Row {
        const char* why;
        const wchar_t* text;
        std::vector<std::wstring> pairs;
        const wchar_t* delimiter = L"->";
    } rows[] = {
        {"one pair a line, in order", L"1->a\n2->b\n1->a", {L"1|a", L"2|b", L"1|a"}},
        {"no line feed at the end", L"x->y", {L"x|y"}},
        {"CR LF lines", L"x->y\r\nu->v\r\n", {L"x|y", L"u|v"}},
        {"blank lines are skipped", L"\n  \t \n\nx->y\n\n", {L"x|y"}},
        {"blanks around the delimiter belong to the parts", L"  a -> b  ", {L"a | b"}},
        {"a second delimiter ends the replace part", L"a->b->c", {L"a|b"}},
        {"no delimiter deletes the text", L"word", {L"word|"}},
        {"empty replace", L"a->", {L"a|"}},
        {"empty find is dropped", L"->b\nc->d", {L"c|d"}},
        {"nothing but blanks gives no pair", L" \r\n\t", {}},
        {"empty text", L"", {}},
        {"a signature stays in the first find", L"\uFEFFa->b", {L"\uFEFFa|b"}},
        {"other delimiter", L"a=>b->c", {L"a|b->c"}, L"=>"},
        {"empty delimiter drops every pair", L"a->b\nc->d", {}, L""},
        {"comment-looking lines are pairs", L"# note", {L"# note|"}},
    };
    for (const Row& row : rows)
        EXPECT_EQ(Render(row.text, row.delimiter), row.pairs) << row.why;
}

TEST_F(Pairs, EscapesAndEnvironment)
{
    struct Row {
        const char* why;
        const wchar_t* text;
        std::vector<std::wstring> pairs;
    } rows[] = {
        {"line escapes", L"a->\\r\\n", {L"a|\r\n"}},
        {"doubled backslash gives one", L"a->\\\\n", {L"a|\\n"}},
        {"unknown escape stays", L"\\d->\\t", {L"\\d|\\t"}},
        {"lone backslash at the end stays", L"a->b\\", {L"a|b\\"}},
        {"escape in the find part", L"x\\ny->z", {L"x\ny|z"}},
        {"trim comes before the escapes", L"a->b \\n  ", {L"a|b \n"}},
        {"abbreviated reference", L"$KARU_T_HOME->x", {L"/home/me|x"}},
        {"braced reference", L"a->${KARU_T_HOME}/y", {L"a|/home/me/y"}},
        {"name ends at a non-name character", L"a->$KARU_T_HOME.x", {L"a|/home/me.x"}},
        {"doubled mark gives one", L"a->$$KARU_T_HOME", {L"a|$KARU_T_HOME"}},
        {"unset stays visible", L"a->$KARU_T_UNSET ${KARU_T_UNSET}", {L"a|$KARU_T_UNSET ${KARU_T_UNSET}"}},
        {"empty value counts as unset", L"a->$KARU_T_EMPTY", {L"a|$KARU_T_EMPTY"}},
        {"percent form is not ours", L"a->%KARU_T_HOME%", {L"a|%KARU_T_HOME%"}},
        {"mark before a non-name character", L"a->$-x", {L"a|$-x"}},
        {"mark at the end", L"a->cost$", {L"a|cost$"}},
        {"unclosed brace", L"a->${KARU_T_HOME", {L"a|${KARU_T_HOME"}},
        {"values are expanded again", L"a->$KARU_T_NEST", {L"a|/home/me/x"}},
        {"a value's escapes are substituted", L"a->$KARU_T_ESC", {L"a|a\nb"}},
    };
    for (const Row& row : rows)
        EXPECT_EQ(Render(row.text), row.pairs) << row.why;
}

TEST_F(Pairs, SelfReferenceStopsAtTheDepthLimit)
{
    const std::wstring expanded = W(ExpandEnvVars(wstringEx(L"$KARU_T_LOOP")));
    // 64 rounds of expansion, then the reference stays as it is.
    EXPECT_EQ(expanded, std::wstring(64, L'<') + L"$KARU_T_LOOP" + std::wstring(64, L'>'));
}

}  // namespace

// The pattern front end's text work: the shorthand translation and the
// prefix rules that decide line mode and translation.
#include <karu/regex/regexFront.h>

#include <gtest/gtest.h>

#include "string/tests/wide_text.h"

#include <string>

using namespace Karu;

namespace {

using test::Narrow;
using test::Show;

TEST(RegexFront, ShorthandBecomesBracketExpressions)
{
    struct Row {
        const wchar_t* in;
        const wchar_t* out;
    } rows[] = {
        // classes and their complements
        {L"\\d+\\D", L"[[:digit:]]+[^[:digit:]]"},
        {L"\\w\\W\\s\\S", L"[[:alnum:]_][^[:alnum:]_][[:space:]][^[:space:]]"},
        {L"\\a\\A\\l\\L\\u\\U", L"[[:alpha:]][^[:alpha:]][[:lower:]][^[:lower:]][[:upper:]][^[:upper:]]"},
        {L"\\x\\X\\p\\P\\o\\O", L"[[:xdigit:]][^[:xdigit:]][[:print:]][^[:print:]][0-7][^0-7]"},
        // word edges consume a character: they are classes, not anchors
        {L"\\<ab\\>", L"[^[:alpha:]_]ab[^[:alnum:]_]"},
        // character escapes
        {L"\\t\\n\\r\\b\\v", L"\t\n\r\b\v"},
        {L"\\\"q\\'", L"\"q'"},
        // a doubled backslash protects what follows and stays doubled
        {L"\\\\d", L"\\\\d"},
        // unknown escapes go through for the engine to read literally
        {L"\\.\\1\\z", L"\\.\\1\\z"},
        {L"a\\", L"a\\"},
        // blind to brackets: a class inside one nests
        {L"[\\d]", L"[[[:digit:]]]"},
        // a replacement is not rescanned
        {L"\\d\\d", L"[[:digit:]][[:digit:]]"},
    };
    for (const Row& r : rows) {
        wstringEx wide(r.in);
        ExpandEscapes(wide, L'\\', PerlClassTable<wchar_t>(), false, true);
        EXPECT_EQ(Show(wide), std::wstring(r.out)) << "row " << Narrow(r.in);
        stringEx narrow(Narrow(r.in).c_str());
        ExpandEscapes(narrow, '\\', PerlClassTable<char>(), false, true);
        EXPECT_EQ(std::string(narrow.data(), narrow.size()), Narrow(r.out)) << "narrow row " << Narrow(r.in);
    }
    // The replacement table knows only the character escapes.
    wstringEx repl(L"\\d\\t\\\"\\w");
    ExpandEscapes(repl, L'\\', ReplacementEscapeTable<wchar_t>(), false, true);
    EXPECT_EQ(Show(repl), std::wstring(L"\\d\t\"\\w"));
}

TEST(RegexFront, PrefixDecidesLineModeAndTranslation)
{
    struct Row {
        const wchar_t* pattern;
        bool caller;
        bool lineMode, translatable;
    } rows[] = {
        {L"a.b", true, true, true},
        {L"a.b", false, false, true},
        {L"**a", true, true, true},            // two stars are no prefix
        {L"***:a.b", true, false, false},      // advanced syntax: line mode off
        {L"***=a.b", true, false, false},      // literal
        {L"***", true, false, false},
        {L"***:(?n)a", false, true, false},
        {L"***:(?w)a", false, true, false},
        {L"***:(?p)a", true, false, false},
        {L"***:(?s)a", true, false, false},
        {L"***:(?sn)a", false, true, false},   // letters are looked for in the order n m w p s
        {L"***:(?ps)a", true, false, false},
        {L"***:(?i)a", true, true, false},     // no line letter: the caller's wish stands
        {L"***:(?i)a", false, false, false},
        {L"***:(?n", false, false, false},     // no ")": no letters
        {L"***:(?x)(?n)", false, false, false},  // only the first group of letters counts
    };
    for (const Row& r : rows) {
        bool translatable = !r.translatable;
        EXPECT_EQ(IMPL::PrefixLineMode(wstringEx(r.pattern), r.caller, translatable), r.lineMode)
            << "row " << Narrow(r.pattern) << " caller " << r.caller;
        EXPECT_EQ(translatable, r.translatable) << "row " << Narrow(r.pattern);
        EXPECT_EQ(IMPL::PrefixLineMode(stringEx(Narrow(r.pattern).c_str()), r.caller, translatable), r.lineMode)
            << "narrow row " << Narrow(r.pattern);
    }
}

}  // namespace

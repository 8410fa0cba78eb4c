// Regular-expression replace: the substitution of group references into the
// replacement text.
#include <karu/string/regexReplace.h>

#include <gtest/gtest.h>

#include "wide_text.h"

#include <string>

using namespace Karu;

namespace {

using test::Narrow;
using test::Show;

TEST(RegexReplace, GroupReferencesAndBackslashes)
{
    // Text "key=value" with groups 1 = "key", 2 = "value", and a third group
    // that took no part.
    const wstringEx text(L"key=value");
    const RegexMatches groups{{0, 9}, {0, 3}, {4, 5}, {-1, 0}};
    struct Row {
        const wchar_t* replacement;
        const wchar_t* out;
    } rows[] = {
        {L"\\2=\\1", L"value=key"},
        {L"\\1\\1", L"keykey"},
        {L"[\\0]", L"[key=value]"},
        {L"<\\3>", L"<>"},             // a group that took no part is empty
        {L"<\\9>", L"<>"},             // a group the pattern lacks gives nothing
        {L"\\\\1", L"\\1"},            // an escaped backslash, then a plain digit
        {L"\\x\\.", L"x."},            // a backslash keeps any other unit literally
        {L"end\\", L"end"},            // a trailing backslash is dropped
        {L"\\", L""},
        {L"12", L"12"},
        {L"\\1\\", L"key"},
    };
    for (const Row& r : rows)
        EXPECT_EQ(Show(BuildReplacement(text, groups, wstringEx(r.replacement))), std::wstring(r.out))
            << "row " << Narrow(r.replacement);
    // Group text is not interpreted again, and is cut to the text.
    const wstringEx slashes(L"a\\1b");
    EXPECT_EQ(Show(BuildReplacement(slashes, RegexMatches{{0, 4}, {1, 2}}, wstringEx(L"\\1"))), L"\\1");
    EXPECT_EQ(Show(BuildReplacement(slashes, RegexMatches{{2, 9}}, wstringEx(L"\\0"))), L"1b");
}

}  // namespace

// Environment access and the expansion of references, in both widths.
#include <karu/envMgr/envMgr.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

using namespace Karu;

namespace {

TEST(Environment, ExpansionOfBothFormsInBothWidths)
{
    SetEnv(stringEx("KARU_ENV_A"), stringEx("alpha"));
    SetEnv(stringEx("KARU_ENV_B"), stringEx("x$KARU_ENV_A"));
    unsetenv("KARU_ENV_UNSET");
    struct Row {
        const char* why;
        const char* text;
        const char* expect;
    } rows[] = {
        {"no reference", "plain text, 5 {braces}", "plain text, 5 {braces}"},
        {"braced", "<${KARU_ENV_A}>", "<alpha>"},
        {"abbreviated, name ends at a non-name unit", "$KARU_ENV_A.txt", "alpha.txt"},
        {"unset expands to nothing", "[${KARU_ENV_UNSET}][$KARU_ENV_UNSET]", "[][]"},
        {"a doubled mark is one dollar", "cost $$5", "cost $5"},
        {"a mark before no name stays", "a $ b", "a $ b"},
        {"a value with a reference is expanded once more", "${KARU_ENV_B}", "xalpha"},
        {"no closing brace", "${KARU_ENV_A", "${KARU_ENV_A"},
    };
    for (const Row& row : rows) {
        EXPECT_STREQ(ExpandEnvStrings(stringEx(row.text)).c_str(), row.expect) << row.why;
        const std::wstring wide(row.text, row.text + strlen(row.text));
        const std::wstring wideExpect(row.expect, row.expect + strlen(row.expect));
        EXPECT_EQ(std::wstring(ExpandEnvStrings(wstringEx(wide.c_str())).c_str()), wideExpect) << row.why;
    }
}

TEST(Environment, SetValuesStayVisible)
{
    SetEnv(stringEx("KARU_ENV_SET"), stringEx("one"));
    SetEnv(stringEx("KARU_ENV_SET"), stringEx("two"));  // the first string may go now
    EXPECT_STREQ(getenv("KARU_ENV_SET"), "two");
    EXPECT_STREQ(GetEnv(stringEx("KARU_ENV_SET")).c_str(), "two");
    SetEnv(wstringEx(L"KARU_ENV_WIDE"), wstringEx(L"wide value"));
    EXPECT_EQ(std::wstring(GetEnv(wstringEx(L"KARU_ENV_WIDE")).c_str()), L"wide value");
    EXPECT_TRUE(GetEnv(stringEx("KARU_ENV_NEVER_SET")).empty());
    EXPECT_EQ(System(stringEx("test \"$KARU_ENV_SET\" = two")), 0);
}

TEST(Environment, SystemFacts)
{
    EXPECT_STREQ(GetOsName().c_str(), "Linux");
    EXPECT_GT(GetUptime(), 0.0);
}

}  // namespace

// Environment access and the expansion of references, in both widths; wide
// text in the system's encoding; variables that outlive the exit handlers;
// and commands that do not hold the environment up.
#include <karu/envMgr/envMgr.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "file/tests/deadline.h"
#include "sync/tests/forktest.h"

using namespace Karu;
using namespace KaruTest;

namespace {

TEST(Environment, ExpansionOfBothFormsInBothWidths)
{
    SetEnv(stringEx("KARU_ENV_A"), stringEx("alpha"));
    SetEnv(stringEx("KARU_ENV_B"), stringEx("x$KARU_ENV_A"));
    SetEnv(stringEx("KARU_ENV_P"), stringEx("pa$word"));
    unsetenv("KARU_ENV_UNSET");
    struct Row {
        const char* why;
        const char* text;
        const char* expect;
    } rows[] = {
        // Text without a reference comes back as it is.
        {"no mark", "plain text, 5 {braces}", "plain text, 5 {braces}"},
        {"a mark at the end", "cost 5$", "cost 5$"},
        {"a mark before a digit", "price $5", "price $5"},
        {"a mark before a blank", "a $ b", "a $ b"},
        {"a doubled mark", "cost $$5", "cost $$5"},
        {"a doubled mark keeps a name from expanding", "$$KARU_ENV_A", "$$KARU_ENV_A"},
        {"no closing brace", "${KARU_ENV_A", "${KARU_ENV_A"},
        {"no name between the braces", "${}", "${}"},
        // References.
        {"braced", "<${KARU_ENV_A}>", "<alpha>"},
        {"abbreviated, ended by a non-name unit", "$KARU_ENV_A.txt", "alpha.txt"},
        {"abbreviated takes the longest name", "$KARU_ENV_A_x", ""},
        {"two in a row", "$KARU_ENV_A${KARU_ENV_A}", "alphaalpha"},
        {"unset expands to nothing", "[${KARU_ENV_UNSET}][$KARU_ENV_UNSET]", "[][]"},
        // A value goes in as it is: its marks are not read again.
        {"braced value with a mark", "${KARU_ENV_P}", "pa$word"},
        {"abbreviated value with a mark", "$KARU_ENV_P", "pa$word"},
        {"value with a reference", "${KARU_ENV_B}", "x$KARU_ENV_A"},
    };
    for (const Row& row : rows) {
        EXPECT_STREQ(ExpandEnvStrings(stringEx(row.text)).c_str(), row.expect) << row.why;
        const std::wstring wide(row.text, row.text + strlen(row.text));
        const std::wstring wideExpect(row.expect, row.expect + strlen(row.expect));
        EXPECT_EQ(std::wstring(ExpandEnvStrings(wstringEx(wide.c_str())).c_str()), wideExpect) << row.why;
    }
}

TEST(Environment, SetValuesStayVisibleAndSystemFacts)
{
    SetEnv(stringEx("KARU_ENV_SET"), stringEx("one"));
    SetEnv(stringEx("KARU_ENV_SET"), stringEx("two"));  // the first string may go now
    EXPECT_STREQ(getenv("KARU_ENV_SET"), "two");
    EXPECT_STREQ(GetEnv(stringEx("KARU_ENV_SET")).c_str(), "two");
    SetEnv(wstringEx(L"KARU_ENV_WIDE"), wstringEx(L"wide value"));
    EXPECT_EQ(std::wstring(GetEnv(wstringEx(L"KARU_ENV_WIDE")).c_str()), L"wide value");
    EXPECT_TRUE(GetEnv(stringEx("KARU_ENV_NEVER_SET")).empty());
    EXPECT_EQ(System(stringEx("test \"$KARU_ENV_SET\" = two")), 0);
    EXPECT_EQ(WEXITSTATUS(System(stringEx("exit 3"))), 3);
    EXPECT_STREQ(GetOsName().c_str(), "Linux");
    EXPECT_GT(GetUptime(), 0.0);
}

bool Inner(const char* role)
{
    const char* inner = getenv("KARU_ENV_INNER");
    return inner && strcmp(inner, role) == 0;
}

// An exit handler registered before the first SetEnv runs after anything the
// manager could register, and still finds the variable. It needs a process
// whose manager is not made yet: this test program, run again on this test.
TEST(Environment, ValuesStayForTheExitHandlers)
{
    if (!Inner("exit")) {
        const ChildEnd end =
            RunSelf("/proc/self/exe", "Environment.ValuesStayForTheExitHandlers", {"KARU_ENV_INNER=exit"});
        EXPECT_EQ(end.status, 0) << "3: the variable was gone in the exit handler";
        return;
    }
    atexit([] {
        const char* value = getenv("KARU_ENV_AT_EXIT");
        _exit(value && strcmp(value, "kept") == 0 ? 0 : 3);
    });
    SetEnv(stringEx("KARU_ENV_AT_EXIT"), stringEx("kept"));
    exit(1);
}

// Wide names and values go through the system's encoding: run again with a
// UTF-8 locale in the environment, the bytes are UTF-8's, which the test
// states itself.
TEST(Environment, WideTextTravelsInTheSystemEncoding)
{
    if (!Inner("wide")) {
        const ChildEnd end =
            RunSelf("/proc/self/exe", "Environment.WideTextTravelsInTheSystemEncoding",
                    {"LC_ALL=C.UTF-8", "LANG=C.UTF-8", "KARU_ENV_INNER=wide", "KARU_ENV_PRESET=caf\xc3\xa9"});
        EXPECT_EQ(end.status, 0) << "the run in a UTF-8 locale failed";
        return;
    }
    SetEnv(wstringEx(L"KARU_ENV_CAFE"), wstringEx(L"caf\u00e9 \u4e2d"));
    ASSERT_NE(getenv("KARU_ENV_CAFE"), nullptr);
    EXPECT_STREQ(getenv("KARU_ENV_CAFE"), "caf\xc3\xa9 \xe4\xb8\xad");
    EXPECT_EQ(std::wstring(GetEnv(wstringEx(L"KARU_ENV_PRESET")).c_str()), L"caf\u00e9");
    EXPECT_EQ(std::wstring(ExpandEnvStrings(wstringEx(L"<$KARU_ENV_PRESET>")).c_str()), L"<caf\u00e9>");
    SetEnv(wstringEx(L"KARU_\u00c9"), wstringEx(L"x"));
    EXPECT_STREQ(getenv("KARU_\xc3\x89"), "x");
}

// The lock covers the start of the shell only: a reader in another thread
// does not wait for the command to end.
TEST(EnvironmentConcurrency, AReaderDoesNotWaitForACommand)
{
    const Deadline deadline(std::chrono::seconds(60), "EnvironmentConcurrency.AReaderDoesNotWaitForACommand");
    using Clock = std::chrono::steady_clock;
    std::thread command([] { EXPECT_EQ(System(stringEx("sleep 2")), 0); });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the shell has started
    const auto start = Clock::now();
    SetEnv(stringEx("KARU_ENV_DURING"), stringEx("yes"));
    EXPECT_STREQ(GetEnv(stringEx("KARU_ENV_DURING")).c_str(), "yes");
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    command.join();
    EXPECT_LT(waited, 1000) << "the reader waited for the command";
}

}  // namespace

// Command-line records: how arguments become switches, names and values, and
// how the queries count occurrences and patterns.
#include "cmdline.h"
#include "methods.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace Karu;

namespace {

CCmdLine Parsed(std::vector<const char*> args)
{
    args.insert(args.begin(), "ostrel");
    CCmdLine cmdLine(stringEx("-"), stringEx(":="), 1);
    cmdLine.Parse(static_cast<int>(args.size()), args.data());
    return cmdLine;
}

std::string S(const stringEx& s)
{
    return std::string(s.data(), s.size());
}

TEST(CmdLine, ArgumentsBecomeNamesAndValues)
{
    struct Row {
        const char* arg;
        bool isSwitch;
        const char* name;
        const char* value;
    } rows[] = {
        {"-f", true, "f", ""},
        {"-f:", true, "f", ""},                        // a suffix with nothing behind
        {"-dlm:=>", true, "dlm", "=>"},                // only the first suffix ends the name
        {"-encin=UTF-8", true, "encin", "UTF-8"},
        {"-argfile:a=b.txt", true, "argfile", "a=b.txt"},
        {"-FIC", true, "FIC", ""},                     // the name keeps its case
        {"-", true, "", ""},                           // a switch without a name
        {"-:x", true, "", "x"},
        {"a-b", false, "", ""},                        // a dash inside is no prefix
        {"/s", false, "", ""},                         // only "-" begins a switch here
        {"?", false, "", ""},
        {"", false, "", ""},
        {"*.txt", false, "", ""},
    };
    for (const Row& row : rows) {
        const CCmdLine cmdLine = Parsed({row.arg});
        ASSERT_EQ(cmdLine.RecordCount(), 2u) << row.arg;
        EXPECT_EQ(cmdLine.SwitchCount(), row.isSwitch ? 1u : 0u) << row.arg;
        EXPECT_EQ(S(cmdLine.Records()[1].raw), row.arg);
        EXPECT_EQ(S(cmdLine.Records()[1].name), row.name) << row.arg;
        EXPECT_EQ(S(cmdLine.Records()[1].value), row.value) << row.arg;
    }
}

TEST(CmdLine, QueriesByName)
{
    const CCmdLine cmdLine = Parsed({"-FIC", "a.txt", "-dlm:1", "-DLM:2", "-?", "b.txt", "-s"});
    struct Row {
        const char* why;
        int32_t got, expected;
    } rows[] = {
        {"case-blind", cmdLine.FindSwitch("fic"), 1},
        {"exact refuses other case", cmdLine.FindSwitchExact("fic"), -1},
        {"exact takes same case", cmdLine.FindSwitchExact("FIC"), 1},
        {"second occurrence", cmdLine.FindSwitch("dlm", 1), 4},
        {"no third occurrence", cmdLine.FindSwitch("dlm", 2), -1},
        {"question mark", cmdLine.FindSwitchExact("?"), 5},
        {"empty name is never found", cmdLine.FindSwitch(""), -1},
        {"a prefix of a name is no match", cmdLine.FindSwitch("d"), -1},
        {"the program name is not searched", cmdLine.FindSwitch("ostrel"), -1},
        {"exact count", static_cast<int32_t>(cmdLine.CountSwitch("dlm")), 1},
    };
    for (const Row& row : rows)
        EXPECT_EQ(row.got, row.expected) << row.why;

    EXPECT_EQ(S(cmdLine.GetValue("DLM")), "1") << "the first occurrence counts";
    EXPECT_EQ(S(cmdLine.GetValue("dlm", 1)), "2");
    EXPECT_EQ(S(cmdLine.GetValueExact("DLM", 0)), "2");
    EXPECT_EQ(S(cmdLine.GetValue("encin")), "");
    EXPECT_EQ(cmdLine.PatternCount(), 2);
    EXPECT_EQ(S(cmdLine.GetFileArg(0)), "a.txt");
    EXPECT_EQ(S(cmdLine.GetFileArg(1)), "b.txt");
    EXPECT_EQ(S(cmdLine.GetFileArg(2)), "");

    std::vector<CMD_ARG> copy;
    EXPECT_EQ(cmdLine.CopyArgs(copy), 7u);
    EXPECT_EQ(S(copy.front().raw), "-FIC");
}

TEST(CmdLine, ANamelessSwitchTakesAPatternOutOfTheCount)
{
    // "-" is counted as a switch, yet found as a pattern: the pattern behind
    // it falls out of the range.
    const CCmdLine cmdLine = Parsed({"-", "x.txt"});
    EXPECT_EQ(cmdLine.PatternCount(), 1);
    EXPECT_EQ(S(cmdLine.GetFileArg(0)), "-");
    EXPECT_EQ(S(cmdLine.GetFileArg(1)), "");
}

TEST(CmdLine, NoArgumentsAndTheWideForm)
{
    CCmdLine empty(stringEx("-"), stringEx(":="), 1);
    EXPECT_EQ(empty.Parse(0, nullptr), 0u);
    EXPECT_EQ(empty.RecordCount(), 0u);
    EXPECT_EQ(empty.PatternCount(), -1);

    const wchar_t* argv[] = {L"prog", L"-Enc=\u00E9t\u00E9", L"file"};
    CCmdLineW wide(wstringEx(L"-"), wstringEx(L":="), 1);
    EXPECT_EQ(wide.Parse(3, argv), 1u);
    EXPECT_EQ(wide.GetValue(wstringEx(L"enc")), wstringEx(L"\u00E9t\u00E9"));
    EXPECT_EQ(wide.GetFileArg(0), wstringEx(L"file"));
}

TEST(CmdLine, MethodPrecedenceIsFixedNotPositional)
{
    struct Row {
        std::vector<const char*> args;
        int32_t method;
        bool ignoreCase, ignoreNewline;
    } rows[] = {
        {{}, kMethodNone, false, false},
        {{"-F"}, kMethodLiteral, false, false},
        {{"-fic:"}, kMethodLiteralNoCase, false, false},
        {{"-fic", "-f"}, kMethodLiteral, false, false},  // f wins wherever it stands
        {{"-rnnlic", "-r"}, kMethodRegex, false, false},
        {{"-ric"}, kMethodRegex, true, false},
        {{"-rnnl"}, kMethodRegex, false, true},
        {{"-RNNLIC"}, kMethodRegex, true, true},
        {{"-exp", "x"}, kMethodNone, false, false},
    };
    for (const Row& row : rows) {
        const METHOD_CHOICE choice = SelectMethod(Parsed(row.args));
        const std::string label = row.args.empty() ? "(none)" : row.args.front();
        EXPECT_EQ(choice.method, row.method) << label;
        EXPECT_EQ(choice.ignoreCase, row.ignoreCase) << label;
        EXPECT_EQ(choice.ignoreNewline, row.ignoreNewline) << label;
    }
}

}  // namespace

// The tool from the outside: usage, exit statuses, literal replace over
// trees of files, stream mode, the per-file failures and the two replace
// forms giving the same bytes.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "cli_harness.h"

using namespace ostrel_test;
using namespace std::string_literals;

namespace {

using Args = std::vector<std::string>;
using Files = std::map<std::string, std::string>;

std::set<std::string> Lines(const std::string& text)
{
    std::set<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (!line.empty())
            lines.insert(line);
    return lines;
}

TEST(Usage, ShownForHelpOrWhenMethodOrArgumentsFileIsMissing)
{
    Sandbox box;
    box.Put("p.txt", "a->b\n");
    const RunResult reference = box.Run({});
    ASSERT_EQ(reference.status, 0);
    const std::string& usage = reference.out;
    EXPECT_EQ(usage.substr(0, 81), "\n" + std::string(79, '=') + "\n");
    EXPECT_NE(usage.find("                                  batch version\n"), std::string::npos);
    EXPECT_NE(usage.find("-> \x01HER_API\n"), std::string::npos) << "the example prints byte 1";
    EXPECT_NE(usage.find("herfunc\x01\n"), std::string::npos);
    EXPECT_NE(usage.find("  -rnnlic: - regular expresion find ignore newline ignore case\n"), std::string::npos);
    EXPECT_EQ(usage.substr(usage.size() - 46), "  ostrel *.txt *.htm -f -argfile:patterns.txt\n");
    std::istringstream lines(usage);
    for (std::string line; std::getline(lines, line);)
        EXPECT_LE(line.size(), 79u) << line;

    const Args rows[] = {
        {"-h"}, {"-H", "-f", "-argfile:p.txt"}, {"-?"}, {"-f", "-argfile:p.txt", "-?"},
        {"-f"},                  // no arguments file
        {"-argfile:p.txt"},      // no method
        {"-exp", "-argfile:p.txt", "a.txt"},
        {"-encin:NOPE", "-f"},   // nothing else is looked at before the usage
    };
    for (const Args& args : rows) {
        const RunResult run = box.Run(args);
        EXPECT_EQ(run.status, 0) << args[0];
        EXPECT_EQ(run.out, usage) << args[0];
        EXPECT_EQ(run.err, "") << args[0];
    }
    // A bare "?" is a file pattern, not a request for help.
    const RunResult bare = box.Run({"?", "-f", "-argfile:p.txt"});
    EXPECT_EQ(bare.status, 255);
    EXPECT_EQ(bare.err, "[FATAL ERROR] can't find the file(s)!\n");
}

TEST(Replace, LiteralPairsOverFilesAndTrees)
{
    const Files tree = {
        {"p.txt", "cat->lion\ndog->wolf\n"},
        {"a.txt", "cat dog cat"},
        {".hidden.txt", "cat"},
        {"mixed.txt", "Cat CAT cat"},
        {"sub/b.txt", "dog\r\ndog"},
        {"sub/deep/c.txt", "cat"},
        {"sub/deep/other.dat", "cat"},
    };
    struct Row {
        const char* why;
        Args args;
        Files changed;  // every other file keeps its bytes
        int status = 0;
    } rows[] = {
        {"top level only, hidden names included",
         {"*.txt", "-f", "-argfile:p.txt"},
         {{"a.txt", "lion wolf lion"}, {".hidden.txt", "lion"}, {"mixed.txt", "Cat CAT lion"}}},
        {"sub-directories with -s",
         {"*.txt", "-s", "-f", "-argfile:p.txt"},
         {{"a.txt", "lion wolf lion"}, {".hidden.txt", "lion"}, {"mixed.txt", "Cat CAT lion"},
          {"sub/b.txt", "wolf\r\nwolf"}, {"sub/deep/c.txt", "lion"}}},
        {"-errstop leaves hidden names out",
         {"*.txt", "-s", "-f", "-argfile:p.txt", "-errstop"},
         {{"a.txt", "lion wolf lion"}, {"mixed.txt", "Cat CAT lion"}, {"sub/b.txt", "wolf\r\nwolf"},
          {"sub/deep/c.txt", "lion"}}},
        {"ignoring case", {"mixed.txt", "-FIC:", "-argfile:p.txt"}, {{"mixed.txt", "lion lion lion"}}},
        {"a pattern with a directory part", {"sub/deep/*", "-f", "-argfile=p.txt"},
         {{"sub/deep/c.txt", "lion"}, {"sub/deep/other.dat", "lion"}}},
        {"a file named twice is processed twice", {"a.txt", "a.txt", "-f", "-argfile:p.txt"},
         {{"a.txt", "lion wolf lion"}}},
        {"a pattern that matches nothing is no error", {"none.*", "a.txt", "-f", "-argfile:p.txt"},
         {{"a.txt", "lion wolf lion"}}},
        {"nothing found at all", {"none.*", "-f", "-argfile:p.txt"}, {}, 255},
        {"-stdout leaves the files alone", {"*.txt", "-f", "-argfile:p.txt", "-stdout"}, {}},
    };
    for (const Row& row : rows) {
        Sandbox box;
        for (const auto& [name, bytes] : tree)
            box.Put(name, bytes);
        const RunResult run = box.Run(row.args);
        EXPECT_EQ(run.status, row.status) << row.why << "\n" << run.err;
        for (const auto& [name, bytes] : tree) {
            const auto changed = row.changed.find(name);
            EXPECT_EQ(box.Get(name), changed == row.changed.end() ? bytes : changed->second) << row.why << ": " << name;
        }
    }
}

TEST(Replace, CountsOutputAndUntouchedFiles)
{
    Sandbox box;
    box.Put("p.txt", "a->b\n");
    box.Put("one.txt", "a a a");
    box.Put("none.txt", "xyz");
    box.Put("empty.txt", "");
    box.Put("sig.txt", "\xEF\xBB\xBF");
    for (const char* name : {"none.txt", "empty.txt", "sig.txt"})
        box.Age(name);

    RunResult run = box.Run({"*.txt", "-f", "-argfile:./p.txt", "-frc", "-trc"}, {"", "C.UTF-8"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "\n## 3 replacements in file: " + box.Path("one.txt") + "\n\n## total replaced 3 matchs\n");
    EXPECT_EQ(box.Get("one.txt"), "b b b");
    EXPECT_EQ(box.Get("p.txt"), "a->b\n") << "the arguments file is never rewritten";
    for (const char* name : {"none.txt", "empty.txt", "sig.txt"})
        EXPECT_EQ(box.ModTime(name), 1000000000) << name << " must not be rewritten";

    // -stdout prints every text, changed or not, and no per-file count; an
    // empty file prints nothing.
    box.Put("one.txt", "a");
    run = box.Run({"one.txt", "none.txt", "empty.txt", "-f", "-argfile:p.txt", "-stdout", "-frc", "-trc"});
    EXPECT_EQ(run.out, "bxyz\n## total replaced 1 matchs\n");
    EXPECT_EQ(box.Get("one.txt"), "a");

    // No replacement at all: no total line either.
    run = box.Run({"none.txt", "-f", "-argfile:p.txt", "-trc"});
    EXPECT_EQ(run.out, "");

    // Across a tree the per-file lines come in search order; each names its file.
    box.Put("sub/two.txt", "a a");
    box.Put("sub/deeper/one.txt", "a");
    box.Put("one.txt", "a");
    run = box.Run({"one.txt", "-s", "-f", "-argfile:p.txt", "-frc"});
    EXPECT_EQ(Lines(run.out), (std::set<std::string>{"## 1 replacements in file: " + box.Path("one.txt"),
                                                     "## 1 replacements in file: " + box.Path("sub/deeper/one.txt")}));

    // A pair that removes the whole text leaves an empty file behind.
    box.Put("gone.txt", "a");
    EXPECT_EQ(box.Run({"gone.txt", "-f", "-argfile:p.txt"}).status, 0);
    box.Put("q.txt", "a->\n");
    EXPECT_EQ(box.Run({"gone.txt", "-f", "-argfile:q.txt"}).status, 0);
    EXPECT_EQ(box.Get("gone.txt"), "b");
    box.Put("r.txt", "b\n");
    EXPECT_EQ(box.Run({"gone.txt", "-f", "-argfile:r.txt"}).status, 0);
    EXPECT_EQ(box.Get("gone.txt"), "");
}

TEST(Replace, PairsFileAsWritten)
{
    setenv("OSTREL_T_WHO", "world", 1);
    struct Row {
        const char* why;
        std::string pairs;
        std::string text, expected;
        Args extra = {};
    } rows[] = {
        {"later pairs see earlier output", "a->b\nb->c\n", "ab", "cc"},
        {"CR LF pairs, blank lines and line escapes", "x->y\r\n\r\n  \r\n\\n->\\r\\n\r\n", "x\n", "y\r\n"},
        {"environment references", "$OSTREL_T_WHO->${OSTREL_T_WHO}!\n", "hello world", "hello world!"},
        {"other delimiter", "a=>b\n", "a", "b", {"-dlm:=>"}},
        {"empty delimiter drops all pairs", "a->b\n", "a", "a", {"-dlm:"}},
    };
    for (const Row& row : rows) {
        Sandbox box;
        box.Put("p.txt", row.pairs);
        box.Put("t.txt", row.text);
        Args args = {"t.txt", "-f", "-argfile:p.txt"};
        args.insert(args.end(), row.extra.begin(), row.extra.end());
        const RunResult run = box.Run(args);
        EXPECT_EQ(run.status, 0) << row.why << run.err;
        EXPECT_EQ(Visible(box.Get("t.txt")), Visible(row.expected)) << row.why;
    }
}

TEST(Stream, StandardInputExactly)
{
    // What comes out is the input, replaced: nothing is added at its end.
    struct Row {
        const char* why;
        Args args;
        std::string input, out;
    } rows[] = {
        {"no pattern means stream mode", {"-f", "-argfile:p.txt", "-encin:ISO-8859-1"}, "cat", "lion"},
        {"empty input, empty output", {"-f", "-argfile:p.txt", "-encin:ISO-8859-1"}, "", ""},
        {"-stdio ignores the patterns", {"t.txt", "-stdio", "-f", "-argfile:p.txt", "-encin:ISO-8859-1"}, "cat",
         "lion"},
        {"no count per file, a total at the end",
         {"-f", "-argfile:p.txt", "-encin:ISO-8859-1", "-frc", "-trc"}, "cat cat",
         "lion lion\n## total replaced 2 matchs\n"},
        {"no end of input to match", {"-f", "-argfile:m.txt", "-encin:ISO-8859-1", "-encarg:ISO-8859-1"}, "x",
         "x"},
        {"in pieces as well, with -noexp", {"-f", "-noexp", "-argfile:p.txt", "-encin:UTF-8"}, "cat\ncat",
         "lion\nlion"},
    };
    for (const Row& row : rows) {
        Sandbox box;
        box.Put("p.txt", "cat->lion\n");
        box.Put("m.txt", "\xFF-><end>\n");
        box.Put("t.txt", "cat");
        const RunResult run = box.Run(row.args, {row.input});
        EXPECT_EQ(run.status, 0) << row.why << run.err;
        EXPECT_EQ(Visible(run.out), Visible(row.out)) << row.why;
        EXPECT_EQ(box.Get("t.txt"), "cat") << row.why;
    }
}

TEST(Failures, MessagesAndStatuses)
{
    Sandbox box;
    box.Put("p.txt", "a->b\n");
    box.Put("dir/x.txt", "a");
    struct Row {
        const char* why;
        Args args;
        int status;
        std::string errStart;
    } rows[] = {
        {"missing arguments file", {"-f", "-argfile:missing.txt"}, 255,
         "[FATAL ERROR] Karu runtime lib error: "},
        {"arguments file is a directory", {"-f", "-argfile:dir"}, 255, "[FATAL ERROR] Karu runtime lib error: "},
        {"empty arguments path", {"-f", "-argfile:"}, 255,
         "[FATAL ERROR] Karu runtime lib error: CDir::ConvToFullPath - nothing to convert"},
        {"a directory is no file", {"dir", "-f", "-argfile:p.txt"}, 255, "[FATAL ERROR] can't find the file(s)!\n"},
    };
    for (const Row& row : rows) {
        const RunResult run = box.Run(row.args);
        EXPECT_EQ(run.status, row.status) << row.why;
        EXPECT_EQ(run.err.substr(0, row.errStart.size()), row.errStart) << row.why << "\n" << run.err;
        EXPECT_EQ(run.out, "") << row.why;
    }
    EXPECT_EQ(box.Get("dir/x.txt"), "a");
}

TEST(Failures, UnreadableAndUnwritableFilesAreReportedAndSkipped)
{
    Sandbox box;
    box.Put("p.txt", "a->b\n");
    struct Row {
        const char* why;
        mode_t badMode;
        const char* head;
        bool errorStop;
    } rows[] = {
        {"cannot read", 0000, "[ERROR] failed reading file: ", false},
        {"cannot read, stop", 0000, "[ERROR] failed reading file: ", true},
        {"cannot write", 0444, "[ERROR] can't write to file: ", false},
        {"cannot write, stop", 0444, "[ERROR] can't write to file: ", true},
    };
    for (const Row& row : rows) {
        box.Put("1bad.txt", "a", row.badMode);
        box.Put("2good.txt", "a");
        box.Put("3good.txt", "a");
        Args args = {"1bad.txt", "2good.txt", "3good.txt", "-f", "-argfile:p.txt", "-trc"};
        if (row.errorStop)
            args.push_back("-errstop");
        const RunResult run = box.Run(args, {"", "C", true});
        if (run.status == kCouldNotStart)
            GTEST_SKIP() << "the program cannot be run as an ordinary user here";
        const std::string head = row.head + box.Path("1bad.txt") + "\n@ ";
        EXPECT_EQ(run.err.substr(0, head.size()), head) << row.why << "\n" << run.err;
        EXPECT_EQ(run.err.back(), '\n') << row.why;
        chmod(box.Path("1bad.txt").c_str(), 0666);
        EXPECT_EQ(box.Get("1bad.txt"), "a") << row.why;
        if (row.errorStop) {
            EXPECT_EQ(run.status, 255) << row.why;
            EXPECT_EQ(box.Get("2good.txt"), "a") << row.why << ": the run stops at the failure";
            EXPECT_EQ(run.out, "") << row.why;
        } else {
            EXPECT_EQ(run.status, 0) << row.why;
            EXPECT_EQ(box.Get("3good.txt"), "b") << row.why << ": the run goes on";
            EXPECT_EQ(run.out, "\n## total replaced 2 matchs\n") << row.why << ": the failed file is not counted";
        }
    }
}

TEST(Replace, InPlaceFormWritesTheSameBytes)
{
    struct Row {
        const char* why;
        std::string pairs, text;
        const char* method;
    } rows[] = {
        {"growing and shrinking pairs", "a->xyz\nxyzxyz->-\n", "aaaaa ba a", "-f"},
        {"matches at both ends", "ab->\n", "abxxab", "-f"},
        {"replace that holds the find", "o->oo\n", "foo boo", "-f"},
        {"case-blind", "AB->c\n", "abABaBAb", "-fic"},
        {"many matches", "x->yy\n", std::string(5000, 'x'), "-f"},
    };
    for (const Row& row : rows) {
        Sandbox box;
        box.Put("p.txt", row.pairs);
        box.Put("copy.txt", row.text);
        box.Put("inplace.txt", row.text);
        const RunResult copied = box.Run({"copy.txt", row.method, "-argfile:p.txt", "-trc"});
        const RunResult inPlace = box.Run({"inplace.txt", row.method, "-argfile:p.txt", "-trc", "-noexp"});
        EXPECT_EQ(copied.status, 0) << row.why;
        EXPECT_EQ(inPlace.status, 0) << row.why;
        EXPECT_EQ(copied.out, inPlace.out) << row.why;
        EXPECT_EQ(box.Get("copy.txt"), box.Get("inplace.txt")) << row.why;
        EXPECT_NE(box.Get("copy.txt"), row.text) << row.why;
    }
}

}  // namespace

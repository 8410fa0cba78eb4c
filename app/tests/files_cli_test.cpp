// The tool and the files users point it at: patterns with "./" and "..",
// names holding wildcard characters, FIFOs, sockets and devices, trees with
// broken links, loops and unreadable directories, writes that cannot finish
// (a file-size limit), and standard output that refuses what it is given.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <map>

#include "cli_harness.h"

using namespace ostrel_test;

namespace {

using Args = std::vector<std::string>;
using Files = std::map<std::string, std::string>;

// Every file of `tree` holds what `changed` says, or else its old bytes.
void ExpectFiles(const Sandbox& box, const Files& tree, const Files& changed, const std::string& why)
{
    for (const auto& [name, bytes] : tree) {
        const auto it = changed.find(name);
        EXPECT_EQ(box.Get(name), it == changed.end() ? bytes : it->second) << why << ": " << name;
    }
}

bool Contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

TEST(FileSelection, DotDirectoriesAndWildcardCharactersInNames)
{
    const Files tree = {
        {"p.txt", "cat->dog\n"}, {"t.txt", "cat"}, {"*note.txt", "cat"}, {"x?y.txt", "cat"},
        {"sub/s.txt", "cat"},
    };
    struct Row {
        const char* why;
        Args patterns;
        Files changed;
    } rows[] = {
        {"a name behind ./", {"./t.txt"}, {{"t.txt", "dog"}}},
        {"a wildcard behind ./", {"./*.txt"}, {{"t.txt", "dog"}, {"*note.txt", "dog"}, {"x?y.txt", "dog"}}},
        {"up again through ..", {"sub/../t.txt"}, {{"t.txt", "dog"}}},
        {"out and back in", {"../work/sub/./s.txt"}, {{"sub/s.txt", "dog"}}},
        {"a star and a question mark in names", {"*.txt"},
         {{"t.txt", "dog"}, {"*note.txt", "dog"}, {"x?y.txt", "dog"}}},
        {"a name holding a star, named", {"*note.txt"}, {{"*note.txt", "dog"}}},
    };
    for (const Row& row : rows) {
        Sandbox box;
        for (const auto& [name, bytes] : tree)
            box.Put(name, bytes);
        Args args = row.patterns;
        args.insert(args.end(), {"-f", "-argfile:p.txt"});
        const RunResult run = box.Run(args);
        EXPECT_EQ(run.status, 0) << row.why << "\n" << run.err;
        ExpectFiles(box, tree, row.changed, row.why);
    }
}

TEST(FileSelection, FifosSocketsAndDevicesAreSkippedWithANotice)
{
    // Reading a FIFO waits for a writer that never comes, and a device such
    // as /dev/zero never ends: both are skipped, and the run goes on.
    Sandbox box;
    box.Put("p.txt", "cat->dog\n");
    box.Put("a.txt", "cat");
    ASSERT_EQ(mkfifo(box.Path("fifo.txt").c_str(), 0666), 0);
    ASSERT_EQ(symlink("/dev/null", box.Path("null.txt").c_str()), 0);
    const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string socketPath = box.Path("sock.txt");
    ASSERT_LT(socketPath.size(), sizeof address.sun_path);
    socketPath.copy(address.sun_path, socketPath.size());
    ASSERT_EQ(bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);

    // A regression would wait on the FIFO, or take memory from /dev/zero
    // until none is left: every run gets a short deadline and a bound.
    const auto bounded = [](const char* locale) {
        RunOptions options;
        options.locale = locale;
        options.addressSpaceLimit = rlim_t(1) << 31;
        options.deadlineSeconds = 20;
        return options;
    };
    struct Row {
        const char* why;
        Args args;
        std::vector<std::string> skipped;
        RunOptions options;
    } rows[] = {
        {"a FIFO, a socket and a link to a device among files", {"*.txt", "-f", "-argfile:p.txt"},
         {box.Path("fifo.txt"), box.Path("null.txt"), box.Path("sock.txt")}, bounded("C")},
        {"the same in the by-pieces UTF-8 path", {"*.txt", "-f", "-argfile:p.txt"},
         {box.Path("fifo.txt"), box.Path("null.txt"), box.Path("sock.txt")}, bounded("C.UTF-8")},
        {"a device that never ends", {"/dev/zero", "a.txt", "-f", "-argfile:p.txt"}, {"/dev/zero"},
         bounded("C.UTF-8")},
        {"a device named with -stdout", {"/dev/zero", "a.txt", "-f", "-argfile:p.txt", "-stdout"}, {"/dev/zero"},
         bounded("C")},
    };
    for (const Row& row : rows) {
        box.Put("a.txt", "cat");
        const RunResult run = box.Run(row.args, row.options);
        EXPECT_EQ(run.status, 0) << row.why << "\n" << run.err;
        for (const std::string& path : row.skipped)
            EXPECT_TRUE(Contains(run.err, "[NOTICE] skipped, not a regular file: " + path + "\n"))
                << row.why << ": " << path << "\n" << run.err;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), static_cast<long>(row.skipped.size()))
            << row.why << ": one line each\n" << run.err;
        const bool toStdout = row.args.back() == "-stdout";
        EXPECT_EQ(box.Get("a.txt"), toStdout ? "cat" : "dog") << row.why << ": the run goes on";
        if (toStdout) {
            EXPECT_EQ(run.out, "dog") << row.why;
        }
    }
    close(sock);
}

TEST(TreeSearch, BrokenEntriesAreReportedAndSkippedOrStopTheRun)
{
    // One file a level, and beside them the entries a search cannot follow.
    const Files tree = {{"p.txt", "a->aa\n"}, {"top.txt", "a"}, {"sub/mid.txt", "a"}, {"sub/deep/low.txt", "a"}};
    const Files doneOnce = {{"top.txt", "aa"}, {"sub/mid.txt", "aa"}, {"sub/deep/low.txt", "aa"}};
    struct Row {
        const char* why;
        std::vector<std::pair<std::string, std::string>> links;  // target, link name
        std::vector<std::string> reported;                       // paths named on standard error
        bool unreadableDir = false;
    } rows[] = {
        {"a dangling link", {{"nowhere", "sub/gone.txt"}}, {"sub/gone.txt"}},
        {"a link loop", {{"loop2", "sub/loop1"}, {"loop1", "sub/loop2"}}, {"sub/loop1", "sub/loop2"}},
        {"a link back up the tree is entered once", {{"..", "sub/deep/up"}, {"../../sub", "sub/deep/again"}}, {}},
        {"a directory that cannot be read", {}, {"sub/locked/"}, true},
    };
    for (const Row& row : rows) {
        for (const bool stop : {false, true}) {
            Sandbox box;
            for (const auto& [name, bytes] : tree)
                box.Put(name, bytes);
            for (const auto& [target, name] : row.links)
                ASSERT_EQ(symlink(target.c_str(), box.Path(name).c_str()), 0) << name;
            if (row.unreadableDir) {
                box.Put("sub/locked/in.txt", "a");
                chmod(box.Path("sub/locked").c_str(), 0);
            }
            Args args = {"*.txt", "-s", "-f", "-argfile:p.txt"};
            if (stop)
                args.push_back("-errstop");
            const RunResult run = box.Run(args, {"", "C", row.unreadableDir});
            if (run.status == kCouldNotStart)
                GTEST_SKIP() << "the program cannot be run as an ordinary user here";
            const std::string why = std::string(row.why) + (stop ? ", -errstop" : "");
            // Each is reported; with -errstop the first one ends the run.
            size_t told = 0;
            for (const std::string& path : row.reported)
                told += Contains(run.err, "[ERROR] failed searching: " + box.Path(path) + "\n@ ");
            EXPECT_EQ(told, stop ? std::min<size_t>(1, row.reported.size()) : row.reported.size())
                << why << "\n" << run.err;
            if (row.reported.empty()) {
                EXPECT_EQ(run.status, 0) << why << "\n" << run.err;
                EXPECT_EQ(run.err, "") << why;
                ExpectFiles(box, tree, doneOnce, why);
            } else if (stop) {
                EXPECT_EQ(run.status, 255) << why;
                ExpectFiles(box, tree, {}, why + ": nothing done");
            } else {
                EXPECT_EQ(run.status, 0) << why << "\n" << run.err;
                ExpectFiles(box, tree, doneOnce, why + ": the other files are done");
            }
            chmod(box.Path("sub/locked").c_str(), 0777);
        }
    }
}

TEST(TreeSearch, BrokenEntriesThatCouldNotBeChosenAreNotReported)
{
    // A dangling link that no pattern could choose (an editor's lock file
    // left out with -errstop, a name the pattern does not match) is no
    // concern of the run.
    struct Row {
        const char* why;
        Args args;
        bool reported;
    } rows[] = {
        {"a name the pattern does not match", {"t.txt", "-f", "-argfile:p.txt"}, false},
        {"a hidden name left out by -errstop", {"*.txt", "-f", "-argfile:p.txt", "-errstop"}, false},
        {"a hidden name that is chosen", {"*.txt", "-f", "-argfile:p.txt"}, true},
    };
    for (const Row& row : rows) {
        Sandbox box;
        box.Put("p.txt", "a->b\n");
        box.Put("t.txt", "a");
        ASSERT_EQ(symlink("nowhere", box.Path("old.lnk").c_str()), 0);
        ASSERT_EQ(symlink("me@host.1234", box.Path(".#t.txt").c_str()), 0);
        const RunResult run = box.Run(row.args);
        EXPECT_EQ(run.status, 0) << row.why << "\n" << run.err;
        EXPECT_EQ(box.Get("t.txt"), "b") << row.why;
        EXPECT_EQ(run.err, row.reported ? "[ERROR] failed searching: " + box.Path(".#t.txt") + "\n@ " + run.err.substr(
                                                                                     run.err.find("@ ") + 2)
                                         : "")
            << row.why;
    }
}

TEST(FailedWrites, AFileThatCannotBeWrittenWholeIsLeftAsItWas)
{
    // A file-size limit of 8 KB: "big.txt" would grow past it, "small.txt"
    // stays below. The big file keeps its old bytes; the run goes on.
    const std::string big(6000, 'a');
    const Files tree = {{"p.txt", "a->aa\n"}, {"1big.txt", big}, {"2small.txt", "a"}};
    for (const bool stop : {false, true}) {
        for (const char* locale : {"C", "C.UTF-8"}) {  // whole text, and by pieces
            Sandbox box;
            for (const auto& [name, bytes] : tree)
                box.Put(name, bytes);
            Args args = {"1big.txt", "2small.txt", "-f", "-argfile:p.txt"};
            if (stop)
                args.push_back("-errstop");
            RunOptions options;
            options.locale = locale;
            options.fileSizeLimit = 8192;
            const RunResult run = box.Run(args, options);
            const std::string why = std::string(locale) + (stop ? ", -errstop" : "");
            EXPECT_EQ(run.err.rfind("[ERROR] can't write to file: " + box.Path("1big.txt") + "\n@ ", 0), 0u)
                << why << "\n" << run.err;
            EXPECT_EQ(box.Get("1big.txt"), big) << why << ": left as it was";
            EXPECT_EQ(run.status, stop ? 255 : 0) << why;
            EXPECT_EQ(box.Get("2small.txt"), stop ? "a" : "aa") << why;
        }
    }
}

TEST(FailedWrites, ARewriteKeepsInodeModeAndLinks)
{
    Sandbox box;
    box.Put("p.txt", "a->b\n");
    box.Put("f.txt", "a a", 0640);
    ASSERT_EQ(link(box.Path("f.txt").c_str(), box.Path("twin").c_str()), 0);
    struct stat before {}, after {};
    stat(box.Path("f.txt").c_str(), &before);
    const RunResult run = box.Run({"f.txt", "-f", "-argfile:p.txt"});
    EXPECT_EQ(run.status, 0) << run.err;
    stat(box.Path("f.txt").c_str(), &after);
    EXPECT_EQ(box.Get("twin"), "b b") << "the hard link sees the new content";
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_nlink, 2u);
}

TEST(StandardOutput, ARefusedWriteFailsAndAGoneReaderEndsQuietly)
{
    const Files tree = {{"p.txt", "a->b\n"}, {"1.txt", "a"}, {"2.txt", "a"}};
    const std::string refused = "[FATAL ERROR] can't write to standard output: ";
    struct Row {
        const char* why;
        Args args;
        bool full;  // /dev/full; otherwise a pipe whose reader has gone
        int status;
        Files changed;
    } rows[] = {
        {"stream mode", {"-f", "-argfile:p.txt"}, true, 255, {}},
        {"-stdout", {"1.txt", "2.txt", "-f", "-argfile:p.txt", "-stdout"}, true, 255, {}},
        {"the counts of a file run", {"1.txt", "2.txt", "-f", "-argfile:p.txt", "-frc"}, true, 255,
         {{"1.txt", "b"}}},
        {"the total", {"1.txt", "-f", "-argfile:p.txt", "-trc"}, true, 255, {{"1.txt", "b"}}},
        {"the listing", {"-listenc"}, true, 255, {}},
        {"the usage", {"-h"}, true, 255, {}},
        {"stream mode, reader gone", {"-f", "-argfile:p.txt"}, false, 0, {}},
        {"-stdout, reader gone", {"1.txt", "2.txt", "-f", "-argfile:p.txt", "-stdout"}, false, 0, {}},
        {"the listing, reader gone", {"-listcmp"}, false, 0, {}},
    };
    for (const Row& row : rows) {
        Sandbox box;
        for (const auto& [name, bytes] : tree)
            box.Put(name, bytes);
        RunOptions options;
        options.input = "a";
        if (row.full)
            options.stdoutPath = "/dev/full";
        else
            options.stdoutReaderGone = true;
        const RunResult run = box.Run(row.args, options);
        EXPECT_EQ(run.status, row.status) << row.why << "\n" << run.err;
        if (row.full) {
            EXPECT_EQ(run.err.rfind(refused, 0), 0u) << row.why << "\n" << run.err;
        } else {
            EXPECT_EQ(run.err, "") << row.why << ": quietly";
        }
        ExpectFiles(box, tree, row.changed, row.why);
    }
}

}  // namespace

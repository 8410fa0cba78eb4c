// Standard input is worked a piece at a time: output comes out while input is
// still coming in, with or without line feeds, and memory stays at a few
// pieces whatever the input's size. A file without line feeds is worked in
// pieces too.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>

#include <chrono>

#include "cli_harness.h"

using namespace ostrel_test;

namespace {

using Args = std::vector<std::string>;

// Runs the tool on pipes: writes all of `input` while reading what comes
// out, and reports how much had come out by the time the input was all
// taken in (waiting for the first output up to `deadline` then), before
// standard input is closed. Then reads the rest.
struct PipeRun {
    size_t outBeforeEnd = 0;
    std::string out;
    int status = -1;
};

PipeRun RunOnPipes(const Sandbox& box, const Args& args, const std::string& input,
                   std::chrono::seconds deadline = std::chrono::seconds(30))
{
    int in[2], out[2];
    if (pipe(in) != 0 || pipe(out) != 0)
        return {};
    const pid_t child = fork();
    if (child == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        close(in[0]);
        close(in[1]);
        close(out[0]);
        close(out[1]);
        if (chdir(box.work.c_str()) != 0)
            _exit(kCouldNotStart);
        setenv("LC_ALL", "C.UTF-8", 1);
        ExecProgram(args);
    }
    close(in[0]);
    close(out[1]);
    fcntl(in[1], F_SETFL, O_NONBLOCK);
    PipeRun run;
    const auto until = std::chrono::steady_clock::now() + deadline;
    auto readSome = [&](int timeoutMs) {
        pollfd p{out[0], POLLIN, 0};
        if (poll(&p, 1, timeoutMs) <= 0)
            return false;
        char buffer[65536];
        const ssize_t got = read(out[0], buffer, sizeof buffer);
        if (got <= 0)
            return false;
        run.out.append(buffer, static_cast<size_t>(got));
        return true;
    };
    for (size_t written = 0; written < input.size() && std::chrono::steady_clock::now() < until;) {
        pollfd p[2] = {{in[1], POLLOUT, 0}, {out[0], POLLIN, 0}};
        poll(p, 2, 100);
        if (p[1].revents & POLLIN)
            readSome(0);
        if (p[0].revents & POLLOUT) {
            const ssize_t put = write(in[1], input.data() + written, std::min<size_t>(input.size() - written, 65536));
            if (put > 0)
                written += static_cast<size_t>(put);
        }
    }
    // All input is in: a tool that streams has written most of it by now.
    while (run.out.empty() && std::chrono::steady_clock::now() < until)
        readSome(100);
    run.outBeforeEnd = run.out.size();
    close(in[1]);
    while (std::chrono::steady_clock::now() < until) {
        pollfd p{out[0], POLLIN, 0};
        if (poll(&p, 1, 100) <= 0)
            continue;
        char buffer[65536];
        const ssize_t got = read(out[0], buffer, sizeof buffer);
        if (got <= 0)
            break;
        run.out.append(buffer, static_cast<size_t>(got));
    }
    close(out[0]);
    if (std::chrono::steady_clock::now() >= until)
        kill(child, SIGKILL);  // a hang fails the row instead of the whole run
    int status = 0;
    waitpid(child, &status, 0);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return run;
}

std::string Repeat(const std::string& unit, size_t bytes)
{
    std::string text;
    while (text.size() < bytes)
        text += unit;
    return text;
}

TEST(Streaming, OutputComesWhileInputIsStillComing)
{
    struct Row {
        const char* why;
        Args args;
        std::string unit, expectedUnit;
    } rows[] = {
        {"lines", {"-f", "-argfile:p.txt"}, "a cat and a dog\n", "a lion and a dog\n"},
        {"no line feed at all", {"-f", "-argfile:p.txt"}, "a cat and a dog, ", "a lion and a dog, "},
        {"case-blind, no line feed", {"-fic", "-argfile:p.txt"}, "a Cat and a dog ", "a lion and a dog "},
        {"in place", {"-f", "-noexp", "-argfile:p.txt"}, "a cat and a dog\n", "a lion and a dog\n"},
        {"a pattern within lines", {"-r", "-argfile:p.txt"}, "a cat and a dog\n", "a lion and a dog\n"},
        {"a pattern, bytes that are no UTF-8", {"-r", "-argfile:p.txt"}, "a cat \xFF\xC3 dog\n",
         "a lion \xFF\xC3 dog\n"},
    };
    for (const Row& row : rows) {
        Sandbox box;
        box.Put("p.txt", "cat->lion\n");
        const std::string input = Repeat(row.unit, 1 << 20);
        const PipeRun run = RunOnPipes(box, row.args, input);
        EXPECT_EQ(run.status, 0) << row.why;
        EXPECT_GT(run.outBeforeEnd, 0u) << row.why << ": nothing came out before the input ended";
        EXPECT_TRUE(run.out == Repeat(row.expectedUnit, run.out.size())) << row.why;
        EXPECT_EQ(run.out.size() / row.expectedUnit.size(), input.size() / row.unit.size()) << row.why;
    }
}

// Memory stays at a few pieces for a stream, and near the file's size for a
// file without line feeds, whatever their size. A child's peak counts the
// pages it shared with this process when it was forked, so the input goes to
// a file a little at a time and this process stays small.
TEST(Streaming, MemoryStaysAtAFewPieces)
{
    // Sanitizers keep freed memory in quarantine: a resident size then says
    // nothing about the program.
    if (kSanitized)
        GTEST_SKIP() << "resident sizes mean nothing under a sanitizer";
    constexpr size_t kUnits = size_t(3) << 20;  // of 16 bytes: 48 MB
    struct Row {
        const char* why;
        const char* unit;
        bool file;
        long limitKb;
    } rows[] = {
        {"a stream of lines", "a cat and a dog\n", false, 24 << 10},
        {"a stream without line feeds", "a cat and a dog ", false, 24 << 10},
        {"a file without line feeds, in place", "a cat and a dog ", true, (48 + 48 / 2 + 16) << 10},
    };
    for (const Row& row : rows) {
        Sandbox box;
        box.Put("p.txt", "cat->lion\n");
        {
            std::ofstream input(box.Path("t.txt"), std::ios::binary);
            const std::string block = Repeat(row.unit, 1 << 16);
            for (size_t written = 0; written < kUnits * 16; written += block.size())
                input << block;
        }
        malloc_trim(0);
        RunOptions options;
        options.locale = "C.UTF-8";
        RunResult run;
        if (row.file) {
            run = box.Run({"t.txt", "-f", "-argfile:p.txt"}, options);
            struct stat status {};
            stat(box.Path("t.txt").c_str(), &status);
            EXPECT_EQ(static_cast<size_t>(status.st_size), kUnits * 17) << row.why;
        } else {
            options.inputFile = box.Path("t.txt");
            run = box.Run({"-f", "-argfile:p.txt"}, options);
            EXPECT_EQ(run.out.size(), kUnits * 17) << row.why;
        }
        EXPECT_EQ(run.status, 0) << row.why;
        EXPECT_LT(run.peakKb, row.limitKb) << row.why;
    }
}

}  // namespace

// What a whole-file write leaves when it cannot finish: a write refused by
// the file-size limit changes nothing, and a writer killed at any moment
// leaves the old content, nothing, a prefix of the new content or the new
// content, never new bytes followed by old ones.
#include <karu/file/dir.h>

#include <gtest/gtest.h>

#include "scratch_dir.h"
#include "deadline.h"
#include "sync/tests/forktest.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <utime.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>

using namespace Karu;

namespace {

using Scratch = karu_test::ScratchDir;

// Whether `now` is a state a killed write may leave (see wholefile.cpp).
bool Allowed(const std::string& now, const std::string& before, const std::string& after)
{
    return now == before || (now.size() <= after.size() && after.compare(0, now.size(), now) == 0);
}

// Ends a child at a named step of the write, as a kill there would.
const char* g_stopAt = nullptr;
void StopAt(const char* step)
{
    if (g_stopAt && std::strcmp(step, g_stopAt) == 0)
        _exit(0);
}

TEST(WholeFileFailure, AKillAtEachStepLeavesAnAllowedState)
{
    const KaruTest::Deadline deadline(std::chrono::seconds(60), "writers stopped at each step");
    const Scratch dir;
    // The cut falls where old and new first differ: at the start here, and
    // behind what they share in the second group.
    const std::string before(5000, 'o'), after(3000, 'n');
    const std::string shared(7000, 's'), longer = shared + std::string(6000, 'o'), shorter = shared + "n";
    struct Row {
        const char* step;
        std::string before, after, expect;
    } rows[] = {
        {"WriteFile.room-taken", before, after, before},  // nothing changed yet
        {"WriteFile.cut", before, after, ""},             // never old bytes behind new ones
        {"WriteFile.written", before, after, after},
        {"WriteFile.room-taken", longer, shorter, longer},
        {"WriteFile.cut", longer, shorter, shared},       // what both share is a prefix of the new
        {"WriteFile.written", longer, shorter, shorter},
        {"WriteFile.cut", shorter, longer, shared},
    };
    for (const Row& row : rows) {
        dir.Put("f", row.before);
        const KaruTest::ChildEnd end = KaruTest::RunChild(
            [&] {
                g_stopAt = row.step;
                IMPL::SetFileStepHook(StopAt);
                CDir::WriteFile(dir.At("f"), stringEx(row.after.c_str()));
                return 1;  // the step was never reached
            },
            20000);
        EXPECT_TRUE(end.exited && end.status == 0) << row.step;
        EXPECT_EQ(dir.Get("f").size(), row.expect.size()) << row.step;
        EXPECT_TRUE(dir.Get("f") == row.expect) << row.step;
    }
}

TEST(WholeFileFailure, WhatOldAndNewShareAtTheStartStays)
{
    // Whatever the old content shares with the new, the result is the new
    // content; the time stamp moves even when nothing else does.
    const Scratch dir;
    struct Row {
        const char* why;
        std::string before, after;
    } rows[] = {
        {"the new content a prefix of the old", "abcdef", "abc"},
        {"the old content a prefix of the new", "abc", "abcdef"},
        {"the same content", "same", "same"},
        {"a change in the last byte", std::string(70000, 'x') + "a", std::string(70000, 'x') + "b"},
        {"a change past one comparison block", std::string(200000, 'x') + "a", std::string(200000, 'x') + "bc"},
        {"nothing left", "abc", ""},
        {"nothing before", "", "abc"},
    };
    for (const Row& row : rows) {
        dir.Put("f", row.before);
        const utimbuf stamp{1000000000, 1000000000};
        utime((dir / "f").c_str(), &stamp);
        CDir::WriteFile(dir.At("f"), stringEx(row.after.data(), row.after.size()));
        EXPECT_TRUE(dir.Get("f") == row.after) << row.why;
        struct stat after {};
        stat((dir / "f").c_str(), &after);
        EXPECT_NE(after.st_mtime, 1000000000) << row.why;
    }
}

TEST(WholeFileFailure, AWriterKilledAtRandomLeavesAnAllowedState)
{
    const KaruTest::Deadline deadline(std::chrono::seconds(60), "writers killed at random");
    // The old content is longer than the new one, so that a write that went
    // over the old bytes in place would show old bytes behind new ones.
    const Scratch dir;
    const std::string before(8 << 20, 'o');
    std::string after(6 << 20, 'n');
    const stringEx content(after.c_str(), after.size());
    std::mt19937 random(19);
    int midway = 0;
    for (int run = 0; run < 16; ++run) {
        dir.Put("f", before);
        KaruTest::Baton ready;
        const pid_t child = KaruTest::StartChild([&] {
            alarm(20);
            ready.Pass();
            CDir::WriteFile(dir.At("f"), content);
            pause();  // killed here at the latest
            return 0;
        });
        ASSERT_TRUE(ready.Take());
        usleep(random() % 8000);
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        const std::string now = dir.Get("f");
        midway += now != before && now != after;
        EXPECT_TRUE(Allowed(now, before, after))
            << "run " << run << ": " << now.size() << " bytes, starting " << now.substr(0, 8) << " and ending "
            << now.substr(now.size() > 8 ? now.size() - 8 : 0);
    }
    // A kill that always came too early or too late would prove nothing; say so.
    if (midway == 0)
        GTEST_SKIP() << "no kill landed inside a write on this machine";
}

TEST(WholeFileFailure, TheFileSizeLimitFailsBeforeAnythingChanges)
{
    const KaruTest::Deadline deadline(std::chrono::seconds(60), "writers under a file-size limit");
    const Scratch dir;
    const std::string old(3000, 'o');
    struct Row {
        const char* why;
        size_t newSize;
        bool append;
        bool fails;
    } rows[] = {
        {"growing past the limit", 9000, false, true},
        {"appending past the limit", 6000, true, true},
        {"shrinking below it", 1000, false, false},
        {"up to the limit exactly", 8192, false, false},
    };
    for (const Row& row : rows) {
        dir.Put("f", old);
        const utimbuf stamp{1000000000, 1000000000};
        utime((dir / "f").c_str(), &stamp);
        const KaruTest::ChildEnd end = KaruTest::RunChild([&] {
            signal(SIGXFSZ, SIG_DFL);  // a write past the limit would end the child: it must not come to that
            const rlimit limit = {8192, 8192};
            if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
                return 3;
            try {
                CDir::WriteFile(dir.At("f"), stringEx(std::string(row.newSize, 'n').c_str()),
                                false, row.append);
            } catch (const sysfileExp& e) {
                const bool named = std::strstr(e.message.c_str(), "CDir::WriteFile - no room for the new content\n") &&
                                   std::strstr(e.message.c_str(), "past the file size limit");
                return named ? 2 : 4;
            }
            return 0;
        }, 20000);
        ASSERT_TRUE(end.exited) << row.why << ": ended by signal " << end.signal;
        EXPECT_EQ(end.status, row.fails ? 2 : 0) << row.why;
        struct stat after {};
        stat((dir / "f").c_str(), &after);
        if (row.fails) {
            EXPECT_EQ(dir.Get("f"), old) << row.why;
            EXPECT_EQ(after.st_mtime, 1000000000) << row.why << ": not even the time stamp moves";
        } else {
            EXPECT_EQ(dir.Get("f"), std::string(row.newSize, 'n')) << row.why;
        }
    }
}

}  // namespace

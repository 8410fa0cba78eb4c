// Processes and pipes: starting programs, waiting with and without a time
// limit, exit codes, a pipe that carries megabytes both ways through a child,
// and what this process reads about itself.
#include <karu/process/pipe.h>
#include <karu/process/process.h>

#include <gtest/gtest.h>

#include <dirent.h>
#include <dlfcn.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>

#include "file/tests/deadline.h"
#include "file/tests/text_helpers.h"
#include "sync/tests/forktest.h"

using namespace Karu;
using namespace KaruTest;

namespace {

std::vector<stringEx> Args(std::initializer_list<const char*> words)
{
    std::vector<stringEx> out;
    for (const char* w : words)
        out.emplace_back(w);
    return out;
}

TEST(Process, ExitCodesAndTimeLimits)
{
    const Deadline deadline(std::chrono::seconds(60), "Process.ExitCodesAndTimeLimits");
    struct Row {
        const char* why;
        const char* script;
        uint32_t firstWait;
        bool endsInFirstWait;
        int32_t exitCode;
    } rows[] = {
        {"success", "exit 0", 0xFFFFFFFF, true, 0},
        {"a chosen status", "exit 7", 0xFFFFFFFF, true, 7},
        {"a long run outlasts a short wait", "sleep 5", 100, false, 128 + SIGKILL},
        {"ended by its own signal", "kill -TERM $$", 5000, true, 128 + SIGTERM},
    };
    for (const Row& row : rows) {
        CProcess child;
        child.Create("/bin/sh", Args({"sh", "-c", row.script}));
        EXPECT_TRUE(child.IsChild()) << row.why;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(child.Wait(row.firstWait), row.endsInFirstWait) << row.why;
        if (!row.endsInFirstWait) {
            EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(90)) << row.why;
            EXPECT_EQ(child.GetExitCode(), -1) << row.why;
            child.Terminate();
            EXPECT_TRUE(child.Wait(5000)) << row.why;
        }
        EXPECT_EQ(child.GetExitCode(), row.exitCode) << row.why;
    }
}

// Ready means running its own program: a live child is ready, one that
// has ended never becomes so. Lowering the boost is always allowed and
// reads back; the nice value's sign is the easy thing to get backwards.
TEST(Process, ReadinessAndBoost)
{
    CProcess sleeper;
    sleeper.Create("/bin/sh", Args({"sh", "-c", "sleep 5"}));
    EXPECT_TRUE(sleeper.WaitForReady(1000));
    const int32_t boost = sleeper.GetDynamicBoost();
    sleeper.SetDynamicBoost(boost - 3);
    EXPECT_EQ(sleeper.GetDynamicBoost(), boost - 3);
    sleeper.Terminate();
    ASSERT_TRUE(sleeper.Wait(5000));
    EXPECT_FALSE(sleeper.WaitForReady(0));

    CProcess quick;
    quick.Create("/bin/sh", Args({"sh", "-c", "exit 3"}));
    ASSERT_TRUE(quick.Wait(5000));
    EXPECT_FALSE(quick.WaitForReady(100));
}

// Every failure is the process layer's own class, with its message: a
// program that cannot start (told in the parent), every operation of an
// empty object, and the scheduling calls on a process already reaped.
TEST(Process, FailuresAreTheProcessLayersWithTheirMessages)
{
    const Deadline deadline(std::chrono::seconds(60), "Process.FailuresAreTheProcessLayersWithTheirMessages");
    CProcess none, gone;
    gone.Create("/bin/sh", Args({"sh", "-c", "exit 0"}));
    ASSERT_TRUE(gone.Wait(5000));  // reaped: its identity names nobody now
    const std::string pid = std::to_string(gone.GetPID());
    auto empty = [](const char* name) { return std::string("CProcess::") + name + " - invalid object"; };
    struct Row {
        const char* why;
        std::function<void()> op;
        std::string message;
    } rows[] = {
        {"a missing program", [] { CProcess().Create("/nonexistent/program", Args({"program"})); },
         "PosixExec - failed execute new image\n  image path = /nonexistent/program\n  error code = 2\n"
         "  error desc = path does not exits\n"},
        {"GetPID", [&] { (void)none.GetPID(); }, empty("GetPID")},
        {"ToSysHandle", [&] { (void)none.ToSysHandle(); }, empty("ToSysHandle")},
        {"GetBinFilePath", [&] { (void)none.GetBinFilePath(); }, empty("GetBinFilePath")},
        {"Wait", [&] { (void)none.Wait(0); }, empty("Wait")},
        {"WaitForReady", [&] { (void)none.WaitForReady(0); }, empty("WaitForReady")},
        {"SetDynamicBoost", [&] { none.SetDynamicBoost(0); }, empty("SetDynamicBoost")},
        {"Terminate", [&] { none.Terminate(); }, empty("Terminate")},
        {"QueueSignal", [&] { none.QueueSignal(SIGUSR1, 1); }, empty("QueueSignal")},
        {"GetMemUsage", [&] { uint64_t a, b; none.GetMemUsage(a, b); }, empty("GetMemUsage")},
        {"reading the boost of the reaped", [&] { (void)gone.GetDynamicBoost(); },
         "GetSchedParam - failed retrive sched's pri range\n  target pid = " + pid +
             "\n  error code = 3\n  error desc = no such process\n"},
        {"setting the boost of the reaped", [&] { gone.SetDynamicBoost(0); },
         "CThread_Imp::_SetThreadShcdParam - failed set process' sched param\n  target pid = " + pid +
             "\n  boost      = 0\n  error code = 3\n  error desc = no such process\n"},
    };
    for (const Row& row : rows)
        EXPECT_EQ(MessageOf<procExp>(row.op), row.message) << row.why;
}

TEST(Process, WhatThisProcessReadsAboutItself)
{
    CProcess self = CProcess::Current();
    const std::string image = self.GetBinFilePath().c_str();
    EXPECT_NE(image.find("karu_process_tests"), std::string::npos) << image;
    const auto commandLine = self.GetCommandLine();
    ASSERT_FALSE(commandLine.empty());
    EXPECT_NE(std::string(commandLine[0].c_str()).find("karu_process_tests"), std::string::npos);
    uint64_t peak = 0, size = 0;
    self.GetMemUsage(peak, size);
    EXPECT_GT(size, 0u);
    EXPECT_GE(peak, size);
    const auto modules = self.EnumAllModules();
    EXPECT_NE(std::find_if(modules.begin(), modules.end(),
                           [&](const stringEx& m) { return std::string(m.c_str()) == image; }),
              modules.end());
    const auto pids = CProcess::EnumAllProc();
    EXPECT_NE(std::find(pids.begin(), pids.end(), uint64_t(getpid())), pids.end());
    EXPECT_FALSE(CProcess::GetCurrentUserName().empty());
    uint64_t soft = 0, hard = 0;
    self.GetFileOpenLimits(soft, hard);
    EXPECT_GT(soft, 3u);

    char small[4];
    const std::string tooSmall = MessageOf<procExp>([&] { ReadProcFile("/proc/self/status", small, sizeof small); });
    EXPECT_NE(tooSmall.find("  size too big\n  buffer size = 4\n"), std::string::npos) << tooSmall;
}

// Another process is held by a descriptor: Wait sees its end even while its
// parent has not reaped it, and Close lets it go.
TEST(Process, AnOpenedProcessIsWatchedUntilClosed)
{
    CProcess child;
    child.Create("/bin/sh", Args({"sh", "-c", "sleep 5"}));
    CProcess view(child.GetPID());
    EXPECT_FALSE(view.IsChild());
    EXPECT_FALSE(view.Wait(50));
    child.Terminate();  // it ends, and stays unreaped until the wait below
    EXPECT_TRUE(view.Wait(5000)) << "the end of an unreaped process went unseen";
    ASSERT_TRUE(child.Wait(5000));
    EXPECT_EQ(child.GetExitCode(), 128 + SIGKILL);
    view.Close();
    EXPECT_THROW(view.GetPID(), procExp);

    // The system refusing the close is reported: the descriptor went behind the object's back.
    auto pidfds = [] {
        std::vector<int> found;
        DIR* dir = opendir("/proc/self/fd");
        while (dirent* entry = readdir(dir)) {
            char target[64] = {};
            const std::string link = std::string("/proc/self/fd/") + entry->d_name;
            if (readlink(link.c_str(), target, sizeof target - 1) > 0 && std::string(target) == "anon_inode:[pidfd]")
                found.push_back(atoi(entry->d_name));
        }
        closedir(dir);
        return found;
    };
    const std::vector<int> before = pidfds();
    CProcess self = CProcess::Current();
    std::vector<int> after = pidfds();
    ASSERT_EQ(after.size(), before.size() + 1);
    for (int fd : before)
        after.erase(std::find(after.begin(), after.end(), fd));
    close(after[0]);
    int32_t code = 0;
    EXPECT_EQ(MessageOf<procExp>([&] { self.Close(); }, &code),
              "CProcess::__CloseProcess - error close process\n  handle     = " + std::to_string(after[0]) +
                  "\n  error code = 9\n  error desc = invalid process handle\n");
    EXPECT_EQ(code, 22);
}

int g_inThisProgram;

// The main program is named by the path of its image, not by the argv[0]
// it was started with, however little that says from where the program is.
TEST(Process, ModulePathsAreAbsolute)
{
    if (!getenv("KARU_PROCESS_INNER")) {
        struct Row {
            const char* why;
            const char* argv0;
            const char* inner;
        } rows[] = {
            {"a relative argv[0]", "./karu_process_tests", "KARU_PROCESS_INNER=here"},
            {"a relative argv[0], after a change of directory", "./karu_process_tests", "KARU_PROCESS_INNER=away"},
            {"a bare name, as found through the search path", "karu-renamed", "KARU_PROCESS_INNER=here"},
        };
        for (const Row& row : rows) {
            const ChildEnd end = RunSelf(row.argv0, "Process.ModulePathsAreAbsolute", {row.inner});
            EXPECT_EQ(end.status, 0) << row.why;
        }
        return;
    }
    if (std::string(getenv("KARU_PROCESS_INNER")) == "away") {
        ASSERT_EQ(chdir("/"), 0);
    }
    char image[4096] = {};
    ASSERT_GT(readlink("/proc/self/exe", image, sizeof image - 1), 0);
    EXPECT_STREQ(CProcess::GetModuleFilePathByAny(&g_inThisProgram).c_str(), image);
    Dl_info info{};
    ASSERT_NE(dladdr(&g_inThisProgram, &info), 0);
    EXPECT_STREQ(CProcess::GetModuleFilePathByBase(info.dli_fbase).c_str(), image);
    // A shared object found through the search path keeps the absolute name it was loaded by.
    const void* shared = reinterpret_cast<const void*>(&waitpid);
    ASSERT_NE(dladdr(shared, &info), 0);
    ASSERT_EQ(info.dli_fname[0], '/');
    EXPECT_STREQ(CProcess::GetModuleFilePathByAny(shared).c_str(), info.dli_fname);
}

TEST(Pipe, MegabytesThroughAChildWithoutDeadlock)
{
    const Deadline deadline(std::chrono::seconds(60), "Pipe.MegabytesThroughAChildWithoutDeadlock");
    CPipe toChildRead, toChildWrite, fromChildRead, fromChildWrite;
    CPipe::CreatePair(toChildRead, toChildWrite);
    CPipe::CreatePair(fromChildRead, fromChildWrite);
    EXPECT_STREQ(toChildRead.Path().c_str(), "unnamed pipe for receiving");
    EXPECT_STREQ(toChildWrite.Path().c_str(), "unnamed pipe for sending");

    CProcess cat;
    CHILD_STDIO stdio;
    stdio.in = toChildRead.Descriptor();
    stdio.out = fromChildWrite.Descriptor();
    cat.Create("cat", Args({"cat"}), stdio);
    toChildRead.Close();  // the child has its own copies
    fromChildWrite.Close();

    constexpr size_t kBytes = 4 << 20;  // far beyond what a pipe buffers
    std::string sent(kBytes, '\0');
    for (size_t i = 0; i < kBytes; ++i)
        sent[i] = char(i * 131 + (i >> 9));
    std::thread writer([&] {
        IMPL::WriteAll(toChildWrite, sent.data(), sent.size());
        toChildWrite.Close();
    });
    std::string received;
    char chunk[65536];
    while (fromChildRead.WaitReadable(CPipe::kWaitForever)) {
        const uint64_t got = fromChildRead.Read(chunk, sizeof chunk);
        if (got == 0)
            break;
        received.append(chunk, got);
    }
    writer.join();
    EXPECT_TRUE(cat.Wait(5000));
    EXPECT_EQ(cat.GetExitCode(), 0);
    EXPECT_EQ(received.size(), sent.size());
    EXPECT_TRUE(received == sent);
}

TEST(Pipe, BrokenPipePeekAndAvailableBytes)
{
    CPipe reader, writer;
    CPipe::CreatePair(reader, writer);
    EXPECT_FALSE(reader.WaitReadable(10));
    writer.Write("abc", 3);
    EXPECT_TRUE(reader.WaitReadable(0));
    EXPECT_EQ(reader.GetTotalBytesCouldBeReadNow(), 3u);
    CPipe copy;
    reader.Duplicate(copy);
    EXPECT_EQ(copy.GetTotalBytesCouldBeReadNow(), 3u);
    char buffer[4];
    EXPECT_THROW(reader.Peek(buffer, 3), pipeExp);
    int32_t code = 0;
    EXPECT_NE(MessageOf<pipeExp>([] { CPipe().GetTotalBytesCouldBeReadNow(); }, &code), "(nothing raised)");
    EXPECT_EQ(code, 35);  // the control operation on a pipe

    reader.Close();
    copy.Close();
    // No reader: a write error, not the end of the process.
    EXPECT_NE(MessageOf<sysfileExp>([&] { writer.Write("x", 1); }).find("error writing pipe, pipe has been broken"),
              std::string::npos);
}

}  // namespace

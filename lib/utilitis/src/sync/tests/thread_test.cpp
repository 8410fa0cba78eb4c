// TThread: the life of a thread object from Start to its end, a thread that
// ends by deleting itself, cancellation, and thread-local slots.
#include <karu/sync/event.h>
#include <karu/sync/thread.h>

#include <gtest/gtest.h>

#include <time.h>

#include <atomic>
#include <thread>

#include "file/tests/deadline.h"

using namespace Karu;
using namespace KaruTest;

namespace {

class Counter : public TThread {
public:
    explicit Counter(bool autoDestroy = false, std::atomic<int>* destroyed = nullptr)
        : TThread(autoDestroy), _destroyed(destroyed)
    {
    }
    ~Counter() override
    {
        if (_destroyed)
            ++*_destroyed;
    }
    int32_t OnStart() override
    {
        steps += "start,";
        return 0;
    }
    int32_t Run() override
    {
        steps += "run,";
        return 42;
    }
    int32_t OnExit() override
    {
        steps += "exit";
        return 0;
    }
    std::string steps;

private:
    std::atomic<int>* _destroyed;
};

TEST(ThreadConcurrency, RunsHooksInOrderAndKeepsTheExitCode)
{
    const Deadline deadline(std::chrono::seconds(60), "ThreadConcurrency.RunsHooksInOrderAndKeepsTheExitCode");
    Counter thread;
    EXPECT_THROW(thread.GetPriority(), threadExp);  // no thread yet
    try {
        thread.GetPriority();
    } catch (const threadExp& e) {
        EXPECT_STREQ(e.message.c_str(), "TThread::GetPriority - invalid thread object");
    }
    thread.Start(0);
    EXPECT_TRUE(thread.Wait(5000));
    EXPECT_EQ(thread.GetExitCode(), 42);
    EXPECT_EQ(thread.steps, "start,run,exit");
    EXPECT_EQ(thread.GetState(), TThread::kEnded);
    // Destroying the object of a finished thread cancels nothing.
}

TEST(ThreadConcurrency, AutoDestroyDeletesTheObjectAfterTheEnd)
{
    const Deadline deadline(std::chrono::seconds(60), "ThreadConcurrency.AutoDestroyDeletesTheObjectAfterTheEnd");
    std::atomic<int> destroyed{0};
    auto* thread = new Counter(true, &destroyed);
    thread->Start(256 * 1024);
    for (int i = 0; i < 500 && destroyed.load() == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(destroyed.load(), 1);
}

class Sleeper : public TThread {
public:
    int32_t Run() override
    {
        started.Raise();
        for (;;) {
            const timespec pause = {0, 5000000};
            nanosleep(&pause, nullptr);  // a cancellation point
            if (IsStopping())
                return 7;
        }
    }
    CEvent started{false};
};

TEST(ThreadConcurrency, StopAndKill)
{
    const Deadline deadline(std::chrono::seconds(60), "ThreadConcurrency.StopAndKill");
    {
        Sleeper polite;
        polite.Start();
        ASSERT_TRUE(polite.started.TimedWait(5000));
        EXPECT_EQ(polite.GetPriority(), TThread::kNormalPriority);
        polite.Stop();
        EXPECT_TRUE(polite.Wait(5000));
        EXPECT_EQ(polite.GetExitCode(), 7);
    }
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // The sanitizers' runtimes do not follow the unwinding of a cancelled thread.
    GTEST_SKIP() << "cancellation is not checked under a sanitizer";
#endif
    Sleeper stubborn;
    stubborn.Start();
    ASSERT_TRUE(stubborn.started.TimedWait(5000));
    EXPECT_FALSE(stubborn.Wait(20));
    stubborn.Kill();
    EXPECT_TRUE(stubborn.Wait(0));
    EXPECT_EQ(stubborn.GetExitCode(), 0);  // Run never returned
}

TEST(ThreadConcurrency, TlsSlotsArePerThread)
{
    const Deadline deadline(std::chrono::seconds(60), "ThreadConcurrency.TlsSlotsArePerThread");
    CTls slot;
    int mine = 1, theirs = 2;
    slot.Set(&mine);
    std::thread other([&] {
        EXPECT_EQ(slot.Get(), nullptr);
        slot.Set(&theirs);
        EXPECT_EQ(slot.Get(), &theirs);
    });
    other.join();
    EXPECT_EQ(slot.Get(), &mine);
}

}  // namespace

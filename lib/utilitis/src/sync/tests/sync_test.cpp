// Mutexes, events and semaphores: the timed forms, the failures the callers
// rely on, and the named objects shared by real processes.
#include <karu/sync/event.h>
#include <karu/sync/mutex.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "file/tests/deadline.h"
#include "sync/tests/forktest.h"

using namespace Karu;
using namespace KaruTest;
using Clock = std::chrono::steady_clock;

namespace {

long long MillisSince(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

TEST(Mutex, TimedLockAgainstAnotherHolder)
{
    const Deadline deadline(std::chrono::seconds(60), "Mutex.TimedLockAgainstAnotherHolder");
    CMutex mutex(true);  // held by this thread
    struct Row {
        const char* why;
        uint32_t timeout;
        bool expect;
        long long minMs, maxMs;
    } rows[] = {
        {"0 only tries", 0, false, 0, 200},
        {"a short timeout expires", 80, false, 60, 2000},
    };
    for (const Row& row : rows) {
        bool got = true;
        long long took = 0;
        std::thread other([&] {
            const auto start = Clock::now();
            got = mutex.TimedLock(row.timeout);
            took = MillisSince(start);
        });
        other.join();
        EXPECT_EQ(got, row.expect) << row.why;
        EXPECT_GE(took, row.minMs) << row.why;
        EXPECT_LE(took, row.maxMs) << row.why;
    }
    // The infinite form waits for the release rather than expiring.
    std::atomic<bool> got{false};
    std::thread waiter([&] {
        got = mutex.TimedLock(kWaitInfinite);
        mutex.UnLock();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(got.load());
    mutex.UnLock();
    waiter.join();
    EXPECT_TRUE(got.load());
}

TEST(Mutex, RecursionAndOwnershipFailures)
{
    const Deadline deadline(std::chrono::seconds(60), "Mutex.RecursionAndOwnershipFailures");
    CMutex mutex;
    EXPECT_TRUE(mutex.Lock());
    EXPECT_TRUE(mutex.TryLock());  // recursive
    mutex.UnLock();
    mutex.UnLock();

    mutex.Lock();
    std::string message;
    int32_t code = 0;
    std::thread stranger([&] {
        try {
            mutex.UnLock();
        } catch (const mutexExp& e) {
            message = e.message.c_str();
            code = e.code;
        }
    });
    stranger.join();
    EXPECT_EQ(code, 5);
    EXPECT_EQ(message, "CMutex::UnLock - failed unlock mutex\n  error code = 1\n"
                       "  error desc = the current thread does not own the mutex\n");
    mutex.UnLock();
}

TEST(Mutex, DestroyingALockedMutexRaisesUnlessUnwinding)
{
    auto* locked = new CMutex(true);
    try {
        delete locked;
        ADD_FAILURE() << "no exception";
    } catch (const mutexExp& e) {
        EXPECT_EQ(e.code, 3);
        EXPECT_NE(std::string(e.message.c_str()).find("attempt to destroy a locked mutex"), std::string::npos);
    }
    // During unwinding the same failure is swallowed and the first exception arrives.
    try {
        CMutex held(true);
        throw std::runtime_error("first");
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "first");
    }
}

TEST(ProcMutex, SharedByProcessesAndTakenOverFromADeadHolder)
{
    const std::string name = UniqueName("mutex");
    CProcMutex creator(true, name.c_str());
    EXPECT_TRUE(creator.Created());

    // Another process sees the lock held, then gets it once it is released.
    Baton released;
    const pid_t child = StartChild([&] {
        CProcMutex opened(name.c_str());
        if (opened.TryLock() || opened.TimedLock(50u))
            return 1;
        released.Take();
        if (!opened.TimedLock(5000u))
            return 2;
        _exit(0);  // dies holding it, with the lock still mapped
    
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    creator.UnLock();
    released.Pass();
    EXPECT_EQ(WaitChild(child).status, 0);

    // The dead child's hold passes to the next locker instead of blocking for ever.
    EXPECT_TRUE(creator.TimedLock(2000u));
    EXPECT_TRUE(creator.TryLock());  // and it is ours, recursively
    creator.UnLock();
    creator.UnLock();

    // A creating form over an existing name joins it and takes no lock.
    const ChildEnd joined = RunChild([&] {
        CProcMutex second(true, name.c_str());
        if (second.Created())
            return 1;
        CProcMutex opened(name.c_str());
        if (!opened.TryLock())
            return 2;
        opened.UnLock();
        return 0;
    });
    EXPECT_EQ(joined.status, 0);
}

TEST(ProcMutex, OpeningAMissingNameWrapsTheCause)
{
    const std::string name = UniqueName("missing");
    try {
        CProcMutex opened(name.c_str());
        FAIL() << "opened a missing name";
    } catch (const mutexExp& e) {
        const std::string text = e.message.c_str();
        EXPECT_EQ(e.code, 1);
        EXPECT_EQ(text.rfind("CProcMutex::CProcMutex - failed open shared memory\n  name = " + name + "\n\n@ "
                             "OpenSharedMemoryObject - failed create shared memory object\n",
                             0),
                  0u)
            << text;
        EXPECT_NE(text.find("the shared memory object does not exist"), std::string::npos) << text;
    }
}

TEST(Event, WaitsAndTimedWaits)
{
    CEvent event(false);
    const auto start = Clock::now();
    EXPECT_FALSE(event.TimedWait(0));
    EXPECT_LT(MillisSince(start), 200);
    EXPECT_FALSE(event.TimedWait(60));
    EXPECT_GE(MillisSince(start), 50);
    event.Raise();
    EXPECT_TRUE(event.Wait());
    EXPECT_TRUE(event.IsSet());  // a wait leaves it set
    EXPECT_TRUE(event.TimedWait(0));
    event.Reset();
    EXPECT_FALSE(event.IsSet());
}

TEST(EventConcurrency, RaiseReleasesEveryWaiter)
{
    const Deadline deadline(std::chrono::seconds(60), "EventConcurrency.RaiseReleasesEveryWaiter");
    CEvent event(false);
    std::atomic<int> passed{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] {
            event.Wait();
            ++passed;
        });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(passed.load(), 0);
    event.Raise();
    for (auto& t : waiters)
        t.join();
    EXPECT_EQ(passed.load(), 4);
}

TEST(ProcEvent, OneFlagAcrossProcesses)
{
    const std::string name = UniqueName("event");
    CProcEvent first(false, name.c_str());

    // A second creator's initial state is ignored; it shares the first's flag.
    EXPECT_EQ(RunChild([&] { return CProcEvent(true, name.c_str()).IsSet() ? 1 : 0; }).status, 0);
    EXPECT_FALSE(first.IsSet());

    // A child waits for the parent's Raise, which wakes it long before its
    // time runs out; an opener closing leaves the event working.
    const pid_t child = StartChild([&] {
        CProcEvent opened(name.c_str());
        const auto start = Clock::now();
        if (!opened.TimedWait(10000))
            return 1;
        return MillisSince(start) < 5000 ? 0 : 2;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    first.Raise();
    EXPECT_EQ(WaitChild(child).status, 0);
    {
        CProcEvent opened(name.c_str());
        EXPECT_TRUE(opened.IsSet());
    }
    first.Reset();
    EXPECT_FALSE(first.TimedWait(0));
    EXPECT_EQ(RunChild([&] { return CProcEvent(name.c_str()).TimedWait(30) ? 1 : 0; }).status, 0);
}

TEST(ProcSem, CountsAcrossProcesses)
{
    const std::string name = UniqueName("sem").substr(1);  // the slash is added for us
    CProcSem sem(0, 10, name.c_str());
    EXPECT_EQ(sem.Name().c_str(), "/" + name);

    const pid_t child = StartChild([&] {
        CProcSem opened(name.c_str());
        if (opened.TryP())
            return 1;
        opened.P();  // blocks for the parent's V
        opened.V(2);
        return 0;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    sem.V();
    EXPECT_EQ(WaitChild(child).status, 0);
    EXPECT_TRUE(sem.TimedP(1000));
    EXPECT_TRUE(sem.TryP());
    EXPECT_FALSE(sem.TimedP(20));

    try {
        CProcSem again(0, 1, name.c_str());
        FAIL() << "created a name twice";
    } catch (const semExp& e) {
        EXPECT_EQ(e.code, 1);
        EXPECT_EQ(std::string(e.message.c_str()),
                  "CreateNamedSemaphore - failed create named semaphore\n  semaphore name = /" + name +
                      "\n  error code     = 17\n  error desc     = the named semaphore already exists\n");
    }
}

}  // namespace

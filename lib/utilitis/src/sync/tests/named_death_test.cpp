// Locks and events whose users die or close at the wrong moment.
//
// A process killed with SIGKILL at a random point, holding a named lock or
// sleeping on a named event, must not stop the others: they go on, and the
// creator closes at the end without hanging. Closing an object that somebody
// still holds or waits on is the caller's fault: it raises the documented
// failure and leaves the object working for the others. Every scenario runs
// in a child process of its own with a deadline, since on a faulty library
// these are hangs.
#include <karu/sync/event.h>
#include <karu/sync/fastlock.h>
#include <karu/sync/mutex.h>

#include <gtest/gtest.h>

#include <sys/mman.h>

#include <atomic>
#include <cstdio>
#include <random>
#include <string>
#include <thread>

#include "sync/tests/forktest.h"

using namespace Karu;
using namespace KaruTest;

namespace {

constexpr int kScenarioDeadlineMs = 30000;
constexpr uint32_t kStepMs = 5000;  // a single wait or lock within a scenario

void SleepMicroseconds(long us)
{
    std::this_thread::sleep_for(std::chrono::microseconds(us));
}

// Somewhere inside the loop of a victim: the first few hundred microseconds
// of a fresh process and the steady loop after them are both in range.
long RandomPoint(std::mt19937& random)
{
    return std::uniform_int_distribution<long>(0, 2500)(random);
}

TEST(ProcMutexConcurrency, HoldersKilledAtRandomPointsNeverWedgeTheLock)
{
    if (kUnderThreadSanitizer)
        GTEST_SKIP() << "the sanitizer does not count a timed lock that takes over a dead holder's lock as taken, "
                        "and then reports its release; the takeover is what this test is about";
    constexpr int kVictims = 40;
    ExpectExit(RunScenario(
        [] {
            return Guarded("process", [] {
                struct Shared {
                    std::atomic<int> stop{0};
                    std::atomic<long> survivorTurns{0};
                };
                Shared* shared = MapShared<Shared>();
                const std::string name = UniqueName("death-mutex");
                CProcMutex creator(false, name.c_str());
                auto worker = [&](bool survivor) {
                    return Guarded("process", [&] {
                        CProcMutex mutex(name.c_str());
                        while (!shared->stop) {
                            if (!mutex.TimedLock(kStepMs))
                                return 2;
                            mutex.UnLock();
                            if (survivor)
                                ++shared->survivorTurns;
                        }
                        return 0;
                    });
                };
                const pid_t survivor = StartChild([&] { return worker(true); });
                std::mt19937 random(20240611);
                for (int round = 0; round < kVictims; ++round) {
                    const pid_t victim = StartChild([&] { return worker(false); });
                    SleepMicroseconds(RandomPoint(random));
                    kill(victim, SIGKILL);
                    WaitChild(victim, kStepMs);
                    // The dead hold passes on to the next taker, here or in the survivor.
                    if (!creator.TimedLock(kStepMs))
                        return 10;
                    creator.UnLock();
                    const long seen = shared->survivorTurns;
                    if (!AwaitCondition([&] { return shared->survivorTurns > seen; }, kStepMs))
                        return 11;
                }
                shared->stop = 1;
                if (WaitChild(survivor, kStepMs).status != 0)
                    return 12;
                return 0;  // the creator closes: nobody holds it now
            });
        },
        kScenarioDeadlineMs));
}

// The system hands a dead holder's lock on only while the holder still maps
// it; a holder that closed the object first must have given its holds back.
TEST(ProcMutexConcurrency, AHolderThatClosesTheObjectAndDiesGivesTheLockBack)
{
    ExpectExit(RunScenario(
        [] {
            return Guarded("process", [] {
                const std::string name = UniqueName("closed-holder");
                CProcMutex creator(false, name.c_str());
                const ChildEnd holder = RunChild([&] {
                    auto* opened = new CProcMutex(name.c_str());
                    opened->Lock();
                    opened->Lock();  // twice: every hold goes back
                    try {
                        delete opened;
                        return 1;
                    } catch (const mutexExp& e) {
                        if (e.code != 3 || std::string(e.message.c_str()) !=
                                               "CProcMutex::~CProcMutex - failed close mutex\n  error code = 16\n"
                                               "  error desc = attempt to destroy a locked mutex\n")
                            return 2;
                    }
                    _exit(0);  // no destructor of this process runs on the way out
                });
                if (holder.status != 0)
                    return 10 + holder.status;
                if (!creator.TimedLock(kStepMs))
                    return 20;
                creator.UnLock();
                return 0;
            });
        },
        kScenarioDeadlineMs));
}

TEST(ProcMutexConcurrency, TheCreatorClosingWhileAnotherHoldsRaisesAndTheLockGoesOn)
{
    ExpectExit(RunScenario(
        [] {
            return Guarded("process", [] {
                const std::string name = UniqueName("busy-creator");
                auto* creator = new CProcMutex(false, name.c_str());
                Baton held, closed;
                const pid_t holder = StartChild([&] {
                    return Guarded("process", [&] {
                        CProcMutex opened(name.c_str());
                        opened.Lock();
                        held.Pass();
                        closed.Take();
                        opened.UnLock();  // still a working lock
                        if (!opened.TryLock())
                            return 2;
                        opened.UnLock();
                        return 0;
                    });
                });
                held.Take();
                std::string message;
                int32_t code = 0;
                try {
                    delete creator;
                } catch (const mutexExp& e) {
                    message = e.message.c_str();
                    code = e.code;
                }
                closed.Pass();
                if (code != 3 || message != "CProcMutex::~CProcMutex - failed close mutex\n  error code = 16\n"
                                            "  error desc = attempt to destroy a locked mutex\n")
                    return 10;
                return WaitChild(holder, kStepMs).status;
            });
        },
        kScenarioDeadlineMs));
}

TEST(ProcEventConcurrency, WaitersKilledAtRandomPointsLeaveTheEventWorking)
{
    constexpr int kVictims = 30;
    ExpectExit(RunScenario(
        [] {
            return Guarded("process", [] {
                const std::string name = UniqueName("death-event");
                CProcEvent creator(false, name.c_str());
                std::mt19937 random(20240612);
                for (int round = 0; round < kVictims; ++round) {
                    // Killed inside a wait, or between two, or while it holds the companion.
                    const pid_t victim = StartChild([&] {
                        return Guarded("process", [&]() -> int {
                            CProcEvent opened(name.c_str());
                            for (;;)
                                opened.TimedWait(round % 2 ? 1 : 50);
                        });
                    });
                    const pid_t survivor = StartChild([&] {
                        return Guarded("process", [&] { return CProcEvent(name.c_str()).TimedWait(kStepMs) ? 0 : 1; });
                    });
                    SleepMicroseconds(RandomPoint(random));
                    kill(victim, SIGKILL);
                    WaitChild(victim, kStepMs);
                    creator.Raise();
                    const ChildEnd woken = WaitChild(survivor, kStepMs);
                    if (woken.timedOut || woken.status != 0)
                        return 10;
                    creator.Reset();
                }
                return 0;  // the creator closes: its dead waiters are forgotten
            });
        },
        kScenarioDeadlineMs));
}

// A live waiter in another process keeps the event's parts alive after the
// creator's (faulty) close, so that whoever still has it open can wake it.
TEST(ProcEventConcurrency, TheCreatorClosingOnALiveWaiterRaisesAndTheWaiterStillWakes)
{
    ExpectExit(RunScenario(
        [] {
            return Guarded("process", [] {
                const std::string name = UniqueName("busy-event");
                auto* creator = new CProcEvent(false, name.c_str());
                CProcEvent opener(name.c_str());
                Baton waiting;
                const pid_t waiter = StartChild([&] {
                    return Guarded("process", [&] {
                        CProcEvent opened(name.c_str());
                        waiting.Pass();
                        return opened.TimedWait(kStepMs) ? 0 : 1;
                    });
                });
                waiting.Take();
                std::this_thread::sleep_for(std::chrono::milliseconds(200));  // into its wait
                std::string message;
                try {
                    delete creator;
                } catch (const eventExp& e) {
                    message = e.message.c_str();
                }
                if (message != "CProcEvent::~CProcEvent - failed close named event\n  error code = 16\n"
                               "  error desc = attempt to destroy a waiting event\n")
                    return 10;
                opener.Raise();
                return WaitChild(waiter, kStepMs).status;
            });
        },
        kScenarioDeadlineMs));
}

// In-process objects: a thread waits while the object is destroyed. The
// object lives in storage that outlasts it, as the waiter still uses it;
// the waiter's timed wait then runs out on the object that was left as it was.
template <class T, class Exp>
int DestroyUnderAWaiter(const std::function<T*(void*)>& make, const std::function<bool(T&)>& wait,
                        const std::string& expect)
{
    alignas(T) unsigned char room[sizeof(T)];
    T* object = make(room);
    std::atomic<bool> entering{false};
    std::atomic<int> woken{-1};
    std::thread waiter([&] {
        entering = true;
        woken = wait(*object) ? 1 : 0;
    });
    AwaitCondition([&] { return entering.load(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // into its wait
    std::string message;
    try {
        object->~T();
    } catch (const Exp& e) {
        message = e.message.c_str();
    }
    waiter.join();
    if (message != expect) {
        fprintf(stderr, "raised: %s\n", message.c_str());
        return 1;
    }
    return woken == 0 ? 0 : 2;
}

TEST(EventConcurrency, DestroyingAnEventWithAWaiterRaisesInsteadOfHanging)
{
    ExpectExit(RunChild(
        [] {
            return DestroyUnderAWaiter<CEvent, eventExp>(
                [](void* room) { return new (room) CEvent(false); }, [](CEvent& e) { return e.TimedWait(1000); },
                "CEvent::~CEvent - failed close event\n  error code = 16\n"
                "  error desc = attempt to destroy a waiting event\n");
        },
        kScenarioDeadlineMs));
}

TEST(SemConcurrency, DestroyingASemaphoreWithAWaiterRaises)
{
    ExpectExit(RunChild(
        [] {
            return DestroyUnderAWaiter<CSem, semExp>(
                [](void* room) { return new (room) CSem(0, 1); }, [](CSem& s) { return s.TimedP(1000); },
                "CSem::~CSem - failed destroy semaphore\n  error code = 16\n"
                "  error desc = there are currently processes blocked on the semaphore\n");
        },
        kScenarioDeadlineMs));
}

}  // namespace

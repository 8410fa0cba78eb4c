// FAST_PCLOCK and CSem: recursion bookkeeping, mutual exclusion under
// contention, the lazily made semaphore, timed waits and signals.
#include <karu/sync/fastlock.h>

#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "file/tests/deadline.h"

using namespace Karu;
using namespace KaruTest;

namespace {

TEST(FastLock, RecursionReturnsToTheFreeState)
{
    FAST_PCLOCK lock;
    struct Step {
        bool acquire;
        int64_t lockCount;
        uint64_t recursion;
        bool owned;
    } steps[] = {
        {true, 0, 1, true},  {true, 1, 2, true},  {true, 2, 3, true},
        {false, 1, 2, true}, {false, 0, 1, true}, {false, -1, 0, false},
    };
    for (const Step& s : steps) {
        s.acquire ? lock.Lock() : lock.Unlock();
        EXPECT_EQ(lock.lockCount.load(), s.lockCount);
        EXPECT_EQ(lock.recursion, s.recursion);
        EXPECT_EQ(lock.owner.load() != 0, s.owned);
    }
    EXPECT_EQ(lock.waitSem.load(), nullptr);  // no collision, no semaphore
}

TEST(FastLockConcurrency, ExcludesUnderContentionAndKeepsCounts)
{
    const Deadline deadline(std::chrono::seconds(60), "FastLockConcurrency.ExcludesUnderContentionAndKeepsCounts");
    static FAST_PCLOCK lock;  // a static instance needs no constructor run
    constexpr int kThreads = 6, kRounds = 20000;
    int64_t plain = 0;  // only ever touched under the lock
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                CFastLockHolder outer(lock);
                CFastLockHolder inner(lock);  // recursive entry
                ++plain;
            }
        });
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(plain, int64_t(kThreads) * kRounds);
    EXPECT_EQ(lock.lockCount.load(), -1);
    EXPECT_EQ(lock.owner.load(), 0u);
}

TEST(FastLockConcurrency, ReleaseBeforeTheWaiterMadeTheSemaphoreIsNotLost)
{
    const Deadline deadline(std::chrono::seconds(60), "FastLockConcurrency.ReleaseBeforeTheWaiterMadeTheSemaphoreIsNotLost");
    // Many short rounds on fresh locks: a waiter counts itself in, and the
    // owner may release before the waiter has installed the semaphore.
    for (int round = 0; round < 300; ++round) {
        FAST_PCLOCK lock;
        std::atomic<bool> ready{false};
        lock.Lock();
        std::thread waiter([&] {
            ready = true;
            lock.Lock();
            lock.Unlock();
        });
        while (!ready)
            std::this_thread::yield();
        lock.Unlock();
        waiter.join();
        EXPECT_EQ(lock.lockCount.load(), -1);
    }
}

TEST(Sem, CountsAndTimedWaits)
{
    CSem sem(2, 10);
    EXPECT_TRUE(sem.TryP());
    EXPECT_TRUE(sem.TimedP(0));
    EXPECT_FALSE(sem.TryP());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(sem.TimedP(50));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));
    sem.V(3);
    EXPECT_TRUE(sem.TimedP(CSem::kInfinite));
    EXPECT_TRUE(sem.TimedP(10));
    EXPECT_TRUE(sem.TryP());
    EXPECT_FALSE(sem.TryP());
}

void Ignore(int) {}

TEST(SemConcurrency, SignalsDoNotEndAWait)
{
    const Deadline deadline(std::chrono::seconds(60), "SemConcurrency.SignalsDoNotEndAWait");
    struct sigaction action {};
    action.sa_handler = Ignore;  // no SA_RESTART: the wait sees EINTR
    sigaction(SIGUSR1, &action, nullptr);
    CSem sem(0, 1);
    std::atomic<int> state{0};
    pthread_t waiterId{};
    std::thread waiter([&] {
        waiterId = pthread_self();
        state = 1;
        sem.P();
        state = 2;
    });
    while (state != 1)
        std::this_thread::yield();
    for (int i = 0; i < 5; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        pthread_kill(waiterId, SIGUSR1);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(state.load(), 1);
    sem.V();
    waiter.join();
    EXPECT_EQ(state.load(), 2);
}

TEST(Sem, FailuresCarryTheirMessages)
{
    try {
        CSem tooBig(0x80000000u, 1);  // above the platform's maximum
        ADD_FAILURE();
    } catch (const semExp& e) {
        EXPECT_EQ(e.code, 1);
        EXPECT_EQ(e.message, stringEx("CSem::__Init - failed create semaphore\n"
                                      "  error code = 22\n"
                                      "  error desc = the init value exceeds max limited\n"));
    }
}

}  // namespace

// Named mutexes and events created by several processes at the same moment.
//
// Each round takes a fresh name, forks a handful of processes that wait on
// one start flag, and lets them all create (or join) the object together and
// use it at once. The one that created it closes last, as the creator of a
// named object must. A joiner that locks an object its creator has not yet
// set up shows here as two holders at once (a lost count), a failure raised,
// or a hang, which the round's deadline turns into a failure.
#include <karu/sync/event.h>
#include <karu/sync/mutex.h>

#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mman.h>

#include <atomic>
#include <cstdio>
#include <vector>

#include "sync/tests/forktest.h"

using namespace Karu;
using namespace KaruTest;

namespace {

constexpr int kProcesses = 4;
constexpr int kRoundDeadlineMs = 15000;
// Hundreds of rounds find the window of a set-up race within tens of them;
// under the thread sanitizer, which cannot see across processes anyway and
// makes each fork slow, a few dozen keep the test to seconds.
constexpr int kRounds = kUnderThreadSanitizer ? 40 : 300;

// What the racers of one round share.
struct Board {
    std::atomic<int> go{0};
    std::atomic<int> creators{0};
    std::atomic<int> ready{0};
    std::atomic<int> passed{0};
    std::atomic<int> closed{0};  // racers other than the creator that have closed
    volatile int counter = 0;    // changed only under the named lock
};

// Starts the racers, lets them go at once (a racer that never sees the go
// ends with 20), and collects how each ended.
std::vector<ChildEnd> RunRound(Board* board, const std::string& name, const std::function<int(int)>& racer)
{
    board->~Board();
    new (board) Board();
    std::vector<pid_t> pids;
    for (int i = 0; i < kProcesses; ++i)
        pids.push_back(StartChild([&, i] {
            const auto go = [&] { return board->go.load() != 0; };
            return Guarded("racer", [&] { return AwaitCondition(go) ? racer(i) : 20; });
        }));
    board->go = 1;
    std::vector<ChildEnd> ends;
    const long long until = MonotonicMs() + kRoundDeadlineMs;
    for (pid_t pid : pids)
        ends.push_back(WaitChild(pid, int(std::max(1LL, until - MonotonicMs()))));
    // A racer that failed half-way leaves its names behind.
    shm_unlink(name.c_str());
    shm_unlink((name + ".lock").c_str());
    return ends;
}

// Every racer ended of itself with status 0, and exactly one created the name.
testing::AssertionResult CleanRound(const std::vector<ChildEnd>& ends, const Board* board)
{
    bool clean = board->creators.load() == 1;
    std::string text;
    for (const ChildEnd& end : ends) {
        clean = clean && end.exited && end.status == 0;
        text += end.timedOut ? " hung" : end.exited ? " status " + std::to_string(end.status)
                                                    : " signal " + std::to_string(end.signal);
    }
    if (clean)
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << text << ", creators " << board->creators.load();
}

// A racer's last step: the creator waits for every other racer to close first.
bool CloseInOrder(Board* board, bool created)
{
    return !created || AwaitCondition([&] { return board->closed.load() == kProcesses - 1; }, kRoundDeadlineMs);
}

TEST(ProcMutexConcurrency, ProcessesRacingOnAFreshNameShareOneLock)
{
    constexpr int kLocks = 12;
    Board* board = MapShared<Board>();
    ASSERT_NE(board, nullptr);
    for (int round = 0; round < kRounds; ++round) {
        const std::string name = UniqueName("race-mutex");
        const auto ends = RunRound(board, name, [&](int) {
            bool created;
            {
                CProcMutex mutex(false, name.c_str());
                created = mutex.Created();
                board->creators += created ? 1 : 0;
                for (int i = 0; i < kLocks; ++i) {
                    if (!(i % 2 ? mutex.TimedLock(uint32_t(kRoundDeadlineMs)) : mutex.Lock()))
                        return 2;
                    const int seen = board->counter;
                    if (i % 3 == 0)
                        sched_yield();  // widen the window a second holder would use
                    board->counter = seen + 1;
                    mutex.UnLock();
                }
                if (!CloseInOrder(board, created))
                    return 4;
            }
            if (!created)
                ++board->closed;
            return 0;
        });
        ASSERT_TRUE(CleanRound(ends, board)) << "round " << round;
        ASSERT_EQ(board->counter, kProcesses * kLocks) << "round " << round << ": two holders at once";
    }
    FreeShared(board);
}

TEST(ProcEventConcurrency, ProcessesRacingOnAFreshNameShareOneFlag)
{
    Board* board = MapShared<Board>();
    ASSERT_NE(board, nullptr);
    for (int round = 0; round < kRounds; ++round) {
        const std::string name = UniqueName("race-event");
        const auto ends = RunRound(board, name, [&](int index) {
            bool created;
            {
                CProcEvent event(false, name.c_str());
                created = event.Created();
                board->creators += created ? 1 : 0;
                ++board->ready;
                if (index == 0) {
                    // The last to arrive may still be setting up; its wait must not miss this.
                    if (!AwaitCondition([&] { return board->ready.load() == kProcesses; }, kRoundDeadlineMs))
                        return 3;
                    event.Raise();
                } else if (!event.TimedWait(uint32_t(kRoundDeadlineMs))) {
                    return 2;
                }
                if (!event.IsSet())
                    return 5;
                ++board->passed;
                if (!CloseInOrder(board, created))
                    return 4;
            }
            if (!created)
                ++board->closed;
            return 0;
        });
        ASSERT_TRUE(CleanRound(ends, board)) << "round " << round;
        ASSERT_EQ(board->passed.load(), kProcesses) << "round " << round;
    }
    FreeShared(board);
}

}  // namespace

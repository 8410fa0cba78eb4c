// The logging thread of asynchronous mode and the record it carries.
//
// Producers (CLog::Write, under CLog::lock) put LOG_RECORDs on a bounded
// queue; the thread takes them off and delivers each under its dispatch
// lock, which is what a change of the logger list waits for. A stop order
// goes behind every queued record, so turning the mode off delivers all
// that was queued before the thread ends.
//
// Flush waits on `drained`. The event is reset in the same critical section
// that makes a record visible, and set only by the thread after a delivery
// that left the queue empty; so a waiter can neither pass a record that was
// queued before it nor wait for one that was already delivered.
//
// Records made on the logging thread itself (by a logger that logs, or by
// the fatal-error handler when a logger faults) are delivered at once, in
// place, as in synchronous mode: queueing them would wait for this very
// thread, and the locks a producer holds while it waits for room are not to
// be taken here.
//
// If delivery fails (the main logger raised), the thread marks itself dead,
// releases every waiter and ends; the thread's exit path reports the failure,
// delivered in place. CLog then reaps it, delivers in the caller's thread
// whatever was still queued, and goes back to synchronous delivery.
//
// A child forked while the thread runs has no such thread; its log finds the
// thread foreign (by the fork count) and delivers directly, leaving the
// records queued before the fork to the parent.
#pragma once

#include <atomic>
#include <deque>

#include <karu/log/log.h>
#include <karu/sync/event.h>
#include <karu/sync/msgqueue.h>
#include <karu/sync/thread.h>

namespace Karu::IMPL {

struct LOG_RECORD {
    bool stop = false;
    int64_t time = 0;
    int32_t level = 0;
    stringEx channel;
    stringEx message;
};

// How many forks this process's line has gone through; a thread started at
// another count belongs to an ancestor.
uint32_t ForkGeneration() noexcept;

class CLoggingThread : public TThread {
public:
    using Queue = CMessageQueue<LOG_RECORD, std::deque<LOG_RECORD>, FAST_PCLOCK>;

    CLoggingThread(CLog* log, uint32_t capacity);
    ~CLoggingThread() override;

    int32_t Run() override;
    int32_t OnExit() override;
    // Queues the stop order; true: the thread ends of itself.
    bool Stop() override;

    // The hand-over; blocks while the queue is full. False when the thread
    // has died and the record was not queued.
    bool Push(const LOG_RECORD& record);
    // Returns once every record queued so far has been delivered, or the
    // thread has died.
    void WaitDrained();
    // What the queue still holds; for the reaper of a thread that has ended.
    std::deque<LOG_RECORD> TakeLeftovers();

    // The logging thread that calls this, or null on any other thread.
    static CLoggingThread* Current() noexcept;
    // A child of a fork forgets the thread it was forked from.
    static void ForgetCurrentAfterFork() noexcept;
    // On this thread: delivers a record, or flushes the stack, in place.
    void DeliverHere(int32_t level, const stringEx& channel, const stringEx& message);
    void FlushHere();

    CLog* Log() const noexcept { return _log; }
    bool IsDead() const noexcept { return _dead.load(std::memory_order_acquire); }
    bool BelongsToThisProcess() const noexcept { return _generation == ForkGeneration(); }
    bool IsCurrentThread() noexcept;
    FAST_PCLOCK& DispatchLock() noexcept { return _dispatchLock; }

private:
    bool __Enqueue(const LOG_RECORD& record, bool resetDrained);
    void __Abandon() noexcept;

    Queue _queue;
    CLog* _log;
    FAST_PCLOCK _dispatchLock;
    CEvent _drained;
    FAST_PCLOCK _drainedLock;
    std::atomic<bool> _dead{false};
    uint32_t _generation;
};

}  // namespace Karu::IMPL

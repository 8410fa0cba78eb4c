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
// If delivery fails (the main logger raised), the thread marks itself dead,
// releases every waiter and ends without touching the log again; CLog then
// reaps it and goes back to synchronous delivery.
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

class CLoggingThread : public TThread {
public:
    using Queue = CMessageQueue<LOG_RECORD, std::deque<LOG_RECORD>, FAST_PCLOCK>;

    CLoggingThread(CLog* log, uint32_t capacity);
    ~CLoggingThread() override;

    int32_t Run() override;
    int32_t OnExit() override;
    // Queues the stop order; true: the thread ends of itself.
    bool Stop() override;

    // The hand-over; blocks while the queue is full.
    void Push(const LOG_RECORD& record);
    // Returns once every record queued so far has been delivered.
    void WaitDrained();

    bool IsDead() const noexcept { return _dead.load(std::memory_order_acquire); }
    bool IsCurrentThread() noexcept;
    FAST_PCLOCK& DispatchLock() noexcept { return _dispatchLock; }

private:
    void __Enqueue(const LOG_RECORD& record, bool resetDrained);
    void __Abandon() noexcept;

    Queue _queue;
    CLog* _log;
    FAST_PCLOCK _dispatchLock;
    CEvent _drained;
    FAST_PCLOCK _drainedLock;
    std::atomic<bool> _dead{false};
};

}  // namespace Karu::IMPL

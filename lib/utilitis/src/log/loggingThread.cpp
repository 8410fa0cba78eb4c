// The logging thread; see loggingThread.h for the protocol.
#include <karu/log/loggingThread.h>

namespace Karu::IMPL {

CLoggingThread::CLoggingThread(CLog* log, uint32_t capacity)
    : TThread(false), _queue(capacity), _log(log), _drained(true)
{
    if (capacity == 0)
        Throw<logExp>(ExpMessage("CLoggingThread::CLoggingThread - a queue of no room would block every record"), 5);
}

CLoggingThread::~CLoggingThread() = default;

bool CLoggingThread::IsCurrentThread() noexcept
{
    const uint64_t handle = Handle();
    return handle != 0 && pthread_equal(static_cast<pthread_t>(handle), pthread_self());
}

void CLoggingThread::__Enqueue(const LOG_RECORD& record, bool resetDrained)
{
    _queue.FreeSlots().P();
    if (IsDead()) {
        _queue.FreeSlots().V();  // pass the wake-up on to the next producer
        return;
    }
    {
        CFastLockHolder drained(_drainedLock);
        CFastLockHolder items(_queue.GetLock());
        _queue.Items().push_back(record);
        // Reset before the record can be taken: the thread's "drained"
        // for an earlier record cannot then land after this reset.
        if (resetDrained)
            _drained.Reset();
    }
    _queue.UsedSlots().V();
}

void CLoggingThread::Push(const LOG_RECORD& record)
{
    __Enqueue(record, true);
}

void CLoggingThread::WaitDrained()
{
    _drained.Wait();
}

bool CLoggingThread::Stop()
{
    TThread::Stop();
    LOG_RECORD order;
    order.stop = true;
    __Enqueue(order, false);
    return true;
}

void CLoggingThread::__Abandon() noexcept
{
    _dead.store(true, std::memory_order_release);
    try {
        _queue.FreeSlots().V();  // a producer blocked on a full queue gives up
        _drained.Raise();
    } catch (...) {
    }
}

int32_t CLoggingThread::Run()
{
    try {
        for (;;) {
            bool nowEmpty = false;
            const LOG_RECORD record = _queue.Pop(&nowEmpty);
            if (record.stop)
                return 0;
            {
                CFastLockHolder dispatch(_dispatchLock);
                _log->__Deliver(CTime(record.time), record.level, record.channel, record.message);
            }
            if (nowEmpty) {
                CFastLockHolder drained(_drainedLock);
                CFastLockHolder items(_queue.GetLock());
                if (_queue.Items().empty())
                    _drained.Raise();
            }
        }
    } catch (...) {
        // The main logger raised: this thread ends, and the log goes back
        // to delivering in the callers' threads. The failure is not logged:
        // that would need CLog::lock, which the thread that reaps this one
        // holds while it waits for the end.
        __Abandon();
        return -1;
    }
}

int32_t CLoggingThread::OnExit()
{
    try {
        _drained.Raise();  // nobody may wait for a thread that has gone
    } catch (...) {
    }
    return 0;
}

}  // namespace Karu::IMPL

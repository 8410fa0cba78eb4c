// The logging thread; see loggingThread.h for the protocol.
#include <karu/log/loggingThread.h>

namespace Karu::IMPL {
namespace {

thread_local CLoggingThread* t_current = nullptr;

}  // namespace

CLoggingThread::CLoggingThread(CLog* log, uint32_t capacity)
    : TThread(false), _queue(capacity), _log(log), _drained(true), _generation(ForkGeneration())
{
    if (capacity == 0)
        Throw<logExp>(ExpMessage("CLoggingThread::CLoggingThread - a queue of no room would block every record"), 5);
}

CLoggingThread::~CLoggingThread() = default;

CLoggingThread* CLoggingThread::Current() noexcept
{
    return t_current;
}

void CLoggingThread::ForgetCurrentAfterFork() noexcept
{
    t_current = nullptr;
}

bool CLoggingThread::IsCurrentThread() noexcept
{
    return t_current == this;
}

bool CLoggingThread::__Enqueue(const LOG_RECORD& record, bool resetDrained)
{
    _queue.FreeSlots().P();
    if (IsDead()) {
        _queue.FreeSlots().V();  // pass the wake-up on to the next producer
        return false;
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
    return true;
}

bool CLoggingThread::Push(const LOG_RECORD& record)
{
    return __Enqueue(record, true);
}

void CLoggingThread::WaitDrained()
{
    _drained.Wait();
}

std::deque<LOG_RECORD> CLoggingThread::TakeLeftovers()
{
    CFastLockHolder items(_queue.GetLock());
    std::deque<LOG_RECORD> left;
    left.swap(_queue.Items());
    return left;
}

bool CLoggingThread::Stop()
{
    TThread::Stop();
    LOG_RECORD order;
    order.stop = true;
    __Enqueue(order, false);
    return true;
}

void CLoggingThread::DeliverHere(int32_t level, const stringEx& channel, const stringEx& message)
{
    CFastLockHolder dispatch(_dispatchLock);  // held already inside a delivery
    _log->__Deliver(CTime::Now(), level, channel, message);
}

void CLoggingThread::FlushHere()
{
    CFastLockHolder dispatch(_dispatchLock);
    _log->__FlushStack();
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
    t_current = this;
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
        // The main logger raised: this thread ends, the exit path of
        // TThread reports why (delivered here, in place), and the log goes
        // back to delivering in the callers' threads.
        __Abandon();
        throw;
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

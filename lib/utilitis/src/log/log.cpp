// CLog: the process-wide log, the filter, and the synchronous delivery path.
//
// The process-wide state is constant-initialised and never destroyed: the
// fatal-error handlers may log from a signal or from another static's
// destructor at any moment of the process's life, and must find a working
// lock. The installed log is released by an exit handler instead, so that
// a record queued before exit is always delivered.
//
// Fork. Before a fork the forking thread takes the process-wide lock, the
// installed log's lock and its dispatch lock, in the lock order, so that no
// other thread is half-way through the log when the child is made; the
// child then finds them held by itself alone, and any count of waiters that
// no longer exist is dropped. The logging thread itself takes none of them
// (a producer may hold them while it waits for this thread): its child
// frees whatever other threads held.
#include <karu/log/log.h>

#include <pthread.h>

#include <cstdlib>

#include <karu/log/loggingThread.h>
#include <karu/misc/errhandler.h>

KARU_KEEP_ERROR_HANDLER()

namespace Karu {
namespace {

// Holds a value that is built at compile time and never destroyed.
template <class T>
union Immortal {
    constexpr Immortal() : value() {}
    ~Immortal() {}
    T value;
};

struct LogState {
    FAST_PCLOCK lock;  // the process-wide log lock
    CLog::Handle* instance = nullptr;
    int32_t savedThreshold = kLogDebug;
};

constinit Immortal<LogState> g_state;

LogState& State() noexcept
{
    return g_state.value;
}

void ReleaseInstanceAtExit()
{
    CLog::Handle last;
    {
        CFastLockHolder hold(State().lock);
        if (!State().instance)
            return;
        last = std::move(*State().instance);
        delete State().instance;
        State().instance = nullptr;
    }
    try {
        last.reset();  // ~CLog: drains the queue, flushes and closes the loggers
    } catch (...) {
        // nothing is left to report it to
    }
}

const bool g_exitHandlerRegistered = (std::atexit(ReleaseInstanceAtExit), true);

std::atomic<uint32_t> g_forkGeneration{0};

bool Passes(int32_t level, int32_t threshold)
{
    return threshold < kLogDisabled && level != kLogDisabled && level >= threshold;
}

// The filter, then formatting (`make` gives the message, called once), then
// delivery; under the process-wide lock, except on the logging thread.
template <class Make>
void Filtered(int32_t level, const stringEx& channel, Make make)
{
    if (IMPL::CLoggingThread* here = IMPL::CLoggingThread::Current()) {
        if (!Passes(level, here->Log()->GetThreshold()))
            return;
        here->DeliverHere(level, channel, make());
        if (level == kLogFatal)
            here->FlushHere();
        return;
    }
    {
        CFastLockHolder hold(State().lock);
        CLog::Handle* log = State().instance;
        if (!log || !*log || !Passes(level, (*log)->GetThreshold()))
            return;
        (*log)->Write(level, channel, make());
    }
    if (level == kLogFatal)
        CLog::Flush();
}

void Filtered(int32_t level, const stringEx& channel, const char* format, va_list args)
{
    Filtered(level, channel, [&] { return stringEx::FormatV(format, args); });
}

void Filtered(int32_t level, const stringEx& channel, const stringEx& message)
{
    Filtered(level, channel, [&] { return message; });
}

// A channel given as a pointer; null reads as the empty channel.
stringEx Channel(const char* channel)
{
    return stringEx(channel ? channel : "");
}

}  // namespace

namespace IMPL {

uint32_t ForkGeneration() noexcept
{
    return g_forkGeneration.load(std::memory_order_relaxed);
}

struct LogFork {
    // Set by Prepare in the forking thread, read by Parent or Child in it.
    static inline bool stateHeld = false;
    static inline CLog* logHeld = nullptr;
    static inline FAST_PCLOCK* dispatchHeld = nullptr;

    static void Prepare()
    {
        stateHeld = false;
        logHeld = nullptr;
        dispatchHeld = nullptr;
        if (CLoggingThread::Current())
            return;
        State().lock.Lock();
        stateHeld = true;
        CLog::Handle* instance = State().instance;
        if (!instance || !*instance)
            return;
        logHeld = instance->get();
        logHeld->lock.Lock();
        if (logHeld->_thread && logHeld->_thread->BelongsToThisProcess()) {
            dispatchHeld = &logHeld->_thread->DispatchLock();
            dispatchHeld->Lock();
        }
    }

    static void Parent()
    {
        if (dispatchHeld)
            dispatchHeld->Unlock();
        if (logHeld)
            logHeld->lock.Unlock();
        if (stateHeld)
            State().lock.Unlock();
    }

    static void Child()
    {
        g_forkGeneration.fetch_add(1, std::memory_order_relaxed);
        CLoggingThread::ForgetCurrentAfterFork();
        // The dispatch lock belongs to the parent's thread, which is left
        // alone here; the other two are ours or nobody's.
        State().lock.ForgetOtherThreads();
        CLog::Handle* instance = State().instance;
        if (instance && *instance)
            (*instance)->lock.ForgetOtherThreads();
        if (logHeld)
            logHeld->lock.Unlock();
        if (stateHeld)
            State().lock.Unlock();
    }
};

}  // namespace IMPL

namespace {

const bool g_forkHandlersRegistered =
    (pthread_atfork(IMPL::LogFork::Prepare, IMPL::LogFork::Parent, IMPL::LogFork::Child), true);

// A forked child's log cannot stop its parent's thread, and must not free
// it; it stays here, reachable, for the rest of the child's life.
constexpr int kAbandonedThreads = 16;  // one per generation of forks while logging
IMPL::CLoggingThread* g_abandoned[kAbandonedThreads];
std::atomic<int> g_abandonedCount{0};

void AbandonAfterFork(IMPL::CLoggingThread* thread) noexcept
{
    const int slot = g_abandonedCount.fetch_add(1);
    if (slot < kAbandonedThreads)
        g_abandoned[slot] = thread;
}

}  // namespace

const char* LogLevelName(int32_t level) noexcept
{
    static const char* const kNames[] = {"debug only", "info",           "warning",  "error",
                                         "important notes", "fatal error", "disabled"};
    return level >= 0 && level <= kLogDisabled ? kNames[level] : "unknown";
}

const char* LogLevelTag(int32_t level) noexcept
{
    static const char* const kTags[] = {"Debug]   ", "Info]    ", "Warning] ",
                                        "Error]   ", "Note]    ", "Fatal]   "};
    return level >= 0 && level < kLogDisabled ? kTags[level] : "Unknown] ";
}

// ---- the process-wide log ----------------------------------------------------------

void CLog::SetInstance(const Handle& log)
{
    Handle old;
    {
        CFastLockHolder hold(State().lock);
        (void)g_exitHandlerRegistered;
        (void)g_forkHandlersRegistered;
        if (!State().instance)
            State().instance = new Handle();
        old = std::move(*State().instance);
        *State().instance = log;
    }
    old.reset();  // the old log drains outside the lock new records go through
}

CLog::Handle CLog::GetInstance()
{
    CFastLockHolder hold(State().lock);
    return State().instance ? *State().instance : Handle();
}

void CLog::DisableLogging()
{
    CFastLockHolder hold(State().lock);
    if (State().instance && *State().instance) {
        State().savedThreshold = (*State().instance)->_threshold.exchange(kLogDisabled);
    }
}

void CLog::EnableLogging()
{
    CFastLockHolder hold(State().lock);
    if (State().savedThreshold != kLogDisabled && State().instance && *State().instance)
        (*State().instance)->_threshold.exchange(State().savedThreshold);
}

void CLog::Flush()
{
    if (IMPL::CLoggingThread* here = IMPL::CLoggingThread::Current()) {
        here->FlushHere();
        return;
    }
    CFastLockHolder hold(State().lock);
    if (State().instance && *State().instance)
        (*State().instance)->FlushLoggers();
}

#define KARU_LOG_FORMS(name, level)                                            \
    void CLog::name(const char* channel, const char* format, ...)              \
    {                                                                          \
        va_list args;                                                          \
        va_start(args, format);                                                \
        Filtered(level, Channel(channel), format, args);                       \
        va_end(args);                                                          \
    }                                                                          \
    void CLog::name(const stringEx& channel, const char* format, ...)          \
    {                                                                          \
        va_list args;                                                          \
        va_start(args, format);                                                \
        Filtered(level, channel, format, args);                                \
        va_end(args);                                                          \
    }                                                                          \
    void CLog::name(const char* channel, const stringEx& message)              \
    {                                                                          \
        Filtered(level, Channel(channel), message);                            \
    }                                                                          \
    void CLog::name(const stringEx& channel, const stringEx& message)          \
    {                                                                          \
        Filtered(level, channel, message);                                     \
    }
KARU_LOG_FORMS(LogDebug, kLogDebug)
KARU_LOG_FORMS(LogInfo, kLogInfo)
KARU_LOG_FORMS(LogWarning, kLogWarning)
KARU_LOG_FORMS(LogError, kLogError)
KARU_LOG_FORMS(LogNote, kLogNote)
KARU_LOG_FORMS(LogFatal, kLogFatal)
#undef KARU_LOG_FORMS

void CLog::LogLevel(int32_t level, const char* channel, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    Filtered(level, Channel(channel), format, args);
    va_end(args);
}

void CLog::LogLevel(int32_t level, const stringEx& channel, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    Filtered(level, channel, format, args);
    va_end(args);
}

void CLog::LogLevel(int32_t level, const char* channel, const stringEx& message)
{
    Filtered(level, Channel(channel), message);
}

void CLog::LogLevel(int32_t level, const stringEx& channel, const stringEx& message)
{
    Filtered(level, channel, message);
}

void CLog::LogLevelV(int32_t level, const char* channel, const char* format, va_list args)
{
    Filtered(level, Channel(channel), format, args);
}

void CLog::LogMessage(int32_t level, const stringEx& channel, const stringEx& message)
{
    Filtered(level, channel, message);
}

// ---- one log -----------------------------------------------------------------------

CLog::CLog(uint32_t flags, int32_t threshold) : _flags(flags), _threshold(threshold) {}

CLog::~CLog() noexcept(false)
{
    StartLoggingThread(false, 0xFFFFFFFF);
    try {
        FlushLoggers();
    } catch (...) {
        if (MayThrowFromDestructor())
            throw;
    }
}

int32_t CLog::GetThreshold() const noexcept
{
    return _threshold.load(std::memory_order_relaxed);
}

void CLog::SetThreshold(int32_t level)
{
    _threshold.store(level, std::memory_order_relaxed);
}

void CLog::__SettleThread()
{
    if (!_thread)
        return;
    if (!_thread->BelongsToThisProcess()) {
        // Forked from a process whose logging thread this is: its queued
        // records are the parent's to deliver.
        AbandonAfterFork(_thread);
        _thread = nullptr;
        return;
    }
    if (_thread->IsDead() && !_thread->IsCurrentThread())
        __EndThread();
}

void CLog::__EndThread()
{
    IMPL::CLoggingThread* thread = _thread;
    thread->Wait();
    const std::deque<IMPL::LOG_RECORD> left = thread->TakeLeftovers();
    _thread = nullptr;
    delete thread;
    for (const IMPL::LOG_RECORD& record : left) {
        if (record.stop)
            continue;
        try {
            __Deliver(CTime(record.time), record.level, record.channel, record.message);
        } catch (...) {
            // the main logger's failure has no caller left to reach
        }
    }
}

void CLog::__Deliver(const CTime& time, int32_t level, const stringEx& channel, const stringEx& message)
{
    if (_mainLogger && !_mainLogger->Write(time, level, channel, message))
        return;
    for (const LoggerHandle& logger : _loggers) {
        if (!logger)
            continue;
        try {
            logger->Write(time, level, channel, message);
        } catch (...) {
            // one failing logger must not silence the others
        }
    }
}

void CLog::__FlushStack()
{
    for (const LoggerHandle& logger : _loggers)
        if (logger)
            logger->Flush();
}

void CLog::Write(int32_t level, const stringEx& channel, const stringEx& message)
{
    IMPL::CLoggingThread* here = IMPL::CLoggingThread::Current();
    if (here && here->Log() == this) {
        here->DeliverHere(level, channel, message);
        return;
    }
    CFastLockHolder hold(lock);
    const CTime now = CTime::Now();
    __SettleThread();
    if (_thread) {
        IMPL::LOG_RECORD record;
        record.time = now.Microseconds();
        record.level = level;
        record.channel = channel;
        record.message = message;
        if (_thread->Push(record))
            return;
        __SettleThread();  // it died meanwhile: what it left goes first
    }
    __Deliver(now, level, channel, message);
}

// Changes of the logger list wait for the record being delivered.
#define KARU_LOGGERS_GUARD                                         \
    CFastLockHolder hold(lock);                                    \
    __SettleThread();                                              \
    FAST_PCLOCK* dispatch = _thread ? &_thread->DispatchLock() : nullptr; \
    if (dispatch)                                                  \
        dispatch->Lock();                                          \
    struct DispatchRelease {                                       \
        FAST_PCLOCK* lock;                                         \
        ~DispatchRelease() noexcept(false)                         \
        {                                                          \
            if (lock)                                              \
                lock->Unlock();                                    \
        }                                                          \
    } release{dispatch}

void CLog::SetMainLogger(const LoggerHandle& logger)
{
    KARU_LOGGERS_GUARD;
    _mainLogger = logger;
}

bool CLog::HasMainLogger()
{
    CFastLockHolder hold(lock);
    return _mainLogger != nullptr;
}

void CLog::PushLogger(const LoggerHandle& logger)
{
    if (!logger)
        Throw<logExp>(ExpMessage("CLog::PushLogger - invalid logger handle"), 5);
    KARU_LOGGERS_GUARD;
    _loggers.push_back(logger);
}

LoggerHandle CLog::PopLogger()
{
    KARU_LOGGERS_GUARD;
    if (_loggers.empty())
        Throw<logExp>(ExpMessage("CLog::PopLogger - nothing to pop"), 1);
    LoggerHandle last = std::move(_loggers.back());
    _loggers.pop_back();
    return last;
}

void CLog::RemoveLogger(const LoggerHandle& logger)
{
    KARU_LOGGERS_GUARD;
    for (auto it = _loggers.begin(); it != _loggers.end(); ++it)
        if (it->get() == logger.get()) {
            _loggers.erase(it);
            return;
        }
}

#undef KARU_LOGGERS_GUARD

bool CLog::IsLoggerPushed(const LoggerHandle& logger)
{
    CFastLockHolder hold(lock);
    for (const LoggerHandle& pushed : _loggers)
        if (pushed.get() == logger.get())
            return true;
    return false;
}

size_t CLog::LoggerCount()
{
    CFastLockHolder hold(lock);
    return _loggers.size();
}

void CLog::FlushLoggers()
{
    IMPL::CLoggingThread* here = IMPL::CLoggingThread::Current();
    if (here && here->Log() == this) {
        here->FlushHere();  // waiting for the queue would wait for this thread
        return;
    }
    CFastLockHolder hold(lock);
    __SettleThread();
    if (_thread) {
        _thread->WaitDrained();
        __SettleThread();  // drained, or died: then what it left is delivered here
    }
    if (_thread) {
        CFastLockHolder dispatch(_thread->DispatchLock());
        __FlushStack();
    } else {
        __FlushStack();
    }
}

bool CLog::StartLoggingThread(bool on, uint32_t capacity)
{
    CFastLockHolder hold(lock);
    __SettleThread();
    if (on == (_thread != nullptr))
        return true;
    if (on) {
        IMPL::CLoggingThread* thread = nullptr;
        try {
            thread = new IMPL::CLoggingThread(this, capacity);
            thread->SetPriority(TThread::kNormalPriority);
            _thread = thread;
            thread->Start();
        } catch (...) {
            _thread = nullptr;
            delete thread;
            return false;
        }
        return true;
    }
    _thread->Stop();  // behind every queued record, or at once if it died
    __EndThread();
    return true;
}

bool CLog::IsLoggingThreadOn()
{
    CFastLockHolder hold(lock);
    __SettleThread();
    return _thread != nullptr;
}

}  // namespace Karu

// CLog: the process-wide log, the filter, and the synchronous delivery path.
//
// The process-wide state is constant-initialised and never destroyed: the
// fatal-error handlers may log from a signal or from another static's
// destructor at any moment of the process's life, and must find a working
// lock. The installed log is released by an exit handler instead, so that
// a record queued before exit is always delivered.
#include <karu/log/log.h>

#include <cstdlib>

#include <karu/log/loggingThread.h>

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

// The filter, then formatting, then delivery; all under the process-wide lock.
void Filtered(int32_t level, const stringEx& channel, const char* format, va_list args)
{
    {
        CFastLockHolder hold(State().lock);
        CLog::Handle* log = State().instance;
        if (!log || !*log || level < (*log)->GetThreshold())
            return;
        (*log)->Write(level, channel, stringEx::FormatV(format, args));
    }
    if (level == kLogFatal)
        CLog::Flush();
}

void Filtered(int32_t level, const stringEx& channel, const stringEx& message)
{
    {
        CFastLockHolder hold(State().lock);
        CLog::Handle* log = State().instance;
        if (!log || !*log || level < (*log)->GetThreshold())
            return;
        (*log)->Write(level, channel, message);
    }
    if (level == kLogFatal)
        CLog::Flush();
}

// A channel given as a pointer; null reads as the empty channel.
stringEx Channel(const char* channel)
{
    return stringEx(channel ? channel : "");
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

void CLog::__ReapDeadThread()
{
    if (_thread && _thread->IsDead() && !_thread->IsCurrentThread()) {
        _thread->Wait();
        delete _thread;
        _thread = nullptr;
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

void CLog::Write(int32_t level, const stringEx& channel, const stringEx& message)
{
    CFastLockHolder hold(lock);
    const CTime now = CTime::Now();
    __ReapDeadThread();
    if (_thread && !_thread->IsDead()) {
        IMPL::LOG_RECORD record;
        record.time = now.Microseconds();
        record.level = level;
        record.channel = channel;
        record.message = message;
        _thread->Push(record);
        return;
    }
    __Deliver(now, level, channel, message);
}

// Changes of the logger list wait for the record being delivered.
#define KARU_LOGGERS_GUARD                                         \
    CFastLockHolder hold(lock);                                    \
    __ReapDeadThread();                                            \
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
    CFastLockHolder hold(lock);
    __ReapDeadThread();
    if (_thread)
        _thread->WaitDrained();
    for (const LoggerHandle& logger : _loggers)
        if (logger)
            logger->Flush();
}

bool CLog::StartLoggingThread(bool on, uint32_t capacity)
{
    CFastLockHolder hold(lock);
    __ReapDeadThread();
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
    IMPL::CLoggingThread* thread = _thread;
    thread->Stop();
    thread->Wait();
    _thread = nullptr;
    delete thread;
    return true;
}

bool CLog::IsLoggingThreadOn()
{
    CFastLockHolder hold(lock);
    __ReapDeadThread();
    return _thread != nullptr;
}

}  // namespace Karu

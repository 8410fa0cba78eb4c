// CLog: the process-wide log that every part of the library writes to, the
// logger interface, and the two loggers of the library.
//
// A record has a time, a level (0 debug .. 5 fatal; 6 disables), a channel
// (a dotted word such as "util.sysfile") and a message. Until a log object
// is installed a record costs one lock and a test and goes nowhere; the
// filter runs before any formatting.
//
// Delivery is synchronous in the calling thread, under the process-wide log
// lock, so a logger need not be thread-safe. StartLoggingThread switches to
// asynchronous delivery: callers queue records on a bounded queue and one
// logging thread hands them to the loggers (see log/loggingThread.h). A full
// queue makes callers wait; records are never dropped. A record that a
// logger makes on the logging thread is delivered there at once.
//
// Level 6 disables: a log at threshold 6 delivers nothing, and no record
// has level 6.
//
// A child forked while the logging thread runs logs synchronously: the
// locks of the installed log are free in it, and its thread is the parent's.
//
// Lock order: the process-wide lock, CLog::lock, the dispatch lock of the
// logging thread, the queue's lock.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <vector>

#include <karu/file/sysfile.h>
#include <karu/string/stringEx.h>
#include <karu/sync/fastlock.h>
#include <karu/time/time.h>

namespace Karu {

enum LogLevel : int32_t {
    kLogDebug = 0,
    kLogInfo = 1,
    kLogWarning = 2,
    kLogError = 3,
    kLogNote = 4,
    kLogFatal = 5,
    kLogDisabled = 6,
};

// "debug only", "info", ... "disabled"; "unknown" for any other number.
const char* LogLevelName(int32_t level) noexcept;
// The nine-character tag the loggers print: "Debug]   " ... "Unknown] ".
const char* LogLevelTag(int32_t level) noexcept;

class ILogger {
public:
    virtual ~ILogger() noexcept(false) = default;
    // False from the main logger hides the record from the stack.
    virtual bool Write(const CTime& time, int32_t level, const stringEx& channel, const stringEx& message) = 0;
    virtual void Flush() {}
};

using LoggerHandle = std::shared_ptr<ILogger>;

// Writes to a standard stream it does not own; records stand apart by an
// empty line.
class CStreamLogger : public ILogger {
public:
    explicit CStreamLogger(std::ostream& stream) : _stream(&stream) {}
    bool Write(const CTime& time, int32_t level, const stringEx& channel, const stringEx& message) override;
    void Flush() override;

private:
    std::ostream* _stream;
};

template <class File>
class CFileLogger;

// Writes to a file it owns, one line break after each record. Each piece of
// a record is its own write, so writers sharing the file may interleave.
template <>
class CFileLogger<CSysFile> : public ILogger {
public:
    explicit CFileLogger(const CSysFile& file) : _file(file) {}
    // Opens `path` for appending, creating it when missing.
    explicit CFileLogger(const stringEx& path);
    bool Write(const CTime& time, int32_t level, const stringEx& channel, const stringEx& message) override;
    void Flush() override;

private:
    CSysFile _file;
};

namespace IMPL {
class CLoggingThread;
struct LogFork;
}  // namespace IMPL

class CLog {
public:
    using Handle = std::shared_ptr<CLog>;

    explicit CLog(uint32_t flags = 0, int32_t threshold = kLogDebug);
    ~CLog() noexcept(false);
    CLog(const CLog&) = delete;
    CLog& operator=(const CLog&) = delete;

    // ---- the process-wide log ----
    static void SetInstance(const Handle& log);
    static Handle GetInstance();
    static void DisableLogging();
    static void EnableLogging();
    // Drains the queue and flushes the stack of the installed log, if any.
    static void Flush();

    // The writing family. A format is expanded only after the filter let
    // the record pass; the stringEx forms format nothing. The fatal forms,
    // and LogLevel at level 5, flush before they return.
#define KARU_LOG_FAMILY(name)                                                                      \
    static void name(const char* channel, const char* format, ...) __attribute__((format(printf, 2, 3))); \
    static void name(const stringEx& channel, const char* format, ...) __attribute__((format(printf, 2, 3))); \
    static void name(const char* channel, const stringEx& message);                               \
    static void name(const stringEx& channel, const stringEx& message);
    KARU_LOG_FAMILY(LogDebug)
    KARU_LOG_FAMILY(LogInfo)
    KARU_LOG_FAMILY(LogWarning)
    KARU_LOG_FAMILY(LogError)
    KARU_LOG_FAMILY(LogNote)
    KARU_LOG_FAMILY(LogFatal)
#undef KARU_LOG_FAMILY
    static void LogLevel(int32_t level, const char* channel, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    static void LogLevel(int32_t level, const stringEx& channel, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    static void LogLevel(int32_t level, const char* channel, const stringEx& message);
    static void LogLevel(int32_t level, const stringEx& channel, const stringEx& message);
    static void LogLevelV(int32_t level, const char* channel, const char* format, va_list args);
    static void LogMessage(int32_t level, const stringEx& channel, const stringEx& message);

    // ---- this log ----
    // The delivery path; the writing family calls it after the filter.
    void Write(int32_t level, const stringEx& channel, const stringEx& message);
    void SetThreshold(int32_t level);
    int32_t GetThreshold() const noexcept;
    uint32_t GetFlags() const noexcept { return _flags; }

    void SetMainLogger(const LoggerHandle& logger);
    bool HasMainLogger();
    void PushLogger(const LoggerHandle& logger);
    LoggerHandle PopLogger();
    void RemoveLogger(const LoggerHandle& logger);
    bool IsLoggerPushed(const LoggerHandle& logger);
    size_t LoggerCount();
    // Waits for the queue to drain, then flushes every logger of the stack
    // (the main logger is not flushed).
    void FlushLoggers();

    // Turns asynchronous delivery on or off; false when the thread could
    // not be made, and the log then stays synchronous.
    bool StartLoggingThread(bool on, uint32_t capacity);
    bool IsLoggingThreadOn();

    FAST_PCLOCK lock;

private:
    friend class IMPL::CLoggingThread;
    friend struct IMPL::LogFork;
    void __Deliver(const CTime& time, int32_t level, const stringEx& channel, const stringEx& message);
    void __FlushStack();
    // Under `lock`: a thread that died, or that belongs to the parent of a
    // fork, is done with.
    void __SettleThread();
    // Under `lock`: waits for the thread's end, delivers what it left queued.
    void __EndThread();

    std::vector<LoggerHandle> _loggers;
    uint32_t _flags;
    std::atomic<int32_t> _threshold;
    LoggerHandle _mainLogger;
    IMPL::CLoggingThread* _thread = nullptr;
};

}  // namespace Karu

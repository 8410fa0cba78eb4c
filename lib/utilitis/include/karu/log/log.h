// CLog: the process-wide log that every part of the library writes to.
//
// A record has a time, a level (0 debug .. 5 fatal; 6 disables), a channel
// (a dotted word such as "util.sysfile") and a message. Until a log object
// is installed a record costs one lock and a test and goes nowhere; the
// filter runs before any formatting.
#pragma once

#include <cstdarg>
#include <cstdint>

#include <karu/string/stringEx.h>

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

class CLog {
public:
    // The writing family: (channel, printf format, ...) formats only after
    // the filter let the record pass; (channel, message) formats nothing.
    static void LogDebug(const char* channel, const char* format, ...) __attribute__((format(printf, 2, 3)));
    static void LogInfo(const char* channel, const char* format, ...) __attribute__((format(printf, 2, 3)));
    static void LogWarning(const char* channel, const char* format, ...) __attribute__((format(printf, 2, 3)));
    static void LogError(const char* channel, const char* format, ...) __attribute__((format(printf, 2, 3)));
    static void LogNote(const char* channel, const char* format, ...) __attribute__((format(printf, 2, 3)));
    static void LogFatal(const char* channel, const char* format, ...) __attribute__((format(printf, 2, 3)));
    static void LogLevel(int32_t level, const char* channel, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    static void LogLevelV(int32_t level, const char* channel, const char* format, va_list args);
    static void LogMessage(int32_t level, const stringEx& channel, const stringEx& message);

    // Flushes the installed log, if any.
    static void Flush();
};

}  // namespace Karu

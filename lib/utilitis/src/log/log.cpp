// The writing family of CLog. No log object exists yet in this build of the
// library, so every record is filtered out before it is formatted.
#include <karu/log/log.h>

namespace Karu {

#define KARU_LOG_FORM(name, level)                                  \
    void CLog::name(const char* channel, const char* format, ...)   \
    {                                                               \
        va_list args;                                               \
        va_start(args, format);                                     \
        LogLevelV(level, channel, format, args);                    \
        va_end(args);                                               \
    }
KARU_LOG_FORM(LogDebug, kLogDebug)
KARU_LOG_FORM(LogInfo, kLogInfo)
KARU_LOG_FORM(LogWarning, kLogWarning)
KARU_LOG_FORM(LogError, kLogError)
KARU_LOG_FORM(LogNote, kLogNote)
KARU_LOG_FORM(LogFatal, kLogFatal)
#undef KARU_LOG_FORM

void CLog::LogLevel(int32_t level, const char* channel, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    LogLevelV(level, channel, format, args);
    va_end(args);
}

void CLog::LogLevelV(int32_t, const char*, const char*, va_list) {}

void CLog::LogMessage(int32_t, const stringEx&, const stringEx&) {}

void CLog::Flush() {}

}  // namespace Karu

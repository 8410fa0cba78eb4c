// The two loggers of the library: to a standard stream and to a file.
//
// Both write "[time][tag(channel) message"; the stream logger ends a record
// with an empty line, the file logger with one line break, so that a file
// holds one record a line and a console shows records apart.
#include <karu/log/log.h>

#include <fcntl.h>

#include <cstring>
#include <ostream>

namespace Karu {
namespace {

constexpr const char* kTimeFormat = "%Y-%M-%d %H:%T:%S.%us UTC%Z";

stringEx Stamp(const CTime& time)
{
    return time.Format(stringEx(kTimeFormat));
}

}  // namespace

bool CStreamLogger::Write(const CTime& time, int32_t level, const stringEx& channel, const stringEx& message)
{
    const stringEx stamp = Stamp(time);
    std::ostream& out = *_stream;
    out.write("[", 1).write(stamp.data(), std::streamsize(stamp.size())).write("][", 2);
    out.write(LogLevelTag(level), 9).write("(", 1);
    out.write(channel.data(), std::streamsize(channel.size())).write(") ", 2);
    out.write(message.data(), std::streamsize(message.size())).write("\n\n", 2);
    return true;
}

void CStreamLogger::Flush()
{
    try {
        _stream->flush();
    } catch (...) {
        // a stream that cannot flush has nothing more to say
    }
}

CFileLogger<CSysFile>::CFileLogger(const stringEx& path)
{
    _file.Open(path, O_WRONLY | O_CREAT | O_APPEND);
}

bool CFileLogger<CSysFile>::Write(const CTime& time, int32_t level, const stringEx& channel, const stringEx& message)
{
    const stringEx stamp = Stamp(time);
    IMPL::WriteAll(_file, "[", 1);
    IMPL::WriteAll(_file, stamp.data(), stamp.size());
    IMPL::WriteAll(_file, "][", 2);
    IMPL::WriteAll(_file, LogLevelTag(level), 9);
    IMPL::WriteAll(_file, "(", 1);
    IMPL::WriteAll(_file, channel.data(), channel.size());
    IMPL::WriteAll(_file, ") ", 2);
    IMPL::WriteAll(_file, message.data(), message.size());
    IMPL::WriteAll(_file, "\n", 1);
    return true;
}

void CFileLogger<CSysFile>::Flush()
{
    try {
        _file.Flush();
    } catch (...) {
        // a file that cannot flush has nothing more to say
    }
}

}  // namespace Karu

// Message composition and the contract machinery of the exception family.
#include <karu/string/karuExp.h>

#include <atomic>
#include <cstring>
#include <exception>

#include <karu/misc/errhandler.h>

// Every function that raises uses this object: the fatal-error handler comes with it.
KARU_KEEP_ERROR_HANDLER()

namespace Karu {

stringEx ErrnoDescription(int error, ErrnoTable table)
{
    for (const ErrnoText& row : table)
        if (row.error == error)
            return stringEx(row.text);
    char buffer[256];
    // The GNU strerror_r returns its text, which may not be the buffer.
    const char* text = strerror_r(error, buffer, sizeof buffer);
    return stringEx("unexpect system error: ") + stringEx(text);
}

ExpMessage& ExpMessage::Detail(const stringEx& label, const stringEx& value)
{
    _lines.push_back({label, value});
    return *this;
}

ExpMessage& ExpMessage::Detail(const stringEx& label, int64_t value)
{
    return Detail(label, stringEx::Format("%lld", static_cast<long long>(value)));
}

ExpMessage& ExpMessage::Errno(int error, ErrnoTable table)
{
    Detail("error code", static_cast<int64_t>(error));
    return Detail("error desc", ErrnoDescription(error, table));
}

ExpMessage& ExpMessage::Text(const stringEx& text)
{
    _lines.push_back({stringEx(), text});
    return *this;
}

ExpMessage& ExpMessage::Cause(const karuExp& cause)
{
    return Cause(cause.message);
}

ExpMessage& ExpMessage::Cause(const stringEx& causeMessage)
{
    _cause = causeMessage;
    _hasCause = true;
    return *this;
}

stringEx ExpMessage::Str() const
{
    uint64_t width = 0;
    for (const Line& line : _lines)
        width = std::max(width, line.label.size());
    stringEx out = _head;
    for (const Line& line : _lines) {
        if (line.label.empty()) {
            out += line.value;
            continue;
        }
        out.append("  ", 2);
        out += line.label;
        out.append(width - line.label.size(), ' ');
        out.append(" = ", 3);
        out += line.value;
        out += '\n';
    }
    if (_hasCause) {
        if (!out.empty() && out[out.size() - 1] != '\n')
            out += '\n';
        out.append("@ ", 2);
        out += _cause;
    }
    return out;
}

namespace {

std::atomic<unexpected_handler> g_unexpected{nullptr};

}  // namespace

unexpected_handler SetUnexpectedHandler(unexpected_handler handler) noexcept
{
    return g_unexpected.exchange(handler);
}

unexpected_handler GetUnexpectedHandler() noexcept
{
    return g_unexpected.load();
}

namespace IMPL {

void CallUnexpected() noexcept
{
    if (unexpected_handler handler = g_unexpected.load())
        handler();
    std::terminate();
}

}  // namespace IMPL
}  // namespace Karu

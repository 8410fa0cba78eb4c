// Text in and out: files through the whole-file reader, standard input and
// output as raw bytes.
//
// Standard input is read to its end in steps that grow with it, so that a
// large input costs no more than its size to take in: the output is then
// exactly the replaced input, with nothing added at the end.
//
// Standard output is written with write(2), not through a stream: a stream
// forgets why a write failed as soon as it has thrown the failed bytes away,
// and the tool must tell a reader that went away (quietly done) from a full
// disk or a broken device (a failure).
#include "textio.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <karu/file/dir.h>
#include <karu/file/sysfile.h>

namespace Karu {

namespace {

// The first read of standard input; later ones take half as much again as
// has come so far.
constexpr size_t kStdinChunk = 1 << 16;

int g_stdoutError = 0;

void WriteAll(const void* data, size_t bytes)
{
    const char* at = static_cast<const char*>(data);
    while (bytes > 0 && g_stdoutError == 0) {
        const ssize_t n = write(STDOUT_FILENO, at, bytes);
        if (n > 0) {
            at += n;
            bytes -= static_cast<size_t>(n);
        } else if (n < 0 && errno == EAGAIN) {
            // A descriptor some caller left non-blocking: wait until it takes more.
            pollfd out = {STDOUT_FILENO, POLLOUT, 0};
            poll(&out, 1, -1);
        } else if (n < 0 && errno != EINTR) {
            g_stdoutError = errno;
        } else if (n == 0) {
            g_stdoutError = EIO;
        }
    }
}

// Units of `bytes` as they stand, and what is left behind the last one.
wstringEx UnitsOf(const byteEx& bytes, stringEx* tail)
{
    const uint64_t whole = bytes.size() / sizeof(wchar_t) * sizeof(wchar_t);
    if (tail)
        tail->assign(reinterpret_cast<const char*>(bytes.data()) + whole, bytes.size() - whole);
    return bytes.Reinterpret<wchar_t>();
}

}  // namespace

void ReadTextFile(wstringEx& text, const stringEx& path, const ConvPtr& conv, bool wide, bool swapped,
                  stringEx* tail)
{
    text.clear();
    if (tail)
        tail->clear();
    byteEx bytes;
    CDir::ReadFile(path, bytes);
    if (!wide) {
        conv->MBtoWCCarrying(text, bytes.Reinterpret<char>());
        return;
    }
    text = UnitsOf(bytes, tail);
    if (swapped) {
        // Our own reference goes first, so that the swap detaches nothing.
        bytes = byteEx();
        SwapUnits(text);
    }
}

uint64_t EncodeText(TTextConv& out, EscapeWriting escapes, const wstringEx& text, stringEx& bytes)
{
    switch (escapes) {
    case EscapeWriting::kCarry: out.WCtoMBCarrying(bytes, text); return wstringEx::npos;
    case EscapeWriting::kOrdinary: out.WCtoMB(bytes, text); return wstringEx::npos;
    case EscapeWriting::kRefuse: break;
    }
    const uint64_t escape = FindEscapeUnit(text);
    if (escape == wstringEx::npos)
        out.WCtoMB(bytes, text);
    else
        out.WCtoMB(bytes, wstringEx::View(text.data(), escape));
    return escape;
}

uint64_t FirstUndecodable(TTextConv& conv, const stringEx& bytes)
{
    wstringEx text;
    conv.MBtoWCCarrying(text, bytes);
    const uint64_t escape = FindEscapeUnit(text);
    if (escape == wstringEx::npos)
        return bytes.size();
    stringEx before;
    conv.WCtoMBCarrying(before, wstringEx::View(text.data(), escape));
    return before.size();
}

void SwapUnits(wstringEx& text)
{
    wchar_t* units = text.MutableData();
    for (uint64_t i = 0; i < text.size(); ++i) {
        const uint32_t low = static_cast<uint32_t>(units[i]) & 0xFFFF;
        units[i] = static_cast<wchar_t>(((low & 0xFF) << 8) | (low >> 8));
    }
    text.SetSize(text.size());
}

stringEx ReadStdinBytes()
{
    CSysFile in;
    in.Open(0);
    stringEx text;
    for (uint64_t step = kStdinChunk;; step = std::max<uint64_t>(kStdinChunk, text.size() / 2)) {
        if (text.size() + step + 1 > text.capacity())
            text.ReserveExact(text.size() + step + 1);
        char* room = text.GetBuffer(text.size() + step);
        const uint64_t got = in.Read(room + text.size(), step);
        text.SetSize(text.size() + got);
        if (got == 0)
            break;
    }
    return text;
}

wstringEx ReadStdinUnits(stringEx& tail)
{
    const stringEx bytes = ReadStdinBytes();
    return UnitsOf(bytes.Reinterpret<unsigned char, byte_traits>(), &tail);
}

void WriteStdout(const stringEx& bytes)
{
    WriteAll(bytes.data(), bytes.size());
}

void WriteStdoutUnits(const wstringEx& text)
{
    WriteAll(text.data(), text.size() * sizeof(wchar_t));
}

int StdoutError() noexcept
{
    return g_stdoutError;
}

}  // namespace Karu

// Text in and out: files through the whole-file reader, standard input and
// output as raw bytes.
//
// Standard input is read to its end, and then the end-of-input value is
// appended once as if it had been read: the replace step sees it like any
// other character, and it reaches the output. An empty input therefore
// still gives a text of one unit, and something is written.
#include "textio.h"

#include <cstdio>
#include <cstring>

#include <karu/file/dir.h>

namespace Karu {

namespace {

// How much of standard input one read takes.
constexpr size_t kStdinChunk = 1 << 16;

// What the end of input reads as: EOF as a byte, WEOF as a wide unit.
constexpr char kByteEndMark = static_cast<char>(0xFF);
constexpr wchar_t kUnitEndMark = static_cast<wchar_t>(0xFFFFFFFF);

void WriteAll(const void* data, size_t bytes)
{
    if (bytes)
        std::fwrite(data, 1, bytes, stdout);
}

}  // namespace

void ReadTextFile(wstringEx& text, const stringEx& path, const ConvPtr& conv, bool wide, bool swapped)
{
    text.clear();
    byteEx bytes;
    CDir::ReadFile(path, bytes);
    if (!wide) {
        conv->MBtoWC(text, bytes.Reinterpret<char>());
        return;
    }
    text = bytes.Reinterpret<wchar_t>();
    if (swapped) {
        // Our own reference goes first, so that the swap detaches nothing.
        bytes = byteEx();
        SwapUnits(text);
    }
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
    stringEx text;
    for (;;) {
        char* room = text.GetBuffer(text.size() + kStdinChunk);
        const size_t got = std::fread(room + text.size(), 1, kStdinChunk, stdin);
        text.SetSize(text.size() + got);
        if (got < kStdinChunk)
            break;
    }
    text.push_back(kByteEndMark);
    return text;
}

wstringEx ReadStdinUnits()
{
    const stringEx bytes = ReadStdinBytes();
    // The byte mark is not part of the units: the input ends at the last
    // whole unit, like a file, and the wide mark follows it.
    const uint64_t units = (bytes.size() - 1) / sizeof(wchar_t);
    wstringEx text;
    wchar_t* room = text.GetBuffer(units + 1);
    std::memcpy(room, bytes.data(), units * sizeof(wchar_t));
    room[units] = kUnitEndMark;
    text.SetSize(units + 1);
    return text;
}

void WriteStdout(const stringEx& bytes)
{
    WriteAll(bytes.data(), bytes.size());
}

void WriteStdoutUnits(const wstringEx& text)
{
    WriteAll(text.data(), text.size() * sizeof(wchar_t));
}

}  // namespace Karu

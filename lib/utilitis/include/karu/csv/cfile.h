// CCFile: the library's thin class over a C stream (FILE*).
//
// Every failing call raises cfileExp with the call's own head line and the
// system's description. End of file is not a failure: the character reads
// return EOF (or WEOF) there, and Read returns a short count. One object
// owns one stream; it is not copied, and the destructor closes it, raising
// only when no other exception is passing.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cwchar>

#include <karu/string/karuExp.h>

namespace Karu {

class CCFile {
public:
    CCFile() noexcept = default;
    CCFile(const stringEx& path, const stringEx& mode) { Open(path, mode); }
    ~CCFile() noexcept(false);
    CCFile(const CCFile&) = delete;
    CCFile& operator=(const CCFile&) = delete;

    // fopen; an open object is closed first.
    void Open(const stringEx& path, const stringEx& mode);
    void Close();
    bool IsOpen() const noexcept { return _file != nullptr; }
    bool IsEof() const noexcept { return _file && std::feof(_file); }
    FILE* Handle() const noexcept { return _file; }
    const stringEx& Path() const noexcept { return _path; }

    size_t Read(void* buffer, size_t size);
    size_t Write(const void* data, size_t size);
    void Flush();
    // setvbuf: _IOFBF, _IOLBF or _IONBF, with a buffer of `size` bytes that
    // the C library allocates.
    void SetBufOption(int mode, size_t size);

    int GetChar();
    wint_t GetWChar();
    int GetTChar();  // the build's text type is the 8-bit one
    void PutChar(int c);
    void PutWChar(wchar_t c);
    void PutTChar(char c);
    void UnGetChar(int c);
    void UnGetWChar(wint_t c);
    void UnGetTChar(int c);

    void SeekBegin(long offset);
    void SeekCurrent(long offset);
    void SeekEnd(long offset);
    long GetCurrentPos();
    void LargeSeekBegin(const fpos_t& position);
    fpos_t LargeGetCurrentPos();

private:
    void __Close();
    void __Seek(long offset, int whence, const char* head);

    FILE* _file = nullptr;
    stringEx _path;
};

}  // namespace Karu

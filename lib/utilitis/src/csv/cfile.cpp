// CCFile: C stream calls with the library's failure messages.
//
// A C stream signals failure and end of data with the same return value for
// its character calls, so a read is a failure only when the stream's error
// flag is set afterwards; the flag is cleared first, so that an old error
// already reported is not reported twice.
#include <karu/csv/cfile.h>

#include <cerrno>
#include <cstring>

namespace Karu {
namespace {

stringEx SystemError(int error)
{
    char buffer[256];
    return stringEx(strerror_r(error, buffer, sizeof buffer));
}

// Head line and "  system error is : " with the system's text; the C layer
// keeps its own colon-aligned field style.
[[noreturn]] void Fail(const char* head, int error, int32_t code, const stringEx& fields = stringEx())
{
    Throw<cfileExp>(ExpMessage(head).Text(fields + "  system error is : " + SystemError(error) + "\n"), code);
}

long long PositionOf(const fpos_t& position)
{
#ifdef __GLIBC__
    return static_cast<long long>(position.__pos);
#else
    (void)position;
    return -1;  // the offset is opaque on this C library
#endif
}

// Operations on a closed object fail as the system fails a bad stream.
FILE* Need(FILE* file, const char* head, int32_t code)
{
    if (!file)
        Fail(head, EBADF, code);
    return file;
}

}  // namespace

CCFile::~CCFile() noexcept(false)
{
    try {
        __Close();
    } catch (...) {
        if (MayThrowFromDestructor())
            throw;
    }
}

void CCFile::Open(const stringEx& path, const stringEx& mode)
{
    __Close();
    FILE* file;
    do
        file = std::fopen(path.c_str(), mode.c_str());
    while (!file && errno == EINTR);
    if (!file) {
        const int error = errno;
        Throw<cfileExp>(ExpMessage("CCFile::Open - failed open file\n")
                            .Text(stringEx("  file name       : ") + path + "\n  opening mode    : " + mode +
                                  "\n  system error is : " + SystemError(error) + "\n"),
                        4);
    }
    _file = file;
    _path = path;
}

void CCFile::Close()
{
    __Close();
}

void CCFile::__Close()
{
    if (!_file)
        return;
    FILE* file = _file;
    _file = nullptr;
    _path.clear();
    // fclose releases the stream whatever it returns; it is never retried.
    if (std::fclose(file) != 0)
        Fail("CCFile::__Close - failed close file\n", errno, 6);
}

size_t CCFile::Read(void* buffer, size_t size)
{
    const char* const head = "CCFile::Read - failed reading file\n";
    FILE* const file = Need(_file, head, 7);
    std::clearerr(file);
    const size_t got = std::fread(buffer, 1, size, file);
    if (got < size && std::ferror(file))
        Fail(head, errno, 7);
    return got;
}

size_t CCFile::Write(const void* data, size_t size)
{
    const char* const head = "CCFile::Write - error occur when writing\n";
    FILE* const file = Need(_file, head, 9);
    const size_t put = std::fwrite(data, 1, size, file);
    if (put < size)
        Fail(head, errno, 9);
    return put;
}

void CCFile::Flush()
{
    const char* const head = "CCFile::Flush - failed flush buffer\n";
    FILE* const file = Need(_file, head, 15);
    if (std::fflush(file) != 0)
        Fail(head, errno, 15);
}

void CCFile::SetBufOption(int mode, size_t size)
{
    const char* const head = "CCFile::SetBufOption - failed set buffer\n";
    FILE* const file = Need(_file, head, 16);
    if (std::setvbuf(file, nullptr, mode, size) != 0)
        Fail(head, errno, 16,
             stringEx::Format("  mode            = %d\n  buf size        = %zu\n", mode, size));
}

namespace {

// The character calls share one shape: a call on the stream whose return
// equals `end` on failure; for reads `end` also means the end of the data,
// told apart by the error flag.
template <class R, class Call>
R CharCall(FILE* stream, const char* head, int32_t code, R end, bool isRead, Call call)
{
    FILE* const file = Need(stream, head, code);
    if (isRead)
        std::clearerr(file);
    errno = 0;
    const R result = call(file);
    // A refusal the C library gives no reason for (ungetc of EOF) is an
    // invalid argument, not whatever an earlier call left in errno.
    if (result == end && (!isRead || std::ferror(file)))
        Fail(head, errno ? errno : EINVAL, code);
    return result;
}

}  // namespace

int CCFile::GetChar()
{
    return CharCall(_file, "CCFile::GetChar - failed getting char\n", 7, EOF, true, std::fgetc);
}

wint_t CCFile::GetWChar()
{
    return CharCall(_file, "CCFile::GetWChar - failed getting char\n", 7, WEOF, true, std::fgetwc);
}

int CCFile::GetTChar()
{
    return CharCall(_file, "CCFile::GetTChar - failed getting char\n", 7, EOF, true, std::fgetc);
}

void CCFile::PutChar(int c)
{
    CharCall(_file, "CCFile::PutChar - failed putting char\n", 9, EOF, false,
             [c](FILE* f) { return std::fputc(c, f); });
}

void CCFile::PutWChar(wchar_t c)
{
    CharCall(_file, "CCFile::PutWChar - failed putting char\n", 9, WEOF, false,
             [c](FILE* f) { return std::fputwc(c, f); });
}

void CCFile::PutTChar(char c)
{
    CharCall(_file, "CCFile::PutTChar - failed putting char\n", 9, EOF, false,
             [c](FILE* f) { return std::fputc(static_cast<unsigned char>(c), f); });
}

void CCFile::UnGetChar(int c)
{
    CharCall(_file, "CCFile::UnGetChar - failed unget char\n", 12, EOF, false,
             [c](FILE* f) { return std::ungetc(c, f); });
}

void CCFile::UnGetWChar(wint_t c)
{
    CharCall(_file, "CCFile::UnGetWChar - failed unget char\n", 12, WEOF, false,
             [c](FILE* f) { return std::ungetwc(c, f); });
}

void CCFile::UnGetTChar(int c)
{
    CharCall(_file, "CCFile::UnGetTChar - failed unget char\n", 12, EOF, false,
             [c](FILE* f) { return std::ungetc(c, f); });
}

void CCFile::__Seek(long offset, int whence, const char* head)
{
    if (std::fseek(Need(_file, head, 13), offset, whence) != 0)
        Fail(head, errno, 13, stringEx::Format("  position = %ld\n", offset));
}

void CCFile::SeekBegin(long offset)
{
    __Seek(offset, SEEK_SET, "CCFile::SeekBegin - error occur when seeking\n");
}

void CCFile::SeekCurrent(long offset)
{
    __Seek(offset, SEEK_CUR, "CCFile::SeekCurrent - error occur when seeking\n");
}

void CCFile::SeekEnd(long offset)
{
    __Seek(offset, SEEK_END, "CCFile::SeekEnd - error occur when seeking\n");
}

long CCFile::GetCurrentPos()
{
    const char* const head = "CCFile::GetCurrentPos - failed get current position\n";
    FILE* const file = Need(_file, head, 14);
    const long pos = std::ftell(file);
    if (pos < 0)
        Fail(head, errno, 14);
    return pos;
}

void CCFile::LargeSeekBegin(const fpos_t& position)
{
    if (std::fsetpos(Need(_file, "CCFile::LargeSeekBegin - failed set file position\n", 13), &position) != 0) {
        const int error = errno;
        Throw<cfileExp>(ExpMessage("CCFile::LargeSeekBegin - failed set file position\n")
                            .Text(stringEx::Format("  pos from begin of file = %lld\n",
                                                   PositionOf(position)) +
                                  "  system error is        : " + SystemError(error) + "\n"),
                        13);
    }
}

fpos_t CCFile::LargeGetCurrentPos()
{
    const char* const head = "CCFile::LargeGetCurrentPos - failed get current position\n";
    FILE* const file = Need(_file, head, 14);
    fpos_t position;
    if (std::fgetpos(file, &position) != 0)
        Fail(head, errno, 14);
    return position;
}

}  // namespace Karu

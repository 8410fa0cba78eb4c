// The ISXF reader and writer, instantiated for any stream and for memory.
//
// Reading a value is: take the code (the peeked one, or one byte charged to
// the bound), compare it with the expected one, and then charge and read the
// payload. A void code ends a plain value at once with its zero. The counted
// kinds charge their 4-byte length, and only then the body, so a corrupt
// length is refused by the bound before anything is allocated for it.
//
// A stream that runs dry without the bound noticing reads as zeros: the code
// byte then stays 0xFF, which no value has, so an unbounded reader of a
// truncated stream fails at its next value instead of inventing voids.
#include <karu/stream/isxf.h>

#include <cfloat>
#include <cstring>

namespace Karu {
namespace {

// IgnoreNext drops counted bodies through a scratch area of this size on
// the stack, so skipping never allocates.
constexpr uint64_t kSkipPiece = 384;

// Bytes of a long double that carry its value; the 80-bit extended real
// leaves the rest of its storage undefined, and that must not reach a file.
constexpr size_t kLongDoubleBytes = LDBL_MANT_DIG == 64 ? 10 : sizeof(long double);
static_assert(kLongDoubleBytes <= kIsxfLongDoubleSlot, "long double does not fit its slot");

[[noreturn]] void ThrowBound(int64_t size, int64_t after)
{
    Throw<isxfExp>(ExpMessage("CISXFBasic::_CheckBound - buffer overflow\n")
                       .Detail("expected size", size)
                       .Detail("check bound", after),
                   2);
}

[[noreturn]] void ThrowWrongType(uint8_t expected, uint8_t real)
{
    Throw<isxfExp>(ExpMessage("CISXFReader::_GetAndVerifyType - wrong data type\n")
                       .Detail("expected", static_cast<int64_t>(expected))
                       .Detail("real", static_cast<int64_t>(real)),
                   1);
}

[[noreturn]] void ThrowTooSmall(const char* head, uint32_t requested, uint32_t supplied)
{
    Throw<isxfExp>(ExpMessage(head)
                       .Detail("requested size", static_cast<int64_t>(requested))
                       .Detail("user supplied", static_cast<int64_t>(supplied)),
                   1);
}

bool IsAssigned(uint8_t code) noexcept
{
    return code <= kIsxfBlob ? code != 0x04 : code >= kIsxfCtrlCode && code <= kIsxfCompactCommand;
}

}  // namespace

// ---- bound ------------------------------------------------------------------------------

template <class Stream>
void CISXFBasic<Stream>::_CheckBound(int64_t size)
{
    if (bound == NoBound)
        return;
    bound -= size;
    if (bound < 0) {
        const int64_t after = bound;
        bound = 0;
        ThrowBound(size, after);
    }
}

// ---- reader -----------------------------------------------------------------------------

template <class Source>
void CISXFReader<Source>::__ReadBytes(void* to, uint64_t size)
{
    unsigned char* out = static_cast<unsigned char*>(to);
    uint64_t got = 0;
    while (got < size) {
        const size_t n = this->stream->Read(out + got, static_cast<size_t>(size - got));
        if (n == 0)
            break;
        got += n;
    }
    // Whatever the source did not deliver reads as zero, never as stale memory.
    if (got < size)
        std::memset(out + got, 0, size - got);
}

template <class Source>
uint8_t CISXFReader<Source>::__TakeCode()
{
    if (peeked != kNoPeek) {
        const uint8_t code = static_cast<uint8_t>(peeked);
        peeked = kNoPeek;
        return code;
    }
    this->_CheckBound(1);
    uint8_t code = 0xFF;
    if (this->stream->Read(&code, 1) != 1)
        code = 0xFF;
    return code;
}

template <class Source>
uint8_t CISXFReader<Source>::PeekType()
{
    if (peeked == kNoPeek)
        peeked = __TakeCode();
    return static_cast<uint8_t>(peeked);
}

// True when a plain value arrived as void.
template <class Source>
bool CISXFReader<Source>::_GetAndVerifyType(uint8_t expected, const char* voidMessage)
{
    const uint8_t code = __TakeCode();
    if (code == expected)
        return false;
    if (code == kIsxfVoid) {
        if (expected < 0x80)
            return true;
        Throw<isxfExp>(ExpMessage(voidMessage), 1);
    }
    ThrowWrongType(expected, code);
}

template <class Source>
template <class V>
V CISXFReader<Source>::__Fixed(uint8_t code, const char* voidMessage)
{
    V value{};
    if (_GetAndVerifyType(code, voidMessage))
        return value;
    this->_CheckBound(sizeof(V));
    __ReadBytes(&value, sizeof(V));
    return value;
}

template <class Source>
uint32_t CISXFReader<Source>::__Length()
{
    this->_CheckBound(4);
    uint32_t size = 0;
    __ReadBytes(&size, 4);
    return size;
}

template <class Source>
void CISXFReader<Source>::SkipBody(uint64_t size)
{
    unsigned char scratch[kSkipPiece];
    while (size > 0) {
        const uint64_t piece = size < kSkipPiece ? size : kSkipPiece;
        __ReadBytes(scratch, piece);
        size -= piece;
    }
}

template <class Source>
int8_t CISXFReader<Source>::GetInt8()
{
    return __Fixed<int8_t>(kIsxfInt8, nullptr);
}
template <class Source>
int16_t CISXFReader<Source>::GetInt16()
{
    return __Fixed<int16_t>(kIsxfInt16, nullptr);
}
template <class Source>
int32_t CISXFReader<Source>::GetInt32()
{
    return __Fixed<int32_t>(kIsxfInt32, nullptr);
}
template <class Source>
int64_t CISXFReader<Source>::GetInt64()
{
    return __Fixed<int64_t>(kIsxfInt64, nullptr);
}
template <class Source>
float CISXFReader<Source>::GetFloat()
{
    return __Fixed<float>(kIsxfFloat, nullptr);
}
template <class Source>
double CISXFReader<Source>::GetDouble()
{
    return __Fixed<double>(kIsxfDouble, nullptr);
}

template <class Source>
long double CISXFReader<Source>::GetLongDouble()
{
    long double value = 0.0L;
    if (_GetAndVerifyType(kIsxfLongDouble, nullptr))
        return value;
    this->_CheckBound(kIsxfLongDoubleSlot);
    unsigned char slot[kIsxfLongDoubleSlot];
    __ReadBytes(slot, sizeof slot);
    std::memcpy(&value, slot, kLongDoubleBytes);
    return value;
}

template <class Source>
bool CISXFReader<Source>::GetBool()
{
    return !_GetAndVerifyType(kIsxfTrue, nullptr);
}

template <class Source>
uint32_t CISXFReader<Source>::GetString(char* buffer, uint32_t capacity)
{
    if (_GetAndVerifyType(kIsxfString, nullptr)) {
        if (buffer && capacity)
            buffer[0] = 0;
        return 0;
    }
    const uint32_t size = __Length();
    // The text and its terminator must fit; anything else would write
    // outside the caller's memory.
    if (buffer && uint64_t(size) + 1 > capacity)
        ThrowTooSmall("CISXFReader::GetString - overflow: buffer too small\n", size, capacity);
    this->_CheckBound(size);
    if (!buffer) {
        SkipBody(size);
        return 0;
    }
    buffer[size] = 0;
    __ReadBytes(buffer, size);
    return size;
}

template <class Source>
uint32_t CISXFReader<Source>::GetWString(wchar_t* buffer, uint32_t capacity)
{
    if (_GetAndVerifyType(kIsxfWString, nullptr)) {
        if (buffer && capacity)
            buffer[0] = 0;
        return 0;
    }
    const uint32_t size = __Length();
    if (size % sizeof(wchar_t))
        Throw<isxfExp>(ExpMessage("CISXFReader::GetWString - length is not a whole number of characters\n")
                           .Detail("requested size", static_cast<int64_t>(size)),
                       1);
    if (buffer && uint64_t(size) / sizeof(wchar_t) + 1 > capacity)
        ThrowTooSmall("CISXFReader::GetWString - overflow: buffer too small\n", size, capacity);
    this->_CheckBound(size);
    if (!buffer) {
        SkipBody(size);
        return 0;
    }
    buffer[size / sizeof(wchar_t)] = 0;
    __ReadBytes(buffer, size);
    return size / sizeof(wchar_t);
}

template <class Source>
uint32_t CISXFReader<Source>::GetBlob(void* buffer, uint32_t capacity)
{
    if (_GetAndVerifyType(kIsxfBlob, nullptr))
        return 0;
    const uint32_t size = __Length();
    if (buffer && size > capacity)
        ThrowTooSmall("CISXFReader::GetBlob - overflow: buffer too small\n", size, capacity);
    this->_CheckBound(size);
    if (!buffer) {
        SkipBody(size);
        return 0;
    }
    __ReadBytes(buffer, size);
    return size;
}

template <class Source>
void CISXFReader<Source>::GetString(stringEx& out)
{
    if (_GetAndVerifyType(kIsxfString, nullptr)) {
        out.clear();
        return;
    }
    const uint32_t size = __Length();
    this->_CheckBound(size);
    stringEx text;
    __ReadBytes(text.GetBuffer(size), size);
    text.SetSize(size);
    out = text;
}

template <class Source>
void CISXFReader<Source>::GetWString(wstringEx& out)
{
    if (_GetAndVerifyType(kIsxfWString, nullptr)) {
        out.clear();
        return;
    }
    const uint32_t size = __Length();
    if (size % sizeof(wchar_t))
        Throw<isxfExp>(ExpMessage("CISXFReader::GetWString - length is not a whole number of characters\n")
                           .Detail("requested size", static_cast<int64_t>(size)),
                       1);
    this->_CheckBound(size);
    wstringEx text;
    __ReadBytes(text.GetBuffer(size / sizeof(wchar_t)), size);
    text.SetSize(size / sizeof(wchar_t));
    out = text;
}

template <class Source>
void CISXFReader<Source>::GetBlob(byteEx& out)
{
    if (_GetAndVerifyType(kIsxfBlob, nullptr)) {
        out.clear();
        return;
    }
    const uint32_t size = __Length();
    this->_CheckBound(size);
    byteEx bytes;
    if (size) {
        __ReadBytes(bytes.GetBuffer(size), size);
        bytes.SetSize(size);
    }
    out = bytes;
}

template <class Source>
uint32_t CISXFReader<Source>::BeginBlob()
{
    if (_GetAndVerifyType(kIsxfBlob, nullptr))
        return 0;
    const uint32_t size = __Length();
    this->_CheckBound(size);
    return size;
}

#define KARU_ISXF_GET(Type, Name, code, what)                                                 \
    template <class Source>                                                                   \
    Type CISXFReader<Source>::Name()                                                          \
    {                                                                                         \
        return __Fixed<Type>(code, "CISXFReader::" #Name " - " what " can't be void");     \
    }
KARU_ISXF_GET(uint8_t, GetCtrlCode, kIsxfCtrlCode, "control code")
KARU_ISXF_GET(uint16_t, GetSegNumber, kIsxfSegNumber, "segment number")
KARU_ISXF_GET(uint32_t, GetEnum, kIsxfEnum, "enumeration")
KARU_ISXF_GET(uint32_t, GetID, kIsxfID, "identification")
KARU_ISXF_GET(uint32_t, GetSize, kIsxfSize, "size")
KARU_ISXF_GET(uint64_t, GetBigSize, kIsxfBigSize, "big size")
KARU_ISXF_GET(uint32_t, GetCommand, kIsxfCommand, "command code")
KARU_ISXF_GET(uint64_t, GetBigID, kIsxfBigID, "identification")
KARU_ISXF_GET(uint16_t, GetSmallID, kIsxfSmallID, "small identification")
KARU_ISXF_GET(uint8_t, GetTinyID, kIsxfTinyID, "tiny identification")
KARU_ISXF_GET(uint8_t, GetSmallEnum, kIsxfSmallEnum, "small enumeration")
KARU_ISXF_GET(uint8_t, GetSmallVersion, kIsxfSmallVersion, "small version")
KARU_ISXF_GET(uint16_t, GetVersion, kIsxfVersion, "version")
KARU_ISXF_GET(uint32_t, GetBigSegNumber, kIsxfBigSegNumber, "big segment number")
KARU_ISXF_GET(uint16_t, GetCompactCommand, kIsxfCompactCommand, "compact command code")
#undef KARU_ISXF_GET

template <class Source>
void CISXFReader<Source>::GetEofSegNumber()
{
    _GetAndVerifyType(kIsxfEofSegNumber, "CISXFReader::GetEofSegNumber - segment ending number can't be void");
}

template <class Source>
void CISXFReader<Source>::GetEofBigSegNumber()
{
    _GetAndVerifyType(kIsxfEofBigSegNumber,
                      "CISXFReader::GetEofBigSegNumber - big segment ending number can't be void");
}

template <class Source>
void CISXFReader<Source>::IgnoreNext()
{
    const uint8_t code = __TakeCode();
    if (!IsAssigned(code))
        Throw<isxfExp>(ExpMessage("CISXFReader::IgnoreNext - unknown data type\n")
                           .Detail("type", static_cast<int64_t>(code)),
                       3);
    if (code == kIsxfVoid)
        return;
    peeked = code;
    switch (code) {
    case kIsxfInt8: GetInt8(); break;
    case kIsxfInt16: GetInt16(); break;
    case kIsxfInt32: GetInt32(); break;
    case kIsxfInt64: GetInt64(); break;
    case kIsxfFloat: GetFloat(); break;
    case kIsxfDouble: GetDouble(); break;
    case kIsxfLongDouble: GetLongDouble(); break;
    case kIsxfTrue: GetBool(); break;
    case kIsxfString: GetString(nullptr, 0); break;
    case kIsxfWString: GetWString(nullptr, 0); break;
    case kIsxfBlob: GetBlob(nullptr, 0); break;
    case kIsxfCtrlCode: GetCtrlCode(); break;
    case kIsxfSegNumber: GetSegNumber(); break;
    case kIsxfEnum: GetEnum(); break;
    case kIsxfID: GetID(); break;
    case kIsxfSize: GetSize(); break;
    case kIsxfBigSize: GetBigSize(); break;
    case kIsxfCommand: GetCommand(); break;
    case kIsxfBigID: GetBigID(); break;
    case kIsxfSmallID: GetSmallID(); break;
    case kIsxfTinyID: GetTinyID(); break;
    case kIsxfSmallEnum: GetSmallEnum(); break;
    case kIsxfSmallVersion: GetSmallVersion(); break;
    case kIsxfVersion: GetVersion(); break;
    case kIsxfEofSegNumber: GetEofSegNumber(); break;
    case kIsxfBigSegNumber: GetBigSegNumber(); break;
    case kIsxfEofBigSegNumber: GetEofBigSegNumber(); break;
    case kIsxfCompactCommand: GetCompactCommand(); break;
    }
}

// ---- writer -----------------------------------------------------------------------------

template <class Sink>
void CISXFWriter<Sink>::__Code(uint8_t code)
{
    this->stream->Write(&code, 1);
}

template <class Sink>
template <class V>
void CISXFWriter<Sink>::__Plain(uint8_t code, const V& value, bool isZero)
{
    if (isZero) {
        PutVoid();
        return;
    }
    __Full(code, value);
}

template <class Sink>
template <class V>
void CISXFWriter<Sink>::__Full(uint8_t code, const V& value)
{
    this->_CheckBound(1 + sizeof(V));
    __Code(code);
    this->stream->Write(&value, sizeof(V));
}

template <class Sink>
void CISXFWriter<Sink>::__Counted(uint8_t code, const void* data, uint64_t size, const char* who)
{
    if (size == 0) {
        PutVoid();
        return;
    }
    // Lengths travel in 32 bits; a longer value cannot be written at all.
    if (size > 0xFFFFFFFFu)
        Throw<isxfExp>(ExpMessage(stringEx("CISXFWriter::") + stringEx(who) + " - value too long\n")
                           .Detail("size", static_cast<int64_t>(size)),
                       2);
    this->_CheckBound(static_cast<int64_t>(size) + 5);
    const uint32_t length = static_cast<uint32_t>(size);
    __Code(code);
    this->stream->Write(&length, 4);
    this->stream->Write(data, static_cast<size_t>(size));
}

template <class Sink>
void CISXFWriter<Sink>::PutVoid()
{
    this->_CheckBound(1);
    __Code(kIsxfVoid);
}

template <class Sink>
void CISXFWriter<Sink>::PutInt8(int8_t value)
{
    __Plain(kIsxfInt8, value, value == 0);
}
template <class Sink>
void CISXFWriter<Sink>::PutInt16(int16_t value)
{
    __Plain(kIsxfInt16, value, value == 0);
}
template <class Sink>
void CISXFWriter<Sink>::PutInt32(int32_t value)
{
    __Plain(kIsxfInt32, value, value == 0);
}
template <class Sink>
void CISXFWriter<Sink>::PutInt64(int64_t value)
{
    __Plain(kIsxfInt64, value, value == 0);
}
template <class Sink>
void CISXFWriter<Sink>::PutFloat(float value)
{
    __Plain(kIsxfFloat, value, value == 0.0f);
}
template <class Sink>
void CISXFWriter<Sink>::PutDouble(double value)
{
    __Plain(kIsxfDouble, value, value == 0.0);
}

template <class Sink>
void CISXFWriter<Sink>::PutLongDouble(long double value)
{
    if (value == 0.0L) {
        PutVoid();
        return;
    }
    unsigned char slot[kIsxfLongDoubleSlot] = {};
    std::memcpy(slot, &value, kLongDoubleBytes);
    this->_CheckBound(1 + kIsxfLongDoubleSlot);
    __Code(kIsxfLongDouble);
    this->stream->Write(slot, sizeof slot);
}

template <class Sink>
void CISXFWriter<Sink>::PutBool(bool value)
{
    if (!value) {
        PutVoid();
        return;
    }
    this->_CheckBound(1);
    __Code(kIsxfTrue);
}

template <class Sink>
void CISXFWriter<Sink>::PutString(const char* text, uint64_t size)
{
    __Counted(kIsxfString, text, size, "PutString");
}

template <class Sink>
void CISXFWriter<Sink>::PutWString(const wstringEx& text)
{
    __Counted(kIsxfWString, text.data(), text.size() * sizeof(wchar_t), "PutWString");
}

template <class Sink>
void CISXFWriter<Sink>::PutBlob(const void* data, uint64_t size)
{
    __Counted(kIsxfBlob, data, size, "PutBlob");
}

#define KARU_ISXF_PUT(Type, Name, code) \
    template <class Sink>               \
    void CISXFWriter<Sink>::Name(Type value) { __Full(code, value); }
KARU_ISXF_PUT(uint8_t, PutCtrlCode, kIsxfCtrlCode)
KARU_ISXF_PUT(uint16_t, PutSegNumber, kIsxfSegNumber)
KARU_ISXF_PUT(uint32_t, PutEnum, kIsxfEnum)
KARU_ISXF_PUT(uint32_t, PutID, kIsxfID)
KARU_ISXF_PUT(uint32_t, PutSize, kIsxfSize)
KARU_ISXF_PUT(uint64_t, PutBigSize, kIsxfBigSize)
KARU_ISXF_PUT(uint32_t, PutCommand, kIsxfCommand)
KARU_ISXF_PUT(uint64_t, PutBigID, kIsxfBigID)
KARU_ISXF_PUT(uint16_t, PutSmallID, kIsxfSmallID)
KARU_ISXF_PUT(uint8_t, PutTinyID, kIsxfTinyID)
KARU_ISXF_PUT(uint8_t, PutSmallEnum, kIsxfSmallEnum)
KARU_ISXF_PUT(uint8_t, PutSmallVersion, kIsxfSmallVersion)
KARU_ISXF_PUT(uint16_t, PutVersion, kIsxfVersion)
KARU_ISXF_PUT(uint32_t, PutBigSegNumber, kIsxfBigSegNumber)
KARU_ISXF_PUT(uint16_t, PutCompactCommand, kIsxfCompactCommand)
#undef KARU_ISXF_PUT

template <class Sink>
void CISXFWriter<Sink>::PutEofSegNumber()
{
    this->_CheckBound(1);
    __Code(kIsxfEofSegNumber);
}

template <class Sink>
void CISXFWriter<Sink>::PutEofBigSegNumber()
{
    this->_CheckBound(1);
    __Code(kIsxfEofBigSegNumber);
}

template class CISXFBasic<TDataSource>;
template class CISXFBasic<TDataSink>;
template class CISXFBasic<CByteIO>;
template class CISXFReader<TDataSource>;
template class CISXFReader<CByteIO>;
template class CISXFWriter<TDataSink>;
template class CISXFWriter<CByteIO>;

}  // namespace Karu

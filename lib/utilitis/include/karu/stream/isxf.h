// ISXF: the library's flat binary serialisation. A stream is a run of
// self-describing values, each a one-byte type code and a fixed or counted
// payload; there is no header, no nesting and no alignment, and numbers are
// stored as they stand in memory (little-endian here). Writer and reader of a
// stream agree on what it means; the reader checks each code against what it
// expects, so a stream that drifted is caught at the next value.
//
// Codes below 0x80 are plain values whose zero (0, 0.0, false, "", no bytes)
// is written as the single void code 0x00 and read back from it. Codes from
// 0x80 on carry a meaning of their own and are always written in full; void
// in their place is an error.
//
// The bound. Every byte that passes is charged to `bound` before it moves,
// the code first, then a length, then a body, so a reader never allocates
// or reads on a length that the bound excludes. Readers of files set the
// bound from the file's size: the reader does not look at the counts a
// source returns, and a short read leaves zeros, so only the bound (or the
// source's own failure) tells where the data ends.
//
// Both classes are templates over the stream: TDataSource / TDataSink for
// any stream, and CByteIO for memory, which costs no virtual call.
#pragma once

#include <cstdint>

#include <karu/stream/datastream.h>
#include <karu/string/karuExp.h>

namespace Karu {

enum ISXFType : uint8_t {
    kIsxfVoid = 0x00,
    kIsxfInt8 = 0x01,
    kIsxfInt16 = 0x02,
    kIsxfInt32 = 0x03,
    kIsxfInt64 = 0x05,
    kIsxfFloat = 0x06,
    kIsxfDouble = 0x07,
    kIsxfLongDouble = 0x08,
    kIsxfTrue = 0x09,
    kIsxfString = 0x0A,
    kIsxfWString = 0x0B,
    kIsxfBlob = 0x0C,
    kIsxfCtrlCode = 0x80,
    kIsxfSegNumber = 0x81,
    kIsxfEnum = 0x82,
    kIsxfID = 0x83,
    kIsxfSize = 0x84,
    kIsxfBigSize = 0x85,
    kIsxfCommand = 0x86,
    kIsxfBigID = 0x87,
    kIsxfSmallID = 0x88,
    kIsxfTinyID = 0x89,
    kIsxfSmallEnum = 0x8A,
    kIsxfSmallVersion = 0x8B,
    kIsxfVersion = 0x8C,
    kIsxfEofSegNumber = 0x8D,
    kIsxfBigSegNumber = 0x8E,
    kIsxfEofBigSegNumber = 0x8F,
    kIsxfCompactCommand = 0x90,
};

// The extended float travels in a 16-byte slot whatever the platform's
// long double occupies; the slot's unused bytes are zero.
constexpr uint32_t kIsxfLongDoubleSlot = 16;

template <class Stream>
class CISXFBasic {
public:
    // Turns the bound off: the lowest 64-bit value, which no charge reaches.
    static constexpr int64_t NoBound = INT64_MIN;

    CISXFBasic(Stream& stream, int64_t bound) noexcept : bound(bound), stream(&stream) {}

    int64_t GetBound() const noexcept { return bound; }
    void SetBound(int64_t value) noexcept { bound = value; }

protected:
    void _CheckBound(int64_t size);

    int64_t bound;
    Stream* stream;  // not owned
};

template <class Source = TDataSource>
class CISXFReader : public CISXFBasic<Source> {
public:
    using CISXFBasic<Source>::NoBound;

    explicit CISXFReader(Source& source, int64_t bound = NoBound) noexcept : CISXFBasic<Source>(source, bound) {}

    int8_t GetInt8();
    int16_t GetInt16();
    int32_t GetInt32();
    int64_t GetInt64();
    float GetFloat();
    double GetDouble();
    long double GetLongDouble();
    bool GetBool();

    // Buffer forms: the capacity counts characters for GetWString and bytes
    // otherwise, and must leave room for the terminator the text forms store.
    // A null buffer skips the value and returns 0.
    uint32_t GetString(char* buffer, uint32_t capacity);
    uint32_t GetWString(wchar_t* buffer, uint32_t capacity);
    uint32_t GetBlob(void* buffer, uint32_t capacity);
    void GetString(stringEx& out);
    void GetWString(wstringEx& out);
    void GetBlob(byteEx& out);

    uint8_t GetCtrlCode();
    uint16_t GetSegNumber();
    uint32_t GetEnum();
    uint32_t GetID();
    uint32_t GetSize();
    uint64_t GetBigSize();
    uint32_t GetCommand();
    uint64_t GetBigID();
    uint16_t GetSmallID();
    uint8_t GetTinyID();
    uint8_t GetSmallEnum();
    uint8_t GetSmallVersion();
    uint16_t GetVersion();
    void GetEofSegNumber();
    uint32_t GetBigSegNumber();
    void GetEofBigSegNumber();
    uint16_t GetCompactCommand();

    // The next value's code, read once and kept until a Get consumes it.
    uint8_t PeekType();
    bool IsVoid() { return PeekType() == kIsxfVoid; }
    bool IsPlainValue() { return PeekType() < 0x80; }
    // The next code is `code`, or void.
    bool IsType(uint8_t code)
    {
        const uint8_t next = PeekType();
        return next == code || next == kIsxfVoid;
    }
    // Plain kinds answer true for void as well, the others only for their code.
    bool IsInt8() { return IsType(kIsxfInt8); }
    bool IsInt16() { return IsType(kIsxfInt16); }
    bool IsInt32() { return IsType(kIsxfInt32); }
    bool IsInt64() { return IsType(kIsxfInt64); }
    bool IsFloat() { return IsType(kIsxfFloat); }
    bool IsDouble() { return IsType(kIsxfDouble); }
    bool IsLongDouble() { return IsType(kIsxfLongDouble); }
    bool IsBool() { return IsType(kIsxfTrue); }
    bool IsString() { return IsType(kIsxfString); }
    bool IsWString() { return IsType(kIsxfWString); }
    bool IsBlob() { return IsType(kIsxfBlob); }
    bool IsCtrlCode() { return PeekType() == kIsxfCtrlCode; }
    bool IsSegNumber() { return PeekType() == kIsxfSegNumber; }
    bool IsEnum() { return PeekType() == kIsxfEnum; }
    bool IsID() { return PeekType() == kIsxfID; }
    bool IsSize() { return PeekType() == kIsxfSize; }
    bool IsBigSize() { return PeekType() == kIsxfBigSize; }
    bool IsCommand() { return PeekType() == kIsxfCommand; }
    bool IsBigID() { return PeekType() == kIsxfBigID; }
    bool IsSmallID() { return PeekType() == kIsxfSmallID; }
    bool IsTinyID() { return PeekType() == kIsxfTinyID; }
    bool IsSmallEnum() { return PeekType() == kIsxfSmallEnum; }
    bool IsSmallVersion() { return PeekType() == kIsxfSmallVersion; }
    bool IsVersion() { return PeekType() == kIsxfVersion; }
    bool IsEofSegNumber() { return PeekType() == kIsxfEofSegNumber; }
    bool IsBigSegNumber() { return PeekType() == kIsxfBigSegNumber; }
    bool IsEofBigSegNumber() { return PeekType() == kIsxfEofBigSegNumber; }
    bool IsCompactCommand() { return PeekType() == kIsxfCompactCommand; }

    // Skips one value of any type.
    void IgnoreNext();

    // Reads a blob's code and length and charges the whole blob, leaving its
    // body in the stream: the caller consumes exactly the returned number of
    // bytes from the stream itself (with a reader of its own, then SkipBody
    // for what that left). This is how a reader steps into a nested record
    // without copying it.
    uint32_t BeginBlob();
    // Drops `size` bytes that were already charged to the bound.
    void SkipBody(uint64_t size);

private:
    static constexpr uint32_t kNoPeek = 0xFFFFFFFF;

    uint8_t __TakeCode();
    bool _GetAndVerifyType(uint8_t expected, const char* voidMessage);
    template <class V>
    V __Fixed(uint8_t code, const char* voidMessage);
    void __ReadBytes(void* to, uint64_t size);
    uint32_t __Length();

    uint32_t peeked = kNoPeek;
};

template <class Sink = TDataSink>
class CISXFWriter : public CISXFBasic<Sink> {
public:
    using CISXFBasic<Sink>::NoBound;

    explicit CISXFWriter(Sink& sink, int64_t bound = NoBound) noexcept : CISXFBasic<Sink>(sink, bound) {}

    void PutVoid();
    void PutInt8(int8_t value);
    void PutInt16(int16_t value);
    void PutInt32(int32_t value);
    void PutInt64(int64_t value);
    // -0.0 counts as zero and is written as void; a NaN is written in full.
    void PutFloat(float value);
    void PutDouble(double value);
    void PutLongDouble(long double value);
    void PutBool(bool value);
    void PutString(const char* text, uint64_t size);
    void PutString(const stringEx& text) { PutString(text.data(), text.size()); }
    void PutWString(const wstringEx& text);
    void PutBlob(const void* data, uint64_t size);
    void PutBlob(const byteEx& data) { PutBlob(data.data(), data.size()); }

    void PutCtrlCode(uint8_t value);
    void PutSegNumber(uint16_t value);
    void PutEnum(uint32_t value);
    void PutID(uint32_t value);
    void PutSize(uint32_t value);
    void PutBigSize(uint64_t value);
    void PutCommand(uint32_t value);
    void PutBigID(uint64_t value);
    void PutSmallID(uint16_t value);
    void PutTinyID(uint8_t value);
    void PutSmallEnum(uint8_t value);
    void PutSmallVersion(uint8_t value);
    void PutVersion(uint16_t value);
    void PutEofSegNumber();
    void PutBigSegNumber(uint32_t value);
    void PutEofBigSegNumber();
    void PutCompactCommand(uint16_t value);

private:
    template <class V>
    void __Plain(uint8_t code, const V& value, bool isZero);
    template <class V>
    void __Full(uint8_t code, const V& value);
    void __Counted(uint8_t code, const void* data, uint64_t size, const char* who);
    void __Code(uint8_t code);
};

extern template class CISXFBasic<TDataSource>;
extern template class CISXFBasic<TDataSink>;
extern template class CISXFBasic<CByteIO>;
extern template class CISXFReader<TDataSource>;
extern template class CISXFReader<CByteIO>;
extern template class CISXFWriter<TDataSink>;
extern template class CISXFWriter<CByteIO>;

}  // namespace Karu

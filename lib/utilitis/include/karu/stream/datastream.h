// Data sources and sinks: the byte streams a serialiser is written against,
// so that one serialiser runs over a file, a buffered file or memory.
//
// TDataSource is read from, TDataSink written to, and ISeekableObj is the
// separate interface of anything with a position. The seekable forms join
// the legs by multiple inheritance with the stream leg first, so a pointer
// to the stream is a pointer to the object.
//
// The concrete forms are templates over what they wrap: a CSysFile (shared
// descriptor, so copies of a stream share one file position), a CByteIO
// (a byteEx with a position) or, for the buffered sink, a CPeriodFile.
// CByteIO is also usable on its own, without virtual calls, which is how the
// binary serialiser's memory instantiation reaches it.
//
// Subtle points:
//  * a memory stream seeks anywhere, negative positions included; reads there
//    deliver nothing and writes are refused, rather than touch memory outside
//    the buffer;
//  * the buffered source's position is the file's less the unread bytes, and
//    every seek except a relative one by 0 discards those bytes;
//  * the buffered sink writes its block out when it fills, on every seek, on
//    GetSize and when destroyed; Flush also forces the file to the device.
#pragma once

#include <cstddef>
#include <cstdint>

#include <karu/file/sysfile.h>
#include <karu/string/karuExp.h>

namespace Karu {

class TDataSource;
class TDataSink;
class ISeekableObj;

// Destructors may raise (a buffered sink writes its block out on the way),
// so the whole family declares them so.
class IDataObject {
public:
    virtual ~IDataObject() noexcept(false) = default;

    virtual TDataSource* AsSource() { return nullptr; }
    virtual TDataSink* AsSink() { return nullptr; }
    virtual ISeekableObj* AsSeekable() { return nullptr; }
    virtual bool IsOpen() const = 0;
    virtual bool IsClosed() const { return !IsOpen(); }
    virtual void Reopen() {}
    virtual void Close() {}
    virtual unsigned GetLastError() { return 0xFFFFFFFF; }
    virtual const char* GetName() const { return "Unknown Data Object"; }
    virtual void Reset() {}
};

class TDataSource : public IDataObject {
public:
    const char* GetName() const override { return "Unknown Data Source"; }
    virtual bool IsEof() = 0;
    virtual size_t Read(void* buffer, size_t size) = 0;
    // A plain source cannot put bytes back, so it cannot peek.
    virtual size_t Peek(void*, size_t) { return 0; }
};

class TDataSink : public IDataObject {
public:
    const char* GetName() const override { return "Unknown Data Sink"; }
    virtual size_t Write(const void* data, size_t size) = 0;
    virtual void Flush() = 0;
};

class ISeekableObj {
public:
    using pos = int64_t;
    virtual ~ISeekableObj() noexcept(false) = default;
    virtual pos SeekBegin(const pos& offset) = 0;
    virtual pos SeekCurrent(const pos& offset) = 0;
    virtual pos SeekEnd(const pos& offset) = 0;
    virtual pos GetPosition() = 0;
    virtual pos GetSize() = 0;
};

class TSeekableSource : public TDataSource, public ISeekableObj {
public:
    const char* GetName() const override { return "Unknown Seekable Data Source"; }
    size_t Peek(void* buffer, size_t size) override
    {
        const size_t got = Read(buffer, size);
        if (got)
            SeekCurrent(-static_cast<pos>(got));
        return got;
    }
};

class TSeekableSink : public TDataSink, public ISeekableObj {
public:
    const char* GetName() const override { return "Unknown Seekable Data Sink"; }
};

// A byte buffer with a position: the memory form of a stream. The creator
// owns the byteEx and keeps it alive as long as the CByteIO.
class CByteIO {
public:
    CByteIO(byteEx& bytes) noexcept : _bytes(&bytes) {}

    bool IsOpen() const noexcept { return true; }
    bool IsEof() const noexcept { return _pos >= static_cast<int64_t>(_bytes->size()); }
    size_t Read(void* buffer, size_t size);
    size_t Write(const void* data, size_t size);
    void Flush() noexcept {}

    // Seeking stores the number; nothing is checked until bytes move.
    int64_t SeekBegin(int64_t offset) noexcept { return _pos = offset; }
    int64_t SeekCurrent(int64_t offset) noexcept { return _pos += offset; }
    int64_t SeekEnd(int64_t offset) noexcept { return _pos = static_cast<int64_t>(_bytes->size()) + offset; }
    int64_t GetCurrentPos() const noexcept { return _pos; }
    int64_t GetSize() const noexcept { return static_cast<int64_t>(_bytes->size()); }

    byteEx& Bytes() noexcept { return *_bytes; }

private:
    byteEx* _bytes;
    int64_t _pos = 0;
};

// A CSysFile that a logger reopens by period. The rotation rule belongs to
// its user; the stream layer only needs it to stand where a CSysFile does.
class CPeriodFile : public CSysFile {
public:
    stringEx basePath;      // the name that each period's file is made from
    uint32_t period = 0;    // seconds per file; 0 never rotates
    uint32_t keepCount = 0;
    uint32_t sequence = 0;  // the number of the current period's file
    stringEx prefix;
    stringEx suffix;
};

namespace IMPL {
// The size of what a stream wraps, without moving its position.
int64_t WrappedSize(CSysFile& file);
inline int64_t WrappedSize(CByteIO& io) noexcept { return io.GetSize(); }
}  // namespace IMPL

// What the generic forms share: the wrapped object, held by value, and the
// position operations handed straight to it.
template <class Base, class T>
class TWrappingStream : public Base {
public:
    using typename Base::pos;

    explicit TWrappingStream(const T& wrapped) : _obj(wrapped) {}

    bool IsOpen() const override { return _obj.IsOpen(); }
    pos SeekBegin(const pos& offset) override { return _obj.SeekBegin(offset); }
    pos SeekCurrent(const pos& offset) override { return _obj.SeekCurrent(offset); }
    pos SeekEnd(const pos& offset) override { return _obj.SeekEnd(offset); }
    pos GetPosition() override { return _obj.GetCurrentPos(); }
    pos GetSize() override { return IMPL::WrappedSize(_obj); }

    T& Wrapped() noexcept { return _obj; }

protected:
    T _obj;
};

template <class T>
class CGenericSeekableSource : public TWrappingStream<TSeekableSource, T> {
public:
    using TWrappingStream<TSeekableSource, T>::TWrappingStream;

    const char* GetName() const override { return "Generic Seekable Data Source"; }
    bool IsEof() override { return this->GetPosition() >= this->GetSize(); }
    size_t Read(void* buffer, size_t size) override { return static_cast<size_t>(this->_obj.Read(buffer, size)); }
};

template <class T>
class CGenericSeekableSink : public TWrappingStream<TSeekableSink, T> {
public:
    using TWrappingStream<TSeekableSink, T>::TWrappingStream;

    const char* GetName() const override { return "Generic Seekable Data Sink"; }
    size_t Write(const void* data, size_t size) override
    {
        return static_cast<size_t>(this->_obj.Write(data, size));
    }
    void Flush() override { this->_obj.Flush(); }
};

template <class T>
class CBufferedSeekableSource;

// A file source with a read block. Small reads are served from the block;
// a request at least as large as the block goes straight to the caller's
// memory, so a large read costs no copy.
template <>
class CBufferedSeekableSource<CSysFile> : public TSeekableSource {
public:
    CBufferedSeekableSource(const CSysFile& file, size_t bufferSize);

    const char* GetName() const override { return "Buffered Seekable Data Source"; }
    bool IsOpen() const override { return _file.IsOpen(); }
    bool IsEof() override;
    size_t Read(void* buffer, size_t size) override;

    pos SeekBegin(const pos& offset) override;
    pos SeekCurrent(const pos& offset) override;
    pos SeekEnd(const pos& offset) override;
    pos GetPosition() override;
    pos GetSize() override { return IMPL::WrappedSize(_file); }

private:
    uint64_t __Unread() const noexcept { return _buffer.size() - _pos; }
    void __Drop() { _buffer.clear(), _pos = 0; }

    CSysFile _file;
    size_t _bufferSize;
    byteEx _buffer;  // size() is how much of the block the last refill delivered
    uint64_t _pos = 0;
};

// A file sink with a write block: bytes gather in the block and go to the
// file in one write once it holds bufferSize bytes.
template <class T>
class CBufferedSeekableSink : public TSeekableSink {
public:
    CBufferedSeekableSink(const T& file, size_t bufferSize);
    ~CBufferedSeekableSink() noexcept(false) override;

    const char* GetName() const override { return "Buffered Seekable Data Sink"; }
    bool IsOpen() const override { return _file.IsOpen(); }
    size_t Write(const void* data, size_t size) override;
    void Flush() override;

    pos SeekBegin(const pos& offset) override;
    pos SeekCurrent(const pos& offset) override;
    pos SeekEnd(const pos& offset) override;
    pos GetPosition() override { return _file.GetCurrentPos() + static_cast<pos>(_pos); }
    pos GetSize() override;

    T& Wrapped() noexcept { return _file; }

private:
    void __WriteOut();

    T _file;
    size_t _bufferSize;
    byteEx _buffer;
    uint64_t _pos = 0;
};

extern template class CBufferedSeekableSink<CSysFile>;
extern template class CBufferedSeekableSink<CPeriodFile>;

namespace IMPL {
// The same for any sink: a sink that takes nothing more is a failure, not
// a silent loss of the rest.
void WriteAll(TDataSink& sink, const void* data, uint64_t size);
}  // namespace IMPL

using CMemorySource = CGenericSeekableSource<CByteIO>;
using CMemorySink = CGenericSeekableSink<CByteIO>;
using CFileSource = CGenericSeekableSource<CSysFile>;
using CFileSink = CGenericSeekableSink<CSysFile>;

}  // namespace Karu

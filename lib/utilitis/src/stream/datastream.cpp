// The memory stream and the buffered file streams.
//
// Memory writes grow the byteEx geometrically (a serialiser writes a byte at
// a time) and zero any gap a seek left behind the old end. The buffered
// streams keep one block allocated for their whole life; what the block
// holds is always the bytes nearest the logical position, so a seek that
// moves the position anywhere else simply drops or writes out the block.
#include <karu/stream/datastream.h>

#include <sys/stat.h>

#include <algorithm>
#include <cstring>

namespace Karu {

// ---- memory ----------------------------------------------------------------------------

size_t CByteIO::Read(void* buffer, size_t size)
{
    const int64_t end = static_cast<int64_t>(_bytes->size());
    if (size == 0 || _pos < 0 || _pos >= end)
        return 0;
    const size_t count = static_cast<size_t>(std::min<uint64_t>(size, static_cast<uint64_t>(end - _pos)));
    std::memcpy(buffer, _bytes->data() + _pos, count);
    _pos += static_cast<int64_t>(count);
    return count;
}

size_t CByteIO::Write(const void* data, size_t size)
{
    if (size == 0 || _pos < 0)
        return 0;
    const uint64_t at = static_cast<uint64_t>(_pos);
    const uint64_t length = _bytes->size();
    const uint64_t reach = at + size;
    // A literal view is copied out before it grows; growth is geometric so
    // that byte-by-byte writing stays linear.
    _bytes->MakeOwn();
    _bytes->ReserveGrow(std::max(reach, length));
    unsigned char* units = _bytes->MutableData();
    if (at > length)
        std::memset(units + length, 0, at - length);
    std::memcpy(units + at, data, size);
    _bytes->SetSize(std::max(reach, length));
    _pos = static_cast<int64_t>(reach);
    return size;
}

namespace IMPL {

int64_t WrappedSize(CSysFile& file)
{
    // fstat leaves the shared file position alone, which seeking to the end
    // and back would not guarantee for the other copies of the descriptor.
    struct stat status;
    if (file.IsOpen() && fstat(file.Descriptor(), &status) == 0)
        return static_cast<int64_t>(status.st_size);
    const int64_t here = file.GetCurrentPos();
    const int64_t end = file.SeekEnd(0);
    file.SeekBegin(here);
    return end;
}

void WriteAll(TDataSink& sink, const void* data, uint64_t size)
{
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    while (size > 0) {
        const size_t put = sink.Write(bytes, static_cast<size_t>(size));
        if (put == 0)
            Throw<ioExp>(ExpMessage("TDataSink::Write - the sink accepted no more bytes\n")
                             .Detail("sink", sink.GetName())
                             .Detail("bytes left", static_cast<int64_t>(size)),
                         9);
        bytes += put;
        size -= put;
    }
}

}  // namespace IMPL

// ---- buffered source ------------------------------------------------------------------

CBufferedSeekableSource<CSysFile>::CBufferedSeekableSource(const CSysFile& file, size_t bufferSize)
    : _file(file), _bufferSize(std::max<size_t>(bufferSize, 1))
{
    _buffer.ReserveExact(_bufferSize);
}

bool CBufferedSeekableSource<CSysFile>::IsEof()
{
    if (__Unread())
        return false;
    return _file.GetCurrentPos() >= IMPL::WrappedSize(_file);
}

size_t CBufferedSeekableSource<CSysFile>::Read(void* buffer, size_t size)
{
    unsigned char* out = static_cast<unsigned char*>(buffer);
    size_t done = 0;
    if (size && __Unread()) {
        done = static_cast<size_t>(std::min<uint64_t>(size, __Unread()));
        std::memcpy(out, _buffer.data() + _pos, done);
        _pos += done;
    }
    if (done == size)
        return done;
    const size_t rest = size - done;
    if (rest < _bufferSize) {
        _pos = 0;
        unsigned char* block = _buffer.GetBuffer(_bufferSize);
        _buffer.SetSize(0);  // nothing valid until the read returns
        const uint64_t filled = _file.Read(block, _bufferSize);
        _buffer.SetSize(filled);
        const size_t take = static_cast<size_t>(std::min<uint64_t>(rest, filled));
        std::memcpy(out + done, _buffer.data(), take);
        _pos = take;
        return done + take;
    }
    return done + static_cast<size_t>(_file.Read(out + done, rest));
}

ISeekableObj::pos CBufferedSeekableSource<CSysFile>::SeekBegin(const pos& offset)
{
    __Drop();
    return _file.SeekBegin(offset);
}

ISeekableObj::pos CBufferedSeekableSource<CSysFile>::SeekCurrent(const pos& offset)
{
    if (offset == 0)
        return GetPosition();
    // The file stands ahead of the logical position by the unread bytes.
    const pos target = GetPosition() + offset;
    __Drop();
    return _file.SeekBegin(target);
}

ISeekableObj::pos CBufferedSeekableSource<CSysFile>::SeekEnd(const pos& offset)
{
    __Drop();
    return _file.SeekEnd(offset);
}

ISeekableObj::pos CBufferedSeekableSource<CSysFile>::GetPosition()
{
    return _file.GetCurrentPos() - static_cast<pos>(__Unread());
}

// ---- buffered sink --------------------------------------------------------------------

template <class T>
CBufferedSeekableSink<T>::CBufferedSeekableSink(const T& file, size_t bufferSize)
    : _file(file), _bufferSize(std::max<size_t>(bufferSize, 1))
{
    _buffer.ReserveExact(_bufferSize);
}

template <class T>
CBufferedSeekableSink<T>::~CBufferedSeekableSink() noexcept(false)
{
    try {
        __WriteOut();
    } catch (...) {
        if (MayThrowFromDestructor())
            throw;
    }
}

template <class T>
size_t CBufferedSeekableSink<T>::Write(const void* data, size_t size)
{
    if (size) {
        const uint64_t reach = _pos + size;
        const uint64_t length = std::max<uint64_t>(_buffer.size(), reach);
        _buffer.ReserveGrow(length);
        unsigned char* units = _buffer.MutableData();
        if (_pos > _buffer.size())
            std::memset(units + _buffer.size(), 0, _pos - _buffer.size());
        std::memcpy(units + _pos, data, size);
        _buffer.SetSize(length);
        _pos = reach;
    }
    if (_buffer.size() >= _bufferSize)
        __WriteOut();
    return size;
}

template <class T>
void CBufferedSeekableSink<T>::__WriteOut()
{
    if (!_buffer.empty())
        IMPL::WriteAll(_file, _buffer.data(), _buffer.size());
    _buffer.SetSize(0);
    _pos = 0;
}

template <class T>
void CBufferedSeekableSink<T>::Flush()
{
    __WriteOut();
    _file.Flush();
}

template <class T>
ISeekableObj::pos CBufferedSeekableSink<T>::SeekBegin(const pos& offset)
{
    __WriteOut();
    return _file.SeekBegin(offset);
}

template <class T>
ISeekableObj::pos CBufferedSeekableSink<T>::SeekCurrent(const pos& offset)
{
    __WriteOut();
    return _file.SeekCurrent(offset);
}

template <class T>
ISeekableObj::pos CBufferedSeekableSink<T>::SeekEnd(const pos& offset)
{
    __WriteOut();
    return _file.SeekEnd(offset);
}

template <class T>
ISeekableObj::pos CBufferedSeekableSink<T>::GetSize()
{
    __WriteOut();
    return IMPL::WrappedSize(_file);
}

template class CBufferedSeekableSink<CSysFile>;
template class CBufferedSeekableSink<CPeriodFile>;

}  // namespace Karu

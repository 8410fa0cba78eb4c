// File mapping: the file side (a shared descriptor) and counted views.
//
// The only subtle part is ownership of a view: copies share one count cell,
// and whichever copy drops the count to zero unmaps, exactly once.
#include <karu/file/fileMapping.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <karu/TextConv/TextConv.h>

namespace Karu {

namespace {

const ErrnoTable kMmapErrors = {
    {EACCES, "access denied"},
    {EBADF, "invalid descriptor"},
    {EINVAL, "invalid size, address, or flags argument"},
    {ENODEV, "the device of the file does not support memory mapping"},
    {ENOMEM, "insufficient memory"},
    {EMFILE, "too many mapped regions"},
    {EAGAIN, "mapping could not be locked in memory due to a lack of resources"},
    {ENOTSUP, "the request flags does not supported in this system"},
};

stringEx Pointer(const void* p)
{
    return stringEx::Format("%p", p);
}

// protection and flags as mmap takes them, from the caller's protection word.
void MapArguments(int protection, int& prot, int& flags)
{
    if (protection == kMapPrivateCopy) {
        prot = PROT_READ | PROT_WRITE;
        flags = MAP_PRIVATE;
    } else {
        prot = protection;
        flags = MAP_SHARED;
    }
}

[[noreturn]] void ThrowMapFailure(const char* head, uint64_t size, void* hint, int prot, int flags, int error)
{
    Throw<fmppExp>(ExpMessage(head)
                       .Detail("size", static_cast<int64_t>(size))
                       .Detail("address arg", Pointer(hint))
                       .Detail("protection", stringEx::Format("%#x", prot))
                       .Detail("flags", stringEx::Format("%#x", flags))
                       .Errno(error, kMmapErrors),
                   error);
}

}  // namespace

// ---- views ------------------------------------------------------------------------

CFileMapping::CView::CView(const CView& other) noexcept
    : _address(other._address), _size(other._size), _count(other._count)
{
    if (_count)
        _count->fetch_add(1, std::memory_order_relaxed);
}

CFileMapping::CView& CFileMapping::CView::operator=(const CView& other)
{
    if (this == &other || _count == other._count)
        return *this;
    if (other._count)
        other._count->fetch_add(1, std::memory_order_relaxed);
    _Release();
    _address = other._address;
    _size = other._size;
    _count = other._count;
    return *this;
}

CFileMapping::CView::~CView() noexcept(false)
{
    _Release();
}

void CFileMapping::CView::__Adopt(void* address, uint64_t size)
{
    auto* count = new std::atomic<int64_t>(1);
    _Release();
    _address = address;
    _size = size;
    _count = count;
}

void CFileMapping::CView::_Release()
{
    std::atomic<int64_t>* count = _count;
    void* address = _address;
    const uint64_t size = _size;
    _count = nullptr;
    _address = nullptr;
    _size = 0;
    if (!count || count->fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    delete count;
    if (munmap(address, size) != 0 && MayThrowFromDestructor()) {
        const int error = errno;
        Throw<fmppExp>(ExpMessage("CFileMapping::CView::_Release - failed unmap file view\n")
                           .Detail("address", Pointer(address))
                           .Detail("size", static_cast<int64_t>(size))
                           .Errno(error, {{EINVAL, "invalid address or size"}}),
                       error);
    }
}

void CFileMapping::CView::Flush()
{
    if (!_address)
        return;
    if (msync(_address, _size, MS_SYNC) != 0) {
        const int error = errno;
        const stringEx description = ErrnoDescription(error, {{EBUSY, "some or all of the addresses range are locked"},
                                                              {EINVAL, "invalid address or size"},
                                                              {ENOMEM, "address space out-of-range"}});
        Throw<fmppExp>(ExpMessage("CFileMapping::CView::Flush - failed flush view to file\n")
                           .Detail("view addr", Pointer(_address))
                           .Detail("view size", static_cast<int64_t>(_size))
                           .Detail("sys error code", static_cast<int64_t>(error))
                           .Detail("sys error desc", description),
                       error);
    }
}

void SetupMapView(CFileMapping::CView& view, int fd, int64_t& offset, uint64_t size, int protection,
                  void* addressHint)
{
    static const int64_t page = sysconf(_SC_PAGESIZE);
    const int64_t start = offset - offset % page;
    const uint64_t length = size + static_cast<uint64_t>(offset - start);
    int prot = 0, flags = 0;
    MapArguments(protection, prot, flags);
    void* address = mmap(addressHint, length, prot, flags, fd, start);
    if (address == MAP_FAILED)
        ThrowMapFailure("SetupMapView - failed create file view\n", length, addressHint, prot, flags, errno);
    try {
        view.__Adopt(address, length);
    } catch (...) {
        munmap(address, length);
        throw;
    }
    offset = start;
}

void SetupMapView(CFileMapping::CView& view, uint64_t size, int protection, void* addressHint)
{
    int prot = 0, flags = 0;
    MapArguments(protection, prot, flags);
    if (protection == kMapPrivateCopy)
        flags = MAP_PRIVATE;
    flags |= MAP_ANONYMOUS;
    void* address = mmap(addressHint, size, prot, flags, -1, 0);
    if (address == MAP_FAILED)
        ThrowMapFailure("SetupMapView - failed create memory view\n", size, addressHint, prot, flags, errno);
    try {
        view.__Adopt(address, size);
    } catch (...) {
        munmap(address, size);
        throw;
    }
}

// ---- the file side --------------------------------------------------------------------

CFileMapping::CFileMapping(const stringEx& path, uint32_t openFlags, uint32_t shareMode, uint32_t permissions)
{
    try {
        _file.Open(path, openFlags, 0, shareMode, permissions);
    } catch (const karuExp& e) {
        Throw<fmppExp>(ExpMessage("CFileMapping::CFileMapping - error open file mapping\n")
                           .Detail("file path", path)
                           .Cause(e),
                       e.code);
    }
}

CFileMapping::CFileMapping(const wstringEx& path, uint32_t openFlags, uint32_t shareMode, uint32_t permissions)
    : CFileMapping(SysWCtoMB(path), openFlags, shareMode, permissions)
{
}

CFileMapping::CFileMapping(CSysFile& file)
{
    try {
        file.Duplicate(_file);
    } catch (const karuExp& e) {
        Throw<fmppExp>(ExpMessage("CFileMapping::CFileMapping - error open file mapping\n")
                           .Detail("file path", file.Path())
                           .Cause(e),
                       e.code);
    }
}

stringEx CFileMapping::GetFileName() const
{
    if (!_file.IsOpen() || _file.Path().empty())
        Throw<fmppExp>(ExpMessage("CFileMapping::GetFileName - failed get file name of current mapping\n"), 0);
    return _file.Path();
}

uint64_t CFileMapping::FileSize()
{
    struct stat info;
    if (fstat(_file.Descriptor(), &info) != 0) {
        const int error = errno;
        Throw<fmppExp>(ExpMessage("CFileMapping::FileSize - failed get file size\n")
                           .Detail("file path", _file.Path())
                           .Errno(error, {{EBADF, "invalid descriptor"}}),
                       error);
    }
    return static_cast<uint64_t>(info.st_size);
}

void CFileMapping::MapView(CView& view, int64_t& offset, uint64_t size, int protection, void* addressHint)
{
    if (size == 0) {
        const uint64_t total = FileSize();
        size = total > static_cast<uint64_t>(offset) ? total - static_cast<uint64_t>(offset) : 0;
    }
    SetupMapView(view, _file.Descriptor(), offset, size, protection, addressHint);
}

}  // namespace Karu

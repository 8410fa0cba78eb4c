// CFileMapping: a file opened for mapping, and CView, a counted mapped range.
//
// A view is a value: copies share the mapping through an atomic count and the
// last copy unmaps it. The mapping object only holds the file (a shared
// descriptor); views outlive it safely, since a mapping does not need its
// descriptor once made.
#pragma once

#include <sys/mman.h>

#include <atomic>
#include <cstdint>

#include <karu/file/sysfile.h>
#include <karu/string/karuExp.h>

namespace Karu {

// A `protection` value that asks for a private, writable copy of the file:
// changes are never written back.
constexpr int kMapPrivateCopy = 0x40000000;

class CFileMapping {
public:
    class CView {
    public:
        CView() noexcept = default;
        CView(const CView& other) noexcept;
        CView& operator=(const CView& other);
        ~CView() noexcept(false);

        void* Address() const noexcept { return _address; }
        uint64_t Size() const noexcept { return _size; }
        bool IsMapped() const noexcept { return _address != nullptr; }
        // The mapped bytes reach the file (msync).
        void Flush();
        // Drops this copy; the last one unmaps.
        void Release() { _Release(); }

    private:
        friend void SetupMapView(CView&, int, int64_t&, uint64_t, int, void*);
        friend void SetupMapView(CView&, uint64_t, int, void*);
        void _Release();
        void __Adopt(void* address, uint64_t size);

        void* _address = nullptr;
        uint64_t _size = 0;
        std::atomic<int64_t>* _count = nullptr;
    };

    CFileMapping(const stringEx& path, uint32_t openFlags, uint32_t shareMode = kShareNone,
                 uint32_t permissions = kDefaultFilePermissions);
    CFileMapping(const wstringEx& path, uint32_t openFlags, uint32_t shareMode = kShareNone,
                 uint32_t permissions = kDefaultFilePermissions);
    // Shares nothing with `file` but the open file: its descriptor is duplicated.
    explicit CFileMapping(CSysFile& file);

    stringEx GetFileName() const;
    int Descriptor() const noexcept { return _file.Descriptor(); }
    uint64_t FileSize();

    // Maps `size` bytes at `offset` of this file (0: to the end of the file).
    // See SetupMapView for the offset.
    void MapView(CView& view, int64_t& offset, uint64_t size, int protection, void* addressHint = nullptr);

private:
    CSysFile _file;
};

// Maps `size` bytes of `fd` at `offset`. The mapping must start on a page, so
// `offset` is moved down to one and the view grows by the difference: on
// return `offset` is where the view starts in the file. `protection` is a
// PROT_ mask (shared mapping) or kMapPrivateCopy.
void SetupMapView(CFileMapping::CView& view, int fd, int64_t& offset, uint64_t size, int protection,
                  void* addressHint);
// Anonymous memory of `size` bytes.
void SetupMapView(CFileMapping::CView& view, uint64_t size, int protection, void* addressHint);

}  // namespace Karu

// Named shared-memory objects: the ground that process-shared locks and
// events stand on.
//
// A name is created or opened with shm_open and then mapped whole. Creating
// first tries to open without O_CREAT, so an object that exists already is
// joined silently and keeps its size; only the process that really created
// the object records the fact, and only that process removes the name again.
//
// Two processes may race to create one name: exactly one creates, and the
// other may map the object before the creator has initialised what it holds.
// Callers that care (the named events) guard their set-up with a second,
// companion object.
#pragma once

#include <cstdint>

#include <karu/string/karuExp.h>

namespace Karu {

// Access modes of a mapping.
enum : uint32_t {
    kAccessRead = 1,
    kAccessWrite = 2,
    kAccessReadWrite = 3,
    kAccessReadExec = 5,
    kAccessReadWriteAlt = 0x40000000,  // same as read and write for the mapping
};

// One opened (and usually mapped) shared-memory object.
struct SMO_HANDLE {
    int fd = -1;
    void* address = nullptr;
    uint64_t size = 0;
    // Holds the name's data when this process created the object; empty otherwise.
    stringEx created;
    stringEx name;

    bool Created() const noexcept { return !created.empty(); }
};

// Opens or creates `name` (a leading "/" is added when missing); true when
// this call created it. A fresh object is sized to `size` when that is above 0.
bool CreateSharedMemoryObject(SMO_HANDLE& handle, const stringEx& name, uint32_t flag, uint64_t size);
// Opens an object that must exist; its size is read from the descriptor.
void OpenSharedMemoryObject(SMO_HANDLE& handle, const stringEx& name, uint32_t flag);
// Closes the descriptor and removes the name.
void CloseAndRemoveSharedMemoryObject(SMO_HANDLE& handle, const stringEx& name);

// Creates or opens, then maps the whole object; true when this call created it.
bool SetupMapView(SMO_HANDLE& handle, const stringEx& name, uint64_t size, uint32_t access, void* address = nullptr);
bool SetupMapView(SMO_HANDLE& handle, const wstringEx& name, uint64_t size, uint32_t access, void* address = nullptr);
bool SetupMapView(SMO_HANDLE& handle, const char* name, uint64_t size, uint32_t access, void* address = nullptr);
bool SetupMapView(SMO_HANDLE& handle, const wchar_t* name, uint64_t size, uint32_t access, void* address = nullptr);
// Opens an existing object only, then maps it whole.
void OpenMapView(SMO_HANDLE& handle, const stringEx& name, uint32_t access, void* address = nullptr);
void OpenMapView(SMO_HANDLE& handle, const wstringEx& name, uint32_t access, void* address = nullptr);
void OpenMapView(SMO_HANDLE& handle, const char* name, uint32_t access, void* address = nullptr);
void OpenMapView(SMO_HANDLE& handle, const wchar_t* name, uint32_t access, void* address = nullptr);

// Unmaps and closes; removes the name when this process created the object.
void ReleaseMapView(SMO_HANDLE& handle);

namespace IMPL {
// A name in the system's narrow encoding, as the platform's calls take it.
stringEx ToSysBytes(const wstringEx& text);
stringEx ToSysBytes(const wchar_t* text);
// Bytes of the system's encoding as wide text.
wstringEx FromSysBytes(const stringEx& text);
}  // namespace IMPL

}  // namespace Karu

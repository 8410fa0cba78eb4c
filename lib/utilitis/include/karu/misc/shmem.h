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
// SetupInitialisedMapView closes that window for the callers that care (the
// named locks and events): it makes a new object under a private name, sets
// up its contents, and only then links it under its own name, so that every
// process that opens the name finds it whole. A creator that dies half-way
// leaves no half-made object under the name.
#pragma once

#include <cstdint>
#include <functional>

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
    // The access mode it was opened with, for the messages of later failures.
    uint32_t flag = 0;

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
// What a new object holds before any other process may open it; and what
// undoes it if another process published the name first (the new object is
// then dropped and the other one joined). Both get the mapped address.
using SmoSetUp = std::function<void(void* address)>;

// Creates and sets up, or joins, `name`, mapped whole; true when this call
// created it. A new object is made under a private name, sized to `size`,
// mapped, handed to `setUp`, and then linked under `name`; an object found
// under the name was made the same way and is mapped as it is.
bool SetupInitialisedMapView(SMO_HANDLE& handle, const stringEx& name, uint64_t size, uint32_t access,
                             const SmoSetUp& setUp, const SmoSetUp& undo = nullptr);

// Opens an existing object only, then maps it whole.
void OpenMapView(SMO_HANDLE& handle, const stringEx& name, uint32_t access, void* address = nullptr);
void OpenMapView(SMO_HANDLE& handle, const wstringEx& name, uint32_t access, void* address = nullptr);
void OpenMapView(SMO_HANDLE& handle, const char* name, uint32_t access, void* address = nullptr);
void OpenMapView(SMO_HANDLE& handle, const wchar_t* name, uint32_t access, void* address = nullptr);

// Unmaps and closes; removes the name when this process created the object.
void ReleaseMapView(SMO_HANDLE& handle);

}  // namespace Karu

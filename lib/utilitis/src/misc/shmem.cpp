// Named shared-memory objects and their mappings; see shmem.h.
//
// Every call loops on EINTR. A failure after the object was created (sizing,
// mapping) removes the name again, so that a failed set-up leaves nothing
// behind for the next process to trip over.
//
// An object set up whole is made under a private name of its own and
// published with link(2) in the directory that holds the names: a link is
// atomic and refuses a name that exists, so exactly one of several racing
// creators publishes, and the others drop their drafts and join it.
#include <karu/misc/shmem.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cwchar>

#include <karu/TextConv/TextConv.h>

namespace Karu {
namespace {

constexpr mode_t kObjectPermissions = 0666;
// Where shm_open keeps its names on Linux; a finished object is linked here.
constexpr const char* kShmDirectory = "/dev/shm";

const ErrnoTable kOpenErrors = {
    {EACCES, "access denied"},
    {ENOENT, "the shared memory object does not exist"},
    {EMFILE, "too many file descriptors are currently in use by this process"},
    {ENFILE, "too many shared memory objects are currently open in the system"},
    {EINVAL, "unsupport name"},
    {EEXIST, "the shared memory object already exists"},
    {ENAMETOOLONG, "name is too long"},
    {EOPNOTSUPP, "the request mode does not supported"},
    {ENOSPC, "there is insufficient space for the creation of the new shared memory object"},
};

const ErrnoTable kMapErrors = {
    {ENOTSUP, "the request flags does not supported in this system"},
    {EAGAIN, "mapping could not be locked in memory due to a lack of resources"},
    {EMFILE, "too many mapped regions"},
    {EINVAL, "invalid size, address, or flags argument"},
    {ENODEV, "the device of the descriptor does not support memory mapping"},
    {EACCES, "access denied"},
    {ENOMEM, "insufficient memory"},
    {EBADF, "invalid descriptor"},
};

stringEx SlashName(const stringEx& name)
{
    if (!name.empty() && name[0] == '/')
        return stringEx(name.data(), name.size());
    stringEx out("/");
    out += name;
    return out;
}

int OpenFlags(uint32_t flag)
{
    switch (flag) {
    case kAccessRead:
    case kAccessReadExec:
        return O_RDONLY;
    case kAccessWrite:  // a mapping cannot be write-only; the descriptor reads too
    default:
        return O_RDWR;
    }
}

int Protection(uint32_t access)
{
    switch (access) {
    case kAccessRead:
        return PROT_READ;
    case kAccessWrite:
        return PROT_WRITE;
    case kAccessReadExec:
        return PROT_READ | PROT_EXEC;
    default:
        return PROT_READ | PROT_WRITE;
    }
}

int ShmOpen(const stringEx& name, int flags)
{
    int fd;
    do {
        fd = shm_open(name.c_str(), flags, kObjectPermissions);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// Every message of this layer names the object, the flag it was asked for,
// and the access mode that the flag gave.
ExpMessage SmoMessage(const char* head, const stringEx& name, uint32_t flag)
{
    ExpMessage message(head);
    message.Detail("smo name", name).Detail("flag", int64_t(flag)).Detail("access mode", int64_t(OpenFlags(flag)));
    return message;
}

[[noreturn]] void RaiseOpen(const char* head, const stringEx& name, uint32_t flag, int error)
{
    Throw<shmemExp>(SmoMessage(head, name, flag).Errno(error, kOpenErrors), 1);
}

// Gives a new object its size (none for 0); on failure closes the
// descriptor, removes `created` if given, and raises.
void SizeNewObject(int fd, const stringEx& path, uint32_t flag, uint64_t size, const stringEx* created)
{
    if (size == 0)
        return;
    int result;
    do {
        result = ftruncate(fd, static_cast<off_t>(size));
    } while (result != 0 && errno == EINTR);
    if (result == 0)
        return;
    const int error = errno;
    close(fd);
    if (created)
        shm_unlink(created->c_str());
    Throw<shmemExp>(SmoMessage("CreateSharedMemoryObject - failed set the size of shared memory object\n", path, flag)
                        .Detail("smo size", int64_t(size))
                        .Errno(error, {}),
                    1);
}

uint64_t DescriptorSize(int fd)
{
    struct stat info {};
    return fstat(fd, &info) == 0 ? uint64_t(info.st_size) : 0;
}

void Map(SMO_HANDLE& handle, uint32_t access, void* address)
{
    const int protection = Protection(access);
    void* mapped = mmap(address, handle.size, protection, MAP_SHARED, handle.fd, 0);
    if (mapped != MAP_FAILED) {
        handle.address = mapped;
        return;
    }
    const int error = errno;
    const stringEx name = handle.name;
    if (handle.Created()) {
        handle.created = stringEx();
        try {
            CloseAndRemoveSharedMemoryObject(handle, name);
        } catch (const karuExp&) {
            // the mapping failure is the one worth reporting
        }
    } else {
        close(handle.fd);  // an opener leaves the name to its creator
        handle.fd = -1;
    }
    Throw<shmemExp>(SmoMessage("SetupMapView - failed create memory view\n", name, access)
                        .Detail("size", int64_t(handle.size))
                        .Detail("address arg", stringEx::Format("%p", address))
                        .Detail("protection", int64_t(protection))
                        .Detail("flags", int64_t(MAP_SHARED))
                        .Errno(error, kMapErrors),
                    3);
}

// Takes an open descriptor into the handle, not yet mapped. `created` is
// the name the handle removes when it closes: empty for an object it only
// opened.
void Adopt(SMO_HANDLE& handle, int fd, uint64_t size, const stringEx& created, const stringEx& path, uint32_t flag)
{
    handle.fd = fd;
    handle.address = nullptr;
    handle.size = size;
    handle.created = created;
    handle.name = path;
    handle.flag = flag;
}

}  // namespace

bool CreateSharedMemoryObject(SMO_HANDLE& handle, const stringEx& name, uint32_t flag, uint64_t size)
{
    const stringEx path = SlashName(name);
    const int flags = OpenFlags(flag);
    bool created = false;
    int fd = ShmOpen(path, flags);
    if (fd < 0) {
        // O_EXCL tells the creator apart when two processes arrive together;
        // the loser of that race opens what the winner made.
        fd = ShmOpen(path, flags | O_CREAT | O_EXCL);
        if (fd >= 0)
            created = true;
        else if (errno == EEXIST)
            fd = ShmOpen(path, flags);
        if (fd < 0)
            RaiseOpen("CreateSharedMemoryObject - failed create shared memory object\n", path, flag, errno);
    }
    if (created)
        SizeNewObject(fd, path, flag, size, &path);
    Adopt(handle, fd, created ? size : DescriptorSize(fd), created ? path : stringEx(), path, flag);
    return created;
}

void OpenSharedMemoryObject(SMO_HANDLE& handle, const stringEx& name, uint32_t flag)
{
    const stringEx path = SlashName(name);
    const int fd = ShmOpen(path, OpenFlags(flag));
    if (fd < 0)
        RaiseOpen("OpenSharedMemoryObject - failed create shared memory object\n", path, flag, errno);
    Adopt(handle, fd, DescriptorSize(fd), stringEx(), path, flag);
}

void CloseAndRemoveSharedMemoryObject(SMO_HANDLE& handle, const stringEx& name)
{
    const stringEx path = SlashName(name);
    if (handle.fd >= 0) {
        const int fd = handle.fd;
        handle.fd = -1;
        // Linux frees the descriptor even when close is interrupted.
        if (close(fd) != 0 && errno != EINTR)
            Throw<shmemExp>(
                SmoMessage("CloseAndRemoveSharedMemoryObject - failed close shared memory object\n", path, handle.flag)
                    .Errno(errno, {{EBADF, "invalid smo descriptor"}, {EIO, "io error occurred"}}),
                2);
    }
    if (shm_unlink(path.c_str()) != 0 && errno != ENOENT)
        Throw<shmemExp>(
            SmoMessage("CloseAndRemoveSharedMemoryObject - failed remove shared memory object\n", path, handle.flag)
                .Errno(errno, {{EACCES, "access denied"}, {ENAMETOOLONG, "name is too long"}}),
            2);
}

bool SetupMapView(SMO_HANDLE& handle, const stringEx& name, uint64_t size, uint32_t access, void* address)
{
    const bool created = CreateSharedMemoryObject(handle, name, access, size);
    if (!created && handle.size < size) {
        // The creator may not have sized it yet; map what the caller needs.
        handle.size = size;
    }
    Map(handle, access, address);
    return created;
}

bool SetupMapView(SMO_HANDLE& handle, const wstringEx& name, uint64_t size, uint32_t access, void* address)
{
    return SetupMapView(handle, SysWCtoMB(name), size, access, address);
}

bool SetupMapView(SMO_HANDLE& handle, const char* name, uint64_t size, uint32_t access, void* address)
{
    return SetupMapView(handle, stringEx(name), size, access, address);
}

bool SetupMapView(SMO_HANDLE& handle, const wchar_t* name, uint64_t size, uint32_t access, void* address)
{
    return SetupMapView(handle, SysWCtoMB(wstringEx(name)), size, access, address);
}

namespace {

// A private name for a draft: short, whatever the final name's length, and
// never the same in two processes or two calls.
stringEx DraftName()
{
    static std::atomic<uint64_t> counter{0};
    return stringEx::Format("/.karu-draft-%d-%llu", int(getpid()),
                            static_cast<unsigned long long>(counter.fetch_add(1)));
}

// Makes the object whole under a draft name and links it under `path`;
// false when another process published `path` first.
bool PublishWhole(SMO_HANDLE& handle, const stringEx& path, uint64_t size, uint32_t access, const SmoSetUp& setUp,
                  const SmoSetUp& undo)
{
    const char* const head = "CreateSharedMemoryObject - failed create shared memory object\n";
    const stringEx draft = DraftName();
    const int fd = ShmOpen(draft, OpenFlags(access) | O_CREAT | O_EXCL);
    if (fd < 0)
        RaiseOpen(head, path, access, errno);
    struct DropDraft {
        const stringEx& name;
        ~DropDraft() { shm_unlink(name.c_str()); }  // published or not, the draft's name goes
    } dropDraft{draft};
    SizeNewObject(fd, path, access, size, nullptr);  // the draft's name goes with its guard
    SMO_HANDLE made;
    made.fd = fd;
    made.size = size;
    made.name = path;
    made.flag = access;
    Map(made, access, nullptr);  // closes the descriptor if it raises
    auto discard = [&] {
        munmap(made.address, made.size);
        close(made.fd);
    };
    try {
        setUp(made.address);
    } catch (...) {
        discard();
        throw;
    }
    const stringEx from = stringEx(kShmDirectory) + draft, to = stringEx(kShmDirectory) + path;
    if (link(from.c_str(), to.c_str()) == 0) {
        made.created = path;
        handle = made;
        return true;
    }
    const int error = errno;
    if (undo) {
        try {
            undo(made.address);
        } catch (...) {
            // the draft is dropped all the same; nobody else ever saw it
        }
    }
    discard();
    if (error == EEXIST)
        return false;
    RaiseOpen(head, path, access, error);
}

}  // namespace

bool SetupInitialisedMapView(SMO_HANDLE& handle, const stringEx& name, uint64_t size, uint32_t access,
                             const SmoSetUp& setUp, const SmoSetUp& undo)
{
    const stringEx path = SlashName(name);
    // A name that appears is whole; one that vanishes again (its creator
    // closed it meanwhile) is made afresh. Each turn ends one way or the other.
    for (;;) {
        const int fd = ShmOpen(path, OpenFlags(access));
        if (fd >= 0) {
            Adopt(handle, fd, DescriptorSize(fd), stringEx(), path, access);
            Map(handle, access, nullptr);
            return false;
        }
        if (errno != ENOENT)
            RaiseOpen("CreateSharedMemoryObject - failed create shared memory object\n", path, access, errno);
        if (PublishWhole(handle, path, size, access, setUp, undo))
            return true;
    }
}

void OpenMapView(SMO_HANDLE& handle, const stringEx& name, uint32_t access, void* address)
{
    OpenSharedMemoryObject(handle, name, access);
    if (handle.size == 0) {
        close(handle.fd);
        handle.fd = -1;
        Throw<shmemExp>(SmoMessage("SetupMapView - failed create memory view\n", handle.name, access)
                            .Detail("size", int64_t(0))
                            .Errno(EINVAL, kMapErrors),
                        3);
    }
    Map(handle, access, address);
}

void OpenMapView(SMO_HANDLE& handle, const wstringEx& name, uint32_t access, void* address)
{
    OpenMapView(handle, SysWCtoMB(name), access, address);
}

void OpenMapView(SMO_HANDLE& handle, const char* name, uint32_t access, void* address)
{
    OpenMapView(handle, stringEx(name), access, address);
}

void OpenMapView(SMO_HANDLE& handle, const wchar_t* name, uint32_t access, void* address)
{
    OpenMapView(handle, SysWCtoMB(wstringEx(name)), access, address);
}

void ReleaseMapView(SMO_HANDLE& handle)
{
    if (handle.address) {
        munmap(handle.address, handle.size);
        handle.address = nullptr;
    }
    if (handle.Created()) {
        const stringEx name = handle.name;
        handle.created = stringEx();
        CloseAndRemoveSharedMemoryObject(handle, name);
    } else if (handle.fd >= 0) {
        close(handle.fd);
        handle.fd = -1;
    }
}

}  // namespace Karu

// CSysFile: the thin, shared wrapper around a system file descriptor, and the
// free functions behind it.
//
// A CSysFile has value semantics: copies share the descriptor (and so its
// file position) through an atomic count, and the last copy closes it. The
// three console descriptors are held without a count and are never closed.
// Every failure is a sysfileExp whose message names the operation, the file
// and the library's own sentence for the errno.
#pragma once

#include <fcntl.h>
#include <sys/file.h>

#include <atomic>
#include <cstdint>

#include <karu/string/karuExp.h>
#include <karu/time/time.h>

namespace Karu {

// Creation mode rw-rw-rw-, before the umask.
constexpr uint32_t kDefaultFilePermissions = 0666;
// Bit of the `options` word that asks for direct i/o.
constexpr uint32_t kFileOptionDirectIo = 0x10000;

enum FileShareMode : uint32_t { kShareNone = 0, kShareShared = 1, kShareExclusive = 2 };
enum ConsoleType : uint32_t { kConsoleIn = 0, kConsoleOut = 1, kConsoleError = 2 };

// Opens a file: open (without O_DIRECT again if that was refused), share
// mode, close-on-exec. Returns the descriptor.
int PosixOpenFile(const stringEx& path, uint32_t openFlags, uint32_t extraFlags, uint32_t shareMode,
                  uint32_t permissions, uint32_t options);
// Advisory whole-file lock that never waits; closes fd and raises on conflict.
void SetShareMode(int fd, uint32_t mode, const stringEx& path);
// Byte-range lock; false when the range is held elsewhere and !wait.
bool PosixLockFile(int fd, int64_t from, int64_t length, int16_t type, bool wait);
void PosixUnlockFile(int fd, int64_t from, int64_t length);
int64_t PosixSeekFile(int fd, int64_t offset, int whence);

class CSysFile {
public:
    CSysFile() noexcept = default;
    CSysFile(const stringEx& path, uint32_t openFlags, uint32_t shareMode = kShareNone, uint32_t options = 0);
    CSysFile(const CSysFile& other) noexcept;
    CSysFile& operator=(const CSysFile& other);
    ~CSysFile() noexcept(false);

    void Open(const stringEx& path, uint32_t openFlags, uint32_t extraFlags = 0, uint32_t shareMode = kShareNone,
              uint32_t permissions = kDefaultFilePermissions, uint32_t options = 0);
    // A wide path goes to the system's narrow encoding first.
    void Open(const wstringEx& path, uint32_t openFlags, uint32_t extraFlags = 0, uint32_t shareMode = kShareNone,
              uint32_t permissions = kDefaultFilePermissions, uint32_t options = 0);
    // Takes over standard input (0), output (1) or error (2) without a count.
    void Open(uint32_t consoleType);
    // Takes over a descriptor opened elsewhere (a pipe end, say); the object
    // closes it. `displayName` stands where a path would in messages.
    void Attach(int fd, const stringEx& displayName);
    void Close();

    bool IsOpen() const noexcept { return _fd >= 0; }
    int Descriptor() const noexcept { return static_cast<int>(_fd); }
    const stringEx& Path() const noexcept { return _path; }

    uint64_t Read(void* buffer, uint64_t count);
    uint64_t Write(const void* buffer, uint64_t count);
    void Flush();

    int64_t GetCurrentPos();
    int64_t SeekBegin(int64_t offset);
    int64_t SeekCurrent(int64_t offset);
    int64_t SeekEnd(int64_t offset);
    void ResizeToCurrentPos();

    // The creation time is not kept by the file system: it reads as invalid.
    void GetTime(CTime* created, CTime* accessed, CTime* modified);
    void SetTime(const CTime* created, const CTime* accessed, const CTime* modified);

    void Duplicate(CSysFile& target);
    void Lock(int64_t from, int64_t length, int16_t type = F_WRLCK);
    bool TryLock(int64_t from, int64_t length, int16_t type = F_WRLCK);
    void Unlock(int64_t from, int64_t length);

private:
    void __Release();
    void __Adopt(int fd);

    int64_t _fd = -1;
    std::atomic<int64_t>* _count = nullptr;  // null for consoles and when closed
    stringEx _path;
};

namespace IMPL {
// Hands every byte to the file: a short count is followed by another write,
// so that a write the kernel split is never taken as the whole, and a file
// that takes nothing more raises rather than losing the rest.
void WriteAll(CSysFile& file, const void* data, uint64_t size);
// Copies what `from` holds behind its position into `to`, at its position.
void CopyAll(CSysFile& from, CSysFile& to);
}  // namespace IMPL

}  // namespace Karu

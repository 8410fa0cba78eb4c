// CSysFile and the descriptor-level functions beneath it.
//
// Every system call here loops on EINTR, except lseek, which cannot be
// interrupted. A descriptor is shared by an atomic count so that copies may
// live on different threads; the console descriptors carry no count and so
// are never closed. Closing raises only when no other exception is already
// passing, so that a destructor never replaces one failure with another.
#include <karu/file/sysfile.h>

#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cerrno>

#include <karu/file/dir.h>
#include <karu/log/log.h>

namespace Karu {
namespace {

const ErrnoTable kOpenErrors = {
    {ENOENT, "file dose not exists or can't be created"},
    {EIO, "stream io error"},
    {ENXIO, "the device associated with this special file does not exist, or fifo opened without reading peer"},
    {ENOMEM, "unable to allocate the necessary system resource"},
    {EACCES, "permission denied or confilct flags compination"},
    {EEXIST, "file already exists"},
    {ENOTDIR, "path is not a directory"},
    {EISDIR, "the file is a directory and write permission is specified"},
    {EINVAL, "invalid arguments or synchronized io for this file does not supported"},
    {ENFILE, "the maximum allowable number of files is currently open in the system"},
    {EMFILE, "the maximum file descriptors are currently open in the calling process"},
    {ETXTBSY, "try to open a pure procedure file that is being executed in writable mode"},
    {ENOSPC, "device or directory not ready file can not be created"},
    {EROFS, "open file in read-only media with write permission"},
    {EAGAIN, "the pseudo-terminal device is locked"},
    {ELOOP, "a loop exists in symbolic links, or too many level of links"},
    {ENAMETOOLONG, "file or path name is too long"},
    {EOVERFLOW, "file too big"},
};

const ErrnoTable kReadErrors = {
    {EIO, "physical io error, or background process attempt to read from console terminal"},
    {ENXIO, "device not exist, or the request was outside the capabilities of the device"},
    {EBADF, "invalid file descriptor"},
    {ENOMEM, "insufficient memory was available to fulfill the request"},
    {EISDIR, "the file refers to a directory"},
    {EINVAL, "the stream is linked (directly or indirectly) downstream from a multiplexer"},
    {EAGAIN, "the thread would be delayed in non block mode"},
    {ENOBUFS, "insufficient resources were available in the system to perform the operation"},
    {EOVERFLOW, "offset or length is out-of-range"},
    {EBADMSG, "reading control message on a stream file"},
};

const ErrnoTable kWriteErrors = {
    {EIO, "physical io error, or background process attempt to write to its console terminal"},
    {ENXIO, "device not exist, or the request was outside the capabilities of the device"},
    {EBADF, "invalid file descriptor"},
    {ENOMEM, "insufficient memory was available to fulfill the request"},
    {EINVAL, "the stream is linked (directly or indirectly) downstream from a multiplexer"},
    {EFBIG, "no room for write, or offset out-of-range"},
    {ENOSPC, "there was no free space remaining on the device containing the file"},
    {EPIPE, "error writing pipe, pipe has been broken"},
    {ERANGE, "the transfer request size was outside the range supported by the streams file"},
    {EAGAIN, "the thread would be delayed in non block mode"},
    {ENOBUFS, "insufficient resources were available in the system to perform the operation"},
};

const ErrnoTable kSeekErrors = {
    {EBADF, "invalid file descriptor"},
    {EINVAL, "invalide argument, or the resulting file offset would be negative for the file"},
    {EOVERFLOW, "the new file offset is too big"},
    {ESPIPE, "the fildes argument is associated with a pipe, fifo, or socket"},
};

// Local microseconds of a file time: the local offset is taken off, and
// put back when a time is set.
int64_t FromFileSeconds(time_t seconds)
{
    return int64_t(seconds) * 1000000 - int64_t(CTime::LocalOffset()) * 60000000;
}

time_t ToFileSeconds(const CTime& time)
{
    return static_cast<time_t>((time.Microseconds() + int64_t(CTime::LocalOffset()) * 60000000) / 1000000);
}

[[noreturn]] void RaiseFile(const char* head, const stringEx& path, int error, ErrnoTable table, int32_t code)
{
    Throw<sysfileExp>(ExpMessage(head).Detail("file path", path).Errno(error, table), code);
}

void CloseDescriptor(int fd)
{
    int error = 0;
    // Linux releases the descriptor even when close reports EINTR, so a
    // retry could close a descriptor another thread has just been given.
    if (close(fd) != 0 && errno != EINTR)
        error = errno;
    if (error && MayThrowFromDestructor())
        Throw<sysfileExp>(
            ExpMessage("CSysFile::__Close - error close file descriptor\n")
                .Detail("sys error", int64_t(error))
                .Detail("error desc", ErrnoDescription(error, {{EBADF, "invalid file descriptor"}, {EIO, "io error occurred"}})),
            6);
}

}  // namespace

// ---- free functions ----------------------------------------------------------------

int PosixOpenFile(const stringEx& path, uint32_t openFlags, uint32_t extraFlags, uint32_t shareMode,
                  uint32_t permissions, uint32_t options)
{
    int flags = static_cast<int>(openFlags | extraFlags);
    const bool direct = options & kFileOptionDirectIo;
    if (direct)
        flags |= O_DIRECT;
    int fd;
    do {
        fd = open(path.c_str(), flags | O_CLOEXEC, static_cast<mode_t>(permissions));
    } while (fd < 0 && errno == EINTR);
    if (fd < 0 && direct) {
        do {
            fd = open(path.c_str(), (flags & ~O_DIRECT) | O_CLOEXEC, static_cast<mode_t>(permissions));
        } while (fd < 0 && errno == EINTR);
        if (fd >= 0)
            CLog::LogWarning("util.sysfile",
                             "PosixOpenFile - failed set direct io (no buffer) access mode\n  file path = %s\n",
                             path.c_str());
    }
    if (fd < 0)
        Throw<sysfileExp>(ExpMessage("PosixOpenFile - failed open specified file\n")
                              .Detail("file path", path)
                              .Errno(errno, kOpenErrors),
                          4);
    SetShareMode(fd, shareMode, path);
    // The descriptor was opened close-on-exec already; this confirms it on
    // systems where open ignores the flag.
    int fdFlags = fcntl(fd, F_GETFD);
    if (fcntl(fd, F_SETFD, (fdFlags < 0 ? 0 : fdFlags) | FD_CLOEXEC) < 0) {
        const int error = errno;
        close(fd);
        Throw<sysfileExp>(ExpMessage("PosixOpenFile - failed set file control options\n").Errno(error, kOpenErrors),
                          4);
    }
    return fd;
}

void SetShareMode(int fd, uint32_t mode, const stringEx& path)
{
    if (mode != kShareShared && mode != kShareExclusive)
        return;
    const int operation = (mode == kShareShared ? LOCK_SH : LOCK_EX) | LOCK_NB;
    int result;
    do {
        result = flock(fd, operation);
    } while (result != 0 && errno == EINTR);
    if (result == 0 || errno == EBADF || errno == EINVAL || errno == EOPNOTSUPP)
        return;  // a file system without locking does not stop the open
    const int error = errno;
    close(fd);
    Throw<sysfileExp>(ExpMessage("SetShareMode - failed set file sharing mode\n")
                          .Detail("file path", path)
                          .Detail("sharing mode", mode == kShareShared ? "shared" : "exclusive")
                          .Errno(error, {{EWOULDBLOCK, "sharing mode conflict"}}),
                      4);
}

bool PosixLockFile(int fd, int64_t from, int64_t length, int16_t type, bool wait)
{
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = from;
    range.l_len = length;
    int result;
    do {
        result = fcntl(fd, wait ? F_SETLKW : F_SETLK, &range);
    } while (result != 0 && errno == EINTR);
    if (result == 0)
        return true;
    if (errno == EACCES || errno == EAGAIN)
        return false;
    Throw<sysfileExp>(
        ExpMessage("PosixLockFile - failed lock file\n")
            .Detail("from", from)
            .Detail("length", length)
            .Errno(errno, {{EBADF, "invalid file descriptor or wrong access mode, or the open mode does not match the lock type"},
                           {EINVAL, "invalid arguments or file does not support locking"},
                           {EDEADLK, "deadlock detected"},
                           {ENOLCK, "lock number exceed the system limit"},
                           {EOVERFLOW, "offset out-of-range"}}),
        4);
}

void PosixUnlockFile(int fd, int64_t from, int64_t length)
{
    struct flock range {};
    range.l_type = F_UNLCK;
    range.l_whence = SEEK_SET;
    range.l_start = from;
    range.l_len = length;
    int result;
    do {
        result = fcntl(fd, F_SETLKW, &range);
    } while (result != 0 && errno == EINTR);
    if (result == 0)
        return;
    Throw<sysfileExp>(ExpMessage("PosixUnlockFile - failed unlock file\n")
                          .Detail("from", from)
                          .Detail("length", length)
                          .Errno(errno, {{EBADF, "invalid file descriptor or wrong access mode"},
                                         {EINVAL, "invalid arguments"},
                                         {ENOLCK, "lock number exceed the system limit"},
                                         {EOVERFLOW, "offset out-of-range"}}),
                      4);
}

int64_t PosixSeekFile(int fd, int64_t offset, int whence)
{
    const off_t result = lseek(fd, static_cast<off_t>(offset), whence);
    if (result < 0)
        Throw<sysfileExp>(ExpMessage("PosixSeekFile - error seek file pointer\n")
                              .Detail("sys error", int64_t(errno))
                              .Detail("error desc", ErrnoDescription(errno, kSeekErrors)),
                          13);
    return result;
}

// ---- CSysFile ------------------------------------------------------------------------

CSysFile::CSysFile(const stringEx& path, uint32_t openFlags, uint32_t shareMode, uint32_t options)
{
    Open(path, openFlags, 0, shareMode, kDefaultFilePermissions, options);
}

CSysFile::CSysFile(const CSysFile& other) noexcept : _fd(other._fd), _count(other._count), _path(other._path)
{
    if (_count)
        _count->fetch_add(1, std::memory_order_relaxed);
}

CSysFile& CSysFile::operator=(const CSysFile& other)
{
    if (this == &other || (_fd == other._fd && _count == other._count)) {
        _path = other._path;
        return *this;
    }
    if (other._count)
        other._count->fetch_add(1, std::memory_order_relaxed);
    int64_t fd = other._fd;
    std::atomic<int64_t>* count = other._count;
    std::swap(_fd, fd);
    std::swap(_count, count);
    _path = other._path;
    // Release what this object held before, now in fd/count.
    if (count && count->fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete count;
        CloseDescriptor(static_cast<int>(fd));
    }
    return *this;
}

CSysFile::~CSysFile() noexcept(false)
{
    __Release();
}

void CSysFile::__Release()
{
    std::atomic<int64_t>* count = _count;
    const int64_t fd = _fd;
    _count = nullptr;
    _fd = -1;
    if (count && count->fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete count;
        CloseDescriptor(static_cast<int>(fd));
    }
}

void CSysFile::__Adopt(int fd)
{
    std::atomic<int64_t>* count = new std::atomic<int64_t>(1);
    __Release();
    _fd = fd;
    _count = count;
}

void CSysFile::Attach(int fd, const stringEx& displayName)
{
    __Adopt(fd);
    _path = displayName;
}

void CSysFile::Close()
{
    __Release();
    _path.clear();
}

void CSysFile::Open(const stringEx& path, uint32_t openFlags, uint32_t extraFlags, uint32_t shareMode,
                    uint32_t permissions, uint32_t options) try {
    _path.clear();
    stringEx full = path;
    try {
        CDir::ConvToFullPath(full);
    } catch (const karuExp& e) {
        Throw<sysfileExp>(ExpMessage("CSysFile::Open - failed determine the file path to open\n")
                              .Text(stringEx("  file name  = ") + path + "\n")
                              .Cause(e),
                          4);
    }
    const int fd = PosixOpenFile(full, openFlags, extraFlags, shareMode, permissions, options);
    try {
        __Adopt(fd);
    } catch (...) {
        close(fd);
        throw;
    }
    _path = full;
} KARU_THROWS(sysfileExp)

void CSysFile::Open(uint32_t consoleType)
{
    _path.clear();
    if (consoleType > kConsoleError)
        Throw<sysfileExp>(ExpMessage(stringEx::Format("CSysFile::Open - unknown console type: %u", consoleType)), 4);
    if (_fd == consoleType) {
        // Already that console: drop a sole count so it is never closed.
        if (_count && _count->load() == 1) {
            delete _count;
            _count = nullptr;
        }
        return;
    }
    __Release();
    _fd = consoleType;
}

uint64_t CSysFile::Read(void* buffer, uint64_t count)
{
    ssize_t got;
    do {
        got = read(static_cast<int>(_fd), buffer, count);
    } while (got < 0 && errno == EINTR);
    if (got < 0)
        RaiseFile("CSysFile::Read - failed reading file\n", _path, errno, kReadErrors, 7);
    return static_cast<uint64_t>(got);
}

uint64_t CSysFile::Write(const void* buffer, uint64_t count)
{
    ssize_t put;
    do {
        put = write(static_cast<int>(_fd), buffer, count);
    } while (put < 0 && errno == EINTR);
    if (put < 0)
        RaiseFile("CSysFile::Read - failed reading file\n", _path, errno, kWriteErrors, 9);
    return static_cast<uint64_t>(put);
}

void CSysFile::Flush()
{
    int result;
    do {
        result = fsync(static_cast<int>(_fd));
    } while (result != 0 && errno == EINTR);
    if (result != 0)
        RaiseFile("CSysFile::Flush - failed flush the file\n", _path, errno,
                  {{EBADF, "invalid file descriptor"},
                   {EINVAL, "the file is not support this operation"},
                   {EIO, "io error occurred to the file system"},
                   {EFBIG, "size too big"}},
                  15);
}

int64_t CSysFile::GetCurrentPos()
{
    return PosixSeekFile(static_cast<int>(_fd), 0, SEEK_CUR);
}

int64_t CSysFile::SeekBegin(int64_t offset)
{
    return PosixSeekFile(static_cast<int>(_fd), offset, SEEK_SET);
}

int64_t CSysFile::SeekCurrent(int64_t offset)
{
    return PosixSeekFile(static_cast<int>(_fd), offset, SEEK_CUR);
}

int64_t CSysFile::SeekEnd(int64_t offset)
{
    return PosixSeekFile(static_cast<int>(_fd), offset, SEEK_END);
}

void CSysFile::ResizeToCurrentPos()
{
    const int64_t size = GetCurrentPos();
    int result;
    do {
        result = ftruncate(static_cast<int>(_fd), static_cast<off_t>(size));
    } while (result != 0 && errno == EINTR);
    if (result != 0)
        Throw<sysfileExp>(ExpMessage("CSysFile::ResizeToCurrentPos - failed set the size of shared memory object\n")
                              .Detail("file path", _path)
                              .Detail("resize to", size)
                              .Errno(errno, {{EIO, "io error to the file system"},
                                             {EBADF, "invalid file descriptor"},
                                             {EINVAL, "invalid size or there is no write permission"},
                                             {EFBIG, "size too big"},
                                             {EROFS, "the file resides on a read-only file system"}}),
                          23);
}

void CSysFile::GetTime(CTime* created, CTime* accessed, CTime* modified)
{
    struct stat status;
    if (fstat(static_cast<int>(_fd), &status) != 0)
        RaiseFile("CSysFile::GetTime - failed retrive the file status\n", _path, errno,
                  {{EBADF, "invalid file descriptor"},
                   {EIO, "io error occurred while reading from the file system"},
                   {EOVERFLOW, "some fields cannot be represented correctly in the structure"}},
                  18);
    if (created)
        *created = CTime(CTime::kInvalid);
    if (accessed)
        *accessed = CTime(FromFileSeconds(status.st_atime));
    if (modified)
        *modified = CTime(FromFileSeconds(status.st_mtime));
}

void CSysFile::SetTime(const CTime*, const CTime* accessed, const CTime* modified)
{
    if (!accessed && !modified)
        return;
    CTime access, modify;
    if (!accessed || !modified)
        GetTime(nullptr, &access, &modify);
    if (accessed)
        access = *accessed;
    if (modified)
        modify = *modified;
    utimbuf times{ToFileSeconds(access), ToFileSeconds(modify)};
    int result;
    do {
        result = utime(_path.c_str(), &times);
    } while (result != 0 && errno == EINTR);
    if (result != 0)
        RaiseFile("CSysFile::SetTime - error setting the file time\n", _path, errno,
                  {{EPERM, "the calling process does not have the appropriate privileges"},
                   {ENOENT, "file not exists"},
                   {EACCES, "permission is denied"},
                   {ENOTDIR, "path prefix is not a valid directory"},
                   {EROFS, "the file system containing the file is read-only"},
                   {ELOOP, "a loop exists in the symbolic links or links level is too deep"},
                   {ENAMETOOLONG, "pathname is too long"}},
                  19);
}

void CSysFile::Duplicate(CSysFile& target)
{
    int fd;
    do {
        fd = dup(static_cast<int>(_fd));
    } while (fd < 0 && errno == EINTR);
    if (fd < 0)
        RaiseFile("CSysFile::Duplicate - failed duplicate file descriptor\n", _path, errno,
                  {{EBADF, "invalid file descriptor"},
                   {EMFILE, "the number of file descriptors in use by this process would exceed"}},
                  36);
    try {
        target.__Adopt(fd);
    } catch (...) {
        close(fd);
        throw;
    }
    target._path = _path;
}

void CSysFile::Lock(int64_t from, int64_t length, int16_t type)
{
    PosixLockFile(static_cast<int>(_fd), from, length, type, true);
}

bool CSysFile::TryLock(int64_t from, int64_t length, int16_t type)
{
    return PosixLockFile(static_cast<int>(_fd), from, length, type, false);
}

void CSysFile::Unlock(int64_t from, int64_t length)
{
    PosixUnlockFile(static_cast<int>(_fd), from, length);
}

}  // namespace Karu

// Whole-file read and write.
//
// WriteFile rewrites in place, under the exclusive lock, so that the file
// keeps its inode, owner, mode and hard links, and a second writer fails at
// once instead of interleaving. What a failed or killed write may leave:
//
// - A write that fails leaves the file as it was. Before the first byte
//   changes, the room the new content needs is taken: the process's file-size
//   limit is checked, and the blocks that the new content needs beyond those
//   the file already holds are reserved past its end (fallocate, keeping the
//   size, so that the reservation is invisible; where the file system cannot
//   reserve, its free space is checked). A full disk, a quota or the limit so
//   fails while the old content is still whole.
// - A process killed during the write leaves the old content whole, the file
//   empty, a prefix of the new content, or the new content whole: the file is
//   cut before the new content goes in, so no old byte ever follows new ones.
//
// The cut falls where the new content first differs from the old: what the
// two share at the start is a prefix of the new content already, and stays
// as it is. Only the rest is written. Cutting gives blocks back to the file
// system, which on a file system mounted to discard freed blocks costs a
// synchronous device command each time, and the new bytes then need fresh
// blocks and fresh cache pages; so a file whose first part is unchanged (a
// small file whose match is not in its first bytes, a log changed near its
// end) keeps that part's blocks and pages. Finding the shared start reads the
// old content up to the first difference, from the cache as a rule.
//
// What was checked before the cut holds unless another process takes the
// space in between, and only then can a write fail half way. The room is
// reserved again right after the cut, which also spares the file system the
// delayed allocation it would otherwise force when a file cut to nothing is
// closed.
//
// The new bytes go out in steps of 64 KB. The file system takes a cache page
// as large as what one call hands it (up to 2 MB); large ones come from
// memory that has lain free in large runs, which a virtual machine that gives
// freed memory back to its host must first be given again. Writing 200 MB
// after a cut took 0.06 to 1.2 s in one call and 0.06 to 0.11 s in 64 KB
// steps, whatever ran before.
//
// Both directions keep going until the whole content has moved: the kernel
// moves at most about 2 GiB in one call, and a short count taken as the end
// would silently cut a large file.
#include <karu/file/dir.h>

#include <karu/file/sysfile.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

namespace Karu {
namespace {

// One write call: small enough that the cache pages it takes are small ones
// (see the head of this file), large enough that calls cost nothing.
constexpr uint64_t kWriteStep = uint64_t(1) << 16;

[[noreturn]] void RaiseNoRoom(const CSysFile& file, uint64_t size, int error)
{
    Throw<sysfileExp>(ExpMessage("CDir::WriteFile - no room for the new content\n")
                          .Detail("file path", file.Path())
                          .Detail("new size", static_cast<int64_t>(size))
                          .Errno(error, {{ENOSPC, "there was no free space remaining on the device containing the file"},
                                         {EDQUOT, "the disk quota of the user is exhausted"},
                                         {EFBIG, "the new size is past the file size limit of the process"}}),
                      9);
}

// Reserves `length` bytes of blocks from `from` on without changing the
// file's size. 0, or the errno of a reservation that failed; `supported` is
// cleared where the file system cannot reserve at all.
int Reserve(int fd, int64_t from, int64_t length, bool& supported)
{
    supported = true;
    int result;
    do {
        result = fallocate(fd, FALLOC_FL_KEEP_SIZE, from, length);
    } while (result != 0 && errno == EINTR);
    if (result == 0)
        return 0;
    if (errno == EOPNOTSUPP || errno == ENOSYS || errno == ENODEV) {
        supported = false;
        return 0;
    }
    return errno;
}

// Fails, with nothing changed, when the file could not take `size` new
// bytes (written over it, or appended): see the head of this file.
void TakeRoom(CSysFile& file, const struct stat& status, uint64_t size, bool append)
{
    const uint64_t end = static_cast<uint64_t>(status.st_size);
    const uint64_t total = append ? end + size : size;
    rlimit limit;
    if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY && total > limit.rlim_cur)
        RaiseNoRoom(file, total, EFBIG);
    // Blocks the file holds now come back when it is cut (an append keeps them).
    const uint64_t held = append ? 0 : static_cast<uint64_t>(status.st_blocks) * 512;
    const uint64_t needed = append ? size : (total > held ? total - held : 0);
    if (needed == 0)
        return;
    bool supported;
    if (const int error = Reserve(file.Descriptor(), static_cast<int64_t>(end), static_cast<int64_t>(needed),
                                  supported)) {
        // What was reserved before the failure is given back, and the times
        // the cut changes put back: the file stays as it was.
        if (ftruncate(file.Descriptor(), static_cast<off_t>(end)) == 0) {
            const timespec times[2] = {status.st_atim, status.st_mtim};
            futimens(file.Descriptor(), times);
        }
        RaiseNoRoom(file, total, error);
    }
    struct statvfs space;
    if (!supported && fstatvfs(file.Descriptor(), &space) == 0 &&
        static_cast<uint64_t>(space.f_bavail) * space.f_frsize < needed)
        RaiseNoRoom(file, total, ENOSPC);
}

// How many bytes at the start of the file open at `fd` equal those of
// `data`, up to `limit`; 0 when the file cannot be read.
uint64_t SharedStart(int fd, const char* data, uint64_t limit)
{
    constexpr uint64_t kCompareBlock = uint64_t(1) << 16;  // one read a step, well inside the caches
    if (limit == 0)
        return 0;
    // Reopened for reading: the writer's descriptor is write-only, and the
    // name may have changed hands since it was opened.
    const int reader = open(stringEx::Format("/proc/self/fd/%d", fd).c_str(), O_RDONLY | O_CLOEXEC);
    if (reader < 0)
        return 0;
    const std::unique_ptr<char[]> block(new char[kCompareBlock]);
    uint64_t shared = 0;
    while (shared < limit) {
        const ssize_t got =
            pread(reader, block.get(), std::min(kCompareBlock, limit - shared), static_cast<off_t>(shared));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        const uint64_t n = static_cast<uint64_t>(got);
        if (std::memcmp(block.get(), data + shared, n) != 0) {
            uint64_t i = 0;
            while (block[i] == data[shared + i])
                ++i;
            shared += i;
            break;
        }
        shared += n;
    }
    close(reader);
    return shared;
}

void WriteBytes(const stringEx& path, const void* data, uint64_t size, bool flush, bool append) try {
    if (path.empty())
        Throw<dirExp>(ExpMessage("CDir::WriteFile - write what ?"), 2);
    CSysFile file;
    file.Open(path, O_WRONLY, O_CREAT, kShareExclusive, kDefaultFilePermissions);
    struct stat status;
    const bool regular = fstat(file.Descriptor(), &status) == 0 && S_ISREG(status.st_mode);
    if (regular)
        TakeRoom(file, status, size, append);
    IMPL::FileStep("WriteFile.room-taken");
    const char* bytes = static_cast<const char*>(data);
    uint64_t keep = 0;  // bytes at the start that stay as they are
    if (append) {
        file.SeekEnd(0);
    } else {
        if (regular)
            keep = SharedStart(file.Descriptor(), bytes, std::min(size, static_cast<uint64_t>(status.st_size)));
        if (keep == size && static_cast<uint64_t>(status.st_size) == size) {
            // Nothing changes but the time stamp, as for any write.
            futimens(file.Descriptor(), nullptr);
        } else {
            file.SeekBegin(static_cast<int64_t>(keep));
            file.ResizeToCurrentPos();
            IMPL::FileStep("WriteFile.cut");
            // Taken again, now that the cut has given the blocks back.
            bool supported;
            if (size > keep)
                Reserve(file.Descriptor(), static_cast<int64_t>(keep), static_cast<int64_t>(size - keep), supported);
        }
    }
    for (uint64_t at = keep; at < size;) {
        const uint64_t step = std::min(kWriteStep, size - at);
        IMPL::WriteAll(file, bytes + at, step);
        at += step;
    }
    IMPL::FileStep("WriteFile.written");
    if (flush)
        file.Flush();
    file.Close();
} KARU_THROWS(fileExp, dirExp)

template <class Buffer>
void ReadBytes(const stringEx& path, Buffer& data) try {
    data.clear();
    if (path.empty())
        Throw<dirExp>(ExpMessage("CDir::ReadFile - read what ?"), 2);
    CSysFile file;
    file.Open(path, O_RDONLY, 0, kShareShared);
    struct stat status;
    if (fstat(file.Descriptor(), &status) == 0 && S_ISDIR(status.st_mode))
        Throw<sysfileExp>(ExpMessage("CSysFile::Read - failed reading file\n")
                              .Detail("file path", file.Path())
                              .Errno(EISDIR, {{EISDIR, "the file refers to a directory"}}),
                          7);
    const int64_t start = file.GetCurrentPos();
    const int64_t end = file.SeekEnd(0);
    file.SeekBegin(start);
    const uint64_t size = static_cast<uint64_t>(end - start);
    using Unit = typename Buffer::value_type;
    Buffer bytes;
    char* room = reinterpret_cast<char*>(bytes.GetBuffer(size));
    uint64_t got = 0;
    while (got < size) {
        const uint64_t n = file.Read(room + got, size - got);
        if (n == 0)
            break;
        got += n;
    }
    bytes.SetSize(got / sizeof(Unit));
    data = bytes;
} KARU_THROWS(fileExp, dirExp)

}  // namespace

void CDir::WriteFile(const stringEx& path, const byteEx& data, bool flush, bool append)
{
    WriteBytes(path, data.data(), data.size(), flush, append);
}

void CDir::WriteFile(const stringEx& path, const stringEx& data, bool flush, bool append)
{
    WriteBytes(path, data.data(), data.size(), flush, append);
}

void CDir::WriteFile(const stringEx& path, const wstringEx& data, bool flush, bool append)
{
    WriteBytes(path, data.data(), data.size() * sizeof(wchar_t), flush, append);
}

void CDir::ReadFile(const stringEx& path, byteEx& data)
{
    ReadBytes(path, data);
}

void CDir::ReadFile(const stringEx& path, stringEx& data)
{
    ReadBytes(path, data);
}

void CDir::ReadFile(const stringEx& path, wstringEx& data)
{
    ReadBytes(path, data);
}

void CDir::WriteFileIn(const stringEx& name, const byteEx& data, bool flush, bool append) const
{
    WriteFile(__Resolve(name), data, flush, append);
}

void CDir::WriteFileIn(const stringEx& name, const stringEx& data, bool flush, bool append) const
{
    WriteFile(__Resolve(name), data, flush, append);
}

void CDir::WriteFileIn(const stringEx& name, const wstringEx& data, bool flush, bool append) const
{
    WriteFile(__Resolve(name), data, flush, append);
}

void CDir::ReadFileIn(const stringEx& name, byteEx& data) const
{
    ReadFile(__Resolve(name), data);
}

void CDir::ReadFileIn(const stringEx& name, stringEx& data) const
{
    ReadFile(__Resolve(name), data);
}

void CDir::ReadFileIn(const stringEx& name, wstringEx& data) const
{
    ReadFile(__Resolve(name), data);
}

}  // namespace Karu

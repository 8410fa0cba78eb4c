// Whole-file read and write.
//
// WriteFile rewrites in place: open without truncation and take the
// exclusive lock, so a second writer fails at once instead of interleaving,
// and the file keeps its owner, mode and hard links. The new content is
// written over the old from the start, and the file is cut at its end
// afterwards: cutting first would make the file system give back every block
// and allocate it again, which on a large file cost several times the write
// itself. There is no temporary file: a process that dies during the write
// leaves the file holding a prefix of the new content, followed by what was
// left of the old.
//
// Both directions keep going until the whole content has moved: the kernel
// moves at most about 2 GiB in one call, and a short count taken as the end
// would silently cut a large file.
#include <karu/file/dir.h>

#include <karu/file/sysfile.h>

#include <cerrno>

namespace Karu {
namespace {

void WriteBytes(const stringEx& path, const void* data, uint64_t size, bool flush, bool append) try {
    if (path.empty())
        Throw<dirExp>(ExpMessage("CDir::WriteFile - write what ?"), 2);
    CSysFile file;
    file.Open(path, O_WRONLY, O_CREAT, kShareExclusive, kDefaultFilePermissions);
    if (append) {
        file.SeekEnd(0);
        IMPL::WriteAll(file, data, size);
    } else {
        file.SeekBegin(0);
        IMPL::WriteAll(file, data, size);
        file.ResizeToCurrentPos();
    }
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

void CDir::ReadFileIn(const stringEx& name, byteEx& data) const
{
    ReadFile(__Resolve(name), data);
}

}  // namespace Karu

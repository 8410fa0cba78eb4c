// CDir: path normalisation, opening a directory, and making one.
//
// Normalisation is text work: "//" collapses, trailing "/." goes, "." and
// ".." are resolved component by component against the text alone, so a
// symbolic link is never followed while a path is cleaned. The search, which
// does follow links, is in search.cpp.
#include <karu/file/dir.h>

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace Karu {
namespace {

const stringEx kSeparator("/");

stringEx WithSlash(stringEx path)
{
    if (path.empty() || path[path.size() - 1] != '/')
        path += '/';
    return path;
}

stringEx WithoutSlash(stringEx path)
{
    if (path.size() > 1 && path[path.size() - 1] == '/')
        path.resize(path.size() - 1);
    return path;
}

}  // namespace

// ---- paths ----------------------------------------------------------------------------

void CDir::NormalizePath(stringEx& path)
{
    uint64_t at;
    while ((at = path.Find("//")) != stringEx::npos)
        path.erase(at, 1);
    while (path.size() > 2 && path.EndsWith("/."))
        path.erase(path.size() - 2);
    if (path == stringEx("/."))
        path = "/";
}

void CDir::ConvToFullPath(stringEx& path)
{
    if (path.empty())
        Throw<dirExp>(ExpMessage("CDir::ConvToFullPath - nothing to convert"), 2);
    NormalizePath(path);
    if (path[0] != '/') {
        if (path.StartsWith("./"))
            path = GetPwd() + path.Mid(2);
        else if (path.StartsWith("~/"))
            path = WithSlash(stringEx(getenv("HOME") ? getenv("HOME") : "")) + path.Mid(2);
        else
            path = GetPwd() + path;
    }
    const bool trailing = path[path.size() - 1] == '/';
    PiecePositions pieces;
    SplitPositions(path, kSeparator, pieces);
    std::vector<stringEx> kept;
    for (const auto& [pos, len] : pieces) {
        const stringEx part(path, pos, len);
        if (part.empty() || part == stringEx("."))
            continue;
        if (part == stringEx("..")) {
            if (!kept.empty())
                kept.pop_back();
            continue;
        }
        kept.push_back(part);
    }
    stringEx full("/");
    for (size_t i = 0; i < kept.size(); ++i) {
        if (i)
            full += '/';
        full += kept[i];
    }
    if (trailing && !kept.empty())
        full += '/';
    path = full;
}

stringEx CDir::GetPathDir(const stringEx& path)
{
    const uint64_t slash = path.ReverseFind('/');
    return slash == stringEx::npos ? stringEx("./") : stringEx(path.Left(slash + 1));
}

stringEx CDir::GetPathFilename(const stringEx& path)
{
    const uint64_t slash = path.ReverseFind('/');
    return slash == stringEx::npos ? path : path.Mid(slash + 1);
}

// The room for the path starts at what the system gives as the longest path
// and doubles while the path does not fit: the system's figure is no bound
// here, since the C library reads longer paths itself. Past this much, the
// length is taken as one that cannot be had.
constexpr size_t kMaxPwdRoom = size_t(1) << 20;

stringEx CDir::GetPwd()
{
    errno = 0;
    const long longest = pathconf(".", _PC_PATH_MAX);
    if (longest < 0 && errno != 0)
        Throw<dirExp>(ExpMessage("CDir::GetPwd - error get the path length of current working dir\n")
                          .Errno(errno, {{EACCES, "permission to search a component of the path denied"},
                                         {ENOENT, "the current working directory has been unlinked"}}),
                      12);
    for (size_t room = longest > 0 ? static_cast<size_t>(longest) + 1 : 256;; room *= 2) {
        stringEx path;
        char* units = path.GetBuffer(room);
        if (getcwd(units, room)) {
            path.SetSize(std::strlen(units));
            return WithSlash(path);
        }
        if ((errno == ERANGE && room > kMaxPwdRoom) || errno == ENAMETOOLONG)
            Throw<dirExp>(ExpMessage("CDir::GetPwd - error get the path length of current working dir\n")
                              .Errno(errno, {{ERANGE, "the path is longer than any room it may be given"},
                                             {ENAMETOOLONG, "the path is longer than any room it may be given"}}),
                          12);
        if (errno != ERANGE)
            Throw<dirExp>(ExpMessage("CDir::GetPwd - failed getting current working dir\n")
                              .Errno(errno, {{EACCES, "permission to read or search a component of the path denied"},
                                             {ENOENT, "the current working directory has been unlinked"}}),
                          12);
    }
}

// ---- directory handles ----------------------------------------------------------------

CDirHandle::CDirHandle(const CDirHandle& other) noexcept : _dir(other._dir), _count(other._count)
{
    if (_count)
        _count->fetch_add(1, std::memory_order_relaxed);
}

CDirHandle& CDirHandle::operator=(const CDirHandle& other)
{
    if (_count == other._count)
        return *this;
    if (other._count)
        other._count->fetch_add(1, std::memory_order_relaxed);
    CDirHandle old;
    old._dir = _dir;
    old._count = _count;
    _dir = other._dir;
    _count = other._count;
    old.Reset();
    return *this;
}

CDirHandle::~CDirHandle() noexcept(false)
{
    if (MayThrowFromDestructor()) {
        Reset();
        return;
    }
    try {
        Reset();
    } catch (...) {
        // Another exception is passing: it says more than a failed close.
    }
}

void CDirHandle::Reset()
{
    DIR* dir = _dir;
    std::atomic<int64_t>* count = _count;
    _dir = nullptr;
    _count = nullptr;
    if (!count || count->fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    delete count;
    if (closedir(dir) != 0)
        Throw<dirExp>(ExpMessage("CDirHandle::Reset - failed close the directory stream\n")
                          .Errno(errno, {{EBADF, "invalid dir descriptor"}}),
                      19);
}

void CDirHandle::__Adopt(DIR* dir)
{
    std::atomic<int64_t>* count = new std::atomic<int64_t>(1);
    Reset();
    _dir = dir;
    _count = count;
}

bool CDir::IsDir(const stringEx& path) noexcept
{
    struct stat status;
    return !path.empty() && stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool CDir::Exists(const stringEx& path) noexcept
{
    struct stat status;
    return !path.empty() && lstat(path.c_str(), &status) == 0;
}

void CDir::Open(const stringEx& path, bool create, bool noCheck)
{
    _path.clear();
    if (path.empty())
        Throw<dirExp>(ExpMessage("CDir::Open - nothing to open"), 2);
    stringEx full = path;
    ConvToFullPath(full);
    full = WithSlash(full);
    if (!noCheck && !IsDir(full)) {
        if (!create)
            Throw<dirExp>(ExpMessage("CDir::Open - error open dir, not exist\n")
                              .Detail("dir to open", full)
                              .Detail("current working dir", GetPwd()),
                          3);
        MakeDir(full, true);
    }
    _path = full;
}

stringEx CDir::__Resolve(const stringEx& name) const
{
    if (!name.empty() && name[0] == '/')
        return name;
    return (_path.empty() ? GetPwd() : _path) + name;
}

// ---- directories ------------------------------------------------------------------------

void CDir::MakeDir(const stringEx& path, bool recursive)
{
    if (path.empty())
        Throw<dirExp>(ExpMessage("CDir::MakeDir - nothing to make"), 2);
    stringEx full = path;
    ConvToFullPath(full);
    full = WithoutSlash(full);
    if (recursive && full.size() > 1) {
        const stringEx parent = WithoutSlash(GetPathDir(full));
        if (parent.size() > 1 && !IsDir(parent))
            MakeDir(parent, true);
    }
    if (mkdir(full.c_str(), 0777) == 0 || (recursive && errno == EEXIST && IsDir(full)))
        return;
    Throw<dirExp>(ExpMessage("CDir::MakeDir - failed making directory\n")
                      .Detail("dir to create", full)
                      .Detail("is recursive", recursive ? "true" : "false")
                      .Errno(errno, {{EACCES, "permission denied"},
                                     {EEXIST, "the path already exists"},
                                     {ENOENT, "a component of the path prefix does not exist"},
                                     {ENOTDIR, "a component of the path prefix is not a directory"},
                                     {ENOSPC, "no space left on the device"},
                                     {EROFS, "the parent directory resides on a read-only file system"},
                                     {ENAMETOOLONG, "path name is too long"}}),
                  8);
}

}  // namespace Karu

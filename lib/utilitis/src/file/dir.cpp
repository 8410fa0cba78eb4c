// CDir: path normalisation and the file and directory search.
//
// Normalisation is text work: "//" collapses, trailing "/." goes, "." and
// ".." are resolved component by component against the text alone, so a
// symbolic link is never followed while a path is cleaned. The search, on
// the other hand, stats every entry (following links): a link to a file is a
// file, a link to a directory is a directory, and a dangling link ends the
// whole search with its message.
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

bool IsDotName(const char* name) noexcept
{
    return name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0));
}

}  // namespace

void PosixStat(const stringEx& path, struct stat& status)
{
    if (stat(path.c_str(), &status) == 0)
        return;
    Throw<dirExp>(ExpMessage("PosixStat - failed retrive the status of giving path\n")
                      .Detail("path", path)
                      .Errno(errno, {{ENOENT, "path does not exists"},
                                     {EACCES, "search permission is denied for a component of the path prefix"},
                                     {EOVERFLOW, "file size out-of-range"},
                                     {ENAMETOOLONG, "path name is too long"},
                                     {ENOTDIR, "a component of the path prefix is not a directory"},
                                     {ELOOP, "a loop exists in symbolic links, or too many links levels"},
                                     {EIO, "an error occurred while reading from the file system"}}),
                  4);
}

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

stringEx CDir::GetPwd()
{
    for (size_t room = 256;; room *= 2) {
        stringEx path;
        char* units = path.GetBuffer(room);
        if (getcwd(units, room)) {
            path.SetSize(std::strlen(units));
            return WithSlash(path);
        }
        if (errno != ERANGE || room > (1u << 20))
            Throw<dirExp>(ExpMessage("CDir::GetPwd - failed getting current working dir\n")
                              .Errno(errno, {{EACCES, "permission to read or search a component of the path denied"},
                                             {ENOENT, "the current working directory has been unlinked"}}),
                          12);
    }
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

bool CDir::WildcardMatch(const stringEx& name, const stringEx& pattern) noexcept
{
    if (name.empty())
        return false;
    uint64_t n = 0, p = 0, star = stringEx::npos, mark = 0;
    while (n < name.size()) {
        if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n])) {
            ++n;
            ++p;
        } else if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            mark = n;
        } else if (star != stringEx::npos) {
            p = star + 1;
            n = ++mark;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*')
        ++p;
    return p == pattern.size();
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

// ---- search ----------------------------------------------------------------------------

bool CDir::NextFile(CDirHandle& handle, stringEx& name, bool includeHidden) const
{
    return __Next(handle, name, includeHidden, false, true);
}

bool CDir::NextSubDir(CDirHandle& handle, stringEx& name, bool includeHidden, bool includeDots) const
{
    return __Next(handle, name, includeHidden, includeDots, false);
}

bool CDir::__Next(CDirHandle& handle, stringEx& name, bool includeHidden, bool includeDots, bool files) const
{
    const stringEx base = _path.empty() ? GetPwd() : _path;
    if (!handle._dir) {
        DIR* dir = opendir(base.c_str());
        if (!dir)
            return false;  // an unreadable directory is just empty
        handle._dir.reset(dir, [](DIR* d) { closedir(d); });
    }
    for (;;) {
        errno = 0;
        const dirent* entry = readdir(handle._dir.get());
        if (!entry) {
            const int error = errno;
            handle.Reset();
            if (error)
                Throw<dirExp>(ExpMessage("CDir::NextFile - failed read directory entry\n")
                                  .Detail("dir path", base)
                                  .Errno(error,
                                         {{EBADF, "the argument does not refer to an open directory stream"},
                                          {ENOENT, "the current position of the directory stream is invalid"},
                                          {EOVERFLOW, "one of the values in the structure to be returned cannot be "
                                                      "represented correctly"}}),
                              19);
            return false;
        }
        // Every entry is stat'ed before any filter, hidden ones included.
        const stringEx full = base + stringEx(entry->d_name);
        struct stat status;
        PosixStat(full, status);
        if (S_ISDIR(status.st_mode) == files)
            continue;
        if (entry->d_name[0] == '.' && !(IsDotName(entry->d_name) ? includeDots : includeHidden))
            continue;
        name = full;
        return true;
    }
}

uint32_t CDir::GetAllFiles(StringVector& result, const stringEx& pattern, bool recursive, bool includeHidden,
                           uint32_t reserved) const
{
    return __Search(result, pattern, recursive, includeHidden, false, true, reserved);
}

uint32_t CDir::GetAllSubDirs(StringVector& result, const stringEx& pattern, bool recursive, bool includeHidden,
                             bool includeDots, uint32_t reserved) const
{
    return __Search(result, pattern, recursive, includeHidden, includeDots, false, reserved);
}

uint32_t CDir::__Search(StringVector& result, const stringEx& givenPattern, bool recursive, bool includeHidden,
                        bool includeDots, bool files, uint32_t reserved) const
{
    const stringEx base = _path.empty() ? GetPwd() : _path;
    try {
        const stringEx pattern = givenPattern.empty() ? stringEx("*") : givenPattern;
        const stringEx dirPart = GetPathDir(pattern);
        if (dirPart != stringEx("./")) {
            const CDir there(dirPart[0] == '/' ? dirPart : base + dirPart);
            return there.__Search(result, GetPathFilename(pattern), recursive, includeHidden, includeDots, files,
                                  reserved);
        }
        if (files) {
            StringVector dirs{WithoutSlash(base)};
            if (recursive)
                GetAllSubDirs(dirs, "*", true, includeHidden, false, reserved);
            for (const stringEx& path : dirs) {
                const CDir dir(path, false, true);
                CDirHandle handle;
                stringEx name;
                while (dir.NextFile(handle, name, includeHidden))
                    if (WildcardMatch(GetPathFilename(name), pattern))
                        result.push_back(name);
            }
        } else {
            CDirHandle handle;
            stringEx name;
            StringVector entries;
            while (NextSubDir(handle, name, includeHidden, includeDots)) {
                if (WildcardMatch(GetPathFilename(name), pattern))
                    result.push_back(name);
                entries.push_back(name);
            }
            if (recursive)
                for (const stringEx& entry : entries) {
                    if (entry.EndsWith("/.") || entry.EndsWith("/.."))
                        continue;
                    CDir(entry, false, true)
                        .__Search(result, pattern, true, includeHidden, includeDots, false, reserved);
                }
        }
    } catch (const karuExp& e) {
        Throw<dirExp>(ExpMessage(files ? "CDir::GetAllFiles - failed find files\n"
                                       : "CDir::GetAllSubDirs - failed find subdirs\n")
                          .Text(stringEx("  base dir = ") + base + "\n")
                          .Cause(e),
                      files ? 19 : 20);
    }
    return static_cast<uint32_t>(result.size());
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

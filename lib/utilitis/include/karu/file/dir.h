// CDir: one directory, held as an absolute path ending in "/", and the
// library's path toolbox: normalisation, file search by wildcard, whole-file
// read and write, and directory operations.
//
// Path work is pure text (no symbolic link is resolved), apart from the
// current directory. Searches stat every entry, following links; a dangling
// link ends a search with its message, while a directory that cannot be
// opened simply yields nothing.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <vector>

#include <karu/string/karuExp.h>

namespace Karu {

using StringVector = std::vector<stringEx>;

// stat() with the library's messages; follows links.
void PosixStat(const stringEx& path, struct stat& status);

// A shared directory stream; the last owner closes it.
class CDirHandle {
public:
    bool IsOpen() const noexcept { return static_cast<bool>(_dir); }
    void Reset() { _dir.reset(); }

private:
    friend class CDir;
    std::shared_ptr<DIR> _dir;
};

class CDir {
public:
    CDir() = default;
    explicit CDir(const stringEx& path, bool create = false, bool noCheck = false) { Open(path, create, noCheck); }

    const stringEx& Path() const noexcept { return _path; }

    // ---- paths ------------------------------------------------------------------
    void Open(const stringEx& path, bool create = false, bool noCheck = false);
    // Absolute and clean, in place: "//" and trailing "/." collapse, "." and
    // ".." are resolved textually, "~/" is HOME; a trailing "/" is kept.
    static void ConvToFullPath(stringEx& path);
    static void NormalizePath(stringEx& path);
    static stringEx GetPathDir(const stringEx& path);       // with trailing "/", "./" if none
    static stringEx GetPathFilename(const stringEx& path);  // the last component
    static stringEx GetPwd();                                // with trailing "/"
    static bool IsDir(const stringEx& path) noexcept;
    static bool Exists(const stringEx& path) noexcept;
    // "?" one character, "*" any run, case-sensitive; no name matches "".
    static bool WildcardMatch(const stringEx& name, const stringEx& pattern) noexcept;

    // ---- search -----------------------------------------------------------------
    uint32_t GetAllFiles(StringVector& result, const stringEx& pattern, bool recursive = false,
                         bool includeHidden = false, uint32_t reserved = 0) const;
    uint32_t GetAllSubDirs(StringVector& result, const stringEx& pattern, bool recursive = false,
                           bool includeHidden = false, bool includeDots = false, uint32_t reserved = 0) const;
    bool NextFile(CDirHandle& handle, stringEx& name, bool includeHidden) const;
    bool NextSubDir(CDirHandle& handle, stringEx& name, bool includeHidden, bool includeDots) const;

    // ---- whole files ------------------------------------------------------------------
    // Rewrites in place under an exclusive lock: no temporary file, so owner,
    // mode and hard links stay; truncation happens only once the lock is held.
    static void WriteFile(const stringEx& path, const byteEx& data, bool flush = false, bool append = false);
    static void WriteFile(const stringEx& path, const stringEx& data, bool flush = false, bool append = false);
    static void WriteFile(const stringEx& path, const wstringEx& data, bool flush = false, bool append = false);
    static void ReadFile(const stringEx& path, byteEx& data);
    static void ReadFile(const stringEx& path, stringEx& data);
    static void ReadFile(const stringEx& path, wstringEx& data);
    // The same with a name relative to this directory.
    void WriteFileIn(const stringEx& name, const byteEx& data, bool flush = false, bool append = false) const;
    void ReadFileIn(const stringEx& name, byteEx& data) const;

    // ---- directories ------------------------------------------------------------------
    static void MakeDir(const stringEx& path, bool recursive = false);

private:
    stringEx __Resolve(const stringEx& name) const;
    bool __Next(CDirHandle& handle, stringEx& name, bool includeHidden, bool includeDots, bool files) const;
    uint32_t __Search(StringVector& result, const stringEx& pattern, bool recursive, bool includeHidden,
                      bool includeDots, bool files, uint32_t reserved) const;

    stringEx _path;
};

}  // namespace Karu

// CDir: one directory, held as an absolute path ending in "/", and the
// library's path toolbox: normalisation, file search by wildcard or regular
// expression, whole-file read and write, and directory operations.
//
// Path work is pure text (no symbolic link is resolved), apart from the
// current directory. Searches follow links and enter every directory once,
// however many links lead to it. An entry that cannot be followed (a dangling
// link, a link loop) ends a search with its message, and a directory that
// cannot be opened simply yields nothing, unless the caller passes a handler
// that is told of each such entry and decides whether the search goes on.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include <karu/string/karuExp.h>

namespace Karu {

class RegexHandle;

using StringVector = std::vector<stringEx>;
using WStringVector = std::vector<wstringEx>;

// stat() with the library's messages; follows links.
void PosixStat(const stringEx& path, struct stat& status);

// A shared directory stream; the last owner closes it. A close that fails
// raises, as the close of a file does, but never while another exception
// is passing.
class CDirHandle {
public:
    CDirHandle() noexcept = default;
    CDirHandle(const CDirHandle& other) noexcept;
    CDirHandle& operator=(const CDirHandle& other);
    ~CDirHandle() noexcept(false);

    bool IsOpen() const noexcept { return _dir != nullptr; }
    void Reset();

private:
    friend class CDir;
    void __Adopt(DIR* dir);

    DIR* _dir = nullptr;
    std::atomic<int64_t>* _count = nullptr;  // shared by the copies; null when closed
};

// What statvfs tells about the file system that holds a path, in bytes.
struct SPACE_INFO {
    uint64_t totalBytes = 0;
    uint64_t freeBytes = 0;       // including what only the super-user may use
    uint64_t availableBytes = 0;  // what an ordinary process may still write
    uint64_t totalFiles = 0;
    uint64_t freeFiles = 0;
    uint64_t blockSize = 0;
};

// One line of the mount table.
struct STORAGE_INFO {
    stringEx device;
    stringEx mountPoint;
    stringEx fileSystem;
    stringEx options;
};

class CSysFile;

// Writes the new content of a file into the file it is given: open for
// reading and writing, empty, at its start.
using TransactionWriter = std::function<void(CSysFile& file)>;
// Whether the content of a file, read from its start, is whole: how the
// owner of a transaction file tells a finished write from a broken one.
using TransactionJudge = std::function<bool(CSysFile& file)>;

// Told of an entry that a search cannot follow: a dangling link, a link loop,
// a directory that cannot be read. True skips the entry and goes on; false
// ends the search with the problem, wrapped as without a handler.
using SearchProblemHandler = std::function<bool(const stringEx& path, const karuExp& problem)>;
using WSearchProblemHandler = std::function<bool(const wstringEx& path, const karuExp& problem)>;

class CDir {
public:
    CDir() = default;
    explicit CDir(const stringEx& path, bool create = false, bool noCheck = false) { Open(path, create, noCheck); }
    explicit CDir(const wstringEx& path, bool create = false, bool noCheck = false) { Open(path, create, noCheck); }

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
    // A pattern's directory part ("sub/", "./", "../x/") moves the search
    // there; its last component is the wildcard. Results are full paths,
    // appended; the count is the vector's size.
    uint32_t GetAllFiles(StringVector& result, const stringEx& pattern, bool recursive = false,
                         bool includeHidden = false, uint32_t reserved = 0,
                         const SearchProblemHandler& onProblem = {}) const;
    uint32_t GetAllSubDirs(StringVector& result, const stringEx& pattern, bool recursive = false,
                           bool includeHidden = false, bool includeDots = false, uint32_t reserved = 0,
                           const SearchProblemHandler& onProblem = {}) const;
    // The last component of each name tested with a regular expression, from
    // this directory down; each directory's matches come before those of its
    // subdirectories. The text form compiles `expression` (extended syntax).
    uint32_t GetAllFilesRegEx(StringVector& result, const stringEx& expression, bool recursive = false,
                              bool includeHidden = false, const SearchProblemHandler& onProblem = {}) const;
    uint32_t GetAllFilesRegEx(StringVector& result, const RegexHandle& expression, bool recursive = false,
                              bool includeHidden = false, const SearchProblemHandler& onProblem = {}) const;
    bool NextFile(CDirHandle& handle, stringEx& name, bool includeHidden) const;
    bool NextSubDir(CDirHandle& handle, stringEx& name, bool includeHidden, bool includeDots) const;

    // ---- wide names -------------------------------------------------------------
    // The same operations on wide names: a name goes to the system's narrow
    // encoding on the way in and comes back through it on the way out, so a
    // wide caller sees exactly what a narrow one would.
    void Open(const wstringEx& path, bool create = false, bool noCheck = false);
    static void ConvToFullPath(wstringEx& path);
    static wstringEx GetPathDir(const wstringEx& path);
    static wstringEx GetPathFilename(const wstringEx& path);
    uint32_t GetAllFiles(WStringVector& result, const wstringEx& pattern, bool recursive = false,
                         bool includeHidden = false, uint32_t reserved = 0,
                         const WSearchProblemHandler& onProblem = {}) const;
    uint32_t GetAllSubDirs(WStringVector& result, const wstringEx& pattern, bool recursive = false,
                           bool includeHidden = false, bool includeDots = false, uint32_t reserved = 0,
                           const WSearchProblemHandler& onProblem = {}) const;
    uint32_t GetAllFilesRegEx(WStringVector& result, const wstringEx& expression, bool recursive = false,
                              bool includeHidden = false, const WSearchProblemHandler& onProblem = {}) const;
    bool NextFile(CDirHandle& handle, wstringEx& name, bool includeHidden) const;
    bool NextSubDir(CDirHandle& handle, wstringEx& name, bool includeHidden, bool includeDots) const;

    // ---- whole files ------------------------------------------------------------------
    // Rewrites in place under an exclusive lock: no temporary file, so owner,
    // mode and hard links stay; truncation happens only once the lock is held.
    static void WriteFile(const stringEx& path, const byteEx& data, bool flush = false, bool append = false);
    static void WriteFile(const stringEx& path, const stringEx& data, bool flush = false, bool append = false);
    static void WriteFile(const stringEx& path, const wstringEx& data, bool flush = false, bool append = false);
    static void ReadFile(const stringEx& path, byteEx& data);
    static void ReadFile(const stringEx& path, stringEx& data);
    static void ReadFile(const stringEx& path, wstringEx& data);
    // The same with a name relative to this directory. A member may not share
    // the name and the arguments of a static function, hence "In".
    void WriteFileIn(const stringEx& name, const byteEx& data, bool flush = false, bool append = false) const;
    void WriteFileIn(const stringEx& name, const stringEx& data, bool flush = false, bool append = false) const;
    void WriteFileIn(const stringEx& name, const wstringEx& data, bool flush = false, bool append = false) const;
    void ReadFileIn(const stringEx& name, byteEx& data) const;
    void ReadFileIn(const stringEx& name, stringEx& data) const;
    void ReadFileIn(const stringEx& name, wstringEx& data) const;

    // ---- directories ------------------------------------------------------------------
    static void MakeDir(const stringEx& path, bool recursive = false);

    // ---- directory and file operations ------------------------------------------------
    // Symbolic links inside a tree are removed, moved and copied as links;
    // they are never followed into their targets.
    static void RemoveDir(const stringEx& path, bool removeSubDirs = false, bool removeSubFiles = false);
    // With force, a file the system refuses is made writable and tried again.
    static void RemoveFile(const stringEx& path, bool force = false);
    // A hard link and an unlink; a copy and an unlink where no link can be made.
    static void TransferFile(const stringEx& source, const stringEx& target, bool overwrite = false,
                             bool force = false);
    // Copies through CSysFile and flushes; `keepMode` gives the copy the
    // source's permission bits.
    static void DuplicateFile(const stringEx& source, const stringEx& target, bool overwrite = false,
                              bool keepMode = false);
    static void TransferDir(const stringEx& source, const stringEx& target);
    static void DuplicateDir(const stringEx& source, const stringEx& target, bool overwrite = false);
    // Without arguments and work folder a symbolic link; with them a shell
    // script at `newPath` that changes to the folder and runs `oldPath`.
    static void MakeSymbolicLink(const stringEx& oldPath, const stringEx& newPath,
                                 const stringEx& arguments = stringEx(), const stringEx& workFolder = stringEx());
    static void MakeHardLink(const stringEx& oldPath, const stringEx& newPath);
    static uint32_t GetAttributes(const stringEx& path);  // the permission and mode bits
    static void SetAttributes(const stringEx& path, uint32_t mode);
    // A name "ka<time in radix>.tmp" in this directory that does not exist yet.
    stringEx GenTempFileName(uint32_t radix = 36) const;
    // TMPDIR, or "/tmp/", with a trailing "/".
    static stringEx GetTempDir();
    // The full path of a program: a name with a directory part as it stands,
    // otherwise the first directory of PATH that holds it.
    static stringEx FindInPath(const stringEx& name);
    static void GetSpaceInfo(const stringEx& path, SPACE_INFO& info);
    // Appends the mounted file systems; returns the size of `result`.
    static uint32_t GetStorageTopology(std::vector<STORAGE_INFO>& result);

    // ---- backups and the transaction write -------------------------------------------
    // Copies `path` to <name>@<stamp>.<ext> in this directory and keeps the
    // newest `keepCount` copies; failures while pruning go to the log only.
    void Backup(const stringEx& path, uint32_t keepCount, bool overwriteMode = false) const;
    // Moves the newest backup copy back over `path`; false when none could be.
    bool Restore(const stringEx& path) const;
    // Where the transaction write parks the old content: the path and ".trs".
    static stringEx TransactionFileName(const stringEx& path);
    // Replaces a file's content in place (owner, mode, links stay) so that
    // the old content survives in the transaction file until the new one is
    // whole, holding the file exclusively meanwhile; see transaction.cpp.
    // `isWhole`, when given, settles a transaction file that a dead writer
    // left; without it such a file is taken as the last whole version.
    static void TransactionWrite(const stringEx& path, const TransactionWriter& writer,
                                 const TransactionJudge& isWhole = TransactionJudge());
    // The file opened for reading as one whole version, held shared until
    // the last copy of the result closes it: waits for a live transaction
    // write, and settles one that a dead writer left (by `isWhole`). A
    // closed file when neither the file nor a transaction file exists.
    static CSysFile TransactionRead(const stringEx& path, const TransactionJudge& isWhole);

protected:
    // The directory twin of GetAllFilesRegEx, with "." and ".." listed (never
    // entered) when `includeDots` is set.
    uint32_t _GetAllSubDirsRegEx(StringVector& result, const stringEx& expression, bool recursive = false,
                                 bool includeHidden = false, bool includeDots = false,
                                 const SearchProblemHandler& onProblem = {}) const;
    uint32_t _GetAllSubDirsRegEx(StringVector& result, const RegexHandle& expression, bool recursive = false,
                                 bool includeHidden = false, bool includeDots = false,
                                 const SearchProblemHandler& onProblem = {}) const;
    uint32_t _GetAllSubDirsRegEx(WStringVector& result, const wstringEx& expression, bool recursive = false,
                                 bool includeHidden = false, bool includeDots = false,
                                 const WSearchProblemHandler& onProblem = {}) const;

private:
    stringEx __Resolve(const stringEx& name) const;
    bool __Next(CDirHandle& handle, stringEx& name, bool includeHidden, bool includeDots, bool files) const;
    // The wildcard searches: files, or with `files` clear directories.
    uint32_t __Search(StringVector& result, const stringEx& pattern, bool recursive, bool includeHidden,
                      bool includeDots, bool files, uint32_t reserved, const SearchProblemHandler& onProblem) const;

    stringEx _path;
};

namespace IMPL {
// The failure of stat() on `path` with the library's message.
[[noreturn]] void ThrowStatFailure(const stringEx& path, int error);

// Test seam: when set, called at each step boundary of the transaction write
// and of a file transfer, so that a test can stop a process at each of them.
using FileStepHook = void (*)(const char* step);
void SetFileStepHook(FileStepHook hook) noexcept;
void FileStep(const char* step);
// Test seam: the mount tables GetStorageTopology reads; the mount program
// is asked between the second and the third.
void SetMountTables(const char* mtab, const char* mnttab, const char* live) noexcept;
}  // namespace IMPL

}  // namespace Karu

// The file and directory search: a wildcard or a regular expression tested
// on the last component of each name, in one directory or down a tree.
//
// The walk works on directory descriptors. Each directory is opened relative
// to its parent (openat) and a link's status is taken relative to its
// directory (fstatat), so that an entry costs the same at any depth: with
// full paths the kernel would walk every component again for each entry,
// and a deep tree would cost quadratic time. readdir's entry type spares the
// stat of most entries; links and entries of unknown type are stat'ed, and
// the link followed, so that a link to a file is a file and a link to a
// directory is a directory.
//
// Every directory is entered once, known by its device and inode: a link
// that leads back up the tree, or to a directory already searched, adds
// nothing. So the walk ends on any tree, and no file is listed twice through
// a link.
//
// One descriptor is held for each directory on the way down, so that going on
// with a parent's next child needs no path. A process that runs out of
// descriptors gives up the shallowest ones, and reopens them by path when
// the walk comes back up to them.
//
// Two orders. The wildcard file search lists the files of the starting
// directory, then those of each directory below in the order in which the
// directory search lists them: that search appends all of a directory's
// subdirectories before it enters the first, so the files of a directory's
// children are listed before those of any grandchild. The regular-expression
// searches append each directory's own matches and then enter its
// subdirectories in turn.
#include <karu/file/dir.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <type_traits>
#include <unordered_set>

#include <karu/regex/regexFront.h>

namespace Karu {
namespace {

bool IsDotName(const char* name) noexcept
{
    return name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0));
}

[[noreturn]] void ThrowOpenFailure(const stringEx& path, int error)
{
    Throw<dirExp>(ExpMessage("CDir::NextFile - failed open directory\n")
                      .Detail("dir path", path)
                      .Errno(error, {{EACCES, "permission denied"},
                                     {ENOENT, "directory does not exist"},
                                     {ENOTDIR, "the path is not a directory"}}),
                  3);
}

[[noreturn]] void ThrowReadFailure(const stringEx& path, int error)
{
    Throw<dirExp>(ExpMessage("CDir::NextFile - failed read directory entry\n")
                      .Detail("dir path", path)
                      .Errno(error, {{EBADF, "the argument does not refer to an open directory stream"},
                                     {ENOENT, "the current position of the directory stream is invalid"},
                                     {EOVERFLOW, "one of the values in the structure to be returned cannot be "
                                                 "represented correctly"}}),
                  19);
}

// A directory the walk has listed and may still enter: its name, and the
// subdirectories found in it once it has been read.
struct SUB_DIR {
    stringEx name;
    std::vector<SUB_DIR> children;
};

// A directory on the way down, with the subdirectories still to enter.
struct FRAME {
    stringEx path;  // full, with a trailing "/"
    int fd = -1;    // -1: given up, reopened by path when needed
    std::vector<SUB_DIR> subDirs;
    size_t next = 0;
};

struct DirId {
    dev_t device;
    ino_t inode;
    bool operator==(const DirId&) const = default;
};
struct DirIdHash {
    size_t operator()(const DirId& id) const noexcept
    {
        return std::hash<uint64_t>()(static_cast<uint64_t>(id.inode) * 0x9E3779B97F4A7C15u ^
                                     static_cast<uint64_t>(id.device));
    }
};

// One search: what it looks for, where the matches go, and the state of the
// walk. `Test` tells whether a last component matches.
template <class Test>
class CTreeWalk {
public:
    CTreeWalk(StringVector& result, const Test& test, bool files, bool includeHidden, bool includeDots,
              const SearchProblemHandler& onProblem)
        : _result(result), _test(test), _files(files), _includeHidden(includeHidden), _includeDots(includeDots),
          _onProblem(onProblem)
    {
    }
    ~CTreeWalk()
    {
        for (FRAME& frame : _frames)
            if (frame.fd >= 0)
                close(frame.fd);
    }
    CTreeWalk(const CTreeWalk&) = delete;
    CTreeWalk& operator=(const CTreeWalk&) = delete;

    // `childrenFirst`: the order of the wildcard file search (see the head).
    void Run(const stringEx& base, bool recursive, bool childrenFirst)
    {
        const int fd = OpenDir(AT_FDCWD, base, base);
        if (fd < 0)
            return;
        FRAME root;
        root.path = base;
        root.fd = fd;
        if (!List(root.fd, base, recursive ? &root.subDirs : nullptr))
            return;
        _frames.push_back(std::move(root));
        if (!recursive) {
            Pop();
            return;
        }
        if (childrenFirst)
            ListChildren(_frames.back());
        while (!_frames.empty()) {
            FRAME& top = _frames.back();
            if (top.next == top.subDirs.size()) {
                Pop();
                continue;
            }
            SUB_DIR& sub = top.subDirs[top.next++];
            const stringEx path = top.path + sub.name + "/";
            const int parent = FrameFd(_frames.size() - 1);
            const int child = parent < 0 ? -1 : OpenDir(parent, sub.name, path);
            if (child < 0)
                continue;
            FRAME frame;
            frame.path = path;
            frame.fd = child;
            if (childrenFirst) {
                // Listed already, while its parent's children were.
                frame.subDirs = std::move(sub.children);
                _frames.push_back(std::move(frame));
                ListChildren(_frames.back());
            } else {
                if (!List(frame.fd, path, &frame.subDirs)) {
                    close(frame.fd);
                    continue;
                }
                _frames.push_back(std::move(frame));
            }
        }
    }

private:
    // Called inside the handler of the problem: tells the caller's handler,
    // and raises the problem again when there is none or it says stop.
    // `quietWithout`: without a handler the entry is skipped silently.
    void Problem(const stringEx& path, const karuExp& problem, bool quietWithout)
    {
        if (!_onProblem) {
            if (quietWithout)
                return;
            throw;
        }
        if (!_onProblem(path, problem))
            throw;
    }

    // Lists each subdirectory of `frame` (the files of the children before any
    // grandchild), keeping what is found in them for when they are entered.
    void ListChildren(FRAME& frame)
    {
        for (SUB_DIR& sub : frame.subDirs) {
            const stringEx path = frame.path + sub.name + "/";
            const int fd = OpenDir(frame.fd, sub.name, path);
            if (fd < 0)
                continue;
            List(fd, path, &sub.children);
            close(fd);
        }
    }

    // Opens a directory relative to `at` (AT_FDCWD: `name` is the path).
    // -1 when it cannot be opened and the search goes on without it.
    int OpenDir(int at, const stringEx& name, const stringEx& path)
    {
        for (;;) {
            const int fd = openat(at, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            if (fd >= 0)
                return fd;
            const int error = errno;
            if (error == EINTR)
                continue;
            if ((error == EMFILE || error == ENFILE) && GiveUpDescriptor())
                continue;
            try {
                ThrowOpenFailure(path, error);
            } catch (const karuExp& e) {
                // An unreadable directory is just empty to a caller without a handler.
                Problem(path, e, true);
            }
            return -1;
        }
    }

    // Closes the shallowest held descriptor but the innermost one; false if
    // there is none to give.
    bool GiveUpDescriptor() noexcept
    {
        for (size_t i = 0; i + 1 < _frames.size(); ++i)
            if (_frames[i].fd >= 0) {
                close(_frames[i].fd);
                _frames[i].fd = -1;
                return true;
            }
        return false;
    }

    int FrameFd(size_t index)
    {
        FRAME& frame = _frames[index];
        if (frame.fd < 0)
            frame.fd = OpenDir(AT_FDCWD, frame.path, frame.path);
        return frame.fd;
    }

    void Pop()
    {
        if (_frames.back().fd >= 0)
            close(_frames.back().fd);
        _frames.pop_back();
    }

    // Reads the directory open at `fd`, appends its matches, and collects its
    // subdirectories into `subDirs` when given. False when the directory was
    // entered before, by another way.
    bool List(int fd, const stringEx& path, std::vector<SUB_DIR>* subDirs)
    {
        struct stat status;
        if (fstat(fd, &status) == 0 && !_visited.insert(DirId{status.st_dev, status.st_ino}).second)
            return false;
        int own;
        while ((own = dup(fd)) < 0 && (errno == EMFILE || errno == ENFILE) && GiveUpDescriptor()) {
        }
        DIR* stream = own < 0 ? nullptr : fdopendir(own);
        if (!stream) {
            if (own >= 0)
                close(own);
            try {
                ThrowOpenFailure(path, errno);
            } catch (const karuExp& e) {
                Problem(path, e, true);
            }
            return true;
        }
        const std::unique_ptr<DIR, int (*)(DIR*)> closer(stream, closedir);
        for (;;) {
            errno = 0;
            const dirent* entry = readdir(stream);
            if (!entry) {
                if (errno) {
                    const int error = errno;
                    try {
                        ThrowReadFailure(path, error);
                    } catch (const karuExp& e) {
                        Problem(path, e, false);
                    }
                }
                return true;
            }
            // Through a pointer: the name's array would be taken as a literal
            // and held as a view of an entry the next readdir overwrites.
            const stringEx component(static_cast<const char*>(entry->d_name));
            const bool dots = IsDotName(entry->d_name);
            const bool leftOut = component[0] == '.' && !(dots ? _includeDots && !_files : _includeHidden);
            bool isDir = entry->d_type == DT_DIR;
            if (entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN) {
                // A link is what it leads to. Without a handler a broken one
                // ends the search whatever its name; a caller with a handler
                // is told only of entries that could matter: not of a name
                // left out, nor, where the search does not go down, of a
                // name that does not match.
                if (_onProblem && (leftOut || (!subDirs && !_test(component))))
                    continue;
                if (fstatat(fd, entry->d_name, &status, 0) != 0) {
                    const stringEx full = path + component;
                    const int error = errno;
                    try {
                        IMPL::ThrowStatFailure(full, error);
                    } catch (const karuExp& e) {
                        Problem(full, e, false);
                    }
                    continue;
                }
                isDir = S_ISDIR(status.st_mode);
            }
            if (leftOut)
                continue;
            if (isDir && subDirs && !dots)
                subDirs->push_back(SUB_DIR{component, {}});
            if (isDir == _files)
                continue;
            if (_test(component))
                _result.push_back(path + component);
        }
    }

    StringVector& _result;
    const Test& _test;
    const bool _files, _includeHidden, _includeDots;
    const SearchProblemHandler& _onProblem;
    std::vector<FRAME> _frames;
    std::unordered_set<DirId, DirIdHash> _visited;
};

// Where a search starts: this object's directory, or the current one.
stringEx SearchBase(const stringEx& path)
{
    return path.empty() ? CDir::GetPwd() : path;
}

RegexHandle CompileNameExpression(const stringEx& expression, const char* function)
{
    if (expression.empty())
        Throw<dirExp>(ExpMessage(stringEx(function) + " - nothing to find"), 2);
    stringEx pattern = expression;
    RegexHandle handle = RegexCompile(pattern, 0, 0, static_cast<uint8_t>(kRegexExtended), 1);
    if (!handle)
        Throw<dirExp>(ExpMessage(stringEx(function) + " - invalid regex handle"), 2);
    return handle;
}

}  // namespace

void PosixStat(const stringEx& path, struct stat& status)
{
    if (stat(path.c_str(), &status) != 0)
        IMPL::ThrowStatFailure(path, errno);
}

void IMPL::ThrowStatFailure(const stringEx& path, int error)
{
    Throw<dirExp>(ExpMessage("PosixStat - failed retrive the status of giving path\n")
                      .Detail("path", path)
                      .Errno(error, {{ENOENT, "path does not exists"},
                                     {EACCES, "search permission is denied for a component of the path prefix"},
                                     {EOVERFLOW, "file size out-of-range"},
                                     {ENAMETOOLONG, "path name is too long"},
                                     {ENOTDIR, "a component of the path prefix is not a directory"},
                                     {ELOOP, "a loop exists in symbolic links, or too many links levels"},
                                     {EIO, "an error occurred while reading from the file system"}}),
                  4);
}

bool CDir::WildcardMatch(const stringEx& name, const stringEx& pattern) noexcept
{
    if (name.empty())
        return false;
    // A star in the pattern is a star whatever the name holds at that point:
    // it is tested before a literal comparison, which would take it as a
    // character matching a "*" in the name.
    uint64_t n = 0, p = 0, star = stringEx::npos, mark = 0;
    while (n < name.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            mark = n;
        } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n])) {
            ++n;
            ++p;
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

// ---- one directory at a time ------------------------------------------------------------

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
    const stringEx base = SearchBase(_path);
    if (!handle._dir) {
        DIR* dir = opendir(base.c_str());
        if (!dir)
            return false;  // an unreadable directory is just empty
        handle.__Adopt(dir);
    }
    for (;;) {
        errno = 0;
        const dirent* entry = readdir(handle._dir);
        if (!entry) {
            const int error = errno;
            handle.Reset();
            if (error)
                ThrowReadFailure(base, error);
            return false;
        }
        // Every entry is stat'ed before any filter, hidden ones included.
        const stringEx full = base + stringEx(static_cast<const char*>(entry->d_name));
        struct stat status;
        if (fstatat(dirfd(handle._dir), entry->d_name, &status, 0) != 0)
            IMPL::ThrowStatFailure(full, errno);
        if (S_ISDIR(status.st_mode) == files)
            continue;
        if (entry->d_name[0] == '.' && !(IsDotName(entry->d_name) ? includeDots : includeHidden))
            continue;
        name = full;
        return true;
    }
}

// ---- searches ------------------------------------------------------------------------------

uint32_t CDir::GetAllFiles(StringVector& result, const stringEx& pattern, bool recursive, bool includeHidden,
                           uint32_t reserved, const SearchProblemHandler& onProblem) const
{
    return __Search(result, pattern, recursive, includeHidden, false, true, reserved, onProblem);
}

uint32_t CDir::GetAllSubDirs(StringVector& result, const stringEx& pattern, bool recursive, bool includeHidden,
                             bool includeDots, uint32_t reserved, const SearchProblemHandler& onProblem) const
{
    return __Search(result, pattern, recursive, includeHidden, includeDots, false, reserved, onProblem);
}

uint32_t CDir::__Search(StringVector& result, const stringEx& pattern, bool recursive, bool includeHidden,
                        bool includeDots, bool files, uint32_t reserved, const SearchProblemHandler& onProblem) const
{
    const stringEx base = SearchBase(_path);
    try {
        const stringEx wildcard = pattern.empty() ? stringEx("*") : pattern;
        if (wildcard.Find('/') != stringEx::npos) {
            // "./" and "../" are directory parts like any other.
            const stringEx dirPart = GetPathDir(wildcard);
            const CDir there(dirPart[0] == '/' ? dirPart : base + dirPart);
            return there.__Search(result, GetPathFilename(wildcard), recursive, includeHidden, includeDots, files,
                                  reserved, onProblem);
        }
        const auto test = [&wildcard](const stringEx& name) { return WildcardMatch(name, wildcard); };
        CTreeWalk<decltype(test)>(result, test, files, includeHidden, includeDots, onProblem)
            .Run(base, recursive, files);
    } catch (const karuExp& e) {
        Throw<dirExp>(ExpMessage(files ? "CDir::GetAllFiles - failed find files\n"
                                       : "CDir::GetAllSubDirs - failed find subdirs\n")
                          .Text(stringEx("  base dir = ") + base + "\n")
                          .Cause(e),
                      files ? 19 : 20);
    }
    return static_cast<uint32_t>(result.size());
}

namespace {

template <class Walk>
uint32_t RegexSearch(StringVector& result, const RegexHandle& expression, const char* function,
                     const char* failure, int32_t code, const stringEx& base, Walk walk)
{
    if (!expression || expression.UnitSize() != 1)
        Throw<dirExp>(ExpMessage(stringEx(function) + " - invalid regex handle"), 2);
    try {
        const auto test = [&expression](const stringEx& name) { return RegexTest(name, expression, false, false); };
        walk(test);
    } catch (const karuExp& e) {
        Throw<dirExp>(ExpMessage(stringEx(function) + failure).Text(stringEx("  base dir = ") + base + "\n").Cause(e),
                      code);
    }
    return static_cast<uint32_t>(result.size());
}

}  // namespace

uint32_t CDir::GetAllFilesRegEx(StringVector& result, const RegexHandle& expression, bool recursive,
                                bool includeHidden, const SearchProblemHandler& onProblem) const
{
    const stringEx base = SearchBase(_path);
    return RegexSearch(result, expression, "CDir::GetAllFilesRegEx", " - failed find files\n", 19, base,
                       [&](const auto& test) {
                           CTreeWalk<std::decay_t<decltype(test)>>(result, test, true, includeHidden, false,
                                                                   onProblem)
                               .Run(base, recursive, false);
                       });
}

uint32_t CDir::GetAllFilesRegEx(StringVector& result, const stringEx& expression, bool recursive,
                                bool includeHidden, const SearchProblemHandler& onProblem) const
{
    return GetAllFilesRegEx(result, CompileNameExpression(expression, "CDir::GetAllFilesRegEx"), recursive,
                            includeHidden, onProblem);
}

uint32_t CDir::_GetAllSubDirsRegEx(StringVector& result, const RegexHandle& expression, bool recursive,
                                   bool includeHidden, bool includeDots,
                                   const SearchProblemHandler& onProblem) const
{
    const stringEx base = SearchBase(_path);
    return RegexSearch(result, expression, "CDir::_GetAllSubDirsRegEx", " - failed find subdirs\n", 20, base,
                       [&](const auto& test) {
                           CTreeWalk<std::decay_t<decltype(test)>>(result, test, false, includeHidden,
                                                                   includeDots, onProblem)
                               .Run(base, recursive, false);
                       });
}

uint32_t CDir::_GetAllSubDirsRegEx(StringVector& result, const stringEx& expression, bool recursive,
                                   bool includeHidden, bool includeDots,
                                   const SearchProblemHandler& onProblem) const
{
    return _GetAllSubDirsRegEx(result, CompileNameExpression(expression, "CDir::_GetAllSubDirsRegEx"), recursive,
                               includeHidden, includeDots, onProblem);
}

}  // namespace Karu

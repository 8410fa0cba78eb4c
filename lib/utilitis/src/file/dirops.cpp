// CDir: removing, moving, copying and linking files and trees, attributes,
// temporary names, the PATH search and file-system information.
//
// The search of dir.cpp stats through links, which is right for finding
// files and wrong for changing trees: a removal that followed a link to a
// directory would empty the link's target. So every tree operation here
// walks with lstat and treats a link as the link itself.
//
// A move is a hard link and an unlink, so a reader of the target sees the
// whole file or none; only where no link can be made (another device, a file
// system without links) is it a copy and an unlink.
#include <karu/file/dir.h>

#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <karu/file/sysfile.h>
#include <karu/process/pipe.h>
#include <karu/process/process.h>
#include <karu/time/time.h>

namespace Karu {
namespace {

// Copies move through a block of this size: large enough that the system
// calls do not dominate, small enough for any stack of callers.
constexpr uint64_t kCopyBlock = 64 * 1024;

// The authors of these messages align their fields to this width, wider
// than the longest label, and the messages keep it.
constexpr size_t kOpFieldWidth = 17;
constexpr size_t kLinkFieldWidth = 12;

stringEx Field(const char* label, size_t width, const stringEx& value)
{
    stringEx line("  ");
    line += stringEx(label);
    line.append(width - std::strlen(label), ' ');
    line.append(" = ", 3);
    line += value;
    line += '\n';
    return line;
}

stringEx ErrnoFields(int error, size_t width, ErrnoTable table)
{
    return Field("error code", width, stringEx::Format("%d", error)) +
           Field("error desc", width, ErrnoDescription(error, table));
}

const char* Bool(bool value)
{
    return value ? "true" : "false";
}

stringEx Full(const stringEx& path)
{
    stringEx full = path;
    CDir::ConvToFullPath(full);
    if (full.size() > 1 && full[full.size() - 1] == '/')
        full.resize(full.size() - 1);
    return full;
}

const ErrnoTable kUnlinkErrors = {
    {EACCES, "permission denied"},
    {EPERM, "the file can not be removed by this process, or it is a directory"},
    {EBUSY, "the file is in use by the system"},
    {ENOENT, "file does not exist"},
    {ENOTDIR, "a component of the path prefix is not a directory"},
    {EISDIR, "the path refers to a directory"},
    {EROFS, "the file resides on a read-only file system"},
    {ENAMETOOLONG, "path name is too long"},
    {ELOOP, "a loop exists in symbolic links, or too many links levels"},
};

const ErrnoTable kRmdirErrors = {
    {EACCES, "permission denied"},
    {EBUSY, "the directory is in use by the system"},
    {ENOTEMPTY, "the directory is not empty"},
    {EEXIST, "the directory is not empty"},
    {ENOENT, "directory does not exist"},
    {ENOTDIR, "the path is not a directory"},
    {EROFS, "the directory resides on a read-only file system"},
    {EINVAL, "the path names the current directory"},
};

const ErrnoTable kLinkErrors = {
    {EACCES, "permission denied"},
    {EEXIST, "the new path already exists"},
    {ENOENT, "the old path does not exist, or a component of a path prefix is missing"},
    {ENOTDIR, "a component of a path prefix is not a directory"},
    {EPERM, "the file system does not allow this link, or the old path is a directory"},
    {EXDEV, "the two paths are on different file systems"},
    {EMLINK, "the file has the most links allowed"},
    {ENOSPC, "no space left on the device"},
    {EROFS, "the new path would reside on a read-only file system"},
    {ENAMETOOLONG, "path name is too long"},
};

const ErrnoTable kModeErrors = {
    {ENOENT, "path does not exists"},
    {EACCES, "search permission is denied for a component of the path prefix"},
    {EPERM, "the process does not own the file"},
    {ENOTDIR, "a component of the path prefix is not a directory"},
    {EROFS, "the file resides on a read-only file system"},
    {ELOOP, "a loop exists in symbolic links, or too many links levels"},
    {ENAMETOOLONG, "path name is too long"},
};

bool IsDotName(const char* name) noexcept
{
    return name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0));
}

// The entries of a directory with their own status (links not followed).
// An unreadable directory raises, since a tree operation cannot skip it.
struct Entry {
    stringEx path;
    struct stat status;
};

std::vector<Entry> EntriesOf(const stringEx& dir)
{
    DIR* handle = opendir(dir.c_str());
    if (!handle)
        Throw<dirExp>(ExpMessage("CDir::NextFile - failed open directory\n")
                          .Detail("dir path", dir)
                          .Errno(errno, {{EACCES, "permission denied"},
                                         {ENOENT, "directory does not exist"},
                                         {ENOTDIR, "the path is not a directory"}}),
                      3);
    std::shared_ptr<DIR> closer(handle, [](DIR* d) { closedir(d); });
    std::vector<Entry> entries;
    for (;;) {
        errno = 0;
        const dirent* entry = readdir(handle);
        if (!entry) {
            if (errno)
                Throw<dirExp>(ExpMessage("CDir::NextFile - failed read directory entry\n")
                                  .Detail("dir path", dir)
                                  .Errno(errno, {{EBADF, "the argument does not refer to an open directory stream"}}),
                              19);
            return entries;
        }
        if (IsDotName(entry->d_name))
            continue;
        Entry item;
        item.path = dir + "/" + stringEx(entry->d_name);
        if (lstat(item.path.c_str(), &item.status) != 0)
            PosixStat(item.path, item.status);  // raises with the usual message
        entries.push_back(item);
    }
}

bool Inside(const stringEx& inner, const stringEx& outer)
{
    return inner == outer || (inner.size() > outer.size() && inner.StartsWith(outer) && inner[outer.size()] == '/');
}

void CopyLink(const stringEx& link, const stringEx& target)
{
    char room[PATH_MAX];
    const ssize_t size = readlink(link.c_str(), room, sizeof room - 1);
    if (size < 0 || symlink(stringEx(room, static_cast<uint64_t>(size)).c_str(), target.c_str()) != 0)
        Throw<dirExp>(ExpMessage("CDir::MakeSymbolicLink - failed create symbolic link\n")
                          .Text(Field("old path", kLinkFieldWidth, link) + Field("new path", kLinkFieldWidth, target) +
                                ErrnoFields(errno, kLinkFieldWidth, kLinkErrors)),
                      22);
}

stringEx ShellQuote(const stringEx& text)
{
    stringEx quoted("'");
    for (char c : text) {
        if (c == '\'')
            quoted.append("'\\''", 4);
        else
            quoted += c;
    }
    quoted += '\'';
    return quoted;
}

stringEx Unescape(const stringEx& field)
{
    // The mount table writes blanks inside a field as octal escapes (\040).
    stringEx out;
    for (uint64_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            const char a = field[i + 1], b = field[i + 2], c = field[i + 3];
            if (a >= '0' && a <= '3' && b >= '0' && b <= '7' && c >= '0' && c <= '7') {
                out += static_cast<char>((a - '0') * 64 + (b - '0') * 8 + (c - '0'));
                i += 3;
                continue;
            }
        }
        out += field[i];
    }
    return out;
}

// The mount tables, in the order they are tried: the classic two, then (if
// the mount program cannot be run either) the live table of this system.
const char* g_mountTables[3] = {"/etc/mtab", "/etc/mnttab", "/proc/self/mounts"};

// Reads a file to its end whatever its size claims: the mount tables of the
// process file system report a size of 0.
bool ReadToEnd(const char* path, stringEx& text)
{
    text.clear();
    CSysFile file;
    try {
        file.Open(path, O_RDONLY);
        char block[4096];
        for (uint64_t got; (got = file.Read(block, sizeof block)) > 0;)
            text.append(block, got);
    } catch (const karuExp&) {
        return false;
    }
    return true;
}

// What the mount program prints; false when it cannot be run or fails.
bool RunMount(stringEx& text)
{
    text.clear();
    try {
        CPipe reader, writer;
        CPipe::CreatePair(reader, writer);
        CHILD_STDIO stdio;
        stdio.out = writer.Descriptor();
        CProcess mount;
        mount.Create(stringEx("mount"), {stringEx("mount")}, stdio);
        writer.Close();
        char block[4096];
        for (uint64_t got; (got = reader.Read(block, sizeof block)) > 0;)
            text.append(block, got);
        mount.Wait();
        return mount.GetExitCode() == 0;
    } catch (const karuExp&) {
        return false;
    }
}

// The blank-separated fields of a line.
std::vector<stringEx> Fields(const stringEx& line)
{
    std::vector<stringEx> fields;
    for (uint64_t i = 0; i < line.size();) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t'))
            ++i;
        const uint64_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t')
            ++i;
        if (i > start)
            fields.push_back(stringEx(line.data() + start, i - start));
    }
    return fields;
}

// A line of a table: device, mount point, type, options, the rest.
bool FromTable(const stringEx& line, STORAGE_INFO& info)
{
    const std::vector<stringEx> fields = Fields(line);
    if (fields.size() < 3 || fields[0][0] == '#')
        return false;
    info.device = Unescape(fields[0]);
    info.mountPoint = Unescape(fields[1]);
    info.fileSystem = fields[2];
    info.options = fields.size() > 3 ? fields[3] : stringEx();
    return true;
}

// A line the mount program prints: "dev on point type fs (options)" here,
// "dev on point (fs, options)" on the systems that print it so.
bool FromMountOutput(const stringEx& line, STORAGE_INFO& info)
{
    const uint64_t on = line.Find(" on ");
    const uint64_t open = line.ReverseFind('(');
    if (on == stringEx::npos || open == stringEx::npos || open < on || line[line.size() - 1] != ')')
        return false;
    const stringEx inside = line.Mid(open + 1, line.size() - open - 2);
    stringEx point = line.Mid(on + 4, open - on - 4);
    point.TrimRight();
    info.device = line.Left(on);
    const uint64_t type = point.Find(" type ");
    if (type != stringEx::npos) {
        info.fileSystem = point.Mid(type + 6);
        info.mountPoint = point.Left(type);
        info.options = inside;
    } else {
        const uint64_t comma = inside.Find(',');
        info.fileSystem = comma == stringEx::npos ? inside : inside.Left(comma);
        info.options = comma == stringEx::npos ? stringEx() : inside.Mid(comma + 1);
        info.options.TrimLeft();
        info.mountPoint = point;
    }
    return !info.mountPoint.empty();
}

}  // namespace

namespace IMPL {

void SetMountTables(const char* mtab, const char* mnttab, const char* live) noexcept
{
    g_mountTables[0] = mtab;
    g_mountTables[1] = mnttab;
    g_mountTables[2] = live;
}

void WriteAll(CSysFile& file, const void* data, uint64_t size)
{
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    while (size > 0) {
        const uint64_t put = file.Write(bytes, size);
        if (put == 0)
            Throw<sysfileExp>(ExpMessage("CSysFile::Read - failed reading file\n")
                                  .Detail("file path", file.Path())
                                  .Detail("error desc", "the device accepted no more bytes"),
                              9);
        bytes += put;
        size -= put;
    }
}

void CopyAll(CSysFile& from, CSysFile& to)
{
    stringEx block;
    char* room = block.GetBuffer(kCopyBlock);
    for (uint64_t got; (got = from.Read(room, kCopyBlock)) > 0;)
        WriteAll(to, room, got);
}

}  // namespace IMPL

// ---- removing ----------------------------------------------------------------------------

// Force: a file the system refuses to remove is made writable, and so is
// its directory, since that is what this system asks for leave to unlink;
// both get their modes back whether the removal then works or not. What
// stands in the way of that is told as the removal's failure, with the
// refusal that started it.
void CDir::RemoveFile(const stringEx& path, bool force) try {
    if (path.empty())
        Throw<dirExp>(ExpMessage("CDir::RemoveFile - nothing to remove"), 2);
    const stringEx full = Full(path);
    if (unlink(full.c_str()) == 0)
        return;
    int error = errno;
    struct stat status;
    if (force && (error == EACCES || error == EPERM) && lstat(full.c_str(), &status) == 0 &&
        !S_ISLNK(status.st_mode) && !S_ISDIR(status.st_mode)) {
        const stringEx dir = GetPathDir(full);
        uint32_t fileMode = 0, dirMode = 0;
        bool fileChanged = false, dirChanged = false;
        try {
            fileMode = GetAttributes(full);
            dirMode = GetAttributes(dir);
            SetAttributes(full, fileMode | S_IWUSR);
            fileChanged = true;
            SetAttributes(dir, dirMode | S_IWUSR | S_IXUSR);
            dirChanged = true;
            IMPL::FileStep("RemoveFile.writable");
            if (unlink(full.c_str()) == 0) {
                fileChanged = false;
                error = 0;
            } else {
                error = errno;
            }
        } catch (const karuExp&) {
        }
        if (fileChanged)
            chmod(full.c_str(), fileMode);
        if (dirChanged)
            chmod(dir.c_str(), dirMode);
        if (error == 0)
            return;
    }
    Throw<dirExp>(ExpMessage("CDir::RemoveFile - failed remove file\n")
                      .Detail("file path", full)
                      .Detail("force", Bool(force))
                      .Errno(error, kUnlinkErrors),
                  17);
} KARU_THROWS(dirExp, std::bad_alloc)

void CDir::RemoveDir(const stringEx& path, bool removeSubDirs, bool removeSubFiles) try {
    if (path.empty())
        Throw<dirExp>(ExpMessage("CDir::RemoveDir - nothing to remove"), 2);
    const stringEx full = Full(path);
    auto failure = [&](const char* head, int error) {
        return ExpMessage(head).Text(Field("dir to remove", kOpFieldWidth, full) +
                                     Field("remove sub dirs", kOpFieldWidth, Bool(removeSubDirs)) +
                                     Field("remove sub files", kOpFieldWidth, Bool(removeSubFiles)) +
                                     (error ? ErrnoFields(error, kOpFieldWidth, kRmdirErrors) : stringEx()));
    };
    if (removeSubDirs || removeSubFiles) {
        try {
            for (const Entry& entry : EntriesOf(full)) {
                if (S_ISDIR(entry.status.st_mode)) {
                    if (removeSubDirs)
                        RemoveDir(entry.path, true, removeSubFiles);
                } else if (removeSubFiles) {
                    RemoveFile(entry.path, true);
                }
            }
        } catch (const karuExp& e) {
            Throw<dirExp>(failure("CDir::RemoveDir - failed remove specified directory\n", 0).Cause(e), 9);
        }
    }
    if (rmdir(full.c_str()) != 0)
        Throw<dirExp>(failure("CDir::RemoveDir - failed remove specified directory\n", errno), 9);
} KARU_THROWS(dirExp, std::bad_alloc)

// ---- moving and copying ------------------------------------------------------------------

void CDir::DuplicateFile(const stringEx& source, const stringEx& target, bool overwrite, bool keepMode) try {
    if (source.empty() || target.empty())
        Throw<dirExp>(ExpMessage("CDir::DuplicateFile - nothing to copy"), 2);
    const stringEx from = Full(source), to = Full(target);
    const stringEx fields = Field("source file", kOpFieldWidth, from) + Field("destination file", kOpFieldWidth, to);
    struct stat fromStatus, toStatus;
    if (stat(to.c_str(), &toStatus) == 0) {
        if (!overwrite)
            Throw<dirExp>(ExpMessage("CDir::DuplicateFile - error copy file, dest already exists\n").Text(fields),
                          15);
        // Truncating the target would destroy the source it is a name of.
        if (stat(from.c_str(), &fromStatus) == 0 && fromStatus.st_dev == toStatus.st_dev &&
            fromStatus.st_ino == toStatus.st_ino)
            Throw<dirExp>(ExpMessage("CDir::DuplicateFile - error copy file\n")
                              .Text(fields + Field("error desc", kOpFieldWidth, "source and destination are one file")),
                          15);
    }
    try {
        CSysFile in(from, O_RDONLY, kShareShared);
        CSysFile out;
        out.Open(to, O_WRONLY | O_CREAT | O_TRUNC, 0, kShareNone, kDefaultFilePermissions);
        IMPL::CopyAll(in, out);
        out.Flush();
        if (keepMode && fstat(in.Descriptor(), &fromStatus) == 0)
            fchmod(out.Descriptor(), fromStatus.st_mode & 07777);
        out.Close();
    } catch (const karuExp& e) {
        Throw<dirExp>(ExpMessage("CDir::DuplicateFile - error copy file\n").Text(fields).Cause(e), 15);
    }
} KARU_THROWS(dirExp, std::bad_alloc)

void CDir::TransferFile(const stringEx& source, const stringEx& target, bool overwrite, bool force) try {
    if (source.empty() || target.empty())
        Throw<dirExp>(ExpMessage("CDir::TransferFile - nothing to move"), 2);
    const stringEx from = Full(source), to = Full(target);
    const stringEx fields = Field("source file", kOpFieldWidth, from) + Field("destination file", kOpFieldWidth, to);
    if (Exists(to)) {
        if (!overwrite)
            Throw<dirExp>(ExpMessage("CDir::TransferFile - error move file, dest already exists\n").Text(fields), 16);
        RemoveFile(to, force);
    }
    if (link(from.c_str(), to.c_str()) != 0) {
        const int error = errno;
        // Only these say that no link can be made here; anything else is a
        // real failure that a copy would only hide.
        if (error != EXDEV && error != EPERM && error != EMLINK && error != ENOTSUP)
            Throw<dirExp>(ExpMessage("CDir::TransferFile - error link file to the target path\n")
                              .Text(fields + ErrnoFields(error, kOpFieldWidth, kLinkErrors)),
                          16);
        try {
            DuplicateFile(from, to, overwrite, true);
        } catch (const karuExp& e) {
            Throw<dirExp>(ExpMessage("CDir::TransferFile - error copy file to the target\n").Text(fields).Cause(e), 16);
        }
    }
    IMPL::FileStep("TransferFile.linked");
    try {
        RemoveFile(from, force);
    } catch (const karuExp& e) {
        Throw<dirExp>(ExpMessage("CDir::TransferFile - error remove (unlink) the source\n").Text(fields).Cause(e),
                      16);
    }
} KARU_THROWS(dirExp, std::bad_alloc)

void CDir::TransferDir(const stringEx& source, const stringEx& target) try {
    if (source.empty() || target.empty())
        Throw<dirExp>(ExpMessage("CDir::TransferDir - nothing to move"), 2);
    const stringEx from = Full(source), to = Full(target);
    const stringEx fields = Field("source dir", kOpFieldWidth, from) + Field("target dir", kOpFieldWidth, to);
    if (!IsDir(from))
        Throw<dirExp>(ExpMessage("CDir::TransferDir - source dir doesn't exist\n").Text(fields), 11);
    if (Exists(to))
        Throw<dirExp>(ExpMessage("CDir::TransferDir - target dir already exist\n").Text(fields), 11);
    if (Inside(to, from))
        Throw<dirExp>(ExpMessage("CDir::TransferDir - dir nesting found in recursive copy mode\n").Text(fields), 11);
    // One rename moves the whole tree when both ends share a file system;
    // entry by entry is the way across devices.
    if (rename(from.c_str(), to.c_str()) == 0)
        return;
    try {
        MakeDir(to, true);
        for (const Entry& entry : EntriesOf(from)) {
            const stringEx there = to + "/" + GetPathFilename(entry.path);
            if (S_ISDIR(entry.status.st_mode)) {
                TransferDir(entry.path, there);
            } else if (S_ISLNK(entry.status.st_mode)) {
                CopyLink(entry.path, there);
                RemoveFile(entry.path, true);
            } else {
                TransferFile(entry.path, there, false, true);
            }
        }
        RemoveDir(from);
    } catch (const karuExp& e) {
        Throw<dirExp>(ExpMessage("CDir::TransferDir - failed transfer dir\n").Text(fields).Cause(e), 11);
    }
} KARU_THROWS(dirExp, std::bad_alloc)

void CDir::DuplicateDir(const stringEx& source, const stringEx& target, bool overwrite) try {
    if (source.empty() || target.empty())
        Throw<dirExp>(ExpMessage("CDir::DuplicateDir - nothing to copy"), 2);
    const stringEx from = Full(source), to = Full(target);
    const stringEx fields = Field("source dir", kOpFieldWidth, from) + Field("target dir", kOpFieldWidth, to);
    if (!IsDir(from))
        Throw<dirExp>(ExpMessage("CDir::DuplicateDir - source dir doesn't exist\n").Text(fields), 10);
    if (Inside(to, from))
        Throw<dirExp>(ExpMessage("CDir::DuplicateDir - dir nesting found in recursive copy mode\n").Text(fields), 10);
    try {
        MakeDir(to, true);
        for (const Entry& entry : EntriesOf(from)) {
            const stringEx there = to + "/" + GetPathFilename(entry.path);
            if (S_ISDIR(entry.status.st_mode)) {
                DuplicateDir(entry.path, there, overwrite);
            } else if (S_ISLNK(entry.status.st_mode)) {
                if (overwrite && Exists(there))
                    RemoveFile(there, true);
                CopyLink(entry.path, there);
            } else {
                DuplicateFile(entry.path, there, overwrite, true);
            }
        }
    } catch (const karuExp& e) {
        Throw<dirExp>(ExpMessage("CDir::DuplicateDir - failed duplicate dir\n").Text(fields).Cause(e), 10);
    }
} KARU_THROWS(dirExp, std::bad_alloc)

// ---- links and attributes -----------------------------------------------------------------

void CDir::MakeSymbolicLink(const stringEx& oldPath, const stringEx& newPath, const stringEx& arguments,
                            const stringEx& workFolder) try {
    if (oldPath.empty() || newPath.empty())
        Throw<dirExp>(ExpMessage("CDir::MakeSymbolicLink - nothing to make"), 2);
    const stringEx to = Full(newPath);
    stringEx from = oldPath;
    NormalizePath(from);  // a relative link stays relative to its own directory
    const stringEx fields = Field("old path", kLinkFieldWidth, from) + Field("new path", kLinkFieldWidth, to) +
                            Field("arguments", kLinkFieldWidth, arguments) +
                            Field("work folder", kLinkFieldWidth, workFolder);
    if (arguments.empty() && workFolder.empty()) {
        if (symlink(from.c_str(), to.c_str()) != 0)
            Throw<dirExp>(ExpMessage("CDir::MakeSymbolicLink - failed create symbolic link\n")
                              .Text(fields + ErrnoFields(errno, kLinkFieldWidth, kLinkErrors)),
                          22);
        return;
    }
    // A link cannot carry arguments or a folder: a script stands in for it.
    try {
        stringEx script("#!/bin/sh\n# runs ");
        script += from;
        script += '\n';
        if (!workFolder.empty())
            script += stringEx("cd ") + ShellQuote(Full(workFolder)) + " || exit 1\n";
        script += ShellQuote(Full(from));
        if (!arguments.empty())
            script += stringEx(" ") + arguments;
        script += " \"$@\"\n";
        WriteFile(to, script, true, false);
        SetAttributes(to, 0755);
    } catch (const karuExp& e) {
        Throw<dirExp>(ExpMessage("CDir::MakeSymbolicLink - failed create shell script\n").Text(fields).Cause(e), 22);
    }
} KARU_THROWS(dirExp, std::bad_alloc)

void CDir::MakeHardLink(const stringEx& oldPath, const stringEx& newPath) try {
    if (oldPath.empty() || newPath.empty())
        Throw<dirExp>(ExpMessage("CDir::MakeHardLink - nothing to make"), 2);
    const stringEx from = Full(oldPath), to = Full(newPath);
    if (link(from.c_str(), to.c_str()) != 0)
        Throw<dirExp>(ExpMessage("CDir::MakeHardLink - failed create hard link\n")
                          .Text(Field("old path", kLinkFieldWidth, from) + Field("new path", kLinkFieldWidth, to) +
                                ErrnoFields(errno, kLinkFieldWidth, kLinkErrors)),
                      22);
} KARU_THROWS(dirExp, std::bad_alloc)

uint32_t CDir::GetAttributes(const stringEx& path)
{
    const stringEx full = Full(path);
    struct stat status;
    if (stat(full.c_str(), &status) != 0)
        Throw<dirExp>(ExpMessage("CDir::GetAttributes - failed getting path attributes\n")
                          .Detail("path", full)
                          .Errno(errno, kModeErrors),
                      4);
    return status.st_mode & 07777;
}

void CDir::SetAttributes(const stringEx& path, uint32_t mode)
{
    const stringEx full = Full(path);
    if (chmod(full.c_str(), mode & 07777) != 0)
        Throw<dirExp>(ExpMessage("CDir::SetAttributes - failed set path attributes\n")
                          .Detail("path", full)
                          .Detail("mode", stringEx::Format("%#o", mode & 07777))
                          .Errno(errno, kModeErrors),
                      4);
}

// ---- names and places ---------------------------------------------------------------------

stringEx CDir::GenTempFileName(uint32_t radix) const
{
    if (_path.empty() || !IsDir(_path))
        Throw<dirExp>(ExpMessage("CDir::GenTempFileName - invalid obj, or the base dir has been removed\n")
                          .Detail("base dir", _path),
                      1);
    if (radix < 2 || radix > 36)
        radix = 36;
    static const char kDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
    // The clock gives the name; a name already taken moves on by one, so two
    // callers in one microsecond still end on different names.
    for (uint64_t number = static_cast<uint64_t>(CTime::Now().Microseconds());; ++number) {
        char digits[72];
        size_t n = 0;
        for (uint64_t rest = number; n == 0 || rest; rest /= radix)
            digits[n++] = kDigits[rest % radix];
        stringEx name = _path + "ka";
        while (n)
            name += digits[--n];
        name.append(".tmp", 4);
        if (!Exists(name))
            return name;
    }
}

stringEx CDir::GetTempDir()
{
    const char* value = std::getenv("TMPDIR");
    stringEx dir(value && *value ? value : "/tmp/");
    ConvToFullPath(dir);
    if (dir[dir.size() - 1] != '/')
        dir += '/';
    return dir;
}

stringEx CDir::FindInPath(const stringEx& name)
{
    if (name.empty())
        Throw<dirExp>(ExpMessage("CDir::FindInPath - nothing to search"), 2);
    const char* value = std::getenv("PATH");
    const stringEx searchPath(value ? value : "");
    auto usable = [](const stringEx& candidate) { return Exists(candidate) && !IsDir(candidate); };
    if (name.Find('/') != stringEx::npos) {
        const stringEx full = Full(name);
        if (usable(full))
            return full;
    } else {
        PiecePositions dirs;
        SplitPositions(searchPath, stringEx(":"), dirs);
        for (const auto& [pos, length] : dirs) {
            // An empty entry of PATH is the current directory.
            const stringEx dir = length ? stringEx(searchPath, pos, length) : GetPwd();
            const stringEx candidate = Full(dir + "/" + name);
            if (usable(candidate))
                return candidate;
        }
    }
    Throw<dirExp>(ExpMessage("CDir::FindInPath - can't find file in path\n")
                      .Text(Field("file name", kOpFieldWidth, name) +
                            Field("environment path", kOpFieldWidth, searchPath)),
                  7);
}

void CDir::GetSpaceInfo(const stringEx& path, SPACE_INFO& info)
{
    const stringEx full = Full(path);
    struct statvfs status;
    int result;
    do
        result = statvfs(full.c_str(), &status);
    while (result != 0 && errno == EINTR);
    if (result != 0)
        Throw<dirExp>(ExpMessage("CDir::GetSpaceInfo - failed retrieve space info\n")
                          .Detail("path", full)
                          .Errno(errno, {{ENOENT, "path does not exists"},
                                         {EACCES, "search permission is denied for a component of the path prefix"},
                                         {ENOTDIR, "a component of the path prefix is not a directory"},
                                         {EIO, "an error occurred while reading from the file system"},
                                         {EOVERFLOW, "some values cannot be represented in the structure"}}),
                      21);
    const uint64_t unit = status.f_frsize ? status.f_frsize : status.f_bsize;
    info.totalBytes = static_cast<uint64_t>(status.f_blocks) * unit;
    info.freeBytes = static_cast<uint64_t>(status.f_bfree) * unit;
    info.availableBytes = static_cast<uint64_t>(status.f_bavail) * unit;
    info.totalFiles = status.f_files;
    info.freeFiles = status.f_ffree;
    info.blockSize = status.f_bsize;
}

uint32_t CDir::GetStorageTopology(std::vector<STORAGE_INFO>& result)
{
    stringEx text;
    bool (*parse)(const stringEx&, STORAGE_INFO&) = FromTable;
    if (!ReadToEnd(g_mountTables[0], text) && !ReadToEnd(g_mountTables[1], text)) {
        if (RunMount(text))
            parse = FromMountOutput;
        else if (!ReadToEnd(g_mountTables[2], text))
            Throw<dirExp>(ExpMessage("CDir::GetStorageTopology - failed retrieve storage's topology info\n")
                              .Detail("tables", stringEx(g_mountTables[0]) + ", " + g_mountTables[1] + ", " +
                                                    g_mountTables[2])
                              .Detail("program", "mount"),
                          23);
    }
    PiecePositions lines;
    SplitPositions(text, stringEx("\n"), lines);
    for (const auto& [pos, length] : lines) {
        STORAGE_INFO info;
        if (length > 0 && parse(stringEx(text, pos, length), info))
            result.push_back(info);
    }
    return static_cast<uint32_t>(result.size());
}

}  // namespace Karu

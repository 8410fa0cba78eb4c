// The transaction write: a file's content replaced so that a reader sees
// the old or the new content, never a part, and the file stays the file it
// was (the same inode: owner, mode, hard links, and the target of a link).
//
// The basic idea: the old content is parked in <path>.trs, the new content
// is written into the file itself, and the parked copy goes last. A writer
// holds an exclusive flock on the file from before it parks until it has
// removed the parked copy; a reader holds a shared one while it reads. So a
// reader never meets a live transaction, and a parked copy that a reader
// does meet was left by a writer that died: no live writer holds it, and
// the reader settles it before it reads.
//
// What a writer that dies leaves, step by step:
//   while it parks                  the old file, a partial <path>.trs.new
//   parked, while it writes         <path>.trs whole, the file partial
//   written, before the removal     <path>.trs and the new file, whole
// The parked copy is written under a second name and renamed, so a .trs
// that exists is always whole. Settling keeps the file when the owner's
// judgement finds it whole, and otherwise copies the parked content back
// into it; a writer that finds a parked copy settles it the same way first,
// so a whole version is never thrown away.
//
// Subtle points: flock is per open file, so two threads of one process
// exclude each other as two processes do. A lock taken on a file that was
// unlinked or replaced meanwhile is worth nothing, so every lock is checked
// against the name afterwards and taken again on the file the name holds
// now. The parked copy is named after the file the name leads to (links
// resolved), so that a link and its target share one.
#include <karu/file/dir.h>

#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include <karu/file/sysfile.h>
#include <karu/log/log.h>

namespace Karu {
namespace {

// Where the parked copy is written before it takes its name.
constexpr const char* kParkingSuffix = ".new";

const ErrnoTable kLockErrors = {
    {EBADF, "invalid file descriptor"},
    {EINVAL, "the file does not support locking"},
    {ENOLCK, "lock number exceed the system limit"},
};

stringEx TransactionField(const char* label, const stringEx& value)
{
    return stringEx("  ") + stringEx(label) + " = " + value + "\n";
}

[[noreturn]] void Fail(const char* head, const stringEx& path, int error, ErrnoTable table, int32_t code)
{
    Throw<dirExp>(ExpMessage(head).Detail("file path", path).Errno(error, table), code);
}

// A file system without locks does not stop the work, as for the share
// modes of an open; it only cannot keep writers and readers apart.
void FlockWaiting(int fd, int operation, const char* head, const stringEx& path)
{
    while (flock(fd, operation) != 0) {
        if (errno == EINVAL || errno == EOPNOTSUPP)
            return;
        if (errno != EINTR)
            Fail(head, path, errno, kLockErrors, 3);
    }
}

bool JudgedWhole(CSysFile& file, const TransactionJudge& isWhole)
{
    file.SeekBegin(0);
    return isWhole && isWhole(file);
}

// The name the open file has now, links resolved; the given path when the
// system does not say.
stringEx NameOf(const CSysFile& file, const stringEx& path)
{
    char room[PATH_MAX];
    const stringEx link = stringEx::Format("/proc/self/fd/%d", file.Descriptor());
    const ssize_t size = readlink(link.c_str(), room, sizeof room - 1);
    if (size <= 0 || room[0] != '/')
        return path;
    return stringEx(room, static_cast<uint64_t>(size));
}

// Whether the open file is still the one that `path` names: false once it
// was unlinked or another file took the name while its opener waited.
bool StillNamed(const CSysFile& file, const stringEx& path)
{
    struct stat held, named;
    return fstat(file.Descriptor(), &held) == 0 && held.st_nlink > 0 && stat(path.c_str(), &named) == 0 &&
           held.st_dev == named.st_dev && held.st_ino == named.st_ino;
}

// The file `path` names, opened and locked: exclusive for writing, shared
// for reading. Null when it does not exist and `create` is clear.
struct Locked {
    CSysFile file;
    bool created = false;
    mode_t mode = 0;
    uid_t owner = 0;
    gid_t group = 0;
};

bool OpenLocked(const stringEx& path, bool write, bool create, Locked& out, const char* head)
{
    const int flags = (write ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NONBLOCK;
    for (;;) {
        out = Locked();
        int fd = -1;
        if (create) {
            // Made exclusively first, to know whether this writer made it.
            fd = open(path.c_str(), flags | O_CREAT | O_EXCL, kDefaultFilePermissions);
            out.created = fd >= 0;
            if (fd < 0 && errno == EEXIST) {
                fd = open(path.c_str(), flags);
                if (fd < 0 && errno == ENOENT)
                    continue;  // it went again between the two opens
            }
        } else {
            fd = open(path.c_str(), flags);
            if (fd < 0 && errno == ENOENT)
                return false;
        }
        if (fd < 0) {
            if (errno == EINTR)
                continue;
            // The library's own open gives the message of this failure; if
            // it opens after all, the failure was a passing one.
            close(PosixOpenFile(path, write ? O_RDWR : O_RDONLY, create ? O_CREAT : 0, kShareNone,
                                kDefaultFilePermissions, 0));
            continue;
        }
        out.file.Attach(fd, path);
        struct stat status;
        if (fstat(fd, &status) != 0)
            Fail(head, path, errno, {}, 3);
        if (!S_ISREG(status.st_mode))
            Throw<dirExp>(ExpMessage(head).Detail("file path", path).Detail("error desc", "not a regular file"), 3);
        FlockWaiting(fd, write ? LOCK_EX : LOCK_SH, head, path);
        if (!StillNamed(out.file, path))
            continue;
        fstat(fd, &status);
        out.mode = status.st_mode & 07777;
        out.owner = status.st_uid;
        out.group = status.st_gid;
        return true;
    }
}

void SyncDirectoryOf(const stringEx& path)
{
    const int fd = open(CDir::GetPathDir(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        fsync(fd);
        close(fd);
    }
}

// The old content under the parked name, whole or not at all: written
// beside it, forced to the device, renamed. It is readable by no one the
// file itself would not let read it.
void Park(Locked& held, const stringEx& parked)
{
    const stringEx parking = parked + kParkingSuffix;
    try {
        unlink(parking.c_str());
        CSysFile copy;
        copy.Open(parking, O_WRONLY | O_CREAT | O_EXCL, 0, kShareNone, held.mode & 0777 & ~0111);
        if (fchown(copy.Descriptor(), held.owner, held.group) != 0) {
            // Not ours to give away: the copy stays readable by its owner only.
            fchmod(copy.Descriptor(), held.mode & 0600);
        }
        held.file.SeekBegin(0);
        IMPL::CopyAll(held.file, copy);
        copy.Flush();
        copy.Close();
        if (rename(parking.c_str(), parked.c_str()) != 0)
            Fail("CDir::TransactionWrite - failed park the old content\n", parked, errno, {}, 16);
        SyncDirectoryOf(parked);
    } catch (const dirExp&) {
        unlink(parking.c_str());
        throw;
    } catch (const karuExp& e) {
        unlink(parking.c_str());
        Throw<dirExp>(ExpMessage("CDir::TransactionWrite - failed park the old content\n")
                          .Text(TransactionField("file path", held.file.Path()) + TransactionField("park file", parked))
                          .Cause(e),
                      16);
    }
}

// The parked content back in the file itself, then the parked copy gone.
void PutBack(CSysFile& file, const stringEx& parked)
{
    try {
        CSysFile copy(parked, O_RDONLY);
        file.SeekBegin(0);
        file.ResizeToCurrentPos();
        IMPL::CopyAll(copy, file);
        file.Flush();
    } catch (const karuExp& e) {
        Throw<dirExp>(ExpMessage("CDir::TransactionWrite - failed put the old content back\n")
                          .Text(TransactionField("file path", file.Path()) + TransactionField("park file", parked))
                          .Cause(e),
                      16);
    }
    unlink(parked.c_str());
    SyncDirectoryOf(parked);
}

// Settles what a dead writer left, with the file held exclusively: the file
// if the judge finds it whole, else the parked content. False when there
// was nothing to settle.
bool Settle(CSysFile& file, const stringEx& parked, const TransactionJudge& isWhole)
{
    unlink((parked + kParkingSuffix).c_str());  // a parking that never finished
    if (!CDir::Exists(parked))
        return false;
    if (JudgedWhole(file, isWhole)) {
        CLog::LogNote("util.dir.transaction", "interrupted write completed\n  file path = %s\n", file.Path().c_str());
        unlink(parked.c_str());
        SyncDirectoryOf(parked);
    } else {
        CLog::LogNote("util.dir.transaction", "interrupted write rolled back\n  file path = %s\n",
                      file.Path().c_str());
        PutBack(file, parked);
    }
    return true;
}

}  // namespace

stringEx CDir::TransactionFileName(const stringEx& path)
{
    return path + ".trs";
}

void CDir::TransactionWrite(const stringEx& path, const TransactionWriter& writer, const TransactionJudge& isWhole)
{
    stringEx target = path;
    ConvToFullPath(target);
    Locked held;
    OpenLocked(target, true, true, held, "CDir::TransactionWrite - failed open the file\n");
    const stringEx parked = TransactionFileName(NameOf(held.file, target));
    IMPL::FileStep("TransactionWrite.locked");
    // A parked copy here is a dead writer's: the file may be partial, so
    // the copy is kept when it holds the last whole version.
    const bool inherited = CDir::Exists(parked) && !JudgedWhole(held.file, isWhole);
    if (!inherited)
        Park(held, parked);
    IMPL::FileStep("TransactionWrite.parked");
    try {
        held.file.SeekBegin(0);
        held.file.ResizeToCurrentPos();
        writer(held.file);
        held.file.Flush();
        IMPL::FileStep("TransactionWrite.written");
    } catch (...) {
        // Put the old content back; a failure here must not replace the
        // writer's exception, which says what really went wrong.
        try {
            if (held.created && !inherited) {
                unlink(target.c_str());
                unlink(parked.c_str());
            } else {
                PutBack(held.file, parked);
            }
        } catch (...) {
        }
        throw;
    }
    unlink(parked.c_str());
    SyncDirectoryOf(parked);
    IMPL::FileStep("TransactionWrite.done");
}

CSysFile CDir::TransactionRead(const stringEx& path, const TransactionJudge& isWhole)
{
    stringEx target = path;
    ConvToFullPath(target);
    const char* head = "CDir::TransactionRead - failed open the file\n";
    for (;;) {
        Locked held;
        if (!OpenLocked(target, false, false, held, head)) {
            // No file, but perhaps a parked copy whose file went away: it is
            // the last whole version, and takes the name back. The copy
            // itself goes only under the file's lock, on the next round,
            // where a writer that took the name meanwhile is waited for.
            const stringEx parked = TransactionFileName(target);
            if (!Exists(parked))
                return CSysFile();
            if (link(parked.c_str(), target.c_str()) == 0 || errno == EEXIST)
                continue;
            // The name cannot be given back here: the copy is read as it is.
            return CSysFile(parked, O_RDONLY, kShareShared);
        }
        const stringEx parked = TransactionFileName(NameOf(held.file, target));
        if (!Exists(parked) && !Exists(parked + kParkingSuffix))
            return held.file;
        // Nobody writes the file while this reader holds it, so the parked
        // copy is a dead writer's. Settling needs the file exclusively, and
        // writable: where it is not, the reader takes what is whole.
        held.file.Close();
        Locked owner;
        try {
            if (!OpenLocked(target, true, false, owner, head))
                continue;
        } catch (const karuExp&) {
            if (!OpenLocked(target, false, false, held, head))
                continue;
            if (!Exists(parked) || !isWhole || JudgedWhole(held.file, isWhole)) {
                held.file.SeekBegin(0);
                return held.file;
            }
            return CSysFile(parked, O_RDONLY, kShareShared);
        }
        Settle(owner.file, parked, isWhole);
    }
}

}  // namespace Karu

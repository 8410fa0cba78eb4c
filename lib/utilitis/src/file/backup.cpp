// Backups and restore: copies of a file named <base>@<stamp>.<ext> beside
// each other in one directory, and the way back from them.
//
// The stamp (year, month, day, "_", hour, minute, second) sorts as text in
// the order of age, which is all that pruning and restoring need. Both are
// built to be called from failure paths: what goes wrong while pruning or
// restoring is logged, not raised.
//
// A restore over an existing file goes through the transaction write: the
// backup's content goes into the file itself, so the file keeps its owner,
// mode and links, and the current content stays until the backup's is
// whole. Only a file that is not there is given the backup itself.
//
// The step hook of the transaction write lives here too, for the file
// operations that a test stops at each of their steps.
#include <karu/file/dir.h>

#include <algorithm>
#include <atomic>

#include <karu/file/sysfile.h>
#include <karu/log/log.h>
#include <karu/time/time.h>

namespace Karu {
namespace {

std::atomic<IMPL::FileStepHook> g_stepHook{nullptr};

// B and E of a file name: E is the text behind the last ".", B the rest. A
// name without "." has an empty extension, and its backups end in ".".
struct BackupName {
    stringEx base;
    stringEx extension;

    explicit BackupName(const stringEx& path)
    {
        const stringEx name = CDir::GetPathFilename(path);
        const uint64_t dot = name.ReverseFind('.');
        base = dot != stringEx::npos ? name.Left(dot) : name;
        extension = dot != stringEx::npos ? name.Mid(dot + 1) : stringEx();
    }

    stringEx With(const stringEx& stamp) const { return base + "@" + stamp + "." + extension; }
};

// The backups of `path` in `dir`, newest first.
StringVector ListBackups(const CDir& dir, const BackupName& name)
{
    StringVector found;
    dir.GetAllFiles(found, name.With("*"), false, true);
    std::sort(found.begin(), found.end(), [](const stringEx& a, const stringEx& b) { return b < a; });
    return found;
}

}  // namespace

namespace IMPL {

void SetFileStepHook(FileStepHook hook) noexcept
{
    g_stepHook.store(hook);
}

void FileStep(const char* step)
{
    if (FileStepHook hook = g_stepHook.load(std::memory_order_relaxed))
        hook(step);
}

}  // namespace IMPL

void CDir::Backup(const stringEx& path, uint32_t keepCount, bool overwriteMode) const
{
    const BackupName name(path);
    if (keepCount > 0) {
        const stringEx copy = __Resolve(name.With(CTime::Now().Format(stringEx("%Y%M%d_%H%T%S"))));
        // A copy from this very second is already the newest backup.
        if (!Exists(copy))
            DuplicateFile(path, copy, true, overwriteMode);
    }
    StringVector backups;
    try {
        backups = ListBackups(*this, name);
    } catch (const karuExp& e) {
        CLog::LogError("util.dir.backup", "failed remove backup file\n@ %s", e.message.c_str());
        return;
    }
    while (backups.size() > keepCount) {
        try {
            RemoveFile(backups.back(), true);
        } catch (const karuExp& e) {
            CLog::LogError("util.dir.backup", "failed remove backup file\n@ %s", e.message.c_str());
        }
        backups.pop_back();
    }
}

bool CDir::Restore(const stringEx& path) const
{
    const BackupName name(path);
    StringVector backups;
    try {
        backups = ListBackups(*this, name);
    } catch (const karuExp& e) {
        CLog::LogError("util.dir.restore", "failed restore the backup file\n  from = %s\n  to   = %s\n@ %s",
                       __Resolve(name.With("*")).c_str(), path.c_str(), e.message.c_str());
        return false;
    }
    stringEx target = path;
    struct stat status;
    for (const stringEx& backup : backups) {
        try {
            // Only a plain file is a backup: reading anything else could
            // wait for ever (a pipe) or give what no backup held.
            if (stat(backup.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
                Throw<dirExp>(ExpMessage("CDir::Restore - the backup is not a regular file\n")
                                  .Detail("file path", backup),
                              2);
            ConvToFullPath(target);
            if (lstat(target.c_str(), &status) != 0) {
                TransferFile(backup, path, false, true);
                return true;
            }
            TransactionWrite(path, [&backup](CSysFile& file) {
                CSysFile copy(backup, O_RDONLY, kShareShared);
                IMPL::CopyAll(copy, file);
            });
        } catch (const karuExp& e) {
            CLog::LogError("util.dir.restore", "failed restore the backup file\n  from = %s\n  to   = %s\n@ %s",
                           backup.c_str(), path.c_str(), e.message.c_str());
            continue;
        }
        // The content is back; a backup that cannot be removed is only left over.
        try {
            RemoveFile(backup, true);
        } catch (const karuExp& e) {
            CLog::LogError("util.dir.restore", "failed restore the backup file\n  from = %s\n  to   = %s\n@ %s",
                           backup.c_str(), path.c_str(), e.message.c_str());
        }
        return true;
    }
    return false;
}

}  // namespace Karu

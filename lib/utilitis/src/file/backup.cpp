// Backups, restore and the transaction write: the two safer ways of
// replacing a file beside the plain write in place.
//
// Backups are copies named <base>@<stamp>.<ext> beside each other in one
// directory; the stamp (year, month, day, "_", hour, minute, second) sorts
// as text in the order of age, which is all that pruning and restoring need.
// Both are built to be called from failure paths: what goes wrong while
// pruning or restoring is logged, not raised.
//
// The transaction write parks the old content under <path>.trs while the new
// content is written, and drops it only once the writer has finished. What a
// process that dies leaves behind, step by step:
//   before the old file is moved      the old file, perhaps an old .trs
//   between link and unlink of the move   old file and .trs, the same content
//   while the writer runs             .trs old, the file partial or absent
//   after the writer, before removal  the new file and the old .trs
//   after removal                     the new file
// So the old content is in one of the two names at every moment, and a
// leftover .trs says "decide": its owner keeps the file if that is whole,
// and otherwise moves the .trs back. The configuration store is that owner.
#include <karu/file/dir.h>

#include <algorithm>
#include <atomic>

#include <karu/log/log.h>
#include <karu/time/time.h>

namespace Karu {
namespace {

std::atomic<IMPL::FileStepHook> g_stepHook{nullptr};

// B and E of a file name: E is the text behind the last ".", B the rest.
// A name without "." has no extension, and its backups none either.
struct BackupName {
    stringEx base;
    stringEx extension;
    bool hasExtension = false;

    explicit BackupName(const stringEx& path)
    {
        const stringEx name = CDir::GetPathFilename(path);
        const uint64_t dot = name.ReverseFind('.');
        hasExtension = dot != stringEx::npos;
        base = hasExtension ? name.Left(dot) : name;
        extension = hasExtension ? name.Mid(dot + 1) : stringEx();
    }

    stringEx With(const stringEx& stamp) const
    {
        return base + "@" + stamp + (hasExtension ? stringEx(".") + extension : stringEx());
    }
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
    for (const stringEx& backup : backups) {
        try {
            if (Exists(path))
                RemoveFile(path, true);
            TransferFile(backup, path, true, true);
            return true;
        } catch (const karuExp& e) {
            CLog::LogError("util.dir.restore", "failed restore the backup file\n  from = %s\n  to   = %s\n@ %s",
                           backup.c_str(), path.c_str(), e.message.c_str());
        }
    }
    return false;
}

stringEx CDir::TransactionFileName(const stringEx& path)
{
    return path + ".trs";
}

void CDir::TransactionWrite(const stringEx& path, const TransactionWriter& writer)
{
    stringEx target = path;
    ConvToFullPath(target);
    const stringEx parked = TransactionFileName(target);
    if (Exists(target)) {
        IMPL::FileStep("TransactionWrite.begin");
        if (Exists(parked))
            RemoveFile(parked, true);
        IMPL::FileStep("TransactionWrite.stale-removed");
        TransferFile(target, parked, false, true);
    }
    try {
        IMPL::FileStep("TransactionWrite.parked");
        writer(target);
        IMPL::FileStep("TransactionWrite.written");
        if (Exists(parked))
            RemoveFile(parked, false);
        IMPL::FileStep("TransactionWrite.done");
    } catch (...) {
        // Put the old content back; a failure here must not replace the
        // writer's exception, which says what really went wrong.
        try {
            if (Exists(target))
                RemoveFile(target, true);
            if (Exists(parked))
                TransferFile(parked, target, true, true);
        } catch (...) {
        }
        throw;
    }
}

}  // namespace Karu

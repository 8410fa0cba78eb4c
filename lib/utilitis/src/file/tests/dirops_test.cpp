// Tree and file operations on a scratch directory, the PATH and TMPDIR
// lookups, backups with their pruning, restore, and the transaction write.
#include <karu/file/dir.h>
#include <karu/file/sysfile.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <functional>
#include <set>
#include <string>
#include <thread>

#include "deadline.h"
#include "scratch_dir.h"
#include "sync/tests/forktest.h"
#include "text_helpers.h"

using namespace Karu;
using namespace KaruTest;

namespace {

// A scratch tree whose read-only parts (made by the tests of refusals) are
// opened up before it is removed.
class Tree : public karu_test::ScratchDir {
public:
    ~Tree() { std::system(("chmod -R u+w '" + root + "'").c_str()); }
    const std::string& root = path;
};

TEST(DirOps, MovesCopiesRemovesAndLinks)
{
    const Tree t;
    t.Put("a.txt", "alpha");
    t.Put("b.txt", "beta");
    t.Put("outside/keep.txt", "keep");
    t.Put("tree/x.txt", "x");
    t.Put("tree/.hidden", "h");
    t.Put("tree/sub/y.txt", "y");
    ASSERT_EQ(symlink((t / "outside").c_str(), (t / "tree/link").c_str()), 0);

    // Refusals, with their messages.
    struct Refusal {
        const char* why;
        std::function<void()> op;
        std::string message;
    } refusals[] = {
        {"move onto an existing file", [&] { CDir::TransferFile(t.At("a.txt"), t.At("b.txt")); },
         "CDir::TransferFile - error move file, dest already exists\n  source file       = " + (t / "a.txt") +
             "\n  destination file  = " + (t / "b.txt") + "\n"},
        {"copy onto itself", [&] { CDir::DuplicateFile(t.At("a.txt"), t.At("./a.txt"), true); },
         "CDir::DuplicateFile - error copy file\n  source file       = " + (t / "a.txt") +
             "\n  destination file  = " + (t / "a.txt") + "\n  error desc        = source and destination are one file\n"},
        {"tree into itself", [&] { CDir::DuplicateDir(t.At("tree"), t.At("tree/sub/copy")); },
         "CDir::DuplicateDir - dir nesting found in recursive copy mode\n  source dir        = " + (t / "tree") +
             "\n  target dir        = " + (t / "tree/sub/copy") + "\n"},
        {"move onto an existing dir", [&] { CDir::TransferDir(t.At("tree"), t.At("outside")); },
         "CDir::TransferDir - target dir already exist\n  source dir        = " + (t / "tree") +
             "\n  target dir        = " + (t / "outside") + "\n"},
        {"remove a full dir plainly", [&] { CDir::RemoveDir(t.At("tree")); },
         "CDir::RemoveDir - failed remove specified directory\n  dir to remove     = " + (t / "tree") +
             "\n  remove sub dirs   = false\n  remove sub files  = false\n  error code        = 39\n"
             "  error desc        = the directory is not empty\n"},
        {"nothing to make", [] { CDir::MakeHardLink("", "x"); }, "CDir::MakeHardLink - nothing to make"},
    };
    for (const Refusal& r : refusals)
        EXPECT_EQ(MessageOf(r.op), r.message) << r.why;

    // A move keeps the file itself (a link, not a copy); overwrite replaces.
    struct stat before, after;
    stat((t / "a.txt").c_str(), &before);
    CDir::TransferFile(t.At("a.txt"), t.At("b.txt"), true);
    stat((t / "b.txt").c_str(), &after);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_FALSE(t.Has("a.txt"));
    EXPECT_EQ(t.Get("b.txt"), "alpha");

    CDir::SetAttributes(t.At("b.txt"), 0640);
    CDir::DuplicateFile(t.At("b.txt"), t.At("c.txt"), false, true);
    EXPECT_EQ(CDir::GetAttributes(t.At("c.txt")), 0640u);
    EXPECT_EQ(t.Get("c.txt"), "alpha");

    // Trees: copied and moved with their link as a link, hidden files included.
    CDir::DuplicateDir(t.At("tree"), t.At("copy"));
    CDir::TransferDir(t.At("copy"), t.At("moved"));
    EXPECT_FALSE(t.Has("copy"));
    EXPECT_EQ(t.Get("moved/sub/y.txt"), "y");
    EXPECT_EQ(t.Get("moved/.hidden"), "h");
    struct stat link;
    ASSERT_EQ(lstat((t / "moved/link").c_str(), &link), 0);
    EXPECT_TRUE(S_ISLNK(link.st_mode));
    // Removing a tree removes the link, never what it points to.
    CDir::RemoveDir(t.At("moved"), true, true);
    CDir::RemoveDir(t.At("tree"), true, true);
    EXPECT_FALSE(t.Has("tree"));
    EXPECT_EQ(t.Get("outside/keep.txt"), "keep");

    // A read-only file goes with force.
    CDir::SetAttributes(t.At("c.txt"), 0444);
    CDir::RemoveFile(t.At("c.txt"), true);
    EXPECT_FALSE(t.Has("c.txt"));

    CDir::MakeHardLink(t.At("b.txt"), t.At("hard.txt"));
    EXPECT_EQ(t.Get("hard.txt"), "alpha");
}

TEST(DirOps, LauncherScriptRunsInItsFolderWithItsArguments)
{
    const Tree t;
    t.Put("prog.sh", "#!/bin/sh\npwd > out.txt\necho \"$@\" >> out.txt\n");
    CDir::SetAttributes(t.At("prog.sh"), 0755);
    CDir::MakeDir(t.At("work dir"));
    CDir::MakeSymbolicLink(t.At("prog.sh"), t.At("launch"), "one 'two'", t.At("work dir"));
    ASSERT_EQ(std::system(("'" + (t / "launch") + "' three").c_str()), 0);
    EXPECT_EQ(t.Get("work dir/out.txt"), t / "work dir" + "\none two three\n");

    CDir::MakeSymbolicLink("prog.sh", t.At("plain"));  // relative target kept relative
    char target[64] = {};
    ASSERT_GT(readlink((t / "plain").c_str(), target, sizeof target - 1), 0);
    EXPECT_STREQ(target, "prog.sh");
}

TEST(DirOps, EnvironmentLookupsAndSystemInformation)
{
    const Tree t;
    t.Put("bin1/tool", "1");
    t.Put("bin2/tool", "2");
    t.Put("bin2/other", "o");
    CDir::MakeDir(t.At("bin1/dirname"), true);
    const std::string savedPath = std::getenv("PATH") ? std::getenv("PATH") : "";
    setenv("PATH", ((t / "bin1") + ":" + (t / "bin2")).c_str(), 1);
    struct Row {
        const char* name;
        std::string expect;
    } rows[] = {
        {"tool", t / "bin1/tool"},      // the first directory wins
        {"other", t / "bin2/other"},
        {"dirname", "(missing)"},       // a directory is no program
        {"nothing", "(missing)"},
    };
    for (const Row& r : rows) {
        std::string found = "(missing)";
        const std::string raised = MessageOf<dirExp>([&] { found = CDir::FindInPath(r.name).c_str(); });
        EXPECT_EQ(found, r.expect) << r.name;
        EXPECT_EQ(raised, found != "(missing)" ? "(nothing raised)"
                                               : "CDir::FindInPath - can't find file in path\n  file name         = " +
                                                     std::string(r.name) + "\n  environment path  = " + (t / "bin1") +
                                                     ":" + (t / "bin2") + "\n")
            << r.name;
    }
    setenv("PATH", savedPath.c_str(), 1);

    const char* savedTmp = std::getenv("TMPDIR");
    const std::string keepTmp = savedTmp ? savedTmp : "";
    setenv("TMPDIR", t.root.c_str(), 1);
    EXPECT_EQ(std::string(CDir::GetTempDir().c_str()), t.root + "/");
    unsetenv("TMPDIR");
    EXPECT_EQ(CDir::GetTempDir(), stringEx("/tmp/"));
    if (savedTmp)
        setenv("TMPDIR", keepTmp.c_str(), 1);

    const CDir dir(t.At(""));
    const stringEx temp = dir.GenTempFileName(16);
    EXPECT_TRUE(temp.StartsWith(stringEx((t.root + "/ka").c_str())) && temp.EndsWith(".tmp")) << temp.c_str();
    EXPECT_FALSE(CDir::Exists(temp));
    const CDir gone(t.At("gone"), true);
    CDir::RemoveDir(t.At("gone"));
    EXPECT_THROW(gone.GenTempFileName(), dirExp);

    SPACE_INFO space;
    CDir::GetSpaceInfo(t.At(""), space);
    EXPECT_GT(space.totalBytes, 0u);
    EXPECT_LE(space.availableBytes, space.totalBytes);
}

// The mount table, and the mount program when there is no table: each
// way lists what the system's live table lists. A table of our own shows the
// parsing: escaped blanks, comments, a line without options.
TEST(DirOps, MountTablesAndTheMountProgram)
{
    const KaruTest::Deadline deadline(std::chrono::seconds(30), "running mount");
    const Tree t;
    std::map<std::string, std::string> live;  // mount point -> file system, as the system lists them
    {
        std::ifstream in("/proc/self/mounts");
        std::string device, point, type;
        for (std::string line; std::getline(in, line);) {
            std::istringstream fields(line);
            if (fields >> device >> point >> type && point.find('\\') == std::string::npos)
                live[point] = type;
        }
    }
    ASSERT_TRUE(live.count("/"));
    t.Put("mtab", "# a comment\n/dev/sda1 /mnt/with\\040blank ext4 rw,relatime 0 0\nnone /bare tmpfs\n");
    const std::string none = t / "none";
    const char* const path = std::getenv("PATH");
    struct Row {
        const char* why;
        std::string mtab, mnttab, liveTable;
        bool mountOnPath;
        size_t atLeast;  // entries, or 0 for a failure
    } rows[] = {
        {"the first table", t / "mtab", none, none, true, 2},
        {"the second table", none, t / "mtab", none, true, 2},
        {"no table: the mount program", none, none, none, true, live.size()},
        {"no program either: the live table", none, none, "/proc/self/mounts", false, live.size()},
        {"nothing at all", none, none, none, false, 0},
    };
    for (const Row& r : rows) {
        IMPL::SetMountTables(r.mtab.c_str(), r.mnttab.c_str(), r.liveTable.c_str());
        setenv("PATH", r.mountOnPath ? path : "/nonexistent", 1);
        std::vector<STORAGE_INFO> mounts;
        const std::string raised = MessageOf([&] { CDir::GetStorageTopology(mounts); });
        setenv("PATH", path, 1);
        if (r.atLeast == 0) {
            EXPECT_EQ(raised.rfind("CDir::GetStorageTopology - failed retrieve storage's topology info\n", 0), 0u)
                << r.why;
            continue;
        }
        EXPECT_EQ(raised, "(nothing raised)") << r.why;
        EXPECT_GE(mounts.size(), r.atLeast) << r.why;
        if (r.mtab == t / "mtab" || r.mnttab == t / "mtab") {
            ASSERT_EQ(mounts.size(), 2u) << r.why;
            EXPECT_EQ(std::string(mounts[0].mountPoint.c_str()), "/mnt/with blank") << r.why;
            EXPECT_EQ(std::string(mounts[0].options.c_str()), "rw,relatime") << r.why;
            EXPECT_EQ(std::string(mounts[1].fileSystem.c_str()), "tmpfs") << r.why;
            continue;
        }
        for (const STORAGE_INFO& m : mounts) {
            const std::string point = m.mountPoint.c_str();
            if (live.count(point)) {
                EXPECT_EQ(std::string(m.fileSystem.c_str()), live[point]) << r.why << ": " << point;
            }
        }
        std::set<std::string> listed;
        for (const STORAGE_INFO& m : mounts)
            listed.insert(m.mountPoint.c_str());
        EXPECT_TRUE(listed.count("/")) << r.why;
    }
    IMPL::SetMountTables("/etc/mtab", "/etc/mnttab", "/proc/self/mounts");
}

TEST(Backup, KeepsTheNewestAndRestoresThem)
{
    const Tree t;
    const CDir dir(t.At("bak"), true);
    t.Put("report.txt", "v1");
    auto backups = [&] {
        StringVector found;
        dir.GetAllFiles(found, "report@*.txt", false, true);
        return found;
    };
    // The copies are stamped by the wall clock, to the second.
    auto second = [] {
        timeval now;
        gettimeofday(&now, nullptr);
        return now.tv_sec;
    };
    // Two backups in one second make one copy. A loaded machine may let the
    // second tick between the two calls, and then the round is done again:
    // a second copy there is right, and would change what is restored below.
    for (int round = 0;; ++round) {
        ASSERT_LT(round, 20) << "two backups never fell in one second";
        for (const stringEx& left : backups())
            CDir::RemoveFile(left);
        // Five older backups with known stamps.
        for (const char* stamp : {"20090101_000001", "20090101_000002", "20090101_000003", "20090101_000004",
                                  "20090101_000005"})
            t.Put(std::string("bak/report@") + stamp + ".txt", stamp);
        const time_t before = second();
        dir.Backup(t.At("report.txt"), 3);
        const size_t afterFirst = backups().size();
        const bool oldestGone = !t.Has("bak/report@20090101_000003.txt");
        const bool newestKept = t.Has("bak/report@20090101_000005.txt");
        dir.Backup(t.At("report.txt"), 3);
        if (second() != before)
            continue;
        EXPECT_EQ(afterFirst, 3u);  // the new one and the two newest old ones
        EXPECT_TRUE(oldestGone);
        EXPECT_TRUE(newestKept);
        EXPECT_EQ(backups().size(), 3u);  // the second made no copy
        break;
    }

    t.Put("report.txt", "v2");
    EXPECT_TRUE(dir.Restore(t.At("report.txt")));
    EXPECT_EQ(t.Get("report.txt"), "v1");  // the newest backup, consumed
    EXPECT_EQ(backups().size(), 2u);
    EXPECT_TRUE(dir.Restore(t.At("report.txt")));
    EXPECT_EQ(t.Get("report.txt"), "20090101_000005");

    dir.Backup(t.At("report.txt"), 0);
    EXPECT_EQ(backups().size(), 0u);  // keep 0: no copy, and every old one goes
    t.Put("report.txt", "v3");
    EXPECT_FALSE(dir.Restore(t.At("report.txt")));
    EXPECT_EQ(t.Get("report.txt"), "v3");
}

// A directory stream is closed by the last of the handles that share it, and
// a close that fails (its descriptor closed behind its back) says so; the
// working directory's two failures are told apart.
TEST(DirOps, HandlesAndTheWorkingDirectoryReportTheirFailures)
{
    const KaruTest::Deadline deadline(std::chrono::seconds(30), "a child without its working directory");
    const Tree t;
    t.Put("d/a.txt", "a");
    const CDir dir(t.At("d"));
    auto descriptors = [&t] {  // this process's descriptors that stand for the directory
        std::vector<int> found;
        for (int fd = 0; fd < 1024; ++fd) {
            char target[4096];
            const ssize_t n = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target - 1);
            if (n > 0 && std::string(target, n) == t / "d")
                found.push_back(fd);
        }
        return found;
    };
    CDirHandle handle;
    stringEx name;
    ASSERT_TRUE(dir.NextFile(handle, name, false));
    CDirHandle copy = handle;
    handle.Reset();
    EXPECT_EQ(descriptors().size(), 1u);  // the copy keeps the stream open
    ASSERT_EQ(close(descriptors().at(0)), 0);
    EXPECT_EQ(MessageOf([&] { copy.Reset(); }),
              "CDirHandle::Reset - failed close the directory stream\n  error code = 9\n"
              "  error desc = invalid dir descriptor\n");
    EXPECT_FALSE(copy.IsOpen());

    // The working directory far longer than PATH_MAX, and then gone: run in
    // a child, which may lose its own.
    const ChildEnd end = RunChild([&] {
        std::string deep = t.root;
        const std::string step(200, 'd');
        bool ready = chdir(t.root.c_str()) == 0;
        for (int level = 0; ready && level < 30; ++level) {
            ready = mkdir(step.c_str(), 0700) == 0 && chdir(step.c_str()) == 0;
            deep += "/" + step;
        }
        std::string found;
        MessageOf([&found] { found = CDir::GetPwd().c_str(); });
        if (!ready || found != deep + "/")
            return 2;
        const std::string gone = t / "gone";
        mkdir(gone.c_str(), 0700);
        ready = chdir(gone.c_str()) == 0 && rmdir(gone.c_str()) == 0;
        const std::string raised = MessageOf([] { CDir::GetPwd(); });
        return ready && raised == "CDir::GetPwd - failed getting current working dir\n  error code = 2\n"
                                  "  error desc = the current working directory has been unlinked\n"
                   ? 0
                   : 1;
    });
    EXPECT_TRUE(end.exited) << "the child died";
    EXPECT_NE(end.status, 2) << "a working directory longer than PATH_MAX was not found whole";
    EXPECT_NE(end.status, 1) << "a working directory that is gone was not told as such";
}

// The whole-file forms relative to a directory, for each kind of content,
// with the names a user writes.
TEST(DirOps, WholeFilesByNamesRelativeToADirectory)
{
    const Tree t;
    const CDir dir(t.At("d"), true);
    CDir::MakeDir(t.At("e"));
    struct Row {
        const char* name;
        const char* file;
    } rows[] = {{"plain.txt", "d/plain.txt"}, {"./dot.txt", "d/dot.txt"}, {"../e/up.txt", "e/up.txt"}};
    for (const Row& r : rows) {
        dir.WriteFileIn(r.name, stringEx("narrow"));
        EXPECT_EQ(t.Get(r.file), "narrow") << r.name;
        stringEx narrow;
        dir.ReadFileIn(r.name, narrow);
        EXPECT_EQ(narrow, stringEx("narrow")) << r.name;
        dir.WriteFileIn(r.name, wstringEx(L"w"));
        wstringEx wide;
        dir.ReadFileIn(r.name, wide);
        EXPECT_EQ(wide, wstringEx(L"w")) << r.name;
        dir.WriteFileIn(r.name, byteEx(reinterpret_cast<const unsigned char*>("\xFF\0"), 2), false, true);
        byteEx bytes;
        dir.ReadFileIn(r.name, bytes);
        EXPECT_EQ(bytes.size(), sizeof(wchar_t) + 2) << r.name;
    }
}

// The directory that the test's step hook makes read-only again.
std::string g_relock;

void RelockAtStep(const char* step)
{
    if (std::string(step) == "RemoveFile.writable")
        chmod(g_relock.c_str(), 0500);
}

// Force removes a file that the system refuses to remove for want of leave:
// the file and its directory are made writable, and get their modes back.
// Where that cannot be done, the removal's own failure is told, and no mode
// stays changed. A super-user is refused nothing, so when the test runs as
// one the rows run in a child that has become "nobody", after the parent has
// made what only a super-user can (a directory of its own holding a file of
// nobody's).
TEST(DirOps, ForceRemovesWhatLeaveRefuses)
{
    const KaruTest::Deadline deadline(std::chrono::seconds(30), "removals as another user");
    const Tree t;
    const bool root = geteuid() == 0;
    constexpr uid_t kNobody = 65534;
    chmod(t.root.c_str(), 0777);
    if (root) {
        t.Put("sealed/theirs.txt", "x");
        chmod((t / "sealed").c_str(), 0755);
        chmod((t / "sealed/theirs.txt").c_str(), 0400);
        ASSERT_EQ(chown((t / "sealed/theirs.txt").c_str(), kNobody, kNobody), 0);
    }
    auto rows = [&t, root]() -> std::string {
        auto mode = [](const std::string& path) {
            struct stat status;
            return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0u;
        };
        auto locked = [&t](const std::string& dir) {
            CDir::MakeDir(t.At(dir));
            t.Put(dir + "/file.txt", "x");
            chmod((t / (dir + "/file.txt")).c_str(), 0400);
            chmod((t / dir).c_str(), 0500);
            return t / (dir + "/file.txt");
        };
        auto refusal = [](const std::string& file, bool force) {
            const std::string raised = MessageOf([&] { CDir::RemoveFile(stringEx(file.c_str()), force); });
            return raised.rfind("CDir::RemoveFile - failed remove file\n", 0) == 0 &&
                   raised.find("permission denied") != std::string::npos;
        };
        // Without force the refusal stands, and nothing changes.
        const std::string first = locked("locked");
        if (!refusal(first, false) || !CDir::Exists(first.c_str()) || mode(first) != 0400 ||
            mode(t / "locked") != 0500)
            return "without force";
        // With force the file goes, and its directory is as it was.
        const std::string forced = MessageOf([&] { CDir::RemoveFile(stringEx(first.c_str()), true); });
        if (forced != "(nothing raised)" || CDir::Exists(first.c_str()) || mode(t / "locked") != 0500)
            return "with force";
        // The directory is locked again after it was made writable: the
        // removal's own failure, and both modes back.
        const std::string second = locked("relocked");
        g_relock = t / "relocked";
        IMPL::SetFileStepHook(RelockAtStep);
        const bool refused = refusal(second, true);
        IMPL::SetFileStepHook(nullptr);
        if (!refused || !CDir::Exists(second.c_str()) || mode(second) != 0400 || mode(t / "relocked") != 0500)
            return "locked again";
        // A directory that is not ours to change: the file's mode back.
        if (root && (!refusal(t / "sealed/theirs.txt", true) || mode(t / "sealed/theirs.txt") != 0400))
            return "a directory of another";
        return "";
    };
    if (!root) {
        EXPECT_EQ(rows(), "");
        return;
    }
    const ChildEnd end = RunChild([&] {
        return Guarded("refusals as nobody", [&] {
            if (setgid(kNobody) != 0 || setuid(kNobody) != 0)
                return 3;
            const std::string failed = rows();
            if (!failed.empty())
                std::fprintf(stderr, "row failed: %s\n", failed.c_str());
            return failed.empty() ? 0 : 1;
        });
    });
    EXPECT_TRUE(end.exited && end.status == 0) << "a row failed, see its name above";
}

// A backup is named by the local time of the moment it is made, to the
// second, and a name without an extension still gets its ".". The stamp is
// checked against the C library's own calendar; the zone is chosen so that
// the day differs from the month, or a swap of the two would go unseen.
TEST(Backup, NamesEachCopyByTheTimeItWasMade)
{
    const time_t probe = time(nullptr);
    for (const char* zone : {"UTC", "UTC-14", "UTC+11"}) {
        setenv("TZ", zone, 1);
        tzset();
        tm local{};
        localtime_r(&probe, &local);
        if (local.tm_mday != local.tm_mon + 1)
            break;
    }
    const Tree t;
    const CDir dir(t.At("bak"), true);
    struct Row {
        const char* file;
        const char* base;
        const char* extension;
    } rows[] = {
        {"report.txt", "report", "txt"},
        {"Makefile", "Makefile", ""},
        {"archive.tar.gz", "archive.tar", "gz"},
        {".profile", "", "profile"},
    };
    for (const Row& r : rows) {
        t.Put(r.file, r.file);
        // time() may lag the clock that stamps the copy by a tick.
        const time_t before = time(nullptr);
        dir.Backup(t.At(r.file), 5);
        const time_t after = time(nullptr) + 1;
        std::set<std::string> possible;
        for (time_t at = before; at <= after; ++at) {
            tm local{};
            localtime_r(&at, &local);
            char stamp[32];
            strftime(stamp, sizeof stamp, "%Y%m%d_%H%M%S", &local);
            possible.insert(t / (std::string("bak/") + r.base + "@" + stamp + "." + r.extension));
        }
        StringVector made;
        dir.GetAllFiles(made, (std::string(r.base) + "@*." + r.extension).c_str(), false, true);
        ASSERT_EQ(made.size(), 1u) << r.file;
        EXPECT_EQ(possible.count(made[0].c_str()), 1u) << r.file << ": " << made[0].c_str();
        EXPECT_EQ(t.Get(std::string("bak/") + CDir::GetPathFilename(made[0]).c_str()), r.file);
    }
}

// What a replacement must keep of the file it replaces: its mode (a file
// only its owner may read stays so, and so does the copy parked beside it),
// its owner, its other hard links, and a symbolic link stays a link whose
// target takes the content. The transaction write and a restore alike.
TEST(TransactionWrite, KeepsTheFileItReplaces)
{
    const Tree t;
    const CDir backups(t.At("bak"), true);
    const bool root = geteuid() == 0;
    // Rows name how the new content is put in; each starts from "old".
    struct Way {
        const char* name;
        std::function<void(const std::string& file)> replace;
    } ways[] = {
        {"transaction write",
         [&t](const std::string& file) {
             CDir::TransactionWrite(t.At(file), [&t, file](CSysFile& out) {
                 // The parked copy is no easier to read than the file.
                 struct stat parked;
                 const std::string real = t.Get("real name");
                 ASSERT_EQ(stat((t / real + ".trs").c_str(), &parked), 0) << file;
                 struct stat original;
                 ASSERT_EQ(stat((t / real).c_str(), &original), 0) << file;
                 EXPECT_EQ(parked.st_mode & ~original.st_mode & 0777, 0u) << file;
                 IMPL::WriteAll(out, "new", 3);
             });
         }},
        {"restore",
         [&t, &backups](const std::string& file) {
             t.Put("bak/" + file.substr(file.rfind('/') + 1, file.rfind('.') - file.rfind('/') - 1) +
                       "@20200101_000000." + file.substr(file.rfind('.') + 1),
                   "new");
             EXPECT_TRUE(backups.Restore(t.At(file))) << file;
         }},
    };
    for (const Way& way : ways) {
        SCOPED_TRACE(way.name);
        // A private file, owned by someone else when the test may give it away.
        t.Put("dir/private.txt", "old");
        t.Put("real name", "dir/private.txt");
        chmod((t / "dir/private.txt").c_str(), 0600);
        if (root) {
            EXPECT_EQ(chown((t / "dir/private.txt").c_str(), 65534, 65534), 0);
        }
        way.replace("dir/private.txt");
        struct stat after;
        ASSERT_EQ(stat((t / "dir/private.txt").c_str(), &after), 0);
        EXPECT_EQ(after.st_mode & 07777, 0600u);
        if (root) {
            EXPECT_EQ(after.st_uid, 65534u);
            EXPECT_EQ(after.st_gid, 65534u);
        }
        EXPECT_EQ(t.Get("dir/private.txt"), "new");

        // Two names of one file both see the new content.
        t.Put("dir/linked.txt", "old");
        t.Put("real name", "dir/linked.txt");
        ASSERT_EQ(link((t / "dir/linked.txt").c_str(), (t / "dir/other name.txt").c_str()), 0);
        way.replace("dir/linked.txt");
        EXPECT_EQ(t.Get("dir/other name.txt"), "new");
        ASSERT_EQ(stat((t / "dir/linked.txt").c_str(), &after), 0);
        EXPECT_EQ(after.st_nlink, 2u);

        // A link stays a link; its target takes the content.
        t.Put("dir/target.txt", "old");
        t.Put("real name", "dir/target.txt");
        ASSERT_EQ(symlink("target.txt", (t / "dir/link.txt").c_str()), 0);
        way.replace("dir/link.txt");
        ASSERT_EQ(lstat((t / "dir/link.txt").c_str(), &after), 0);
        EXPECT_TRUE(S_ISLNK(after.st_mode));
        EXPECT_EQ(t.Get("dir/target.txt"), "new");

        for (const char* left : {"dir/private.txt.trs", "dir/linked.txt.trs", "dir/target.txt.trs", "dir/link.txt.trs"})
            EXPECT_FALSE(t.Has(left)) << left;
        std::system(("rm -rf '" + t / "dir" + "'").c_str());
    }
}

// A restore keeps the current file until a backup's content is in place:
// backups that cannot be read are passed over (a pipe among them must not
// stop it), and with none left the file is as it was.
TEST(Restore, KeepsTheFileUntilABackupIsInPlace)
{
    const KaruTest::Deadline deadline(std::chrono::seconds(30), "restore past a pipe");
    const Tree t;
    const CDir dir(t.At("bak"), true);
    t.Put("report.txt", "current");
    ASSERT_EQ(mkfifo((t / "bak/report@20200101_000003.txt").c_str(), 0600), 0);
    EXPECT_FALSE(dir.Restore(t.At("report.txt")));
    EXPECT_EQ(t.Get("report.txt"), "current");

    t.Put("bak/report@20200101_000001.txt", "oldest");
    EXPECT_TRUE(dir.Restore(t.At("report.txt")));
    EXPECT_EQ(t.Get("report.txt"), "oldest");
    EXPECT_FALSE(t.Has("bak/report@20200101_000001.txt"));  // consumed

    // A file that is not there gets the backup itself.
    t.Put("bak/report@20200101_000002.txt", "middle");
    CDir::RemoveFile(t.At("report.txt"));
    EXPECT_TRUE(dir.Restore(t.At("report.txt")));
    EXPECT_EQ(t.Get("report.txt"), "middle");

    // A dangling link among the backups ends the search: nothing changes.
    ASSERT_EQ(symlink("nowhere", (t / "bak/report@20200101_000009.txt").c_str()), 0);
    EXPECT_FALSE(dir.Restore(t.At("report.txt")));
    EXPECT_EQ(t.Get("report.txt"), "middle");
}

TEST(TransactionWrite, OldContentSurvivesAFailedWriter)
{
    const Tree t;
    const stringEx path = t.At("store.bin");
    auto writing = [](const char* content, bool fail) {
        return [=](CSysFile& file) {
            IMPL::WriteAll(file, content, std::strlen(content));
            if (fail)
                Throw<ioExp>(ExpMessage("writer failed"), 1);
        };
    };
    struct Row {
        const char* why;
        const char* content;
        bool fail;
        const char* expect;
    } rows[] = {
        {"first write fails: nothing stays", "partial", true, "(missing)"},
        {"first write", "one", false, "one"},
        {"replacement", "two", false, "two"},
        {"failed replacement keeps the old", "thr", true, "two"},
    };
    for (const Row& r : rows) {
        const std::string raised = MessageOf([&] { CDir::TransactionWrite(path, writing(r.content, r.fail)); });
        EXPECT_EQ(raised, r.fail ? "writer failed" : "(nothing raised)") << r.why;
        EXPECT_EQ(t.Get("store.bin"), r.expect) << r.why;
        EXPECT_FALSE(t.Has("store.bin.trs")) << r.why;
    }
    // A file in a directory that is not there: the open's failure, at once.
    {
        const KaruTest::Deadline deadline(std::chrono::seconds(30), "a write into a missing directory");
        EXPECT_EQ(MessageOf([&] { CDir::TransactionWrite(t.At("missing/store.bin"), writing("x", false)); })
                      .rfind("PosixOpenFile - failed open specified file\n", 0),
                  0u);
    }
    // A stale transaction file from an earlier crash does not stop a write.
    t.Put("store.bin.trs", "stale");
    CDir::TransactionWrite(path, writing("four", false));
    EXPECT_EQ(t.Get("store.bin"), "four");
    EXPECT_FALSE(t.Has("store.bin.trs"));
}

// A reader holds the file while it reads: a writer that comes meanwhile
// waits until the reader lets go, so the reader gets the old content whole
// however slowly it reads, and the writer then goes on.
std::atomic<bool> g_writerLocked{false};

void NoteWriterLocked(const char* step)
{
    if (std::strcmp(step, "TransactionWrite.locked") == 0)
        g_writerLocked = true;
}

TEST(TransactionConcurrency, AWriterWaitsForAReader)
{
    const KaruTest::Deadline deadline(std::chrono::seconds(60), "a writer waiting for a reader");
    const Tree t;
    const stringEx path = t.At("store");
    const std::string old(100000, 'o');
    t.Put("store", old);
    g_writerLocked = false;
    IMPL::SetFileStepHook(NoteWriterLocked);
    std::string written = "(not done)";
    std::thread writer;
    {
        CSysFile file = CDir::TransactionRead(path, TransactionJudge());
        ASSERT_TRUE(file.IsOpen());
        writer = std::thread([&] {
            written = MessageOf([&] { CDir::TransactionWrite(path, [](CSysFile& out) { IMPL::WriteAll(out, "new", 3); }); });
        });
        // Time for a writer that does not wait to cut the file.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_FALSE(g_writerLocked) << "the writer went on while a reader held the file";
        std::string read(old.size() + 1, '\0');
        uint64_t got = 0;
        while (const uint64_t n = file.Read(&read[got], read.size() - got))
            got += n;
        read.resize(got);
        EXPECT_TRUE(read == old) << "the reader got " << read.size() << " bytes: " << read.substr(0, 10);
    }
    writer.join();
    IMPL::SetFileStepHook(nullptr);
    EXPECT_EQ(written, "(nothing raised)");
    EXPECT_TRUE(g_writerLocked);
    EXPECT_EQ(t.Get("store"), "new");
}

// What a writer that died leaves, and how a reader or the next writer
// settles it. Here a content is whole when it ends in ".".
TEST(TransactionRead, SettlesWhatADeadWriterLeft)
{
    const Tree t;
    const stringEx path = t.At("store");
    const TransactionJudge whole = [](CSysFile& file) {
        char room[64];
        const uint64_t got = file.Read(room, sizeof room);
        return got > 0 && room[got - 1] == '.';
    };
    auto read = [&] {
        CSysFile file = CDir::TransactionRead(path, whole);
        if (!file.IsOpen())
            return std::string("(nothing)");
        char room[64];
        return std::string(room, file.Read(room, sizeof room));
    };
    const char* none = nullptr;
    struct Row {
        const char* why;
        const char* file;
        const char* parked;
        const char* parking;
        const char* read;
    } rows[] = {
        {"no transaction", "new.", none, none, "new."},
        {"died after writing", "new.", "old.", none, "new."},
        {"died while writing", "ne", "old.", none, "old."},
        {"died before writing", "", "old.", none, "old."},
        {"died while parking", "old.", none, "ol", "old."},
        {"the file went away", none, "old.", none, "old."},
        {"no file at all", none, none, none, "(nothing)"},
    };
    for (const Row& r : rows) {
        CDir::RemoveDir(t.At(""), false, true);
        CDir::MakeDir(t.At(""));
        if (r.file)
            t.Put("store", r.file);
        if (r.parked)
            t.Put("store.trs", r.parked);
        if (r.parking)
            t.Put("store.trs.new", r.parking);
        EXPECT_EQ(read(), r.read) << r.why;
        EXPECT_EQ(t.Get("store"), r.file || r.parked ? r.read : "(missing)") << r.why;
        EXPECT_FALSE(t.Has("store.trs") || t.Has("store.trs.new")) << r.why;
    }

    // A writer that finds a parked copy keeps whichever is whole as the old
    // content, and puts it back when it fails in turn.
    auto failing = [](CSysFile& file) {
        IMPL::WriteAll(file, "x", 1);
        Throw<ioExp>(ExpMessage("writer failed"), 1);
    };
    struct Stale {
        const char* why;
        const char* file;
        bool judged;
        const char* after;
    } stale[] = {
        {"the file is whole", "new.", true, "new."},
        {"the file is not", "ne", true, "old."},
        {"no judge: the parked copy is whole by its making", "new.", false, "old."},
    };
    for (const Stale& r : stale) {
        t.Put("store", r.file);
        t.Put("store.trs", "old.");
        EXPECT_EQ(MessageOf([&] { CDir::TransactionWrite(path, failing, r.judged ? whole : TransactionJudge()); }),
                  "writer failed")
            << r.why;
        EXPECT_EQ(t.Get("store"), r.after) << r.why;
        EXPECT_FALSE(t.Has("store.trs")) << r.why;
    }
}

}  // namespace

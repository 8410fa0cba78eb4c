// Files and directories: descriptor sharing and its failures, path
// normalisation, the wildcard search over a real tree, and whole-file reads
// and writes with their locking.
#include <karu/TextConv/TextConv.h>
#include <karu/file/dir.h>
#include <karu/file/sysfile.h>

#include <gtest/gtest.h>

#include "scratch_dir.h"
#include "sync/tests/forktest.h"
#include "text_helpers.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

using namespace Karu;
using namespace KaruTest;

namespace {

using Scratch = karu_test::ScratchDir;

// Runs `hold` in a child process that keeps what it took until killed;
// returns the child's pid once `hold` has run.
pid_t HoldInChild(const std::function<void()>& hold)
{
    Baton ready;
    const pid_t child = StartChild([&] {
        hold();
        ready.Pass();
        pause();
        return 0;
    });
    ready.Take();
    return child;
}

void Release(pid_t child)
{
    kill(child, SIGKILL);
    WaitChild(child);
}

TEST(Paths, NormaliseAsTextAgainstTheCurrentDirectory)
{
    const Scratch dir;
    CDir::MakeDir((dir / "x/y").c_str(), true);
    const std::string saved = CDir::GetPwd().c_str();
    ASSERT_EQ(chdir((dir / "x/y").c_str()), 0);
    setenv("HOME", "/home/user", 1);
    struct Row {
        const char *in, *out;
    } rows[] = {
        {"a/../../b", "x/b"},          // relative to <dir>/x/y
        {"/..", "/"},
        {"/a//b/./c/", "/a/b/c/"},
        {"dir/", "x/y/dir/"},
        {"./f.txt", "x/y/f.txt"},
        {"~/notes", "/home/user/notes"},
        {"/a/b/.", "/a/b"},
        {"/a/b/../../../..", "/"},
    };
    for (const Row& r : rows) {
        stringEx path(r.in);
        CDir::ConvToFullPath(path);
        const std::string expect = r.out[0] == '/' ? r.out : dir.path + "/" + r.out;
        EXPECT_EQ(std::string(path.c_str()), expect) << r.in;
    }
    ASSERT_EQ(chdir(saved.c_str()), 0);

    stringEx empty;
    EXPECT_EQ(MessageOf<dirExp>([&] { CDir::ConvToFullPath(empty); }), "CDir::ConvToFullPath - nothing to convert");
    EXPECT_EQ(CDir::GetPathDir("sub/*.txt"), stringEx("sub/"));
    EXPECT_EQ(CDir::GetPathDir("*.txt"), stringEx("./"));
    EXPECT_EQ(CDir::GetPathFilename("/a/b.txt"), stringEx("b.txt"));
}

TEST(Paths, WildcardsAreCaseSensitiveWithOneSavedStar)
{
    struct Row {
        const char *name, *pattern;
        bool match;
    } rows[] = {
        {"a.txt", "*.txt", true},   {"A.TXT", "*.txt", false}, {"a", "?", true},
        {"ab", "?", false},         {"", "*", false},           {".profile", "*", true},
        {"aXbXc", "a*b*c", true},   {"abcabd", "*abd", true},   {"abc", "a*d", false},
        {"x.tar.gz", "*.gz", true}, {"mississippi", "m*iss*ppi", true},
        // Wildcard characters in a name are plain characters there.
        {"*note.txt", "*.txt", true}, {"x?y.txt", "*.txt", true}, {"**", "*x", false}, {"a*b", "a?b", true},
    };
    for (const Row& r : rows)
        EXPECT_EQ(CDir::WildcardMatch(r.name, r.pattern), r.match) << r.name << " ~ " << r.pattern;
}

// The wide forms must hand every flag through: a swapped or dropped flag
// shows as a different list than the narrow form gives.
TEST(Search, WideFormsListWhatTheNarrowFormsList)
{
    const Scratch dir;
    for (const char* f : {"a.txt", ".h.txt", "sub/c.txt", "sub/.d/e.txt"})
        dir.Put(f, "content");
    const CDir narrowDir(dir.path.c_str());
    const CDir wideDir(SysMBtoWC(dir.path.c_str()));
    for (int flags = 0; flags < 8; ++flags) {
        const bool recursive = flags & 1, hidden = flags & 2, dots = flags & 4;
        StringVector files, dirs;
        WStringVector wideFiles, wideDirs;
        narrowDir.GetAllFiles(files, "*", recursive, hidden);
        EXPECT_EQ(wideDir.GetAllFiles(wideFiles, L"*", recursive, hidden), files.size()) << flags;
        narrowDir.GetAllSubDirs(dirs, "*", recursive, hidden, dots);
        EXPECT_EQ(wideDir.GetAllSubDirs(wideDirs, L"*", recursive, hidden, dots), dirs.size()) << flags;
        for (size_t i = 0; i < files.size() && i < wideFiles.size(); ++i)
            EXPECT_EQ(wideFiles[i], SysMBtoWC(files[i])) << flags;
        for (size_t i = 0; i < dirs.size() && i < wideDirs.size(); ++i)
            EXPECT_EQ(wideDirs[i], SysMBtoWC(dirs[i])) << flags;
    }
    wstringEx relative = L"sub//c.txt/.";
    const stringEx saved = CDir::GetPwd();
    ASSERT_EQ(chdir(dir.path.c_str()), 0);
    CDir::ConvToFullPath(relative);
    ASSERT_EQ(chdir(saved.c_str()), 0);
    EXPECT_EQ(relative, SysMBtoWC((dir.path + "/sub/c.txt").c_str()));
    EXPECT_EQ(CDir::GetPathDir(wstringEx(L"sub/*.txt")), wstringEx(L"sub/"));
    EXPECT_EQ(CDir::GetPathFilename(wstringEx(L"/a/b.txt")), wstringEx(L"b.txt"));
}

TEST(Search, FindsFilesByPatternDepthAndVisibility)
{
    const Scratch dir;
    for (const char* f : {"a.txt", "B.TXT", ".hidden.txt", "sub/c.txt", "sub/deep/d.txt", ".git/e.txt", "x"})
        dir.Put(f, "content");
    CDir::MakeDir((dir / "dir.txt").c_str());  // a directory is never listed as a file
    ASSERT_EQ(symlink((dir / "a.txt").c_str(), (dir / "link.txt").c_str()), 0);

    using Names = std::vector<std::string>;
    struct Row {
        const char* pattern;
        bool recursive, hidden;
        Names expect;
    } rows[] = {
        {"*.txt", false, false, {"a.txt", "link.txt"}},
        {"", false, false, {"B.TXT", "a.txt", "link.txt", "x"}},
        {"?", false, false, {"x"}},
        {"*.txt", false, true, {".hidden.txt", "a.txt", "link.txt"}},
        {"*.txt", true, false, {"a.txt", "link.txt", "sub/c.txt", "sub/deep/d.txt"}},
        {"*.txt", true, true, {".git/e.txt", ".hidden.txt", "a.txt", "link.txt", "sub/c.txt", "sub/deep/d.txt"}},
        {"sub/*.txt", false, false, {"sub/c.txt"}},
        {"sub/", false, false, {"sub/c.txt"}},
    };
    for (const Row& r : rows) {
        StringVector found;
        CDir(dir.path.c_str()).GetAllFiles(found, r.pattern, r.recursive, r.hidden);
        EXPECT_EQ(dir.Relative(found), r.expect) << r.pattern;
    }

    // A dangling link ends the whole search, whatever its name.
    ASSERT_EQ(symlink((dir / "gone").c_str(), (dir / "dangling").c_str()), 0);
    StringVector found;
    const std::string m = MessageOf<dirExp>([&] { CDir(dir.path.c_str()).GetAllFiles(found, "*.txt"); });
    EXPECT_EQ(m.rfind("CDir::GetAllFiles - failed find files\n  base dir = " + dir.path + "/\n"
                      "@ PosixStat - failed retrive the status of giving path\n",
                      0),
              0u)
        << m;
    EXPECT_NE(m.find("  error desc = path does not exists\n"), std::string::npos) << m;
    // A missing directory in the pattern is reported, with the working directory.
    EXPECT_THROW(CDir(dir.path.c_str()).GetAllFiles(found, "nowhere/*"), dirExp);
}

TEST(SysFile, FailuresCarryTheirMessages)
{
    const Scratch dir;
    dir.Put("f", "data");
    struct Row {
        const char* name;
        void (*op)(const Scratch&);
        std::string expectStart;
    } rows[] = {
        {"missing file",
         [](const Scratch& d) { CSysFile((d / "no/such").c_str(), O_RDONLY); },
         "PosixOpenFile - failed open specified file\n  file path  = " + (dir / "no/such") +
             "\n  error code = 2\n  error desc = file dose not exists or can't be created\n"},
        {"second exclusive opener",
         [](const Scratch& d) {
             CSysFile first((d / "f").c_str(), O_RDONLY, kShareExclusive);
             CSysFile second((d / "f").c_str(), O_RDONLY, kShareExclusive);
         },
         "SetShareMode - failed set file sharing mode\n  file path    = " + (dir / "f") +
             "\n  sharing mode = exclusive\n  error code   = 11\n  error desc   = sharing mode conflict\n"},
        {"write on a read-only descriptor",
         [](const Scratch& d) {
             CSysFile f((d / "f").c_str(), O_RDONLY);
             f.Write("x", 1);
         },
         "CSysFile::Read - failed reading file\n  file path  = " + (dir / "f") +
             "\n  error code = 9\n  error desc = invalid file descriptor\n"},
        {"unknown console", [](const Scratch&) { CSysFile().Open(3u); }, "CSysFile::Open - unknown console type: 3"},
        {"empty name",
         [](const Scratch&) { CSysFile("", O_RDONLY); },
         "CSysFile::Open - failed determine the file path to open\n  file name  = \n"
         "@ CDir::ConvToFullPath - nothing to convert"},
        {"seek on a pipe",
         [](const Scratch&) {
             int fds[2];
             ASSERT_EQ(pipe(fds), 0);
             PosixSeekFile(fds[0], 0, SEEK_SET);
         },
         "PosixSeekFile - error seek file pointer\n  sys error  = 29\n"
         "  error desc = the fildes argument is associated with a pipe, fifo, or socket\n"},
    };
    for (const Row& r : rows)
        EXPECT_EQ(MessageOf([&] { r.op(dir); }).substr(0, r.expectStart.size()), r.expectStart) << r.name;
}

TEST(SysFile, DescriptorsAreSharedAndConsolesNeverClosed)
{
    const Scratch dir;
    dir.Put("f", "0123456789");
    int fd;
    {
        CSysFile a((dir / "f").c_str(), O_RDONLY);
        fd = a.Descriptor();
        CSysFile b = a;  // shares descriptor and position
        char c;
        a.Read(&c, 1);
        b.Read(&c, 1);
        EXPECT_EQ(c, '1');
        CSysFile dup;
        a.Duplicate(dup);
        EXPECT_NE(dup.Descriptor(), fd);
        EXPECT_EQ(dup.Path(), a.Path());
    }
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);  // the last copy closed it
    {
        CSysFile out;
        out.Open(kConsoleOut);
        CSysFile copy = out;
    }
    EXPECT_NE(fcntl(1, F_GETFD), -1);

    CSysFile f((dir / "f").c_str(), O_RDWR);
    const CTime when = CTime::FromFields(2001, 2, 3, 4, 5, 6, 0, 0);
    f.SetTime(nullptr, nullptr, &when);
    CTime created, accessed, modified;
    f.GetTime(&created, &accessed, &modified);
    EXPECT_EQ(modified, when);
    EXPECT_FALSE(created.IsValid());
}

TEST(SysFile, RangeLocksDoNotWaitWhenAsked)
{
    const Scratch dir;
    dir.Put("f", "0123456789");
    const pid_t child = HoldInChild([&] {
        static CSysFile f((dir / "f").c_str(), O_RDWR);
        f.Lock(0, 5);
    });
    CSysFile f((dir / "f").c_str(), O_RDWR);
    EXPECT_FALSE(f.TryLock(0, 5));
    EXPECT_TRUE(f.TryLock(5, 5));
    Release(child);
    EXPECT_TRUE(f.TryLock(0, 5));
}

TEST(WholeFile, WritesInPlaceAndReadsWhole)
{
    const Scratch dir;
    const stringEx path((dir / "w").c_str());
    struct Step {
        const char* content;
        bool append;
        const char* after;
    } steps[] = {
        {"first version", false, "first version"},
        {"v2", false, "v2"},           // the old tail is cut off
        {"+more", true, "v2+more"},    // append keeps the old content
        {"", false, ""},               // empty content leaves length 0
    };
    for (const Step& s : steps) {
        CDir::WriteFile(path, stringEx(s.content), false, s.append);
        EXPECT_EQ(dir.Get("w"), s.after);
        byteEx back;
        CDir::ReadFile(path, back);
        EXPECT_EQ(TextOf(back), s.after);
    }
    // Wide text goes out as its units.
    CDir::WriteFile(path, wstringEx(L"\u00E9x"));
    wstringEx wide;
    CDir::ReadFile(path, wide);
    EXPECT_EQ(wide, wstringEx(L"\u00E9x"));

    stringEx data("stale");
    EXPECT_EQ(MessageOf<dirExp>([&] { CDir::ReadFile("", data); }), "CDir::ReadFile - read what ?");
    EXPECT_TRUE(data.empty());
    EXPECT_THROW(CDir::WriteFile("", stringEx("x")), dirExp);
    EXPECT_THROW(CDir::ReadFile(dir.path.c_str(), data), sysfileExp);  // a directory
}

TEST(WholeFile, AWriterFailsAtOnceOnALockedFile)
{
    const Scratch dir;
    dir.Put("held", "original");
    const pid_t child = HoldInChild([&] { static CSysFile holder((dir / "held").c_str(), O_RDONLY, kShareShared); });
    EXPECT_THROW(CDir::WriteFile((dir / "held").c_str(), stringEx("new")), sysfileExp);
    EXPECT_EQ(dir.Get("held"), "original");
    Release(child);
}

}  // namespace

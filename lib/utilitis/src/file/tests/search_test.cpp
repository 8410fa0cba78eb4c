// The search over trees users have: directory parts with "." and "..",
// names holding wildcard characters, broken links and links that lead back
// up the tree, trees deeper than the descriptors a process may hold, the
// two orders of the results, and the regular-expression forms.
#include <karu/TextConv/TextConv.h>
#include <karu/file/dir.h>
#include <karu/regex/regexFront.h>

#include <gtest/gtest.h>

#include "scratch_dir.h"
#include "sync/tests/forktest.h"
#include "text_helpers.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

using namespace Karu;

namespace {

using Names = std::vector<std::string>;

// A scratch tree: files with some content, directories and links.
class Tree : public karu_test::ScratchDir {
public:
    void Put(const std::string& name) const { ScratchDir::Put(name, "content"); }
    void Link(const std::string& target, const std::string& name) const
    {
        ASSERT_EQ(symlink(target.c_str(), (*this / name).c_str()), 0) << name;
    }
};

// Exposes the directory twin of the regular-expression search.
struct SearchDir : CDir {
    using CDir::CDir;
    using CDir::_GetAllSubDirsRegEx;
};

TEST(SearchPatterns, DirectoryPartsWithDotsAndWildcardCharactersInNames)
{
    const Tree t;
    for (const char* f : {"a.txt", "*note.txt", "x?y.txt", "b.dat", "sub/c.txt", "sub/deep/d.txt"})
        t.Put(f);
    const std::string base = t.path.substr(t.path.rfind('/') + 1);  // "karu-search-..."
    struct Row {
        std::string pattern;
        Names expect;
    } rows[] = {
        // "./" is a directory part like any other.
        {"./a.txt", {"a.txt"}},
        {"./*.txt", {"*note.txt", "a.txt", "x?y.txt"}},
        {".//a.txt", {"a.txt"}},
        // ".." goes up, also through a directory that exists and one that does not.
        {"sub/../a.txt", {"a.txt"}},
        {"sub/deep/../../*.dat", {"b.dat"}},
        {"../" + base + "/a.txt", {"a.txt"}},
        {"sub/./c.txt", {"sub/c.txt"}},
        // A star or question mark inside a name is just a character there.
        {"*.txt", {"*note.txt", "a.txt", "x?y.txt"}},
        {"\\*note.txt", {}},
        {"*note.txt", {"*note.txt"}},
        {"x?y.txt", {"x?y.txt"}},
        {"?note.txt", {"*note.txt"}},
    };
    for (const Row& r : rows) {
        StringVector found;
        CDir(stringEx(t.path.c_str())).GetAllFiles(found, stringEx(r.pattern.c_str()));
        EXPECT_EQ(t.Relative(found), r.expect) << r.pattern;
    }
}

TEST(SearchProblems, BrokenEntriesAreToldAndSkippedOrEndTheSearch)
{
    const Tree t;
    for (const char* f : {"a.txt", "sub/b.txt", "sub/deep/c.txt"})
        t.Put(f);
    t.Link(t / "gone", "sub/dangling.txt");
    t.Link("loop2", "sub/deep/loop1");
    t.Link("loop1", "sub/deep/loop2");
    t.Link("..", "sub/up");                  // back up the tree, relative
    t.Link(t.path, "sub/deep/top");          // back to the start, absolute
    t.Link(t / "sub", "sideways");           // to a directory searched anyway

    // With a handler every broken entry is told once and the rest is found,
    // each file once although links lead to it several ways.
    Names told;
    const SearchProblemHandler tell = [&](const stringEx& path, const karuExp& problem) {
        told.push_back(std::string(path.c_str()).substr(t.path.size() + 1));
        EXPECT_NE(std::string(problem.message.c_str()).find("PosixStat - failed retrive the status"),
                  std::string::npos);
        return true;
    };
    StringVector found;
    CDir(stringEx(t.path.c_str())).GetAllFiles(found, "*.txt", true, true, 0, tell);
    const Names all = t.Relative(found);
    EXPECT_EQ(all.size(), 3u) << ::testing::PrintToString(all);
    for (const char* name : {"a.txt", "b.txt", "c.txt"})
        EXPECT_EQ(std::count_if(all.begin(), all.end(),
                                [&](const std::string& f) { return f.substr(f.rfind('/') + 1) == name; }),
                  1)
            << name;
    // "sub" or "sideways", whichever the walk came to first.
    for (std::string& name : told)
        name = name.substr(name.rfind('/') + 1);
    std::sort(told.begin(), told.end());
    EXPECT_EQ(told, (Names{"dangling.txt", "loop1", "loop2"}));

    // The directory search enters each directory once too, and lists the
    // links to directories as the directories they are.
    StringVector dirs;
    told.clear();
    CDir(stringEx(t.path.c_str())).GetAllSubDirs(dirs, "*", true, true, false, 0, tell);
    EXPECT_EQ(dirs.size(), 5u) << ::testing::PrintToString(t.Relative(dirs));

    // Nor is it told of an entry that could not have been listed: a hidden
    // name left out, or a name that does not match where the search does
    // not go down.
    t.Link(t / "gone", "sub/.hidden.txt");
    told.clear();
    StringVector one;
    CDir(stringEx((t / "sub").c_str())).GetAllFiles(one, "b.txt", false, true, 0, tell);
    CDir(stringEx((t / "sub").c_str())).GetAllFiles(one, "*.txt", true, false, 0, tell);
    std::sort(told.begin(), told.end());
    EXPECT_EQ(told, (Names{"sub/dangling.txt", "sub/deep/loop1", "sub/deep/loop2"}))
        << "the first search could list none of them, the second all but the hidden one";

    // A handler that says stop ends the search with the problem, wrapped,
    // and what was found before it stays.
    const SearchProblemHandler stop = [](const stringEx&, const karuExp&) { return false; };
    StringVector partial;
    EXPECT_EQ(KaruTest::MessageOf<dirExp>([&] {
                  CDir(stringEx((t / "sub").c_str())).GetAllFiles(partial, "*.txt", false, true, 0, stop);
              }).rfind("CDir::GetAllFiles - failed find files\n", 0),
              0u);

    // Without a handler a broken entry ends the search as before, and the
    // wide form keeps what it had found just as the narrow one does.
    for (int run = 0; run < 2; ++run) {
        StringVector narrow;
        WStringVector wide;
        const CDir sub(stringEx((t / "sub").c_str()));
        EXPECT_THROW(sub.GetAllFiles(narrow, "*", true, true), dirExp);
        EXPECT_THROW(sub.GetAllFiles(wide, L"*", true, true), dirExp);
        EXPECT_EQ(wide.size(), narrow.size());
        WStringVector wideDirs;
        StringVector narrowDirs;
        EXPECT_THROW(sub.GetAllSubDirs(narrowDirs, "*", true, true), dirExp);
        EXPECT_THROW(sub.GetAllSubDirs(wideDirs, L"*", true, true), dirExp);
        EXPECT_EQ(wideDirs.size(), narrowDirs.size());
    }
}

// Runs `body` in a child, where a walk that never ends fails at the
// deadline instead of hanging; true when `body` held.
bool InChild(const std::function<bool()>& body)
{
    const KaruTest::ChildEnd end = KaruTest::RunChild([&] { return body() ? 0 : 1; }, 20000);
    return end.exited && end.status == 0;
}

TEST(SearchDepth, DeeperThanTheDescriptorsAProcessMayHold)
{
    // 60 levels with two subdirectories each level, and 24 descriptors: the
    // walk gives up the shallowest ones and comes back to them by path.
    const Tree t;
    std::string path;
    for (int level = 0; level < 60; ++level) {
        if (level)
            path += "/";
        path += "d";
        t.Put(path + "/f.txt");
        t.Put(path + "/side/g.txt");
    }
    const bool ok = InChild([&] {
        const rlimit few = {24, 24};
        if (setrlimit(RLIMIT_NOFILE, &few) != 0)
            return false;
        int failures = 0;
        const SearchProblemHandler count = [&](const stringEx&, const karuExp&) { return ++failures, true; };
        StringVector files, regexFiles;
        CDir(stringEx(t.path.c_str())).GetAllFiles(files, "*.txt", true, true, 0, count);
        CDir(stringEx(t.path.c_str())).GetAllFilesRegEx(regexFiles, "^[fg]\\.txt$", true, true, count);
        if (files.size() != 120 || regexFiles.size() != 120 || failures != 0)
            std::fprintf(stderr, "found %zu and %zu, %d problems\n", files.size(), regexFiles.size(), failures);
        return files.size() == 120 && regexFiles.size() == 120 && failures == 0;
    });
    EXPECT_TRUE(ok) << "every file found, no problem told, with few descriptors";
}

TEST(SearchOrder, ChildrenFirstForWildcardsDirectlyForExpressions)
{
    // The wildcard search lists a directory's children before any
    // grandchild; the expression search enters each subdirectory in turn.
    const Tree t;
    for (const char* f : {"r.txt", "a/a.txt", "a/x/ax.txt", "b/b.txt", "b/y/by.txt"})
        t.Put(f);
    StringVector wild, regex;
    CDir(stringEx(t.path.c_str())).GetAllFiles(wild, "*.txt", true, true);
    CDir(stringEx(t.path.c_str())).GetAllFilesRegEx(regex, "txt$", true, true);
    const Names w = t.Relative(wild, false), r = t.Relative(regex, false);
    ASSERT_EQ(w.size(), 5u);
    ASSERT_EQ(r.size(), 5u);
    const auto at = [](const Names& names, const std::string& name) {
        return std::find(names.begin(), names.end(), name) - names.begin();
    };
    EXPECT_EQ(w[0], "r.txt");
    EXPECT_LT(std::max(at(w, "a/a.txt"), at(w, "b/b.txt")), std::min(at(w, "a/x/ax.txt"), at(w, "b/y/by.txt")))
        << ::testing::PrintToString(w);
    EXPECT_EQ(r[0], "r.txt");
    // Whichever of a and b comes first, its own subtree follows it whole.
    const bool aFirst = at(r, "a/a.txt") < at(r, "b/b.txt");
    EXPECT_EQ(at(r, aFirst ? "a/x/ax.txt" : "b/y/by.txt"), at(r, aFirst ? "a/a.txt" : "b/b.txt") + 1)
        << ::testing::PrintToString(r);
}

TEST(SearchRegex, ExpressionsOnTheLastComponent)
{
    const Tree t;
    for (const char* f : {"a.txt", "b.TXT", ".h.txt", "sub/c.txt", "sub/inner/d.log"})
        t.Put(f);
    const SearchDir dir(stringEx(t.path.c_str()));
    struct Row {
        const char* expression;
        bool recursive, hidden;
        Names files, dirs;
    } rows[] = {
        {"\\.txt$", false, false, {"a.txt"}, {}},
        {"\\.txt$", false, true, {".h.txt", "a.txt"}, {}},
        {"\\.(txt|log)$", true, false, {"a.txt", "sub/c.txt", "sub/inner/d.log"}, {}},
        {"^(sub|inner)$", true, false, {}, {"sub", "sub/inner"}},
        {"\\w", false, false, {"a.txt", "b.TXT"}, {"sub"}},  // the tool's shorthand works here too
    };
    for (const Row& r : rows) {
        StringVector files, dirs;
        dir.GetAllFilesRegEx(files, r.expression, r.recursive, r.hidden);
        dir._GetAllSubDirsRegEx(dirs, r.expression, r.recursive, r.hidden);
        EXPECT_EQ(t.Relative(files), r.files) << r.expression;
        EXPECT_EQ(t.Relative(dirs), r.dirs) << r.expression;
        WStringVector wide;
        dir.GetAllFilesRegEx(wide, SysMBtoWC(stringEx(r.expression)), r.recursive, r.hidden);
        EXPECT_EQ(wide.size(), files.size()) << r.expression;
    }
    StringVector dots;
    dir._GetAllSubDirsRegEx(dots, "^\\.", false, false, true);
    EXPECT_EQ(t.Relative(dots), (Names{".", ".."})) << "listed with includeDots, never entered";

    struct Refusal {
        const char* why;
        std::function<void()> op;
        const char* message;
    } refusals[] = {
        {"empty expression", [&] { StringVector v; dir.GetAllFilesRegEx(v, ""); },
         "CDir::GetAllFilesRegEx - nothing to find"},
        {"expression that does not compile", [&] { StringVector v; dir.GetAllFilesRegEx(v, "a("); },
         "CDir::GetAllFilesRegEx - invalid regex handle"},
        {"null handle", [&] { StringVector v; dir.GetAllFilesRegEx(v, RegexHandle()); },
         "CDir::GetAllFilesRegEx - invalid regex handle"},
        {"empty expression, directories", [&] { StringVector v; dir._GetAllSubDirsRegEx(v, ""); },
         "CDir::_GetAllSubDirsRegEx - nothing to find"},
        {"null handle, directories", [&] { StringVector v; dir._GetAllSubDirsRegEx(v, RegexHandle()); },
         "CDir::_GetAllSubDirsRegEx - invalid regex handle"},
    };
    for (const Refusal& r : refusals)
        EXPECT_EQ(KaruTest::MessageOf<dirExp>(r.op), r.message) << r.why;
}

}  // namespace

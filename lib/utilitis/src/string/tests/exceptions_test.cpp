// The exception family: the class tree, message layout with wrapped causes,
// errno descriptions, and declared-exception contracts.
#include <karu/string/karuExp.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <unistd.h>

using namespace Karu;

namespace {

template <class Thrown, class Catcher>
bool Catches()
{
    try {
        throw Thrown("m", 1);
    } catch (const Catcher&) {
        return true;
    } catch (...) {
        return false;
    }
}

TEST(Exceptions, BranchesCatchTheirOwnSubtrees)
{
    struct Row {
        const char* name;
        bool (*test)();
        bool expect;
    } rows[] = {
        {"ioExp catches dirExp", Catches<dirExp, ioExp>, true},
        {"ioExp catches sysfileExp", Catches<sysfileExp, ioExp>, true},
        {"ioExp catches pipeExp", Catches<pipeExp, ioExp>, true},
        {"sysfileExp catches pipeExp", Catches<pipeExp, sysfileExp>, true},
        {"ioExp misses tconvExp", Catches<tconvExp, ioExp>, false},
        {"dirExp misses fileExp (siblings)", Catches<fileExp, dirExp>, false},
        {"tconvExp catches libicuExp", Catches<libicuExp, tconvExp>, true},
        {"syncExp catches semExp", Catches<semExp, syncExp>, true},
        {"auxExp catches csvExp", Catches<csvExp, auxExp>, true},
        {"karuExp catches regExp", Catches<regExp, karuExp>, true},
        {"karuExp catches logExp", Catches<logExp, karuExp>, true},
        {"utilExp misses nothing of ours", Catches<shmemExp, utilExp>, true},
    };
    for (const Row& r : rows)
        EXPECT_EQ(r.test(), r.expect) << r.name;

    bool standardPassed = false;
    try {
        try {
            throw std::bad_alloc();
        } catch (const karuExp&) {
            FAIL() << "bad_alloc is not in the family";
        }
    } catch (const std::bad_alloc&) {
        standardPassed = true;
    }
    EXPECT_TRUE(standardPassed);
}

TEST(Exceptions, MessagesChainTopDown)
{
    stringEx kept;
    try {
        try {
            try {
                Throw<sysfileExp>(ExpMessage("CSysFile::Open - failed open file\n")
                                      .Detail("file name", stringEx("a.txt"))
                                      .Errno(ENOENT, {{ENOENT, "the file does not exist"}}),
                                  4);
            } catch (const karuExp& e) {
                Throw<dirExp>(ExpMessage("CDir::ReadFile - failed read file\n")
                                  .Detail("file path", stringEx("/tmp/a.txt"))
                                  .Cause(e),
                              3);
            }
        } catch (const karuExp& e) {
            Throw<utilExp>(ExpMessage("Tool::Run - failed").Cause(e), 1);
        }
    } catch (const karuExp& e) {
        const karuExp copy = e;  // a copy outlives the catch block
        kept = copy.message;
        EXPECT_EQ(copy.code, 1);
    }
    EXPECT_EQ(kept, stringEx("Tool::Run - failed\n"
                             "@ CDir::ReadFile - failed read file\n"
                             "  file path = /tmp/a.txt\n"
                             "@ CSysFile::Open - failed open file\n"
                             "  file name  = a.txt\n"
                             "  error code = 2\n"
                             "  error desc = the file does not exist\n"));
    // An errno outside the table reads as unexpected, with the system's text.
    EXPECT_EQ(ErrnoDescription(EACCES, {{EACCES, "permission denied"}}), stringEx("permission denied"));
    EXPECT_EQ(ErrnoDescription(ENOENT, {{EACCES, "permission denied"}}),
              stringEx("unexpect system error: No such file or directory"));
}

// Functions with declared lists, as library code writes them.
void ThrowsDir() try { throw dirExp("CDir::X - failed", 2); } KARU_THROWS(fileExp, dirExp)
void ThrowsTconv() try { throw tconvExp("TTextConv::X - failed", 4); } KARU_THROWS(fileExp, dirExp)
void ThrowsSub() try { throw pipeExp("CPipe::X - failed", 35); } KARU_THROWS(fileExp)
void ThrowsNothing() try { throw std::bad_alloc(); } KARU_THROWS()

void ExitWithTheMessage()
{
    try {
        throw;
    } catch (const karuExp& e) {
        std::fprintf(stderr, "unexpected: %s", e.message.c_str());
    } catch (...) {
        std::fprintf(stderr, "unexpected: foreign");
    }
    _exit(3);
}

TEST(Exceptions, ContractsLetListedClassesThroughAndSendOthersToTheHandler)
{
    EXPECT_THROW(ThrowsDir(), dirExp);
    EXPECT_THROW(ThrowsSub(), pipeExp);  // a subclass of a listed class passes
    EXPECT_EXIT(
        {
            SetUnexpectedHandler(ExitWithTheMessage);
            ThrowsTconv();
        },
        ::testing::ExitedWithCode(3), "unexpected: TTextConv::X - failed");
    EXPECT_EXIT(
        {
            SetUnexpectedHandler(ExitWithTheMessage);
            ThrowsNothing();
        },
        ::testing::ExitedWithCode(3), "unexpected: foreign");
    // With no handler installed a broken contract terminates.
    EXPECT_DEATH(ThrowsTconv(), "");
}

}  // namespace

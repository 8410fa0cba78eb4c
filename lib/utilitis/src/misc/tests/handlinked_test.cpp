// A program linked with the static library by hand, with the compiler's own
// command and no help from the build system, still gets the fatal-error
// handler: a fault ends it with one fatal record and status 255, and a write
// to a closed pipe is an error rather than a signal.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>
#include <string>

#include "sync/tests/forktest.h"

using namespace KaruTest;

namespace {

const char* const kProgram = R"(#include <karu/log/log.h>

#include <unistd.h>

#include <cerrno>
#include <cstring>

int main(int argc, char** argv)
{
    if (argc != 3)
        return 1;
    auto log = std::make_shared<Karu::CLog>();
    log->PushLogger(std::make_shared<Karu::CFileLogger<Karu::CSysFile>>(Karu::stringEx(argv[1])));
    Karu::CLog::SetInstance(log);
    if (std::strcmp(argv[2], "fault") == 0) {
        volatile uintptr_t nowhere = 8;
        *reinterpret_cast<volatile int*>(nowhere) = 1;
    }
    if (std::strcmp(argv[2], "pipe") == 0) {
        int ends[2];
        if (pipe(ends) != 0)
            return 2;
        close(ends[0]);
        return write(ends[1], "x", 1) < 0 && errno == EPIPE ? 0 : 3;
    }
    return 1;
}
)";

TEST(ErrorHandler, AProgramLinkedByHandGetsTheHandler)
{
    const std::string dir = testing::TempDir() + "karu_handlinked/";
    mkdir(dir.c_str(), 0755);
    std::ofstream(dir + "main.cpp") << kProgram;
    const std::string program = dir + "program";
    const std::string command = std::string(KARU_TEST_CXX) + " " + KARU_TEST_CXX_FLAGS + " -std=c++20 -I" +
                                KARU_TEST_INCLUDE + " " + dir + "main.cpp " + KARU_TEST_LIBRARY +
                                " -lpthread -ldl -o " + program;
    ASSERT_EQ(system(command.c_str()), 0) << command;

    struct Row {
        const char* why;
        const char* mode;
        int status;
        const char* record;  // in the log, or null for none
    } rows[] = {
        {"a fault ends with one fatal record", "fault", 255,
         "][Fatal]   (util.errhnd) unrecoverable underlaying error ocurred: invalid memory reference\n"},
        {"a write to a closed pipe is an error, not a signal", "pipe", 0, nullptr},
    };
    for (const Row& row : rows) {
        const std::string log = dir + row.mode + ".log";
        unlink(log.c_str());
        const ChildEnd end = RunChild(
            [&] {
                execl(program.c_str(), program.c_str(), log.c_str(), row.mode, static_cast<char*>(nullptr));
                return 98;
            },
            20000);
        EXPECT_TRUE(end.exited) << row.why << ": signal " << end.signal;
        EXPECT_EQ(end.status, row.status) << row.why;
        const std::string text = ReadAll(log);
        if (row.record)
            EXPECT_NE(text.find(row.record), std::string::npos) << row.why << ":\n" << text;
        else
            EXPECT_EQ(text, "") << row.why;
    }
}

}  // namespace

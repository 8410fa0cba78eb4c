// The exit table reaps the library's own children and nobody else's: the
// program's other children stay for their waiters, and every status of the
// library's children is kept until it is read, however many end unread.
#include <karu/process/process.h>

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

#include "sync/tests/forktest.h"

using namespace Karu;
using namespace KaruTest;

namespace {

TEST(ExitTableConcurrency, ReapsOnlyTheLibrarysChildrenAndKeepsEveryStatus)
{
    const ChildEnd end = RunScenario([] {
        CExitTbl table;
        // Another child of the program: its status is its waiter's.
        FILE* pipe = popen("exit 3", "r");
        if (!pipe || WEXITSTATUS(pclose(pipe)) != 3)
            return 1;
        const pid_t plain = fork();
        if (plain == 0)
            _exit(4);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));  // its end is signalled meanwhile
        int status = 0;
        if (waitpid(plain, &status, 0) != plain || WEXITSTATUS(status) != 4)
            return 2;

        // More library children than any fixed table would hold, all ended before anyone asks.
        constexpr int kChildren = 300;
        std::vector<CProcess> children(kChildren);
        for (int i = 0; i < kChildren; ++i)
            children[i].Create("/bin/sh", {stringEx("sh"), stringEx("-c"), stringEx::Format("exit %d", i % 100)});
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        for (int i = 0; i < kChildren; ++i)
            if (!children[i].Wait(5000) || children[i].GetExitCode() != i % 100)
                return 10;
        return 0;
    });
    EXPECT_FALSE(end.timedOut);
    EXPECT_EQ(end.status, 0) << "1: popen's status lost, 2: a plain child reaped, 10: a status lost";
}

}  // namespace

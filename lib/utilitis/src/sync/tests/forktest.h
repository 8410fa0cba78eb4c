// Helpers for tests that need a second process: run a function in a forked
// child and read how it ended, and a one-byte pipe to put the two in step.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <string>

namespace KaruTest {

// How a child ended: its exit status, or the signal that killed it.
struct ChildEnd {
    bool exited = false;
    int status = -1;
    int signal = 0;
};

// Runs `body` in a child; its result is the child's exit status. The child
// leaves through _exit, so no test machinery of the parent runs twice.
// An exception that escapes `body` ends the child with status 99.
inline pid_t StartChild(const std::function<int()>& body)
{
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        int code = 99;
        try {
            code = body();
        } catch (...) {
        }
        _exit(code);
    }
    return pid;
}

inline ChildEnd WaitChild(pid_t pid)
{
    int raw = 0;
    while (waitpid(pid, &raw, 0) < 0) {
    }
    ChildEnd end;
    end.exited = WIFEXITED(raw);
    end.status = end.exited ? WEXITSTATUS(raw) : -1;
    end.signal = WIFSIGNALED(raw) ? WTERMSIG(raw) : 0;
    return end;
}

inline ChildEnd RunChild(const std::function<int()>& body)
{
    return WaitChild(StartChild(body));
}

// A pipe for "go" signals between parent and child.
class Baton {
public:
    Baton()
    {
        if (pipe(_fd) != 0)
            _fd[0] = _fd[1] = -1;
    }
    ~Baton()
    {
        close(_fd[0]);
        close(_fd[1]);
    }
    void Pass() { (void)!write(_fd[1], "x", 1); }
    bool Take()
    {
        char c;
        return read(_fd[0], &c, 1) == 1;
    }

private:
    int _fd[2];
};

// A name no other test run uses at the same moment.
inline std::string UniqueName(const char* stem)
{
    static std::atomic<int> counter{0};
    return std::string("/karu-test-") + stem + "-" + std::to_string(getpid()) + "-" +
           std::to_string(counter.fetch_add(1));
}

}  // namespace KaruTest

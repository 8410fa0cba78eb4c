// Helpers for tests that need a second process: run a function in a forked
// child and read how it ended, with a deadline so that a hang fails the test
// instead of stopping the run; a one-byte pipe to put two processes in step;
// memory that forked processes share; and this test program run again with
// another environment.
#pragma once

#include <dirent.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <karu/string/karuExp.h>

namespace KaruTest {

// How a child ended: its exit status, or the signal that killed it, or
// that it outlived its deadline (and was killed for it).
struct ChildEnd {
    bool exited = false;
    int status = -1;
    int signal = 0;
    bool timedOut = false;
};

// A deadline generous enough for a loaded two-core machine under a sanitizer.
constexpr int kChildDeadlineMs = 30000;

// Which sanitizer the test program runs under (GCC says it one way, Clang another).
#if defined(__has_feature)
#define KARU_TEST_HAS_FEATURE(name) __has_feature(name)
#else
#define KARU_TEST_HAS_FEATURE(name) 0
#endif
#if defined(__SANITIZE_THREAD__) || KARU_TEST_HAS_FEATURE(thread_sanitizer)
constexpr bool kUnderThreadSanitizer = true;
#else
constexpr bool kUnderThreadSanitizer = false;
#endif
#if defined(__SANITIZE_ADDRESS__) || KARU_TEST_HAS_FEATURE(address_sanitizer)
constexpr bool kUnderAddressSanitizer = true;
#else
constexpr bool kUnderAddressSanitizer = false;
#endif

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

inline ChildEnd EndOf(int raw)
{
    ChildEnd end;
    end.exited = WIFEXITED(raw);
    end.status = end.exited ? WEXITSTATUS(raw) : -1;
    end.signal = WIFSIGNALED(raw) ? WTERMSIG(raw) : 0;
    return end;
}

inline long long MonotonicMs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

// Waits for `pid` at most `deadlineMs`. A child still running then is killed
// with its whole process group (a scenario child leads one; see
// StartScenario) and reported as timed out.
inline ChildEnd WaitChild(pid_t pid, int deadlineMs = kChildDeadlineMs)
{
    const long long until = MonotonicMs() + deadlineMs;
    int raw = 0;
    for (long pause = 100;; pause = pause < 20000 ? pause * 2 : pause) {
        const pid_t got = waitpid(pid, &raw, WNOHANG);
        if (got == pid)
            return EndOf(raw);
        if (got < 0 && errno != EINTR)
            return ChildEnd{};
        if (MonotonicMs() >= until)
            break;
        const timespec step = {0, pause * 1000};
        nanosleep(&step, nullptr);
    }
    kill(-pid, SIGKILL);  // the group, if it leads one
    kill(pid, SIGKILL);
    while (waitpid(pid, &raw, 0) < 0 && errno == EINTR) {
    }
    ChildEnd end = EndOf(raw);
    end.timedOut = true;
    return end;
}

inline ChildEnd RunChild(const std::function<int()>& body, int deadlineMs = kChildDeadlineMs)
{
    return WaitChild(StartChild(body), deadlineMs);
}

// A name no other test run uses at the same moment.
inline std::string UniqueName(const char* stem)
{
    static std::atomic<int> counter{0};
    return std::string("/karu-test-") + stem + "-" + std::to_string(getpid()) + "-" +
           std::to_string(counter.fetch_add(1));
}

// Removes the shared-memory names that UniqueName gave in process `pid`,
// which a process killed half-way cannot remove itself.
inline void RemoveNamesOf(pid_t pid)
{
    const std::string mark = std::string("-").append(std::to_string(pid)).append("-");
    if (DIR* dir = opendir("/dev/shm")) {
        while (dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name.rfind("karu-test-", 0) == 0 && name.find(mark) != std::string::npos)
                shm_unlink(("/" + name).c_str());
        }
        closedir(dir);
    }
}

// A child that leads its own process group, so that a deadline takes every
// process it started down with it; the names it made are removed after it.
inline ChildEnd RunScenario(const std::function<int()>& body, int deadlineMs = kChildDeadlineMs)
{
    const pid_t pid = StartChild([&] {
        setpgid(0, 0);
        return body();
    });
    const ChildEnd end = WaitChild(pid, deadlineMs);
    RemoveNamesOf(pid);
    return end;
}

// Checks that a child ran to its end by itself and left with `status`.
inline void ExpectExit(const ChildEnd& end, int status = 0)
{
    EXPECT_FALSE(end.timedOut) << "the child hung";
    EXPECT_TRUE(end.exited) << "signal " << end.signal;
    EXPECT_EQ(end.status, status);
}

// The whole of a file a child wrote; empty if there is none.
inline std::string ReadAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Runs a child's body with a library failure printed, as `who` and the
// process id, and turned into status 97, so that a report says why.
inline int Guarded(const char* who, const std::function<int()>& body)
{
    try {
        return body();
    } catch (const Karu::karuExp& e) {
        fprintf(stderr, "%s %d: %s\n", who, int(getpid()), e.message.c_str());
        return 97;
    }
}

// Anonymous memory that the processes forked after this call share; a T
// built in place. Released by the test's process only, by FreeShared.
template <class T>
T* MapShared()
{
    void* at = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return at == MAP_FAILED ? nullptr : new (at) T();
}

template <class T>
void FreeShared(T* shared)
{
    shared->~T();
    munmap(shared, sizeof(T));
}

// Spins (with short sleeps) until `ready` returns true; false at the deadline.
inline bool AwaitCondition(const std::function<bool()>& ready, int deadlineMs = kChildDeadlineMs)
{
    const long long until = MonotonicMs() + deadlineMs;
    while (!ready()) {
        if (MonotonicMs() >= until)
            return false;
        const timespec step = {0, 200000};
        nanosleep(&step, nullptr);
    }
    return true;
}

// Runs this test program again as `argv0` (a path the exec can find) on
// one test, with `settings` ("NAME=value") added to the environment; the
// exit status is gtest's: 0 when the test passed.
inline ChildEnd RunSelf(const std::string& argv0, const std::string& test,
                        const std::vector<std::string>& settings, int deadlineMs = kChildDeadlineMs)
{
    return RunChild(
        [&] {
            for (const std::string& setting : settings)
                putenv(strdup(setting.c_str()));
            const std::string filter = "--gtest_filter=" + test;
            execl("/proc/self/exe", argv0.c_str(), filter.c_str(), static_cast<char*>(nullptr));
            return 98;
        },
        deadlineMs);
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

}  // namespace KaruTest

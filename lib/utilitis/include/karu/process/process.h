// CProcess: one process, this one or another, and what a program wants of
// it; the free functions beneath it; CExitTbl, the exit statuses of children.
//
// Figures come from the process file system: /proc/<pid>/exe for the image,
// cmdline, maps for the modules, status for the memory figures, stat for
// the times. A process started by Create is a child: Wait reaps it and keeps
// its exit code. A process that Open stands for is held by a descriptor of
// the system (a pidfd) until Close, so that its identity cannot pass to
// another process meanwhile; Wait watches that descriptor, which also sees
// the end of a process that its parent has not reaped yet. The object owns
// the descriptor: it moves, and is not copied.
//
// Exit codes: the status given to exit for a process that exited, 128 plus
// the signal number for one that a signal ended (as shells report it), and
// -1 while unknown.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

#include <karu/string/karuExp.h>
#include <karu/time/time.h>

namespace Karu {

// Flags of PosixFork.
enum : uint32_t {
    kForkNewSession = 1,  // setsid: leave the parent's session and terminal
    kForkNullStdio = 2,   // standard descriptors reopened on /dev/null
};

// Forks; 0 in the child, the child's identity in the parent. The child
// reinstalls the fatal-error handlers, then detaches as `flags` ask and
// changes its priority by `niceIncrement`; if that fails it logs on
// "util.process" and ends through _exit.
pid_t PosixFork(uint32_t flags = 0, int niceIncrement = 0);
// Replaces the image; `path` without a slash is searched in PATH. A null
// environment keeps the current one. Returns only by raising.
[[noreturn]] void PosixExec(const stringEx& path, const std::vector<stringEx>& arguments,
                            const std::vector<stringEx>* environment = nullptr);
// waitpid, repeated when a signal interrupts it; false when WNOHANG found
// the process still running.
bool PosixWait(pid_t pid, int* status, int options = 0);
// dup2(fd, target), then closes fd (unless they are the same).
void PosixDupAndClose(int fd, int target);
void GetResLimit(int type, uint64_t& soft, uint64_t& hard, pid_t pid = 0);
void SetResLimit(int type, uint64_t soft, uint64_t hard, pid_t pid = 0);
// Sets the group and user of the process to those of `name`.
void SwitchUser(const stringEx& name);
// Reads a /proc file in one read; raises when it fills the whole buffer,
// since the file's size cannot be known beforehand.
uint64_t ReadProcFile(const stringEx& path, char* buffer, uint64_t size);
stringEx PosixReadLink(const stringEx& path);

// Where a child's standard descriptors come from; -1 keeps the parent's.
struct CHILD_STDIO {
    int in = -1;
    int out = -1;
    int err = -1;
};

class CProcess {
public:
    CProcess() noexcept = default;
    explicit CProcess(uint64_t pid) { Open(pid); }
    CProcess(CProcess&& other) noexcept;
    CProcess& operator=(CProcess&& other);
    CProcess(const CProcess&) = delete;
    CProcess& operator=(const CProcess&) = delete;
    // Closes as Close does; raises only when no exception is passing.
    ~CProcess() noexcept(false);
    static CProcess Current();

    // Starts `path` with `arguments` (the first is the program's name) as a
    // child. Raises procExp when the program cannot be executed.
    void Create(const stringEx& path, const std::vector<stringEx>& arguments, const CHILD_STDIO& stdio = {},
                uint32_t forkFlags = 0, const std::vector<stringEx>* environment = nullptr);
    // Stands for an existing process.
    void Open(uint64_t pid);
    // Stands for no process any more; raises procExp when the system fails
    // to close the descriptor that held it.
    void Close();

    uint64_t GetPID() const;
    uint64_t ToSysHandle() const;
    bool IsChild() const noexcept { return _started; }

    stringEx GetBinFilePath() const;
    std::vector<stringEx> GetCommandLine() const;
    static stringEx GetCurrentUserName();
    static std::vector<uint64_t> EnumAllProc();
    std::vector<stringEx> EnumAllModules() const;
    static stringEx GetModuleFilePathByAny(const void* address);
    static stringEx GetModuleFilePathByBase(const void* base);

    void Terminate();
    void SendSignal(int signal);
    void QueueSignal(int signal, int value);
    void SuspendMainThread();
    void ResumeMainThread();
    // True once the process has ended; false at expiry (0 only tests,
    // 0xFFFFFFFF never expires).
    bool Wait(uint32_t milliseconds = 0xFFFFFFFF);
    // True once the process runs its own program (it exists and is past
    // the exec of its start); false if it ended first or the time ran out.
    bool WaitForReady(uint32_t milliseconds = 0xFFFFFFFF);
    int32_t GetExitCode() const;

    void GetFileOpenLimits(uint64_t& soft, uint64_t& hard) const;
    void SetFileOpenLimits(uint64_t soft, uint64_t hard);
    void GetMemSizeLimits(uint64_t& soft, uint64_t& hard) const;
    void SetMemSizeLimits(uint64_t soft, uint64_t hard);
    void SetCpuAffinity(uint64_t mask);
    // The scheduler's boost of the process: the negated nice value, so a
    // larger boost runs sooner; raising it needs the privilege to do so.
    int32_t GetDynamicBoost() const;
    void SetDynamicBoost(int32_t boost);

    // CPU time spent in the kernel and in user code.
    void GetTimes(CTimeSpan& kernel, CTimeSpan& user) const;
    // Peak and current virtual size, in kilobytes.
    void GetMemUsage(uint64_t& peakKb, uint64_t& sizeKb) const;
    // Hands freed heap memory back to the system (this process only).
    static void ShrinkMemUsage();

private:
    void __Need(const char* operation) const;
    stringEx __ProcPath(const char* file) const;
    void __CloseProcess();

    uint64_t _pid = 0;
    bool _started = false;
    int32_t _exitCode = -1;
    int _handle = -1;  // the pidfd of an opened process; -1 for a child, or where the system has none
};

// Keeps the exit statuses of the children that CProcess::Create started,
// filled by a SIGCHLD handler that reaps exactly those children as they end.
// Other children of the program (a popen's, a plain fork's) are left to
// whoever waits for them. While one exists, waiting for a child that has
// already been reaped reads its status here; every status is kept until it
// is read. Tables may nest; the last one to go puts the program's own
// handler back, which the table's handler calls meanwhile.
class CExitTbl {
public:
    CExitTbl();
    ~CExitTbl();
    CExitTbl(const CExitTbl&) = delete;
    CExitTbl& operator=(const CExitTbl&) = delete;

    // The raw wait status of a reaped child; false when none is recorded.
    static bool Lookup(pid_t pid, int& status, bool remove = true);
};

}  // namespace Karu

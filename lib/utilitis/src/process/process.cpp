// CProcess and the free process functions; see process.h.
//
// Create closes the race between fork and exec with a close-on-exec pipe:
// the child writes the errno of a failed exec into it, and the parent reads
// until end of file, which arrives at the moment exec succeeds. So a program
// that cannot be started raises in the parent rather than appearing as a
// child that ended with some status.
#include <karu/process/process.h>

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <grp.h>
#include <link.h>
#include <malloc.h>
#include <poll.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <karu/log/log.h>
#include <karu/misc/errhandler.h>

#include "process/children.h"

namespace Karu {
namespace {

// A child that could not become the program it was meant to be.
constexpr int kChildStartFailed = 127;
// /proc files are small: one page holds status, stat and cmdline of most processes.
constexpr uint64_t kProcFileBuffer = 64 * 1024;

[[noreturn]] void RaiseProc(const ExpMessage& message, int32_t code)
{
    Throw<procExp>(message, code);
}

int32_t ExitCodeOf(int status)
{
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return -1;
}

std::vector<char*> PointerArray(const std::vector<stringEx>& texts, std::vector<stringEx>& keep)
{
    // Owned copies: a view of a longer text would not end where it should.
    keep.clear();
    for (const stringEx& text : texts)
        keep.emplace_back(text.data(), text.size());
    std::vector<char*> pointers;
    for (const stringEx& text : keep)
        pointers.push_back(const_cast<char*>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

void Sleep(uint32_t milliseconds)
{
    timespec pause{time_t(milliseconds / 1000), long(milliseconds % 1000) * 1000000};
    while (nanosleep(&pause, &pause) != 0 && errno == EINTR) {
    }
}

// A descriptor that holds a process's identity; -1 where the system has none.
int OpenProcessHandle(pid_t pid)
{
    int handle;
    do {
        handle = int(syscall(SYS_pidfd_open, pid, 0));
    } while (handle < 0 && errno == EINTR);
    return handle;
}

// The image of the object that holds `address`, as an absolute path: the
// system names the main program by the argv[0] it was started with.
stringEx ModulePath(const void* address, bool wantBase, const char* head)
{
    Dl_info info{};
    link_map* module = nullptr;
    if (!dladdr1(address, &info, reinterpret_cast<void**>(&module), RTLD_DL_LINKMAP) || !info.dli_fname ||
        (wantBase && info.dli_fbase != address))
        RaiseProc(ExpMessage(head).Detail(wantBase ? "base" : "address", stringEx::Format("%p", address)), 16);
    link_map* program = nullptr;
    if (void* self = dlopen(nullptr, RTLD_LAZY | RTLD_NOLOAD)) {
        dlinfo(self, RTLD_DI_LINKMAP, &program);
        dlclose(self);
    }
    try {
        if (module == program)
            return PosixReadLink(stringEx("/proc/self/exe"));
    } catch (const procExp& e) {
        RaiseProc(ExpMessage(head).Detail(wantBase ? "base" : "address", stringEx::Format("%p", address)).Cause(e),
                  16);
    }
    if (info.dli_fname[0] == '/')
        return stringEx(info.dli_fname);
    char absolute[PATH_MAX];
    return stringEx(realpath(info.dli_fname, absolute) ? absolute : info.dli_fname);
}

}  // namespace

// ---- free functions ------------------------------------------------------------------

pid_t PosixFork(uint32_t flags, int niceIncrement)
{
    const pid_t pid = fork();
    if (pid < 0)
        RaiseProc(ExpMessage("PosixFork - failed create new process\n")
                      .Errno(errno, {{EAGAIN, "the system lack the necessary resources to create another process or "
                                              "max child limit is exceeded"},
                                     {ENOMEM, "insufficient storage space is available"}}),
                  1);
    if (pid > 0)
        return pid;
    IMPL::ReinstallErrorHandlers();
    try {
        if ((flags & kForkNewSession) && setsid() < 0)
            RaiseProc(ExpMessage("PosixFork - failed create new session\n").Errno(errno, {}), 1);
        if (flags & kForkNullStdio) {
            int null;
            do {
                null = open("/dev/null", O_RDWR);
            } while (null < 0 && errno == EINTR);
            if (null < 0)
                RaiseProc(ExpMessage("PosixFork - failed open the null device\n").Errno(errno, {}), 1);
            for (int fd = 0; fd < 3; ++fd)
                if (fd != null)
                    PosixDupAndClose(dup(null), fd);
            if (null > 2)
                close(null);
        }
        if (niceIncrement != 0) {
            errno = 0;
            const int now = getpriority(PRIO_PROCESS, 0);
            if (errno == 0 && setpriority(PRIO_PROCESS, 0, now + niceIncrement) != 0)
                RaiseProc(ExpMessage("PosixFork - failed set the priority of the child\n").Errno(errno, {}), 1);
        }
    } catch (const karuExp& e) {
        CLog::LogError("util.process", "failed create child process\n@ %s", e.message.c_str());
        _exit(kChildStartFailed);
    }
    return 0;
}

void PosixExec(const stringEx& path, const std::vector<stringEx>& arguments, const std::vector<stringEx>* environment)
{
    std::vector<stringEx> keepArgs, keepEnv;
    std::vector<char*> argv = PointerArray(arguments, keepArgs);
    const stringEx file(path.data(), path.size());
    if (environment) {
        std::vector<char*> envp = PointerArray(*environment, keepEnv);
        execvpe(file.c_str(), argv.data(), envp.data());
    } else {
        execvp(file.c_str(), argv.data());
    }
    RaiseProc(ExpMessage("PosixExec - failed execute new image\n")
                  .Detail("image path", file)
                  .Errno(errno, {{ENOENT, "path does not exits"},
                                 {EACCES, "permission denied"},
                                 {ENOEXEC, "the image has an unknown format"},
                                 {E2BIG, "argument list too long"},
                                 {ENOMEM, "insufficient memory"}}),
              2);
}

bool PosixWait(pid_t pid, int* status, int options)
{
    int raw = 0;
    pid_t result;
    do {
        result = waitpid(pid, &raw, options);
    } while (result < 0 && errno == EINTR);
    if (result < 0)
        RaiseProc(ExpMessage("PosixWait - failed waiting the specified process\n")
                      .Detail("target pid", int64_t(pid))
                      .Errno(errno, {{ECHILD, "the process is not a child of the calling process"},
                                     {EINVAL, "invalid options"}}),
                  3);
    if (result == 0)
        return false;
    if (status)
        *status = raw;
    return true;
}

void PosixDupAndClose(int fd, int target)
{
    if (fd == target)
        return;
    int result;
    do {
        result = dup2(fd, target);
    } while (result < 0 && errno == EINTR);
    if (result < 0)
        RaiseProc(ExpMessage("PosixDupAndClose - failed duplicate and replace the specified file descriptor\n")
                      .Detail("fd to dup", int64_t(fd))
                      .Detail("fd to rep", int64_t(target))
                      .Errno(errno, {{EBADF, "invalid file descriptor"},
                                     {EMFILE, "too many file descriptors are open"}}),
                  4);
    close(fd);
}

void GetResLimit(int type, uint64_t& soft, uint64_t& hard, pid_t pid)
{
    rlimit limit{};
    if (prlimit(pid, static_cast<__rlimit_resource>(type), nullptr, &limit) != 0)
        RaiseProc(ExpMessage("GetResLimit - failed get resource limit\n")
                      .Detail("res type", int64_t(type))
                      .Errno(errno, {{EINVAL, "invalid resource type"}, {ESRCH, "no such process"},
                                     {EPERM, "permission denied"}}),
                  5);
    soft = limit.rlim_cur;
    hard = limit.rlim_max;
}

void SetResLimit(int type, uint64_t soft, uint64_t hard, pid_t pid)
{
    const rlimit limit{rlim_t(soft), rlim_t(hard)};
    if (prlimit(pid, static_cast<__rlimit_resource>(type), &limit, nullptr) != 0)
        RaiseProc(ExpMessage("SetResLimit - failed set resource limit\n")
                      .Detail("res type", int64_t(type))
                      .Detail("soft limit", int64_t(soft))
                      .Detail("hard limit", int64_t(hard))
                      .Errno(errno, {{EINVAL, "the soft limit is above the hard limit, or invalid resource type"},
                                     {ESRCH, "no such process"},
                                     {EPERM, "permission denied"}}),
                  5);
}

void SwitchUser(const stringEx& name)
{
    const stringEx user(name.data(), name.size());
    passwd entry{};
    passwd* found = nullptr;
    char buffer[16384];
    const int error = getpwnam_r(user.c_str(), &entry, buffer, sizeof buffer, &found);
    if (!found)
        RaiseProc(ExpMessage("SwitchUser - failed retrive user infomation\n")
                      .Detail("user name", user)
                      .Errno(error ? error : ENOENT, {{ENOENT, "no such user"}}),
                  6);
    if (setgid(entry.pw_gid) != 0 || initgroups(entry.pw_name, entry.pw_gid) != 0 || setuid(entry.pw_uid) != 0)
        RaiseProc(ExpMessage("SwitchUser - failed set user id\n")
                      .Detail("user name", user)
                      .Detail("user id", int64_t(entry.pw_uid))
                      .Detail("group id", int64_t(entry.pw_gid))
                      .Errno(errno, {{EPERM, "permission denied"}}),
                  6);
}

uint64_t ReadProcFile(const stringEx& path, char* buffer, uint64_t size)
{
    const stringEx file(path.data(), path.size());
    int fd;
    do {
        fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0)
        RaiseProc(ExpMessage("ReadProcFile - failed read specified proc file\n")
                      .Detail("file path", file)
                      .Errno(errno, {{ENOENT, "path does not exits"}, {EACCES, "permission denied"}}),
                  7);
    ssize_t got;
    do {
        got = read(fd, buffer, size);
    } while (got < 0 && errno == EINTR);
    const int error = errno;
    close(fd);
    if (got < 0)
        RaiseProc(ExpMessage("ReadProcFile - failed read specified proc file\n")
                      .Detail("file path", file)
                      .Errno(error, {{EIO, "i/o error"}}),
                  7);
    if (uint64_t(got) >= size)
        RaiseProc(ExpMessage("ReadProcFile - failed read specified proc file\n")
                      .Text("  size too big\n")
                      .Detail("buffer size", int64_t(size))
                      .Detail("file path  ", file),
                  7);
    return uint64_t(got);
}

stringEx PosixReadLink(const stringEx& path)
{
    const stringEx link(path.data(), path.size());
    char buffer[4096];
    const ssize_t length = readlink(link.c_str(), buffer, sizeof buffer);
    if (length < 0)
        RaiseProc(ExpMessage("PosixReadLink - failed retrieve the symbol link's origin path\n")
                      .Detail("link path", link)
                      .Errno(errno, {{EIO, "i/o error"}, {ELOOP, "loop exists in path"}, {ENOENT, "path does not exits"}}),
                  8);
    return stringEx(static_cast<const char*>(buffer), uint64_t(length));
}

// ---- CProcess ------------------------------------------------------------------------

CProcess CProcess::Current()
{
    return CProcess(uint64_t(getpid()));
}

void CProcess::__Need(const char* operation) const
{
    if (_pid == 0)
        RaiseProc(ExpMessage(stringEx("CProcess::") + stringEx(operation) + stringEx(" - invalid object")), 9);
}

stringEx CProcess::__ProcPath(const char* file) const
{
    if (_pid == uint64_t(getpid()))
        return stringEx("/proc/self/") + stringEx(file);
    return stringEx::Format("/proc/%llu/%s", static_cast<unsigned long long>(_pid), file);
}

void CProcess::Create(const stringEx& path, const std::vector<stringEx>& arguments, const CHILD_STDIO& stdio,
                      uint32_t forkFlags, const std::vector<stringEx>* environment)
{
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0)
        RaiseProc(ExpMessage("CProcess::Create - failed create process\n").Errno(errno, {}), 10);
    const pid_t pid = PosixFork(forkFlags);
    if (pid == 0) {
        close(report[0]);
        int error = 0;
        try {
            // Duplicate first, then place: a source may sit on a target number.
            int sources[3] = {stdio.in, stdio.out, stdio.err};
            for (int& fd : sources)
                if (fd >= 0 && fd <= 2)
                    fd = dup(fd);
            for (int target = 0; target < 3; ++target)
                if (sources[target] >= 0)
                    PosixDupAndClose(sources[target], target);
            PosixExec(path, arguments, environment);
        } catch (const karuExp& e) {
            error = errno ? errno : ENOEXEC;
            CLog::LogError("util.process", "failed create child process\n@ %s", e.message.c_str());
        }
        (void)!write(report[1], &error, sizeof error);
        _exit(kChildStartFailed);
    }
    close(report[1]);
    IMPL::NoteChild(pid);
    int error = 0;
    ssize_t got;
    do {
        got = read(report[0], &error, sizeof error);
    } while (got < 0 && errno == EINTR);
    close(report[0]);
    _pid = uint64_t(pid);
    _started = true;
    _exitCode = -1;
    if (got == ssize_t(sizeof error)) {
        Wait();
        RaiseProc(ExpMessage("PosixExec - failed execute new image\n")
                      .Detail("image path", stringEx(path.data(), path.size()))
                      .Errno(error, {{ENOENT, "path does not exits"},
                                     {EACCES, "permission denied"},
                                     {ENOEXEC, "the image has an unknown format"}}),
                  2);
    }
}

void CProcess::Open(uint64_t pid)
{
    if (pid == 0 || (kill(pid_t(pid), 0) != 0 && errno == ESRCH))
        RaiseProc(ExpMessage("CProcess::Open - failed opening process\n")
                      .Detail("target pid", int64_t(pid))
                      .Errno(pid == 0 ? ESRCH : errno, {{ESRCH, "no such process"}}),
                  11);
    const int handle = OpenProcessHandle(pid_t(pid));
    if (handle < 0 && errno == ESRCH)
        RaiseProc(ExpMessage("CProcess::Open - failed opening process\n")
                      .Detail("target pid", int64_t(pid))
                      .Errno(ESRCH, {{ESRCH, "no such process"}}),
                  11);
    __CloseProcess();
    _pid = pid;
    _started = false;
    _exitCode = -1;
    _handle = handle;
}

CProcess::CProcess(CProcess&& other) noexcept
    : _pid(other._pid), _started(other._started), _exitCode(other._exitCode), _handle(other._handle)
{
    other._pid = 0;
    other._started = false;
    other._exitCode = -1;
    other._handle = -1;
}

CProcess& CProcess::operator=(CProcess&& other)
{
    if (this != &other) {
        __CloseProcess();
        std::swap(_pid, other._pid);
        std::swap(_started, other._started);
        std::swap(_exitCode, other._exitCode);
        std::swap(_handle, other._handle);
    }
    return *this;
}

CProcess::~CProcess() noexcept(false)
{
    try {
        __CloseProcess();
    } catch (...) {
        if (MayThrowFromDestructor())
            throw;
    }
}

void CProcess::Close()
{
    __CloseProcess();
}

void CProcess::__CloseProcess()
{
    const int handle = _handle;
    _handle = -1;
    _pid = 0;
    _started = false;
    _exitCode = -1;
    // Linux frees the descriptor even when close is interrupted.
    if (handle >= 0 && close(handle) != 0 && errno != EINTR)
        RaiseProc(ExpMessage("CProcess::__CloseProcess - error close process\n")
                      .Detail("handle", int64_t(handle))
                      .Errno(errno, {{EBADF, "invalid process handle"}, {EIO, "io error occurred"}}),
                  22);
}

uint64_t CProcess::GetPID() const
{
    __Need("GetPID");
    return _pid;
}

uint64_t CProcess::ToSysHandle() const
{
    __Need("ToSysHandle");
    return _pid;
}

stringEx CProcess::GetBinFilePath() const
{
    __Need("GetBinFilePath");
    try {
        return PosixReadLink(__ProcPath("exe"));
    } catch (const procExp& e) {
        RaiseProc(ExpMessage("CProcess::GetBinFilePath - failed retrive the process' image path\n").Cause(e), 12);
    }
}

std::vector<stringEx> CProcess::GetCommandLine() const
{
    __Need("GetCommandLine");
    std::vector<char> buffer(kProcFileBuffer);
    const uint64_t length = ReadProcFile(__ProcPath("cmdline"), buffer.data(), buffer.size());
    std::vector<stringEx> arguments;
    for (uint64_t at = 0; at < length;) {
        const uint64_t end = uint64_t(std::find(buffer.data() + at, buffer.data() + length, '\0') - buffer.data());
        arguments.emplace_back(buffer.data() + at, end - at);
        at = end + 1;
    }
    return arguments;
}

stringEx CProcess::GetCurrentUserName()
{
    passwd entry{};
    passwd* found = nullptr;
    char buffer[16384];
    const uid_t uid = geteuid();
    const int error = getpwuid_r(uid, &entry, buffer, sizeof buffer, &found);
    if (!found)
        RaiseProc(ExpMessage("CProcess::GetCurrentUserName - failed retrive user infomation\n")
                      .Detail("user id", int64_t(uid))
                      .Errno(error ? error : ENOENT, {{ENOENT, "no such user"}}),
                  13);
    return stringEx(static_cast<const char*>(entry.pw_name));
}

std::vector<uint64_t> CProcess::EnumAllProc()
{
    DIR* dir = opendir("/proc");
    if (!dir)
        RaiseProc(ExpMessage("CProcess::EnumAllProc - failed enum process\n").Errno(errno, {}), 14);
    std::vector<uint64_t> pids;
    while (dirent* entry = readdir(dir)) {
        char* end = nullptr;
        const unsigned long long pid = strtoull(entry->d_name, &end, 10);
        if (pid != 0 && end && *end == '\0')
            pids.push_back(pid);
    }
    closedir(dir);
    return pids;
}

std::vector<stringEx> CProcess::EnumAllModules() const
{
    __Need("EnumAllModules");
    // The map of a large process outgrows any fixed buffer; read it whole.
    const stringEx path = __ProcPath("maps");
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        RaiseProc(ExpMessage("CProcess::EnumAllModules - failed retrive the process' module list\n")
                      .Detail("file path", path)
                      .Errno(errno, {{ENOENT, "path does not exits"}, {EACCES, "permission denied"}}),
                  15);
    std::string text;
    char chunk[8192];
    ssize_t got;
    while ((got = read(fd, chunk, sizeof chunk)) > 0 || (got < 0 && errno == EINTR))
        if (got > 0)
            text.append(chunk, size_t(got));
    close(fd);
    std::vector<stringEx> modules;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos)
            end = text.size();
        // address perms offset device inode path: the path is the sixth column.
        const size_t slash = text.find('/', at);
        if (slash < end) {
            const stringEx module(text.data() + slash, uint64_t(end - slash));
            if (std::find(modules.begin(), modules.end(), module) == modules.end())
                modules.push_back(module);
        }
        at = end + 1;
    }
    return modules;
}

stringEx CProcess::GetModuleFilePathByAny(const void* address)
{
    return ModulePath(address, false, "CProcess::GetModuleFilePathByAny - failed retrive the module's image path\n");
}

stringEx CProcess::GetModuleFilePathByBase(const void* base)
{
    return ModulePath(base, true, "CProcess::GetModuleFilePathByBase - failed retrive the module's image path\n");
}

void CProcess::Terminate()
{
    __Need("Terminate");
    SendSignal(SIGKILL);
}

void CProcess::SendSignal(int signal)
{
    __Need("SendSignal");
    // Through the handle, a signal cannot reach another process that took the identity over.
    const long sent = _handle >= 0 ? syscall(SYS_pidfd_send_signal, _handle, signal, nullptr, 0)
                                   : long(kill(pid_t(_pid), signal));
    if (sent != 0)
        RaiseProc(ExpMessage("CProcess::SendSignal - failed send signal to process\n")
                      .Detail("target pid", int64_t(_pid))
                      .Detail("signal no", int64_t(signal))
                      .Errno(errno, {{ESRCH, "no such process"}, {EPERM, "permission denied"},
                                     {EINVAL, "invalid signal"}}),
                  17);
}

void CProcess::QueueSignal(int signal, int value)
{
    __Need("QueueSignal");
    sigval payload{};
    payload.sival_int = value;
    if (sigqueue(pid_t(_pid), signal, payload) != 0)
        RaiseProc(ExpMessage("CProcess::QueueSignal - failed queue signal to process\n")
                      .Detail("target pid", int64_t(_pid))
                      .Detail("signal no", int64_t(signal))
                      .Errno(errno, {{ESRCH, "no such process"}, {EPERM, "permission denied"},
                                     {EINVAL, "invalid signal"}, {EAGAIN, "the queued signals limit is reached"}}),
                  17);
}

void CProcess::SuspendMainThread()
{
    __Need("SuspendMainThread");
    SendSignal(SIGSTOP);
}

void CProcess::ResumeMainThread()
{
    __Need("ResumeMainThread");
    SendSignal(SIGCONT);
}

namespace {

// The status of a child that the exit table's handler reaped; the handler
// stores it a moment after its own wait, so a wait that lost the race to it
// looks a little while.
bool ReapedStatus(pid_t pid, int& status)
{
    for (int tries = 0; tries < 200; ++tries) {
        if (CExitTbl::Lookup(pid, status))
            return true;
        Sleep(1);
    }
    return false;
}

}  // namespace

bool CProcess::Wait(uint32_t milliseconds)
{
    __Need("Wait");
    if (_exitCode != -1)
        return true;
    const pid_t pid = pid_t(_pid);
    if (!_started && _handle >= 0) {
        // The handle becomes readable when the process ends, reaped or not.
        pollfd entry{_handle, POLLIN, 0};
        const int timeout = milliseconds == 0xFFFFFFFF ? -1 : int(std::min<uint32_t>(milliseconds, INT32_MAX));
        int ready;
        do {
            ready = poll(&entry, 1, timeout);
        } while (ready < 0 && errno == EINTR);
        return ready > 0;
    }
    uint32_t waited = 0, step = 1;
    for (;;) {
        int status = 0;
        bool ended;
        if (_started) {
            try {
                ended = PosixWait(pid, &status, milliseconds == 0xFFFFFFFF ? 0 : WNOHANG);
                if (ended)
                    IMPL::ForgetChild(pid);
            } catch (const procExp&) {
                // Reaped already by the child-terminate handler of CExitTbl.
                ended = ReapedStatus(pid, status);
                if (!ended)
                    throw;
            }
            if (ended)
                _exitCode = ExitCodeOf(status);
        } else {
            ended = kill(pid, 0) != 0 && errno == ESRCH;  // not ours to reap
        }
        if (ended)
            return true;
        if (waited >= milliseconds)
            return false;
        const uint32_t pause = std::min(step, milliseconds - waited);
        Sleep(pause);
        waited += pause;
        step = std::min(step * 2, 50u);  // quick for short-lived children, cheap for long ones
    }
}

int32_t CProcess::GetExitCode() const
{
    __Need("GetExitCode");
    return _exitCode;
}

void CProcess::GetFileOpenLimits(uint64_t& soft, uint64_t& hard) const
{
    __Need("GetFileOpenLimits");
    try {
        GetResLimit(RLIMIT_NOFILE, soft, hard, pid_t(_pid));
    } catch (const procExp& e) {
        RaiseProc(ExpMessage("CProcess::GetFileOpenLimits - failed getting process' fd limits\n").Cause(e), 5);
    }
}

void CProcess::SetFileOpenLimits(uint64_t soft, uint64_t hard)
{
    __Need("SetFileOpenLimits");
    try {
        SetResLimit(RLIMIT_NOFILE, soft, hard, pid_t(_pid));
    } catch (const procExp& e) {
        RaiseProc(ExpMessage("CProcess::SetFileOpenLimits - failed setting process' fd limits\n").Cause(e), 5);
    }
}

void CProcess::GetMemSizeLimits(uint64_t& soft, uint64_t& hard) const
{
    __Need("GetMemSizeLimits");
    try {
        GetResLimit(RLIMIT_AS, soft, hard, pid_t(_pid));
    } catch (const procExp& e) {
        RaiseProc(ExpMessage("CProcess::GetMemSizeLimits - failed getting process' working size\n").Cause(e), 5);
    }
}

void CProcess::SetMemSizeLimits(uint64_t soft, uint64_t hard)
{
    __Need("SetMemSizeLimits");
    try {
        SetResLimit(RLIMIT_AS, soft, hard, pid_t(_pid));
    } catch (const procExp& e) {
        RaiseProc(ExpMessage("CProcess::SetMemSizeLimits - failed setting process' working size\n").Cause(e), 5);
    }
}

bool CProcess::WaitForReady(uint32_t milliseconds)
{
    __Need("WaitForReady");
    // A child of ours has passed its exec when Create returns (a failed
    // exec is reported there); another process is ready once the system
    // shows it running an image, and never once it has ended.
    const stringEx image = __ProcPath("exe");
    uint32_t waited = 0, step = 1;
    for (;;) {
        if (_exitCode != -1 || (kill(pid_t(_pid), 0) != 0 && errno == ESRCH))
            return false;
        char target[16];
        if (_started || readlink(image.c_str(), target, sizeof target) > 0)
            return !Wait(0);
        if (waited >= milliseconds)
            return false;
        const uint32_t pause = std::min(step, milliseconds - waited);
        Sleep(pause);
        waited += pause;
        step = std::min<uint32_t>(step * 2, 50);
    }
}

void CProcess::SetCpuAffinity(uint64_t mask)
{
    __Need("SetCpuAffinity");
    cpu_set_t set;
    CPU_ZERO(&set);
    for (unsigned cpu = 0; cpu < 64; ++cpu)
        if (mask & (uint64_t(1) << cpu))
            CPU_SET(cpu, &set);
    if (sched_setaffinity(pid_t(_pid), sizeof set, &set) != 0)
        RaiseProc(ExpMessage("CProcess::SetCpuAffinity - failed set process' cpu affinity\n")
                      .Errno(errno, {{EINVAL, "no processor of the mask is available"}, {ESRCH, "no such process"},
                                     {EPERM, "permission denied"}}),
                  18);
}

int32_t CProcess::GetDynamicBoost() const
{
    __Need("GetDynamicBoost");
    errno = 0;  // -1 is a valid nice value: only errno tells a failure
    const int nice = getpriority(PRIO_PROCESS, id_t(_pid));
    if (nice == -1 && errno != 0)
        RaiseProc(ExpMessage("GetSchedParam - failed retrive sched's pri range\n")
                      .Detail("target pid", int64_t(_pid))
                      .Errno(errno, {{ESRCH, "no such process"}}),
                  18);
    return -nice;
}

void CProcess::SetDynamicBoost(int32_t boost)
{
    __Need("SetDynamicBoost");
    if (setpriority(PRIO_PROCESS, id_t(_pid), -boost) != 0)
        RaiseProc(ExpMessage("CThread_Imp::_SetThreadShcdParam - failed set process' sched param\n")
                      .Detail("target pid", int64_t(_pid))
                      .Detail("boost", int64_t(boost))
                      .Errno(errno, {{ESRCH, "no such process"}, {EPERM, "permission denied"},
                                     {EACCES, "permission denied"}}),
                  18);
}

void CProcess::GetTimes(CTimeSpan& kernel, CTimeSpan& user) const
{
    __Need("GetTimes");
    char buffer[4096];
    uint64_t length;
    try {
        length = ReadProcFile(__ProcPath("stat"), buffer, sizeof buffer);
    } catch (const procExp& e) {
        RaiseProc(ExpMessage("CProcess::GetTimes - failed opening process\n").Cause(e), 19);
    }
    // The command name may hold blanks and parentheses: fields count from the last ')'.
    const std::string text(buffer, size_t(length));
    const size_t close = text.rfind(')');
    unsigned long utime = 0, stime = 0;
    if (close == std::string::npos ||
        sscanf(text.c_str() + close + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &utime, &stime) != 2)
        RaiseProc(ExpMessage("CProcess::GetTimes - failed opening process\n").Text("  unreadable stat file\n"), 19);
    const long ticks = sysconf(_SC_CLK_TCK);
    user = CTimeSpan(int64_t(utime) * 1000000 / ticks);
    kernel = CTimeSpan(int64_t(stime) * 1000000 / ticks);
}

void CProcess::GetMemUsage(uint64_t& peakKb, uint64_t& sizeKb) const
{
    __Need("GetMemUsage");
    std::vector<char> buffer(kProcFileBuffer);
    uint64_t length;
    try {
        length = ReadProcFile(__ProcPath("status"), buffer.data(), buffer.size() - 1);
    } catch (const procExp& e) {
        RaiseProc(ExpMessage("CProcess::GetMemUsage - failed retrive the process' memory usage status\n").Cause(e),
                  20);
    }
    buffer[length] = '\0';
    peakKb = sizeKb = 0;
    if (const char* peak = strstr(buffer.data(), "VmPeak:"))
        peakKb = strtoull(peak + 7, nullptr, 10);
    if (const char* size = strstr(buffer.data(), "VmSize:"))
        sizeKb = strtoull(size + 7, nullptr, 10);
}

void CProcess::ShrinkMemUsage()
{
    malloc_trim(0);
}

}  // namespace Karu

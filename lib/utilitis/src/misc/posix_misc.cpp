// The fatal-error handler: a hardware fault, an exception that breaks a
// function's declared contract, a call to terminate, or an allocation that
// fails for good each end the process with one fatal log record on
// "util.errhnd" and _exit(-1), so that no static destructor and no exit
// handler runs over a state that can no longer be trusted.
//
// A static initialiser installs everything before main. A static library
// would drop this object, since nothing calls into it; the objects that
// every program of the library uses refer to karu_error_handler_anchor (see
// errhandler.h), which pulls this object in, however the program is linked.
//
// The signal handler logs through the ordinary, not async-signal-safe,
// logging calls: that is the price of a readable last record. A flag guards
// against a second fault during the report, which then ends the process at
// once. Two threads that fault together may both report.
#include <karu/misc/errhandler.h>

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <new>

#include <karu/log/log.h>
#include <karu/string/karuExp.h>

extern "C" {
// Referred to by the objects that keep this one in a program; see above.
int karu_error_handler_anchor = 0;
}

namespace Karu {
namespace {

constexpr const char* kChannel = "util.errhnd";
constexpr int kFatalStatus = -1;

// Set by the first handler that runs; plain, by design (see above).
volatile sig_atomic_t g_handlerRan = 0;

struct ReasonText {
    int code;
    const char* text;
};

struct SignalRow {
    int signal;
    const char* name;
    const ReasonText* reasons;  // null: no reason codes of its own
    size_t count;
};

const ReasonText kIllReasons[] = {
    {ILL_ILLOPC, "Illegal opcode"},        {ILL_ILLOPN, "Illegal operand"},
    {ILL_ILLADR, "Illegal addressing mode"}, {ILL_ILLTRP, "Illegal trap"},
    {ILL_PRVOPC, "Privileged opcode"},     {ILL_PRVREG, "Privileged register"},
    {ILL_COPROC, "Coprocessor error"},     {ILL_BADSTK, "Internal stack error"},
};
// Floating-point division by zero has no text of its own, and keeps it so.
const ReasonText kFpeReasons[] = {
    {FPE_INTOVF, "Integer overflow"},          {FPE_INTDIV, "Integer divide by zero"},
    {FPE_FLTOVF, "Floating-point overflow"},   {FPE_FLTUND, "Floating-point underflow"},
    {FPE_FLTRES, "Floating-point inexact result"}, {FPE_FLTINV, "Invalid floating-point operation"},
    {FPE_FLTSUB, "Subscript out of range"},
};
const ReasonText kBusReasons[] = {
    {BUS_ADRALN, "Invalid address alignment"},
    {BUS_ADRERR, "Nonexistent physical address"},
};
const ReasonText kSegvReasons[] = {
    {SEGV_MAPERR, "Address not mapped to object"},
    {SEGV_ACCERR, "Invalid permissions for mapped object"},
};

#define KARU_REASONS(table) table, sizeof(table) / sizeof(table[0])
const SignalRow kSignals[] = {
    {SIGILL, "illegal instruction", KARU_REASONS(kIllReasons)},
    {SIGTRAP, "a breakpoint has reached", nullptr, 0},
    {SIGFPE, "arithmetic exception", KARU_REASONS(kFpeReasons)},
    {SIGBUS, "hardware fault", KARU_REASONS(kBusReasons)},
    {SIGSEGV, "invalid memory reference", KARU_REASONS(kSegvReasons)},
    {SIGSYS, "invalid system call", kIllReasons, 0},  // every code reads as unknown
};
#undef KARU_REASONS

const int kIgnoredSignals[] = {SIGPIPE, SIGURG, SIGTTIN, SIGTTOU, SIGXFSZ, SIGXCPU};

stringEx CauseText(int signal, const siginfo_t* info)
{
    const SignalRow* row = nullptr;
    for (const SignalRow& candidate : kSignals)
        if (candidate.signal == signal)
            row = &candidate;
    stringEx text(row ? row->name : "unknown system error");
    text += '\n';
    text += stringEx::Format("  signal number   = 0x%x\n", unsigned(signal));
    const int code = info ? info->si_code : 0;
    if (!row) {
        text += stringEx("  reason code     = unknown\n");
    } else if (signal == SIGTRAP) {
        text += stringEx("  reason code     = none\n");
    } else {
        const char* reason = "Unknown Reason";
        for (size_t i = 0; i < row->count; ++i)
            if (row->reasons[i].code == code)
                reason = row->reasons[i].text;
        text += stringEx::Format("  reason code     = %s (%d)\n", reason, code);
    }
    const int error = info ? info->si_errno : 0;
    char buffer[256];
    const char* description = strerror_r(error, buffer, sizeof buffer);
    text += stringEx::Format("  error number    = %d (%s)\n", error, description);
    text += stringEx::Format("  roughly address = %p\n", info ? info->si_addr : nullptr);
    text += stringEx::Format("  thread context  = 0x%llx\n", static_cast<unsigned long long>(pthread_self()));
    return text;
}

[[noreturn]] void FatalSignal(int signal, siginfo_t* info, void* /*context*/)
{
    if (!g_handlerRan) {
        g_handlerRan = 1;
        try {
            const stringEx cause = CauseText(signal, info);
            CLog::LogFatal(kChannel, "unrecoverable underlaying error ocurred: %s", cause.c_str());
            CLog::Flush();
        } catch (...) {
            // the process ends all the same
        }
    }
    _exit(kFatalStatus);
}

// The common end of the three runtime handlers.
[[noreturn]] void Report(const char* format, const char* text) noexcept
{
    if (!g_handlerRan) {
        g_handlerRan = 1;
        try {
            if (text)
                CLog::LogFatal(kChannel, format, text);
            else
                CLog::LogFatal(kChannel, stringEx(format));
            CLog::Flush();
        } catch (...) {
        }
    }
    _exit(kFatalStatus);
}

[[noreturn]] void NewHandler()
{
    // Nothing is freed and bad_alloc is not raised: the caller of new never
    // sees a failed allocation.
    Report("not enough memory, process aborted", nullptr);
}

[[noreturn]] void TerminateHandler()
{
    Report("process has been terminated in an unexpected way", nullptr);
}

[[noreturn]] void UnexpectedHandler()
{
    // Runs inside the handler of the offending exception, which a bare
    // rethrow brings back for a look.
    stringEx text("unknown system error");
    try {
        throw;
    } catch (const karuExp& e) {
        text = e.message;
    } catch (const std::exception& e) {
        text = stringEx(e.what());
    } catch (...) {
    }
    Report("an unexpected exception has occured, process aborted\n@ %s", text.c_str());
}

void Install() noexcept
{
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    for (int signal : kIgnoredSignals)
        sigaction(signal, &ignore, nullptr);

    struct sigaction fatal {};
    fatal.sa_sigaction = FatalSignal;
    // Not deferred: a fault inside the report must reach the handler again,
    // which then ends the process at once, rather than the default action.
    fatal.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigemptyset(&fatal.sa_mask);
    for (const SignalRow& row : kSignals)
        sigaction(row.signal, &fatal, nullptr);

    // The first real-time signal stays blocked in this thread and in every
    // thread made later, which inherit the mask; it is reserved for a thread
    // that waits for it on purpose.
    sigset_t reserved;
    sigemptyset(&reserved);
    sigaddset(&reserved, SIGRTMIN);
    pthread_sigmask(SIG_BLOCK, &reserved, nullptr);

    std::set_new_handler(NewHandler);
    SetUnexpectedHandler(UnexpectedHandler);
    std::set_terminate(TerminateHandler);
}

struct Installer {
    Installer()
    {
        static bool installed = false;
        if (!installed) {
            installed = true;
            Install();
        }
    }
};

const Installer g_installer;

}  // namespace

namespace IMPL {

void ReinstallErrorHandlers() noexcept
{
    g_handlerRan = 0;
    Install();
}

}  // namespace IMPL
}  // namespace Karu

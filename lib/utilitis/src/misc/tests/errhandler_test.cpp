// The fatal-error handler, each condition in a child process: one fatal
// record on "util.errhnd", exit status 255, and no exit handler run.
#include <karu/log/log.h>

#include <gtest/gtest.h>

#include <signal.h>

#include <fstream>
#include <new>
#include <regex>
#include <stdexcept>

#include "sync/tests/forktest.h"

using namespace Karu;
using namespace KaruTest;

namespace {

// Logs to `path` and arranges for `marker` to be written by an exit handler.
void LogTo(const std::string& path)
{
    auto log = std::make_shared<CLog>();
    log->PushLogger(std::make_shared<CFileLogger<CSysFile>>(stringEx(path.c_str())));
    CLog::SetInstance(log);
    static std::string marker;
    marker = path + ".atexit";
    atexit([] { std::ofstream(marker) << "ran"; });
}

void ThrowsOutsideItsList() try {
    throw std::runtime_error("not in the list");
} KARU_THROWS(fileExp)

void Thrower()
{
    throw std::logic_error("nobody catches this");
}
void (*volatile g_thrower)() = Thrower;

// An exception that reaches a noexcept boundary ends in terminate.
void NoexceptThrow() noexcept
{
    g_thrower();
}

void* volatile g_sink;

// An address in the unmapped first page; not null, which a sanitizer would
// stop at before the fault.
volatile uintptr_t g_nowhere = 8;
volatile int* Nowhere()
{
    return reinterpret_cast<volatile int*>(g_nowhere);
}

// A real division by zero, which the undefined-behaviour sanitizer would
// otherwise report itself before the processor faults. Neither operand is
// known, or the compiler replaces the division by a comparison.
volatile int g_dividend = 7, g_zero = 0;
__attribute__((no_sanitize("undefined"))) void DivideByZero()
{
    g_sink = reinterpret_cast<void*>(uintptr_t(g_dividend / g_zero));
}

constexpr bool kSanitizedAllocator = kUnderAddressSanitizer || kUnderThreadSanitizer;

TEST(ErrorHandler, EachFatalConditionEndsWithOneRecord)
{
    struct Row {
        const char* why;
        void (*trigger)();
        std::string message;  // a regular expression for the record's text
    } rows[] = {
        {"dereference of an unmapped address",
         [] {
             *Nowhere() = 1;
         },
         R"(unrecoverable underlaying error ocurred: invalid memory reference
  signal number   = 0xb
  reason code     = Address not mapped to object \(1\)
  error number    = 0 \(Success\)
  roughly address = 0x8
  thread context  = 0x[0-9a-f]+
)"},
        // The reasons are matched by meaning; the number shown is this system's own code.
        {"division by zero: the reason is looked up in the signal's own row", [] { DivideByZero(); },
         R"(unrecoverable underlaying error ocurred: arithmetic exception
  signal number   = 0x8
  reason code     = Integer divide by zero \()" + std::to_string(FPE_INTDIV) + R"(\)
(.|\n)*)"},
        {"an undefined instruction", [] { __builtin_trap(); },
         R"(unrecoverable underlaying error ocurred: illegal instruction
  signal number   = 0x4
  reason code     = Illegal operand \(2\)
(.|\n)*)"},
        {"a code that is not in the signal's row, as a signal sent by a program has",
         [] { raise(SIGFPE); },
         R"(unrecoverable underlaying error ocurred: arithmetic exception
  signal number   = 0x8
  reason code     = Unknown Reason \()" + std::to_string(SI_TKILL) + R"(\)
(.|\n)*)"},
        {"a system-call signal, every code of which is unknown", [] { raise(SIGSYS); },
         R"(unrecoverable underlaying error ocurred: invalid system call
  signal number   = 0x1f
  reason code     = Unknown Reason \()" + std::to_string(SI_TKILL) + R"(\)
(.|\n)*)"},
        {"a breakpoint, which has no reason code", [] { raise(SIGTRAP); },
         R"(unrecoverable underlaying error ocurred: a breakpoint has reached
  signal number   = 0x5
  reason code     = none
(.|\n)*)"},
        {"exception outside the declared list", [] { ThrowsOutsideItsList(); },
         "an unexpected exception has occured, process aborted\n@ not in the list"},
        {"uncaught exception", [] { NoexceptThrow(); }, "process has been terminated in an unexpected way"},
        {"new fails", [] { g_sink = ::operator new(size_t(1) << 62); }, "not enough memory, process aborted"},
    };
    for (const Row& row : rows) {
        if (kSanitizedAllocator && std::string(row.why) == "new fails")
            continue;  // the sanitizer's allocator reports instead of failing
        const std::string path = testing::TempDir() + "karu_errhnd.log";
        unlink(path.c_str());
        unlink((path + ".atexit").c_str());
        const ChildEnd end = RunChild([&] {
            LogTo(path);
            row.trigger();
            return 0;
        });
        EXPECT_TRUE(end.exited) << row.why << ": signal " << end.signal;
        EXPECT_EQ(end.status, 255) << row.why;
        const std::string text = ReadAll(path);
        const std::regex record(R"(\[[^\]]+\]\[Fatal\]   \(util\.errhnd\) ((.|\n)*)\n)");
        std::smatch match;
        ASSERT_TRUE(std::regex_match(text, match, record)) << row.why << ":\n" << text;
        EXPECT_TRUE(std::regex_match(match[1].str(), std::regex(row.message))) << row.why << ":\n" << match[1];
        EXPECT_EQ(ReadAll(path + ".atexit"), "") << row.why << ": an exit handler ran";
    }
}

TEST(ErrorHandler, ASecondFaultDuringTheReportEndsAtOnce)
{
    struct Crashing : ILogger {
        bool Write(const CTime&, int32_t, const stringEx&, const stringEx&) override
        {
            return *Nowhere() == 0;
        }
    };
    const ChildEnd end = RunChild([] {
        auto log = std::make_shared<CLog>();
        log->SetMainLogger(std::make_shared<Crashing>());
        CLog::SetInstance(log);
        raise(SIGSEGV);
        return 0;
    });
    ExpectExit(end, 255);
}

TEST(ErrorHandler, InstalledBeforeMain)
{
    struct sigaction current {};
    sigaction(SIGPIPE, nullptr, &current);
    EXPECT_EQ(current.sa_handler, SIG_IGN);
    sigaction(SIGSEGV, nullptr, &current);
    EXPECT_TRUE(current.sa_flags & SA_SIGINFO);
    EXPECT_NE(std::get_new_handler(), nullptr);
    EXPECT_NE(GetUnexpectedHandler(), nullptr);
}

}  // namespace

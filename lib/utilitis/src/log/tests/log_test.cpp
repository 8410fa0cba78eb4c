// The log: the line format letter by letter, the filter, the logger stack,
// the asynchronous queue under many producers, and the logging thread's
// failure paths: a fault in a logger, a logger that logs, a main logger that
// raises, and a fork. Each failure path runs in a child with a deadline,
// since on a faulty library it hangs.
#include <karu/log/log.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>

#include <atomic>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "file/tests/deadline.h"
#include "file/tests/text_helpers.h"
#include "sync/tests/forktest.h"

using namespace Karu;
using namespace KaruTest;

namespace {

// Keeps what it receives; may be told to refuse or to raise.
class Recorder : public ILogger {
public:
    struct Entry {
        int32_t level;
        std::string channel, message;
    };
    bool Write(const CTime&, int32_t level, const stringEx& channel, const stringEx& message) override
    {
        if (raise)
            throw logExp(stringEx("recorder raised"), 9);
        entries.push_back({level, channel.c_str(), message.c_str()});
        return pass;
    }
    void Flush() override { ++flushes; }
    std::vector<Entry> entries;
    bool pass = true;
    bool raise = false;
    int flushes = 0;
};

// Every test leaves the process without a log.
class LogTest : public ::testing::Test {
protected:
    void TearDown() override { CLog::SetInstance(nullptr); }
    CLog::Handle Install(int32_t threshold = kLogDebug)
    {
        auto log = std::make_shared<CLog>(0, threshold);
        CLog::SetInstance(log);
        return log;
    }
};

using LogLines = LogTest;
using LogFilter = LogTest;
using LogConcurrency = LogTest;

const char* const kStamp = R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{6} UTC[+-]\d{4}\])";

TEST_F(LogLines, FileAndStreamRecordsLetterByLetter)
{
    const std::string path = testing::TempDir() + "karu_log_lines.txt";
    unlink(path.c_str());
    std::ostringstream stream;  // outlives the log that writes to it
    auto log = Install();
    log->PushLogger(std::make_shared<CFileLogger<CSysFile>>(stringEx(path.c_str())));
    log->PushLogger(std::make_shared<CStreamLogger>(stream));
    struct Row {
        int32_t level;
        const char* tag;
        const char* name;
    } rows[] = {
        {0, "[Debug]   ", "debug only"}, {1, "[Info]    ", "info"},  {2, "[Warning] ", "warning"},
        {3, "[Error]   ", "error"},      {4, "[Note]    ", "important notes"}, {5, "[Fatal]   ", "fatal error"},
        {9, "[Unknown] ", "unknown"},
    };
    for (const Row& row : rows) {
        CLog::LogLevel(row.level, "util.test", "n=%d", row.level);
        EXPECT_STREQ(LogLevelName(row.level), row.name);
    }
    EXPECT_STREQ(LogLevelName(6), "disabled");
    CLog::SetInstance(nullptr);  // closes the file

    const std::string fileText = ReadAll(path);
    std::string expectFile, expectStream;
    for (const Row& row : rows) {
        const std::string body = std::regex_replace(std::string(row.tag), std::regex(R"([\[\]])"), R"(\$&)") +
                                 R"(\(util\.test\) n=)" + std::to_string(row.level);
        expectFile += kStamp + body + "\n";
        expectStream += kStamp + body + "\n\n";
    }
    EXPECT_TRUE(std::regex_match(fileText, std::regex(expectFile))) << fileText;
    EXPECT_TRUE(std::regex_match(stream.str(), std::regex(expectStream))) << stream.str();
}

TEST_F(LogFilter, ThresholdAndTheSavedThreshold)
{
    // Without a log nothing is formatted: this pointer would fault if it were.
    CLog::LogError("util.test", "%s", reinterpret_cast<const char*>(16));

    auto log = Install(kLogWarning);
    auto recorder = std::make_shared<Recorder>();
    log->PushLogger(recorder);
    struct Row {
        const char* why;
        void (*before)();
        int32_t level;
        bool delivered;
    } rows[] = {
        {"below the threshold", nullptr, kLogInfo, false},
        {"exactly the threshold", nullptr, kLogWarning, true},
        {"level 6 is no record's level", nullptr, kLogDisabled, false},
        {"disabled", [] { CLog::DisableLogging(); }, kLogFatal, false},
        {"disabled, even at level 6", nullptr, kLogDisabled, false},
        {"disabled, even at an unknown level above it", nullptr, 9, false},
        {"disabled twice, then enabled, stays disabled",
         [] {
             CLog::DisableLogging();
             CLog::EnableLogging();
         },
         kLogFatal, false},
    };
    for (const Row& row : rows) {
        if (row.before)
            row.before();
        const size_t before = recorder->entries.size();
        CLog::LogLevel(row.level, "util.test", stringEx("x"));
        EXPECT_EQ(recorder->entries.size() - before, row.delivered ? 1u : 0u) << row.why;
    }
    EXPECT_EQ(log->GetThreshold(), kLogDisabled);
    // A fresh log enabled without a disable takes the saved debug level.
    auto fresh = Install(kLogError);
    fresh->PushLogger(recorder);
    CLog::EnableLogging();
    EXPECT_EQ(fresh->GetThreshold(), kLogError);  // a saved "disabled" is never put back
}

TEST_F(LogFilter, MainLoggerAndStackFailures)
{
    auto log = Install();
    auto main = std::make_shared<Recorder>(), first = std::make_shared<Recorder>(),
         second = std::make_shared<Recorder>();
    log->PushLogger(first);
    log->PushLogger(second);
    EXPECT_TRUE(log->IsLoggerPushed(second));
    log->SetMainLogger(main);

    main->pass = false;  // hides the record from the stack
    CLog::LogInfo("util.test", stringEx("hidden"));
    main->pass = true;
    first->raise = true;  // swallowed; the next logger still gets it
    CLog::LogInfo("util.test", stringEx("shown"));
    EXPECT_EQ(main->entries.size(), 2u);
    EXPECT_EQ(first->entries.size(), 0u);
    ASSERT_EQ(second->entries.size(), 1u);
    EXPECT_EQ(second->entries[0].message, "shown");

    main->raise = true;  // the main logger's failure reaches the caller
    EXPECT_THROW(CLog::LogInfo("util.test", stringEx("x")), logExp);
    main->raise = false;

    CLog::LogFatal("util.test", stringEx("flushes"));
    EXPECT_EQ(second->flushes, 1);
    EXPECT_EQ(main->flushes, 0);  // the main logger is not flushed

    int32_t code = 0;
    EXPECT_EQ(MessageOf<logExp>([&] { log->PushLogger(nullptr); }, &code), "CLog::PushLogger - invalid logger handle");
    EXPECT_EQ(code, 5);
    log->RemoveLogger(first);
    EXPECT_EQ(log->LoggerCount(), 1u);
    EXPECT_EQ(log->PopLogger(), second);
    EXPECT_EQ(MessageOf<logExp>([&] { log->PopLogger(); }, &code), "CLog::PopLogger - nothing to pop");
    EXPECT_EQ(code, 1);
}

TEST_F(LogConcurrency, ManyProducersLoseNothingAndKeepTheirOrder)
{
    const Deadline deadline(std::chrono::seconds(60), "LogConcurrency.ManyProducersLoseNothingAndKeepTheirOrder");
    auto log = Install();
    auto recorder = std::make_shared<Recorder>();
    log->PushLogger(recorder);
    ASSERT_TRUE(log->StartLoggingThread(true, 3));  // small: producers meet a full queue
    EXPECT_TRUE(log->StartLoggingThread(true, 1000));
    constexpr int kThreads = 5, kRecords = 400;
    std::vector<std::thread> producers;
    for (int t = 0; t < kThreads; ++t)
        producers.emplace_back([t] {
            for (int i = 0; i < kRecords; ++i)
                CLog::LogInfo("util.test", "%d %d", t, i);
        });
    for (auto& p : producers)
        p.join();
    CLog::Flush();
    ASSERT_EQ(recorder->entries.size(), size_t(kThreads * kRecords));
    std::vector<int> next(kThreads, 0);
    for (const auto& e : recorder->entries) {
        int t = -1, i = -1;
        sscanf(e.message.c_str(), "%d %d", &t, &i);
        ASSERT_TRUE(t >= 0 && t < kThreads) << e.message;
        EXPECT_EQ(i, next[t]++) << "thread " << t << " out of order";
    }
    EXPECT_TRUE(log->StartLoggingThread(false, 0));
    EXPECT_FALSE(log->IsLoggingThreadOn());
}

TEST_F(LogConcurrency, FlushWaitsForTheVeryRecordAndStopDeliversTheRest)
{
    const Deadline deadline(std::chrono::seconds(60), "LogConcurrency.FlushWaitsForTheVeryRecordAndStopDeliversTheRest");
    auto log = Install();
    struct Slow : Recorder {
        bool Write(const CTime& t, int32_t l, const stringEx& c, const stringEx& m) override
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            return Recorder::Write(t, l, c, m);
        }
    };
    auto slow = std::make_shared<Slow>();
    log->PushLogger(slow);
    ASSERT_TRUE(log->StartLoggingThread(true, 1));  // every second record waits for room
    CLog::Flush();  // an empty queue drains at once
    CLog::LogInfo("util.test", stringEx("one"));
    CLog::Flush();
    EXPECT_EQ(slow->entries.size(), 1u);
    for (int i = 0; i < 20; ++i)
        CLog::LogInfo("util.test", "more %d", i);
    EXPECT_TRUE(log->StartLoggingThread(false, 0));  // the stop order goes behind them
    EXPECT_EQ(slow->entries.size(), 21u);
}

TEST_F(LogConcurrency, StartFailuresAndAFailingMainLoggerLeaveTheLogSynchronous)
{
    const Deadline deadline(std::chrono::seconds(60), "LogConcurrency.StartFailuresAndAFailingMainLoggerLeaveTheLogSynchronous");
    auto log = Install();
    auto recorder = std::make_shared<Recorder>();
    log->PushLogger(recorder);
    EXPECT_FALSE(log->StartLoggingThread(true, 0xFFFFFFFF));  // above the semaphore limit
    EXPECT_FALSE(log->IsLoggingThreadOn());

    auto main = std::make_shared<Recorder>();
    main->raise = true;
    log->SetMainLogger(main);
    ASSERT_TRUE(log->StartLoggingThread(true, 8));
    CLog::LogInfo("util.test", stringEx("ends the thread"));
    for (int i = 0; i < 500 && log->IsLoggingThreadOn(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_FALSE(log->IsLoggingThreadOn());
    main->raise = false;
    CLog::LogInfo("util.test", stringEx("delivered in the caller"));
    ASSERT_FALSE(recorder->entries.empty());
    EXPECT_EQ(recorder->entries.back().message, "delivered in the caller");
}

TEST_F(LogConcurrency, RecordsQueuedAtExitAreWritten)
{
    const std::string path = testing::TempDir() + "karu_log_exit.txt";
    unlink(path.c_str());
    constexpr int kRecords = 300;
    const ChildEnd end = RunChild([&] {
        auto log = std::make_shared<CLog>();
        log->PushLogger(std::make_shared<CFileLogger<CSysFile>>(stringEx(path.c_str())));
        log->StartLoggingThread(true, 16);
        CLog::SetInstance(log);
        log.reset();
        for (int i = 0; i < kRecords; ++i)
            CLog::LogInfo("util.test", "record %d", i);
        exit(0);  // the exit handler drains the queue
        return 1;
    });
    EXPECT_EQ(end.status, 0);
    std::ifstream file(path);
    std::string line;
    int count = 0;
    while (std::getline(file, line))
        EXPECT_NE(line.find("record " + std::to_string(count++)), std::string::npos) << line;
    EXPECT_EQ(count, kRecords);
}

size_t Count(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

// A log with `stack` pushed and `main` as its main logger, installed with
// the logging thread on; null if the thread could not start.
CLog::Handle InstallThreaded(uint32_t capacity, std::initializer_list<LoggerHandle> stack,
                             const LoggerHandle& main = nullptr)
{
    auto log = std::make_shared<CLog>();
    for (const LoggerHandle& logger : stack)
        log->PushLogger(logger);
    if (main)
        log->SetMainLogger(main);
    if (!log->StartLoggingThread(true, capacity))
        return nullptr;
    CLog::SetInstance(log);
    return log;
}

volatile uintptr_t g_nowhere = 8;  // an unmapped address that is not null

// Faults on the record "boom"; passes everything else.
class Faulting : public ILogger {
public:
    bool Write(const CTime&, int32_t, const stringEx&, const stringEx& message) override
    {
        if (std::string(message.c_str()) == "boom")
            *reinterpret_cast<volatile int*>(g_nowhere) = 1;
        return true;
    }
};

TEST_F(LogConcurrency, AFaultInALoggerOnTheLoggingThreadWritesTheFatalRecord)
{
    if (kUnderThreadSanitizer)
        GTEST_SKIP() << "the fatal handler writes its record through the ordinary logging calls, which are not "
                        "safe in a signal handler, by design; the sanitizer stops at the first of them";
    const std::string path = testing::TempDir() + "karu_log_thread_fault.txt";
    unlink(path.c_str());
    const ChildEnd end = RunChild([&] {
        if (!InstallThreaded(4, {std::make_shared<Faulting>(),
                                 std::make_shared<CFileLogger<CSysFile>>(stringEx(path.c_str()))}))
            return 2;
        CLog::LogInfo("util.test", stringEx("before"));
        CLog::LogInfo("util.test", stringEx("boom"));
        CLog::Flush();  // the thread faults meanwhile: the handler ends the process
        return 1;
    });
    ExpectExit(end, 255);
    const std::string text = ReadAll(path);
    EXPECT_EQ(Count(text, "(util.test) before\n"), 1u) << text;
    EXPECT_EQ(Count(text, "(util.errhnd) unrecoverable underlaying error ocurred: invalid memory reference\n"), 1u)
        << text;
}

// Logs a record of its own for each record of the channel "app", and now
// and then flushes, through the writing family or through the log itself.
class Echoing : public ILogger {
public:
    explicit Echoing(bool direct) : _direct(direct) {}
    // The log itself, for the direct calls. (Asking for the installed log
    // takes the process-wide lock, which a producer waiting for room on the
    // queue holds: that wait is the log's design.)
    CLog* log = nullptr;
    bool Write(const CTime&, int32_t, const stringEx& channel, const stringEx& message) override
    {
        if (std::string(channel.c_str()) != "app")
            return true;
        const bool flush = message.c_str()[message.size() - 1] == '7';
        if (_direct) {
            log->Write(kLogInfo, stringEx("echo"), stringEx("echo of ") + message);
            if (flush)
                log->FlushLoggers();
        } else {
            CLog::LogInfo("echo", "echo of %s", message.c_str());
            if (flush)
                CLog::Flush();
        }
        return true;
    }

private:
    const bool _direct;
};

// A logger that logs and flushes, with a queue so small that producers
// always wait for room, and flushes in between: its records are delivered
// in place, and its flush does not wait for the thread it runs on.
TEST_F(LogConcurrency, ALoggerThatLogsDoesNotDeadlockAgainstAFullQueueOrAFlush)
{
    struct Row {
        const char* why;
        bool direct;
    } rows[] = {
        {"through the writing family", false},
        {"through the log's own delivery and flush", true},
    };
    for (const Row& row : rows) {
        const ChildEnd end = RunChild([&] {
            auto recorder = std::make_shared<Recorder>();
            auto echoing = std::make_shared<Echoing>(row.direct);
            const CLog::Handle log = InstallThreaded(1, {echoing, recorder});
            if (!log)
                return 2;
            echoing->log = log.get();  // before any record of "app" is made
            constexpr int kThreads = 3, kRecords = 300;
            std::vector<std::thread> producers;
            for (int t = 0; t < kThreads; ++t)
                producers.emplace_back([t] {
                    for (int i = 0; i < kRecords; ++i) {
                        CLog::LogInfo("app", "%d.%d", t, i);
                        if (i % 50 == 0)
                            CLog::Flush();
                    }
                });
            for (auto& p : producers)
                p.join();
            CLog::Flush();
            size_t app = 0, echoes = 0;
            for (const auto& e : recorder->entries)
                (e.channel == "app" ? app : echoes) += 1;
            return app == kThreads * kRecords && echoes == app ? 0 : 1;
        }, 20000);
        SCOPED_TRACE(row.why);
        ExpectExit(end, 0);
    }
}

// The main logger raises for one record on the thread: the thread ends, as
// it does by design, its end is reported, and every record queued behind the
// failing one is still delivered, in order. The logger raises only once the
// records behind are queued, so that they are the dead thread's leftovers.
TEST_F(LogConcurrency, AMainLoggerThatRaisesOnTheThreadIsReportedAndLosesNothing)
{
    const ChildEnd end = RunChild([] {
        static std::atomic<bool> queued{false};
        struct RaisingOnBoom : Recorder {
            bool Write(const CTime& t, int32_t l, const stringEx& c, const stringEx& m) override
            {
                if (std::string(m.c_str()) == "boom") {
                    AwaitCondition([] { return queued.load(); }, 10000);
                    throw logExp(stringEx("main logger refused"), 9);
                }
                return Recorder::Write(t, l, c, m);
            }
        };
        auto stack = std::make_shared<Recorder>();
        const CLog::Handle log = InstallThreaded(64, {stack}, std::make_shared<RaisingOnBoom>());
        if (!log)
            return 2;
        CLog::LogInfo("util.test", stringEx("first"));
        CLog::LogInfo("util.test", stringEx("boom"));
        for (int i = 0; i < 40; ++i)
            CLog::LogInfo("util.test", "after %d", i);
        queued = true;
        CLog::Flush();
        if (log->IsLoggingThreadOn())
            return 3;
        CLog::LogInfo("util.test", stringEx("synchronous"));
        std::vector<std::string> seen;
        for (const auto& e : stack->entries)
            seen.push_back(e.channel + " " + e.message);
        std::vector<std::string> expect = {"util.test first",
                                           "util.trd thread ended by an exception\n@ main logger refused"};
        for (int i = 0; i < 40; ++i)
            expect.push_back("util.test after " + std::to_string(i));
        expect.push_back("util.test synchronous");
        if (seen != expect) {
            for (const auto& line : seen)
                fprintf(stderr, "seen: %s\n", line.c_str());
            return 1;
        }
        return 0;
    });
    ExpectExit(end, 0);
}

// Children forked while the thread runs and another thread logs: each logs,
// flushes and logs a fatal record in its own process, directly. The file
// logger writes a record in pieces, so the parent's records may stand
// between the pieces of a child's; each message is one piece.
TEST_F(LogConcurrency, AChildForkedWhileTheThreadRunsLogsDirectly)
{
    const std::string path = testing::TempDir() + "karu_log_fork.txt";
    unlink(path.c_str());
    constexpr int kChildren = 20;
    const ChildEnd end = RunScenario([&] {  // its own children go down with it at the deadline
        const CLog::Handle log = InstallThreaded(2, {std::make_shared<CFileLogger<CSysFile>>(stringEx(path.c_str()))});
        if (!log)
            return 2;
        std::atomic<bool> stop{false};
        std::thread producer([&] {
            for (int i = 0; !stop; ++i)
                CLog::LogInfo("util.test", "parent %d", i);
        });
        int failures = 0;
        for (int c = 0; c < kChildren; ++c) {
            const pid_t child = fork();
            if (child == 0) {
                CLog::LogInfo("util.test", "child %02d", c);
                CLog::Flush();
                CLog::LogFatal("util.test", "child %02d fatal", c);
                _exit(log->IsLoggingThreadOn() ? 3 : 0);
            }
            const ChildEnd childEnd = WaitChild(child, 10000);
            failures += childEnd.timedOut || childEnd.status != 0;
        }
        stop = true;
        producer.join();
        CLog::SetInstance(nullptr);
        return failures == 0 ? 0 : 1;
    });
    ExpectExit(end, 0);
    const std::string text = ReadAll(path);
    for (int c = 0; c < kChildren; ++c) {
        const std::string message = "child " + std::string(c < 10 ? "0" : "") + std::to_string(c);
        EXPECT_EQ(Count(text, message), 2u) << message;
        EXPECT_EQ(Count(text, message + " fatal"), 1u) << message;
    }
}

}  // namespace

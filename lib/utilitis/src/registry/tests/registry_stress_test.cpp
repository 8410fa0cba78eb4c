// The store under stress: many threads on one tree, and a save killed at
// every step and at every byte of its file.
#include <karu/registry/fakeRegistry.h>

#include <karu/file/dir.h>

#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "file/tests/deadline.h"
#include "file/tests/scratch_dir.h"
#include "sync/tests/forktest.h"
#include "regtest.h"

using namespace Karu;
using namespace Karu::RegTest;

namespace {

// Threads write their own keys, fight over shared ones, remove and recreate
// subtrees, and read, save, export and reload the tree all the while. Each
// thread's own counter must end exact, and every snapshot must load again.
TEST(RegistryConcurrency, ThreadsReadAndWriteOneTree)
{
    const KaruTest::Deadline deadline(std::chrono::seconds(120), "threads reading and writing one tree");
    constexpr int kThreads = 4;
    constexpr int kRounds = 1000;
    CFakeRegistry root;
    std::atomic<int> snapshots{0};
    std::atomic<bool> failed{false};

    auto worker = [&](int id) {
        try {
            CFakeRegistry own = root.ObtainSubkey(stringEx::Format("own\\t%d", id), true);
            for (int round = 0; round < kRounds; ++round) {
                uint32_t count = 0;
                own.ReadValueEx("count", count, uint32_t(0));
                own.SetValue("count", count + 1);

                const stringEx shared = stringEx::Format("shared\\k%d\\leaf", round % 5);
                CFakeRegistry leaf = root.ObtainSubkey(shared, true);
                leaf.SetValue(stringEx::Format("v%d", id), stringEx::Format("round %d", round));
                leaf.SetValue("set", StringVector{"a", stringEx::Format("%d", id)});
                if (round % 7 == id)
                    root.RemoveSubkey(stringEx::Format("shared\\k%d", (round + 1) % 5), true);

                for (uint64_t i = 0;; ++i) {
                    try {
                        root.ObtainSubkey("shared").EnumSubkey(i);
                    } catch (const regExp&) {
                        break;  // the end, or a key removed under the walk
                    }
                }
                stringEx text;
                leaf.ReadValueEx(stringEx::Format("v%d", id), text, stringEx());
                root.IsSubkeyExists(shared);

                if (id == 0 && round % 20 == 0) {
                    byteEx bytes;
                    CMemorySink sink(bytes);
                    root.Save(sink);
                    CMemorySource source(bytes);
                    CFakeRegistry copy;
                    copy.Open(source);
                    byteEx ini;
                    CMemorySink iniSink(ini);
                    root.ExportIni(iniSink);
                    CMemorySource iniSource(ini);
                    CFakeRegistry fromIni;
                    fromIni.ImportIni(iniSource);
                    ++snapshots;
                }
            }
        } catch (const karuExp& e) {
            ADD_FAILURE() << "thread " << id << ": " << e.message.c_str();
            failed = true;
        }
    };
    std::vector<std::thread> threads;
    for (int id = 0; id < kThreads; ++id)
        threads.emplace_back(worker, id);
    for (std::thread& t : threads)
        t.join();

    ASSERT_FALSE(failed);
    EXPECT_EQ(snapshots.load(), kRounds / 20);
    for (int id = 0; id < kThreads; ++id) {
        uint32_t count = 0;
        root.ObtainSubkey(stringEx::Format("own\\t%d", id)).ReadValueEx("count", count);
        EXPECT_EQ(count, static_cast<uint32_t>(kRounds)) << id;
    }
}

// ---- deep trees -------------------------------------------------------------------------------

// A chain of keys far deeper than any file may hold is freed without
// running out of stack, on a thread with a modest one: the destructors do
// not recurse a level at a time. A handle held to the middle keeps its part
// alive. Saving and exporting it fail with the store's errors instead.
TEST(RegistryDeep, AVeryDeepTreeIsFreedAndRefusedCleanly)
{
    const KaruTest::Deadline deadline(std::chrono::seconds(60), "a very deep tree on a thread of its own");
    constexpr int kLevels = 100000;
    // Room for a compile of the deepest tree a file may hold (about half a
    // kilobyte a level), and far less than freeing every level in turn
    // by nested destructors would take.
    constexpr size_t kSmallStack = 4 * 1024 * 1024;
    struct Work {
        CFakeRegistry middle;
        std::string saved, exported;
        uint64_t middleDepth = 0;
    } work;
    auto run = [](void* argument) -> void* {
        Work& w = *static_cast<Work*>(argument);
        {
            CFakeRegistry root;
            CFakeRegistry key = root;
            for (int level = 0; level < kLevels; ++level) {
                key = key.ObtainChild("x", true);
                if (level == kLevels / 2)
                    w.middle = key;
            }
            byteEx bytes;
            CMemorySink sink(bytes);
            w.saved = KaruTest::MessageOf([&] { root.Save(sink); });
            w.exported = KaruTest::MessageOf([&] { root.ExportIni(sink); });
        }
        for (CFakeRegistry key = w.middle; key.GetSubkeyCount() > 0; key = key.ObtainChild("x"))
            ++w.middleDepth;
        w.middle = CFakeRegistry();
        return nullptr;
    };
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kSmallStack);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, run, &work), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(work.middleDepth, uint64_t(kLevels - kLevels / 2 - 1));
    EXPECT_EQ(work.saved.substr(0, 60), "RegCompile - io failed when trying compile fake registry\n@ R");
    EXPECT_EQ(work.exported.substr(0, 50), "CFakeRegistry::ExportIni - failed export to ini\n@ ");
}

// ---- saves racing opens ---------------------------------------------------------------------

// Version n of a store: its number, and a body whose size and content follow
// from it, so that a store read back can be told whole or not.
constexpr uint32_t kVersions = 8;

CFakeRegistry Version(uint32_t n)
{
    CFakeRegistry root;
    root.SetValue("version", n);
    root.SetValue("text", stringEx((std::to_string(n) + std::string(n % 7 * 300, 'x')).c_str()));
    for (uint32_t k = 0; k <= n % 4; ++k) {
        byteEx blob;
        for (uint32_t i = 0; i < (n * 3700 + k * 1100) % 20000; ++i)
            blob.push_back(static_cast<unsigned char>(n + i));
        root.ObtainSubkey(stringEx::Format("k%u\\deeper", k), true).SetValue("blob", blob);
    }
    return root;
}

// What an open of the store found: "" for a whole version, else what was wrong.
std::string CheckOpen(const stringEx& path, const std::vector<std::string>& versions)
{
    CFakeRegistry store;
    const std::string failed = KaruTest::MessageOf([&] { store.Open(path); });
    if (failed != "(nothing raised)")
        return "open failed: " + failed;
    uint32_t version = kVersions;
    store.ReadValueEx("version", version, kVersions);
    if (version >= kVersions)
        return "no version in the store";
    if (Dump(store) != versions[version])
        return "version " + std::to_string(version) + " is not whole: " + FirstDifference(Dump(store), versions[version]);
    return "";
}

// Each worker saves its own versions and opens the store in turn, for a
// while and at least a number of rounds: every open must find one whole
// version, and the file must be there all the time.
std::string SaveAndOpenInTurn(const stringEx& path, const std::vector<std::string>& versions, int worker,
                              std::atomic<int>& saves, std::atomic<int>& opens)
{
    constexpr int kMinRounds = 30;
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(1200);
    for (int round = 0; round < kMinRounds || std::chrono::steady_clock::now() < until; ++round) {
        if (round % 2 == worker % 2) {
            const std::string failed = KaruTest::MessageOf(
                [&] { Version(static_cast<uint32_t>(worker * 4 + round / 2 % 4) % kVersions).Save(path); });
            if (failed != "(nothing raised)")
                return "save failed: " + failed;
            ++saves;
        } else {
            const std::string found = CheckOpen(path, versions);
            if (!found.empty())
                return found;
            ++opens;
        }
        if (!CDir::Exists(path))
            return "the store is missing";
    }
    return "";
}

// A store in a scratch directory, holding version 0, with the dump of each
// version to check opens against.
struct RaceStore : karu_test::ScratchDir {
    RaceStore()
    {
        path = stringEx((*this / "store.reg").c_str());
        for (uint32_t n = 0; n < kVersions; ++n)
            versions.push_back(Dump(Version(n)));
        Version(0).Save(path);
    }

    stringEx path;
    std::vector<std::string> versions;
};

TEST(RegistryConcurrency, SavesAndOpensOfOneFileAlwaysSeeAWholeVersion)
{
    const KaruTest::Deadline deadline(std::chrono::seconds(60), "threads saving and opening one store");
    const RaceStore store;
    const stringEx& path = store.path;
    const std::vector<std::string>& versions = store.versions;
    std::atomic<int> saves{0}, opens{0};
    constexpr int kWorkers = 3;
    std::vector<std::string> outcomes(kWorkers);
    std::vector<std::thread> threads;
    for (int worker = 0; worker < kWorkers; ++worker)
        threads.emplace_back([&, worker] { outcomes[worker] = SaveAndOpenInTurn(path, versions, worker, saves, opens); });
    for (std::thread& t : threads)
        t.join();
    for (int worker = 0; worker < kWorkers; ++worker)
        EXPECT_EQ(outcomes[worker], "") << "worker " << worker;
    EXPECT_GE(saves.load(), kWorkers * 10);
    EXPECT_GE(opens.load(), kWorkers * 10);
    EXPECT_EQ(CheckOpen(path, versions), "");
    EXPECT_FALSE(CDir::Exists(CDir::TransactionFileName(path)));
}

TEST(RegistryProcesses, SavesAndOpensOfOneFileAlwaysSeeAWholeVersion)
{
    const KaruTest::Deadline deadline(std::chrono::seconds(60), "processes saving and opening one store");
    const RaceStore store;
    const stringEx& path = store.path;
    const std::vector<std::string>& versions = store.versions;
    constexpr int kWorkers = 2;
    std::vector<pid_t> children;
    for (int worker = 0; worker < kWorkers; ++worker) {
        children.push_back(KaruTest::StartChild([&, worker] {
            alarm(50);  // the child's own deadline, should the parent be gone
            std::atomic<int> saves{0}, opens{0};
            const std::string outcome = SaveAndOpenInTurn(path, versions, worker, saves, opens);
            if (!outcome.empty())
                std::fprintf(stderr, "worker %d: %s\n", worker, outcome.c_str());
            return outcome.empty() && saves > 10 && opens > 10 ? 0 : 1;
        }));
    }
    // The parent opens too, while the children work.
    std::string parentOutcome;
    for (int round = 0; round < 50 && parentOutcome.empty(); ++round)
        parentOutcome = CheckOpen(path, versions);
    EXPECT_EQ(parentOutcome, "");
    for (pid_t child : children) {
        const KaruTest::ChildEnd end = KaruTest::WaitChild(child);
        EXPECT_TRUE(end.exited && end.status == 0) << "a worker failed, see its message above";
    }
    EXPECT_EQ(CheckOpen(path, versions), "");
}

// ---- crash -----------------------------------------------------------------------------------

int g_killAt = 0;
int g_steps = 0;

void KillAtStep(const char*)
{
    if (++g_steps == g_killAt)
        raise(SIGKILL);
}

void KillOnFileLimit(int)
{
    raise(SIGKILL);
}

// Runs a save of `tree` to `path` in a child that `arm` prepares to die;
// true when the child was killed, false when the save ran to its end.
template <class Arm>
bool SaveInChild(CFakeRegistry tree, const stringEx& path, Arm arm)
{
    const KaruTest::ChildEnd end = KaruTest::RunChild([&] {
        arm();
        tree.Save(path);
        return 0;
    });
    EXPECT_FALSE(end.timedOut);
    if (end.signal) {
        EXPECT_EQ(end.signal, SIGKILL);
        return true;
    }
    EXPECT_EQ(end.status, 0);
    return false;
}

TEST(RegistryCrash, AKilledSaveLeavesTheOldOrTheNewContent)
{
    const KaruTest::Deadline deadline(std::chrono::seconds(240), "saves killed at every step and byte");
    const karu_test::ScratchDir dir;
    const stringEx path((dir / "store.reg").c_str());
    // Small trees: the new file is cut at every one of its bytes.
    CFakeRegistry before = RichTree(0);
    CFakeRegistry after = RichTree(1);
    after.ObtainSubkey("added", true).SetValue("more", "text that the old tree does not have");
    const std::string oldDump = Dump(before), newDump = Dump(after);
    ASSERT_NE(oldDump, newDump);

    // Opens the store the way a restarted program would, says which content
    // it found, and puts the old content back for the next round.
    auto reopen = [&] {
        CFakeRegistry store;
        store.Open(path);
        EXPECT_FALSE(CDir::Exists(CDir::TransactionFileName(path)));
        const std::string found = Dump(store);
        EXPECT_TRUE(found == oldDump || found == newDump) << FirstDifference(found, newDump);
        before.Save(path);
        return found == oldDump ? "old" : found == newDump ? "new" : "mixed";
    };
    before.Save(path);

    // Killed at each step boundary of the save, in turn.
    std::vector<std::string> outcomes;
    for (int step = 1;; ++step) {
        const bool killed = SaveInChild(after, path, [step] {
            g_killAt = step;
            IMPL::SetFileStepHook(KillAtStep);
        });
        const std::string outcome = reopen();
        if (!killed) {
            EXPECT_EQ(outcome, "new");
            break;
        }
        outcomes.push_back(outcome);
    }
    // locked, parked, written, done: old until the new file is whole, new
    // from there on.
    EXPECT_EQ(outcomes, (std::vector<std::string>{"old", "old", "new", "new"}));

    // Killed inside the writing of the new file, at every byte.
    byteEx compiled;
    CMemorySink sink(compiled);
    CFakeRegistry(after).Save(sink);
    std::set<std::string> seen;
    for (uint64_t cut = 0; cut <= compiled.size(); ++cut) {
        const bool killed = SaveInChild(after, path, [cut] {
            signal(SIGXFSZ, KillOnFileLimit);
            const rlimit limit{cut, cut};
            setrlimit(RLIMIT_FSIZE, &limit);
        });
        const std::string outcome = reopen();
        EXPECT_EQ(killed, cut < compiled.size()) << "cut at " << cut;
        EXPECT_EQ(outcome, killed ? "old" : "new") << "cut at " << cut;
        seen.insert(outcome);
    }
    EXPECT_EQ(seen, (std::set<std::string>{"old", "new"}));
}

}  // namespace

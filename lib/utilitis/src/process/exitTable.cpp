// CExitTbl and the register of the library's children; see process.h.
//
// Each child that CProcess::Create starts gets a slot: its pid, a state, and
// its wait status once it has ended. The SIGCHLD handler reaps exactly the
// running children of the register, one waitpid each, so the program's
// other children stay for their own waiters (pclose, a plain waitpid).
//
// The handler may run in any thread at any moment, so nothing here takes a
// lock or allocates on its path: a slot is claimed, filled and given back
// with atomic operations, and slots live in blocks that are only ever added
// (by Create, outside the handler) and never freed, so the handler never
// walks into memory that goes away. A status stays until Wait reads it;
// there is no bound but memory.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include <karu/process/process.h>
#include <karu/sync/fastlock.h>

#include "process/children.h"

namespace Karu {
namespace {

enum SlotState : int { kFree, kClaimed, kRunning, kEnded };

struct CHILD_SLOT {
    std::atomic<int> state{kFree};
    std::atomic<pid_t> pid{0};
    std::atomic<int> status{0};
};

constexpr size_t kSlotsPerBlock = 64;  // a block of slots is 1 KB; most programs need one

struct SLOT_BLOCK {
    CHILD_SLOT slots[kSlotsPerBlock];
    std::atomic<SLOT_BLOCK*> next{nullptr};
};

constinit SLOT_BLOCK g_children;

// Calls `visit` on every slot until it returns true; true if one did.
template <class Visit>
bool AnySlot(Visit visit) noexcept
{
    for (SLOT_BLOCK* block = &g_children; block; block = block->next.load(std::memory_order_acquire))
        for (CHILD_SLOT& slot : block->slots)
            if (visit(slot))
                return true;
    return false;
}

// Safe in a signal handler: reaps the slot's child if it has ended.
void Reap(CHILD_SLOT& slot) noexcept
{
    if (slot.state.load(std::memory_order_acquire) != kRunning)
        return;
    const pid_t pid = slot.pid.load(std::memory_order_relaxed);
    int status = 0;
    pid_t reaped;
    do {
        reaped = waitpid(pid, &status, WNOHANG);
    } while (reaped < 0 && errno == EINTR);
    if (reaped != pid)
        return;
    slot.status.store(status, std::memory_order_relaxed);
    int running = kRunning;
    slot.state.compare_exchange_strong(running, kEnded, std::memory_order_release);
}

CHILD_SLOT& ClaimSlot()
{
    for (;;) {
        CHILD_SLOT* claimed = nullptr;
        AnySlot([&](CHILD_SLOT& slot) {
            int free = kFree;
            if (!slot.state.compare_exchange_strong(free, kClaimed, std::memory_order_acq_rel))
                return false;
            claimed = &slot;
            return true;
        });
        if (claimed)
            return *claimed;
        // Every slot is taken: one more block at the end of the chain.
        SLOT_BLOCK* tail = &g_children;
        while (SLOT_BLOCK* next = tail->next.load(std::memory_order_acquire))
            tail = next;
        auto* fresh = new SLOT_BLOCK();
        SLOT_BLOCK* none = nullptr;
        if (!tail->next.compare_exchange_strong(none, fresh, std::memory_order_acq_rel))
            delete fresh;  // another thread added one first
    }
}

FAST_PCLOCK g_tableLock;  // guards the handler's installation
int g_tables = 0;
struct sigaction g_programAction;

void ChildTerminated(int signal, siginfo_t* info, void* context)
{
    const int savedErrno = errno;
    AnySlot([](CHILD_SLOT& slot) {
        Reap(slot);
        return false;
    });
    // The program's own handler still hears of its children.
    if (g_programAction.sa_flags & SA_SIGINFO) {
        if (g_programAction.sa_sigaction)
            g_programAction.sa_sigaction(signal, info, context);
    } else if (g_programAction.sa_handler != SIG_DFL && g_programAction.sa_handler != SIG_IGN) {
        g_programAction.sa_handler(signal);
    }
    errno = savedErrno;
}

}  // namespace

namespace IMPL {

void NoteChild(pid_t pid)
{
    CHILD_SLOT& slot = ClaimSlot();
    slot.pid.store(pid, std::memory_order_relaxed);
    slot.state.store(kRunning, std::memory_order_release);
    Reap(slot);  // it may have ended, and its signal gone by, before it was noted
}

void ForgetChild(pid_t pid) noexcept
{
    AnySlot([pid](CHILD_SLOT& slot) {
        const int state = slot.state.load(std::memory_order_acquire);
        if ((state != kRunning && state != kEnded) || slot.pid.load(std::memory_order_relaxed) != pid)
            return false;
        slot.pid.store(0, std::memory_order_relaxed);
        slot.state.store(kFree, std::memory_order_release);
        return true;
    });
}

bool TakeChildStatus(pid_t pid, int& status, bool remove) noexcept
{
    return AnySlot([&](CHILD_SLOT& slot) {
        if (slot.state.load(std::memory_order_acquire) != kEnded || slot.pid.load(std::memory_order_relaxed) != pid)
            return false;
        status = slot.status.load(std::memory_order_relaxed);
        if (remove) {
            slot.pid.store(0, std::memory_order_relaxed);
            slot.state.store(kFree, std::memory_order_release);
        }
        return true;
    });
}

}  // namespace IMPL

CExitTbl::CExitTbl()
{
    CFastLockHolder hold(g_tableLock);
    if (g_tables++ > 0)
        return;
    struct sigaction action {};
    action.sa_sigaction = ChildTerminated;
    action.sa_flags = SA_SIGINFO | SA_RESTART | SA_NOCLDSTOP;
    sigemptyset(&action.sa_mask);
    if (sigaction(SIGCHLD, &action, &g_programAction) != 0) {
        --g_tables;
        Throw<procExp>(ExpMessage("CExitTbl::CExitTbl - failed setup the child terminate handler\n").Errno(errno, {}),
                       21);
    }
    // Children that ended before the handler stood.
    AnySlot([](CHILD_SLOT& slot) {
        Reap(slot);
        return false;
    });
}

CExitTbl::~CExitTbl()
{
    CFastLockHolder hold(g_tableLock);
    if (--g_tables == 0)
        sigaction(SIGCHLD, &g_programAction, nullptr);
}

bool CExitTbl::Lookup(pid_t pid, int& status, bool remove)
{
    return IMPL::TakeChildStatus(pid, status, remove);
}

}  // namespace Karu

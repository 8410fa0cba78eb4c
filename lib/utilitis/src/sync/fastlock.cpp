// FAST_PCLOCK and CSem; see fastlock.h for the protocol.
#include <karu/sync/fastlock.h>

#include <pthread.h>

#include <cerrno>
#include <ctime>

namespace Karu {
namespace {

[[noreturn]] void RaiseSem(const char* head, int error, ErrnoTable table, int32_t code)
{
    Throw<semExp>(ExpMessage(head).Errno(error, table), code);
}

const ErrnoTable kDestroyErrors = {{EBUSY, "there are currently processes blocked on the semaphore"},
                                   {EINVAL, "current object is not a valid semaphore"}};

// Counts a thread in for the length of a wait.
class Waiting {
public:
    explicit Waiting(std::atomic<uint32_t>& count) : _count(count) { ++_count; }
    ~Waiting() { --_count; }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

private:
    std::atomic<uint32_t>& _count;
};

}  // namespace

uint64_t CurrentThreadIdentity() noexcept
{
    return static_cast<uint64_t>(pthread_self());
}

// ---- CSem ------------------------------------------------------------------------

CSem::CSem(unsigned value, unsigned /*maximum*/)
{
    __Init(value);
}

void CSem::__Init(unsigned value)
{
    if (sem_init(&_sem, 0, value) != 0)
        RaiseSem("CSem::__Init - failed create semaphore\n", errno,
                 {{EINVAL, "the init value exceeds max limited"},
                  {ENOSPC, "the max semaphores limit has been reached"},
                  {EPERM, "permission denied"}},
                 1);
}

CSem::~CSem() noexcept(false)
{
    if (_waiters.load() != 0) {
        // The platform would let it go under the waiter's feet.
        if (MayThrowFromDestructor())
            RaiseSem("CSem::~CSem - failed destroy semaphore\n", EBUSY, kDestroyErrors, 3);
        return;
    }
    if (sem_destroy(&_sem) != 0 && MayThrowFromDestructor())
        RaiseSem("CSem::~CSem - failed destroy semaphore\n", errno, kDestroyErrors, 3);
}

void CSem::P()
{
    Waiting counted(_waiters);
    IMPL::SemP(&_sem, "CSem::P - failed P a semaphore\n");
}

bool CSem::TryP()
{
    return IMPL::SemTryP(&_sem, "CSem::P - failed P a semaphore\n");
}

bool CSem::TimedP(uint32_t milliseconds)
{
    Waiting counted(_waiters);
    return IMPL::SemTimedP(&_sem, milliseconds, "CSem::P - failed P a semaphore\n");
}

void CSem::V(unsigned count)
{
    IMPL::SemV(&_sem, count, "CSem::V - failed V a semaphore\n");
}

void CSem::ForgetWaitersAfterFork() noexcept
{
    _waiters = 0;
    while (sem_trywait(&_sem) == 0) {
    }
}

// ---- the calls shared with the named semaphore ----------------------------------

namespace IMPL {

timespec DeadlineOn(clockid_t clock, uint32_t milliseconds) noexcept
{
    timespec deadline{};
    clock_gettime(clock, &deadline);
    deadline.tv_sec += milliseconds / 1000;
    deadline.tv_nsec += long(milliseconds % 1000) * 1000000;
    if (deadline.tv_nsec >= 1000000000) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000;
    }
    return deadline;
}

void SemP(sem_t* sem, const char* head)
{
    while (sem_wait(sem) != 0) {
        if (errno == EINTR)
            continue;
        RaiseSem(head, errno, {{EINVAL, "current object is not a valid semaphore"}, {EDEADLK, "deadlock detected"}},
                 4);
    }
}

bool SemTryP(sem_t* sem, const char* head)
{
    while (sem_trywait(sem) != 0) {
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN)
            return false;
        RaiseSem(head, errno, {{EINVAL, "current object is not a valid semaphore"}, {EDEADLK, "deadlock detected"}},
                 4);
    }
    return true;
}

bool SemTimedP(sem_t* sem, uint32_t milliseconds, const char* head)
{
    if (milliseconds == 0)
        return SemTryP(sem, head);
    if (milliseconds == CSem::kInfinite) {
        SemP(sem, head);
        return true;
    }
    const timespec deadline = DeadlineOn(CLOCK_REALTIME, milliseconds);
    while (sem_timedwait(sem, &deadline) != 0) {
        if (errno == EINTR)
            continue;  // the deadline is absolute, so a restart keeps it
        if (errno == ETIMEDOUT)
            return false;
        RaiseSem("TimedWait - failed P a semaphore\n", errno,
                 {{EINVAL, "invalid semaphore obj or invalid timeout argument"}, {EDEADLK, "deadlock detected"}}, 4);
    }
    return true;
}

void SemV(sem_t* sem, unsigned count, const char* head)
{
    for (unsigned i = 0; i < count; ++i)
        if (sem_post(sem) != 0)
            RaiseSem(head, errno,
                     {{EINVAL, "current object is not a valid semaphore"},
                      {EOVERFLOW, "the maximum allowable value for a semaphore would be exceeded"}},
                     5);
}

}  // namespace IMPL

// ---- FAST_PCLOCK -------------------------------------------------------------------

FAST_PCLOCK::~FAST_PCLOCK()
{
    delete waitSem.load();
}

CSem* FAST_PCLOCK::__WaitSem()
{
    CSem* sem = waitSem.load(std::memory_order_acquire);
    if (sem)
        return sem;
    CSem* mine = new CSem(0, 1);
    if (waitSem.compare_exchange_strong(sem, mine, std::memory_order_acq_rel))
        return mine;
    delete mine;  // another thread installed one first
    return sem;
}

void FAST_PCLOCK::Lock()
{
    const uint64_t self = CurrentThreadIdentity();
    if (lockCount.fetch_add(1, std::memory_order_acquire) + 1 == 0) {
        owner.store(self, std::memory_order_relaxed);
        recursion = 1;
        return;
    }
    if (owner.load(std::memory_order_relaxed) == self) {
        ++recursion;  // the lockCount increment stands until Unlock
        return;
    }
    __WaitSem()->P();
    owner.store(self, std::memory_order_relaxed);
    recursion = 1;
}

void FAST_PCLOCK::ForgetOtherThreads() noexcept
{
    if (recursion > 0 && owner.load(std::memory_order_relaxed) == CurrentThreadIdentity()) {
        lockCount.store(int64_t(recursion) - 1);
    } else {
        owner.store(0);
        recursion = 0;
        lockCount.store(-1);
    }
    if (CSem* sem = waitSem.load())
        sem->ForgetWaitersAfterFork();
}

void FAST_PCLOCK::Unlock()
{
    if (--recursion != 0) {
        lockCount.fetch_sub(1, std::memory_order_release);
        return;
    }
    owner.store(0, std::memory_order_relaxed);
    if (lockCount.fetch_sub(1, std::memory_order_acq_rel) - 1 < 0)
        return;
    // A waiter has counted itself in; it may not have made the semaphore yet.
    __WaitSem()->V(1);
}

}  // namespace Karu

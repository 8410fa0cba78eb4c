// FAST_PCLOCK, the library's default lock, and CSem, the private counting
// semaphore it sleeps on.
//
// FAST_PCLOCK is recursive and in-process. Its uncontended path is one
// atomic addition to take and one to give back, and it creates no operating
// system object until two threads really collide: `lockCount` counts holders
// and waiters minus one, so the thread that moves it from -1 to 0 owns the
// lock, and every later arrival either is the owner (recursion) or sleeps on
// the semaphore. The releaser hands the lock directly to one sleeper.
//
// The subtle part is the lazily created semaphore: a waiter and a releaser
// may both find it missing; each creates one and installs it with a
// compare-and-swap, and the loser frees its own. So a post is never lost,
// whoever gets there first.
//
// Static instances need no dynamic initialisation: the constructor is
// constexpr, so a namespace-scope lock is usable from any static constructor.
#pragma once

#include <semaphore.h>
#include <time.h>

#include <atomic>
#include <cstdint>

#include <karu/string/karuExp.h>

namespace Karu {

class CSem {
public:
    // `maximum` is accepted for symmetry with the named semaphores; the
    // platform's own limit is what applies.
    CSem(unsigned value, unsigned maximum);
    // Destroying a semaphore on which a thread waits raises "there are
    // currently processes blocked on the semaphore" and leaves it as it is.
    ~CSem() noexcept(false);
    CSem(const CSem&) = delete;
    CSem& operator=(const CSem&) = delete;

    void P();
    bool TryP();
    // 0 means TryP, kInfinite means P; false at expiry.
    bool TimedP(uint32_t milliseconds);
    void V(unsigned count = 1);
    // In the child of a fork, where the threads that waited do not exist:
    // no waiter, and no post left for one.
    void ForgetWaitersAfterFork() noexcept;

    static constexpr uint32_t kInfinite = 0xFFFFFFFF;

private:
    void __Init(unsigned value);
    sem_t _sem;
    // Threads inside P or TimedP; the platform does not tell.
    std::atomic<uint32_t> _waiters{0};
};

namespace IMPL {
// The time of `clock` now, `milliseconds` later: the deadline of a wait.
timespec DeadlineOn(clockid_t clock, uint32_t milliseconds) noexcept;

// The semaphore calls of CSem and CProcSem; `head` names the operation in a
// failure's message. Waits restart after a signal.
void SemP(sem_t* sem, const char* head);
bool SemTryP(sem_t* sem, const char* head);
bool SemTimedP(sem_t* sem, uint32_t milliseconds, const char* head);
void SemV(sem_t* sem, unsigned count, const char* head);
}  // namespace IMPL

// The calling thread's identity as the locks store it (never 0).
uint64_t CurrentThreadIdentity() noexcept;

struct FAST_PCLOCK {
    constexpr FAST_PCLOCK() noexcept = default;
    ~FAST_PCLOCK();
    FAST_PCLOCK(const FAST_PCLOCK&) = delete;
    FAST_PCLOCK& operator=(const FAST_PCLOCK&) = delete;

    void Lock();
    void Unlock();
    // In the child of a fork, where only the calling thread exists: a hold
    // of this thread stays, any other holder and every waiter is gone.
    void ForgetOtherThreads() noexcept;

    std::atomic<int64_t> lockCount{-1};
    uint64_t recursion = 0;
    // Written only by the holder; read by others only to compare with their
    // own identity, which no other thread can have stored.
    std::atomic<uint64_t> owner{0};
    std::atomic<CSem*> waitSem{nullptr};

private:
    CSem* __WaitSem();
};

class CFastLockHolder {
public:
    explicit CFastLockHolder(FAST_PCLOCK& lock) : _lock(&lock)
    {
        lock.Lock();
        held = true;
    }
    ~CFastLockHolder() noexcept(false)
    {
        if (held)
            _lock->Unlock();
    }
    CFastLockHolder(const CFastLockHolder&) = delete;
    CFastLockHolder& operator=(const CFastLockHolder&) = delete;

    // Cleared by code that hands the lock over early.
    bool held = false;

private:
    FAST_PCLOCK* _lock;
};

}  // namespace Karu

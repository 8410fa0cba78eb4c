// CMutex and CProcMutex: the recursive locks that rest on the platform's
// mutex.
//
// CMutex is private to the process; use it where a timed acquire is needed,
// FAST_PCLOCK everywhere else. CProcMutex lives at the start of a named
// shared-memory object, so unrelated processes that use one name share one
// lock. Only the creator initialises and destroys the platform mutex; an
// opener, and a creator that found the name taken, attach to it as it is.
// The creator sets the mutex up before the name appears (and takes it there
// when asked to), so a process that joins at the same moment never locks a
// mutex that is not yet made.
//
// A process that dies while holding a CProcMutex does not leave it locked
// for ever: the next process to acquire it takes it over, and whatever the
// lock guarded must be treated as possibly half-updated by that process.
// Closing an object that this thread still holds gives the holds back
// before the mapping goes (and raises, as the caller's fault): the system
// could no longer hand a lock on unmapped memory to the next process.
//
// The creator's close ends the lock for everybody, as the creator of a named
// object does: it must close last. Closing it while any thread or process
// holds it raises "attempt to destroy a locked mutex" and leaves the mutex
// working for its holders.
//
// Every failure raises mutexExp: reason 1 creating or opening, 3 closing,
// 4 locking, 5 unlocking. Destructors raise too, unless an exception is
// already passing through the stack.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include <karu/misc/shmem.h>
#include <karu/string/karuExp.h>
#include <karu/time/time.h>

namespace Karu {

// A timeout that never expires.
constexpr uint32_t kWaitInfinite = 0xFFFFFFFF;

class CMutex {
public:
    explicit CMutex(bool lockNow = false);
    ~CMutex() noexcept(false);
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    bool Lock();
    bool TryLock();
    // Absolute deadline; false at expiry.
    bool TimedLock(const CTime& deadline);
    // Relative: 0 is TryLock, kWaitInfinite is Lock.
    bool TimedLock(uint32_t milliseconds);
    void UnLock();

    pthread_mutex_t* Native() noexcept { return &_mutex; }
    // The close then leaves the mutex as it is: for an owner that is left
    // in use by a waiter (an event destroyed under one).
    void LeaveIntactOnClose() noexcept { _leaveIntact = true; }

private:
    pthread_mutex_t _mutex;
    bool _leaveIntact = false;
};

class CProcMutex {
public:
    // Creating forms: join the name if it exists (then no lock is taken even
    // with lockNow), otherwise create and initialise it.
    CProcMutex(bool lockNow, const stringEx& name);
    CProcMutex(bool lockNow, const wstringEx& name);
    CProcMutex(bool lockNow, const char* name);
    CProcMutex(bool lockNow, const wchar_t* name);
    // Opening forms: the name must exist.
    explicit CProcMutex(const stringEx& name);
    explicit CProcMutex(const wstringEx& name);
    explicit CProcMutex(const char* name);
    explicit CProcMutex(const wchar_t* name);
    ~CProcMutex() noexcept(false);
    CProcMutex(const CProcMutex&) = delete;
    CProcMutex& operator=(const CProcMutex&) = delete;

    bool Lock();
    bool TryLock();
    bool TimedLock(const CTime& deadline);
    bool TimedLock(uint32_t milliseconds);
    void UnLock();

    bool Created() const noexcept { return _shm.Created(); }
    pthread_mutex_t* Native() noexcept { return static_cast<pthread_mutex_t*>(_shm.address); }
    // The creator's close then leaves the mutex as it is (for an owner that
    // knows other processes still use it), and only removes the name.
    void LeaveIntactOnClose() noexcept { _leaveIntact = true; }

private:
    void __Create(bool lockNow, const stringEx& name);
    void __Open(const stringEx& name);
    bool __Taken(bool taken) noexcept;

    SMO_HANDLE _shm;
    // Acquisitions through this object not yet given back.
    std::atomic<int64_t> _holds{0};
    bool _leaveIntact = false;
};

namespace IMPL {
// Shared by the timed waits of the locks and events: a relative timeout in
// milliseconds as an absolute time of the realtime clock.
timespec DeadlineAfter(uint32_t milliseconds) noexcept;
timespec ToTimespec(const CTime& time) noexcept;
}  // namespace IMPL

}  // namespace Karu

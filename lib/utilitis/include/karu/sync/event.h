// CEvent and CProcEvent: manual-reset events; CProcSem: the named counting
// semaphore.
//
// An event is a condition variable, a `signaled` flag and a mutex. Raise sets
// the flag and wakes every waiter; the flag stays set until Reset, so every
// waiter passes, and one that wakes after a Reset sleeps again. Destroying
// an event on which a thread waits is the caller's fault: it raises
// "attempt to destroy a waiting event" and leaves the event as it is.
//
// A named event is two shared objects: the name itself, holding the flag and
// what waiters sleep on, and the name with ".lock" behind it, the recursive
// process mutex that guards them. The companion is made first and born held
// by its creator, which then makes the event under it: a process that joins
// at the same moment waits for the companion and finds the event whole, and
// one process creates (and later removes) both names.
//
// Waiters of a named event sleep on a word of the shared object, not on a
// process-shared condition variable: a process killed inside such a wait
// leaves the platform's condition variable waiting for it for ever (the next
// broadcast, and its destruction, then never return), while a word holds
// nothing for a sleeper. The object also lists which processes wait, so that
// its creator's close can tell a live waiter (reported as above) from one
// that was killed (forgotten).
//
// CProcSem is the named form of CSem with the same operations; its name gets
// a leading "/" if it has none. The creator of a name unlinks it again.
#pragma once

#include <pthread.h>
#include <semaphore.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>

#include <karu/misc/shmem.h>
#include <karu/sync/mutex.h>

namespace Karu {

class CEvent {
public:
    explicit CEvent(bool initialState = false);
    ~CEvent() noexcept(false);
    CEvent(const CEvent&) = delete;
    CEvent& operator=(const CEvent&) = delete;

    bool Wait();
    // 0 only tests; kWaitInfinite never expires. True when signaled.
    bool TimedWait(uint32_t milliseconds);
    void Raise();
    void Reset();
    bool IsSet();

private:
    pthread_cond_t _cond;
    uint8_t _signaled;
    CMutex _mutex;
    uint32_t _waiters = 0;  // threads inside a wait, under the mutex
};

class CProcEvent {
public:
    // Creating forms: a name that exists already is joined, and then
    // initialState is ignored.
    CProcEvent(bool initialState, const stringEx& name);
    CProcEvent(bool initialState, const wstringEx& name);
    CProcEvent(bool initialState, const char* name);
    CProcEvent(bool initialState, const wchar_t* name);
    // Opening forms: the event must exist.
    explicit CProcEvent(const stringEx& name);
    explicit CProcEvent(const wstringEx& name);
    explicit CProcEvent(const char* name);
    explicit CProcEvent(const wchar_t* name);
    ~CProcEvent() noexcept(false);
    CProcEvent(const CProcEvent&) = delete;
    CProcEvent& operator=(const CProcEvent&) = delete;

    bool Wait();
    bool TimedWait(uint32_t milliseconds);
    void Raise();
    void Reset();
    bool IsSet();

    // True in the process whose call made the named object.
    bool Created() const noexcept { return _shm.Created(); }

    // What the shared object holds.
    struct SHARED {
        static constexpr int kWaiterSlots = 32;
        // Moved on by every Raise; waiters sleep while it stays as they saw it.
        std::atomic<uint32_t> generation;
        uint32_t signaled;
        // Waiting processes and how many of their threads wait; waiters
        // beyond the slots are only counted.
        struct WAITER {
            int32_t pid;
            uint32_t threads;
        } waiters[kWaiterSlots];
        uint32_t unlisted;
    };

private:
    void __Create(bool initialState, const stringEx& name);
    void __Open(const stringEx& name);
    bool __Wait(uint32_t milliseconds, const char* head);
    SHARED* __Shared() noexcept { return static_cast<SHARED*>(_shm.address); }

    SMO_HANDLE _shm;
    CProcMutex* _lock = nullptr;  // the ".lock" companion, owned
};

class CProcSem {
public:
    // Creates the name; raises when it exists already.
    CProcSem(unsigned value, unsigned maximum, const stringEx& name);
    // Opens a name that exists.
    explicit CProcSem(const stringEx& name);
    ~CProcSem() noexcept(false);
    CProcSem(const CProcSem&) = delete;
    CProcSem& operator=(const CProcSem&) = delete;

    void P();
    bool TryP();
    bool TimedP(uint32_t milliseconds);
    void V(unsigned count = 1);

    const stringEx& Name() const noexcept { return _name; }

private:
    sem_t* _sem = nullptr;
    stringEx _name;
    bool _created = false;
};

}  // namespace Karu

// CEvent and CProcEvent: manual-reset events; CProcSem: the named counting
// semaphore.
//
// An event is a condition variable, a `signaled` flag and a mutex. Raise sets
// the flag and wakes every waiter; the flag stays set until Reset, so every
// waiter passes, and one that wakes after a Reset sleeps again.
//
// A named event is two shared objects: the name itself, holding the
// condition variable and the flag, and the name with ".lock" behind it, the
// recursive process mutex that guards them. The companion also closes the
// window in which a second process could use the condition before the first
// has initialised it: the creator holds the companion through the set-up.
//
// CProcSem is the named form of CSem with the same operations; its name gets
// a leading "/" if it has none. The creator of a name unlinks it again.
#pragma once

#include <pthread.h>
#include <semaphore.h>

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

    // What the shared object holds.
    struct SHARED {
        pthread_cond_t cond;
        uint8_t signaled;
    };

private:
    static CProcMutex* __Companion(bool create, const stringEx& name);
    void __Create(bool initialState, const stringEx& name);
    void __Open(const stringEx& name);
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

// CEvent, CProcEvent and CProcSem; see event.h.
//
// The private event waits on the platform's condition variable; the named
// one sleeps on the generation word of its shared object with the system's
// futex call, under its companion mutex, which is robust (see mutex.cpp): a
// wait may come back owning the lock of a process that died, which is then
// simply ours. A waiter reads the generation under the lock before it lets
// go, and Raise moves it on under the same lock, so no wake-up falls between
// a waiter's test of the flag and its sleep.
#include <karu/sync/event.h>

#include <fcntl.h>
#include <linux/futex.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <new>

#include <karu/TextConv/TextConv.h>
#include <karu/sync/fastlock.h>

namespace Karu {
namespace {

const ErrnoTable kWaitErrors = {
    {EINVAL, "the value specified by cond or mutex is invalid"},
    {EPERM, "the mutex was not owned by the current thread at the time of the call"},
};
const ErrnoTable kTimedWaitErrors = {
    {EINVAL, "the value specified by cond, mutex or timeout is invalid"},
    {EPERM, "the mutex was not owned by the current thread at the time of the call"},
};
const ErrnoTable kCloseErrors = {
    {EBUSY, "attempt to destroy a waiting event"},
    {EINVAL, "the value specified by event is invalid"},
};
const ErrnoTable kRaiseErrors = {{EINVAL, "the value specified by cond is invalid"}};

[[noreturn]] void RaiseEvent(const char* head, int error, ErrnoTable table, int32_t code)
{
    Throw<eventExp>(ExpMessage(head).Errno(error, table), code);
}

int Settle(pthread_mutex_t* mutex, int result)
{
    return result == EOWNERDEAD ? pthread_mutex_consistent(mutex) : result;
}

// Called with the mutex held.
void WaitSignaled(pthread_cond_t* cond, pthread_mutex_t* mutex, uint8_t* signaled)
{
    while (*signaled == 0) {
        const int result = Settle(mutex, pthread_cond_wait(cond, mutex));
        if (result != 0)
            RaiseEvent("WaitEvent - failed wait event\n", result, kWaitErrors, 4);
    }
}

// Called with the mutex held; false at expiry.
bool TimedWaitSignaled(pthread_cond_t* cond, pthread_mutex_t* mutex, uint8_t* signaled,
                       uint32_t milliseconds)
{
    if (*signaled || milliseconds == 0)
        return *signaled != 0;
    if (milliseconds == kWaitInfinite) {
        WaitSignaled(cond, mutex, signaled);
        return true;
    }
    const timespec deadline = IMPL::DeadlineAfter(milliseconds);
    while (*signaled == 0) {
        const int result = Settle(mutex, pthread_cond_timedwait(cond, mutex, &deadline));
        if (result == ETIMEDOUT)
            break;
        if (result != 0)
            RaiseEvent("TimedWaitEvent - failed wait event\n", result, kTimedWaitErrors, 4);
    }
    return *signaled != 0;
}

void DestroyCond(pthread_cond_t* cond, const char* head)
{
    const int result = pthread_cond_destroy(cond);
    if (result != 0 && MayThrowFromDestructor())
        RaiseEvent(head, result, kCloseErrors, 3);
}

// Unlocks a CMutex or CProcMutex at scope exit, also when a wait raised.
template <class M>
class Locked {
public:
    explicit Locked(M& mutex) : _mutex(mutex) { _mutex.Lock(); }
    ~Locked() noexcept(false)
    {
        try {
            _mutex.UnLock();
        } catch (...) {
            if (MayThrowFromDestructor())
                throw;
        }
    }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    M& _mutex;
};

// Counts a thread in for the length of a wait; changed under the event's lock.
class Waiting {
public:
    explicit Waiting(uint32_t& count) : _count(count) { ++_count; }
    ~Waiting() { --_count; }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

private:
    uint32_t& _count;
};

}  // namespace

// ---- CEvent --------------------------------------------------------------------

CEvent::CEvent(bool initialState) : _signaled(initialState ? 1 : 0)
{
    const int result = pthread_cond_init(&_cond, nullptr);
    if (result != 0)
        RaiseEvent("CEvent::CEvent - failed create event\n", result,
                   {{EBUSY, "attempt to reinitialize the mutex"},
                    {ENOMEM, "insufficient memory"},
                    {EINVAL, "invalid attr object"},
                    {EAGAIN, "the system lacked the necessary resources"}},
                   1);
}

CEvent::~CEvent() noexcept(false)
{
    uint32_t waiters;
    {
        Locked<CMutex> hold(_mutex);
        waiters = _waiters;
    }
    if (waiters != 0) {
        // The platform's destroy would wait for the waiter for ever; the
        // condition and its mutex are left as they are for it.
        _mutex.LeaveIntactOnClose();
        if (MayThrowFromDestructor())
            RaiseEvent("CEvent::~CEvent - failed close event\n", EBUSY, kCloseErrors, 3);
        return;
    }
    DestroyCond(&_cond, "CEvent::~CEvent - failed close event\n");
}

bool CEvent::Wait()
{
    Locked<CMutex> hold(_mutex);
    Waiting counted(_waiters);
    WaitSignaled(&_cond, _mutex.Native(), &_signaled);
    return true;
}

bool CEvent::TimedWait(uint32_t milliseconds)
{
    Locked<CMutex> hold(_mutex);
    Waiting counted(_waiters);
    return TimedWaitSignaled(&_cond, _mutex.Native(), &_signaled, milliseconds);
}

void CEvent::Raise()
{
    Locked<CMutex> hold(_mutex);
    _signaled = 1;
    const int result = pthread_cond_broadcast(&_cond);
    if (result != 0)
        RaiseEvent("RaiseEvent - failed raise event\n", result, kRaiseErrors, 7);
}

void CEvent::Reset()
{
    Locked<CMutex> hold(_mutex);
    _signaled = 0;
}

bool CEvent::IsSet()
{
    Locked<CMutex> hold(_mutex);
    return _signaled != 0;
}

// ---- CProcEvent ----------------------------------------------------------------

CProcEvent::CProcEvent(bool initialState, const stringEx& name) { __Create(initialState, name); }
CProcEvent::CProcEvent(bool initialState, const wstringEx& name) { __Create(initialState, SysWCtoMB(name)); }
CProcEvent::CProcEvent(bool initialState, const char* name) { __Create(initialState, stringEx(name)); }
CProcEvent::CProcEvent(bool initialState, const wchar_t* name) { __Create(initialState, SysWCtoMB(wstringEx(name))); }
CProcEvent::CProcEvent(const stringEx& name) { __Open(name); }
CProcEvent::CProcEvent(const wstringEx& name) { __Open(SysWCtoMB(name)); }
CProcEvent::CProcEvent(const char* name) { __Open(stringEx(name)); }
CProcEvent::CProcEvent(const wchar_t* name) { __Open(SysWCtoMB(wstringEx(name))); }

namespace {

static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t) && std::atomic<uint32_t>::is_always_lock_free,
              "the futex call works on the generation word itself");

// Sleeps while `word` holds `seen`, until `deadline` on the monotonic clock
// (none: no limit); 0, or the errno of the call.
int FutexWait(std::atomic<uint32_t>& word, uint32_t seen, const timespec* deadline)
{
    const long result = syscall(SYS_futex, reinterpret_cast<uint32_t*>(&word), FUTEX_WAIT_BITSET, seen, deadline,
                                nullptr, FUTEX_BITSET_MATCH_ANY);
    return result == 0 ? 0 : errno;
}

int FutexWakeAll(std::atomic<uint32_t>& word)
{
    const long result = syscall(SYS_futex, reinterpret_cast<uint32_t*>(&word), FUTEX_WAKE, INT_MAX, nullptr,
                                nullptr, 0);
    return result >= 0 ? 0 : errno;
}

using SHARED = CProcEvent::SHARED;

void Enlist(SHARED* shared, int32_t pid)
{
    SHARED::WAITER* free = nullptr;
    for (SHARED::WAITER& waiter : shared->waiters) {
        if (waiter.threads != 0 && waiter.pid == pid) {
            ++waiter.threads;
            return;
        }
        if (waiter.threads == 0 && !free)
            free = &waiter;
    }
    if (free)
        *free = {pid, 1};
    else
        ++shared->unlisted;
}

void Delist(SHARED* shared, int32_t pid)
{
    for (SHARED::WAITER& waiter : shared->waiters)
        if (waiter.threads != 0 && waiter.pid == pid) {
            --waiter.threads;
            return;
        }
    if (shared->unlisted != 0)
        --shared->unlisted;
}

// Forgets the waiters whose process has gone; true when a live one remains
// (or one that the list could not hold, which cannot be told apart).
bool LiveWaiters(SHARED* shared)
{
    bool live = shared->unlisted != 0;
    for (SHARED::WAITER& waiter : shared->waiters) {
        if (waiter.threads == 0)
            continue;
        if (waiter.pid == int32_t(getpid()) || kill(waiter.pid, 0) == 0 || errno == EPERM)
            live = true;
        else
            waiter = {0, 0};  // killed inside a wait
    }
    return live;
}

ExpMessage NamedFailure(const char* head, const stringEx& name, const karuExp& cause)
{
    return ExpMessage(head).Text(stringEx("  name = ") + name + stringEx("\n")).Cause(cause);
}

stringEx CompanionName(const stringEx& name)
{
    return name + stringEx(".lock");
}

}  // namespace

void CProcEvent::__Create(bool initialState, const stringEx& name)
{
    const char* const head = "CProcEvent::CProcEvent - failed create named event\n";
    try {
        // Born held by the process that makes it; a joiner waits here until
        // that process has made the event too.
        _lock = new CProcMutex(true, CompanionName(name));
        if (!_lock->Created())
            _lock->Lock();
    } catch (const karuExp& e) {
        delete _lock;
        _lock = nullptr;
        Throw<eventExp>(NamedFailure(head, name, e), 1);
    }
    try {
        SetupInitialisedMapView(_shm, name, sizeof(SHARED), kAccessReadWrite, [initialState](void* at) {
            SHARED* shared = new (at) SHARED{};
            shared->signaled = initialState ? 1 : 0;
        });
    } catch (const karuExp& e) {
        _lock->UnLock();
        delete _lock;
        _lock = nullptr;
        Throw<eventExp>(NamedFailure(head, name, e), 1);
    }
    _lock->UnLock();
}

void CProcEvent::__Open(const stringEx& name)
{
    try {
        _lock = new CProcMutex(CompanionName(name));
        Locked<CProcMutex> hold(*_lock);  // a set-up in progress ends first
        OpenMapView(_shm, name, kAccessReadWrite);
    } catch (const karuExp& e) {
        delete _lock;
        _lock = nullptr;
        Throw<eventExp>(NamedFailure("CProcEvent::CProcEvent - failed open named event\n", name, e), 2);
    }
}

CProcEvent::~CProcEvent() noexcept(false)
{
    struct Release {
        CProcEvent& event;
        ~Release() noexcept(false)
        {
            // The event's name goes before its companion's: whoever finds
            // the event finds the companion too.
            try {
                ReleaseMapView(event._shm);
                CProcMutex* lock = event._lock;
                event._lock = nullptr;
                delete lock;
            } catch (...) {
                if (MayThrowFromDestructor())
                    throw;
            }
        }
    } release{*this};
    if (!_shm.Created() || !_shm.address || !_lock)
        return;
    bool live;
    {
        Locked<CProcMutex> hold(*_lock);
        live = LiveWaiters(__Shared());
    }
    if (live) {
        _lock->LeaveIntactOnClose();  // the waiters still sleep under it
        if (MayThrowFromDestructor())
            RaiseEvent("CProcEvent::~CProcEvent - failed close named event\n", EBUSY, kCloseErrors, 3);
    }
}

bool CProcEvent::__Wait(uint32_t milliseconds, const char* head)
{
    Locked<CProcMutex> hold(*_lock);
    SHARED* const shared = __Shared();
    if (shared->signaled || milliseconds == 0)
        return shared->signaled != 0;
    const bool limited = milliseconds != kWaitInfinite;
    // The futex call measures an absolute deadline on the monotonic clock.
    const timespec deadline = IMPL::DeadlineOn(CLOCK_MONOTONIC, limited ? milliseconds : 0);
    const int32_t self = int32_t(getpid());
    Enlist(shared, self);
    struct Leave {
        SHARED* shared;
        int32_t self;
        ~Leave() { Delist(shared, self); }  // under the lock again, also when a wait raised
    } leave{shared, self};
    while (shared->signaled == 0) {
        const uint32_t seen = shared->generation.load(std::memory_order_acquire);
        _lock->UnLock();
        const int error = FutexWait(shared->generation, seen, limited ? &deadline : nullptr);
        _lock->Lock();
        if (error == ETIMEDOUT)
            break;
        if (error != 0 && error != EAGAIN && error != EINTR)
            RaiseEvent(head, error, limited ? kTimedWaitErrors : kWaitErrors, 4);
    }
    return shared->signaled != 0;
}

bool CProcEvent::Wait()
{
    return __Wait(kWaitInfinite, "WaitEvent - failed wait event\n");
}

bool CProcEvent::TimedWait(uint32_t milliseconds)
{
    return __Wait(milliseconds, milliseconds == kWaitInfinite ? "WaitEvent - failed wait event\n"
                                                              : "TimedWaitEvent - failed wait event\n");
}

void CProcEvent::Raise()
{
    Locked<CProcMutex> hold(*_lock);
    SHARED* const shared = __Shared();
    shared->signaled = 1;
    shared->generation.fetch_add(1, std::memory_order_release);
    if (const int error = FutexWakeAll(shared->generation))
        RaiseEvent("RaiseEvent - failed raise event\n", error, kRaiseErrors, 7);
}

void CProcEvent::Reset()
{
    Locked<CProcMutex> hold(*_lock);
    __Shared()->signaled = 0;
}

bool CProcEvent::IsSet()
{
    Locked<CProcMutex> hold(*_lock);
    return __Shared()->signaled != 0;
}

// ---- CProcSem ------------------------------------------------------------------

namespace {

const ErrnoTable kNamedSemErrors = {
    {EEXIST, "the named semaphore already exists"},
    {ENOENT, "the named semaphore does not exist"},
    {EACCES, "permission denied"},
    {EINVAL, "the init value exceeds max limited"},
    {ENFILE, "too many semaphores are currently open in the system"},
    {ENAMETOOLONG, "semaphore name is too long"},
    {ENOSPC, "there is insufficient space for the creation of the new named semaphore"},
    {EMFILE, "the max semaphores limit has been reached"},
};

stringEx SemName(const stringEx& name)
{
    if (!name.empty() && name[0] == '/')
        return stringEx(name.data(), name.size());
    return stringEx("/") + name;
}

[[noreturn]] void RaiseNamed(const char* head, const stringEx& name, int error, int32_t code)
{
    Throw<semExp>(ExpMessage(head).Detail("semaphore name", name).Errno(error, kNamedSemErrors), code);
}

}  // namespace

CProcSem::CProcSem(unsigned value, unsigned /*maximum*/, const stringEx& name) : _name(SemName(name))
{
    do {
        _sem = sem_open(_name.c_str(), O_CREAT | O_EXCL, 0666, value);
    } while (_sem == SEM_FAILED && errno == EINTR);
    if (_sem == SEM_FAILED)
        RaiseNamed("CreateNamedSemaphore - failed create named semaphore\n", _name, errno, 1);
    _created = true;
}

CProcSem::CProcSem(const stringEx& name) : _name(SemName(name))
{
    do {
        _sem = sem_open(_name.c_str(), 0);
    } while (_sem == SEM_FAILED && errno == EINTR);
    if (_sem == SEM_FAILED)
        RaiseNamed("OpenNamedSemaphore - failed create named semaphore\n", _name, errno, 2);
}

CProcSem::~CProcSem() noexcept(false)
{
    const bool mayThrow = MayThrowFromDestructor();
    if (sem_close(_sem) != 0 && mayThrow) {
        const int error = errno;
        if (_created)
            sem_unlink(_name.c_str());
        Throw<semExp>(ExpMessage("CProcSem::~CProcSem - failed close named semaphore\n")
                          .Errno(error, {{EINVAL, "current object is not a valid semaphore"}}),
                      3);
    }
    if (_created && sem_unlink(_name.c_str()) != 0 && mayThrow)
        Throw<semExp>(ExpMessage("CProcSem::~CProcSem - failed unlink the named semaphore\n")
                          .Errno(errno, {{ENOENT, "the named semaphore does not exist"},
                                         {EACCES, "permission denied"},
                                         {ENAMETOOLONG, "semaphore name is too long"}}),
                      3);
}

void CProcSem::P() { IMPL::SemP(_sem, "CProcSem::P - failed P a semaphore\n"); }
bool CProcSem::TryP() { return IMPL::SemTryP(_sem, "CProcSem::P - failed P a semaphore\n"); }
bool CProcSem::TimedP(uint32_t milliseconds)
{
    return IMPL::SemTimedP(_sem, milliseconds, "CProcSem::P - failed P a semaphore\n");
}
void CProcSem::V(unsigned count) { IMPL::SemV(_sem, count, "CProcSem::V - failed V a semaphore\n"); }

}  // namespace Karu

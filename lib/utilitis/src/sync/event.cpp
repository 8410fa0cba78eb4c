// CEvent, CProcEvent and CProcSem; see event.h.
//
// The private and the named event run one wait logic over a condition, a
// flag and a platform mutex; they differ only in where those live and how
// they are made. The named event's mutex is robust (see mutex.cpp), so a
// wait may come back owning the lock of a process that died: it is made
// consistent and the wait goes on.
#include <karu/sync/event.h>

#include <fcntl.h>

#include <cerrno>

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

void Broadcast(pthread_cond_t* cond)
{
    const int result = pthread_cond_broadcast(cond);
    if (result != 0)
        RaiseEvent("RaiseEvent - failed raise event\n", result, {{EINVAL, "the value specified by cond is invalid"}}, 7);
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
    DestroyCond(&_cond, "CEvent::~CEvent - failed close event\n");
}

bool CEvent::Wait()
{
    Locked<CMutex> hold(_mutex);
    WaitSignaled(&_cond, _mutex.Native(), &_signaled);
    return true;
}

bool CEvent::TimedWait(uint32_t milliseconds)
{
    Locked<CMutex> hold(_mutex);
    return TimedWaitSignaled(&_cond, _mutex.Native(), &_signaled, milliseconds);
}

void CEvent::Raise()
{
    Locked<CMutex> hold(_mutex);
    _signaled = 1;
    Broadcast(&_cond);
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
CProcEvent::CProcEvent(bool initialState, const wstringEx& name) { __Create(initialState, IMPL::ToSysBytes(name)); }
CProcEvent::CProcEvent(bool initialState, const char* name) { __Create(initialState, stringEx(name)); }
CProcEvent::CProcEvent(bool initialState, const wchar_t* name) { __Create(initialState, IMPL::ToSysBytes(name)); }
CProcEvent::CProcEvent(const stringEx& name) { __Open(name); }
CProcEvent::CProcEvent(const wstringEx& name) { __Open(IMPL::ToSysBytes(name)); }
CProcEvent::CProcEvent(const char* name) { __Open(stringEx(name)); }
CProcEvent::CProcEvent(const wchar_t* name) { __Open(IMPL::ToSysBytes(name)); }

namespace {

ExpMessage NamedFailure(const char* head, const stringEx& name, const karuExp& cause)
{
    return ExpMessage(head).Text(stringEx("  name = ") + name + stringEx("\n")).Cause(cause);
}

void InitSharedCond(pthread_cond_t* cond)
{
    pthread_condattr_t attr;
    int result = pthread_condattr_init(&attr);
    if (result != 0)
        RaiseEvent("CreateNamedEvent - failed create event attribute\n", result,
              {{result, "insufficient memory exists to initialize the attrs"}}, 1);
    result = pthread_condattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    if (result != 0) {
        pthread_condattr_destroy(&attr);
        RaiseEvent("CreateNamedEvent - failed create event (set shared)\n", result,
              {{result, "the process-shared attribute is invalid"}}, 1);
    }
    result = pthread_cond_init(cond, &attr);
    if (result != 0) {
        pthread_condattr_destroy(&attr);
        RaiseEvent("CEvent::CEvent - failed create named event\n", result,
              {{EBUSY, "attempt to reinitialize the mutex"},
               {ENOMEM, "insufficient memory"},
               {EINVAL, "invalid attr object"},
               {EAGAIN, "the system lacked the necessary resources"}},
              1);
    }
    result = pthread_condattr_destroy(&attr);
    if (result != 0) {
        pthread_cond_destroy(cond);
        RaiseEvent("CreateNamedEvent - failed release event attribute\n", result,
              {{result, "the value specified by attr is invalid"}}, 1);
    }
}

}  // namespace

void CProcEvent::__Create(bool initialState, const stringEx& name)
{
    bool created;
    try {
        created = SetupMapView(_shm, name, sizeof(SHARED), kAccessReadWrite);
        _lock = new CProcMutex(false, name + stringEx(".lock"));
    } catch (const karuExp& e) {
        if (_shm.address)
            ReleaseMapView(_shm);
        Throw<eventExp>(NamedFailure("CProcEvent::CProcEvent - failed create named event\n", name, e), 1);
    }
    try {
        Locked<CProcMutex> hold(*_lock);
        if (!created)
            return;  // the event already stands
        InitSharedCond(&__Shared()->cond);
        __Shared()->signaled = initialState ? 1 : 0;
    } catch (...) {
        delete _lock;
        _lock = nullptr;
        ReleaseMapView(_shm);
        throw;
    }
}

void CProcEvent::__Open(const stringEx& name)
{
    try {
        OpenMapView(_shm, name, kAccessReadWrite);
        _lock = new CProcMutex(name + stringEx(".lock"));
    } catch (const karuExp& e) {
        if (_shm.address)
            ReleaseMapView(_shm);
        Throw<eventExp>(NamedFailure("CProcEvent::CProcEvent - failed open named event\n", name, e), 2);
    }
}

CProcEvent::~CProcEvent() noexcept(false)
{
    struct Release {
        CProcEvent& event;
        ~Release() noexcept(false)
        {
            try {
                delete event._lock;
                event._lock = nullptr;
                ReleaseMapView(event._shm);
            } catch (...) {
                if (MayThrowFromDestructor())
                    throw;
            }
        }
    } release{*this};
    if (_shm.Created() && _shm.address)
        DestroyCond(&__Shared()->cond, "CProcEvent::~CProcEvent - failed close named event\n");
}

bool CProcEvent::Wait()
{
    Locked<CProcMutex> hold(*_lock);
    WaitSignaled(&__Shared()->cond, _lock->Native(), &__Shared()->signaled);
    return true;
}

bool CProcEvent::TimedWait(uint32_t milliseconds)
{
    Locked<CProcMutex> hold(*_lock);
    return TimedWaitSignaled(&__Shared()->cond, _lock->Native(), &__Shared()->signaled, milliseconds);
}

void CProcEvent::Raise()
{
    Locked<CProcMutex> hold(*_lock);
    __Shared()->signaled = 1;
    Broadcast(&__Shared()->cond);
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

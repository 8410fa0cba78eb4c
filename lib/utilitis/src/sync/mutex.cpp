// CMutex and CProcMutex; see mutex.h.
//
// Both classes share one body of lock calls, parameterised by the head
// lines of their messages. The process-shared mutex is robust: when its
// holder dies, the platform hands the next locker EOWNERDEAD, and we mark the
// mutex consistent again and report success, since a lock that nobody can
// ever take again is worse for every other process than a lock whose data
// may be stale.
#include <karu/sync/mutex.h>

#include <cerrno>

#include <karu/TextConv/TextConv.h>

namespace Karu {
namespace IMPL {

timespec ToTimespec(const CTime& time) noexcept
{
    const int64_t us = time.Microseconds();
    timespec ts;
    ts.tv_sec = static_cast<time_t>(us / 1000000);
    ts.tv_nsec = static_cast<long>(us % 1000000) * 1000;
    if (ts.tv_nsec < 0) {
        ts.tv_sec -= 1;
        ts.tv_nsec += 1000000000;
    }
    return ts;
}

timespec DeadlineAfter(uint32_t milliseconds) noexcept
{
    CTime now = CTime::Now();
    if (!now.IsValid())
        now = CTime(0);
    return ToTimespec(now + CTimeSpan(int64_t(milliseconds) * 1000));
}

}  // namespace IMPL

namespace {

const ErrnoTable kLockErrors = {
    {EINVAL, "mutex object does not correctly initialized"},
    {EDEADLK, "deadlock detected"},
    {EAGAIN, "maximum number of recursive locks has been exceeded"},
};

const ErrnoTable kUnlockErrors = {
    {EINVAL, "mutex object does not correctly initialized"},
    {EAGAIN, "maximum number of recursive locks has been exceeded"},
    {EPERM, "the current thread does not own the mutex"},
};

const ErrnoTable kDestroyErrors = {
    {EBUSY, "attempt to destroy a locked mutex"},
    {EINVAL, "the value specified by mutex is invalid"},
};

[[noreturn]] void Raise(const char* head, int error, ErrnoTable table, int32_t code)
{
    Throw<mutexExp>(ExpMessage(head).Errno(error, table), code);
}

// Head lines of one class.
struct Heads {
    const char* lock;
    const char* tryLock;
    const char* unlock;
    const char* destroy;
};

const Heads kMutexHeads = {"CMutex::Lock - failed lock mutex\n", "CMutex::TryLock - failed lock mutex\n",
                           "CMutex::UnLock - failed unlock mutex\n", "CMutex::~CMutex - failed close mutex\n"};
const Heads kProcHeads = {"CProcMutex::Lock - failed lock mutex\n", "CProcMutex::TryLock - failed lock mutex\n",
                          "CProcMutex::UnLock - failed unlock mutex\n",
                          "CProcMutex::~CProcMutex - failed close mutex\n"};

// The outcome of an acquire: 0 taken, EBUSY/ETIMEDOUT not taken, else a failure.
int Settle(pthread_mutex_t* mutex, int result)
{
    if (result == EOWNERDEAD)
        return pthread_mutex_consistent(mutex);  // the dead holder's lock is ours now
    return result;
}

bool DoLock(pthread_mutex_t* mutex, const Heads& heads)
{
    const int result = Settle(mutex, pthread_mutex_lock(mutex));
    if (result != 0)
        Raise(heads.lock, result, kLockErrors, 4);
    return true;
}

bool DoTryLock(pthread_mutex_t* mutex, const Heads& heads)
{
    const int result = Settle(mutex, pthread_mutex_trylock(mutex));
    if (result == EBUSY)
        return false;
    if (result != 0)
        Raise(heads.tryLock, result, kLockErrors, 4);
    return true;
}

bool DoTimedLock(pthread_mutex_t* mutex, const CTime& deadline)
{
    const timespec ts = IMPL::ToTimespec(deadline);
    const int result = Settle(mutex, pthread_mutex_timedlock(mutex, &ts));
    if (result == ETIMEDOUT)
        return false;
    if (result != 0)
        Raise("TimedLock - failed lock mutex\n", result, kLockErrors, 4);
    return true;
}

bool DoTimedLock(pthread_mutex_t* mutex, uint32_t milliseconds, const Heads& heads)
{
    if (milliseconds == 0)
        return DoTryLock(mutex, heads);
    if (milliseconds == kWaitInfinite)
        return DoLock(mutex, heads);
    CTime now = CTime::Now();
    if (!now.IsValid())
        now = CTime(0);
    return DoTimedLock(mutex, now + CTimeSpan(int64_t(milliseconds) * 1000));
}

void DoUnlock(pthread_mutex_t* mutex, const Heads& heads)
{
    const int result = pthread_mutex_unlock(mutex);
    if (result != 0)
        Raise(heads.unlock, result, kUnlockErrors, 5);
}

// Head lines of the two creating paths.
struct InitHeads {
    const char* attrInit;
    const char* setType;
    const char* init;
    const char* attrDestroy;
};

const InitHeads kMutexInit = {"CMutex::CMutex - failed create mutex attribute\n",
                              "CMutex::CMutex - failed create mutex (set type)\n",
                              "CMutex::CMutex - failed create mutex\n",
                              "CMutex::CMutex - failed release mutex attribute\n"};
const InitHeads kNamedInit = {"CreateNamedMutex - failed create mutex attribute\n",
                              "CreateNamedMutex - failed create mutex (set type)\n",
                              "CreateNamedMutex - failed create mutex\n",
                              "CreateNamedMutex - failed release mutex attribute\n"};

void InitMutex(pthread_mutex_t* mutex, bool shared, const InitHeads& heads)
{
    pthread_mutexattr_t attr;
    int result = pthread_mutexattr_init(&attr);
    if (result != 0)
        Raise(heads.attrInit, result, {{result, "insufficient memory exists to initialize the attrs"}}, 1);
    result = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    if (result != 0) {
        pthread_mutexattr_destroy(&attr);
        Raise(heads.setType, result, {{result, "attr's type value is invalid"}}, 1);
    }
    if (shared) {
        result = pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
        if (result == 0)
            result = pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
        if (result != 0) {
            pthread_mutexattr_destroy(&attr);
            Raise("CreateNamedMutex - failed create mutex (set shared)\n", result,
                  {{result, "the process-shared attribute is invalid"}}, 1);
        }
    }
    result = pthread_mutex_init(mutex, &attr);
    if (result != 0) {
        pthread_mutexattr_destroy(&attr);
        Raise(heads.init, result, {{EBUSY, "attempt to reinitialize the mutex"}, {EINVAL, "invalid attr object"}}, 1);
    }
    result = pthread_mutexattr_destroy(&attr);
    if (result != 0) {
        pthread_mutex_destroy(mutex);
        Raise(heads.attrDestroy, result, {{result, "the value specified by attr is invalid"}}, 1);
    }
}

void DestroyMutex(pthread_mutex_t* mutex, const char* head)
{
    const int result = pthread_mutex_destroy(mutex);
    if (result != 0 && MayThrowFromDestructor())
        Raise(head, result, kDestroyErrors, 3);
}

// The name line ends the detail, and an empty line sets the cause apart.
ExpMessage NamedHead(const char* what, const stringEx& name, const karuExp& cause)
{
    return ExpMessage(what).Text(stringEx("  name = ") + name + stringEx("\n\n")).Cause(cause);
}

}  // namespace

// ---- CMutex --------------------------------------------------------------------

CMutex::CMutex(bool lockNow)
{
    InitMutex(&_mutex, false, kMutexInit);
    if (lockNow)
        Lock();
}

CMutex::~CMutex() noexcept(false)
{
    if (!_leaveIntact)
        DestroyMutex(&_mutex, kMutexHeads.destroy);
}

bool CMutex::Lock() { return DoLock(&_mutex, kMutexHeads); }
bool CMutex::TryLock() { return DoTryLock(&_mutex, kMutexHeads); }
bool CMutex::TimedLock(const CTime& deadline) { return DoTimedLock(&_mutex, deadline); }
bool CMutex::TimedLock(uint32_t milliseconds) { return DoTimedLock(&_mutex, milliseconds, kMutexHeads); }
void CMutex::UnLock() { DoUnlock(&_mutex, kMutexHeads); }

// ---- CProcMutex ----------------------------------------------------------------

CProcMutex::CProcMutex(bool lockNow, const stringEx& name) { __Create(lockNow, name); }
CProcMutex::CProcMutex(bool lockNow, const wstringEx& name) { __Create(lockNow, SysWCtoMB(name)); }
CProcMutex::CProcMutex(bool lockNow, const char* name) { __Create(lockNow, stringEx(name)); }
CProcMutex::CProcMutex(bool lockNow, const wchar_t* name) { __Create(lockNow, SysWCtoMB(wstringEx(name))); }
CProcMutex::CProcMutex(const stringEx& name) { __Open(name); }
CProcMutex::CProcMutex(const wstringEx& name) { __Open(SysWCtoMB(name)); }
CProcMutex::CProcMutex(const char* name) { __Open(stringEx(name)); }
CProcMutex::CProcMutex(const wchar_t* name) { __Open(SysWCtoMB(wstringEx(name))); }

void CProcMutex::__Create(bool lockNow, const stringEx& name)
{
    bool created;
    try {
        // Made, and taken when asked, before any other process can see it.
        created = SetupInitialisedMapView(
            _shm, name, sizeof(pthread_mutex_t), kAccessReadWrite,
            [lockNow](void* at) {
                auto* mutex = static_cast<pthread_mutex_t*>(at);
                InitMutex(mutex, true, kNamedInit);
                if (lockNow)
                    DoLock(mutex, kProcHeads);
            },
            [lockNow](void* at) {
                if (lockNow)
                    pthread_mutex_unlock(static_cast<pthread_mutex_t*>(at));
            });
    } catch (const shmemExp& e) {
        Throw<mutexExp>(NamedHead("CProcMutex::CProcMutex - failed create shared memory\n", name, e), 1);
    }
    if (created && lockNow)
        _holds = 1;  // a joiner takes no lock
}

void CProcMutex::__Open(const stringEx& name)
{
    try {
        OpenMapView(_shm, name, kAccessReadWrite);
    } catch (const shmemExp& e) {
        Throw<mutexExp>(NamedHead("CProcMutex::CProcMutex - failed open shared memory\n", name, e), 1);
    }
}

CProcMutex::~CProcMutex() noexcept(false)
{
    struct Unmap {
        SMO_HANDLE& shm;
        ~Unmap() noexcept(false)
        {
            // The mapping goes in every case; its own failure only reaches
            // the caller when nothing else is already on its way.
            try {
                ReleaseMapView(shm);
            } catch (...) {
                if (MayThrowFromDestructor())
                    throw;
            }
        }
    } unmap{_shm};
    if (!_shm.address)
        return;
    pthread_mutex_t* const mutex = Native();
    const int64_t mine = _holds.load();
    const bool destroy = _shm.Created() && !_leaveIntact;
    if (mine == 0 && !destroy)
        return;  // an opener that holds nothing leaves the lock as it is
    // Anybody's hold shows as a failed try; this thread's own holds as a
    // successful one, which are all given back with it.
    bool locked = mine > 0;
    int result = Settle(mutex, pthread_mutex_trylock(mutex));
    if (result == 0) {
        for (int64_t i = 0; i <= mine; ++i)
            pthread_mutex_unlock(mutex);
        _holds = 0;
    } else if (result == EBUSY) {
        locked = true;
    } else if (destroy && MayThrowFromDestructor()) {
        Raise(kProcHeads.destroy, result, kDestroyErrors, 3);
    }
    if (locked) {
        if (MayThrowFromDestructor())
            Raise(kProcHeads.destroy, EBUSY, kDestroyErrors, 3);
        return;  // left working for whoever holds it
    }
    if (destroy)
        DestroyMutex(mutex, kProcHeads.destroy);
}

bool CProcMutex::__Taken(bool taken) noexcept
{
    if (taken)
        ++_holds;
    return taken;
}

bool CProcMutex::Lock() { return __Taken(DoLock(Native(), kProcHeads)); }
bool CProcMutex::TryLock() { return __Taken(DoTryLock(Native(), kProcHeads)); }
bool CProcMutex::TimedLock(const CTime& deadline) { return __Taken(DoTimedLock(Native(), deadline)); }
bool CProcMutex::TimedLock(uint32_t milliseconds) { return __Taken(DoTimedLock(Native(), milliseconds, kProcHeads)); }

void CProcMutex::UnLock()
{
    DoUnlock(Native(), kProcHeads);
    --_holds;
}

}  // namespace Karu

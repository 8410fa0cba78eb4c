// TThread, CThread_Imp and CTls; see thread.h.
//
// The subtle part is the end of a thread. The object may be deleted by its
// own OnExit, by its owner as soon as Wait returns, or by nobody until the
// process ends, so the running thread touches the object only up to OnExit
// and marks its end on the shared exit record, never on the object. Kill
// sends its cancel request while holding the record's mutex: the thread
// cannot finish (and its detached handle cannot be reused) in the meantime.
#include <karu/sync/thread.h>

#include <sched.h>
#include <time.h>

#include <cerrno>
#include <condition_variable>
#include <cxxabi.h>
#include <exception>
#include <mutex>

#include <karu/log/log.h>

namespace Karu {

struct TThread::EXIT_RECORD {
    std::mutex mutex;
    std::condition_variable ended;
    bool running = false;
};

namespace {

[[noreturn]] void RaiseThread(const char* head, int error, ErrnoTable table, int32_t code)
{
    Throw<threadExp>(ExpMessage(head).Errno(error, table), code);
}

// Handed from Create to the new thread.
struct START_BLOCK {
    TThread* thread;
    std::shared_ptr<TThread::EXIT_RECORD> exit;
};

pthread_t Native(uint64_t handle)
{
    return static_cast<pthread_t>(handle);
}

// The linear map between steps 0..9 and a policy's priority range.
int StepToPriority(uint32_t step, int low, int high)
{
    if (step > TThread::kHighestPriority)
        step = TThread::kHighestPriority;
    return low + (high - low) * int(step) / int(TThread::kHighestPriority);
}

void PriorityRange(int policy, int& low, int& high, const char* head)
{
    low = sched_get_priority_min(policy);
    high = sched_get_priority_max(policy);
    if (low < 0 || high < 0)
        RaiseThread(head, errno, {{EINVAL, "invalid scheduling policy"}}, 6);
}

// The report of a thread that an exception ended. The log itself may be what
// failed, so nothing may leave this.
void ReportEnd(const char* cause) noexcept
{
    try {
        CLog::LogError("util.trd", "thread ended by an exception\n@ %s", cause);
    } catch (...) {
    }
}

}  // namespace

// ---- CThread_Imp ---------------------------------------------------------------

uint64_t CThread_Imp::Create(TThread* thread, void* argument, uint32_t stackSize)
{
    pthread_attr_t attr;
    int result = pthread_attr_init(&attr);
    if (result != 0)
        RaiseThread("CThread_Imp::Create - failed create thread attribute obj\n", result,
                    {{EBUSY, "already initialized"}, {ENOMEM, "insufficient memory"}}, 1);
    struct AttrGuard {
        pthread_attr_t* attr;
        ~AttrGuard() { pthread_attr_destroy(attr); }
    } guard{&attr};
    const ErrnoTable invalidAttr = {{EINVAL, "invalid attr obj"}};
    if ((result = pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED)) != 0)
        RaiseThread("CThread_Imp::Create - failed set detach attribute\n", result, invalidAttr, 1);
    if ((result = pthread_attr_setguardsize(&attr, 0)) != 0)
        RaiseThread("CThread_Imp::Create - failed set guard area attribute\n", result, invalidAttr, 1);
    if (stackSize != 0 && (result = pthread_attr_setstacksize(&attr, stackSize)) != 0)
        RaiseThread("CThread_Imp::Create - failed set stack size attribute\n", result, invalidAttr, 1);
    pthread_t handle;
    (void)thread;
    if ((result = pthread_create(&handle, &attr, &TThread::__Entry, argument)) != 0)
        RaiseThread("CThread_Imp::Create - failed create thread\n", result,
                    {{EAGAIN, "not enough system resource, or process limit has been exceeded"},
                     {EPERM, "permission denied"}},
                    1);
    return static_cast<uint64_t>(handle);
}

void CThread_Imp::Kill(uint64_t handle)
{
    const int result = pthread_cancel(Native(handle));
    if (result != 0)
        RaiseThread("CThread_Imp::Kill - failed kill the thread\n", result, {{ESRCH, "invalid thread id"}}, 2);
}

void CThread_Imp::_GetThreadShcdParam(uint64_t handle, int& policy, int& priority)
{
    sched_param param{};
    const int result = pthread_getschedparam(Native(handle), &policy, &param);
    if (result != 0)
        RaiseThread("CThread_Imp::_GetThreadShcdParam - failed retrive thread's sched info\n", result,
                    {{ESRCH, "the value specified by thread does not refer to an existing thread"}}, 6);
    priority = param.sched_priority;
}

uint32_t CThread_Imp::_GetThreadStep(uint64_t handle, uint32_t fallback)
{
    int policy, priority, low, high;
    _GetThreadShcdParam(handle, policy, priority);
    PriorityRange(policy, low, high, "CThread_Imp::_GetThreadShcdParam - failed retrive sched's pri range\n");
    if (high == low)
        return fallback;  // one value only: the requested step is all there is
    return uint32_t((priority - low) * int(TThread::kHighestPriority) / (high - low));
}

void CThread_Imp::_SetThreadShcdParam(uint64_t handle, uint32_t step)
{
    int policy, priority, low, high;
    _GetThreadShcdParam(handle, policy, priority);
    PriorityRange(policy, low, high, "CThread_Imp::_SetThreadShcdParam - failed retrive sched's pri range\n");
    sched_param param{};
    param.sched_priority = StepToPriority(step, low, high);
    const int result = pthread_setschedparam(Native(handle), policy, &param);
    if (result != 0)
        RaiseThread("CThread_Imp::_SetThreadShcdParam - failed set thread's sched param\n", result,
                    {{EINVAL, "unsupport scheduling policy or parameters"},
                     {ENOTSUP, "unsupport scheduling policy or parameters"},
                     {EPERM, "permission denied or modify one of the parameters is not allowed"}},
                    6);
}

void CThread_Imp::_SetCpuAffinity(uint64_t handle, uint64_t mask)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    for (unsigned cpu = 0; cpu < 64; ++cpu)
        if (mask & (uint64_t(1) << cpu))
            CPU_SET(cpu, &set);
    const int result = pthread_setaffinity_np(Native(handle), sizeof set, &set);
    if (result != 0)
        RaiseThread("CThread_Imp::_SetCpuAffinity - failed retrive system' cpu affinity mask\n", result, {}, 6);
}

// ---- TThread -------------------------------------------------------------------

TThread::TThread(bool autoDestroy) : _autoDestroy(autoDestroy), _exit(std::make_shared<EXIT_RECORD>()) {}

TThread::~TThread() noexcept(false)
{
    if (_handle == 0 || pthread_equal(Native(_handle), pthread_self()))
        return;  // no thread, or the thread deletes its own object on its way out
    {
        std::lock_guard<std::mutex> hold(_exit->mutex);
        if (!_exit->running)
            return;  // it ran to its end: nothing to cancel
    }
    try {
        Kill();
    } catch (...) {
        if (MayThrowFromDestructor())
            throw;
    }
}

// The cancel request's unwinding carries no object that a reference could
// bind to, which the sanitizer's null check would take for a fault.
__attribute__((no_sanitize("null"))) void* TThread::__Entry(void* argument)
{
    START_BLOCK* start = static_cast<START_BLOCK*>(argument);
    TThread* self = start->thread;
    const std::shared_ptr<EXIT_RECORD> exit = std::move(start->exit);
    delete start;
    // Marks the end last of all, also when a cancel request unwinds the thread.
    struct Finish {
        EXIT_RECORD& exit;
        ~Finish()
        {
            std::lock_guard<std::mutex> hold(exit.mutex);
            exit.running = false;
            exit.ended.notify_all();
        }
    } finish{*exit};
    const bool autoDestroy = self->_autoDestroy;
    try {
        self->OnStart();
        const int32_t code = self->Run();
        CFastLockHolder hold(self->_lock);
        self->_exitCode = code;
    } catch (abi::__forced_unwind&) {
        throw;  // a cancel request must unwind to the end
    } catch (const karuExp& e) {
        ReportEnd(e.message.c_str());
    } catch (const std::exception& e) {
        ReportEnd(e.what());
    } catch (...) {
        ReportEnd("unknown exception");
    }
    {
        CFastLockHolder hold(self->_lock);
        self->_state = kEnded;
    }
    self->OnExit();
    if (autoDestroy)
        delete self;
    return nullptr;
}

void TThread::Start(uint32_t stackSize)
{
    CFastLockHolder hold(_lock);
    {
        std::lock_guard<std::mutex> running(_exit->mutex);
        if (_exit->running)
            return;
        _exit->running = true;
    }
    _state = kRunning;
    START_BLOCK* start = new START_BLOCK{this, _exit};
    try {
        // The new thread waits for our lock before it writes the exit code,
        // so the handle is stored before anything reads it.
        _handle = CThread_Imp::Create(this, start, stackSize);
    } catch (...) {
        delete start;
        _state = kIdle;
        std::lock_guard<std::mutex> running(_exit->mutex);
        _exit->running = false;
        throw;
    }
    if (_priority != int32_t(kNormalPriority)) {
        try {
            CThread_Imp::_SetThreadShcdParam(_handle, uint32_t(_priority));
        } catch (const threadExp& e) {
            CLog::LogWarning("util.trd", "failed apply the thread's priority\n@ %s", e.message.c_str());
        }
    }
}

bool TThread::Stop()
{
    CFastLockHolder hold(_lock);
    if (_handle == 0)
        Throw<threadExp>(ExpMessage("TThread::Stop - invalid thread object"), 3);
    if (_state == kRunning)
        _state = kStopping;
    return false;
}

bool TThread::Wait(uint32_t milliseconds)
{
    const std::shared_ptr<EXIT_RECORD> exit = _exit;
    std::unique_lock<std::mutex> hold(exit->mutex);
    if (milliseconds == 0xFFFFFFFF) {
        exit->ended.wait(hold, [&] { return !exit->running; });
        return true;
    }
    return exit->ended.wait_for(hold, std::chrono::milliseconds(milliseconds), [&] { return !exit->running; });
}

void TThread::Kill()
{
    const std::shared_ptr<EXIT_RECORD> exit = _exit;
    {
        std::lock_guard<std::mutex> hold(exit->mutex);
        if (!exit->running)
            return;
        CThread_Imp::Kill(_handle);
    }
    for (;;) {
        {
            std::lock_guard<std::mutex> hold(exit->mutex);
            if (!exit->running)
                break;
        }
        const timespec pause = {0, 1000000};  // 1 ms: cancellation takes a moment to land
        nanosleep(&pause, nullptr);
    }
}

void TThread::SetPriority(uint32_t step)
{
    CFastLockHolder hold(_lock);
    _priority = int32_t(step > kHighestPriority ? kHighestPriority : step);
    if (_handle != 0 && _state != kEnded)
        CThread_Imp::_SetThreadShcdParam(_handle, uint32_t(_priority));
}

uint32_t TThread::GetPriority()
{
    CFastLockHolder hold(_lock);
    if (_handle == 0 || _state == kEnded)
        Throw<threadExp>(ExpMessage("TThread::GetPriority - invalid thread object"), 3);
    return CThread_Imp::_GetThreadStep(_handle, uint32_t(_priority));
}

void TThread::SetCpuAffinity(uint64_t mask)
{
    CFastLockHolder hold(_lock);
    if (_handle == 0 || _state == kEnded)
        Throw<threadExp>(ExpMessage("TThread::SetCpuAffinity - invalid thread object"), 3);
    CThread_Imp::_SetCpuAffinity(_handle, mask);
    _affinity = int32_t(mask);
}

int32_t TThread::GetState()
{
    CFastLockHolder hold(_lock);
    return _state;
}

int32_t TThread::GetExitCode()
{
    CFastLockHolder hold(_lock);
    return _exitCode;
}

uint64_t TThread::Handle()
{
    CFastLockHolder hold(_lock);
    return _handle;
}

// ---- CTls ----------------------------------------------------------------------

CTls::CTls()
{
    const int result = pthread_key_create(&_key, nullptr);
    if (result != 0)
        Throw<tlsExp>(ExpMessage("CTls::CTls - failed create thread local storage\n")
                          .Errno(result, {{EAGAIN, "the system lacked the necessary resources"},
                                          {ENOMEM, "insufficient memory"}}),
                      1);
}

CTls::~CTls() noexcept(false)
{
    const int result = pthread_key_delete(_key);
    if (result != 0 && MayThrowFromDestructor())
        Throw<tlsExp>(ExpMessage("CTls::~CTls - failed delete thread local storage\n")
                          .Errno(result, {{EINVAL, "invalid key"}}),
                      3);
}

void* CTls::Get() const noexcept
{
    return pthread_getspecific(_key);
}

void CTls::Set(void* value)
{
    const int result = pthread_setspecific(_key, value);
    if (result != 0)
        Throw<tlsExp>(ExpMessage("CTls::Set - failed set thread local value\n")
                          .Errno(result, {{ENOMEM, "insufficient memory"}, {EINVAL, "invalid key"}}),
                      2);
}

}  // namespace Karu

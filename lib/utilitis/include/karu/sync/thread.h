// TThread, the abstract thread; CThread_Imp, its platform side; and CTls,
// a thread-local storage slot.
//
// A class derives from TThread and implements Run. Threads are created
// detached and never joined: Wait watches an exit record that the thread
// marks as its very last act, after OnExit. The record is shared between the
// object and the running thread, so OnExit may delete the object (the logging
// thread does) and a waiter still learns of the end safely.
//
// Priority is a step from 0 to 9, 5 being the ordinary priority, mapped
// linearly onto the range of the thread's scheduling policy. Under the
// default time-sharing policy that range is one value, so the steps only
// take effect under a real-time policy.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <memory>

#include <karu/string/karuExp.h>
#include <karu/sync/fastlock.h>

namespace Karu {

class TThread;

class CThread_Imp {
public:
    // Creates a detached thread without a guard area that runs `thread`;
    // a stack size of 0 takes the platform's default. Returns the handle.
    static uint64_t Create(TThread* thread, void* argument, uint32_t stackSize);
    // The platform's cancel request, then a short sleep until it has gone.
    static void Kill(uint64_t handle);
    // Policy and priority of a thread; the step form maps linearly.
    static void _GetThreadShcdParam(uint64_t handle, int& policy, int& priority);
    static void _SetThreadShcdParam(uint64_t handle, uint32_t step);
    static uint32_t _GetThreadStep(uint64_t handle, uint32_t fallback);
    static void _SetCpuAffinity(uint64_t handle, uint64_t mask);
};

class TThread {
public:
    static constexpr uint32_t kNormalPriority = 5;
    static constexpr uint32_t kHighestPriority = 9;
    enum State : int32_t { kIdle = 0, kRunning = 1, kStopping = 2, kEnded = 3 };

    // With autoDestroy the object deletes itself when its thread has ended.
    explicit TThread(bool autoDestroy = false);
    // Kills a thread that is still running and waits for it.
    virtual ~TThread() noexcept(false);
    TThread(const TThread&) = delete;
    TThread& operator=(const TThread&) = delete;

    virtual int32_t OnStart() { return 0; }
    virtual int32_t OnStop() { return 0; }
    virtual int32_t Run() = 0;
    virtual int32_t OnExit() { return 0; }
    virtual void Suspend() {}
    virtual int32_t Resume() { return 0; }
    // Marks the object as stopping; raises threadExp when it has no thread.
    // True when the thread will come to its end of itself.
    virtual bool Stop();

    void Start(uint32_t stackSize = 0);
    // True once the thread has ended; false at expiry of the timeout.
    bool Wait(uint32_t milliseconds = 0xFFFFFFFF);
    void Kill();

    void SetPriority(uint32_t step);
    uint32_t GetPriority();
    void SetCpuAffinity(uint64_t mask);

    int32_t GetState();
    int32_t GetExitCode();
    bool IsStopping() { return GetState() == kStopping; }
    uint64_t Handle();

    // What the running thread and the object share; outlives either.
    struct EXIT_RECORD;

private:
    friend class CThread_Imp;
    static void* __Entry(void* argument);

    uint64_t _handle = 0;
    int32_t _priority = kNormalPriority;
    int32_t _affinity = 0;
    int32_t _state = kIdle;
    int32_t _exitCode = 0;
    FAST_PCLOCK _lock;
    bool _autoDestroy;
    std::shared_ptr<EXIT_RECORD> _exit;
};

// One thread-local slot; raises tlsExp.
class CTls {
public:
    CTls();
    ~CTls() noexcept(false);
    CTls(const CTls&) = delete;
    CTls& operator=(const CTls&) = delete;

    void* Get() const noexcept;
    void Set(void* value);

private:
    pthread_key_t _key;
};

}  // namespace Karu

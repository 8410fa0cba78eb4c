// CMessageQueue: a bounded blocking queue of values.
//
// Two counting semaphores carry the bound: a producer takes a free slot
// before it pushes and a consumer a used slot before it pops, so a full
// queue blocks producers and an empty one blocks consumers, with no polling.
// The lock guards only the container. The parts are open to a user that
// must do more inside the same critical section (the logging thread does).
#pragma once

#include <cstdint>
#include <deque>
#include <utility>

#include <karu/sync/fastlock.h>

namespace Karu {

template <class T, class Container = std::deque<T>, class Lock = FAST_PCLOCK>
class CMessageQueue {
public:
    // A capacity above the platform's semaphore limit raises semExp.
    explicit CMessageQueue(uint32_t capacity) : _capacity(capacity), _freeSlots(capacity, capacity), _usedSlots(0, capacity)
    {
    }
    virtual ~CMessageQueue() = default;
    CMessageQueue(const CMessageQueue&) = delete;
    CMessageQueue& operator=(const CMessageQueue&) = delete;

    // Blocks while the queue is full.
    void Push(const T& item)
    {
        _freeSlots.P();
        {
            CFastLockHolder hold(_lock);
            _items.push_back(item);
        }
        _usedSlots.V();
    }

    // Blocks while the queue is empty; `nowEmpty` tells whether this took the last item.
    T Pop(bool* nowEmpty = nullptr)
    {
        _usedSlots.P();
        T item;
        {
            CFastLockHolder hold(_lock);
            item = std::move(_items.front());
            _items.pop_front();
            if (nowEmpty)
                *nowEmpty = _items.empty();
        }
        _freeSlots.V();
        return item;
    }

    bool Empty()
    {
        CFastLockHolder hold(_lock);
        return _items.empty();
    }

    uint32_t Capacity() const noexcept { return _capacity; }

    // The parts, for a user that extends the critical section.
    Container& Items() noexcept { return _items; }
    CSem& FreeSlots() noexcept { return _freeSlots; }
    CSem& UsedSlots() noexcept { return _usedSlots; }
    Lock& GetLock() noexcept { return _lock; }

private:
    Container _items;
    uint32_t _capacity;
    CSem _freeSlots;
    CSem _usedSlots;
    Lock _lock;
};

}  // namespace Karu

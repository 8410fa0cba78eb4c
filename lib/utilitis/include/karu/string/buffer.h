// basic_buffer: the counted, reference-counted buffer under every string and
// byte block of the library.
//
// Copies share storage; the first write through any copy detaches it. There
// is no proxy and no hook in element access: every mutator asks one of the
// three reserve forms for the room it needs, and a reserve on shared storage
// allocates a private copy first. The reference count lives in its own 8-byte
// cell, apart from the storage, so that a literal can be held as a view (data,
// no cell, capacity set to a sentinel) and so that objects of different unit
// widths can share one storage and one cell after a reinterpretation.
//
// Subtle points:
//  * size and capacity belong to the object, not to the storage: two objects
//    may share storage with different sizes;
//  * only a literal (a constant array) becomes a view; text given by pointer
//    is copied, since nothing says it outlives the object;
//  * the three reserve forms do nothing on a view; the public mutators turn a
//    view into an owned copy before they write, so writing through a view is
//    never a write into a literal;
//  * the count is changed only atomically; the "count above 1" test is a plain
//    read, which is safe because a sole owner has no rival to race with.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <new>
#include <stdexcept>
#include <type_traits>

namespace Karu {

// Unit-specific constants of a buffer.
template <class T>
struct buffer_traits {
    // Text keeps a terminator behind its last unit.
    static constexpr bool terminated = true;
    // Growth rounds capacities up by OR with the granule so that a fresh
    // buffer holds at least 32 bytes whatever the unit width.
    static constexpr uint64_t granule = sizeof(T) == 1 ? 31 : 7;
    // A view's capacity: no reserve request can exceed it, so every reserve
    // form leaves a view alone.
    static constexpr uint64_t view_capacity = UINT64_MAX / sizeof(T) - 1;
};

// Raw bytes: no terminator, so size may equal capacity.
struct byte_traits {
    static constexpr bool terminated = false;
    static constexpr uint64_t granule = 31;
    static constexpr uint64_t view_capacity = UINT64_MAX - 1;
};

namespace IMPL {
// Non-null text for objects with no storage, one per width.
template <class T>
inline constexpr T kEmptyUnits[1] = {T(0)};

// kEmptyUnits as a pointer whose object the optimiser does not know. Code
// that copies size() units from data() only reaches the copy with storage of
// its own, but the compiler cannot tie the size to the pointer and would
// warn of reading past a one-unit array. The empty statement emits nothing.
template <class T>
inline T* EmptyUnits() noexcept
{
    T* units = const_cast<T*>(kEmptyUnits<T>);
    asm("" : "+r"(units));
    return units;
}

// Asks the system to back a large block with large pages. Taking fresh memory
// page by page costs more than most passes over it (several milliseconds per
// megabyte on some virtual machines); with large pages the first touch of
// each 2 MB is one fault. Small blocks are left alone; a system without large
// pages ignores the request.
// Below this size a block spans too few large pages to be worth the call.
inline constexpr size_t kLargeBlockBytes = size_t(8) << 20;
void AdviseLargeBlock(void* data, size_t bytes) noexcept;
// Takes that request back for the part of a block not yet touched, for a
// block that is filled once front to back and soon given back: see buffer.cpp.
void AdviseSmallPages(void* data, size_t bytes) noexcept;
}  // namespace IMPL

template <class T, class Traits = buffer_traits<T>>
class basic_buffer {
public:
    using value_type = T;
    using size_type = uint64_t;
    using traits_type = Traits;
    using counter_type = std::atomic<uint64_t>;

    static constexpr size_type npos = ~size_type(0);
    static constexpr size_type kViewCapacity = Traits::view_capacity;
    static constexpr size_type kGranule = Traits::granule;
    static constexpr size_type kTerm = Traits::terminated ? 1 : 0;

    // ---- lifetime -------------------------------------------------------

    basic_buffer() noexcept = default;

    // A literal (a constant array) is held as a view: no allocation, no
    // counter. A plain pointer is copied: its text may not outlive the call,
    // and a view of it would dangle.
    template <size_t N>
    basic_buffer(const T (&literal)[N]) noexcept
        : _size(Length(literal)), _capacity(kViewCapacity), _data(const_cast<T*>(literal))
    {
    }

    template <class P, std::enable_if_t<std::is_convertible_v<P, const T*>, int> = 0>
    basic_buffer(P text)
    {
        const T* units = text;
        if (units)
            __CopyIn(units, Length(units));
    }

    // An owned copy of n units.
    basic_buffer(const T* units, size_type n) { assign(units, n); }

    basic_buffer(size_type n, T fill) { append(n, fill); }

    basic_buffer(const basic_buffer& other) noexcept
        : _size(other._size), _capacity(other._capacity), _data(other._data), _refcount(other._refcount)
    {
        if (_refcount)
            _refcount->fetch_add(1, std::memory_order_relaxed);
    }

    basic_buffer(basic_buffer&& other) noexcept
        : _size(other._size), _capacity(other._capacity), _data(other._data), _refcount(other._refcount)
    {
        other._size = other._capacity = 0;
        other._data = nullptr;
        other._refcount = nullptr;
    }

    // Sub-range: shares when the range is the whole source, copies otherwise.
    basic_buffer(const basic_buffer& src, size_type pos, size_type len = npos)
    {
        if (pos == 0 && len >= src._size) {
            *this = src;
            return;
        }
        len = std::min(len, src._size - pos);
        __CopyIn(src.data() + pos, len);
    }

    ~basic_buffer() { __Release(); }

    // ---- assignment -----------------------------------------------------

    basic_buffer& operator=(const basic_buffer& other) noexcept
    {
        if (_data == other._data) {
            // Already on the same storage: no counter moves.
            _size = other._size;
            _capacity = other._capacity;
            return *this;
        }
        if (other._refcount)
            other._refcount->fetch_add(1, std::memory_order_relaxed);
        __Release();
        _size = other._size;
        _capacity = other._capacity;
        _data = other._data;
        _refcount = other._refcount;
        return *this;
    }

    basic_buffer& operator=(basic_buffer&& other) noexcept
    {
        if (this != &other) {
            __Release();
            _size = other._size;
            _capacity = other._capacity;
            _data = other._data;
            _refcount = other._refcount;
            other._size = other._capacity = 0;
            other._data = nullptr;
            other._refcount = nullptr;
        }
        return *this;
    }

    template <size_t N>
    basic_buffer& operator=(const T (&literal)[N]) noexcept
    {
        basic_buffer view(literal);
        return *this = std::move(view);
    }

    // Sub-range assignment. On the object itself the range is cut out in
    // place: the tail behind it goes first, then the head is moved down.
    basic_buffer& assign(const basic_buffer& src, size_type pos, size_type len = npos)
    {
        if (&src == this) {
            len = std::min(len, _size - pos);
            if (pos + len < _size)
                erase(pos + len);
            if (pos > 0)
                erase(0, pos);
            return *this;
        }
        if (pos == 0 && len >= src._size)
            return *this = src;
        len = std::min(len, src._size - pos);
        basic_buffer copy;
        copy.__CopyIn(src.data() + pos, len);
        return *this = std::move(copy);
    }

    // Overwrite with a copy of n units (the units may lie in this buffer).
    basic_buffer& assign(const T* units, size_type n)
    {
        basic_buffer copy;
        copy.__CopyIn(units, n);
        return *this = std::move(copy);
    }

    // A view of n units that the caller keeps alive; nothing is copied and
    // the view is not terminated at n. Used for read-only windows into text.
    static basic_buffer View(const T* units, size_type n) noexcept
    {
        basic_buffer view;
        view._data = const_cast<T*>(units);
        view._size = n;
        view._capacity = kViewCapacity;
        return view;
    }

    // ---- access ---------------------------------------------------------

    size_type size() const noexcept { return _size; }
    size_type length() const noexcept { return _size; }
    size_type capacity() const noexcept { return _capacity; }
    bool empty() const noexcept { return _size == 0; }

    const T* data() const noexcept { return _data ? _data : IMPL::EmptyUnits<T>(); }
    const T* c_str() const noexcept { return data(); }
    const T* begin() const noexcept { return data(); }
    const T* end() const noexcept { return data() + _size; }

    // Writable units, detached from any sharer (and from a literal). The
    // caller writes at most capacity() units and then calls SetSize.
    T* MutableData()
    {
        __Own();
        __ReserveExact(_size + kTerm);
        return _data ? _data : IMPL::EmptyUnits<T>();
    }

    // Room for n units, contents kept, then writable units.
    T* GetBuffer(size_type n)
    {
        __Own();
        __ReserveExact(std::max(n, _size) + kTerm);
        return _data;
    }

    // Takes n units written through MutableData or GetBuffer as the content.
    void SetSize(size_type n) noexcept
    {
        _size = n;
        if constexpr (Traits::terminated) {
            if (_data)
                _data[n] = T(0);
        }
    }

    const T& operator[](size_type i) const noexcept { return data()[i]; }

    const T& at(size_type i) const
    {
        if (i >= _size)
            throw std::out_of_range("basic_buffer::at - offset out of range");
        return _data[i];
    }

    T& at(size_type i)
    {
        if (i >= _size)
            throw std::out_of_range("basic_buffer::at - offset out of range");
        return MutableData()[i];
    }

    // Units held by this object's storage; 0 for a view or an empty object.
    uint64_t use_count() const noexcept { return _refcount ? _refcount->load() : 0; }
    bool IsView() const noexcept { return _data && !_refcount; }
    bool IsShared() const noexcept { return _refcount && _refcount->load(std::memory_order_relaxed) > 1; }
    bool SharesWith(const basic_buffer& other) const noexcept { return _data && _data == other._data; }

    // ---- whole-object operations ------------------------------------------

    // A sharer detaches into exact storage of its old size; the others keep
    // their text.
    void clear()
    {
        if (_data && _refcount) {
            __ReserveExact(1);
            _size = 0;
            if constexpr (Traits::terminated)
                _data[0] = T(0);
            return;
        }
        _size = 0;
        if (_data) {
            // A view is dropped rather than written into.
            _data = nullptr;
            _capacity = 0;
        }
    }

    // A view becomes an owned copy; any other state is left alone.
    void MakeOwn()
    {
        if (_data && !_refcount) {
            basic_buffer copy;
            copy.__CopyIn(_data, _size);
            *this = std::move(copy);
        }
    }

    // Exchange contents by swapping the four fields: no unit moves.
    void swap(basic_buffer& other) noexcept
    {
        std::swap(_size, other._size);
        std::swap(_capacity, other._capacity);
        std::swap(_data, other._data);
        std::swap(_refcount, other._refcount);
    }

    // The same storage and counter seen as units of another width; size and
    // capacity scale by the width ratio, rounding down. Nothing is copied.
    template <class U, class UTraits = buffer_traits<U>>
    basic_buffer<U, UTraits> Reinterpret() const noexcept
    {
        basic_buffer<U, UTraits> other;
        if (!_data)
            return other;
        other._data = reinterpret_cast<U*>(_data);
        other._refcount = _refcount;
        other._size = _size * sizeof(T) / sizeof(U);
        other._capacity = _refcount ? _capacity * sizeof(T) / sizeof(U) : UTraits::view_capacity;
        if (_refcount)
            _refcount->fetch_add(1, std::memory_order_relaxed);
        return other;
    }

    // ---- the three reserve forms (public for callers that fill a buffer) ---

    void ReserveGrow(size_type request) { __ReserveGrow(request); }
    void ReserveExact(size_type request) { __ReserveExact(request); }
    void ReserveDiscard(size_type request) { __ReserveDiscard(request); }

    // ---- mutators ---------------------------------------------------------
    // Each computes the new size, reserves (which detaches), moves or copies
    // units, stores the size and the terminator.

    basic_buffer& append(const T* units, size_type n)
    {
        if (n == 0)
            return *this;
        if (__Overlaps(units)) {
            basic_buffer keep(units, n);
            return append(keep.data(), n);
        }
        __Own();
        __ReserveGrow(_size + n + kTerm);
        std::memcpy(_data + _size, units, n * sizeof(T));
        SetSize(_size + n);
        return *this;
    }

    basic_buffer& append(const basic_buffer& other)
    {
        if (_size == 0 && !_data)
            return *this = other;
        if (&other == this) {
            basic_buffer keep(*this);
            return append(keep.data(), keep.size());
        }
        return append(other.data(), other.size());
    }

    basic_buffer& append(size_type n, T unit)
    {
        if (n == 0)
            return *this;
        __Own();
        __ReserveGrow(_size + n + kTerm);
        std::fill(_data + _size, _data + _size + n, unit);
        SetSize(_size + n);
        return *this;
    }

    basic_buffer& push_back(T unit) { return append(1, unit); }
    basic_buffer& operator+=(const basic_buffer& other) { return append(other); }
    basic_buffer& operator+=(T unit) { return append(1, unit); }

    // Replace units [pos, pos + n) by m units; positions beyond the size are
    // the caller's error, n is clipped to the size.
    basic_buffer& replace(size_type pos, size_type n, const T* units, size_type m)
    {
        n = std::min(n, _size - pos);
        if (m && __Overlaps(units)) {
            basic_buffer keep(units, m);
            return replace(pos, n, keep.data(), m);
        }
        const size_type newSize = _size - n + m;
        __Own();
        __ReserveGrow(newSize + kTerm);
        if (m != n && _size > pos + n)
            std::memmove(_data + pos + m, _data + pos + n, (_size - pos - n) * sizeof(T));
        if (m)
            std::memcpy(_data + pos, units, m * sizeof(T));
        SetSize(newSize);
        return *this;
    }

    basic_buffer& replace(size_type pos, size_type n, const basic_buffer& with)
    {
        return replace(pos, n, with.data(), with.size());
    }

    basic_buffer& insert(size_type pos, const T* units, size_type m) { return replace(pos, 0, units, m); }
    basic_buffer& insert(size_type pos, const basic_buffer& with) { return replace(pos, 0, with); }

    basic_buffer& erase(size_type pos, size_type n = npos)
    {
        if (pos >= _size)
            return *this;
        if (pos == 0 && n >= _size) {
            clear();
            return *this;
        }
        return replace(pos, n, nullptr, 0);
    }

    void resize(size_type n, T fill = T(0))
    {
        if (n > _size) {
            append(n - _size, fill);
        } else if (n < _size) {
            __Own();
            __ReserveExact(n + kTerm);
            SetSize(n);
        }
    }

    basic_buffer substr(size_type pos, size_type len = npos) const { return basic_buffer(*this, pos, len); }

protected:
    static size_type Length(const T* s) noexcept
    {
        if constexpr (sizeof(T) == 1)
            return std::strlen(reinterpret_cast<const char*>(s));
        else if constexpr (std::is_same_v<T, wchar_t>)
            return std::wcslen(s);
        else {
            size_type n = 0;
            while (s[n])
                ++n;
            return n;
        }
    }

private:
    template <class, class>
    friend class basic_buffer;

    bool __Overlaps(const T* units) const noexcept
    {
        return _data && units >= _data && units < _data + _size + kTerm;
    }

    bool __Shared() const noexcept { return _refcount && _refcount->load(std::memory_order_relaxed) > 1; }

    // Views are turned into owned copies before any write.
    void __Own()
    {
        if (_data && !_refcount)
            MakeOwn();
    }

    void __CopyIn(const T* units, size_type n)
    {
        if (n + kTerm == 0 || (n == 0 && !Traits::terminated))
            return;
        __ReserveDiscard(n + kTerm);
        if (n)
            std::memcpy(_data, units, n * sizeof(T));
        SetSize(n);
    }

    static counter_type* __NewCounter()
    {
        void* cell = std::malloc(sizeof(counter_type));
        if (!cell)
            throw std::bad_alloc();
        return new (cell) counter_type(1);
    }

    static T* __Alloc(size_type units)
    {
        if (units > SIZE_MAX / sizeof(T))
            throw std::bad_alloc();
        const size_t bytes = std::max<size_type>(units, 1) * sizeof(T);
        T* p = static_cast<T*>(std::malloc(bytes));
        if (!p)
            throw std::bad_alloc();
        IMPL::AdviseLargeBlock(p, bytes);
        return p;
    }

    // Fresh storage of `capacity` units holding the first `keep` units; the
    // old storage is released (and freed if this was its last holder).
    void __MoveTo(size_type capacity, size_type keep)
    {
        counter_type* cell = __NewCounter();
        T* fresh;
        try {
            fresh = __Alloc(capacity);
        } catch (...) {
            std::free(cell);
            throw;
        }
        if (keep)
            std::memcpy(fresh, _data, std::min(keep, capacity) * sizeof(T));
        // The kept text stays a terminated string: a caller that writes
        // through MutableData after detaching never sets the size again.
        if (Traits::terminated && keep < capacity)
            fresh[keep] = T();
        const size_type size = _size;
        __Release();
        _size = size;
        _data = fresh;
        _refcount = cell;
        _capacity = capacity;
    }

    // Sole owner (or no storage yet): resize in place with realloc.
    void __Realloc(size_type capacity)
    {
        if (capacity > SIZE_MAX / sizeof(T))
            throw std::bad_alloc();
        counter_type* cell = _refcount ? nullptr : __NewCounter();
        const size_t bytes = std::max<size_type>(capacity, 1) * sizeof(T);
        T* grown;
        if (_data && bytes >= IMPL::kLargeBlockBytes) {
            // The advice must come before the copy: realloc would copy a
            // large block into fresh memory taken a small page at a time.
            grown = static_cast<T*>(std::malloc(bytes));
            if (grown) {
                IMPL::AdviseLargeBlock(grown, bytes);
                std::memcpy(grown, _data, std::min(_capacity, capacity) * sizeof(T));
                std::free(_data);
            }
        } else {
            grown = static_cast<T*>(std::realloc(_data, bytes));
            if (grown)
                IMPL::AdviseLargeBlock(grown, bytes);
        }
        if (!grown) {
            std::free(cell);
            throw std::bad_alloc();
        }
        _data = grown;
        if (cell)
            _refcount = cell;
        _capacity = capacity;
    }

    void __ReserveGrow(size_type request)
    {
        if (__Shared()) {
            __MoveTo(std::max(request, _size) | kGranule, _size);
            return;
        }
        if (request <= _capacity)
            return;
        const size_type rounded = request | kGranule;
        size_type capacity = rounded;
        if (_capacity / 2 > rounded / 3 && _capacity <= kViewCapacity - _capacity / 2)
            capacity = _capacity + _capacity / 2;
        __Realloc(capacity);
    }

    void __ReserveExact(size_type request)
    {
        if (__Shared()) {
            __MoveTo(std::max(request, _size), _size);
            return;
        }
        if (request > _capacity)
            __Realloc(request);
    }

    void __ReserveDiscard(size_type request)
    {
        if (__Shared() || request > _capacity)
            __MoveTo(request, 0);
    }

    void __Release() noexcept
    {
        if (_refcount && _refcount->fetch_sub(1, std::memory_order_acq_rel) == 1) {
            std::free(_refcount);
            std::free(_data);
        }
        _data = nullptr;
        _refcount = nullptr;
    }

    size_type _size = 0;
    size_type _capacity = 0;
    T* _data = nullptr;
    counter_type* _refcount = nullptr;
};

template <class T, class Tr>
bool operator==(const basic_buffer<T, Tr>& a, const basic_buffer<T, Tr>& b) noexcept
{
    if (a.size() != b.size())
        return false;
    return a.data() == b.data() || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

using byteEx = basic_buffer<unsigned char, byte_traits>;

}  // namespace Karu

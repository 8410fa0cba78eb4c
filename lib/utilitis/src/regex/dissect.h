// Dissection: given where a match begins and ends, split the interval among
// the subexpression tree's nodes and record the captures. See dissect.cpp.
#pragma once

#include "dfa.h"

#include <unordered_map>
#include <vector>

namespace Karu::IMPL::rx {

// What must still hold after a node has taken its part: a reference to a
// callable, without the allocation of a std::function.
class Next {
public:
    template <class F>
    Next(F& f) : _object(&f), _call([](void* o) { return (*static_cast<F*>(o))(); })
    {
    }
    int operator()() const { return _call(_object); }

private:
    void* _object;
    int (*_call)(void*);
};

template <class Ch>
class Splitter {
public:
    explicit Splitter(ExecState<Ch>& ex) : _ex(&ex) {}
    Splitter() = default;
    // Serves another call; what it keeps of the last one is forgotten, its
    // memory is not.
    void start(ExecState<Ch>& ex)
    {
        _ex = &ex;
        forget();
    }

    // For patterns without back-references: a consistent split must exist,
    // and failing to find one is an internal error.
    int dissect(const Subexpr* t, const Ch* b, const Ch* e);

    // With back-references: a search over the ways the tree can split
    // [b, e), in the order of preference. Returns RX_OK, RX_NOMATCH or an
    // error; on RX_OK the captures are those of the first way that holds.
    // The walks of nodes from a start are kept until forget(), and reach no
    // further than `horizon`, which must lie at or beyond every e asked for.
    int search(const Subexpr* t, const Ch* b, const Ch* e, const Ch* horizon);
    void forget();

private:
    struct Key {
        const Subexpr* node;
        const void* b;
        const void* e;
        bool operator==(const Key&) const = default;
    };
    struct KeyHash {
        size_t operator()(const Key& k) const noexcept;
    };
    using Ends = std::vector<const Ch*>;

    int error(int fallback) const { return _ex->err ? _ex->err : fallback; }
    void record(const Subexpr* t, const Ch* b, const Ch* e);
    int spans(const Subexpr* t, const Ch* b, const Ch* e, bool& yes);
    int ends(const Subexpr* t, const Ch* b, const Ch* stop, Ends& out);
    int reach(const Subexpr* t, const Ch* b, const Ends*& out);
    int concatenation(const Subexpr* t, const Ch* b, const Ch* e);
    int alternation(const Subexpr* t, const Ch* b, const Ch* e);
    int search(const Subexpr* t, const Ch* b, const Ch* e, bool checked, Next next);
    int searchConcatenation(const Subexpr* t, const Ch* b, const Ch* e, bool checked, Next next);
    int searchAlternation(const Subexpr* t, const Ch* b, const Ch* e, Next next);
    bool copies(const Subexpr* t, const Ch* b, const Ch* e, Ends* out) const;
    int backReference(const Subexpr* t, const Ch* b, const Ch* e, bool checked, Next next);
    int iterations(const Subexpr* t, const Ch* b, const Ch* e, Next next);
    int iteration(const Subexpr* t, const Ch* b, const Ch* e, bool& holds);

    // The ends of a node from a start, up to the horizon: a few per start
    // as a rule, looked up in place; an index comes in when there are many.
    struct Reached {
        const Subexpr* node;
        const void* b;
        Ends ends;
    };
    static constexpr size_t kReachedInPlace = 16;

    ExecState<Ch>* _ex = nullptr;
    const Ch* _horizon = nullptr;
    std::unordered_map<Key, bool, KeyHash> _spans;  // answers of nodes without an automaton
    std::vector<Reached> _reached;                  // slots beyond _reachedUsed keep their memory
    size_t _reachedUsed = 0;
    std::unordered_map<Key, size_t, KeyHash> _reachedIndex;

public:
    Ends candidates;  // the caller's list of ends, kept with the rest
};

}  // namespace Karu::IMPL::rx

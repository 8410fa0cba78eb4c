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
    explicit Splitter(ExecState<Ch>& ex) : _ex(ex) {}

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

    int error(int fallback) const { return _ex.err ? _ex.err : fallback; }
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

    ExecState<Ch>& _ex;
    const Ch* _horizon = nullptr;
    std::unordered_map<Key, bool, KeyHash> _spans;  // answers of nodes without an automaton
    std::unordered_map<Key, Ends, KeyHash> _reach;  // ends of nodes from a start, up to the horizon
};

}  // namespace Karu::IMPL::rx

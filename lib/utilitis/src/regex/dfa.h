// Matching by subset simulation over a compact automaton, with the subsets
// ("state sets") kept in a small bounded cache.
//
// A state set is made when first reached and remembers, per colour, the set
// that follows it, so in the steady state one character costs a colour lookup
// and an array read. When the cache is full a clock hand evicts a set that
// was not seen in the latest two thirds of the cache's size in positions. The
// latest cold start and the match ends are noted by the walk itself, so an
// eviction loses nothing of them.
// Every walk first consumes the colour of the context before its start (the
// previous character or a start-of-string pseudo colour), which is what lets
// look-behind constraints work; a post state reached at p means a match that
// ended at p - 1. Transitions that passed a look-ahead depend on the position
// and are never cached. The sets and transitions depend on nothing but the
// automaton, so they are kept from call to call (DfaCache); only positions are
// forgotten when a walk begins.
//
// Most of a search is spent in a set that leads back to itself on most
// characters (the implicit leading ".*" with nothing under way). Once a walk
// has looped on a set, skip() runs over the characters that would keep it
// there without stepping: a table scan, or memchr when a single byte leaves.
// A search walk with a prefilter does better where it can: on coming to a set
// with nothing under way it goes on at the next place a match can begin.
#pragma once

#include "classes.h"
#include "internals.h"

#include <cstddef>
#include <memory>
#include <vector>

namespace Karu::IMPL::rx {

struct StateSet;
template <class Ch>
class PrefilterCursor;

struct InLink {
    StateSet* set;
    colour co;
};

struct StateSet {
    uint32_t* bits;
    uint32_t hash;
    uint32_t flags;
    InLink in;            // head of the chain of transitions into this set
    const void* seenAt;   // position where last current, in the walk stamped `walk`
    uint64_t walk;        // the walk that set seenAt; another walk's is stale
    StateSet** outs;      // per colour; in the slot, right after the set
    InLink* nextIn;       // per colour: next link of the target's chain
    uint8_t* stay;        // see Dfa::skip; null until the set loops on itself
    int single;           // the one byte that leaves the set, or -1
};

constexpr uint32_t kSetStart = 1;
constexpr uint32_t kSetAccept = 2;
constexpr uint32_t kSetPinned = 4;
constexpr uint32_t kSetCold = 8;

// The part of a matcher that outlives one walk, and one call: the state sets
// with their transitions. What a walk remembers of positions (seenAt) goes
// stale when the next walk begins, by a stamp per walk, so a cache serves
// any subject and any run flags; only RX_SMALLCACHE, which
// changes the capacity, gets a cache of its own for the call.
struct DfaCache {
    bool init(const CompactNfa& nfa, bool small);
    bool ready() const noexcept { return slots != nullptr; }

    int capacity = 0;
    int used = 0;
    int words = 0;
    int colours = 0;
    int hand = 0;       // the clock hand of replacement
    uint64_t walk = 0;  // stamp of the latest walk (0 marks a set not seen)
    bool busy = false;  // a walker holds it (a walk may start another, e.g. a look-ahead)
    StateSet dead{};    // the target of a transition known to lead nowhere
    // Each slot is a StateSet followed by its row of transitions, so that a
    // step finds the row at a fixed offset from the set instead of through a
    // second dependent load.
    std::byte* slots = nullptr;
    size_t stride = 0;
    StateSet* set(int i) const noexcept { return reinterpret_cast<StateSet*>(slots + static_cast<size_t>(i) * stride); }
    int indexOf(const StateSet* s) const noexcept
    {
        return static_cast<int>((reinterpret_cast<const std::byte*>(s) - slots) / static_cast<ptrdiff_t>(stride));
    }
    uint32_t* work = nullptr;
    std::vector<int> pending;  // states whose empty arcs are still to follow
    uint32_t* bitsArea = nullptr;
    InLink* inArea = nullptr;
    std::unique_ptr<uint8_t[]> stayArea;  // one row per set, made on the first skip
    std::unique_ptr<std::byte[]> ownSlots;
    std::unique_ptr<uint32_t[]> ownBits;
    std::unique_ptr<InLink[]> ownIns;
};

// One cache per automaton of a compiled pattern (indexed by cacheSlot), used
// by one rxexec call at a time; the pattern's pool keeps them between calls.
struct MatchCaches {
    explicit MatchCaches(int automata) : byAutomaton(static_cast<size_t>(automata)) {}
    // In place, not behind pointers: a walker reaches its cache with one
    // load less, and there are several walkers to a call.
    std::vector<DfaCache> byAutomaton;
};

template <class Ch>
struct ExecState {
    const Internals* in = nullptr;
    int runFlags = 0;
    size_t groupsWanted = 0;
    RxMatch* matches = nullptr;
    RxDetails* details = nullptr;
    const Ch* start = nullptr;
    const Ch* stop = nullptr;
    int err = 0;
    MatchCaches* caches = nullptr;  // null: every walker builds its own
};

template <class Ch>
class Dfa {
public:
    // Takes the call's cache for the automaton, or builds a private one if
    // there is none or it is held by another walker.
    Dfa(ExecState<Ch>& ex, const CompactNfa& nfa);
    ~Dfa()
    {
        if (_c) _c->busy = false;
    }
    Dfa(const Dfa&) = delete;
    Dfa& operator=(const Dfa&) = delete;
    bool ok() const noexcept { return _c != nullptr; }

    // End of the longest match from start not beyond stop, or null. If
    // `earlier` is given it gets what longest(start, result - 1) would give.
    const Ch* longest(const Ch* start, const Ch* stop, bool* hitStop, const Ch** earlier = nullptr);
    // End of the shortest match from start ending in [min, max], or null.
    // With a prefilter (search walks only), a walk that comes to a set with
    // nothing under way goes on where the prefilter says a match can begin.
    const Ch* shortest(const Ch* start, const Ch* min, const Ch* max, const Ch** cold, bool* hitStop,
                       PrefilterCursor<Ch>* prefilter = nullptr);
    // Every end of a match from start not beyond stop, in ascending order:
    // the candidates of a split, found in one walk instead of one each.
    void ends(const Ch* start, const Ch* stop, std::vector<const Ch*>& out, bool* hitStop = nullptr);

private:
    // The row of a set in a slot (outs, without loading it).
    static StateSet* const* row(const StateSet* s) noexcept
    {
        return reinterpret_cast<StateSet* const*>(s + 1);
    }
    colour colourOf(Ch c) const noexcept { return colourIn(_leaf0, _top, c); }
    // The same from tables the caller holds in registers: the walks store
    // through pointers the compiler can't tell from the members.
    static colour colourIn(const colour* leaf0, colour* const* top, Ch c) noexcept
    {
        if constexpr (sizeof(Ch) == 1) {
            return leaf0[static_cast<unsigned char>(c)];
        } else {
            const uint32_t u = CharTraits<Ch>::index(static_cast<int32_t>(c));
            return top[u >> 8][u & 0xFF];
        }
    }
    StateSet* initialize(const Ch* start);
    StateSet* fourSteps(StateSet* css, const Ch* cp, const colour* leaf0, colour* const* top, bool& stayed);
    StateSet* miss(StateSet* css, colour co, const Ch* cp, const Ch* start);
    // One step on colour co: the known transition, or miss() to find it.
    StateSet* step(StateSet* css, colour co, const Ch* cp, const Ch* start)
    {
        StateSet* known = row(css)[co];
        if (known && known != &_c->dead) return known;
        return known ? nullptr : miss(css, co, cp, start);
    }
    StateSet* vacant(const Ch* cp, const Ch* start);
    bool jump(StateSet*& css, const Ch*& cp, const Ch* start, PrefilterCursor<Ch>& prefilter);
    StateSet* pick(const Ch* cp, const Ch* start);
    const Ch* skip(StateSet* css, colour co, const Ch* cp, const Ch* stop);
    bool lookahead(int index, const Ch* cp);
    static const Ch* seen(const StateSet* s) { return static_cast<const Ch*>(s->seenAt); }
    // Notes that s was current at `at`. Positions only grow during a walk,
    // so the latest note of a set from which no match was under way is the
    // latest cold start, even for a set evicted since.
    void note(StateSet* s, const Ch* at) noexcept
    {
        s->seenAt = at;
        s->walk = _c->walk;
        if (s->flags & kSetCold) _latestCold = at;
    }
    colour startContext(const Ch* start) const
    {
        if (start == _ex.start) return _nfa.startColours[(_ex.runFlags & RX_NOLINESTART) ? 0 : 1];
        return colourOf(start[-1]);
    }
    colour endContext() const { return _nfa.endColours[(_ex.runFlags & RX_NOLINEEND) ? 0 : 1]; }

    ExecState<Ch>& _ex;
    const CompactNfa& _nfa;
    const colour* _leaf0;
    colour* const* _top;
    DfaCache* _c = nullptr;
    std::unique_ptr<DfaCache> _private;
    const Ch* _latestCold = nullptr;  // see note()
    StateSet* _startSet = nullptr;    // the walk's starter set (pinned)
};

}  // namespace Karu::IMPL::rx

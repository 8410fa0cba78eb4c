// Matching by subset simulation over a compact automaton, with the subsets
// ("state sets") kept in a small bounded cache.
//
// A state set is made when first reached and remembers, per colour, the set
// that follows it, so in the steady state one character costs a colour lookup
// and an array read. When the cache is full a clock hand evicts a set that
// was not seen in the latest two thirds of the cache's size in positions; what
// an evicted set knew about match ends survives in latestPost/latestCold.
// Every walk first consumes the colour of the context before its start (the
// previous character or a start-of-string pseudo colour), which is what lets
// look-behind constraints work; a post state reached at p means a match that
// ended at p - 1. Transitions that passed a look-ahead depend on the position
// and are never cached.
#pragma once

#include "internals.h"

#include <memory>

namespace Karu::IMPL::rx {

struct StateSet;

struct InLink {
    StateSet* set;
    colour co;
};

struct StateSet {
    uint32_t* bits;
    uint32_t hash;
    uint32_t flags;
    InLink in;            // head of the chain of transitions into this set
    const void* seenAt;   // position where last current in this walk, or null
    StateSet** outs;      // per colour
    InLink* nextIn;       // per colour: next link of the target's chain
};

constexpr uint32_t kSetStart = 1;
constexpr uint32_t kSetAccept = 2;
constexpr uint32_t kSetPinned = 4;
constexpr uint32_t kSetCold = 8;

// Storage that lets a small automaton's cache live without heap use.
struct DfaBlock {
    static constexpr int kSets = 40;
    static constexpr int kWords = 41;
    static constexpr int kLinks = 600;
    StateSet sets[kSets];
    uint32_t bits[kWords];
    StateSet* outs[kLinks];
    InLink ins[kLinks];
};
constexpr int kFixedMaxSets = 20;     // at most 10 automaton states
constexpr int kFixedMaxColours = 15;

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
    uint64_t* retry = nullptr;
    DfaBlock* dfa1 = nullptr;
    DfaBlock* dfa2 = nullptr;
};

template <class Ch>
class Dfa {
public:
    // `block` may be null: a small cache then takes one heap block.
    Dfa(ExecState<Ch>& ex, const CompactNfa& nfa, DfaBlock* block);
    Dfa(const Dfa&) = delete;
    Dfa& operator=(const Dfa&) = delete;
    bool ok() const noexcept { return _sets != nullptr; }

    // End of the longest match from start not beyond stop, or null.
    const Ch* longest(const Ch* start, const Ch* stop, bool* hitStop);
    // End of the shortest match from start ending in [min, max], or null.
    const Ch* shortest(const Ch* start, const Ch* min, const Ch* max, const Ch** cold, bool* hitStop);

private:
    colour colourOf(Ch c) const noexcept
    {
        if constexpr (sizeof(Ch) == 1) {
            return _leaf0[static_cast<unsigned char>(c)];
        } else {
            const uint32_t u = static_cast<uint32_t>(c);
            return _top[(u >> 8) & 0xFF][u & 0xFF];
        }
    }
    StateSet* initialize(const Ch* start);
    StateSet* miss(StateSet* css, colour co, const Ch* cp, const Ch* start);
    StateSet* vacant(const Ch* cp, const Ch* start);
    StateSet* pick(const Ch* cp, const Ch* start);
    bool lookahead(int index, const Ch* cp);
    const Ch* lastCold() const;
    static const Ch* seen(const StateSet* s) { return static_cast<const Ch*>(s->seenAt); }
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
    int _capacity = 0;
    int _used = 0;
    int _words = 0;
    int _colours = 0;
    StateSet* _sets = nullptr;
    uint32_t* _work = nullptr;
    int _hand = 0;  // the clock hand of replacement
    const Ch* _latestPost = nullptr;
    const Ch* _latestCold = nullptr;
    std::unique_ptr<StateSet[]> _ownSets;
    std::unique_ptr<uint32_t[]> _ownBits;
    std::unique_ptr<StateSet*[]> _ownOuts;
    std::unique_ptr<InLink[]> _ownIns;
    std::unique_ptr<DfaBlock> _ownBlock;
    uint32_t* _bitsArea = nullptr;
    StateSet** _outArea = nullptr;
    InLink* _inArea = nullptr;
};

}  // namespace Karu::IMPL::rx

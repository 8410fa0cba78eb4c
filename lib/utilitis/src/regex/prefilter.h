// Where a match can begin, found by a string search before the automata run
// and again whenever the search walk has nothing under way.
//
// Read off the root automaton after compiling. A state that every match
// passes (one that dominates the exit) splits a match into what comes before
// the state and what follows it. The colour paths of a few steps from such a
// state are needles: every match holds one of them where it passes the
// state. The colours of the arcs before the state form the back set: what a
// match can hold in front of its needle. So, when the first needle at or
// after p begins at q, no match begins in [p, r), where r is q moved back
// over the characters of the back set (not below p): a match beginning
// there would hold its own needle at or after q, and everything in front of
// that needle is of the back set, the character before r included, which is
// not. The walk may start at r instead of p, and a search walk that comes
// back to a set with nothing under way may jump to the next such r.
//
// Of the states that qualify (the match's start itself among them, with an
// empty back set) the one whose needles a table of byte frequencies in text
// finds rarest is taken, and only if they are rare enough to pay for the
// search. Needles are found many bytes at a time by their first positions
// (ByteNeedles); in the wide build, whose alphabet is too large for that, by
// the units of one position where the needles hold at most four in all (the
// rarest such), a few units at a time, and a candidate without one is not
// taken. A pattern that is a single literal with nothing around it is
// matched by the search alone.
//
// Subtle parts: a needle ends where a match may end (an arc to the exit, a
// look-ahead) or the paths grow too many; the wide colour map places a unit
// beyond the basic plane by its low 16 bits (CharTraits::index), so the
// search takes every such unit for a candidate and the check of a needle
// reads it as the automata do; and a walk that asks
// again inside the span of its last answer must not search again, or asking
// at every cold set would cost quadratic time.
#pragma once

#include "classes.h"
#include "internals.h"

namespace Karu::IMPL::rx {

// Fills in.prefilter from the root's automaton.
void analysePrefilter(Internals& in);

// The searches of one call: remembers the last needle found, so that a walk
// that asks at every position up to it costs no search.
template <class Ch>
class PrefilterCursor {
public:
    PrefilterCursor(const Internals& in, const Ch* stop) noexcept : _in(in), _pf(in.prefilter), _stop(stop) {}
    bool active() const noexcept { return !_pf.needles.empty(); }
    // The earliest place at or after p where a match can begin, or null when
    // none can. Calls must come with p not decreasing.
    const Ch* next(const Ch* p) noexcept;
    // Where the first needle at or after p begins, or null.
    const Ch* findNeedle(const Ch* p) const noexcept;

private:
    // As the automata read a unit (CharTraits::index).
    colour colourAt(Ch c) const noexcept
    {
        return _in.colourMap.colourOf(CharTraits<Ch>::index(CharTraits<Ch>::value(c)));
    }
    bool holds(const std::vector<colour>& needle, const Ch* at, size_t from) const noexcept;

    const Internals& _in;
    const Prefilter& _pf;
    const Ch* _stop;
    const Ch* _asked = nullptr;   // the p of the last search
    const Ch* _needle = nullptr;  // where its needle begins; null: none from _asked on
    const Ch* _begin = nullptr;   // the answer it gave
    bool _searched = false;
};

}  // namespace Karu::IMPL::rx

// The literal every match begins with, found by a string search before any
// automaton runs.
//
// Read off the root automaton after compiling: past the context step, a chain
// of states with one arc each spells the colours every match starts with
// (one character each for a plain literal, both cases of a folded letter). No match can begin before the first
// place they occur, so the search starts there; and a pattern that is that
// chain and nothing more (no constraint on either side) needs no automaton at
// all. The subtle part is the wide build, whose colour map reads a unit by its
// low 16 bits: the comparison must do the same to agree with the automata.
#pragma once

#include "internals.h"

namespace Karu::IMPL::rx {

// Fills in.prefix and in.prefixIsWhole from the root's automaton.
void analysePrefix(Internals& in);

// The first place in [from, stop) where in.prefix occurs, or null.
template <class Ch>
const Ch* findPrefix(const Internals& in, const Ch* from, const Ch* stop) noexcept;

}  // namespace Karu::IMPL::rx

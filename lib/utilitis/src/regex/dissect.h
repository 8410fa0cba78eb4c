// Dissection: given where a match begins and ends, split the interval among
// the subexpression tree's nodes and record the captures.
#pragma once

#include "dfa.h"

namespace Karu::IMPL::rx {

// For patterns without back-references: a consistent split must exist, and
// failing to find one is an internal error.
template <class Ch>
int dissect(ExecState<Ch>& ex, const Subexpr* t, const Ch* begin, const Ch* end);

// With back-references: a backtracking walk, resumable through the retry
// memory (one counter per tree node). Returns RX_OK, RX_NOMATCH or an error.
template <class Ch>
int dissectRetry(ExecState<Ch>& ex, const Subexpr* t, const Ch* begin, const Ch* end);

// Reset the retry memory and the captures of a subtree.
template <class Ch>
void clearMemory(ExecState<Ch>& ex, const Subexpr* t);

}  // namespace Karu::IMPL::rx

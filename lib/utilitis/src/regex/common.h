// Internal vocabulary of the regular-expression engine, shared by every stage:
// colours, the error sink that makes the first error stick, and limits.
//
// Most of the compile machinery (colour map, automaton graph, optimiser,
// compaction) is independent of the unit width: characters reach it as
// indexes into the alphabet (256 in the narrow build, 65536 in the wide one).
// Only the lexer, the parser, the class tables and the matchers are templates
// over the unit type.
#pragma once

#include "karu/regex/rx.h"

#include <cstdint>

namespace Karu::IMPL::rx {

using colour = int16_t;
constexpr colour kWhite = 0;
constexpr colour kNoColour = -1;
constexpr int kMaxColours = 32767;  // colours are signed 16-bit

// A pattern whose automaton would grow beyond these is refused as out of
// memory (about 200 MB of graph, and a compile of a few tenths of a second).
// Only nested bounds come near: (a{255}){255} needs 65,025 states and
// compiles; one more level would need 16 million, gigabytes with the copies
// the tree's nodes take.
constexpr int kMaxStates = 1 << 17;
constexpr long kMaxArcs = 1L << 21;

// The first error recorded wins; every stage tests it and falls through.
struct ErrorSink {
    int err = 0;
    void set(int e) noexcept
    {
        if (err == 0) err = e;
    }
    bool failed() const noexcept { return err != 0; }
};

// Arc kinds of the automaton graph.
enum ArcType : int {
    kPlain = 'p',
    kEmpty = 'n',
    kStart = '^',
    kEnd = '$',
    kAhead = 'a',
    kBehind = 'r',
    kLookRef = 'L',
};

}  // namespace Karu::IMPL::rx

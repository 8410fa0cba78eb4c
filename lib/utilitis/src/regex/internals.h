// What a compiled pattern keeps: the subexpression tree with an automaton per
// node the matcher may run, the search automaton, the look-ahead automata and
// the colour map. Everything here is read-only once rxcomp has returned.
#pragma once

#include "colourmap.h"
#include "nfa.h"

#include <karu/string/needleSearch.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace Karu::IMPL::rx {

// Preference and content flags of a tree node.
constexpr uint8_t kLonger = 1;
constexpr uint8_t kShorter = 2;
constexpr uint8_t kMixed = 4;
constexpr uint8_t kCapture = 8;
constexpr uint8_t kBackref = 0x10;
constexpr uint8_t kEmptyOnly = 0x20;  // an '=' node that spans no arc: only the empty string
constexpr uint8_t kInUse = 0x40;
constexpr uint8_t kOwnAutomaton = 0x80;  // the matcher runs this node's own automaton
constexpr uint8_t kPrefMask = 3;
constexpr uint8_t kMessy = kMixed | kCapture | kBackref;

// Combining upward: drop the node's own preference, note a clash as mixed.
constexpr uint8_t flagsUp(uint8_t f)
{
    return static_cast<uint8_t>((f & ~kPrefMask) | (((f << 2) & (f << 1)) & kMixed));
}
constexpr uint8_t flagsMerge(uint8_t a, uint8_t b)
{
    return static_cast<uint8_t>(flagsUp(a | b) | ((a & kPrefMask) ? (a & kPrefMask) : (b & kPrefMask)));
}

struct Subexpr {
    // '|' alternation, '.' concatenation, '=' plain, '(' capture,
    // 'b' back-reference, '*' the first iterations of an atom that holds a
    // back-reference (each must be checked; see dissect.cpp)
    char op = '=';
    uint8_t flags = 0;
    int id = 0;         // tree number
    int groupNo = 0;    // group of '(' and 'b'; polarity of a look-ahead record
    int16_t min = 1;
    int16_t max = 1;    // RX_OPEN_BOUND is open
    Subexpr* left = nullptr;
    Subexpr* right = nullptr;
    // For '*': the atom repeated, which the tree holds elsewhere as its last
    // iteration; and the groups inside it, which each iteration has afresh.
    const Subexpr* body = nullptr;
    int firstGroup = 0;
    int lastGroup = 0;
    State* begin = nullptr;
    State* end = nullptr;
    CompactNfa automaton;
};

struct MatchCaches;

// Matching caches kept for the next call: building the state sets again for
// every call would dominate a loop that calls once per occurrence. A call
// takes a set of caches for its duration and gives it back, so concurrent
// calls on one pattern never share one; all go with the pattern.
//
// The first thread to give caches back becomes the pool's owner and keeps
// a slot of its own, which only it reads and writes: its calls take and give
// with plain loads and stores. The shared slots cost an atomic exchange each
// way, as much as a short match, and serve the other threads.
class CachePool {
public:
    CachePool() = default;
    CachePool(const CachePool&) = delete;
    CachePool& operator=(const CachePool&) = delete;
    ~CachePool();
    MatchCaches* take() noexcept;            // null when none is spare
    void give(MatchCaches* caches) noexcept; // frees it when every slot is taken

private:
    // Enough for the worker threads of one process; a thread beyond them
    // builds its caches per call.
    static constexpr int kSlots = 8;
    std::atomic<MatchCaches*> _slots[kSlots] = {};
    std::atomic<const void*> _owner{nullptr};   // a token of the owning thread
    std::atomic<MatchCaches*> _owned{nullptr};  // the owner's slot
};

// What every match holds, for a search before and between the automata's
// walks (see prefilter.h).
struct Prefilter {
    std::vector<std::vector<colour>> needles;  // every match holds one; none: no prefilter
    std::vector<uint8_t> back;                  // per colour: may stand in front of the needle
    bool whole = false;                         // one needle, which is the whole match
    ByteNeedles bytes;                          // narrow build: the needles' first colours as bytes
    wchar_t units[4] = {};                      // wide build: the units of one position of the needles
    int unitCount = 0;
    int unitOffset = 0;                         // that position
};

constexpr int kInternalsMagic = 0xFED9;

struct Internals {
    int magic = 0;
    int compFlags = 0;
    long info = 0;
    size_t groupCount = 0;
    Subexpr* tree = nullptr;
    CompactNfa search;
    int nodeCount = 0;
    ColourMap colourMap;
    std::vector<std::unique_ptr<Subexpr>> nodes;  // the tree's nodes in use
    std::vector<Subexpr> lookaheads;              // entry 0 unused
    int unitSize = 1;
    int automatonCount = 0;  // automata with a cacheSlot
    Prefilter prefilter;
    mutable CachePool caches;
};

}  // namespace Karu::IMPL::rx

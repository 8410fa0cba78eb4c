// The colour map: which characters the pattern cannot tell apart.
//
// A colour is a set of characters that no part of the pattern distinguishes.
// The map begins with one colour, white, holding the whole alphabet; each
// character or range the parser meets splits the colours it touches into an
// open sub-colour, and settle() ends the step, giving each arc of a split
// colour a parallel arc on the piece that split off. Arcs carry colours, so
// the matcher needs one table lookup per character and no character logic.
//
// The lookup table has 256 top entries of 256-colour leaves. The narrow build
// uses the first leaf only. In the wide build every top entry starts at one
// shared all-white fill leaf; a leaf solid in one colour may be shared as
// that colour's solid block, and both kinds are copied before a write.
#pragma once

#include "common.h"

#include <memory>
#include <vector>

namespace Karu::IMPL::rx {

struct Arc;
struct State;
class Nfa;

struct ColourDesc {
    uint32_t charCount = 0;
    colour openSub = kNoColour;  // also the free-list link of a free colour
    Arc* arcs = nullptr;         // chain of the main automaton's arcs of this colour
    uint32_t flags = 0;
    colour* block = nullptr;     // a leaf solid in this colour, if any
};

constexpr uint32_t kColourFree = 1;
constexpr uint32_t kColourPseudo = 2;

class ColourMap {
public:
    ColourMap() = default;
    ColourMap(const ColourMap&) = delete;
    ColourMap& operator=(const ColourMap&) = delete;

    void init(bool wide, ErrorSink* sink);

    // idx must lie inside the alphabet (masked by the caller).
    colour colourOf(uint32_t idx) const noexcept { return _top[idx >> 8][idx & 0xFF]; }
    // Narrow builds index the first leaf directly.
    const colour* leaf0() const noexcept { return _top[0]; }
    colour* const* top() const noexcept { return _top; }

    colour highest() const noexcept { return _sink->failed() ? kNoColour : _max; }
    // Changes whenever a character changes colour or a colour is made or
    // freed: while it stands, a set of characters keeps the same colours.
    uint64_t version() const noexcept { return _version; }
    colour max() const noexcept { return _max; }
    uint32_t alphabet() const noexcept { return _wide ? 65536u : 256u; }
    bool live(colour c) const noexcept { return !(_descs[c].flags & kColourFree); }
    bool pseudo(colour c) const noexcept { return _descs[c].flags & kColourPseudo; }
    const ColourDesc& desc(colour c) const noexcept { return _descs[c]; }

    // Appends the characters of colour c, which must be one of few: the
    // blocks solid in one colour, which hold 256, are passed over.
    void members(colour c, std::vector<uint32_t>& out) const;

    colour allocPseudo();
    colour splitChar(uint32_t idx);
    void splitRange(uint32_t from, uint32_t to, Nfa& nfa, State* lp, State* rp);
    void settle(Nfa& nfa);

    void chainArc(Arc* a) noexcept;
    void unchainArc(Arc* a) noexcept;

    void arcsForAll(Nfa& nfa, int type, colour except, State* from, State* to);
    void complementArcs(Nfa& nfa, int type, State* of, State* from, State* to);

private:
    colour alloc();
    void release(colour co);
    colour openSubOf(colour co);
    void setEntry(uint32_t idx, colour co);
    void splitBlock(uint32_t start, Nfa& nfa, State* lp, State* rp);
    bool shared(const colour* leaf) const noexcept
    {
        return leaf == _fill || leaf == _descs[leaf[0]].block;
    }
    colour* newLeaf(colour fillWith);

    ErrorSink* _sink = nullptr;
    bool _wide = false;
    colour _max = 0;
    colour _free = 0;
    std::vector<ColourDesc> _descs;
    colour* _top[256] = {};
    colour _fill[256] = {};
    std::vector<std::unique_ptr<colour[]>> _blocks;  // every leaf ever made
    // What the splitting step under way did, for settle(): the colours it
    // split, the characters it moved and the leaves it replaced.
    uint64_t _version = 0;
    std::vector<colour> _splitting;
    std::vector<uint32_t> _written;
    std::vector<std::pair<uint32_t, colour*>> _writtenLeaves;
};

}  // namespace Karu::IMPL::rx

// Colour splitting. See colourmap.h for the idea; the parts worth care here
// are the sharing of leaf blocks (fill block and solid blocks must be copied
// before a write) and settle(), which decides whether a split colour still
// has characters (its arcs gain parallel arcs) or is empty (its arcs move).
#include "colourmap.h"

#include "nfa.h"

#include <algorithm>
#include <cstring>

namespace Karu::IMPL::rx {

namespace {
constexpr size_t kInlineDescs = 10;  // most patterns need no more colours
}

void ColourMap::init(bool wide, ErrorSink* sink)
{
    _sink = sink;
    _wide = wide;
    _descs.reserve(kInlineDescs);
    _descs.assign(1, ColourDesc{});
    _descs[0].charCount = alphabet();
    _max = 0;
    _free = 0;
    std::fill(std::begin(_fill), std::end(_fill), kWhite);
    if (wide) {
        std::fill(std::begin(_top), std::end(_top), static_cast<colour*>(_fill));
        _descs[0].block = _fill;
    } else {
        // One private leaf: nothing to share with a single level.
        colour* leaf = newLeaf(kWhite);
        std::fill(std::begin(_top), std::end(_top), static_cast<colour*>(_fill));
        _top[0] = leaf;
    }
}

colour* ColourMap::newLeaf(colour fillWith)
{
    auto block = std::make_unique<colour[]>(256);
    std::fill(block.get(), block.get() + 256, fillWith);
    colour* raw = block.get();
    _blocks.push_back(std::move(block));
    return raw;
}

colour ColourMap::alloc()
{
    if (_sink->failed()) return kNoColour;
    ++_version;
    colour co;
    if (_free != 0) {
        co = _free;
        _free = _descs[co].openSub;
    } else if (static_cast<size_t>(_max) + 1 < _descs.size()) {
        co = ++_max;
    } else {
        if (_max >= kMaxColours) {
            _sink->set(RX_ERR_MEMORY);
            return kNoColour;
        }
        _descs.emplace_back();
        co = ++_max;
    }
    _descs[co] = ColourDesc{};
    return co;
}

void ColourMap::release(colour co)
{
    if (co == kWhite) return;
    ++_version;
    ColourDesc& d = _descs[co];
    d.flags = kColourFree;
    d.block = nullptr;  // the leaf itself stays owned by _blocks
    d.arcs = nullptr;
    if (co == _max) {
        while (_max > kWhite && (_descs[_max].flags & kColourFree)) --_max;
        while (_free > _max) _free = _descs[_free].openSub;
        if (_free > 0) {
            colour prev = _free;
            colour next = _descs[prev].openSub;
            while (next > 0) {
                if (next > _max) {
                    next = _descs[next].openSub;
                    _descs[prev].openSub = next;
                } else {
                    prev = next;
                    next = _descs[prev].openSub;
                }
            }
        }
    } else {
        d.openSub = _free;
        _free = co;
    }
}

void ColourMap::members(colour c, std::vector<uint32_t>& out) const
{
    const uint32_t leaves = _wide ? 256 : 1;
    for (uint32_t hi = 0; hi < leaves; ++hi) {
        const colour* leaf = _top[hi];
        if (_wide && shared(leaf)) continue;
        for (uint32_t lo = 0; lo < 256; ++lo)
            if (leaf[lo] == c) out.push_back(hi << 8 | lo);
    }
}

colour ColourMap::allocPseudo()
{
    const colour co = alloc();
    if (co == kNoColour) return co;
    _descs[co].charCount = 1;
    _descs[co].flags = kColourPseudo;
    return co;
}

colour ColourMap::openSubOf(colour co)
{
    colour sco = _descs[co].openSub;
    if (sco != kNoColour) return sco;
    if (_descs[co].charCount == 1) return co;  // a lone character needs no split
    sco = alloc();
    if (sco == kNoColour) return kNoColour;
    _descs[co].openSub = sco;
    _descs[sco].openSub = sco;
    _splitting.push_back(co);
    return sco;
}

void ColourMap::setEntry(uint32_t idx, colour co)
{
    colour*& leaf = _top[idx >> 8];
    if (_wide && shared(leaf)) {
        colour* copy = newLeaf(kWhite);
        std::memcpy(copy, leaf, 256 * sizeof(colour));
        leaf = copy;
    }
    leaf[idx & 0xFF] = co;
}

colour ColourMap::splitChar(uint32_t idx)
{
    if (_sink->failed()) return kNoColour;
    const colour co = colourOf(idx);
    const colour sco = openSubOf(co);
    if (sco == kNoColour) return kNoColour;
    if (sco == co) return co;
    _descs[co].charCount--;
    _descs[sco].charCount++;
    ++_version;
    setEntry(idx, sco);
    _written.push_back(idx);
    return sco;
}

void ColourMap::splitBlock(uint32_t start, Nfa& nfa, State* lp, State* rp)
{
    ++_version;
    colour*& leaf = _top[start >> 8];
    if (shared(leaf)) {
        const colour co = leaf[0];
        const colour sco = openSubOf(co);
        if (sco == kNoColour) return;
        if (_descs[sco].block == nullptr) _descs[sco].block = newLeaf(sco);
        _writtenLeaves.emplace_back(start >> 8, leaf);
        leaf = _descs[sco].block;
        nfa.arcAdd(kPlain, sco, lp, rp);
        _descs[co].charCount -= 256;
        _descs[sco].charCount += 256;
        return;
    }
    int i = 0;
    while (i < 256 && !_sink->failed()) {
        const colour co = leaf[i];
        const colour sco = openSubOf(co);
        if (sco == kNoColour) return;
        nfa.arcAdd(kPlain, sco, lp, rp);
        const int first = i;
        do {
            _written.push_back((start & ~0xFFu) | static_cast<uint32_t>(i));
            leaf[i++] = sco;
        } while (i < 256 && leaf[i] == co);
        _descs[co].charCount -= static_cast<uint32_t>(i - first);
        _descs[sco].charCount += static_cast<uint32_t>(i - first);
    }
}

void ColourMap::splitRange(uint32_t from, uint32_t to, Nfa& nfa, State* lp, State* rp)
{
    // from <= to, both inside the alphabet. Unaligned head and tail go one
    // character at a time; whole aligned blocks (wide build) go by leaf.
    uint32_t c = from;
    if (_wide) {
        while (c <= to && (c & 0xFF) != 0 && !_sink->failed()) {
            nfa.arcAdd(kPlain, splitChar(c), lp, rp);
            ++c;
        }
        while (c <= to && to - c >= 255 && !_sink->failed()) {
            splitBlock(c, nfa, lp, rp);
            c += 256;
        }
    }
    for (; c <= to && !_sink->failed(); ++c) nfa.arcAdd(kPlain, splitChar(c), lp, rp);
}

// Only the colours this step split are looked at. A parent whose characters
// all went to its sub-colour is the same set as before: either its arcs move
// to the sub-colour, or the sub-colour, made in this step, gives its
// characters and arcs back; whichever is less work. A pattern repeating one
// class would otherwise move all the class's earlier arcs at every repeat.
void ColourMap::settle(Nfa& nfa)
{
    if (!_splitting.empty()) ++_version;
    const size_t stepWork = _written.size() + 256 * _writtenLeaves.size();
    std::sort(_splitting.begin(), _splitting.end());
    // Sub-colours that give their characters back, with their parents: the
    // table is put right for all of them in one pass over what was written.
    std::vector<std::pair<colour, colour>> back;
    for (const colour co : _splitting) {
        if (_sink->failed()) break;
        ColourDesc& d = _descs[co];
        const colour sco = d.openSub;
        if ((d.flags & kColourFree) || sco == kNoColour || sco == co) continue;
        d.openSub = kNoColour;
        _descs[sco].openSub = kNoColour;
        size_t parentArcs = 0;
        for (const Arc* a = d.arcs; a && parentArcs <= stepWork; a = a->colNext) ++parentArcs;
        if (d.charCount == 0 && parentArcs <= stepWork) {
            // Nothing left of the parent: its few arcs simply change colour.
            while (Arc* a = _descs[co].arcs) nfa.recolour(a, sco);
            release(co);
        } else if (d.charCount == 0) {
            back.emplace_back(sco, co);
        } else {
            for (Arc* a = _descs[co].arcs; a != nullptr && !_sink->failed(); a = a->colNext)
                nfa.arcAdd(a->type, sco, a->from, a->to);
        }
    }
    if (!back.empty()) {
        std::sort(back.begin(), back.end());
        auto parentOf = [&back](colour sco) {
            const auto at = std::lower_bound(back.begin(), back.end(), std::make_pair(sco, kNoColour));
            return at != back.end() && at->first == sco ? at->second : kNoColour;
        };
        for (uint32_t idx : _written)
            if (const colour co = parentOf(colourOf(idx)); co != kNoColour) _top[idx >> 8][idx & 0xFF] = co;
        for (auto it = _writtenLeaves.rbegin(); it != _writtenLeaves.rend(); ++it) {
            const colour sco = _top[it->first][0];  // the leaf is sco's solid block if still in place
            const colour co = parentOf(sco);
            if (co != kNoColour && _top[it->first] == _descs[sco].block) _top[it->first] = it->second;
        }
        for (const auto& [sco, co] : back) {
            while (Arc* a = _descs[sco].arcs) nfa.recolour(a, co);
            _descs[co].charCount = _descs[sco].charCount;
            _descs[sco].charCount = 0;
            release(sco);
        }
    }
    _splitting.clear();
    _written.clear();
    _writtenLeaves.clear();
}

void ColourMap::chainArc(Arc* a) noexcept
{
    ColourDesc& d = _descs[a->co];
    a->colPrev = nullptr;
    a->colNext = d.arcs;
    if (d.arcs) d.arcs->colPrev = a;
    d.arcs = a;
}

void ColourMap::unchainArc(Arc* a) noexcept
{
    ColourDesc& d = _descs[a->co];
    if (a->colPrev)
        a->colPrev->colNext = a->colNext;
    else
        d.arcs = a->colNext;
    if (a->colNext) a->colNext->colPrev = a->colPrev;
    a->colNext = a->colPrev = nullptr;
}

void ColourMap::arcsForAll(Nfa& nfa, int type, colour except, State* from, State* to)
{
    for (colour co = 0; co <= _max && !_sink->failed(); ++co) {
        const ColourDesc& d = _descs[co];
        if ((d.flags & (kColourFree | kColourPseudo)) || d.openSub == co || co == except) continue;
        nfa.arcAdd(type, co, from, to);
    }
}

void ColourMap::complementArcs(Nfa& nfa, int type, State* of, State* from, State* to)
{
    for (colour co = 0; co <= _max && !_sink->failed(); ++co) {
        const ColourDesc& d = _descs[co];
        if (d.flags & (kColourFree | kColourPseudo)) continue;
        if (nfa.findArc(of, kPlain, co) == nullptr) nfa.arcAdd(type, co, from, to);
    }
}

}  // namespace Karu::IMPL::rx

// See prefilter.h.
#include "prefilter.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <utility>

namespace Karu::IMPL::rx {

namespace {

// Paths from one state that are still worth searching for together.
constexpr size_t kMaxNeedles = 64;
// Colours a needle holds, where several paths go on; a single chain (a
// literal) is followed much further, so that it can be the whole match.
constexpr size_t kNeedleColours = 8;
constexpr size_t kChainColours = 4096;
// Positions of a needle the byte search checks itself; a longer chain's
// rest is checked colour by colour.
constexpr size_t kSearchedPositions = 16;
// Dominating states weighed; past these a literal's needles are as good.
constexpr size_t kMaxCandidates = 256;
// Needle hits per character of text above which stopping at each costs
// the walk more than the search saves.
constexpr double kWorthSearching = 1.0 / 24;
// A back set costs a walk back from each hit: weighed as this many hits.
constexpr double kBackCost = 1.5;
// The positions the byte search filters on, and what stopping at a place
// that passes the filter costs against a restart of the walk.
constexpr size_t kFilterPositions = 3;
constexpr double kFilterHitCost = 0.25;
constexpr double kRareEnough = 1e-4;

bool realColour(const ColourMap& map, colour c)
{
    return c >= 0 && c <= map.max() && map.live(c) && !map.pseudo(c);
}

const CompactArc* rowOf(const CompactNfa& a, int state)
{
    return &a.arcs[a.rows[static_cast<size_t>(state)] + 1];
}

// Whether a state's arcs all lead to `to` and cover every real colour and
// both given pseudo colours: a step that accepts any context.
bool acceptsAny(const CompactNfa& a, const ColourMap& map, int state, int to, const colour (&pseudo)[2])
{
    int real = 0;
    bool ends[2] = {false, false};
    for (const CompactArc* arc = rowOf(a, state); arc->co != kNoColour; ++arc) {
        if (arc->to != to || arc->co < 0 || arc->co >= a.colourCount) return false;
        if (realColour(map, arc->co)) ++real;
        for (int i = 0; i < 2; ++i)
            if (arc->co == pseudo[i]) ends[i] = true;
    }
    int live = 0;
    for (colour c = 0; c <= map.max(); ++c)
        if (realColour(map, c)) ++live;
    return real == live && ends[0] && ends[1];
}

// The immediate dominators of the states reachable from `root`, a state
// number past the automaton's that leads to `firsts` (the targets of the
// context step); -1 for a state not reached. The iterative scheme over
// reverse postorder, which needs few rounds on graphs of this shape.
std::vector<int> dominators(const CompactNfa& a, const std::vector<int>& firsts)
{
    const int n = a.stateCount;
    const int root = n;
    auto forEachSuccessor = [&](int s, auto&& f) {
        if (s == root) {
            for (int t : firsts) f(t);
            return;
        }
        if (s == a.exit) return;
        for (const CompactArc* arc = rowOf(a, s); arc->co != kNoColour; ++arc) f(arc->to);
    };
    // Postorder by an explicit stack: a pattern's automaton can be deep.
    std::vector<int> order, position(static_cast<size_t>(n) + 1, -1);
    std::vector<std::pair<int, std::vector<int>>> stack;
    std::vector<char> seen(static_cast<size_t>(n) + 1, 0);
    auto successors = [&](int s) {
        std::vector<int> out;
        forEachSuccessor(s, [&](int t) {
            if (t != a.entry) out.push_back(t);
        });
        return out;
    };
    seen[static_cast<size_t>(root)] = 1;
    stack.emplace_back(root, successors(root));
    while (!stack.empty()) {
        auto& [s, next] = stack.back();
        if (next.empty()) {
            position[static_cast<size_t>(s)] = static_cast<int>(order.size());
            order.push_back(s);
            stack.pop_back();
            continue;
        }
        const int t = next.back();
        next.pop_back();
        if (seen[static_cast<size_t>(t)]) continue;
        seen[static_cast<size_t>(t)] = 1;
        stack.emplace_back(t, successors(t));
    }
    std::vector<std::vector<int>> preds(static_cast<size_t>(n) + 1);
    for (int s : order)
        for (int t : successors(s)) preds[static_cast<size_t>(t)].push_back(s);
    std::vector<int> idom(static_cast<size_t>(n) + 1, -1);
    idom[static_cast<size_t>(root)] = root;
    auto intersect = [&](int b1, int b2) {
        while (b1 != b2) {
            while (position[static_cast<size_t>(b1)] < position[static_cast<size_t>(b2)]) b1 = idom[static_cast<size_t>(b1)];
            while (position[static_cast<size_t>(b2)] < position[static_cast<size_t>(b1)]) b2 = idom[static_cast<size_t>(b2)];
        }
        return b1;
    };
    for (bool changed = true; changed;) {
        changed = false;
        for (auto it = order.rbegin(); it != order.rend(); ++it) {
            const int b = *it;
            if (b == root) continue;
            int newIdom = -1;
            for (int p : preds[static_cast<size_t>(b)]) {
                if (idom[static_cast<size_t>(p)] == -1) continue;
                newIdom = newIdom == -1 ? p : intersect(p, newIdom);
            }
            if (newIdom != idom[static_cast<size_t>(b)]) {
                idom[static_cast<size_t>(b)] = newIdom;
                changed = true;
            }
        }
    }
    return idom;
}

struct Candidate {
    std::vector<std::vector<colour>> needles;
    std::vector<uint8_t> back;  // empty: nothing in front of the needle
    int end = -1;               // a single chain's last state, for the whole-match test
    double score = 0;
};

// The needles from `starts`, each path prefixed by `lead` (a colour every
// arc into the state carries, or none), at most `limit` colours long. False
// when a needle would be empty. `end` gets the last state of a single path
// that ends where the match may end, or -1.
bool collectNeedles(const CompactNfa& a, const ColourMap& map, const std::vector<int>& starts, colour lead,
                    size_t limit, Candidate& out)
{
    struct Path {
        std::vector<colour> colours;
        int state;
        bool operator<(const Path& o) const { return std::tie(state, colours) < std::tie(o.state, o.colours); }
        bool operator==(const Path& o) const { return state == o.state && colours == o.colours; }
    };
    // A state stands for itself and what its empty arcs reach.
    auto closure = [&](int s) {
        std::vector<int> states{s};
        for (size_t i = 0; i < states.size(); ++i)
            for (const CompactArc* arc = rowOf(a, states[i]); arc->co != kNoColour; ++arc)
                if (arc->co == kEmptyArc && std::find(states.begin(), states.end(), arc->to) == states.end())
                    states.push_back(arc->to);
        return states;
    };
    auto endsHere = [&](int s) {
        for (const int t : closure(s))
            for (const CompactArc* arc = rowOf(a, t); arc->co != kNoColour; ++arc)
                if (arc->co != kEmptyArc &&
                    (arc->to == a.exit || arc->co >= a.colourCount || !realColour(map, arc->co)))
                    return true;
        return false;
    };
    std::set<std::vector<colour>> done;
    std::vector<Path> frontier;
    for (int s : starts) frontier.push_back({lead == kNoColour ? std::vector<colour>{} : std::vector<colour>{lead}, s});
    out.end = -1;
    for (size_t level = 0; !frontier.empty() && level < limit; ++level) {
        // A single path with a single way on (a literal) grows in place.
        if (frontier.size() == 1 && done.empty()) {
            Path& p = frontier[0];
            if (endsHere(p.state)) {
                done.insert(p.colours);
                out.end = p.state;
                frontier.clear();
                break;
            }
            const CompactArc* arc = rowOf(a, p.state);
            if (arc->co >= 0 && arc[1].co == kNoColour) {
                p.colours.push_back(arc->co);
                p.state = arc->to;
                continue;
            }
        }
        if (level >= kNeedleColours) break;
        std::vector<Path> next;
        for (const Path& p : frontier) {
            if (endsHere(p.state)) {
                done.insert(p.colours);
                continue;
            }
            for (const int t : closure(p.state))
                for (const CompactArc* arc = rowOf(a, t); arc->co != kNoColour; ++arc) {
                    if (arc->co == kEmptyArc) continue;
                    Path q{p.colours, arc->to};
                    q.colours.push_back(arc->co);
                    next.push_back(std::move(q));
                }
        }
        std::sort(next.begin(), next.end());
        next.erase(std::unique(next.begin(), next.end()), next.end());
        if (next.size() + done.size() > kMaxNeedles) break;  // the current paths, cut here, are the needles
        frontier = std::move(next);
    }
    if (!frontier.empty()) out.end = -1;  // cut short: no path known to be a whole match
    for (const Path& p : frontier) done.insert(p.colours);
    for (const auto& n : done)
        if (n.empty()) return false;
    out.needles.assign(done.begin(), done.end());
    return !out.needles.empty();
}

}  // namespace

void analysePrefilter(Internals& in)
{
    Prefilter& pf = in.prefilter;
    pf = Prefilter();
    const CompactNfa& a = in.tree->automaton;
    const ColourMap& map = in.colourMap;
    if (a.empty() || (in.info & RX_CAN_BE_EMPTY)) return;
    const bool wide = in.unitSize != 1;

    std::vector<int> firsts;
    for (const CompactArc* arc = rowOf(a, a.entry); arc->co != kNoColour; ++arc) {
        if (arc->co == kEmptyArc) return;  // a start that reads no context: left to the automata
        if (std::find(firsts.begin(), firsts.end(), arc->to) == firsts.end()) firsts.push_back(arc->to);
    }
    if (firsts.empty() || std::find(firsts.begin(), firsts.end(), a.exit) != firsts.end()) return;

    // Per colour: how common its characters are, and (wide build) which
    // characters it holds when they are few.
    const size_t colours = static_cast<size_t>(a.colourCount);
    std::vector<double> weight(colours, 0);
    std::vector<std::vector<uint32_t>> members(colours);
    for (uint32_t idx = 0; idx < map.alphabet(); ++idx) {
        const colour c = map.colourOf(idx);
        if (c < 0 || static_cast<size_t>(c) >= colours) continue;
        weight[static_cast<size_t>(c)] += CharacterFrequency(idx);
        if (members[static_cast<size_t>(c)].size() <= 4) members[static_cast<size_t>(c)].push_back(idx);
    }

    const std::vector<int> idom = dominators(a, firsts);
    if (idom[static_cast<size_t>(a.exit)] == -1) return;
    std::vector<int> chain;  // the dominators of the exit, the nearest to the start first
    for (int d = idom[static_cast<size_t>(a.exit)]; d != a.stateCount; d = idom[static_cast<size_t>(d)]) chain.push_back(d);
    std::reverse(chain.begin(), chain.end());
    if (chain.size() > kMaxCandidates) chain.resize(kMaxCandidates);

    // The colours each state's in-arcs carry, when all carry one.
    std::vector<colour> inColour(static_cast<size_t>(a.stateCount), kNoColour);
    std::vector<char> mixedIn(static_cast<size_t>(a.stateCount), 0);
    for (int s = 0; s < a.stateCount; ++s)
        for (const CompactArc* arc = rowOf(a, s); arc->co != kNoColour; ++arc) {
            const size_t t = static_cast<size_t>(arc->to);
            if (s == a.entry || arc->co < 0 || arc->co >= a.colourCount) {
                mixedIn[t] = 1;
            } else if (inColour[t] == kNoColour) {
                inColour[t] = arc->co;
            } else if (inColour[t] != arc->co) {
                mixedIn[t] = 1;
            }
        }

    // The rate of hits a candidate's search would stop at: the byte search
    // stops where a needle's first positions occur (cheap to check), the
    // walk where a whole needle does (a restart of the automaton).
    auto score = [&](Candidate& c) {
        std::set<std::vector<colour>> heads;
        double needleHits = 0;
        for (const auto& n : c.needles) {
            double p = 1;
            for (size_t i = 0; i < n.size() && i < kNeedleColours; ++i) p *= std::min(1.0, weight[static_cast<size_t>(n[i])]);
            needleHits += p;
            heads.insert(std::vector<colour>(n.begin(), n.begin() + static_cast<ptrdiff_t>(std::min<size_t>(n.size(), kFilterPositions))));
        }
        double filterHits = 0;
        for (const auto& h : heads) {
            double p = 1;
            for (const colour co : h) p *= std::min(1.0, weight[static_cast<size_t>(co)]);
            filterHits += p;
        }
        // Below a floor all are rare enough, and the earlier (the one with
        // less in front of it) wins.
        c.score = std::max(kRareEnough, kFilterHitCost * filterHits + needleHits) * (c.back.empty() ? 1.0 : kBackCost);
    };
    // The wide build searches for the units of one position of the needles,
    // the rarest of those that hold at most four units in all; a candidate
    // without one is not searched for.
    auto searchOffset = [&](const Candidate& c) {
        size_t shortest = SIZE_MAX;
        for (const auto& n : c.needles) shortest = std::min(shortest, n.size());
        int offset = -1;
        double rarest = 0;
        for (size_t k = 0; k < shortest && k < kNeedleColours; ++k) {
            std::set<uint32_t> units;
            double w = 0;
            for (const auto& n : c.needles) {
                const auto& m = members[static_cast<size_t>(n[k])];
                units.insert(m.begin(), m.end());
                w += weight[static_cast<size_t>(n[k])];
                if (m.size() > 4) units.insert(m.begin(), m.end()), w = 1e9;
            }
            if (units.size() <= 4 && w < 1e9 && (offset < 0 || w < rarest)) {
                offset = static_cast<int>(k);
                rarest = w;
            }
        }
        return offset;
    };
    auto searchable = [&](const Candidate& c) { return !wide || searchOffset(c) >= 0; };

    Candidate best;
    bool haveBest = false;
    auto consider = [&](Candidate&& c) {
        score(c);
        if (!searchable(c) || (haveBest && c.score >= best.score)) return;
        best = std::move(c);
        haveBest = true;
    };

    // The match's start: needles from the first states, nothing in front. A
    // single literal with no context to check is the whole match.
    Candidate atStart;
    if (collectNeedles(a, map, firsts, kNoColour, kChainColours, atStart)) {
        const bool whole = atStart.needles.size() == 1 && atStart.end >= 0 && firsts.size() == 1 &&
                           acceptsAny(a, map, a.entry, firsts[0], a.startColours) &&
                           acceptsAny(a, map, atStart.end, a.exit, a.endColours);
        consider(std::move(atStart));
        if (whole && haveBest && best.needles.size() == 1) {
            pf.whole = true;
            chain.clear();
        }
    }

    // Each dominator in turn: the region in front of it grows by a walk
    // that goes on where the last one stopped.
    std::vector<char> inRegion(static_cast<size_t>(a.stateCount), 0);
    std::vector<uint8_t> back(colours, 0);
    bool anyBack = false;
    std::vector<int> pending(firsts.begin(), firsts.end());
    for (const int d : chain) {
        std::vector<int> stopped;
        while (!pending.empty()) {
            const int s = pending.back();
            pending.pop_back();
            if (s == d) {
                stopped.push_back(s);
                continue;
            }
            if (inRegion[static_cast<size_t>(s)]) continue;
            inRegion[static_cast<size_t>(s)] = 1;
            for (const CompactArc* arc = rowOf(a, s); arc->co != kNoColour; ++arc) {
                if (arc->co < a.colourCount && realColour(map, arc->co)) {
                    back[static_cast<size_t>(arc->co)] = 1;
                    anyBack = true;
                }
                if (arc->to != a.exit) pending.push_back(arc->to);
            }
        }
        pending = std::move(stopped);
        Candidate c;
        const colour lead = mixedIn[static_cast<size_t>(d)] ? kNoColour : inColour[static_cast<size_t>(d)];
        if (!collectNeedles(a, map, {d}, lead, kNeedleColours, c)) continue;
        if (anyBack) c.back = back;
        consider(std::move(c));
    }
    if (!haveBest || (!pf.whole && best.score > kWorthSearching)) {
        pf = Prefilter();
        return;
    }

    const int unitOffset = wide ? searchOffset(best) : 0;
    pf.needles = std::move(best.needles);
    pf.back = std::move(best.back);
    if (!wide) {
        // Each colour's bytes, read once.
        std::vector<ByteSet> bytesOf(colours);
        for (uint32_t b = 0; b < 256; ++b) {
            const colour c = map.colourOf(b);
            if (c >= 0 && static_cast<size_t>(c) < colours) bytesOf[static_cast<size_t>(c)].set(b);
        }
        std::vector<ByteNeedle> needles;
        for (const auto& n : pf.needles) {
            ByteNeedle bn;
            for (size_t i = 0; i < n.size() && i < kSearchedPositions; ++i) bn.push_back(bytesOf[static_cast<size_t>(n[i])]);
            needles.push_back(std::move(bn));
        }
        pf.bytes = ByteNeedles(needles);
    } else {
        pf.unitOffset = unitOffset;
        std::set<uint32_t> units;
        for (const auto& n : pf.needles)
            for (uint32_t u : members[static_cast<size_t>(n[static_cast<size_t>(pf.unitOffset)])]) units.insert(u);
        if (unitOffset < 0 || units.size() > std::size(pf.units)) {
            pf = Prefilter();  // cannot happen: searchable() chose it
            return;
        }
        for (uint32_t u : units) pf.units[pf.unitCount++] = static_cast<wchar_t>(u);
    }
}

template <class Ch>
bool PrefilterCursor<Ch>::holds(const std::vector<colour>& needle, const Ch* at, size_t from) const noexcept
{
    if (static_cast<size_t>(_stop - at) < needle.size()) return false;
    for (size_t i = from; i < needle.size(); ++i)
        if (colourAt(at[i]) != needle[i]) return false;
    return true;
}

template <class Ch>
const Ch* PrefilterCursor<Ch>::findNeedle(const Ch* p) const noexcept
{
    if constexpr (sizeof(Ch) == 1) {
        // The byte search checks the first positions of every needle; only
        // a chain longer than those has more to check.
        for (;;) {
            const Ch* q = _pf.bytes.Find(p, _stop);
            if (!q) return nullptr;
            const auto& n = _pf.needles.front();
            if (_pf.needles.size() > 1 || n.size() <= kSearchedPositions || holds(n, q, kSearchedPositions)) return q;
            p = q + 1;
        }
    } else {
        // Places in order of the searched position, so the first that holds
        // a needle is the first needle.
        if (_pf.unitCount == 0) return nullptr;
        const size_t k = static_cast<size_t>(_pf.unitOffset);
        if (static_cast<size_t>(_stop - p) <= k) return nullptr;
        for (const Ch* s = p + k; s < _stop; ++s) {
            s = FindUnitOrBeyond(s, _stop, _pf.units, _pf.unitCount);
            if (!s) return nullptr;
            for (const auto& n : _pf.needles)
                if (holds(n, s - k, 0)) return s - k;
        }
        return nullptr;
    }
}

template <class Ch>
const Ch* PrefilterCursor<Ch>::next(const Ch* p) noexcept
{
    if (_searched && p >= _asked) {
        if (_needle == nullptr) return nullptr;  // none from an earlier place on
        if (p <= _needle) return p >= _begin ? p : _begin;
    }
    _searched = true;
    _asked = p;
    _needle = findNeedle(p);
    if (!_needle) return nullptr;
    const Ch* r = _needle;
    if (!_pf.back.empty())
        while (r > p && _pf.back[static_cast<size_t>(colourAt(r[-1]))]) --r;
    _begin = r;
    return r;
}

template class PrefilterCursor<char>;
template class PrefilterCursor<wchar_t>;

}  // namespace Karu::IMPL::rx

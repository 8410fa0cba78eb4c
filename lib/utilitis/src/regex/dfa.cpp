// The cached subset construction. See dfa.h for the idea; the delicate parts
// are the eviction (a victim's transitions in and out must be unlinked, and
// its knowledge of match ends saved) and the closure over look-ahead arcs,
// whose transitions must not be cached.
#include "dfa.h"
#include "prefilter.h"

#include <algorithm>
#include <cstring>

namespace Karu::IMPL::rx {

namespace {
// Past this, a cache gets fewer slots than twice the states: a pattern with
// thousands of states and colours would otherwise ask for gigabytes.
constexpr size_t kCacheBudget = size_t{32} << 20;
constexpr int kSmallCacheSets = 7;
// Short runs in one set (letters inside a word) are cheaper stepped than
// skipped; a run this long is likely to go on.
constexpr int kLoopsBeforeSkip = 4;
constexpr long kStepsBeforeBlocks = 8;
}  // namespace

bool DfaCache::init(const CompactNfa& nfa, bool small)
{
    if (nfa.empty()) return false;
    const int states = nfa.stateCount;
    words = (states + 31) / 32;
    colours = nfa.colourCount;
    if (small) {
        capacity = kSmallCacheSets;
    } else {
        capacity = 2 * states;
        const size_t perSet = sizeof(StateSet) + static_cast<size_t>(words) * 4 +
                              static_cast<size_t>(colours) * (sizeof(StateSet*) + sizeof(InLink));
        const size_t fits = kCacheBudget / perSet;
        if (static_cast<size_t>(capacity) > fits) capacity = static_cast<int>(std::max<size_t>(fits, kSmallCacheSets));
    }
    // Left unfilled: a set's slots are cleared when pick() hands it out, and
    // a match that touches few sets must not pay for clearing them all.
    const size_t cap = static_cast<size_t>(capacity);
    static_assert(sizeof(StateSet) % alignof(StateSet) == 0 && alignof(StateSet) >= alignof(StateSet*));
    stride = sizeof(StateSet) + static_cast<size_t>(colours) * sizeof(StateSet*);
    ownSlots = std::make_unique_for_overwrite<std::byte[]>(cap * stride);
    ownBits = std::make_unique_for_overwrite<uint32_t[]>((cap + 1) * static_cast<size_t>(words));
    ownIns = std::make_unique_for_overwrite<InLink[]>(cap * static_cast<size_t>(colours));
    slots = ownSlots.get();
    bitsArea = ownBits.get();
    inArea = ownIns.get();
    work = bitsArea + cap * static_cast<size_t>(words);
    return true;
}

template <class Ch>
Dfa<Ch>::Dfa(ExecState<Ch>& ex, const CompactNfa& nfa)
    : _ex(ex), _nfa(nfa), _leaf0(ex.in->colourMap.leaf0()), _top(ex.in->colourMap.top())
{
    if (nfa.empty()) {
        ex.err = RX_ERR_INTERNAL;
        return;
    }
    if (ex.caches && nfa.cacheSlot >= 0) {
        DfaCache& kept = ex.caches->byAutomaton[static_cast<size_t>(nfa.cacheSlot)];
        if (!kept.ready()) kept.init(nfa, false);
        if (kept.ready() && !kept.busy) _c = &kept;
    }
    if (!_c) {
        _private = std::make_unique<DfaCache>();
        if (_private->init(nfa, ex.runFlags & RX_SMALLCACHE)) _c = _private.get();
    }
    if (_c) _c->busy = true;
}

template <class Ch>
StateSet* Dfa<Ch>::pick(const Ch* cp, const Ch* start)
{
    if (_c->used < _c->capacity) {
        StateSet* s = _c->set(_c->used);
        s->bits = _c->bitsArea + static_cast<size_t>(_c->used) * static_cast<size_t>(_c->words);
        s->outs = reinterpret_cast<StateSet**>(s + 1);
        s->nextIn = _c->inArea + static_cast<size_t>(_c->used) * static_cast<size_t>(_c->colours);
        ++_c->used;
        s->flags = 0;
        s->in = {nullptr, kWhite};
        s->walk = 0;
        s->stay = nullptr;
        for (int i = 0; i < _c->colours; ++i) {
            s->outs[i] = nullptr;
            s->nextIn[i] = {nullptr, kWhite};
        }
        return s;
    }
    // The oldest third of the walk's positions is expendable.
    const long expendable = (2L * _c->capacity) / 3;
    const Ch* ancient = (cp - start > expendable) ? cp - expendable : start;
    for (int round = 0; round < 2; ++round) {
        const int from = round == 0 ? _c->hand : 0;
        const int to = round == 0 ? _c->capacity : _c->hand;
        for (int i = from; i < to; ++i) {
            StateSet* s = _c->set(i);
            if (!(s->flags & kSetPinned) && (s->walk != _c->walk || seen(s) < ancient)) {
                _c->hand = i + 1;
                return s;
            }
        }
    }
    _ex.err = RX_ERR_INTERNAL;
    return nullptr;
}

template <class Ch>
StateSet* Dfa<Ch>::vacant(const Ch* cp, const Ch* start)
{
    StateSet* s = pick(cp, start);
    if (!s) return nullptr;
    // Unlink the transitions into it.
    InLink link = s->in;
    while (StateSet* p = link.set) {
        const colour co = link.co;
        p->outs[co] = nullptr;
        link = p->nextIn[co];
        p->nextIn[co] = {nullptr, kWhite};
    }
    s->in = {nullptr, kWhite};
    // And take it off the chains of the sets it leads to.
    for (int co = 0; co < _c->colours; ++co) {
        StateSet* p = s->outs[co];
        if (!p) continue;
        if (p == &_c->dead) {
            s->outs[co] = nullptr;
            continue;
        }
        if (p->in.set == s && p->in.co == co) {
            p->in = s->nextIn[co];
        } else {
            InLink prev{nullptr, kWhite};
            for (InLink l = p->in; l.set && !(l.set == s && l.co == co); l = l.set->nextIn[l.co]) prev = l;
            if (prev.set) prev.set->nextIn[prev.co] = s->nextIn[co];
        }
        s->outs[co] = nullptr;
        s->nextIn[co] = {nullptr, kWhite};
    }
    s->flags = 0;
    s->walk = 0;
    s->stay = nullptr;  // the row was for the set it held
    return s;
}

template <class Ch>
StateSet* Dfa<Ch>::initialize(const Ch* start)
{
    StateSet* ss;
    if (_c->used > 0 && (_c->set(0)->flags & kSetStart)) {
        ss = _c->set(0);
    } else {
        ss = vacant(start, start);
        if (!ss) return nullptr;
        std::fill(ss->bits, ss->bits + _c->words, 0u);
        ss->bits[_nfa.entry / 32] |= 1u << (_nfa.entry % 32);
        uint32_t h = 0;
        for (int i = 0; i < _c->words; ++i) h ^= ss->bits[i];
        ss->hash = h;
        ss->flags = kSetStart | kSetPinned | kSetCold;
        ss->stay = nullptr;
    }
    // The positions of earlier walks go stale by the new stamp, without a
    // pass over the sets.
    ++_c->walk;
    _latestCold = nullptr;
    _startSet = ss;
    note(ss, start);
    return ss;
}

// The walk is in a set with nothing under way at cp, so a match can only
// begin at cp or later: it goes on where the prefilter says one can, from
// the starter set and the context there, as a walk begun there would. False
// when no match can begin any more.
template <class Ch>
bool Dfa<Ch>::jump(StateSet*& css, const Ch*& cp, const Ch* start, PrefilterCursor<Ch>& prefilter)
{
    const Ch* to = prefilter.next(cp);
    if (!to) return false;
    if (to > cp) {
        StateSet* ss = step(_startSet, startContext(to), to, start);
        if (!ss) return false;
        css = ss;
        cp = to;
        note(css, cp);
    }
    return true;
}

template <class Ch>
bool Dfa<Ch>::lookahead(int index, const Ch* cp)
{
    const Subexpr& con = _ex.in->lookaheads[static_cast<size_t>(index)];
    Dfa<Ch> d(_ex, con.automaton);
    if (!d.ok()) {
        if (_ex.err == 0) _ex.err = RX_ERR_MEMORY;
        return false;
    }
    const Ch* end = d.longest(cp, _ex.stop, nullptr);
    return con.groupNo ? end != nullptr : end == nullptr;
}

template <class Ch>
StateSet* Dfa<Ch>::miss(StateSet* css, colour co, const Ch* cp, const Ch* start)
{
    if (StateSet* known = css->outs[co]) return known == &_c->dead ? nullptr : known;
    if (_ex.err) return nullptr;
    const CompactArc* arcs = _nfa.arcs.data();
    const uint32_t* rows = _nfa.rows.data();
    std::fill(_c->work, _c->work + _c->words, 0u);
    bool got = false;
    bool isPost = false;
    bool noProgress = true;
    // Empty arcs the compiler kept lead on from every state a set gains.
    const bool empties = _nfa.flags & kHasEmpty;
    std::vector<int>& pending = _c->pending;
    auto add = [&](int to) {
        _c->work[to / 32] |= 1u << (to % 32);
        if (to == _nfa.exit) isPost = true;
        if (arcs[rows[to]].co == 0) noProgress = false;
        if (empties) pending.push_back(to);
    };
    auto followEmpties = [&] {
        while (!pending.empty()) {
            const int i = pending.back();
            pending.pop_back();
            for (const CompactArc* a = arcs + rows[i] + 1; a->co != kNoColour; ++a)
                if (a->co == kEmptyArc && !(_c->work[a->to / 32] & (1u << (a->to % 32)))) add(a->to);
        }
    };
    // A set of a large automaton holds few of its states: skip empty words.
    for (int w = 0; w < _c->words; ++w) {
        for (uint32_t bits = css->bits[w]; bits; bits &= bits - 1) {
            const int i = w * 32 + __builtin_ctz(bits);
            for (const CompactArc* a = arcs + rows[i] + 1; a->co != kNoColour; ++a) {
                if (a->co != co) continue;
                got = true;
                if (!(_c->work[a->to / 32] & (1u << (a->to % 32)))) add(a->to);
            }
        }
    }
    followEmpties();
    bool sawLookahead = false;
    bool again = got && (_nfa.flags & kHasLookahead);
    while (again) {
        again = false;
        for (int i = 0; i < _nfa.stateCount; ++i) {
            if (!(_c->work[i / 32] & (1u << (i % 32)))) continue;
            for (const CompactArc* a = arcs + rows[i] + 1; a->co != kNoColour; ++a) {
                if (a->co < _nfa.colourCount) continue;
                sawLookahead = true;
                if (_c->work[a->to / 32] & (1u << (a->to % 32))) continue;
                if (!lookahead(a->co - _nfa.colourCount, cp)) continue;
                add(a->to);
                followEmpties();
                again = true;
            }
        }
        if (_ex.err) return nullptr;
    }
    if (!got) {
        // No look-ahead was consulted (nothing to close over), so the
        // dead end holds for any position.
        css->outs[co] = &_c->dead;
        return nullptr;
    }

    uint32_t h = 0;
    for (int i = 0; i < _c->words; ++i) h ^= _c->work[i];
    StateSet* p = nullptr;
    for (int i = 0; i < _c->used; ++i) {
        StateSet* s = _c->set(i);
        if (s->hash != h) continue;
        if (_c->words != 1 && std::memcmp(s->bits, _c->work, static_cast<size_t>(_c->words) * 4) != 0) continue;
        p = s;
        break;
    }
    if (!p) {
        p = vacant(cp, start);
        if (!p) return nullptr;
        std::copy(_c->work, _c->work + _c->words, p->bits);
        p->hash = h;
        p->flags = (isPost ? kSetAccept : 0) | (noProgress ? kSetCold : 0);
        p->stay = nullptr;
    }
    if (!sawLookahead) {
        css->outs[co] = p;
        css->nextIn[co] = p->in;
        p->in = {css, co};
    }
    return p;
}

// Called after css, which does not accept, has led to itself on colour co. A
// step that stays in such a set changes nothing a walk keeps, so the
// characters whose transition is known to loop are passed over at once. The
// row lists the looping transitions known when it was last drawn up; a loop
// found since (colour co missing) draws it up again. Only a set's eviction
// removes its loops, and eviction drops the row.
template <class Ch>
const Ch* Dfa<Ch>::skip(StateSet* css, colour co, const Ch* cp, const Ch* stop)
{
    constexpr bool narrow = sizeof(Ch) == 1;
    if (css->stay == nullptr || !css->stay[narrow ? static_cast<unsigned char>(cp[-1]) : co]) {
        const size_t width = narrow ? 256 : static_cast<size_t>(_c->colours);
        if (!_c->stayArea) _c->stayArea = std::make_unique_for_overwrite<uint8_t[]>(width * static_cast<size_t>(_c->capacity));
        uint8_t* row = _c->stayArea.get() + width * static_cast<size_t>(_c->indexOf(css));
        int leaving = 0;
        int single = -1;
        for (size_t i = 0; i < width; ++i) {
            const colour c = narrow ? colourOf(static_cast<Ch>(i)) : static_cast<colour>(i);
            row[i] = css->outs[c] == css;
            if (!row[i]) {
                ++leaving;
                single = static_cast<int>(i);
            }
        }
        css->stay = row;
        css->single = narrow && leaving == 1 ? single : -1;
    }
    const uint8_t* stay = css->stay;
    if constexpr (narrow) {
        if (css->single >= 0) {
            const void* hit = std::memchr(cp, css->single, static_cast<size_t>(stop - cp));
            return hit ? static_cast<const Ch*>(hit) : stop;
        }
        while (stop - cp >= 4 && stay[static_cast<unsigned char>(cp[0])] && stay[static_cast<unsigned char>(cp[1])] &&
               stay[static_cast<unsigned char>(cp[2])] && stay[static_cast<unsigned char>(cp[3])])
            cp += 4;
        while (cp < stop && stay[static_cast<unsigned char>(*cp)]) ++cp;
    } else {
        while (cp < stop && stay[colourOf(*cp)]) ++cp;
    }
    return cp;
}

// The match ends are noted as the walk reaches accepting sets; the one
// before the last is what a walk stopped just short of the last would
// return, which saves the callers that narrow a candidate down a second walk.
template <class Ch>
const Ch* Dfa<Ch>::longest(const Ch* start, const Ch* stop, bool* hitStop, const Ch** earlier)
{
    const Ch* cp = start;
    const Ch* realStop = (stop == _ex.stop) ? stop : stop + 1;
    const colour* const leaf0 = _leaf0;
    colour* const* const top = _top;
    int loops = 0;
    const Ch* post = nullptr;
    const Ch* before = nullptr;
    if (hitStop) *hitStop = false;
    if (earlier) *earlier = nullptr;
    StateSet* css = initialize(start);
    if (!css) return nullptr;
    if (css->flags & kSetAccept) post = start;
    css = step(css, startContext(start), cp, start);
    if (!css) return nullptr;
    note(css, cp);
    if (css->flags & kSetAccept) {
        before = post;
        post = cp;
    }
    // A set's position is noted when the walk leaves it (and before a miss,
    // whose eviction must not take the current set for an idle one), not at
    // every step spent in it: the steps stay free of stores. Positions serve
    // only eviction here, so while the cache has room they are not noted on
    // leaving either.
    bool accepting = css->flags & kSetAccept;
    while (cp < realStop) {
        const colour co = colourIn(leaf0, top, *cp);
        StateSet* ss = row(css)[co];
        if (!ss || ss == &_c->dead) {
            if (ss) break;
            note(css, cp);
            ss = miss(css, co, cp + 1, start);
            if (!ss) break;
        }
        ++cp;
        if (ss == css) {
            if (!accepting && ++loops >= kLoopsBeforeSkip) {
                cp = skip(css, co, cp, realStop);
                loops = 0;
            }
        } else {
            if (_c->used >= _c->capacity) note(css, cp - 1);
            css = ss;
            accepting = css->flags & kSetAccept;
            loops = 0;
        }
        if (accepting) {
            before = post;
            post = cp;
        }
    }
    note(css, cp);
    if (_ex.err) return nullptr;
    if (cp == _ex.stop && stop == _ex.stop) {
        if (hitStop) *hitStop = true;
        StateSet* ss = step(css, endContext(), cp, start);
        if (ss && (ss->flags & kSetAccept)) {
            if (earlier) *earlier = post ? post - 1 : nullptr;
            return cp;
        }
        if (ss) note(ss, cp);
    }
    if (earlier) *earlier = before ? before - 1 : nullptr;
    return post ? post - 1 : nullptr;
}

template <class Ch>
void Dfa<Ch>::ends(const Ch* start, const Ch* stop, std::vector<const Ch*>& out, bool* hitStop)
{
    out.clear();
    if (hitStop) *hitStop = false;
    const Ch* cp = start;
    const Ch* realStop = (stop == _ex.stop) ? stop : stop + 1;
    StateSet* css = initialize(start);
    if (!css) return;
    css = step(css, startContext(start), cp, start);
    if (!css) return;
    note(css, cp);
    while (cp < realStop) {
        const colour co = colourOf(*cp);
        StateSet* ss = row(css)[co];
        if (!ss || ss == &_c->dead) {
            if (ss) break;
            note(css, cp);
            ss = miss(css, co, cp + 1, start);
            if (!ss) break;
        }
        ++cp;
        if (ss != css && _c->used >= _c->capacity) note(css, cp - 1);
        css = ss;
        if (css->flags & kSetAccept) out.push_back(cp - 1);
    }
    note(css, cp);
    if (_ex.err) {
        out.clear();
        return;
    }
    if (cp == _ex.stop && stop == _ex.stop) {
        if (hitStop) *hitStop = true;
        StateSet* ss = step(css, endContext(), cp, start);
        if (ss && (ss->flags & kSetAccept)) out.push_back(cp);
    }
}

// The search's common case: four known steps, none to an accepting set. One
// branch for the four and no store but the latest cold start. Null when a
// step needs the careful loop (unknown, dead or accepting); `stayed` tells
// whether all four stayed in css.
template <class Ch>
[[gnu::always_inline]] inline StateSet* Dfa<Ch>::fourSteps(StateSet* css, const Ch* cp, const colour* leaf0,
                                                           colour* const* top, bool& stayed)
{
    const StateSet* const dead = &_c->dead;
    StateSet* s[4];
    StateSet* at = css;
    for (int i = 0; i < 4; ++i) {
        at = row(at)[colourIn(leaf0, top, cp[i])];
        if (!at || at == dead) return nullptr;
        s[i] = at;
    }
    if ((s[0]->flags | s[1]->flags | s[2]->flags | s[3]->flags) & kSetAccept) return nullptr;
    const Ch* cold = (css->flags & kSetCold) ? cp : _latestCold;
    for (int i = 0; i < 4; ++i)
        if (s[i]->flags & kSetCold) cold = cp + i + 1;
    _latestCold = cold;
    stayed = (s[0] == css) & (s[1] == css) & (s[2] == css) & (s[3] == css);
    return s[3];
}

template <class Ch>
const Ch* Dfa<Ch>::shortest(const Ch* start, const Ch* min, const Ch* max, const Ch** cold, bool* hitStop,
                            PrefilterCursor<Ch>* prefilter)
{
    const Ch* cp = start;
    const Ch* realMin = (min == _ex.stop) ? min : min + 1;
    const Ch* realMax = (max == _ex.stop) ? max : max + 1;
    const colour* const leaf0 = _leaf0;
    colour* const* const top = _top;
    int loops = 0;
    if (hitStop) *hitStop = false;
    // No match can begin any more, and none is under way.
    auto none = [this](StateSet* css, const Ch* at) -> const Ch* {
        note(css, at);
        return nullptr;
    };
    StateSet* css = initialize(start);
    if (!css) return nullptr;
    css = step(css, startContext(start), cp, start);
    if (!css) return nullptr;
    note(css, cp);
    StateSet* ss = css;
    bool accepting = css->flags & kSetAccept;
    while (cp < realMax) {
        // While the cache has room nothing is evicted, so the positions of
        // the sets need not be noted, and four steps go at once. Not at the
        // very start: most searches in a replace loop end within a few
        // characters, where a block would mostly be tried in vain.
        if (!accepting && cp - start >= kStepsBeforeBlocks && realMax - cp >= 4 && _c->used < _c->capacity) {
            bool stayed;
            if (StateSet* four = fourSteps(css, cp, leaf0, top, stayed)) {
                // No branch on whether the set changed: in text of short
                // words it changes every few characters, at random.
                cp += 4;
                ss = css = four;
                loops = stayed ? loops + 4 : 0;
                if (prefilter && !stayed && (css->flags & kSetCold)) {
                    if (!jump(css, cp, start, *prefilter)) return none(css, cp);
                    ss = css;
                    accepting = css->flags & kSetAccept;
                }
                if (loops >= 2 * kLoopsBeforeSkip) {
                    cp = skip(css, colourIn(leaf0, top, cp[-1]), cp, realMax);
                    loops = 0;
                    if (css->flags & kSetCold) _latestCold = cp;
                }
                continue;
            }
        }
        const colour co = colourIn(leaf0, top, *cp);
        ss = row(css)[co];
        if (!ss || ss == &_c->dead) {
            note(css, cp);  // see longest(): a miss may evict
            ss = ss ? nullptr : miss(css, co, cp + 1, start);
            if (!ss) break;
        }
        ++cp;
        if (ss == css) {
            if (!accepting && ++loops >= kLoopsBeforeSkip) {
                cp = skip(css, co, cp, realMax);
                loops = 0;
            }
        } else {
            note(css, cp - 1);
            css = ss;
            accepting = css->flags & kSetAccept;
            loops = 0;
            if (prefilter && (css->flags & kSetCold)) {
                if (!jump(css, cp, start, *prefilter)) return none(css, cp);
                ss = css;
                accepting = css->flags & kSetAccept;
            }
        }
        if (accepting && cp >= realMin) break;
    }
    note(css, cp);
    if (!ss || _ex.err) return nullptr;
    if (cold) *cold = _latestCold ? _latestCold : _ex.start;
    if ((ss->flags & kSetAccept) && cp > min) return cp - 1;
    if (cp == _ex.stop && max == _ex.stop) {
        ss = step(css, endContext(), cp, start);
        if ((ss == nullptr || !(ss->flags & kSetAccept)) && hitStop) *hitStop = true;
        if (ss && (ss->flags & kSetAccept)) return cp;
    }
    return nullptr;
}

namespace {
// A token per live thread: the address of a thread-local object. A thread
// that starts later may get a finished thread's token, and with it the
// ownership of its pools, which nobody else can then be using.
const void* threadToken() noexcept
{
    static thread_local char token;
    return &token;
}
}  // namespace

CachePool::~CachePool()
{
    for (auto& slot : _slots) delete slot.load(std::memory_order_acquire);
    delete _owned.load(std::memory_order_acquire);
}

MatchCaches* CachePool::take() noexcept
{
    if (_owner.load(std::memory_order_relaxed) == threadToken()) {
        // Acquire and release, though only the owner comes here: a thread
        // that inherits a finished owner's token must see its caches whole.
        if (MatchCaches* c = _owned.load(std::memory_order_acquire)) {
            _owned.store(nullptr, std::memory_order_relaxed);
            return c;
        }
    }
    for (auto& slot : _slots) {
        if (slot.load(std::memory_order_relaxed) == nullptr) continue;
        if (MatchCaches* c = slot.exchange(nullptr, std::memory_order_acquire)) return c;
    }
    return nullptr;
}

void CachePool::give(MatchCaches* caches) noexcept
{
    const void* me = threadToken();
    const void* owner = _owner.load(std::memory_order_relaxed);
    if (owner == nullptr && _owner.compare_exchange_strong(owner, me, std::memory_order_relaxed)) owner = me;
    if (owner == me && _owned.load(std::memory_order_relaxed) == nullptr) {
        _owned.store(caches, std::memory_order_release);
        return;
    }
    for (auto& slot : _slots) {
        MatchCaches* expected = nullptr;
        if (slot.compare_exchange_strong(expected, caches, std::memory_order_release, std::memory_order_relaxed))
            return;
    }
    delete caches;
}

template class Dfa<char>;
template class Dfa<wchar_t>;

}  // namespace Karu::IMPL::rx

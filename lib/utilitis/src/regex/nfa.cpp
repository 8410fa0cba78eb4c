// The automaton graph: primitives, bound expansion, the search form and the
// compact form. See nfa.h for the idea; the optimiser is in optimise.cpp.
//
// Memory: states and arcs come from blocks owned by the automaton and go back
// to free lists when released, so the many short-lived arcs of the optimiser
// cost no heap calls; everything is returned in one sweep when the automaton
// goes. Graph walks are iterative where the depth follows the pattern's
// length (copies of large bounds), so a long pattern can't exhaust the stack.
//
// The arc index is a hash table chained through the arcs themselves: a state
// of a large alternation has thousands of arcs, and looking through them for
// a duplicate at every addition made building such a graph cubic.
#include "nfa.h"

#include <algorithm>
#include <ctime>
#include <utility>

namespace Karu::IMPL::rx {

namespace {
constexpr size_t kStateBlock = 64;
constexpr size_t kArcBatch = 64;     // arcs come in blocks of this many
constexpr size_t kFirstBuckets = 64; // the index doubles when it holds more arcs than buckets

// The thread's processor time: on a shared machine, wall time measures the
// other processes as much as the compile.
long long nowNanoseconds() noexcept
{
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<long long>(t.tv_sec) * 1000000000LL + t.tv_nsec;
}
}  // namespace

thread_local PassTimes* passTimes = nullptr;

PassTimer::PassTimer(CompilePass pass) noexcept : _pass(pass)
{
    if (passTimes) _start = nowNanoseconds();
}

PassTimer::~PassTimer()
{
    if (passTimes) passTimes->seconds[_pass] += static_cast<double>(nowNanoseconds() - _start) * 1e-9;
}

Nfa::Nfa(ColourMap& map, ErrorSink& sink, Nfa* parent) : _map(map), _sink(sink), _parent(parent)
{
    begin();
}

// A copy for a tree node is made for every node that needs an automaton;
// small ones by the thousand. One graph serves them all, emptied between
// them, so that its blocks and index are allocated once.
void Nfa::reset()
{
    std::fill(_index.begin(), _index.end(), nullptr);
    _head = _tail = nullptr;
    _spareStates = nullptr;
    _spareArcs = nullptr;
    _stateCount = _liveStates = 0;
    _liveArcs = 0;
    _stateBlock = _stateBlockUsed = 0;
    _arcBatch = _arcBatchUsed = 0;
    begin();
}

void Nfa::begin()
{
    entry = stateCreate();
    exit = stateCreate();
    bodyStart = stateCreate();
    bodyEnd = stateCreate();
    if (failed()) return;
    entry->role = '@';
    exit->role = '>';
    _map.arcsForAll(*this, kPlain, kNoColour, entry, bodyStart);
    arcAdd(kStart, 1, entry, bodyStart);
    arcAdd(kStart, 0, entry, bodyStart);
    _map.arcsForAll(*this, kPlain, kNoColour, bodyEnd, exit);
    arcAdd(kEnd, 1, bodyEnd, exit);
    arcAdd(kEnd, 0, bodyEnd, exit);
    if (_parent) {
        for (int i = 0; i < 2; ++i) {
            startColours[i] = _parent->startColours[i];
            endColours[i] = _parent->endColours[i];
        }
    }
}

Nfa::~Nfa()
{
    // Arcs of the main automaton sit on colour chains; take them off so the
    // map stays consistent if it outlives this graph.
    if (isMain()) {
        for (State* s = _head; s; s = s->next)
            for (Arc* a = s->outs; a; a = a->outNext)
                if (a->type == kPlain || a->type == kAhead || a->type == kBehind) _map.unchainArc(a);
    }
}

State* Nfa::stateCreate()
{
    if (failed()) return nullptr;
    if (_liveStates >= kMaxStates) {
        fail(RX_ERR_MEMORY);
        return nullptr;
    }
    State* s = _spareStates;
    if (s) {
        _spareStates = s->next;
    } else {
        if (_stateBlockUsed == kStateBlock) {
            ++_stateBlock;
            _stateBlockUsed = 0;
        }
        if (_stateBlock == _stateBlocks.size()) _stateBlocks.push_back(std::make_unique<State[]>(kStateBlock));
        s = &_stateBlocks[_stateBlock][_stateBlockUsed++];
    }
    *s = State{};
    ++_liveStates;
    s->number = _stateCount++;
    s->prev = _tail;
    if (_tail)
        _tail->next = s;
    else
        _head = s;
    _tail = s;
    return s;
}

void Nfa::stateRelease(State* s)
{
    if (s->prev)
        s->prev->next = s->next;
    else
        _head = s->next;
    if (s->next)
        s->next->prev = s->prev;
    else
        _tail = s->prev;
    s->number = -1;
    s->role = 0;
    s->prev = nullptr;
    s->next = _spareStates;
    _spareStates = s;
    --_liveStates;
}

void Nfa::stateDrop(State* s)
{
    while (s->ins) arcRemove(s->ins);
    while (s->outs) arcRemove(s->outs);
    stateRelease(s);
}

Arc* Nfa::takeArc()
{
    if (_liveArcs >= kMaxArcs) {
        fail(RX_ERR_MEMORY);
        return nullptr;
    }
    ++_liveArcs;
    if (Arc* a = _spareArcs) {
        _spareArcs = a->outNext;
        return a;
    }
    if (_arcBatchUsed == kArcBatch) {
        ++_arcBatch;
        _arcBatchUsed = 0;
    }
    if (_arcBatch == _arcBatches.size()) _arcBatches.push_back(std::make_unique<Arc[]>(kArcBatch));
    ++_arcCount;
    return &_arcBatches[_arcBatch][_arcBatchUsed++];
}

Arc* Nfa::findArc(State* s, int type, colour co) const noexcept
{
    for (Arc* a = s->outs; a; a = a->outNext)
        if (a->type == type && a->co == co) return a;
    return nullptr;
}

Arc*& Nfa::bucket(int type, colour co, const State* from, const State* to) noexcept
{
    uint64_t h = reinterpret_cast<uintptr_t>(from) * 0x9E3779B97F4A7C15ull;
    h ^= reinterpret_cast<uintptr_t>(to) * 0xC2B2AE3D27D4EB4Full;
    h ^= (static_cast<uint64_t>(static_cast<uint16_t>(co)) << 8 | static_cast<uint64_t>(type)) * 0x165667B19E3779F9ull;
    h ^= h >> 29;
    return _index[static_cast<size_t>(h) & (_index.size() - 1)];
}

void Nfa::indexGrow()
{
    std::vector<Arc*> old(std::max(kFirstBuckets, _index.size() * 2), nullptr);
    old.swap(_index);
    for (Arc* head : old)
        for (Arc* a = head; a;) {
            Arc* next = a->hashNext;
            Arc*& b = bucket(a->type, a->co, a->from, a->to);
            a->hashNext = b;
            b = a;
            a = next;
        }
}

void Nfa::indexInsert(Arc* a)
{
    if (static_cast<size_t>(_liveArcs) > _index.size()) indexGrow();
    Arc*& b = bucket(a->type, a->co, a->from, a->to);
    a->hashNext = b;
    b = a;
}

void Nfa::indexErase(Arc* a) noexcept
{
    for (Arc** p = &bucket(a->type, a->co, a->from, a->to); *p; p = &(*p)->hashNext)
        if (*p == a) {
            *p = a->hashNext;
            return;
        }
}

void Nfa::arcAdd(int type, colour co, State* from, State* to)
{
    if (failed() || from == nullptr || to == nullptr || co == kNoColour) {
        if (!failed() && (from == nullptr || to == nullptr)) fail(RX_ERR_INTERNAL);
        return;
    }
    if (!_index.empty())
        for (Arc* a = bucket(type, co, from, to); a; a = a->hashNext)
            if (a->from == from && a->to == to && a->co == co && a->type == type) return;
    Arc* a = takeArc();
    if (!a) return;
    *a = Arc{};
    a->type = type;
    a->co = co;
    a->from = from;
    a->to = to;
    a->outNext = from->outs;
    if (from->outs) from->outs->outPrev = a;
    from->outs = a;
    from->outCount++;
    a->inNext = to->ins;
    if (to->ins) to->ins->inPrev = a;
    to->ins = a;
    to->inCount++;
    indexInsert(a);
    if (isMain() && (type == kPlain || type == kAhead || type == kBehind)) _map.chainArc(a);
}

void Nfa::arcRemove(Arc* a)
{
    State* from = a->from;
    State* to = a->to;
    if (a->outPrev)
        a->outPrev->outNext = a->outNext;
    else
        from->outs = a->outNext;
    if (a->outNext) a->outNext->outPrev = a->outPrev;
    from->outCount--;
    if (a->inPrev)
        a->inPrev->inNext = a->inNext;
    else
        to->ins = a->inNext;
    if (a->inNext) a->inNext->inPrev = a->inPrev;
    to->inCount--;
    indexErase(a);
    --_liveArcs;
    if (isMain() && (a->type == kPlain || a->type == kAhead || a->type == kBehind)) _map.unchainArc(a);
    a->type = 0;
    a->from = a->to = nullptr;
    a->outNext = _spareArcs;
    _spareArcs = a;
}

void Nfa::recolour(Arc* a, colour co)
{
    for (Arc* b = bucket(a->type, co, a->from, a->to); b; b = b->hashNext)
        if (b->from == a->from && b->to == a->to && b->co == co && b->type == a->type) {
            arcRemove(a);
            return;
        }
    indexErase(a);
    const bool chained = isMain() && (a->type == kPlain || a->type == kAhead || a->type == kBehind);
    if (chained) _map.unchainArc(a);
    a->co = co;
    if (chained) _map.chainArc(a);
    Arc*& b = bucket(a->type, a->co, a->from, a->to);
    a->hashNext = b;
    b = a;
}

void Nfa::moveInArcs(State* oldS, State* newS)
{
    while (Arc* a = oldS->ins) {
        if (failed()) return;
        arcCopy(a, a->from, newS);
        arcRemove(a);
    }
}

void Nfa::moveOutArcs(State* oldS, State* newS)
{
    while (Arc* a = oldS->outs) {
        if (failed()) return;
        arcCopy(a, newS, a->to);
        arcRemove(a);
    }
}

void Nfa::copyInArcs(State* oldS, State* newS)
{
    for (Arc* a = oldS->ins; a && !failed(); a = a->inNext) arcCopy(a, a->from, newS);
}

void Nfa::copyOutArcs(State* oldS, State* newS)
{
    for (Arc* a = oldS->outs; a && !failed(); a = a->outNext) arcCopy(a, newS, a->to);
}

void Nfa::cloneOuts(State* old, State* from, State* to, int type)
{
    for (Arc* a = old->outs; a && !failed(); a = a->outNext) arcAdd(type, a->co, from, to);
}

void Nfa::deleteWalk(State* s)
{
    // Recursion depth follows the deleted piece; pieces are pattern-sized.
    if (s->outCount == 0 || s->mark != nullptr) return;
    s->mark = s;
    while (Arc* a = s->outs) {
        State* to = a->to;
        deleteWalk(to);
        arcRemove(a);
        if (to->inCount == 0 && to->mark == nullptr) {
            while (to->outs) arcRemove(to->outs);
            stateRelease(to);
        }
    }
    s->mark = nullptr;
}

void Nfa::deleteBetween(State* left, State* right)
{
    if (failed()) return;
    right->mark = right;
    deleteWalk(left);
    right->mark = nullptr;
    left->mark = nullptr;
}

void Nfa::copyBetween(Nfa& src, State* start, State* stop, State* from, State* to)
{
    if (failed()) return;
    if (start == stop) {
        arcAdd(kEmpty, 0, from, to);
        return;
    }
    // Map each source state to its copy in `mark`; an explicit stack keeps
    // long chains (a bound of 255 of a bound) off the call stack.
    std::vector<State*>& seen = _copySeen;
    seen.clear();
    stop->mark = to;
    seen.push_back(stop);
    start->mark = from;
    seen.push_back(start);
    std::vector<State*>& work = _copyWork;
    work.assign(1, start);
    while (!work.empty() && !failed()) {
        State* s = work.back();
        work.pop_back();
        for (Arc* a = s->outs; a && !failed(); a = a->outNext) {
            State* t = a->to;
            if (t->mark == nullptr) {
                t->mark = stateCreate();
                if (failed()) break;
                seen.push_back(t);
                work.push_back(t);
            }
            arcCopy(a, s->mark, t->mark);
        }
    }
    for (State* s : seen) s->mark = nullptr;
    (void)src;
}

// A bound costs a copy of the atom per count. Where the copies could not fit
// within the limits, the pattern is refused before any is made: nested
// bounds multiply, and ((a{255}){255}){255} would otherwise copy half a
// million states before being refused.
void Nfa::repeatBetween(State* left, State* right, int m, int n)
{
    if (failed()) return;
    const long copies = n == RX_OPEN_BOUND ? m : n;
    if (copies > 1) {
        long size = 0;
        std::vector<State*> work{left};
        std::vector<State*> seen{left};
        left->mark = left;
        while (!work.empty() && size <= kMaxStates) {
            State* s = work.back();
            work.pop_back();
            ++size;
            if (s == right) continue;
            for (Arc* a = s->outs; a; a = a->outNext)
                if (!a->to->mark) {
                    a->to->mark = a->to;
                    seen.push_back(a->to);
                    work.push_back(a->to);
                }
        }
        for (State* s : seen) s->mark = nullptr;
        if (_liveStates + size * (copies - 1) > kMaxStates) {
            fail(RX_ERR_MEMORY);
            return;
        }
    }
    repeatCopies(left, right, m, n);
}

void Nfa::repeatCopies(State* left, State* right, int m, int n)
{
    if (failed()) return;
    auto reduce = [](int x) { return x == RX_OPEN_BOUND ? 3 : (x > 1 ? 2 : x); };
    const int rm = reduce(m);
    const int rn = reduce(n);
    State* s;
    State* s2;
    switch (rm * 4 + rn) {
    case 0 * 4 + 0:
        deleteBetween(left, right);
        arcAdd(kEmpty, 0, left, right);
        break;
    case 0 * 4 + 1:
        arcAdd(kEmpty, 0, left, right);
        break;
    case 0 * 4 + 2:
        repeatCopies(left, right, 1, n);
        arcAdd(kEmpty, 0, left, right);
        break;
    case 0 * 4 + 3:
        s = stateCreate();
        if (!s) return;
        moveOutArcs(left, s);
        moveInArcs(right, s);
        arcAdd(kEmpty, 0, left, s);
        arcAdd(kEmpty, 0, s, right);
        break;
    case 1 * 4 + 1:
        break;
    case 1 * 4 + 2:
        s = stateCreate();
        if (!s) return;
        moveOutArcs(left, s);
        copyBetween(*this, s, right, left, s);
        repeatCopies(left, s, 1, n - 1);
        arcAdd(kEmpty, 0, left, s);
        break;
    case 1 * 4 + 3:
        s = stateCreate();
        s2 = stateCreate();
        if (!s2) return;
        moveOutArcs(left, s);
        moveInArcs(right, s2);
        arcAdd(kEmpty, 0, left, s);
        arcAdd(kEmpty, 0, s2, right);
        arcAdd(kEmpty, 0, s2, s);
        break;
    case 2 * 4 + 2:
    case 2 * 4 + 3:
        s = stateCreate();
        if (!s) return;
        moveOutArcs(left, s);
        copyBetween(*this, s, right, left, s);
        repeatCopies(left, s, m - 1, rn == 3 ? n : n - 1);
        break;
    default:
        fail(RX_ERR_INTERNAL);
        break;
    }
}

void Nfa::assignPseudoColours()
{
    if (failed()) return;
    if (_parent) {
        for (int i = 0; i < 2; ++i) {
            startColours[i] = _parent->startColours[i];
            endColours[i] = _parent->endColours[i];
        }
        return;
    }
    startColours[0] = _map.allocPseudo();
    startColours[1] = _map.allocPseudo();
    endColours[0] = _map.allocPseudo();
    endColours[1] = _map.allocPseudo();
}

void Nfa::makeSearch()
{
    if (failed()) return;
    const PassTimer timer(kPassCompact);
    bool anchored = true;
    for (Arc* a = entry->outs; a; a = a->outNext)
        if (a->co != startColours[0] && a->co != startColours[1]) anchored = false;
    if (!anchored) {
        // The implicit leading ".*": a match may begin anywhere.
        _map.arcsForAll(*this, kPlain, kNoColour, entry, entry);
        arcAdd(kPlain, startColours[0], entry, entry);
        arcAdd(kPlain, startColours[1], entry, entry);
    }
    // Split every state reached from entry that progress can also reach, so
    // that being in a state reached from entry proves nothing was consumed.
    std::vector<State*> split;
    for (Arc* a = entry->outs; a; a = a->outNext) {
        State* s = a->to;
        if (s == entry || s->walk) continue;
        for (Arc* b = s->ins; b; b = b->inNext)
            if (b->from != entry) {
                s->walk = 1;
                split.push_back(s);
                break;
            }
    }
    for (State* s : split) {
        s->walk = 0;
        if (failed()) continue;
        State* s2 = stateCreate();
        if (!s2) break;
        copyOutArcs(s, s2);
        for (Arc* a = s->ins; a && !failed();) {
            Arc* next = a->inNext;
            if (a->from != entry) {
                arcCopy(a, a->from, s2);
                arcRemove(a);
            }
            a = next;
        }
    }
}

void Nfa::compact(CompactNfa& out)
{
    if (failed()) return;
    const PassTimer timer(kPassCompact);
    int count = 0;
    size_t arcs = 0;
    for (State* s = _head; s; s = s->next) {
        s->number = count++;  // dense numbers for the row table
        arcs += static_cast<size_t>(s->outCount) + 2;
    }
    out.stateCount = count;
    out.colourCount = _map.max() + 1;
    out.flags = 0;
    out.entry = entry->number;
    out.exit = exit->number;
    for (int i = 0; i < 2; ++i) {
        out.startColours[i] = startColours[i];
        out.endColours[i] = endColours[i];
    }
    out.rows.assign(static_cast<size_t>(count), 0);
    out.arcs.clear();
    out.arcs.reserve(arcs);
    for (State* s = _head; s; s = s->next) {
        out.rows[static_cast<size_t>(s->number)] = static_cast<uint32_t>(out.arcs.size());
        out.arcs.push_back({0, 0});
        const size_t first = out.arcs.size();
        for (Arc* a = s->outs; a; a = a->outNext) {
            if (a->type == kPlain) {
                out.arcs.push_back({a->co, a->to->number});
            } else if (a->type == kLookRef) {
                out.arcs.push_back({static_cast<colour>(out.colourCount + a->co), a->to->number});
                out.flags |= kHasLookahead;
            } else if (a->type == kEmpty) {
                out.arcs.push_back({kEmptyArc, a->to->number});
                out.flags |= kHasEmpty;
            }
            // Constraints that could not be moved to an end stay unsatisfiable.
        }
        if (out.arcs.size() - first >= 3)
            std::sort(out.arcs.begin() + static_cast<long>(first), out.arcs.end(),
                      [](const CompactArc& x, const CompactArc& y) {
                          return x.co != y.co ? x.co < y.co : x.to < y.to;
                      });
        out.arcs.push_back({kNoColour, 0});
    }
    for (Arc* a = entry->outs; a; a = a->outNext) out.arcs[out.rows[static_cast<size_t>(a->to->number)]].co = 1;
    out.arcs[out.rows[static_cast<size_t>(entry->number)]].co = 1;
}

void Nfa::dump(FILE* out) const
{
    for (State* s = _head; s; s = s->next) {
        std::fprintf(out, "%d%s%s:", s->number, s->role == '@' ? " pre" : "", s->role == '>' ? " post" : "");
        for (Arc* a = s->outs; a; a = a->outNext) {
            if (a->type == kPlain)
                std::fprintf(out, " [%d]->%d", a->co, a->to->number);
            else
                std::fprintf(out, " %c%d->%d", a->type, a->co, a->to->number);
        }
        std::fputc('\n', out);
    }
    std::fflush(out);
}

}  // namespace Karu::IMPL::rx

// The automaton graph: primitives, bound expansion, the optimiser and the
// compact form. See nfa.h for the idea.
//
// Memory: states and arcs come from blocks owned by the automaton and go back
// to free lists when released, so the many short-lived arcs of the optimiser
// cost no heap calls; everything is returned in one sweep when the automaton
// goes. Graph walks are iterative where the depth follows the pattern's
// length (copies of large bounds), so a long pattern can't exhaust the stack.
#include "nfa.h"

#include <algorithm>
#include <utility>

namespace Karu::IMPL::rx {

namespace {
constexpr size_t kStateBlock = 64;
constexpr size_t kArcBatch = 10;  // arcs come in batches of this many
}

Nfa::Nfa(ColourMap& map, ErrorSink& sink, Nfa* parent) : _map(map), _sink(sink), _parent(parent)
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
    if (parent) {
        for (int i = 0; i < 2; ++i) {
            startColours[i] = parent->startColours[i];
            endColours[i] = parent->endColours[i];
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
    if (_stateCount >= kMaxStates) {
        fail(RX_ERR_MEMORY);
        return nullptr;
    }
    State* s = _spareStates;
    if (s) {
        _spareStates = s->next;
    } else {
        if (_stateBlocks.empty() || _stateBlockUsed == kStateBlock) {
            _stateBlocks.push_back(std::make_unique<State[]>(kStateBlock));
            _stateBlockUsed = 0;
        }
        s = &_stateBlocks.back()[_stateBlockUsed++];
    }
    *s = State{};
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
}

void Nfa::stateDrop(State* s)
{
    while (s->ins) arcRemove(s->ins);
    while (s->outs) arcRemove(s->outs);
    stateRelease(s);
}

Arc* Nfa::takeArc()
{
    if (Arc* a = _spareArcs) {
        _spareArcs = a->outNext;
        return a;
    }
    if (_arcCount >= kMaxArcs) {
        fail(RX_ERR_MEMORY);
        return nullptr;
    }
    if (_arcBatches.empty() || _arcBatchUsed == kArcBatch) {
        _arcBatches.push_back(std::make_unique<Arc[]>(kArcBatch));
        _arcBatchUsed = 0;
    }
    ++_arcCount;
    return &_arcBatches.back()[_arcBatchUsed++];
}

Arc* Nfa::findArc(State* s, int type, colour co) const noexcept
{
    for (Arc* a = s->outs; a; a = a->outNext)
        if (a->type == type && a->co == co) return a;
    return nullptr;
}

void Nfa::arcAdd(int type, colour co, State* from, State* to)
{
    if (failed() || from == nullptr || to == nullptr || co == kNoColour) {
        if (!failed() && (from == nullptr || to == nullptr)) fail(RX_ERR_INTERNAL);
        return;
    }
    // Look on the shorter side for a duplicate.
    if (from->outCount <= to->inCount) {
        for (Arc* a = from->outs; a; a = a->outNext)
            if (a->to == to && a->co == co && a->type == type) return;
    } else {
        for (Arc* a = to->ins; a; a = a->inNext)
            if (a->from == from && a->co == co && a->type == type) return;
    }
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
    if (isMain() && (a->type == kPlain || a->type == kAhead || a->type == kBehind)) _map.unchainArc(a);
    a->type = 0;
    a->from = a->to = nullptr;
    a->outNext = _spareArcs;
    _spareArcs = a;
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
    std::vector<State*> seen;
    stop->mark = to;
    seen.push_back(stop);
    start->mark = from;
    seen.push_back(start);
    std::vector<State*> work{start};
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

void Nfa::repeatBetween(State* left, State* right, int m, int n)
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
        repeatBetween(left, right, 1, n);
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
        repeatBetween(left, s, 1, n - 1);
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
        repeatBetween(left, s, m - 1, rn == 3 ? n : n - 1);
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

// ---- optimiser ----

void Nfa::cleanup()
{
    if (failed()) return;
    // walk 1: reachable from entry; walk 2: among those, can reach exit.
    for (State* s = _head; s; s = s->next) s->walk = 0;
    std::vector<State*> work{entry};
    entry->walk = 1;
    while (!work.empty()) {
        State* s = work.back();
        work.pop_back();
        for (Arc* a = s->outs; a; a = a->outNext)
            if (a->to->walk == 0) {
                a->to->walk = 1;
                work.push_back(a->to);
            }
    }
    if (exit->walk == 1) {
        exit->walk = 2;
        work.push_back(exit);
    }
    while (!work.empty()) {
        State* s = work.back();
        work.pop_back();
        for (Arc* a = s->ins; a; a = a->inNext)
            if (a->from->walk == 1) {
                a->from->walk = 2;
                work.push_back(a->from);
            }
    }
    for (State* s = _head; s;) {
        State* next = s->next;
        if (s->walk != 2 && s->role == 0) stateDrop(s);
        s = next;
    }
    int n = 0;
    for (State* s = _head; s; s = s->next) {
        s->walk = 0;
        s->number = n++;
    }
    _stateCount = n;
}

void Nfa::removeEmpties()
{
    // Each state takes over the non-empty out-arcs of every state it reaches
    // by empty arcs alone, and then all empty arcs go. Moving one empty arc at
    // a time is exponential on nested loops such as ((x*)*){0,2}; closures
    // keep this polynomial. States left unreachable fall to the next cleanup.
    if (failed()) return;
    std::vector<State*> all;
    for (State* s = _head; s; s = s->next) {
        s->walk = 0;
        all.push_back(s);
    }
    int stamp = 0;
    std::vector<State*> closure;
    std::vector<State*> work;
    for (State* s : all) {
        bool hasEmpty = false;
        for (Arc* a = s->outs; a && !hasEmpty; a = a->outNext) hasEmpty = a->type == kEmpty;
        if (!hasEmpty) continue;
        ++stamp;
        closure.clear();
        work.assign(1, s);
        s->walk = stamp;
        while (!work.empty()) {
            State* t = work.back();
            work.pop_back();
            for (Arc* a = t->outs; a; a = a->outNext)
                if (a->type == kEmpty && a->to->walk != stamp) {
                    a->to->walk = stamp;
                    closure.push_back(a->to);
                    work.push_back(a->to);
                }
        }
        for (State* t : closure)
            for (Arc* a = t->outs; a && !failed(); a = a->outNext)
                if (a->type != kEmpty) arcAdd(a->type, a->co, s, a->to);
        if (failed()) return;
    }
    for (State* s : all) {
        s->walk = 0;
        for (Arc* a = s->outs; a;) {
            Arc* next = a->outNext;
            if (a->type == kEmpty) arcRemove(a);
            a = next;
        }
    }
}

namespace {
enum Combine { kIncompatible, kSatisfied, kCompatible };

Combine combine(const Arc* con, const Arc* a)
{
    auto same = [&] { return con->co == a->co ? kSatisfied : kIncompatible; };
    switch (con->type) {
    case kStart:
        switch (a->type) {
        case kPlain: return kIncompatible;
        case kStart: return same();
        case kEnd: case kAhead: case kLookRef: return kCompatible;
        default: return kIncompatible;  // kBehind
        }
    case kEnd:
        switch (a->type) {
        case kPlain: return kIncompatible;
        case kEnd: return same();
        case kStart: case kBehind: case kLookRef: return kCompatible;
        default: return kIncompatible;  // kAhead
        }
    case kAhead:
        switch (a->type) {
        case kPlain: case kAhead: return same();
        case kStart: case kBehind: case kLookRef: return kCompatible;
        default: return kIncompatible;  // kEnd
        }
    case kBehind:
        switch (a->type) {
        case kPlain: case kBehind: return same();
        case kEnd: case kAhead: case kLookRef: return kCompatible;
        default: return kIncompatible;  // kStart
        }
    }
    return kIncompatible;
}
}  // namespace

bool Nfa::pull(Arc* con)
{
    State* from = con->from;
    State* to = con->to;
    if (from == to) {
        arcRemove(con);
        return true;
    }
    if (from->role != 0) return false;
    if (from->inCount == 0) {
        arcRemove(con);
        return true;
    }
    if (from->outCount > 1) {
        State* s = stateCreate();
        if (!s) return false;
        copyInArcs(from, s);
        arcCopy(con, s, to);
        arcRemove(con);
        from = s;
        con = from->outs;
    }
    for (Arc* a = from->ins; a && !failed();) {
        Arc* next = a->inNext;
        switch (combine(con, a)) {
        case kIncompatible:
            arcRemove(a);
            break;
        case kSatisfied:
            break;
        case kCompatible: {
            State* s = stateCreate();
            if (!s) return false;
            arcCopy(con, a->from, s);
            arcCopy(a, s, to);
            arcRemove(a);
            break;
        }
        }
        a = next;
    }
    moveInArcs(from, to);
    stateDrop(from);
    return true;
}

bool Nfa::push(Arc* con)
{
    State* from = con->from;
    State* to = con->to;
    if (from == to) {
        arcRemove(con);
        return true;
    }
    if (to->role != 0) return false;
    if (to->outCount == 0) {
        arcRemove(con);
        return true;
    }
    if (to->inCount > 1) {
        State* s = stateCreate();
        if (!s) return false;
        copyOutArcs(to, s);
        arcCopy(con, from, s);
        arcRemove(con);
        to = s;
        con = to->ins;
    }
    for (Arc* a = to->outs; a && !failed();) {
        Arc* next = a->outNext;
        switch (combine(con, a)) {
        case kIncompatible:
            arcRemove(a);
            break;
        case kSatisfied:
            break;
        case kCompatible: {
            State* s = stateCreate();
            if (!s) return false;
            arcCopy(con, s, a->to);
            arcCopy(a, from, s);
            arcRemove(a);
            break;
        }
        }
        a = next;
    }
    moveOutArcs(to, from);
    stateDrop(to);
    return true;
}

void Nfa::pullConstraints()
{
    bool progress = true;
    while (progress && !failed()) {
        progress = false;
        for (State* s = _head; s && !failed() && s->number >= 0;) {
            State* nexts = s->next;
            for (Arc* a = s->outs; a && !failed();) {
                Arc* next = a->outNext;
                if ((a->type == kStart || a->type == kBehind) && pull(a)) progress = true;
                a = next;
            }
            s = nexts;
        }
    }
    if (failed()) return;
    for (Arc* a = entry->outs; a && !failed();) {
        Arc* next = a->outNext;
        if (a->type == kStart) {
            arcAdd(kPlain, startColours[a->co], a->from, a->to);
            arcRemove(a);
        }
        a = next;
    }
}

void Nfa::pushConstraints()
{
    bool progress = true;
    while (progress && !failed()) {
        progress = false;
        for (State* s = _head; s && !failed() && s->number >= 0;) {
            State* nexts = s->next;
            for (Arc* a = s->ins; a && !failed();) {
                Arc* next = a->inNext;
                if ((a->type == kEnd || a->type == kAhead) && push(a)) progress = true;
                a = next;
            }
            s = nexts;
        }
    }
    if (failed()) return;
    for (Arc* a = exit->ins; a && !failed();) {
        Arc* next = a->inNext;
        if (a->type == kEnd) {
            arcAdd(kPlain, endColours[a->co], a->from, a->to);
            arcRemove(a);
        }
        a = next;
    }
}

long Nfa::analyse() const
{
    if (entry->outs == nullptr) return RX_NEVER_MATCHES;
    for (Arc* a = entry->outs; a; a = a->outNext)
        for (Arc* b = a->to->outs; b; b = b->outNext)
            if (b->to == exit) return RX_CAN_BE_EMPTY;
    return 0;
}

long Nfa::optimise(FILE* trace)
{
    if (trace) std::fputs("\ninitial cleanup:\n", trace);
    cleanup();
    if (trace) {
        dump(trace);
        std::fputs("\nempties:\n", trace);
    }
    removeEmpties();
    if (trace) {
        dump(trace);
        std::fputs("\nconstraints:\n", trace);
    }
    pullConstraints();
    pushConstraints();
    if (trace) {
        dump(trace);
        std::fputs("\nfinal cleanup:\n", trace);
    }
    cleanup();
    if (trace) dump(trace);
    return failed() ? 0 : analyse();
}

void Nfa::makeSearch()
{
    if (failed()) return;
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

// The optimiser: from the parser's graph to one whose arcs all consume a
// colour, but for the empty arcs kept on purpose and the references to
// look-ahead constraints.
//
// Passes, in order: a cleanup drops the states off every path; folding merges
// the states that empty arcs make equivalent (a cycle of empty arcs, a state
// that only passes on to one other); loops of arcs that consume nothing are
// unrolled; empty arcs go, by giving a state the arcs of the states it
// reaches through them; constraints are pulled back to the entry and pushed
// forward to the exit; a last cleanup numbers the states.
//
// Two things keep this close to linear in the graph's size. Removing an empty
// arc copies arcs, and a chain of optional pieces (a?a?a?..., x*y*z*...)
// would give every state the arcs of all the states after it: a state keeps
// its empty arcs when following them would bring it more than a few arcs, and
// the matcher follows them instead. And a constraint moves across the arcs
// that consume nothing until it meets one that does; where such arcs form a
// loop ((^$)*), it would go round for ever, so those loops are unrolled into
// the paths that visit each state once, which match the same texts: going
// round such a loop again tests the same position again.
#include "nfa.h"

#include <algorithm>
#include <map>
#include <tuple>

namespace Karu::IMPL::rx {

namespace {

// A state takes the arcs its empty arcs lead to only if that brings it no
// more than this many: enough for every common pattern to lose all its empty
// arcs, small enough that a chain of optional pieces stays linear.
constexpr int kEmptyClosureArcs = 32;

// Unrolling a loop that consumes nothing enumerates the conditions its paths
// impose; a loop of look-aheads could give exponentially many. Beyond this
// the pattern is refused as too large.
constexpr size_t kUnrollBudget = 200000;

bool zeroWidth(int type)
{
    return type != kPlain;
}

enum Combine { kIncompatible, kSatisfied, kCompatible };

// A constraint meeting an arc next to it: an empty arc consumes nothing and
// constrains nothing, so the constraint may cross it.
Combine combine(const Arc* con, const Arc* a)
{
    auto same = [&] { return con->co == a->co ? kSatisfied : kIncompatible; };
    if (a->type == kEmpty) return kCompatible;
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

void Nfa::cleanup()
{
    if (failed()) return;
    const PassTimer timer(kPassCleanup);
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

// The strongly connected parts, of two states or more, of the graph of empty
// arcs (emptyOnly) or of all arcs that consume nothing. Tarjan's algorithm,
// with its own stack: a long chain must not exhaust the call stack.
std::vector<std::vector<State*>> Nfa::zeroWidthComponents(bool emptyOnly)
{
    std::vector<std::vector<State*>> parts;
    const size_t n = static_cast<size_t>(_stateCount);
    std::vector<int> index(n, -1), low(n, 0);
    std::vector<char> onStack(n, 0);
    std::vector<State*> stack;
    struct Frame {
        State* s;
        Arc* next;
    };
    std::vector<Frame> frames;
    auto follows = [emptyOnly](const Arc* a) { return emptyOnly ? a->type == kEmpty : zeroWidth(a->type); };
    int counter = 0;
    for (State* root = _head; root; root = root->next) {
        if (index[static_cast<size_t>(root->number)] >= 0) continue;
        frames.push_back({root, root->outs});
        index[static_cast<size_t>(root->number)] = low[static_cast<size_t>(root->number)] = counter++;
        stack.push_back(root);
        onStack[static_cast<size_t>(root->number)] = 1;
        while (!frames.empty()) {
            Frame& f = frames.back();
            const size_t v = static_cast<size_t>(f.s->number);
            if (f.next) {
                Arc* a = f.next;
                f.next = a->outNext;
                if (!follows(a) || a->to == f.s) continue;
                const size_t w = static_cast<size_t>(a->to->number);
                if (index[w] < 0) {
                    index[w] = low[w] = counter++;
                    stack.push_back(a->to);
                    onStack[w] = 1;
                    frames.push_back({a->to, a->to->outs});
                } else if (onStack[w]) {
                    low[v] = std::min(low[v], index[w]);
                }
                continue;
            }
            if (low[v] == index[v]) {
                std::vector<State*> part;
                State* w;
                do {
                    w = stack.back();
                    stack.pop_back();
                    onStack[static_cast<size_t>(w->number)] = 0;
                    part.push_back(w);
                } while (w != f.s);
                if (part.size() > 1) parts.push_back(std::move(part));
            }
            State* done = f.s;
            frames.pop_back();
            if (!frames.empty()) {
                const size_t u = static_cast<size_t>(frames.back().s->number);
                low[u] = std::min(low[u], low[static_cast<size_t>(done->number)]);
            }
        }
    }
    return parts;
}

// All states of a cycle of empty arcs behave as one: merge them.
void Nfa::mergeCycles()
{
    for (const std::vector<State*>& part : zeroWidthComponents(true)) {
        if (failed()) return;
        State* keep = part.front();
        for (State* s : part)
            if (s->role != 0) keep = s;
        for (State* s : part) {
            if (s == keep) continue;
            moveInArcs(s, keep);
            moveOutArcs(s, keep);
            stateRelease(s);
        }
        for (Arc* a = keep->outs; a;) {
            Arc* next = a->outNext;
            if (a->type == kEmpty && a->to == keep) arcRemove(a);
            a = next;
        }
    }
}

// Folding: cycles of empty arcs become one state; a state whose one way on is
// an empty arc hands its in-arcs to that arc's target; a state whose one way
// in is an empty arc hands its out-arcs to that arc's source. All three keep
// the language, shrink the graph, and leave no empty arc behind.
void Nfa::foldEmpties()
{
    if (failed()) return;
    const PassTimer timer(kPassFold);
    for (State* s = _head; s; s = s->next)
        for (Arc* a = s->outs; a;) {
            Arc* next = a->outNext;
            if (a->type == kEmpty && a->to == s) arcRemove(a);
            a = next;
        }
    mergeCycles();
    std::vector<State*> work;
    for (State* s = _head; s; s = s->next) work.push_back(s);
    while (!work.empty() && !failed()) {
        State* s = work.back();
        work.pop_back();
        if (s->number < 0 || s->role != 0) continue;
        if (s->outCount == 1 && s->outs->type == kEmpty && s->outs->to != s) {
            State* to = s->outs->to;
            for (Arc* a = s->ins; a; a = a->inNext) work.push_back(a->from);
            arcRemove(s->outs);
            moveInArcs(s, to);
            stateRelease(s);
            work.push_back(to);
        } else if (s->inCount == 1 && s->ins->type == kEmpty && s->ins->from != s) {
            State* from = s->ins->from;
            for (Arc* a = s->outs; a; a = a->outNext) work.push_back(a->to);
            arcRemove(s->ins);
            moveOutArcs(s, from);
            stateRelease(s);
            work.push_back(from);
        }
    }
}

// A loop of arcs that consume nothing, with a constraint on it. Every state
// keeps the arcs it has to states outside the loop; the arcs inside go, and
// for each state x and each other state y that x reached through them, a
// chain of the conditions met on the way (one look-behind or start, one
// look-ahead or end, the look-ahead references) leads from x to a copy of y
// that holds y's arcs out of the loop. Conditions met at one position can't
// differ: two look-behinds on different colours never both hold.
void Nfa::unrollLoop(const std::vector<State*>& loop)
{
    for (State* s : loop) s->walk = 1;
    // Arcs inside the loop are those that consume nothing; one that consumes
    // leaves the position, wherever it goes.
    auto inside = [](const Arc* a) { return zeroWidth(a->type) && a->to->walk == 1; };
    // The copy of each state that leaves the loop, where it has a way out.
    std::map<State*, State*> exits;
    for (State* y : loop) {
        bool leaves = false;
        for (Arc* a = y->outs; a && !leaves; a = a->outNext) leaves = !inside(a);
        if (!leaves) continue;
        State* copy = stateCreate();
        if (!copy) return;
        for (Arc* a = y->outs; a; a = a->outNext)
            if (!inside(a)) arcCopy(a, copy, a->to);
        exits[y] = copy;
    }
    // A condition: the look-behind or start (type, colour), the look-ahead or
    // end, and the look-ahead references, kept sorted.
    using Condition = std::tuple<int, colour, int, colour, std::vector<colour>>;
    struct Reached {
        State* from;
        State* to;
        Condition cond;
    };
    std::vector<Reached> chains;
    size_t visited = 0;
    for (State* x : loop) {
        std::map<std::pair<State*, Condition>, bool> seen;
        std::vector<std::pair<State*, Condition>> work{{x, Condition{}}};
        seen[work.front()] = true;
        while (!work.empty()) {
            auto [s, cond] = work.back();
            work.pop_back();
            if (s != x && exits.count(s)) chains.push_back({x, exits[s], cond});
            for (Arc* a = s->outs; a; a = a->outNext) {
                if (!inside(a)) continue;
                Condition next = cond;
                auto& [behindType, behind, aheadType, ahead, looks] = next;
                if (a->type == kStart || a->type == kBehind) {
                    if (behindType == 0) {
                        behindType = a->type;
                        behind = a->co;
                    } else if (behindType != a->type || behind != a->co) {
                        continue;
                    }
                } else if (a->type == kEnd || a->type == kAhead) {
                    if (aheadType == 0) {
                        aheadType = a->type;
                        ahead = a->co;
                    } else if (aheadType != a->type || ahead != a->co) {
                        continue;
                    }
                } else if (a->type == kLookRef) {
                    auto at = std::lower_bound(looks.begin(), looks.end(), a->co);
                    if (at == looks.end() || *at != a->co) looks.insert(at, a->co);
                }
                auto key = std::make_pair(a->to, std::move(next));
                if (seen.count(key)) continue;
                if (++visited > kUnrollBudget) {
                    fail(RX_ERR_MEMORY);
                    return;
                }
                seen[key] = true;
                work.push_back(std::move(key));
            }
        }
    }
    for (State* s : loop) {
        for (Arc* a = s->outs; a;) {
            Arc* next = a->outNext;
            if (inside(a)) arcRemove(a);
            a = next;
        }
    }
    for (State* s : loop) s->walk = 0;
    for (const Reached& r : chains) {
        if (failed()) return;
        const auto& [behindType, behind, aheadType, ahead, looks] = r.cond;
        std::vector<std::pair<int, colour>> steps;
        if (behindType) steps.emplace_back(behindType, behind);
        if (aheadType) steps.emplace_back(aheadType, ahead);
        for (colour l : looks) steps.emplace_back(kLookRef, l);
        if (steps.empty()) steps.emplace_back(kEmpty, 0);
        State* at = r.from;
        for (size_t i = 0; i < steps.size(); ++i) {
            State* to = i + 1 == steps.size() ? r.to : stateCreate();
            if (!to) return;
            arcAdd(steps[i].first, steps[i].second, at, to);
            at = to;
        }
    }
}

void Nfa::breakZeroWidthLoops()
{
    if (failed()) return;
    const PassTimer timer(kPassLoops);
    // A loop from a state to itself only tests again what was tested.
    for (State* s = _head; s; s = s->next)
        for (Arc* a = s->outs; a;) {
            Arc* next = a->outNext;
            if (zeroWidth(a->type) && a->to == s) arcRemove(a);
            a = next;
        }
    for (const std::vector<State*>& loop : zeroWidthComponents(false)) {
        if (failed()) return;
        unrollLoop(loop);
    }
}

// The graph of empty arcs has no cycle now (folding merged them). In reverse
// topological order, each state takes the arcs of the states its empty arcs
// lead to, which have taken theirs already, and drops those empty arcs; an
// empty arc stays where its target kept empty arcs of its own, or where
// taking the arcs would exceed the closure limit.
void Nfa::removeEmpties()
{
    if (failed()) return;
    const PassTimer timer(kPassEmpties);
    // Depth-first postorder over empty arcs gives targets before sources.
    std::vector<State*> order;
    for (State* s = _head; s; s = s->next) s->walk = 0;
    std::vector<std::pair<State*, Arc*>> stack;
    for (State* root = _head; root; root = root->next) {
        if (root->walk) continue;
        root->walk = 1;
        stack.push_back({root, root->outs});
        while (!stack.empty()) {
            auto& [s, a] = stack.back();
            if (a) {
                Arc* arc = a;
                a = arc->outNext;
                if (arc->type == kEmpty && !arc->to->walk) {
                    arc->to->walk = 1;
                    stack.push_back({arc->to, arc->to->outs});
                }
                continue;
            }
            order.push_back(s);
            stack.pop_back();
        }
    }
    // walk: 1 for a state that has no empty arc left, 2 for one that kept
    // some, 0 for one not done yet (which a target never is, the graph of
    // empty arcs having no cycle; it would count as kept).
    for (State* s : order) s->walk = 0;
    for (State* s : order) {
        if (failed()) return;
        int count = 0;
        bool hasEmpty = false;
        for (Arc* a = s->outs; a; a = a->outNext) {
            if (a->type != kEmpty) continue;
            hasEmpty = true;
            if (a->to->walk != 1) continue;
            for (Arc* b = a->to->outs; b; b = b->outNext) ++count;
        }
        s->walk = 1;
        if (!hasEmpty) continue;
        if (count > kEmptyClosureArcs) {
            s->walk = 2;
            continue;
        }
        for (Arc* a = s->outs; a;) {
            Arc* next = a->outNext;
            if (a->type == kEmpty && a->to->walk == 1) {
                for (Arc* b = a->to->outs; b && !failed(); b = b->outNext) arcCopy(b, s, b->to);
                // The copies went to the head of the list; `next` is still
                // the arc after this one.
                arcRemove(a);
            } else if (a->type == kEmpty) {
                s->walk = 2;
            }
            a = next;
        }
    }
    for (State* s = _head; s; s = s->next) s->walk = 0;
}

bool Nfa::pull(Arc* con, std::vector<State*>& touched)
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
        touched.push_back(from);
        from = s;
        con = from->outs;
    }
    for (Arc* a = from->ins; a; a = a->inNext) touched.push_back(a->from);
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

bool Nfa::push(Arc* con, std::vector<State*>& touched)
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
        touched.push_back(to);
        to = s;
        con = to->ins;
    }
    for (Arc* a = to->outs; a; a = a->outNext) touched.push_back(a->to);
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

// A constraint moves one arc back at each step, and the arcs that consume
// nothing form no loop now, so the work ends. The states to look at come
// from a list, not from passes over the whole graph: a constraint behind a
// long chain of optional pieces would otherwise cost a pass per piece.
void Nfa::pullConstraints()
{
    std::vector<State*> work;
    for (State* s = _head; s; s = s->next) work.push_back(s);
    while (!work.empty() && !failed()) {
        State* s = work.back();
        work.pop_back();
        if (s->number < 0 || s->role != 0) continue;
        for (Arc* a = s->outs; a; a = a->outNext)
            if (a->type == kStart || a->type == kBehind) {
                // The state may go in the pull; look at it again if it stays.
                work.push_back(s);
                pull(a, work);
                break;
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
    std::vector<State*> work;
    for (State* s = _head; s; s = s->next) work.push_back(s);
    while (!work.empty() && !failed()) {
        State* s = work.back();
        work.pop_back();
        if (s->number < 0 || s->role != 0) continue;
        for (Arc* a = s->ins; a; a = a->inNext)
            if (a->type == kEnd || a->type == kAhead) {
                work.push_back(s);
                push(a, work);
                break;
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

long Nfa::analyse()
{
    if (entry->outs == nullptr) return RX_NEVER_MATCHES;
    // Empty when a state the first step reaches, or one its empty arcs lead
    // to, has an arc to the exit.
    std::vector<State*> work;
    for (State* s = _head; s; s = s->next) s->walk = 0;
    for (Arc* a = entry->outs; a; a = a->outNext)
        if (!a->to->walk) {
            a->to->walk = 1;
            work.push_back(a->to);
        }
    long bits = 0;
    while (!work.empty() && !bits) {
        State* s = work.back();
        work.pop_back();
        for (Arc* a = s->outs; a; a = a->outNext) {
            if (a->to == exit) bits = RX_CAN_BE_EMPTY;
            if (a->type == kEmpty && !a->to->walk) {
                a->to->walk = 1;
                work.push_back(a->to);
            }
        }
    }
    for (State* s = _head; s; s = s->next) s->walk = 0;
    return bits;
}

long Nfa::optimise(FILE* trace)
{
    if (passTimes) ++passTimes->automata;
    if (trace) std::fputs("\ninitial cleanup:\n", trace);
    cleanup();
    if (trace) {
        dump(trace);
        std::fputs("\nempties:\n", trace);
    }
    foldEmpties();
    cleanup();
    breakZeroWidthLoops();
    removeEmpties();
    if (trace) {
        dump(trace);
        std::fputs("\nconstraints:\n", trace);
    }
    {
        const PassTimer timer(kPassConstraints);
        pullConstraints();
        pushConstraints();
    }
    if (trace) {
        dump(trace);
        std::fputs("\nfinal cleanup:\n", trace);
    }
    cleanup();
    if (trace) dump(trace);
    return failed() ? 0 : analyse();
}

}  // namespace Karu::IMPL::rx

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

// A condition on the symbol before a position (look-behind, start) or after
// it (look-ahead, end), as one number: its arc's type and colour.
int conditionOf(const Arc* a)
{
    return a->type << 16 | static_cast<uint16_t>(a->co);
}

bool behind(int type)
{
    return type == kStart || type == kBehind;
}

bool ahead(int type)
{
    return type == kEnd || type == kAhead;
}

}  // namespace

void Nfa::cleanup()
{
    if (failed()) return;
    const PassTimer timer(kPassCleanup);
    // walk 1: reachable from entry; walk 2: among those, can reach exit.
    for (State* s = _head; s; s = s->next) s->walk = 0;
    std::vector<State*>& work = _work;
    work.assign(1, entry);
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
    std::vector<int>& index = _tarjanIndex;
    std::vector<int>& low = _tarjanLow;
    std::vector<char>& onStack = _tarjanOnStack;
    index.assign(n, -1);
    low.assign(n, 0);
    onStack.assign(n, 0);
    std::vector<State*>& stack = _tarjanStack;
    stack.clear();
    std::vector<Frame>& frames = _tarjanFrames;
    frames.clear();
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
    std::vector<State*>& work = _work;
    work.clear();
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

// Whether the graph has an arc that consumes nothing other than an empty one.
bool Nfa::hasConditions() const
{
    for (State* s = _head; s; s = s->next)
        for (Arc* a = s->outs; a; a = a->outNext)
            if (a->type != kPlain && a->type != kEmpty) return true;
    return false;
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
    // Folding left no cycle of empty arcs: a loop needs a constraint or a
    // look-ahead reference.
    if (!hasConditions()) return;
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
    std::vector<State*>& order = _work;
    order.clear();
    for (State* s = _head; s; s = s->next) s->walk = 0;
    std::vector<std::pair<State*, Arc*>>& stack = _walkStack;
    stack.clear();
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

// The states of the graph of arcs that consume nothing, sources first
// (Kahn's order; the graph has no cycle once loops are unrolled). States
// outside that graph come in any order.
std::vector<State*> Nfa::zeroWidthOrder()
{
    std::vector<State*> order, ready;
    for (State* s = _head; s; s = s->next) {
        s->walk = 0;
        for (Arc* a = s->ins; a; a = a->inNext)
            if (zeroWidth(a->type)) ++s->walk;
        if (s->walk == 0) ready.push_back(s);
    }
    while (!ready.empty()) {
        State* s = ready.back();
        ready.pop_back();
        order.push_back(s);
        for (Arc* a = s->outs; a; a = a->outNext)
            if (zeroWidth(a->type) && --a->to->walk == 0) ready.push_back(a->to);
    }
    for (State* s = _head; s; s = s->next) s->walk = 0;
    return order;
}

// The copy of u that is entered only where condition k holds of the symbol
// before (look-behind) or after (look-ahead) its position: the arcs on that
// side that consume a symbol keep it if the symbol meets k; arcs that
// consume nothing come from (or go to) the copies for k of their other end,
// which stand at the same position; a second condition of the same side
// either is k or can never hold with it. Made once per state and condition,
// however many paths lead there: moving a constraint along every path, as
// one arc at a time does, doubles the work at each branch.
State* Nfa::guard(State* u, int k, bool before, std::map<std::pair<State*, int>, State*>& made)
{
    auto tag = [before](State* s) -> int& { return before ? s->guardBehind : s->guardAhead; };
    auto find = [&](State* s) -> State* {
        if (tag(s) == k) return s;
        if (tag(s) != 0) return nullptr;  // another condition of this side: never both
        const auto at = made.find({s, k});
        return at == made.end() ? nullptr : at->second;
    };
    auto meets = [&](colour co) {
        const int type = k >> 16;
        const colour want = static_cast<colour>(k & 0xFFFF);
        if (type == kStart) return co == startColours[want];
        if (type == kEnd) return co == endColours[want];
        return co == want;
    };
    if (tag(u) == k) return u;
    if (tag(u) != 0) return nullptr;
    if (State* known = find(u)) return known;
    // Copies are made first and given their arcs from a list: a chain of
    // optional pieces would otherwise recurse as deep as it is long.
    std::vector<State*> work;
    auto copyOf = [&](State* s) -> State* {
        if (tag(s) != 0) return tag(s) == k ? s : nullptr;
        if (State* known = find(s)) return known;
        State* w = stateCreate();
        if (!w) return nullptr;
        tag(w) = k;
        made[{s, k}] = w;
        work.push_back(s);
        return w;
    };
    State* result = copyOf(u);
    while (!work.empty() && !failed()) {
        State* s = work.back();
        work.pop_back();
        State* w = made[{s, k}];
        std::vector<Arc*> side;
        for (Arc* a = before ? s->ins : s->outs; a; a = before ? a->inNext : a->outNext) side.push_back(a);
        for (Arc* a : side) {
            State* other = before ? a->from : a->to;
            if (a->type == kPlain) {
                if (!meets(a->co)) continue;
                if (before)
                    arcAdd(kPlain, a->co, other, w);
                else
                    arcAdd(kPlain, a->co, w, other);
                continue;
            }
            const bool sameSide = before ? behind(a->type) : ahead(a->type);
            if (sameSide && conditionOf(a) != k) continue;
            State* copy = copyOf(other);
            if (!copy) continue;
            const int type = sameSide ? kEmpty : a->type;
            const colour co = sameSide ? 0 : a->co;
            if (before)
                arcAdd(type, co, copy, w);
            else
                arcAdd(type, co, w, copy);
        }
    }
    return result;
}

// Constraints leave the graph. At the ends they read the pseudo colours of
// the string's ends: a start constraint out of the entry and an end
// constraint into the exit become plain arcs on them. Elsewhere an arc
// u -k-> v of a look-behind or start constraint becomes an empty arc from
// the copy of u guarded by k to v, sources first, so that a state's in-arcs
// are complete when its copy is made; then look-aheads and ends, mirrored.
// A copy no arc reaches goes with the last cleanup: `a^b` can never match.
void Nfa::resolveConstraints()
{
    if (failed()) return;
    const PassTimer timer(kPassConstraints);
    for (Arc* a = entry->outs; a && !failed();) {
        Arc* next = a->outNext;
        if (a->type == kStart) {
            arcAdd(kPlain, startColours[a->co], a->from, a->to);
            arcRemove(a);
        }
        a = next;
    }
    for (Arc* a = exit->ins; a && !failed();) {
        Arc* next = a->inNext;
        if (a->type == kEnd) {
            arcAdd(kPlain, endColours[a->co], a->from, a->to);
            arcRemove(a);
        }
        a = next;
    }
    bool any = false;
    for (State* s = _head; s && !any; s = s->next)
        for (Arc* a = s->outs; a && !any; a = a->outNext) any = behind(a->type) || ahead(a->type);
    if (!any) return;
    for (const bool before : {true, false}) {
        std::map<std::pair<State*, int>, State*> made;
        std::vector<State*> order = zeroWidthOrder();
        if (!before) std::reverse(order.begin(), order.end());
        for (State* s : order) {
            if (failed()) return;
            std::vector<Arc*> cons;
            for (Arc* a = before ? s->outs : s->ins; a; a = before ? a->outNext : a->inNext)
                if (before ? behind(a->type) : ahead(a->type)) cons.push_back(a);
            for (Arc* a : cons) {
                State* from = a->from;
                State* to = a->to;
                const int k = conditionOf(a);
                arcRemove(a);
                if (before) {
                    if (State* g = guard(from, k, true, made)) arcAdd(kEmpty, 0, g, to);
                } else {
                    if (State* g = guard(to, k, false, made)) arcAdd(kEmpty, 0, from, g);
                }
            }
        }
    }
    for (State* s = _head; s; s = s->next) s->guardBehind = s->guardAhead = 0;
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
    breakZeroWidthLoops();
    if (trace) {
        dump(trace);
        std::fputs("\nconstraints:\n", trace);
    }
    // Constraints first: the copies they leave behind are joined by empty
    // arcs, which the passes below fold and remove with the rest.
    resolveConstraints();
    foldEmpties();
    removeEmpties();
    if (trace) {
        dump(trace);
        std::fputs("\nfinal cleanup:\n", trace);
    }
    cleanup();
    if (trace) dump(trace);
    return failed() ? 0 : analyse();
}

}  // namespace Karu::IMPL::rx

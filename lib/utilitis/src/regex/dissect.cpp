// Dissection and back-references.
//
// The plain walk lets the left side of a concatenation take as much (or as
// little, if it prefers shortest) as its automaton allows while the right side
// can still match the rest exactly; the parser's tree shape turns that into
// POSIX's leftmost-subexpression priority. An alternation takes the first
// branch whose automaton matches the whole interval.
//
// Whether a node spans an interval is answered by its own automaton when it
// has one (leaves and small nodes), and otherwise from its children: a
// concatenation spans [b, e) if its left side ends somewhere its right side
// spans the rest from. Those answers are kept for the call, so a long chain
// of groups costs a walk per group and split, not a copy of the rest of the
// chain per group at compile time.
//
// Back-references can't be checked by an automaton (it treats one as a copy
// of the group's language), so a candidate split may fail later. The search
// then tries the ways a node can take its interval in order of preference,
// each with what must still hold after it (a continuation): the first way for
// which everything holds wins, and its captures stand. A capture is recorded
// when its group has taken its part, before the rest is tried, and put back
// when the rest fails. The first iterations of an atom that holds a
// back-reference are checked one by one ('*' nodes): each iteration begins
// with the atom's groups unset, so a reference inside the atom sees its own
// iteration's captures, and only the last iteration's captures are reported.
#include "dissect.h"

#include "classes.h"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>

namespace Karu::IMPL::rx {

template <class Ch>
size_t Splitter<Ch>::KeyHash::operator()(const Key& k) const noexcept
{
    size_t h = std::hash<const void*>()(k.node);
    h = h * 0x9E3779B97F4A7C15ull ^ std::hash<const void*>()(k.b);
    return h * 0x9E3779B97F4A7C15ull ^ std::hash<const void*>()(k.e);
}

template <class Ch>
void Splitter<Ch>::record(const Subexpr* t, const Ch* b, const Ch* e)
{
    const size_t n = static_cast<size_t>(t->groupNo);
    if (n < _ex->groupsWanted) _ex->matches[n] = {b - _ex->start, e - _ex->start};
}

template <class Ch>
void Splitter<Ch>::forget()
{
    _reachedUsed = 0;
    if (!_reachedIndex.empty()) _reachedIndex.clear();
    if (!_spans.empty()) _spans.clear();
}

// Where a node may end from b, not beyond stop, in ascending order. Nodes
// that are asked this have an automaton of their own (see compile.cpp).
template <class Ch>
int Splitter<Ch>::ends(const Subexpr* t, const Ch* b, const Ch* stop, Ends& out)
{
    if (t->automaton.empty()) {
        if (!(t->flags & kEmptyOnly)) return RX_ERR_INTERNAL;
        out.assign(1, b);
        return RX_OK;
    }
    Dfa<Ch> d(*_ex, t->automaton);
    if (!d.ok()) return error(RX_ERR_MEMORY);
    d.ends(b, stop, out);
    return _ex->err;
}

// The ends of a node from b up to the horizon, walked once for all the
// intervals the search asks about from there.
template <class Ch>
int Splitter<Ch>::reach(const Subexpr* t, const Ch* b, const Ends*& out)
{
    if (_reachedUsed <= kReachedInPlace) {
        for (size_t i = 0; i < _reachedUsed; ++i)
            if (_reached[i].node == t && _reached[i].b == b) {
                out = &_reached[i].ends;
                return RX_OK;
            }
    } else if (auto at = _reachedIndex.find(Key{t, b, nullptr}); at != _reachedIndex.end()) {
        out = &_reached[at->second].ends;
        return RX_OK;
    }
    if (_reachedUsed == _reached.size()) _reached.emplace_back();
    Reached& slot = _reached[_reachedUsed];
    if (const int r = ends(t, b, _horizon, slot.ends)) return r;
    slot.node = t;
    slot.b = b;
    ++_reachedUsed;
    if (_reachedUsed > kReachedInPlace) {
        if (_reachedIndex.empty())
            for (size_t i = 0; i + 1 < _reachedUsed; ++i)
                _reachedIndex.emplace(Key{_reached[i].node, _reached[i].b, nullptr}, i);
        _reachedIndex.emplace(Key{t, b, nullptr}, _reachedUsed - 1);
    }
    out = &slot.ends;
    return RX_OK;
}

template <class Ch>
int Splitter<Ch>::spans(const Subexpr* t, const Ch* b, const Ch* e, bool& yes)
{
    yes = false;
    if (!t->automaton.empty()) {
        Dfa<Ch> d(*_ex, t->automaton);
        if (!d.ok()) return error(RX_ERR_MEMORY);
        yes = d.longest(b, e, nullptr) == e;
        return _ex->err;
    }
    switch (t->op) {
    case '=':
        if (!(t->flags & kEmptyOnly)) return RX_ERR_INTERNAL;
        yes = b == e;
        return RX_OK;
    case '(':
        return spans(t->left, b, e, yes);
    case '|':
        for (const Subexpr* c = t; c; c = c->right) {
            if (const int r = spans(c->left, b, e, yes)) return r;
            if (yes) return RX_OK;
        }
        return RX_OK;
    case '.': {
        if (t->left->flags & kEmptyOnly) return spans(t->right, b, e, yes);
        if (t->right->flags & kEmptyOnly) return spans(t->left, b, e, yes);
        const Key key{t, b, e};
        if (auto known = _spans.find(key); known != _spans.end()) {
            yes = known->second;
            return RX_OK;
        }
        Ends mids;
        if (const int r = ends(t->left, b, e, mids)) return r;
        for (auto mid = mids.rbegin(); mid != mids.rend() && !yes; ++mid)
            if (const int r = spans(t->right, *mid, e, yes)) return r;
        _spans.emplace(key, yes);
        return RX_OK;
    }
    default:
        return RX_ERR_INTERNAL;
    }
}

// ---- the plain walk ----

template <class Ch>
int Splitter<Ch>::concatenation(const Subexpr* t, const Ch* b, const Ch* e)
{
    // Every node is dissected over an interval it was found to span; next to
    // a side that can only be empty, the other side spans it too.
    if (t->left->flags & kEmptyOnly) return dissect(t->right, b, e);
    if (t->right->flags & kEmptyOnly) return dissect(t->left, b, e);
    const bool shorter = t->left->flags & kShorter;
    Ends mids;
    if (const int r = ends(t->left, b, e, mids)) return r;
    const Ch* mid = nullptr;
    for (size_t i = 0; i < mids.size() && !mid; ++i) {
        const Ch* m = shorter ? mids[i] : mids[mids.size() - 1 - i];
        bool fits;
        if (const int r = spans(t->right, m, e, fits)) return r;
        if (fits) mid = m;
    }
    if (!mid) return RX_ERR_INTERNAL;
    const int r = dissect(t->left, b, mid);
    if (r != RX_OK) return r;
    return dissect(t->right, mid, e);
}

template <class Ch>
int Splitter<Ch>::alternation(const Subexpr* t, const Ch* b, const Ch* e)
{
    for (; t != nullptr; t = t->right) {
        bool whole;
        if (const int r = spans(t->left, b, e, whole)) return r;
        if (whole) return dissect(t->left, b, e);
    }
    return RX_ERR_INTERNAL;
}

template <class Ch>
int Splitter<Ch>::dissect(const Subexpr* t, const Ch* b, const Ch* e)
{
    switch (t->op) {
    case '=':
        return RX_OK;
    case '(':
        record(t, b, e);
        return dissect(t->left, b, e);
    case '.':
        return concatenation(t, b, e);
    case '|':
        return alternation(t, b, e);
    default:
        return RX_ERR_INTERNAL;
    }
}

// ---- the search, with back-references ----

namespace {

// Whether a node's first leaf is a back-reference: comparing it with its
// group turns most splits down for less than a walk of the rest.
bool beginsWithReference(const Subexpr* t)
{
    for (;;) {
        switch (t->op) {
        case 'b':
            return true;
        case '(':
            t = t->left;
            break;
        case '.':
            t = (t->left->flags & kEmptyOnly) ? t->right : t->left;
            break;
        default:
            return false;
        }
    }
}

}  // namespace

// `checked`: the automaton of t (or the walks that chose the interval) found
// that t spans it, as far as automata can tell. A leaf that is not checked
// checks itself.
template <class Ch>
int Splitter<Ch>::search(const Subexpr* t, const Ch* b, const Ch* e, bool checked, Next next)
{
    // A node with an automaton of its own checks itself if it comes
    // unchecked, unless a back-reference comes first: comparing it is
    // cheaper, and each part checks itself.
    if (!checked && !t->automaton.empty() && !beginsWithReference(t)) {
        bool yes;
        if (const int r = spans(t, b, e, yes)) return r;
        if (!yes) return RX_NOMATCH;
        checked = true;
    }
    switch (t->op) {
    case '=':
        if (!checked) {
            bool yes;
            if (const int r = spans(t, b, e, yes)) return r;
            if (!yes) return RX_NOMATCH;
        }
        return next();
    case '(': {
        RxMatch& slot = _ex->matches[static_cast<size_t>(t->groupNo)];
        const RxMatch saved = slot;
        auto then = [&] {
            slot = {b - _ex->start, e - _ex->start};
            const int r = next();
            if (r == RX_NOMATCH) slot = saved;
            return r;
        };
        return search(t->left, b, e, checked, Next(then));
    }
    case '.':
        return searchConcatenation(t, b, e, checked, next);
    case '|':
        return searchAlternation(t, b, e, next);
    case 'b':
        return backReference(t, b, e, checked, next);
    case '*':
        return iterations(t, b, e, next);
    default:
        return RX_ERR_INTERNAL;
    }
}


template <class Ch>
int Splitter<Ch>::searchConcatenation(const Subexpr* t, const Ch* b, const Ch* e, bool checked, Next next)
{
    // The split next to an empty side is forced, and what was found of the
    // node holds for the other side.
    if (t->left->flags & kEmptyOnly) return search(t->right, b, e, checked, next);
    if (t->right->flags & kEmptyOnly) return search(t->left, b, e, checked, next);
    const bool shorter = t->left->flags & kShorter;
    const bool check = !beginsWithReference(t->right);
    // A back-reference on the left ends where its copies do; otherwise its
    // automaton says where the left side may end.
    Ends compared;
    const Ch* const* first;
    const Ch* const* last;
    if (t->left->op == 'b') {
        copies(t->left, b, e, &compared);
        first = compared.data();
        last = first + compared.size();
    } else {
        const Ends* all;
        if (const int r = reach(t->left, b, all)) return r;
        first = all->data();
        last = std::upper_bound(all->data(), all->data() + all->size(), e);
    }
    const bool leftChecked = t->left->op != 'b';
    for (ptrdiff_t i = 0, n = last - first; i < n; ++i) {
        const Ch* mid = shorter ? first[i] : first[n - 1 - i];
        if (check) {
            bool fits;
            if (const int r = spans(t->right, mid, e, fits)) return r;
            if (!fits) continue;
        }
        auto then = [&] { return search(t->right, mid, e, check, next); };
        const int r = search(t->left, b, mid, leftChecked, Next(then));
        if (r != RX_NOMATCH) return r;
    }
    return RX_NOMATCH;
}

template <class Ch>
int Splitter<Ch>::searchAlternation(const Subexpr* t, const Ch* b, const Ch* e, Next next)
{
    for (; t != nullptr; t = t->right) {
        bool whole;
        if (const int r = spans(t->left, b, e, whole)) return r;
        if (!whole) continue;
        const int r = search(t->left, b, e, true, next);
        if (r != RX_NOMATCH) return r;
    }
    return RX_NOMATCH;
}

// Where copies of a back-reference's group, as many as it allows, end from
// b, not beyond e: a position for each count that the text repeats, into
// `out` if given. True if one of them is e.
template <class Ch>
bool Splitter<Ch>::copies(const Subexpr* t, const Ch* b, const Ch* e, Ends* out) const
{
    if (out) out->clear();
    const RxMatch& group = _ex->matches[static_cast<size_t>(t->groupNo)];
    if (group.start == -1) return false;
    const Ch* text = _ex->start + group.start;
    const size_t length = static_cast<size_t>(group.end - group.start);
    if (length == 0) {
        if (out) out->push_back(b);  // any number of empty copies
        return b == e;
    }
    const bool fold = _ex->in->compFlags & RX_FOLDCASE;
    int count = 0;
    const Ch* p = b;
    for (;;) {
        if (count >= t->min && out) out->push_back(p);
        if (e - p < static_cast<ptrdiff_t>(length) || (count == t->max && t->max != RX_OPEN_BOUND)) break;
        bool same = true;
        for (size_t i = 0; i < length && same; ++i) same = fold ? equalFolded<Ch>(text[i], p[i]) : text[i] == p[i];
        if (!same) break;
        p += length;
        ++count;
    }
    return p == e && count >= t->min;
}

template <class Ch>
int Splitter<Ch>::backReference(const Subexpr* t, const Ch* b, const Ch* e, bool checked, Next next)
{
    if (!copies(t, b, e, nullptr)) return RX_NOMATCH;
    if (!checked) {
        // The copies may hold constraints (a word boundary) that the text
        // around this place must meet.
        bool yes;
        if (const int r = spans(t, b, e, yes)) return r;
        if (!yes) return RX_NOMATCH;
    }
    return next();
}

// Whether one iteration of the atom can take [b, e), with the atom's groups
// unset at its start; they are put back afterwards.
template <class Ch>
int Splitter<Ch>::iteration(const Subexpr* t, const Ch* b, const Ch* e, bool& holds)
{
    std::vector<RxMatch> saved;
    for (int g = t->firstGroup; g <= t->lastGroup; ++g) {
        saved.push_back(_ex->matches[static_cast<size_t>(g)]);
        _ex->matches[static_cast<size_t>(g)] = {-1, -1};
    }
    auto done = [] { return RX_OK; };
    const int r = search(t->body, b, e, true, Next(done));
    for (int g = t->firstGroup; g <= t->lastGroup; ++g)
        _ex->matches[static_cast<size_t>(g)] = saved[static_cast<size_t>(g - t->firstGroup)];
    holds = r == RX_OK;
    return r == RX_NOMATCH ? RX_OK : r;
}

// The first iterations of an atom with a back-reference: t->min to t->max of
// them must take [b, e) exactly, each one checked. Which split does it does
// not matter (their captures are not reported), so this is a walk over the
// positions an iteration can end at, by the number of iterations.
template <class Ch>
int Splitter<Ch>::iterations(const Subexpr* t, const Ch* b, const Ch* e, Next next)
{
    const bool open = t->max == RX_OPEN_BOUND;
    std::unordered_map<Key, bool, KeyHash> holds;  // iterations tried, by interval
    std::unordered_set<const Ch*> settled;          // reached with at least t->min iterations
    std::vector<const Ch*> level{b}, following;
    bool found = false;
    for (int count = 0; !level.empty() && !found; ++count) {
        if (count >= t->min && std::find(level.begin(), level.end(), e) != level.end()) {
            found = true;
            break;
        }
        if (!open && count == t->max) break;
        following.clear();
        for (const Ch* p : level) {
            const Ends* stops;
            if (const int r = reach(t->body, p, stops)) return r;
            for (const Ch* q : *stops) {
                if (q > e) break;
                const Key key{t, p, q};
                auto known = holds.find(key);
                bool ok;
                if (known != holds.end()) {
                    ok = known->second;
                } else {
                    if (const int r = iteration(t, p, q, ok)) return r;
                    holds.emplace(key, ok);
                }
                if (!ok || std::find(following.begin(), following.end(), q) != following.end()) continue;
                // Past the minimum only where an iteration ends matters.
                if (open && count + 1 >= t->min && !settled.insert(q).second) continue;
                following.push_back(q);
            }
        }
        level.swap(following);
    }
    return found ? next() : RX_NOMATCH;
}

template <class Ch>
int Splitter<Ch>::search(const Subexpr* t, const Ch* b, const Ch* e, const Ch* horizon)
{
    _horizon = horizon;
    auto accept = [] { return RX_OK; };
    return search(t, b, e, true, Next(accept));
}

template class Splitter<char>;
template class Splitter<wchar_t>;

}  // namespace Karu::IMPL::rx

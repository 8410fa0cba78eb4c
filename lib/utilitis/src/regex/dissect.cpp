// Dissection and back-references.
//
// The plain walk lets the left side of a concatenation take as much (or as
// little, if it prefers shortest) as its automaton allows while the right side
// can still match the rest exactly; the parser's tree shape turns that into
// POSIX's leftmost-subexpression priority. An alternation takes the first
// branch whose automaton matches the whole interval.
//
// Back-references can't be checked by an automaton (it treats one as a copy of
// the group's language), so a candidate split may fail later; the retry walk
// then resumes each node where it left off, which the retry memory makes
// possible: a concatenation remembers its midpoint, an alternation which
// branch it is on, a back-reference that it was tried.
#include "dissect.h"

#include "classes.h"

#include <optional>

namespace Karu::IMPL::rx {

namespace {

template <class Ch>
void record(ExecState<Ch>& ex, const Subexpr* t, const Ch* begin, const Ch* end)
{
    const size_t n = static_cast<size_t>(t->groupNo);
    if (n >= ex.groupsWanted) return;
    ex.matches[n].start = begin - ex.start;
    ex.matches[n].end = end - ex.start;
}

// The next midpoint to try after `mid`: the next shorter end the last walk
// reported, when it did, or the end another walk finds.
template <class Ch>
const Ch* nextMidpoint(Dfa<Ch>& d, const Ch* begin, const Ch* mid, const Ch* end, bool shorter, const Ch*& next,
                       bool& nextKnown)
{
    if (nextKnown) {
        nextKnown = false;
        return next;
    }
    nextKnown = !shorter;
    return shorter ? d.shortest(begin, mid + 1, end, nullptr, nullptr) : d.longest(begin, mid - 1, nullptr, &next);
}

template <class Ch>
int concatenation(ExecState<Ch>& ex, const Subexpr* t, const Ch* begin, const Ch* end)
{
    // Every node is dissected over an interval its own automaton was found to
    // span; next to a side that can only be empty, the other side spans it too.
    if (t->left->flags & kEmptyOnly) return dissect(ex, t->right, begin, end);
    if (t->right->flags & kEmptyOnly) return dissect(ex, t->left, begin, end);
    const bool shorter = t->left->flags & kShorter;
    const Ch* mid;
    {
        Dfa<Ch> d(ex, t->left->automaton);
        Dfa<Ch> d2(ex, t->right->automaton);
        if (!d.ok() || !d2.ok()) return ex.err ? ex.err : RX_ERR_MEMORY;
        const Ch* next = nullptr;  // the next shorter midpoint, when the last walk told it
        bool nextKnown = !shorter;
        mid = shorter ? d.shortest(begin, begin, end, nullptr, nullptr) : d.longest(begin, end, nullptr, &next);
        if (!mid) return ex.err ? ex.err : RX_ERR_INTERNAL;
        const Ch* last = shorter ? end : begin;
        while (d2.longest(mid, end, nullptr) != end) {
            if (ex.err) return ex.err;
            if (mid == last) return RX_ERR_INTERNAL;
            mid = nextMidpoint(d, begin, mid, end, shorter, next, nextKnown);
            if (!mid) return ex.err ? ex.err : RX_ERR_INTERNAL;
        }
    }
    const int r = dissect(ex, t->left, begin, mid);
    if (r != RX_OK) return r;
    return dissect(ex, t->right, mid, end);
}

template <class Ch>
int alternation(ExecState<Ch>& ex, const Subexpr* t, const Ch* begin, const Ch* end)
{
    for (; t != nullptr; t = t->right) {
        bool whole;
        {
            Dfa<Ch> d(ex, t->left->automaton);
            if (!d.ok()) return ex.err ? ex.err : RX_ERR_MEMORY;
            whole = d.longest(begin, end, nullptr) == end;
            if (ex.err) return ex.err;
        }
        if (whole) return dissect(ex, t->left, begin, end);
    }
    return RX_ERR_INTERNAL;
}

// ---- the retry walk ----

template <class Ch>
int retryConcatenation(ExecState<Ch>& ex, const Subexpr* t, const Ch* begin, const Ch* end)
{
    // As in concatenation(): the split next to an empty side is forced, and
    // no other split can work.
    if (t->left->flags & kEmptyOnly) return dissectRetry(ex, t->right, begin, end);
    if (t->right->flags & kEmptyOnly) return dissectRetry(ex, t->left, begin, end);
    const bool shorter = t->left->flags & kShorter;
    Dfa<Ch> d(ex, t->left->automaton);
    if (!d.ok()) return ex.err ? ex.err : RX_ERR_MEMORY;
    std::optional<Dfa<Ch>> d2;  // made when first needed: most candidates fail before
    // Whether the right side spans exactly [mid, end): its automaton, walked.
    auto rightFits = [&](const Ch* mid) -> int {
        if (!d2) {
            d2.emplace(ex, t->right->automaton);
            if (!d2->ok()) return ex.err ? ex.err : RX_ERR_MEMORY;
        }
        const Ch* e = d2->longest(mid, end, nullptr);
        if (ex.err) return ex.err;
        return e == end ? RX_OK : RX_NOMATCH;
    };
    uint64_t& memory = ex.retry[t->id];
    const Ch* mid;
    const Ch* next = nullptr;  // the next shorter midpoint, when the last walk told it
    bool nextKnown = false;
    if (memory == 0) {
        mid = shorter ? d.shortest(begin, begin, end, nullptr, nullptr) : d.longest(begin, end, nullptr, &next);
        nextKnown = !shorter;
        if (ex.err) return ex.err;
        if (!mid) return RX_NOMATCH;
        memory = static_cast<uint64_t>(mid - begin) + 1;
    } else {
        mid = begin + (memory - 1);
    }
    for (;;) {
        int r = dissectRetry(ex, t->left, begin, mid);
        if (r == RX_OK && t->right->op == 'b') {
            // Comparing with the group is cheaper than the walk and turns
            // most splits down; the walk still checks the constraints the
            // reference's automaton brings (a word boundary inside the
            // group holds or not in the new place). A reference tried here
            // is never tried again for this split, as if the walk had failed.
            r = dissectRetry(ex, t->right, mid, end);
            if (r == RX_OK) r = rightFits(mid);
            if (r == RX_OK) return RX_OK;
        } else if (r == RX_OK) {
            r = rightFits(mid);
            if (r == RX_OK) {
                r = dissectRetry(ex, t->right, mid, end);
                if (r == RX_OK) return RX_OK;
            }
        }
        if (r != RX_NOMATCH) return r;
        if (mid == (shorter ? end : begin)) return RX_NOMATCH;
        mid = nextMidpoint(d, begin, mid, end, shorter, next, nextKnown);
        if (ex.err) return ex.err;
        if (!mid) return RX_NOMATCH;
        memory = static_cast<uint64_t>(mid - begin) + 1;
        clearMemory(ex, t->left);
        clearMemory(ex, t->right);
    }
}

template <class Ch>
int retryAlternation(ExecState<Ch>& ex, const Subexpr* t, const Ch* begin, const Ch* end)
{
    constexpr uint64_t kUntried = 0, kTrying = 1, kTried = 2;
    for (; t != nullptr; t = t->right) {
        uint64_t& memory = ex.retry[t->id];
        if (memory == kTried) continue;
        if (memory == kUntried) {
            Dfa<Ch> d(ex, t->left->automaton);
            if (!d.ok()) return ex.err ? ex.err : RX_ERR_MEMORY;
            const bool whole = d.longest(begin, end, nullptr) == end;
            if (ex.err) return ex.err;
            if (!whole) {
                memory = kTried;
                continue;
            }
            memory = kTrying;
        }
        const int r = dissectRetry(ex, t->left, begin, end);
        if (r != RX_NOMATCH) return r;
        memory = kTried;
    }
    return RX_NOMATCH;
}

template <class Ch>
int backReference(ExecState<Ch>& ex, const Subexpr* t, const Ch* begin, const Ch* end)
{
    const RxMatch& group = ex.matches[static_cast<size_t>(t->groupNo)];
    if (group.start == -1) return RX_NOMATCH;
    uint64_t& memory = ex.retry[t->id];
    if (memory) return RX_NOMATCH;  // nothing else to try here
    memory = 1;
    const Ch* text = ex.start + group.start;
    const size_t length = static_cast<size_t>(group.end - group.start);
    if (length == 0) return begin == end ? RX_OK : RX_NOMATCH;
    if (static_cast<size_t>(end - begin) < length) return RX_NOMATCH;
    const bool fold = ex.in->compFlags & RX_FOLDCASE;
    const Ch* last = end - length;
    int count = 0;
    const Ch* p = begin;
    for (; p <= last && (count < t->max || t->max == RX_OPEN_BOUND); p += length) {
        bool same = true;
        for (size_t i = 0; i < length && same; ++i)
            same = fold ? equalFolded<Ch>(text[i], p[i]) : text[i] == p[i];
        if (!same) break;
        ++count;
    }
    if (p != end) return RX_NOMATCH;
    return (t->min <= count && (count <= t->max || t->max == RX_OPEN_BOUND)) ? RX_OK : RX_NOMATCH;
}

}  // namespace

template <class Ch>
int dissect(ExecState<Ch>& ex, const Subexpr* t, const Ch* begin, const Ch* end)
{
    switch (t->op) {
    case '=':
        return RX_OK;
    case '(':
        record(ex, t, begin, end);
        return dissect(ex, t->left, begin, end);
    case '.':
        return concatenation(ex, t, begin, end);
    case '|':
        return alternation(ex, t, begin, end);
    default:
        return RX_ERR_INTERNAL;
    }
}

template <class Ch>
int dissectRetry(ExecState<Ch>& ex, const Subexpr* t, const Ch* begin, const Ch* end)
{
    switch (t->op) {
    case '=':
        return RX_OK;
    case '(': {
        const int r = dissectRetry(ex, t->left, begin, end);
        if (r == RX_OK) record(ex, t, begin, end);
        return r;
    }
    case '.':
        return retryConcatenation(ex, t, begin, end);
    case '|':
        return retryAlternation(ex, t, begin, end);
    case 'b':
        return backReference(ex, t, begin, end);
    default:
        return RX_ERR_INTERNAL;
    }
}

template <class Ch>
void clearMemory(ExecState<Ch>& ex, const Subexpr* t)
{
    ex.retry[t->id] = 0;
    if (t->op == '(' && static_cast<size_t>(t->groupNo) < ex.groupsWanted) {
        ex.matches[static_cast<size_t>(t->groupNo)] = {-1, -1};
    }
    if (t->left) clearMemory(ex, t->left);
    if (t->right) clearMemory(ex, t->right);
}

template int dissect<char>(ExecState<char>&, const Subexpr*, const char*, const char*);
template int dissect<wchar_t>(ExecState<wchar_t>&, const Subexpr*, const wchar_t*, const wchar_t*);
template int dissectRetry<char>(ExecState<char>&, const Subexpr*, const char*, const char*);
template int dissectRetry<wchar_t>(ExecState<wchar_t>&, const Subexpr*, const wchar_t*, const wchar_t*);
template void clearMemory<char>(ExecState<char>&, const Subexpr*);
template void clearMemory<wchar_t>(ExecState<wchar_t>&, const Subexpr*);

}  // namespace Karu::IMPL::rx

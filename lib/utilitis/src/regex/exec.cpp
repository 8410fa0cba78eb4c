// rxexec and its search strategy.
//
// A pattern with a prefilter (prefilter.h) first has it find the earliest
// place a match can begin; a single literal is then matched already. As no
// match begins before that place, one that begins there is the leftmost, so
// the root's automaton is tried there first. Otherwise, the cheap question:
// is there a match at all, and where could it begin? The search automaton
// (the pattern with an implicit leading ".*") answers with the shortest match
// end and the last position from which no progress had been made, jumping
// ahead by the prefilter whenever it has nothing under way. Then the root's
// own automaton, tried from each possible start in turn, pins down the
// leftmost match and its longest (or shortest) end; only if groups are wanted
// does dissection run. Patterns with back-references take the backtracking
// route of findWithBackrefs instead.
#include "classes.h"
#include "dissect.h"
#include "prefilter.h"

#include <algorithm>
#include <new>
#include <vector>

namespace Karu {

namespace IMPL::rx {

template <class Ch>
int compilePattern(RxObject* object, const Ch* pattern, size_t length, int flags) noexcept;

namespace {

constexpr size_t kInlineMatches = 20;  // match array on the stack

template <class Ch>
void fillDetails(ExecState<Ch>& ex, const Ch* cold)
{
    if (!ex.details) return;
    ex.details->coldStart = (cold ? cold : ex.stop) - ex.start;
    ex.details->end = ex.stop - ex.start;
}

// Where the search may start: no match begins before the place the
// prefilter finds. Null when no match can begin at all. With details wanted
// the search runs from the start, since the cold start it reports depends on
// the walk; so it does without a prefilter.
template <class Ch>
const Ch* searchFrom(const ExecState<Ch>& ex, PrefilterCursor<Ch>& prefilter, bool& none)
{
    none = false;
    if (!prefilter.active() || ex.details) return ex.start;
    const Ch* at = prefilter.next(ex.start);
    none = at == nullptr;
    return at;
}

template <class Ch>
int find(ExecState<Ch>& ex)
{
    const Internals& in = *ex.in;
    PrefilterCursor<Ch> prefilter(in, ex.stop);
    bool none;
    const Ch* from = searchFrom(ex, prefilter, none);
    if (none) return RX_NOMATCH;
    const bool searched = prefilter.active() && !ex.details;
    if (searched && in.prefilter.whole && ex.groupsWanted <= 1) {
        const auto length = static_cast<int64_t>(in.prefilter.needles.front().size());
        if (ex.groupsWanted) ex.matches[0] = {from - ex.start, from - ex.start + length};
        return RX_OK;
    }
    const bool shorter = in.tree->flags & kShorter;
    auto matchFrom = [&](Dfa<Ch>& d, const Ch* begin, bool* hitEnd) {
        return shorter ? d.shortest(begin, begin, ex.stop, nullptr, hitEnd) : d.longest(begin, ex.stop, hitEnd);
    };
    const Ch* begin = nullptr;
    const Ch* end = nullptr;
    const Ch* cold = nullptr;
    if (searched) {
        // No match begins in front of `from`, so one that begins there is
        // the leftmost; and most places the prefilter finds begin one. The
        // root's automaton is tried there before any search walk.
        Dfa<Ch> d(ex, in.tree->automaton);
        if (!d.ok()) return ex.err ? ex.err : RX_ERR_MEMORY;
        end = matchFrom(d, from, nullptr);
        if (ex.err) return ex.err;
        if (end) begin = from;
    }
    if (!end) {
        const Ch* close;
        {
            Dfa<Ch> s(ex, in.search);
            if (!s.ok()) return ex.err ? ex.err : RX_ERR_MEMORY;
            close = s.shortest(from, from, ex.stop, &cold, nullptr, searched ? &prefilter : nullptr);
        }
        if (ex.err) return ex.err;
        fillDetails(ex, cold);
        if (!close) return RX_NOMATCH;
        if (ex.groupsWanted == 0) return RX_OK;

        const Ch* open = cold ? cold : ex.start;
        cold = nullptr;
        Dfa<Ch> d(ex, in.tree->automaton);
        if (!d.ok()) return ex.err ? ex.err : RX_ERR_MEMORY;
        for (begin = open; begin <= close; ++begin) {
            bool hitEnd = false;
            end = matchFrom(d, begin, &hitEnd);
            if (ex.err) return ex.err;
            if (hitEnd && !cold) cold = begin;
            if (end) break;
        }
        if (!end) return RX_NOMATCH;
    }
    ex.matches[0] = {begin - ex.start, end - ex.start};
    fillDetails(ex, cold);
    if (ex.groupsWanted <= 1) return RX_OK;
    Splitter<Ch> splitter(ex);
    return splitter.dissect(in.tree, begin, end);
}

template <class Ch>
int findWithBackrefs(ExecState<Ch>& ex)
{
    const Internals& in = *ex.in;
    const bool shorter = in.tree->flags & kShorter;
    Dfa<Ch> s(ex, in.search);
    Dfa<Ch> d(ex, in.tree->automaton);
    if (!s.ok() || !d.ok()) return ex.err ? ex.err : RX_ERR_MEMORY;
    PrefilterCursor<Ch> prefilter(in, ex.stop);
    bool none;
    const Ch* cold = nullptr;
    const Ch* from = searchFrom(ex, prefilter, none);
    if (none) return RX_NOMATCH;
    PrefilterCursor<Ch>* jumps = prefilter.active() && !ex.details ? &prefilter : nullptr;
    // One splitter a thread, which keeps its memory from call to call: a
    // replace loop calls once for every match.
    static thread_local Splitter<Ch> splitter;
    splitter.start(ex);
    std::vector<const Ch*>& ends = splitter.candidates;
    auto done = [&](int r) {
        fillDetails(ex, cold);
        return r;
    };
    // Each round searches from the position after the last one tried: a
    // round that failed at an empty candidate would otherwise find the same
    // empty match again.
    for (;;) {
        const Ch* close = s.shortest(from, from, ex.stop, &cold, nullptr, jumps);
        if (ex.err) return ex.err;
        if (!close) break;
        const Ch* open = cold && cold > from ? cold : from;
        cold = nullptr;
        for (const Ch* begin = open; begin <= close; ++begin) {
            // Every end the root's automaton allows, in one walk; the
            // preferred first.
            bool hitEnd = false;
            d.ends(begin, ex.stop, ends, &hitEnd);
            if (ex.err) return ex.err;
            if (hitEnd && !cold) cold = begin;
            splitter.forget();
            for (size_t i = 0; i < ends.size(); ++i) {
                const Ch* end = shorter ? ends[i] : ends[ends.size() - 1 - i];
                for (size_t g = 1; g < ex.groupsWanted; ++g) ex.matches[g] = {-1, -1};
                const int r = splitter.search(in.tree, begin, end, ends.back());
                if (r == RX_OK) {
                    ex.matches[0] = {begin - ex.start, end - ex.start};
                    return done(RX_OK);
                }
                if (r != RX_NOMATCH) return r;
                // A candidate narrowed down to its extreme ends the search.
                if (shorter ? end == ex.stop : end == begin) return done(RX_NOMATCH);
            }
        }
        if (close == ex.stop) break;
        from = close + 1;
        // Nor does a match begin before the prefilter's next place.
        if (jumps && !(from = jumps->next(from))) break;
    }
    return done(RX_NOMATCH);
}

// The pattern's caches for the duration of one call.
class CacheLease {
public:
    CacheLease(const Internals& in, bool small) : _in(in)
    {
        if (small) return;  // a deliberately small cache is built per walk
        _caches = in.caches.take();
        if (!_caches) _caches = new MatchCaches(in.automatonCount);
    }
    ~CacheLease()
    {
        if (_caches) _in.caches.give(_caches);
    }
    CacheLease(const CacheLease&) = delete;
    CacheLease& operator=(const CacheLease&) = delete;
    MatchCaches* get() const noexcept { return _caches; }

private:
    const Internals& _in;
    MatchCaches* _caches = nullptr;
};

template <class Ch>
int execute(const RxObject* object, const Ch* string, size_t length, RxDetails* details, size_t matchCount,
            RxMatch* matches, int flags) noexcept
{
    if (object == nullptr || string == nullptr || object->magic != RX_OBJECT_MAGIC) return RX_ERR_ARGUMENT;
    if (object->unitSize != CharTraits<Ch>::kUnitSize) return RX_ERR_WIDTH;
    const auto* in = static_cast<const Internals*>(object->internals);
    if (in == nullptr || in->magic != kInternalsMagic) return RX_ERR_ARGUMENT;
    if ((in->compFlags & RX_WANTDETAILS) && details == nullptr) return RX_ERR_ARGUMENT;
    if (in->info & RX_NEVER_MATCHES) return RX_NOMATCH;
    if (in->compFlags & RX_NOGROUPS) matchCount = 0;
    if (matchCount > 0 && matches == nullptr) return RX_ERR_ARGUMENT;

    // A pattern that is a single literal, asked for no group but the whole
    // match: the search alone answers, with no automaton and no caches.
    const bool literal = in->prefilter.whole && !(in->info & RX_USES_BACKREF) && !(in->compFlags & RX_WANTDETAILS);
    if (literal && std::min(matchCount, in->groupCount + 1) <= 1) {
        const Ch* at = PrefilterCursor<Ch>(*in, string + length).findNeedle(string);
        if (!at) return RX_NOMATCH;
        if (matchCount == 0) return RX_OK;
        const auto begin = static_cast<int64_t>(at - string);
        matches[0] = {begin, begin + static_cast<int64_t>(in->prefilter.needles.front().size())};
        for (size_t i = 1; i < matchCount; ++i) matches[i] = {-1, -1};
        return RX_OK;
    }

    try {
        ExecState<Ch> ex;
        ex.in = in;
        ex.runFlags = flags;
        ex.details = (in->compFlags & RX_WANTDETAILS) ? details : nullptr;
        ex.start = string;
        ex.stop = string + length;
        const CacheLease lease(*in, flags & RX_SMALLCACHE);
        ex.caches = lease.get();

        const bool backrefs = in->info & RX_USES_BACKREF;
        RxMatch inlineMatches[kInlineMatches];
        std::vector<RxMatch> heapMatches;

        // A back-reference needs every group, even if the caller wants none.
        ex.groupsWanted = backrefs ? in->groupCount + 1 : std::min(matchCount, in->groupCount + 1);
        if (ex.groupsWanted <= kInlineMatches) {
            ex.matches = inlineMatches;
        } else {
            heapMatches.resize(ex.groupsWanted);
            ex.matches = heapMatches.data();
        }
        for (size_t i = 0; i < ex.groupsWanted; ++i) ex.matches[i] = {-1, -1};

        const int r = backrefs ? findWithBackrefs(ex) : find(ex);
        if (r != RX_OK) return r;
        for (size_t i = 0; i < matchCount; ++i) matches[i] = {-1, -1};
        const size_t n = std::min(matchCount, ex.groupsWanted);
        for (size_t i = 0; i < n; ++i) matches[i] = ex.matches[i];
        return RX_OK;
    } catch (const std::bad_alloc&) {
        return RX_ERR_MEMORY;
    } catch (...) {
        return RX_ERR_INTERNAL;
    }
}

}  // namespace
}  // namespace IMPL::rx

int rxcomp(RxObject* object, const char* pattern, size_t length, int flags) noexcept
{
    return IMPL::rx::compilePattern(object, pattern, length, flags);
}

int rxcomp(RxObject* object, const wchar_t* pattern, size_t length, int flags) noexcept
{
    return IMPL::rx::compilePattern(object, pattern, length, flags);
}

int rxexec(const RxObject* object, const char* string, size_t length, RxDetails* details, size_t matchCount,
           RxMatch* matches, int flags) noexcept
{
    return IMPL::rx::execute(object, string, length, details, matchCount, matches, flags);
}

int rxexec(const RxObject* object, const wchar_t* string, size_t length, RxDetails* details, size_t matchCount,
           RxMatch* matches, int flags) noexcept
{
    return IMPL::rx::execute(object, string, length, details, matchCount, matches, flags);
}

}  // namespace Karu

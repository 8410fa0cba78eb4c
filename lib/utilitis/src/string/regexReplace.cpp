// The regular-expression replace loops, both widths, both forms.
//
// The replacement text is read once per call into a plan: runs of literal
// units and references to groups. Reading it per match would cost a scan of
// the replacement at every match; the plan makes a match cost one append per
// piece. A reference to a group that the pattern does not have is dropped
// when the plan is made, since the number of groups is fixed by the pattern.
//
// The two forms differ in how they decide whether the next attempt starts a
// line. The copying form looks at the output built so far: after a
// replacement the unit in front of the next attempt is the replacement's last
// unit, and the output ends with it. The in-place form asks the match loop
// to look at the unit in front of the attempt in the rewritten text. They
// agree except behind an empty match, where the copying form's output lacks
// the unit that was stepped over; that difference is kept, because each form
// is consistent with the text it has in hand.
#include <karu/string/regexReplace.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace Karu {

namespace {

// Text growth the copying form expects through substitution: an initial
// capacity that lets most runs finish without a reallocation.
constexpr double kExpectedGrowth = 1.17;

template <class T>
class ReplacementPlan {
public:
    ReplacementPlan(const basic_string_ex<T>& replacement, uint64_t groupEntries)
    {
        const T* r = replacement.data();
        const uint64_t n = replacement.size();
        _literal.ReserveExact(n + 1);
        uint64_t runStart = 0;
        for (uint64_t i = 0; i < n; ++i) {
            if (r[i] != T('\\')) {
                _literal.push_back(r[i]);
                continue;
            }
            if (i + 1 == n)
                break;  // a trailing backslash escapes nothing and goes
            const T next = r[++i];
            if (next >= T('0') && next <= T('9')) {
                const uint64_t group = static_cast<uint64_t>(next - T('0'));
                if (group < groupEntries) {
                    __CloseRun(runStart);
                    _pieces.push_back({int64_t(group), 0, 0});
                }
                continue;
            }
            _literal.push_back(next);
        }
        __CloseRun(runStart);
    }

    void AppendTo(basic_string_ex<T>& out, const basic_string_ex<T>& text, const RegexMatches& matches) const
    {
        for (const Piece& piece : _pieces) {
            if (piece.group < 0) {
                out.append(_literal.data() + piece.offset, piece.length);
                continue;
            }
            const RegexSpan& span = matches[static_cast<size_t>(piece.group)];
            // Only what lies inside the text: a group that took no part has
            // an offset in front of its attempt and no length.
            const int64_t size = static_cast<int64_t>(text.size());
            const int64_t from = std::clamp<int64_t>(span.offset, 0, size);
            const int64_t to = std::clamp<int64_t>(span.offset + span.length, from, size);
            out.append(text.data() + from, static_cast<uint64_t>(to - from));
        }
    }

private:
    struct Piece {
        int64_t group;  // -1: a run of _literal
        uint64_t offset, length;
    };

    void __CloseRun(uint64_t& runStart)
    {
        if (_literal.size() > runStart)
            _pieces.push_back({-1, runStart, _literal.size() - runStart});
        runStart = _literal.size();
    }

    basic_string_ex<T> _literal;
    std::vector<Piece> _pieces;
};

template <class T>
void ExpandReplacementEscapes(basic_string_ex<T>& replacement)
{
    // Doubled backslashes stay doubled here, so that the plan can still tell
    // an escaped backslash in front of a digit from a group reference.
    ExpandEscapes(replacement, T('\\'), ReplacementEscapeTable<T>(), false, true);
}

}  // namespace

template <class T>
basic_string_ex<T> BuildReplacement(const basic_string_ex<T>& text, const RegexMatches& matches,
                                    const basic_string_ex<T>& replacement)
{
    basic_string_ex<T> out;
    ReplacementPlan<T>(replacement, matches.size()).AppendTo(out, text, matches);
    return out;
}

template <class T>
uint32_t RegexReplaceCopy(const basic_string_ex<T>& source, basic_string_ex<T>& destination,
                          const RegexHandle& handle, basic_string_ex<T> replacement, bool notBol, bool notEol,
                          bool expandEscapes)
{
    return RegexReplaceCopy(source, source, destination, handle, std::move(replacement), notBol, notEol,
                            expandEscapes);
}

template <class T>
uint32_t RegexReplaceCopy(const basic_string_ex<T>& source, const basic_string_ex<T>& view,
                          basic_string_ex<T>& destination, const RegexHandle& handle, basic_string_ex<T> replacement,
                          bool notBol, bool notEol, bool expandEscapes)
{
    // Holding both keeps their text readable even when the destination
    // shares their storage and detaches below.
    const basic_string_ex<T> src = source, seen = view;
    if (!handle) {
        // A pattern that did not compile replaces nothing: the destination
        // must still carry the whole text, since the caller takes it as the
        // result. Sharing costs no copy.
        destination = src;
        return 0;
    }
    destination.clear();
    if (expandEscapes)
        ExpandReplacementEscapes(replacement);
    const ReplacementPlan<T> plan(replacement, handle.GroupCount() + 1);
    const bool multiline = (handle.CompileFlags() & kRegexLineMode) != 0;
    destination.ReserveExact(static_cast<uint64_t>(static_cast<double>(src.size()) * kExpectedGrowth) + 1);

    RegexMatches matches;
    uint64_t offset = 0, mark = 0;
    uint32_t count = 0;
    while (RegexFind(seen, matches, handle, 0, offset, notBol, notEol, false)) {
        const uint64_t start = static_cast<uint64_t>(matches[0].offset);
        const uint64_t length = static_cast<uint64_t>(matches[0].length);
        destination.append(src.data() + mark, start - mark);
        plan.AppendTo(destination, src, matches);
        mark = start + length;
        // The unit stepped over after an empty match lies behind the mark,
        // so the next copy or the tail still takes it.
        offset = mark + (length == 0 ? 1 : 0);
        const bool empty = destination.empty();
        notBol = multiline ? !empty && destination[destination.size() - 1] != T('\n') : !empty;
        ++count;
    }
    destination.append(src.data() + mark, src.size() - mark);
    return count;
}

template <class T>
uint32_t RegexReplaceInPlace(basic_string_ex<T>& text, const RegexHandle& handle, basic_string_ex<T> replacement,
                             bool notBol, bool notEol, bool expandEscapes)
{
    if (expandEscapes)
        ExpandReplacementEscapes(replacement);
    if (!handle)
        return 0;
    const ReplacementPlan<T> plan(replacement, handle.GroupCount() + 1);
    RegexMatches matches;
    basic_string_ex<T> substitution;
    uint64_t offset = 0;
    uint32_t count = 0;
    while (RegexFind(text, matches, handle, 0, offset, notBol, notEol, true)) {
        substitution.clear();
        plan.AppendTo(substitution, text, matches);
        const uint64_t start = static_cast<uint64_t>(matches[0].offset);
        const uint64_t length = std::min(static_cast<uint64_t>(matches[0].length), text.size() - start);
        text.replace(start, length, substitution);
        // The replacement is never scanned again within this pair.
        offset = start + substitution.size() + (matches[0].length == 0 ? 1 : 0);
        ++count;
    }
    return count;
}

#define KARU_REGEX_REPLACE_INSTANCES(T)                                                                       \
    template basic_string_ex<T> BuildReplacement<T>(const basic_string_ex<T>&, const RegexMatches&,          \
                                                    const basic_string_ex<T>&);                              \
    template uint32_t RegexReplaceCopy<T>(const basic_string_ex<T>&, basic_string_ex<T>&, const RegexHandle&, \
                                          basic_string_ex<T>, bool, bool, bool);                              \
    template uint32_t RegexReplaceCopy<T>(const basic_string_ex<T>&, const basic_string_ex<T>&,              \
                                          basic_string_ex<T>&, const RegexHandle&, basic_string_ex<T>, bool,  \
                                          bool, bool);                                                        \
    template uint32_t RegexReplaceInPlace<T>(basic_string_ex<T>&, const RegexHandle&, basic_string_ex<T>, bool, \
                                             bool, bool);

KARU_REGEX_REPLACE_INSTANCES(char)
KARU_REGEX_REPLACE_INSTANCES(wchar_t)

}  // namespace Karu

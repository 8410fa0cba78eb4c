// A group of one character from a small set, followed in the same branch by
// a reference to it: ([a-z])\1, (['"])[^'"]*\1.
//
// An automaton takes a reference for any text of its group's language, so
// for ([a-z])\1 it takes any two letters, and the search with references
// tries nearly every letter of a text as a start. For such a pair the search
// automaton can be exact: one path for each character the group can take,
// through a copy of what lies between, to the same character again. The
// group's characters are given colours of their own when the reference is
// read, so that each path can tell them apart.
//
// Only the search automaton and the root's change: they decide where starts
// are tried and which ends are candidates, and the other automata of the
// tree still take a reference for its group's language. Which starts and
// ends are tried is visible only where a candidate at its extreme ends the
// search, which needs a pattern that prefers the shortest or can match the
// empty string; those keep the plain automata.
#include "compiler.h"

#include <algorithm>

namespace Karu::IMPL::rx {

namespace {

// More characters than this, or a copy of the part between that would be
// larger than kPairStates states in all, and the search stays as it is.
constexpr size_t kPairCharacters = 64;
constexpr long kPairStates = 8192;
constexpr size_t kPairClosure = 4 * kPairCharacters + 16;

}  // namespace

// The characters of a group that takes exactly one character, without
// constraints; none otherwise.
template <class Ch>
std::vector<uint32_t> Compiler<Ch>::oneCharacter(State* begin, State* end)
{
    // The states empty arcs reach from `from`, not going past `end`; a group
    // of a few characters reaches few (larger ones are cut short).
    auto closure = [&](std::vector<State*> from) {
        ++_walkStamp;
        for (State* s : from) s->walk = _walkStamp;
        for (size_t i = 0; i < from.size() && from.size() <= kPairClosure; ++i) {
            if (from[i] == end) continue;
            for (Arc* a = from[i]->outs; a; a = a->outNext)
                if (a->type == kEmpty && a->to->walk != _walkStamp) {
                    a->to->walk = _walkStamp;
                    from.push_back(a->to);
                }
        }
        return from;
    };
    std::vector<colour> colours;
    std::vector<State*> after;
    const std::vector<State*> first = closure({begin});
    if (first.size() > kPairClosure) return {};
    for (State* s : first) {
        if (s == end) return {};  // it can take nothing
        for (Arc* a = s->outs; a; a = a->outNext) {
            if (a->type == kEmpty) continue;
            if (a->type != kPlain) return {};
            colours.push_back(a->co);
            after.push_back(a->to);
        }
    }
    bool reachesEnd = false;
    const std::vector<State*> second = closure(after);
    if (second.size() > kPairClosure) return {};
    for (State* s : second) {
        if (s == end) {
            reachesEnd = true;
            continue;
        }
        for (Arc* a = s->outs; a; a = a->outNext)
            if (a->type != kEmpty) return {};
    }
    if (!reachesEnd || colours.empty()) return {};
    const ColourMap& map = _internals->colourMap;
    size_t total = 0;
    std::sort(colours.begin(), colours.end());
    colours.erase(std::unique(colours.begin(), colours.end()), colours.end());
    for (colour c : colours) {
        if (map.pseudo(c)) return {};
        total += map.desc(c).charCount;
    }
    if (total > kPairCharacters) return {};
    std::vector<uint32_t> chars;
    for (colour c : colours) map.members(c, chars);
    return chars;
}

// Called for every atom without a quantifier that a group or reference
// gives a node of its own.
template <class Ch>
void Compiler<Ch>::notePair(int kind, int groupNo, const Subexpr& atom)
{
    if (groupNo <= 0) return;
    if (kind == '(') {
        std::vector<uint32_t> chars = oneCharacter(atom.begin, atom.end);
        if (chars.empty()) return;
        if (_oneChar.size() <= static_cast<size_t>(groupNo)) _oneChar.resize(static_cast<size_t>(groupNo) + 1);
        _oneChar[static_cast<size_t>(groupNo)] = {atom.begin, atom.end, _branch, std::move(chars)};
        return;
    }
    if (kind != kTokBackref || static_cast<size_t>(groupNo) >= _oneChar.size()) return;
    OneCharGroup& group = _oneChar[static_cast<size_t>(groupNo)];
    if (group.chars.empty() || group.branch != _branch) return;
    // Each character a colour of its own; arcs of the colour it leaves get
    // parallel arcs on it, as for any split.
    ColourMap& map = _internals->colourMap;
    for (uint32_t c : group.chars) {
        map.splitChar(c);
        map.settle(*_nfa);
    }
    _pairs.push_back({group.begin, group.end, atom.begin, atom.end, std::move(group.chars)});
    group.chars.clear();  // a later reference keeps the plain form
}

// The search automaton's form of each pair: from the group's begin, one arc
// for each character, a copy of the part between, and the same character
// into the reference's end. The old paths lose their way in and go with the
// first cleanup.
template <class Ch>
void Compiler<Ch>::exactPairs()
{
    Nfa& nfa = *_nfa;
    const ColourMap& map = _internals->colourMap;
    for (const ExactPair& pair : _pairs) {
        if (_sink.failed()) return;
        long between = 0;
        if (pair.groupEnd != pair.refBegin) {
            ++_walkStamp;
            std::vector<State*> work{pair.groupEnd};
            pair.groupEnd->walk = _walkStamp;
            while (!work.empty() && between <= kPairStates) {
                State* s = work.back();
                work.pop_back();
                ++between;
                if (s == pair.refBegin) continue;
                for (Arc* a = s->outs; a; a = a->outNext)
                    if (a->to->walk != _walkStamp) {
                        a->to->walk = _walkStamp;
                        work.push_back(a->to);
                    }
            }
        }
        // The characters a reference takes for one another: each alone, or
        // those that fold together when case is ignored.
        std::vector<std::vector<uint32_t>> alike;
        for (uint32_t c : pair.chars) {
            auto same = [&](const std::vector<uint32_t>& set) {
                return (_flags & RX_FOLDCASE) && equalFolded<Ch>(static_cast<Ch>(set.front()), static_cast<Ch>(c));
            };
            auto at = std::find_if(alike.begin(), alike.end(), same);
            if (at == alike.end())
                alike.push_back({c});
            else
                at->push_back(c);
        }
        if (between * static_cast<long>(alike.size()) > kPairStates) continue;
        while (Arc* a = pair.groupBegin->outs) nfa.arcRemove(a);
        for (const std::vector<uint32_t>& set : alike) {
            State* first = nfa.stateCreate();
            State* last = nfa.stateCreate();
            if (_sink.failed()) return;
            for (uint32_t c : set) nfa.arcAdd(kPlain, map.colourOf(c), pair.groupBegin, first);
            nfa.copyBetween(nfa, pair.groupEnd, pair.refBegin, first, last);
            for (uint32_t c : set) nfa.arcAdd(kPlain, map.colourOf(c), last, pair.refEnd);
        }
    }
}

template class Compiler<char>;
template class Compiler<wchar_t>;

}  // namespace Karu::IMPL::rx

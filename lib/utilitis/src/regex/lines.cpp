// See lines.h.
#include "lines.h"

#include <algorithm>
#include <vector>

namespace Karu::IMPL::rx {

namespace {

const CompactArc* row(const CompactNfa& a, int state)
{
    return &a.arcs[a.rows[static_cast<size_t>(state)] + 1];
}

// The states the first step reaches from context `co`, in order.
std::vector<int> firstStep(const CompactNfa& a, colour co)
{
    std::vector<int> to;
    for (const CompactArc* arc = row(a, a.entry); arc->co != kNoColour; ++arc)
        if (arc->co == co)
            to.push_back(arc->to);
    std::sort(to.begin(), to.end());
    return to;
}

bool takesLineFeed(const CompactNfa& a, colour lineFeed)
{
    for (int s = 0; s < a.stateCount; ++s) {
        if (s == a.entry)
            continue;
        for (const CompactArc* arc = row(a, s); arc->co != kNoColour; ++arc)
            if (arc->co == lineFeed && arc->to != a.exit)
                return true;
    }
    return false;
}

// Whether the last step out of `state` may take colour `co` to the exit.
bool endsOn(const CompactNfa& a, int state, colour co)
{
    for (const CompactArc* arc = row(a, state); arc->co != kNoColour; ++arc)
        if (arc->co == co && arc->to == a.exit)
            return true;
    return false;
}

}  // namespace

bool matchesOnlyAscii(const Internals& in)
{
    if (in.info & (RX_USES_LOOKAHEAD | RX_CAN_BE_EMPTY))
        return false;
    // Per colour, from one reading of the alphabet: whether it holds a
    // character beyond ASCII, and whether it holds one other than the line
    // feed (such a colour can be the context of a character that is not a
    // line feed, in the text or in its bytes).
    const ColourMap& map = in.colourMap;
    const size_t colours = static_cast<size_t>(map.max()) + 1;
    std::vector<bool> beyond(colours, false), notLineFeed(colours, false);
    for (uint32_t idx = 0; idx < map.alphabet(); ++idx) {
        const colour c = map.colourOf(idx);
        if (c < 0 || static_cast<size_t>(c) >= colours)
            continue;
        if (idx >= 0x80)
            beyond[static_cast<size_t>(c)] = true;
        if (idx != '\n')
            notLineFeed[static_cast<size_t>(c)] = true;
    }
    std::vector<colour> contexts;  // the colours a character other than a line feed may have
    for (colour c = 0; static_cast<size_t>(c) < colours; ++c)
        if (map.live(c) && !map.pseudo(c) && notLineFeed[static_cast<size_t>(c)])
            contexts.push_back(c);
    for (const auto& node : in.nodes) {
        const CompactNfa& a = node->automaton;
        if (a.empty())
            continue;
        // The first step must treat every such context alike...
        const std::vector<int> first = firstStep(a, contexts.front());
        for (const colour c : contexts)
            if (firstStep(a, c) != first)
                return false;
        for (int s = 0; s < a.stateCount; ++s) {
            if (s == a.entry)
                continue;
            // ...and so must the last, which reads the character after the
            // match, while the steps between read only ASCII.
            // (An empty arc reads nothing; its target is judged as a state of its own.)
            for (const CompactArc* arc = row(a, s); arc->co != kNoColour; ++arc)
                if (arc->to != a.exit && arc->co != kEmptyArc &&
                    (arc->co >= a.colourCount || beyond[static_cast<size_t>(arc->co)]))
                    return false;
            const bool ends = endsOn(a, s, contexts.front());
            for (const colour c : contexts)
                if (endsOn(a, s, c) != ends)
                    return false;
        }
    }
    return true;
}

bool staysWithinLines(const Internals& in)
{
    if (in.info & RX_USES_LOOKAHEAD)
        return false;
    const colour lineFeed = in.colourMap.colourOf(uint32_t('\n'));
    std::vector<const CompactNfa*> automata{&in.search};
    for (const auto& node : in.nodes)
        automata.push_back(&node->automaton);
    for (const CompactNfa* a : automata) {
        if (a->empty())
            continue;
        // The searching automaton loops on every colour at its start; only
        // the others say what a match may hold.
        if (a != &in.search && takesLineFeed(*a, lineFeed))
            return false;
        if (firstStep(*a, a->startColours[1]) != firstStep(*a, lineFeed))
            return false;
    }
    return true;
}

}  // namespace Karu::IMPL::rx

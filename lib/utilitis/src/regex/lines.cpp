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

}  // namespace

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

// See prefix.h.
#include "prefix.h"

#include "classes.h"

#include <cstring>

namespace Karu::IMPL::rx {

namespace {

// A first colour of more characters than this (a class, a folded letter
// beyond its two cases) is too common to be worth a scan.
constexpr uint32_t kFirstChars = 4;

// Real colours the text can show: live and not standing for a string end.
bool realColour(const ColourMap& map, colour c)
{
    return c >= 0 && c <= map.max() && map.live(c) && !map.pseudo(c);
}

// Whether a state's arcs all lead to `to` and cover every real colour and
// both given pseudo colours: a step that accepts any context.
bool acceptsAny(const CompactNfa& a, const ColourMap& map, int state, int to, const colour (&pseudo)[2])
{
    int real = 0;
    bool ends[2] = {false, false};
    for (const CompactArc* arc = &a.arcs[a.rows[static_cast<size_t>(state)] + 1]; arc->co != kNoColour; ++arc) {
        if (arc->to != to || arc->co < 0 || arc->co >= a.colourCount) return false;
        if (realColour(map, arc->co)) ++real;
        for (int i = 0; i < 2; ++i)
            if (arc->co == pseudo[i]) ends[i] = true;
    }
    int live = 0;
    for (colour c = 0; c <= map.max(); ++c)
        if (realColour(map, c)) ++live;
    return real == live && ends[0] && ends[1];
}

}  // namespace

void analysePrefix(Internals& in)
{
    in.prefix.clear();
    in.prefixBytes.clear();
    in.prefixIsWhole = false;
    const CompactNfa& a = in.tree->automaton;
    const ColourMap& map = in.colourMap;
    if (a.empty()) return;
    auto row = [&](int state) { return &a.arcs[a.rows[static_cast<size_t>(state)] + 1]; };

    // The context step must lead to one state. (An automaton that kept
    // empty arcs may reach more states than its arcs say; the chain below
    // stops at any state with more than one arc, an empty one included.)
    int state = -1;
    for (const CompactArc* arc = row(a.entry); arc->co != kNoColour; ++arc) {
        if (state != -1 && arc->to != state) return;
        state = arc->to;
    }
    if (state == -1 || state == a.exit) return;
    const int first = state;

    // The characters of each colour are counted in one reading of the
    // alphabet; the first colour must be rare enough to scan for.
    std::vector<uint32_t> only(static_cast<size_t>(a.colourCount), 0);
    std::vector<uint32_t> count(static_cast<size_t>(a.colourCount), 0);
    for (uint32_t idx = 0; idx < map.alphabet(); ++idx) {
        const colour c = map.colourOf(idx);
        if (c < 0 || c >= a.colourCount) continue;
        ++count[static_cast<size_t>(c)];
        only[static_cast<size_t>(c)] = idx;
    }
    for (;;) {
        const CompactArc* arc = row(state);
        if (arc->co == kNoColour || arc[1].co != kNoColour) break;  // not exactly one arc
        if (arc->to == a.exit || !realColour(map, arc->co) || arc->co >= a.colourCount) break;
        if (in.prefix.empty() && count[static_cast<size_t>(arc->co)] > kFirstChars) break;
        in.prefix.push_back(arc->co);
        state = arc->to;
        if (in.prefix.size() > 4096) break;  // plenty to search for
    }
    if (in.prefix.empty()) return;
    if (in.unitSize == 1)
        for (colour c : in.prefix) {
            if (count[static_cast<size_t>(c)] != 1) break;
            in.prefixBytes.push_back(static_cast<char>(only[static_cast<size_t>(c)]));
        }
    in.prefixIsWhole = acceptsAny(a, map, a.entry, first, a.startColours) &&
                       acceptsAny(a, map, state, a.exit, a.endColours);
}

template <class Ch>
const Ch* findPrefix(const Internals& in, const Ch* from, const Ch* stop) noexcept
{
    const size_t n = in.prefix.size();
    if (static_cast<size_t>(stop - from) < n) return nullptr;
    // Colour by colour, as the automata read (CharTraits::index), a folded
    // letter as either case.
    const ColourMap& map = in.colourMap;
    auto colourAt = [&map](Ch c) {
        return map.colourOf(CharTraits<Ch>::index(CharTraits<Ch>::value(c)));
    };
    const colour* p = in.prefix.data();
    const Ch* last = stop - n;
    if constexpr (sizeof(Ch) == 1) {
        // The bytes the prefix begins with are found by a string search and
        // the rest is checked colour by colour.
        const size_t k = in.prefixBytes.size();
        for (const Ch* cp = from; k && cp <= last; ++cp) {
            cp = static_cast<const Ch*>(memmem(cp, static_cast<size_t>(stop - cp), in.prefixBytes.data(), k));
            if (!cp || cp > last) return nullptr;
            size_t i = k;
            while (i < n && colourAt(cp[i]) == p[i]) ++i;
            if (i == n) return cp;
        }
        if (k) return nullptr;
    }
    for (const Ch* cp = from; cp <= last; ++cp) {
        if (colourAt(*cp) != p[0]) continue;
        size_t i = 1;
        while (i < n && colourAt(cp[i]) == p[i]) ++i;
        if (i == n) return cp;
    }
    return nullptr;
}

template const char* findPrefix<char>(const Internals&, const char*, const char*) noexcept;
template const wchar_t* findPrefix<wchar_t>(const Internals&, const wchar_t*, const wchar_t*) noexcept;

}  // namespace Karu::IMPL::rx

// Lookups in the generated Unicode character table. See unicode.h for the
// shape of a property word; the table itself comes from tools/gen_unicode.py.
#include <karu/string/unicode.h>

#include <algorithm>

namespace Karu {
namespace {

#include "unicode_table.inc"

constexpr uint32_t kKindHasLower = 0x40;
constexpr uint32_t kKindStepsToUpper = 0x20;
constexpr uint32_t kKindUpperOnly = 0x80;
constexpr uint32_t kKindMask = 0xE0;

int Delta(uint32_t word) noexcept
{
    return static_cast<int32_t>(word) >> 22;  // bits 22..31, signed
}

// Mapping of a unit whose delta does not fit the word.
const UniWideCase* WideCase(wchar_t u) noexcept
{
    const uint16_t key = static_cast<uint16_t>(u);
    const UniWideCase* end = kUniWideCase + sizeof kUniWideCase / sizeof kUniWideCase[0];
    const UniWideCase* it = std::lower_bound(kUniWideCase, end, key,
                                             [](const UniWideCase& row, uint16_t k) { return row.unit < k; });
    return it != end && it->unit == key ? it : nullptr;
}

// The low 16 bits of u moved to the mapped unit, keeping the high bits: a
// unit above the basic plane aliases into it, and so does its mapping.
wchar_t Moved(wchar_t u, uint16_t to) noexcept
{
    return static_cast<wchar_t>((static_cast<uint32_t>(u) & ~0xFFFFu) | to);
}

}  // namespace

uint32_t UniProperties(wchar_t u) noexcept
{
    const uint32_t low = static_cast<uint32_t>(u) & 0xFFFF;
    const uint32_t page = kUniPageMap[low >> kUniPageBits];
    return kUniProps[kUniGroupMap[(page << kUniPageBits) | (low & ((1u << kUniPageBits) - 1))]];
}

wchar_t ToLower(wchar_t u) noexcept
{
    const uint32_t word = UniProperties(u);
    if (!(word & kKindHasLower))
        return u;
    if (Delta(word) == kUniDeltaEscape) {
        const UniWideCase* row = WideCase(u);
        return row ? Moved(u, row->lower) : u;
    }
    return static_cast<wchar_t>(u + Delta(word));
}

wchar_t ToUpper(wchar_t u) noexcept
{
    const uint32_t word = UniProperties(u);
    const uint32_t kind = word & kKindMask;
    if (word & kKindStepsToUpper)
        return kind >= 0x80 ? u - 1 : u + 1;
    if (kind != kKindUpperOnly)
        return u;
    if (Delta(word) == kUniDeltaEscape) {
        const UniWideCase* row = WideCase(u);
        return row ? Moved(u, row->upper) : u;
    }
    return static_cast<wchar_t>(u - Delta(word));
}

namespace {

struct Lowering {
    wchar_t lower;
    wchar_t unit;
};

// Every unit of the basic plane that ToLower changes, by its lower case: the
// inverse of the folding, read once from the table.
const std::vector<Lowering>& LoweringTable() noexcept
{
    static const std::vector<Lowering> table = [] {
        std::vector<Lowering> rows;
        for (uint32_t u = 0; u <= 0xFFFF; ++u) {
            const wchar_t unit = static_cast<wchar_t>(u);
            const wchar_t lower = ToLower(unit);
            if (lower != unit)
                rows.push_back({lower, unit});
        }
        std::stable_sort(rows.begin(), rows.end(), [](const Lowering& a, const Lowering& b) { return a.lower < b.lower; });
        return rows;
    }();
    return table;
}

}  // namespace

int UnitsLoweringTo(wchar_t lower, wchar_t* out, int room) noexcept
{
    int n = 0;
    auto put = [&](wchar_t u) {
        if (n < room)
            out[n] = u;
        ++n;
    };
    if (lower >= 0 && lower <= 0xFFFF && ToLower(lower) == lower)
        put(lower);
    const std::vector<Lowering>& table = LoweringTable();
    auto it = std::lower_bound(table.begin(), table.end(), lower,
                               [](const Lowering& row, wchar_t key) { return row.lower < key; });
    for (; it != table.end() && it->lower == lower; ++it)
        put(it->unit);
    return n;
}

const std::vector<wchar_t>& UnitsLoweringIntoAscii() noexcept
{
    static const std::vector<wchar_t> units = [] {
        std::vector<wchar_t> found;
        for (const Lowering& row : LoweringTable())
            if (row.lower >= 0 && row.lower < 0x80 && static_cast<uint32_t>(row.unit) >= 0x80)
                found.push_back(row.unit);
        std::sort(found.begin(), found.end());
        return found;
    }();
    return units;
}

int CaseVariants(wchar_t u, wchar_t out[4]) noexcept
{
    int n = 0;
    auto add = [&](wchar_t v) {
        if (std::find(out, out + n, v) == out + n)
            out[n++] = v;
    };
    add(u);
    const wchar_t lower = ToLower(u);
    add(lower);
    add(ToUpper(u));
    add(ToUpper(lower));
    // A title-case digraph sits just below its lower-case form.
    const wchar_t title = lower - 1;
    if (n < 4 && UniCategoryOf(title) == kUniLt && ToLower(title) == lower)
        add(title);
    return n;
}

}  // namespace Karu

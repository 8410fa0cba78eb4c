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

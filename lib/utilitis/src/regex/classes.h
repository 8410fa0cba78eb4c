// Character knowledge of the two builds: named classes, collating names and
// case variants. The narrow build asks the platform (class predicates of the
// current locale, falling back to fixed "C" members; the C library's case
// tables); the wide build uses generated Unicode lists and the string
// library's case table, and never depends on the locale.
#pragma once

#include "common.h"

#include <karu/string/unicode.h>

#include <cstddef>
#include <utility>
#include <vector>

namespace Karu::IMPL::rx {

// An interim character set, in alphabet indexes (the low 8 or 16 bits of a
// unit), on its way into the colour map.
struct CharVector {
    std::vector<uint32_t> chars;
    std::vector<std::pair<uint32_t, uint32_t>> ranges;
    void clear()
    {
        chars.clear();
        ranges.clear();
    }
};

template <class Ch>
struct CharTraits;

template <>
struct CharTraits<char> {
    static constexpr bool kWide = false;
    static constexpr int kUnitSize = 1;
    static constexpr uint32_t kMask = 0xFF;
    // Range end points compare as signed bytes.
    static int32_t value(char c) { return static_cast<signed char>(c); }
    static uint32_t index(int32_t v) { return static_cast<uint32_t>(v) & kMask; }
    static int32_t fromNumber(uint32_t n) { return static_cast<signed char>(static_cast<unsigned char>(n)); }
};

// The wide alphabet is the basic plane, and a unit above it aliases into the
// plane by its low 16 bits, with one exception: the slots of the lone low
// surrogates U+DC00..U+DCFF belong to the escape units, the bytes a
// conversion could not decode (see karu/string/unicode.h). Any other unit
// above the plane that would land there takes the high surrogate slot 0x400
// below instead. No decoded text holds a lone surrogate, so a carried byte is
// matched by itself, by "." and by negated classes, and never by a
// character or a named class.
template <>
struct CharTraits<wchar_t> {
    static constexpr bool kWide = true;
    static constexpr int kUnitSize = 4;
    static constexpr uint32_t kMask = 0xFFFF;
    static int32_t value(wchar_t c) { return static_cast<int32_t>(c); }
    static uint32_t index(int32_t v) noexcept
    {
        const uint32_t u = static_cast<uint32_t>(v);
        if (u <= kMask) [[likely]]
            return u;
        return aboveBasicPlane(u);
    }
    static int32_t fromNumber(uint32_t n) { return static_cast<int32_t>(n); }

private:
    static constexpr uint32_t kEscapeSlots = kEscapeUnitBase & kMask;
    static constexpr uint32_t kMovedBy = 0x400;  // to the high surrogates' slots
    static uint32_t aboveBasicPlane(uint32_t u) noexcept
    {
        const uint32_t low = u & kMask;
        if (low - kEscapeSlots >= 0x100 || IsEscapeUnit(static_cast<wchar_t>(u)))
            return low;
        return low - kMovedBy;
    }
};

// The code of a collating name ("alert", "space", "DEL", ...), or -1.
template <class Ch>
int32_t collatingCode(const Ch* name, size_t length);

// Adds the members of a named class to `out`; false if the name is unknown.
// With `foldCase`, "lower" and "upper" mean "alpha".
template <class Ch>
bool namedClass(const Ch* name, size_t length, bool foldCase, CharVector& out);

// The case forms of c other than c itself, in alphabet values (lower, upper,
// title where different). Returns how many were written.
template <class Ch>
int caseVariants(int32_t c, int32_t out[3]);

// Compare two units ignoring case, the way back-references under case folding do.
template <class Ch>
bool equalFolded(Ch a, Ch b);

}  // namespace Karu::IMPL::rx

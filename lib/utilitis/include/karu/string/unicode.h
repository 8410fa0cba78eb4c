// The library's Unicode character table: general category and simple,
// one-unit-to-one-unit case mapping for the Basic Multilingual Plane.
//
// The table is three arrays made by tools/gen_unicode.py: a page map indexed
// by bits 5..15 of a unit, a group map indexed by (page * 32) | (unit & 31),
// and 32-bit property words. Only the low 16 bits of a unit are looked at, so
// a unit above U+FFFF aliases into the basic plane; this is deliberate and the
// regular-expression colour map does the same.
//
// Property word: bits 0..4 category, bits 5..7 case kind, bits 22..31 a signed
// case delta. A few modern case pairs lie further apart than ten bits can say;
// their words carry the reserved delta kUniDeltaEscape and the mapping is read
// from a short side list instead.
#pragma once

#include <cstdint>
#include <vector>

namespace Karu {

// A byte that a conversion could not decode, carried through wide text as
// one unit that no character takes: kEscapeUnitBase plus the byte, above
// U+10FFFF. Its low 16 bits are those of the lone surrogates U+DC00..U+DCFF,
// which no decoded text holds, so whatever reads a unit by its low 16 bits
// (this table, the regular-expression alphabet) sees no character there: an
// escape unit is of category Cs, has no case and is no blank.
constexpr uint32_t kEscapeUnitBase = 0x11DC00;

constexpr wchar_t EscapeUnit(unsigned char byte) noexcept
{
    return static_cast<wchar_t>(kEscapeUnitBase + byte);
}

constexpr bool IsEscapeUnit(wchar_t u) noexcept
{
    return static_cast<uint32_t>(u) - kEscapeUnitBase < 0x100;
}

// The byte an escape unit carries.
constexpr unsigned char EscapedByte(wchar_t u) noexcept
{
    return static_cast<unsigned char>(static_cast<uint32_t>(u) & 0xFF);
}

// General categories as the table numbers them (bits 0..4 of a word).
enum UniCategory : uint8_t {
    kUniUnassigned = 0, kUniLu = 1, kUniLl = 2, kUniLt = 3, kUniLm = 4, kUniLo = 5,
    kUniMn = 6, kUniMe = 7, kUniMc = 8, kUniNd = 9, kUniNl = 10, kUniNo = 11,
    kUniZs = 12, kUniZl = 13, kUniZp = 14, kUniCc = 15, kUniCf = 16, kUniCo = 17,
    kUniCs = 18, kUniPc = 19, kUniPd = 20, kUniPs = 21, kUniPe = 22, kUniPi = 23,
    kUniPf = 24, kUniPo = 25, kUniSm = 26, kUniSc = 27, kUniSk = 28, kUniSo = 29,
};

// The raw property word of a unit (low 16 bits used).
uint32_t UniProperties(wchar_t u) noexcept;

inline UniCategory UniCategoryOf(wchar_t u) noexcept
{
    return static_cast<UniCategory>(UniProperties(u) & 0x1F);
}

// Simple case mappings. ToLower: kind bit 6 adds the delta. ToUpper: kind bit 5
// steps one unit (down when kind >= 128, up otherwise); kind 128 alone
// subtracts the delta; anything else is left as it is.
wchar_t ToLower(wchar_t u) noexcept;
wchar_t ToUpper(wchar_t u) noexcept;

// The distinct case forms of u (lower, upper, title, u itself first), for
// case-insensitive matching; returns how many were written (1 to 4).
int CaseVariants(wchar_t u, wchar_t out[4]) noexcept;

// The units of the basic plane whose lower case (ToLower) is `lower`: the
// first `room` of them go to out, and the count of all is returned. A unit
// beyond the basic plane has no place in the answer: callers that meet one
// look at it themselves.
int UnitsLoweringTo(wchar_t lower, wchar_t* out, int room) noexcept;

// The units beyond ASCII whose lower case is an ASCII character (such as
// U+212A KELVIN SIGN, whose lower case is "k"), in order. UTF-8 text that
// holds none of them is searched without case, for ASCII, by folding its
// ASCII bytes alone: no other character can fold into ASCII (units beyond
// the basic plane keep their high bits when folded).
const std::vector<wchar_t>& UnitsLoweringIntoAscii() noexcept;

// Blank for the wide string layer: categories Mc, Zs, Zl, Zp and Cc.
inline bool IsUniBlank(wchar_t u) noexcept
{
    const unsigned c = UniProperties(u) & 0x1F;
    return c == kUniMc || c == kUniZs || c == kUniZl || c == kUniZp || c == kUniCc;
}

}  // namespace Karu

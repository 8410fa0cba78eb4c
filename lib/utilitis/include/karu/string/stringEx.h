// stringEx and wstringEx: the library's text types, and the text operations
// that every layer uses.
//
// Both are one template, basic_string_ex<T>, over basic_buffer<T>; the two
// widths differ only in a small traits class (case folding, the blank test,
// the search primitives). Every algorithm is written once against those
// traits. Operations that return a part of a string yield the buffer type; a
// string is made from a buffer again without copying.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <iosfwd>
#include <utility>
#include <vector>

#include <karu/string/buffer.h>
#include <karu/string/needleSearch.h>
#include <karu/string/unicode.h>

namespace Karu {

// What differs between the 8-bit and the wide text.
template <class T>
struct text_traits;

template <>
struct text_traits<char> {
    // Folding follows the current C locale, as the platform's tolower does.
    static char Fold(char c) noexcept;
    static char Upper(char c) noexcept;
    // 0x00, HT, LF, VT, CR and space; FF is deliberately not among them.
    static bool IsBlank(char c) noexcept
    {
        return c == 0 || c == '\t' || c == '\n' || c == '\v' || c == '\r' || c == ' ';
    }
    static const char* Chr(const char* s, char c, size_t n) noexcept
    {
        return static_cast<const char*>(std::memchr(s, c, n));
    }
    static int Cmp(const char* a, const char* b, size_t n) noexcept { return std::memcmp(a, b, n); }
};

template <>
struct text_traits<wchar_t> {
    static wchar_t Fold(wchar_t c) noexcept { return ToLower(c); }
    static wchar_t Upper(wchar_t c) noexcept { return ToUpper(c); }
    static bool IsBlank(wchar_t c) noexcept { return IsUniBlank(c); }
    static const wchar_t* Chr(const wchar_t* s, wchar_t c, size_t n) noexcept { return std::wmemchr(s, c, n); }
    static int Cmp(const wchar_t* a, const wchar_t* b, size_t n) noexcept { return std::wmemcmp(a, b, n); }
};

template <class T>
class basic_string_ex : public basic_buffer<T> {
public:
    using base = basic_buffer<T>;
    using typename base::size_type;
    using base::base;
    using base::npos;

    basic_string_ex() noexcept = default;
    basic_string_ex(const base& b) noexcept : base(b) {}
    basic_string_ex(base&& b) noexcept : base(std::move(b)) {}

    template <size_t N>
    basic_string_ex& operator=(const T (&literal)[N]) noexcept
    {
        base::operator=(literal);
        return *this;
    }

    // printf into a fresh string (8-bit text; wide text widens the result).
    static basic_string_ex Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static basic_string_ex FormatV(const char* format, va_list args);

    size_type Find(const basic_string_ex& needle, size_type start = 0) const noexcept;
    size_type Find(T unit, size_type start = 0) const noexcept;
    size_type FindNoCase(const basic_string_ex& needle, size_type start = 0) const noexcept;
    size_type ReverseFind(T unit) const noexcept;

    bool StartsWith(const basic_string_ex& prefix) const noexcept;
    bool EndsWith(const basic_string_ex& suffix) const noexcept;
    int Compare(const basic_string_ex& other) const noexcept;
    int CompareNoCase(const basic_string_ex& other) const noexcept;
    bool EqualsNoCase(const basic_string_ex& other) const noexcept;

    basic_string_ex& TrimRight();
    basic_string_ex& TrimLeft();
    basic_string_ex& Trim() { return TrimRight().TrimLeft(); }
    basic_string_ex& MakeLower();
    basic_string_ex& MakeUpper();
    basic_string_ex& Replace(T from, T to);

    basic_string_ex Left(size_type n) const { return base(*this, 0, n); }
    basic_string_ex Mid(size_type pos, size_type n = npos) const
    {
        return pos >= this->size() ? basic_string_ex() : basic_string_ex(base(*this, pos, n));
    }
    basic_string_ex Right(size_type n) const
    {
        return n >= this->size() ? *this : Mid(this->size() - n);
    }

    // Decimal number at the start of the text (after blanks), with sign;
    // `end` receives how many units were read (0: none).
    int64_t ToInt(size_type* end = nullptr) const noexcept;
};

using stringEx = basic_string_ex<char>;
using wstringEx = basic_string_ex<wchar_t>;

template <class T>
basic_string_ex<T> operator+(const basic_string_ex<T>& a, const basic_string_ex<T>& b)
{
    basic_string_ex<T> r;
    r.ReserveGrow(a.size() + b.size() + 1);
    r.append(a);
    r.append(b);
    return r;
}
template <class T>
basic_string_ex<T> operator+(const basic_string_ex<T>& a, const T* b)
{
    return a + basic_string_ex<T>(b);
}
template <class T>
basic_string_ex<T> operator+(const T* a, const basic_string_ex<T>& b)
{
    return basic_string_ex<T>(a) + b;
}
template <class T>
bool operator==(const basic_string_ex<T>& a, const T* b) noexcept
{
    return a == basic_string_ex<T>(b);
}
template <class T>
bool operator<(const basic_string_ex<T>& a, const basic_string_ex<T>& b) noexcept
{
    return a.Compare(b) < 0;
}

std::ostream& operator<<(std::ostream& os, const stringEx& s);
std::wostream& operator<<(std::wostream& os, const wstringEx& s);

// The shared empty values, built before main.
extern const stringEx g_emptyString;
extern const wstringEx g_emptyWString;
extern const byteEx g_emptyBytes;

// ---- free-standing text operations (both widths) ----------------------------

template <class T>
int CompareNoCase(const basic_buffer<T>& a, const basic_buffer<T>& b) noexcept;
template <class T>
bool EqualsNoCase(const basic_buffer<T>& a, const basic_buffer<T>& b) noexcept;
template <class T>
int Compare(const basic_buffer<T>& a, const basic_buffer<T>& b) noexcept;
template <class T>
bool StartsWith(const basic_buffer<T>& text, const basic_buffer<T>& prefix) noexcept;
template <class T>
uint64_t Find(const basic_buffer<T>& text, const basic_buffer<T>& needle, uint64_t start) noexcept;
template <class T>
uint64_t FindNoCase(const basic_buffer<T>& text, const basic_buffer<T>& needle, uint64_t start) noexcept;

// A case-blind search for one needle, prepared once and run often: Next
// finds what FindNoCase finds, looking at many units at a time. Bytes match
// by the sets of bytes that fold alike; wide text by the few units that fold
// like the needle's first (units beyond the basic plane are looked at one by
// one).
template <class T>
class NoCaseFinder {
public:
    // `asciiOnly`, for the bytes of UTF-8 text: ASCII bytes fold as the wide
    // text folds those characters, and any other byte matches only itself.
    explicit NoCaseFinder(const basic_buffer<T>& needle, bool asciiOnly = false);
    // The first match at or after start, or npos.
    uint64_t Next(const basic_buffer<T>& text, uint64_t start) const noexcept;

private:
    basic_buffer<T> _folded;  // the needle, folded (wide text)
    ByteNeedles _bytes;       // the needle's byte sets (bytes)
    wchar_t _first[4] = {};   // the units that fold like the needle's first
    int _firstCount = 0;      // 0: too many of them, every position is looked at
};

template <class T>
basic_buffer<T>& TrimRight(basic_buffer<T>& s);
template <class T>
basic_buffer<T>& TrimLeft(basic_buffer<T>& s);

// (position, length) of each piece of text cut at separator; true if there
// is more than one piece. A text ending in the separator has an empty last
// piece, and an empty text yields the one piece (0, 0).
using PiecePositions = std::vector<std::pair<uint64_t, uint64_t>>;
template <class T>
bool SplitPositions(const basic_buffer<T>& text, const basic_buffer<T>& separator, PiecePositions& out);

// The n-th piece of line as cut by delimiter, from the left, no overlap;
// empty when the line has fewer pieces.
template <class T>
basic_string_ex<T> FieldAt(const basic_buffer<T>& line, const basic_buffer<T>& delimiter, uint64_t n);

// Each byte sign-extended into a unit, so bytes from 0x80 become large
// negative units.
wstringEx Widen(const stringEx& s);

// Source-text rendering of bytes as a C array of "0X.." values, 12 a row.
stringEx DumpConstArray(const byteEx& bytes, const stringEx& name, bool isConst);

// ---- substitution passes -------------------------------------------------------

// One row of an escape table: what replaces escape + key. A table ends with
// a row whose replacement and key are both empty.
template <class T>
struct EscapeRow {
    basic_string_ex<T> replacement;
    basic_string_ex<T> key;
};

// Table-driven escapes, in place; the first key (in table order) that fits
// wins and its replacement is never rescanned.
template <class T>
basic_string_ex<T>& ExpandEscapes(basic_string_ex<T>& s, T esc, const EscapeRow<T>* table, bool dropUnknown,
                                  bool keepDoubled);

// Callback of the mark-driven passes.
template <class S>
class IStrMatchCmd {
public:
    virtual ~IStrMatchCmd() = default;
    // 0: no match here, 1: replace with `replacement`, anything else: stop.
    virtual int Match(const S& view, S& replacement) = 0;
    // Units behind the mark that the last match covered.
    virtual uint64_t MatchedLength() { return 0; }
};

// Single-mark pass ($NAME): see the callback for what a mark means.
template <class T>
basic_string_ex<T>& ExpandMatches(basic_string_ex<T>& s, T mark, IStrMatchCmd<basic_string_ex<T>>& cmd,
                                  bool dropUnknown, bool keepDoubled);

// Two-delimiter pass (${NAME}).
template <class T>
basic_string_ex<T>& ExpandDelimited(basic_string_ex<T>& s, const basic_string_ex<T>& open,
                                    const basic_string_ex<T>& close, IStrMatchCmd<basic_string_ex<T>>& cmd,
                                    bool keepDoubled);

// The two passes over bytes, by the same rules.
byteEx& ExpandMatches(byteEx& s, unsigned char mark, IStrMatchCmd<byteEx>& cmd, bool dropUnknown, bool keepDoubled);
byteEx& ExpandDelimited(byteEx& s, const byteEx& open, const byteEx& close, IStrMatchCmd<byteEx>& cmd,
                        bool keepDoubled);

}  // namespace Karu

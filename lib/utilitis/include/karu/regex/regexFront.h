// The pattern front end: what the rest of the library calls to compile and
// match regular expressions, in both text widths.
//
// A user's pattern is read by its first characters: plain text is POSIX
// extended syntax with our perl-style shorthand (\d, \w, \< ...) rewritten
// into bracket expressions; a "***" prefix hands the text to the engine's own
// directors (advanced syntax, literal) untouched. The flag word comes from
// the caller's wishes and, for "***:(?letters)", from a quick scan of the
// option letters. A compiled pattern lives behind a reference-counted
// RegexHandle; a null handle is a pattern that failed to compile, and every
// match operation answers "no match" for it, so a bad pattern never stops a
// run.
//
// The match loop (RegexFind) walks a text occurrence by occurrence and decides
// for each attempt whether its first unit may count as a line start; that
// decision, not the engine, is what makes "^" behave across repeated calls.
#pragma once

#include <cstdint>
#include <vector>

#include <karu/string/stringEx.h>

namespace Karu {

namespace IMPL {
struct CompiledRegex;
}

// Shared handle to a compiled pattern: an object pointer and a heap counter.
// The last release frees the engine's parts and the object.
class RegexHandle {
public:
    RegexHandle() noexcept = default;
    RegexHandle(const RegexHandle& other) noexcept;
    RegexHandle(RegexHandle&& other) noexcept;
    RegexHandle& operator=(const RegexHandle& other) noexcept;
    RegexHandle& operator=(RegexHandle&& other) noexcept;
    ~RegexHandle();

    // Takes ownership of a freshly compiled object (count 1).
    explicit RegexHandle(IMPL::CompiledRegex* compiled);

    bool IsNull() const noexcept { return _object == nullptr; }
    explicit operator bool() const noexcept { return _object != nullptr; }

    // The flag word the pattern was compiled with (0 for a null handle).
    uint32_t CompileFlags() const noexcept;
    // Capturing groups of the pattern (0 for a null handle).
    uint64_t GroupCount() const noexcept;
    // Units of the build it was compiled by: 1 narrow, 4 wide, 0 null.
    int UnitSize() const noexcept;
    // The engine's analysis bits (RX_CAN_BE_EMPTY and the like; 0 for null).
    long Info() const noexcept;

    IMPL::CompiledRegex* Object() const noexcept { return _object; }
    uint64_t UseCount() const noexcept;

private:
    void __Release() noexcept;

    IMPL::CompiledRegex* _object = nullptr;
    void* _count = nullptr;  // std::atomic<uint64_t> on the heap
};

// Flag bits this layer combines numerically with the engine's.
constexpr uint32_t kRegexExtended = 0x01;
constexpr uint32_t kRegexFoldCase = 0x08;
constexpr uint32_t kRegexLineMode = 0xC0;  // dot stops at newline, anchors at line ends

// One group of a match: offset from the start of the text and length. A group
// that took no part has length 0 and the offset one before the attempt.
struct RegexSpan {
    int64_t offset;
    int64_t length;
    bool operator==(const RegexSpan&) const = default;
};
using RegexMatches = std::vector<RegexSpan>;

// Groups the match loop asks the engine for: the whole match and nine.
constexpr unsigned kRegexReportedGroups = 10;

// Translation tables, ending in a row with both fields empty. The perl
// classes rewrite \d, \w, \< ... and the character escapes of a pattern;
// the replacement table holds only the character escapes.
template <class T>
struct RegexTables {
    static const EscapeRow<T> perlClassTable[28];
    static const EscapeRow<T> replacementEscapeTable[8];
};
template <>
const EscapeRow<char> RegexTables<char>::perlClassTable[28];
template <>
const EscapeRow<wchar_t> RegexTables<wchar_t>::perlClassTable[28];
template <>
const EscapeRow<char> RegexTables<char>::replacementEscapeTable[8];
template <>
const EscapeRow<wchar_t> RegexTables<wchar_t>::replacementEscapeTable[8];

template <class T>
const EscapeRow<T>* PerlClassTable() noexcept
{
    return RegexTables<T>::perlClassTable;
}
template <class T>
const EscapeRow<T>* ReplacementEscapeTable() noexcept
{
    return RegexTables<T>::replacementEscapeTable;
}

// Compiles `pattern` (rewritten in place when the shorthand is translated).
// A null handle for an empty pattern or anything the engine refuses; nothing
// is reported.
template <class T>
RegexHandle RegexCompile(basic_string_ex<T>& pattern, uint8_t ignoreCase, uint8_t newlineSensitive,
                         uint8_t baseFlags, uint8_t translatePerl);

// Any match anywhere in `text`; false for a null handle.
template <class T>
bool RegexTest(const basic_string_ex<T>& text, const RegexHandle& handle, bool notBol, bool notEol);

// As RegexTest, with the first match's start and end offsets.
template <class T>
bool RegexFirst(const basic_string_ex<T>& text, const RegexHandle& handle, int64_t& start, int64_t& end,
                bool notBol, bool notEol);

// The `occurrence`-th match (0 is the first) at or after `startOffset`, one
// span per group of the pattern. `notBol`/`notEol` apply to the first attempt;
// later attempts, and the first one too when `usePriorChar` is set, take the
// line-start state from the unit in front of them.
template <class T>
bool RegexFind(const basic_string_ex<T>& text, RegexMatches& out, const RegexHandle& handle, uint32_t occurrence,
               uint64_t startOffset, bool notBol, bool notEol, bool usePriorChar);

// RegexFind for callers that hold only a pattern text: the calling thread
// keeps the last compiled pattern and recompiles only when pattern, flags or
// translation change. An empty pattern frees the thread's cached pattern.
template <class T>
bool RegexFindCached(const basic_string_ex<T>& text, RegexMatches& out, basic_string_ex<T> pattern,
                     uint32_t occurrence, uint64_t startOffset, uint8_t ignoreCase, uint8_t newlineSensitive,
                     uint8_t baseFlags, bool notBol, bool notEol, uint8_t translatePerl, bool usePriorChar);

// Frees the calling thread's cached pattern of width T (thread exit does it
// by itself).
template <class T>
void RegexCacheRelease();

namespace IMPL {
// Whether a pattern is to be matched line by line, as far as its prefix says:
// "***:(?" followed by option letters decides by the first of n, m, w (yes)
// or p, s (no); any other "***" pattern says no; a plain pattern keeps
// `callerValue`. Also tells whether the shorthand is to be translated.
template <class T>
bool PrefixLineMode(const basic_string_ex<T>& pattern, bool callerValue, bool& translatable);
}  // namespace IMPL

}  // namespace Karu

// Compiling and matching through the pattern front end, both widths.
//
// The engine returns codes and never throws; this layer turns every failure
// into a null handle or a false answer, silently, because a pattern typed by a
// user that does not compile must cost that one pair its effect and nothing
// else. The only exception that can leave is an allocation failure of the
// string operations.
//
// Subtle parts:
//  * the prefix scan that decides line mode looks at letters in a fixed
//    order, not in the order written, and the engine reads the same prefix by
//    its own rules; where they disagree the engine decides how the pattern
//    compiles and the scan decides how the match loop treats line starts;
//  * the match loop hands the engine the text from the current position, so
//    the engine believes every attempt starts a string; whether that start is
//    a line start is told by RX_NOLINESTART, from the unit in front of it.
#include <karu/regex/regexFront.h>

#include <atomic>
#include <iterator>
#include <memory>
#include <new>

#include "regex/regexFrontImpl.h"

namespace Karu {

namespace {

// Picks the literal of the right width so that one table text serves both.
template <class T, size_t N>
constexpr const T (&Lit(const char (&narrow)[N], const wchar_t (&wide)[N]))[N]
{
    if constexpr (sizeof(T) == 1)
        return narrow;
    else
        return wide;
}

}  // namespace

#define KARU_LIT(T, s) Lit<T>(s, L"" s)

// Shorthand that a bracket expression can say; the upper-case letters and
// "<", ">" are the complements. "\<" and "\>" consume a character: they are
// kept that way because patterns written for them rely on it. The last seven
// rows are plain character escapes, shared with the replacement table.
#define KARU_PERL_CLASS_ROWS(T)                                                                          \
    {                                                                                                    \
        {KARU_LIT(T, "[[:alpha:]]"), KARU_LIT(T, "a")}, {KARU_LIT(T, "[[:lower:]]"), KARU_LIT(T, "l")},  \
            {KARU_LIT(T, "[[:upper:]]"), KARU_LIT(T, "u")}, {KARU_LIT(T, "[[:space:]]"), KARU_LIT(T, "s")}, \
            {KARU_LIT(T, "[[:digit:]]"), KARU_LIT(T, "d")}, {KARU_LIT(T, "[[:xdigit:]]"), KARU_LIT(T, "x")}, \
            {KARU_LIT(T, "[[:print:]]"), KARU_LIT(T, "p")}, {KARU_LIT(T, "[0-7]"), KARU_LIT(T, "o")},       \
            {KARU_LIT(T, "[^0-7]"), KARU_LIT(T, "O")}, {KARU_LIT(T, "[[:alnum:]_]"), KARU_LIT(T, "w")},     \
            {KARU_LIT(T, "[^[:alnum:]_]"), KARU_LIT(T, "W")}, {KARU_LIT(T, "[^[:alpha:]]"), KARU_LIT(T, "A")}, \
            {KARU_LIT(T, "[^[:lower:]]"), KARU_LIT(T, "L")}, {KARU_LIT(T, "[^[:upper:]]"), KARU_LIT(T, "U")}, \
            {KARU_LIT(T, "[^[:space:]]"), KARU_LIT(T, "S")}, {KARU_LIT(T, "[^[:digit:]]"), KARU_LIT(T, "D")}, \
            {KARU_LIT(T, "[^[:xdigit:]]"), KARU_LIT(T, "X")},                                            \
            {KARU_LIT(T, "[^[:print:]]"), KARU_LIT(T, "P")},                                             \
            {KARU_LIT(T, "[^[:alpha:]_]"), KARU_LIT(T, "<")},                                            \
            {KARU_LIT(T, "[^[:alnum:]_]"), KARU_LIT(T, ">")}, KARU_CHAR_ESCAPE_ROWS(T)                   \
    }

#define KARU_CHAR_ESCAPE_ROWS(T)                                                                       \
    {KARU_LIT(T, "\r"), KARU_LIT(T, "r")}, {KARU_LIT(T, "\n"), KARU_LIT(T, "n")},                      \
        {KARU_LIT(T, "\b"), KARU_LIT(T, "b")}, {KARU_LIT(T, "\t"), KARU_LIT(T, "t")},                  \
        {KARU_LIT(T, "\v"), KARU_LIT(T, "v")}, {KARU_LIT(T, "\""), KARU_LIT(T, "\"")},                 \
        {KARU_LIT(T, "'"), KARU_LIT(T, "'")}, { basic_string_ex<T>(), basic_string_ex<T>() }

template <>
const EscapeRow<char> RegexTables<char>::perlClassTable[28] = KARU_PERL_CLASS_ROWS(char);
template <>
const EscapeRow<wchar_t> RegexTables<wchar_t>::perlClassTable[28] = KARU_PERL_CLASS_ROWS(wchar_t);
template <>
const EscapeRow<char> RegexTables<char>::replacementEscapeTable[8] = {KARU_CHAR_ESCAPE_ROWS(char)};
template <>
const EscapeRow<wchar_t> RegexTables<wchar_t>::replacementEscapeTable[8] = {KARU_CHAR_ESCAPE_ROWS(wchar_t)};

#undef KARU_PERL_CLASS_ROWS
#undef KARU_CHAR_ESCAPE_ROWS
#undef KARU_LIT

// ---- the handle ---------------------------------------------------------------

namespace {
using Counter = std::atomic<uint64_t>;

Counter* CounterOf(void* cell) noexcept
{
    return static_cast<Counter*>(cell);
}
}  // namespace

RegexHandle::RegexHandle(IMPL::CompiledRegex* compiled)
{
    if (!compiled)
        return;
    try {
        _count = new Counter(1);
    } catch (...) {
        IMPL::FreeCompiled(compiled);
        throw;
    }
    _object = compiled;
}

RegexHandle::RegexHandle(const RegexHandle& other) noexcept : _object(other._object), _count(other._count)
{
    if (_count)
        CounterOf(_count)->fetch_add(1, std::memory_order_relaxed);
}

RegexHandle::RegexHandle(RegexHandle&& other) noexcept : _object(other._object), _count(other._count)
{
    other._object = nullptr;
    other._count = nullptr;
}

RegexHandle& RegexHandle::operator=(const RegexHandle& other) noexcept
{
    if (_count != other._count) {
        if (other._count)
            CounterOf(other._count)->fetch_add(1, std::memory_order_relaxed);
        __Release();
        _object = other._object;
        _count = other._count;
    }
    return *this;
}

RegexHandle& RegexHandle::operator=(RegexHandle&& other) noexcept
{
    if (this != &other) {
        __Release();
        _object = other._object;
        _count = other._count;
        other._object = nullptr;
        other._count = nullptr;
    }
    return *this;
}

RegexHandle::~RegexHandle()
{
    __Release();
}

void RegexHandle::__Release() noexcept
{
    if (_count && CounterOf(_count)->fetch_sub(1, std::memory_order_acq_rel) == 1) {
        IMPL::FreeCompiled(_object);
        delete CounterOf(_count);
    }
    _object = nullptr;
    _count = nullptr;
}

uint32_t RegexHandle::CompileFlags() const noexcept
{
    return _object ? _object->compileFlags : 0;
}

uint64_t RegexHandle::GroupCount() const noexcept
{
    return _object ? _object->rx.groupCount : 0;
}

long RegexHandle::Info() const noexcept
{
    return _object ? _object->rx.info : 0;
}

int RegexHandle::UnitSize() const noexcept
{
    return _object ? _object->rx.unitSize : 0;
}

uint64_t RegexHandle::UseCount() const noexcept
{
    return _count ? CounterOf(_count)->load() : 0;
}

// ---- compiling ------------------------------------------------------------------

namespace IMPL {

void FreeCompiled(CompiledRegex* compiled) noexcept
{
    if (compiled) {
        rxfree(&compiled->rx);
        delete compiled;
    }
}

template <class T>
bool PrefixLineMode(const basic_string_ex<T>& pattern, bool callerValue, bool& translatable)
{
    static constexpr T director[] = {'*', '*', '*', 0};
    static constexpr T options[] = {'*', '*', '*', ':', '(', '?', 0};
    translatable = true;
    if (!pattern.StartsWith(director))
        return callerValue;
    translatable = false;
    if (!pattern.StartsWith(options))
        return false;
    // Option letters run to the first ")" behind the prefix; without one the
    // letters are empty. The engine reports the bad form itself.
    constexpr uint64_t first = std::size(options) - 1;
    uint64_t close = pattern.Find(T(')'), first);
    if (close == basic_string_ex<T>::npos)
        close = first;
    const T* letters = pattern.data() + first;
    const uint64_t count = close - first;
    auto has = [&](char letter) { return text_traits<T>::Chr(letters, T(letter), count) != nullptr; };
    for (char letter : {'n', 'm', 'w', 'p', 's'})
        if (has(letter))
            return letter == 'n' || letter == 'm' || letter == 'w';
    return callerValue;
}

template <class T>
CompiledRegex* Compile(const basic_string_ex<T>& pattern, uint32_t flags)
{
    auto compiled = std::make_unique<CompiledRegex>();
    // The engine releases its own parts on failure; the error code means
    // nothing to a user who only wants the pair to replace nothing.
    if (rxcomp(&compiled->rx, pattern.data(), pattern.size(), static_cast<int>(flags)) != RX_OK)
        return nullptr;
    compiled->compileFlags = flags;
    return compiled.release();
}

}  // namespace IMPL

namespace {

constexpr int kExecRangeGiven = 4;  // kept for form: the engine ignores it

int ExecFlags(bool notBol, bool notEol) noexcept
{
    return (notBol ? RX_NOLINESTART : 0) | kExecRangeGiven | (notEol ? RX_NOLINEEND : 0);
}

}  // namespace

template <class T>
RegexHandle RegexCompile(basic_string_ex<T>& pattern, uint8_t ignoreCase, uint8_t newlineSensitive,
                         uint8_t baseFlags, uint8_t translatePerl)
{
    if (pattern.empty())
        return RegexHandle();
    bool translatable = true;
    const bool lineMode = IMPL::PrefixLineMode(pattern, newlineSensitive != 0, translatable);
    if (translatePerl && translatable)
        ExpandEscapes(pattern, T('\\'), PerlClassTable<T>(), false, true);
    return RegexHandle(IMPL::Compile(pattern, IMPL::FlagWord(baseFlags, ignoreCase, lineMode)));
}

// ---- matching -------------------------------------------------------------------

template <class T>
bool RegexTest(const basic_string_ex<T>& text, const RegexHandle& handle, bool notBol, bool notEol)
{
    if (!handle)
        return false;
    return rxexec(&handle.Object()->rx, text.data(), text.size(), nullptr, 0, nullptr, ExecFlags(notBol, notEol)) ==
           RX_OK;
}

template <class T>
bool RegexFirst(const basic_string_ex<T>& text, const RegexHandle& handle, int64_t& start, int64_t& end,
                bool notBol, bool notEol)
{
    if (!handle)
        return false;
    RxMatch whole{-1, -1};
    if (rxexec(&handle.Object()->rx, text.data(), text.size(), nullptr, 1, &whole, ExecFlags(notBol, notEol)) !=
        RX_OK)
        return false;
    start = whole.start;
    end = whole.end;
    return true;
}

namespace IMPL {

template <class T>
bool FindLoop(const basic_string_ex<T>& text, RegexMatches& out, const RxObject* rx, bool lineMode,
              uint32_t occurrence, uint64_t startOffset, bool notBol, bool notEol, bool usePriorChar)
{
    const uint64_t size = text.size();
    int execFlags = ExecFlags(notBol, notEol);
    uint64_t pos = startOffset, advance = 0, count = 0;
    bool skipOne = false;
    RxMatch groups[kRegexReportedGroups];
    for (;;) {
        pos += advance;
        if (skipOne) {
            // An empty match moves on by one unit, or the loop would find it
            // again forever.
            if (++pos >= size)
                return false;
            skipOne = false;
        }
        if (pos != 0 && (usePriorChar || count != 0)) {
            if (lineMode && text[pos - 1] == T('\n'))
                execFlags &= ~RX_NOLINESTART;
            else
                execFlags |= RX_NOLINESTART;
        }
        if (rxexec(rx, text.data() + pos, size - pos, nullptr, kRegexReportedGroups, groups, execFlags) != RX_OK)
            return false;
        advance = static_cast<uint64_t>(groups[0].end);
        skipOne = advance == 0;
        if (++count > occurrence)
            break;
    }
    // Groups beyond the reported ten took no part as far as callers can tell.
    const uint64_t entries = rx->groupCount + 1;
    out.resize(entries);
    for (uint64_t i = 0; i < entries; ++i) {
        const bool reported = i < kRegexReportedGroups && groups[i].start >= 0;
        out[i] = reported ? RegexSpan{int64_t(pos) + groups[i].start, groups[i].end - groups[i].start}
                          : RegexSpan{int64_t(pos) - 1, 0};
    }
    return true;
}

}  // namespace IMPL

template <class T>
bool RegexFind(const basic_string_ex<T>& text, RegexMatches& out, const RegexHandle& handle, uint32_t occurrence,
               uint64_t startOffset, bool notBol, bool notEol, bool usePriorChar)
{
    out.clear();
    if (!handle || startOffset >= text.size())
        return false;
    const IMPL::CompiledRegex* compiled = handle.Object();
    return IMPL::FindLoop(text, out, &compiled->rx, (compiled->compileFlags & kRegexLineMode) != 0, occurrence,
                          startOffset, notBol, notEol, usePriorChar);
}

#define KARU_REGEX_FRONT_INSTANCES(T)                                                                             \
    template bool IMPL::PrefixLineMode<T>(const basic_string_ex<T>&, bool, bool&);                                \
    template IMPL::CompiledRegex* IMPL::Compile<T>(const basic_string_ex<T>&, uint32_t);                          \
    template bool IMPL::FindLoop<T>(const basic_string_ex<T>&, RegexMatches&, const RxObject*, bool, uint32_t,     \
                                    uint64_t, bool, bool, bool);                                                  \
    template RegexHandle RegexCompile<T>(basic_string_ex<T>&, uint8_t, uint8_t, uint8_t, uint8_t);               \
    template bool RegexTest<T>(const basic_string_ex<T>&, const RegexHandle&, bool, bool);                       \
    template bool RegexFirst<T>(const basic_string_ex<T>&, const RegexHandle&, int64_t&, int64_t&, bool, bool);  \
    template bool RegexFind<T>(const basic_string_ex<T>&, RegexMatches&, const RegexHandle&, uint32_t, uint64_t, \
                               bool, bool, bool);

KARU_REGEX_FRONT_INSTANCES(char)
KARU_REGEX_FRONT_INSTANCES(wchar_t)

}  // namespace Karu

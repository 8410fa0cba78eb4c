// The text operations of stringEx and wstringEx, written once for both widths
// against text_traits<T> and instantiated for char and wchar_t at the end.
//
// The searches are first-unit filters (memchr/wmemchr, then a compare),
// because the typical needle here is short. The one-off case-insensitive
// search folds both sides at every position and has no filter: folding makes
// the first unit ambiguous. A search run many times with one needle takes a
// NoCaseFinder, which works out once which units or bytes can begin a match
// and then looks for those many at a time. The substitution passes rewrite in place through replace(),
// which detaches shared storage before it writes.
#include <karu/string/stringEx.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ostream>

namespace Karu {

const stringEx g_emptyString;
const wstringEx g_emptyWString;
const byteEx g_emptyBytes;

char text_traits<char>::Fold(char c) noexcept
{
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

char text_traits<char>::Upper(char c) noexcept
{
    return static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
}

namespace {

template <class T>
using Tr = text_traits<T>;

// Folded units compared as unsigned, so that the order does not depend on
// the signedness of char.
template <class T>
int FoldedOrder(T a, T b) noexcept
{
    using U = std::make_unsigned_t<T>;
    const U fa = static_cast<U>(Tr<T>::Fold(a)), fb = static_cast<U>(Tr<T>::Fold(b));
    return fa < fb ? -1 : fa > fb ? 1 : 0;
}

template <class T>
bool MatchesAt(const basic_buffer<T>& text, uint64_t pos, const basic_buffer<T>& key) noexcept
{
    return key.size() <= text.size() - pos && Tr<T>::Cmp(text.data() + pos, key.data(), key.size()) == 0;
}

}  // namespace

// ---- comparisons --------------------------------------------------------------

template <class T>
int CompareNoCase(const basic_buffer<T>& a, const basic_buffer<T>& b) noexcept
{
    if (a.data() == b.data() && a.size() == b.size())
        return 0;
    const uint64_t common = std::min(a.size(), b.size());
    for (uint64_t i = 0; i < common; ++i)
        if (int order = FoldedOrder(a.data()[i], b.data()[i]))
            return order;
    return a.size() < b.size() ? -1 : a.size() > b.size() ? 1 : 0;
}

template <class T>
bool EqualsNoCase(const basic_buffer<T>& a, const basic_buffer<T>& b) noexcept
{
    return a.size() == b.size() && CompareNoCase(a, b) == 0;
}

template <class T>
int Compare(const basic_buffer<T>& a, const basic_buffer<T>& b) noexcept
{
    if (a.data() == b.data() && a.size() == b.size())
        return 0;
    const uint64_t common = std::min(a.size(), b.size());
    if (int order = Tr<T>::Cmp(a.data(), b.data(), common))
        return order < 0 ? -1 : 1;
    return a.size() < b.size() ? -1 : a.size() > b.size() ? 1 : 0;
}

template <class T>
bool StartsWith(const basic_buffer<T>& text, const basic_buffer<T>& prefix) noexcept
{
    return prefix.size() <= text.size() && Tr<T>::Cmp(text.data(), prefix.data(), prefix.size()) == 0;
}

// ---- searching ---------------------------------------------------------------

// The answers both searches give before looking: an empty needle is found at
// start; a needle that cannot fit behind start is not found.
template <class T>
bool NeedleFits(const basic_buffer<T>& text, const basic_buffer<T>& needle, uint64_t start, uint64_t& answer) noexcept
{
    const uint64_t size = text.size();
    if (needle.empty())
        answer = start <= size ? start : basic_buffer<T>::npos;
    else if (start >= size || needle.size() > size - start)
        answer = basic_buffer<T>::npos;
    else
        return true;
    return false;
}

template <class T>
uint64_t Find(const basic_buffer<T>& text, const basic_buffer<T>& needle, uint64_t start) noexcept
{
    uint64_t early;
    if (!NeedleFits(text, needle, start, early))
        return early;
    const uint64_t n = needle.size(), size = text.size();
    const T* base = text.data();
    const T* key = needle.data();
    const uint64_t lastStart = size - n;
    for (uint64_t pos = start; pos <= lastStart;) {
        const T* hit = Tr<T>::Chr(base + pos, key[0], lastStart - pos + 1);
        if (!hit)
            break;
        pos = hit - base;
        if (Tr<T>::Cmp(hit + 1, key + 1, n - 1) == 0)
            return pos;
        ++pos;
    }
    return basic_buffer<T>::npos;
}

template <>
NoCaseFinder<char>::NoCaseFinder(const basic_buffer<char>& needle, bool asciiOnly)
{
    // The fold of every byte, read once: the needle's sets are the bytes
    // that fold like each of its own.
    unsigned char fold[256];
    for (unsigned b = 0; b < 256; ++b) {
        const char c = static_cast<char>(b);
        if (!asciiOnly)
            fold[b] = static_cast<unsigned char>(Tr<char>::Fold(c));
        else
            fold[b] = b < 0x80 ? static_cast<unsigned char>(Tr<wchar_t>::Fold(static_cast<wchar_t>(b))) : b;
    }
    std::vector<ByteNeedle> needles(1);
    for (const char k : needle) {
        ByteSet set;
        const unsigned char want = fold[static_cast<unsigned char>(k)];
        for (unsigned b = 0; b < 256; ++b)
            set[b] = fold[b] == want && (!asciiOnly || b < 0x80 || b == static_cast<unsigned char>(k));
        needles[0].push_back(set);
    }
    if (!needle.empty())
        _bytes = ByteNeedles(needles);
}

template <>
NoCaseFinder<wchar_t>::NoCaseFinder(const basic_buffer<wchar_t>& needle, bool)
{
    _folded = needle;
    _folded.MakeOwn();
    wchar_t* units = _folded.GetBuffer(needle.size());
    for (uint64_t i = 0; i < needle.size(); ++i)
        units[i] = Tr<wchar_t>::Fold(units[i]);
    if (needle.empty())
        return;
    const int n = UnitsLoweringTo(units[0], _first, 4);
    _firstCount = n > 4 ? 0 : n;
    if (n == 0) {
        // Nothing in the basic plane folds to it, so only units beyond it can.
        _first[0] = units[0];
        _firstCount = 1;
    }
}

template <>
uint64_t NoCaseFinder<char>::Next(const basic_buffer<char>& text, uint64_t start) const noexcept
{
    if (_bytes.empty())
        return start <= text.size() ? start : basic_buffer<char>::npos;
    if (start >= text.size())
        return basic_buffer<char>::npos;
    const char* hit = _bytes.Find(text.data() + start, text.data() + text.size());
    return hit ? static_cast<uint64_t>(hit - text.data()) : basic_buffer<char>::npos;
}

template <>
uint64_t NoCaseFinder<wchar_t>::Next(const basic_buffer<wchar_t>& text, uint64_t start) const noexcept
{
    uint64_t early;
    if (!NeedleFits(text, _folded, start, early))
        return early;
    const uint64_t n = _folded.size();
    const wchar_t* base = text.data();
    const wchar_t* key = _folded.data();
    const wchar_t* end = base + (text.size() - n) + 1;  // past the last place a match fits
    for (const wchar_t* p = base + start; p < end; ++p) {
        if (_firstCount) {
            p = FindUnitOrBeyond(p, end, _first, _firstCount);
            if (!p)
                break;
        }
        uint64_t i = 0;
        while (i < n && Tr<wchar_t>::Fold(p[i]) == key[i])
            ++i;
        if (i == n)
            return static_cast<uint64_t>(p - base);
    }
    return basic_buffer<wchar_t>::npos;
}

template <class T>
uint64_t FindNoCase(const basic_buffer<T>& text, const basic_buffer<T>& needle, uint64_t start) noexcept
{
    uint64_t early;
    if (!NeedleFits(text, needle, start, early))
        return early;
    // One search: preparing a NoCaseFinder would cost more than it saves.
    const uint64_t n = needle.size(), size = text.size();
    const T* base = text.data();
    const T* key = needle.data();
    for (uint64_t pos = start; pos <= size - n; ++pos) {
        uint64_t i = 0;
        while (i < n && Tr<T>::Fold(base[pos + i]) == Tr<T>::Fold(key[i]))
            ++i;
        if (i == n)
            return pos;
    }
    return basic_buffer<T>::npos;
}

// ---- trimming -------------------------------------------------------------------

template <class T>
basic_buffer<T>& TrimRight(basic_buffer<T>& s)
{
    uint64_t keep = s.size();
    while (keep > 0 && Tr<T>::IsBlank(s.data()[keep - 1]))
        --keep;
    if (keep != s.size())
        s.resize(keep);
    return s;
}

template <class T>
basic_buffer<T>& TrimLeft(basic_buffer<T>& s)
{
    uint64_t drop = 0;
    while (drop < s.size() && Tr<T>::IsBlank(s.data()[drop]))
        ++drop;
    if (drop)
        s.erase(0, drop);
    return s;
}

// ---- cutting ---------------------------------------------------------------------

template <class T>
bool SplitPositions(const basic_buffer<T>& text, const basic_buffer<T>& separator, PiecePositions& out)
{
    out.clear();
    const uint64_t size = text.size();
    // An empty separator is found everywhere and cuts nothing: one field.
    if (separator.size() == 0) {
        out.emplace_back(0, size);
        return false;
    }
    uint64_t pos = 0;
    for (;;) {
        const uint64_t hit = Find(text, separator, pos);
        if (hit == basic_buffer<T>::npos) {
            out.emplace_back(pos, size - pos);
            break;
        }
        out.emplace_back(pos, hit - pos);
        pos = hit + separator.size();
        if (pos >= size) {
            out.emplace_back(size, 0);
            break;
        }
    }
    return out.size() > 1;
}

template <class T>
basic_string_ex<T> FieldAt(const basic_buffer<T>& line, const basic_buffer<T>& delimiter, uint64_t n)
{
    // An empty delimiter is found at the start again and again: every field
    // is empty, without walking to the n-th.
    if (delimiter.size() == 0)
        return basic_string_ex<T>();
    uint64_t pos = 0;
    for (uint64_t field = 0;; ++field) {
        const uint64_t hit = Find(line, delimiter, pos);
        if (field == n)
            return basic_buffer<T>(line, pos, hit == basic_buffer<T>::npos ? basic_buffer<T>::npos : hit - pos);
        if (hit == basic_buffer<T>::npos)
            return basic_string_ex<T>();
        pos = hit + delimiter.size();
    }
}

// ---- substitution passes ---------------------------------------------------
//
// One logic for the two widths of text and for bytes: the passes see a
// string only through the three searches below and its own edits. They are
// short passes over short texts (a line of pairs, a time format), where a
// plain search serves.

template <class S>
uint64_t FindUnitIn(const S& s, typename S::value_type unit, uint64_t from) noexcept
{
    const auto* begin = s.data();
    const auto* at = std::find(begin + from, begin + s.size(), unit);
    return at == begin + s.size() ? S::npos : static_cast<uint64_t>(at - begin);
}

template <class S>
uint64_t FindIn(const S& s, const S& needle, uint64_t from) noexcept
{
    const auto* begin = s.data();
    const auto* at = std::search(begin + from, begin + s.size(), needle.data(), needle.data() + needle.size());
    return at == begin + s.size() ? S::npos : static_cast<uint64_t>(at - begin);
}

template <class S>
bool MatchesIn(const S& s, uint64_t pos, const S& key) noexcept
{
    return key.size() <= s.size() - pos && std::equal(key.data(), key.data() + key.size(), s.data() + pos);
}

enum class MarkStep { kStop, kNext, kExamine };

// The rules every mark-driven pass shares: a mark as the last unit ends the
// scan (removed if `dropAtEnd`); a doubled mark is kept whole or halved.
template <class S>
MarkStep LastOrDoubled(S& s, uint64_t& pos, typename S::value_type mark, bool dropAtEnd, bool keepDoubled)
{
    if (pos + 1 == s.size()) {
        if (dropAtEnd)
            s.erase(pos, 1);
        return MarkStep::kStop;
    }
    if (s[pos + 1] != mark)
        return MarkStep::kExamine;
    if (keepDoubled) {
        pos += 2;
    } else {
        s.erase(pos, 1);
        pos += 1;
    }
    return MarkStep::kNext;
}

template <class T>
basic_string_ex<T>& ExpandEscapes(basic_string_ex<T>& s, T esc, const EscapeRow<T>* table, bool dropUnknown,
                                  bool keepDoubled)
{
    uint64_t pos = 0;
    while ((pos = s.Find(esc, pos)) != basic_buffer<T>::npos) {
        const MarkStep step = LastOrDoubled(s, pos, esc, dropUnknown, keepDoubled);
        if (step == MarkStep::kStop)
            break;
        if (step == MarkStep::kNext)
            continue;
        const EscapeRow<T>* row = table;
        for (; !(row->replacement.empty() && row->key.empty()); ++row)
            if (!row->key.empty() && MatchesAt<T>(s, pos + 1, row->key))
                break;
        if (!(row->replacement.empty() && row->key.empty())) {
            s.replace(pos, 1 + row->key.size(), row->replacement);
            pos += row->replacement.size();
        } else if (dropUnknown) {
            s.erase(pos, 1);
        } else {
            pos += 1;
        }
    }
    return s;
}

template <class S>
S& MatchesPass(S& s, typename S::value_type mark, IStrMatchCmd<S>& cmd, bool dropUnknown, bool keepDoubled)
{
    uint64_t pos = 0;
    S replacement;
    while ((pos = FindUnitIn(s, mark, pos)) != S::npos) {
        const MarkStep step = LastOrDoubled(s, pos, mark, dropUnknown, keepDoubled);
        if (step == MarkStep::kStop)
            break;
        if (step == MarkStep::kNext)
            continue;
        replacement.clear();
        const S behind(S::View(s.data() + pos + 1, s.size() - pos - 1));
        const int verdict = cmd.Match(behind, replacement);
        if (verdict == 1) {
            s.replace(pos, 1 + cmd.MatchedLength(), replacement);
            pos += replacement.size();
        } else if (verdict == 0) {
            pos += 1;
        } else {
            break;
        }
    }
    return s;
}

template <class S>
S& DelimitedPass(S& s, const S& open, const S& close, IStrMatchCmd<S>& cmd, bool keepDoubled)
{
    if (open.empty() || close.empty())
        return s;
    const auto first = open[0];
    uint64_t pos = 0;
    S replacement;
    while ((pos = FindUnitIn(s, first, pos)) != S::npos) {
        const MarkStep step = LastOrDoubled(s, pos, first, true, keepDoubled);
        if (step == MarkStep::kStop)
            break;
        if (step == MarkStep::kNext)
            continue;
        if (s.size() - pos < open.size() + close.size() || !MatchesIn(s, pos, open)) {
            pos += 1;
            continue;
        }
        const uint64_t inner = pos + open.size();
        const uint64_t closing = FindIn(s, close, inner);
        if (closing == S::npos)
            break;
        replacement.clear();
        const S between(S::View(s.data() + inner, closing - inner));
        const int verdict = cmd.Match(between, replacement);
        if (verdict == 1) {
            s.replace(pos, closing + close.size() - pos, replacement);
            pos += replacement.size();
        } else if (verdict == 0) {
            pos = closing + close.size();
        } else {
            break;
        }
    }
    return s;
}

template <class T>
basic_string_ex<T>& ExpandMatches(basic_string_ex<T>& s, T mark, IStrMatchCmd<basic_string_ex<T>>& cmd,
                                  bool dropUnknown, bool keepDoubled)
{
    return MatchesPass(s, mark, cmd, dropUnknown, keepDoubled);
}

template <class T>
basic_string_ex<T>& ExpandDelimited(basic_string_ex<T>& s, const basic_string_ex<T>& open,
                                    const basic_string_ex<T>& close, IStrMatchCmd<basic_string_ex<T>>& cmd,
                                    bool keepDoubled)
{
    return DelimitedPass(s, open, close, cmd, keepDoubled);
}

byteEx& ExpandMatches(byteEx& s, unsigned char mark, IStrMatchCmd<byteEx>& cmd, bool dropUnknown, bool keepDoubled)
{
    return MatchesPass(s, mark, cmd, dropUnknown, keepDoubled);
}

byteEx& ExpandDelimited(byteEx& s, const byteEx& open, const byteEx& close, IStrMatchCmd<byteEx>& cmd,
                        bool keepDoubled)
{
    return DelimitedPass(s, open, close, cmd, keepDoubled);
}

// ---- members ---------------------------------------------------------------------

template <class T>
basic_string_ex<T> basic_string_ex<T>::FormatV(const char* format, va_list args)
{
    char local[256];
    va_list again;
    va_copy(again, args);
    const int n = std::vsnprintf(local, sizeof local, format, args);
    basic_string_ex<T> out;
    if (n <= 0) {
        va_end(again);
        return out;
    }
    const char* text = local;
    stringEx big;
    if (static_cast<size_t>(n) >= sizeof local) {
        char* room = big.GetBuffer(n);
        std::vsnprintf(room, n + 1, format, again);
        big.SetSize(n);
        text = big.data();
    }
    va_end(again);
    if constexpr (std::is_same_v<T, char>) {
        out.assign(text, n);
    } else {
        T* units = out.GetBuffer(n);
        for (int i = 0; i < n; ++i)
            units[i] = static_cast<unsigned char>(text[i]);
        out.SetSize(n);
    }
    return out;
}

template <class T>
basic_string_ex<T> basic_string_ex<T>::Format(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    basic_string_ex<T> out = FormatV(format, args);
    va_end(args);
    return out;
}

template <class T>
typename basic_string_ex<T>::size_type basic_string_ex<T>::Find(const basic_string_ex& needle,
                                                                size_type start) const noexcept
{
    return Karu::Find<T>(*this, needle, start);
}

template <class T>
typename basic_string_ex<T>::size_type basic_string_ex<T>::Find(T unit, size_type start) const noexcept
{
    if (start >= this->size())
        return npos;
    const T* hit = Tr<T>::Chr(this->data() + start, unit, this->size() - start);
    return hit ? static_cast<size_type>(hit - this->data()) : npos;
}

template <class T>
typename basic_string_ex<T>::size_type basic_string_ex<T>::FindNoCase(const basic_string_ex& needle,
                                                                      size_type start) const noexcept
{
    return Karu::FindNoCase<T>(*this, needle, start);
}

template <class T>
typename basic_string_ex<T>::size_type basic_string_ex<T>::ReverseFind(T unit) const noexcept
{
    for (size_type i = this->size(); i > 0; --i)
        if (this->data()[i - 1] == unit)
            return i - 1;
    return npos;
}

template <class T>
bool basic_string_ex<T>::StartsWith(const basic_string_ex& prefix) const noexcept
{
    return Karu::StartsWith<T>(*this, prefix);
}

template <class T>
bool basic_string_ex<T>::EndsWith(const basic_string_ex& suffix) const noexcept
{
    return suffix.size() <= this->size() &&
           Tr<T>::Cmp(this->data() + this->size() - suffix.size(), suffix.data(), suffix.size()) == 0;
}

template <class T>
int basic_string_ex<T>::Compare(const basic_string_ex& other) const noexcept
{
    return Karu::Compare<T>(*this, other);
}

template <class T>
int basic_string_ex<T>::CompareNoCase(const basic_string_ex& other) const noexcept
{
    return Karu::CompareNoCase<T>(*this, other);
}

template <class T>
bool basic_string_ex<T>::EqualsNoCase(const basic_string_ex& other) const noexcept
{
    return Karu::EqualsNoCase<T>(*this, other);
}

template <class T>
basic_string_ex<T>& basic_string_ex<T>::TrimRight()
{
    Karu::TrimRight<T>(*this);
    return *this;
}

template <class T>
basic_string_ex<T>& basic_string_ex<T>::TrimLeft()
{
    Karu::TrimLeft<T>(*this);
    return *this;
}

// Rewrites each unit through `map`, detaching only if some unit changes.
template <class T, class Map>
static basic_string_ex<T>& MapUnits(basic_string_ex<T>& s, Map map)
{
    for (uint64_t i = 0; i < s.size(); ++i) {
        if (map(s[i]) == s[i])
            continue;
        T* units = s.MutableData();
        for (; i < s.size(); ++i)
            units[i] = map(units[i]);
        break;
    }
    return s;
}

template <class T>
basic_string_ex<T>& basic_string_ex<T>::MakeLower()
{
    return MapUnits(*this, [](T c) { return Tr<T>::Fold(c); });
}

template <class T>
basic_string_ex<T>& basic_string_ex<T>::MakeUpper()
{
    return MapUnits(*this, [](T c) { return Tr<T>::Upper(c); });
}

template <class T>
basic_string_ex<T>& basic_string_ex<T>::Replace(T from, T to)
{
    return MapUnits(*this, [from, to](T c) { return c == from ? to : c; });
}

template <class T>
int64_t basic_string_ex<T>::ToInt(size_type* end) const noexcept
{
    size_type i = 0;
    const T* s = this->data();
    while (i < this->size() && (s[i] == ' ' || s[i] == '\t'))
        ++i;
    bool negative = false;
    if (i < this->size() && (s[i] == '-' || s[i] == '+'))
        negative = s[i++] == '-';
    const size_type digits = i;
    uint64_t value = 0;
    for (; i < this->size() && s[i] >= '0' && s[i] <= '9'; ++i)
        value = value * 10 + static_cast<uint64_t>(s[i] - '0');
    if (end)
        *end = i == digits ? 0 : i;
    return negative ? -static_cast<int64_t>(value) : static_cast<int64_t>(value);
}

// ---- width conversions and dumps -----------------------------------------------

wstringEx Widen(const stringEx& s)
{
    if (s.empty())
        return g_emptyWString;
    wstringEx out;
    wchar_t* units = out.GetBuffer(s.size());
    for (uint64_t i = 0; i < s.size(); ++i)
        units[i] = static_cast<wchar_t>(static_cast<signed char>(s[i]));
    out.SetSize(s.size());
    return out;
}

stringEx DumpConstArray(const byteEx& bytes, const stringEx& name, bool isConst)
{
    static constexpr int kValuesPerRow = 12;
    static const char kHex[] = "0123456789ABCDEF";
    stringEx out = stringEx::Format("%sunsigned char %s[] = {\n", isConst ? "const " : "", name.c_str());
    for (uint64_t i = 0; i < bytes.size(); ++i) {
        if (i % kValuesPerRow == 0)
            out += '\t';
        const char value[] = {'0', 'X', kHex[bytes[i] >> 4], kHex[bytes[i] & 15]};
        out.append(value, 4);
        if (i + 1 < bytes.size())
            out.append(", ", 2);
        if (i % kValuesPerRow == kValuesPerRow - 1 || i + 1 == bytes.size())
            out += '\n';
    }
    out.append("};\n", 3);
    return out;
}

std::ostream& operator<<(std::ostream& os, const stringEx& s)
{
    return os.write(s.data(), static_cast<std::streamsize>(s.size()));
}

std::wostream& operator<<(std::wostream& os, const wstringEx& s)
{
    return os.write(s.data(), static_cast<std::streamsize>(s.size()));
}

// ---- the two widths --------------------------------------------------------------

#define KARU_TEXT_INSTANCES(T)                                                                                    \
    template class basic_string_ex<T>;                                                                            \
    template int CompareNoCase<T>(const basic_buffer<T>&, const basic_buffer<T>&) noexcept;                       \
    template bool EqualsNoCase<T>(const basic_buffer<T>&, const basic_buffer<T>&) noexcept;                       \
    template int Compare<T>(const basic_buffer<T>&, const basic_buffer<T>&) noexcept;                             \
    template bool StartsWith<T>(const basic_buffer<T>&, const basic_buffer<T>&) noexcept;                         \
    template uint64_t Find<T>(const basic_buffer<T>&, const basic_buffer<T>&, uint64_t) noexcept;                 \
    template uint64_t FindNoCase<T>(const basic_buffer<T>&, const basic_buffer<T>&, uint64_t) noexcept;           \
    template basic_buffer<T>& TrimRight<T>(basic_buffer<T>&);                                                     \
    template basic_buffer<T>& TrimLeft<T>(basic_buffer<T>&);                                                      \
    template bool SplitPositions<T>(const basic_buffer<T>&, const basic_buffer<T>&, PiecePositions&);             \
    template basic_string_ex<T> FieldAt<T>(const basic_buffer<T>&, const basic_buffer<T>&, uint64_t);             \
    template basic_string_ex<T>& ExpandEscapes<T>(basic_string_ex<T>&, T, const EscapeRow<T>*, bool, bool);       \
    template basic_string_ex<T>& ExpandMatches<T>(basic_string_ex<T>&, T, IStrMatchCmd<basic_string_ex<T>>&,      \
                                                  bool, bool);                                                    \
    template basic_string_ex<T>& ExpandDelimited<T>(basic_string_ex<T>&, const basic_string_ex<T>&,               \
                                                    const basic_string_ex<T>&, IStrMatchCmd<basic_string_ex<T>>&, \
                                                    bool);

KARU_TEXT_INSTANCES(char)
KARU_TEXT_INSTANCES(wchar_t)

}  // namespace Karu

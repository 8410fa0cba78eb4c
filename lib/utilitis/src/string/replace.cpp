// Literal replace in both forms and both widths, written once against the
// two searches of the string layer and instantiated for char and wchar_t.
//
// The copying form sizes its destination once from a guess of how many
// matches the text holds; the guess only sets the starting capacity, and the
// appends grow the buffer past it when the text holds more. The in-place
// form moves every unit at most once whatever the number of matches: a
// replacement no longer than its match compacts the text forwards as the
// search goes, a longer one has all matches found first and the text filled
// from its end.
//
// Aliasing: the caller may pass the same object for several arguments (the
// replace text being the text itself, say). Every routine first takes its
// own references to its inputs; a write into the text then detaches it from
// them, so each input is still intact when it is read.
#include <karu/string/replace.h>

#include <karu/string/needleSearch.h>

#include <cstring>
#include <new>
#include <vector>

namespace Karu {

namespace {

// A match is assumed about once per this many units when sizing the copy.
constexpr double kUnitsPerMatchGuess = 70.0;

// The searches, made once per call from the find: a case-blind search works
// out once which units can begin a match.
template <class T>
class CaseSensitive {
public:
    explicit CaseSensitive(const basic_string_ex<T>& find) : _find(find) {}
    uint64_t Next(const basic_string_ex<T>& text, uint64_t from) const noexcept { return Find<T>(text, _find, from); }

private:
    const basic_string_ex<T>& _find;
};

// In bytes, a find whose first byte is common in the text (a "b" comes in
// about every 60 bytes of English) is looked for by two of its bytes many
// positions at a time (ByteNeedles): stopping at each first byte cost more
// than the rest of a literal replace. Making that search costs a few
// microseconds, as much as some hundred stops, so a find starts with the
// plain search and changes over once its first byte has misled it that
// often; a run of ten thousand pairs, most of which never match, pays
// nothing for it.
template <>
class CaseSensitive<char> {
public:
    explicit CaseSensitive(const basic_string_ex<char>& find) : _find(find) {}
    uint64_t Next(const basic_string_ex<char>& text, uint64_t from) const noexcept
    {
        constexpr uint64_t npos = basic_string_ex<char>::npos;
        const uint64_t n = _find.size(), size = text.size();
        if (n == 0 || from >= size || n > size - from)
            return n == 0 && from <= size ? from : npos;
        const char* base = text.data();
        const char* key = _find.data();
        if (!_needles.empty()) {
            const char* hit = _needles.Find(base + from, base + size);
            return hit ? static_cast<uint64_t>(hit - base) : npos;
        }
        const uint64_t lastStart = size - n;
        for (uint64_t pos = from; pos <= lastStart;) {
            const void* hit = std::memchr(base + pos, key[0], lastStart - pos + 1);
            if (!hit)
                return npos;
            pos = static_cast<uint64_t>(static_cast<const char*>(hit) - base);
            if (std::memcmp(base + pos + 1, key + 1, n - 1) == 0)
                return pos;
            ++pos;
            if (++_misses == kMissesBeforeNeedles && n >= 2) {
                MakeNeedles();
                return Next(text, pos);
            }
        }
        return npos;
    }

private:
    static constexpr uint32_t kMissesBeforeNeedles = 256;

    // Without the memory for it, the plain search goes on: it is slower,
    // not wrong.
    void MakeNeedles() const noexcept
    {
        try {
            std::vector<ByteNeedle> needles(1);
            for (const char c : _find) {
                ByteSet exactly;
                exactly.set(static_cast<unsigned char>(c));
                needles[0].push_back(exactly);
            }
            _needles = ByteNeedles(needles);
        } catch (const std::bad_alloc&) {
        }
    }

    const basic_string_ex<char>& _find;
    // The search is a cache of the find, made on the way.
    mutable uint32_t _misses = 0;
    mutable ByteNeedles _needles;
};

template <class T>
class CaseBlind {
public:
    explicit CaseBlind(const basic_string_ex<T>& find, bool asciiOnly = false) : _finder(find, asciiOnly) {}
    uint64_t Next(const basic_string_ex<T>& text, uint64_t from) const noexcept { return _finder.Next(text, from); }

private:
    NoCaseFinder<T> _finder;
};

// Matches are sought in `viewArg`, which is `sourceArg` itself but for the
// view form.
template <class Search, class T>
uint32_t CopyReplacing(const basic_string_ex<T>& sourceArg, const basic_string_ex<T>& viewArg,
                       basic_string_ex<T>& dest, const basic_string_ex<T>& findArg,
                       const basic_string_ex<T>& replaceArg, uint64_t start, const Search& search)
{
    const basic_string_ex<T> source = sourceArg, view = viewArg, find = findArg, replace = replaceArg;
    dest.clear();
    const uint64_t n = source.size(), f = find.size(), r = replace.size();
    if (n <= start || f == 0)
        return 0;

    uint64_t expected = n;
    if (f < r)
        expected = static_cast<uint64_t>(static_cast<double>(r) / static_cast<double>(f) * static_cast<double>(n) /
                                             kUnitsPerMatchGuess +
                                         static_cast<double>(n));
    dest.ReserveExact(expected + 1);
    // Fresh storage holds no terminator yet, and a text of only matches with
    // an empty replacement appends nothing.
    dest.SetSize(0);

    uint32_t count = 0;
    uint64_t copied = 0;
    for (uint64_t pos = start;;) {
        const uint64_t match = search.Next(view, pos);
        if (match == basic_string_ex<T>::npos)
            break;
        if (match > copied)
            dest.append(source.data() + copied, match - copied);
        dest.append(replace);
        ++count;
        pos = copied = match + f;
        if (pos >= n || n - pos < f)
            break;
    }
    if (copied < n)
        dest.append(source.data() + copied, n - copied);
    return count;
}

template <class T, class Search>
uint32_t ReplaceInText(basic_string_ex<T>& text, const basic_string_ex<T>& findArg,
                       const basic_string_ex<T>& replaceArg, uint64_t start, bool all, const Search& search)
{
    const basic_string_ex<T> replace = replaceArg;
    const uint64_t n = text.size(), f = findArg.size(), r = replace.size();
    if (n <= start || f == 0)
        return 0;
    constexpr uint64_t npos = basic_string_ex<T>::npos;

    if (r <= f) {
        // Forwards, one sweep: the writing never overtakes the reading, and
        // the search only looks at the part not yet written.
        T* units = nullptr;
        uint64_t read = 0, write = 0;
        uint32_t count = 0;
        for (uint64_t pos = start; pos < n;) {
            const uint64_t match = search.Next(text, pos);
            if (match == npos)
                break;
            if (!units) {
                text.MakeOwn();
                units = text.GetBuffer(n);
                read = write = match;
            } else if (match > read) {
                std::memmove(units + write, units + read, (match - read) * sizeof(T));
                write += match - read;
            }
            if (r)
                std::memcpy(units + write, replace.data(), r * sizeof(T));
            write += r;
            read = pos = match + f;
            ++count;
            if (!all)
                break;
        }
        if (!units)
            return 0;
        if (read < n && write != read)
            std::memmove(units + write, units + read, (n - read) * sizeof(T));
        text.SetSize(write + (n - read));
        return count;
    }

    // Growing: every match is found first, the text opened to its final
    // size once, and filled from the end, so that each unit moves once.
    std::vector<uint64_t> matches;
    for (uint64_t pos = start; pos < n;) {
        const uint64_t match = search.Next(text, pos);
        if (match == npos)
            break;
        matches.push_back(match);
        pos = match + f;
        if (!all)
            break;
    }
    if (matches.empty())
        return 0;
    const uint64_t newSize = n + matches.size() * (r - f);
    text.MakeOwn();
    // Growing by the growing reserve: a caller that appends and replaces
    // behind the append, again and again, reallocates amortised rarely.
    text.ReserveGrow(newSize + 1);
    T* units = text.GetBuffer(newSize);
    uint64_t read = n, write = newSize;
    for (size_t k = matches.size(); k-- > 0;) {
        const uint64_t end = matches[k] + f;
        write -= read - end;
        std::memmove(units + write, units + end, (read - end) * sizeof(T));
        write -= r;
        std::memcpy(units + write, replace.data(), r * sizeof(T));
        read = matches[k];
    }
    text.SetSize(newSize);
    return static_cast<uint32_t>(matches.size());
}

}  // namespace

template <class T>
uint32_t ReplaceCopy(const basic_string_ex<T>& source, basic_string_ex<T>& dest, const basic_string_ex<T>& find,
                     const basic_string_ex<T>& replace, uint64_t start)
{
    const basic_string_ex<T> held = find;
    return CopyReplacing(source, source, dest, held, replace, start, CaseSensitive<T>(held));
}

template <class T>
uint32_t ReplaceCopyNoCase(const basic_string_ex<T>& source, basic_string_ex<T>& dest,
                           const basic_string_ex<T>& find, const basic_string_ex<T>& replace, uint64_t start)
{
    return CopyReplacing(source, source, dest, find, replace, start, CaseBlind<T>(find));
}

uint32_t ReplaceCopyViewed(const stringEx& source, const stringEx& view, stringEx& dest, const stringEx& find,
                           const stringEx& replace, bool asciiNoCase)
{
    // The case-sensitive search refers to its find: a copy outlives any
    // change to an argument that is also the destination.
    const stringEx held = find;
    if (asciiNoCase)
        return CopyReplacing(source, view, dest, find, replace, 0, CaseBlind<char>(find, true));
    return CopyReplacing(source, view, dest, held, replace, 0, CaseSensitive<char>(held));
}

template <class T>
uint32_t ReplaceInPlace(basic_string_ex<T>& text, const basic_string_ex<T>& find, const basic_string_ex<T>& replace,
                        uint64_t start, bool all)
{
    const basic_string_ex<T> held = find;  // the text may be the find itself
    return ReplaceInText(text, held, replace, start, all, CaseSensitive<T>(held));
}

template <class T>
uint32_t ReplaceInPlaceNoCase(basic_string_ex<T>& text, const basic_string_ex<T>& find,
                              const basic_string_ex<T>& replace, uint64_t start, bool all)
{
    return ReplaceInText(text, find, replace, start, all, CaseBlind<T>(find));
}

uint32_t ReplaceInPlaceAsciiNoCase(stringEx& text, const stringEx& find, const stringEx& replace, uint64_t start,
                                   bool all)
{
    return ReplaceInText(text, find, replace, start, all, CaseBlind<char>(find, true));
}

#define KARU_REPLACE_INSTANCES(T)                                                                                \
    template uint32_t ReplaceCopy<T>(const basic_string_ex<T>&, basic_string_ex<T>&, const basic_string_ex<T>&, \
                                     const basic_string_ex<T>&, uint64_t);                                       \
    template uint32_t ReplaceCopyNoCase<T>(const basic_string_ex<T>&, basic_string_ex<T>&,                      \
                                           const basic_string_ex<T>&, const basic_string_ex<T>&, uint64_t);      \
    template uint32_t ReplaceInPlace<T>(basic_string_ex<T>&, const basic_string_ex<T>&, const basic_string_ex<T>&, \
                                        uint64_t, bool);                                                         \
    template uint32_t ReplaceInPlaceNoCase<T>(basic_string_ex<T>&, const basic_string_ex<T>&,                    \
                                              const basic_string_ex<T>&, uint64_t, bool);

KARU_REPLACE_INSTANCES(char)
KARU_REPLACE_INSTANCES(wchar_t)

}  // namespace Karu

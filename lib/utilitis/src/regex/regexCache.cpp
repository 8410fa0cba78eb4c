// The per-thread pattern cache behind RegexFindCached.
//
// Callers that hold only a pattern text (a directory filter, a one-off
// search) usually repeat the same pattern many times. Each thread keeps the
// last pattern it compiled, with the flag word and the translation switch it
// was compiled with, and recompiles only when one of the three changes. One
// record per thread and width, so no lock is taken on the way; the record
// goes with its thread.
//
// Unlike RegexCompile, a "***" prefix here does not take the newline bits out
// of the compile flags: the pattern is compiled with what the caller asked
// for, and only the match loop's line mode follows the prefix.
#include <karu/regex/regexFront.h>

#include <memory>

#include "regex/regexFrontImpl.h"

namespace Karu {

namespace {

template <class T>
struct PerThreadRegexCache {
    basic_string_ex<T> pattern;  // as given, before translation
    uint32_t flags = 0;
    IMPL::CompiledRegex* compiled = nullptr;
    uint8_t translate = 0;

    PerThreadRegexCache() = default;
    PerThreadRegexCache(const PerThreadRegexCache&) = delete;
    PerThreadRegexCache& operator=(const PerThreadRegexCache&) = delete;
    ~PerThreadRegexCache() { IMPL::FreeCompiled(compiled); }
};

template <class T>
std::unique_ptr<PerThreadRegexCache<T>>& CacheSlot() noexcept
{
    thread_local std::unique_ptr<PerThreadRegexCache<T>> slot;
    return slot;
}

}  // namespace

template <class T>
void RegexCacheRelease()
{
    CacheSlot<T>().reset();
}

template <class T>
bool RegexFindCached(const basic_string_ex<T>& text, RegexMatches& out, basic_string_ex<T> pattern,
                     uint32_t occurrence, uint64_t startOffset, uint8_t ignoreCase, uint8_t newlineSensitive,
                     uint8_t baseFlags, bool notBol, bool notEol, uint8_t translatePerl, bool usePriorChar)
{
    out.clear();
    auto& slot = CacheSlot<T>();
    if (pattern.empty()) {
        slot.reset();
        return false;
    }
    if (startOffset >= text.size())
        return false;
    if (!slot)
        slot = std::make_unique<PerThreadRegexCache<T>>();
    PerThreadRegexCache<T>& cache = *slot;

    bool translatable = true;
    const bool lineMode = IMPL::PrefixLineMode(pattern, newlineSensitive != 0, translatable);
    const uint8_t translate = translatePerl && translatable ? 1 : 0;
    const uint32_t flags = IMPL::FlagWord(baseFlags, ignoreCase, newlineSensitive);

    if (!cache.compiled || cache.flags != flags || cache.translate != translate || !(cache.pattern == pattern)) {
        IMPL::FreeCompiled(cache.compiled);
        cache.compiled = nullptr;
        cache.pattern = pattern;
        cache.flags = flags;
        cache.translate = translate;
        // The cache keeps the text as given, so the translation works on a
        // copy of it.
        basic_string_ex<T> source = pattern;
        if (translate)
            ExpandEscapes(source, T('\\'), PerlClassTable<T>(), false, true);
        cache.compiled = IMPL::Compile(source, flags);
        if (!cache.compiled) {
            cache.pattern.clear();
            return false;
        }
    }
    return IMPL::FindLoop(text, out, &cache.compiled->rx, lineMode, occurrence, startOffset, notBol, notEol,
                          usePriorChar);
}

#define KARU_REGEX_CACHE_INSTANCES(T)                                                                          \
    template void RegexCacheRelease<T>();                                                                     \
    template bool RegexFindCached<T>(const basic_string_ex<T>&, RegexMatches&, basic_string_ex<T>, uint32_t, \
                                     uint64_t, uint8_t, uint8_t, uint8_t, bool, bool, uint8_t, bool);

KARU_REGEX_CACHE_INSTANCES(char)
KARU_REGEX_CACHE_INSTANCES(wchar_t)

}  // namespace Karu

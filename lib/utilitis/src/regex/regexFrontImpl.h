// What the front end's two sources share: the compiled object (the engine's
// record followed by the flag word we compiled it with) and the steps that
// both the handle path and the per-thread cache run.
#pragma once

#include <karu/regex/regexFront.h>
#include <karu/regex/rx.h>

namespace Karu::IMPL {

struct CompiledRegex {
    RxObject rx{};
    // What the match loop consults for line mode. The pattern's embedded
    // options may change the engine's own flags; this word keeps what we
    // asked for.
    uint32_t compileFlags = 0;
};

// The compile flags for the caller's wishes.
inline uint32_t FlagWord(uint8_t baseFlags, bool ignoreCase, bool newlineSensitive) noexcept
{
    return uint32_t(baseFlags) | (ignoreCase ? kRegexFoldCase : 0) | (newlineSensitive ? kRegexLineMode : 0);
}

// rxfree, then the object itself; null is fine.
void FreeCompiled(CompiledRegex* compiled) noexcept;

// A compiled object, or null when the engine refuses the pattern.
template <class T>
CompiledRegex* Compile(const basic_string_ex<T>& pattern, uint32_t flags);

// The match loop over an engine object; `lineMode` says whether a unit
// behind a newline starts a line for "^".
template <class T>
bool FindLoop(const basic_string_ex<T>& text, RegexMatches& out, const RxObject* rx, bool lineMode,
              uint32_t occurrence, uint64_t startOffset, bool notBol, bool notEol, bool usePriorChar);

}  // namespace Karu::IMPL

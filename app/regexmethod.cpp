// The regular-expression methods: a pair's pattern is compiled once, when the
// pairs are loaded, and the two replace forms run it over each text.
//
// A pattern that does not compile leaves a null handle; the pair then
// replaces nothing and the run goes on, without a message.
#include "methods.h"

#include <karu/regex/regexFront.h>
#include <karu/string/regexReplace.h>

namespace Karu {

PairPattern CompilePairPattern(const wstringEx& find, bool ignoreCase, bool ignoreNewline)
{
    // The compiler rewrites the shorthand in its own copy; the pair keeps the
    // pattern as it was written.
    wstringEx pattern = find;
    return RegexCompile(pattern, ignoreCase, !ignoreNewline, kRegexExtended, 1);
}

// Each call gets its own share of the replacement: the escape pass writes
// into a copy, and the pair stays intact for the next file.
uint32_t RegexReplaceCopy(const REPLACE_PAIR& pair, const wstringEx& source, wstringEx& dest)
{
    return RegexReplaceCopy<wchar_t>(source, dest, pair.regex, pair.replace, false, false, true);
}

uint32_t RegexReplaceInPlace(const REPLACE_PAIR& pair, wstringEx& text)
{
    return RegexReplaceInPlace<wchar_t>(text, pair.regex, pair.replace, false, false, true);
}

}  // namespace Karu

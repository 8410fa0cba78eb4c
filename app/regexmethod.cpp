// The regular-expression methods. Until the pattern engine is wired in, a
// pattern compiles to nothing and a pair with no compiled pattern matches
// nothing: the text passes through unchanged and nothing is counted.
#include "methods.h"

namespace Karu {

PairPattern CompilePairPattern(const wstringEx& /*find*/, bool /*ignoreCase*/, bool /*ignoreNewline*/)
{
    return PairPattern();
}

uint32_t RegexReplaceCopy(const REPLACE_PAIR& /*pair*/, const wstringEx& source, wstringEx& dest)
{
    dest = source;
    return 0;
}

uint32_t RegexReplaceInPlace(const REPLACE_PAIR& /*pair*/, wstringEx& /*text*/)
{
    return 0;
}

}  // namespace Karu

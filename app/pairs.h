// The find/replace pairs of a run, read from the arguments file.
//
// Everything about a pair that can be settled once is settled here, before
// the first file is read: environment references are expanded, the line
// escapes substituted, and in regular-expression mode the pattern compiled.
#pragma once

#include <vector>

#include <karu/regex/regexFront.h>
#include <karu/string/stringEx.h>

namespace Karu {

// A compiled pattern, shared by all copies of its pair; null when the pair
// is literal or its pattern did not compile (such a pair matches nothing).
using PairPattern = RegexHandle;

struct REPLACE_PAIR {
    wstringEx find;
    wstringEx replace;
    PairPattern regex;
    PairPattern bytesRegex;  // the same for UTF-8 bytes, when it finds the same (see CompilePairPatterns)
};

using ReplacePairs = std::vector<REPLACE_PAIR>;

// Cuts the decoded arguments text into pairs, in line order: one pair a
// line, the line trimmed at both ends, find and replace split at the first
// delimiter (a second one ends the replace part). Empty lines and pairs with
// an empty find are dropped without a word.
void LoadPairs(ReplacePairs& pairs, const wstringEx& text, const wstringEx& delimiter, bool regexMode,
               bool ignoreCase, bool ignoreNewline);

// $NAME and ${NAME} replaced by the variable's value where it is set and not
// empty; values are expanded again, 64 levels deep at most; "$$" gives "$".
wstringEx ExpandEnvVars(const wstringEx& text, int depth = 0);

}  // namespace Karu

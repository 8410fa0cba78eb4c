// The find methods of the tool and the one place where a method picks the
// routine that applies a pair to a text.
#pragma once

#include <cstdint>

#include "cmdline.h"
#include "pairs.h"

namespace Karu {

enum FindMethod : int32_t {
    kMethodNone = 0,
    kMethodLiteral = 1,
    kMethodLiteralNoCase = 2,
    kMethodRegex = 3,
};

struct METHOD_CHOICE {
    int32_t method = kMethodNone;
    bool ignoreCase = false;     // regular expressions only
    bool ignoreNewline = false;  // regular expressions only
};

// The first method switch present, in a fixed order of precedence (not the
// order on the command line).
METHOD_CHOICE SelectMethod(const CCmdLine& cmdLine);

// Applies one pair to text and returns the number of replacements. The
// in-place form works on text alone; the copying form builds the result in
// scratch and then exchanges the two, so that text holds the result and
// scratch the old buffer for the next pair. Returns false in `known` for a
// method that has no routine.
uint32_t ApplyPair(int32_t method, const REPLACE_PAIR& pair, wstringEx& text, wstringEx& scratch, bool inPlace,
                   bool& known);

// Regular-expression side: the pattern of a pair is compiled once, when the
// pairs are loaded, and the two replace forms run it over a text.
PairPattern CompilePairPattern(const wstringEx& find, bool ignoreCase, bool ignoreNewline);
uint32_t RegexReplaceCopy(const REPLACE_PAIR& pair, const wstringEx& source, wstringEx& dest);
uint32_t RegexReplaceInPlace(const REPLACE_PAIR& pair, wstringEx& text);

}  // namespace Karu

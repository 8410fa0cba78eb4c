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
// method that has no routine. The pair's parts come apart so that the bytes
// of a UTF-8 text can take the same routines (see pieces.h).
template <class T>
uint32_t ApplyPair(int32_t method, const basic_string_ex<T>& find, const basic_string_ex<T>& replace,
                   const PairPattern& regex, basic_string_ex<T>& text, basic_string_ex<T>& scratch, bool inPlace,
                   bool& known);

inline uint32_t ApplyPair(int32_t method, const REPLACE_PAIR& pair, wstringEx& text, wstringEx& scratch, bool inPlace,
                          bool& known)
{
    return ApplyPair<wchar_t>(method, pair.find, pair.replace, pair.regex, text, scratch, inPlace, known);
}

// Compiles the pair's find as a pattern, once, when the pairs are loaded:
// `regex` for the text, and `bytesRegex` for the UTF-8 bytes of a text when
// it finds there just what `regex` finds in the text (a pattern of ASCII only
// with RX_MATCHES_ASCII in both builds), null otherwise.
void CompilePairPatterns(REPLACE_PAIR& pair, bool ignoreCase, bool ignoreNewline);

}  // namespace Karu

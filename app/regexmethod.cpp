// The regular-expression methods: a pair's pattern is compiled once, when the
// pairs are loaded.
//
// A pattern that does not compile leaves a null handle; the pair then
// replaces nothing and the run goes on, without a message.
#include "methods.h"

#include <karu/regex/regexFront.h>
#include <karu/regex/rx.h>

namespace Karu {

namespace {

// The pattern for bytes, when it finds there what `wide` finds in the text.
PairPattern BytesPattern(const wstringEx& find, const PairPattern& wide, bool ignoreCase, bool ignoreNewline)
{
    if (!(wide.Info() & RX_MATCHES_ASCII))
        return PairPattern();
    // A pattern of ASCII only reads the same unit by unit in both widths.
    stringEx pattern;
    for (const wchar_t unit : find) {
        if (unit < 0 || unit >= 0x80)
            return PairPattern();
        pattern.push_back(static_cast<char>(unit));
    }
    PairPattern narrow = RegexCompile(pattern, ignoreCase, !ignoreNewline, kRegexExtended, 1);
    if (!(narrow.Info() & RX_MATCHES_ASCII) || narrow.GroupCount() != wide.GroupCount())
        return PairPattern();
    return narrow;
}

}  // namespace

void CompilePairPatterns(REPLACE_PAIR& pair, bool ignoreCase, bool ignoreNewline)
{
    // The compiler rewrites the shorthand in its own copy; the pair keeps the
    // pattern as it was written.
    wstringEx pattern = pair.find;
    pair.regex = RegexCompile(pattern, ignoreCase, !ignoreNewline, kRegexExtended, 1);
    pair.bytesRegex = BytesPattern(pair.find, pair.regex, ignoreCase, ignoreNewline);
}

}  // namespace Karu

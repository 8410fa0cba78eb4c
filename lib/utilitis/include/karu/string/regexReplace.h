// Regular-expression replace over a whole text: a copying form, which builds
// the result in a second buffer in one pass, and an in-place form, which
// rewrites the text and moves its tail at each match. Both substitute \0 to \9
// in the replacement with the text of the match's groups.
#pragma once

#include <cstdint>

#include <karu/regex/regexFront.h>
#include <karu/string/stringEx.h>

namespace Karu {

// Replaces every match of `handle` in `source`, writing the result into
// `destination` (cleared first, its storage kept). With `expandEscapes` the
// character escapes of the replacement (\t, \n, \" ...) become their
// characters first. Returns the number of matches replaced; a null handle
// replaces nothing and makes `destination` share the source's text.
template <class T>
uint32_t RegexReplaceCopy(const basic_string_ex<T>& source, basic_string_ex<T>& destination,
                          const RegexHandle& handle, basic_string_ex<T> replacement, bool notBol, bool notEol,
                          bool expandEscapes);

// The same, with the matches sought in `view`: a text as long as `source`
// that differs from it nowhere a match can lie, as the ASCII view of a
// double-byte text is for a pattern that matches only ASCII
// (TTextConv::AsciiView). Everything is copied from `source`.
template <class T>
uint32_t RegexReplaceCopy(const basic_string_ex<T>& source, const basic_string_ex<T>& view,
                          basic_string_ex<T>& destination, const RegexHandle& handle, basic_string_ex<T> replacement,
                          bool notBol, bool notEol, bool expandEscapes);

// The same on `text` itself.
template <class T>
uint32_t RegexReplaceInPlace(basic_string_ex<T>& text, const RegexHandle& handle, basic_string_ex<T> replacement,
                             bool notBol, bool notEol, bool expandEscapes);

// The substitution for one match: `replacement` with \n (a digit) replaced by
// the text of group n when the match has such a group, and by nothing
// otherwise; a backslash before any other unit keeps that unit literally; a
// backslash at the very end is dropped.
template <class T>
basic_string_ex<T> BuildReplacement(const basic_string_ex<T>& text, const RegexMatches& matches,
                                    const basic_string_ex<T>& replacement);

}  // namespace Karu

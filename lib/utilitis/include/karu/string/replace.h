// Applying one literal find/replace pair to a whole text.
//
// Two forms with identical results. The copying form builds the result in a
// second buffer in one left-to-right pass: linear, at the price of a second
// text-sized buffer, which the caller keeps from call to call so that in the
// steady state nothing is allocated. The in-place form rewrites the text
// itself and moves the tail at every match, which is quadratic when matches
// are many but needs no second buffer.
//
// In every form the scan goes on behind the inserted text, so a replacement
// is never scanned again, matches do not overlap and the leftmost one wins.
// An empty find never matches. The case-insensitive forms fold both sides one
// unit at a time (the Unicode table for wide text, tolower for bytes), so a
// unit whose lower case would be several letters matches only itself; they
// look for the units that can begin a match many at a time (NoCaseFinder).
#pragma once

#include <cstdint>

#include <karu/string/stringEx.h>

namespace Karu {

// Result of source with every match of find from `start` on replaced, into
// dest (cleared first, its storage kept). Text in front of start is copied
// as it is. Returns the number of replacements.
template <class T>
uint32_t ReplaceCopy(const basic_string_ex<T>& source, basic_string_ex<T>& dest, const basic_string_ex<T>& find,
                     const basic_string_ex<T>& replace, uint64_t start = 0);
template <class T>
uint32_t ReplaceCopyNoCase(const basic_string_ex<T>& source, basic_string_ex<T>& dest,
                           const basic_string_ex<T>& find, const basic_string_ex<T>& replace, uint64_t start = 0);

// The same on the text itself; with `all` false only the first match is
// replaced.
template <class T>
uint32_t ReplaceInPlace(basic_string_ex<T>& text, const basic_string_ex<T>& find, const basic_string_ex<T>& replace,
                        uint64_t start = 0, bool all = true);
template <class T>
uint32_t ReplaceInPlaceNoCase(basic_string_ex<T>& text, const basic_string_ex<T>& find,
                              const basic_string_ex<T>& replace, uint64_t start = 0, bool all = true);

// The case-blind in-place form for the bytes of UTF-8 text: ASCII letters
// fold as the wide text folds them, and every other byte matches only
// itself. With a find of ASCII only, it finds in the bytes what the wide
// form finds in the text, as long as the text holds none of the characters
// that fold into ASCII (UnitsLoweringIntoAscii), or none that fold like a
// character of the find.
uint32_t ReplaceInPlaceAsciiNoCase(stringEx& text, const stringEx& find, const stringEx& replace, uint64_t start = 0,
                                   bool all = true);

// The copying form with the matches sought in `view`: a text as long as
// `source` that differs from it nowhere a match can lie, as the ASCII view of
// a double-byte text is for a find of ASCII (TTextConv::AsciiView).
// Everything is copied from `source`. Case-blind, it folds as
// ReplaceInPlaceAsciiNoCase does.
uint32_t ReplaceCopyViewed(const stringEx& source, const stringEx& view, stringEx& dest, const stringEx& find,
                           const stringEx& replace, bool asciiNoCase);

}  // namespace Karu

// Getting text in and out of the tool: whole files decoded into one wide
// string, standard input and output, and the wide-unit encodings that bypass
// conversion altogether.
//
// A wide-unit encoding is never converted: the bytes are taken as wide
// characters as they stand, four bytes a unit, so that such a run gives back
// exactly the bytes it read. The swapped members of the family exchange the
// two low bytes of every unit on the way in and on the way out; the upper
// half of a unit does not survive that swap.
#pragma once

#include <karu/TextConv/TextConv.h>
#include <karu/string/stringEx.h>

namespace Karu {

using ConvPtr = TextConvPtr;

// The whole file as wide text: decoded by conv, or taken as units when
// `wide`, with the low 16 bits of each unit byte-swapped when `swapped`.
void ReadTextFile(wstringEx& text, const stringEx& path, const ConvPtr& conv, bool wide, bool swapped);

// Every unit becomes the byte swap of its low 16 bits, zero extended.
void SwapUnits(wstringEx& text);

// All of standard input. The end of input is read like a character and so
// ends the text: as byte 0xFF, or as the unit 0xFFFFFFFF in wide units.
stringEx ReadStdinBytes();
wstringEx ReadStdinUnits();

// Raw writes to standard output: bytes, or units four bytes each.
void WriteStdout(const stringEx& bytes);
void WriteStdoutUnits(const wstringEx& text);

}  // namespace Karu

// Getting text in and out of the tool: whole files decoded into one wide
// string, standard input and output, and the wide-unit encodings that bypass
// conversion altogether.
//
// Text is always decoded in the carrying form: a byte the encoding cannot
// decode becomes an escape unit, so that no byte of the input is lost on
// the way in. On the way out EscapeWriting says what becomes of them.
//
// A wide-unit encoding is never converted: the bytes are taken as wide
// characters as they stand, four bytes a unit, so that such a run gives back
// exactly the bytes it read; the one to three bytes behind the last whole
// unit are kept apart and written back behind it. The swapped members of the
// family exchange the two low bytes of every unit on the way in and on the
// way out; the upper half of a unit does not survive that swap.
#pragma once

#include <karu/TextConv/TextConv.h>
#include <karu/string/stringEx.h>

namespace Karu {

using ConvPtr = TextConvPtr;

// The whole file as wide text: decoded by conv, or taken as units when
// `wide`, with the low 16 bits of each unit byte-swapped when `swapped`.
// `tail`, when given, receives the bytes behind the last whole unit.
void ReadTextFile(wstringEx& text, const stringEx& path, const ConvPtr& conv, bool wide, bool swapped,
                  stringEx* tail = nullptr);

// How escape units in a result are written: as their bytes, when the output
// encoding is the input's (the carrying form); not at all, the output ending
// in front of the first one; or by the ordinary conversion (-force).
enum class EscapeWriting { kCarry, kRefuse, kOrdinary };

// Encodes `text` by `out` as `escapes` says into `bytes`. Under kRefuse the
// bytes end in front of the first escape unit, and its position is returned;
// npos when all of the text was encoded.
uint64_t EncodeText(TTextConv& out, EscapeWriting escapes, const wstringEx& text, stringEx& bytes);

// The offset of the first byte that `conv` cannot decode (that its carrying
// form turns into an escape unit); the size of `bytes` when there is none.
uint64_t FirstUndecodable(TTextConv& conv, const stringEx& bytes);

// Every unit becomes the byte swap of its low 16 bits, zero extended.
void SwapUnits(wstringEx& text);

// All of standard input, as bytes; or as units, with the bytes behind the
// last whole unit in `tail`.
stringEx ReadStdinBytes();
wstringEx ReadStdinUnits(stringEx& tail);

// Raw writes to standard output: bytes, or units four bytes each, straight
// to the descriptor with nothing held back. Once a write has been refused,
// nothing more is written, and StdoutError() tells why.
void WriteStdout(const stringEx& bytes);
void WriteStdoutUnits(const wstringEx& text);
// 0 while standard output takes what it is given; otherwise the errno of the
// first write it refused (EPIPE: the reader has gone away).
int StdoutError() noexcept;

}  // namespace Karu

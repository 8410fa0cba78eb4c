// Large files a few lines at a time.
//
// Decoding a whole file into wide text costs four bytes of fresh memory per
// character, and the copying replace takes a second buffer as large: on a
// big file most of the run went into taking that memory from the system.
// When no pair can match a line feed, no match can reach across a line end
// that the text had before the pairs ran (such a line feed is never
// replaced, so it still ends its piece for every later pair). For a literal
// that means no line feed in the find; a pattern must stay within lines as
// the engine judges it (RX_STAYS_IN_LINES: it also cannot tell a piece's
// start from a place after a line feed, nor read past a match) and never
// match empty, since an empty match could fall on a cut and be found at the
// end of one piece and at the start of the next. And when both encodings
// convert line by line, a file cut just after line feeds gives, piece by
// piece, exactly the bytes the whole would give.
// Each piece is then decoded, replaced and encoded in buffers that stay warm
// from piece to piece, and only the encoded result grows with the file: the
// file itself is read a piece at a time too.
//
// When both sides are plain UTF-8 (TTextConv::IsPlainUtf8), a well-formed
// piece is not converted at all if the pairs find in its bytes what they find
// in its text: the UTF-8 forms of the pairs replaced in the bytes then give
// exactly the bytes the conversions would. So it is for case-sensitive
// literals, since a well-formed find can only match where a character begins
// and text and bytes correspond character for character; and for patterns
// whose matches are ASCII and that tell no context apart but the line feed
// and the ends (RX_MATCHES_ASCII: see CompilePairPatterns), as long as the
// piece has no character beyond U+FFFF, which the wide matcher reads by its
// low 16 bits. Any other piece takes the conversions.
#pragma once

#include <functional>

#include <karu/TextConv/TextConv.h>

#include "methods.h"
#include "pairs.h"

namespace Karu {

// Whether the method and pairs allow the work by pieces: no pair that could
// match a line feed, or match empty, under the method.
bool PairsAllowPieces(int32_t method, const ReplacePairs& pairs);

// The result of running the pairs over a file by pieces.
struct PIECES_RESULT {
    uint32_t replaced = 0;
    bool empty = true;  // the file decoded to no text at all
};

// Where the bytes come from: fills up to `n` bytes at `room` and returns how
// many, 0 at the end.
using PieceReader = std::function<uint64_t(char* room, uint64_t n)>;

// Decodes what `read` gives with `in` piece by piece (a leading U+FEFF of the
// text dropped), applies every pair to each piece with the copying form, and
// appends each piece's encoding by `out` to `encoded`. A piece ends just
// after the first line feed at or past `pieceBytes`, or at the end.
// `sizeHint`, the input's expected size in bytes (0: unknown), lets the
// output's room be taken once or twice instead of growing step by step.
PIECES_RESULT ReplaceByPieces(const PieceReader& read, int32_t method, const ReplacePairs& pairs, TTextConv& in,
                              TTextConv& out, stringEx& encoded, uint64_t pieceBytes = uint64_t(1) << 16,
                              uint64_t sizeHint = 0);

// The same over bytes in memory.
PIECES_RESULT ReplaceByPieces(const stringEx& bytes, int32_t method, const ReplacePairs& pairs, TTextConv& in,
                              TTextConv& out, stringEx& encoded, uint64_t pieceBytes = uint64_t(1) << 16);

}  // namespace Karu

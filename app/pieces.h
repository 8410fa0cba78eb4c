// Large texts a few lines at a time.
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
// convert line by line, a text cut just after line feeds gives, piece by
// piece, exactly the bytes the whole would give. Each piece is then decoded,
// replaced and encoded in buffers that stay warm from piece to piece: a file
// is read a piece at a time and only its result grows, a stream is written
// as it is read and nothing grows.
//
// A line feed is only the commonest such cut. For a literal, any character
// that no find holds will do, for the same reason, and a text without line
// feeds (minified data, a one-line log) is cut after one of those instead
// (CutBytes), so that no piece grows with the text. Patterns keep to line
// feeds: a line is all they promise not to cross.
//
// When both sides are plain UTF-8 (TTextConv::IsPlainUtf8), a piece is not
// converted at all if the pairs find in its bytes what they find in its
// text: the UTF-8 forms of the pairs replaced in the bytes then give exactly
// the bytes the conversions would. So it is for case-sensitive literals,
// since a well-formed find can only match where a character begins, and a
// broken byte, carried as an escape unit, is never part of one: text and
// bytes correspond character for character. So it is too for case-blind
// finds of ASCII, folding ASCII bytes alone, in a piece that holds none of
// the few characters beyond ASCII that fold like a letter of a find (U+212A
// KELVIN SIGN folds to "k"; an escape unit has no case). And for patterns
// whose matches are ASCII and that tell no context apart but the line feed
// and the ends (RX_MATCHES_ASCII: see CompilePairPatterns), as long as the
// piece has no character beyond U+FFFF, which the wide matcher reads by its
// low 16 bits.
// A broken piece goes this way only when its escape units are to be written
// back as bytes (EscapeWriting::kCarry).
//
// Text in another encoding, read and written in that same encoding, goes as
// bytes too when its converter gives an ASCII view of each piece
// (TTextConv::AsciiView: in a double-byte code page, the second bytes that
// look like ASCII masked) and every find is ASCII or every pattern has
// RX_MATCHES_ASCII. Finds and patterns search the view; what is copied comes
// from the bytes, so unmatched text keeps its bytes without being converted
// at all. The first piece (it may begin with a signature), pieces with broken
// bytes (unless they are carried and each stands alone, as every byte above
// 0x7F does in the C locale's ASCII), and replace texts the encoding cannot
// hold or that hold a backslash as a second byte (a pattern's replace text
// reads it as an escape) take the conversions. Any other piece takes the
// conversions as well.
#pragma once

#include <array>
#include <functional>

#include <karu/TextConv/TextConv.h>

#include "methods.h"
#include "pairs.h"
#include "textio.h"

namespace Karu {

// Whether the method and pairs allow the work by pieces: no pair that could
// match a line feed, or match empty, under the method.
bool PairsAllowPieces(int32_t method, const ReplacePairs& pairs);

// The bytes after which a piece may also end when a line is long: for the
// literal methods each byte that `in` reads as a character alone, never part
// of another (TTextConv::CutsAfter), and that no find holds (folded, for the
// case-blind method); no pair can match across a character it cannot match.
// For the patterns, only the line feed.
std::array<bool, 256> CutBytes(int32_t method, const ReplacePairs& pairs, TTextConv& in);

struct PIECES_OPTIONS {
    // A piece ends just after the first line feed at or past this size; when
    // no line feed comes before twice this size, after the first of the
    // CutBytes at or past it.
    uint64_t pieceBytes = uint64_t(1) << 16;
    // The input's expected size in bytes (0: unknown): the output's room is
    // then taken once or twice instead of growing step by step.
    uint64_t sizeHint = 0;
    bool inPlace = false;  // -noexp: each piece is replaced in place
    EscapeWriting escapes = EscapeWriting::kCarry;
    // When set, called after each piece with the output so far, which it
    // takes (the output is then emptied): this is how a stream is written as
    // it is read. Otherwise the output stays in `encoded`.
    std::function<void(stringEx& encoded)> flush;
};

// The result of running the pairs over a text by pieces.
struct PIECES_RESULT {
    uint32_t replaced = 0;
    bool empty = true;  // the input decoded to no text at all
    // Under EscapeWriting::kRefuse: an escape unit was to be written, and
    // the output ends in front of it. `unwritableAt` is the input offset of
    // the first undecodable byte of that piece (of the piece itself when the
    // escape came from a replacement).
    bool unwritable = false;
    uint64_t unwritableAt = 0;
};

// Where the bytes come from: fills up to `n` bytes at `room` and returns how
// many, 0 at the end.
using PieceReader = std::function<uint64_t(char* room, uint64_t n)>;

// Decodes what `read` gives with `in` piece by piece in the carrying form (a
// leading U+FEFF of the text dropped), applies every pair to each piece, and
// appends each piece's encoding by `out` to `encoded` (see EscapeWriting).
PIECES_RESULT ReplaceByPieces(const PieceReader& read, int32_t method, const ReplacePairs& pairs, TTextConv& in,
                              TTextConv& out, stringEx& encoded, const PIECES_OPTIONS& options = {});

// The same over bytes in memory.
PIECES_RESULT ReplaceByPieces(const stringEx& bytes, int32_t method, const ReplacePairs& pairs, TTextConv& in,
                              TTextConv& out, stringEx& encoded, PIECES_OPTIONS options = {});

}  // namespace Karu

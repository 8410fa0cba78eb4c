// Replacing by pieces; see pieces.h for why the pieces give the whole's bytes.
#include "pieces.h"

#include "methods.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include <karu/regex/rx.h>
#include <karu/string/replace.h>

namespace Karu {

bool PairsAllowPieces(int32_t method, const ReplacePairs& pairs)
{
    if (method != kMethodLiteral && method != kMethodLiteralNoCase && method != kMethodRegex)
        return false;
    using Tr = text_traits<wchar_t>;
    for (const REPLACE_PAIR& pair : pairs) {
        if (method == kMethodRegex) {
            // A pattern that did not compile replaces nothing anywhere.
            const long info = pair.regex.Info();
            if (pair.regex && (!(info & RX_STAYS_IN_LINES) || (info & RX_CAN_BE_EMPTY)))
                return false;
            continue;
        }
        for (const wchar_t unit : pair.find)
            // The case-blind search folds both sides, and folding may map
            // another unit onto the line feed.
            if (method == kMethodLiteralNoCase ? Tr::Fold(unit) == Tr::Fold(L'\n') : unit == L'\n')
                return false;
    }
    return true;
}

namespace {

// A pair as the bytes of a UTF-8 piece take it.
struct BYTE_PAIR {
    stringEx find;
    stringEx replace;
    PairPattern regex;
};
using BytePairs = std::vector<BYTE_PAIR>;

bool AllScalars(const wstringEx& text) noexcept
{
    for (const wchar_t unit : text) {
        const uint32_t c = static_cast<uint32_t>(unit);
        if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF))
            return false;
    }
    return true;
}

// The pairs in UTF-8 as `out` writes them, when a piece may be worked as
// bytes: see pieces.h. Empty otherwise (a run always has a pair).
BytePairs PairsForBytes(int32_t method, const ReplacePairs& pairs, const TTextConv& in, TTextConv& out)
{
    BytePairs encoded;
    if ((method != kMethodLiteral && method != kMethodRegex) || !in.IsPlainUtf8() || !out.IsPlainUtf8())
        return encoded;
    for (const REPLACE_PAIR& pair : pairs) {
        if (!AllScalars(pair.find) || !AllScalars(pair.replace))
            return BytePairs();
        // A pattern that did not compile replaces nothing, in bytes as well.
        if (method == kMethodRegex && pair.regex && !pair.bytesRegex)
            return BytePairs();
        encoded.push_back({out.WCtoMB(pair.find), out.WCtoMB(pair.replace), pair.bytesRegex});
    }
    return encoded;
}

// Whether the bytes hold a character beyond U+FFFF (a four-byte form): the
// wide matcher reads such a character by its low 16 bits, bytes can't.
bool BeyondBmp(const char* bytes, uint64_t n) noexcept
{
    // Eight bytes a step: a byte's top bit survives the and of the word with
    // itself shifted by one to three bits only if its top four bits are set
    // (what a shift carries into the next byte lands below its top bit).
    uint64_t any = 0;
    uint64_t i = 0;
    for (; i + 8 <= n; i += 8) {
        uint64_t x;
        std::memcpy(&x, bytes + i, 8);
        any |= x & (x << 1) & (x << 2) & (x << 3);
    }
    for (; i < n; ++i) {
        const uint64_t x = static_cast<unsigned char>(bytes[i]);
        any |= x & (x << 1) & (x << 2) & (x << 3);
    }
    return (any & 0x8080808080808080u) != 0;
}

const char kUtf8Signature[] = "\xEF\xBB\xBF";

}  // namespace

PIECES_RESULT ReplaceByPieces(const PieceReader& read, int32_t method, const ReplacePairs& pairs, TTextConv& in,
                              TTextConv& out, stringEx& encoded, uint64_t pieceBytes, uint64_t sizeHint)
{
    const uint64_t startSize = encoded.size();
    uint64_t consumed = 0;  // input bytes taken into pieces so far
    if (sizeHint > 0)
        encoded.ReserveExact(startSize + sizeHint + 1);
    // Appends a piece's result. When the output is about to outgrow its
    // room, the room is made for what the rest of the input would give at
    // the rate seen so far: growing by halves instead would copy the output
    // and take fresh memory for it several times over.
    auto append = [&](const char* piece, uint64_t n) {
        const uint64_t needed = encoded.size() + n;
        if (needed > encoded.capacity() && sizeHint > consumed && consumed > 0) {
            const double rate = static_cast<double>(needed - startSize) / static_cast<double>(consumed);
            const double rest = rate * static_cast<double>(sizeHint - consumed);
            encoded.ReserveExact(needed + static_cast<uint64_t>(rest * 1.05) + 4096);
        }
        encoded.append(piece, n);
    };
    PIECES_RESULT result;
    const BytePairs bytePairs = PairsForBytes(method, pairs, in, out);
    stringEx pending, pieceOut, bytes, byteScratch;
    wstringEx text, scratch;
    // The copying replace reserves some room above its text's size, and the
    // two buffers change roles at every pair: both sized for a piece with
    // that room from the start, neither regrows into fresh memory each time.
    const uint64_t room = pieceBytes + pieceBytes / 4 + 4096;
    text.ReserveExact(room);
    scratch.ReserveExact(room);
    // Reads fill up to the piece size and then go on in small steps, so that
    // little is read past the line feed that ends a piece: what is, is moved
    // to the front for the next piece.
    constexpr uint64_t kStep = 4096;
    bool atEnd = false;
    while (!atEnd || !pending.empty()) {
        // Fill until the pending bytes hold a line feed at or past the piece
        // size, or the input ends.
        uint64_t cut = 0;
        for (uint64_t searched = 0;;) {
            if (pending.size() >= pieceBytes) {
                const uint64_t from = std::max(searched, pieceBytes - 1);
                const void* feed = std::memchr(pending.data() + from, '\n', pending.size() - from);
                if (feed) {
                    cut = static_cast<uint64_t>(static_cast<const char*>(feed) - pending.data()) + 1;
                    break;
                }
                searched = pending.size();
            }
            if (atEnd) {
                cut = pending.size();
                break;
            }
            const uint64_t had = pending.size();
            const uint64_t want = had < pieceBytes ? pieceBytes - had + kStep : kStep;
            char* room = pending.GetBuffer(had + want);
            const uint64_t got = read(room + had, want);
            pending.SetSize(had + got);
            atEnd = got == 0;
        }
        if (cut == 0)
            break;
        if (!bytePairs.empty() && IsWellFormedUtf8(pending.data(), cut) &&
            (method != kMethodRegex || !BeyondBmp(pending.data(), cut))) {
            uint64_t skip = 0;
            if (result.empty && cut >= 3 && std::memcmp(pending.data(), kUtf8Signature, 3) == 0)
                skip = 3;
            consumed += cut;
            result.empty = false;
            if (method == kMethodLiteral) {
                // Literals are replaced in place in the result itself,
                // which spares the piece a copy.
                const uint64_t start = encoded.size();
                append(pending.data() + skip, cut - skip);
                pending.erase(0, cut);
                for (const BYTE_PAIR& pair : bytePairs)
                    result.replaced += ReplaceInPlace(encoded, pair.find, pair.replace, start);
                continue;
            }
            // The piece becomes the pairs' text where it lies; only what was
            // read past it is copied, back into pending.
            bytes.assign(pending.data() + cut, pending.size() - cut);
            bytes.swap(pending);
            bytes.SetSize(cut);
            if (skip)
                bytes.erase(0, skip);
            for (const BYTE_PAIR& pair : bytePairs) {
                bool known;
                result.replaced += ApplyPair<char>(method, pair.find, pair.replace, pair.regex, bytes, byteScratch,
                                                   false, known);
            }
            append(bytes.data(), bytes.size());
            continue;
        }
        // The decoder reads the piece where it lies.
        in.MBtoWC(text, basic_buffer<char>::View(pending.data(), cut));
        pending.erase(0, cut);
        consumed += cut;
        if (text.empty())
            continue;
        if (result.empty && text[0] == L'\uFEFF')
            text.erase(0, 1);
        result.empty = false;
        for (const REPLACE_PAIR& pair : pairs) {
            bool known;
            result.replaced += ApplyPair(method, pair, text, scratch, false, known);
        }
        out.WCtoMB(pieceOut, text);
        append(pieceOut.data(), pieceOut.size());
    }
    return result;
}

PIECES_RESULT ReplaceByPieces(const stringEx& bytes, int32_t method, const ReplacePairs& pairs, TTextConv& in,
                              TTextConv& out, stringEx& encoded, uint64_t pieceBytes)
{
    uint64_t at = 0;
    const PieceReader read = [&](char* room, uint64_t n) {
        const uint64_t take = std::min(n, bytes.size() - at);
        std::memcpy(room, bytes.data() + at, take);
        at += take;
        return take;
    };
    return ReplaceByPieces(read, method, pairs, in, out, encoded, pieceBytes, bytes.size());
}

}  // namespace Karu

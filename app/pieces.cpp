// Replacing by pieces; see pieces.h for why the pieces give the whole's bytes.
#include "pieces.h"

#include "methods.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include <karu/regex/rx.h>
#include <karu/string/regexReplace.h>
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

// The pairs as `out` writes them, when a piece may be worked as bytes (see
// pieces.h), and what a piece must not hold for it.
struct BYTE_PAIRS {
    std::vector<BYTE_PAIR> pairs;  // empty: no piece is worked as bytes
    // Case-blind finds: the characters that fold into ASCII like a letter of
    // a find, in UTF-8. A piece holding one is converted.
    std::vector<stringEx> foldingIntoFinds;
    // Pairs over an encoding other than UTF-8: each searches the piece's
    // ASCII view. Whether the replace texts read back as themselves there
    // is known once the converter can give a view at all.
    bool viewed = false;
    std::optional<bool> replaceViewed;
};

bool AllScalars(const wstringEx& text) noexcept
{
    for (const wchar_t unit : text) {
        const uint32_t c = static_cast<uint32_t>(unit);
        if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF))
            return false;
    }
    return true;
}

bool AllAscii(const wstringEx& text) noexcept
{
    for (const wchar_t unit : text)
        if (static_cast<uint32_t>(unit) >= 0x80)
            return false;
    return true;
}

// For case-blind finds of ASCII only: the characters beyond ASCII that fold
// like one of their letters. Such a character in the text would match in
// the text and not in the bytes; none of them may come from a replace text
// either, where the bytes of a later pair would meet it unchecked. (An
// escape unit has no case, and the byte it carries matches only itself.)
bool NoteFoldingIntoFinds(const ReplacePairs& pairs, TTextConv& out, std::vector<stringEx>& found)
{
    using Tr = text_traits<wchar_t>;
    for (const wchar_t unit : UnitsLoweringIntoAscii()) {
        const wchar_t folded = Tr::Fold(unit);
        bool relevant = false;
        for (const REPLACE_PAIR& pair : pairs)
            for (const wchar_t c : pair.find)
                relevant = relevant || Tr::Fold(c) == folded;
        if (!relevant)
            continue;
        for (const REPLACE_PAIR& pair : pairs)
            for (const wchar_t c : pair.replace)
                if (c == unit)
                    return false;
        // One the encoding cannot hold cannot be in its text.
        const stringEx bytes = out.WCtoMB(wstringEx(1, unit));
        if (out.MBtoWC(bytes) == wstringEx(1, unit))
            found.push_back(bytes);
    }
    return true;
}

BYTE_PAIRS PairsForBytes(int32_t method, const ReplacePairs& pairs, TTextConv& in, TTextConv& out)
{
    BYTE_PAIRS encoded;
    if (method != kMethodLiteral && method != kMethodLiteralNoCase && method != kMethodRegex)
        return encoded;
    // Another encoding keeps the bytes of unmatched text only when it is
    // written back as it was read.
    encoded.viewed = !(in.IsPlainUtf8() && out.IsPlainUtf8());
    if (encoded.viewed &&
        (in.Encoding().empty() || in.Encoding() != out.Encoding() || in.BackEnd() != out.BackEnd()))
        return BYTE_PAIRS();
    for (const REPLACE_PAIR& pair : pairs) {
        if (!AllScalars(pair.find) || !AllScalars(pair.replace))
            return BYTE_PAIRS();
        // A replace text the encoding cannot hold is for the text's way to
        // refuse or carry.
        const stringEx replace = out.WCtoMB(pair.replace);
        if (encoded.viewed && !(in.MBtoWC(replace) == pair.replace))
            return BYTE_PAIRS();
        // A pattern that did not compile replaces nothing, in bytes as well.
        if (method == kMethodRegex && pair.regex && !pair.bytesRegex)
            return BYTE_PAIRS();
        // A view shows only ASCII as it is.
        if ((method == kMethodLiteralNoCase || (encoded.viewed && method == kMethodLiteral)) && !AllAscii(pair.find))
            return BYTE_PAIRS();
        encoded.pairs.push_back({out.WCtoMB(pair.find), replace, pair.bytesRegex});
    }
    if (method == kMethodLiteralNoCase && !NoteFoldingIntoFinds(pairs, out, encoded.foldingIntoFinds))
        return BYTE_PAIRS();
    return encoded;
}

// Whether every replace text, in bytes, is whole characters of `in`, and,
// for patterns, with its backslashes its own: a backslash that is the second
// byte of a character would be read as an escape. The view of a replaced
// text is then sure to be had again for the next pair.
bool ReplaceTextsViewed(int32_t method, const std::vector<BYTE_PAIR>& pairs, const TTextConv& in)
{
    stringEx view;
    for (const BYTE_PAIR& pair : pairs) {
        if (!in.AsciiView(view, pair.replace))
            return false;
        if (method != kMethodRegex)
            continue;
        for (uint64_t i = 0; i < view.size(); ++i)
            if (pair.replace[i] == '\\' && view[i] != '\\')
                return false;
    }
    return true;
}

// One pair over a piece searched in its view, into `out`.
uint32_t ApplyPairViewed(int32_t method, const BYTE_PAIR& pair, const stringEx& bytes, const stringEx& view,
                         stringEx& out)
{
    // No pattern that pieces allow matches empty: the copying form does
    // what the in-place one would.
    if (method == kMethodRegex)
        return RegexReplaceCopy(bytes, view, out, pair.regex, pair.replace, false, false, true);
    return ReplaceCopyViewed(bytes, view, out, pair.find, pair.replace, method == kMethodLiteralNoCase);
}

// Whether the piece holds one of the characters that keep it from being
// worked as bytes.
bool HoldsAny(const char* bytes, uint64_t n, const std::vector<stringEx>& characters) noexcept
{
    for (const stringEx& c : characters)
        if (memmem(bytes, n, c.data(), c.size()))
            return true;
    return false;
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

std::array<bool, 256> CutBytes(int32_t method, const ReplacePairs& pairs, TTextConv& in)
{
    std::array<bool, 256> cuts{};
    cuts[static_cast<unsigned char>('\n')] = true;
    if (method != kMethodLiteral && method != kMethodLiteralNoCase)
        return cuts;
    using Tr = text_traits<wchar_t>;
    const bool folded = method == kMethodLiteralNoCase;
    wstringEx unit;
    for (int b = 0; b < 256; ++b) {
        const char byte = static_cast<char>(b);
        if (!in.CutsAfter(byte))
            continue;
        in.MBtoWCCarrying(unit, stringEx(&byte, 1));
        if (unit.size() != 1)
            continue;
        const wchar_t u = folded ? Tr::Fold(unit[0]) : unit[0];
        bool held = false;
        for (const REPLACE_PAIR& pair : pairs)
            for (const wchar_t f : pair.find)
                held = held || (folded ? Tr::Fold(f) : f) == u;
        cuts[static_cast<unsigned char>(byte)] = !held;
    }
    return cuts;
}

namespace {

// Where the piece at the head of `pending` ends: just after the first line
// feed at or past `pieceBytes`, or, when none comes before twice that, just
// after the first cut byte at or past it; 0 when more input is needed.
// `searched` and `searchedCuts` keep how far each search has gone.
uint64_t FindCut(const stringEx& pending, uint64_t pieceBytes, const std::array<bool, 256>* cuts,
                 uint64_t& searched, uint64_t& searchedCuts)
{
    if (pending.size() < pieceBytes)
        return 0;
    const uint64_t from = std::max(searched, pieceBytes - 1);
    const void* feed = std::memchr(pending.data() + from, '\n', pending.size() - from);
    if (feed)
        return static_cast<uint64_t>(static_cast<const char*>(feed) - pending.data()) + 1;
    searched = pending.size();
    if (!cuts || pending.size() < 2 * pieceBytes)
        return 0;
    const auto* bytes = reinterpret_cast<const unsigned char*>(pending.data());
    for (uint64_t i = std::max(searchedCuts, pieceBytes - 1); i < pending.size(); ++i)
        if ((*cuts)[bytes[i]])
            return i + 1;
    searchedCuts = pending.size();
    return 0;
}

}  // namespace

PIECES_RESULT ReplaceByPieces(const PieceReader& read, int32_t method, const ReplacePairs& pairs, TTextConv& in,
                              TTextConv& out, stringEx& encoded, const PIECES_OPTIONS& options)
{
    const uint64_t pieceBytes = std::max<uint64_t>(options.pieceBytes, 1);
    const uint64_t sizeHint = options.flush ? 0 : options.sizeHint;
    uint64_t startSize = encoded.size();
    uint64_t consumed = 0;  // input bytes taken into pieces so far
    // The output is filled once and handed to the file: small pages, whose
    // cost is steady (see AdviseSmallPages).
    auto smallPages = [&encoded] {
        // Advice only: nothing is written through the pointer.
        char* untouched = const_cast<char*>(encoded.data()) + encoded.size();
        IMPL::AdviseSmallPages(untouched, encoded.capacity() - encoded.size());
    };
    // An eighth more than the input: a result that grows a little does not
    // have to move (a move holds the old and the new result at once), and
    // room that is never written costs no memory.
    if (sizeHint > 0) {
        encoded.ReserveExact(startSize + sizeHint + sizeHint / 8 + 4096);
        smallPages();
    }
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
            smallPages();
        }
        encoded.append(piece, n);
    };
    auto flush = [&] {
        if (options.flush) {
            options.flush(encoded);
            startSize = encoded.size();
        }
    };
    PIECES_RESULT result;
    BYTE_PAIRS bytePairs = PairsForBytes(method, pairs, in, out);
    const bool carried = options.escapes == EscapeWriting::kCarry;
    // The cuts of long lines, worked out when the first one comes.
    std::array<bool, 256> cuts{};
    bool cutsKnown = false, moreCuts = false;
    stringEx pending, pieceOut, bytes, byteScratch, view;
    wstringEx text, scratch;
    // The copying replace reserves some room above its text's size, and the
    // two buffers change roles at every pair: both sized for a piece with
    // that room from the start, neither regrows into fresh memory each time.
    const uint64_t room = pieceBytes + pieceBytes / 4 + 4096;
    text.ReserveExact(room);
    scratch.ReserveExact(room);
    // Reads fill up to the piece size and then go on in small steps, so that
    // little is read past the line feed that ends a piece: what is, is moved
    // to the front for the next piece. Past twice the piece size a long line
    // is read in steps that grow with it.
    constexpr uint64_t kStep = 4096;
    bool atEnd = false;
    while (!atEnd || !pending.empty()) {
        // Fill until the pending bytes hold a cut, or the input ends.
        uint64_t cut = 0;
        for (uint64_t searched = 0, searchedCuts = 0;;) {
            if (!cutsKnown && pending.size() >= 2 * pieceBytes) {
                cuts = CutBytes(method, pairs, in);
                cutsKnown = true;
                moreCuts = std::count(cuts.begin(), cuts.end(), true) > 1;
            }
            cut = FindCut(pending, pieceBytes, moreCuts ? &cuts : nullptr, searched, searchedCuts);
            if (cut)
                break;
            if (atEnd) {
                cut = pending.size();
                break;
            }
            const uint64_t had = pending.size();
            const uint64_t want = had < pieceBytes ? pieceBytes - had + kStep : std::max(kStep, had / 8);
            // The room grows by halves, or a long line would be copied over
            // and over on its way in.
            if (had + want + 1 > pending.capacity())
                pending.ReserveExact(std::max(had + want + 1, pending.capacity() + pending.capacity() / 2));
            char* space = pending.GetBuffer(had + want);
            const uint64_t got = read(space + had, want);
            pending.SetSize(had + got);
            atEnd = got == 0;
        }
        if (cut == 0)
            break;
        const stringEx piece = basic_buffer<char>::View(pending.data(), cut);
        bool byteWay = !bytePairs.pairs.empty();
        if (byteWay && !bytePairs.viewed)
            byteWay = (carried || IsWellFormedUtf8(pending.data(), cut)) &&
                      (method != kMethodRegex || !BeyondBmp(pending.data(), cut));
        byteWay = byteWay && !HoldsAny(pending.data(), cut, bytePairs.foldingIntoFinds);
        // A view holds no broken bytes but carried ones that stand alone
        // (AsciiView says); the first piece, which may start with a
        // signature, is decoded.
        if (byteWay && bytePairs.viewed) {
            byteWay = !result.empty && in.AsciiView(view, piece, carried);
            if (byteWay && !bytePairs.replaceViewed)
                bytePairs.replaceViewed = ReplaceTextsViewed(method, bytePairs.pairs, in);
            byteWay = byteWay && *bytePairs.replaceViewed;
        }
        if (byteWay) {
            uint64_t skip = 0;
            if (result.empty && cut >= 3 && std::memcmp(pending.data(), kUtf8Signature, 3) == 0)
                skip = 3;
            consumed += cut;
            result.empty = false;
            if (method != kMethodRegex && !bytePairs.viewed) {
                // Literals are replaced in place in the result itself,
                // which spares the piece a copy.
                const uint64_t start = encoded.size();
                append(pending.data() + skip, cut - skip);
                pending.erase(0, cut);
                for (const BYTE_PAIR& pair : bytePairs.pairs)
                    result.replaced += method == kMethodLiteral
                                           ? ReplaceInPlace(encoded, pair.find, pair.replace, start)
                                           : ReplaceInPlaceAsciiNoCase(encoded, pair.find, pair.replace, start);
                flush();
                continue;
            }
            // The piece becomes the pairs' text where it lies; only what was
            // read past it is copied, back into pending. The copy goes into
            // the storage `bytes` already has: a fresh buffer for it would
            // free that storage, and with the heap's top given back and taken
            // again piece after piece, every piece paid for fresh pages.
            bytes.clear();
            bytes.append(pending.data() + cut, pending.size() - cut);
            bytes.swap(pending);
            bytes.SetSize(cut);
            if (skip)
                bytes.erase(0, skip);
            for (size_t k = 0; k < bytePairs.pairs.size(); ++k) {
                const BYTE_PAIR& pair = bytePairs.pairs[k];
                if (!bytePairs.viewed) {
                    bool known;
                    result.replaced += ApplyPair<char>(method, pair.find, pair.replace, pair.regex, bytes,
                                                       byteScratch, options.inPlace, known);
                    continue;
                }
                // The view may be the very storage of the bytes (in UTF-8
                // or a single-byte code page), held by no one: the bytes
                // change hands only with a result, and then the view is made
                // again.
                const uint32_t replaced = ApplyPairViewed(method, pair, bytes, view, byteScratch);
                if (replaced == 0)
                    continue;
                result.replaced += replaced;
                bytes.swap(byteScratch);
                if (k + 1 < bytePairs.pairs.size() && !in.AsciiView(view, bytes, carried))
                    throw std::logic_error("ReplaceByPieces: a replaced text lost its view");
            }
            append(bytes.data(), bytes.size());
            flush();
            continue;
        }
        // The decoder reads the piece where it lies.
        in.MBtoWCCarrying(text, piece);
        if (!text.empty()) {
            if (result.empty && text[0] == L'\uFEFF')
                text.erase(0, 1);
            result.empty = false;
            for (const REPLACE_PAIR& pair : pairs) {
                bool known;
                result.replaced += ApplyPair(method, pair, text, scratch, options.inPlace, known);
            }
            const uint64_t stop = EncodeText(out, options.escapes, text, pieceOut);
            append(pieceOut.data(), pieceOut.size());
            if (stop != wstringEx::npos) {
                const uint64_t bad = FirstUndecodable(in, piece);
                result.unwritable = true;
                result.unwritableAt = consumed + (bad < cut ? bad : 0);
                flush();
                return result;
            }
        }
        pending.erase(0, cut);
        consumed += cut;
        flush();
    }
    return result;
}

PIECES_RESULT ReplaceByPieces(const stringEx& bytes, int32_t method, const ReplacePairs& pairs, TTextConv& in,
                              TTextConv& out, stringEx& encoded, PIECES_OPTIONS options)
{
    uint64_t at = 0;
    const PieceReader read = [&](char* room, uint64_t n) {
        const uint64_t take = std::min(n, bytes.size() - at);
        std::memcpy(room, bytes.data() + at, take);
        at += take;
        return take;
    };
    options.sizeHint = bytes.size();
    return ReplaceByPieces(read, method, pairs, in, out, encoded, options);
}

}  // namespace Karu

// Replacing by pieces; see pieces.h for why the pieces give the whole's bytes.
#include "pieces.h"

#include <algorithm>
#include <cstring>

namespace Karu {

bool PairsAllowPieces(int32_t method, const ReplacePairs& pairs)
{
    if (method != kMethodLiteral && method != kMethodLiteralNoCase)
        return false;
    using Tr = text_traits<wchar_t>;
    const bool folded = method == kMethodLiteralNoCase;
    for (const REPLACE_PAIR& pair : pairs)
        for (const wchar_t unit : pair.find)
            // The case-blind search folds both sides, and folding may map
            // another unit onto the line feed.
            if (folded ? Tr::Fold(unit) == Tr::Fold(L'\n') : unit == L'\n')
                return false;
    return true;
}

PIECES_RESULT ReplaceByPieces(const PieceReader& read, int32_t method, const ReplacePairs& pairs, TTextConv& in,
                              TTextConv& out, stringEx& encoded, uint64_t pieceBytes)
{
    PIECES_RESULT result;
    stringEx pending, pieceOut;
    wstringEx text, scratch;
    const uint64_t block = std::max<uint64_t>(pieceBytes, 1 << 16);
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
            char* room = pending.GetBuffer(had + block);
            const uint64_t got = read(room + had, block);
            pending.SetSize(had + got);
            atEnd = got == 0;
        }
        if (cut == 0)
            break;
        // The decoder reads the piece where it lies.
        in.MBtoWC(text, basic_buffer<char>::View(pending.data(), cut));
        pending.erase(0, cut);
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
        encoded.append(pieceOut);
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
    return ReplaceByPieces(read, method, pairs, in, out, encoded, pieceBytes);
}

}  // namespace Karu

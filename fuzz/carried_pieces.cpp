// Fuzzes the tool's promise: a text worked by pieces of any size, broken
// bytes and all, gives exactly the bytes the whole text gives, and for UTF-8
// exactly what a small reference written here gives (decode with each broken
// byte carried, replace, encode). The first byte chooses the encoding, the
// method, the form and the piece size; the next two the lengths of the find
// and the replacement, which follow (the top bit of the second picks the
// second set of encodings); the rest is the text. Finds are decoded
// like the text, so they may hold broken bytes too.
#include <karu/TextConv/TextConv.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "methods.h"
#include "pieces.h"

using namespace Karu;

namespace {

// UTF-8 by its definition: the length of the well-formed character at p, or
// 0 where none begins.
size_t CharacterAt(const unsigned char* p, size_t left, uint32_t& c)
{
    const unsigned b = p[0];
    size_t length;
    unsigned low = 0x80, high = 0xBF;
    if (b < 0x80) {
        c = b;
        return 1;
    } else if (b >= 0xC2 && b <= 0xDF) {
        length = 2;
        c = b & 0x1F;
    } else if (b >= 0xE0 && b <= 0xEF) {
        length = 3;
        c = b & 0x0F;
        low = b == 0xE0 ? 0xA0 : 0x80;
        high = b == 0xED ? 0x9F : 0xBF;
    } else if (b >= 0xF0 && b <= 0xF4) {
        length = 4;
        c = b & 0x07;
        low = b == 0xF0 ? 0x90 : 0x80;
        high = b == 0xF4 ? 0x8F : 0xBF;
    } else {
        return 0;
    }
    if (left < length)
        return 0;
    for (size_t k = 1; k < length; ++k) {
        const unsigned t = p[k];
        if (t < (k == 1 ? low : 0x80) || t > (k == 1 ? high : 0xBF))
            return 0;
        c = c << 6 | (t & 0x3F);
    }
    return length;
}

// Characters as numbers, a broken byte as 0x110000 plus the byte.
std::u32string Decode(const std::string& bytes)
{
    std::u32string text;
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    for (size_t i = 0; i < bytes.size();) {
        uint32_t c;
        const size_t length = CharacterAt(p + i, bytes.size() - i, c);
        text.push_back(length ? c : 0x110000 + p[i]);
        i += length ? length : 1;
    }
    return text;
}

std::string Encode(const std::u32string& text)
{
    std::string bytes;
    for (const char32_t c : text) {
        if (c >= 0x110000) {
            bytes += static_cast<char>(c - 0x110000);
        } else if (c < 0x80) {
            bytes += static_cast<char>(c);
        } else if (c < 0x800) {
            bytes += static_cast<char>(0xC0 | c >> 6);
            bytes += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            bytes += static_cast<char>(0xE0 | c >> 12);
            bytes += static_cast<char>(0x80 | (c >> 6 & 0x3F));
            bytes += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            bytes += static_cast<char>(0xF0 | c >> 18);
            bytes += static_cast<char>(0x80 | (c >> 12 & 0x3F));
            bytes += static_cast<char>(0x80 | (c >> 6 & 0x3F));
            bytes += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return bytes;
}

// The reference: leftmost matches without overlap, a signature dropped.
std::string Reference(const std::string& bytes, const std::string& find, const std::string& replace)
{
    std::u32string text = Decode(bytes);
    if (!text.empty() && text[0] == 0xFEFF)
        text.erase(0, 1);
    const std::u32string f = Decode(find), r = Decode(replace);
    std::u32string out;
    size_t at = 0;
    for (size_t hit; (hit = text.find(f, at)) != std::u32string::npos; at = hit + f.size()) {
        out.append(text, at, hit - at);
        out += r;
    }
    out.append(text, at, std::u32string::npos);
    return Encode(out);
}

std::string S(const stringEx& s)
{
    return std::string(s.data(), s.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 3)
        return 0;
    static const char* const kEncodings[] = {"UTF-8", "GBK",    "CP1252", "ANSI_X3.4-1968",
                                             "BIG5",  "EUC-KR", "KOI8-R", "ISO-8859-1"};
    static const uint64_t kPieces[] = {1, 2, 3, 7, 64};
    const unsigned choice = data[0];
    const unsigned which = (choice & 3) | (data[1] >> 7) << 2;
    const char* encoding = kEncodings[which];
    const int32_t method = (choice >> 2) & 1 ? kMethodLiteralNoCase : kMethodLiteral;
    const bool inPlace = (choice >> 3) & 1;
    const uint64_t pieceBytes = kPieces[(choice >> 4) % 5];
    const size_t findLength = std::min<size_t>(data[1] % 8, size - 3);
    const size_t replaceLength = std::min<size_t>(data[2] % 8, size - 3 - findLength);
    const std::string find(reinterpret_cast<const char*>(data) + 3, findLength);
    const std::string replace(reinterpret_cast<const char*>(data) + 3 + findLength, replaceLength);
    const std::string text(reinterpret_cast<const char*>(data) + 3 + findLength + replaceLength,
                           size - 3 - findLength - replaceLength);

    // A double-byte encoding searches ASCII finds in a view of the bytes once
    // its tables are filled, which takes a megabyte through a converter.
    static const auto conv = [] {
        std::vector<TextConvPtr> made;
        for (const char* name : kEncodings) {
            made.push_back(TTextConv::CreateConv(0, stringEx(name)));
            wstringEx text;
            made.back()->MBtoWC(text, stringEx(std::string(1 << 20, 'x').c_str()));
        }
        return made;
    }();
    TTextConv& c = *conv[which];
    REPLACE_PAIR pair;
    c.MBtoWCCarrying(pair.find, stringEx(find.data(), find.size()));
    c.MBtoWCCarrying(pair.replace, stringEx(replace.data(), replace.size()));
    const ReplacePairs pairs = {pair};
    if (pair.find.empty() || !PairsAllowPieces(method, pairs))
        return 0;

    // The whole text, as the tool works a text it cannot cut.
    wstringEx wide, scratch;
    c.MBtoWCCarrying(wide, stringEx(text.data(), text.size()));
    if (!wide.empty() && wide[0] == L'\uFEFF')
        wide.erase(0, 1);
    bool known;
    const uint32_t count = ApplyPair(method, pair, wide, scratch, inPlace, known);
    stringEx whole;
    c.WCtoMBCarrying(whole, wide);

    PIECES_OPTIONS options;
    options.pieceBytes = pieceBytes;
    options.inPlace = inPlace;
    stringEx pieces;
    const PIECES_RESULT result = ReplaceByPieces(stringEx(text.data(), text.size()), method, pairs, c, c, pieces,
                                                 options);
    if (S(pieces) != S(whole) || result.replaced != count)
        std::abort();
    if (method == kMethodLiteral && std::string(encoding) == "UTF-8" && S(whole) != Reference(text, find, replace))
        std::abort();
    // Nothing replaced: every byte as it was, bar a signature. (Big5 reads a
    // few pairs as characters it writes otherwise, 0xF9F9 as 0xA2A4's: such
    // a pair comes out as converting writes it.)
    const bool roundTrips = std::string(encoding) != "BIG5";
    if (count == 0 && roundTrips && S(whole) != text &&
        !(text.compare(0, 3, "\xEF\xBB\xBF") == 0 && S(whole) == text.substr(3)))
        std::abort();
    return 0;
}

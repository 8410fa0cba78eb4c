// Fuzzes the literal replace: the copying and the in-place form must give
// the same text and the same count for any text, find and replace, with and
// without case, and the source of the copy must stay as it was. The
// case-blind count must be what the one-off search (folding at every
// position) counts, and for a find of ASCII the bytes' case-blind replace
// must give the wide result's bytes (no byte here widens into a unit that
// folds into ASCII). With case, the bytes' replace must give the wide
// result's bytes too. The first
// byte chooses case-blindness; the rest is cut at the first two 0x00 bytes
// into text, find and replace, each byte widened into one unit (bytes from
// 0x80 on become units with the upper bits set, as the plain conversion
// makes them).
#include <karu/string/replace.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

using namespace Karu;

namespace {

wstringEx Units(const uint8_t* data, size_t size)
{
    wstringEx out;
    for (size_t i = 0; i < size; ++i)
        out.push_back(static_cast<wchar_t>(static_cast<int8_t>(data[i])));
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    const bool noCase = data[0] & 1;
    const uint8_t* rest = data + 1;
    const uint8_t* end = data + size;
    const uint8_t* parts[3] = {rest, rest, rest};
    size_t lengths[3] = {0, 0, 0};
    int part = 0;
    for (const uint8_t* p = rest; p < end; ++p) {
        if (*p == 0 && part < 2) {
            parts[++part] = p + 1;
            continue;
        }
        ++lengths[part];
    }
    const wstringEx text = Units(parts[0], lengths[0]);
    const wstringEx find = Units(parts[1], lengths[1]);
    const wstringEx replace = Units(parts[2], lengths[2]);
    if (find.empty())
        return 0;

    const wstringEx before(text.data(), text.size());
    wstringEx copy, inPlace(text.data(), text.size());
    const uint32_t copied =
        noCase ? ReplaceCopyNoCase(text, copy, find, replace) : ReplaceCopy(text, copy, find, replace);
    const uint32_t replaced =
        noCase ? ReplaceInPlaceNoCase(inPlace, find, replace) : ReplaceInPlace(inPlace, find, replace);
    if (copied != replaced || !(copy == inPlace) || !(text == before))
        std::abort();
    if (copy.c_str()[copy.size()] != 0 || inPlace.c_str()[inPlace.size()] != 0)
        std::abort();
    const auto bytesOf = [&](int k) { return stringEx(reinterpret_cast<const char*>(parts[k]), lengths[k]); };
    const auto unitsOf = [](const stringEx& s) {
        return Units(reinterpret_cast<const uint8_t*>(s.data()), s.size());
    };
    if (!noCase) {
        // The bytes' search takes another way after many false starts; the
        // wide search does not: byte for unit, both give the same.
        const stringEx bytes = bytesOf(0), findBytes = bytesOf(1), replaceBytes = bytesOf(2);
        stringEx byteCopy, byteInPlace(bytes.data(), bytes.size());
        if (ReplaceCopy(bytes, byteCopy, findBytes, replaceBytes) != copied ||
            ReplaceInPlace(byteInPlace, findBytes, replaceBytes) != copied)
            std::abort();
        if (!(unitsOf(byteCopy) == copy) || !(unitsOf(byteInPlace) == copy))
            std::abort();
        return 0;
    }
    uint32_t counted = 0;
    for (uint64_t at = text.FindNoCase(find); at != wstringEx::npos; at = text.FindNoCase(find, at + find.size()))
        ++counted;
    if (counted != copied)
        std::abort();
    bool ascii = true;
    for (size_t i = 0; i < lengths[1]; ++i)
        ascii = ascii && parts[1][i] < 0x80;
    if (!ascii)
        return 0;
    stringEx bytes = bytesOf(0);
    ReplaceInPlaceAsciiNoCase(bytes, bytesOf(1), bytesOf(2));
    if (!(unitsOf(bytes) == copy))
        std::abort();
    return 0;
}

// Shortcuts for common encodings; see fastcodec.h for the contract.
//
// Unicode forms are decoded by straight-line code that accepts only
// well-formed input (shortest forms, no surrogates, nothing above U+10FFFF)
// and steps aside on anything else. Single-byte code pages use a 256-entry
// table that the back end fills itself, byte by byte, when the converter is
// made; the reverse direction is filled the same way from the characters the
// table holds. A table is trusted only after the back end has converted its
// entries in sequence exactly as the table does, every entry followed by
// every combining mark among them included, which rules out code pages that
// compose neighbours (a base letter with a following tone mark, say).
//
// Every shortcut is checked against the back end on a sample before use, so
// a library that treats some form differently (a byte-order mark, say)
// simply gets no shortcut.
#include "fastcodec.h"

#include <karu/TextConv/TextConv.h>
#include <karu/string/unicode.h>

#include <sys/mman.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__) || defined(__i386__)
#include <tmmintrin.h>
#endif

#include <algorithm>
#include <array>
#include <atomic>
#include <bitset>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace Karu::IMPL {

namespace {

constexpr uint32_t kMaxScalar = 0x10FFFF;

// Large results are written into fresh memory, and on some machines taking
// it page by page costs more than the conversion itself. Large pages over
// the block's interior, mapped in one call before the writing starts, make
// that cost small; a kernel that knows neither request just ignores them.
constexpr size_t kLargePage = size_t(2) << 20;
constexpr int kPopulateWrite = 23;  // MADV_POPULATE_WRITE, newer than some headers

}  // namespace

void PrepareLargeBlock(void* data, size_t bytes) noexcept
{
    if (bytes < 4 * kLargePage)
        return;
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(data) + kLargePage - 1) & ~(kLargePage - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(data) + bytes) & ~(kLargePage - 1);
    if (end <= begin)
        return;
    madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
    madvise(reinterpret_cast<void*>(begin), end - begin, kPopulateWrite);
}

namespace {

template <class T>
T* FreshBuffer(basic_string_ex<T>& dst, size_t units)
{
    dst.clear();
    T* data = dst.GetBuffer(units);
    PrepareLargeBlock(data, units * sizeof(T));
    return data;
}

inline bool IsSurrogate(uint32_t c) noexcept
{
    return c >= 0xD800 && c <= 0xDFFF;
}

inline bool IsScalar(uint32_t c) noexcept
{
    return c <= kMaxScalar && !IsSurrogate(c);
}

// ---- UTF-8 ---------------------------------------------------------------------------

// Room behind a result for one block written whole before the count of its
// valid units is known.
constexpr size_t kBlockSlack = 16;

// Sixteen bytes widened to sixteen wide characters (only the ASCII prefix
// of the block is kept by the caller).
inline void WidenBlock(const unsigned char* in, wchar_t* out) noexcept
{
#if defined(__SSE2__)
    const __m128i zero = _mm_setzero_si128();
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    const __m128i lo = _mm_unpacklo_epi8(v, zero), hi = _mm_unpackhi_epi8(v, zero);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi16(lo, zero));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 4), _mm_unpackhi_epi16(lo, zero));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 8), _mm_unpacklo_epi16(hi, zero));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 12), _mm_unpackhi_epi16(hi, zero));
#else
    for (int k = 0; k < 16; ++k)
        out[k] = static_cast<wchar_t>(in[k]);
#endif
}

// Length of the ASCII prefix of sixteen bytes (16: all of them).
inline unsigned AsciiPrefix(const unsigned char* in) noexcept
{
#if defined(__SSE2__)
    const unsigned mask =
        static_cast<unsigned>(_mm_movemask_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in))));
    return mask ? static_cast<unsigned>(__builtin_ctz(mask)) : 16;
#else
    unsigned k = 0;
    while (k < 16 && in[k] < 0x80)
        ++k;
    return k;
#endif
}

// The number of continuation bytes (10xxxxxx) among n bytes.
inline size_t Continuations(const unsigned char* in, size_t n) noexcept
{
    size_t count = 0, i = 0;
#if defined(__SSE2__)
    // Per-lane byte counters, emptied before they can wrap.
    const __m128i limit = _mm_set1_epi8(-64);  // 0x80..0xBF are the bytes below it
    while (i + 16 <= n) {
        __m128i lanes = _mm_setzero_si128();
        for (int step = 0; step < 255 && i + 16 <= n; ++step, i += 16) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
            lanes = _mm_sub_epi8(lanes, _mm_cmplt_epi8(v, limit));
        }
        const __m128i sums = _mm_sad_epu8(lanes, _mm_setzero_si128());
        count += static_cast<size_t>(_mm_cvtsi128_si32(sums)) +
                 static_cast<size_t>(_mm_cvtsi128_si32(_mm_srli_si128(sums, 8)));
    }
#endif
    for (; i < n; ++i)
        count += (in[i] & 0xC0) == 0x80;
    return count;
}

// Eight characters narrowed to eight bytes; false if one of them is
// not ASCII (the bytes are then garbage, to be overwritten).
inline bool PackAscii(const wchar_t* in, unsigned char* out) noexcept
{
#if defined(__SSE2__)
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 4));
    const __m128i zero = _mm_setzero_si128();
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(_mm_packs_epi32(a, b), zero));
    const __m128i high = _mm_and_si128(_mm_or_si128(a, b), _mm_set1_epi32(~0x7F));
    return _mm_movemask_epi8(_mm_cmpeq_epi32(high, zero)) == 0xFFFF;
#else
    for (int k = 0; k < 8; ++k)
        if (static_cast<uint32_t>(in[k]) >= 0x80)
            return false;
    for (int k = 0; k < 8; ++k)
        out[k] = static_cast<unsigned char>(in[k]);
    return true;
#endif
}

// Walks well-formed UTF-8 (shortest forms, no surrogates, nothing above
// U+10FFFF), storing the code points when `out` is given; the count of
// characters, or SIZE_MAX at the first flaw. Carrying, a byte that starts
// no well-formed character becomes one escape unit instead and the walk goes
// on behind it: a continuation byte never starts a character, so each byte
// of a broken sequence is escaped by itself.
template <bool Store, bool Carry = false>
size_t WalkUtf8(const unsigned char* in, size_t n, wchar_t* out) noexcept
{
    size_t i = 0, o = 0;
    while (i < n) {
        // ASCII in blocks; a block is written whole and only its ASCII
        // prefix counted, the rest being overwritten afterwards.
        // A block that is all ASCII goes on to the next; otherwise the
        // character behind the prefix follows in the same step.
        if (i + 16 <= n) {
            const unsigned ascii = AsciiPrefix(in + i);
            if constexpr (Store)
                WidenBlock(in + i, out + o);
            i += ascii;
            o += ascii;
            if (ascii == 16)
                continue;
        }
        const uint32_t c = in[i];
        uint32_t cp = 0;
        size_t length = 0;
        if (c < 0x80) {
            cp = c;
            length = 1;
        } else if (c >= 0xC2 && c <= 0xDF) {
            if (i + 2 <= n && (in[i + 1] & 0xC0) == 0x80) {
                cp = ((c & 0x1F) << 6) | (in[i + 1] & 0x3F);
                length = 2;
            }
        } else if (c >= 0xE0 && c <= 0xEF) {
            if (i + 3 <= n && !(((in[i + 1] & 0xC0) ^ 0x80) | ((in[i + 2] & 0xC0) ^ 0x80))) {
                cp = ((c & 0x0F) << 12) | ((in[i + 1] & 0x3Fu) << 6) | (in[i + 2] & 0x3F);
                // Overlong forms and surrogates.
                if (cp >= 0x800 && !IsSurrogate(cp))
                    length = 3;
            }
        } else if (c >= 0xF0 && c <= 0xF4) {
            if (i + 4 <= n &&
                !(((in[i + 1] & 0xC0) ^ 0x80) | ((in[i + 2] & 0xC0) ^ 0x80) | ((in[i + 3] & 0xC0) ^ 0x80))) {
                cp = ((c & 0x07) << 18) | ((in[i + 1] & 0x3Fu) << 12) | ((in[i + 2] & 0x3Fu) << 6) |
                     (in[i + 3] & 0x3F);
                // Overlong forms and values past the last plane.
                if (cp >= 0x10000 && cp <= kMaxScalar)
                    length = 4;
            }
        }
        if (length == 0) {
            if constexpr (!Carry)
                return SIZE_MAX;
            cp = static_cast<uint32_t>(EscapeUnit(static_cast<unsigned char>(c)));
            length = 1;
        }
        i += length;
        if constexpr (Store)
            out[o] = static_cast<wchar_t>(cp);
        ++o;
    }
    return o;
}

// A character written as four bytes of which the first `length` count;
// the length. No branch depends on the character.
inline size_t PutChar(uint32_t c, unsigned char* out) noexcept
{
    const size_t length = 1 + (c >= 0x80) + (c >= 0x800) + (c >= 0x10000);
    // The four-byte form shifted down to the length: the leading bytes
    // it drops carry no payload in a shorter form. A single byte keeps
    // seven bits, not six, and the marks set the rest.
    uint32_t form = (c >> 18) | ((c >> 12) & 0x3F) << 8 | ((c >> 6) & 0x3F) << 16 | (c & 0x3F) << 24;
    form >>= 8 * (4 - length);
    static constexpr uint32_t kWholeLow[5] = {0, 0x40, 0, 0, 0};
    static constexpr uint32_t kMarks[5] = {0, 0, 0x80C0, 0x8080E0, 0x808080F0};
    form |= (c & kWholeLow[length]) | kMarks[length];
    const unsigned char bytes[4] = {static_cast<unsigned char>(form), static_cast<unsigned char>(form >> 8),
                                    static_cast<unsigned char>(form >> 16), static_cast<unsigned char>(form >> 24)};
    std::memcpy(out, bytes, 4);
    return length;
}

#if defined(__x86_64__) || defined(__i386__)
#define KARU_SHUFFLES 1

// Validation sixteen bytes at a time, by table look-ups instead of walking:
// each byte is classified by the high nibble of the byte before it, the low
// nibble of that byte, and its own high nibble; three small tables give the
// ways the pair can be wrong as bits, and a flaw is a bit that survives all
// three. What a single pair cannot tell (a third or fourth byte that must be
// a continuation) comes from the bytes two and three back. The tables need
// byte shuffles, so this is compiled for processors that have them and
// chosen when the program runs.
namespace flaw {
constexpr uint8_t kTooShort = 1 << 0;     // a lead not followed by a continuation
constexpr uint8_t kTooLong = 1 << 1;      // a continuation after ASCII
constexpr uint8_t kOverlong3 = 1 << 2;    // E0 80..9F
constexpr uint8_t kTooLarge = 1 << 3;     // F4 90..BF, F5..FF
constexpr uint8_t kSurrogate = 1 << 4;    // ED A0..BF
constexpr uint8_t kOverlong2 = 1 << 5;    // C0, C1
constexpr uint8_t kTooLarge1000 = 1 << 6; // F5..FF 80..8F
constexpr uint8_t kOverlong4 = 1 << 6;    // F0 80..8F
constexpr uint8_t kTwoConts = 1 << 7;     // a continuation after a continuation
constexpr uint8_t kCarry = kTooShort | kTooLong | kTwoConts;
}  // namespace flaw

struct BlockState {
    __m128i previous = _mm_setzero_si128();
    __m128i error = _mm_setzero_si128();
    __m128i unfinished = _mm_setzero_si128();
};

__attribute__((target("ssse3"))) inline void CheckBlock(BlockState& state, __m128i block) noexcept
{
    using namespace flaw;
    if (_mm_movemask_epi8(block) == 0) {
        state.error = _mm_or_si128(state.error, state.unfinished);
        state.previous = block;
        return;
    }
    const __m128i byte1High = _mm_setr_epi8(
        kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, static_cast<char>(kTwoConts),
        static_cast<char>(kTwoConts), static_cast<char>(kTwoConts), static_cast<char>(kTwoConts),
        kTooShort | kOverlong2, kTooShort, kTooShort | kOverlong3 | kSurrogate,
        static_cast<char>(kTooShort | kTooLarge | kTooLarge1000 | kOverlong4));
    const char high = static_cast<char>(kCarry | kTooLarge | kTooLarge1000);
    const __m128i byte1Low =
        _mm_setr_epi8(static_cast<char>(kCarry | kOverlong3 | kOverlong2 | kOverlong4),
                      static_cast<char>(kCarry | kOverlong2), static_cast<char>(kCarry), static_cast<char>(kCarry),
                      static_cast<char>(kCarry | kTooLarge), high, high, high, high, high, high, high, high,
                      static_cast<char>(kCarry | kTooLarge | kTooLarge1000 | kSurrogate), high, high);
    const char cont8 = static_cast<char>(kTooLong | kOverlong2 | kTwoConts | kOverlong3 | kTooLarge1000 | kOverlong4);
    const char cont9 = static_cast<char>(kTooLong | kOverlong2 | kTwoConts | kOverlong3 | kTooLarge);
    const char contAB = static_cast<char>(kTooLong | kOverlong2 | kTwoConts | kSurrogate | kTooLarge);
    const __m128i byte2High = _mm_setr_epi8(kTooShort, kTooShort, kTooShort, kTooShort, kTooShort, kTooShort,
                                            kTooShort, kTooShort, cont8, cont9, contAB, contAB, kTooShort,
                                            kTooShort, kTooShort, kTooShort);
    const __m128i nibble = _mm_set1_epi8(0x0F);
    // A block ending in a lead byte whose sequence is not finished in it.
    const __m128i lastLeads = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,
                                            static_cast<char>(0xF0 - 1), static_cast<char>(0xE0 - 1),
                                            static_cast<char>(0xC0 - 1));
    const __m128i prev1 = _mm_alignr_epi8(block, state.previous, 15);
    const __m128i special =
        _mm_and_si128(_mm_and_si128(_mm_shuffle_epi8(byte1High, _mm_and_si128(_mm_srli_epi16(prev1, 4), nibble)),
                                    _mm_shuffle_epi8(byte1Low, _mm_and_si128(prev1, nibble))),
                      _mm_shuffle_epi8(byte2High, _mm_and_si128(_mm_srli_epi16(block, 4), nibble)));
    const __m128i prev2 = _mm_alignr_epi8(block, state.previous, 14);
    const __m128i prev3 = _mm_alignr_epi8(block, state.previous, 13);
    const __m128i third = _mm_subs_epu8(prev2, _mm_set1_epi8(static_cast<char>(0xE0 - 0x80)));
    const __m128i fourth = _mm_subs_epu8(prev3, _mm_set1_epi8(static_cast<char>(0xF0 - 0x80)));
    const __m128i must = _mm_and_si128(_mm_or_si128(third, fourth), _mm_set1_epi8(static_cast<char>(0x80)));
    state.error = _mm_or_si128(state.error, _mm_xor_si128(must, special));
    state.unfinished = _mm_subs_epu8(block, lastLeads);
    state.previous = block;
}

__attribute__((target("ssse3"))) bool BlocksWellFormed(const unsigned char* in, size_t n) noexcept
{
    BlockState state;
    size_t i = 0;
    for (; i + 16 <= n; i += 16)
        CheckBlock(state, _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i)));
    if (i < n) {
        // The rest padded with NUL, which is ASCII: a sequence cut by the
        // end shows as a lead followed by ASCII.
        alignas(16) unsigned char last[16] = {};
        std::memcpy(last, in + i, n - i);
        CheckBlock(state, _mm_load_si128(reinterpret_cast<const __m128i*>(last)));
    }
    const __m128i error = _mm_or_si128(state.error, state.unfinished);
    return _mm_movemask_epi8(_mm_cmpeq_epi8(error, _mm_setzero_si128())) == 0xFFFF;
}

// Four characters of the first plane as UTF-8 at once: each lane gets its
// one, two or three bytes at its start, and a shuffle picked by the lanes'
// lengths closes the gaps. The shuffles are a table by the two masks "above
// U+007F" and "above U+07FF", four bits each.
struct PackShuffle {
    alignas(16) uint8_t order[16];
    uint8_t length;
};

struct PackShuffles {
    PackShuffle entries[256];
    constexpr PackShuffles() : entries()
    {
        for (int index = 0; index < 256; ++index) {
            PackShuffle& entry = entries[index];
            int at = 0;
            for (int lane = 0; lane < 4; ++lane) {
                const int length = 1 + ((index >> lane) & 1) + ((index >> (lane + 4)) & 1);
                for (int k = 0; k < length; ++k)
                    entry.order[at++] = static_cast<uint8_t>(4 * lane + k);
            }
            entry.length = static_cast<uint8_t>(at);
            for (; at < 16; ++at)
                entry.order[at] = 0x80;  // a shuffle writes zero there
        }
    }
};

constexpr PackShuffles kPackShuffles;

// Writes 16 bytes, of which the returned count are the characters'.
__attribute__((target("ssse3"))) inline size_t PackFour(__m128i c, unsigned char* out) noexcept
{
    const __m128i low6 = _mm_set1_epi32(0x3F);
    const __m128i mark = _mm_set1_epi32(0x80);
    const __m128i last = _mm_or_si128(mark, _mm_and_si128(c, low6));
    const __m128i middle = _mm_or_si128(mark, _mm_and_si128(_mm_srli_epi32(c, 6), low6));
    const __m128i three = _mm_or_si128(_mm_or_si128(_mm_set1_epi32(0xE0), _mm_srli_epi32(c, 12)),
                                       _mm_or_si128(_mm_slli_epi32(middle, 8), _mm_slli_epi32(last, 16)));
    const __m128i two =
        _mm_or_si128(_mm_or_si128(_mm_set1_epi32(0xC0), _mm_srli_epi32(c, 6)), _mm_slli_epi32(last, 8));
    const __m128i above7F = _mm_cmpgt_epi32(c, _mm_set1_epi32(0x7F));
    const __m128i above7FF = _mm_cmpgt_epi32(c, _mm_set1_epi32(0x7FF));
    const __m128i form = _mm_or_si128(
        _mm_or_si128(_mm_and_si128(above7FF, three), _mm_andnot_si128(above7FF, _mm_and_si128(above7F, two))),
        _mm_andnot_si128(above7F, c));
    const int index = _mm_movemask_ps(_mm_castsi128_ps(above7F)) | _mm_movemask_ps(_mm_castsi128_ps(above7FF)) << 4;
    const PackShuffle& shuffle = kPackShuffles.entries[index];
    const __m128i packed =
        _mm_shuffle_epi8(form, _mm_load_si128(reinterpret_cast<const __m128i*>(shuffle.order)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), packed);
    return shuffle.length;
}

// Encodes blocks of eight characters from `i` on while they lie in the first
// plane or are ASCII; returns the bytes written and leaves `i` at the first
// character not done. Needs 16 bytes of room past the result.
__attribute__((target("ssse3"))) size_t EncodeBlocks(const wchar_t* in, size_t n, unsigned char* out,
                                                     size_t& i) noexcept
{
    size_t o = 0;
    const __m128i zero = _mm_setzero_si128();
    for (; i + 8 <= n; i += 8) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i + 4));
        const __m128i both = _mm_or_si128(a, b);
        if (_mm_movemask_epi8(_mm_cmpeq_epi32(_mm_and_si128(both, _mm_set1_epi32(~0x7F)), zero)) == 0xFFFF) {
            _mm_storel_epi64(reinterpret_cast<__m128i*>(out + o), _mm_packus_epi16(_mm_packs_epi32(a, b), zero));
            o += 8;
            continue;
        }
        if (_mm_movemask_epi8(_mm_cmpeq_epi32(_mm_and_si128(both, _mm_set1_epi32(~0xFFFF)), zero)) != 0xFFFF) {
            for (size_t k = 0; k < 8; ++k)
                o += PutChar(static_cast<uint32_t>(in[i + k]), out + o);
            continue;
        }
        o += PackFour(a, out + o);
        o += PackFour(b, out + o);
    }
    return o;
}
#endif

class CUtf8Codec : public CFastCodec {
public:
    bool Decode(wstringEx& dst, const stringEx& src) const override
    {
        const auto* in = reinterpret_cast<const unsigned char*>(src.data());
        const size_t n = src.size();
        // Every byte but a continuation byte starts a character: counting
        // them sizes the result exactly, at a fraction of the decoding's cost,
        // and fresh memory is what a large text costs most.
        const size_t starts = n - Continuations(in, n);
        wchar_t* out = FreshBuffer(dst, starts + kBlockSlack);
        const size_t made = WalkUtf8<true>(in, n, out);
        if (made == SIZE_MAX)
            return false;
        dst.SetSize(made);
        return true;
    }

    bool DecodeCarrying(wstringEx& dst, const stringEx& src) const override
    {
        // A unit a byte at most: a broken text is no longer sized exactly.
        wchar_t* out = FreshBuffer(dst, src.size() + kBlockSlack);
        dst.SetSize(WalkUtf8<true, true>(reinterpret_cast<const unsigned char*>(src.data()), src.size(), out));
        return true;
    }

    bool EncodeCarrying(stringEx& dst, const wstringEx& src) const override
    {
        const wchar_t* in = src.data();
        const size_t n = src.size();
        size_t bytes = 0;
        for (size_t i = 0; i < n; ++i) {
            const uint32_t c = static_cast<uint32_t>(in[i]);
            if (IsEscapeUnit(in[i]))
                bytes += 1;
            else if (IsScalar(c))
                bytes += 1 + (c >= 0x80) + (c >= 0x800) + (c >= 0x10000);
            else
                return false;
        }
        auto* out = reinterpret_cast<unsigned char*>(FreshBuffer(dst, bytes + kBlockSlack));
        size_t o = 0;
        for (size_t i = 0; i < n; ++i) {
            if (IsEscapeUnit(in[i]))
                out[o++] = EscapedByte(in[i]);
            else
                o += PutChar(static_cast<uint32_t>(in[i]), out + o);
        }
        dst.SetSize(o);
        return true;
    }

    bool IsPlainUtf8() const noexcept override { return true; }

    // A byte below 0x80 is never part of a longer sequence, broken or not.
    bool AsciiView(stringEx& view, const stringEx& src, bool) const override
    {
        view = src;
        return true;
    }

    bool Encode(stringEx& dst, const wstringEx& src) const override
    {
        const wchar_t* in = src.data();
        const size_t n = src.size();
        // Sizing first keeps the result exactly as large as it needs to be;
        // it also finds anything that is no character before any writing.
        size_t bytes = 0;
        if (!Size(in, n, bytes))
            return false;
        auto* out = reinterpret_cast<unsigned char*>(FreshBuffer(dst, bytes + kBlockSlack));
        size_t o = 0, i = 0;
#if defined(KARU_SHUFFLES)
        static const bool shuffles = __builtin_cpu_supports("ssse3");
        if (shuffles)
            o = EncodeBlocks(in, n, out, i);
#endif
        // Eight characters at a time: narrowed at once when all are ASCII,
        // else each is encoded without a branch on its length. Stepping by
        // whole blocks keeps the loads independent of the text, and mixed
        // text costs no mispredicted branch per character.
        for (; i + 8 <= n; i += 8) {
            if (PackAscii(in + i, out + o)) {
                o += 8;
                continue;
            }
            for (size_t k = 0; k < 8; ++k)
                o += PutChar(static_cast<uint32_t>(in[i + k]), out + o);
        }
        for (; i < n; ++i)
            o += PutChar(static_cast<uint32_t>(in[i]), out + o);
        dst.SetSize(o);
        return true;
    }

    const char* Kind() const noexcept override { return "utf-8"; }

private:
    // The encoded size of n characters; false if one is no character.
    static bool Size(const wchar_t* in, size_t n, size_t& bytes) noexcept
    {
        size_t i = 0;
        uint64_t total = 0;
#if defined(__SSE2__)
        // Four characters a step: each comparison adds one byte per lane
        // that passes a length boundary; invalid lanes are collected apart.
        const __m128i zero = _mm_setzero_si128();
        __m128i bad = zero;
        while (i + 4 <= n) {
            __m128i extra = zero;
            for (int block = 0; block < 64 && i + 4 <= n; ++block, i += 4) {
                const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
                extra = _mm_sub_epi32(extra, _mm_cmpgt_epi32(v, _mm_set1_epi32(0x7F)));
                extra = _mm_sub_epi32(extra, _mm_cmpgt_epi32(v, _mm_set1_epi32(0x7FF)));
                extra = _mm_sub_epi32(extra, _mm_cmpgt_epi32(v, _mm_set1_epi32(0xFFFF)));
                bad = _mm_or_si128(bad, _mm_cmplt_epi32(v, zero));
                bad = _mm_or_si128(bad, _mm_cmpgt_epi32(v, _mm_set1_epi32(static_cast<int>(kMaxScalar))));
                bad = _mm_or_si128(bad, _mm_and_si128(_mm_cmpgt_epi32(v, _mm_set1_epi32(0xD7FF)),
                                                      _mm_cmplt_epi32(v, _mm_set1_epi32(0xE000))));
            }
            alignas(16) uint32_t lanes[4];
            _mm_store_si128(reinterpret_cast<__m128i*>(lanes), extra);
            total += uint64_t(lanes[0]) + lanes[1] + lanes[2] + lanes[3];
        }
        if (_mm_movemask_epi8(bad))
            return false;
#endif
        for (; i < n; ++i) {
            const uint32_t c = static_cast<uint32_t>(in[i]);
            if (!IsScalar(c))
                return false;
            total += c < 0x80 ? 0 : c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
        }
        bytes = n + total;
        return true;
    }

};

// ---- UTF-16, UCS-2 and UTF-32 in a fixed byte order ---------------------------------------

template <size_t Width>
uint32_t ReadUnit(const unsigned char* p, bool bigEndian) noexcept
{
    uint32_t v = 0;
    for (size_t k = 0; k < Width; ++k)
        v |= static_cast<uint32_t>(p[k]) << (8 * (bigEndian ? Width - 1 - k : k));
    return v;
}

template <size_t Width>
void WriteUnit(unsigned char* p, uint32_t v, bool bigEndian) noexcept
{
    for (size_t k = 0; k < Width; ++k)
        p[k] = static_cast<unsigned char>(v >> (8 * (bigEndian ? Width - 1 - k : k)));
}

// Width 2 with pairs is UTF-16, without them UCS-2; width 4 is UTF-32.
template <size_t Width>
class CUnitCodec : public CFastCodec {
public:
    CUnitCodec(bool bigEndian, bool pairs, const char* kind) : _bigEndian(bigEndian), _pairs(pairs), _kind(kind) {}

    bool Decode(wstringEx& dst, const stringEx& src) const override
    {
        if (src.size() % Width)
            return false;
        const auto* in = reinterpret_cast<const unsigned char*>(src.data());
        const size_t units = src.size() / Width;
        wchar_t* out = FreshBuffer(dst, units);
        size_t o = 0;
        for (size_t i = 0; i < units; ++i) {
            uint32_t c = ReadUnit<Width>(in + i * Width, _bigEndian);
            if (Width == 2 && _pairs && c >= 0xD800 && c < 0xDC00 && i + 1 < units) {
                const uint32_t low = ReadUnit<Width>(in + (i + 1) * Width, _bigEndian);
                if (low >= 0xDC00 && low <= 0xDFFF) {
                    c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
                    ++i;
                }
            }
            if (!IsScalar(c))
                return false;
            out[o++] = static_cast<wchar_t>(c);
        }
        dst.SetSize(o);
        return true;
    }

    bool Encode(stringEx& dst, const wstringEx& src) const override
    {
        const wchar_t* in = src.data();
        size_t units = 0;
        for (size_t i = 0; i < src.size(); ++i) {
            const uint32_t c = static_cast<uint32_t>(in[i]);
            if (!IsScalar(c) || (Width == 2 && c > 0xFFFF && !_pairs))
                return false;
            units += (Width == 2 && c > 0xFFFF) ? 2 : 1;
        }
        auto* out = reinterpret_cast<unsigned char*>(FreshBuffer(dst, units * Width));
        for (size_t i = 0; i < src.size(); ++i) {
            const uint32_t c = static_cast<uint32_t>(in[i]);
            if (Width == 2 && c > 0xFFFF) {
                WriteUnit<Width>(out, 0xD800 + ((c - 0x10000) >> 10), _bigEndian);
                WriteUnit<Width>(out + Width, 0xDC00 + ((c - 0x10000) & 0x3FF), _bigEndian);
                out += 2 * Width;
            } else {
                WriteUnit<Width>(out, c, _bigEndian);
                out += Width;
            }
        }
        dst.SetSize(units * Width);
        return true;
    }

    const char* Kind() const noexcept override { return _kind; }

private:
    bool _bigEndian;
    bool _pairs;
    const char* _kind;
};

// ---- what the tables lack ---------------------------------------------------------------------

// Where a table holds nothing for the bytes at `in`, what the back end makes
// of them: the length of the shortest stretch of up to four bytes that it
// decodes cleanly, with its units; 0 when no stretch does, and the byte is
// to be carried. A character the tables lack may be longer than they go (the
// three- and four-byte forms of EUC-JP and GB18030), or one they hold as two
// units. -1 when the units would outnumber the bytes, which the caller's
// room does not allow for.
int BackEndAt(const ProbeDecode& decode, const unsigned char* in, size_t left, wstringEx& units)
{
    for (size_t k = 1; k <= std::min<size_t>(4, left); ++k)
        if (decode(stringEx(reinterpret_cast<const char*>(in), k), units) && !units.empty())
            return units.size() <= k ? static_cast<int>(k) : -1;
    return 0;
}

// The carrying form where a table holds nothing for in[i]: what the back end
// reads there, when `decode` is given, or else the byte carried; i and o go
// on behind it. False when the back end's units would outnumber its bytes.
bool CarryAt(const ProbeDecode* decode, const unsigned char* in, size_t n, size_t& i, wchar_t* out, size_t& o,
             wstringEx& units)
{
    const int k = decode ? BackEndAt(*decode, in + i, n - i, units) : 0;
    if (k < 0)
        return false;
    if (k == 0) {
        out[o++] = EscapeUnit(in[i++]);
        return true;
    }
    for (const wchar_t unit : units)
        out[o++] = unit;
    i += static_cast<size_t>(k);
    return true;
}

// ---- single-byte code pages ----------------------------------------------------------------

// Marks a byte or a character the back end does not convert one to one.
constexpr uint32_t kNoImage = 0xFFFFFFFF;
// A table with more holes than this may belong to a multi-byte encoding
// (lead bytes are holes), whose shortcut would step aside on nearly every
// text; it is made only for a seven-bit code page (see SevenBit).
constexpr int kMaxHoles = 32;

// Marks that attach to the character before them, in the scripts that
// single-byte code pages cover.
bool IsCombining(uint32_t c) noexcept
{
    return (c >= 0x0300 && c <= 0x036F) || (c >= 0x0483 && c <= 0x0489) || (c >= 0x0591 && c <= 0x05C7) ||
           (c >= 0x0610 && c <= 0x061A) || (c >= 0x064B && c <= 0x065F) || c == 0x0670 ||
           (c >= 0x0E31 && c <= 0x0E4E) || (c >= 0x1DC0 && c <= 0x1DFF) || (c >= 0x20D0 && c <= 0x20FF);
}

class CTableCodec : public CFastCodec {
public:
    bool Decode(wstringEx& dst, const stringEx& src) const override { return Convert<false>(dst, src); }
    bool Encode(stringEx& dst, const wstringEx& src) const override { return Convert<false>(dst, src); }
    // A byte without an image is a hole of the code page: carried, unless
    // the back end reads it with what follows.
    bool DecodeCarrying(wstringEx& dst, const stringEx& src) const override { return Convert<true>(dst, src); }
    bool EncodeCarrying(stringEx& dst, const wstringEx& src) const override { return Convert<true>(dst, src); }

    const char* Kind() const noexcept override { return "table"; }

    // The bytes themselves, when no byte of them is a hole that the back
    // end might read with what follows, or that is not carried.
    bool AsciiView(stringEx& view, const stringEx& src, bool carried) const override
    {
        if (!asciiApart)
            return false;
        if (!(carried && sevenBit))
            for (const char byte : src)
                if (toWide[static_cast<unsigned char>(byte)] == kNoImage)
                    return false;
        view = src;
        return true;
    }

    int ByteOf(uint32_t c) const noexcept
    {
        if (c > 0xFFFF)
            return -1;
        return pages[pageOf[c >> 8]][c & 0xFF];
    }

    // One unit a byte in both directions; false at what the table lacks,
    // unless carrying.
    template <bool Carry>
    bool Convert(wstringEx& dst, const stringEx& src) const
    {
        const auto* in = reinterpret_cast<const unsigned char*>(src.data());
        const size_t n = src.size();
        wchar_t* out = FreshBuffer(dst, n);
        size_t o = 0;
        wstringEx units;
        for (size_t i = 0; i < n;) {
            const uint32_t c = toWide[in[i]];
            if (c != kNoImage) {
                out[o++] = static_cast<wchar_t>(c);
                ++i;
                continue;
            }
            if constexpr (!Carry)
                return false;
            if (!CarryAt(sevenBit ? nullptr : &decode, in, n, i, out, o, units))
                return false;
        }
        dst.SetSize(o);
        return true;
    }

    template <bool Carry>
    bool Convert(stringEx& dst, const wstringEx& src) const
    {
        const wchar_t* in = src.data();
        const size_t n = src.size();
        auto* out = reinterpret_cast<unsigned char*>(FreshBuffer(dst, n));
        for (size_t i = 0; i < n; ++i) {
            int byte = ByteOf(static_cast<uint32_t>(in[i]));
            if (Carry && byte < 0 && IsEscapeUnit(in[i]))
                byte = EscapedByte(in[i]);
            if (byte < 0)
                return false;
            out[i] = static_cast<unsigned char>(byte);
        }
        dst.SetSize(n);
        return true;
    }

    void SetByte(uint32_t c, int byte)
    {
        uint8_t& page = pageOf[c >> 8];
        if (page == 0) {
            page = static_cast<uint8_t>(pages.size());
            pages.emplace_back();
            pages.back().fill(-1);
        }
        pages[page][c & 0xFF] = static_cast<int16_t>(byte);
    }

    std::array<uint32_t, 256> toWide{};
    ProbeDecode decode;  // the back end, for the holes of the carrying form
    bool sevenBit = false;  // no hole starts a longer character (SevenBit)
    // ASCII reads as itself and nothing else reads as ASCII, and every
    // character is written back as the byte it was read from.
    bool asciiApart = false;
    // Wide to byte in two levels: pageOf selects one of the pages by the
    // character's high byte; page 0 is the empty one.
    std::array<uint8_t, 256> pageOf{};
    std::vector<std::array<int16_t, 256>> pages = std::vector<std::array<int16_t, 256>>(1);
};

// What the back end makes of each byte alone: one character, or kNoImage.
using ByteImages = std::array<uint32_t, 256>;

ByteImages ProbeBytes(const ProbeDecode& decode)
{
    ByteImages images;
    wstringEx wide;
    for (int b = 0; b < 256; ++b) {
        const char byte = static_cast<char>(b);
        const bool one = decode(stringEx(&byte, 1), wide) && wide.size() == 1;
        images[b] = one ? static_cast<uint32_t>(wide[0]) : kNoImage;
    }
    return images;
}

// Whether the code page is ASCII with nothing above it (the C locale's): every
// byte below 0x80 is itself, and no byte above starts a longer character. Its
// table steps aside on any byte above 0x7F, and in the carrying form turns it
// into an escape unit.
bool SevenBit(const ByteImages& images, const ProbeDecode& decode, bool stateful)
{
    if (stateful)
        return false;
    for (uint32_t b = 0; b < 0x80; ++b)
        if (images[b] != b)
            return false;
    const unsigned char trails[] = {0x30, 0x40, 0x41, 0x80, 0xA1, 0xC0};
    wstringEx wide;
    for (uint32_t b = 0x80; b < 0x100; ++b) {
        if (images[b] != kNoImage)
            continue;
        for (unsigned char trail : trails) {
            const char two[2] = {static_cast<char>(b), static_cast<char>(trail)};
            if (decode(stringEx(two, 2), wide) && wide.size() == 1)
                return false;
        }
    }
    return true;
}

std::unique_ptr<CFastCodec> MakeTableCodec(const ByteImages& images, const ProbeDecode& decode,
                                           const ProbeEncode& encode, bool stateful)
{
    auto codec = std::make_unique<CTableCodec>();
    codec->decode = decode;
    codec->pages[0].fill(-1);
    codec->toWide = images;
    std::vector<unsigned char> exact;
    wstringEx wide;
    for (int b = 0; b < 256; ++b)
        if (images[b] != kNoImage)
            exact.push_back(static_cast<unsigned char>(b));
    if (256 - static_cast<int>(exact.size()) > kMaxHoles) {
        if (!SevenBit(images, decode, stateful))
            return nullptr;
        codec->sevenBit = true;
    }
    stringEx all;
    wstringEx allWide;
    for (int pass = 0; pass < 2; ++pass)
        for (size_t i = 0; i < exact.size(); ++i) {
            const unsigned char b = exact[pass == 0 ? i : exact.size() - 1 - i];
            all.push_back(static_cast<char>(b));
            allWide.push_back(static_cast<wchar_t>(codec->toWide[b]));
        }
    if (!decode(all, wide) || !(wide == allWide))
        return nullptr;
    // The reverse: what the back end makes of each character the table holds.
    stringEx bytes;
    std::vector<uint32_t> chars;
    for (unsigned char b : exact) {
        const uint32_t c = codec->toWide[b];
        if (c > 0xFFFF || codec->ByteOf(c) >= 0)
            continue;
        wstringEx one(1, static_cast<wchar_t>(c));
        if (encode(one, bytes) && bytes.size() == 1) {
            codec->SetByte(c, static_cast<unsigned char>(bytes[0]));
            chars.push_back(c);
        }
    }
    // Neighbours must not change each other: the whole table forwards and
    // backwards, and every entry before each combining mark, since a code
    // page that composes a letter with a following mark would otherwise
    // decode differently in context than byte by byte.
    std::vector<uint32_t> order(chars.begin(), chars.end());
    order.insert(order.end(), chars.rbegin(), chars.rend());
    for (uint32_t mark : chars) {
        if (!IsCombining(mark))
            continue;
        for (uint32_t c : chars) {
            order.push_back(c);
            order.push_back(mark);
        }
    }
    stringEx sequence;
    wstringEx sequenceWide;
    for (uint32_t c : order) {
        sequence.push_back(static_cast<char>(codec->ByteOf(c)));
        sequenceWide.push_back(static_cast<wchar_t>(c));
    }
    if (!decode(sequence, wide) || !(wide == sequenceWide))
        return nullptr;
    if (!encode(sequenceWide, bytes) || !(bytes == sequence))
        return nullptr;
    codec->asciiApart = true;
    for (uint32_t b = 0; b < 256; ++b) {
        const uint32_t c = images[b];
        if (c != kNoImage)
            codec->asciiApart &= (b < 0x80 ? c == b : c >= 0x80) && codec->ByteOf(c) == static_cast<int>(b);
    }
    return codec;
}

// ---- double-byte code pages ------------------------------------------------------------

// Tables of a code page whose characters take one byte, or a lead byte and a
// trail byte, each entry being what the back end gives for that piece alone.
struct DoubleByteTables {
    // Single bytes; kNoImage for lead bytes and holes.
    ByteImages single{};
    // Lead byte * 256 + trail byte.
    std::vector<uint32_t> pair = std::vector<uint32_t>(65536, kNoImage);
    // A character of the first plane to its bytes as they are written: the
    // count in bits 16 and up, the first byte low, the second above it;
    // 0 where the back end gives something else.
    std::vector<uint32_t> bytesOf = std::vector<uint32_t>(65536, 0);
    // ASCII converts to itself both ways, so runs of it go in blocks.
    bool asciiSelf = false;
    // And nothing else reads as ASCII: a search for ASCII text may look at
    // the bytes with the second bytes of pairs masked (AsciiView).
    bool asciiApart = false;
    // One bit per pair (lead byte * 256 + trail byte) whose character is
    // written back as that pair. A view stands for copying the bytes where
    // the text would be decoded and encoded again, so a piece holding any
    // other pair (Big5 reads 0xA2CC and 0xA451 as one character and writes
    // only the second) is not shown in one.
    std::bitset<65536> keptPairs;
};

// Fewer lead bytes or pairs than these: not a double-byte code page.
constexpr int kMinLeadBytes = 16;
constexpr size_t kMinPairs = 1024;
// The tables take tens of thousands of calls into the back end to fill, a
// noticeable pause for a program that converts a few lines: they are built
// once this many units have gone through the back end instead, and then
// kept for the rest of the process.
constexpr uint64_t kBuildAfterUnits = uint64_t(1) << 20;

constexpr uint32_t PairForm(uint32_t length, uint32_t first, uint32_t second) noexcept
{
    return length << 16 | second << 8 | first;
}

// The tables for a code page, or null when the back end does not behave
// as one with tables would.
std::unique_ptr<DoubleByteTables> BuildDoubleByte(const ByteImages& images, const ProbeDecode& decode,
                                                  const ProbeEncode& encode)
{
    auto tables = std::make_unique<DoubleByteTables>();
    tables->single = images;
    std::vector<uint32_t> leads;
    for (uint32_t b = 0; b < 256; ++b)
        if (images[b] == kNoImage)
            leads.push_back(b);
    if (leads.size() < static_cast<size_t>(kMinLeadBytes))
        return nullptr;

    // Every pair behind every byte that is no character alone.
    std::vector<uint32_t> pairs;
    char two[2];
    wstringEx wide;
    for (uint32_t lead : leads)
        for (uint32_t trail = 0; trail < 256; ++trail) {
            two[0] = static_cast<char>(lead);
            two[1] = static_cast<char>(trail);
            if (decode(stringEx(two, 2), wide) && wide.size() == 1 && static_cast<uint32_t>(wide[0]) != kNoImage) {
                tables->pair[lead << 8 | trail] = static_cast<uint32_t>(wide[0]);
                pairs.push_back(lead << 8 | trail);
            }
        }
    if (pairs.size() < kMinPairs)
        return nullptr;

    // The reverse: what the back end writes for each character the tables
    // hold, when that is one byte or two.
    stringEx bytes;
    auto learn = [&](uint32_t c) {
        if (c > 0xFFFF || tables->bytesOf[c] != 0)
            return;
        const wstringEx one(1, static_cast<wchar_t>(c));
        if (!encode(one, bytes))
            return;
        const auto* b = reinterpret_cast<const unsigned char*>(bytes.data());
        if (bytes.size() == 1)
            tables->bytesOf[c] = PairForm(1, b[0], 0);
        else if (bytes.size() == 2)
            tables->bytesOf[c] = PairForm(2, b[0], b[1]);
    };
    for (uint32_t b = 0; b < 256; ++b)
        if (images[b] != kNoImage)
            learn(images[b]);
    for (uint32_t p : pairs)
        learn(tables->pair[p]);

    // Neighbours must not change each other: every entry in sequence,
    // forwards and backwards, must convert as the entries do one by one.
    stringEx sequence;
    wstringEx sequenceWide;
    auto add = [&](uint32_t form, uint32_t c) {
        sequence.push_back(static_cast<char>(form & 0xFF));
        if (form >> 16 == 2)
            sequence.push_back(static_cast<char>((form >> 8) & 0xFF));
        sequenceWide.push_back(static_cast<wchar_t>(c));
    };
    for (int pass = 0; pass < 2; ++pass) {
        for (uint32_t k = 0; k < 256; ++k) {
            const uint32_t b = pass == 0 ? k : 255 - k;
            if (images[b] != kNoImage)
                add(PairForm(1, b, 0), images[b]);
        }
        for (size_t k = 0; k < pairs.size(); ++k) {
            const uint32_t p = pairs[pass == 0 ? k : pairs.size() - 1 - k];
            add(PairForm(2, p >> 8, p & 0xFF), tables->pair[p]);
        }
    }
    if (!decode(sequence, wide) || !(wide == sequenceWide))
        return nullptr;
    sequence.clear();
    sequenceWide.clear();
    for (int pass = 0; pass < 2; ++pass)
        for (uint32_t k = 0; k < 0x10000; ++k) {
            const uint32_t c = pass == 0 ? k : 0xFFFF - k;
            if (tables->bytesOf[c] != 0)
                add(tables->bytesOf[c], c);
        }
    if (!encode(sequenceWide, bytes) || !(bytes == sequence))
        return nullptr;
    // And a combining mark must not merge with the character before it, as
    // it does where the code page has one form for the two together.
    for (uint32_t mark = 0; mark < 0x10000; ++mark) {
        if (!IsCombining(mark) || tables->bytesOf[mark] == 0)
            continue;
        sequence.clear();
        sequenceWide.clear();
        for (uint32_t c = 0; c < 0x10000; ++c)
            if (tables->bytesOf[c] != 0) {
                add(tables->bytesOf[c], c);
                add(tables->bytesOf[mark], mark);
            }
        if (!encode(sequenceWide, bytes) || !(bytes == sequence) || !decode(sequence, wide) || !(wide == sequenceWide))
            return nullptr;
    }

    tables->asciiSelf = true;
    for (uint32_t c = 0; c < 0x80; ++c)
        tables->asciiSelf &= images[c] == c && tables->bytesOf[c] == PairForm(1, c, 0);
    tables->asciiApart = tables->asciiSelf;
    for (uint32_t b = 0x80; b < 0x100; ++b) {
        const uint32_t c = images[b];
        tables->asciiApart &= c == kNoImage || (c >= 0x80 && c <= 0xFFFF && tables->bytesOf[c] == PairForm(1, b, 0));
    }
    for (const uint32_t p : pairs) {
        const uint32_t c = tables->pair[p];
        tables->asciiApart &= c >= 0x80;
        if (c <= 0xFFFF && tables->bytesOf[c] == PairForm(2, p >> 8, p & 0xFF))
            tables->keptPairs.set(p);
    }
    return tables;
}

// Tables already built, by encoding name, so that the clones a program
// makes of a converter (one per thread) and a second converter for the same
// encoding do not build them again. Null marks an encoding found not to fit.
struct DoubleByteCache {
    std::mutex lock;
    std::map<std::string, std::shared_ptr<const DoubleByteTables>> byName;
};

DoubleByteCache& DoubleByteTablesCache()
{
    static DoubleByteCache cache;
    return cache;
}

class CDoubleByteCodec : public CFastCodec {
public:
    CDoubleByteCodec(std::string name, const ByteImages& images, ProbeDecode decode, ProbeEncode encode)
        : _name(std::move(name)), _images(images), _decode(std::move(decode)), _encode(std::move(encode))
    {
        DoubleByteCache& cache = DoubleByteTablesCache();
        std::lock_guard<std::mutex> hold(cache.lock);
        const auto known = cache.byName.find(_name);
        if (known != cache.byName.end())
            Adopt(known->second);
    }

    bool Decode(wstringEx& dst, const stringEx& src) const override { return DecodeWith<false>(dst, src); }
    bool Encode(stringEx& dst, const wstringEx& src) const override { return EncodeWith<false>(dst, src); }
    // Where the tables fail, the back end is asked about the bytes there
    // (BackEndAt); where it fails too, it stops at the first byte, a lead
    // byte without its trail included: that byte alone is carried, and the
    // next one read afresh.
    bool DecodeCarrying(wstringEx& dst, const stringEx& src) const override { return DecodeWith<true>(dst, src); }
    bool EncodeCarrying(stringEx& dst, const wstringEx& src) const override { return EncodeWith<true>(dst, src); }

    // Every pair in the tables, its second byte masked where it is below
    // 0x80; anything else (a broken byte, a lead byte at the end, a pair
    // that is not written back as itself) fails.
    bool AsciiView(stringEx& view, const stringEx& src, bool) const override
    {
        const DoubleByteTables* t = Ready(src.size());
        if (!t || !t->asciiApart)
            return false;
        const auto* in = reinterpret_cast<const unsigned char*>(src.data());
        const size_t n = src.size();
        auto* out = reinterpret_cast<unsigned char*>(FreshBuffer(view, n + kBlockSlack));
        size_t i = 0;
        while (i < n) {
            if (i + 16 <= n) {
                const unsigned ascii = AsciiPrefix(in + i);
                if (ascii > 0) {
                    std::memcpy(out + i, in + i, 16);
                    i += ascii;
                    continue;
                }
            }
            const unsigned char lead = in[i];
            if (t->single[lead] != kNoImage) {
                out[i++] = lead;
                continue;
            }
            if (i + 1 == n)
                return false;
            const uint32_t p = static_cast<uint32_t>(lead) << 8 | in[i + 1];
            if (!t->keptPairs.test(p))
                return false;
            out[i] = lead;
            out[i + 1] = in[i + 1] < 0x80 ? 0x80 : in[i + 1];
            i += 2;
        }
        view.SetSize(n);
        return true;
    }

    // Nothing once the back end has turned out not to fit the tables.
    const char* Kind() const noexcept override
    {
        const bool unfit = _settled.load(std::memory_order_acquire) && !_tables.load(std::memory_order_acquire);
        return unfit ? "" : "double-byte";
    }

private:
    template <bool Carry>
    bool DecodeWith(wstringEx& dst, const stringEx& src) const
    {
        const DoubleByteTables* t = Ready(src.size());
        if (!t)
            return false;
        const auto* in = reinterpret_cast<const unsigned char*>(src.data());
        const size_t n = src.size();
        wchar_t* out = FreshBuffer(dst, n + kBlockSlack);
        size_t i = 0, o = 0;
        wstringEx units;
        while (i < n) {
            if (t->asciiSelf && i + 16 <= n) {
                const unsigned ascii = AsciiPrefix(in + i);
                if (ascii > 0) {
                    WidenBlock(in + i, out + o);
                    i += ascii;
                    o += ascii;
                    continue;
                }
            }
            uint32_t c = t->single[in[i]];
            if (c != kNoImage) {
                ++i;
            } else {
                if (i + 1 < n)
                    c = t->pair[static_cast<uint32_t>(in[i]) << 8 | in[i + 1]];
                if (c != kNoImage) {
                    i += 2;
                } else {
                    if constexpr (!Carry)
                        return false;
                    if (!CarryAt(&_decode, in, n, i, out, o, units))
                        return false;
                    continue;
                }
            }
            out[o++] = static_cast<wchar_t>(c);
        }
        dst.SetSize(o);
        return true;
    }

    template <bool Carry>
    bool EncodeWith(stringEx& dst, const wstringEx& src) const
    {
        const DoubleByteTables* t = Ready(src.size());
        if (!t)
            return false;
        const wchar_t* in = src.data();
        const size_t n = src.size();
        auto* out = reinterpret_cast<unsigned char*>(FreshBuffer(dst, 2 * n + kBlockSlack));
        size_t i = 0, o = 0;
        while (i < n) {
            if (t->asciiSelf && i + 8 <= n && PackAscii(in + i, out + o)) {
                i += 8;
                o += 8;
                continue;
            }
            const wchar_t unit = in[i++];
            const uint32_t c = static_cast<uint32_t>(unit);
            uint32_t form = c <= 0xFFFF ? t->bytesOf[c] : 0;
            if (Carry && form == 0 && IsEscapeUnit(unit))
                form = PairForm(1, EscapedByte(unit), 0);
            if (form == 0)
                return false;
            // Both bytes are written; a single one is overwritten next.
            out[o] = static_cast<unsigned char>(form);
            out[o + 1] = static_cast<unsigned char>(form >> 8);
            o += form >> 16;
        }
        dst.SetSize(o);
        return true;
    }

    // The tables once enough text has gone by to be worth them; null before,
    // and for good when the back end turns out not to fit them.
    const DoubleByteTables* Ready(uint64_t units) const
    {
        if (const DoubleByteTables* t = _tables.load(std::memory_order_acquire))
            return t;
        if (_settled.load(std::memory_order_acquire))
            return nullptr;
        if (_seen.fetch_add(units, std::memory_order_relaxed) + units < kBuildAfterUnits)
            return nullptr;
        std::lock_guard<std::mutex> building(_building);
        if (!_settled.load(std::memory_order_relaxed)) {
            DoubleByteCache& cache = DoubleByteTablesCache();
            std::shared_ptr<const DoubleByteTables> tables;
            {
                std::lock_guard<std::mutex> hold(cache.lock);
                const auto known = cache.byName.find(_name);
                if (known != cache.byName.end())
                    tables = known->second;
            }
            if (!tables) {
                try {
                    tables = BuildDoubleByte(_images, _decode, _encode);
                } catch (...) {
                    // Out of memory, say: the back end serves.
                }
                std::lock_guard<std::mutex> hold(cache.lock);
                cache.byName.emplace(_name, tables);
            }
            Adopt(tables);
        }
        return _tables.load(std::memory_order_acquire);
    }

    void Adopt(std::shared_ptr<const DoubleByteTables> tables) const
    {
        _held = std::move(tables);
        _tables.store(_held.get(), std::memory_order_release);
        _settled.store(true, std::memory_order_release);
    }

    std::string _name;
    ByteImages _images;
    ProbeDecode _decode;
    ProbeEncode _encode;
    mutable std::mutex _building;
    mutable std::shared_ptr<const DoubleByteTables> _held;
    mutable std::atomic<const DoubleByteTables*> _tables{nullptr};
    mutable std::atomic<bool> _settled{false};
    mutable std::atomic<uint64_t> _seen{0};
};

// A byte that is no character alone is taken for a lead byte; the tables
// themselves are built when first needed.
std::unique_ptr<CFastCodec> MakeDoubleByteCodec(const std::string& name, const ByteImages& images,
                                                const ProbeDecode& decode, const ProbeEncode& encode)
{
    const auto leads = std::count(images.begin(), images.end(), kNoImage);
    if (leads < kMinLeadBytes)
        return nullptr;
    return std::make_unique<CDoubleByteCodec>(name, images, decode, encode);
}

// Uppercase ASCII, for comparing encoding names.
std::string Upper(const stringEx& name)
{
    std::string s(name.data(), name.size());
    for (char& c : s)
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    return s;
}

std::unique_ptr<CFastCodec> UnicodeCodec(const std::string& name)
{
    if (name == "UTF-8" || name == "UTF8")
        return std::make_unique<CUtf8Codec>();
    if (name == "UTF-16LE" || name == "UTF-16BE")
        return std::make_unique<CUnitCodec<2>>(name[name.size() - 2] == 'B', true, "utf-16");
    if (name == "UCS-2LE" || name == "UCS-2BE")
        return std::make_unique<CUnitCodec<2>>(name[name.size() - 2] == 'B', false, "ucs-2");
    if (name == "UTF-32LE" || name == "UTF-32BE")
        return std::make_unique<CUnitCodec<4>>(name[name.size() - 2] == 'B', true, "utf-32");
    return nullptr;
}

// A shortcut for a Unicode form is trusted once the back end agrees with it
// on a sample of every length of sequence, including a leading U+FEFF.
bool AgreesOnSample(const CFastCodec& codec, const ProbeDecode& decode, const ProbeEncode& encode, bool bmpOnly)
{
    std::wstring sample = L"\xFEFF" L"A\x01\x7F\x80\xE9\xFF\x100\x7FF\x800\x4F60\xFEFF\xFFFD";
    if (!bmpOnly)
        sample += L"\x10000\x1F600\x10FFFF";
    const wstringEx wide(sample.data(), sample.size());
    stringEx viaBackEnd, viaCodec;
    wstringEx back, fastBack;
    return encode(wide, viaBackEnd) && codec.Encode(viaCodec, wide) && viaBackEnd == viaCodec &&
           decode(viaBackEnd, back) && codec.Decode(fastBack, viaBackEnd) && back == fastBack && back == wide;
}

}  // namespace

std::unique_ptr<CFastCodec> MakeFastCodec(const stringEx& encoding, const ProbeDecode& decode,
                                          const ProbeEncode& encode, bool stateful)
{
    try {
        const std::string name = Upper(encoding);
        if (std::unique_ptr<CFastCodec> codec = UnicodeCodec(name))
            return AgreesOnSample(*codec, decode, encode, name.rfind("UCS-2", 0) == 0) ? std::move(codec) : nullptr;
        const ByteImages images = ProbeBytes(decode);
        if (std::unique_ptr<CFastCodec> codec = MakeTableCodec(images, decode, encode, stateful))
            return codec;
        // An encoder that keeps a shift state can write the same character
        // differently by what came before: no table describes it.
        if (stateful)
            return nullptr;
        return MakeDoubleByteCodec(name, images, decode, encode);
    } catch (...) {
        // A shortcut is an optimisation: without one the back end serves.
        return nullptr;
    }
}

}  // namespace Karu::IMPL

namespace Karu {

bool IsWellFormedUtf8(const char* data, uint64_t size) noexcept
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(data);
#if defined(KARU_SHUFFLES)
    static const bool shuffles = __builtin_cpu_supports("ssse3");
    if (shuffles)
        return IMPL::BlocksWellFormed(bytes, size);
#endif
    return IMPL::WalkUtf8<false>(bytes, size, nullptr) != SIZE_MAX;
}

}  // namespace Karu

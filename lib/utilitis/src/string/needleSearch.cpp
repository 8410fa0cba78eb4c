// See needleSearch.h for the idea. The vector form of ByteNeedles needs
// byte shuffles of 32 lanes, which only some processors of this family have:
// it is chosen at run time, and any other machine reads the same tables a
// position at a time. The wide search is written with the compiler's generic
// vectors, which every target lowers to what it has.
#include <karu/string/needleSearch.h>

#include <algorithm>
#include <cstring>
#include <numeric>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define KARU_NEEDLES_X86 1
#else
#define KARU_NEEDLES_X86 0
#endif

namespace Karu {

namespace {

#if KARU_NEEDLES_X86
bool HaveWideShuffles() noexcept
{
    static const bool have = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("avx2") != 0;
    }();
    return have;
}
#endif

// The (and, want) pair with set == {b : (b & and) == want}, if there is one:
// a single byte, or two that differ in one bit.
bool MaskOf(const ByteSet& set, uint8_t& andMask, uint8_t& want) noexcept
{
    int first = -1, second = -1;
    for (int b = 0; b < 256; ++b) {
        if (!set[static_cast<size_t>(b)])
            continue;
        if (first < 0)
            first = b;
        else if (second < 0)
            second = b;
        else
            return false;
    }
    if (first < 0)
        return false;
    if (second < 0) {
        andMask = 0xFF;
        want = static_cast<uint8_t>(first);
        return true;
    }
    const int diff = first ^ second;
    if (diff & (diff - 1))
        return false;
    andMask = static_cast<uint8_t>(~diff);
    want = static_cast<uint8_t>(first & ~diff);
    return true;
}

uint64_t Word(const uint8_t* p) noexcept
{
    uint64_t w;
    std::memcpy(&w, p, sizeof w);
    return w;
}

unsigned char LowestByte(const ByteSet& set) noexcept
{
    for (unsigned b = 0; b < 256; ++b)
        if (set[b])
            return static_cast<unsigned char>(b);
    return 0;
}

// Needles of one length that differ in a single position are one needle
// whose set there is the union of theirs: it matches exactly what they match
// together (every other position is shared). A pattern's prefilter hands in
// such families, say "struct " followed by each of the colours a class was
// split into, and one needle searches faster than several: it can go by the
// pair of its rarest positions.
std::vector<ByteNeedle> Merged(std::vector<ByteNeedle> needles)
{
    // One pass: a needle takes in every later one that differs from it in
    // one position, looking at them again after each change. A merge that a
    // needle's earlier neighbour might still make is left out; merging
    // less costs only speed, and the pass stays quadratic in the needles.
    for (size_t a = 0; a < needles.size(); ++a)
        for (size_t b = a + 1; b < needles.size();) {
            size_t differing = 0, at = 0;
            if (needles[a].size() == needles[b].size())
                for (size_t j = 0; j < needles[a].size() && differing < 2; ++j)
                    if (needles[a][j] != needles[b][j]) {
                        ++differing;
                        at = j;
                    }
            if (needles[a].size() != needles[b].size() || differing >= 2) {
                ++b;
                continue;
            }
            if (differing == 1)
                needles[a][at] |= needles[b][at];
            needles.erase(needles.begin() + static_cast<ptrdiff_t>(b));
            b = a + 1;
        }
    return needles;
}

}  // namespace

double CharacterFrequency(uint32_t c) noexcept
{
    static const double kLetters[26] = {0.061, 0.011, 0.021, 0.032, 0.095, 0.017, 0.015, 0.046, 0.053,
                                        0.001, 0.006, 0.030, 0.018, 0.051, 0.057, 0.014, 0.001, 0.045,
                                        0.048, 0.068, 0.021, 0.008, 0.017, 0.002, 0.015, 0.001};
    if (c >= 'a' && c <= 'z') return kLetters[c - 'a'];
    if (c >= 'A' && c <= 'Z') return kLetters[c - 'A'] / 10;
    if (c >= '0' && c <= '9') return 0.004;
    if (c == ' ') return 0.15;
    if (c == '\n' || c == '.' || c == ',') return 0.015;
    if (c == '_') return 0.012;  // joins the words of identifiers in code
    if (c == '\t' || c == '\r' || c == '(' || c == ')' || c == '-' || c == '"' || c == '\'') return 0.004;
    if (c < 0x20 || c == 0x7F) return 0.00001;
    if (c < 0x80) return 0.002;
    return c < 0x100 ? 0.003 : 0.0003;
}

ByteNeedles::ByteNeedles(const std::vector<ByteNeedle>& given)
{
    const std::vector<ByteNeedle> needles = Merged(given);
    size_t shortest = SIZE_MAX;
    for (const ByteNeedle& n : needles)
        shortest = std::min(shortest, n.size());
    if (needles.empty() || shortest == 0)
        return;
    _filterBytes = static_cast<int>(std::min<size_t>(shortest, kFilterBytes));
    // Needles that begin alike share a bucket: their nibbles then combine
    // into few positions that match none of them.
    std::vector<uint32_t> order(needles.size());
    std::iota(order.begin(), order.end(), 0u);
    std::stable_sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
        return LowestByte(needles[a][0]) < LowestByte(needles[b][0]);
    });
    const size_t perBucket = (needles.size() + kBuckets - 1) / kBuckets;
    for (size_t rank = 0; rank < order.size(); ++rank) {
        const ByteNeedle& n = needles[order[rank]];
        const int bucket = static_cast<int>(rank / perBucket);
        _bucketNeedles[bucket].push_back(static_cast<uint32_t>(_needles.size()));
        // Each position as an and and a compare where it has that form; any
        // other position passes them and is checked by its bits.
        const uint32_t masks = static_cast<uint32_t>(_and.size());
        const uint32_t loose = static_cast<uint32_t>(_loose.size());
        for (size_t j = 0; j < n.size(); ++j) {
            uint8_t andMask = 0, want = 0;
            if (!MaskOf(n[j], andMask, want))
                _loose.push_back(static_cast<uint32_t>(j));
            _and.push_back(andMask);
            _want.push_back(want);
        }
        _and.insert(_and.end(), 8, 0);
        _want.insert(_want.end(), 8, 0);
        _needles.push_back({static_cast<uint32_t>(_bits.size()), static_cast<uint32_t>(n.size()), masks, loose,
                            static_cast<uint32_t>(_loose.size()) - loose});
        for (size_t j = 0; j < n.size(); ++j) {
            Bits bits{};
            for (unsigned b = 0; b < 256; ++b) {
                if (!n[j][b])
                    continue;
                bits.w[b >> 6] |= uint64_t(1) << (b & 63);
                if (j < static_cast<size_t>(_filterBytes)) {
                    _lo[j][b & 15] |= static_cast<uint8_t>(1u << bucket);
                    _hi[j][b >> 4] |= static_cast<uint8_t>(1u << bucket);
                }
            }
            _bits.push_back(bits);
        }
    }
    // A single needle with two positions of that form goes by the two whose
    // bytes are rarest in text, which seldom both hold by chance: in
    // "struct " the first and the last position, s and the blank, hold
    // together every hundred bytes or so of prose, u and c ten times less.
    if (_needles.size() == 1) {
        const Needle& n = _needles[0];
        int rarest = -1, next = -1;
        double rarestWeight = 0, nextWeight = 0;
        for (uint32_t j = 0; j < n.length; ++j) {
            if (std::find(_loose.begin(), _loose.end(), j) != _loose.end())
                continue;
            // Such a position holds one byte, or two that differ in the
            // bits the mask leaves out: a long find costs no scan of all
            // bytes per position here.
            const uint8_t andMask = _and[n.masks + j], want = _want[n.masks + j];
            const double w = CharacterFrequency(want) +
                             (andMask != 0xFF ? CharacterFrequency(want | static_cast<uint8_t>(~andMask)) : 0.0);
            if (rarest < 0 || w < rarestWeight) {
                next = rarest;
                nextWeight = rarestWeight;
                rarest = static_cast<int>(j);
                rarestWeight = w;
            } else if (next < 0 || w < nextWeight) {
                next = static_cast<int>(j);
                nextWeight = w;
            }
        }
        if (rarest >= 0 && next >= 0) {
            _pairFirst = static_cast<uint32_t>(std::min(rarest, next));
            _pairLast = static_cast<uint32_t>(std::max(rarest, next));
#if KARU_NEEDLES_X86
            if (HaveWideShuffles())
                _search = &ByteNeedles::findPair;
#endif
            return;
        }
    }
#if KARU_NEEDLES_X86
    if (HaveWideShuffles())
        _search = &ByteNeedles::findWide;
#endif
}

inline bool ByteNeedles::matches(const Needle& n, const unsigned char* p, const unsigned char* to) const noexcept
{
    if (static_cast<size_t>(to - p) < n.length)
        return false;
    const uint8_t* andMask = _and.data() + n.masks;
    const uint8_t* want = _want.data() + n.masks;
    uint32_t i = 0;
    for (; i + 8 <= n.length; i += 8)
        if ((Word(p + i) & Word(andMask + i)) != Word(want + i))
            return false;
    for (; i < n.length; ++i)
        if ((p[i] & andMask[i]) != want[i])
            return false;
    const Bits* bits = _bits.data() + n.first;
    for (uint32_t k = n.loose; k < n.loose + n.looseCount; ++k)
        if (!bits[_loose[k]].has(p[_loose[k]]))
            return false;
    return true;
}

bool ByteNeedles::confirm(uint8_t buckets, const unsigned char* p, const unsigned char* to) const noexcept
{
    for (; buckets; buckets &= static_cast<uint8_t>(buckets - 1)) {
        const int bucket = __builtin_ctz(buckets);
        for (const uint32_t i : _bucketNeedles[bucket])
            if (matches(_needles[i], p, to))
                return true;
    }
    return false;
}

const char* ByteNeedles::FindPortable(const char* from, const char* to) const noexcept
{
    if (_needles.empty() || from >= to)
        return nullptr;
    const auto* p = reinterpret_cast<const unsigned char*>(from);
    const auto* end = reinterpret_cast<const unsigned char*>(to);
    for (; end - p >= _filterBytes; ++p) {
        const uint8_t buckets = bucketsAt(p);
        if (buckets && confirm(buckets, p, end))
            return reinterpret_cast<const char*>(p);
    }
    return nullptr;
}

#if KARU_NEEDLES_X86
// One needle: two of its positions (_pairFirst before _pairLast), 32 places at a time, each by an and and
// a compare; the rest is checked where both hold.
__attribute__((target("avx2"))) const char* ByteNeedles::findPair(const char* from, const char* to) const noexcept
{
    const Needle& n = _needles[0];
    const uint32_t first = _pairFirst, last = _pairLast;
    const uint8_t* andMask = _and.data() + n.masks;
    const uint8_t* want = _want.data() + n.masks;
    const __m256i andFirst = _mm256_set1_epi8(static_cast<char>(andMask[first]));
    const __m256i wantFirst = _mm256_set1_epi8(static_cast<char>(want[first]));
    const __m256i andLast = _mm256_set1_epi8(static_cast<char>(andMask[last]));
    const __m256i wantLast = _mm256_set1_epi8(static_cast<char>(want[last]));
    const auto* p = reinterpret_cast<const unsigned char*>(from);
    const auto* end = reinterpret_cast<const unsigned char*>(to);
    auto block = [&](const unsigned char* at) __attribute__((target("avx2"))) {
        const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at + first));
        const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at + last));
        return static_cast<uint32_t>(_mm256_movemask_epi8(
            _mm256_and_si256(_mm256_cmpeq_epi8(_mm256_and_si256(a, andFirst), wantFirst),
                             _mm256_cmpeq_epi8(_mm256_and_si256(b, andLast), wantLast))));
    };
    // Two blocks a step while there is room: one branch for 64 places.
    for (; static_cast<size_t>(end - p) >= 32 + last; p += 32) {
        uint64_t candidates = block(p);
        if (static_cast<size_t>(end - p) >= 64 + last) {
            candidates |= static_cast<uint64_t>(block(p + 32)) << 32;
            if (!candidates) {
                p += 32;
                continue;
            }
        }
        for (; candidates; candidates &= candidates - 1) {
            const unsigned char* at = p + __builtin_ctzll(candidates);
            if (matches(n, at, end))
                return reinterpret_cast<const char*>(at);
        }
        if (static_cast<size_t>(end - p) >= 64 + last)
            p += 32;
    }
    return FindPortable(reinterpret_cast<const char*>(p), to);
}

__attribute__((target("avx2"))) const char* ByteNeedles::findWide(const char* from, const char* to) const noexcept
{
    const __m256i nibble = _mm256_set1_epi8(0x0F);
    const __m256i zero = _mm256_setzero_si256();
    __m256i lo[kFilterBytes], hi[kFilterBytes];
    for (int j = 0; j < kFilterBytes; ++j) {
        lo[j] = _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(_lo[j])));
        hi[j] = _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(_hi[j])));
    }
    const auto* p = reinterpret_cast<const unsigned char*>(from);
    const auto* end = reinterpret_cast<const unsigned char*>(to);
    // A block reads 32 positions and the filter's bytes behind the last.
    const ptrdiff_t span = 32 + _filterBytes - 1;
    for (; end - p >= span; p += 32) {
        __m256i acc = _mm256_set1_epi8(-1);
        for (int j = 0; j < _filterBytes; ++j) {
            const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + j));
            const __m256i low = _mm256_and_si256(v, nibble);
            const __m256i high = _mm256_and_si256(_mm256_srli_epi16(v, 4), nibble);
            acc = _mm256_and_si256(
                acc, _mm256_and_si256(_mm256_shuffle_epi8(lo[j], low), _mm256_shuffle_epi8(hi[j], high)));
        }
        uint32_t candidates = ~static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(acc, zero)));
        for (; candidates; candidates &= candidates - 1) {
            const unsigned char* at = p + __builtin_ctz(candidates);
            if (confirm(bucketsAt(at), at, end))
                return reinterpret_cast<const char*>(at);
        }
    }
    return FindPortable(reinterpret_cast<const char*>(p), to);
}
#endif

const wchar_t* FindUnitOrBeyond(const wchar_t* from, const wchar_t* to, const wchar_t* units, int count) noexcept
{
    const uint32_t u0 = static_cast<uint32_t>(units[0]);
    const uint32_t u1 = count > 1 ? static_cast<uint32_t>(units[1]) : u0;
    const uint32_t u2 = count > 2 ? static_cast<uint32_t>(units[2]) : u0;
    const uint32_t u3 = count > 3 ? static_cast<uint32_t>(units[3]) : u0;
    constexpr uint32_t kBeyond = 0xFFFF0000u;
    // Eight units a step, in vectors of four (what every target of this
    // family has); a step only tells that one of them is wanted, and the
    // loop below finds which.
    using Lanes = uint32_t __attribute__((vector_size(16)));
    constexpr ptrdiff_t kStep = 8;
    const Lanes s0 = Lanes{} + u0, s1 = Lanes{} + u1, s2 = Lanes{} + u2, s3 = Lanes{} + u3;
    auto wanted = [&](const wchar_t* at) {
        Lanes x;
        std::memcpy(&x, at, sizeof x);
        return (x == s0) | (x == s1) | (x == s2) | (x == s3) | ((x & kBeyond) != 0);
    };
    const wchar_t* p = from;
    for (; to - p >= kStep; p += kStep) {
        const auto hit = wanted(p) | wanted(p + 4);
        uint64_t words[2];
        std::memcpy(words, &hit, sizeof words);
        if (words[0] | words[1])
            break;
    }
    for (; p < to; ++p) {
        const uint32_t u = static_cast<uint32_t>(*p);
        if (u == u0 || u == u1 || u == u2 || u == u3 || (u & kBeyond))
            return p;
    }
    return nullptr;
}

}  // namespace Karu

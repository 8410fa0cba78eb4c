// Searches that look at many units at a time: a set of short needles in
// bytes, and a few units in wide text.
//
// ByteNeedles finds the first place where any of a set of needles occurs.
// A needle is a sequence of byte sets, so one needle can stand for a word in
// either case, or for the colours a pattern must begin with. The search
// filters 32 positions at a time by the first (up to) three positions of
// every needle: each needle belongs to one of eight buckets, and a position
// passes when, for some bucket, each of its next bytes has the low nibble and
// the high nibble that some needle of the bucket allows there. Nibble tables
// make that two table lookups a byte, which vector shuffles do 32 at once.
// The filter lets through more than matches (nibbles of different needles
// combine), so every candidate is checked whole. Needles that differ in one
// position only are taken as one. A single needle with two positions that
// are each a byte, or a byte either way in one bit (a letter in either
// case), is filtered more cheaply by the two such whose bytes are rarest in
// text (CharacterFrequency).
// Without the vector unit the nibble tables are read a position at a time;
// all ways give the same answer.
//
// FindUnitOrBeyond serves wide text, whose units are too wide for nibble
// tables: it finds the first unit out of at most four, or beyond the basic
// plane (a unit that the library's tables read by its low 16 bits, which a
// caller must look at itself).
#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Karu {

// The bytes one position of a needle accepts.
using ByteSet = std::bitset<256>;
using ByteNeedle = std::vector<ByteSet>;

class ByteNeedles {
public:
    ByteNeedles() = default;
    // Each needle must hold at least one position; an empty set finds nothing.
    explicit ByteNeedles(const std::vector<ByteNeedle>& needles);

    bool empty() const noexcept { return _needles.empty(); }
    size_t count() const noexcept { return _needles.size(); }

    // The first position p in [from, to) where some needle occurs whole
    // before `to`: each of its sets holds the byte at p + i. Null if none.
    const char* Find(const char* from, const char* to) const noexcept
    {
        return from < to ? (this->*_search)(from, to) : nullptr;
    }
    // The same, a position at a time, whatever the machine has. Find must
    // agree with it everywhere; tests hold it to that.
    const char* FindPortable(const char* from, const char* to) const noexcept;

private:
    // A needle position as four words of bits, for the check of a candidate.
    struct Bits {
        uint64_t w[4];
        bool has(unsigned char b) const noexcept { return (w[b >> 6] >> (b & 63)) & 1; }
    };
    struct Needle {
        uint32_t first;   // its positions in _bits
        uint32_t length;
        uint32_t masks;   // its positions in _and and _want
        uint32_t loose;   // its positions of another form, in _loose
        uint32_t looseCount;
    };
    static constexpr int kBuckets = 8;
    static constexpr int kFilterBytes = 3;  // positions the nibble tables test

    uint8_t bucketsAt(const unsigned char* p) const noexcept
    {
        uint8_t b = 0xFF;
        for (int j = 0; j < _filterBytes; ++j) b &= _lo[j][p[j] & 15] & _hi[j][p[j] >> 4];
        return b;
    }
    bool matches(const Needle& n, const unsigned char* p, const unsigned char* to) const noexcept;
    // Checks the buckets' needles at a candidate.
    bool confirm(uint8_t buckets, const unsigned char* p, const unsigned char* to) const noexcept;
    const char* findWide(const char* from, const char* to) const noexcept;
    const char* findPair(const char* from, const char* to) const noexcept;

    int _filterBytes = 0;
    alignas(16) uint8_t _lo[kFilterBytes][16] = {};
    alignas(16) uint8_t _hi[kFilterBytes][16] = {};
    std::vector<Needle> _needles;
    std::vector<Bits> _bits;
    std::vector<uint32_t> _bucketNeedles[kBuckets];  // indexes into _needles
    // A needle position that is the bytes b with (b & and) == want is
    // checked eight positions at a time; any other passes that check
    // (and = want = 0) and is checked by its bits. The arrays are padded by
    // eight positions that take any byte.
    std::vector<uint8_t> _and, _want;
    std::vector<uint32_t> _loose;
    uint32_t _pairFirst = 0, _pairLast = 0;  // the positions findPair filters by
    // What Find runs, chosen once for the needles and the machine.
    const char* (ByteNeedles::*_search)(const char*, const char*) const noexcept = &ByteNeedles::FindPortable;
};

// How common a character is in text, roughly: letters by their frequency in
// English prose, capitals and digits far less, blanks and common punctuation
// often, bytes of characters beyond ASCII (UTF-8) now and then, control
// characters hardly ever. What decides which needles, or which of a
// needle's positions, a search goes by.
double CharacterFrequency(uint32_t c) noexcept;

// The first unit in [from, to) equal to one of units[0 .. count) (count from
// 1 to 4) or above 0xFFFF as an unsigned value; null if none.
const wchar_t* FindUnitOrBeyond(const wchar_t* from, const wchar_t* to, const wchar_t* units, int count) noexcept;

}  // namespace Karu

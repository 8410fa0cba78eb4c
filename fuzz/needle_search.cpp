// Fuzzes the search for a set of needles: the vector search, the search a
// position at a time and a plain scan written here must find the same first
// place, anywhere in any text. Input: one byte giving the number of needles
// (1 to 16) and their lengths (the byte's value picks them in turn from the
// data), then for each needle position a byte and a kind (one byte, either
// case, or the byte's bits as a mask over 8 neighbours), then the text.
#include <karu/string/needleSearch.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

using namespace Karu;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    size_t at = 0;
    auto next = [&]() -> uint8_t { return at < size ? data[at++] : 0; };
    const int count = 1 + next() % 16;
    std::vector<ByteNeedle> needles(static_cast<size_t>(count));
    for (ByteNeedle& n : needles) {
        n.resize(1 + next() % 6);
        for (ByteSet& s : n) {
            const uint8_t b = next(), kind = next();
            switch (kind % 3) {
            case 0: s.set(b); break;
            case 1: s.set(b); s.set(b ^ 0x20); break;
            default:
                for (int i = 0; i < 8; ++i)
                    if (kind & (1 << i)) s.set(static_cast<uint8_t>(b + i));
                break;
            }
        }
    }
    const char* from = reinterpret_cast<const char*>(data + at);
    const char* to = reinterpret_cast<const char*>(data + size);
    const char* expected = nullptr;
    for (const char* p = from; p < to && !expected; ++p)
        for (const ByteNeedle& n : needles) {
            size_t i = 0;
            while (i < n.size() && p + i < to && n[i][static_cast<uint8_t>(p[i])]) ++i;
            if (i == n.size()) {
                expected = p;
                break;
            }
        }
    const ByteNeedles set(needles);
    if (set.Find(from, to) != expected || set.FindPortable(from, to) != expected)
        std::abort();
    return 0;
}

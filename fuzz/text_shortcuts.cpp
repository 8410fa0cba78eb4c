// Fuzzes the conversion shortcuts against the library they stand in for:
// for UTF-8, a single-byte and a double-byte code page, decoding any bytes
// and encoding any units must give exactly what the library gives by itself.
// The first byte picks the encoding; the rest is the bytes, and the same
// bytes read as wide units, three bytes a unit, so that most units are
// characters and some are surrogates or past the last plane. For UTF-8 the
// block-wise well-formedness check is held to the decoder: it accepts what
// the decoder takes without loss, which then encodes back to itself.
#include <karu/TextConv/TextConv.h>
#include <karu/TextConv/backends.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

using namespace Karu;

namespace {

struct Converters {
    std::unique_ptr<CTextLibIConv> all[3];
    Converters()
    {
        const char* names[] = {"UTF-8", "CP1252", "GBK"};
        for (int k = 0; k < 3; ++k) {
            all[k] = std::make_unique<CTextLibIConv>(stringEx(names[k]));
            // Tables built on first need are built by a large text.
            stringEx warm;
            all[k]->WCtoMB(warm, wstringEx(size_t(1) << 21, L'a'));
        }
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Converters converters;
    if (size < 1)
        return 0;
    CTextLibIConv& conv = *converters.all[data[0] % 3];
    const stringEx bytes(reinterpret_cast<const char*>(data + 1), size - 1);

    wstringEx fast, slow;
    conv.MBtoWC(fast, bytes);
    conv.LibMBtoWC(slow, bytes);
    if (!(fast == slow))
        std::abort();

    wstringEx units;
    for (size_t i = 1; i + 3 <= size; i += 3)
        units.push_back(static_cast<wchar_t>(data[i] | data[i + 1] << 8 | (data[i + 2] % 0x11) << 16));
    stringEx fastBytes, slowBytes;
    conv.WCtoMB(fastBytes, units);
    conv.LibWCtoMB(slowBytes, units);
    if (!(fastBytes == slowBytes))
        std::abort();

    if (conv.IsPlainUtf8() && IsWellFormedUtf8(bytes.data(), bytes.size())) {
        stringEx back;
        conv.WCtoMB(back, fast);
        if (!(back == bytes))
            std::abort();
    }
    return 0;
}

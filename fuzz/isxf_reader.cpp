// Fuzzes the ISXF reader: any bytes, read value by value with the reader's
// own idea of what comes next, through the object forms, the buffer forms
// and the skipping path. A bounded reader must end every input with isxfExp
// and never read past its bound.
#include <karu/stream/isxf.h>

#include <cstddef>
#include <cstdint>

using namespace Karu;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    byteEx bytes = byteEx::View(data, size);
    CByteIO io(bytes);
    CISXFReader<CByteIO> reader(io, static_cast<int64_t>(size));
    char text[16];
    wchar_t wide[4];
    unsigned char blob[8];
    try {
        // Each value costs at least one byte of the bound, so this ends.
        for (unsigned turn = 0;; ++turn) {
            const uint8_t code = reader.PeekType();
            stringEx s;
            wstringEx w;
            byteEx b;
            switch (turn % 3 == 0 ? 0xFF : code) {
            case kIsxfString:
                turn % 2 ? reader.GetString(s) : (void)reader.GetString(text, sizeof text);
                break;
            case kIsxfWString:
                turn % 2 ? reader.GetWString(w) : (void)reader.GetWString(wide, 4);
                break;
            case kIsxfBlob:
                turn % 2 ? reader.GetBlob(b) : (void)reader.GetBlob(blob, sizeof blob);
                break;
            case kIsxfLongDouble:
                reader.GetLongDouble();
                break;
            case kIsxfSize:
                reader.GetSize();
                break;
            default:
                reader.IgnoreNext();
            }
            if (reader.GetBound() < 0)
                __builtin_trap();
        }
    } catch (const isxfExp&) {
    }
    return 0;
}

// Internals shared by the converter sources: the text lock, the generated
// table rows and the "CP<number>" name form.
#pragma once

#include <cstdint>

#include <karu/TextConv/TextConv.h>
#include <karu/sync/fastlock.h>

namespace Karu::IMPL {

// The process-wide recursive lock that guards the creation of the encoding
// tables, the cached system values, the shared converters and the loading
// and unloading of the back-end libraries.
FAST_PCLOCK& TextLock() noexcept;

struct EncodingRow {
    const char* name;
    uint32_t codepage;
    bool flag;
    const char* description;
};

struct CompatRow {
    const char* name;
    bool mutual;
    const char* const* from;  // null-terminated
    const char* const* to;    // null-terminated
};

// The generated tables, in their order.
const EncodingRow* EncodingRows(uint64_t& count) noexcept;
const CompatRow* CompatRows(uint64_t& count) noexcept;

// True when `name` begins with "CP" in any case; `number` then receives the
// decimal number behind it, as far as it reads (0 when nothing does).
bool ParseCodePageName(const stringEx& name, uint32_t& number) noexcept;

// The converter through the C library under the current locale, the last
// fallback of the system converter.
std::unique_ptr<TTextConv> NewLocaleConv();

// "CP" and the number in decimal.
stringEx CodePageName(uint32_t codepage);

}  // namespace Karu::IMPL

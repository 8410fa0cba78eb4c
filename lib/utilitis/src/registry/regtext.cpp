// Text of the store between memory (the system's narrow encoding) and its
// files and exchange formats (UTF-8).
//
// The system's encoding is that of the environment's locale, read once. On
// a UTF-8 system text passes as it stands. Elsewhere it goes through wide
// characters with the C library's converters of that locale, each string on
// its own; what the locale cannot represent becomes "?", as the system's
// default conversion does everywhere in the library.
#include "regbody.h"

#include <langinfo.h>
#include <locale.h>

#include <cstring>
#include <cwchar>

namespace Karu::IMPL {
namespace {

struct SystemText {
    locale_t locale = nullptr;
    bool utf8 = true;

    SystemText()
    {
        locale = newlocale(LC_CTYPE_MASK, "", nullptr);
        if (!locale)
            locale = newlocale(LC_CTYPE_MASK, "C", nullptr);
        const char* codeset = locale ? nl_langinfo_l(CODESET, locale) : "ASCII";
        utf8 = strcasecmp(codeset, "UTF-8") == 0 || strcasecmp(codeset, "UTF8") == 0;
    }
};

const SystemText& System()
{
    static const SystemText text;
    return text;
}

// The calling thread converts in a given locale for the life of this
// object, whatever locale the process or the thread has set.
class InLocale {
public:
    explicit InLocale(locale_t locale) : _previous(uselocale(locale)) {}
    ~InLocale() { uselocale(_previous); }
    InLocale(const InLocale&) = delete;
    InLocale& operator=(const InLocale&) = delete;

private:
    locale_t _previous;
};

void AppendUtf8(stringEx& out, uint32_t c)
{
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

// One character of UTF-8 at `at`, advancing; '?' for a malformed sequence.
uint32_t NextUtf8(const stringEx& text, uint64_t& at)
{
    const unsigned char lead = static_cast<unsigned char>(text[at++]);
    if (lead < 0x80)
        return lead;
    const int extra = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : -1;
    if (extra < 0 || at + extra > text.size())
        return '?';
    uint32_t c = lead & (0x3F >> extra);
    for (int i = 0; i < extra; ++i) {
        const unsigned char next = static_cast<unsigned char>(text[at]);
        if ((next & 0xC0) != 0x80)
            return '?';
        c = (c << 6) | (next & 0x3F);
        ++at;
    }
    return c;
}

}  // namespace

stringEx RegToUtf8(const stringEx& text)
{
    return System().utf8 ? text : RegLocaleToUtf8(text, System().locale);
}

stringEx RegFromUtf8(const stringEx& text)
{
    return System().utf8 ? text : RegUtf8ToLocale(text, System().locale);
}

stringEx RegLocaleToUtf8(const stringEx& text, locale_t locale)
{
    const InLocale scope(locale);
    stringEx out;
    mbstate_t state{};
    for (uint64_t at = 0; at < text.size();) {
        wchar_t c;
        const size_t used = mbrtowc(&c, text.data() + at, text.size() - at, &state);
        if (used == static_cast<size_t>(-1) || used == static_cast<size_t>(-2)) {
            out += '?';
            ++at;
            state = mbstate_t{};
            continue;
        }
        AppendUtf8(out, static_cast<uint32_t>(c));
        at += used ? used : 1;  // an embedded NUL is a character like any other here
    }
    return out;
}

stringEx RegUtf8ToLocale(const stringEx& text, locale_t locale)
{
    const InLocale scope(locale);
    stringEx out;
    mbstate_t state{};
    char bytes[MB_LEN_MAX];
    for (uint64_t at = 0; at < text.size();) {
        const uint32_t c = NextUtf8(text, at);
        const size_t made = wcrtomb(bytes, static_cast<wchar_t>(c), &state);
        if (made == static_cast<size_t>(-1)) {
            out += '?';
            state = mbstate_t{};
        } else {
            out.append(bytes, made);
        }
    }
    return out;
}

}  // namespace Karu::IMPL

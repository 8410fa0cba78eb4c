// Text of the store between memory (the system's narrow encoding) and its
// files and exchange formats (UTF-8).
//
// The system's encoding is that of the environment's locale, read once, and
// its conversion is the C library's under that locale. On a UTF-8 system
// text passes as it stands. Elsewhere the store must still give back every
// byte it was given, bytes that are no text in the locale included (every
// byte above 0x7F in the C locale). Going out:
//   - a character of the locale becomes its UTF-8;
//   - bytes the locale cannot read that are well-formed UTF-8 of a character
//     the locale cannot hold stay as they are, so that a program in the C
//     locale that keeps UTF-8 text writes what any UTF-8 reader reads;
//   - any other byte becomes its escape unit (unicode.h), written as the
//     three bytes of its low 16 bits: a lone surrogate, which no text holds.
// Coming in, each is turned back: an escape into its byte, a character the
// locale holds into its bytes, one it cannot hold into its UTF-8 as it
// stands. So what went out comes back byte for byte. A character is taken
// from the locale only where its bytes are the locale's one way to write it,
// so that the way back gives the same bytes.
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

constexpr uint32_t kLowSurrogates = 0xDC00;  // the low 16 bits of every escape unit

// One character of UTF-8 at `p`: its length, or 0 where the bytes are not
// well-formed (overlong, beyond U+10FFFF, cut short). Surrogates count only
// when `surrogates` is set: the file side reads escapes, the memory side
// must not take an escape's bytes for text.
size_t Utf8At(const char* p, size_t left, bool surrogates, uint32_t& c)
{
    const unsigned char lead = static_cast<unsigned char>(p[0]);
    if (lead < 0x80) {
        c = lead;
        return 1;
    }
    const size_t length = lead > 0xF4 ? 0 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 0;
    if (length == 0 || length > left)
        return 0;
    c = lead & (0x7F >> length);
    for (size_t i = 1; i < length; ++i) {
        const unsigned char next = static_cast<unsigned char>(p[i]);
        if ((next & 0xC0) != 0x80)
            return 0;
        c = (c << 6) | (next & 0x3F);
    }
    static const uint32_t kShortest[5] = {0, 0, 0x80, 0x800, 0x10000};
    if (c < kShortest[length] || c > 0x10FFFF || (!surrogates && c >= 0xD800 && c <= 0xDFFF))
        return 0;
    return length;
}

// The locale's bytes of a character, with the calling thread in the locale;
// 0 when it cannot hold the character.
size_t LocaleBytes(uint32_t c, char (&bytes)[MB_LEN_MAX])
{
    mbstate_t state{};
    const size_t made = wcrtomb(bytes, static_cast<wchar_t>(c), &state);
    return made == static_cast<size_t>(-1) ? 0 : made;
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
    const char* p = text.data();
    char bytes[MB_LEN_MAX];
    for (uint64_t at = 0; at < text.size();) {
        const size_t left = text.size() - at;
        wchar_t c = 0;
        mbstate_t state{};
        size_t used = mbrtowc(&c, p + at, left, &state);
        if (used == 0)
            used = 1;  // an embedded NUL is a character like any other here
        // A character, if the locale writes it with these very bytes and
        // UTF-8 can carry it (some decoders take sequences beyond Unicode).
        const uint32_t code = static_cast<uint32_t>(c);
        if (used <= left && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF) &&
            LocaleBytes(code, bytes) == used && std::memcmp(bytes, p + at, used) == 0) {
            AppendUtf8(out, code);
            at += used;
            continue;
        }
        uint32_t utf8 = 0;
        const size_t length = Utf8At(p + at, left, false, utf8);
        if (length > 1 && LocaleBytes(utf8, bytes) == 0) {
            out.append(p + at, length);
            at += length;
            continue;
        }
        AppendUtf8(out, kLowSurrogates | static_cast<unsigned char>(p[at]));
        ++at;
    }
    return out;
}

stringEx RegUtf8ToLocale(const stringEx& text, locale_t locale)
{
    const InLocale scope(locale);
    stringEx out;
    const char* p = text.data();
    char bytes[MB_LEN_MAX];
    for (uint64_t at = 0; at < text.size();) {
        uint32_t c = 0;
        const size_t length = Utf8At(p + at, text.size() - at, true, c);
        if (length == 0) {
            out += p[at++];  // not UTF-8: the byte as it stands
            continue;
        }
        if (c - kLowSurrogates <= 0xFF) {
            out += static_cast<char>(c - kLowSurrogates);  // an escaped byte
        } else if (const size_t made = (c >= 0xD800 && c <= 0xDFFF) ? 0 : LocaleBytes(c, bytes)) {
            out.append(bytes, made);
        } else {
            out.append(p + at, length);
        }
        at += length;
    }
    return out;
}

}  // namespace Karu::IMPL

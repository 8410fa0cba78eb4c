// Named classes, collating names and case variants for both builds.
#include "classes.h"

#include "karu/string/unicode.h"

#include <cctype>
#include <clocale>
#include <cstring>

namespace Karu::IMPL::rx {

namespace {

struct UnicodeClass {
    const char* name;
    const char16_t* singles;
    int singleCount;
    const char16_t* ranges;  // pairs
    int rangeCount;
};

#include "unicode_classes.inc"

// Collating names with their codes: ASCII from 0 upward, alternative names
// sharing the code of the row before.
struct CollatingName {
    const char* name;
    int code;
};
const CollatingName kCollatingNames[] = {
    {"NUL", 0x00}, {"SOH", 0x01}, {"STX", 0x02}, {"ETX", 0x03}, {"EOT", 0x04}, {"ENQ", 0x05},
    {"ACK", 0x06}, {"BEL", 0x07}, {"alert", 0x07}, {"BS", 0x08}, {"backspace", 0x08},
    {"HT", 0x09}, {"tab", 0x09}, {"LF", 0x0A}, {"newline", 0x0A}, {"VT", 0x0B},
    {"vertical-tab", 0x0B}, {"FF", 0x0C}, {"form-feed", 0x0C}, {"CR", 0x0D},
    {"carriage-return", 0x0D}, {"SO", 0x0E}, {"SI", 0x0F}, {"DLE", 0x10}, {"DC1", 0x11},
    {"DC2", 0x12}, {"DC3", 0x13}, {"DC4", 0x14}, {"NAK", 0x15}, {"SYN", 0x16}, {"ETB", 0x17},
    {"CAN", 0x18}, {"EM", 0x19}, {"SUB", 0x1A}, {"ESC", 0x1B}, {"IS4", 0x1C}, {"FS", 0x1C},
    {"IS3", 0x1D}, {"GS", 0x1D}, {"IS2", 0x1E}, {"RS", 0x1E}, {"IS1", 0x1F}, {"US", 0x1F},
    {"space", 0x20}, {"exclamation-mark", 0x21}, {"quotation-mark", 0x22},
    {"number-sign", 0x23}, {"dollar-sign", 0x24}, {"percent-sign", 0x25},
    {"ampersand", 0x26}, {"apostrophe", 0x27}, {"left-parenthesis", 0x28},
    {"right-parenthesis", 0x29}, {"asterisk", 0x2A}, {"plus-sign", 0x2B}, {"comma", 0x2C},
    {"hyphen", 0x2D}, {"hyphen-minus", 0x2D}, {"period", 0x2E}, {"full-stop", 0x2E},
    {"slash", 0x2F}, {"solidus", 0x2F}, {"zero", 0x30}, {"one", 0x31}, {"two", 0x32},
    {"three", 0x33}, {"four", 0x34}, {"five", 0x35}, {"six", 0x36}, {"seven", 0x37},
    {"eight", 0x38}, {"nine", 0x39}, {"colon", 0x3A}, {"semicolon", 0x3B},
    {"less-than-sign", 0x3C}, {"equals-sign", 0x3D}, {"greater-than-sign", 0x3E},
    {"question-mark", 0x3F}, {"commercial-at", 0x40}, {"left-square-bracket", 0x5B},
    {"backslash", 0x5C}, {"reverse-solidus", 0x5C}, {"right-square-bracket", 0x5D},
    {"circumflex", 0x5E}, {"circumflex-accent", 0x5E}, {"underscore", 0x5F},
    {"low-line", 0x5F}, {"grave-accent", 0x60}, {"left-brace", 0x7B},
    {"left-curly-bracket", 0x7B}, {"vertical-line", 0x7C}, {"right-brace", 0x7D},
    {"right-curly-bracket", 0x7D}, {"tilde", 0x7E}, {"DEL", 0x7F},
};

template <class Ch>
bool sameName(const Ch* name, size_t length, const char* ascii)
{
    if (std::strlen(ascii) != length) return false;
    for (size_t i = 0; i < length; ++i)
        if (name[i] != static_cast<Ch>(static_cast<unsigned char>(ascii[i]))) return false;
    return true;
}

// The narrow build's table: literal members for the "C" locale and the
// platform predicate used in any other locale.
struct NarrowClass {
    const char* name;
    const char* members;  // pairs of low/high bytes
    int (*predicate)(int);
};
const NarrowClass kNarrowClasses[] = {
    {"alnum", "AZaz09", isalnum},
    {"alpha", "AZaz", isalpha},
    {"blank", "  \t\t", nullptr},
    {"cntrl", "\x07\x0D\x01\x06\x0E\x1F\x7F\x7F", iscntrl},
    {"digit", "09", isdigit},
    {"graph", "AZaz09!/:@[`{~", isgraph},
    {"lower", "az", islower},
    {"print", "AZaz09!/:@[`{~  ", isprint},
    {"punct", "!/:@[`{~", ispunct},
    {"space", "\t\r  ", isspace},
    {"upper", "AZ", isupper},
    {"xdigit", "09AFaf", isxdigit},
};

bool cLocale()
{
    const char* name = std::setlocale(LC_CTYPE, nullptr);
    return name == nullptr || std::strcmp(name, "C") == 0;
}

template <class Ch>
const Ch* foldedName(const Ch* name, size_t& length, bool foldCase)
{
    static const Ch alpha[] = {'a', 'l', 'p', 'h', 'a'};
    if (foldCase && (sameName(name, length, "lower") || sameName(name, length, "upper"))) {
        length = 5;
        return alpha;
    }
    return name;
}

}  // namespace

template <class Ch>
int32_t collatingCode(const Ch* name, size_t length)
{
    if (length == 1) return CharTraits<Ch>::value(name[0]);
    for (const CollatingName& row : kCollatingNames)
        if (sameName(name, length, row.name)) return row.code;
    return -1;
}

template <>
bool namedClass<char>(const char* name, size_t length, bool foldCase, CharVector& out)
{
    name = foldedName(name, length, foldCase);
    for (const NarrowClass& row : kNarrowClasses) {
        if (!sameName(name, length, row.name)) continue;
        if (row.predicate && !cLocale()) {
            for (int c = 0; c < 256; ++c)
                if (row.predicate(c)) out.chars.push_back(static_cast<uint32_t>(c));
        } else {
            for (const char* p = row.members; *p; p += 2)
                out.ranges.emplace_back(static_cast<unsigned char>(p[0]), static_cast<unsigned char>(p[1]));
        }
        return true;
    }
    return false;
}

template <>
bool namedClass<wchar_t>(const wchar_t* name, size_t length, bool foldCase, CharVector& out)
{
    name = foldedName(name, length, foldCase);
    for (const UnicodeClass& row : kUnicodeClasses) {
        if (!sameName(name, length, row.name)) continue;
        for (int i = 0; i < row.singleCount; ++i) out.chars.push_back(row.singles[i]);
        for (int i = 0; i < row.rangeCount; ++i) out.ranges.emplace_back(row.ranges[2 * i], row.ranges[2 * i + 1]);
        return true;
    }
    return false;
}

template <>
int caseVariants<char>(int32_t c, int32_t out[3])
{
    const int u = c & 0xFF;
    int n = 0;
    const int lower = std::tolower(u);
    const int upper = std::toupper(u);
    if (lower != u) out[n++] = CharTraits<char>::fromNumber(static_cast<uint32_t>(lower));
    if (upper != u && upper != lower) out[n++] = CharTraits<char>::fromNumber(static_cast<uint32_t>(upper));
    return n;
}

template <>
int caseVariants<wchar_t>(int32_t c, int32_t out[3])
{
    wchar_t forms[4];
    const int count = CaseVariants(static_cast<wchar_t>(c), forms);
    int n = 0;
    for (int i = 0; i < count && n < 3; ++i)
        if (static_cast<int32_t>(forms[i]) != c) out[n++] = static_cast<int32_t>(forms[i]);
    return n;
}

template <>
bool equalFolded<char>(char a, char b)
{
    return a == b || std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}

template <>
bool equalFolded<wchar_t>(wchar_t a, wchar_t b)
{
    return a == b || ToLower(a) == ToLower(b);
}

template int32_t collatingCode<char>(const char*, size_t);
template int32_t collatingCode<wchar_t>(const wchar_t*, size_t);

}  // namespace Karu::IMPL::rx

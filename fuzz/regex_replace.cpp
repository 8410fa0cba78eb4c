// Fuzzes the pattern front end and both replace loops. The first byte picks
// the method (case, line mode); then come the pattern, the replacement and
// the text, separated by NUL bytes, each unit widened from a byte. Nothing may
// crash, and the two replace forms must agree on text and count for patterns
// whose matches cannot depend on what lies in front of them: no anchors, no
// escapes (which reach word and line assertions in the advanced syntax), no
// colon (which the word-edge brackets and the advanced prefix need). A third
// mode holds patterns that may replace in UTF-8 bytes to doing just that.
#include <karu/regex/rx.h>
#include <karu/string/regexReplace.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

using namespace Karu;

namespace {

// Patterns are kept short: the engine's work grows with the pattern, and the
// fuzzer's time is better spent on many small cases.
constexpr size_t kMaxPattern = 64;
constexpr size_t kMaxText = 512;

template <class T>
basic_string_ex<T> Units(const uint8_t* data, size_t n)
{
    basic_string_ex<T> s;
    for (size_t i = 0; i < n; ++i)
        s.push_back(static_cast<T>(data[i]));
    return s;
}

template <class T>
void Exercise(const uint8_t* p, size_t pn, const uint8_t* r, size_t rn, const uint8_t* t, size_t tn, uint8_t mode)
{
    basic_string_ex<T> pattern = Units<T>(p, pn);
    const RegexHandle handle = RegexCompile(pattern, mode & 1, (mode >> 1) & 1, 1, (mode >> 2) & 1);
    const basic_string_ex<T> text = Units<T>(t, tn), replacement = Units<T>(r, rn);
    basic_string_ex<T> copied, inPlace = text;
    const uint32_t n1 = RegexReplaceCopy(text, copied, handle, replacement, false, false, true);
    const uint32_t n2 = RegexReplaceInPlace(inPlace, handle, replacement, false, false, true);
    bool contextFree = true;
    for (const char c : {'^', '$', '\\', ':'})
        contextFree = contextFree && !std::memchr(p, c, pn);
    if (contextFree && (n1 != n2 || !(copied == inPlace)))
        std::abort();
    if (!handle && !(copied == text))
        std::abort();
}

// Units below U+0800 (all this target makes) in UTF-8.
stringEx Utf8(const wstringEx& text)
{
    stringEx out;
    for (const wchar_t unit : text) {
        const auto c = static_cast<uint32_t>(unit);
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back(static_cast<char>(0xC0 | (c >> 6)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return out;
}

// A pattern that both builds say finds in UTF-8 bytes what it finds in text
// (RX_MATCHES_ASCII) must do so: the replacement done on the text and then
// written in UTF-8 equals the replacement done on the text's UTF-8 bytes.
// Text and replacement units are read as U+0000 to U+00FF.
void ExerciseBytes(const uint8_t* p, size_t pn, const uint8_t* r, size_t rn, const uint8_t* t, size_t tn, uint8_t mode)
{
    for (size_t i = 0; i < pn; ++i)
        if (p[i] >= 0x80)
            return;
    wstringEx widePattern = Units<wchar_t>(p, pn);
    stringEx narrowPattern = Units<char>(p, pn);
    const RegexHandle wide = RegexCompile(widePattern, mode & 1, (mode >> 1) & 1, 1, (mode >> 2) & 1);
    const RegexHandle narrow = RegexCompile(narrowPattern, mode & 1, (mode >> 1) & 1, 1, (mode >> 2) & 1);
    if (!(wide.Info() & RX_MATCHES_ASCII) || !(narrow.Info() & RX_MATCHES_ASCII))
        return;
    const wstringEx text = Units<wchar_t>(t, tn), replacement = Units<wchar_t>(r, rn);
    wstringEx wideOut;
    stringEx byteOut;
    const uint32_t n1 = RegexReplaceCopy(text, wideOut, wide, replacement, false, false, true);
    const uint32_t n2 = RegexReplaceCopy(Utf8(text), byteOut, narrow, Utf8(replacement), false, false, true);
    if (n1 != n2 || !(Utf8(wideOut) == byteOut))
        std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 3)
        return 0;
    const uint8_t mode = data[0];
    const uint8_t* p = data + 1;
    const uint8_t* end = data + size;
    const uint8_t* pEnd = static_cast<const uint8_t*>(std::memchr(p, 0, end - p));
    if (!pEnd)
        return 0;
    const uint8_t* r = pEnd + 1;
    const uint8_t* rEnd = static_cast<const uint8_t*>(std::memchr(r, 0, end - r));
    if (!rEnd)
        return 0;
    const uint8_t* t = rEnd + 1;
    const size_t pn = pEnd - p, rn = rEnd - r, tn = end - t;
    if (pn > kMaxPattern || tn > kMaxText)
        return 0;
    if (mode & 16)
        ExerciseBytes(p, pn, r, rn, t, tn, mode);
    else if (mode & 8)
        Exercise<char>(p, pn, r, rn, t, tn, mode);
    else
        Exercise<wchar_t>(p, pn, r, rn, t, tn, mode);
    return 0;
}

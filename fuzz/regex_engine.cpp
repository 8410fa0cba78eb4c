// Compile and execute arbitrary patterns on arbitrary subjects, in both
// builds of the engine. Input: one byte of compile flags, one of execute
// flags, one of pattern length, then the pattern and the subject. The wide
// build sees the same units, with bytes above 0x7F spread over the basic
// plane so that wide classes and the two-level colour map are exercised.
#include "karu/regex/rx.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>

namespace {

constexpr size_t kMaxPattern = 256;
constexpr size_t kMaxSubject = 2048;
constexpr size_t kMaxSubjectBackref = 48;  // the back-reference walk backtracks

template <class Ch>
int run(const Karu::RxObject& object, const Ch* subject, size_t length, Karu::RxMatch (&matches)[12], int execFlags)
{
    Karu::RxDetails details{};
    for (auto& m : matches) m = {-2, -2};
    return Karu::rxexec(&object, subject, length, &details, 12, matches, execFlags);
}

// The object compiled as given is run after a call on another part of the
// subject (its caches then hold that call's sets) and must agree with one
// compiled to report details, which neither starts at a literal prefix nor
// has run before.
template <class Ch>
void exercise(const std::basic_string<Ch>& pattern, const std::basic_string<Ch>& subject, int flags, int execFlags)
{
    Karu::RxObject object{};
    if (Karu::rxcomp(&object, pattern.data(), pattern.size(), flags) != Karu::RX_OK) return;
    size_t length = subject.size();
    if ((object.info & Karu::RX_USES_BACKREF) && length > kMaxSubjectBackref) length = kMaxSubjectBackref;
    Karu::RxMatch matches[12];
    Karu::RxMatch reference[12];
    const size_t half = length / 2;
    run(object, subject.data() + half, length - half, matches, execFlags ^ Karu::RX_NOLINESTART);
    const int r = run(object, subject.data(), length, matches, execFlags);
    Karu::RxObject plain{};
    if (Karu::rxcomp(&plain, pattern.data(), pattern.size(), flags | Karu::RX_WANTDETAILS) == Karu::RX_OK) {
        const int pr = run(plain, subject.data(), length, reference, execFlags);
        const bool settled = (r == Karu::RX_OK || r == Karu::RX_NOMATCH) && (pr == Karu::RX_OK || pr == Karu::RX_NOMATCH);
        if (settled && (r != pr || (r == Karu::RX_OK && !std::equal(std::begin(matches), std::end(matches),
                                                                   std::begin(reference), [](auto& a, auto& b) {
                                                                       return a.start == b.start && a.end == b.end;
                                                                   }))))
            __builtin_trap();
        Karu::rxfree(&plain);
    }
    Karu::rxexec(&object, subject.data(), length, nullptr, 0, nullptr, execFlags | Karu::RX_SMALLCACHE);
    Karu::rxfree(&object);
}

std::wstring widen(const uint8_t* p, size_t n)
{
    std::wstring w;
    for (size_t i = 0; i < n; ++i) w.push_back(p[i] < 0x80 ? static_cast<wchar_t>(p[i]) : static_cast<wchar_t>(p[i] * 0x101));
    return w;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 3) return 0;
    int flags = data[0] | ((data[0] & 1) ? Karu::RX_SELFTEST : 0) | ((data[1] & 0x80) ? Karu::RX_WANTDETAILS : 0);
    if ((flags & Karu::RX_LITERAL) && (flags & 0xE3)) flags &= ~Karu::RX_LITERAL;
    if ((flags & Karu::RX_SYNTAX_ADVBIT) && !(flags & Karu::RX_SYNTAX_EXT)) flags |= Karu::RX_SYNTAX_EXT;
    const int execFlags = data[1] & (Karu::RX_NOLINESTART | Karu::RX_NOLINEEND | Karu::RX_SMALLCACHE);
    data += 3;
    size -= 3;
    size_t patternLength = data[-1];
    if (patternLength > size) patternLength = size;
    if (patternLength > kMaxPattern) patternLength = kMaxPattern;
    const size_t subjectLength = std::min(size - patternLength, kMaxSubject);
    const std::string pattern(reinterpret_cast<const char*>(data), patternLength);
    const std::string subject(reinterpret_cast<const char*>(data + patternLength), subjectLength);
    exercise(pattern, subject, flags, execFlags);
    exercise(widen(data, patternLength), widen(data + patternLength, subjectLength), flags, execFlags);
    return 0;
}

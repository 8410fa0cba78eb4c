// Compile time must grow no faster than the pattern. Input: one byte that
// picks the syntax and flags, then the pattern, in both builds of the engine
// (the wide build sees the same units). Any compile whose processor time
// exceeds a fixed allowance plus a cost per unit of pattern is a failure:
// an algorithm that is quadratic or worse in the pattern shows as soon as the
// fuzzer grows an input of a few thousand units of the shape that triggers
// it (a long alternation under a quantifier, a chain of optional pieces,
// constraints in repeated alternatives).
//
// The allowance covers what does not grow with the length: bounds multiply
// the automaton (a{255} nested twice is 65,025 states), but the engine's
// limits stop that growth at a fixed size, refused as out of memory.
#include "karu/regex/rx.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

namespace {

// Measured on the sanitizing build of the fuzzers, which runs compiles three
// to five times slower than a release build: the largest pattern the limits
// allow takes about a third of a second there.
constexpr double kAllowanceSeconds = 1.5;
constexpr double kSecondsPerUnit = 400e-6;
constexpr size_t kMaxPattern = 8192;

double cpuSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

template <class Ch>
void compile(const std::basic_string<Ch>& pattern, int flags)
{
    Karu::RxObject object{};
    const double start = cpuSeconds();
    const int r = Karu::rxcomp(&object, pattern.data(), pattern.size(), flags);
    const double spent = cpuSeconds() - start;
    if (r == Karu::RX_OK) Karu::rxfree(&object);
    const double bound = kAllowanceSeconds + kSecondsPerUnit * static_cast<double>(pattern.size());
    if (spent > bound) {
        std::fprintf(stderr, "compile of %zu units (%s build, flags %#x, result %d) took %.3f s, bound %.3f s\n",
                     pattern.size(), sizeof(Ch) == 1 ? "narrow" : "wide", flags, r, spent, bound);
        __builtin_trap();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) return 0;
    // Extended or advanced syntax, with or without case folding and line
    // mode: the flags that change what the compiler builds.
    static const int kFlags[] = {Karu::RX_SYNTAX_EXT, Karu::RX_SYNTAX_ADV,
                                 Karu::RX_SYNTAX_ADV | Karu::RX_DOTNONL | Karu::RX_LINEANCHORS,
                                 Karu::RX_SYNTAX_ADV | Karu::RX_FOLDCASE, Karu::RX_SYNTAX_BASIC};
    const int flags = kFlags[data[0] % (sizeof kFlags / sizeof kFlags[0])];
    const size_t length = size - 1 < kMaxPattern ? size - 1 : kMaxPattern;
    const std::string pattern(reinterpret_cast<const char*>(data + 1), length);
    compile(pattern, flags);
    std::wstring wide;
    for (const char c : pattern) wide.push_back(static_cast<wchar_t>(static_cast<unsigned char>(c)));
    compile(wide, flags);
    return 0;
}

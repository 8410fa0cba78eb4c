// What compiling a pattern costs, and how the cost grows with the pattern.
//
// For each family of patterns the program compiles a member of length n and
// one of length 4n, in both builds, and prints the times, their ratio and
// what each stage of compiling took (parsing, copying the tree's parts, the
// optimiser's passes, the matcher's arrays). Compile time that grows as
// n log n gives a ratio a little above 4; 16 would mean quadratic. Then it
// times the single patterns that once took seconds or were refused.
//
// It is a guard, not a test: it prints "SLOW" beside any compile over its
// target (0.1 s for a pattern of up to 10,000 characters, 0.5 s for an
// alternation of 10,000 words) and any ratio beyond n log n, and exits with
// status 1 if there was one. Times are the thread's processor time, best of
// a few runs, which a busy machine disturbs far less than wall time:
//     build/bench/bench_regex_compile [--quick]
#include "regex/nfa.h"

#include "karu/regex/rx.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

using namespace Karu;
using Karu::IMPL::rx::PassTimes;

namespace {

// A compile of this size (in characters) must finish within the first time
// below, an alternation of the second size within the second.
constexpr size_t kPatternChars = 10000;
constexpr double kPatternSeconds = 0.1;
constexpr size_t kAlternationWords = 10000;
constexpr double kAlternationSeconds = 0.5;
// Allowance over n log n for timing noise on a shared machine.
constexpr double kGrowthSlack = 1.6;

bool slow = false;

// The thread's processor time: the machine is shared, and wall time would
// measure the other processes too.
double cpuSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

struct Timed {
    int code = 0;
    double seconds = 0;
    PassTimes passes;
};

template <class Ch>
Timed compileOnce(const std::basic_string<Ch>& pattern, int flags)
{
    Timed t;
    IMPL::rx::passTimes = &t.passes;
    RxObject o{};
    const double start = cpuSeconds();
    t.code = rxcomp(&o, pattern.data(), pattern.size(), flags);
    t.seconds = cpuSeconds() - start;
    IMPL::rx::passTimes = nullptr;
    if (t.code == RX_OK) rxfree(&o);
    return t;
}

// The fastest of a few runs, with its pass times: the least disturbed.
template <class Ch>
Timed compile(const std::string& narrow, int flags)
{
    const std::basic_string<Ch> pattern(narrow.begin(), narrow.end());
    Timed best = compileOnce(pattern, flags);
    const int runs = best.seconds < 0.01 ? 5 : 2;
    for (int i = 1; i < runs; ++i) {
        Timed t = compileOnce(pattern, flags);
        if (t.seconds < best.seconds) best = t;
    }
    return best;
}

std::string passLine(const PassTimes& p)
{
    static const char* const kNames[] = {"parse",   "copy",        "cleanup", "fold",
                                         "loops",   "empties",     "constraints", "compact"};
    static_assert(sizeof kNames / sizeof kNames[0] == IMPL::rx::kPassCount);
    std::string s;
    char buf[64];
    for (int i = 0; i < IMPL::rx::kPassCount; ++i) {
        std::snprintf(buf, sizeof buf, " %s %.1f", kNames[i], p.seconds[i] * 1e3);
        s += buf;
    }
    std::snprintf(buf, sizeof buf, " ms; %ld automata", p.automata);
    return s + buf;
}

struct Family {
    const char* name;
    int flags;
    std::function<std::string(size_t)> make;  // a member of about n units
};

std::string repeat(const std::string& piece, size_t n)
{
    std::string s;
    while (s.size() + piece.size() <= n) s += piece;
    return s;
}

std::string words(size_t count, const char* open, const char* close)
{
    std::string s = open;
    for (size_t i = 0; i < count; ++i) {
        if (i) s += '|';
        s += 'w' + std::to_string(i);
    }
    return s + close;
}

// Words of a count of units: about 5.9 units a word up to 10,000 words.
size_t wordsFor(size_t units)
{
    return std::max<size_t>(1, units / 6);
}

void family(const Family& f, size_t n, bool wide)
{
    const std::string small = f.make(n), large = f.make(4 * n);
    const Timed a = wide ? compile<wchar_t>(small, f.flags) : compile<char>(small, f.flags);
    const Timed b = wide ? compile<wchar_t>(large, f.flags) : compile<char>(large, f.flags);
    const double ratio = b.seconds / std::max(a.seconds, 1e-7);
    // n log n from the members' real lengths (a word list grows faster than
    // its count: w1000 is longer than w100).
    const double ns = std::max(2.0, static_cast<double>(small.size()));
    const double nl = std::max(2.0, static_cast<double>(large.size()));
    const double nlogn = nl * std::log2(nl) / (ns * std::log2(ns));
    // Below a millisecond the clock and the allocator decide the ratio.
    const bool tooSteep = b.seconds > 1e-3 && ratio > nlogn * kGrowthSlack;
    const bool tooSlow = large.size() <= kPatternChars && b.seconds > kPatternSeconds;
    std::printf("%-26s %s %6zu: %8.2f ms  %6zu: %8.2f ms  x%5.1f (n log n x%4.1f)%s%s\n", f.name,
                wide ? "wide  " : "narrow", small.size(), a.seconds * 1e3, large.size(), b.seconds * 1e3, ratio,
                nlogn, a.code || b.code ? " REFUSED" : "", tooSteep || tooSlow ? "  SLOW" : "");
    std::printf("%36s%s\n", "", passLine(b.passes).c_str());
    slow = slow || tooSteep || tooSlow || a.code || b.code;
}

void single(const char* name, const std::string& pattern, int flags, double target, int expect = RX_OK)
{
    for (const bool wide : {false, true}) {
        const Timed t = wide ? compile<wchar_t>(pattern, flags) : compile<char>(pattern, flags);
        const bool bad = t.seconds > target || t.code != expect;
        std::printf("%-26s %s %6zu: %8.2f ms  result %d%s\n", name, wide ? "wide  " : "narrow", pattern.size(),
                    t.seconds * 1e3, t.code, bad ? "  SLOW" : "");
        std::printf("%36s%s\n", "", passLine(t.passes).c_str());
        slow = slow || bad;
    }
}

}  // namespace

int main(int argc, char** argv)
{
    const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
    const size_t n = quick ? 600 : kPatternChars / 4;
    const int E = RX_SYNTAX_EXT, A = RX_SYNTAX_ADV;
    const Family families[] = {
        {"literal", E, [](size_t k) { return repeat("abcdefghij", k); }},
        {"words", E, [](size_t k) { return words(wordsFor(k), "", ""); }},
        {"(words)+", E, [](size_t k) { return words(wordsFor(k), "(", ")+"); }},
        {"(?:words)*", A, [](size_t k) { return words(wordsFor(k), "(?:", ")*"); }},
        {"a?a?a?...", E, [](size_t k) { return repeat("a?", k); }},
        {"[a-z]*[0-9]*...", E, [](size_t k) { return repeat("[a-z]*[0-9]*", k); }},
        {"(a)(b)(c)...", E, [](size_t k) { return repeat("(a)(b)(c)", k); }},
        {"((((a))))...", E, [](size_t k) { return std::string(k / 3, '(') + "a" + std::string(k / 3, ')'); }},
        {"(a|b)*c(d|e)*...", E, [](size_t k) { return repeat("(a|b)*c(d|e)*", k); }},
        {"(x{2,5}y)*...", E, [](size_t k) { return repeat("(x{2,5}y)*", k); }},
        {"\\y\\w+\\y...", A, [](size_t k) { return repeat("\\y\\w+\\y ", k); }},
        {"(.)\\1(.)\\2...", A, [](size_t k) { return repeat("(.)\\1", k); }},
    };
    std::printf("Compile time by pattern length, best of a few runs; a stage's cost follows each line.\n");
    for (const Family& f : families)
        for (const bool wide : {false, true}) family(f, n, wide);

    std::printf("\nPatterns that once took seconds or were refused:\n");
    single("(a?){255}", "(a?){255}", E, kPatternSeconds);
    single("(([a-c]*)*){100}", "(([a-c]*)*){100}", E, kPatternSeconds);
    single("(w0|...|w799)+", words(800, "(", ")+"), E, kPatternSeconds);
    single("(a{255}){255}", "(a{255}){255}", E, kPatternSeconds);
    single("((a{255}){255}){255}", "((a{255}){255}){255}", E, kPatternSeconds, RX_ERR_MEMORY);
    single("($)*^a", "($)*^a", A, kPatternSeconds);
    single("(^$)*", "(^$)*", A, kPatternSeconds);
    single("(^|$)*a", "(^|$)*a", A, kPatternSeconds);
    single("10,000 words", words(kAlternationWords, "", ""), E, kAlternationSeconds);
    single("(10,000 words)+", words(kAlternationWords, "(", ")+"), E, kAlternationSeconds);
    std::printf("\n%s\n", slow ? "SLOW: some compile missed its target (see above)" : "all compiles within target");
    return slow ? 1 : 0;
}

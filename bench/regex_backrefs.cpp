// What a back-reference costs as the subject grows. Each pattern runs once
// on a subject of n units and once on 4n, in both builds; the search with
// back-references may backtrack, but splitting a match among its parts must
// stay within quadratic cost: a ratio near 16 is quadratic, 64 cubic. The
// program prints "SLOW" beside a ratio beyond quadratic and exits with
// status 1 if there was one. Times are the thread's processor time:
//     build/bench/bench_regex_backrefs [--quick]
#include "karu/regex/rx.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>
#include <string>

using namespace Karu;

namespace {

// Allowance over 16 for timing noise on a shared machine.
constexpr double kQuadraticSlack = 1.6;

double cpuSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

struct Subject {
    const char* name;
    std::string (*make)(size_t n);
};

std::string randomAb(size_t n)
{
    std::mt19937 rng(1);
    std::string s;
    for (size_t i = 0; i < n; ++i) s += "ab"[rng() % 2];
    return s;
}

std::string sameLetter(size_t n)
{
    return std::string(n, 'a');
}

std::string squareWithTail(size_t n)
{
    std::string half = randomAb(n / 2);
    return half + half + "x";
}

template <class Ch>
double run(const char* pattern, const std::string& narrow, std::string& found)
{
    const std::basic_string<Ch> p(pattern, pattern + std::strlen(pattern));
    const std::basic_string<Ch> s(narrow.begin(), narrow.end());
    RxObject o{};
    if (rxcomp(&o, p.data(), p.size(), RX_SYNTAX_ADV) != RX_OK) return -1;
    RxMatch m[4];
    const double start = cpuSeconds();
    const int r = rxexec(&o, s.data(), s.size(), nullptr, 2, m, 0);
    const double spent = cpuSeconds() - start;
    found = r == RX_OK ? std::to_string(m[0].start) + "-" + std::to_string(m[0].end) : "none";
    rxfree(&o);
    return spent;
}

}  // namespace

int main(int argc, char** argv)
{
    const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
    const size_t n = quick ? 1000 : 4000;
    const struct {
        const char* pattern;
        Subject subject;
    } cases[] = {
        {"(.*)\\1", {"random a and b", randomAb}},
        {"(.*)\\1", {"one letter", sameLetter}},
        {"(.*)\\1x", {"a square, then x", squareWithTail}},
        {"(.*?)\\1x", {"a square, then x", squareWithTail}},
    };
    bool slow = false;
    std::printf("%-10s %-18s %-6s %10s %10s %7s  match at 4n\n", "pattern", "subject", "build", "n", "4n", "ratio");
    for (const auto& c : cases)
        for (const bool wide : {false, true}) {
            std::string found;
            const std::string small = c.subject.make(n), large = c.subject.make(4 * n);
            const double a = wide ? run<wchar_t>(c.pattern, small, found) : run<char>(c.pattern, small, found);
            const double b = wide ? run<wchar_t>(c.pattern, large, found) : run<char>(c.pattern, large, found);
            const double ratio = b / (a > 1e-6 ? a : 1e-6);
            const bool tooSteep = b > 1e-3 && ratio > 16 * kQuadraticSlack;
            slow = slow || tooSteep;
            std::printf("%-10s %-18s %-6s %8.4f s %8.4f s %6.1fx  %s%s\n", c.pattern, c.subject.name,
                        wide ? "wide" : "narrow", a, b, ratio, found.c_str(), tooSteep ? "  SLOW" : "");
        }
    std::printf("n = %zu units; ratio = time at 4n / time at n (16 is quadratic)\n", n);
    return slow ? 1 : 0;
}

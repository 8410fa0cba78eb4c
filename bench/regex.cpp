// The regular-expression engine's speed. Two parts in one run:
//  - a comparison with the C library's regexec on a generated 50 MB text, for
//    a literal, a class loop with a suffix, a two-group address pattern, an
//    alternation of 20 words and a back-reference: every match is found in
//    turn, and the program prints each engine's time and the ratio; when the
//    build found them, two other engines run the same loop as yardsticks
//    (one automaton-based that has no back-references, one backtracking);
//  - Google Benchmark runs of a full scan over 1 MB and 8 MB subjects, whose
//    bytes per second must stay within a small factor of each other (matching
//    cost is linear in the subject).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <regex.h>
#include <string>
#include <time.h>

#include "karu/regex/rx.h"

#ifdef KARU_BENCH_HAVE_RE2
#include <re2/re2.h>
#endif
#ifdef KARU_BENCH_HAVE_PCRE2
#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>
#endif

using namespace Karu;

namespace {

constexpr size_t kCompareBytes = 50u << 20;

// Settable from the command line for quick profiling runs.
size_t compareBytes = kCompareBytes;
int repeats = 3;
const char* compareOnly = nullptr;  // a case name, or all

std::string makeText(size_t bytes, bool withHits)
{
    static const char* const kWords[] = {"the", "quick", "brown", "fox", "jumps", "over", "lazy", "dog", "text",
                                         "running", "replace", "pattern", "file", "line", "sitting", "moon", "a",
                                         "letter", "bookkeeper", "coffee", "encoding", "strings", "of"};
    std::mt19937 rng(7);
    std::string text;
    text.reserve(bytes + 64);
    while (text.size() < bytes) {
        const unsigned r = rng() % 1000;
        if (withHits && r < 3) {
            text += "mail";
            text += std::to_string(rng() % 1000);
            text += "@host";
            text += std::to_string(rng() % 100);
            text += ".com";
        } else {
            const char* w = kWords[rng() % (sizeof kWords / sizeof kWords[0])];
            if (!withHits && std::strstr(w, "ing")) w = "sat";
            text += w;
        }
        text += (rng() % 12 == 0) ? "\n" : " ";
    }
    text.resize(bytes);
    return text;
}

struct Case {
    const char* name;
    const char* ours;    // with our flags below
    int ourFlags;
    const char* theirs;  // the C library's extended syntax
};

const Case kCases[] = {
    {"literal", "bookkeeper", RX_SYNTAX_EXT, "bookkeeper"},
    {"[a-z]+ing", "[a-z]+ing", RX_SYNTAX_EXT, "[a-z]+ing"},
    {"(\\w+)@(\\w+)\\.com", "(\\w+)@(\\w+)\\.com", RX_SYNTAX_ADV, "([[:alnum:]_]+)@([[:alnum:]_]+)\\.com"},
    {"20 words",
     "alpha|bravo|charlie|delta|echo|foxtrot|golf|hotel|india|juliet|kilo|lima|mike|november|oscar|papa|quebec|"
     "romeo|sierra|moon",
     RX_SYNTAX_EXT,
     "alpha|bravo|charlie|delta|echo|foxtrot|golf|hotel|india|juliet|kilo|lima|mike|november|oscar|papa|quebec|"
     "romeo|sierra|moon"},
    {"back-reference", "([a-z])\\1", RX_SYNTAX_ADV, "([a-z])\\1"},
};

// Processor time of this process: on a machine shared with other work the
// wall clock counts their time too, and every engine here runs on this one
// thread, so its own time is what each engine costs.
double processSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// The best of `repeats` runs of `run`, which returns the match count.
template <class Run>
double bestTime(Run&& run, long& count)
{
    double best = 1e300;
    for (int i = 0; i < repeats; ++i) {
        const double t0 = processSeconds();
        count = run();
        best = std::min(best, processSeconds() - t0);
    }
    return best;
}

// Every match in turn, as a replace loop walks them; returns the count.
long ourCount(const RxObject& o, const std::string& text, size_t groups)
{
    long count = 0;
    size_t pos = 0;
    RxMatch m[3];
    while (pos < text.size()) {
        const int flags = pos ? RX_NOLINESTART : 0;
        if (rxexec(&o, text.data() + pos, text.size() - pos, nullptr, groups, m, flags) != RX_OK) break;
        ++count;
        pos += static_cast<size_t>(m[0].end > 0 ? m[0].end : 1);
    }
    return count;
}

long theirCount(const regex_t& re, const std::string& text, size_t groups)
{
    long count = 0;
    size_t pos = 0;
    regmatch_t m[3];
    while (pos < text.size()) {
        m[0].rm_so = 0;
        m[0].rm_eo = static_cast<regoff_t>(text.size() - pos);
        const int flags = REG_STARTEND | (pos ? REG_NOTBOL : 0);
        if (regexec(&re, text.data() + pos, groups, m, flags) != 0) break;
        ++count;
        pos += static_cast<size_t>(m[0].rm_eo > 0 ? m[0].rm_eo : 1);
    }
    return count;
}

#ifdef KARU_BENCH_HAVE_RE2
// The same loop through the automaton engine; -1 when it refuses the pattern.
long automatonCount(const char* pattern, const std::string& text, size_t groups)
{
    const re2::RE2 re(pattern, re2::RE2::Quiet);
    if (!re.ok()) return -1;
    long count = 0;
    size_t pos = 0;
    re2::StringPiece m[3];
    const re2::StringPiece subject(text);
    while (pos < text.size()) {
        if (!re.Match(subject, pos, text.size(), re2::RE2::UNANCHORED, m, static_cast<int>(groups))) break;
        ++count;
        const size_t end = static_cast<size_t>(m[0].data() - text.data()) + m[0].size();
        pos = end > pos ? end : pos + 1;
    }
    return count;
}
#endif

#ifdef KARU_BENCH_HAVE_PCRE2
// The same loop through the backtracking engine, compiled to machine code.
long backtrackingCount(const char* pattern, const std::string& text)
{
    int error = 0;
    PCRE2_SIZE offset = 0;
    pcre2_code* re = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern), PCRE2_ZERO_TERMINATED, 0, &error, &offset,
                                   nullptr);
    if (!re) return -1;
    pcre2_jit_compile(re, PCRE2_JIT_COMPLETE);
    pcre2_match_data* md = pcre2_match_data_create_from_pattern(re, nullptr);
    long count = 0;
    size_t pos = 0;
    while (pos < text.size()) {
        const int flags = pos ? PCRE2_NOTBOL : 0;
        if (pcre2_match(re, reinterpret_cast<PCRE2_SPTR>(text.data()) + pos, text.size() - pos, 0,
                        static_cast<uint32_t>(flags), md, nullptr) < 0)
            break;
        ++count;
        const PCRE2_SIZE end = pcre2_get_ovector_pointer(md)[1];
        pos += end > 0 ? end : 1;
    }
    pcre2_match_data_free(md);
    pcre2_code_free(re);
    return count;
}
#endif

// Prints one yardstick's time and our ratio to it, or why there is none.
void printYardstick(const char* name, long matches, long ours, double ourTime, double time)
{
    if (matches < 0)
        std::printf("   %s: refuses the pattern", name);
    else
        std::printf("   %s %.3f s, ours/%s %.2fx%s", name, time, name, ourTime / time,
                    matches == ours ? "" : " (counts differ)");
}

void compareWithCLibrary()
{
    const std::string text = makeText(compareBytes, true);
    const double mb = static_cast<double>(text.size()) / (1 << 20);
    std::printf("%-22s %10s %10s %10s %8s %10s %10s\n", "pattern", "matches", "ours s", "libc s", "ratio", "ours MB/s",
                "libc MB/s");
    for (const Case& c : kCases) {
        if (compareOnly && std::strcmp(compareOnly, c.name) != 0) continue;
        RxObject o{};
        if (rxcomp(&o, c.ours, std::strlen(c.ours), c.ourFlags) != RX_OK) {
            std::printf("%-22s does not compile\n", c.name);
            continue;
        }
        regex_t re;
        if (regcomp(&re, c.theirs, REG_EXTENDED) != 0) {
            rxfree(&o);
            continue;
        }
        const size_t groups = o.groupCount + 1;
        long ours = 0, theirs = 0;
        const double ourTime = bestTime([&] { return ourCount(o, text, groups); }, ours);
        const double theirTime = bestTime([&] { return theirCount(re, text, groups); }, theirs);
        std::printf("%-22s %10ld %10.3f %10.3f %7.2fx %10.0f %10.0f%s", c.name, ours, ourTime, theirTime,
                    ourTime / theirTime, mb / ourTime, mb / theirTime, ours == theirs ? "" : "  (counts differ)");
#ifdef KARU_BENCH_HAVE_RE2
        long automaton = 0;
        const double automatonTime = bestTime([&] { return automatonCount(c.ours, text, groups); }, automaton);
        printYardstick("re2", automaton, ours, ourTime, automatonTime);
#endif
#ifdef KARU_BENCH_HAVE_PCRE2
        long backtracking = 0;
        const double backtrackingTime = bestTime([&] { return backtrackingCount(c.ours, text); }, backtracking);
        printYardstick("pcre2", backtracking, ours, ourTime, backtrackingTime);
#endif
        std::printf("\n");
        regfree(&re);
        rxfree(&o);
    }
    std::printf("%.0f MB of text; processor time, best of %d; ratio = our time / C library time (below 1 is faster)\n\n",
                mb, repeats);
}

// A scan over a subject with no match: the whole text passes the automaton.
void BM_FullScan(benchmark::State& state)
{
    const std::string text = makeText(static_cast<size_t>(state.range(0)) << 20, false);
    RxObject o{};
    rxcomp(&o, "[a-z]+ing", 9, RX_SYNTAX_EXT);
    for (auto _ : state) {
        benchmark::DoNotOptimize(rxexec(&o, text.data(), text.size(), nullptr, 0, nullptr, 0));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
    rxfree(&o);
}
BENCHMARK(BM_FullScan)->Arg(1)->Arg(8)->Unit(benchmark::kMillisecond);

void BM_FullScanWide(benchmark::State& state)
{
    const std::string narrow = makeText(static_cast<size_t>(state.range(0)) << 20, false);
    const std::wstring text(narrow.begin(), narrow.end());
    RxObject o{};
    rxcomp(&o, L"[a-z]+ing", 9, RX_SYNTAX_EXT);
    for (auto _ : state) {
        benchmark::DoNotOptimize(rxexec(&o, text.data(), text.size(), nullptr, 0, nullptr, 0));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
    rxfree(&o);
}
BENCHMARK(BM_FullScanWide)->Arg(1)->Arg(8)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv)
{
    // --compare-mb=N shrinks the text, --compare-only=NAME runs one case,
    // --repeat=N times each engine's loop N times (the best counts); all are
    // taken out before Google Benchmark sees the arguments.
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--compare-mb=", 13) == 0) {
            compareBytes = std::strtoul(argv[i] + 13, nullptr, 10) << 20;
        } else if (std::strncmp(argv[i], "--repeat=", 9) == 0) {
            repeats = std::max(1, std::atoi(argv[i] + 9));
        } else if (std::strncmp(argv[i], "--compare-only=", 15) == 0) {
            compareOnly = argv[i] + 15;
        } else {
            argv[kept++] = argv[i];
        }
    }
    argc = kept;
    compareWithCLibrary();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

// Shared-buffer strings against the standard library on 1 MB texts: copy,
// append and find, narrow and wide. The copy of a shared buffer is one
// atomic increment, so its time must not grow with the text; find must stay
// within 1.2x of the standard library's. After the runs the program prints
// each pair's ratio (ours / standard).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <random>
#include <string>

#include <karu/string/stringEx.h>

using namespace Karu;

namespace {

constexpr size_t kTextBytes = 1 << 20;

// English-like text: words from a small vocabulary, so that the first unit of
// a needle recurs often, as it does in real text.
template <class Char>
std::basic_string<Char> MakeText(size_t units)
{
    static const char* const kWords[] = {"the", "quick", "brown", "fox", "jumps", "over", "lazy", "dog",
                                         "text", "encoding", "replace", "pattern", "file", "line"};
    std::mt19937 rng(42);
    std::basic_string<Char> text;
    while (text.size() < units) {
        for (const char* w = kWords[rng() % 14]; *w; ++w)
            text.push_back(static_cast<Char>(*w));
        text.push_back(static_cast<Char>(rng() % 12 == 0 ? '\n' : ' '));
    }
    text.resize(units);
    return text;
}

template <class Char>
basic_string_ex<Char> Ours(const std::basic_string<Char>& s)
{
    return basic_string_ex<Char>(s.data(), s.size());
}

template <class Char>
std::basic_string<Char> Needle()
{
    const char* n = "replace patterns";  // absent: the scan covers the whole text
    return std::basic_string<Char>(n, n + 16);
}

template <class Char>
void StdCopy(benchmark::State& state)
{
    const auto text = MakeText<Char>(state.range(0));
    for (auto _ : state) {
        std::basic_string<Char> copy = text;
        benchmark::DoNotOptimize(copy.data());
    }
}

template <class Char>
void OurCopy(benchmark::State& state)
{
    const auto text = Ours(MakeText<Char>(state.range(0)));
    for (auto _ : state) {
        basic_string_ex<Char> copy = text;
        benchmark::DoNotOptimize(copy.data());
    }
}

template <class Char>
void StdAppend(benchmark::State& state)
{
    const auto chunk = MakeText<Char>(64);
    for (auto _ : state) {
        std::basic_string<Char> s;
        for (size_t i = 0; i < kTextBytes / sizeof(Char) / 64; ++i)
            s.append(chunk);
        benchmark::DoNotOptimize(s.data());
    }
}

template <class Char>
void OurAppend(benchmark::State& state)
{
    const auto chunk = Ours(MakeText<Char>(64));
    for (auto _ : state) {
        basic_string_ex<Char> s;
        for (size_t i = 0; i < kTextBytes / sizeof(Char) / 64; ++i)
            s.append(chunk);
        benchmark::DoNotOptimize(s.data());
    }
}

template <class Char>
void StdFind(benchmark::State& state)
{
    const auto text = MakeText<Char>(kTextBytes / sizeof(Char));
    const auto needle = Needle<Char>();
    for (auto _ : state)
        benchmark::DoNotOptimize(text.find(needle));
}

template <class Char>
void OurFind(benchmark::State& state)
{
    const auto text = Ours(MakeText<Char>(kTextBytes / sizeof(Char)));
    const auto needle = Ours(Needle<Char>());
    for (auto _ : state)
        benchmark::DoNotOptimize(text.Find(needle));
}

BENCHMARK(StdCopy<char>)->Arg(1 << 10)->Arg(kTextBytes);
BENCHMARK(OurCopy<char>)->Arg(1 << 10)->Arg(kTextBytes);
BENCHMARK(StdCopy<wchar_t>)->Arg(kTextBytes / 4);
BENCHMARK(OurCopy<wchar_t>)->Arg(kTextBytes / 4);
BENCHMARK(StdAppend<char>);
BENCHMARK(OurAppend<char>);
BENCHMARK(StdAppend<wchar_t>);
BENCHMARK(OurAppend<wchar_t>);
BENCHMARK(StdFind<char>);
BENCHMARK(OurFind<char>);
BENCHMARK(StdFind<wchar_t>);
BENCHMARK(OurFind<wchar_t>);

// Collects the per-iteration times so that main can print ours/std ratios.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs)
            if (run.run_type == Run::RT_Iteration || run.aggregate_name == "median")
                times[run.benchmark_name()] = run.GetAdjustedRealTime();
    }
    std::map<std::string, double> times;
};

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\nratio ours/std (lower is better; copy of ours is O(1))\n");
    for (const auto& [name, ours] : reporter.times) {
        if (name.rfind("Our", 0) != 0)
            continue;
        const std::string peer = "Std" + name.substr(3);
        const auto it = reporter.times.find(peer);
        if (it != reporter.times.end())
            std::printf("  %-36s %8.3f\n", name.c_str(), ours / it->second);
    }
    return 0;
}

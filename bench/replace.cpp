// Literal replace over a whole wide text, the copying form against the
// in-place form, at a growing number of matches. The copying form must stay
// linear in the text (its time per unit flat as matches grow); the in-place
// form moves the tail at each match and falls behind as matches multiply.
// The case-blind copy shows the cost of folding at every position.
#include <benchmark/benchmark.h>

#include <random>
#include <string>

#include <karu/string/replace.h>

using namespace Karu;

namespace {

// A text of `units` letters holding a match of "needle" every `spacing` units.
wstringEx MakeText(size_t units, size_t spacing)
{
    std::mt19937 rng(7);
    std::wstring text(units, L' ');
    for (wchar_t& c : text)
        c = static_cast<wchar_t>(L'a' + rng() % 20);  // no 'n' to 'z': no stray match
    for (size_t at = 0; at + 6 <= units; at += spacing)
        text.replace(at, 6, L"needle");
    return wstringEx(text.c_str());
}

void Copy(benchmark::State& state)
{
    const wstringEx text = MakeText(1 << 18, static_cast<size_t>(state.range(0)));
    const wstringEx find(L"needle"), replace(L"longer thread");
    wstringEx dest;
    for (auto _ : state)
        benchmark::DoNotOptimize(ReplaceCopy(text, dest, find, replace));
    state.SetItemsProcessed(state.iterations() * text.size());
}

void CopyNoCase(benchmark::State& state)
{
    const wstringEx text = MakeText(1 << 18, static_cast<size_t>(state.range(0)));
    const wstringEx find(L"NEEDLE"), replace(L"longer thread");
    wstringEx dest;
    for (auto _ : state)
        benchmark::DoNotOptimize(ReplaceCopyNoCase(text, dest, find, replace));
    state.SetItemsProcessed(state.iterations() * text.size());
}

void InPlace(benchmark::State& state)
{
    const wstringEx text = MakeText(1 << 18, static_cast<size_t>(state.range(0)));
    const wstringEx find(L"needle"), replace(L"longer thread");
    for (auto _ : state) {
        state.PauseTiming();
        wstringEx work(text.data(), text.size());
        state.ResumeTiming();
        benchmark::DoNotOptimize(ReplaceInPlace(work, find, replace));
    }
    state.SetItemsProcessed(state.iterations() * text.size());
}

}  // namespace

BENCHMARK(Copy)->Arg(4096)->Arg(256)->Arg(16);
BENCHMARK(CopyNoCase)->Arg(4096)->Arg(256)->Arg(16);
BENCHMARK(InPlace)->Arg(4096)->Arg(256)->Arg(16);

BENCHMARK_MAIN();

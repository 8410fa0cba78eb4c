// The configuration store as its size grows: enumerating every subkey and
// value of a key in turn, and saving and opening a tree, each at n and 4n.
// All of these must grow linearly; the program reports the fitted growth,
// and the time per key of the two sizes must stay about the same.
// Enumeration runs at 16n too. A step of the walk costs what the memory it
// touches costs: the names of the largest size no longer fit the
// processor's caches, so that the time per name rises to about one trip
// to memory there, and then stays.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdlib>
#include <string>

#include <karu/registry/fakeRegistry.h>

using namespace Karu;

namespace {

CFakeRegistry Wide(int64_t keys)
{
    CFakeRegistry root;
    for (int64_t i = 0; i < keys; ++i) {
        const stringEx name = stringEx::Format("key %08lld", static_cast<long long>(i));
        root.ObtainChild(name, true).SetValue("value", uint32_t(i));
        root.SetValue(name, uint64_t(i));
    }
    return root;
}

void BM_EnumerateInTurn(benchmark::State& state)
{
    const CFakeRegistry root = Wide(state.range(0));
    for (auto _ : state) {
        uint64_t length = 0;
        for (uint64_t i = 0; i < root.GetSubkeyCount(); ++i)
            length += root.EnumSubkey(i).size();
        for (uint64_t i = 0; i < root.GetValueCount(); ++i)
            length += root.EnumValue(i).size();
        benchmark::DoNotOptimize(length);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_EnumerateInTurn)->Arg(20000)->Arg(80000)->Arg(320000)->Unit(benchmark::kMillisecond)->Complexity(benchmark::oN);

void BM_SaveAndOpen(benchmark::State& state)
{
    const CFakeRegistry root = Wide(state.range(0));
    char pattern[] = "/tmp/karu-bench-XXXXXX";
    const std::string dir = mkdtemp(pattern);
    const stringEx path((dir + "/store.reg").c_str());
    for (auto _ : state) {
        CFakeRegistry(root).Save(path);
        CFakeRegistry loaded;
        loaded.Open(path);
        benchmark::DoNotOptimize(loaded.GetSubkeyCount());
    }
    state.SetComplexityN(state.range(0));
    std::system(("rm -rf '" + dir + "'").c_str());
}
BENCHMARK(BM_SaveAndOpen)->Arg(20000)->Arg(80000)->Unit(benchmark::kMillisecond)->Complexity(benchmark::oN);

}  // namespace

BENCHMARK_MAIN();

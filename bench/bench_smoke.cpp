#include "common/DetectorFrames.h"

#include <benchmark/benchmark.h>

#include <cstring>

// The limit every decoder and converter is measured against: copying the plain frame.
static void BM_MemcpyFrame(benchmark::State& state)
{
    const auto layout = state.range(0) ? norvexa_bench::layout16M() : norvexa_bench::layout6M();
    const auto frame = norvexa_bench::detectorFrame<std::uint32_t>(layout);
    std::vector<std::uint32_t> out(frame.size());
    for (auto _ : state) {
        std::memcpy(out.data(), frame.data(), frame.size() * 4);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * frame.size() * 4);
}
BENCHMARK(BM_MemcpyFrame)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();

#include "common/DetectorFrames.h"

#include "DMd5.h"

#include <benchmark/benchmark.h>

#include <cstring>

namespace {

std::vector<std::uint32_t> frameFor(const benchmark::State& state)
{
    const auto layout = state.range(0) ? norvexa_bench::layout16M() : norvexa_bench::layout6M();
    return norvexa_bench::detectorFrame<std::uint32_t>(layout);
}

// The digest of a CBF binary block: one whole 32-bit frame in a single hash() call.
void BM_Md5Frame(benchmark::State& state)
{
    const auto frame = frameFor(state);
    const auto* bytes = reinterpret_cast<const unsigned char*>(frame.data());
    norvexa::imglib::DMd5 md5;
    for (auto _ : state) {
        md5.hash(bytes, frame.size() * 4);
        benchmark::DoNotOptimize(md5.digest());
    }
    state.SetBytesProcessed(state.iterations() * frame.size() * 4);
}

// The same buffer copied: what reading the bytes alone costs.
void BM_MemcpyFrame(benchmark::State& state)
{
    const auto frame = frameFor(state);
    std::vector<std::uint32_t> out(frame.size());
    for (auto _ : state) {
        std::memcpy(out.data(), frame.data(), frame.size() * 4);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * frame.size() * 4);
}

} // namespace

// Arg 0: 2463 x 2527 (24.9 MB); arg 1: 4148 x 4362 (72.4 MB).
BENCHMARK(BM_Md5Frame)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MemcpyFrame)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();

// The colour mapping of a 16M frame (4148 x 4362) with its mask, hdr() and a
// logarithmic section, beside the plainest mapping there is: one lookup per pixel in a
// 65 536-entry table into a buffer that already exists. Also the contrast proposal with
// 100 000 samples and a colour bar of 40 x 512.

#include "common/DetectorFrames.h"

#include "DColorMap.h"
#include "DColorTable.h"
#include "DContrast.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <vector>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

template <class T>
const DImage& frame16M()
{
    static const DImage frame = [] {
        const auto layout = norvexa_bench::layout16M();
        const std::vector<T> pixels = norvexa_bench::detectorFrame<T>(layout);
        DImage image(layout.width, layout.height, T(0));
        std::memcpy(image.data(), pixels.data(), pixels.size() * sizeof(T));
        return image;
    }();
    return frame;
}

// The stored form of a detector mask: UINT 32, 1 in the gaps, 2 at one pixel in 5000.
const DImage& mask16M()
{
    static const DImage mask = [] {
        const auto& frame = frame16M<int>();
        DImage image(frame.width(), frame.height(), 0u);
        const auto* p = reinterpret_cast<const int*>(frame.cdata());
        auto* m = reinterpret_cast<unsigned int*>(image.data());
        for (std::size_t i = 0; i < image.size(); ++i)
            m[i] = p[i] == -1 ? 1u : (i % 5000 == 17 ? 2u : 0u);
        return image;
    }();
    return mask;
}

template <class T>
void BM_Rgb(benchmark::State& state)
{
    const DImage& frame = frame16M<T>();
    const DImage& mask = mask16M();
    for (auto _ : state) {
        DImage colours = DColorMap::rgb(frame, 20, 0, 5000, DColorTable::hdr(), "ARGB", &mask, nullptr,
                                        1000000, true, true);
        benchmark::DoNotOptimize(colours.cdata());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * frame.size()));
}

template <class T>
void BM_PlainTableLookup(benchmark::State& state)
{
    const DImage& frame = frame16M<T>();
    std::vector<std::uint32_t> table(65536);
    for (std::size_t i = 0; i < table.size(); ++i)
        table[i] = 0xff000000u | static_cast<std::uint32_t>(i * 2654435761u >> 8);
    std::vector<std::uint32_t> out(frame.size());
    const T* in = reinterpret_cast<const T*>(frame.cdata());
    const std::size_t n = frame.size();
    for (auto _ : state) {
        std::uint32_t* o = out.data();
        for (std::size_t i = 0; i < n; ++i)
            o[i] = table[static_cast<std::uint16_t>(static_cast<int>(in[i]))];
        benchmark::DoNotOptimize(o);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}

void BM_Contrast(benchmark::State& state)
{
    const DImage& frame = frame16M<int>();
    const DImage& mask = mask16M();
    const DContrast contrast(3, 100000);
    double high = 0, low = 0;
    for (auto _ : state) {
        contrast(high, low, frame, &mask);
        benchmark::DoNotOptimize(high);
    }
    state.counters["high"] = high;
    state.counters["low"] = low;
}

void BM_Legend(benchmark::State& state)
{
    for (auto _ : state) {
        DImage bar(40, 512, 0);
        std::map<int, double> ticks;
        DColorMap::legend(bar, ticks, 20, 0, 5000, DColorTable::hdr(), "ARGB");
        benchmark::DoNotOptimize(bar.cdata());
    }
}

} // namespace

BENCHMARK_TEMPLATE(BM_Rgb, int)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_TEMPLATE(BM_PlainTableLookup, int)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Rgb, unsigned short)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_TEMPLATE(BM_PlainTableLookup, unsigned short)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Rgb, float)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_TEMPLATE(BM_PlainTableLookup, float)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Contrast)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Legend)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();

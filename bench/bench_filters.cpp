// Window filters and masked statistics of a 6M frame (2463 x 2527, int32, Poisson counts
// of mean 0.8, gaps of -1, mask of the gaps), beside memcpy of the frame. The peer is
// scipy.ndimage on the very same frame: tools/scipy_filters_bench.py writes it through
// `bench_filters --write-frame <file>` and times scipy on it.
//
// One session on the shared 2-core build machine under a load of about 11 (GCC 12 -O3
// with AVX2 clones; scipy 1.10.1, numpy 1.24.2). Wall clocks ran 5 to 10 times the CPU
// times under that load, so the CPU times are compared: Google Benchmark's CPU column
// here, the best of 5 process CPU times for scipy/numpy. In ms:
//
//   this library                     ms    peer                                  ms   ratio
//   medianFilter(3, 3)             31.0    ndimage.median_filter(size=3)      521.6   16.8x
//   medianFilter(5, 5)             89.5    ndimage.median_filter(size=5)     1681.9   18.8x
//   meanFilter(3, 3)               20.6    ndimage.uniform_filter(size=3)      50.3    2.4x
//   varianceFilter(3, 3)           66.6    two uniform_filters, float64      1496.9   22x
//   mean, gap mask                  6.24   memcpy of the frame                 1.63   3.8x of it
//   variance, gap mask             12.2    memcpy of the frame                 1.63   7.5x of it
//   median, gap mask               33.3    memcpy of the frame                 1.63   20x of it
//   (numpy on frame[~mask]: mean 7.5, var(ddof=1) 25.6, median 37.8)
//
// The variance of a frame is bound by its defined order: each squared deviation is
// rounded and added in turn, one dependent double addition per pixel (about 4 cycles),
// which no reordering may shorten without changing the result's last bits.

#include "common/DetectorFrames.h"

#include "DImage.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

const DImage& frame6M()
{
    static const DImage frame = [] {
        const auto layout = norvexa_bench::layout6M();
        const std::vector<int> pixels = norvexa_bench::detectorFrame<int>(layout);
        DImage image(layout.width, layout.height, 0);
        std::memcpy(image.data(), pixels.data(), pixels.size() * sizeof(int));
        return image;
    }();
    return frame;
}

/// UINT 32, 1 in the gaps, as a detector's stored mask.
const DImage& gapMask()
{
    static const DImage mask = [] {
        const DImage& frame = frame6M();
        DImage image(frame.width(), frame.height(), 0u);
        const auto* p = reinterpret_cast<const int*>(frame.cdata());
        auto* m = reinterpret_cast<unsigned int*>(image.data());
        for (std::size_t i = 0; i < image.size(); ++i)
            m[i] = p[i] == -1 ? 1u : 0u;
        return image;
    }();
    return mask;
}

enum class Filter { Mean, Median, Variance };

void filterBench(benchmark::State& state, Filter filter, int m, int n, bool masked)
{
    const DImage& frame = frame6M();
    const DImage* mask = masked ? &gapMask() : nullptr;
    for (auto _ : state) {
        const DImage out = filter == Filter::Mean     ? frame.meanFilter(m, n, mask)
                           : filter == Filter::Median ? frame.medianFilter(m, n, mask)
                                                      : frame.varianceFilter(m, n, mask);
        benchmark::DoNotOptimize(out.cdata());
    }
}

enum class Statistic { Mean, Variance, Median };

void statisticBench(benchmark::State& state, Statistic statistic)
{
    const DImage& frame = frame6M();
    const DImage& mask = gapMask();
    double value = 0;
    for (auto _ : state) {
        value = statistic == Statistic::Mean       ? frame.mean(nullptr, &mask, -1e300, 1e300)
                : statistic == Statistic::Variance ? frame.variance(nullptr, &mask, -1e300, 1e300)
                                                   : frame.median<double>(nullptr, &mask);
        benchmark::DoNotOptimize(value);
    }
    state.counters["value"] = value;
}

void memcpyBench(benchmark::State& state)
{
    const DImage& frame = frame6M();
    std::vector<int> out(frame.size());
    for (auto _ : state) {
        std::memcpy(out.data(), frame.cdata(), out.size() * sizeof(int));
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::string(argv[1]) == "--write-frame") {
        const DImage& frame = frame6M();
        std::ofstream(argv[2], std::ios::binary).write(frame.cdata(), static_cast<std::streamsize>(frame.size() * 4));
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    using norvexa_bench::add;
    add("medianFilter/3x3", filterBench, Filter::Median, 3, 3, false);
    add("medianFilter/5x5", filterBench, Filter::Median, 5, 5, false);
    add("medianFilter/3x3/gap_mask", filterBench, Filter::Median, 3, 3, true);
    add("meanFilter/3x3", filterBench, Filter::Mean, 3, 3, false);
    add("meanFilter/3x3/gap_mask", filterBench, Filter::Mean, 3, 3, true);
    add("varianceFilter/3x3", filterBench, Filter::Variance, 3, 3, false);
    add("mean/gap_mask", statisticBench, Statistic::Mean);
    add("variance/gap_mask", statisticBench, Statistic::Variance);
    add("median/gap_mask", statisticBench, Statistic::Median);
    add("memcpy/frame", memcpyBench);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

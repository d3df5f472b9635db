// The image core's hot paths on frames of real size, each beside memcpy of the same
// output bytes (the limit).

#include "common/DetectorFrames.h"

#include "DImage.h"
#include "image/kernels/PixelMath.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <memory>

using namespace norvexa;
using namespace norvexa::imglib;
using norvexa_bench::Layout;

namespace {

Layout layoutOf(const benchmark::State& state)
{
    return state.range(0) ? norvexa_bench::layout16M() : norvexa_bench::layout6M();
}

template <class T>
DImage frameOf(const Layout& layout)
{
    const auto pixels = norvexa_bench::detectorFrame<T>(layout);
    DImage image(layout.width, layout.height, T(0));
    std::memcpy(image.data(), pixels.data(), pixels.size() * sizeof(T));
    return image;
}

// A flat-field-like factor image: values near 1.
DImage factorsOf(const Layout& layout)
{
    DImage factors(layout.width, layout.height, 1.0);
    double* p = reinterpret_cast<double*>(factors.data());
    for (std::size_t i = 0; i < factors.size(); ++i)
        p[i] = 0.95 + 0.1 * static_cast<double>((i * 2654435761u) % 1000) / 1000.0;
    return factors;
}

void setBytes(benchmark::State& state, std::size_t bytes)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

} // namespace

static void BM_Memcpy(benchmark::State& state)
{
    const Layout layout = layoutOf(state);
    const std::size_t bytes = static_cast<std::size_t>(layout.width) * layout.height * state.range(1);
    std::vector<char> in(bytes, 1), out(bytes);
    for (auto _ : state) {
        std::memcpy(out.data(), in.data(), bytes);
        benchmark::DoNotOptimize(out.data());
    }
    setBytes(state, bytes);
}
BENCHMARK(BM_Memcpy)->ArgsProduct({{0, 1}, {4, 8}})->ArgNames({"16M", "bytes"})->Unit(benchmark::kMillisecond);

// The limit of an out-of-place operation: a fresh buffer of the result's size, written.
static void BM_AllocateAndCopy(benchmark::State& state)
{
    const Layout layout = layoutOf(state);
    const std::size_t bytes = static_cast<std::size_t>(layout.width) * layout.height * state.range(1);
    std::vector<char> in(bytes, 1);
    for (auto _ : state) {
        std::unique_ptr<char[]> out(new char[bytes]);
        std::memcpy(out.get(), in.data(), bytes);
        benchmark::DoNotOptimize(out.get());
    }
    setBytes(state, bytes);
}
BENCHMARK(BM_AllocateAndCopy)->ArgsProduct({{0, 1}, {4, 8}})->ArgNames({"16M", "bytes"})->Unit(benchmark::kMillisecond);

static void BM_AsTypeIntToFloat(benchmark::State& state)
{
    const DImage frame = frameOf<int>(layoutOf(state));
    for (auto _ : state)
        benchmark::DoNotOptimize(frame.asType<float>().cdata());
    setBytes(state, frame.size() * sizeof(float));
}
BENCHMARK(BM_AsTypeIntToFloat)->Arg(0)->Arg(1)->ArgNames({"16M"})->Unit(benchmark::kMillisecond);

static void BM_AsTypeUInt32ToDouble(benchmark::State& state)
{
    const DImage frame = frameOf<unsigned int>(layoutOf(state));
    for (auto _ : state)
        benchmark::DoNotOptimize(frame.asType<double>().cdata());
    setBytes(state, frame.size() * sizeof(double));
}
BENCHMARK(BM_AsTypeUInt32ToDouble)->Arg(0)->Arg(1)->ArgNames({"16M"})->Unit(benchmark::kMillisecond);

template <class T>
static void BM_TimesFactorImageInPlace(benchmark::State& state)
{
    const Layout layout = layoutOf(state);
    const DImage original = frameOf<T>(layout);
    const DImage factors = factorsOf(layout);
    DImage frame = original;
    for (auto _ : state) {
        // Restoring the counts costs a memcpy; it is measured apart (BM_Memcpy) and kept
        // out of the figure.
        state.PauseTiming();
        std::memcpy(frame.data(), original.cdata(), original.size() * sizeof(T));
        state.ResumeTiming();
        frame *= factors;
        benchmark::DoNotOptimize(frame.data());
    }
    setBytes(state, frame.size() * sizeof(T));
}
BENCHMARK_TEMPLATE(BM_TimesFactorImageInPlace, int)->Arg(0)->Arg(1)->ArgNames({"16M"})->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_TimesFactorImageInPlace, unsigned int)->Arg(0)->Arg(1)->ArgNames({"16M"})->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_TimesFactorImageInPlace, unsigned short)->Arg(0)->Arg(1)->ArgNames({"16M"})->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_TimesFactorImageInPlace, float)->Arg(0)->Arg(1)->ArgNames({"16M"})->Unit(benchmark::kMillisecond);

// What exact rounding costs: a frame of doubles (counts times factors near 1) stored into
// 32-bit integers by the library's rule, beside the former trunc(v + copysign(0.5, v)),
// which is wrong for 0.49999999999999994 and for odd values in [2^52, 2^53).
template <bool exact>
static void BM_RoundFrameToInt32(benchmark::State& state)
{
    const Layout layout = layoutOf(state);
    const DImage counts = frameOf<int>(layout).asType<double>();
    const DImage factors = factorsOf(layout);
    const DImage values = counts * factors;
    const double* in = reinterpret_cast<const double*>(values.cdata());
    std::unique_ptr<int[]> out(new int[values.size()]);
    for (auto _ : state) {
        for (std::size_t i = 0; i < values.size(); ++i) {
            if constexpr (exact)
                out[i] = norvexa::kernels::roundToInteger<int>(in[i]);
            else
                out[i] = norvexa::kernels::truncateToInteger<int>(std::trunc(in[i] + std::copysign(0.5, in[i])));
        }
        benchmark::DoNotOptimize(out.get());
        benchmark::ClobberMemory();
    }
    setBytes(state, values.size() * sizeof(int));
}
BENCHMARK_TEMPLATE(BM_RoundFrameToInt32, true)->Arg(0)->Arg(1)->ArgNames({"16M"})->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_RoundFrameToInt32, false)->Arg(0)->Arg(1)->ArgNames({"16M"})->Unit(benchmark::kMillisecond);

static void BM_AddImages(benchmark::State& state)
{
    const Layout layout = layoutOf(state);
    const DImage a = frameOf<int>(layout), b = frameOf<int>(layout);
    for (auto _ : state)
        benchmark::DoNotOptimize((a + b).cdata());
    setBytes(state, a.size() * sizeof(int));
}
BENCHMARK(BM_AddImages)->Arg(0)->Arg(1)->ArgNames({"16M"})->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();

// The detector mask on a frame of real size, beside memset of the same output bytes into
// a buffer that exists (the limit of the writes) and into a fresh one (the limit of an
// operation that returns a new image), and memcpy (the limit of a pass that reads a
// 32-bit frame and writes a 32-bit mask).

#include "common/DetectorFrames.h"

#include "DDetector.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

using namespace norvexa;
using namespace norvexa::imglib;
using norvexa_bench::Layout;

namespace {

// 4 x 8 Orvik modules: 3 * 1040 + 1030 by 7 * 551 + 514.
Layout orvik4x8() { return {4150, 4371, 1030, 514, 10, 37}; }

std::size_t maskBytes()
{
    const Layout l = orvik4x8();
    return static_cast<std::size_t>(l.width) * l.height * sizeof(std::uint32_t);
}

// Counts with -1 in the gaps, and one module pixel in about 5000 at -2 (defective).
template <class T>
DImage orvikFrame()
{
    const Layout l = orvik4x8();
    std::vector<T> pixels = norvexa_bench::detectorFrame<T>(l);
    for (std::size_t i = 0; i < pixels.size(); i += 4999)
        if (pixels[i] != static_cast<T>(-1))
            pixels[i] = static_cast<T>(-2);
    DImage frame(l.width, l.height, T(0));
    std::memcpy(frame.data(), pixels.data(), pixels.size() * sizeof(T));
    return frame;
}

void setBytes(benchmark::State& state, std::size_t bytes)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

} // namespace

template <class T>
static void BM_Mask(benchmark::State& state)
{
    const DImage frame = orvikFrame<T>();
    if (!DDetector::isOrvik(frame)) {
        state.SkipWithError("not an Orvik size");
        return;
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(DDetector::mask(frame).cdata());
    setBytes(state, maskBytes());
}
BENCHMARK_TEMPLATE(BM_Mask, int)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_Mask, unsigned int)->Unit(benchmark::kMillisecond);

static void BM_Memset(benchmark::State& state)
{
    const std::size_t bytes = maskBytes();
    std::vector<char> out(bytes);
    for (auto _ : state) {
        std::memset(out.data(), 1, bytes);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    setBytes(state, bytes);
}
BENCHMARK(BM_Memset)->Unit(benchmark::kMillisecond);

// The mask reads as many bytes as it writes: memcpy is the limit of such a pass.
static void BM_Memcpy(benchmark::State& state)
{
    const std::size_t bytes = maskBytes();
    std::vector<char> in(bytes, 1), out(bytes);
    for (auto _ : state) {
        std::memcpy(out.data(), in.data(), bytes);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    setBytes(state, bytes);
}
BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond);

static void BM_AllocateAndMemset(benchmark::State& state)
{
    const std::size_t bytes = maskBytes();
    for (auto _ : state) {
        std::unique_ptr<char[]> out(new char[bytes]);
        std::memset(out.get(), 1, bytes);
        benchmark::DoNotOptimize(out.get());
        benchmark::ClobberMemory();
    }
    setBytes(state, bytes);
}
BENCHMARK(BM_AllocateAndMemset)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();

#include "common/DetectorFrames.h"

#include "foundation/image/DBitshuffle.h"
#include "foundation/image/DCompression.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

using norvexa::image::DBitshuffle;
using norvexa::image::DCompression;
namespace codec = norvexa::image::codec;

using norvexa_bench::add;

namespace {

struct Frame {
    std::string name;
    norvexa_bench::Layout layout;
};

const Frame FRAMES[] = {{"2463x2527", norvexa_bench::layout6M()}, {"4148x4362", norvexa_bench::layout16M()}};

template <class T>
std::vector<char> plainBytes(const norvexa_bench::Layout& layout)
{
    const auto frame = norvexa_bench::detectorFrame<T>(layout);
    std::vector<char> bytes(frame.size() * sizeof(T));
    std::memcpy(bytes.data(), frame.data(), bytes.size());
    return bytes;
}

// Decoding a chunk of the frame, in bytes per second of plain pixels.
void decodeBench(benchmark::State& state, DCompression::FILTER filter, const std::vector<char>& plain)
{
    const std::vector<char> chunk = codec::encode(filter, plain.data(), plain.size());
    std::vector<char> out(plain.size());
    for (auto _ : state) {
        codec::decode(filter, chunk.data(), chunk.size(), out.data(), out.size());
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    if (out != plain)
        state.SkipWithError("decoded frame differs");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * plain.size()));
    state.counters["ratio"] = double(plain.size()) / double(chunk.size());
}

// The limit of any decoder: copying the plain frame.
void memcpyBench(benchmark::State& state, const std::vector<char>& plain)
{
    std::vector<char> out(plain.size());
    for (auto _ : state) {
        std::memcpy(out.data(), plain.data(), plain.size());
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * plain.size()));
}

// The transposition alone, in blocks of 8192 bytes as the chunks have them. The source is
// one block that stays in cache, as the decoder's scratch does; the destination walks the
// whole frame (wholeFrame) or is one block too (compute alone).
void transposeBench(benchmark::State& state, bool inverse, DBitshuffle::PATH path, std::size_t elementSize,
                    bool wholeFrame, const std::vector<char>& plain)
{
    if (!DBitshuffle::available(path)) {
        state.SkipWithError("path not available on this processor");
        return;
    }
    const std::size_t blockElements = 8192 / elementSize;
    const std::size_t blockBytes = blockElements * elementSize;
    const std::size_t blocks = plain.size() / blockBytes;
    std::vector<char> out(wholeFrame ? plain.size() : blockBytes);
    for (auto _ : state) {
        for (std::size_t b = 0; b < blocks; ++b) {
            char* dst = out.data() + (wholeFrame ? b * blockBytes : 0);
            if (inverse)
                codec::bitunshuffle(plain.data(), dst, blockElements, elementSize, path);
            else
                codec::bitshuffle(plain.data(), dst, blockElements, elementSize, path);
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * blocks * blockBytes));
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    std::vector<std::vector<char>> keep; // frames live until the benchmarks have run
    keep.reserve(8);
    for (const Frame& frame : FRAMES) {
        keep.push_back(plainBytes<std::uint32_t>(frame.layout));
        const std::vector<char>& u32 = keep.back();
        keep.push_back(plainBytes<std::uint16_t>(frame.layout));
        const std::vector<char>& u16 = keep.back();
        const std::string at = "/" + frame.name;
        add("bslz4_decode/uint32" + at, decodeBench, DCompression::FILTER_BS32_LZ4,
                                     std::cref(u32));
        add("memcpy/uint32" + at, memcpyBench, std::cref(u32));
        add("bslz4_decode/uint16" + at, decodeBench, DCompression::FILTER_BS16_LZ4,
                                     std::cref(u16));
        add("memcpy/uint16" + at, memcpyBench, std::cref(u16));
        add("lz4_decode/uint32" + at, decodeBench, DCompression::FILTER_LZ4,
                                     std::cref(u32));
        add("lz4_decode/uint16" + at, decodeBench, DCompression::FILTER_LZ4,
                                     std::cref(u16));
    }
    const std::vector<char>& u32 = keep[0];
    for (bool wholeFrame : {true, false}) {
        for (std::size_t size : {std::size_t(2), std::size_t(4)}) {
            for (auto path : {DBitshuffle::PATH_SCALAR, DBitshuffle::PATH_SSE2, DBitshuffle::PATH_AVX2}) {
                const std::string tail = std::string("/") + DBitshuffle::name(path) + "/" + std::to_string(8 * size) +
                                         "bit/" + (wholeFrame ? "into_" + FRAMES[0].name : "in_cache");
                add("bitunshuffle" + tail, transposeBench, true, path, size, wholeFrame, std::cref(u32));
                add("bitshuffle" + tail, transposeBench, false, path, size, wholeFrame, std::cref(u32));
            }
        }
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

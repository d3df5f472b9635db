#include "common/DetectorFrames.h"

#include "DImage.h"
#include "DImageWriter.h"
#include "DMd5.h"

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

namespace {

using norvexa::imglib::DImage;
using norvexa::imglib::DImageWriter;

// Arg 0: 2463 x 2527 (24.9 MB of int32); arg 1: 4148 x 4362 (72.4 MB).
DImage frameFor(const benchmark::State& state)
{
    const auto layout = state.range(0) ? norvexa_bench::layout16M() : norvexa_bench::layout6M();
    const auto pixels = norvexa_bench::detectorFrame<std::int32_t>(layout);
    DImage image(layout.width, layout.height, 0);
    std::memcpy(image.data(), pixels.data(), pixels.size() * 4);
    auto& data = image.optionalData();
    data.set_description(std::string("Brennik 6M, SN 60-0101"));
    data.set_count_time(0.1f);
    data.set_wavelength(1.0332f);
    data.set_beam_center_x(1231.5f);
    data.set_beam_center_y(1263.5f);
    return image;
}

// The files go to a directory of their own under the system's temporary directory.
class Scratch {
public:
    Scratch()
        : _dir(std::filesystem::temp_directory_path() /
               ("norvexa_bench_writer_" + std::to_string(::getpid())))
    {
        std::filesystem::create_directories(_dir);
    }
    ~Scratch()
    {
        std::error_code ignored;
        std::filesystem::remove_all(_dir, ignored);
    }
    std::string file(const char* name) const { return (_dir / name).string(); }

private:
    std::filesystem::path _dir;
};

void BM_WriteCbf(benchmark::State& state)
{
    const DImage image = frameFor(state);
    const Scratch scratch;
    const std::string path = scratch.file("frame.cbf");
    for (auto _ : state)
        DImageWriter::write(image, path, DImageWriter::CBF);
    state.counters["ratio"] = double(std::filesystem::file_size(path)) / double(image.size() * 4);
    state.SetBytesProcessed(state.iterations() * image.size() * 4);
}

void BM_WriteTif(benchmark::State& state)
{
    const DImage image = frameFor(state);
    const Scratch scratch;
    const std::string path = scratch.file("frame.tif");
    for (auto _ : state)
        DImageWriter::write(image, path, DImageWriter::TIF_INT);
    state.SetBytesProcessed(state.iterations() * image.size() * 4);
}

// The same bytes written by one ofstream call: the cost of the file alone.
void BM_WriteRawBytes(benchmark::State& state)
{
    const DImage image = frameFor(state);
    const Scratch scratch;
    const std::string path = scratch.file("frame.raw");
    for (auto _ : state) {
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        file.write(image.cdata(), static_cast<std::streamsize>(image.size() * 4));
    }
    state.SetBytesProcessed(state.iterations() * image.size() * 4);
}

// Compression and digest without the file: what the CBF branch computes.
void BM_CbfEncodeAndDigest(benchmark::State& state)
{
    const DImage image = frameFor(state);
    const auto* pixels = reinterpret_cast<const std::int32_t*>(image.cdata());
    std::unique_ptr<unsigned char[]> out(new unsigned char[4 * image.size() + 4095]);
    norvexa::imglib::DMd5 md5;
    for (auto _ : state) {
        const std::size_t size =
            norvexa::imglib::detail::byteOffsetEncode(pixels, image.size(), out.get());
        md5.hash(out.get(), size);
        benchmark::DoNotOptimize(md5.toBase64());
    }
    state.SetBytesProcessed(state.iterations() * image.size() * 4);
}

void BM_EncodeByteOffset(benchmark::State& state)
{
    const DImage image = frameFor(state);
    const auto* pixels = reinterpret_cast<const std::int32_t*>(image.cdata());
    std::unique_ptr<unsigned char[]> out(new unsigned char[4 * image.size() + 4095]);
    std::size_t size = 0;
    for (auto _ : state) {
        size = norvexa::imglib::detail::byteOffsetEncode(pixels, image.size(), out.get());
        benchmark::DoNotOptimize(out.get());
        benchmark::ClobberMemory();
    }
    state.counters["bytes/pixel"] = double(size) / double(image.size());
    state.SetBytesProcessed(state.iterations() * image.size() * 4);
}

void BM_MemcpyFrame(benchmark::State& state)
{
    const DImage image = frameFor(state);
    std::unique_ptr<char[]> out(new char[image.size() * 4]);
    for (auto _ : state) {
        std::memcpy(out.get(), image.cdata(), image.size() * 4);
        benchmark::DoNotOptimize(out.get());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * image.size() * 4);
}

} // namespace

BENCHMARK(BM_WriteCbf)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_WriteTif)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_WriteRawBytes)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CbfEncodeAndDigest)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EncodeByteOffset)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MemcpyFrame)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();

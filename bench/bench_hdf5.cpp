// HDF5 series: reading one 4148x4362 uint32 frame of a 100-frame bitshuffle-LZ4 file
// through DImageSeries, beside the raw chunk read plus this library's decoder (the limit);
// copying that series HDF5 to HDF5 through its stored chunks, beside a plain copy of
// its files (the limit); and writing 200 frames of 2463x2527 uint32 that arrive as bitshuffle-LZ4 containers,
// beside plain file writes of the same bytes (the limit) and the filtered path that
// compresses in HDF5.
//
// The h5py peer reads the same file: after a run, the file stays in
// /tmp/norvexa_bench_hdf5/read; run
//   /usr/bin/python3 tools/h5py_read_frame.py /tmp/norvexa_bench_hdf5/read/series_master.h5 50 20

#include "common/DetectorFrames.h"

#include "DHdf5Writer.h"
#include "DImageSeries.h"
#include "foundation/hdf5/DH5.h"
#include "foundation/image/DCompression.h"

#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>

using namespace norvexa;
using namespace norvexa::imglib;
using image::DCompression;
namespace fs = std::filesystem;
using Image = image::DBasicImage<image::StdAllocator>;

namespace {

const fs::path kRoot = "/tmp/norvexa_bench_hdf5";

// A few distinct frames, compressed as a detector's stream sends them; the series cycles
// through them.
std::vector<Image> compressedFrames(const norvexa_bench::Layout& layout, int count)
{
    std::vector<Image> frames;
    for (int i = 0; i < count; ++i) {
        const std::vector<unsigned int> pixels = norvexa_bench::detectorFrame<unsigned int>(layout, 11 + i);
        Image frame(static_cast<const unsigned int*>(nullptr), layout.width, layout.height);
        std::copy(pixels.begin(), pixels.end(), reinterpret_cast<unsigned int*>(frame.data()));
        frame.setFilter(DCompression::FILTER_BS32_LZ4, 0);
        frames.push_back(std::move(frame));
    }
    return frames;
}

// The header of a real series: a few items and the mask of the gaps.
nexus::DNeXusTree header(const norvexa_bench::Layout& layout)
{
    DImageOptionalData metadata;
    metadata.set_count_time(0.1f);
    metadata.set_description(std::string("Bench Detector 16M"));
    DImage mask(layout.width, layout.height, 0U);
    const std::vector<unsigned int> frame = norvexa_bench::detectorFrame<unsigned int>(layout, 1);
    for (int y = 0; y < layout.height; ++y)
        for (int x = 0; x < layout.width; ++x)
            if (frame[static_cast<std::size_t>(y) * layout.width + x] == 0xffffffffu)
                mask.setPixel<unsigned int>(x, y, 1U);
    metadata.set_pixel_mask(mask);
    return metadata.neXus();
}

const fs::path& readSeries()
{
    static const fs::path master = [] {
        const fs::path dir = kRoot / "read";
        fs::create_directories(dir);
        const norvexa_bench::Layout layout = norvexa_bench::layout16M();
        const std::vector<Image> frames = compressedFrames(layout, 4);
        DHdf5Writer writer((dir / "series.h5").string(), 100, header(layout), DCompression::FILTER_BS32_LZ4);
        for (int i = 0; i < 100; ++i)
            writer.write(frames[i % frames.size()]);
        return dir / "series_master.h5";
    }();
    return master;
}

void BM_ReadFrameThroughSeries(benchmark::State& state)
{
    DImageSeries series(readSeries().string());
    int number = 0;
    for (auto _ : state) {
        DImage image = series[static_cast<unsigned long>(number++ % 100 + 1)];
        benchmark::DoNotOptimize(image.cdata());
    }
    state.SetBytesProcessed(state.iterations() * 4148LL * 4362 * 4);
}

void BM_RawChunkReadPlusDecode(benchmark::State& state)
{
    const fs::path dataFile = readSeries().parent_path() / "series_data_000001.h5";
    const hdf5::DH5Data data = hdf5::DH5File(dataFile.string(), "r").dataset("/entry/data/data");
    const std::vector<unsigned long> dim = data.dim();
    unsigned long frame = 0;
    for (auto _ : state) {
        const std::vector<char> chunk = data.readRawChunk({frame++ % 100, 0, 0});
        Image image(static_cast<const unsigned int*>(nullptr), dim[2], dim[1]);
        image::codec::decode(DCompression::FILTER_BS32_LZ4, chunk.data(), chunk.size(), image.data(),
                             dim[1] * dim[2] * 4);
        benchmark::DoNotOptimize(image.cdata());
    }
    state.SetBytesProcessed(state.iterations() * 4148LL * 4362 * 4);
}

// The 100-frame series copied HDF5 to HDF5 through the stored chunks: nothing decoded,
// nothing compressed.
void BM_CopySeriesAsStoredChunks(benchmark::State& state)
{
    const DImageSeries series(readSeries().string());
    const fs::path out = kRoot / "copy";
    for (auto _ : state) {
        fs::remove_all(out);
        fs::create_directories(out);
        DHdf5Writer writer((out / "copy.h5").string(), 100, series.neXus(), DCompression::FILTER_BS32_LZ4);
        for (int i = series.first(); i <= series.last(); ++i)
            writer.write(series.storedImage(static_cast<unsigned long>(i)).pixels);
        writer.close();
    }
    state.counters["frames/s"] = benchmark::Counter(100.0 * state.iterations(), benchmark::Counter::kIsRate);
}

// The limit: the same master and data files copied as files.
void BM_CopySeriesAsFiles(benchmark::State& state)
{
    const fs::path in = readSeries().parent_path(), out = kRoot / "filecopy";
    for (auto _ : state) {
        fs::remove_all(out);
        fs::create_directories(out);
        for (const char* name : {"series_master.h5", "series_data_000001.h5"})
            fs::copy_file(in / name, out / name);
    }
    state.counters["frames/s"] = benchmark::Counter(100.0 * state.iterations(), benchmark::Counter::kIsRate);
}

const std::vector<Image>& writeFrames()
{
    static const std::vector<Image> frames = compressedFrames(norvexa_bench::layout6M(), 4);
    return frames;
}

constexpr int kWriteCount = 200;

// Frames that come compressed in the file's filter: stored as they stand.
void BM_Write200PrecompressedFrames(benchmark::State& state)
{
    const auto& frames = writeFrames();
    const nexus::DNeXusTree tree;
    for (auto _ : state) {
        DHdf5Writer writer((kRoot / "write" / "direct.h5").string(), 100, tree, DCompression::FILTER_BS32_LZ4);
        for (int i = 0; i < kWriteCount; ++i)
            writer.write(frames[i % frames.size()]);
    }
    state.SetItemsProcessed(state.iterations() * kWriteCount);
}

// The limit: the same compressed bytes written to one plain file.
void BM_Write200FramesPlainFile(benchmark::State& state)
{
    const auto& frames = writeFrames();
    for (auto _ : state) {
        std::ofstream out(kRoot / "write" / "plain.bin", std::ios::binary | std::ios::trunc);
        for (int i = 0; i < kWriteCount; ++i) {
            const Image& frame = frames[i % frames.size()];
            out.write(frame.cdata(), static_cast<std::streamsize>(frame.usedBytes()));
        }
    }
    state.SetItemsProcessed(state.iterations() * kWriteCount);
}

// Plain frames that the HDF5 filter pipeline compresses.
void BM_Write200FramesFiltered(benchmark::State& state)
{
    std::vector<Image> plain = writeFrames();
    for (Image& frame : plain)
        frame.setFilter(DCompression::FILTER_NONE, 0);
    const nexus::DNeXusTree tree;
    for (auto _ : state) {
        DHdf5Writer writer((kRoot / "write" / "filtered.h5").string(), 100, tree, DCompression::FILTER_BS32_LZ4);
        for (int i = 0; i < kWriteCount; ++i)
            writer.write(plain[i % plain.size()]);
    }
    state.SetItemsProcessed(state.iterations() * kWriteCount);
}

struct Setup {
    Setup() { fs::create_directories(kRoot / "write"); }
    ~Setup() { fs::remove_all(kRoot / "write"); }
} setup;

} // namespace

BENCHMARK(BM_ReadFrameThroughSeries)->Unit(benchmark::kMillisecond)->MinTime(3);
BENCHMARK(BM_RawChunkReadPlusDecode)->Unit(benchmark::kMillisecond)->MinTime(3);
BENCHMARK(BM_CopySeriesAsStoredChunks)->Unit(benchmark::kMillisecond)->MinTime(5);
BENCHMARK(BM_CopySeriesAsFiles)->Unit(benchmark::kMillisecond)->MinTime(5);
BENCHMARK(BM_Write200PrecompressedFrames)->Unit(benchmark::kMillisecond)->MinTime(5);
BENCHMARK(BM_Write200FramesPlainFile)->Unit(benchmark::kMillisecond)->MinTime(5);
BENCHMARK(BM_Write200FramesFiltered)->Unit(benchmark::kMillisecond)->Iterations(2);

BENCHMARK_MAIN();

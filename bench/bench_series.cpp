// Numbered file series: the scan of a long series (time and file opens), and walking
// frames of real size through the series against reading each file alone.

#include "common/DetectorFrames.h"

#include "DFileSeriesIterator.h"
#include "DGlobal.h"
#include "DImageWriter.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

using namespace norvexa;
using namespace norvexa::imglib;
namespace fs = std::filesystem;

namespace {

std::string numbered(const fs::path& dir, const char* base, int i, const char* suffix)
{
    char name[64];
    std::snprintf(name, sizeof name, "%s%06d.%s", base, i, suffix);
    return (dir / name).string();
}

// A directory that lives as long as the benchmark program.
struct Directory {
    Directory() : path(fs::temp_directory_path() / ("norvexa_bench_series_" + std::to_string(::getpid())))
    {
        fs::create_directories(path);
    }
    ~Directory() { fs::remove_all(path); }
    fs::path path;
};

Directory& scratch()
{
    static Directory directory;
    return directory;
}

const fs::path& longSeries()
{
    static const fs::path dir = [] {
        fs::path d = scratch().path / "long";
        fs::create_directories(d);
        for (int i = 1; i <= 100000; ++i)
            ::close(::open(numbered(d, "scan_", i, "cbf").c_str(), O_CREAT | O_WRONLY, 0644));
        return d;
    }();
    return dir;
}

const fs::path& frameSeries()
{
    static const fs::path dir = [] {
        fs::path d = scratch().path / "frames";
        fs::create_directories(d);
        const auto layout = norvexa_bench::layout6M();
        for (int i = 1; i <= 100; ++i) {
            const auto pixels = norvexa_bench::detectorFrame<std::int32_t>(layout, static_cast<unsigned>(i));
            DImage frame(layout.width, layout.height, 0);
            std::memcpy(frame.data(), pixels.data(), pixels.size() * 4);
            frame.optionalData().set_count_time(0.1f);
            DImageWriter::write(frame, numbered(d, "frame_", i, "cbf"), DImageWriter::CBF);
        }
        return d;
    }();
    return dir;
}

} // namespace

static void BM_ScanOfAHundredThousandFiles(benchmark::State& state)
{
    const std::string start = numbered(longSeries(), "scan_", 31337, "cbf");
    unsigned long probes = 0;
    for (auto _ : state) {
        const unsigned long before = DFileSeriesIterator::probes();
        DFileSeriesIterator series(start, 10);
        probes = DFileSeriesIterator::probes() - before;
        benchmark::DoNotOptimize(series.last());
    }
    state.counters["file_opens"] = static_cast<double>(probes);
}
BENCHMARK(BM_ScanOfAHundredThousandFiles)->Unit(benchmark::kMillisecond);

static void BM_WalkSeriesOf100Frames(benchmark::State& state)
{
    const std::string start = numbered(frameSeries(), "frame_", 1, "cbf");
    for (auto _ : state) {
        DFileSeriesIterator series(start, 10);
        for (int i = series.first(); i <= series.last(); ++i)
            benchmark::DoNotOptimize(series[i].cdata());
    }
    state.counters["frames_per_second"] = benchmark::Counter(100.0 * state.iterations(), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_WalkSeriesOf100Frames)->Unit(benchmark::kMillisecond)->MinTime(2.0);

static void BM_ReadImageOf100Frames(benchmark::State& state)
{
    frameSeries();
    for (auto _ : state) {
        for (int i = 1; i <= 100; ++i) {
            DImage image;
            readImage(image, numbered(frameSeries(), "frame_", i, "cbf").c_str(), 0);
            benchmark::DoNotOptimize(image.cdata());
        }
    }
    state.counters["frames_per_second"] = benchmark::Counter(100.0 * state.iterations(), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ReadImageOf100Frames)->Unit(benchmark::kMillisecond)->MinTime(2.0);

BENCHMARK_MAIN();

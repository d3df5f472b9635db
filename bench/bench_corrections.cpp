// The corrections on a 4148 x 4362 uint32 frame with its 32 modules: applying the
// count-rate tables and the efficiency factors, each beside memcpy of the frame (the
// limit), and building the tables and the factors once.

#include "common/DetectorFrames.h"

#include "DEfficiencyCorrection.h"
#include "DRateCorrection.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

using namespace norvexa::imglib;
using norvexa_bench::Layout;

namespace {

const Layout kLayout = norvexa_bench::layout16M();
// The committed simulation files, found from this source's place in the tree. __FILE__ is
// as the compiler was given it: relative to the build directory, which holds bench/.
const std::string kSimulationFiles =
    ((std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / __FILE__)
         .lexically_normal()
         .parent_path()
         .parent_path() /
     "data" / "ratecorr")
        .string();

// Each module of 1028 x 512 pixels as 4 x 2 chips of 256 x 256 with one-pixel seams.
std::vector<DImageModule> modulesOf(const Layout& l)
{
    std::vector<DRect> chips;
    for (int j = 0; j < 2; ++j)
        for (int i = 0; i < 4; ++i)
            chips.emplace_back(257 * i, 256 * j, 256, 256);
    std::vector<DImageModule> modules;
    const int cols = l.width / (l.moduleWidth + l.gapX) + 1, rows = l.height / (l.moduleHeight + l.gapY) + 1;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c)
            modules.emplace_back(DRect(c * (l.moduleWidth + l.gapX), r * (l.moduleHeight + l.gapY), l.moduleWidth,
                                       l.moduleHeight),
                                 chips, r + c * rows);
    return modules;
}

void setMetadata(DImageOptionalData& md)
{
    md.set_count_time(0.001f);
    md.set_bit_depth_readout(32);
    md.set_wavelength(1.0f);
    md.set_threshold_energy(6199.21f);
    md.set_mode_register(2);
    md.set_countrate_correction_bunch_mode(kSimulationFiles);
    auto modules = modulesOf(kLayout);
    for (auto& m : modules)
        m.setVrf(-0.15);
    md.set_modules(modules);
    // A detector's files carry the DAC as a 32-bit float.
    for (std::size_t i = 0; i < modules.size(); ++i) {
        char path[96];
        std::snprintf(path, sizeof path, "/entry/instrument/detector/detectorSpecific/detectorModule_%03zu/vrfp", i);
        md.neXus().at(path).asData().setValue(-0.15f);
    }
    md.set_sensor_thickness(450e-6f);
    md.set_beam_center_x(2000.0f);
    md.set_beam_center_y(2100.0f);
    md.set_x_pixel_size(75e-6f);
    md.set_y_pixel_size(75e-6f);
    md.set_detector_distance(0.15f);
    md.set_sensor_material(std::string("Si"));
}

DImage frame()
{
    const auto pixels = norvexa_bench::detectorFrame<unsigned>(kLayout);
    DImage image(kLayout.width, kLayout.height, 0u);
    std::memcpy(image.data(), pixels.data(), pixels.size() * sizeof(unsigned));
    setMetadata(image.optionalData());
    return image;
}

// The detector's mask: 1 in the gaps between modules.
DImage gapMask()
{
    DImage mask(kLayout.width, kLayout.height, 0u);
    const auto pixels = norvexa_bench::detectorFrame<unsigned>(kLayout);
    unsigned* m = reinterpret_cast<unsigned*>(mask.data());
    for (std::size_t i = 0; i < pixels.size(); ++i)
        m[i] = pixels[i] == ~0u;
    return mask;
}

// The corrections' progress lines go to standard output: silenced while timing.
class QuietStdout {
public:
    QuietStdout() : _saved(dup(1))
    {
        std::fflush(stdout);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        close(null);
    }
    ~QuietStdout()
    {
        std::fflush(stdout);
        dup2(_saved, 1);
        close(_saved);
    }

private:
    int _saved;
};

void setBytes(benchmark::State& state)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kLayout.width * kLayout.height * 4);
}

} // namespace

static void BM_MemcpyFrame(benchmark::State& state)
{
    const DImage in = frame();
    std::vector<char> out(in.size() * 4);
    for (auto _ : state) {
        std::memcpy(out.data(), in.cdata(), out.size());
        benchmark::DoNotOptimize(out.data());
    }
    setBytes(state);
}

// Every pixel but the gaps bright (1000 to 1255 counts): a look-up at each one.
static void brighten(DImage& image)
{
    unsigned* p = reinterpret_cast<unsigned*>(image.data());
    for (std::size_t i = 0; i < image.size(); ++i)
        p[i] = p[i] == ~0u ? p[i] : 1000 + (i * 2654435761u) % 256;
}

// Tables built before the loop; every call still validates and compares the metadata.
// Bright frames are refilled, untimed, before each call.
static void rateCorrectionApply(benchmark::State& state, bool bright)
{
    DImage image = frame();
    if (bright)
        brighten(image);
    const DImage mask = gapMask();
    DRateCorrection correction;
    correction.recomputeLookupTable(true);
    {
        QuietStdout quiet;
        correction.correctImage(image, mask);
    }
    for (auto _ : state) {
        if (bright) {
            state.PauseTiming();
            brighten(image);
            state.ResumeTiming();
        }
        correction.correctImage(image, mask);
        benchmark::DoNotOptimize(image.data());
    }
    setBytes(state);
}

static void BM_RateCorrectionApply(benchmark::State& state) { rateCorrectionApply(state, false); }
static void BM_RateCorrectionApplyBright(benchmark::State& state) { rateCorrectionApply(state, true); }

// The tables of all 32 modules from the simulation files, over a frame of one pixel.
static void BM_RateCorrectionBuildTables(benchmark::State& state)
{
    DImage tiny(1, 1, 0u);
    setMetadata(tiny.optionalData());
    const DImage mask(1, 1, 0u);
    DRateCorrection correction;
    QuietStdout quiet;
    for (auto _ : state) {
        correction.recomputeLookupTable(false);
        correction.recomputeLookupTable(true);
        correction.correctImage(tiny, mask);
    }
}

static void BM_EfficiencyCorrectionApply(benchmark::State& state)
{
    DImage image = frame();
    const DImage mask = gapMask();
    DEfficiencyCorrection correction;
    correction.correctImage(image, mask);
    for (auto _ : state) {
        correction.correctImage(image, mask);
        benchmark::DoNotOptimize(image.data());
    }
    setBytes(state);
}

// A wavelength beyond the tolerance on every call: the factors are built each time, and
// applied once (the figure above).
static void BM_EfficiencyCorrectionBuildAndApply(benchmark::State& state)
{
    DImage image = frame();
    const DImage mask = gapMask();
    DEfficiencyCorrection correction;
    float wavelength = 1.0f;
    for (auto _ : state) {
        wavelength = wavelength == 1.0f ? 1.01f : 1.0f;
        image.optionalData().set_wavelength(wavelength);
        correction.correctImage(image, mask);
        benchmark::DoNotOptimize(image.data());
    }
}

BENCHMARK(BM_MemcpyFrame)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RateCorrectionApply)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RateCorrectionApplyBright)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EfficiencyCorrectionApply)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RateCorrectionBuildTables)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EfficiencyCorrectionBuildAndApply)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();

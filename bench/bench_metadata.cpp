// Copying the metadata tree of a series, once per image: a realistic header tree with
// a full-size pixel mask and flat field, heap to heap and heap to a shared segment,
// beside memcpy of the same bytes.

#include "DBasicImageOptionalData.h"
#include "DImage.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

constexpr int kWidth = 4148, kHeight = 4362;

// About 60 datasets as a detector's master file header has them, plus the two frames.
DImageOptionalData headerTree()
{
    DImageOptionalData data;
    data.set_count_time(0.1f);
    data.set_frame_time(0.1f);
    data.set_beam_center_x(2074.5f);
    data.set_beam_center_y(2181.0f);
    data.set_wavelength(0.9762f);
    data.set_detector_distance(0.2f);
    data.set_x_pixel_size(75e-6f);
    data.set_y_pixel_size(75e-6f);
    data.set_sensor_material(std::string("Si"));
    data.set_sensor_thickness(450e-6f);
    data.set_threshold_energy(6000.0f);
    data.set_description(std::string("a 16M detector"));
    data.set_detector_number(std::string("E-32-0123"));
    data.set_bit_depth_readout(32);
    data.set_nimages(1000);
    data.set_saturation_value(1000000);
    data.set_data_collection_date(std::string("2026-11-23T08:00:00.000"));
    auto& tree = data.neXus();
    for (int i = 0; i < 43; ++i)
        tree.newPath("/entry/instrument/detector/detectorSpecific/item_" + std::to_string(i), nexus::NeXusData)
            .asData()
            .setValue(static_cast<double>(i));

    DImage mask(kWidth, kHeight, 0u);
    unsigned int* m = reinterpret_cast<unsigned int*>(mask.data());
    for (std::size_t i = 0; i < mask.size(); i += 997)
        m[i] = 2;
    data.set_pixel_mask(mask);
    DBasicImage flatfield(kWidth, kHeight, image::StdAllocator(), datatypes::FLOAT, 32);
    float* f = reinterpret_cast<float*>(flatfield.data());
    for (std::size_t i = 0; i < flatfield.size(); ++i)
        f[i] = 1.0f + static_cast<float>(i % 100) * 1e-3f;
    tree.newPath("/entry/instrument/detector/detectorSpecific/flatfield", nexus::NeXusData).asData().data() =
        std::move(flatfield);
    return data;
}

std::size_t frameBytes() { return static_cast<std::size_t>(kWidth) * kHeight * 4 * 2; }

} // namespace

static void BM_MemcpyOfTheBytes(benchmark::State& state)
{
    std::vector<char> in(frameBytes(), 1), out(frameBytes());
    for (auto _ : state) {
        std::memcpy(out.data(), in.data(), in.size());
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * frameBytes()));
}
BENCHMARK(BM_MemcpyOfTheBytes)->Unit(benchmark::kMillisecond);

static void BM_AllocateAndMemcpyOfTheBytes(benchmark::State& state)
{
    std::vector<char> in(frameBytes() / 2, 1);
    for (auto _ : state) {
        std::unique_ptr<char[]> a(new char[in.size()]), b(new char[in.size()]);
        std::memcpy(a.get(), in.data(), in.size());
        std::memcpy(b.get(), in.data(), in.size());
        benchmark::DoNotOptimize(a.get());
        benchmark::DoNotOptimize(b.get());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * frameBytes()));
}
BENCHMARK(BM_AllocateAndMemcpyOfTheBytes)->Unit(benchmark::kMillisecond);

static void BM_TreeCopyHeapToHeap(benchmark::State& state)
{
    const DImageOptionalData header = headerTree();
    state.counters["nodes"] = static_cast<double>(header.neXus().size());
    for (auto _ : state) {
        DImageOptionalData copy(header);
        benchmark::DoNotOptimize(&copy);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * frameBytes()));
}
BENCHMARK(BM_TreeCopyHeapToHeap)->Unit(benchmark::kMillisecond);

static void BM_TreeCopyHeapToSegment(benchmark::State& state)
{
    const DImageOptionalData header = headerTree();
    const std::string name = "norvexa_bench_tree_" + std::to_string(::getpid());
    boost::interprocess::shared_memory_object::remove(name.c_str());
    {
        image::ShmSegment segment(boost::interprocess::create_only, name.c_str(), frameBytes() + (16 << 20));
        image::ShmAllocator allocator(segment.get_segment_manager());
        for (auto _ : state) {
            DBasicImageOptionalData<image::ShmAllocator> copy(header, allocator);
            benchmark::DoNotOptimize(&copy);
        }
    }
    boost::interprocess::shared_memory_object::remove(name.c_str());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * frameBytes()));
}
BENCHMARK(BM_TreeCopyHeapToSegment)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();

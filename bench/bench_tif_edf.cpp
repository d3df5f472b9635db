// Reading TIFF and EDF files of realistic detector frames (32-bit signed counts), the files
// in the page cache: the whole read (constructor from the file and readData, with the text
// header, the modules and the mask), the file and the pixel copy alone (constructor and
// readPixelData), and memcpy of the same pixel bytes as the floor.
#include "common/DetectorFrames.h"

#include "DEdfReader.h"
#include "DTifReader.h"

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

using norvexa::imglib::DAbstractImageReader;
using norvexa::imglib::DEdfReader;
using norvexa::imglib::DImage;
using norvexa::imglib::DTifReader;
namespace datatypes = norvexa::datatypes;

using norvexa_bench::add;

namespace {

struct Frame {
    std::string name;
    int width = 0, height = 0;
    std::vector<char> pixels; // little-endian int32
    std::string tifPath, edfPath;
};

void put(std::string& b, std::size_t at, std::uint32_t v, int n)
{
    for (int i = 0; i < n; ++i, v >>= 8)
        b[at + i] = static_cast<char>(v & 0xFF);
}

// As the detector writes it: one directory, the text header as the image description,
// the pixels in one strip behind the first 4096 bytes.
std::string tifFile(const Frame& f)
{
    const std::string header = "\n# Detector: Bench detector 6M, SN 60-0001\n# 2024-01-31T10:00:00.000\n"
                               "# Pixel_size 172e-6 m x 172e-6 m\n# Silicon sensor, thickness 0.000450 m\n"
                               "# Exposure_time 0.0995000 s\n# Exposure_period 0.1000000 s\n"
                               "# Count_cutoff 1048575 counts\n# Threshold_setting: 6400 eV\n";
    const std::uint32_t dataAt = 4096;
    std::string b(dataAt, '\0');
    b[0] = b[1] = 'I';
    put(b, 2, 42, 2);
    put(b, 4, 8, 4);
    const struct {
        std::uint16_t tag, type;
        std::uint32_t count, value;
    } entries[] = {{256, 4, 1, std::uint32_t(f.width)},
                   {257, 4, 1, std::uint32_t(f.height)},
                   {258, 3, 1, 32},
                   {259, 3, 1, 1},
                   {262, 3, 1, 1},
                   {270, 2, std::uint32_t(header.size() + 1), 200},
                   {273, 4, 1, dataAt},
                   {277, 3, 1, 1},
                   {278, 4, 1, std::uint32_t(f.height)},
                   {279, 4, 1, std::uint32_t(f.pixels.size())},
                   {339, 3, 1, 2}};
    const std::size_t n = sizeof entries / sizeof entries[0];
    put(b, 8, n, 2);
    for (std::size_t i = 0; i < n; ++i) {
        const std::size_t e = 10 + 12 * i;
        put(b, e, entries[i].tag, 2);
        put(b, e + 2, entries[i].type, 2);
        put(b, e + 4, entries[i].count, 4);
        put(b, e + 8, entries[i].value, 4);
    }
    put(b, 10 + 12 * n, 0, 4);
    b.replace(200, header.size(), header);
    b.append(f.pixels.begin(), f.pixels.end());
    return b;
}

std::string edfFile(const Frame& f)
{
    std::string header = "{\nEDF_DataBlockID = 0.Image.Psd ;\nByteOrder = LowByteFirst ;\n"
                         "DataType = SignedInteger ;\nDim_1 = " +
                         std::to_string(f.width) + " ;\nDim_2 = " + std::to_string(f.height) +
                         " ;\nSize = " + std::to_string(f.pixels.size()) +
                         " ;\nDate = 2024-01-31 10:00:00 ;\ncount_time = 0.0995 ;\n";
    header.resize(1022, ' ');
    header += "}\n";
    return header + std::string(f.pixels.begin(), f.pixels.end());
}

void writeFile(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

bool samePixels(const DImage& image, const Frame& f)
{
    return image.size() * image.dataSize() == f.pixels.size() &&
           std::memcmp(image.data(), f.pixels.data(), f.pixels.size()) == 0;
}

void setBytes(benchmark::State& state, const Frame& f)
{
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * f.pixels.size()));
}

// The whole read, as a viewer does it.
template <class Reader>
void readDataBench(benchmark::State& state, const Frame* f, const std::string* path)
{
    DImage image;
    for (auto _ : state) {
        const Reader reader(path->c_str(), 0);
        reader.readData(image, nullptr);
        benchmark::DoNotOptimize(image.data());
    }
    if (!samePixels(image, *f))
        state.SkipWithError("frame differs");
    setBytes(state, *f);
}

// The file into memory and the pixels out of it, without the metadata.
template <class Reader>
void readPixelsBench(benchmark::State& state, const Frame* f, const std::string* path)
{
    DImage image(f->width, f->height, datatypes::INT, 4);
    for (auto _ : state) {
        const Reader reader(path->c_str(), 0);
        reader.readPixelData(image);
        benchmark::DoNotOptimize(image.data());
    }
    if (!samePixels(image, *f))
        state.SkipWithError("frame differs");
    setBytes(state, *f);
}

void memcpyBench(benchmark::State& state, const Frame* f)
{
    std::vector<char> out(f->pixels.size());
    for (auto _ : state) {
        std::memcpy(out.data(), f->pixels.data(), f->pixels.size());
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    setBytes(state, *f);
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    const std::filesystem::path dir =
        std::filesystem::temp_directory_path() / ("norvexa_bench_tif_edf_" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);

    const std::vector<norvexa_bench::NamedLayout> layouts = norvexa_bench::realSizes();
    std::vector<std::unique_ptr<Frame>> frames;
    for (const auto& layout : layouts) {
        auto f = std::make_unique<Frame>();
        f->name = layout.name;
        f->width = layout.layout.width;
        f->height = layout.layout.height;
        const std::vector<std::int32_t> pixels = norvexa_bench::detectorFrame<std::int32_t>(layout.layout);
        f->pixels.resize(pixels.size() * 4);
        std::memcpy(f->pixels.data(), pixels.data(), f->pixels.size()); // the host is little-endian
        f->tifPath = (dir / (f->name + ".tif")).string();
        f->edfPath = (dir / (f->name + ".edf")).string();
        writeFile(f->tifPath, tifFile(*f));
        writeFile(f->edfPath, edfFile(*f));
        const Frame* p = f.get();
        const std::string at = "/" + f->name;
        add("tif/read_data" + at, readDataBench<DTifReader>, p, &p->tifPath);
        add("tif/read_pixels" + at, readPixelsBench<DTifReader>, p, &p->tifPath);
        add("edf/read_data" + at, readDataBench<DEdfReader>, p, &p->edfPath);
        add("edf/read_pixels" + at, readPixelsBench<DEdfReader>, p, &p->edfPath);
        add("memcpy" + at, memcpyBench, p);
        frames.push_back(std::move(f));
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove_all(dir);
    return 0;
}

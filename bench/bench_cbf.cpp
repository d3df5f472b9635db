// Reading CBF files of realistic detector frames: the byte-offset decode alone (beside
// CBFlib decoding the same file, when it is linked), the whole read with its MD5 check
// and the MD5 share, and memcpy of the decoded bytes as the floor.
#include "common/DetectorFrames.h"

#include "DCbfReader.h"
#include "DMd5.h"

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#ifdef NORVEXA_BENCH_WITH_CBFLIB
#include <cbf.h>
#endif

using norvexa::imglib::DAbstractImageReader;
using norvexa::imglib::DCbfReader;
using norvexa::imglib::DImage;
using norvexa::imglib::DMd5;
namespace datatypes = norvexa::datatypes;

using norvexa_bench::add;

namespace {

// A frame written twice: with a Content-MD5 line, and without one (the decode alone).
struct CbfFile {
    std::string name;
    std::vector<std::int32_t> pixels;
    int width = 0, height = 0;
    std::string block;
    std::string path;          // with the sum
    std::string pathWithoutMd5;
};

std::string byteOffset(const std::vector<std::int32_t>& pixels)
{
    std::string out;
    out.reserve(pixels.size() + pixels.size() / 8);
    std::uint32_t previous = 0;
    for (std::int32_t pixel : pixels) {
        const auto d = static_cast<std::int32_t>(static_cast<std::uint32_t>(pixel) - previous);
        previous = static_cast<std::uint32_t>(pixel);
        if (d >= -127 && d <= 127) {
            out += static_cast<char>(d);
        } else if (d >= -32767 && d <= 32767) {
            const char bytes[] = {'\x80', static_cast<char>(d), static_cast<char>(d >> 8)};
            out.append(bytes, 3);
        } else {
            const char bytes[] = {'\x80', 0, '\x80', static_cast<char>(d), static_cast<char>(d >> 8),
                                  static_cast<char>(d >> 16), static_cast<char>(d >> 24)};
            out.append(bytes, 7);
        }
    }
    return out;
}

std::string cbfText(const CbfFile& f, bool withMd5)
{
    std::string md5Line;
    if (withMd5) {
        DMd5 md5;
        md5.hash(reinterpret_cast<const unsigned char*>(f.block.data()), f.block.size());
        md5Line = "Content-MD5: " + md5.toBase64() + "\r\n";
    }
    const std::string header =
        "###CBF: VERSION 1.5\r\n\r\ndata_" + f.name + "\r\n\r\n_array_data.header_convention \"SLS_1.0\"\r\n"
        "_array_data.header_contents\r\n;\r\n# Detector: BRENNIK 6M, SN 60-0100\r\n"
        "# 2011-06-14T10:22:33.125\r\n# Pixel_size 172e-6 m x 172e-6 m\r\n"
        "# Silicon sensor, thickness 0.000320 m\r\n# Exposure_time 0.0970000 s\r\n"
        "# Exposure_period 0.1000000 s\r\n# Count_cutoff 1048500 counts\r\n"
        "# Threshold_setting: 6400 eV\r\n# Gain_setting: autog (vrf = 1.000)\r\n"
        "# Wavelength 1.0332 A\r\n# Detector_distance 0.25000 m\r\n# Beam_xy (1231.50, 1263.50) pixels\r\n"
        ";\r\n\r\n_array_data.data\r\n;\r\n--CIF-BINARY-FORMAT-SECTION--\r\n"
        "Content-Type: application/octet-stream;\r\n     conversions=\"x-CBF_BYTE_OFFSET\"\r\n"
        "Content-Transfer-Encoding: BINARY\r\nX-Binary-Size: " + std::to_string(f.block.size()) +
        "\r\nX-Binary-ID: 1\r\nX-Binary-Element-Type: \"signed 32-bit integer\"\r\n"
        "X-Binary-Element-Byte-Order: LITTLE_ENDIAN\r\n" + md5Line +
        "X-Binary-Number-of-Elements: " + std::to_string(f.pixels.size()) +
        "\r\nX-Binary-Size-Fastest-Dimension: " + std::to_string(f.width) +
        "\r\nX-Binary-Size-Second-Dimension: " + std::to_string(f.height) +
        "\r\nX-Binary-Size-Padding: 4095\r\n\r\n\x0C\x1A\x04\xD5";
    return header + f.block + std::string(4095, '\0') +
           "\r\n--CIF-BINARY-FORMAT-SECTION----\r\n;\r\n\r\n";
}

void writeFile(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

DAbstractImageReader::Data fileData(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    DAbstractImageReader::Data data;
    data.resize(bytes.size());
    std::memcpy(data.data(), bytes.data(), bytes.size());
    return data;
}

bool samePixels(const void* decoded, const CbfFile& f)
{
    return std::memcmp(decoded, f.pixels.data(), f.pixels.size() * 4) == 0;
}

void setBytes(benchmark::State& state, const CbfFile& f)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.pixels.size() * 4));
    state.counters["ratio"] = double(f.pixels.size() * 4) / double(f.block.size());
}

// (a) The decode alone: a file without a sum, already in memory, into the same image.
void decodeBench(benchmark::State& state, const CbfFile* f)
{
    const DCbfReader reader(fileData(f->pathWithoutMd5), f->pathWithoutMd5);
    DImage image(f->width, f->height, datatypes::INT, 4);
    for (auto _ : state) {
        reader.readPixelData(image);
        benchmark::DoNotOptimize(image.data());
        benchmark::ClobberMemory();
    }
    if (!samePixels(image.data(), *f))
        state.SkipWithError("decoded frame differs");
    setBytes(state, *f);
}

// (c) The floor: copying the decoded bytes.
void memcpyBench(benchmark::State& state, const CbfFile* f)
{
    std::vector<std::int32_t> out(f->pixels.size());
    for (auto _ : state) {
        std::memcpy(out.data(), f->pixels.data(), out.size() * 4);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    setBytes(state, *f);
}

// (b) What reading the file into a DImage costs: the file, the header, the sum, the
// decode, the metadata and the mask.
void wholeReadBench(benchmark::State& state, const CbfFile* f, bool withMd5)
{
    const std::string& path = withMd5 ? f->path : f->pathWithoutMd5;
    DImage image;
    for (auto _ : state) {
        DCbfReader(path.c_str(), 0).readData(image, nullptr);
        benchmark::DoNotOptimize(image.data());
    }
    if (!samePixels(image.data(), *f))
        state.SkipWithError("decoded frame differs");
    setBytes(state, *f);
}

// The share of the MD5 check in the whole read: the digest of the block.
void md5Bench(benchmark::State& state, const CbfFile* f)
{
    DMd5 md5;
    for (auto _ : state) {
        md5.hash(reinterpret_cast<const unsigned char*>(f->block.data()), f->block.size());
        benchmark::DoNotOptimize(md5.toBase64());
    }
    setBytes(state, *f);
}

#ifdef NORVEXA_BENCH_WITH_CBFLIB
struct CbfHandle {
    cbf_handle handle = nullptr;
    CbfHandle() { cbf_make_handle(&handle); }
    ~CbfHandle() { cbf_free_handle(handle); }
    CbfHandle(const CbfHandle&) = delete;
    CbfHandle& operator=(const CbfHandle&) = delete;
};

// Opens the file (the handle owns the stream) and stands on the array data.
bool cbflibOpen(CbfHandle& cbf, const std::string& path, int flags)
{
    FILE* stream = std::fopen(path.c_str(), "rb");
    return stream && cbf_read_widefile(cbf.handle, stream, flags) == 0 &&
           cbf_find_category(cbf.handle, "array_data") == 0 && cbf_find_column(cbf.handle, "data") == 0;
}

bool cbflibDecode(CbfHandle& cbf, std::int32_t* out, std::size_t count)
{
    int id = 0;
    std::size_t read = 0;
    return cbf_get_integerarray(cbf.handle, &id, out, sizeof(std::int32_t), 1, count, &read) == 0 &&
           read == count;
}

// (a) CBFlib's decode of the same file (without a sum), the handle open.
void cbflibDecodeBench(benchmark::State& state, const CbfFile* f)
{
    CbfHandle cbf;
    std::vector<std::int32_t> out(f->pixels.size());
    if (!cbflibOpen(cbf, f->pathWithoutMd5, MSG_NODIGEST)) {
        state.SkipWithError("CBFlib can't open the file");
        return;
    }
    for (auto _ : state) {
        if (!cbflibDecode(cbf, out.data(), out.size())) {
            state.SkipWithError("CBFlib can't decode the file");
            return;
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    if (!samePixels(out.data(), *f))
        state.SkipWithError("CBFlib's frame differs");
    setBytes(state, *f);
}

// (b) CBFlib's whole read of the file with the sum checked.
void cbflibWholeBench(benchmark::State& state, const CbfFile* f)
{
    std::vector<std::int32_t> out(f->pixels.size());
    for (auto _ : state) {
        CbfHandle cbf;
        if (!cbflibOpen(cbf, f->path, MSG_DIGEST) || !cbflibDecode(cbf, out.data(), out.size())) {
            state.SkipWithError("CBFlib can't read the file");
            return;
        }
        benchmark::DoNotOptimize(out.data());
    }
    if (!samePixels(out.data(), *f))
        state.SkipWithError("CBFlib's frame differs");
    setBytes(state, *f);
}
#endif

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    const std::filesystem::path dir =
        std::filesystem::temp_directory_path() / ("norvexa_bench_cbf_" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);

    const std::vector<norvexa_bench::NamedLayout> frames = norvexa_bench::realSizes();
    std::vector<std::unique_ptr<CbfFile>> files;
    for (const auto& frame : frames) {
        auto f = std::make_unique<CbfFile>();
        f->name = frame.name;
        f->width = frame.layout.width;
        f->height = frame.layout.height;
        f->pixels = norvexa_bench::detectorFrame<std::int32_t>(frame.layout);
        f->block = byteOffset(f->pixels);
        f->path = (dir / (f->name + ".cbf")).string();
        f->pathWithoutMd5 = (dir / (f->name + "_nomd5.cbf")).string();
        writeFile(f->path, cbfText(*f, true));
        writeFile(f->pathWithoutMd5, cbfText(*f, false));
        const CbfFile* p = f.get();
        const std::string at = std::string("/") + f->name;
        add("decode/byte_offset" + at, decodeBench, p);
#ifdef NORVEXA_BENCH_WITH_CBFLIB
        add("decode/cbflib" + at, cbflibDecodeBench, p);
#endif
        add("decode/memcpy" + at, memcpyBench, p);
        add("read/whole" + at, wholeReadBench, p, true);
        add("read/whole_without_md5" + at, wholeReadBench, p, false);
        add("read/md5_share" + at, md5Bench, p);
#ifdef NORVEXA_BENCH_WITH_CBFLIB
        add("read/cbflib_whole" + at, cbflibWholeBench, p);
#endif
        files.push_back(std::move(f));
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove_all(dir);
    return 0;
}

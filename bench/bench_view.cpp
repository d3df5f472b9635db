// The viewer's pictures of a 16M frame (4148 x 4362, UINT 32, with its mask): fitted to a
// 1920 x 1080 screen (binned by maximum, coloured, PNG), a zoomed-in region, both also
// through the viewer's HTTP server on loopback from request to received PNG; and the
// PNG settings beside each other on the fitted picture (the bytes sent as a counter).

#include "common/DetectorFrames.h"

#include "DImageWriter.h"
#include "Picture.h"
#include "ViewServer.h"

#include <benchmark/benchmark.h>
#include <httplib.h>
#include <png.h>
#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <unistd.h>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

struct Frame {
    DImage image;
    DImage flags;
    view::Colouring colouring;
};

const Frame& frame16M()
{
    static const Frame frame = [] {
        const auto layout = norvexa_bench::layout16M();
        const auto pixels = norvexa_bench::detectorFrame<unsigned int>(layout);
        Frame f;
        f.image = DImage(layout.width, layout.height, 0u);
        std::memcpy(f.image.data(), pixels.data(), pixels.size() * sizeof(unsigned int));
        DImage mask(layout.width, layout.height, 0u);
        auto* m = reinterpret_cast<unsigned int*>(mask.data());
        for (std::size_t i = 0; i < mask.size(); ++i)
            m[i] = pixels[i] == 0xFFFFFFFFu ? 1u : (i % 5000 == 17 ? 2u : 0u);
        f.image.optionalData().set_pixel_mask(mask);
        f.flags = view::maskFlags(f.image);
        f.colouring.limits = view::autoLimits(f.image, f.flags);
        return f;
    }();
    return frame;
}

/// The region a 1920 x 1080 screen shows: the whole frame, or a zoomed-in part of it.
struct View {
    DRect region;
    int screenWidth, screenHeight;
};
const View kFitted{DRect(0, 0, 4148, 4362), 1920, 1080};
const View kZoomed{DRect(1500, 1800, 480, 270), 1920, 1080}; // 4 screen pixels a frame pixel
const View kOneToOne{DRect(1100, 1600, 1920, 1080), 1920, 1080};

void BM_Picture(benchmark::State& state, View v)
{
    const Frame& f = frame16M();
    std::size_t bytes = 0;
    for (auto _ : state) {
        const int bin = view::binFor(v.region.width(), v.region.height(), v.screenWidth, v.screenHeight);
        const std::string png = view::encodePng(view::colourRegion(f.image, f.flags, v.region, bin, f.colouring));
        bytes = png.size();
        benchmark::DoNotOptimize(png.data());
    }
    state.counters["png_bytes"] = static_cast<double>(bytes);
}

// The parts of the fitted picture: the bin by maximum alone, and the colours of its result.
void BM_BinFitted(benchmark::State& state)
{
    const Frame& f = frame16M();
    DImage binned, binnedFlags;
    for (auto _ : state) {
        view::binByMaximum(f.image, f.flags, kFitted.region, 5, binned, binnedFlags);
        benchmark::DoNotOptimize(binned.cdata());
    }
}

void BM_ColourBinned(benchmark::State& state)
{
    const Frame& f = frame16M();
    DImage binned, binnedFlags;
    view::binByMaximum(f.image, f.flags, kFitted.region, 5, binned, binnedFlags);
    const DRect all(0, 0, binned.width(), binned.height());
    for (auto _ : state) {
        const DImage picture = view::colourRegion(binned, binnedFlags, all, 1, f.colouring);
        benchmark::DoNotOptimize(picture.cdata());
    }
}

void BM_Png(benchmark::State& state, int level, int filters, int strategy)
{
    const Frame& f = frame16M();
    const int bin = view::binFor(4148, 4362, 1920, 1080);
    const DImage picture = view::colourRegion(f.image, f.flags, kFitted.region, bin, f.colouring);
    std::size_t bytes = 0;
    for (auto _ : state) {
        const std::string png = view::encodePng(picture, false, level, filters, strategy);
        bytes = png.size();
        benchmark::DoNotOptimize(png.data());
    }
    state.counters["png_bytes"] = static_cast<double>(bytes);
}

/// The viewer serving the frame from a TIFF file, its image already loaded.
struct Served {
    Served()
        : dir(std::filesystem::temp_directory_path() / ("bench_view_" + std::to_string(getpid()))),
          path((std::filesystem::create_directories(dir), dir / "frame_00001.tif").string()),
          server((DImageWriter::write(frame16M().image, path, DImageWriter::TIF), path)),
          client("127.0.0.1", server.start())
    {
        client.set_read_timeout(60, 0);
        client.Get("/api/render?sw=16&sh=16");
    }
    ~Served()
    {
        server.stop();
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    }
    std::filesystem::path dir;
    std::string path;
    view::ViewServer server;
    httplib::Client client;
};

void BM_Http(benchmark::State& state, View v)
{
    static Served served;
    const Frame& f = frame16M();
    const std::string query = "/api/render?image=1&x=" + std::to_string(v.region.left()) +
                              "&y=" + std::to_string(v.region.top()) + "&w=" + std::to_string(v.region.width()) +
                              "&h=" + std::to_string(v.region.height()) + "&sw=" + std::to_string(v.screenWidth) +
                              "&sh=" + std::to_string(v.screenHeight) + "&low=" +
                              std::to_string(f.colouring.limits.low) + "&high=" +
                              std::to_string(f.colouring.limits.high) + "&loghigh=" +
                              std::to_string(f.colouring.limits.logHigh);
    for (auto _ : state) {
        const auto res = served.client.Get(query.c_str());
        if (!res || res->status != 200) {
            state.SkipWithError("request failed");
            break;
        }
        benchmark::DoNotOptimize(res->body.data());
    }
}

// What the server does for each live image it displays: a 2463 x 2527 UINT 32 chunk in
// bitshuffle-LZ4 as the stream brings it, decoded, its automatic limits, and its picture
// fitted to a 1614 x 904 view (the page's in a 1920 x 1080 window), as PNG. The mask
// flags are taken once per series and are left out.
void BM_LiveImage(benchmark::State& state)
{
    const auto layout = norvexa_bench::layout6M();
    const auto pixels = norvexa_bench::detectorFrame<unsigned int>(layout);
    DImage plain(layout.width, layout.height, 0u);
    std::memcpy(plain.data(), pixels.data(), pixels.size() * sizeof(unsigned int));
    DBasicImage chunk = plain.imageData();
    chunk.setFilter(image::DCompression::FILTER_BS32_LZ4, 0);
    const DImage flags = view::maskFlags(plain);
    const DRect all(0, 0, layout.width, layout.height);
    std::size_t bytes = 0;
    for (auto _ : state) {
        const DImage frame(chunk);
        view::Colouring colouring;
        colouring.limits = view::autoLimits(frame, flags);
        const int bin = view::binFor(layout.width, layout.height, 1614, 904);
        const std::string png = view::encodePng(view::colourRegion(frame, flags, all, bin, colouring));
        bytes = png.size();
        benchmark::DoNotOptimize(png.data());
    }
    state.counters["png_bytes"] = static_cast<double>(bytes);
    state.counters["images_per_s"] = benchmark::Counter(static_cast<double>(state.iterations()),
                                                        benchmark::Counter::kIsRate);
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    frame16M();
    using norvexa_bench::add;
    add("Picture/16M_fitted_1920x1080", BM_Picture, kFitted);
    add("Picture/16M_zoomed_4x_480x270", BM_Picture, kZoomed);
    add("Picture/16M_one_to_one_1920x1080", BM_Picture, kOneToOne);
    add("Bin/16M_fitted_by_5", BM_BinFitted);
    add("Colour/16M_fitted_binned_830x873", BM_ColourBinned);
    add("Live/6M_bslz4_image_to_fitted_png", BM_LiveImage);
    add("Http/16M_fitted_1920x1080", BM_Http, kFitted);
    add("Http/16M_zoomed_4x_480x270", BM_Http, kZoomed);
    add("Http/16M_one_to_one_1920x1080", BM_Http, kOneToOne);
    // The viewer's choice first, then the others measured.
    add("Png/fitted/level1_none", BM_Png, 1, PNG_FILTER_NONE, Z_DEFAULT_STRATEGY);
    add("Png/fitted/level1_none_rle", BM_Png, 1, PNG_FILTER_NONE, Z_RLE);
    add("Png/fitted/level1_up", BM_Png, 1, PNG_FILTER_UP, Z_DEFAULT_STRATEGY);
    add("Png/fitted/level1_up_rle", BM_Png, 1, PNG_FILTER_UP, Z_RLE);
    add("Png/fitted/level1_sub", BM_Png, 1, PNG_FILTER_SUB, Z_DEFAULT_STRATEGY);
    add("Png/fitted/level1_none_huffman", BM_Png, 1, PNG_FILTER_NONE, Z_HUFFMAN_ONLY);
    add("Png/fitted/level6_all (libpng default)", BM_Png, 6, PNG_ALL_FILTERS, Z_DEFAULT_STRATEGY);
    add("Png/fitted/level0_none (stored)", BM_Png, 0, PNG_FILTER_NONE, Z_DEFAULT_STRATEGY);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

#include "TestHelpers.h"

#include "../clients/SimulatorFixture.h"
#include "DColorMap.h"
#include "DColorTable.h"
#include "DImageSeries.h"
#include "DImageWriter.h"
#include "DOrvikStream.h"
#include "Picture.h"
#include "ViewServer.h"
#include "ViewTarget.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <png.h>

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

/// A decoded PNG: RGB words 0x00RRGGBB.
struct Picture {
    int width = 0, height = 0;
    std::vector<std::uint32_t> rgb;
    std::uint32_t at(int x, int y) const { return rgb.at(std::size_t(y) * width + x); }
};

Picture decodePng(const std::string& bytes)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    Picture picture;
    std::vector<unsigned char> buffer;
    if (png_image_begin_read_from_memory(&image, bytes.data(), bytes.size())) {
        image.format = PNG_FORMAT_RGB;
        buffer.resize(PNG_IMAGE_SIZE(image));
    }
    if (buffer.empty() || !png_image_finish_read(&image, nullptr, buffer.data(), 0, nullptr)) {
        ADD_FAILURE() << "not a PNG";
        return picture;
    }
    picture.width = static_cast<int>(image.width);
    picture.height = static_cast<int>(image.height);
    for (std::size_t i = 0; i + 2 < buffer.size(); i += 3)
        picture.rgb.push_back((std::uint32_t(buffer[i]) << 16) | (std::uint32_t(buffer[i + 1]) << 8) | buffer[i + 2]);
    return picture;
}

/// The library's own colours of a frame region, without alpha.
std::vector<std::uint32_t> libraryColours(const DImage& frame, DRect rect, double low, double high, double logHigh,
                                          const DColorTable& table)
{
    const DImage argb = DColorMap::rgb(frame, high, low, logHigh, table, "ARGB", nullptr, &rect, INT_MAX, true, false);
    const auto* p = reinterpret_cast<const std::uint32_t*>(argb.cdata());
    std::vector<std::uint32_t> rgb(p, p + argb.size());
    for (auto& c : rgb)
        c &= 0xffffffu;
    return rgb;
}

/// A viewer on `target`, served on a free port of 127.0.0.1, and a client to it.
struct Viewer {
    explicit Viewer(const std::string& target) : server(target), client("127.0.0.1", server.start())
    {
        client.set_read_timeout(10, 0);
    }
    httplib::Result get(const std::string& path) { return client.Get(path.c_str()); }
    int status(const std::string& path)
    {
        const auto res = get(path);
        return res ? res->status : -1;
    }
    /// A rendered picture, which must come with status 200 and the given size.
    Picture render(const std::string& query, int width, int height, httplib::Headers* headers = nullptr)
    {
        const auto res = get("/api/render?" + query);
        if (!res || res->status != 200) {
            ADD_FAILURE() << query << ": status " << (res ? res->status : -1);
            return {};
        }
        if (headers)
            *headers = res->headers;
        Picture picture = decodePng(res->body);
        EXPECT_EQ(picture.width, width) << query;
        EXPECT_EQ(picture.height, height) << query;
        return picture;
    }
    view::ViewServer server;
    httplib::Client client;
};

const std::string kMaster = norvexa_test::dataPath("hdf5/uint32_bslz4_master.h5").string();

} // namespace

TEST(ViewServer, RegionIsTheLibrarysColoursPixelForPixel)
{
    Viewer viewer(kMaster);
    DImageSeries series(kMaster);
    const DImage frame = series[3];
    // The fixture's mask: row 6 a gap, (3, 2) a gap, (7, 5) defective; all inside the region.
    const DRect rect(2, 1, 15, 10);
    struct Case {
        const char* label;
        std::string query;
        const DColorTable& table;
        double low, high, logHigh;
    };
    const Case cases[] = {
        {"hdr with its logarithmic section", "table=hdr&low=3000&high=3300&loghigh=3600", DColorTable::hdr(), 3000, 3300, 3600},
        {"heat reversed", "table=heat&reverse=1&low=3100&high=3500&loghigh=9000",
         *DColorTable::heat().inverseTable(), 3100, 3500, 9000},
        {"rainbow", "table=rainbow&low=2900&high=3700&loghigh=9000", DColorTable::rainbow(), 2900, 3700, 9000},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        const Picture picture = viewer.render("image=3&x=2&y=1&w=15&h=10&sw=300&sh=200&" + c.query, 15, 10);
        EXPECT_EQ(picture.rgb, libraryColours(frame, rect, c.low, c.high, c.logHigh, c.table));
    }
    // The mask's colours are in it: black gaps, the defective colour.
    const Picture picture = viewer.render("image=3&x=2&y=1&w=15&h=10&low=3000&high=3300&loghigh=3600", 15, 10);
    EXPECT_EQ(picture.at(0, 5), 0x000000u);
    EXPECT_EQ(picture.at(5, 4), DColorTable::hdr().defectiveColor() & 0xffffffu);
}

TEST(ViewServer, BinningByMaximumKeepsAnIsolatedBrightPixel)
{
    norvexa_test::TempDir dir;
    DImage frame(400, 300, 10u);
    frame.setPixel<unsigned int>(203, 137, 50000u);
    frame.setPixel<unsigned int>(17, 290, 0xFFFFFFFFu); // masked below: must not show as a spot
    DImage mask(400, 300, 0u);
    mask.setPixel<unsigned int>(17, 290, 2u);
    for (int x = 0; x < 400; ++x)
        mask.setPixel<unsigned int>(x, 150, 1u); // a gap row
    frame.optionalData().set_pixel_mask(mask);
    const std::string path = (dir.path() / "spot_00001.tif").string();
    DImageWriter::write(frame, path, DImageWriter::TIF);

    Viewer viewer(path);
    const Picture picture = viewer.render("x=0&y=0&w=400&h=300&sw=40&sh=30&low=0&high=100&loghigh=60000", 40, 30);
    const auto colour = [&](double value) {
        DImage one(1, 1, value);
        return libraryColours(one, DRect(0, 0, 1, 1), 0, 100, 60000, DColorTable::hdr())[0];
    };
    EXPECT_EQ(picture.at(20, 13), colour(50000)) << "the spot survives a 10 x 10 bin";
    EXPECT_EQ(picture.at(21, 13), colour(10));
    EXPECT_EQ(picture.at(1, 29), colour(10)) << "a defective pixel does not outshine its bin";
    EXPECT_EQ(picture.at(5, 15), colour(10)) << "a bin only partly in the gap shows its valid pixels";

    // A partial last bin: 7 columns in bins of 4.
    DImage binned, binnedFlags;
    view::binByMaximum(frame, view::maskFlags(frame), DRect(200, 137, 7, 1), 4, binned, binnedFlags);
    ASSERT_EQ(binned.width(), 2);
    EXPECT_EQ(binned.pixel<unsigned int>(0, 0, 0), 50000u);
    EXPECT_EQ(binned.pixel<unsigned int>(1, 0, 0), 10u);
}

TEST(ViewServer, BadParametersAre400AndRegionsAreClipped)
{
    Viewer viewer(kMaster);
    for (const char* query : {"sw=0", "sw=abc", "sh=100000", "x=1e3", "low=nan", "high=inf", "loghigh=", "table=sepia",
                              "reverse=2", "x=19", "y=-13", "w=0", "x=-1000000000000000000000", "image=two"}) {
        SCOPED_TRACE(query);
        EXPECT_EQ(viewer.status(std::string("/api/render?") + query), 400);
    }
    for (const char* path : {"/api/pixel?image=1&x=19&y=0", "/api/pixel?image=1&x=0&y=-1", "/api/overlay?image=1",
                             "/api/legend?h=100&low=0&high=1", "/api/legend?h=1000000&low=0&high=1&loghigh=10"})
        EXPECT_EQ(viewer.status(path), 400) << path;
    for (const char* path : {"/api/render?image=0", "/api/render?image=6", "/api/live"})
        EXPECT_EQ(viewer.status(path), 404) << path;

    // Partly outside: clipped to the frame.
    httplib::Headers headers;
    viewer.render("image=2&x=-5&y=10&w=10&h=100&sw=64&sh=64", 5, 3, &headers);
    EXPECT_EQ(headers.find("X-Region")->second, "0,10,5,3");
}

TEST(ViewServer, OnlyItsOwnPageAndRoutes)
{
    Viewer viewer(kMaster);
    for (const char* path : {"/", "/view.js", "/view.css", "/api/info"})
        EXPECT_EQ(viewer.status(path), 200) << path;
    for (const char* path : {"/../../../../etc/passwd", "/%2e%2e/%2e%2e/etc/passwd", "/view.js/../../etc/passwd",
                             "/assets/view.js", "/index.html", "/api", "/api/render/../../etc/passwd",
                             "/data/hdf5/uint32_bslz4_master.h5", "//etc/passwd", "/api/info/x"})
        EXPECT_EQ(viewer.status(path), 404) << path;
}

TEST(ViewServer, PixelAndHeader)
{
    Viewer viewer(kMaster);
    // value(n, y, x) = n * 1000 + y * 37 + x * 3.
    const auto pixel = viewer.get("/api/pixel?image=4&x=10&y=3");
    ASSERT_TRUE(pixel);
    EXPECT_EQ(pixel->body, R"({"flags":0,"image":4,"mask":"","value":"4141","x":10,"y":3})");
    EXPECT_NE(viewer.get("/api/pixel?image=4&x=3&y=2")->body.find(R"("mask":"gap")"), std::string::npos);
    EXPECT_NE(viewer.get("/api/pixel?image=4&x=7&y=5")->body.find(R"("mask":"defective")"), std::string::npos);

    const std::string header = viewer.get("/api/header?image=2")->body;
    for (const char* item : {R"("image":2)", R"(["count_time","0.1","s"])", R"(["wavelength","1.0332","A"])"})
        EXPECT_NE(header.find(item), std::string::npos) << item << " in " << header;
}

namespace {

class LiveView : public SimulatorTest {
protected:
    void SetUp() override {}
};

} // namespace

TEST_F(LiveView, EveryReceivedImageIsDisplayedOrSkippedAcrossSeries)
{
    startServer();
    DOrvikStream("127.0.0.1", port).setEnabled(true, noAbort);
    Viewer viewer("127.0.0.1:" + std::to_string(server->dataPort()));
    EXPECT_EQ(viewer.status("/api/render?image=live&after=0&wait=0"), 204);
    EXPECT_EQ(viewer.status("/api/render?image=3"), 400);

    DOrvikDetector detector("127.0.0.1", port);
    std::uint64_t sequence = 0, drawn = 0;
    for (int series = 0; series < 2; ++series) {
        SCOPED_TRACE(series);
        waitForIdle();
        detector.setNImages(12, noAbort);
        detector.arm(noAbort);
        detector.trigger(noAbort);
        // Draw what comes, slowly enough that some images are skipped.
        for (int i = 0; i < 200; ++i) {
            const auto res = viewer.get("/api/render?image=live&wait=0.5&sw=32&sh=32&after=" + std::to_string(sequence));
            ASSERT_TRUE(res);
            if (res->status == 204)
                break;
            ASSERT_EQ(res->status, 200);
            EXPECT_GT(std::stoull(res->get_header_value("X-Sequence")), sequence);
            sequence = std::stoull(res->get_header_value("X-Sequence"));
            EXPECT_EQ(res->get_header_value("X-Frame-Size"), "64,48");
            ++drawn;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    const view::LiveCounts counts = viewer.server.target().counts();
    EXPECT_EQ(counts.received, 24u);
    EXPECT_EQ(counts.displayed, drawn);
    EXPECT_EQ(counts.received, counts.displayed + counts.skipped + counts.waiting);
    EXPECT_EQ(counts.waiting, 0u);
    EXPECT_TRUE(counts.seriesEnded);
    EXPECT_EQ(counts.seriesImages, 12u);
    EXPECT_NE(viewer.get("/api/live")->body.find("\"received\":24"), std::string::npos);
}

TEST(ViewPicture, MaskFlagsAreWhatTheColourMappingReads)
{
    DImage frame(4, 1, 7);
    frame.setPixel<int>(1, 0, -1);
    frame.setPixel<int>(2, 0, -2);
    const auto flagsOf = [](const DImage& flags) {
        std::vector<int> out;
        for (int x = 0; x < flags.width(); ++x)
            out.push_back(flags.pixel<unsigned char>(x, 0, 255));
        return out;
    };
    {
        SCOPED_TRACE("an int mask: bits 0 to 4 of its absolute value");
        DImage mask(4, 1, 0);
        mask.setPixel<int>(0, 0, -1);
        mask.setPixel<int>(1, 0, 34); // bit 5 is no flag
        mask.setPixel<int>(3, 0, -6);
        EXPECT_EQ(flagsOf(view::flagsOfMask(mask)), (std::vector<int>{1, 2, 0, 6}));
    }
    {
        SCOPED_TRACE("a bool mask marks gaps only");
        DImage mask(4, 1, false);
        mask.setPixel<bool>(2, 0, true);
        EXPECT_EQ(flagsOf(view::flagsOfMask(mask)), (std::vector<int>{0, 0, 1, 0}));
    }
    {
        SCOPED_TRACE("a floating mask is ignored, as by DColorMap::rgb");
        EXPECT_TRUE(view::flagsOfMask(DImage(4, 1, 1.0)).empty());
    }
    {
        SCOPED_TRACE("without a mask, the invalid-pixel codes");
        EXPECT_EQ(flagsOf(view::maskFlags(frame)), (std::vector<int>{0, 1, 2, 0}));
        DImage unsignedFrame(3, 1, 5u);
        unsignedFrame.setPixel<unsigned int>(0, 0, 0xFFFFFFFFu);
        unsignedFrame.setPixel<unsigned int>(2, 0, 0xFFFFFFFEu);
        EXPECT_EQ(flagsOf(view::maskFlags(unsignedFrame)), (std::vector<int>{1, 0, 2}));
        EXPECT_TRUE(view::maskFlags(DImage(3, 1, static_cast<unsigned short>(65535))).empty());
    }
    {
        SCOPED_TRACE("a mask in the metadata wins over the codes; one of another size is dropped");
        DImage withMask = frame;
        DImage mask(4, 1, 0u);
        mask.setPixel<unsigned int>(3, 0, 1u);
        withMask.optionalData().set_pixel_mask(mask);
        EXPECT_EQ(flagsOf(view::maskFlags(withMask)), (std::vector<int>{0, 0, 0, 1}));
        withMask.optionalData().set_pixel_mask(DImage(5, 1, 1u));
        EXPECT_EQ(flagsOf(view::maskFlags(withMask)), (std::vector<int>{0, 1, 2, 0}));
    }
    {
        SCOPED_TRACE("the logarithmic top ignores codes and flagged pixels");
        DImage coded(4, 1, 10u);
        coded.setPixel<unsigned int>(0, 0, 0xFFFFFFFFu);
        coded.setPixel<unsigned int>(1, 0, 900u);
        EXPECT_EQ(view::autoLimits(coded, DImage()).logHigh, 900);
    }
}

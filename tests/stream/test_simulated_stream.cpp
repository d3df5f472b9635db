#include "TestHelpers.h"

#include "../../examples/DiffractionFrame.h"
#include "../clients/SimulatorFixture.h"
#include "DHdf5Writer.h"
#include "DHttpException.h"
#include "DImage.h"
#include "DOrvikDetector.h"
#include "DOrvikStream.h"
#include "DStreamClient.h"
#include "foundation/DException.h"

#include <cstring>
#include <memory>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

/// The simulated detector with its stream enabled and a client on its data port.
class SimulatedStream : public SimulatorTest {
protected:
    // Started by each test, which may first write a file for the stream to replay.
    void SetUp() override {}
    void start(const std::string& master = "")
    {
        startServer(master);
        rest = std::make_unique<DOrvikStream>("127.0.0.1", port);
        client = std::make_unique<DStreamClient>("127.0.0.1", server->dataPort());
        rest->setEnabled(true, noAbort);
    }
    void setting(const std::string& name, const Json::Value& value)
    {
        ASSERT_EQ(server->parameters().put("stream", "config", name, value).status, 200) << name;
    }
    void acquire(int images)
    {
        // The end message of a series goes out just before the detector is idle again.
        waitForIdle();
        DOrvikDetector detector("127.0.0.1", port);
        detector.setNImages(images, noAbort);
        detector.arm(noAbort);
        detector.trigger(noAbort);
    }
    DStreamObject pop() { return client->pop(5, noAbort); }

    std::unique_ptr<DOrvikStream> rest;
    std::unique_ptr<DStreamClient> client;
};

std::string pixels(const DImage& image)
{
    return std::string(image.cdata(), image.size() * image.dataSize());
}

} // namespace

TEST_F(SimulatedStream, EveryEncodingAndDetailLevel)
{
    start();
    // Encoding and detail level are independent: each encoding meets one level.
    const struct {
        const char* encoding;
        const char* type;
        image::DCompression::FILTER filter;
        const char* detail;
        bool configuration, flatfield;
    } cases[] = {
        {"<", "uint32", image::DCompression::FILTER_NONE, "none", false, false},
        {"lz4<", "uint32", image::DCompression::FILTER_LZ4, "basic", true, false},
        {"bs16-lz4<", "uint16", image::DCompression::FILTER_BS16_LZ4, "all", true, true},
        {"bs32-lz4<", "float32", image::DCompression::FILTER_BS32_LZ4, "none", false, false},
    };
    std::uint64_t series = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.encoding) + " " + c.detail);
        setting("encoding", c.encoding);
        setting("pixel_type", c.type);
        rest->setHeaderDetail(c.detail, noAbort);
        acquire(3);
        const DStreamObject header = pop();
        ASSERT_EQ(header.type(), DStreamObject::CONFIG);
        EXPECT_GT(header.config().seriesId(), series);
        series = header.config().seriesId();
        const nexus::DNeXusTree tree = header.config().config();
        const std::string flatfield = "/entry/instrument/detector/detectorSpecific/flatfield";
        EXPECT_EQ(tree.size() > 1, c.configuration);
        if (c.configuration) {
            EXPECT_EQ(tree.at(flatfield).asData().data().size(), c.flatfield ? 64u * 48u : 0u);
        }
        for (unsigned frame = 1; frame <= 3; ++frame) {
            const DStreamObject image = pop();
            ASSERT_EQ(image.type(), DStreamObject::DATA);
            EXPECT_EQ(image.data().imageId(), frame);
            EXPECT_EQ(image.data().data().filter(), c.filter);
            const DImage sent = demo::diffractionFrame(64, 48, 6 + frame);
            const DImage expected = std::string(c.type) == "uint16"    ? sent.asType<unsigned short>()
                                    : std::string(c.type) == "float32" ? sent.asType<float>()
                                                                       : sent.asType<unsigned int>();
            EXPECT_TRUE(pixels(DImage(image.data().data())) == pixels(expected));
        }
        EXPECT_EQ(pop().end().seriesId(), series);
    }
}

TEST_F(SimulatedStream, RestControlAndFaultKnobs)
{
    start();
    EXPECT_EQ(rest->version(), "1.8.0");
    EXPECT_TRUE(rest->enabled(noAbort));
    rest->setHeaderDetail("all", noAbort);
    EXPECT_EQ(rest->headerDetail(noAbort), "all");
    // Nothing is checked on the way out: the server refuses an unknown detail.
    EXPECT_THROW(rest->setHeaderDetail("most", noAbort), DHttpException);
    EXPECT_EQ(rest->dropped(noAbort), 0);

    setting("drop_every", 2);
    setting("malformed", "shape");
    setting("stop_before_end", true);
    acquire(4);
    EXPECT_EQ(pop().type(), DStreamObject::CONFIG);
    EXPECT_THROW_MSG(pop(), DRuntimeException, "Error parsing ORVIK stream: \"DZmqSocket\":183");
    EXPECT_EQ(pop().data().imageId(), 1u);
    EXPECT_EQ(pop().data().imageId(), 3u);
    EXPECT_THROW(client->pop(0.3, noAbort), DTimeoutException);
    EXPECT_EQ(rest->dropped(noAbort), 2);
    rest->setEnabled(false, noAbort);
    EXPECT_FALSE(rest->enabled(noAbort));
}

TEST_F(SimulatedStream, AMasterFileReplayedChunkByChunk)
{
    const std::string base = (files.path() / "replay.h5").string();
    std::vector<DImage> frames;
    {
        DHdf5Writer writer(base, 0, nexus::DNeXusTree(), image::DCompression::FILTER_BS32_LZ4);
        for (unsigned seed : {3u, 4u}) {
            frames.push_back(demo::diffractionFrame(40, 30, seed).asType<unsigned int>());
            writer.write(frames.back());
        }
    }
    start(base);
    setting("encoding", "<"); // the file's own encoding wins
    acquire(2);
    EXPECT_EQ(pop().type(), DStreamObject::CONFIG);
    for (const DImage& frame : frames) {
        const auto chunk = pop().data().data();
        EXPECT_EQ(chunk.filter(), image::DCompression::FILTER_BS32_LZ4);
        EXPECT_TRUE(pixels(DImage(chunk)) == pixels(frame));
    }
    EXPECT_EQ(pop().type(), DStreamObject::END);
}

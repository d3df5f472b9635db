#include "StreamSender.h"
#include "TestHelpers.h"

#include "DImage.h"
#include "DStreamTables.h"
#include "DZmqContext.h"
#include "DZmqMemorySource.h"
#include "DZmqSocket.h"
#include "foundation/DException.h"

#include <sys/resource.h>

#include <cstdint>
#include <cstring>
#include <iostream>

using namespace norvexa;
using namespace norvexa::imglib;
using stream_test::Parts;

namespace {

/// A socket on its own context, connected to a fresh sender.
struct Link {
    stream_test::Sender sender;
    DZmqContext context;
    DZmqSocket socket{context, "127.0.0.1", sender.port()};

    /// Sends and receives one message (a sender only delivers once the socket connected).
    DStreamObject roundTrip(const Parts& parts)
    {
        sender.send(parts);
        return socket.recv();
    }
};

std::string parseErrorText(int line)
{
    return "Error parsing ORVIK stream: \"DZmqSocket\":" + std::to_string(line);
}

template <class T>
std::string bytesOf(const std::vector<T>& values)
{
    return std::string(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(T));
}

std::vector<std::uint32_t> rampFrame(std::size_t n, std::uint32_t top)
{
    std::vector<std::uint32_t> pixels(n);
    for (std::size_t i = 0; i < n; ++i)
        pixels[i] = static_cast<std::uint32_t>((i * 2654435761u) % top);
    return pixels;
}

const std::string BASIC_HEADER = stream_test::headerPart(1, "basic");
const std::string GOOD_IMAGE_HEADER = stream_test::imageHeader(2, 2, "uint32", "<", 16);

} // namespace

TEST(ZmqSocket, EveryMalformedMessageHasItsLineAndTheStreamGoesOn)
{
    const std::string flat = stream_test::imageHeader(2, 2, "float32", "<", 16, "dflatfield-1.0");
    const std::string all = stream_test::headerPart(1, "all");
    const std::string pixels(16, '\0');
    const struct {
        int line;
        Parts message;
    } cases[] = {
        {110, {BASIC_HEADER, R"({"detector_translation":[0.5, 1]})"}},
        {166, {BASIC_HEADER, R"({"detector_translation":[[1], [2]]})"}},
        {180, {R"({"htype":"dimage-1.0","frame":1})", "not json"}},
        {182, {R"({"htype":"dimage-1.0","frame":1})", R"({"shape":5,"type":"uint32"})"}},
        {182, {R"({"htype":"dimage-1.0","frame":1})", R"({"shape":["a",2],"type":"uint32"})"}},
        {183, {R"({"htype":"dimage-1.0","frame":1})", R"({"shape":[1,2,3],"type":"uint32"})"}},
        {197, {R"({"htype":"dimage-1.0","frame":1})", R"({"shape":[1,2],"type":"int32"})"}},
        {217, {R"({"htype":"dimage-1.0","frame":1})",
               R"({"shape":[1,2],"type":"uint32","encoding":"lz4<"})"}},
        {361, {BASIC_HEADER}},
        {369, {BASIC_HEADER, "{nope"}},
        {386, {all, "{}"}},
        {396, {all, "{}", stream_test::imageHeader(2, 2, "float32", "<", 16, "dpixelmask-1.0")}},
        {405, {all, "{}", flat}},
        {422, {all, "{}", flat, pixels}},
        {429, {all, "{}", flat, pixels, flat}},
        {438, {all, "{}", flat, pixels,
               stream_test::imageHeader(2, 2, "uint32", "<", 16, "dpixelmask-1.0")}},
        {454, {all, "{}", flat, pixels,
               stream_test::imageHeader(2, 2, "uint32", "<", 16, "dpixelmask-1.0"), pixels}},
        {461, {all, "{}", flat, pixels,
               stream_test::imageHeader(2, 2, "uint32", "<", 16, "dpixelmask-1.0"), pixels, flat}},
        {470, {all, "{}", flat, pixels,
               stream_test::imageHeader(2, 2, "uint32", "<", 16, "dpixelmask-1.0"), pixels,
               stream_test::imageHeader(2, 2, "uint32", "<", 16, "dcountrate_table-1.0")}},
        {516, {R"({"htype":"dimage-1.0","frame":1})",
               stream_test::imageHeader(2, 2, "uint32", "<", 16, "dimage-1.0")}},
        {518, {R"({"htype":"dimage-1.0","frame":1})"}},
        {529, {R"({"htype":"dimage-1.0","frame":1})", GOOD_IMAGE_HEADER}},
        {531, {R"({"htype":"dimage-1.0","frame":1})", stream_test::imageHeader(4096, 4096, "uint32", "<", 64),
               std::string(20, '\0')}},
        {531, {all, "{}", stream_test::imageHeader(65536, 65536, "float32", "<", 100, "dflatfield-1.0"),
               std::string(100, '\0')}},
        {532, {R"({"htype":"dimage-1.0","frame":1})", stream_test::imageHeader(2, 2, "uint32", "bs32-lz4<", 40),
               stream_test::encodeAs("bs32-lz4<", std::string(32, '\1'))}},
        {574, {"]"}},
        {578, {R"({"series":1})"}},
        {578, {"[1,2]"}},
        {580, {R"({"htype":7})"}},
        {585, {R"({"htype":"dheader-1.0","header_detail":"none"})"}},
        {586, {R"({"htype":"dheader-1.0","series":"one","header_detail":"none"})"}},
        {586, {R"({"htype":"dheader-1.0","series":-1,"header_detail":"none"})"}},
        {590, {R"({"htype":"dheader-1.0","series":1})"}},
        {591, {R"({"htype":"dheader-1.0","series":1,"header_detail":["all"]})"}},
        {599, {R"({"htype":"dheader-1.0","series":1,"header_detail":"everything"})"}},
        {607, {R"({"htype":"dimage-1.0"})"}},
        {608, {R"({"htype":"dimage-1.0","frame":{}})"}},
        {615, {R"({"htype":"dseries_end-1.0"})"}},
        {616, {R"({"htype":"dseries_end-1.0","series":"x"})"}},
        {619, {R"({"htype":"dhead"})"}},
        {619, {R"({"htype":"dimages-1.0"})"}},
    };
    Link link;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        link.sender.send(c.message);
        EXPECT_THROW_MSG(link.socket.recv(), DRuntimeException, parseErrorText(c.line));
    }
    // The socket is as good as new after all that.
    const DStreamObject end = link.roundTrip({stream_test::endPart(42)});
    ASSERT_EQ(end.type(), DStreamObject::END);
    EXPECT_EQ(end.end().seriesId(), 42u);
}

TEST(ZmqSocket, HeaderMessagesAndVersionedTypes)
{
    Link link;
    {
        SCOPED_TRACE("none, with parts that the next receive stumbles on");
        const DStreamObject none = link.roundTrip({stream_test::headerPart(7, "none"), "junk"});
        ASSERT_EQ(none.type(), DStreamObject::CONFIG);
        EXPECT_EQ(none.config().seriesId(), 7u);
        EXPECT_EQ(none.config().config().size(), 1u);
        EXPECT_THROW_MSG(link.socket.recv(), DRuntimeException, parseErrorText(574));
    }
    {
        SCOPED_TRACE("basic: every key has a node, units on the physical ones");
        const std::string config = R"({"wavelength":1, "count_time":0.5, "description":"Pixel 16M",
            "nimages":3000000000, "summation_nimages":5000000000, "detector_number":-5000000000, "pixel_mask_applied":true,
            "detector_translation":[0.5, 1.5, 2.0], "element":["Cu","Fe","Mo1"],
            "ntrigger":[1,2], "flatfield":[], "countrate_correction_table":{}, "unknown_key":5})";
        const DStreamObject basic = link.roundTrip({BASIC_HEADER, config, "dropped"});
        const nexus::DNeXusTree tree = basic.config().config();
        for (const auto& [key, path] : NEXUS_PATH) {
            SCOPED_TRACE(key);
            const auto attributes = tree.at(path).asData().attributes();
            const auto unit = NEXUS_UNIT.find(key);
            ASSERT_EQ(attributes.size(), unit == NEXUS_UNIT.end() ? 0u : 1u);
            if (unit != NEXUS_UNIT.end()) {
                std::string units;
                attributes[0]->asData().asType(units, 1);
                EXPECT_EQ(attributes[0]->name(), "units");
                EXPECT_EQ(units, unit->second);
            }
        }
        const auto value = [&](const std::string& key) {
            return tree.at(NEXUS_PATH.at(key)).asData().data();
        };
        const struct {
            const char* key;
            datatypes::Type type;
            unsigned long bits;
            std::size_t size;
        } expected[] = {
            {"wavelength", datatypes::INT, 32, 1},     {"count_time", datatypes::FLOAT, 64, 1},
            {"description", datatypes::CHAR, 72, 1},   {"nimages", datatypes::UINT, 32, 1},
            {"summation_nimages", datatypes::UINT, 64, 1},
            {"detector_number", datatypes::INT, 64, 1}, {"pixel_mask_applied", datatypes::BOOL, 8, 1},
            {"detector_translation", datatypes::FLOAT, 32, 3},
            {"element", datatypes::CHAR, 24, 3},       {"ntrigger", datatypes::INT, 32, 2},
            {"flatfield", datatypes::INT, 32, 0},      {"countrate_correction_table", datatypes::INT, 32, 0},
            {"pixel_mask", datatypes::NONE, 0, 0},
        };
        for (const auto& e : expected) {
            SCOPED_TRACE(e.key);
            EXPECT_EQ(value(e.key).type(), e.type);
            EXPECT_EQ(value(e.key).typeBits(), e.bits);
            EXPECT_EQ(value(e.key).size(), e.size);
        }
        EXPECT_EQ(std::string(value("element").cdata(), 9), std::string("Cu\0Fe\0Mo1", 9));
        EXPECT_EQ(reinterpret_cast<const float*>(value("detector_translation").cdata())[1], 1.5f);
        EXPECT_THROW(tree.at("/entry/instrument/detector/unknown_key"), DOutOfRangeException);
        // The trailing part of a basic header is not read: the next receive gets it.
        EXPECT_THROW_MSG(link.socket.recv(), DRuntimeException, parseErrorText(574));
    }
    {
        SCOPED_TRACE("all: the three pairs decoded, in their encodings");
        const std::vector<float> flat{1.0f, 1.5f, 0.5f, 2.0f};
        const std::vector<std::uint32_t> mask{0, 1, 0, 16};
        const std::vector<float> table(100, 3.25f);
        const std::string maskChunk = stream_test::encodeAs("lz4<", bytesOf(mask));
        const std::string tableChunk = stream_test::encodeAs("bs32-lz4<", bytesOf(table));
        const Parts message{
            stream_test::headerPart(9, "all"), R"({"photon_energy":8041.0})",
            stream_test::imageHeader(2, 2, "float32", "", 0, "dflatfield-1.0"), bytesOf(flat),
            stream_test::imageHeader(2, 2, "uint32", "lz4<", maskChunk.size(), "dpixelmask-1.0"),
            maskChunk,
            stream_test::imageHeader(100, 1, "float32", "bs32-lz4<", tableChunk.size(),
                                     "dcountrate_table-1.0"),
            tableChunk, "dropped", "dropped too"};
        const nexus::DNeXusTree tree = link.roundTrip(message).config().config();
        const auto pixels = [&](const std::string& key) {
            const auto& data = tree.at(NEXUS_PATH.at(key)).asData().data();
            EXPECT_EQ(data.filter(), image::DCompression::FILTER_NONE);
            return std::string(data.cdata(), data.usedBytes());
        };
        EXPECT_EQ(pixels("flatfield"), bytesOf(flat));
        EXPECT_EQ(pixels("pixel_mask"), bytesOf(mask));
        EXPECT_EQ(pixels("countrate_correction_table"), bytesOf(table));
        EXPECT_EQ(link.roundTrip({stream_test::endPart(9)}).end().seriesId(), 9u);
    }
}

TEST(ZmqSocket, EveryEncodingArrivesUndecodedAndDecodesToTheSendersPixels)
{
    Link link;
    const unsigned width = 61, height = 37;
    auto pixels32 = rampFrame(width * height, 50000);
    // The last byte of each chunk, which the wire loses, is then zero: exact in every form.
    pixels32.back() = 7;
    std::vector<std::uint16_t> pixels16(pixels32.begin(), pixels32.end());
    const struct {
        const char* type;
        const char* encoding;
        image::DCompression::FILTER filter;
        std::string pixels;
    } cases[] = {
        {"uint32", "<", image::DCompression::FILTER_NONE, bytesOf(pixels32)},
        {"uint32", "lz4<", image::DCompression::FILTER_LZ4, bytesOf(pixels32)},
        {"uint16", "bs16-lz4<", image::DCompression::FILTER_BS16_LZ4, bytesOf(pixels16)},
        {"uint32", "bs32-lz4<", image::DCompression::FILTER_BS32_LZ4, bytesOf(pixels32)},
        {"float32", "bs32-lz4<", image::DCompression::FILTER_BS32_LZ4, bytesOf(pixels32)},
    };
    unsigned frame = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.type) + " " + c.encoding);
        const std::string wire = stream_test::encodeAs(c.encoding, c.pixels);
        const DStreamObject object = link.roundTrip(
            stream_test::imageMessage(++frame, width, height, c.type, c.encoding, c.pixels));
        ASSERT_EQ(object.type(), DStreamObject::DATA);
        EXPECT_EQ(object.data().imageId(), frame);
        image::DBasicImage<image::StdAllocator> received = object.data().data();
        EXPECT_EQ(received.filter(), c.filter);
        EXPECT_EQ(received.shape()[0], width);
        EXPECT_EQ(received.shape()[1], height);
        EXPECT_EQ(received.size(), std::size_t(width) * height);
        if (c.filter == image::DCompression::FILTER_LZ4) {
            ASSERT_EQ(received.usedBytes(), wire.size() + 16);
            std::uint64_t plain = 0;
            for (int i = 0; i < 8; ++i)
                plain = plain << 8 | static_cast<unsigned char>(received.cdata()[i]);
            EXPECT_EQ(plain, c.pixels.size());
        } else if (c.filter != image::DCompression::FILTER_NONE) {
            EXPECT_EQ(received.usedBytes(), wire.size() - 1);
        }
        const DImage decoded(received);
        EXPECT_TRUE(std::string(decoded.cdata(), c.pixels.size()) == c.pixels);
    }
}

TEST(ZmqSocket, TheByteThatABitshuffleChunkLosesIsReadAsZero)
{
    Link link;
    const struct {
        const char* label;
        unsigned width, height;
        std::uint32_t last;
    } cases[] = {
        {"lost byte zero: exact", 487, 195, 12345},
        {"raw tail: the last element's top byte", 5, 3, 0xAABBCCDDu},
        {"LZ4 block: the top bit plane of the last eight", 8, 4, 0x80000005u},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        auto pixels = rampFrame(std::size_t(c.width) * c.height, 1000);
        for (std::size_t i = pixels.size() - 8; i < pixels.size(); ++i)
            pixels[i] |= c.last & 0xFF000000u;
        pixels.back() = c.last;
        const std::string wire = stream_test::encodeAs("bs32-lz4<", bytesOf(pixels));
        const DImage decoded(link.roundTrip(stream_test::imageMessage(1, c.width, c.height,
                                                                      "uint32", "bs32-lz4<",
                                                                      bytesOf(pixels)))
                                 .data()
                                 .data());
        EXPECT_EQ(wire.back() == 0, c.last < 0x01000000u) << "the case tests what it says";
        auto expected = pixels;
        if (wire.back() != 0) {
            if (expected.size() % 8)
                expected.back() &= 0x00FFFFFFu;
            else
                for (std::size_t i = expected.size() - 8; i < expected.size(); ++i)
                    expected[i] &= 0x7FFFFFFFu;
        }
        EXPECT_TRUE(std::string(decoded.cdata(), decoded.size() * 4) == bytesOf(expected));
    }
}

TEST(ZmqSocket, PlainPixelsIgnoreSizeAndTakeAShortPartAsItCame)
{
    Link link;
    // No encoding: plain, whatever "size" says; the part is shorter than the image.
    const DStreamObject object = link.roundTrip(
        {R"({"htype":"dimage-1.0","frame":3})",
         R"({"htype":"dimage_d-1.0","shape":[4,1],"type":"uint16","size":1})",
         std::string("\x01\x02\x03", 3)});
    const auto image = object.data().data();
    ASSERT_EQ(image.usedBytes(), 8u);
    EXPECT_EQ(std::string(image.cdata(), 3), "\x01\x02\x03");
}

long peakKilobytes()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

TEST(ZmqSocket, MemoryFollowsWhatAMessageCarries)
{
    const std::string first = R"({"htype":"dimage-1.0","frame":1})";
    const std::string tiny(100, '\0');
    // A 16-element frame whose chunk announces 8 elements more than the shape holds.
    const std::string otherSize = stream_test::encodeAs("bs32-lz4<", std::string(96, '\2'));
    const struct {
        const char* label;
        int line;
        DZmqMemorySource::Message message;
    } cases[] = {
        {"negative size, bitshuffle", 531,
         {first, R"({"htype":"dimage_d-1.0","shape":[4,4],"type":"uint32","encoding":"bs32-lz4<","size":-138})", tiny}},
        {"negative size, lz4", 531,
         {first, R"({"htype":"dimage_d-1.0","shape":[4,4],"type":"uint32","encoding":"lz4<","size":-138})", tiny}},
        {"65536 x 65536 with 100 bytes, plain", 531,
         {first, stream_test::imageHeader(65536, 65536, "uint32", "<", 100), tiny}},
        {"65536 x 65536 with 100 bytes, lz4", 532,
         {first, stream_test::imageHeader(65536, 65536, "uint32", "lz4<", 100), tiny}},
        {"shape overflowing 64 bits", 531,
         {first, stream_test::imageHeader(4294967295u, 4294967295u, "uint32", "<", 100), tiny}},
        {"chunk header of another size", 532,
         {first, stream_test::imageHeader(4, 4, "uint32", "bs32-lz4<", otherSize.size()), otherSize}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        const long before = peakKilobytes();
        DZmqMemorySource source({c.message});
        EXPECT_THROW_MSG(DZmqSocket::recv(source), DRuntimeException, parseErrorText(c.line));
        const long growth = peakKilobytes() - before;
        std::cout << c.label << ": peak resident memory grew by " << growth << " KiB\n";
        EXPECT_LT(growth, 16 * 1024);
    }

    // Just within the allowance: a plain part of half its shape arrives, its rest zero.
    DZmqMemorySource half({{first, stream_test::imageHeader(2048, 1, "uint32", "<", 4096), std::string(4096, '\3')}});
    const auto image = DZmqSocket::recv(half).data().data();
    ASSERT_EQ(image.usedBytes(), 8192u);
    EXPECT_EQ(std::string(image.cdata(), 8192), std::string(4096, '\3') + std::string(4096, '\0'));
}

TEST(ZmqSocket, MemorySourceParsesAsTheSocketDoes)
{
    DZmqMemorySource source({{stream_test::endPart(5)}, {"{"}, {R"({"htype":"dimage-1.0","frame":2})"}});
    EXPECT_EQ(DZmqSocket::recv(source).end().seriesId(), 5u);
    EXPECT_THROW_MSG(DZmqSocket::recv(source), DRuntimeException, parseErrorText(574));
    EXPECT_THROW_MSG(DZmqSocket::recv(source), DRuntimeException, parseErrorText(518));
    EXPECT_THROW_MSG(DZmqSocket::recv(source), DTimeoutException, "Timeout after 0.1 s");
}

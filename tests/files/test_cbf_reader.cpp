#include "ReaderHelpers.h"
#include "TestHelpers.h"

#include "DCbfReader.h"
#include "DDetector.h"
#include "DMd5.h"
#include "foundation/DException.h"

#include <boost/optional/optional_io.hpp>

#include <cstdint>
#include <random>

using namespace norvexa;
using namespace norvexa::imglib;
using norvexa_test::dataPath;
using norvexa_test::readerData;

namespace {

using Bytes = std::string;
using Pixels = std::vector<std::int32_t>;

const Bytes MAGIC("\x0C\x1A\x04\xD5", 4);
const std::int32_t FILL = 0x5A5A5A5A; // what a pixel holds that the decoder didn't reach
const std::string INVALID = "mem.cbf corrupted. Binary content not valid";

Bytes fileBytes(const std::string& name) { return norvexa_test::fileBytes<Bytes>(dataPath("cbf/" + name)); }

Pixels pixelsOf(const void* bytes, std::size_t count)
{
    Pixels pixels(count);
    if (count)
        std::memcpy(pixels.data(), bytes, count * 4);
    return pixels;
}

Pixels pixelsOf(const DImage& image) { return pixelsOf(image.data(), image.size()); }

Pixels rawPixels(const std::string& name)
{
    const Bytes bytes = fileBytes(name);
    return pixelsOf(bytes.data(), bytes.size() / 4);
}

// The byte-offset code as the detector's software writes it.
Bytes byteOffset(const Pixels& pixels)
{
    Bytes out;
    std::uint32_t previous = 0;
    for (std::int32_t pixel : pixels) {
        const auto d = static_cast<std::int32_t>(static_cast<std::uint32_t>(pixel) - previous);
        previous = static_cast<std::uint32_t>(pixel);
        const int length = (d >= -127 && d <= 127) ? 1 : (d >= -32767 && d <= 32767) ? 2 : 4;
        if (length > 1)
            out += length == 2 ? Bytes("\x80", 1) : Bytes("\x80\x00\x80", 3);
        for (int k = 0; k < length; ++k)
            out += static_cast<char>((static_cast<std::uint32_t>(d) >> (8 * k)) & 0xFF);
    }
    return out;
}

// A CBF in memory: the MIME lines, the magic, the block and `after` behind it.
struct Cbf {
    int width = 1, height = 1;
    Bytes block;
    std::string conversion = "x-CBF_BYTE_OFFSET";
    bool md5 = true;
    std::string size; // the "X-Binary-Size" value when not the block's size
    Bytes after = "\r\n--CIF-BINARY-FORMAT-SECTION----\r\n;\r\n\r\n";

    Bytes header() const
    {
        DMd5 sum;
        sum.hash(reinterpret_cast<const unsigned char*>(block.data()), block.size());
        return "###CBF: VERSION 1.5\r\n\r\ndata_test\r\n\r\n_array_data.data\r\n;\r\n"
               "--CIF-BINARY-FORMAT-SECTION--\r\nContent-Type: application/octet-stream;\r\n"
               "     conversions=\"" + conversion + "\"\r\nContent-Transfer-Encoding: BINARY\r\n"
               "X-Binary-Size: " + (size.empty() ? std::to_string(block.size()) : size) + "\r\n"
               "X-Binary-ID: 1\r\nX-Binary-Element-Type: \"signed 32-bit integer\"\r\n" +
               (md5 ? "Content-MD5: " + sum.toBase64() + "\r\n" : "") +
               "X-Binary-Size-Fastest-Dimension: " + std::to_string(width) + "\r\n" +
               "X-Binary-Size-Second-Dimension: " + std::to_string(height) + "\r\n\r\n";
    }
    Bytes bytes() const { return header() + MAGIC + block + after; }
};

// readPixelData into an image of FILL pixels; the pixels and the failure text, if any.
std::pair<Pixels, std::string> decode(const Bytes& file)
{
    DCbfReader reader(readerData(file), "mem.cbf");
    DImage image(reader.width(), reader.height(), datatypes::INT, 4);
    std::fill_n(reinterpret_cast<std::int32_t*>(image.data()), image.size(), FILL);
    std::string failure;
    try {
        reader.readPixelData(image);
    } catch (const DImageCorruptedException& e) {
        failure = e.what();
    }
    return {pixelsOf(image), failure};
}

DImage readFile(const std::string& name, const DImageOptionalData* optionalData = nullptr)
{
    DImage image;
    DCbfReader(dataPath("cbf/" + name).string().c_str(), 0).readData(image, optionalData);
    return image;
}

std::string headerError(const std::string& name, const std::string& reason)
{
    return "Image " + name + " is corrupted. " + reason;
}

} // namespace

TEST(CbfReader, PeerFilesDecodeToTheirPixelsHeaderAndModules)
{
    for (const char* producer : {"fabio_", "cbflib_", "writer_", "writer_none_"}) {
        for (const std::string frame : {"small", "module"}) {
            const std::string file = producer + frame + ".cbf";
            if (file == "writer_none_module.cbf")
                continue;
            SCOPED_TRACE(file);
            const DImage image = readFile(file);
            const bool module = frame == "module";
            EXPECT_EQ(std::make_pair(image.width(), image.height()),
                      module ? std::make_pair(487, 195) : std::make_pair(37, 23));
            EXPECT_EQ(std::make_pair(image.type(), image.typeBits()), std::make_pair(datatypes::INT, 32ul));
            EXPECT_TRUE(pixelsOf(image) == rawPixels(frame + ".raw"));

            const DImageOptionalData& m = image.optionalData();
            EXPECT_EQ(m.description(), std::string("BRENNIK 1M, SN 10-0150"));
            EXPECT_EQ(m.detector_number(), std::string("10-0150"));
            EXPECT_EQ(m.count_time(), 0.097f);
            EXPECT_EQ(m.countrate_correction_bunch_mode(), std::string("ContinuousStandard_v1.1")) << "the last line";
            EXPECT_EQ(m.imageDescription(), dataPath("cbf/" + file).string());
            const Bytes bytes = fileBytes(file);
            EXPECT_EQ(m.rawHeader(), bytes.substr(0, bytes.find(MAGIC) + 4)) << "up to and with the magic";
            ASSERT_TRUE(m.pixel_mask());
            // A module's size is a detector's: its module got the gain's Vrf, and 20 bits.
            EXPECT_EQ(m.bit_depth_readout(), module ? boost::optional<int>(20) : boost::none);
            ASSERT_EQ(m.modules() ? m.modules()->size() : 0u, module ? 1u : 0u);
            if (module) {
                EXPECT_EQ(m.modules()->front().dacName(0), "vrfp");
            }
        }
    }
}

TEST(CbfReader, CallersMetadataUnderTheHeader)
{
    // The file's header laid over the caller's metadata, its modules kept.
    DImageOptionalData caller;
    caller.set_count_time(5.0f);
    caller.set_nimages(7);
    caller.set_modules(DDetector::modules(487, 195));
    const DImage image = readFile("writer_small.cbf", &caller);
    const DImageOptionalData& m = image.optionalData();
    EXPECT_EQ(m.count_time(), 0.097f);
    EXPECT_EQ(m.detector_number(), std::string("10-0150"));
    EXPECT_EQ(m.nimages(), 7);
    EXPECT_EQ(m.modules() ? m.modules()->size() : 0u, 1u);
    EXPECT_FALSE(m.bit_depth_readout());
    EXPECT_TRUE(m.rawHeader());
}

TEST(CbfReader, HeaderRegionFailures)
{
    Cbf good;
    good.block = byteOffset({1, 2, 3});
    good.width = 3;
    const Bytes header = good.header();
    const Bytes tail = MAGIC + good.block;
    const auto without = [&header](const std::string& key) {
        Bytes text = header;
        const std::size_t at = text.find(key);
        return text.erase(at, text.find('\n', at) + 1 - at);
    };
    const auto replaced = [&header](const std::string& from, const std::string& to) {
        Bytes text = header;
        return text.replace(text.find(from), from.size(), to);
    };
    const struct {
        const char* label;
        Bytes file;
        const char* reason;
    } cases[] = {
        {"empty file", "", "Magic number not found."},
        {"all keys, no magic", header + good.block, "Magic number not found."},
        {"magic at 0", tail + header, "Binary size not found."},
        {"no size", without("X-Binary-Size: ") + tail, "Binary size not found."},
        {"the dimension keys don't carry the size's key",
         replaced("X-Binary-Size: ", "X-Binary-Length: ") + tail, "Binary size not found."},
        {"no width", without("Fastest-Dimension") + tail, "Width not found."},
        {"no height", without("Second-Dimension") + tail, "Height not found."},
        {"neither: the width is reported", header.substr(0, header.find("X-Binary-Size-Fastest")) + tail,
         "Width not found."},
        {"other conversion", replaced("BYTE_OFFSET", "PACKED") + tail, "No compression algorithm found."},
        {"conversion without quotes", replaced("\"x-CBF_BYTE_OFFSET\"", "x-CBF_BYTE_OFFSET") + tail,
         "No compression algorithm found."},
        {"16-bit elements", replaced("signed 32-bit", "signed 16-bit") + tail, "Data type not found or not supported."},
        {"a magic in the text ends the region there", replaced("X-Binary-ID: 1", "X-Binary-ID: " + MAGIC) + tail,
         "Width not found."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        EXPECT_THROW_MSG(DCbfReader(readerData(c.file), "f.cbf"), DImageCorruptedException, headerError("f.cbf", c.reason));
    }

    // CBFlib writes its uncompressed blocks without a "conversions" line; from files the texts carry the path.
    const std::string cbflibNone = dataPath("cbf/cbflib_none_small.cbf").string();
    EXPECT_THROW_MSG(DCbfReader(cbflibNone.c_str(), 0), DImageCorruptedException,
                     headerError(cbflibNone, "No compression algorithm found."));
}

TEST(CbfReader, SizeSumAndValueChecks)
{
    Cbf cbf;
    cbf.width = 3;
    cbf.block = byteOffset({1, 1000, 100000});
    cbf.after = "xxxx";
    for (const std::string size : {"16", "18446744073709551615", "99999999999999999999999", "-1"}) {
        SCOPED_TRACE("size " + size + ", also where offset + size wraps around");
        Cbf big = cbf;
        big.size = size;
        EXPECT_EQ(decode(big.bytes()).second, "mem.cbf corrupted. Binary size too large.");
    }
    Cbf toTheEnd = cbf;
    toTheEnd.after.clear();
    EXPECT_EQ(decode(toTheEnd.bytes()), std::make_pair(Pixels{1, 1000, 100000}, std::string()));

    SCOPED_TRACE("a changed block: the sum fails it before decoding; without a sum it decodes");
    Bytes changed = cbf.bytes();
    changed[changed.size() - cbf.after.size() - 1] ^= 0x01; // the high byte of the last difference
    EXPECT_EQ(decode(changed), std::make_pair(Pixels(3, FILL), std::string("mem.cbf corrupted. Md5 sum does not match")));
    Cbf unsummed = cbf;
    unsummed.md5 = false;
    changed = unsummed.bytes();
    changed[changed.size() - cbf.after.size() - 1] ^= 0x01;
    EXPECT_EQ(decode(changed).first, (Pixels{1, 1000, 100000 + 0x1000000}));

    SCOPED_TRACE("an empty Content-MD5 line takes the next word as the sum");
    Bytes emptySum = cbf.bytes();
    const std::size_t at = emptySum.find("Content-MD5: ") + 13;
    emptySum.erase(at, emptySum.find('\r', at) - at);
    EXPECT_EQ(decode(emptySum).second, "mem.cbf corrupted. Md5 sum does not match");

    SCOPED_TRACE("a height that doesn't parse is 0: no pixels, and every byte is one too many");
    Bytes noHeight = cbf.bytes();
    noHeight.replace(noHeight.find("Second-Dimension: 1"), 19, "Second-Dimension: one");
    EXPECT_EQ(DCbfReader(readerData(noHeight), "mem.cbf").height(), 0);
    EXPECT_EQ(decode(noHeight).second, INVALID);

    SCOPED_TRACE("byte offset wins over none; readData fails before attaching metadata");
    Cbf both = cbf;
    both.conversion = "x-CBF_NONE\" conversions=\"x-CBF_BYTE_OFFSET";
    both.block += '\x01';
    DImage image;
    EXPECT_THROW_MSG(DCbfReader(readerData(both.bytes()), "mem.cbf").readData(image, nullptr), DImageCorruptedException, INVALID);
    EXPECT_EQ(pixelsOf(image), (Pixels{1, 1000, 100000}));
    EXPECT_FALSE(image.optionalData().imageDescription());
}

TEST(CbfReader, BothCodesAsThisSystemReadsThem)
{
    const Pixels none{};
    const std::int32_t MIN = INT32_MIN, MAX = INT32_MAX;
    const struct {
        const char* label;
        const char* conversion;
        Bytes block;
        int pixels;
        Bytes after; // the file's bytes behind the block; none: the file ends with it
        Pixels expected;
        bool invalid;
    } cases[] = {
        {"from 0, one byte", "x-CBF_BYTE_OFFSET", Bytes("\xFF\x02", 2), 2, "", {-1, 1}, false},
        {"16 and 32 bits", "x-CBF_BYTE_OFFSET", Bytes("\x80\xFF\x7F\x80\x00\x80\x01\x00\x00\x00", 10), 2, "", {32767, 32768}, false},
        {"wraps at 32 bits", "x-CBF_BYTE_OFFSET", Bytes("\x80\x00\x80\xFF\xFF\xFF\x7F\x01", 8), 2, "", {MAX, MIN}, false},
        {"0x80000000 is a difference", "x-CBF_BYTE_OFFSET", Bytes("\x80\x00\x80\x00\x00\x00\x80\x05", 8), 2, "", {MIN, MIN + 5}, false},
        {"0x80 0 0 resets without a pixel", "x-CBF_BYTE_OFFSET", Bytes("\x05\x80\x00\x00\x03", 5), 2, "", {5, 3}, false},
        {"a reset last", "x-CBF_BYTE_OFFSET", Bytes("\x05\x80\x00\x00", 4), 2, "", {5, FILL}, false},
        {"a reset after the last pixel", "x-CBF_BYTE_OFFSET", Bytes("\x05\x06\x80\x00\x00", 5), 2, "", {5, 11}, true},
        {"short block", "x-CBF_BYTE_OFFSET", Bytes("\x01\x01", 2), 4, "", {1, 2, FILL, FILL}, false},
        {"empty block", "x-CBF_BYTE_OFFSET", "", 2, "", {FILL, FILL}, false},
        {"nothing at all", "x-CBF_BYTE_OFFSET", "", 0, "", none, false},
        {"a byte and no pixel", "x-CBF_BYTE_OFFSET", Bytes("\x01", 1), 0, "", none, true},
        {"escape cut by the block", "x-CBF_BYTE_OFFSET", Bytes("\x01\x80", 2), 3, Bytes("\x10\x00\x07", 3), {1, 17, FILL}, false},
        {"32-bit escape cut", "x-CBF_BYTE_OFFSET", Bytes("\x80\x00\x80", 3), 2, Bytes("\x00\x00\x01\x00\x09", 5), {65536, FILL}, false},
        {"escape cut by the file's end: a reset", "x-CBF_BYTE_OFFSET", Bytes("\x07\x80", 2), 2, "", {7, FILL}, false},
        {"32-bit escape cut by the file's end", "x-CBF_BYTE_OFFSET", Bytes("\x07\x80\x00\x80\x01", 5), 3, "", {7, 8, FILL}, false},
        {"words", "x-CBF_NONE", Bytes("\x01\x00\x00\x00\xFF\xFF\xFF\xFF", 8), 2, "", {1, -1}, false},
        {"fewer words", "x-CBF_NONE", Bytes("\x01\x00\x00\x00", 4), 2, "", {1, FILL}, false},
        {"no words", "x-CBF_NONE", "", 2, "", {FILL, FILL}, false},
        {"last word taken whole", "x-CBF_NONE", Bytes("\x01\x00\x00\x00\x02", 5), 3, Bytes("\x01\x00\x00", 3), {1, 0x102, FILL}, false},
        {"last word at the file's end", "x-CBF_NONE", Bytes("\x01\x00\x00\x00\x02", 5), 2, "", {1, 2}, false},
        {"a byte beyond the pixels", "x-CBF_NONE", Bytes("\x01\x00\x00\x00\x02", 5), 1, "", {1}, true},
        {"a word and no pixel", "x-CBF_NONE", Bytes(4, '\0'), 0, "", none, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.conversion) + ": " + c.label);
        Cbf cbf;
        cbf.conversion = c.conversion;
        cbf.width = c.pixels;
        cbf.block = c.block;
        cbf.after = c.after;
        EXPECT_EQ(decode(cbf.bytes()), std::make_pair(c.expected, std::string(c.invalid ? INVALID : "")));
    }
}

TEST(CbfReader, ByteOffsetMatchesItsSourceAtEveryEscapePosition)
{
    // Runs of one-byte differences broken by escapes at every offset in and across the
    // decoder's groups of 16 bytes, in frames of every small length.
    std::mt19937 random(2463);
    for (int length = 0; length < 80; ++length) {
        for (int trial = 0; trial < 12; ++trial) {
            SCOPED_TRACE("length " + std::to_string(length) + " trial " + std::to_string(trial));
            Pixels pixels(length);
            std::uint32_t value = 0;
            for (auto& pixel : pixels) {
                const unsigned kind = random() % 16;
                value += kind < 11 ? random() % 255 - 127 : kind < 14 ? random() % 65535 - 32767 : random();
                pixel = static_cast<std::int32_t>(value);
            }
            Cbf cbf;
            cbf.width = length;
            cbf.block = byteOffset(pixels);
            ASSERT_EQ(decode(cbf.bytes()), std::make_pair(pixels, std::string()));
            cbf.width = length - 1; // one pixel fewer: the block is too long
            if (length > 1) {
                ASSERT_EQ(decode(cbf.bytes()).second, INVALID);
            }
        }
    }
}

TEST(CbfReader, EveryTruncationFailsCleanly)
{
    // Cut at every length: short of the whole header region the magic is missing, short
    // of the whole block its size is too large; the rest of the file isn't needed.
    const Bytes file = fileBytes("writer_small.cbf");
    const std::size_t blockStart = file.find(MAGIC) + 4;
    const std::size_t blockSize = std::stoul(file.substr(file.find("X-Binary-Size: ") + 15));
    const Pixels expected = rawPixels("small.raw");
    for (std::size_t length = 0; length <= file.size(); ++length) {
        SCOPED_TRACE("length " + std::to_string(length));
        const Bytes cut = file.substr(0, length);
        if (length < blockStart) {
            EXPECT_THROW_MSG(DCbfReader(readerData(cut), "mem.cbf"), DImageCorruptedException,
                             headerError("mem.cbf", "Magic number not found."));
        } else if (length < blockStart + blockSize) {
            EXPECT_EQ(decode(cut).second, "mem.cbf corrupted. Binary size too large.");
        } else {
            ASSERT_EQ(decode(cut), std::make_pair(expected, std::string()));
        }
    }
}

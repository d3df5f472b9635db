#include "TestHelpers.h"

#include "DCbfReader.h"
#include "DDetector.h"
#include "DMd5.h"
#include "foundation/DException.h"

#include <boost/optional/optional_io.hpp>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

using namespace norvexa;
using namespace norvexa::imglib;
using norvexa_test::dataPath;

namespace {

using Data = DAbstractImageReader::Data;
using Bytes = std::string;

const char MAGIC[] = "\x0C\x1A\x04\xD5";

Bytes fileBytes(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Data dataOf(const Bytes& bytes)
{
    Data data;
    data.resize(bytes.size());
    if (!bytes.empty())
        std::memcpy(data.data(), bytes.data(), bytes.size());
    return data;
}

std::vector<std::int32_t> pixelsOf(const DImage& image)
{
    std::vector<std::int32_t> pixels(image.size());
    if (!pixels.empty())
        std::memcpy(pixels.data(), image.data(), pixels.size() * 4);
    return pixels;
}

std::vector<std::int32_t> rawPixels(const std::string& name)
{
    const Bytes bytes = fileBytes(dataPath("cbf/" + name));
    std::vector<std::int32_t> pixels(bytes.size() / 4);
    std::memcpy(pixels.data(), bytes.data(), pixels.size() * 4);
    return pixels;
}

std::string base64Md5(const Bytes& block)
{
    DMd5 md5;
    md5.hash(reinterpret_cast<const unsigned char*>(block.data()), block.size());
    return md5.toBase64();
}

// The byte-offset code of a frame, written as the detector's software writes it.
Bytes byteOffset(const std::vector<std::int32_t>& pixels)
{
    Bytes out;
    std::uint32_t previous = 0;
    for (std::int32_t pixel : pixels) {
        const auto d = static_cast<std::int32_t>(static_cast<std::uint32_t>(pixel) - previous);
        previous = static_cast<std::uint32_t>(pixel);
        if (d >= -127 && d <= 127) {
            out += static_cast<char>(d);
        } else if (d >= -32767 && d <= 32767) {
            out += '\x80';
            out += static_cast<char>(d & 0xFF);
            out += static_cast<char>((d >> 8) & 0xFF);
        } else {
            out += Bytes("\x80\x00\x80", 3);
            for (int k = 0; k < 4; ++k)
                out += static_cast<char>((static_cast<std::uint32_t>(d) >> (8 * k)) & 0xFF);
        }
    }
    return out;
}

// A CBF in memory: its MIME lines, the magic, the block and `after` behind it.
struct Cbf {
    int width = 1;
    int height = 1;
    Bytes block;
    std::string conversion = "x-CBF_BYTE_OFFSET";
    bool md5 = true;
    std::string sizeText; // "X-Binary-Size" value when not the block's size
    Bytes after = "\r\n--CIF-BINARY-FORMAT-SECTION----\r\n;\r\n\r\n";

    Bytes header() const
    {
        Bytes text = "###CBF: VERSION 1.5\r\n\r\ndata_test\r\n\r\n_array_data.data\r\n;\r\n"
                     "--CIF-BINARY-FORMAT-SECTION--\r\nContent-Type: application/octet-stream;\r\n"
                     "     conversions=\"" + conversion + "\"\r\n"
                     "Content-Transfer-Encoding: BINARY\r\n"
                     "X-Binary-Size: " + (sizeText.empty() ? std::to_string(block.size()) : sizeText) +
                     "\r\nX-Binary-ID: 1\r\nX-Binary-Element-Type: \"signed 32-bit integer\"\r\n";
        if (md5)
            text += "Content-MD5: " + base64Md5(block) + "\r\n";
        text += "X-Binary-Size-Fastest-Dimension: " + std::to_string(width) + "\r\n" +
                "X-Binary-Size-Second-Dimension: " + std::to_string(height) + "\r\n\r\n";
        return text;
    }
    Bytes bytes() const { return header() + Bytes(MAGIC, 4) + block + after; }
};

// Decodes with readPixelData into an image whose pixels all start as `fill`.
std::vector<std::int32_t> decode(const Bytes& file, std::int32_t fill = 0x5A5A5A5A)
{
    DCbfReader reader(dataOf(file), "mem.cbf");
    DImage image(reader.width(), reader.height(), datatypes::INT, 4);
    for (std::size_t i = 0; i < image.size(); ++i)
        reinterpret_cast<std::int32_t*>(image.data())[i] = fill;
    reader.readPixelData(image);
    return pixelsOf(image);
}

DImage readFile(const std::string& path, const DImageOptionalData* optionalData = nullptr)
{
    DImage image;
    DCbfReader(path.c_str(), 0).readData(image, optionalData);
    return image;
}

std::string headerError(const std::string& name, const std::string& reason)
{
    return "Image " + name + " is corrupted. " + reason;
}

const char* const PEER_FILES[][2] = {
    {"fabio_small.cbf", "small.raw"},   {"cbflib_small.cbf", "small.raw"},
    {"writer_small.cbf", "small.raw"},  {"writer_none_small.cbf", "small.raw"},
    {"fabio_module.cbf", "module.raw"}, {"cbflib_module.cbf", "module.raw"},
    {"writer_module.cbf", "module.raw"},
};

} // namespace

TEST(CbfReader, PeerFilesDecodeToTheirPixels)
{
    for (const auto& [file, raw] : PEER_FILES) {
        SCOPED_TRACE(file);
        const DImage image = readFile(dataPath(std::string("cbf/") + file).string());
        const int width = std::string(raw) == "small.raw" ? 37 : 487;
        const int height = std::string(raw) == "small.raw" ? 23 : 195;
        EXPECT_EQ(image.width(), width);
        EXPECT_EQ(image.height(), height);
        EXPECT_EQ(image.type(), datatypes::INT);
        EXPECT_EQ(image.typeBits(), 32u);
        const auto expected = rawPixels(raw);
        const auto pixels = pixelsOf(image);
        ASSERT_EQ(pixels.size(), expected.size());
        for (std::size_t i = 0; i < pixels.size(); ++i)
            ASSERT_EQ(pixels[i], expected[i]) << "pixel " << i;
    }
}

TEST(CbfReader, DetectorHeaderLinesBecomeMetadata)
{
    for (const char* file : {"fabio_module.cbf", "cbflib_module.cbf", "writer_module.cbf", "writer_small.cbf"}) {
        SCOPED_TRACE(file);
        const std::string path = dataPath(std::string("cbf/") + file).string();
        const DImage image = readFile(path);
        const DImageOptionalData& m = image.optionalData();
        EXPECT_EQ(m.description(), std::string("BRENNIK 1M, SN 10-0150"));
        EXPECT_EQ(m.detector_number(), std::string("10-0150"));
        EXPECT_EQ(m.data_collection_date(), std::string("2011-06-14T10:22:33.125"));
        EXPECT_FLOAT_EQ(*m.x_pixel_size(), 172e-6f);
        EXPECT_FLOAT_EQ(*m.y_pixel_size(), 172e-6f);
        EXPECT_FLOAT_EQ(*m.sensor_thickness(), 0.00032f);
        EXPECT_EQ(m.sensor_material(), std::string("Si"));
        EXPECT_FLOAT_EQ(*m.count_time(), 0.097f);
        EXPECT_FLOAT_EQ(*m.frame_time(), 0.1f);
        EXPECT_EQ(m.saturation_value(), 1048500);
        EXPECT_FLOAT_EQ(*m.threshold_energy(), 6400.0f);
        EXPECT_EQ(m.gain_setting(), std::string("autog (vrf = 1.000)"));
        EXPECT_EQ(m.number_of_excluded_pixels(), 321);
        EXPECT_FLOAT_EQ(*m.wavelength(), 1.0332f);
        EXPECT_FLOAT_EQ(*m.detector_distance(), 0.25f);
        EXPECT_FLOAT_EQ(*m.beam_center_x(), 231.5f);
        EXPECT_FLOAT_EQ(*m.beam_center_y(), 97.25f);
        EXPECT_FLOAT_EQ(*m.beam_flux(), 125000.5f);
        EXPECT_FLOAT_EQ(*m.filter_transmission(), 0.5f);
        EXPECT_FLOAT_EQ(*m.rotation_angle(), 10.0f);
        EXPECT_FLOAT_EQ(*m.rotation_angle_step(), 0.1f);
        EXPECT_FLOAT_EQ(*m.polarisation(), 0.99f);
        EXPECT_EQ(m.countrate_correction_bunch_mode(), std::string("ContinuousStandard_v1.1"));
        EXPECT_EQ(m.mode_register(), 0);
        EXPECT_EQ(m.imageDescription(), path);

        // The raw header is the file up to and including the magic.
        const Bytes bytes = fileBytes(path);
        const std::size_t magic = bytes.find(Bytes(MAGIC, 4));
        EXPECT_EQ(m.rawHeader(), bytes.substr(0, magic + 4));

        ASSERT_TRUE(m.pixel_mask());
        EXPECT_EQ(m.pixel_mask()->width(), image.width());

        // The module size is a detector's: one module that got the gain's Vrf (its value
        // doesn't survive the tree's 64-bit store and 32-bit read), 20 bits.
        if (image.width() == 487) {
            EXPECT_EQ(m.bit_depth_readout(), 20);
            ASSERT_TRUE(m.modules());
            ASSERT_EQ(m.modules()->size(), 1u);
            ASSERT_EQ(m.modules()->front().numberOfDACs(), 1);
            EXPECT_EQ(m.modules()->front().dacName(0), "vrfp");
        } else {
            EXPECT_FALSE(m.bit_depth_readout());
        }
    }
}

TEST(CbfReader, CallersMetadataKeepsItsModulesAndTakesTheFileOverIt)
{
    DImageOptionalData caller;
    caller.set_count_time(5.0f);
    caller.set_description(std::string("other detector"));
    caller.set_nimages(7);
    caller.set_modules(DDetector::modules(487, 195));
    const std::string path = dataPath("cbf/writer_small.cbf").string();
    const DImage image = readFile(path, &caller);
    const DImageOptionalData& m = image.optionalData();
    EXPECT_FLOAT_EQ(*m.count_time(), 0.097f);
    EXPECT_EQ(m.description(), std::string("BRENNIK 1M, SN 10-0150"));
    EXPECT_EQ(m.detector_number(), std::string("10-0150"));
    EXPECT_EQ(m.nimages(), 7);
    ASSERT_TRUE(m.modules());
    EXPECT_EQ(m.modules()->size(), 1u); // a 37 x 23 frame has none of its own
    EXPECT_FALSE(m.bit_depth_readout());
    EXPECT_TRUE(m.rawHeader());
    EXPECT_EQ(m.imageDescription(), path);
    EXPECT_EQ(pixelsOf(image), rawPixels("small.raw"));
}

TEST(CbfReader, HeaderRegionFailures)
{
    Cbf good;
    good.block = byteOffset({1, 2, 3});
    good.width = 3;
    const Bytes header = good.header();
    const Bytes tail = Bytes(MAGIC, 4) + good.block;
    const auto without = [&header](const std::string& key) {
        Bytes text = header;
        const std::size_t at = text.find(key);
        text.erase(at, text.find('\n', at) + 1 - at);
        return text;
    };
    const auto replaced = [&header](const std::string& from, const std::string& to) {
        Bytes text = header;
        text.replace(text.find(from), from.size(), to);
        return text;
    };
    const struct {
        const char* label;
        Bytes file;
        const char* reason;
    } cases[] = {
        {"empty file", "", "Magic number not found."},
        {"keys without magic", header + good.block, "Magic number not found."},
        {"magic at 0", tail + header, "Binary size not found."},
        {"no binary size", without("X-Binary-Size: ") + tail, "Binary size not found."},
        {"only the dimension keys carry the size's prefix",
         replaced("X-Binary-Size: ", "X-Binary-Length: ") + tail, "Binary size not found."},
        {"no width", without("X-Binary-Size-Fastest") + tail, "Width not found."},
        {"no height", without("X-Binary-Size-Second") + tail, "Height not found."},
        {"neither width nor height reports the width",
         without("X-Binary-Size-Second").substr(0, header.find("X-Binary-Size-Fastest")) + tail,
         "Width not found."},
        {"no conversion", replaced("x-CBF_BYTE_OFFSET", "x-CBF_PACKED") + tail,
         "No compression algorithm found."},
        {"conversion without quotes", replaced("\"x-CBF_BYTE_OFFSET\"", "x-CBF_BYTE_OFFSET") + tail,
         "No compression algorithm found."},
        {"no element type", replaced("signed 32-bit", "signed 16-bit") + tail,
         "Data type not found or not supported."},
        {"a magic in the text ends the region",
         replaced("X-Binary-ID: 1", Bytes("X-Binary-ID: ") + MAGIC) + tail, "Width not found."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        EXPECT_THROW_MSG(DCbfReader(dataOf(c.file), "f.cbf"), DImageCorruptedException,
                         headerError("f.cbf", c.reason));
    }

    // From the file system the same texts carry the path.
    norvexa_test::TempDir dir;
    const std::string empty = (dir.path() / "empty.cbf").string();
    std::ofstream(empty).close();
    EXPECT_THROW_MSG(DCbfReader(empty.c_str(), 0), DImageCorruptedException,
                     headerError(empty, "Magic number not found."));
    const std::string missing = (dir.path() / "missing.cbf").string();
    EXPECT_THROW_MSG(DCbfReader(missing.c_str(), 17), DNoFileAccessException, "Error accessing " + missing);
    EXPECT_THROW_MSG(readFile(dataPath("cbf/cbflib_none_small.cbf").string()), DImageCorruptedException,
                     headerError(dataPath("cbf/cbflib_none_small.cbf").string(), "No compression algorithm found."));
}

TEST(CbfReader, HeaderValuesAsTheStreamReadsThem)
{
    Cbf cbf;
    cbf.block = byteOffset({4, 5});
    cbf.width = 2;
    const auto readerOf = [](const Bytes& file) { return std::make_unique<DCbfReader>(dataOf(file), "f.cbf"); };
    {
        SCOPED_TRACE("the first word counts, across the line's end too");
        Bytes file = cbf.bytes();
        file.replace(file.find("Dimension: 2"), 12, "Dimension: \r\n 2x7 ");
        const auto reader = readerOf(file);
        EXPECT_EQ(reader->width(), 2);
        EXPECT_EQ(reader->height(), 1);
        EXPECT_EQ(reader->dataType(), datatypes::INT);
        EXPECT_EQ(reader->typeBits(), 32u);
    }
    {
        SCOPED_TRACE("a value that doesn't parse is 0");
        Bytes file = cbf.bytes();
        file.replace(file.find("Second-Dimension: 1"), 19, "Second-Dimension: one");
        EXPECT_EQ(readerOf(file)->height(), 0);
        // An image without pixels: any byte of the block is one too many.
        EXPECT_THROW_MSG(decode(file), DImageCorruptedException, "mem.cbf corrupted. Binary content not valid");
    }
    {
        SCOPED_TRACE("x-CBF_NONE is looked for only without byte offset");
        Cbf both = cbf;
        both.conversion = "x-CBF_NONE\"; conversions=\"x-CBF_BYTE_OFFSET";
        EXPECT_EQ(decode(both.bytes()), (std::vector<std::int32_t>{4, 5}));
    }
    {
        SCOPED_TRACE("an empty Content-MD5 line reads the next word as the sum");
        Bytes file = cbf.bytes();
        const std::size_t at = file.find("Content-MD5: ") + 13;
        file.erase(at, file.find('\r', at) - at);
        EXPECT_THROW_MSG(decode(file), DImageCorruptedException, "mem.cbf corrupted. Md5 sum does not match");
    }
}

TEST(CbfReader, PixelDataFailures)
{
    Cbf cbf;
    cbf.width = 3;
    cbf.block = byteOffset({1, 1000, 100000});
    {
        SCOPED_TRACE("a size past the end, also one that would wrap around");
        for (const std::string size : {"18", "64", "18446744073709551615", "99999999999999999999999", "-1"}) {
            SCOPED_TRACE(size);
            Cbf big = cbf;
            big.sizeText = size;
            big.after = Bytes(4, 'x');
            EXPECT_THROW_MSG(decode(big.bytes()), DImageCorruptedException,
                             "mem.cbf corrupted. Binary size too large.");
        }
        Cbf fits = cbf;
        fits.after.clear();
        EXPECT_EQ(decode(fits.bytes()), (std::vector<std::int32_t>{1, 1000, 100000}));
    }
    {
        SCOPED_TRACE("the sum is checked after the size and before decoding");
        Bytes file = cbf.bytes();
        file[file.size() - cbf.after.size() - 1] ^= 0x01;
        EXPECT_THROW_MSG(decode(file), DImageCorruptedException, "mem.cbf corrupted. Md5 sum does not match");
        Cbf big = cbf;
        big.sizeText = "1000"; // its sum can't match either
        EXPECT_THROW_MSG(decode(big.bytes()), DImageCorruptedException, "mem.cbf corrupted. Binary size too large.");
    }
    {
        SCOPED_TRACE("without a sum a changed block decodes");
        Cbf plain = cbf;
        plain.md5 = false;
        Bytes file = plain.bytes();
        file[file.size() - plain.after.size() - 1] ^= 0x01;
        EXPECT_EQ(decode(file), (std::vector<std::int32_t>{1, 1000, 100000 + 0x1000000}));
    }
    {
        SCOPED_TRACE("the image keeps the new pixels and gets no metadata");
        Cbf longer = cbf;
        longer.block += '\x01';
        DCbfReader reader(dataOf(longer.bytes()), "mem.cbf");
        DImage image;
        EXPECT_THROW_MSG(reader.readData(image, nullptr), DImageCorruptedException,
                         "mem.cbf corrupted. Binary content not valid");
        EXPECT_EQ(pixelsOf(image), (std::vector<std::int32_t>{1, 1000, 100000}));
        EXPECT_FALSE(image.optionalData().imageDescription());
    }
}

TEST(CbfReader, ByteOffsetCodeAsThisSystemReadsIt)
{
    const std::int32_t FILL = 0x5A5A5A5A;
    const auto decodeBlock = [&](const Bytes& block, int pixels, const Bytes& after = "") {
        Cbf cbf;
        cbf.md5 = false;
        cbf.width = pixels;
        cbf.block = block;
        cbf.after = after;
        return decode(cbf.bytes(), FILL);
    };
    using V = std::vector<std::int32_t>;
    {
        SCOPED_TRACE("the first pixel is a difference from 0; values wrap at 32 bits");
        EXPECT_EQ(decodeBlock(Bytes("\xFF\x02", 2), 2), (V{-1, 1}));
        EXPECT_EQ(decodeBlock(Bytes("\x80\xFF\x7F\x80\x00\x80\x01\x00\x00\x00", 10), 2),
                  (V{32767, 32768}));
        EXPECT_EQ(decodeBlock(Bytes("\x80\x00\x80\xFF\xFF\xFF\x7F\x01", 8), 2), (V{2147483647, INT32_MIN}));
    }
    {
        SCOPED_TRACE("the 32-bit code 0x80000000 is a plain difference, with no 64-bit form");
        EXPECT_EQ(decodeBlock(Bytes("\x80\x00\x80\x00\x00\x00\x80\x05", 8), 2), (V{INT32_MIN, INT32_MIN + 5}));
    }
    {
        SCOPED_TRACE("0x80 0x00 0x00 starts again from 0 without a pixel");
        EXPECT_EQ(decodeBlock(Bytes("\x05\x80\x00\x00\x03", 5), 2), (V{5, 3}));
        EXPECT_EQ(decodeBlock(Bytes("\x05\x80\x00\x00", 4), 2), (V{5, FILL}));
        EXPECT_THROW_MSG(decodeBlock(Bytes("\x05\x06\x80\x00\x00", 5), 2), DImageCorruptedException,
                         "mem.cbf corrupted. Binary content not valid");
    }
    {
        SCOPED_TRACE("a short block passes and leaves the rest; a long one fails");
        EXPECT_EQ(decodeBlock(Bytes("\x01\x01", 2), 4), (V{1, 2, FILL, FILL}));
        EXPECT_EQ(decodeBlock("", 2), (V{FILL, FILL}));
        EXPECT_EQ(decodeBlock("", 0), V{});
        EXPECT_THROW_MSG(decodeBlock(Bytes("\x01", 1), 0), DImageCorruptedException,
                         "mem.cbf corrupted. Binary content not valid");
    }
    {
        SCOPED_TRACE("an escape that the block cuts is read on from the bytes behind it");
        EXPECT_EQ(decodeBlock(Bytes("\x01\x80", 2), 3, Bytes("\x10\x00\x07", 3)), (V{1, 17, FILL}));
        EXPECT_EQ(decodeBlock(Bytes("\x80\x00\x80", 3), 2, Bytes("\x00\x00\x01\x00\x09", 5)),
                  (V{65536, FILL}));
        // At the end of the file the bytes behind it are zeros: a reset, or a difference of 0.
        EXPECT_EQ(decodeBlock(Bytes("\x07\x80", 2), 2), (V{7, FILL}));
        EXPECT_EQ(decodeBlock(Bytes("\x07\x80\x00\x80", 4), 3), (V{7, 7, FILL}));
        EXPECT_EQ(decodeBlock(Bytes("\x07\x80\x00\x80\x01", 5), 3), (V{7, 8, FILL}));
    }
}

TEST(CbfReader, ByteOffsetMatchesItsSourceAtEveryEscapePosition)
{
    // Runs of one-byte differences broken by escapes at every offset within and across
    // 16-byte groups, frames of every small length, and their blocks cut short.
    std::mt19937 random(2463);
    for (int length = 0; length < 80; ++length) {
        for (int trial = 0; trial < 12; ++trial) {
            std::vector<std::int32_t> pixels(length);
            std::int32_t value = 0;
            for (auto& pixel : pixels) {
                const unsigned kind = random() % 16;
                const std::int32_t step = kind < 11 ? std::int32_t(random() % 255) - 127
                                        : kind < 14 ? std::int32_t(random() % 65535) - 32767
                                                    : std::int32_t(random());
                value = static_cast<std::int32_t>(static_cast<std::uint32_t>(value) + static_cast<std::uint32_t>(step));
                pixel = value;
            }
            Cbf cbf;
            cbf.width = length;
            cbf.block = byteOffset(pixels);
            SCOPED_TRACE("length " + std::to_string(length) + " trial " + std::to_string(trial));
            ASSERT_EQ(decode(cbf.bytes()), pixels);
            if (length > 1) {
                // One pixel fewer in the image: the block is too long.
                Cbf longer = cbf;
                longer.width = length - 1;
                EXPECT_THROW_MSG(decode(longer.bytes()), DImageCorruptedException,
                                 "mem.cbf corrupted. Binary content not valid");
            }
        }
    }
    // A detector-like frame of a module's size: background, gaps, spots.
    std::vector<std::int32_t> frame(487 * 195);
    std::poisson_distribution<int> background(0.8);
    for (std::size_t i = 0; i < frame.size(); ++i)
        frame[i] = (i % 487 == 60) ? -1 : (random() % 997 == 0 ? 50000 + int(random() % 900000) : background(random));
    Cbf cbf;
    cbf.width = 487;
    cbf.height = 195;
    cbf.block = byteOffset(frame);
    EXPECT_EQ(decode(cbf.bytes()), frame);
}

TEST(CbfReader, UncompressedWords)
{
    const std::int32_t FILL = 0x5A5A5A5A;
    using V = std::vector<std::int32_t>;
    const auto decodeWords = [&](const Bytes& block, int pixels, const Bytes& after = "") {
        Cbf cbf;
        cbf.conversion = "x-CBF_NONE";
        cbf.width = pixels;
        cbf.block = block;
        cbf.after = after;
        return decode(cbf.bytes(), FILL);
    };
    EXPECT_EQ(decodeWords(Bytes("\x01\x00\x00\x00\xFF\xFF\xFF\xFF", 8), 2), (V{1, -1}));
    EXPECT_EQ(decodeWords(Bytes("\x01\x00\x00\x00", 4), 2), (V{1, FILL}));
    EXPECT_EQ(decodeWords("", 2), (V{FILL, FILL}));
    {
        SCOPED_TRACE("a size of no multiple of 4 copies the last word whole");
        EXPECT_EQ(decodeWords(Bytes("\x01\x00\x00\x00\x02", 5), 3, Bytes("\x01\x00\x00", 3)), (V{1, 0x102, FILL}));
        EXPECT_EQ(decodeWords(Bytes("\x01\x00\x00\x00\x02", 5), 2), (V{1, 2}));
    }
    {
        SCOPED_TRACE("bytes beyond the pixels fail, once the pixels are copied");
        EXPECT_THROW_MSG(decodeWords(Bytes("\x01\x00\x00\x00\x02", 5), 1), DImageCorruptedException,
                         "mem.cbf corrupted. Binary content not valid");
        EXPECT_THROW_MSG(decodeWords(Bytes(4, '\0'), 0), DImageCorruptedException,
                         "mem.cbf corrupted. Binary content not valid");
        Cbf cbf;
        cbf.conversion = "x-CBF_NONE";
        cbf.block = Bytes("\x01\x00\x00\x00\x02\x00\x00\x00", 8);
        DCbfReader reader(dataOf(cbf.bytes()), "mem.cbf");
        DImage image(1, 1, datatypes::INT, 4);
        EXPECT_THROW(reader.readPixelData(image), DImageCorruptedException);
        EXPECT_EQ(pixelsOf(image), V{1});
    }
}

TEST(CbfReader, EveryTruncationAndFlippedByteFailsCleanly)
{
    // Cut at every length: without the whole header region the magic is missing,
    // without the whole block its size is too large; the rest is not needed.
    const Bytes file = fileBytes(dataPath("cbf/writer_small.cbf"));
    const std::size_t blockStart = file.find(Bytes(MAGIC, 4)) + 4;
    const std::size_t blockEnd = blockStart + 951;
    ASSERT_NE(file.find("X-Binary-Size: 951\r\n"), Bytes::npos);
    const auto expected = rawPixels("small.raw");
    for (std::size_t length = 0; length <= file.size(); ++length) {
        SCOPED_TRACE("length " + std::to_string(length));
        const Bytes cut = file.substr(0, length);
        if (length < blockStart) {
            EXPECT_THROW_MSG(DCbfReader(dataOf(cut), "cut.cbf"), DImageCorruptedException,
                             headerError("cut.cbf", "Magic number not found."));
        } else if (length < blockEnd) {
            EXPECT_THROW_MSG(decode(cut), DImageCorruptedException, "mem.cbf corrupted. Binary size too large.");
        } else {
            ASSERT_EQ(decode(cut), expected);
        }
    }

    // Flip each byte, in the file with its sum and in one without: either the frame
    // reads or the reader says why, with no other exception and no stray access.
    Bytes unsummed = file;
    const std::size_t md5Line = unsummed.find("Content-MD5: ");
    unsummed.erase(md5Line, unsummed.find('\n', md5Line) + 1 - md5Line);
    for (const Bytes* source : std::initializer_list<const Bytes*>{&file, &unsummed}) {
        for (std::size_t i = 0; i < source->size(); ++i) {
            Bytes flipped = *source;
            flipped[i] = static_cast<char>(flipped[i] ^ (i % 3 == 0 ? 0x80 : 0x01));
            try {
                DCbfReader reader(dataOf(flipped), "flip.cbf");
                if (std::int64_t(reader.width()) * reader.height() > (1 << 20))
                    continue; // a dimension's digit grew; the allocation is not the reader's
                DImage image;
                if (i % 64 == 0) {
                    reader.readData(image, nullptr);
                } else {
                    image = DImage(reader.width(), reader.height(), datatypes::INT, 4);
                    reader.readPixelData(image);
                }
            } catch (const DImageCorruptedException&) {
            } catch (const std::exception& e) {
                ADD_FAILURE() << "byte " << i << ": " << e.what();
            }
        }
    }
}

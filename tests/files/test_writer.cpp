#include "TestHelpers.h"

#include "DImage.h"
#include "DImageWriter.h"
#include "DMd5.h"
#include "foundation/DException.h"

#include <sys/wait.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <numeric>
#include <memory>
#include <random>
#include <sstream>
#include <tuple>

using namespace norvexa;
using namespace norvexa::imglib;
namespace fs = std::filesystem;

namespace {

std::string readFile(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

std::string md5Base64(const std::string& bytes)
{
    DMd5 md5;
    md5.hash(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    return md5.toBase64();
}

bool allZero(const std::string& bytes) { return bytes.find_first_not_of('\0') == std::string::npos; }

std::string bytesOf(const DImage& image) { return std::string(image.cdata(), image.size() * image.dataSize()); }

// A written CBF cut at the magic: the text header, the MIME values and the binary block.
struct Cbf {
    explicit Cbf(const fs::path& path) : file(readFile(path))
    {
        const auto magic = file.find("\x0c\x1a\x04\xd5");
        header = file.substr(0, magic);
        const std::string open = "_array_data.header_contents\r\n;\r\n";
        const auto start = header.find(open) + open.size();
        text = header.substr(start, header.find(";\r\n\r\n_array_data.data\r\n", start) - start);
        binary = file.substr(magic + 4, std::stoul(value("X-Binary-Size: ")));
        trailer = file.substr(magic + 4 + binary.size());
    }
    std::string value(const std::string& key) const
    {
        const auto at = header.find(key) + key.size();
        return header.substr(at, header.find("\r\n", at) - at);
    }
    std::string file, header, text, binary, trailer;
};

// The plain byte-offset rule, independent of the writer's encoder.
std::vector<std::int32_t> decode(const std::string& block)
{
    std::vector<std::int32_t> pixels;
    std::uint32_t value = 0;
    auto at = reinterpret_cast<const unsigned char*>(block.data());
    const auto end = at + block.size();
    while (at < end) {
        std::int32_t d = static_cast<signed char>(*at++);
        if (d == -128) {
            d = static_cast<std::int16_t>(at[0] | at[1] << 8);
            at += 2;
            if (d == -32768) {
                d = static_cast<std::int32_t>(at[0] | at[1] << 8 | at[2] << 16 | std::uint32_t(at[3]) << 24);
                at += 4;
            }
        }
        value += static_cast<std::uint32_t>(d);
        pixels.push_back(static_cast<std::int32_t>(value));
    }
    return pixels;
}

DImage imageOf(int width, int height, const std::vector<std::int32_t>& pixels)
{
    DImage image(width, height, 0);
    std::memcpy(image.data(), pixels.data(), pixels.size() * 4);
    return image;
}

std::vector<std::int32_t> pixelsOf(const DImage& image)
{
    const auto* p = reinterpret_cast<const std::int32_t*>(image.cdata());
    return std::vector<std::int32_t>(p, p + image.size());
}

// The "#" text header the writer makes of this metadata (raw header included).
std::string textHeader(const DImageOptionalData& data)
{
    norvexa_test::TempDir dir;
    DImage image(2, 2, 0);
    image.setOptionalData(data);
    DImageWriter::write(image, (dir.path() / "h.cbf").string(), DImageWriter::CBF);
    return Cbf(dir.path() / "h.cbf").text;
}

std::uint32_t le(const std::string& bytes, std::size_t at, int size)
{
    std::uint32_t value = 0;
    for (int i = size - 1; i >= 0; --i)
        value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
    return value;
}

} // namespace

TEST(ImageWriter, FormatFromFileNameOnlyWhileNone)
{
    const struct {
        const char* name;
        DImageWriter::Format given, expected;
    } cases[] = {
        {"/d/frame.cbf", DImageWriter::NONE, DImageWriter::CBF},
        {"frame.tif", DImageWriter::NONE, DImageWriter::TIF},
        {"frame.tiff", DImageWriter::NONE, DImageWriter::NONE},
        {"frame.CBF", DImageWriter::NONE, DImageWriter::NONE},
        {"frame", DImageWriter::NONE, DImageWriter::NONE},
        {"run.cbf/frame", DImageWriter::NONE, DImageWriter::NONE},
        {"frame.tif", DImageWriter::TIF_FLOAT, DImageWriter::TIF_FLOAT},
        {"frame.cbf", DImageWriter::TIF_INT, DImageWriter::TIF_INT},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const DImageWriter writer(c.name, c.given);
        EXPECT_EQ(writer.format(), c.expected);
        EXPECT_EQ(writer.fileName(), c.name);
    }
    DImageWriter writer;
    EXPECT_EQ(writer.format(), DImageWriter::NONE);
    writer.setFileName("a.cbf");
    writer.setFormat(DImageWriter::TIF);
    writer.setFileName("b.cbf");
    EXPECT_EQ(writer.format(), DImageWriter::TIF);
}

TEST(ImageWriter, FailureTexts)
{
    norvexa_test::TempDir dir;
    const DImage image(4, 4, 1);
    const std::string tiff = (dir.path() / "frame.tiff").string();
    EXPECT_THROW_MSG(DImageWriter(tiff, DImageWriter::NONE).write(image), DUnknownFormatException,
                     "DImageWriter: File format is NONE");
    EXPECT_THROW_MSG(DImageWriter::write(image, tiff, DImageWriter::NONE), DUnknownFormatException,
                     "DImageWriter: File format is NONE");
    EXPECT_FALSE(fs::exists(tiff)); // refused before the file is made
    const std::string missing = (dir.path() / "no-such-dir" / "frame.cbf").string();
    EXPECT_THROW_MSG(DImageWriter::write(image, missing, DImageWriter::NONE), DNoFileAccessException,
                     "No write access to " + missing);
}

TEST(ImageWriter, ByteOffsetFormsAndBounds)
{
    // Each difference d as the first of four pixels (d, d, d, d): its form, then three zeros.
    const struct {
        std::int32_t d;
        std::string form;
    } cases[] = {
        {127, "\x7f"}, {-127, "\x81"}, {128, std::string("\x80\x80\x00", 3)}, {-128, "\x80\x80\xff"},
        {32767, "\x80\xff\x7f"}, {-32767, std::string("\x80\x01\x80", 3)},
        {32768, std::string("\x80\x00\x80\x00\x80\x00\x00", 7)},
        {-32768, std::string("\x80\x00\x80\x00\x80\xff\xff", 7)},
        // No positive magnitude: one byte, which no reader decodes back (accepted).
        {INT_MIN, std::string("\x00", 1)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.d);
        const std::int32_t pixels[4] = {c.d, c.d, c.d, c.d};
        unsigned char out[16];
        const std::size_t size = detail::byteOffsetEncode(pixels, 4, out);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(out), size), c.form + std::string(3, '\0'));
    }
    // Differences wrap around in 32 bits.
    const std::int32_t wrap[4] = {INT_MAX, INT_MIN, INT_MIN, INT_MIN};
    unsigned char out[64];
    EXPECT_EQ(detail::byteOffsetEncode(wrap, 4, out), 10u);
    EXPECT_EQ(out[7], 1);

    // n / 4 forms of 7 bytes and the rest of 3 fill exactly 4n bytes; one more gives up.
    std::int32_t differences[16], pixels[16];
    for (int i = 0; i < 16; ++i)
        differences[i] = (i % 4 ? 1000 : 1 << 20) * (i % 2 ? -1 : 1);
    auto encode = [&] {
        std::partial_sum(differences, differences + 16, pixels);
        return detail::byteOffsetEncode(pixels, 16, out);
    };
    EXPECT_EQ(encode(), 64u);
    differences[5] = 1 << 24;
    EXPECT_EQ(encode(), detail::kByteOffsetGivenUp);
}

TEST(ImageWriter, CbfLayoutDigestAndPadding)
{
    norvexa_test::TempDir dir;
    const fs::path path = dir.path() / "run.1" / "frame_00001.cbf";
    fs::create_directories(path.parent_path());
    DImageWriter::write(imageOf(4, 2, {5, 5, 300, -70000, 0, 127, 127, 0}), path.string(), DImageWriter::NONE);
    const Cbf cbf(path);
    const std::string binary("\x05\x00\x80\x27\x01\x80\x00\x80\x64\xed\xfe\xff"
                             "\x80\x00\x80\x70\x11\x01\x00\x7f\x00\x81",
                             22);
    const std::string expected = "###CBF: VERSION 1.5, CBFlib v0.7.8 - SLS/NORVEXA BRENNIK detectors\r\n"
                                 "\r\ndata_frame_00001\r\n\r\n_array_data.header_convention \"SLS_1.0\"\r\n"
                                 "_array_data.header_contents\r\n;\r\n;\r\n\r\n_array_data.data\r\n;\r\n"
                                 "--CIF-BINARY-FORMAT-SECTION--\r\nContent-Type: application/octet-stream;\r\n"
                                 "     conversions=\"x-CBF_BYTE_OFFSET\"\r\n"
                                 "Content-Transfer-Encoding: BINARY\r\nX-Binary-Size: 22\r\nX-Binary-ID: 1\r\n"
                                 "X-Binary-Element-Type: \"signed 32-bit integer\"\r\n"
                                 "X-Binary-Element-Byte-Order: LITTLE_ENDIAN\r\nContent-MD5: " +
                                 md5Base64(binary) +
                                 "\r\nX-Binary-Number-of-Elements: 8\r\nX-Binary-Size-Fastest-Dimension: 4\r\n"
                                 "X-Binary-Size-Second-Dimension: 2\r\nX-Binary-Size-Padding: 4095\r\n\r\n";
    EXPECT_EQ(cbf.header, expected);
    EXPECT_EQ(cbf.binary, binary);
    EXPECT_TRUE(allZero(cbf.trailer.substr(0, 4095)));
    EXPECT_EQ(cbf.trailer.substr(4095), "\r\n--CIF-BINARY-FORMAT-SECTION----\r\n;\r\n\r\n");

    const struct {
        const char* name;
        const char* block;
    } names[] = {{"x.y.cbf", "data_x.y"}, {"run.1/frame", "data_frame"}, {"frame", "data_frame"}};
    for (const auto& n : names) {
        SCOPED_TRACE(n.name);
        DImageWriter::write(DImage(1, 1, 0), (dir.path() / n.name).string(), DImageWriter::CBF);
        EXPECT_NE(Cbf(dir.path() / n.name).header.find(std::string("\r\n\r\n") + n.block + "\r\n\r\n"),
                  std::string::npos);
    }
}

TEST(ImageWriter, CbfPixelsDecodeOrGoOutPlain)
{
    norvexa_test::TempDir dir;
    const std::string path = (dir.path() / "f.cbf").string();
    std::mt19937 random(7);
    // Runs of small differences (the vector path) broken by 3- and 7-byte forms.
    std::vector<std::int32_t> mixed(3000);
    std::uint32_t value = 0;
    for (auto& p : mixed) {
        const unsigned kind = random() % 16;
        value += kind < 12 ? random() % 255 - 127 : kind < 15 ? random() % 65535 - 32767 : random();
        p = static_cast<std::int32_t>(value);
    }
    std::vector<std::int32_t> noise(64 * 64);
    for (auto& p : noise)
        p = static_cast<std::int32_t>(random());
    DImage fromDouble(100, 50, 0.0);
    for (int i = 0; i < 5000; ++i)
        fromDouble.setPixel<double>(i % 100, i / 100, (i * 37 % 1000) * 1.5 - 400);

    const struct {
        const char* label;
        DImage image;
        const char* conversion;
    } cases[] = {
        {"mixed differences", imageOf(1000, 3, mixed), "\"x-CBF_BYTE_OFFSET\""},
        {"converted from double", fromDouble, "\"x-CBF_BYTE_OFFSET\""},
        {"noise beyond 32767", imageOf(64, 64, noise), "\"x-CBF_NONE\""},
        {"no pixels", DImage(), "\"x-CBF_BYTE_OFFSET\""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        DImageWriter::write(c.image, path, DImageWriter::CBF);
        const Cbf cbf(path);
        const DImage asInt = c.image.asType<int>();
        EXPECT_EQ(cbf.value("conversions="), c.conversion);
        EXPECT_EQ(cbf.value("Content-MD5: "), md5Base64(cbf.binary));
        EXPECT_EQ(cbf.value("X-Binary-Number-of-Elements: "), std::to_string(asInt.size()));
        if (std::strcmp(c.conversion, "\"x-CBF_NONE\"") == 0)
            EXPECT_EQ(cbf.binary, bytesOf(asInt)); // exactly 4n bytes, as they stand
        else
            EXPECT_EQ(decode(cbf.binary), pixelsOf(asInt));
    }
}

TEST(ImageWriter, TextHeaderFromMetadataAlone)
{
    DImageOptionalData data;
    EXPECT_EQ(textHeader(data), ""); // the ";" then stands alone on its line

    data.set_sensor_material(std::string("Si"));
    data.set_filter_transmission(0.5f);
    data.set_detector_distance(0.123456789f);
    data.set_wavelength(1.0332f);
    data.set_beam_center_x(1231.5f);
    data.set_beam_center_y(1263.25f);
    data.set_number_of_excluded_pixels(12);
    data.set_gain_setting(std::string("autog (vrf = 1.000)"));
    data.set_threshold_energy(6400.5f);
    data.set_saturation_value(1048500);
    data.set_frame_time(0.1f);
    data.set_count_time(0.0999f);
    data.set_rotation_angle_step(0.1f);
    data.set_rotation_angle(-12.5f);
    data.set_data_collection_date(std::string("2021-03-04T05:06:07.890"));
    data.set_detector_number(std::string("60-0101"));
    data.set_description(std::string("Brennik 6M"));
    EXPECT_EQ(textHeader(data), "# Detector: Brennik 6M, 60-0101 \r\n"
                                "2021-03-04T05:06:07.890\r\n"
                                "# Start_angle -12.5 deg\r\n"
                                "# Angle_increment 0.1 deg\r\n"
                                "# Exposure_time 0.0999 s\r\n"
                                "# Exposure_period 0.1 s\r\n"
                                "# Count_cutoff 1048500 counts\r\n"
                                "# Threshold_setting 6401 eV\r\n"
                                "# Gain_setting autog (vrf = 1.000) \r\n"
                                "# N_excluded_pixels 12 \r\n"
                                "# Beam_xy ( 1231.5, 1263.25) pixels\r\n"
                                "# Wavelength 1.0332 A\r\n"
                                "# Detector_distance 0.123457 m\r\n"
                                "# Filter_transmission 0.5 \r\n"
                                "# Silicon sensor, thickness 0 m\r\n");

    DImageOptionalData other;
    other.set_description(std::string("Brennik 6M, SN 60-0101"));
    other.set_detector_number(std::string("60-0101")); // already in the description
    other.set_beam_center_x(1.0f);                     // y absent: no Beam_xy line
    other.set_threshold_energy(6399.4f);
    other.set_sensor_material(std::string("CdTe"));
    other.set_sensor_thickness(0.001f);
    EXPECT_EQ(textHeader(other), "# Detector: Brennik 6M, SN 60-0101 \r\n"
                                 "# Threshold_setting 6399 eV\r\n"
                                 "# CdTe sensor, thickness 0.001 m\r\n");
}

TEST(ImageWriter, RawHeaderLinesKeptAndUpdatedWhereTheyStand)
{
    const std::string cif = "###CBF: VERSION 1.5\r\n\r\ndata_old\r\n_array_data.header_contents\r\n;\r\n";
    const std::string mime = ";\r\n--CIF-BINARY-FORMAT-SECTION--\r\nX-Binary-Size: 10\r\n\r\n\x0c\x1a\x04\xd5";
    auto with = [](std::string raw, auto&&... setters) {
        DImageOptionalData data;
        data.setRawHeader(raw);
        (setters(data), ...);
        return textHeader(data);
    };
    auto description = [](DImageOptionalData& d) { d.set_description(std::string("NEW")); };
    auto date = [](DImageOptionalData& d) { d.set_data_collection_date(std::string("2020-01-02T03:04:05")); };
    auto exposure = [](DImageOptionalData& d) { d.set_count_time(0.5f); };
    auto sensor = [](DImageOptionalData& d) { d.set_sensor_thickness(0.001f); };
    {
        SCOPED_TRACE("a file's header: the date behind the Detector line, the old date kept");
        EXPECT_EQ(with(cif + "# Detector: OLD, SN 60-0101\r\n# 2011-06-14T10:22:33.125\r\n"
                             "# Pixel_size 172e-6 m x 172e-6 m\r\n# Silicon sensor, thickness 0.000450 m\r\n"
                             "# Exposure_time 1.0 s\r\n# Exposure_time 2.0 s\r\n#No_blank 1\r\n"
                             "# Wavelength 1.0 A\r\n" + mime,
                       description, date, exposure, sensor),
                  "# Detector: NEW \r\n2020-01-02T03:04:05\r\n# 2011-06-14T10:22:33.125\r\n"
                  "# Pixel_size 172e-6 m x 172e-6 m\r\n# Silicon sensor, thickness 0.001 m\r\n"
                  "# Exposure_time 0.5 s\r\n# Exposure_time 2.0 s\r\n# Wavelength 1.0 A\r\n");
    }
    {
        SCOPED_TRACE("no Detector line: description and date come behind the copied lines");
        EXPECT_EQ(with("# Exposure_time 1 s\n# 2011-06-14T10:22:33\n", description, date),
                  "# Exposure_time 1 s\n# 2011-06-14T10:22:33\n# Detector: NEW \r\n2020-01-02T03:04:05\r\n");
    }
    {
        SCOPED_TRACE("\"Detector\" also takes a Detector_distance line");
        EXPECT_EQ(with("# Detector_distance 0.1 m\r\n# Detector: OLD\r\n", description),
                  "# Detector: NEW \r\n# Detector: OLD\r\n");
    }
    {
        SCOPED_TRACE("sensor lines: the material word must end at index 8");
        EXPECT_EQ(with("# Ge sensor, thickness 1 m\n# Gallium   sensor, thickness 1 m\n", sensor),
                  "# Ge sensor, thickness 1 m\n# Silicon sensor, thickness 0.001 m\r\n");
    }
    {
        SCOPED_TRACE("a line of 1024 characters ends the copying");
        const std::string longLine = "# " + std::string(1022, 'x') + "\n";
        EXPECT_EQ(with("# " + std::string(1021, 'y') + "\n" + longLine + "# After 1\n", exposure),
                  "# " + std::string(1021, 'y') + "\n# Exposure_time 0.5 s\r\n");
    }
}

TEST(ImageWriter, TifBranchByFormatAndPixelType)
{
    norvexa_test::TempDir dir;
    const std::string path = (dir.path() / "f.tif").string();
    const struct {
        const char* label;
        DImageWriter::Format format;
        DImage image;
        int sampleFormat; // 0: empty file
    } cases[] = {
        {"TIF, INT 16", DImageWriter::TIF, DImage(3, 2, short(-7)), 2},
        {"TIF, UINT 32", DImageWriter::TIF, DImage(3, 2, 7u), 2},
        {"TIF, FLOAT 64", DImageWriter::TIF, DImage(3, 2, 2.5), 3},
        {"TIF, BOOL", DImageWriter::TIF, DImage(3, 2, true), 0},
        {"TIF, CHAR", DImageWriter::TIF, DImage(3, 2, 'a'), 0},
        {"TIF_FLOAT, UINT 16 goes out as integers", DImageWriter::TIF_FLOAT, DImage(3, 2, (unsigned short)7), 2},
        {"TIF_FLOAT, INT 32", DImageWriter::TIF_FLOAT, DImage(3, 2, -7), 3},
        {"TIF_INT, FLOAT 64", DImageWriter::TIF_INT, DImage(3, 2, 2.0), 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        DImageWriter::write(c.image, path, c.format);
        const std::string file = readFile(path);
        if (c.sampleFormat == 0) {
            EXPECT_TRUE(fs::exists(path) && file.empty());
            continue;
        }
        ASSERT_EQ(file.size(), 4096u + 6 * 4);
        EXPECT_EQ(le(file, 10 + 13 * 12 + 8, 4), 0x00010001u * c.sampleFormat);
        const DImage expected = c.sampleFormat == 2 ? c.image.asType<int>() : c.image.asType<float>();
        EXPECT_EQ(file.substr(4096), bytesOf(expected));
    }
}

TEST(ImageWriter, TifHeaderLayout)
{
    norvexa_test::TempDir dir;
    const std::string path = (dir.path() / "f.tif").string();
    auto header = [&](const boost::optional<std::string>& description, const std::string& raw = "") {
        DImage image(70000, 1, 0.0f); // a width beyond 16 bits is cut
        image.optionalData().set_description(description);
        image.optionalData().setRawHeader(raw.empty() ? boost::none : boost::make_optional(raw));
        DImageWriter::write(image, path, DImageWriter::TIF_FLOAT);
        return readFile(path).substr(0, 4096);
    };
    const std::string h = header(std::string("Brennik 6M"));
    EXPECT_EQ(h.substr(0, 10), std::string("II\x2a\0\x08\0\0\0\x0e\0", 10));
    const std::uint32_t entries[14][4] = {
        {256, 3, 1, 70000 & 0xffff}, {257, 3, 1, 1}, {258, 3, 1, 32}, {259, 3, 1, 1}, {262, 3, 1, 0},
        {272, 2, 11, 184}, {273, 3, 1, 4096}, {278, 3, 1, 1}, {279, 4, 1, 280000}, {282, 5, 1, 196},
        {283, 5, 1, 204}, {296, 3, 1, 1}, {305, 2, 7, 212}, {339, 3, 1, 0x00030003},
    };
    for (int i = 0; i < 14; ++i) {
        SCOPED_TRACE(entries[i][0]);
        for (int k = 0; k < 4; ++k)
            EXPECT_EQ(le(h, 10 + 12 * i + (k < 2 ? 2 * k : 4 * k - 4), k < 2 ? 2 : 4), entries[i][k]);
    }
    EXPECT_EQ(le(h, 178, 4), 0u);
    EXPECT_EQ(h.substr(184, 11), std::string("Brennik 6M\0", 11));
    EXPECT_EQ(h.substr(196, 24), std::string("\1\0\0\0\1\0\0\0\1\0\0\0\1\0\0\0FENWIK\0", 23) + h[219]);
    const std::string text = "# Detector: Brennik 6M \r\n";
    EXPECT_EQ(h.substr(220, text.size()), text);
    EXPECT_TRUE(allZero(h.substr(220 + text.size())));

    // Under two characters the description stands in the entry; from two on at 184.
    EXPECT_EQ(header(boost::none).substr(10 + 5 * 12 + 4, 8), std::string("\1\0\0\0\0\0\0\0", 8));
    EXPECT_EQ(header(std::string("X")).substr(10 + 5 * 12 + 4, 8), std::string("\2\0\0\0X\0\0\0", 8));
    EXPECT_EQ(header(std::string("AB")).substr(10 + 5 * 12 + 4, 8), std::string("\3\0\0\0\xb8\0\0\0", 8));

    // A text header that would pass byte 4096 is left out; the Model tag keeps the text.
    std::string many;
    while (many.size() < 4000)
        many += "# Unknown_line with some words\r\n";
    const std::string full = header(std::string("AB"), many);
    EXPECT_EQ(full.substr(184, 3), std::string("AB\0", 3));
    EXPECT_EQ(full.substr(204, 8), std::string("FENWIK\0\0", 8));
    EXPECT_TRUE(allZero(full.substr(212)));
    // A description too long for the header is cut to what the header leaves free.
    const std::string cut = header(std::string(5000, 'm'));
    EXPECT_EQ(le(cut, 10 + 5 * 12 + 4, 4), 3888u);
    EXPECT_EQ(cut.substr(184, 3888), std::string(3887, 'm') + '\0');
    EXPECT_EQ(cut.substr(4088, 8), std::string("FENWIK\0\0", 8));
}

TEST(ImageWriter, CbfHeaderBeyond4096BytesStaysValid)
{
    norvexa_test::TempDir dir;
    std::string raw;
    for (int i = 0; raw.size() < 20000; ++i)
        raw += "# Unknown_" + std::to_string(i) + " a line that the metadata doesn't know\r\n";
    DImage image(10, 10, 3);
    image.optionalData().setRawHeader(raw);
    image.optionalData().set_count_time(1.0f);
    const fs::path path = dir.path() / "big.cbf";
    DImageWriter::write(image, path.string(), DImageWriter::CBF);
    const Cbf cbf(path);
    EXPECT_EQ(cbf.text, raw + "# Exposure_time 1 s\r\n");
    EXPECT_GT(cbf.header.size(), 20000u);
    EXPECT_EQ(decode(cbf.binary), pixelsOf(image));
}

namespace {

// A small detector frame: a sparse low background, three spots from 300 to 200000 counts
// at their peaks (1-, 3- and 7-byte differences) and a gap row of -1.
DImage smallFrame()
{
    std::mt19937 random(11);
    DImage image(64, 48, 0);
    for (int y = 0; y < 48; ++y)
        for (int x = 0; x < 64; ++x) {
            int value = random() % 8 == 0 ? int(random() % 5) : 0;
            for (const auto& spot : {std::make_tuple(10, 10, 300), std::make_tuple(40, 30, 5000),
                                     std::make_tuple(55, 8, 200000)})
                if (std::abs(x - std::get<0>(spot)) <= 3 && std::abs(y - std::get<1>(spot)) <= 3)
                    value += std::get<2>(spot) >> ((x - std::get<0>(spot)) * (x - std::get<0>(spot)) +
                                                   (y - std::get<1>(spot)) * (y - std::get<1>(spot)));
            image.setPixel<int>(x, y, y == 20 ? -1 : value);
        }
    auto& data = image.optionalData();
    data.set_description(std::string("Brennik 1M, SN 10-0150"));
    data.set_data_collection_date(std::string("2024-05-06T07:08:09.010"));
    data.set_count_time(0.097f);
    data.set_frame_time(0.1f);
    data.set_threshold_energy(6400.0f);
    data.set_wavelength(1.0332f);
    data.set_beam_center_x(31.5f);
    data.set_beam_center_y(23.25f);
    data.set_detector_distance(0.25f);
    data.set_sensor_material(std::string("Si"));
    data.set_sensor_thickness(0.00045f);
    return image;
}

// The files under data/written/, written into `dir`.
std::vector<std::string> writeReferenceFiles(const fs::path& dir)
{
    const DImage frame = smallFrame();
    DImage extremes(64, 48, 0), noise(16, 16, 0);
    std::mt19937 random(3);
    for (int i = 0; i < 64 * 48; ++i) // a fifth of the differences need 7 bytes, another tenth 3
        extremes.setPixel<int>(i % 64, i / 64, i % 10 == 0 ? (i % 20 ? INT_MIN + 7 : INT_MAX - 10)
                                               : i % 10 == 5 ? 30000 - i : i % 7 - 3);
    for (int i = 0; i < 16 * 16; ++i)
        noise.setPixel<int>(i % 16, i / 16, static_cast<int>(random()));
    DImage rewritten = frame;
    rewritten.optionalData().setRawHeader(std::string("data_old\r\n;\r\n# Detector: OLD\r\n# 2011-06-14T10:22:33\r\n"
                                                      "# Pixel_size 172e-6 m x 172e-6 m\r\n# Exposure_time 1 s\r\n"
                                                      "# Tau = 199.1e-09 s\r\n;\r\n\x0c\x1a\x04\xd5"));
    const std::pair<const char*, std::function<void(const std::string&)>> files[] = {
        {"frame.cbf", [&](const std::string& p) { DImageWriter::write(frame, p, DImageWriter::CBF); }},
        {"extremes.cbf", [&](const std::string& p) { DImageWriter::write(extremes, p, DImageWriter::CBF); }},
        {"noise.cbf", [&](const std::string& p) { DImageWriter::write(noise, p, DImageWriter::CBF); }},
        {"rewritten.cbf", [&](const std::string& p) { DImageWriter::write(rewritten, p, DImageWriter::CBF); }},
        {"frame_int.tif", [&](const std::string& p) { DImageWriter::write(frame, p, DImageWriter::TIF_INT); }},
        {"frame_float.tif", [&](const std::string& p) { DImageWriter::write(frame, p, DImageWriter::TIF_FLOAT); }},
    };
    std::vector<std::string> names;
    for (const auto& file : files) {
        file.second((dir / file.first).string());
        names.push_back(file.first);
    }
    return names;
}

std::string md5Hex(const std::string& bytes)
{
    DMd5 md5;
    md5.hash(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    return md5.toHex();
}

std::string md5Hex(const DImage& image) { return md5Hex(bytesOf(image)); }

// tools/check_written_files.py on the files: file name -> (key -> value).
struct PeerReport {
    int status = -1;
    std::string output;
    std::map<std::string, std::map<std::string, std::string>> files;
};

PeerReport runPeers(const fs::path& dir, const std::vector<std::string>& names)
{
    PeerReport report;
    const fs::path script = fs::path(NORVEXA_DATA_DIR) / ".." / "tools" / "check_written_files.py";
    std::string command = "cd '" + dir.string() + "' && /usr/bin/python3 '" + script.string() + "'";
    for (const auto& name : names)
        command += " '" + name + "'";
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen((command + " 2>&1").c_str(), "r"), ::pclose);
    char line[65536];
    std::string file;
    while (pipe && std::fgets(line, sizeof line, pipe.get())) {
        std::string text(line);
        report.output += text;
        text.erase(text.find_last_not_of('\n') + 1);
        const auto space = text.find(' ');
        if (text.compare(0, space, "file") == 0)
            file = text.substr(space + 1);
        else if (space != std::string::npos)
            report.files[file][text.substr(0, space)] += text.substr(space + 1);
    }
    const int status = pipe ? ::pclose(pipe.release()) : -1;
    report.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return report;
}

std::string escaped(std::string text)
{
    for (std::size_t at = 0; (at = text.find_first_of("\r\n", at)) != std::string::npos; at += 2)
        text.replace(at, 1, text[at] == '\r' ? "\\r" : "\\n");
    return text;
}

} // namespace

TEST(ImageWriter, ReferenceFilesUnchanged)
{
    // NORVEXA_UPDATE_WRITTEN=1 writes them anew into data/written/ (then run the peers there).
    const fs::path reference = norvexa_test::dataPath("written");
    if (std::getenv("NORVEXA_UPDATE_WRITTEN"))
        writeReferenceFiles(reference);
    norvexa_test::TempDir dir;
    for (const auto& name : writeReferenceFiles(dir.path())) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(readFile(dir.path() / name) == readFile(reference / name));
    }
}

TEST(ImageWriterPeers, FabioAndCbflibReadTheCbfFiles)
{
    if (!fs::exists("/usr/bin/python3"))
        GTEST_SKIP() << "no /usr/bin/python3";
    norvexa_test::TempDir dir;
    writeReferenceFiles(dir.path());
    std::string raw;
    for (int i = 0; raw.size() < 6000; ++i)
        raw += "# Unknown_" + std::to_string(i) + " a line the metadata doesn't know\r\n";
    DImage big = smallFrame();
    big.optionalData().setRawHeader(raw);
    DImageWriter::write(big, (dir.path() / "big_header.cbf").string(), DImageWriter::CBF);

    const auto report = runPeers(dir.path(), {"frame.cbf", "extremes.cbf", "rewritten.cbf", "big_header.cbf", "noise.cbf"});
    if (report.status == 77)
        GTEST_SKIP() << report.output;
    ASSERT_EQ(report.status, 0) << report.output;
    for (const char* name : {"frame.cbf", "extremes.cbf", "rewritten.cbf", "big_header.cbf", "noise.cbf"}) {
        SCOPED_TRACE(name);
        const Cbf cbf(dir.path() / name);
        const DImage pixels = imageOf(64, 48, decode(cbf.binary));
        const bool plain = std::string(name) == "noise.cbf"; // fabio reads byte offset only
        auto found = report.files.at(name);
        EXPECT_EQ(found["cbflib.error"], "");
        EXPECT_EQ(found["cbflib.digest"], "checked");
        EXPECT_EQ(found["cbflib.datablock"], fs::path(name).stem().string());
        EXPECT_EQ(found["cbflib.compression"], plain ? "none" : "byte_offset");
        EXPECT_EQ(found["cbflib.pixels"], plain ? md5Hex(cbf.binary) : md5Hex(pixels));
        if (plain)
            continue;
        EXPECT_EQ(found["fabio.pixels"], md5Hex(pixels));
        EXPECT_EQ(found["fabio.shape"], "48 64");
        EXPECT_EQ(found["fabio.log"], ""); // fabio checks the digest too
        if (!cbf.text.empty()) { // fabio strips the last line break
            EXPECT_EQ(found["fabio.header._array_data.header_contents"] + "\\r\\n", escaped(cbf.text));
        }
    }
}

TEST(ImageWriterPeers, FabioAndLibtiffReadTheTifFiles)
{
    if (!fs::exists("/usr/bin/python3"))
        GTEST_SKIP() << "no /usr/bin/python3";
    norvexa_test::TempDir dir;
    writeReferenceFiles(dir.path());
    const auto report = runPeers(dir.path(), {"frame_int.tif", "frame_float.tif"});
    if (report.status == 77)
        GTEST_SKIP() << report.output;
    ASSERT_EQ(report.status, 0) << report.output;
    const DImage frame = smallFrame();
    for (const char* name : {"frame_int.tif", "frame_float.tif"}) {
        SCOPED_TRACE(name);
        const bool isFloat = std::string(name) == "frame_float.tif";
        const std::string pixels = md5Hex(isFloat ? frame.asType<float>() : frame);
        auto found = report.files.at(name);
        EXPECT_EQ(found["libtiff.error"] + found["fabio.error"], "");
        EXPECT_EQ(found["fabio.pixels"], pixels);
        EXPECT_EQ(found["libtiff.pixels"], pixels);
        EXPECT_EQ(found["fabio.dtype"], isFloat ? "float32" : "int32");
        EXPECT_EQ(found["libtiff.sample_format"], isFloat ? "3" : "2");
        EXPECT_EQ(found["libtiff.width"] + " " + found["libtiff.height"] + " " + found["libtiff.bits"], "64 48 32");
        EXPECT_EQ(found["libtiff.model"], "Brennik 1M, SN 10-0150");
        EXPECT_EQ(found["libtiff.software"], "FENWIK");
        EXPECT_EQ(found["libtiff.strips"], "1");
    }
}

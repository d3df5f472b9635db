#include "ReaderHelpers.h"
#include "TestHelpers.h"

#include "DCbfReader.h"
#include "DImage.h"
#include "DImageWriter.h"
#include "DTifReader.h"
#include "foundation/DException.h"

#include <boost/optional/optional_io.hpp>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <numeric>
#include <random>
#include <sstream>

using namespace norvexa;
using namespace norvexa::imglib;
namespace fs = std::filesystem;
using namespace std::string_literals;

namespace {

std::string readFile(const fs::path& path) { return norvexa_test::fileBytes<std::string>(path); }

std::string md5Of(const std::string& bytes, bool hex = false) { return norvexa_test::md5Of(bytes, !hex); }

bool allZero(const std::string& bytes) { return bytes.find_first_not_of('\0') == std::string::npos; }
std::string bytesOf(const DImage& image) { return std::string(image.cdata(), image.size() * image.dataSize()); }

// A written CBF cut at the magic: header, "#" text header, MIME values, binary block, rest.
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

// The plain byte-offset rule, independent of the writer's encoder: pixel bytes.
std::string decode(const std::string& block)
{
    std::string pixels;
    std::uint32_t value = 0;
    for (auto at = reinterpret_cast<const unsigned char*>(block.data()), end = at + block.size(); at < end;) {
        std::int32_t d = static_cast<signed char>(*at++);
        if (d == -128) {
            d = static_cast<std::int16_t>(at[0] | at[1] << 8);
            at += 2;
        }
        if (d == -32768) {
            d = static_cast<std::int32_t>(at[0] | at[1] << 8 | at[2] << 16 | std::uint32_t(at[3]) << 24);
            at += 4;
        }
        value += static_cast<std::uint32_t>(d);
        pixels.append(reinterpret_cast<const char*>(&value), 4);
    }
    return pixels;
}

DImage imageOf(int width, int height, const std::vector<std::int32_t>& pixels)
{
    DImage image(width, height, 0);
    std::memcpy(image.data(), pixels.data(), pixels.size() * 4);
    return image;
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

// Every item with a line, set in the reverse of the order the lines come in.
DImageOptionalData fullMetadata()
{
    DImageOptionalData data;
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
    return data;
}

std::uint32_t le(const std::string& bytes, std::size_t at, int size)
{
    std::uint32_t value = 0;
    for (int i = size - 1; i >= 0; --i)
        value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
    return value;
}

} // namespace

TEST(ImageWriter, FormatFromFileNameAndFailureTexts)
{
    using W = DImageWriter;
    const struct {
        const char* name;
        W::Format given, expected;
    } cases[] = {
        // clang-format off
        {"/d/frame.cbf", W::NONE, W::CBF},  {"frame.tif", W::NONE, W::TIF},
        {"frame.tiff", W::NONE, W::NONE},   {"frame.CBF", W::NONE, W::NONE},
        {"frame", W::NONE, W::NONE},        {"run.cbf/frame", W::NONE, W::NONE},
        {"frame.tif", W::TIF_FLOAT, W::TIF_FLOAT}, {"frame.cbf", W::TIF_INT, W::TIF_INT},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(W(c.name, c.given).format(), c.expected);
    }

    norvexa_test::TempDir dir;
    const std::string tiff = (dir.path() / "frame.tiff").string();
    EXPECT_THROW_MSG(W(tiff, W::NONE).write(DImage(4, 4, 1)), DUnknownFormatException,
                     "DImageWriter: File format is NONE");
    EXPECT_FALSE(fs::exists(tiff)); // refused before the file is made
    const std::string missing = (dir.path() / "no-such-dir" / "frame.cbf").string();
    EXPECT_THROW_MSG(W::write(DImage(4, 4, 1), missing, W::NONE), DNoFileAccessException,
                     "No write access to " + missing);
}

TEST(ImageWriter, ByteOffsetFormsAndBounds)
{
    // Each difference d as four pixels (d, d, d, d): its form, then three zero differences.
    const std::pair<std::int32_t, std::string> cases[] = {
        // clang-format off
        {127, "\x7f"}, {-127, "\x81"}, {128, "\x80\x80\x00"s}, {-128, "\x80\x80\xff"}, {32767, "\x80\xff\x7f"},
        {32768, "\x80\x00\x80\x00\x80\x00\x00"s}, {-32768, "\x80\x00\x80\x00\x80\xff\xff"s},
        {INT_MIN, "\x00"s}, // no positive magnitude: one byte, decoded wrongly (accepted)
        // clang-format on
    };
    unsigned char out[64];
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        const std::int32_t pixels[4] = {c.first, c.first, c.first, c.first};
        const std::size_t size = detail::byteOffsetEncode(pixels, 4, out);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(out), size), c.second + std::string(3, '\0'));
    }
    const std::int32_t wrap[4] = {INT_MAX, INT_MIN, INT_MIN, INT_MIN}; // 32-bit wrap-around: +1
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
    const std::string binary("\x05\x00\x80\x27\x01\x80\x00\x80\x64\xed\xfe\xff\x80\x00\x80\x70\x11\x01\x00\x7f\x00\x81",
                             22);
    EXPECT_EQ(cbf.header, "###CBF: VERSION 1.5, CBFlib v0.7.8 - SLS/NORVEXA BRENNIK detectors\r\n"
                          "\r\ndata_frame_00001\r\n\r\n_array_data.header_convention \"SLS_1.0\"\r\n"
                          "_array_data.header_contents\r\n;\r\n;\r\n\r\n_array_data.data\r\n;\r\n"
                          "--CIF-BINARY-FORMAT-SECTION--\r\nContent-Type: application/octet-stream;\r\n"
                          "     conversions=\"x-CBF_BYTE_OFFSET\"\r\n"
                          "Content-Transfer-Encoding: BINARY\r\nX-Binary-Size: 22\r\nX-Binary-ID: 1\r\n"
                          "X-Binary-Element-Type: \"signed 32-bit integer\"\r\n"
                          "X-Binary-Element-Byte-Order: LITTLE_ENDIAN\r\nContent-MD5: " +
                              md5Of(binary) +
                              "\r\nX-Binary-Number-of-Elements: 8\r\nX-Binary-Size-Fastest-Dimension: 4\r\n"
                              "X-Binary-Size-Second-Dimension: 2\r\nX-Binary-Size-Padding: 4095\r\n\r\n");
    EXPECT_EQ(cbf.binary, binary);
    EXPECT_TRUE(allZero(cbf.trailer.substr(0, 4095)));
    EXPECT_EQ(cbf.trailer.substr(4095), "\r\n--CIF-BINARY-FORMAT-SECTION----\r\n;\r\n\r\n");

    for (const auto& name : {std::make_pair("x.y.cbf", "data_x.y"), std::make_pair("run.1/frame", "data_frame")}) {
        SCOPED_TRACE(name.first);
        DImageWriter::write(DImage(1, 1, 0), (dir.path() / name.first).string(), DImageWriter::CBF);
        EXPECT_NE(Cbf(dir.path() / name.first).header.find("detectors\r\n\r\n"s + name.second + "\r\n\r\n_"),
                  std::string::npos);
    }
}

TEST(ImageWriter, CbfPixelsDecodeOrGoOutPlain)
{
    norvexa_test::TempDir dir;
    const std::string path = (dir.path() / "f.cbf").string();
    // Runs of small differences (the vector path) among 3- and 7-byte ones; noise; doubles.
    std::mt19937 random(7);
    std::vector<std::int32_t> mixed(3000), noise(64 * 64);
    std::uint32_t value = 0;
    for (auto& p : mixed) {
        const unsigned kind = random() % 16;
        value += kind < 12 ? random() % 255 - 127 : kind < 15 ? random() % 65535 - 32767 : random();
        p = static_cast<std::int32_t>(value);
    }
    for (auto& p : noise)
        p = static_cast<std::int32_t>(random());
    DImage fromDouble(100, 50, 0.0);
    for (int i = 0; i < 5000; ++i)
        fromDouble.setPixel<double>(i % 100, i / 100, (i * 37 % 1000) * 1.5 - 400);

    const struct {
        const char* label;
        DImage image;
        bool plain;
    } cases[] = {
        {"mixed differences", imageOf(1000, 3, mixed), false},
        {"converted from double", fromDouble, false},
        {"noise beyond 32767", imageOf(64, 64, noise), true},
        {"no pixels", DImage(), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        DImageWriter::write(c.image, path, DImageWriter::CBF);
        const Cbf cbf(path);
        const std::string expected = bytesOf(c.image.asType<int>());
        EXPECT_EQ(cbf.value("conversions="), c.plain ? "\"x-CBF_NONE\"" : "\"x-CBF_BYTE_OFFSET\"");
        EXPECT_EQ(cbf.value("Content-MD5: "), md5Of(cbf.binary));
        EXPECT_EQ(cbf.value("X-Binary-Number-of-Elements: "), std::to_string(expected.size() / 4));
        EXPECT_TRUE((c.plain ? cbf.binary : decode(cbf.binary)) == expected); // plain: exactly 4n bytes
    }
}

TEST(ImageWriter, TextHeaderFromMetadataAlone)
{
    EXPECT_EQ(textHeader(DImageOptionalData()), ""); // the ";" then stands alone on its line

    EXPECT_EQ(textHeader(fullMetadata()), "# Detector: Brennik 6M, 60-0101 \r\n2021-03-04T05:06:07.890\r\n"
                                          "# Start_angle -12.5 deg\r\n# Angle_increment 0.1 deg\r\n"
                                          "# Exposure_time 0.0999 s\r\n# Exposure_period 0.1 s\r\n"
                                          "# Count_cutoff 1048500 counts\r\n# Threshold_setting 6401 eV\r\n"
                                          "# Gain_setting autog (vrf = 1.000) \r\n# N_excluded_pixels 12 \r\n"
                                          "# Beam_xy ( 1231.5, 1263.25) pixels\r\n# Wavelength 1.0332 A\r\n"
                                          "# Detector_distance 0.123457 m\r\n# Filter_transmission 0.5 \r\n"
                                          "# Silicon sensor, thickness 0 m\r\n");

    DImageOptionalData other;
    other.set_description(std::string("Brennik 6M, SN 60-0101"));
    other.set_detector_number(std::string("60-0101")); // already in the description
    other.set_beam_center_x(1.0f);                     // y absent: no Beam_xy line
    other.set_threshold_energy(6399.4f);
    other.set_sensor_material(std::string("CdTe"));
    other.set_sensor_thickness(0.001f);
    EXPECT_EQ(textHeader(other), "# Detector: Brennik 6M, SN 60-0101 \r\n# Threshold_setting 6399 eV\r\n"
                                 "# CdTe sensor, thickness 0.001 m\r\n");
}

TEST(ImageWriter, RawHeaderLinesKeptAndUpdatedWhereTheyStand)
{
    const std::string line1023 = "# " + std::string(1021, 'y') + "\n";
    const struct {
        const char* label;
        std::string raw;
        const char* items; // D description, T date, E exposure time, S sensor thickness
        std::string expected;
    } cases[] = {
        {"a file's header: CIF and MIME lines go, the date goes behind the Detector line, the old "
         "one stays",
         "data_old\r\n;\r\n# Detector: OLD, SN 60-0101\r\n# 2011-06-14T10:22:33.125\r\n# "
         "Pixel_size 172e-6 m\r\n"
         "# Silicon sensor, thickness 0.000450 m\r\n# Exposure_time 1.0 s\r\n# Exposure_time 2.0 "
         "s\r\n#No_blank 1\r\n"
         "# Wavelength 1.0 A\r\n;\r\nX-Binary-Size: 10\r\n\r\n\x0c\x1a\x04\xd5",
         "DTES",
         "# Detector: NEW \r\n2020-01-02T03:04:05\r\n# 2011-06-14T10:22:33.125\r\n# Pixel_size "
         "172e-6 m\r\n"
         "# Silicon sensor, thickness 0.001 m\r\n# Exposure_time 0.5 s\r\n# Exposure_time 2.0 "
         "s\r\n# Wavelength 1.0 A\r\n"},
        {"no Detector line: description and date come behind the copied lines",
         "# Exposure_time 1 s\n# 2011-06-14T10:22:33\n", "DT",
         "# Exposure_time 1 s\n# 2011-06-14T10:22:33\n# Detector: NEW \r\n2020-01-02T03:04:05\r\n"},
        {"\"Detector\" also takes a Detector_distance line", "# Detector_distance 0.1 m\r\n# Detector: OLD\r\n", "D",
         "# Detector: NEW \r\n# Detector: OLD\r\n"},
        {"sensor lines: the material word must end at index 8",
         "# Ge sensor, thickness 1 m\n# Gallium   sensor, thickness 1 m\n", "S",
         "# Ge sensor, thickness 1 m\n# Silicon sensor, thickness 0.001 m\r\n"},
        {"a line of 1024 characters ends the copying, 1023 don't",
         line1023 + "# " + std::string(1022, 'x') + "\n# After 1\n", "E", line1023 + "# Exposure_time 0.5 s\r\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        DImageOptionalData data;
        data.setRawHeader(c.raw);
        const std::string items = c.items;
        auto has = [&](char item) { return items.find(item) != std::string::npos; };
        data.set_description(has('D') ? boost::make_optional("NEW"s) : boost::none);
        data.set_data_collection_date(has('T') ? boost::make_optional("2020-01-02T03:04:05"s) : boost::none);
        data.set_count_time(has('E') ? boost::make_optional(0.5f) : boost::none);
        data.set_sensor_thickness(has('S') ? boost::make_optional(0.001f) : boost::none);
        EXPECT_EQ(textHeader(data), c.expected);
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
        int sampleFormat; // 0: an empty file
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
        EXPECT_TRUE(fs::exists(path));
        if (c.sampleFormat == 0) {
            EXPECT_EQ(file, "");
            continue;
        }
        ASSERT_EQ(file.size(), 4096u + 6 * 4);
        EXPECT_EQ(le(file, 10 + 13 * 12 + 8, 4), 0x00010001u * c.sampleFormat);
        EXPECT_EQ(file.substr(4096), bytesOf(c.sampleFormat == 2 ? c.image.asType<int>() : c.image.asType<float>()));
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
        // clang-format off
        {256, 3, 1, 70000 & 0xffff}, {257, 3, 1, 1},    {258, 3, 1, 32},    {259, 3, 1, 1},
        {262, 3, 1, 0},              {272, 2, 11, 184}, {273, 3, 1, 4096},  {278, 3, 1, 1},
        {279, 4, 1, 280000},         {282, 5, 1, 196},  {283, 5, 1, 204},   {296, 3, 1, 1},
        {305, 2, 7, 212},            {339, 3, 1, 0x00030003},
        // clang-format on
    };
    for (int i = 0; i < 14; ++i)
        for (int k = 0; k < 4; ++k)
            EXPECT_EQ(le(h, 10 + 12 * i + (k < 2 ? 2 * k : 4 * k - 4), k < 2 ? 2 : 4), entries[i][k]) << entries[i][0];
    EXPECT_EQ(le(h, 178, 4), 0u);
    EXPECT_EQ(h.substr(184, 11), std::string("Brennik 6M\0", 11));
    EXPECT_EQ(h.substr(196, 23), std::string("\1\0\0\0\1\0\0\0\1\0\0\0\1\0\0\0FENWIK\0", 23));
    EXPECT_EQ(h.substr(220, 26), "# Detector: Brennik 6M \r\n\0"s);
    EXPECT_TRUE(allZero(h.substr(245)));

    // Under two characters the description stands in the entry; from two on at 184.
    EXPECT_EQ(header(boost::none).substr(74, 8), std::string("\1\0\0\0\0\0\0\0", 8));
    EXPECT_EQ(header(std::string("X")).substr(74, 8), std::string("\2\0\0\0X\0\0\0", 8));
    EXPECT_EQ(header(std::string("AB")).substr(74, 8), std::string("\3\0\0\0\xb8\0\0\0", 8));
    // The text header from byte 212 may end exactly at byte 4096 (three lines of 1001, one of
    // 863 and the Detector line of 17 bytes); one byte more and it is left out whole.
    const std::string line = "# " + std::string(998, 'x') + "\n", lines = line + line + line;
    EXPECT_EQ(header(std::string("AB"), lines + "# " + std::string(861, 'y') + "\n").substr(4096 - 17),
              "# Detector: AB \r\n");
    const std::string omitted = header(std::string("AB"), lines + "# " + std::string(862, 'y') + "\n");
    EXPECT_EQ(omitted.substr(184, 3), "AB\0"s); // the Model tag keeps the description
    EXPECT_TRUE(allZero(omitted.substr(212)));
    // A description too long for the header is cut to what the header leaves free.
    const std::string cut = header(std::string(5000, 'm'));
    EXPECT_EQ(le(cut, 74, 4), 3888u);
    EXPECT_EQ(cut.substr(184, 3888), std::string(3887, 'm') + '\0');
    EXPECT_EQ(cut.substr(4088, 8), "FENWIK\0\0"s);
}

namespace {

// A small detector frame: a sparse low background, spots of 300, 5000 and 200000 counts at
// their peaks (1-, 3- and 7-byte differences), a gap row of -1, and every header item.
DImage smallFrame()
{
    std::mt19937 random(11);
    DImage image(64, 48, 0);
    for (int i = 0; i < 64 * 48; ++i) {
        const int x = i % 64, y = i / 64;
        int value = random() % 8 == 0 ? int(random() % 5) : 0;
        static const int spots[3][3] = {{10, 10, 300}, {40, 30, 5000}, {55, 8, 200000}};
        for (const auto& spot : spots)
            if (std::abs(x - spot[0]) <= 3 && std::abs(y - spot[1]) <= 3)
                value += spot[2] >> ((x - spot[0]) * (x - spot[0]) + (y - spot[1]) * (y - spot[1]));
        image.setPixel<int>(x, y, y == 20 ? -1 : value);
    }
    image.setOptionalData(fullMetadata());
    return image;
}

// The files under data/written/, written into `dir`: name -> the image written.
std::map<std::string, DImage> writeReferenceFiles(const fs::path& dir)
{
    const DImage frame = smallFrame();
    DImage extremes(64, 48, 0), noise(16, 16, 0), rewritten = frame;
    for (int i = 0; i < 64 * 48; ++i) { // a fifth of the differences take 7 bytes, a tenth 3
        const int extreme = i % 20 ? INT_MIN + 7 : INT_MAX - 10;
        extremes.setPixel<int>(i % 64, i / 64, i % 10 ? (i % 10 == 5 ? 30000 - i : i % 7 - 3) : extreme);
    }
    std::mt19937 random(3);
    for (int i = 0; i < 16 * 16; ++i)
        noise.setPixel<int>(i % 16, i / 16, static_cast<int>(random()));
    rewritten.optionalData().setRawHeader(
        "data_old\r\n;\r\n# Detector: OLD\r\n# 2011-06-14T10:22:33\r\n# Pixel_size 172e-6 m "
        "x 172e-6 m\r\n# Exposure_time 1 s\r\n# Tau = 199.1e-09 s\r\n;\r\n\x0c\x1a\x04\xd5"s);
    const std::tuple<const char*, const DImage&, DImageWriter::Format> files[] = {
        {"frame.cbf", frame, DImageWriter::CBF},         {"extremes.cbf", extremes, DImageWriter::CBF},
        {"noise.cbf", noise, DImageWriter::CBF},         {"rewritten.cbf", rewritten, DImageWriter::CBF},
        {"frame_int.tif", frame, DImageWriter::TIF_INT}, {"frame_float.tif", frame, DImageWriter::TIF_FLOAT},
    };
    std::map<std::string, DImage> written;
    for (const auto& [name, image, format] : files) {
        DImageWriter::write(image, (dir / name).string(), format);
        written.emplace(name, format == DImageWriter::TIF_FLOAT ? image.asType<float>() : image);
    }
    return written;
}

// tools/check_written_files.py on the files in `dir`: file name -> (key -> value); exit status.
std::pair<int, std::map<std::string, std::map<std::string, std::string>>> runPeers(const fs::path& dir,
                                                                                   const std::string& names)
{
    const fs::path script = fs::path(NORVEXA_DATA_DIR) / ".." / "tools" / "check_written_files.py";
    const auto [status, output] = norvexa_test::runCommand("cd '" + dir.string() + "' && /usr/bin/python3 '" +
                                                           script.string() + "' " + names + " 2>&1");
    std::map<std::string, std::map<std::string, std::string>> found;
    found[""]["output"] = output;
    std::istringstream lines(output);
    std::string file;
    for (std::string text; std::getline(lines, text);) {
        const auto space = text.find(' ');
        if (text.compare(0, space, "file") == 0)
            file = text.substr(space + 1);
        else if (space != std::string::npos)
            found[file][text.substr(0, space)] += text.substr(space + 1);
    }
    return {status, found};
}

std::string escaped(std::string text)
{
    for (std::size_t at = 0; (at = text.find_first_of("\r\n", at)) != std::string::npos; at += 2)
        text.replace(at, 1, text[at] == '\r' ? "\\r" : "\\n");
    return text;
}

} // namespace

TEST(ImageWriterPeers, FabioCbflibAndLibtiffReadTheFiles)
{
    if (!fs::exists("/usr/bin/python3"))
        GTEST_SKIP() << "no /usr/bin/python3";
    norvexa_test::TempDir dir;
    auto images = writeReferenceFiles(dir.path());
    if (std::getenv("NORVEXA_UPDATE_WRITTEN")) // the files under data/written/, checked by the same script
        writeReferenceFiles(norvexa_test::dataPath("written"));
    // A text header far beyond 4096 bytes: the header grows and the file stays valid.
    std::string raw;
    for (int i = 0; raw.size() < 6000; ++i)
        raw += "# Unknown_" + std::to_string(i) + " a line the metadata doesn't know\r\n";
    DImage& big = images.emplace("big_header.cbf", smallFrame()).first->second;
    big.optionalData().setRawHeader(raw);
    DImageWriter::write(big, (dir.path() / "big_header.cbf").string(), DImageWriter::CBF);

    const auto [status, found] = runPeers(dir.path(), "frame.cbf extremes.cbf noise.cbf rewritten.cbf big_header.cbf "
                                                      "frame_int.tif frame_float.tif");
    if (status == 77)
        GTEST_SKIP() << found.at("").at("output");
    ASSERT_EQ(status, 0) << found.at("").at("output");
    for (const auto& [name, image] : images) {
        SCOPED_TRACE(name);
        auto peer = found.at(name);
        const std::string pixels = md5Of(bytesOf(image), true);
        const std::string shape = std::to_string(image.height()) + " " + std::to_string(image.width());
        EXPECT_EQ(peer["fabio.shape"],
                  name == "noise.cbf" ? "" : shape); // fabio reads byte offset only
        if (name.find(".tif") != std::string::npos) {
            EXPECT_EQ(peer["libtiff.height"] + " " + peer["libtiff.width"], shape);
            EXPECT_EQ(peer["fabio.pixels"] + " " + peer["libtiff.pixels"], pixels + " " + pixels);
            EXPECT_EQ(peer["libtiff.sample_format"], image.type() == datatypes::FLOAT ? "3" : "2");
            EXPECT_EQ(peer["libtiff.model"] + "," + peer["libtiff.software"] + "," + peer["libtiff.strips"],
                      "Brennik 6M,FENWIK,1");
            continue;
        }
        const Cbf cbf(dir.path() / name);
        EXPECT_EQ(peer["cbflib.digest"] + peer["cbflib.error"], "checked");
        EXPECT_EQ(peer["cbflib.datablock"], fs::path(name).stem().string());
        EXPECT_EQ(peer["cbflib.shape"] + " " + peer["cbflib.pixels"], shape + " " + pixels);
        EXPECT_EQ(peer["cbflib.compression"], name == "noise.cbf" ? "none" : "byte_offset");
        if (name == "noise.cbf")
            continue;
        EXPECT_EQ(peer["fabio.pixels"], pixels);
        EXPECT_EQ(peer["fabio.log"], ""); // fabio checks the digest too
        if (!cbf.text.empty()) {          // fabio drops the last line break
            EXPECT_EQ(peer["fabio.header._array_data.header_contents"] + "\\r\\n", escaped(cbf.text));
        }
    }
    EXPECT_EQ(Cbf(dir.path() / "big_header.cbf").text.substr(0, raw.size()), raw);
}

namespace {

template <class Reader>
DImage readImage(const fs::path& path)
{
    DImage image;
    Reader(path.c_str(), 0).readData(image, nullptr);
    return image;
}

// The first word of each "#" header line of a CBF (without "# " and a trailing ':').
std::vector<std::string> headerKeys(const fs::path& path)
{
    std::istringstream text(Cbf(path).text);
    std::vector<std::string> keys;
    for (std::string line; std::getline(text, line);) {
        std::istringstream words(line.compare(0, 2, "# ") ? line : line.substr(2));
        std::string key;
        words >> key;
        keys.push_back(key.back() == ':' ? key.substr(0, key.size() - 1) : key);
    }
    return keys;
}

} // namespace

TEST(ImageWriterRoundTrip, CbfAndTifReadWrittenAndReadAgain)
{
    // A detector's header and byte-offset pixels, as CBFlib wrote them; then as TIFF.
    const fs::path source = norvexa_test::dataPath("cbf/cbflib_small.cbf");
    norvexa_test::TempDir dir;
    DImage image = readImage<DCbfReader>(source);
    image.optionalData().set_count_time(0.5f);
    DImageWriter::write(image, (dir.path() / "again.cbf").string(), DImageWriter::NONE);
    const DImage again = readImage<DCbfReader>(dir.path() / "again.cbf");
    ASSERT_EQ(again.size(), image.size());
    EXPECT_EQ(std::memcmp(again.cdata(), image.cdata(), image.size() * 4), 0);

    // Every line stays where it stood, known ones rewritten, unknown ones copied; the new
    // date goes right behind the Detector line, in front of the old date line.
    std::vector<std::string> keys = headerKeys(source);
    const auto detector = std::find(keys.begin(), keys.end(), "Detector");
    ASSERT_NE(detector, keys.end());
    keys.insert(detector + 1, *(detector + 1));
    keys.insert(keys.begin(), "CBF"); // CBFlib's "# CBF file written by ..." comment is a "# " line too
    EXPECT_EQ(headerKeys(dir.path() / "again.cbf"), keys);

    const auto& before = image.optionalData();
    const auto& after = again.optionalData();
    EXPECT_EQ(after.count_time(), boost::make_optional(0.5f));
    for (const auto& item :
         {std::make_pair(after.x_pixel_size(), before.x_pixel_size()), // copied lines
          std::make_pair(after.beam_flux(), before.beam_flux()),
          std::make_pair(after.polarisation(), before.polarisation()),
          std::make_pair(after.wavelength(), before.wavelength()), // rewritten lines
          std::make_pair(after.beam_center_y(), before.beam_center_y()),
          std::make_pair(after.rotation_angle(), before.rotation_angle()),
          std::make_pair(after.sensor_thickness(), before.sensor_thickness())}) {
        EXPECT_TRUE(item.first);
        EXPECT_EQ(item.first, item.second);
    }
    EXPECT_EQ(after.data_collection_date(), before.data_collection_date());
    EXPECT_EQ(after.countrate_correction_bunch_mode(), before.countrate_correction_bunch_mode());
    // The blank that ends the Detector and Gain_setting lines comes back in the text.
    EXPECT_EQ(after.description(), *before.description() + " ");
    EXPECT_EQ(after.gain_setting(), *before.gain_setting() + " ");
    EXPECT_EQ(after.detector_number(), before.detector_number());

    for (const auto format : {DImageWriter::TIF_INT, DImageWriter::TIF_FLOAT}) {
        SCOPED_TRACE(format);
        DImageWriter::write(image, (dir.path() / "frame.tif").string(), format);
        const DImage tif = readImage<DTifReader>(dir.path() / "frame.tif");
        const DImage expected = format == DImageWriter::TIF_INT ? image : image.asType<float>();
        ASSERT_EQ(tif.type(), expected.type());
        EXPECT_EQ(std::memcmp(tif.cdata(), expected.cdata(), expected.size() * 4), 0);
        EXPECT_EQ(tif.optionalData().description(), before.description()); // the Model tag
        EXPECT_EQ(tif.optionalData().count_time(), before.count_time());
        EXPECT_EQ(tif.optionalData().wavelength(), before.wavelength());
    }
}

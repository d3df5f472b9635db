#include "MetadataText.h"
#include "ReaderHelpers.h"
#include "TestHelpers.h"

#include "DAbstractImageReader.h"
#include "foundation/DException.h"

#include <fstream>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

// A reader of a frame of a given size whose header is the whole file; it records the
// order in which its steps are called.
class ProbeReader : public DAbstractImageReader {
public:
    ProbeReader(const std::string& text, int width = 4, int height = 3, bool corrupt = false)
        : DAbstractImageReader(norvexa_test::readerData(text), "probe.cbf"), _width(width), _height(height), _corrupt(corrupt)
    {
    }
    // From a file, with the size the caller expects.
    ProbeReader(std::size_t expectedSize, const char* path)
        : DAbstractImageReader(path, expectedSize), _width(0), _height(0), _corrupt(false)
    {
    }
    using DAbstractImageReader::fileData;
    int width() const override { return note("width"), _width; }
    int height() const override { return note("height"), _height; }
    datatypes::Type dataType() const override { return note("dataType"), datatypes::INT; }
    unsigned long typeBits() const override { return note("typeBits"), 32; }
    void readPixelData(DImage& image) const override
    {
        note("readPixelData");
        if (_corrupt)
            throw DImageCorruptedException("corrupt");
        for (int i = 0; i < image.width() * image.height(); ++i)
            reinterpret_cast<int*>(image.data())[i] = i;
    }
    void readImageSpecificHeader(DImageOptionalData& data) const override
    {
        note("readImageSpecificHeader");
        DImageOptionalData file;
        readNorvexaHeader(file);
        file.override(data);
    }
    void readHeaderData(DImageOptionalData& data) const override
    {
        note("readHeaderData");
        readNorvexaHeader(data);
        readDetectorNumber(data);
        readModules(data);
    }
    void readRawHeader(DImageOptionalData& data) const override
    {
        note("readRawHeader");
        data.setRawHeader(std::string(fileData().cdata(), fileData().size()));
    }
    mutable std::vector<std::string> calls;

private:
    void note(const char* call) const { calls.emplace_back(call); }
    int _width, _height;
    bool _corrupt;
};

DImageOptionalData headerOf(const std::string& text, int width = 4, int height = 3)
{
    DImageOptionalData data;
    ProbeReader reader(text, width, height);
    reader.readNorvexaHeader(data);
    reader.readDetectorNumber(data);
    reader.readModules(data);
    return data;
}

} // namespace

TEST(TextHeader, TheUsualLines)
{
    const auto data = headerOf(
        "###CBF: VERSION 1.5\r\n"
        "# Detector: BRENNIK 6M, S/N 60-0101, SN 24-0100 x\r\n"
        "# 2011/Jun/14 10:22:33.125\r\n"
        "# Pixel_size 172e-6 m x 172e-6 m\r\n"
        "# Silicon sensor, thickness 0.000320 m\r\n"
        "# Exposure_time 0.0970000 s\r\n"
        "# Exposure_period 0.1000000 s\r\n"
        "# Tau = 199.1e-09 s\r\n"
        "# Count_cutoff 1048500 counts\r\n"
        "# Threshold_setting: 6400.5 eV\r\n"
        "# Gain_setting: autog (vrf = 1.000)\r\n"
        "# N_excluded_pixels = 321\r\n"
        "# Wavelength 0.97625 A\r\n"
        "# Detector_distance 0.19900 m\r\n"
        "# Beam_xy (1231.5, 1263.5) pixels\r\n"
        "# Flux 0.000000\r\n"
        "# Filter_transmission 1.0000\r\n"
        "# Start_angle 10.0000 deg.\r\n"
        "# Angle_increment 0.1000 deg.\r\n"
        "# Polarization 0.990\r\n"
        "# Retrigger_mode 1\r\n"
        "# Ratecorr_lut_directory: ContinuousStandard_v1.1\r\n"
        "_array_data.data\r\n",
        487, 195);
    // The threshold is read as an integer; a frame of one module of the first family gets
    // its layout, a bit depth and the Vrf of the gain setting.
    EXPECT_EQ(norvexa_test::everything(data),
              "beam_center_x=1231.5;beam_center_y=1263.5;bit_depth_readout=20;count_time=0.097;"
              "data_collection_date=2011/Jun/14 10:22:33.125;description=BRENNIK 6M, S/N 60-0101, SN 24-0100 x;"
              "detector_number=24-0100;frame_time=0.1;saturation_value=1048500;sensor_material=Si;"
              "sensor_thickness=0.00032;threshold_energy=6400;gain_setting=autog (vrf = 1.000);"
              "number_of_excluded_pixels=321;wavelength=0.97625;x_pixel_size=0.000172;y_pixel_size=0.000172;"
              "detector_distance=0.199;filter_transmission=1;beam_flux=0;polarisation=0.99;mode_register=0;"
              "nimages=-;countrate_correction_bunch_mode=ContinuousStandard_v1.1;efficiency_correction_applied=-;"
              "countrate_correction_applied=-;imageDescription=-;header=-;rotation=10;step=0.1;index=0;modules=1");
    double vrf = 0;
    data.neXus().at("/entry/instrument/detector/detectorSpecific/detectorModule_000/vrfp").asData().asType(vrf, 1);
    EXPECT_EQ(vrf, 1.0) << "the Vrf of the gain setting goes to every module";
}

TEST(TextHeader, KeywordsValuesAndTheirOddities)
{
    const struct {
        const char* header;
        std::vector<std::string> items; // as the metadata text shows them
    } cases[] = {
        {"# Detector_distance 0.1 m\n", {";description=-;", "detector_distance=0.1;"}},
        {"#Detector: X-ray eye\n", {";description=X-ray eye;"}},
        {"# exposure_time 1 s\n", {"count_time=-;"}},
        {"# Gain_setting: nil\n", {"gain_setting=-;"}},
        {"# Gain_setting: nil (vrf = -0.2)\n", {"gain_setting=-;"}},
        {"# Flux ::\n", {"beam_flux=-;"}},
        {"# Flux\n", {"beam_flux=-;"}},
        {"# Beam_xy (1231.5\n", {"beam_center_x=1231.5;beam_center_y=-;"}},
        {"# Exposure_time 1 s\n# Exposure_time 2 s\n", {"count_time=2;"}},     // the last line wins
        {"# Exposure_time 1 s\n# Exposure_time none\n", {"count_time=-;"}},    // an unreadable value clears
        {"# Silicon sensor, 320 micron\n", {"sensor_material=-;sensor_thickness=-;"}},
        {"# Detector: A, SN \n", {"detector_number=-;"}},
        {"# Detector: A, SN x12y-3z rest\n", {"detector_number=12-3;"}},
        {"  # Exposure_time 1 s\nExposure_time 1 s\n", {"count_time=-;"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.header);
        const std::string all = norvexa_test::everything(headerOf(c.header));
        for (const std::string& item : c.items)
            EXPECT_NE(all.find(item), std::string::npos) << item << " in " << all;
    }
}

TEST(TextHeader, OnlyTheFirst4096BytesAndLinesThatFit)
{
    // The header runs past 4096 bytes: the line cut there is still parsed, what follows is lost.
    std::string header;
    while (header.size() < 4096 - 20 - 50)
        header += "# filler line of no keyword at all ..............\n";
    header += std::string(4096 - 20 - header.size() - 1, ' ') + "\n";
    header += "# Exposure_time 12345678 s\n# Exposure_period 2 s\n";
    auto data = headerOf(header);
    EXPECT_EQ(*data.count_time(), 1234.0f);
    EXPECT_FALSE(data.frame_time());

    // A line of 1024 characters or more ends the parsing; the mode register is set anyway.
    data = headerOf("# Exposure_time 1 s\n#" + std::string(1100, 'x') + "\n# Exposure_period 2 s\n");
    EXPECT_EQ(*data.count_time(), 1.0f);
    EXPECT_FALSE(data.frame_time());
    EXPECT_EQ(*data.mode_register(), 0);
    EXPECT_FALSE(headerOf("").count_time());
}

TEST(TextHeader, FindDate)
{
    auto find = [](const std::string& text) { return utils::findDate(text.data(), text.size()); };
    EXPECT_EQ(*find("# 2011/Jun/14 10:22:33.125\r\nrest"), "2011/Jun/14 10:22:33.125");
    EXPECT_EQ(*find("start 2011-06-14T10:22:33.125 and more\nnext"), "2011-06-14T10:22:33.125 and more");
    EXPECT_EQ(*find("x 2011/13/45 no range test"), "2011/13/45 no range test");
    EXPECT_EQ(*find("12345/06/07 is found at the second digit"), "2345/06/07 is found at the second digit");
    EXPECT_EQ(*find("2011/JUN/14 10:00:00 upper case"), "2011/JUN/14 10:00:00 upper case");
    EXPECT_FALSE(find("2011/06/14X10:22:33 no separator"));
    EXPECT_FALSE(find("2011/Jux/14 10:22:33"));
    EXPECT_TRUE(find("2011/06/14 1"));
    EXPECT_FALSE(find("2011/06/14 ")) << "fewer than 12 bytes from the start";
    EXPECT_FALSE(utils::findDate("2011/06/14 10:22", 0));
    const std::string longLine = "2011-06-14 " + std::string(2000, 'a');
    EXPECT_EQ(find(longLine)->size(), 1023u);
}

TEST(ReaderFrame, ReadDataRunsItsStepsInOrder)
{
    ProbeReader reader("# Exposure_time 0.5 s\n# Exposure_period 1 s\n");
    DImage image;
    reader.readData(image, nullptr);
    std::vector<std::string> steps(reader.calls.begin(), reader.calls.begin() + 4);
    for (std::size_t i = 4; i < reader.calls.size(); ++i)
        if (reader.calls[i] != "width" && reader.calls[i] != "height") // asked again by readModules
            steps.push_back(reader.calls[i]);
    EXPECT_EQ(steps, (std::vector<std::string>{"width", "height", "dataType", "typeBits", "readPixelData",
                                               "readHeaderData", "readRawHeader"}));
    EXPECT_EQ(image.width(), 4);
    EXPECT_EQ(image.pixel<int>(3, 2, -1), 11);
    EXPECT_EQ(*image.optionalData().count_time(), 0.5f);
    EXPECT_EQ(*image.optionalData().imageDescription(), "probe.cbf");
    ASSERT_TRUE(image.optionalData().pixel_mask()) << "a mask is made when there is none";
    EXPECT_EQ(image.optionalData().pixel_mask()->width(), 4);

    // With the caller's metadata: the file is laid over it; the raw header is not read.
    DImageOptionalData caller;
    caller.set_count_time(9.0f);
    caller.set_wavelength(1.5f);
    caller.setImageDescription(std::string("from the caller"));
    reader.calls.clear();
    reader.readData(image, &caller);
    EXPECT_EQ(reader.calls.back(), "readImageSpecificHeader");
    EXPECT_EQ(*image.optionalData().count_time(), 0.5f);
    EXPECT_EQ(*image.optionalData().wavelength(), 1.5f);
    EXPECT_EQ(*image.optionalData().imageDescription(), "probe.cbf");
    EXPECT_FALSE(image.optionalData().rawHeader());

    // A damaged size is reported before anything is allocated.
    EXPECT_THROW_MSG(ProbeReader("", -4, 3).readData(image, nullptr), DImageCorruptedException,
                     "Image probe.cbf has an invalid size of -4 x 3 pixels");
    EXPECT_THROW_MSG(ProbeReader("", 70000, 70000).readData(image, nullptr), DImageCorruptedException,
                     "Image probe.cbf has an invalid size of 70000 x 70000 pixels");

    // Corrupt pixels fail before any header is parsed, and leave the image without metadata.
    ProbeReader corrupt("# Exposure_time 0.5 s\n", 2, 2, true);
    DImage target;
    EXPECT_THROW(corrupt.readData(target, nullptr), DImageCorruptedException);
    EXPECT_EQ(corrupt.calls.back(), "readPixelData");
    EXPECT_EQ(target.width(), 2);
    EXPECT_FALSE(target.optionalData().count_time());
}

TEST(ReaderFrame, FilesThatCanAndCannotBeRead)
{
    const auto FileReader = [](const char* path, std::size_t size) { return ProbeReader(size, path); };
    EXPECT_THROW_MSG(FileReader("", 0), DRuntimeException,
                     "DAbstractImageReader: Passed empty string as filename");
    norvexa_test::TempDir dir;
    const std::string missing = (dir.path() / "missing.cbf").string();
    EXPECT_THROW_MSG(FileReader(missing.c_str(), 0), DNoFileAccessException, "Error accessing " + missing);
    EXPECT_THROW_MSG(FileReader(dir.path().c_str(), 0), DNoFileAccessException,
                     "Error accessing " + dir.path().string());

    const std::string empty = (dir.path() / "empty.cbf").string();
    std::ofstream(empty).close();
    EXPECT_EQ(FileReader(empty.c_str(), 7).fileData().size(), 0u);
    const std::string some = (dir.path() / "some.cbf").string();
    std::ofstream(some, std::ios::binary) << "abc";
    const ProbeReader reader = FileReader(some.c_str(), 0);
    ASSERT_EQ(reader.fileData().size(), 3u);
    EXPECT_EQ(std::string(reader.fileData().cdata(), 3), "abc");
    for (std::size_t i = 0; i < DAbstractImageReader::kPadding; ++i)
        EXPECT_EQ(reader.fileData().cdata()[3 + i], 0) << "zero padding behind the bytes";
}

#include "ReaderHelpers.h"
#include "TestHelpers.h"

#include "DCbfReader.h"
#include "DImage.h"
#include "DImageWriter.h"
#include "DTifReader.h"

#include <boost/optional/optional_io.hpp>

#include <cstring>
#include <sstream>

using namespace norvexa::imglib;
namespace fs = std::filesystem;

namespace {

template <class Reader>
DImage readFile(const fs::path& path)
{
    DImage image;
    Reader(path.c_str(), 0).readData(image, nullptr);
    return image;
}

// The first word of each "#" header line of a CBF (without "# " and a trailing ':').
std::vector<std::string> headerKeys(const fs::path& path)
{
    const auto bytes = norvexa_test::fileBytes<std::string>(path);
    const auto start = bytes.find("_array_data.header_contents\r\n;\r\n") + 32;
    std::istringstream text(bytes.substr(start, bytes.find("\n;", start) - start));
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

TEST(ImageWriterRoundTrip, CbfReadWrittenAndReadAgain)
{
    // A detector's header and byte-offset pixels, as CBFlib wrote them.
    const fs::path source = norvexa_test::dataPath("cbf/cbflib_small.cbf");
    norvexa_test::TempDir dir;
    DImage image = readFile<DCbfReader>(source);
    image.optionalData().set_count_time(0.5f);
    DImageWriter::write(image, (dir.path() / "again.cbf").string(), DImageWriter::NONE);
    const DImage again = readFile<DCbfReader>(dir.path() / "again.cbf");
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
}

TEST(ImageWriterRoundTrip, TifWrittenAndRead)
{
    norvexa_test::TempDir dir;
    const DImage image = readFile<DCbfReader>(norvexa_test::dataPath("cbf/cbflib_small.cbf"));
    for (const auto format : {DImageWriter::TIF_INT, DImageWriter::TIF_FLOAT}) {
        SCOPED_TRACE(format);
        DImageWriter::write(image, (dir.path() / "frame.tif").string(), format);
        const DImage again = readFile<DTifReader>(dir.path() / "frame.tif");
        const DImage expected = format == DImageWriter::TIF_INT ? image : image.asType<float>();
        ASSERT_EQ(again.type(), expected.type());
        EXPECT_EQ(std::memcmp(again.cdata(), expected.cdata(), expected.size() * 4), 0);
        EXPECT_EQ(again.optionalData().description(), image.optionalData().description()); // the Model tag
        EXPECT_EQ(again.optionalData().count_time(), image.optionalData().count_time());
        EXPECT_EQ(again.optionalData().wavelength(), image.optionalData().wavelength());
    }
}

#include "ReaderHelpers.h"
#include "TestHelpers.h"

#include "DHdf5Iterator.h"
#include "foundation/DException.h"
#include "foundation/hdf5/DH5.h"

#include <cstdlib>
#include <fstream>

#include <hdf5.h>

using namespace norvexa;
using namespace norvexa::imglib;
namespace fs = std::filesystem;

namespace {

constexpr int kWidth = 19;
constexpr int kHeight = 13;

// The pixel content of every fixture under data/hdf5 (see tools/make_hdf5_fixtures.py).
long fixtureValue(int image, int y, int x)
{
    return (image * 1000L + y * 37L + x * 3L) % 60000L;
}

// Copies the fixture files whose names start with `stem` into `dir`.
void copyFixtures(const std::string& stem, const fs::path& dir)
{
    for (const auto& entry : fs::directory_iterator(norvexa_test::dataPath("hdf5"))) {
        if (entry.path().filename().string().rfind(stem, 0) == 0)
            fs::copy_file(entry.path(), dir / entry.path().filename());
    }
}

std::string fixture(const std::string& name)
{
    return norvexa_test::dataPath("hdf5/" + name).string();
}

bool builtinFiltersOnly()
{
    const char* path = std::getenv("HDF5_PLUGIN_PATH");
    return path && std::string(path).find("no-hdf5-plugins") != std::string::npos;
}

template <class T>
void expectFixtureFrame(const DImage& image, int number, double scale, bool signedCorner)
{
    ASSERT_EQ(image.width(), kWidth);
    ASSERT_EQ(image.height(), kHeight);
    int wrong = 0;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const double expected = signedCorner && x == 0 && y == 0 ? -1.0 : fixtureValue(number, y, x) * scale;
            wrong += static_cast<double>(image.pixel<T>(x, y, T())) != expected;
        }
    }
    EXPECT_EQ(wrong, 0) << "image " << number;
}

} // namespace

TEST(Hdf5Iterator, PeerFilesOfEveryTypeAndFilterReadIdentically)
{
    const struct {
        const char* name;
        datatypes::Type type;
        void (*expectFrame)(const DImage&, int);
    } types[] = {
        {"uint16", datatypes::UINT, [](const DImage& i, int n) { expectFixtureFrame<unsigned short>(i, n, 1.0, false); }},
        {"uint32", datatypes::UINT, [](const DImage& i, int n) { expectFixtureFrame<unsigned int>(i, n, 1.0, false); }},
        {"int32", datatypes::INT, [](const DImage& i, int n) { expectFixtureFrame<int>(i, n, 1.0, true); }},
        {"float32", datatypes::FLOAT, [](const DImage& i, int n) { expectFixtureFrame<float>(i, n, 0.25, false); }},
    };
    for (const std::string filter : {"none", "lz4", "bslz4"}) {
        for (const auto& type : types) {
            SCOPED_TRACE(type.name + ("_" + filter));
            const std::string path = fixture(type.name + ("_" + filter) + "_master.h5");
            DHdf5Iterator series(path);
            ASSERT_EQ(series.first(), 1);
            ASSERT_EQ(series.last(), 5);
            ASSERT_EQ(series.size(), 5u);
            for (int number = 1; number <= 5; ++number) {
                const DImage image = series[number];
                EXPECT_EQ(image.type(), type.type);
                type.expectFrame(image, number);
                EXPECT_EQ(image.optionalData().neXusIndex(), number);
                EXPECT_EQ(*image.optionalData().imageDescription(), path + " # " + std::to_string(number) + "/5");
            }
        }
    }
}

TEST(Hdf5Iterator, HeaderBecomesMetadataWithoutImageDataOrAttributeValuesAndMasksFitTheFrame)
{
    DHdf5Iterator series(fixture("uint32_bslz4_master.h5"));
    const nexus::DNeXusTree tree = series.neXus();
    EXPECT_THROW(tree.at("/entry/data"), DOutOfRangeException);
    // Attributes stand by name, without their values.
    const auto units = tree.at("/entry/instrument/detector/count_time").asData().attributes();
    ASSERT_EQ(units.size(), 1u);
    EXPECT_EQ(units[0]->name(), "units");
    EXPECT_TRUE(units[0]->asData().data().empty());
    const auto nxClass = tree.at("/entry").asGroup().attributes();
    ASSERT_EQ(nxClass.size(), 1u);
    EXPECT_TRUE(nxClass[0]->asData().data().empty());

    const DImage image = series[2];
    const DImageOptionalData& metadata = image.optionalData();
    EXPECT_FLOAT_EQ(*metadata.count_time(), 0.1f);
    EXPECT_EQ(*metadata.description(), "Test Detector 1M");
    EXPECT_FLOAT_EQ(*metadata.wavelength(), 1.0332f);
    const DImage mask = *metadata.pixel_mask();
    ASSERT_EQ(mask.width(), kWidth);
    EXPECT_EQ(mask.pixel<unsigned int>(3, 2, 0U), 1u);
    EXPECT_EQ(mask.pixel<unsigned int>(7, 5, 0U), 2u);
    EXPECT_EQ(mask.pixel<unsigned int>(0, 6, 0U), 1u);
    EXPECT_EQ(mask.pixel<unsigned int>(0, 0, 0U), 0u);

    // A mask of another size, or none, becomes an empty mask of the frame.
    for (const std::string name : {"mask_mismatch_master.h5", "uint16_none_master.h5"}) {
        SCOPED_TRACE(name);
        const DImage empty = *DHdf5Iterator(fixture(name))[1].optionalData().pixel_mask();
        EXPECT_EQ(std::make_tuple(empty.width(), empty.height(), empty.type(), empty.typeBits()),
                  std::make_tuple(kWidth, kHeight, datatypes::UINT, 32ul));
        EXPECT_EQ(empty.pixel<unsigned int>(0, 0, 0U), 0u);
    }
}

TEST(Hdf5Iterator, MainPathOpensOnlyTheFirstAndLastDataFiles)
{
    {
        DHdf5Iterator three(fixture("three_files_master.h5"));
        EXPECT_EQ(three.first(), 1);
        EXPECT_EQ(three.last(), 8);
        expectFixtureFrame<unsigned int>(three[4], 4, 1.0, false);
        expectFixtureFrame<unsigned int>(three[8], 8, 1.0, false);
    }
    {
        // The last link dangles: the backward scan falls back to the first file.
        DHdf5Iterator missingLast(fixture("missing_last_master.h5"));
        EXPECT_EQ(missingLast.first(), 1);
        EXPECT_EQ(missingLast.last(), 3);
        EXPECT_THROW_MSG(missingLast[4], DOutOfRangeException, "Image number 4 out of range");
    }
    {
        // A missing middle file is noticed only when one of its images is asked for.
        DHdf5Iterator missingMiddle(fixture("missing_middle_master.h5"));
        EXPECT_EQ(missingMiddle.first(), 1);
        EXPECT_EQ(missingMiddle.last(), 8);
        expectFixtureFrame<unsigned int>(missingMiddle[3], 3, 1.0, false);
        expectFixtureFrame<unsigned int>(missingMiddle[7], 7, 1.0, false);
        EXPECT_THROW(missingMiddle[5], DRuntimeException);
    }
}

TEST(Hdf5Iterator, LegacyLayoutsAndTheFallBackToThem)
{
    {
        testing::internal::CaptureStdout();
        DHdf5Iterator legacy(fixture("legacy_master.h5"));
        EXPECT_EQ(legacy.size(), 5u);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "Failed to read h5 file: No valid datasets /entry/data\nUsing legacy code. \n");
        expectFixtureFrame<unsigned int>(legacy[4], 4, 1.0, false);
    }
    {
        // A series still being written: the last file lacks image_nr_high.
        testing::internal::CaptureStdout();
        DHdf5Iterator open(fixture("open_last_master.h5"));
        EXPECT_EQ(open.first(), 1);
        EXPECT_EQ(open.last(), 3);
        EXPECT_NE(testing::internal::GetCapturedStdout().find("Using legacy code. "), std::string::npos);
    }
    testing::internal::CaptureStdout();
    DHdf5Iterator gap(fixture("legacy_gap.h5"));
    EXPECT_THROW_MSG(gap.first(), DImageCorruptedException, "DHdf5Iterator: Missing images");
    DHdf5Iterator overlap(fixture("legacy_overlap.h5"));
    EXPECT_THROW_MSG(overlap.update(), DImageCorruptedException, "DHdf5Iterator: Overlapping images");
    DHdf5Iterator nothing(fixture("no_images.h5"));
    EXPECT_TRUE(nothing.empty());
    EXPECT_EQ(nothing.first(), 1);
    EXPECT_EQ(nothing.last(), 0);
    EXPECT_THROW_MSG(nothing.front(), DOutOfRangeException, "Image number 1 out of range");
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Failed to read h5 file: "), std::string::npos);

    // Links with wrong names are passed over.
    testing::internal::CaptureStdout();
    DHdf5Iterator badLinks(fixture("bad_links_master.h5"));
    try {
        badLinks.update();
    } catch (const DImageCorruptedException&) {
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout().rfind("Failed to read h5 file: No valid datasets /entry/data\n", 0),
              0u);
}

TEST(Hdf5Iterator, PopFrontLastsUntilTheNextUpdate)
{
    DHdf5Iterator series(fixture("uint32_lz4_master.h5"));
    // Before the table is read the iterator counts as empty, and popping does nothing.
    series.popFront();
    EXPECT_EQ(series.first(), 1);
    series.popFront();
    EXPECT_EQ(series.first(), 2);
    EXPECT_EQ(series.size(), 4u);
    expectFixtureFrame<unsigned int>(series.front(), 2, 1.0, false);
    expectFixtureFrame<unsigned int>(series[1], 1, 1.0, false);
    EXPECT_EQ(series.first(), 1);
    EXPECT_THROW_MSG(series.pushBack(DImage()), DRuntimeException, "Cannot push back image to hdf5 container");
}

TEST(Hdf5Iterator, DataFilesAreFoundBesideTheMasterAndUpdateSeesLaterOnes)
{
    norvexa_test::TempDir series, elsewhere;
    copyFixtures("missing_last_", series.path());
    // A decoy of the same name in the working directory must not be read.
    fs::copy_file(norvexa_test::dataPath("hdf5/int32_none_data_000001.h5"),
                  elsewhere.path() / "missing_last_data_000001.h5");
    norvexa_test::WorkingDirectory in(elsewhere.path());
    DHdf5Iterator iterator((series.path() / "missing_last_master.h5").string());
    EXPECT_EQ(iterator.last(), 3);
    expectFixtureFrame<unsigned int>(iterator[1], 1, 1.0, false);
    fs::copy_file(norvexa_test::dataPath("hdf5/uint32_bslz4_data_000002.h5"),
                  series.path() / "missing_last_data_000002.h5");
    // An image beyond the end updates once by itself.
    expectFixtureFrame<unsigned int>(iterator[5], 5, 1.0, false);
    EXPECT_EQ(iterator.last(), 5);
}

TEST(Hdf5Iterator, AFilterThatIsNeitherBuiltInNorInstalledIsNamed)
{
    DHdf5Iterator series(fixture("bzip2_master.h5"));
    if (!builtinFiltersOnly()) {
        expectFixtureFrame<unsigned int>(series[1], 1, 1.0, false);
        return;
    }
    try {
        series[1];
        ADD_FAILURE() << "a bzip2 chunk decoded without its filter";
    } catch (const DRuntimeException& e) {
        EXPECT_NE(std::string(e.what()).find("307"), std::string::npos) << e.what();
    }
}

// Masters whose one image dataset is made here, with the project's own HDF5 layer, in the
// shapes no peer would write.
TEST(Hdf5Iterator, BadShapesAndTypesGiveTheirTexts)
{
    const struct {
        const char* label;
        const char* name;
        hdf5::DataType type;
        unsigned long size;
        std::vector<long> dims;
        bool floatLow; // an image number of the wrong type counts as missing
        int high;
        const char* printed; // nullptr: not checked
        const char* failure; // nullptr: the series is empty
    } cases[] = {
        {"text", "data_000001", hdf5::H5String, 8, {2, 3, 4}, false, 2, nullptr,
         "Cannot read string data in dataset: /entry/data/data_000001"},
        {"two dimensions: the main path refuses, the legacy path finds nothing", "data_000001", hdf5::H5UInt, 4,
         {3, 4}, false, 3, "Failed to read h5 file: Wrong shape of /entry/data/data_000001\nUsing legacy code. \n",
         nullptr},
        {"a float image number", "data_000001", hdf5::H5UInt, 4, {2, 3, 4}, true, 2,
         "Failed to read h5 file: Failed to read attribute: Wrong datatype\nUsing legacy code. \n", nullptr},
        {"the legacy path checks the frame count against the numbers", "frames", hdf5::H5UInt, 4, {2, 3, 4}, false,
         3, nullptr, "Inconsistent hdf5 data attributes \"image_nr_low\" and \"image_number_high\""},
    };
    norvexa_test::TempDir dir;
    const std::string path = (dir.path() / "hand_master.h5").string();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        {
            hdf5::DH5File file(path, "w");
            file.addGroup("/entry/data", true).addAttribute("NX_class", hdf5::H5String, 6, {}).write(std::string("NXdata"));
            hdf5::DH5Data data = file.addDataset("/entry/data/" + std::string(c.name), c.type, c.size, c.dims,
                                                 image::DCompression::FILTER_NONE);
            if (c.floatLow)
                data.addAttribute("image_nr_low", hdf5::H5Float, 4, {}).write(std::vector<float>{1.0f}.data());
            else
                data.addAttribute("image_nr_low", hdf5::H5Int, 4, {}).write(1);
            data.addAttribute("image_nr_high", hdf5::H5Int, 4, {}).write(c.high);
        }
        testing::internal::CaptureStdout();
        DHdf5Iterator series(path);
        if (c.failure) {
            EXPECT_THROW_MSG(series[1], DImageCorruptedException, c.failure);
        } else {
            EXPECT_TRUE(series.empty());
        }
        const std::string printed = testing::internal::GetCapturedStdout();
        EXPECT_TRUE(!c.printed || printed == c.printed) << printed;
    }
}

TEST(Hdf5Iterator, DamagedFilesRaiseAndNeverCrash)
{
    norvexa_test::TempDir dir;
    const auto bytes = norvexa_test::fileBytes<std::string>(fixture("uint32_bslz4_master.h5"));
    const fs::path damaged = dir.path() / "damaged_master.h5";
    hdf5::DH5DontPrint quiet;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int raised = 0;
    for (std::size_t length = 0; length < bytes.size(); length += 1 + bytes.size() / 40) {
        std::ofstream(damaged, std::ios::binary | std::ios::trunc).write(bytes.data(), static_cast<long>(length));
        try {
            DHdf5Iterator series(damaged.string());
            series.update();
        } catch (const DException&) {
            ++raised;
        }
    }
    testing::internal::GetCapturedStderr();
    testing::internal::GetCapturedStdout();
    EXPECT_GT(raised, 30);
}

TEST(Hdf5Iterator, AnUnreadableHeaderDatasetIsReportedAndLeftOut)
{
    norvexa_test::TempDir dir;
    const std::string path = (dir.path() / "odd.h5").string();
    {
        // A compound value, which no pixel type holds.
        const hid_t file = H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT);
        const hid_t group = H5Gcreate2(file, "/entry", H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
        const hid_t type = H5Tcreate(H5T_COMPOUND, 8);
        H5Tinsert(type, "a", 0, H5T_NATIVE_INT);
        H5Tinsert(type, "b", 4, H5T_NATIVE_FLOAT);
        const hid_t space = H5Screate(H5S_SCALAR);
        const hid_t odd = H5Dcreate2(group, "odd", type, space, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
        const hid_t good = H5Dcreate2(group, "good", H5T_NATIVE_INT, space, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
        const int seven = 7;
        H5Dwrite(good, H5T_NATIVE_INT, H5S_ALL, H5S_ALL, H5P_DEFAULT, &seven);
        for (const hid_t id : {good, odd})
            H5Dclose(id);
        H5Sclose(space);
        H5Tclose(type);
        H5Gclose(group);
        H5Fclose(file);
    }
    hdf5::DH5DontPrint quiet;
    testing::internal::CaptureStderr();
    DHdf5Iterator series(path);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error reading NeXus data /entry/odd\n");
    const nexus::DNeXusTree tree = series.neXus();
    EXPECT_THROW(tree.at("/entry/odd"), DOutOfRangeException);
    int value = 0;
    tree.at("/entry/good").asData().asType(value, 1);
    EXPECT_EQ(value, 7);
}

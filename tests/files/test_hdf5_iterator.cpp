#include "ReaderHelpers.h"
#include "TestHelpers.h"

#include "DHdf5Iterator.h"
#include "foundation/DException.h"
#include "foundation/hdf5/DH5.h"

#include <cstdlib>
#include <fstream>

#include <hdf5.h>
#include <sys/resource.h>

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

namespace {

long peakKilobytes()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// A master with one image dataset, of unsigned 32-bit frames, made with the creation list
// `dcpl`, in the master or, linked, as "/data" of `dataFile` beside it; `fill` writes what
// the case needs and may leave data unwritten.
template <class Fill>
void writePlainMaster(const std::string& path, const std::vector<hsize_t>& dims, hid_t dcpl, Fill fill,
                      const std::string& dataFile = "")
{
    // The metadata in one block at the front, before any data.
    const hid_t fapl = H5Pcreate(H5P_FILE_ACCESS);
    H5Pset_meta_block_size(fapl, 1 << 20);
    const hid_t file = H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, fapl);
    const hid_t holder = dataFile.empty() ? file
                                          : H5Fcreate((fs::path(path).parent_path() / dataFile).c_str(),
                                                      H5F_ACC_TRUNC, H5P_DEFAULT, fapl);
    H5Pclose(fapl);
    const hid_t lcpl = H5Pcreate(H5P_LINK_CREATE);
    H5Pset_create_intermediate_group(lcpl, 1);
    const hid_t group = H5Gcreate2(file, "/entry/data", lcpl, H5P_DEFAULT, H5P_DEFAULT);
    const hid_t text = H5Tcopy(H5T_C_S1);
    H5Tset_size(text, 6);
    const hid_t scalar = H5Screate(H5S_SCALAR);
    const hid_t nxClass = H5Acreate2(group, "NX_class", text, scalar, H5P_DEFAULT, H5P_DEFAULT);
    H5Awrite(nxClass, text, "NXdata");
    const hid_t space = H5Screate_simple(3, dims.data(), nullptr);
    const hid_t data = dataFile.empty()
                           ? H5Dcreate2(group, "data_000001", H5T_STD_U32LE, space, H5P_DEFAULT, dcpl, H5P_DEFAULT)
                           : H5Dcreate2(holder, "data", H5T_STD_U32LE, space, H5P_DEFAULT, dcpl, H5P_DEFAULT);
    if (!dataFile.empty())
        H5Lcreate_external(dataFile.c_str(), "/data", group, "data_000001", H5P_DEFAULT, H5P_DEFAULT);
    const int numbers[] = {1, static_cast<int>(dims[0])};
    for (int i = 0; i < 2; ++i) {
        const hid_t number = H5Acreate2(data, i == 0 ? "image_nr_low" : "image_nr_high", H5T_STD_I32LE, scalar,
                                        H5P_DEFAULT, H5P_DEFAULT);
        H5Awrite(number, H5T_NATIVE_INT, &numbers[i]);
        H5Aclose(number);
    }
    fill(data);
    H5Dclose(data);
    H5Aclose(nxClass);
    H5Sclose(space);
    H5Sclose(scalar);
    H5Tclose(text);
    H5Gclose(group);
    H5Pclose(lcpl);
    if (holder != file)
        H5Fclose(holder);
    H5Fclose(file);
}

// Writes `value` into the block of frame `frame` at (y, x) of extent h x w.
void writeBlock(hid_t data, hsize_t frame, hsize_t y, hsize_t x, hsize_t h, hsize_t w, unsigned value)
{
    const std::vector<unsigned> values(h * w, value);
    const hsize_t start[] = {frame, y, x}, count[] = {1, h, w};
    const hid_t file = H5Dget_space(data);
    H5Sselect_hyperslab(file, H5S_SELECT_SET, start, nullptr, count, nullptr);
    const hid_t memory = H5Screate_simple(3, count, nullptr);
    H5Dwrite(data, H5T_NATIVE_UINT, memory, file, H5P_DEFAULT, values.data());
    H5Sclose(memory);
    H5Sclose(file);
}

hid_t plainCreation(const std::vector<hsize_t>& chunk, unsigned fill, H5D_alloc_time_t allocation)
{
    const hid_t dcpl = H5Pcreate(H5P_DATASET_CREATE);
    if (!chunk.empty())
        H5Pset_chunk(dcpl, 3, chunk.data());
    H5Pset_fill_value(dcpl, H5T_NATIVE_UINT, &fill);
    H5Pset_alloc_time(dcpl, allocation);
    return dcpl;
}

} // namespace

TEST(Hdf5Iterator, PlainDataMustBeInTheFileBeforeItTakesMemory)
{
    norvexa_test::TempDir dir;
    const std::string path = (dir.path() / "plain_master.h5").string();
    const std::string notInFile = "Data of HDF5 dataset /entry/data/data_000001 is not in the file";
    hdf5::DH5DontPrint quiet;
    // A frame of 256 MiB in four chunks, and one of 16 GiB in a million, found through
    // the few chunks stored. One chunk holds 64 bytes where its plain form needs 64 MiB or
    // 16 KiB, so it runs past the end of the file.
    for (const hsize_t side : {8192, 65536}) {
        SCOPED_TRACE(side);
        const hsize_t chunk = side == 8192 ? 4096 : 64;
        const hid_t dcpl = plainCreation({1, chunk, chunk}, 0, H5D_ALLOC_TIME_INCR);
        writePlainMaster(path, {1, side, side}, dcpl, [&](hid_t data) {
            const std::vector<char> bytes(64, 1);
            const hsize_t offset[] = {0, side / 2, side / 2};
            H5Dwrite_chunk(data, H5P_DEFAULT, 0, offset, bytes.size(), bytes.data());
        });
        H5Pclose(dcpl);
        const long before = peakKilobytes();
        DHdf5Iterator series(path);
        EXPECT_THROW_MSG(series[1], DImageCorruptedException, notInFile);
        EXPECT_THROW_MSG(series.storedImage(1), DImageCorruptedException, notInFile);
        EXPECT_LT(peakKilobytes() - before, 64 * 1024);
    }
    {
        // Contiguous storage that the file's end cuts through: the data file of a series
        // whose writer stopped, its end of allocation moved to the bytes present so that
        // HDF5 opens it. The master, far shorter, is not the file that counts.
        const hid_t dcpl = plainCreation({}, 0, H5D_ALLOC_TIME_EARLY);
        H5Pset_fill_time(dcpl, H5D_FILL_TIME_NEVER);
        haddr_t offset = 0;
        writePlainMaster(
            path, {4, 2048, 2048}, dcpl,
            [&](hid_t data) {
                writeBlock(data, 0, 0, 0, 2048, 2048, 9);
                offset = H5Dget_offset(data);
            },
            "plain_data_000001.h5");
        H5Pclose(dcpl);
        const fs::path dataFile = dir.path() / "plain_data_000001.h5";
        const std::uint64_t end = offset + 2 * 2048 * 2048 * 4 - 100;
        fs::resize_file(dataFile, end);
        {
            // The superblock (version 0) keeps the end address at byte 40.
            std::fstream patch(dataFile, std::ios::in | std::ios::out | std::ios::binary);
            patch.seekp(40);
            patch.write(reinterpret_cast<const char*>(&end), 8);
        }
        const long before = peakKilobytes();
        DHdf5Iterator series(path);
        const DImage first = series[1];
        EXPECT_EQ(first.pixel<unsigned>(0, 0, 0U) + first.pixel<unsigned>(2047, 2047, 0U), 18u);
        EXPECT_THROW_MSG(series[2], DImageCorruptedException, notInFile);
        EXPECT_THROW_MSG(series[4], DImageCorruptedException, notInFile);
        // Frame 1 and its mask take 32 MiB; one more frame of 16 MiB would break the bound.
        EXPECT_LT(peakKilobytes() - before, 44 * 1024);
    }
}

TEST(Hdf5Iterator, PlainDataNeverWrittenReadsAsTheFillValue)
{
    norvexa_test::TempDir dir;
    const std::string path = (dir.path() / "sparse_master.h5").string();
    const auto expectFrame = [&](const DImage& image, auto value, int width = 48, int height = 64) {
        ASSERT_EQ(std::make_pair(image.width(), image.height()), std::make_pair(width, height));
        int wrong = 0;
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x)
                wrong += image.pixel<unsigned>(x, y, 0U) != value(x, y);
        }
        EXPECT_EQ(wrong, 0);
    };
    {
        // Chunks of 32 x 16: frame 1 whole, frame 2 one block of chunks, frame 3 none.
        const hid_t dcpl = plainCreation({1, 32, 16}, 7, H5D_ALLOC_TIME_INCR);
        writePlainMaster(path, {3, 64, 48}, dcpl, [](hid_t data) {
            writeBlock(data, 0, 0, 0, 64, 48, 1);
            writeBlock(data, 1, 32, 16, 32, 32, 2);
        });
        H5Pclose(dcpl);
        DHdf5Iterator series(path);
        expectFrame(series[1], [](int, int) { return 1u; });
        expectFrame(series[2], [](int x, int y) { return y >= 32 && x >= 16 ? 2u : 7u; });
        expectFrame(series[3], [](int, int) { return 7u; });
    }
    {
        // Single-element chunks, more than are looked up one by one, few of them stored.
        const hid_t dcpl = plainCreation({1, 1, 1}, 7, H5D_ALLOC_TIME_INCR);
        writePlainMaster(path, {1, 128, 64}, dcpl, [](hid_t data) { writeBlock(data, 0, 8, 8, 16, 16, 3); });
        H5Pclose(dcpl);
        DHdf5Iterator series(path);
        expectFrame(series[1], [](int x, int y) { return x >= 8 && x < 24 && y >= 8 && y < 24 ? 3u : 7u; }, 64, 128);
    }
    {
        // Contiguous storage never allocated.
        const hid_t dcpl = plainCreation({}, 5, H5D_ALLOC_TIME_LATE);
        writePlainMaster(path, {2, 64, 48}, dcpl, [](hid_t) {});
        H5Pclose(dcpl);
        DHdf5Iterator series(path);
        expectFrame(series[2], [](int, int) { return 5u; });
    }
#ifndef __SANITIZE_ADDRESS__ // the sanitizer aborts on a request beyond 1 TB instead of failing it
    {
        // A frame of 4 TB that nothing was written to: no memory holds its fill values.
        const hid_t dcpl = plainCreation({1, 1024, 1024}, 0, H5D_ALLOC_TIME_INCR);
        writePlainMaster(path, {1, 1 << 20, 1 << 20}, dcpl, [](hid_t) {});
        H5Pclose(dcpl);
        DHdf5Iterator series(path);
        EXPECT_THROW_MSG(series[1], DImageCorruptedException,
                         "HDF5 dataset /entry/data/data_000001 declares a frame larger than memory");
    }
#endif
}

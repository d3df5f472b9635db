#include "TestHelpers.h"

#include "DHdf5Iterator.h"
#include "DHdf5Writer.h"
#include "DMd5.h"
#include "foundation/DException.h"
#include "foundation/hdf5/DH5.h"

#include <cstdio>
#include <map>
#include <memory>
#include <sstream>
#include <sys/wait.h>

using namespace norvexa;
using namespace norvexa::imglib;
using image::DCompression;
namespace fs = std::filesystem;

namespace {

using Image = image::DBasicImage<image::StdAllocator>;

// Image `number` of a written series: 23x17 uint32 pixels that tell the number.
DImage numbered(int number)
{
    DImage image(23, 17, 0U);
    for (int y = 0; y < 17; ++y)
        for (int x = 0; x < 23; ++x)
            image.setPixel<unsigned int>(x, y, static_cast<unsigned int>(number * 1000 + y * 23 + x));
    return image;
}

// The same image as a container in the given form, as a detector's stream hands it over.
Image compressed(int number, DCompression::FILTER filter)
{
    Image container = numbered(number).imageData();
    container.setFilter(filter, 0);
    return container;
}

nexus::DNeXusTree header()
{
    nexus::DNeXusTree tree;
    tree.newPath("/entry/instrument/detector/count_time", nexus::NeXusData).asData().setValue(0.25);
    tree.newPath("/entry/instrument/detector/description", nexus::NeXusData).asData().setValue(std::string("Test"));
    auto& units = tree.at("/entry/instrument/detector/count_time").asData().addAttribute("units", datatypes::CHAR, 8);
    units.setValue(std::string("s"));
    tree.newPath("/entry/instrument/detector/empty", nexus::NeXusData);
    return tree;
}

void expectSeries(const std::string& master, int count)
{
    DHdf5Iterator series(master);
    ASSERT_EQ(series.first(), 1);
    ASSERT_EQ(series.last(), count);
    for (int number = 1; number <= count; number += std::max(1, count / 7)) {
        const DImage image = series[number];
        EXPECT_EQ(image.type(), datatypes::UINT);
        EXPECT_EQ(image.pixel<unsigned int>(5, 3, 0U), static_cast<unsigned int>(number * 1000 + 3 * 23 + 5))
            << number;
    }
}

// Attributes of a data file's dataset: (low, high or -1).
std::pair<int, int> imageNumbers(const fs::path& dataFile)
{
    const hdf5::DH5Data data = hdf5::DH5File(dataFile.string(), "r").dataset("/entry/data/data");
    int low = -1;
    int high = -1;
    data.attribute("image_nr_low").read(low);
    if (data.attributes().count("image_nr_high"))
        data.attribute("image_nr_high").read(high);
    return {low, high};
}

std::string md5(const DImage& image)
{
    DMd5 digest;
    digest.hash(reinterpret_cast<const unsigned char*>(image.cdata()), image.size() * image.dataSize());
    return digest.toHex();
}

// tools/check_hdf5_written.py on a master: its lines and its exit status.
std::pair<int, std::string> runH5py(const std::string& master)
{
    const fs::path script = fs::path(NORVEXA_DATA_DIR) / ".." / "tools" / "check_hdf5_written.py";
    const std::string command = "/usr/bin/python3 '" + script.string() + "' '" + master + "' 2>&1";
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
    std::string output;
    char line[4096];
    while (pipe && std::fgets(line, sizeof line, pipe.get()))
        output += line;
    const int status = pipe ? ::pclose(pipe.release()) : -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

} // namespace

TEST(Hdf5Writer, FilesFillAndTheLastIsClosedOnClose)
{
    norvexa_test::TempDir dir;
    for (const auto& [count, files] : {std::pair<int, int>{250, 3}, std::pair<int, int>{200, 2}}) {
        SCOPED_TRACE(count);
        const std::string name = (dir.path() / ("s" + std::to_string(count) + ".h5")).string();
        DHdf5Writer writer(name, 100, header(), DCompression::FILTER_BS32_LZ4);
        for (int number = 1; number <= count; ++number) {
            writer.write(numbered(number));
            if (number == 150) {
                EXPECT_EQ(imageNumbers(dir.path() / ("s" + std::to_string(count) + "_data_000001.h5")),
                          std::make_pair(1, 100));
            }
        }
        writer.close();
        for (int file = 1; file <= files; ++file) {
            char dataName[64];
            std::snprintf(dataName, sizeof dataName, "s%d_data_%06d.h5", count, file);
            EXPECT_EQ(imageNumbers(dir.path() / dataName),
                      std::make_pair(100 * file - 99, std::min(100 * file, count)));
        }
        EXPECT_FALSE(fs::exists(dir.path() / ("s" + std::to_string(count) + "_data_00000" +
                                              std::to_string(files + 1) + ".h5")));
        expectSeries((dir.path() / ("s" + std::to_string(count) + "_master.h5")).string(), count);
    }
}

TEST(Hdf5Writer, EveryFilterAndBothModesReadBack)
{
    norvexa_test::TempDir dir;
    const DCompression::FILTER filters[] = {DCompression::FILTER_NONE, DCompression::FILTER_LZ4,
                                            DCompression::FILTER_BS32_LZ4};
    for (const DCompression::FILTER filter : filters) {
        for (const int perFile : {0, 3}) {
            SCOPED_TRACE(std::to_string(filter) + "/" + std::to_string(perFile));
            const std::string base = "f" + std::to_string(static_cast<int>(filter) + 1) + "_" + std::to_string(perFile);
            DHdf5Writer writer((dir.path() / (base + ".h5")).string(), perFile, header(), filter);
            // Stored as they stand, decoded and compressed again, and plain pixels.
            for (int number = 1; number <= 7; ++number) {
                if (number % 3 == 1)
                    writer.write(compressed(number, filter));
                else if (number % 3 == 2)
                    writer.write(compressed(number, filter == DCompression::FILTER_LZ4 ? DCompression::FILTER_BS32_LZ4
                                                                                      : DCompression::FILTER_LZ4));
                else
                    writer.write(numbered(number));
            }
            writer.flush();
            EXPECT_THROW_MSG(writer.write(numbered(8)), DRuntimeException, "DHdfWriter not open");
            const std::string master = (dir.path() / (base + (perFile ? "_master.h5" : ".h5"))).string();
            expectSeries(master, 7);
            if (perFile == 0) {
                EXPECT_EQ(hdf5::DH5File(master, "r").group("/entry/data").links(), std::set<std::string>{"data_000001"});
            }
        }
    }
}

TEST(Hdf5Writer, NamesHeaderAndClosedWriters)
{
    norvexa_test::TempDir dir;
    {
        DHdf5Writer writer((dir.path() / "series_master.h5").string(), 2, header(), DCompression::FILTER_LZ4);
        EXPECT_EQ(writer.numImagesPerFile(), 2);
        for (int number = 1; number <= 3; ++number)
            writer.write(numbered(number));
    }
    EXPECT_TRUE(fs::exists(dir.path() / "series_master_data_000001.h5"));
    EXPECT_TRUE(fs::exists(dir.path() / "series_master_data_000002.h5"));
    EXPECT_FALSE(fs::exists(dir.path() / "series_master_master.h5"));

    // The header: values written, empty ones left out; a file with no image has no
    // "/entry/data".
    DHdf5Writer empty((dir.path() / "empty.h5").string(), 10, header(), DCompression::FILTER_LZ4);
    empty.close();
    {
        const hdf5::DH5File file((dir.path() / "empty_master.h5").string(), "r");
        const hdf5::DH5Group detector = file.group("/entry/instrument/detector");
        EXPECT_EQ(detector.datasets(), (std::set<std::string>{"count_time", "description"}));
        EXPECT_EQ(file.dataset("/entry/instrument/detector/count_time").attributes(), std::set<std::string>{"units"});
        EXPECT_EQ(file.group("/entry").groups(), std::set<std::string>{"instrument"});
    }

    // A tree read back carries no attribute values, so none is written.
    const nexus::DNeXusTree readBack = DHdf5Iterator((dir.path() / "series_master.h5").string()).neXus();
    DHdf5Writer copy((dir.path() / "copy.h5").string(), 0, readBack, DCompression::FILTER_LZ4);
    copy.close();
    const hdf5::DH5File file((dir.path() / "copy.h5").string(), "r");
    EXPECT_TRUE(file.dataset("/entry/instrument/detector/count_time").attributes().empty());
    double countTime = 0;
    file.dataset("/entry/instrument/detector/count_time").readSlice(&countTime, {}, {});
    EXPECT_EQ(countTime, 0.25);

    DHdf5Writer closed;
    EXPECT_THROW_MSG(closed.write(numbered(1)), DRuntimeException, "DHdfWriter not open");
    EXPECT_THROW_MSG(closed.fileName(), DRuntimeException, "DHdfWriter not open");
    EXPECT_THROW_MSG(closed.numImagesPerFile(), DRuntimeException, "DHdfWriter not open");
    EXPECT_THROW_MSG(closed.open("x.h5", -1, header(), DCompression::FILTER_LZ4), DBadParameterException,
                     "Number of images per file must not be negative");
    EXPECT_THROW(closed.open((dir.path() / "missing" / "x.h5").string(), 1, header(), DCompression::FILTER_LZ4),
                 DRuntimeException);
    EXPECT_THROW_MSG(closed.write(numbered(1)), DRuntimeException, "DHdfWriter not open");
}

TEST(Hdf5Writer, AnImageOfNoPixelTypeLeavesTheWrittenFilesReadable)
{
    norvexa_test::TempDir dir;
    DHdf5Writer writer((dir.path() / "t.h5").string(), 0, header(), DCompression::FILTER_LZ4);
    Image typeless(image::StdAllocator(), datatypes::NONE, 32);
    typeless.resize2D(4, 4);
    try {
        writer.write(typeless);
        ADD_FAILURE() << "an image of no pixel type was written";
    } catch (const DException& e) {
        EXPECT_EQ(e.what(), nullptr);
    }
    writer.write(numbered(1));
    writer.close();
    expectSeries((dir.path() / "t.h5").string(), 1);
}

TEST(Hdf5Writer, FilesReadInH5pyWithIdenticalPixels)
{
    norvexa_test::TempDir dir;
    std::map<int, std::string> digests;
    for (int number = 1; number <= 5; ++number)
        digests[number] = md5(numbered(number));
    for (const DCompression::FILTER filter :
         {DCompression::FILTER_NONE, DCompression::FILTER_LZ4, DCompression::FILTER_BS32_LZ4}) {
        for (const int perFile : {0, 2}) {
            SCOPED_TRACE(std::to_string(filter) + "/" + std::to_string(perFile));
            const std::string name = "p" + std::to_string(static_cast<int>(filter) + 1) + "_" + std::to_string(perFile);
            const std::string base = (dir.path() / name).string();
            {
                DHdf5Writer writer(base + ".h5", perFile, header(), filter);
                for (int number = 1; number <= 5; ++number)
                    number % 2 ? writer.write(compressed(number, filter)) : writer.write(numbered(number));
            }
            const auto [status, output] = runH5py(base + (perFile ? "_master.h5" : ".h5"));
            if (status == 77) {
                GTEST_SKIP() << output;
            }
            ASSERT_EQ(status, 0) << output;
            // Single file: one dataset of all five; else data files of two.
            const int per = perFile ? perFile : 5;
            std::ostringstream expected;
            for (int file = 1; per * (file - 1) < 5; ++file) {
                const int low = per * (file - 1) + 1;
                const int high = std::min(per * file, 5);
                char line[128];
                if (perFile)
                    std::snprintf(line, sizeof line, "link data_%06d %s_data_%06d.h5 %d %d\n", file, name.c_str(),
                                  file, low, high);
                else
                    std::snprintf(line, sizeof line, "link data_%06d - %d %d\n", file, low, high);
                expected << line;
                for (int number = low; number <= high; ++number)
                    expected << "image " << number << " uint32 17x23 " << digests[number] << "\n";
            }
            EXPECT_EQ(output.substr(0, expected.str().size()), expected.str());
            EXPECT_NE(output.find("header /entry/instrument/detector/count_time 0.25\n"), std::string::npos) << output;
            EXPECT_NE(output.find("header /entry/instrument/detector/description Test\n"), std::string::npos) << output;
        }
    }
}

TEST(Hdf5Writer, ASeriesCopiesAsStoredChunksAndH5pyReadsTheCopy)
{
    norvexa_test::TempDir dir;
    const std::string source = (dir.path() / "source.h5").string(), copy = (dir.path() / "copy.h5").string();
    constexpr int count = 100;
    for (const DCompression::FILTER filter : {DCompression::FILTER_BS32_LZ4, DCompression::FILTER_NONE}) {
        SCOPED_TRACE(filter);
        {
            DHdf5Writer writer(source, 30, header(), filter);
            for (int number = 1; number <= count; ++number)
                writer.write(numbered(number));
        }
        const DHdf5Iterator series((dir.path() / "source_master.h5").string());
        {
            DHdf5Writer writer(copy, 40, series.neXus(), filter);
            for (int number = series.first(); number <= series.last(); ++number) {
                DHdf5Iterator::StoredImage stored = series.storedImage(number);
                // Compressed series hand out their chunks; plain ones fall back to pixels.
                ASSERT_EQ(stored.pixels.filter(), filter);
                EXPECT_EQ(stored.metadata.neXusIndex(), number);
                if (number == 7) {
                    const DImage decoded(Image(stored.pixels), DImageOptionalData(stored.metadata));
                    EXPECT_EQ(md5(decoded), md5(series[number]));
                    EXPECT_EQ(*decoded.optionalData().imageDescription(), *series[number].optionalData().imageDescription());
                }
                writer.write(stored.pixels);
            }
        }
        const auto [status, output] = runH5py((dir.path() / "copy_master.h5").string());
        if (status == 77) {
            GTEST_SKIP() << output;
        }
        ASSERT_EQ(status, 0) << output;
        for (const int number : {1, 40, 41, 100}) {
            const std::string line = "image " + std::to_string(number) + " uint32 17x23 " + md5(numbered(number)) + "\n";
            EXPECT_NE(output.find(line), std::string::npos) << line << output;
        }
        fs::remove_all(dir.path());
        fs::create_directories(dir.path());
    }
}

#include "TestHelpers.h"

#include "DFileSeriesIterator.h"
#include "DFilesystemUtils.h"
#include "DImageWriter.h"
#include "foundation/DException.h"

#include <cstdlib>
#include <fstream>
#include <fcntl.h>
#include <unistd.h>

using namespace norvexa;
using namespace norvexa::imglib;
namespace fs = std::filesystem;

namespace {

// A small frame whose pixels tell its number.
DImage frameNumbered(int number)
{
    DImage image(8, 6, number);
    image.setPixel<int>(0, 0, 1000 + number);
    image.optionalData().set_count_time(0.5f + static_cast<float>(number));
    return image;
}

std::string name(const fs::path& dir, const std::string& base, int number, int digits, const std::string& suffix)
{
    char text[64];
    std::snprintf(text, sizeof text, "%s%0*d.%s", base.c_str(), digits, number, suffix.c_str());
    return (dir / text).string();
}

void writeCbf(const std::string& path, int number)
{
    DImageWriter::write(frameNumbered(number), path, DImageWriter::CBF);
}

void touch(const std::string& path) { std::ofstream(path).put('x'); }

std::pair<int, int> range(const DFileSeriesIterator& series) { return {series.first(), series.last()}; }

} // namespace

TEST(Paths, NormalizeAndParse)
{
    norvexa_test::TempDir dir;
    const std::string cwd = fs::canonical(dir.path()).string();
    norvexa_test::WorkingDirectory in(cwd);
    const std::pair<std::string, std::string> cases[] = {
        {"/a/b/../c", "/a/c"},       {"a//b/", cwd + "/a/b"},     {"/a/./b/./c", "/a/b/c"},
        {"/a/b/c/../../d", "/a/d"},  {"/a/b/.", "/a/b/."},        {"/", "/"},
        {"", ""},                    {"x.cbf", cwd + "/x.cbf"},   {"/a//..//b", "/b"},
    };
    for (const auto& [input, expected] : cases) {
        SCOPED_TRACE(input);
        std::string path = input;
        utils::normalizePath(path);
        EXPECT_EQ(path, expected);
    }
    std::string above = "/../a";
    EXPECT_THROW_MSG(utils::normalizePath(above), DNoFileAccessException, "Error: /../a is not a valid path");

    // Name -> directory, base, suffix.
    for (const auto& [input, directory, base, suffix] :
         {std::tuple{"/data/x_00042.cbf", "/data", "x_00042", "cbf"}, std::tuple{"/img.cbf", "", "img", "cbf"},
          std::tuple{"/d/.hidden", "/d", "", "hidden"}, std::tuple{"/d/noDot", "/d", "noDot", ""},
          std::tuple{"/", "/", "", ""}, std::tuple{"", "", "", ""}}) {
        SCOPED_TRACE(input);
        std::string fileName = input, s, b, d;
        utils::parseFileName(fileName, s, b, d);
        EXPECT_EQ(std::tie(d, b, s), std::make_tuple(std::string(directory), std::string(base), std::string(suffix)));
    }
}

TEST(FileSeries, FindsTheRangeAcrossGapsAndReadsAnyExistingIndex)
{
    norvexa_test::TempDir dir;
    for (int i = 1; i <= 20; ++i)
        if (i != 5 && i != 6 && i != 13)
            writeCbf(name(dir.path(), "img_", i, 5, "cbf"), i);
    DFileSeriesIterator series(name(dir.path(), "img_", 7, 5, "cbf"), 10);
    EXPECT_EQ(range(series), std::make_pair(1, 20));
    EXPECT_EQ(series.size(), 20u);
    EXPECT_EQ(series.imageIndex(name(dir.path(), "img_", 7, 5, "cbf")), 7);
    EXPECT_EQ(series.pathToImage(3), name(dir.path(), "img_", 3, 5, "cbf"));
    EXPECT_EQ(series.suffix(), "cbf");

    DImage image = series[4];
    EXPECT_EQ(image.pixel<int>(0, 0, -1), 1004);
    EXPECT_EQ(image.optionalData().neXusIndex(), 3);
    EXPECT_EQ(*image.optionalData().count_time(), 4.5f);
    image = series[9];
    EXPECT_EQ(*image.optionalData().count_time(), 9.5f) << "each file's own header over the previous metadata";
    ASSERT_TRUE(image.optionalData().pixel_mask());
    EXPECT_EQ(image.optionalData().pixel_mask()->width(), 8);
    EXPECT_THROW_MSG(series[5], DOutOfRangeException, "Error accessing " + name(dir.path(), "img_", 5, 5, "cbf"));
    writeCbf(name(dir.path(), "img_", 25, 5, "cbf"), 25);
    EXPECT_EQ(series[25].pixel<int>(0, 0, -1), 1025) << "no range check before reading";
    EXPECT_EQ(series.front().pixel<int>(0, 0, -1), 1001);

    // Another directory with the same base is another series.
    norvexa_test::TempDir other;
    writeCbf(name(other.path(), "img_", 7, 5, "cbf"), 7);
    EXPECT_EQ(series.imageIndex(name(other.path(), "img_", 7, 5, "cbf")), -1);
    EXPECT_THROW(series.imageIndex(name(other.path(), "img_", 8, 5, "cbf")), DNoFileAccessException)
        << "a name that does not exist throws";
}

TEST(FileSeries, PopUpdateAndFilesThatAppearLater)
{
    norvexa_test::TempDir dir;
    for (int i = 3; i <= 5; ++i)
        writeCbf(name(dir.path(), "run", i, 3, "cbf"), i);
    DFileSeriesIterator series(name(dir.path(), "run", 4, 3, "cbf"), 10);
    EXPECT_EQ(range(series), std::make_pair(3, 5));
    series.popFront();
    series.popFront();
    series.popFront();
    EXPECT_TRUE(series.empty());
    series.popFront();
    EXPECT_EQ(series.first(), 6) << "popFront stops above last";
    for (int i = 6; i <= 9; ++i)
        writeCbf(name(dir.path(), "run", i, 3, "cbf"), i);
    series.update();
    EXPECT_EQ(series.first(), 3) << "popped images come back while their files exist";
    EXPECT_EQ(series.last(), 9);
    EXPECT_THROW_MSG(series.pushBack(DImage()), DRuntimeException, "Cannot push back image to file series");
}

TEST(FileSeries, NamesWithoutNumberOrWithShrinkingDigits)
{
    norvexa_test::TempDir dir;
    const std::string plain = (dir.path() / "img.cbf").string();
    writeCbf(plain, 1);
    DFileSeriesIterator single(plain, 10);
    EXPECT_EQ(range(single), std::make_pair(0, 0));
    EXPECT_EQ(single.size(), 1u);
    EXPECT_EQ(single.pathToImage(0), plain);
    EXPECT_EQ(single.pathToImage(3), (dir.path() / "img3.cbf").string());
    EXPECT_EQ(single[0].pixel<int>(0, 0, -1), 1001);

    writeCbf(name(dir.path(), "zero_", 0, 4, "cbf"), 0);
    DFileSeriesIterator zero(name(dir.path(), "zero_", 0, 4, "cbf"), 10);
    EXPECT_EQ(range(zero), std::make_pair(0, 0));

    touch((dir.path() / "a_9.cbf").string());
    touch((dir.path() / "a_10.cbf").string());
    DFileSeriesIterator shrinking((dir.path() / "a_10.cbf").string(), 10);
    EXPECT_EQ(range(shrinking), std::make_pair(9, 10));
    EXPECT_EQ(shrinking.pathToImage(9), (dir.path() / "a_9.cbf").string()) << "the digits shrank to 1";
}

TEST(FileSeries, EveryFormatReadsThroughTheSeries)
{
    norvexa_test::TempDir dir;
    for (int i = 1; i <= 3; ++i)
        DImageWriter::write(frameNumbered(i), name(dir.path(), "t_", i, 2, "tif"), DImageWriter::TIF);
    DFileSeriesIterator tif(name(dir.path(), "t_", 2, 2, "tif"), 10);
    EXPECT_EQ(tif.size(), 3u);
    EXPECT_EQ(tif[3].pixel<int>(0, 0, -1), 1003);

    for (int i = 1; i <= 3; ++i)
        fs::copy_file(norvexa_test::dataPath("edf/i32_7x5.edf"), name(dir.path(), "e_", i, 1, "edf"));
    DFileSeriesIterator edf(name(dir.path(), "e_", 1, 1, "edf"), 10);
    EXPECT_EQ(edf.last(), 3);
    EXPECT_EQ(edf[2].width(), 7);

    touch((dir.path() / "u_1.xyz").string());
    DFileSeriesIterator unknown((dir.path() / "u_1.xyz").string(), 10);
    EXPECT_THROW_MSG(unknown[1], DUnknownFormatException, "Unknown file type: xyz");
}

TEST(FileSeries, BadNames)
{
    norvexa_test::TempDir dir;
    const std::string missing = (dir.path() / "none_1.cbf").string();
    EXPECT_THROW_MSG(DFileSeriesIterator("", 10), DNoFileAccessException, "Error accessing ");
    EXPECT_THROW_MSG(DFileSeriesIterator(missing, 10), DNoFileAccessException, "Error accessing " + missing);
    const std::string noSuffix = (dir.path() / "data_1").string();
    touch(noSuffix);
    EXPECT_THROW_MSG(DFileSeriesIterator(noSuffix, 10), DUnknownFormatException,
                     "File format of " + noSuffix + " cannot be determined from ending");
    const std::string slash = dir.path().string() + "/";
    EXPECT_THROW_MSG(DFileSeriesIterator(slash, 10), DNoFileAccessException, "Error accessing " + slash);

    // "~/" takes the home directory; without HOME the name can't be resolved.
    touch((dir.path() / "home_1.cbf").string());
    const char* saved = std::getenv("HOME");
    const std::string savedHome = saved ? saved : "";
    setenv("HOME", dir.path().c_str(), 1);
    EXPECT_EQ(DFileSeriesIterator("~/home_1.cbf", 10).last(), 1);
    unsetenv("HOME");
    EXPECT_THROW_MSG(DFileSeriesIterator("~/home_1.cbf", 10), DNoFileAccessException, "Error accessing ~/home_1.cbf");
    if (saved)
        setenv("HOME", savedHome.c_str(), 1);
}

TEST(FileSeries, AHundredThousandFilesAreFoundWithAFewHundredProbes)
{
    norvexa_test::TempDir dir;
    for (int i = 1; i <= 100000; ++i)
        ::close(::open(name(dir.path(), "big_", i, 6, "cbf").c_str(), O_CREAT | O_WRONLY, 0644));
    const unsigned long before = DFileSeriesIterator::probes();
    DFileSeriesIterator series(name(dir.path(), "big_", 31337, 6, "cbf"), 10);
    const unsigned long probes = DFileSeriesIterator::probes() - before;
    EXPECT_EQ(range(series), std::make_pair(1, 100000));
    EXPECT_LT(probes, 600u);
    RecordProperty("probes", static_cast<int>(probes));
}

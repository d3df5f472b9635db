#include "TestHelpers.h"

#include "DFileSeriesIterator.h"
#include "DImageSeries.h"
#include "DImageWriter.h"
#include "foundation/DException.h"

#include <cstdio>

using namespace norvexa;
using namespace norvexa::imglib;
namespace fs = std::filesystem;

namespace {

std::string numberedCbf(const fs::path& dir, int number)
{
    char name[32];
    std::snprintf(name, sizeof name, "img_%05d.cbf", number);
    return (dir / name).string();
}

void writeSeries(const fs::path& dir, int count)
{
    for (int number = 1; number <= count; ++number)
        DImageWriter::write(DImage(6, 4, number), numberedCbf(dir, number), DImageWriter::CBF);
}

} // namespace

TEST(ImageSeries, ChoosesTheIteratorByTheSuffix)
{
    const std::string master = norvexa_test::dataPath("hdf5/uint32_lz4_master.h5").string();
    DImageSeries hdf5(master);
    EXPECT_EQ(hdf5.size(), 5u);
    EXPECT_EQ(hdf5.pathToImage(3), master);
    EXPECT_FALSE(hdf5.neXus().root().children(false).empty());
    EXPECT_EQ(hdf5.at(4).optionalData().neXusIndex(), 4);

    norvexa_test::TempDir dir;
    norvexa_test::TempDir other;
    writeSeries(dir.path(), 20);
    writeSeries(other.path(), 2);
    EXPECT_EQ(hdf5.open(numberedCbf(dir.path(), 7)), 7);
    EXPECT_EQ(hdf5.first(), 1);
    EXPECT_EQ(hdf5.last(), 20);
    EXPECT_EQ(hdf5[12].pixel<int>(0, 0, 0), 12);
    EXPECT_THROW_MSG(hdf5.neXus(), DRuntimeException, "Invalid operation");

    // A neighbour in the open series is found without a new scan; the same name in
    // another directory makes a new series.
    const unsigned long probes = DFileSeriesIterator::probes();
    EXPECT_EQ(hdf5.open(numberedCbf(dir.path(), 8)), 8);
    EXPECT_LE(DFileSeriesIterator::probes() - probes, 2u);
    EXPECT_EQ(hdf5.open(numberedCbf(other.path(), 2)), 2);
    EXPECT_EQ(hdf5.last(), 2);
    EXPECT_EQ(hdf5.pathToImage(1), numberedCbf(fs::canonical(other.path()), 1));

    // A failed open keeps what was open.
    EXPECT_THROW(hdf5.open((dir.path() / "missing.h5").string()), DRuntimeException);
    EXPECT_EQ(hdf5.last(), 2);

    DImageSeries stack(3);
    stack.pushBack(DImage(2, 2, 5));
    EXPECT_EQ(stack.size(), 1u);
    EXPECT_THROW_MSG(stack.pathToImage(0), DRuntimeException, "Invalid operation");
    EXPECT_THROW_MSG(stack.neXus(), DRuntimeException, "Invalid operation");
    stack.open(2);
    EXPECT_TRUE(stack.empty());
}

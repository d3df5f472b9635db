#include "PixelTypes.h"
#include "TestHelpers.h"

#include "DImage.h"
#include "foundation/DException.h"

#include <cstring>
#include <limits>
#include <vector>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

/// width x height of type T with pixel (x, y) = 10 * y + x.
template <class T>
DImage numbered(int w, int h)
{
    DImage image(w, h, T(0));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            image.setPixel<int>(x, y, 10 * y + x);
    return image;
}

std::vector<int> asInts(const DImage& image)
{
    std::vector<int> v;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            v.push_back(image.pixel<int>(x, y, -999));
    return v;
}

template <class T>
class RegionsPerType : public ::testing::Test {};
TYPED_TEST_SUITE(RegionsPerType, norvexa_test::AllPixelTypes, norvexa_test::PixelTypeNames);

TYPED_TEST(RegionsPerType, ExtractSliceAndFillKeepTheType)
{
    using T = TypeParam;
    const DImage image = numbered<T>(4, 3);
    const DRect rect(1, 1, 10, 10);
    const DImage part = image.extract(&rect);
    EXPECT_EQ(part.type(), image.type());
    EXPECT_EQ(asInts(part), asInts(image.sliceExtract(1, 1, 3, 1, 1, 2)));
    const DRect away(10, 10, 2, 2);
    EXPECT_TRUE(image.extract(&away).empty());
    EXPECT_EQ(image.extract(&away).typeBits(), image.typeBits());

    DImage target = numbered<T>(4, 3);
    target.sliceFill(DImage(2, 2, T(1)), 3, -1, 0, 1); // (3,0) (2,0) (3,1) (2,1)
    target.sliceFill<double>(1.0, 0, 1, 0, 0, 1, 3);   // nx of 0 writes nothing
    DImage all(4, 3, 1);
    target.fill<int>(0, nullptr, &all); // every pixel excluded
    target.fill<int>(1, &away, nullptr);
    std::vector<int> expected = asInts(image);
    for (int i : {3, 2, 13, 12})
        expected[i / 10 * 4 + i % 10] = 1;
    if constexpr (std::is_same_v<T, bool>)
        for (int& e : expected)
            e = e != 0;
    EXPECT_EQ(asInts(target), expected);
}

TEST(Regions, ExtractCarriesOnlyTheCutMask)
{
    DImage image = numbered<int>(5, 4);
    DImage mask(5, 4, 0u);
    mask.setPixel<int>(4, 3, 7);
    image.optionalData().set_pixel_mask(mask);
    const DRect rect(3, 2, 5, 5);
    const DImage part = image.extract(&rect);
    ASSERT_TRUE(part.optionalData().pixel_mask());
    EXPECT_EQ(asInts(*part.optionalData().pixel_mask()), (std::vector<int>{0, 0, 0, 7}));
    EXPECT_EQ(asInts(*image.extract(nullptr).optionalData().pixel_mask()), asInts(mask));

    const DImage flipped = image.sliceExtract(4, -1, 5, 0, 1, 4);
    EXPECT_EQ(flipped.pixel<int>(0, 0, -1), 4);
    EXPECT_EQ(flipped.optionalData().pixel_mask()->pixel<int>(0, 3, -1), 7);
    EXPECT_EQ(asInts(image.sliceExtract(0, 2, 2, 3, -1, 4)).front(), 30);
}

TEST(Regions, SliceBoundsAndShapeFailures)
{
    DImage image(4, 3, 0);
    const struct {
        int x0, dx, nx, y0, dy, ny;
    } bad[] = {{-1, 1, 1, 0, 1, 1}, {4, 1, 0, 0, 1, 1}, {0, 1, 5, 0, 1, 1}, {3, -1, 5, 0, 1, 1},
               {0, 1, 1, 3, 1, 0}, {0, 1, 1, 0, 2, 2}, {0, 1, 1, 2, -1, 4}, {0, 1 << 20, 1 << 12, 0, 1, 1}};
    for (const auto& s : bad) {
        SCOPED_TRACE(testing::Message() << s.x0 << " " << s.dx << " " << s.nx << " " << s.y0 << " " << s.dy << " " << s.ny);
        EXPECT_THROW_MSG(image.sliceExtract(s.x0, s.dx, s.nx, s.y0, s.dy, s.ny), DOutOfRangeException,
                         "Slicing parameters outside image borders");
        EXPECT_THROW_MSG(image.sliceFill<int>(1, s.x0, s.dx, s.nx, s.y0, s.dy, s.ny), DOutOfRangeException,
                         "Slicing parameters outside image borders");
    }
    EXPECT_THROW_MSG(image.sliceFill(DImage(5, 1, 1), 0, 1, 0, 1), DOutOfRangeException,
                     "Slicing parameters outside image borders");
    const DImage wrong(3, 4, 0);
    EXPECT_THROW_MSG(image.fill<int>(1, nullptr, &wrong), DRuntimeException, "Mask has the wrong shape");
    int below, inside, above;
    EXPECT_THROW_MSG(image.numberOfPixelsInInterval<int>(below, inside, above, 0, 1, nullptr, &wrong),
                     DRuntimeException, "Mask has the wrong shape");
    EXPECT_THROW_MSG(image.lowCut(DImage(5, 3, 0)), DRuntimeException, "Image sizes do not coincide");
    image.highCut(DImage(2, 6, -1)); // same count, other shape
    EXPECT_EQ(asInts(image), std::vector<int>(12, -1));
}

TEST(Regions, CutsCompareInTheCommonType)
{
    DImage bytes(2, 1, static_cast<unsigned char>(7));
    bytes.lowCut<int>(300);
    EXPECT_EQ(asInts(bytes), (std::vector<int>{44, 44}));

    DImage unsignedImage(2, 1, 5u);
    unsignedImage.lowCut<int>(-1); // -1 is the largest unsigned value here
    EXPECT_EQ(unsignedImage.pixel<unsigned>(0, 0, 0), std::numeric_limits<unsigned>::max());
    unsignedImage.highCut<double>(7.9);
    EXPECT_EQ(unsignedImage.pixel<int>(1, 0, 0), 7);

    DImage ints = numbered<int>(3, 1);
    DImage limits(3, 1, 1.75f);
    ints.lowCut(limits);
    EXPECT_EQ(asInts(ints), (std::vector<int>{1, 1, 2}));
    DImage floats(3, 1, 0.5f);
    floats.highCut(numbered<short>(3, 1));
    EXPECT_EQ(floats.pixel<float>(0, 0, -1), 0.0f);
    EXPECT_EQ(floats.pixel<float>(2, 0, -1), 0.5f);

    DImage flags(2, 1, false);
    flags.lowCut<int>(5);
    EXPECT_EQ(static_cast<int>(static_cast<unsigned char>(*flags.cdata())), 1);
}

TEST(Regions, MasksAndCountsByInterval)
{
    const DImage image = numbered<float>(4, 2); // 0 1 2 3 / 10 11 12 13
    EXPECT_EQ(asInts(image.createMask<int>(1, 11, true)), (std::vector<int>{0, 1, 1, 1, 1, 1, 0, 0}));
    EXPECT_EQ(asInts(image.createMask<int>(1, 11, false)), (std::vector<int>{1, 0, 0, 0, 0, 0, 1, 1}));
    EXPECT_EQ(asInts(image.createMask<int>(1, 0, true)), std::vector<int>(8, 0));
    EXPECT_EQ(asInts(image.createMask<int>(1, 0, false)), std::vector<int>(8, 1));
    EXPECT_EQ(image.createMask<double>(0, 1, true).type(), datatypes::UINT);
    EXPECT_TRUE(DImage().createMask<int>(0, 1, true).empty());

    DImage mask(4, 2, 0.0);
    mask.setPixel<double>(1, 0, -0.5);
    const DRect rect(1, 0, 9, 9);
    const struct {
        double a, b;
        const DRect* rect;
        const DImage* mask;
        int below, inside, above;
    } cases[] = {{2, 11, nullptr, nullptr, 2, 4, 2}, {11, 2, nullptr, nullptr, 2, 4, 2},
                 {2, 11, &rect, &mask, 0, 3, 2},      {20, 30, nullptr, &mask, 7, 0, 0}};
    for (const auto& c : cases) {
        int below = -1, inside = -1, above = -1;
        image.numberOfPixelsInInterval<double>(below, inside, above, c.a, c.b, c.rect, c.mask);
        EXPECT_EQ(std::make_tuple(below, inside, above), std::make_tuple(c.below, c.inside, c.above))
            << c.a << " " << c.b;
    }
}

TEST(Regions, InverseTypeAndGuard)
{
    const struct {
        DImage image;
        datatypes::Type type;
        unsigned long bits;
    } cases[] = {{DImage(2, 1, short(0)), datatypes::INT, 32},      {DImage(2, 1, 0ull), datatypes::INT, 32},
                 {DImage(2, 1, 0LL), datatypes::INT, 64},           {DImage(2, 1, 0.0f), datatypes::FLOAT, 32},
                 {DImage(2, 1, false), datatypes::INT, 32},         {DImage(2, 1, 'a'), datatypes::INT, 32}};
    for (const auto& c : cases) {
        const DImage inverse = c.image.inverse();
        EXPECT_EQ(std::make_pair(inverse.type(), inverse.typeBits()), std::make_pair(c.type, c.bits));
    }
    EXPECT_EQ(asInts(DImage(2, 1, short(0)).inverse()), (std::vector<int>{0, 0}));

    DImage ints(4, 1, 0);
    for (int x = 0; x < 4; ++x)
        ints.setPixel<int>(x, 0, std::vector<int>{1, 2, 0, -1}[x]);
    EXPECT_EQ(asInts(ints.inverse()), (std::vector<int>{1, 0, 0, -1}));
    EXPECT_EQ(asInts(ints.inverse<int>(std::numeric_limits<int>::min())), (std::vector<int>{0, -1073741824, 0, 0}));
    EXPECT_EQ(DImage(1, 1, 4.0f).inverse<int>(1).pixel<float>(0, 0, 0), 0.25f);
    EXPECT_EQ(DImage(1, 1, 1e-39f).inverse<int>(1).pixel<float>(0, 0, -1), 0.0f); // beyond float's range
    EXPECT_EQ(DImage(1, 1, 3u).inverse<int>(-1).pixel<int>(0, 0, 0), 1431655765); // -1 as unsigned
}

} // namespace

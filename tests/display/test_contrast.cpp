#include "TestHelpers.h"

#include "DContrast.h"
#include "foundation/DException.h"

#include <cmath>
#include <limits>
#include <random>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

// `left` over the left half, `right` over the rest.
template <class T>
DImage halves(T left, T right)
{
    DImage image(200, 200, right);
    for (int y = 0; y < 200; ++y)
        for (int x = 0; x < 100; ++x)
            image.setPixel<T>(x, y, left);
    return image;
}

} // namespace

TEST(Contrast, BackgroundStatisticsAreReproducible)
{
    // A constant frame: every draw but one at pixel 0 is kept, the spread is
    // sqrt(|49 * n / (n - 1) - 49|) = 7 / sqrt(n - 1), and low stops at the smallest value.
    double high = 0, low = 0;
    DContrast(2, 101)(high, low, DImage(1000, 1000, 7), nullptr);
    EXPECT_NEAR(high, 7 + 2 * 0.7, 1e-9);
    EXPECT_DOUBLE_EQ(low, 7);

    // Poisson counts around 50 with bright spots: the mean of the background and three of
    // its deviations (a little less: the neighbour test cuts the tails); the same limits
    // on every call.
    DImage frame(512, 512, 0);
    std::mt19937 rng(3);
    std::poisson_distribution<int> counts(50);
    for (int y = 0; y < 512; ++y)
        for (int x = 0; x < 512; ++x)
            frame.setPixel<int>(x, y, (x % 37 == 0 && y % 41 == 0) ? 50000 : counts(rng));
    const DContrast contrast(3, 20000);
    contrast(high, low, frame, nullptr);
    EXPECT_NEAR((high + low) / 2, 50, 0.5);
    EXPECT_GT((high - low) / 6, 0.85 * std::sqrt(50.0));
    EXPECT_LT((high - low) / 6, std::sqrt(50.0));
    double high2 = 0, low2 = 0;
    contrast(high2, low2, frame, nullptr);
    EXPECT_EQ(high2, high);
    EXPECT_EQ(low2, low);

    contrast(high, low, DImage(), nullptr);
    EXPECT_EQ(std::make_pair(high, low), std::make_pair(1.0, 0.0));
    contrast(high, low, DImage(1, 1, 42.5f), nullptr);
    EXPECT_EQ(std::make_pair(high, low), std::make_pair(42.5, 0.0));
}

TEST(Contrast, MasksExcludeByTheirKind)
{
    // Two smooth regions, the boundary dropped as a jump.
    const DImage frame = halves(1000, 10);
    const DContrast contrast(1, 5000);
    double high = 0, low = 0;
    const auto backgroundOnly = [&](const DImage* mask, const std::string& label) {
        SCOPED_TRACE(label);
        contrast(high, low, frame, mask);
        EXPECT_DOUBLE_EQ(low, 10);
        EXPECT_LT(high, 11);
    };
    const auto bothHalves = [&](const DImage* mask, const std::string& label) {
        SCOPED_TRACE(label);
        contrast(high, low, frame, mask);
        EXPECT_GT(high, 900);
    };
    const DImage defective = halves<int>(2, 0), negative = halves<short>(-4, 0),
                 bit5 = halves<unsigned int>(32, 0), flag = halves<bool>(true, 0),
                 floating = halves<double>(32, 0), shortMask(200, 199, 2);
    backgroundOnly(&defective, "int 2");
    backgroundOnly(&negative, "short -4");
    backgroundOnly(&flag, "bool");
    backgroundOnly(&floating, "double 32: any non-zero");
    bothHalves(&bit5, "uint 32: bit 5 is no exclusion");
    bothHalves(nullptr, "no mask");
    DImage withStored = frame;
    withStored.optionalData().set_pixel_mask(defective);
    contrast(high, low, withStored, nullptr);
    EXPECT_DOUBLE_EQ(low, 10);
    contrast(high, low, withStored, &shortMask);
    EXPECT_GT(high, 900) << "a mask of another size is dropped, the stored one not used";

    EXPECT_THROW_MSG(contrast(high, low, DImage(4, 4, datatypes::FLOAT, 2), nullptr),
                     DNotImplementedException, "Missing implementation for type FLOAT of size 16");
    const DImage wideMask(200, 200, datatypes::INT, 16);
    EXPECT_THROW_MSG(contrast(high, low, frame, &wideMask), DNotImplementedException,
                     "Missing implementation for type INT of size 128");
}

TEST(Contrast, InvalidPixelCodesGiveAFloorOfZero)
{
    double high = 0, low = 0;
    const DContrast contrast(10, 10000);
    // Every -1 differs from its neighbours by more than the Poisson bound: none is kept.
    contrast(high, low, DImage(300, 300, -1), nullptr);
    EXPECT_EQ(std::make_pair(high, low), std::make_pair(1.0, 0.0));

    // Columns alternate between the two largest values. In unsigned arithmetic the step
    // down from the top is kept, the step up wraps and is dropped: only the largest value
    // is kept, it is a code, and low may go below it.
    const auto alternating = [](auto top) {
        using T = decltype(top);
        DImage frame(300, 300, T(0));
        for (int y = 0; y < 300; ++y)
            for (int x = 0; x < 300; ++x)
                frame.setPixel<T>(x, y, static_cast<T>(x % 2 ? top - 1 : top));
        return frame;
    };
    const double top32 = std::numeric_limits<unsigned int>::max();
    contrast(high, low, alternating(std::numeric_limits<unsigned int>::max()), nullptr);
    EXPECT_LT(low, top32 - 1e6);
    EXPECT_GT(high, top32);
    // unsigned short has no codes: both values are kept, and low stops at the smaller.
    contrast(high, low, alternating(std::numeric_limits<unsigned short>::max()), nullptr);
    EXPECT_DOUBLE_EQ(low, 65534);
    EXPECT_GT(high, 65535);
}

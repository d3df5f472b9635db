#include "TestHelpers.h"

#include "DBrennikCalibration.h"
#include "foundation/DException.h"

#include <functional>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

// `count` float images of `width` x 1, pixel x of image i holding value(x, i).
std::vector<DImage> stack(int count, int width, const std::function<float(int, int)>& value)
{
    std::vector<DImage> images;
    for (int i = 0; i < count; ++i) {
        DImage image(width, 1, 0.0f);
        for (int x = 0; x < width; ++x)
            image.setPixel<float>(x, 0, value(x, i));
        images.push_back(image);
    }
    return images;
}

TEST(BrennikCalibration, RegressionAndNearestIndex)
{
    const double x[] = {0, 1, 2}, y[] = {1, 3, 5}, same[] = {2, 2, 2};
    double intercept = -1, slope = -1;
    DBrennikCalibration::LinearRegression(0, 3, x, y, intercept, slope);
    EXPECT_DOUBLE_EQ(slope, 2.0);
    EXPECT_DOUBLE_EQ(intercept, 1.0);
    DBrennikCalibration::LinearRegression(0, 3, same, y, intercept, slope);
    EXPECT_EQ(slope, 0.0);
    EXPECT_EQ(intercept, 0.0);

    const double values[] = {1, 2, 3};
    const struct {
        double x;
        int count, index;
    } cases[] = {{2.4, 3, 1}, {2.5, 3, 1}, {2.9, 3, 2}, {-7, 3, 0}, {5e6, 3, 0}, {3, 0, 0}};
    for (const auto& c : cases)
        EXPECT_EQ(DBrennikCalibration::GetIndexOfX(c.x, values, c.count), c.index) << c.x << " of " << c.count;
}

TEST(BrennikCalibration, XAtYInterpolatesWithinTheStack)
{
    // x values 100..140; pixel 0 rises by 10 from 0, pixel 1 from 7, pixel 2 lies above the
    // level everywhere, pixel 3 below it, pixel 4 is masked.
    const float offsets[] = {0, 7, 100, -100, 0};
    DBrennikCalibration calibration;
    calibration.setStack(stack(5, 5, [&](int x, int i) { return offsets[x] + 10.0f * i; }), {100, 110, 120, 130, 140});
    DImage mask(5, 1, 0u);
    mask.setPixel<unsigned>(4, 0, 1);
    mask.setPixel<unsigned>(1, 0, 2); // only 1 excludes
    calibration.XAtY(25, mask);

    const DImage& r = calibration.result();
    EXPECT_FLOAT_EQ(r.pixel<float>(0, 0, -1), 125.0f) << "between 20 and 30, the tie to the earlier";
    EXPECT_FLOAT_EQ(r.pixel<float>(1, 0, -1), 120.0f) << "a step back below x[k] returns to x[k]";
    EXPECT_FLOAT_EQ(r.pixel<float>(2, 0, -1), 100.0f) << "level below the stack: its first x";
    EXPECT_FLOAT_EQ(r.pixel<float>(3, 0, -1), 140.0f) << "level above the stack: its last x";
    EXPECT_FLOAT_EQ(r.pixel<float>(4, 0, -1), 0.0f) << "masked: the first image's value";

    const std::vector<std::pair<double, double>> expected = {{100, 1}, {110, 1}, {120, 1}, {130, 1}, {140, 0}};
    EXPECT_EQ(calibration.histogram(), expected);

    DBrennikCalibration single;
    single.setStack(stack(1, 2, [](int x, int) { return 3.0f * x; }), {42});
    single.XAtY(1, DImage());
    EXPECT_FLOAT_EQ(single.result().pixel<float>(1, 0, -1), 42.0f);
}

TEST(BrennikCalibration, InflectionPointByShrinkingWindows)
{
    // Pixel 0 flat; 1 crosses the level before the stack; 2 flat again; 3 crosses at 4.5.
    DBrennikCalibration calibration;
    calibration.setStack(stack(10, 4,
                               [](int x, int i) {
                                   const float values[] = {7.0f, 100.0f + 10 * i, 7.0f, 10.0f * i};
                                   return values[x];
                               }),
                         std::vector<double>(10, 0.0));
    calibration.InvflectionPoint(45);
    const DImage& r = calibration.result();
    // No crossing yet: 0.0 lies on no window's inside, and the estimate swings 9, 1, 7, 3.
    EXPECT_EQ(r.pixel<float>(0, 0, -1), 3.0f);
    EXPECT_EQ(r.pixel<float>(1, 0, -1), 0.0f);
    EXPECT_EQ(r.pixel<float>(2, 0, -1), 0.0f) << "flat: the crossing of the pixel before";
    EXPECT_EQ(r.pixel<float>(3, 0, -1), 5.0f) << "settled in the first window: count / 2";

    // Below six images the windows would grow past the stack.
    DBrennikCalibration small;
    small.setStack(stack(3, 2, [](int x, int i) { return x == 0 ? 10.0f * i : 50.0f - i; }), {1, 2, 3});
    small.InvflectionPoint(15);
    for (int x = 0; x < 2; ++x) {
        EXPECT_GE(small.result().pixel<float>(x, 0, -1), 0.0f);
        EXPECT_LE(small.result().pixel<float>(x, 0, -1), 2.0f);
    }
}

TEST(BrennikCalibration, RefusesStacksItCannotHold)
{
    DBrennikCalibration calibration;
    EXPECT_THROW_MSG(calibration.setStack(std::vector<DImage>(1001, DImage(1, 1, 0)), std::vector<double>(1001)),
                     DOutOfRangeException, "Calibration stack longer than 1000 images");
    EXPECT_THROW_MSG(calibration.setStack(stack(2, 2, [](int, int) { return 0.0f; }), {1}), DBadParameterException,
                     "Calibration x values don't match the images");
    std::vector<DImage> mixed = stack(2, 2, [](int, int) { return 0.0f; });
    mixed.push_back(DImage(3, 1, 0.0f));
    EXPECT_THROW_MSG(calibration.setStack(mixed, {1, 2, 3}), DBadParameterException,
                     "Calibration images differ in size");
    EXPECT_EQ(calibration.count(), 0);
    calibration.XAtY(1, DImage());
    calibration.InvflectionPoint(1);
    EXPECT_TRUE(calibration.result().empty());
}

} // namespace

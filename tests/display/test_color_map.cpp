#include "TestHelpers.h"

#include "DColorMap.h"
#include "DColorTable.h"
#include "foundation/DException.h"

#include <cmath>
#include <limits>
#include <tuple>
#include <vector>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

const std::string kRgb = "ARGB";

template <class T>
DImage row(const std::vector<double>& values)
{
    DImage image(static_cast<int>(values.size()), 1, T(0));
    for (std::size_t x = 0; x < values.size(); ++x)
        image.setPixel<T>(static_cast<int>(x), 0, static_cast<T>(values[x]));
    return image;
}

std::vector<unsigned int> pixels(const DImage& image)
{
    EXPECT_EQ(image.type(), datatypes::UINT);
    EXPECT_EQ(image.typeBits(), 32u);
    const auto* p = reinterpret_cast<const unsigned int*>(image.cdata());
    return std::vector<unsigned int>(p, p + image.size());
}

// Colours of hdr() (grey 256 below heat 768) that the rule tests expect.
constexpr unsigned int kDefective = 0xff408000, kGap = 0xff000000, kSaturated = 0xff0000ff;
constexpr unsigned int kLogTop = 0xffffffff;    // heat[767]
constexpr unsigned int kLog383 = 0xffff7f00;    // heat[383]: 1000 between 100 and 10000
constexpr unsigned int kGrey128 = 0xff7f7f7f;   // grey[128]: 50 of 0..100
constexpr unsigned int kGrey12 = 0xfff3f3f3;    // grey[12]: 5 of 0..100
constexpr unsigned int kWhite = 0xffffffff;     // grey[0]

} // namespace

TEST(ColorTable, StaticTablesTwinsCopiesAndEquality)
{
    // (identifier, linear and logarithmic sizes, defective and saturated colours), then entries.
    const auto describe = [](const DColorTable& t) {
        return std::make_tuple(t.identifier(), t.linDataSize(), t.logDataSize(), t.defectiveColor(), t.saturatedColor());
    };
    const DColorTable& hdr = DColorTable::hdr();
    ASSERT_EQ(describe(hdr), std::make_tuple("High Dynamic Range", 256, 768, kDefective, kSaturated));
    EXPECT_EQ((std::vector<unsigned int>{hdr.linData()[0], hdr.linData()[255], hdr.logData()[0], hdr.logData()[300],
                                         hdr.logData()[767]}),
              (std::vector<unsigned int>{0xffffffff, 0xff000000, 0xff000000, 0xffff2c00, 0xffffffff}));
    EXPECT_EQ(std::make_pair(DColorTable::grey().identifier(), DColorTable::grey().logDataSize()),
              std::make_pair(std::string("Grey Scale"), 0));
    EXPECT_EQ(DColorTable::heat().linDataSize(), 768);
    const DColorTable& rainbow = DColorTable::rainbow();
    ASSERT_EQ(rainbow.linDataSize(), 2801);
    EXPECT_EQ(std::make_pair(rainbow.defectiveColor(), rainbow.saturatedColor()), std::make_pair(0xff000000u, 0xffffffffu));
    // 150 is 15 degrees: green a quarter up.
    EXPECT_EQ((std::vector<unsigned int>{rainbow.linData()[0], rainbow.linData()[150], rainbow.linData()[1200],
                                         rainbow.linData()[2400]}),
              (std::vector<unsigned int>{0xffff0000, 0xffff3f00, 0xff00ff00, 0xff0000ff}));

    const DColorTable* twin = hdr.inverseTable();
    ASSERT_NE(twin, nullptr);
    EXPECT_EQ(std::make_tuple(hdr.inverse(), twin->inverse(), twin->inverseTable()), std::make_tuple(false, true, &hdr));
    EXPECT_EQ(std::make_tuple(twin->identifier(), twin->linData()[0], twin->logData()[0]),
              std::make_tuple(hdr.identifier(), 0xff000000u, 0xffffffffu));

    // A copy of the twin is a table of its own, with a twin of its own.
    DColorTable copy(*twin);
    EXPECT_FALSE(copy.inverse());
    ASSERT_NE(copy.inverseTable(), nullptr);
    EXPECT_EQ(copy.inverseTable()->inverseTable(), &copy);
    EXPECT_EQ(copy.inverseTable()->linData()[0], 0xffffffffu);
    copy = DColorTable::heat();
    EXPECT_EQ(copy.inverseTable()->inverseTable(), &copy);
    EXPECT_TRUE(copy == DColorTable::heat());

    const unsigned int data[] = {1, 2, 3};
    const DColorTable a(3, data, 0, nullptr, 0, 0, "T"), otherColours(3, data, 0, nullptr, 7, 9, "T");
    EXPECT_TRUE(a == otherColours);
    EXPECT_FALSE(a == DColorTable(3, data, 0, nullptr, 0, 0, "U"));
    EXPECT_FALSE(a == DColorTable(2, data, 0, nullptr, 0, 0, "T"));
    EXPECT_FALSE(a == *a.inverseTable()); // same identifier, reversed bytes
    EXPECT_EQ(DColorTable().inverseTable(), nullptr);
    EXPECT_THROW_MSG(DColorTable(-1, data, 0, nullptr, 0, 0, "T"), DBadParameterException,
                     "Colour table sizes do not match its data");
}

// Each step of the rule, in order: defective, gap, saturated, above logHigh, logarithmic,
// linear, below low; bit 5 of a mask means nothing.
TEST(ColorMap, EveryStepForIntegerAndFloatFramesWithEachMaskKind)
{
    const std::vector<double> values = {5, 5, 5, 60000, 20000, 1000, 50, -3, 50};
    const std::vector<double> masks = {2, -4, 1, 0, 0, 0, 0, 0, 32};
    const std::vector<unsigned int> byIntMask = {kDefective, kDefective, kGap,     kSaturated, kLogTop,
                                                 kLog383,    kGrey128,   kWhite, kGrey128};
    const std::vector<unsigned int> byBoolMask = {kGap, kGap, kGap, kSaturated, kLogTop, kLog383, kGrey128, kWhite, kGap};
    const std::vector<unsigned int> unmasked = {kGrey12, kGrey12, kGrey12, kSaturated, kLogTop,
                                                kLog383, kGrey128, kWhite, kGrey128};
    const auto map = [](const DImage& frame, const DImage* mask, bool showDefective) {
        return pixels(DColorMap::rgb(frame, 100, 0, 10000, DColorTable::hdr(), kRgb, mask, nullptr,
                                     50000, showDefective, true));
    };
    for (const DImage& frame : {row<int>(values), row<float>(values), row<double>(values),
                                row<unsigned short>(values)}) {
        SCOPED_TRACE(datatypes::typeStr(frame.type()) + std::to_string(frame.typeBits()));
        const bool isUnsigned = frame.type() == datatypes::UINT; // -3 reads as 65533: saturated
        std::vector<unsigned int> expected = byIntMask;
        if (isUnsigned)
            expected[7] = kSaturated;
        for (const DImage& mask : {row<int>(masks), row<signed char>(masks), row<char>(masks)})
            EXPECT_EQ(map(frame, &mask, true), expected);
        const DImage boolMask = row<bool>(masks), floatMask = row<float>(masks);
        std::vector<unsigned int> gapsOnly = byBoolMask, none = unmasked, noDefective = unmasked;
        if (isUnsigned)
            gapsOnly[7] = none[7] = noDefective[7] = kSaturated;
        noDefective[2] = kGap;
        EXPECT_EQ(map(frame, &boolMask, true), gapsOnly);
        EXPECT_EQ(map(frame, &floatMask, true), none);
        EXPECT_EQ(map(frame, nullptr, true), none);
        const DImage intMask = row<int>(masks);
        EXPECT_EQ(map(frame, &intMask, false), noDefective);

        // The stored mask serves when none is given; a mask of another size is dropped.
        DImage withStored = frame;
        withStored.optionalData().set_pixel_mask(row<int>(masks));
        EXPECT_EQ(map(withStored, nullptr, true), expected);
        const DImage shortMask = row<int>({2, 2, 2});
        EXPECT_EQ(map(withStored, &shortMask, true), none);
        const DImage oddTypeShort(3, 1, datatypes::FLOAT, 2);
        EXPECT_EQ(map(frame, &oddTypeShort, true), none);
    }
}

TEST(ColorMap, BoolFramesAndDifferencesInThePixelType)
{
    // A bool's difference is 1 whatever its size: 0 and 1 both land a quarter up.
    const DImage flags = row<bool>({0, 1});
    const DImage mask = row<unsigned int>({2, 1});
    EXPECT_EQ(pixels(DColorMap::rgb(flags, 3, -1, 0, DColorTable::grey(), kRgb, nullptr, nullptr, 9, true, true)),
              (std::vector<unsigned int>{0xffbfbfbf, 0xffbfbfbf}));
    EXPECT_EQ(pixels(DColorMap::rgb(flags, 3, -1, 0, DColorTable::grey(), kRgb, &mask, nullptr, 9, true, true)),
              (std::vector<unsigned int>{kDefective, kGap}));

    // Below low = -255, the 0 of an unsigned char frame takes the direct rule and its
    // difference 300 wraps to 44; 1 comes from the table, where the difference is an int.
    const DImage bytes = row<unsigned char>({0, 1});
    const auto colours = pixels(DColorMap::rgb(bytes, 1000, -300, 0, DColorTable::grey(), kRgb, nullptr,
                                               nullptr, 0, false, false));
    EXPECT_EQ(colours, (std::vector<unsigned int>{0xfff7f7f7, 0xffc4c4c4}));

    // Without a logarithmic section the top of the linear table serves from high on, and
    // with high below low everything from high up is at the top.
    const DImage ints = row<int>({99, 100, 5000});
    EXPECT_EQ(pixels(DColorMap::rgb(ints, 100, 0, 50, DColorTable::hdr(), kRgb, nullptr, nullptr, 0, false, false)),
              (std::vector<unsigned int>{0xff020202, 0xff000000, 0xff000000}));
    EXPECT_EQ(pixels(DColorMap::rgb(ints, 10, 200, 0, DColorTable::heat(), kRgb, nullptr, nullptr, 0, false, false)),
              (std::vector<unsigned int>{0xffffffff, 0xffffffff, 0xffffffff}));
}

TEST(ColorMap, FormatsRectangleAndFailures)
{
    const DImage frame = row<int>({5, 5, 50});
    const DImage mask = row<int>({2, 1, 0});
    for (const char* format : {"RGBA", "rgba", "RgbA"})
        EXPECT_EQ(pixels(DColorMap::rgb(frame, 100, 0, 10000, DColorTable::hdr(), format, &mask, nullptr, 0, true, false)),
                  (std::vector<unsigned int>{0x408000ff, 0x000000ff, 0x7f7f7fff}));
    EXPECT_EQ(pixels(DColorMap::rgb(frame, 100, 0, 10000, DColorTable::hdr(), "argb", &mask, nullptr, 0, true, false)),
              (std::vector<unsigned int>{kDefective, kGap, kGrey128}));

    // Output row y starts at (left, top + y); grey over 0..256 maps v to 255 - v.
    DImage grid(4, 3, 0);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 4; ++x)
            grid.setPixel<int>(x, y, x + 10 * y);
    DRect rect(1, 1, 2, 2);
    const DImage part = DColorMap::rgb(grid, 256, 0, 0, DColorTable::grey(), kRgb, nullptr, &rect, 0, false, false);
    EXPECT_EQ(std::make_pair(part.width(), part.height()), std::make_pair(2, 2));
    EXPECT_FALSE(part.optionalData().pixelMaskSize());
    const auto grey = [](unsigned int v) { return 0xff000000u | (255 - v) * 0x010101u; };
    EXPECT_EQ(pixels(part), (std::vector<unsigned int>{grey(11), grey(12), grey(21), grey(22)}));

    // Dispatch first: an unimplemented frame or mask type is reported before the format.
    EXPECT_THROW_MSG(DColorMap::rgb(frame, 100, 0, 0, DColorTable::hdr(), "BGRA", nullptr, nullptr, 0, true, true),
                     DRuntimeException, "Format string \"BGRA\" unsupported");
    const DImage halfFloat(3, 1, datatypes::FLOAT, 2);
    EXPECT_THROW_MSG(DColorMap::rgb(halfFloat, 100, 0, 0, DColorTable::hdr(), "BGRA", nullptr, nullptr, 0, true, true),
                     DNotImplementedException, "Missing implementation for type FLOAT of size 16");
    const DImage wideMask(3, 1, datatypes::UINT, 16);
    EXPECT_THROW_MSG(DColorMap::rgb(frame, 100, 0, 0, DColorTable::hdr(), "x", &wideMask, nullptr, 0, true, true),
                     DNotImplementedException, "Missing implementation for type UINT of size 128");
    EXPECT_THROW_MSG(DColorMap::rgb(frame, 100, 0, 0, DColorTable(), kRgb, nullptr, nullptr, 0, true, true),
                     DBadParameterException, "Colour table has no linear data");
}

TEST(ColorMap, LegendRowsAndTicks)
{
    {
        SCOPED_TRACE("linear: one value per row, ticks every 20");
        DImage bar(10, 101, 0);
        std::map<int, double> ticks = {{7, 42.0}};
        DColorMap::legend(bar, ticks, 100, 0, 1000, DColorTable::grey(), kRgb);
        ASSERT_EQ(std::make_pair(bar.width(), bar.height()), std::make_pair(10, 101));
        EXPECT_EQ(bar.pixel<unsigned int>(0, 0, 0), kWhite);
        EXPECT_EQ(bar.pixel<unsigned int>(9, 50, 0), kGrey128);
        EXPECT_EQ(bar.pixel<unsigned int>(0, 100, 0), 0xff000000u);
        EXPECT_EQ(ticks, (std::map<int, double>{{0, 0}, {7, 42}, {20, 20}, {40, 40}, {60, 60}, {80, 80}, {100, 100}}));
    }
    {
        SCOPED_TRACE("logarithmic upper half, its ticks kept 10 rows from others");
        DImage bar(4, 203, 0);
        std::map<int, double> ticks;
        DColorMap::legend(bar, ticks, 100, 0, 10000, DColorTable::hdr(), kRgb);
        EXPECT_EQ(bar.pixel<unsigned int>(0, 50, 0), kGrey128);
        EXPECT_EQ(bar.pixel<unsigned int>(0, 101, 0), 0xff000000u); // heat[0] at 100
        EXPECT_EQ(bar.pixel<unsigned int>(0, 201, 0), 0xffffffffu); // heat[767] at 10000
        EXPECT_EQ(bar.pixel<unsigned int>(0, 202, 0), kWhite);      // odd row: value 0
        const std::vector<std::pair<int, double>> expected = {
            {0, 0}, {20, 20}, {40, 40}, {60, 60}, {80, 80}, {100, 100},
            {118, 215.443}, {134, 464.159}, {151, 1000}, {168, 2154.43}, {184, 4641.59}, {201, 10000}};
        ASSERT_EQ(ticks.size(), expected.size());
        auto it = ticks.begin();
        for (const auto& [row, value] : expected) {
            EXPECT_EQ(it->first, row);
            EXPECT_NEAR(it->second, value, value * 1e-5);
            ++it;
        }
    }
    {
        SCOPED_TRACE("low == high");
        DImage bar(3, 100, 0);
        std::map<int, double> ticks;
        DColorMap::legend(bar, ticks, 50, 50, 0, DColorTable::grey(), "RGBA");
        EXPECT_EQ(ticks, (std::map<int, double>{{0, -50}, {99, 150}}));
        // Rows step away: 50 - y below the middle (50 itself is at the top), 50 + y above.
        EXPECT_EQ(bar.pixel<unsigned int>(0, 0, 0), 0x000000ffu);
        EXPECT_EQ(bar.pixel<unsigned int>(0, 1, 0), 0xffffffffu);
        EXPECT_EQ(bar.pixel<unsigned int>(0, 50, 0), 0x000000ffu);
    }
}

TEST(ColorMap, ScaleHelpersAgainstHandWorkedCases)
{
    double lo = 0, hi = 0, step = 0;
    const auto expectScale = [&](double low, double high, double size) {
        EXPECT_DOUBLE_EQ(lo, low);
        EXPECT_DOUBLE_EQ(hi, high);
        EXPECT_DOUBLE_EQ(step, size);
    };
    // b = 2 reaches the first threshold: steps of 1 x 10.
    EXPECT_EQ(scale_463_1(0, 100, 5, lo, hi, step), 10);
    expectScale(0, 100, 10);
    // b = 1.2 reaches none: the walk runs to 10 x 1 (the published one takes 1).
    EXPECT_EQ(scale_463_1(0, 12, 10, lo, hi, step), 2);
    expectScale(0, 20, 10);
    // A minimum pushed just above lower by the tolerance is clamped back to it.
    EXPECT_EQ(scale_463_1(9.99999999999999, 97, 5, lo, hi, step), 10);
    EXPECT_DOUBLE_EQ(lo, 9.99999999999999);

    // Steps of 10 give 10 intervals, too many; 20 give 5. The maximum gets n steps added.
    scale_463_2(0, 100, 5, lo, hi, step);
    expectScale(0, 200, 20);
    // b = 1 walks to 10 x 10: one interval, the minimum lowered by (5 - 1) / 2 steps.
    scale_463_2(0, 50, 5, lo, hi, step);
    expectScale(-200, 600, 100);

    // Decades 2 to 4 in 7: thirds of a decade give 6 steps; the maximum's logarithm is
    // 12 + 1/3 (a sum), plus 7 thirds.
    scale_463_3(100, 10000, 7, lo, hi, step);
    EXPECT_NEAR(lo, 100, 1e-9);
    EXPECT_NEAR(std::log10(hi), 12 + 1.0 / 3 + 7.0 / 3, 1e-9);
    EXPECT_NEAR(step, std::cbrt(10.0), 1e-12);

    EXPECT_THROW_MSG(scale_463_2(5, 5, 5, lo, hi, step), DBadParameterException, "Invalid scale limits");
    EXPECT_THROW_MSG(scale_463_3(0, 10, 7, lo, hi, step), DBadParameterException, "Invalid scale limits");
    EXPECT_THROW_MSG(scale_463_1(0, 10, 0, lo, hi, step), DBadParameterException, "Invalid scale limits");
}

// Limits that make no scale (infinite, NaN, equal, tiny, reversed) and bars of 0 to 3
// rows: colours still come from inside the tables (the sanitizer build watches), and no
// tick loop runs away.
TEST(ColorMap, DegenerateLimitsStayInsideTheTables)
{
    const double inf = std::numeric_limits<double>::infinity(), nan = std::nan("");
    const std::vector<double> values = {-5, 0, 1, 7, 99999, 100000, -2147483648.0, 2147483647.0};
    const std::vector<DImage> frames = {row<int>(values), row<unsigned char>(values), row<long long>(values),
                                        row<double>({nan, inf, -inf, 0, 1, 1e300})};
    const double limits[][3] = {{inf, 0, inf},      {0, -inf, 1e300},   {1e-300, 0, 2e-300}, {5, 5, 5},
                                {nan, nan, nan},    {1, 0, 1 + 1e-15},  {-1e308, 1e308, 0},  {1e-310, 0, 1},
                                {1e9, -1e9, 1e18}, {3, 2, -inf}};
    for (const auto& l : limits) {
        SCOPED_TRACE(std::to_string(l[0]) + " " + std::to_string(l[1]) + " " + std::to_string(l[2]));
        for (const DImage& frame : frames)
            EXPECT_EQ(DColorMap::rgb(frame, l[0], l[1], l[2], DColorTable::hdr(), kRgb, nullptr, nullptr, 3, false, true)
                          .size(),
                      frame.size());
        for (int height : {0, 1, 2, 3, 40}) {
            DImage bar(2, height, 0);
            std::map<int, double> ticks;
            DColorMap::legend(bar, ticks, l[0], l[1], l[2], DColorTable::hdr(), kRgb);
            EXPECT_EQ(bar.height(), height);
            EXPECT_LT(ticks.size(), 60u);
        }
    }
}

#include "PixelTypes.h"
#include "RectPrinter.h"
#include "TestHelpers.h"

#include "DDetector.h"
#include "foundation/DException.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

struct Geometry {
    int moduleWidth, moduleHeight, pitchX, pitchY;
};
constexpr Geometry kBrennik{487, 195, 494, 212};
constexpr Geometry kOrvik{1030, 514, 1040, 551};

bool inGap(const Geometry& g, int x, int y)
{
    return x % g.pitchX >= g.moduleWidth || y % g.pitchY >= g.moduleHeight;
}

template <class T>
DImage frameOf(int width, int height, T value = T(0))
{
    DImage frame(width, height, datatypes::PixelTraits<T>::type, sizeof(T));
    std::fill_n(reinterpret_cast<T*>(frame.data()), frame.size(), value);
    return frame;
}

// Raw stores: setPixel would convert, and these tests are about the stored bits.
template <class T>
void put(DImage& frame, int x, int y, T value)
{
    reinterpret_cast<T*>(frame.data())[static_cast<std::size_t>(y) * frame.width() + x] = value;
}

unsigned at(const DImage& mask, int x, int y)
{
    return reinterpret_cast<const std::uint32_t*>(mask.cdata())[static_cast<std::size_t>(y) * mask.width() + x];
}

// The first pixel whose mask value is not `expected(x, y)`, or "" when all are.
template <class Expected>
std::string firstDifference(const DImage& mask, Expected expected)
{
    for (int y = 0; y < mask.height(); ++y)
        for (int x = 0; x < mask.width(); ++x)
            if (at(mask, x, y) != expected(x, y))
                return "(" + std::to_string(x) + ", " + std::to_string(y) + ") is " +
                       std::to_string(at(mask, x, y)) + ", expected " + std::to_string(expected(x, y));
    return "";
}

// Gaps 1, the listed pixels 2, all else 0.
std::string differsFromGapsAnd(const DImage& mask, const Geometry& g,
                               const std::vector<std::pair<int, int>>& defects = {})
{
    return firstDifference(mask, [&](int x, int y) -> unsigned {
        if (inGap(g, x, y))
            return 1;
        for (const auto& d : defects)
            if (d.first == x && d.second == y)
                return 2;
        return 0;
    });
}

} // namespace

TEST(Detector, FamiliesAreRecognisedBySize)
{
    struct Case {
        int width, height;
        bool brennik, orvik;
    };
    for (const Case& c : {Case{487, 195, true, false}, Case{981, 407, true, false},
                          Case{2463, 2527, true, false}, Case{488, 195, false, false},
                          Case{487, 196, false, false}, Case{1030, 514, false, true},
                          Case{2070, 2167, false, true}, Case{4150, 4371, false, true},
                          Case{1030, 515, false, false}, Case{4148, 4362, false, false},
                          Case{0, 0, false, false},
                          // One pitch short of a module is a multiple of the pitch too.
                          Case{487 - 494, 195 - 212, false, false}, Case{1030 - 1040, 514 - 551, false, false},
                          Case{INT_MIN, INT_MIN, false, false}, Case{INT_MAX, INT_MAX, false, false}}) {
        SCOPED_TRACE(std::to_string(c.width) + " x " + std::to_string(c.height));
        EXPECT_EQ(DDetector::isBrennik(c.width, c.height), c.brennik);
        EXPECT_EQ(DDetector::isOrvik(c.width, c.height), c.orvik);
    }
    EXPECT_TRUE(DDetector::isBrennik(frameOf<unsigned short>(981, 407)));
    EXPECT_FALSE(DDetector::isOrvik(frameOf<unsigned short>(981, 407)));
    EXPECT_TRUE(DDetector::isOrvik(frameOf<float>(1030, 514)));
    EXPECT_FALSE(DDetector::isBrennik(DImage()));
}

template <class T>
class DetectorMaskPerType : public ::testing::Test {};
TYPED_TEST_SUITE(DetectorMaskPerType, norvexa_test::AllPixelTypes, norvexa_test::PixelTypeNames);

// Gaps for every type, and the defect code only where the type's values are read.
TYPED_TEST(DetectorMaskPerType, GapsAndDefectCode)
{
    using T = TypeParam;
    const bool readsValues = !std::is_same_v<T, bool> && !std::is_same_v<T, unsigned char> &&
                             !std::is_same_v<T, unsigned short>;
    for (const auto& [g, width, height] :
         {std::make_tuple(kBrennik, 981, 407), std::make_tuple(kOrvik, 2070, 1065)}) {
        SCOPED_TRACE(std::to_string(width) + " x " + std::to_string(height));
        DImage frame = frameOf<T>(width, height);
        const DImage clean = DDetector::mask(frame);
        EXPECT_EQ(clean.type(), datatypes::UINT);
        EXPECT_EQ(clean.typeBits(), 32u);
        EXPECT_EQ(clean.width(), width);
        EXPECT_EQ(clean.height(), height);
        EXPECT_EQ(differsFromGapsAnd(clean, g), "");

        // Both edges of a module, the first pixel after a gap, the frame's last pixel, and
        // gap pixels that hold the code.
        const int rightEdge = g.moduleWidth - 1, bottom = height - 1;
        const std::vector<std::pair<int, int>> modulePixels = {
            {0, 0}, {rightEdge, 3}, {g.pitchX, 3}, {width - 1, bottom}, {5, g.pitchY}};
        for (const auto& [x, y] : modulePixels)
            put(frame, x, y, static_cast<T>(-2));
        put(frame, g.moduleWidth, 3, static_cast<T>(-2));
        put(frame, 7, g.moduleHeight, static_cast<T>(-2));
        EXPECT_EQ(differsFromGapsAnd(DDetector::mask(frame), g,
                                     readsValues ? modulePixels : std::vector<std::pair<int, int>>{}),
                  "");
    }
}

TEST(DetectorMask, AValueBelowMinusTwoAnywhereCancelsEveryDefect)
{
    DImage frame = frameOf<int>(981, 407, 5);
    const std::vector<std::pair<int, int>> defects = {{0, 0}, {100, 50}, {980, 406}};
    for (const auto& [x, y] : defects)
        put(frame, x, y, -2);
    ASSERT_EQ(differsFromGapsAnd(DDetector::mask(frame), kBrennik, defects), "");

    struct Case {
        const char* where;
        int x, y, value;
    };
    for (const Case& c : {Case{"first pixel", 0, 1, -3}, Case{"last pixel", 979, 406, -3},
                          Case{"gap column", 490, 300, -3}, Case{"gap row", 10, 200, -1000},
                          Case{"between two defects", 50, 20, INT_MIN}}) {
        SCOPED_TRACE(c.where);
        DImage watched = frame;
        put(watched, c.x, c.y, c.value);
        EXPECT_EQ(differsFromGapsAnd(DDetector::mask(watched), kBrennik), "");
    }
}

TEST(DetectorMask, PixelsAreReadAsInt)
{
    {
        SCOPED_TRACE("uint32: a detector's gap and defect codes, all bits but the last");
        DImage frame = frameOf<std::uint32_t>(1030, 514, 7);
        for (int y = 0; y < 514; ++y)
            put(frame, 1029, y, 0xFFFFFFFFu); // -1, not below -2
        put(frame, 3, 4, 0xFFFFFFFEu);
        put(frame, 1029, 513, 0xFFFFFFFEu);
        EXPECT_EQ(differsFromGapsAnd(DDetector::mask(frame), kOrvik, {{3, 4}, {1029, 513}}), "");
        put(frame, 600, 600 % 514, 0xFFFFFFFDu);
        EXPECT_EQ(differsFromGapsAnd(DDetector::mask(frame), kOrvik), "") << "0xFFFFFFFD is -3";
    }
    {
        SCOPED_TRACE("64-bit: truncated to the low 32 bits");
        DImage frame = frameOf<unsigned long long>(487, 195, 1ULL);
        put(frame, 1, 1, ~1ULL);
        put(frame, 2, 2, (1ULL << 32) - 2);
        put(frame, 3, 3, 1ULL << 40);
        EXPECT_EQ(differsFromGapsAnd(DDetector::mask(frame), kBrennik, {{1, 1}, {2, 2}}), "");
        DImage signedFrame = frameOf<long long>(487, 195, -1);
        put(signedFrame, 4, 4, -2LL);
        EXPECT_EQ(differsFromGapsAnd(DDetector::mask(signedFrame), kBrennik, {{4, 4}}), "");
        put(signedFrame, 5, 5, -3LL);
        EXPECT_EQ(differsFromGapsAnd(DDetector::mask(signedFrame), kBrennik), "");
    }
    {
        SCOPED_TRACE("floating: truncated toward zero");
        DImage frame = frameOf<float>(487, 195, -1.5f);
        put(frame, 1, 0, -2.0f);
        put(frame, 2, 0, -2.5f);
        put(frame, 3, 0, -2.999f);
        put(frame, 4, 0, std::numeric_limits<float>::quiet_NaN());
        put(frame, 5, 0, std::numeric_limits<float>::infinity());
        put(frame, 6, 0, 3e9f);
        EXPECT_EQ(differsFromGapsAnd(DDetector::mask(frame), kBrennik, {{1, 0}, {2, 0}, {3, 0}}), "");
        put(frame, 7, 0, -3.0f);
        EXPECT_EQ(differsFromGapsAnd(DDetector::mask(frame), kBrennik), "");

        DImage doubles = frameOf<double>(487, 195, 0.0);
        put(doubles, 1, 0, -2.0);
        EXPECT_EQ(differsFromGapsAnd(DDetector::mask(doubles), kBrennik, {{1, 0}}), "");
        put(doubles, 2, 0, -1e300); // far outside int: still below -2
        EXPECT_EQ(differsFromGapsAnd(DDetector::mask(doubles), kBrennik), "");
    }
}

TEST(DetectorMask, NoFamilyNoMarks)
{
    for (const auto& [width, height] : {std::make_pair(980, 407), std::make_pair(3, 2)}) {
        SCOPED_TRACE(std::to_string(width) + " x " + std::to_string(height));
        const DImage mask = DDetector::mask(frameOf<int>(width, height, -2));
        EXPECT_EQ(mask.type(), datatypes::UINT);
        EXPECT_EQ(mask.width(), width);
        EXPECT_EQ(firstDifference(mask, [](int, int) { return 0u; }), "");
    }
    EXPECT_TRUE(DDetector::mask(DImage()).empty());
}

TEST(DetectorMask, UnimplementedPixelType)
{
    for (const auto& [width, height] : {std::make_pair(487, 195), std::make_pair(10, 10)}) {
        SCOPED_TRACE(std::to_string(width) + " x " + std::to_string(height));
        const DImage halfFloats(width, height, datatypes::FLOAT, 2);
        EXPECT_THROW_MSG(DDetector::mask(halfFloats), DNotImplementedException,
                         "Missing implementation for type FLOAT of size 16");
    }
}

TEST(DetectorModules, SmallestFramesAndOrder)
{
    {
        SCOPED_TRACE("Brennik 981 x 407: row by row, numbered down the columns");
        const std::vector<DImageModule> modules = DDetector::modules(981, 407);
        ASSERT_EQ(modules.size(), 4u);
        const DRect expected[] = {DRect(0, 0, 487, 195), DRect(494, 0, 487, 195),
                                  DRect(0, 212, 487, 195), DRect(494, 212, 487, 195)};
        const int numbers[] = {0, 2, 1, 3};
        for (std::size_t i = 0; i < 4; ++i) {
            SCOPED_TRACE(i);
            EXPECT_EQ(modules[i].geometry(), expected[i]);
            EXPECT_EQ(modules[i].moduleNumber(), numbers[i]);
            ASSERT_EQ(modules[i].numberOfChips(), 16);
        }
        EXPECT_EQ(modules[0].chip(0), DRect(0, 0, 60, 97));
        EXPECT_EQ(modules[0].chip(7), DRect(427, 0, 60, 97));
        EXPECT_EQ(modules[0].chip(8), DRect(0, 98, 60, 97));
        EXPECT_EQ(modules[3].absoluteChipGeometry(15), DRect(494 + 427, 212 + 98, 60, 97));
    }
    {
        SCOPED_TRACE("Orvik 1030 x 514: two half modules");
        const std::vector<DImageModule> modules = DDetector::modules(1030, 514);
        ASSERT_EQ(modules.size(), 2u);
        EXPECT_EQ(modules[0].geometry(), DRect(0, 0, 1030, 257));
        EXPECT_EQ(modules[1].geometry(), DRect(0, 257, 1030, 257));
        EXPECT_EQ(modules[0].moduleNumber(), 0);
        EXPECT_EQ(modules[1].moduleNumber(), 1);
        ASSERT_EQ(modules[0].numberOfChips(), 4);
        ASSERT_EQ(modules[1].numberOfChips(), 4);
        EXPECT_EQ(modules[0].chip(3), DRect(774, 0, 256, 256));
        EXPECT_EQ(modules[1].chip(0), DRect(0, 1, 256, 256));
        EXPECT_EQ(modules[1].absoluteChipGeometry(3), DRect(774, 258, 256, 256));
    }
    {
        SCOPED_TRACE("Orvik 2070 x 1065: two columns of four half modules");
        const std::vector<DImageModule> modules = DDetector::modules(2070, 1065);
        ASSERT_EQ(modules.size(), 8u);
        for (int r = 0; r < 4; ++r)
            for (int c = 0; c < 2; ++c) {
                SCOPED_TRACE("row " + std::to_string(r) + ", column " + std::to_string(c));
                const DImageModule& m = modules[static_cast<std::size_t>(r * 2 + c)];
                EXPECT_EQ(m.geometry(), DRect(c * 1040, (r / 2) * 551 + (r % 2) * 257, 1030, 257));
                EXPECT_EQ(m.moduleNumber(), r + c * 4);
                EXPECT_EQ(m.chip(0).top(), r % 2);
            }
    }
    EXPECT_TRUE(DDetector::modules(488, 195).empty());
    EXPECT_TRUE(DDetector::modules(0, 0).empty());
}

// The modules and their chips tile exactly the pixels that the mask leaves at 0.
TEST(DetectorModules, CoverTheFrameOutsideTheGaps)
{
    for (const auto& [width, height] :
         {std::make_pair(1475, 619), std::make_pair(487, 195), std::make_pair(3110, 1616)}) {
        SCOPED_TRACE(std::to_string(width) + " x " + std::to_string(height));
        const DImage mask = DDetector::mask(frameOf<short>(width, height));
        std::vector<int> cover(static_cast<std::size_t>(width) * height, 0);
        std::vector<int> numbers;
        for (const DImageModule& m : DDetector::modules(width, height)) {
            numbers.push_back(m.moduleNumber());
            const DRect& g = m.geometry();
            for (int y = g.top(); y < g.bottom(); ++y)
                for (int x = g.left(); x < g.right(); ++x)
                    ++cover[static_cast<std::size_t>(y) * width + x];
            for (int i = 0; i < m.numberOfChips(); ++i) {
                const DRect chip = m.absoluteChipGeometry(i);
                EXPECT_EQ(chip.intersection(g), chip) << "chip " << i << " lies outside its module";
            }
        }
        EXPECT_EQ(firstDifference(mask, [&](int x, int y) {
                      return cover[static_cast<std::size_t>(y) * width + x] == 1 ? 0u : 1u;
                  }),
                  "");
        std::sort(numbers.begin(), numbers.end());
        for (std::size_t i = 0; i < numbers.size(); ++i)
            ASSERT_EQ(numbers[i], static_cast<int>(i)) << "numbers are 0 to n-1, each once";
    }
}

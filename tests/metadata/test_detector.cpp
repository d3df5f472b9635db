#include "PixelTypes.h"
#include "RectPrinter.h"
#include "TestHelpers.h"

#include "DDetector.h"
#include "foundation/DException.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <limits>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

using Pixels = std::vector<std::pair<int, int>>;

struct Geometry {
    int moduleWidth, moduleHeight, pitchX, pitchY;
};
constexpr Geometry kBrennik{487, 195, 494, 212};
constexpr Geometry kOrvik{1030, 514, 1040, 551};

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

// The first pixel of the mask that is not 1 in the gaps, 2 at `defects`, 0 elsewhere;
// "" when there is none. Without a family every pixel is expected 0.
std::string maskDiffers(const DImage& mask, const Geometry* g, const Pixels& defects = {})
{
    if (mask.type() != datatypes::UINT || mask.typeBits() != 32)
        return "not UINT 32";
    const auto* values = reinterpret_cast<const std::uint32_t*>(mask.cdata());
    for (int y = 0; y < mask.height(); ++y)
        for (int x = 0; x < mask.width(); ++x) {
            unsigned expected = 0;
            if (g && (x % g->pitchX >= g->moduleWidth || y % g->pitchY >= g->moduleHeight))
                expected = 1;
            else if (std::find(defects.begin(), defects.end(), std::make_pair(x, y)) != defects.end())
                expected = 2;
            const unsigned actual = values[static_cast<std::size_t>(y) * mask.width() + x];
            if (actual != expected)
                return "(" + std::to_string(x) + ", " + std::to_string(y) + ") is " +
                       std::to_string(actual) + ", expected " + std::to_string(expected);
        }
    return "";
}

} // namespace

TEST(Detector, FamiliesAreRecognisedBySize)
{
    struct Case {
        int width, height;
        bool brennik, orvik;
    };
    for (const Case& c : {Case{487, 195, true, false}, Case{981, 407, true, false},
                          Case{488, 195, false, false}, Case{1030, 514, false, true},
                          Case{2070, 2167, false, true}, Case{4148, 4362, false, false},
                          // One pitch short of one module: a multiple of the pitch, but no frame.
                          Case{-7, -17, false, false}, Case{INT_MIN, INT_MIN, false, false}}) {
        SCOPED_TRACE(std::to_string(c.width) + " x " + std::to_string(c.height));
        EXPECT_EQ(DDetector::isBrennik(c.width, c.height), c.brennik);
        EXPECT_EQ(DDetector::isOrvik(c.width, c.height), c.orvik);
    }
    EXPECT_TRUE(DDetector::isBrennik(frameOf<unsigned short>(981, 407)));
    EXPECT_TRUE(DDetector::isOrvik(frameOf<float>(1030, 514)));
    EXPECT_FALSE(DDetector::isOrvik(frameOf<float>(981, 407)));
}

template <class T>
class DetectorMaskPerType : public ::testing::Test {};
TYPED_TEST_SUITE(DetectorMaskPerType, norvexa_test::AllPixelTypes, norvexa_test::PixelTypeNames);

// Gaps for every type; the code -2 counts only where the type's values are read.
TYPED_TEST(DetectorMaskPerType, GapsAndDefectCode)
{
    using T = TypeParam;
    const bool readsValues = !std::is_same_v<T, bool> && !std::is_same_v<T, unsigned char> &&
                             !std::is_same_v<T, unsigned short>;
    for (const auto& [g, width, height] : {std::make_tuple(&kBrennik, 981, 407),
                                           std::make_tuple(&kOrvik, 2070, 1065)}) {
        SCOPED_TRACE(std::to_string(width) + " x " + std::to_string(height));
        DImage frame = frameOf<T>(width, height);
        EXPECT_EQ(maskDiffers(DDetector::mask(frame), g), "");

        // Both edges of a module, the first pixel after a gap, the last pixel; gap pixels.
        const Pixels modulePixels = {{0, 0}, {g->moduleWidth - 1, 3}, {g->pitchX, 3},
                                     {5, g->pitchY}, {width - 1, height - 1}};
        for (const auto& [x, y] : modulePixels)
            put(frame, x, y, static_cast<T>(-2));
        put(frame, g->moduleWidth, 3, static_cast<T>(-2));
        put(frame, 7, g->moduleHeight, static_cast<T>(-2));
        EXPECT_EQ(maskDiffers(DDetector::mask(frame), g, readsValues ? modulePixels : Pixels()), "");
    }
}

TEST(DetectorMask, AValueBelowMinusTwoAnywhereCancelsEveryDefect)
{
    DImage frame = frameOf<int>(981, 407, 5);
    const Pixels defects = {{0, 0}, {100, 50}, {980, 406}};
    for (const auto& [x, y] : defects)
        put(frame, x, y, -2);
    ASSERT_EQ(maskDiffers(DDetector::mask(frame), &kBrennik, defects), "");

    struct Case {
        const char* where;
        int x, y, value;
    };
    for (const Case& c : {Case{"first row", 0, 1, -3}, Case{"last pixel", 979, 406, -3},
                          Case{"gap column", 490, 300, -3}, Case{"gap row", 10, 200, INT_MIN}}) {
        SCOPED_TRACE(c.where);
        DImage watched = frame;
        put(watched, c.x, c.y, c.value);
        EXPECT_EQ(maskDiffers(DDetector::mask(watched), &kBrennik), "");
    }
}

TEST(DetectorMask, PixelsAreReadAsInt)
{
    {
        SCOPED_TRACE("uint32: -1 in the gaps as detectors write them, 0xFFFFFFFE, 0xFFFFFFFD");
        DImage frame = frameOf<unsigned int>(1030, 514, 0xFFFFFFFFu);
        put(frame, 3, 4, 0xFFFFFFFEu);
        EXPECT_EQ(maskDiffers(DDetector::mask(frame), &kOrvik, {{3, 4}}), "");
        put(frame, 600, 86, 0xFFFFFFFDu);
        EXPECT_EQ(maskDiffers(DDetector::mask(frame), &kOrvik), "");
    }
    {
        SCOPED_TRACE("floating: truncated toward zero; NaN and values beyond int are no code");
        DImage frame = frameOf<float>(487, 195, -1.5f);
        const float odd[] = {-2.0f, -2.5f, -2.999f, std::numeric_limits<float>::quiet_NaN(), 3e9f};
        for (int x = 0; x < 5; ++x)
            put(frame, x, 0, odd[x]);
        EXPECT_EQ(maskDiffers(DDetector::mask(frame), &kBrennik, {{0, 0}, {1, 0}, {2, 0}}), "");
        DImage doubles = frameOf<double>(487, 195, -2.0);
        put(doubles, 2, 0, -1e300);
        EXPECT_EQ(maskDiffers(DDetector::mask(doubles), &kBrennik), "");
    }
}

TEST(DetectorMask, NoFamilyAndUnimplementedType)
{
    const DImage mask = DDetector::mask(frameOf<int>(980, 407, -2));
    EXPECT_EQ(std::make_pair(mask.width(), mask.height()), std::make_pair(980, 407));
    EXPECT_EQ(maskDiffers(mask, nullptr), "");
    EXPECT_TRUE(DDetector::mask(DImage()).empty());
    for (int width : {487, 10}) {
        SCOPED_TRACE(width);
        EXPECT_THROW_MSG(DDetector::mask(DImage(width, 195, datatypes::FLOAT, 2)),
                         DNotImplementedException, "Missing implementation for type FLOAT of size 16");
    }
}

TEST(DetectorModules, OrderNumbersAndChips)
{
    const std::vector<DImageModule> brennik = DDetector::modules(981, 407);
    ASSERT_EQ(brennik.size(), 4u);
    const int lefts[] = {0, 494, 0, 494}, tops[] = {0, 0, 212, 212}, numbers[] = {0, 2, 1, 3};
    for (std::size_t i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(brennik[i].geometry(), DRect(lefts[i], tops[i], 487, 195));
        EXPECT_EQ(brennik[i].moduleNumber(), numbers[i]);
        EXPECT_EQ(brennik[i].numberOfChips(), 16);
    }
    EXPECT_EQ(brennik[0].chip(7), DRect(427, 0, 60, 97));
    EXPECT_EQ(brennik[3].absoluteChipGeometry(8), DRect(494, 212 + 98, 60, 97));

    const std::vector<DImageModule> orvik = DDetector::modules(1030, 514);
    ASSERT_EQ(orvik.size(), 2u);
    EXPECT_EQ(orvik[0].absoluteChipGeometry(3), DRect(774, 0, 256, 256));
    EXPECT_EQ(orvik[1].geometry(), DRect(0, 257, 1030, 257));
    EXPECT_EQ(orvik[1].moduleNumber(), 1);
    EXPECT_EQ(orvik[1].absoluteChipGeometry(3), DRect(774, 258, 256, 256));

    EXPECT_TRUE(DDetector::modules(488, 195).empty());
}

// The modules, with their chips inside, tile exactly the pixels that the mask leaves at 0,
// and their numbers are 0 to n-1.
TEST(DetectorModules, TileTheFrameOutsideTheGaps)
{
    for (const auto& [width, height] : {std::make_pair(1475, 619), std::make_pair(3110, 1616)}) {
        SCOPED_TRACE(std::to_string(width) + " x " + std::to_string(height));
        const DImage mask = DDetector::mask(frameOf<short>(width, height));
        std::vector<int> cover(mask.size(), 0), numbers;
        for (const DImageModule& m : DDetector::modules(width, height)) {
            numbers.push_back(m.moduleNumber());
            const DRect& r = m.geometry();
            for (int y = r.top(); y < r.bottom(); ++y)
                for (int x = r.left(); x < r.right(); ++x)
                    ++cover[static_cast<std::size_t>(y) * width + x];
            for (int i = 0; i < m.numberOfChips(); ++i)
                EXPECT_EQ(m.absoluteChipGeometry(i).intersection(r), m.absoluteChipGeometry(i));
        }
        const auto* gaps = reinterpret_cast<const std::uint32_t*>(mask.cdata());
        for (std::size_t i = 0; i < cover.size(); ++i)
            ASSERT_EQ(cover[i], gaps[i] == 0 ? 1 : 0) << "pixel " << i % width << ", " << i / width;
        std::sort(numbers.begin(), numbers.end());
        for (std::size_t i = 0; i < numbers.size(); ++i)
            ASSERT_EQ(numbers[i], static_cast<int>(i));
    }
}

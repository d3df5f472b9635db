#include "TestHelpers.h"

#include "DImage.h"
#include "foundation/DException.h"

#include <cmath>
#include <limits>
#include <vector>

using namespace norvexa;
using namespace norvexa::imglib;
using namespace norvexa::datatypes;

namespace {

template <class T>
DImage imageOf(std::vector<T> values)
{
    DImage image(static_cast<int>(values.size()), 1, T(0));
    for (std::size_t i = 0; i < values.size(); ++i)
        image.setPixel<T>(static_cast<int>(i), 0, values[i]);
    return image;
}

template <class T>
std::vector<T> pixelsOf(const DImage& image)
{
    EXPECT_EQ(image.type(), PixelTraits<T>::type);
    EXPECT_EQ(image.typeBits(), PixelTraits<T>::bits);
    const T* p = reinterpret_cast<const T*>(image.cdata());
    return std::vector<T>(p, p + image.size());
}

std::string describe(const DImage& image) { return typeStr(image.type()) + std::to_string(image.typeBits()); }

} // namespace

TEST(Arithmetic, OutOfPlaceResultIsTheNarrowestTypeHoldingBoth)
{
    const DImage i8 = imageOf<signed char>({1}), u8 = imageOf<unsigned char>({1});
    const DImage i16 = imageOf<short>({1}), u16 = imageOf<unsigned short>({1});
    const DImage i32 = imageOf<int>({1}), u32 = imageOf<unsigned int>({1});
    const DImage i64 = imageOf<long long>({1}), u64 = imageOf<unsigned long long>({1});
    const DImage f32 = imageOf<float>({1}), f64 = imageOf<double>({1});
    const DImage b = imageOf<bool>({true}), c = imageOf<char>({1});

    EXPECT_EQ(describe(u16 + u16), "UINT16");
    EXPECT_EQ(describe(i16 + u8), "INT16");
    EXPECT_EQ(describe(u8 + i8), "INT16");
    EXPECT_EQ(describe(i32 - u32), "INT64");
    EXPECT_EQ(describe(u16 * f32), "FLOAT32");
    EXPECT_EQ(describe(f32 * i32), "FLOAT64") << "float cannot hold every int32";
    EXPECT_EQ(describe(u64 + i8), "FLOAT64") << "no integer type holds both";
    EXPECT_EQ(describe(i64 + u32), "INT64");
    EXPECT_EQ(describe(b * f32), "FLOAT32");
    EXPECT_EQ(describe(b + b), "BOOL8");
    EXPECT_EQ(describe(c + i8), "CHAR8") << "a tie goes to the left operand";
    EXPECT_EQ(describe(i8 + c), "INT8");
    EXPECT_EQ(describe(f64 / f32), "FLOAT64");

    // Scalars: a floating image keeps its type with an integer scalar.
    EXPECT_EQ(describe(f32 * 3), "FLOAT32");
    EXPECT_EQ(describe(i32 * 1.5), "FLOAT64");
    EXPECT_EQ(describe(u16 + static_cast<unsigned short>(1)), "UINT16");
    EXPECT_EQ(describe(-u16), "INT32");
    EXPECT_EQ(describe(-f32), "FLOAT32");
    EXPECT_EQ(describe(-i32), "INT32");
}

TEST(Arithmetic, CountImageTimesFactorImageInPlaceKeepsItsTypeAndRounds)
{
    // Gaps (-1) and defective pixels (-2) keep their markers through a factor near 1.
    DImage counts = imageOf<int>({0, 1, 2, 10, 1000, -1, -2, 2147483647});
    const DImage factors = imageOf<double>({1.5, 1.5, 1.25, 1.07, 1.0004, 1.07, 1.07, 2.0});
    counts *= factors;
    EXPECT_EQ(pixelsOf<int>(counts), (std::vector<int>{0, 2, 3, 11, 1000, -1, -2, 2147483647}));

    DImage u16 = imageOf<unsigned short>({100, 65535, 3});
    u16 *= imageOf<float>({0.5f, 2.0f, -1.0f});
    EXPECT_EQ(pixelsOf<unsigned short>(u16), (std::vector<unsigned short>{50, 65535, 0}));

    DImage narrow = imageOf<unsigned char>({200, 10});
    narrow += imageOf<long long>({100, -20});
    EXPECT_EQ(pixelsOf<unsigned char>(narrow), (std::vector<unsigned char>{255, 0}))
        << "a wider right operand saturates into the left type";
}

TEST(Arithmetic, IntegersSaturateInsteadOfWrapping)
{
    EXPECT_EQ(pixelsOf<unsigned short>(imageOf<unsigned short>({5, 65000}) - imageOf<unsigned short>({7, 1000})),
              (std::vector<unsigned short>{0, 64000}));
    EXPECT_EQ(pixelsOf<int>(imageOf<int>({2147483647, -2147483647}) + imageOf<int>({1, -5})),
              (std::vector<int>{2147483647, -2147483647 - 1}));
    const long long max64 = std::numeric_limits<long long>::max();
    EXPECT_EQ(pixelsOf<long long>(imageOf<long long>({max64, max64}) * imageOf<long long>({2, -3})),
              (std::vector<long long>{max64, std::numeric_limits<long long>::min()}));
    const unsigned long long maxU64 = std::numeric_limits<unsigned long long>::max();
    DImage big = imageOf<unsigned long long>({maxU64, 3});
    big *= 2;
    EXPECT_EQ(pixelsOf<unsigned long long>(big), (std::vector<unsigned long long>{maxU64, 6}));
    DImage flags = imageOf<bool>({false, true});
    flags -= imageOf<bool>({true, true});
    EXPECT_EQ(pixelsOf<bool>(flags), (std::vector<bool>{true, false}));
}

TEST(Arithmetic, DivisionByZero)
{
    EXPECT_EQ(pixelsOf<int>(imageOf<int>({7, -7, 0, 9}) / imageOf<int>({0, 2, 0, -2})),
              (std::vector<int>{0, -3, 0, -4}));

    const auto quotient = pixelsOf<float>(imageOf<float>({1, -1, 0}) / imageOf<float>({0, 0, 0}));
    EXPECT_EQ(quotient[0], std::numeric_limits<float>::infinity());
    EXPECT_EQ(quotient[1], -std::numeric_limits<float>::infinity());
    EXPECT_TRUE(std::isnan(quotient[2]));

    DImage counts = imageOf<int>({5, -5, 0});
    counts /= imageOf<double>({0, 0, 0});
    EXPECT_EQ(pixelsOf<int>(counts), (std::vector<int>{2147483647, -2147483647 - 1, 0}));

    DImage scaled = imageOf<unsigned int>({10, 11});
    scaled /= 0;
    EXPECT_EQ(pixelsOf<unsigned int>(scaled), (std::vector<unsigned int>{0, 0}));
}

TEST(Arithmetic, SizeMismatchFailsAndChangesNothing)
{
    DImage a(4, 3, 1), b(3, 4, 2);
    const DImage before = a;
    EXPECT_THROW_MSG(a + b, DRuntimeException, "Image sizes do not coincide");
    EXPECT_THROW_MSG(a *= b, DRuntimeException, "Image sizes do not coincide");
    EXPECT_EQ(pixelsOf<int>(a), pixelsOf<int>(before));
    DImage empty;
    EXPECT_TRUE((empty + DImage()).empty());
}

TEST(Arithmetic, CharAndSignedCharTakeDifferentPathsToTheSameNumbers)
{
    const DImage c = imageOf<char>({-5, 100, 3});
    const DImage s = imageOf<signed char>({-5, 100, 3});
    const DImage factor = imageOf<double>({2.0, 0.5, -1.0});
    EXPECT_EQ(pixelsOf<double>((c * factor).asType<double>()), pixelsOf<double>((s * factor).asType<double>()));
    EXPECT_EQ(describe(c * factor), "FLOAT64");
    EXPECT_EQ(pixelsOf<double>(c * factor), (std::vector<double>{-10, 50, -3}));
}

TEST(Arithmetic, ScalarOperationsAndMaskTimesFrame)
{
    DImage frame = imageOf<float>({1.5f, -2.0f, 4.0f});
    const DImage mask = imageOf<bool>({true, false, true});
    EXPECT_EQ(pixelsOf<float>(frame * mask), (std::vector<float>{1.5f, 0.0f, 4.0f}));
    EXPECT_EQ(pixelsOf<float>(frame - 1), (std::vector<float>{0.5f, -3.0f, 3.0f}));
    frame += 0.5;
    EXPECT_EQ(pixelsOf<float>(frame), (std::vector<float>{2.0f, -1.5f, 4.5f}));
    EXPECT_EQ(pixelsOf<int>(-imageOf<unsigned short>({3, 65535})), (std::vector<int>{-3, -65535}));
    EXPECT_EQ(pixelsOf<double>(imageOf<int>({3, -3}) * 0.5), (std::vector<double>{1.5, -1.5}));
    DImage rounded = imageOf<int>({3, -3, 5});
    rounded *= 0.5;
    EXPECT_EQ(pixelsOf<int>(rounded), (std::vector<int>{2, -2, 3})) << "halves away from zero";
}

TEST(Conversion, OrdinaryConversionDefinedEverywhere)
{
    const DImage floats = imageOf<double>({1.9, -1.9, 3e10, -3e10, std::nan(""), 255.5});
    EXPECT_EQ(pixelsOf<int>(floats.asType<int>()), (std::vector<int>{1, -1, 2147483647, -2147483647 - 1, 0, 255}));
    EXPECT_EQ(pixelsOf<unsigned char>(floats.asType<unsigned char>()),
              (std::vector<unsigned char>{1, 0, 255, 0, 0, 255}));
    EXPECT_EQ(pixelsOf<unsigned short>(imageOf<int>({70000, -1}).asType<unsigned short>()),
              (std::vector<unsigned short>{4464, 65535}))
        << "integers convert as the language does (modulo)";
    EXPECT_EQ(pixelsOf<bool>(imageOf<float>({0.0f, -0.5f, 2.0f}).asType<bool>()),
              (std::vector<bool>{false, true, true}));
}

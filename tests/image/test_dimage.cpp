#include "PixelTypes.h"
#include "TestHelpers.h"

#include "DGlobal.h"
#include "DImage.h"
#include "foundation/DException.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <tuple>

using namespace norvexa;
using namespace norvexa::imglib;
using namespace norvexa::datatypes;

template <class T>
class DImagePerType : public ::testing::Test {};
TYPED_TEST_SUITE(DImagePerType, norvexa_test::AllPixelTypes, norvexa_test::PixelTypeNames);

TYPED_TEST(DImagePerType, FillPixelAccessAndConversion)
{
    using T = TypeParam;
    const T seven = static_cast<T>(7);
    DImage image(5, 4, seven);
    EXPECT_EQ(std::make_tuple(image.width(), image.height(), image.type(), image.dataSize()),
              std::make_tuple(5, 4, PixelTraits<T>::type, sizeof(T)));
    EXPECT_EQ(image.pixel<T>(4, 3, T(0)), seven);
    EXPECT_EQ(image.pixel<double>(0, 0, -1.0), static_cast<double>(seven));
    EXPECT_TRUE(image.pixel<bool>(2, 2, false));

    image.setPixel<int>(1, 2, 0);
    EXPECT_EQ(image.pixel<int>(1, 2, 99), 0);
    EXPECT_FALSE(image.pixel<bool>(1, 2, true));
    EXPECT_EQ(image.data(1, 2), image.data() + (5 * 2 + 1) * sizeof(T));

    // Outside: the default, and no write.
    EXPECT_EQ(image.pixel<int>(-1, 0, 7), 7);
    EXPECT_EQ(image.pixel<int>(5, 0, 8), 8);
    EXPECT_EQ(image.pixel<int>(0, 4, 9), 9);
    const DImage before = image;
    image.setPixel<int>(5, 0, 1);
    image.setPixel<int>(0, -1, 1);
    EXPECT_EQ(std::memcmp(image.cdata(), before.cdata(), image.size() * sizeof(T)), 0);

    const DImage same = DImage(image, PixelTraits<T>::type, sizeof(T));
    EXPECT_EQ(std::memcmp(same.cdata(), image.cdata(), image.size() * sizeof(T)), 0);
    const DImage asFloat = image.asType<float>();
    EXPECT_EQ(asFloat.pixel<float>(4, 3, 0.0f), static_cast<float>(seven));

    const DImage sized(image, T(0));
    EXPECT_EQ(std::make_pair(sized.width(), sized.height()), std::make_pair(5, 4));
    EXPECT_EQ(sized.pixel<double>(3, 3, -1.0), 0.0);
}

TEST(DImage, DefaultAndEmptyImages)
{
    const DImage image;
    EXPECT_TRUE(image.empty());
    EXPECT_EQ(std::make_tuple(image.width(), image.height(), image.type(), image.typeBits(), image.dataSize()),
              std::make_tuple(0, 0, INT, 32ul, std::size_t(4)));
    EXPECT_EQ(image.pixel<int>(0, 0, 7), 7);

    // An empty image of a type without implementation still gives the default.
    const DImage half(DBasicImage(image::StdAllocator(), FLOAT, 16));
    EXPECT_EQ(half.pixel<int>(0, 0, 3), 3);
    const DImage halfFrame(DBasicImage(2, 2, image::StdAllocator(), FLOAT, 16));
    EXPECT_THROW_MSG(halfFrame.pixel<int>(1, 1, 0), DNotImplementedException,
                     "Missing implementation for type FLOAT of size 16");
    DImage writable = halfFrame;
    EXPECT_THROW_MSG(writable.setPixel<int>(0, 0, 1), DNotImplementedException,
                     "Missing implementation for type FLOAT of size 16");
    EXPECT_NO_THROW(writable.setPixel<int>(2, 0, 1));
}

TEST(DImage, FillValuesThatCompareEqualToZeroClear)
{
    const DImage nan(4, 4, std::numeric_limits<float>::quiet_NaN());
    const DImage negativeZero(4, 4, -0.0);
    for (int i = 0; i < 16; ++i) {
        const float f = nan.pixel<float>(i % 4, i / 4, 1.0f);
        EXPECT_EQ(f, 0.0f);
        EXPECT_FALSE(std::signbit(f));
        EXPECT_FALSE(std::signbit(negativeZero.pixel<double>(i % 4, i / 4, 1.0)));
    }
    DImage truth(2, 1, false);
    truth.setPixel<double>(0, 0, 0.25);
    EXPECT_EQ(static_cast<unsigned char>(*truth.data(0, 0)), 1u) << "a BOOL pixel stores 1";
    DImage nanFloat(1, 1, std::numeric_limits<float>::quiet_NaN());
    nanFloat.setPixel<float>(0, 0, std::numeric_limits<float>::quiet_NaN());
    EXPECT_FALSE(nanFloat.pixel<bool>(0, 0, true)) << "NaN is neither less nor greater than 0";
}

TEST(DImage, MovesSwapAndAssignment)
{
    DImage a(3, 3, 1), b(2, 2, 2.5f);
    const char* aPixels = a.cdata();
    b = std::move(a);
    EXPECT_EQ(b.cdata(), aPixels);
    EXPECT_EQ(a.type(), FLOAT) << "the source holds the target's old contents";
    EXPECT_EQ(a.width(), 2);

    DImage c(b);
    EXPECT_NE(c.cdata(), b.cdata());
    c = c;
    EXPECT_EQ(c.pixel<int>(2, 2, 0), 1);
    DImage moved(std::move(c));
    EXPECT_TRUE(c.empty());
    EXPECT_EQ(moved.pixel<int>(1, 1, 0), 1);
    moved.resize(7, 2);
    EXPECT_EQ(moved.width(), 7);
    EXPECT_EQ(moved.type(), INT);
    moved.clear();
    EXPECT_TRUE(moved.empty());
}

TEST(DImage, ContainersEnterDecodedAndWholeBytesOnly)
{
    DBasicImage frame(static_cast<const unsigned int*>(nullptr), 64, 32);
    for (std::size_t i = 0; i < frame.size(); ++i)
        reinterpret_cast<unsigned int*>(frame.data())[i] = static_cast<unsigned int>(i * 7 % 1000);
    DBasicImage compressed = frame;
    compressed.setFilter(image::DCompression::FILTER_BS32_LZ4, 0);

    const DImage decoded(DBasicImage{compressed});
    EXPECT_EQ(decoded.imageData().filter(), image::DCompression::FILTER_NONE);
    EXPECT_EQ(std::memcmp(decoded.cdata(), frame.cdata(), frame.usedBytes()), 0);

    DImage kept;
    kept.setImageData(compressed);
    EXPECT_EQ(kept.imageData().filter(), image::DCompression::FILTER_BS32_LZ4)
        << "setImageData takes the container as it is";

    DBasicImage twelveBits(4, 4, image::StdAllocator(), UINT, 12);
    EXPECT_THROW_MSG(DImage{twelveBits}, DRuntimeException,
                     "Images of non-integer bytes are not supported");
    EXPECT_THROW_MSG(kept.setImageData(twelveBits), DRuntimeException,
                     "Images of non-integer bytes are not supported");
}

TEST(Global, VersionAndRound)
{
    EXPECT_EQ(version(), "3.2.0");
    EXPECT_EQ(versionMajor() * 100 + versionMinor() * 10 + versionPatch(), 320);
    EXPECT_EQ(imglib::round(2.5), 3);
    EXPECT_EQ(imglib::round(-2.5), -3);
    EXPECT_EQ(imglib::round(2.4999), 2);
    EXPECT_EQ(imglib::round(-0.4), 0);
    EXPECT_EQ(imglib::round(3e9), static_cast<int>(3000000000u)) << "truncated to 32 bits";
}

TEST(Global, ForwardExceptionKeepsTheMostSpecificKnownClass)
{
    auto forwarded = [](const std::exception& e) {
        try {
            forwardException(e);
        } catch (const DTimeoutException& t) {
            return "timeout " + std::to_string(t.time()) + " " + t.what();
        } catch (const DOutOfRangeException& x) {
            return std::string("range ") + x.what();
        } catch (const DRuntimeException& x) {
            return std::string("runtime ") + x.what();
        } catch (const DNotImplementedException& x) {
            return std::string("not-implemented ") + x.what();
        } catch (const DException& x) {
            return std::string("base ") + x.what();
        } catch (const std::exception& x) {
            return std::string("std ") + x.what();
        }
        return std::string("returned");
    };
    EXPECT_EQ(forwarded(DRuntimeException("a")), "runtime a");
    EXPECT_EQ(forwarded(DOutOfRangeException("b")), "range b");
    EXPECT_EQ(forwarded(DTimeoutException(2.5, "c")), "timeout 2.500000 c");
    EXPECT_EQ(forwarded(DNotImplementedException("d")), "base d") << "narrowed on purpose";
    EXPECT_EQ(forwarded(DException("e")), "base e");
    EXPECT_EQ(forwarded(std::runtime_error("lost")), "std std::exception");
    EXPECT_EQ(std::string(DTimeoutException(1.5).what()).empty(), false);
}

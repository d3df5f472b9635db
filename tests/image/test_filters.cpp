#include "PixelTypes.h"
#include "TestHelpers.h"

#include "DImage.h"
#include "foundation/DException.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

// The plain definitions, pixel by pixel and window by window, as references.

/// Pixel storage for the references: BOOL as bytes, since vector<bool> has no data().
template <class T>
using Px = std::conditional_t<std::is_same_v<T, bool>, unsigned char, T>;

template <class T>
std::vector<Px<T>> pixelsOf(const DImage& image)
{
    std::vector<Px<T>> v(image.size());
    std::memcpy(static_cast<void*>(v.data()), image.cdata(), v.size() * sizeof(T));
    return v;
}

bool excludedAt(const DImage* mask, int x, int y) { return mask && mask->pixel<bool>(x, y, false); }

template <class T>
T wrappingAdd(T a, T b)
{
    if constexpr (std::is_same_v<T, bool>)
        return (a + b) != 0;
    else if constexpr (std::is_integral_v<T>)
        return static_cast<T>(static_cast<std::make_unsigned_t<T>>(a) + static_cast<std::make_unsigned_t<T>>(b));
    else
        return a + b;
}

template <class T>
T medianOf(std::vector<T> v)
{
    const std::size_t k = v.size() / 2;
    std::nth_element(v.begin(), v.begin() + k, v.end());
    if (v.size() % 2)
        return v[k];
    std::nth_element(v.begin(), v.begin() + k - 1, v.begin() + k);
    if constexpr (std::is_floating_point_v<T>)
        return static_cast<T>((v[k - 1] + v[k]) * 0.5);
    else if constexpr (sizeof(T) < sizeof(int))
        return static_cast<T>((v[k - 1] + v[k]) / 2);
    else
        return static_cast<T>(wrappingAdd(v[k - 1], v[k]) / 2);
}

enum class Filter { Mean, Median, Variance };

template <class T>
std::vector<Px<T>> referenceFilter(Filter filter, const DImage& image, int m, int n, const DImage* mask)
{
    const int w = image.width(), h = image.height();
    const std::vector<Px<T>> in = pixelsOf<T>(image);
    std::vector<Px<T>> out(in.size(), Px<T>(0));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            if (excludedAt(mask, x, y))
                continue;
            std::vector<Px<T>> window;
            T sum = 0;
            double dsum = 0;
            for (int yy = y - n / 2; yy <= y + n / 2; ++yy)
                for (int xx = x - m / 2; xx <= x + m / 2; ++xx)
                    if (xx >= 0 && yy >= 0 && xx < w && yy < h && !excludedAt(mask, xx, yy)) {
                        const T p = static_cast<T>(in[yy * w + xx]);
                        window.push_back(p);
                        sum = wrappingAdd(sum, p);
                        dsum += static_cast<double>(p);
                    }
            const int count = static_cast<int>(window.size());
            Px<T>& result = out[y * w + x];
            if (filter == Filter::Mean) {
                if constexpr (std::is_same_v<T, bool>)
                    result = (sum / count) != 0;
                else
                    result = static_cast<T>(sum / count);
            } else if (filter == Filter::Median) {
                result = medianOf(window);
            } else if (count > 1) {
                const double mean = dsum / count;
                double squares = 0.0;
                for (int yy = y - n / 2; yy <= y + n / 2; ++yy)
                    for (int xx = x - m / 2; xx <= x + m / 2; ++xx)
                        if (xx >= 0 && yy >= 0 && xx < w && yy < h)
                            squares += (static_cast<double>(in[yy * w + xx]) - mean) *
                                       (static_cast<double>(in[yy * w + xx]) - mean);
                result = DImage(1, 1, squares / (count - 1)).pixel<T>(0, 0, T(0));
            }
        }
    return out;
}

/// Random pixels: full-range bit patterns (so sums wrap) or small values (so windows
/// tie), with signed zeros among floating ones.
template <class T>
DImage randomFrame(int w, int h, std::mt19937& rng, bool small)
{
    DImage image(w, h, T(0));
    T* p = reinterpret_cast<T*>(image.data());
    for (std::size_t i = 0; i < image.size(); ++i) {
        const unsigned long long bits = (static_cast<unsigned long long>(rng()) << 32) | rng();
        if constexpr (std::is_same_v<T, bool>)
            p[i] = bits & 1;
        else if constexpr (std::is_floating_point_v<T>)
            p[i] = small ? static_cast<T>(static_cast<int>(bits % 7) - 3) * (bits & 8 ? T(-0.0) + 1 : 1)
                         : static_cast<T>(std::ldexp(static_cast<double>(bits % 2000001) - 1e6, static_cast<int>(bits >> 60) - 4));
        else if (small)
            p[i] = static_cast<T>(bits % 5);
        else
            std::memcpy(&p[i], &bits, sizeof(T));
        if constexpr (std::is_floating_point_v<T>)
            if (bits % 13 == 0)
                p[i] = (bits & 16) ? T(-0.0) : T(0.0);
    }
    return image;
}

/// A mask of a few types: about one pixel in eight excludes; NaN in a float mask does not.
DImage randomMask(int w, int h, std::mt19937& rng, int kind)
{
    DImage mask = kind == 0 ? DImage(w, h, 0u) : kind == 1 ? DImage(w, h, 0.0f) : DImage(w, h, false);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const unsigned r = rng() % 16;
            if (kind == 1)
                mask.setPixel<float>(x, y, r == 0 ? -1.5f : r == 1 ? 2.0f : r == 2 ? NAN : 0.0f);
            else
                mask.setPixel<int>(x, y, r < 2 ? 1 + static_cast<int>(r) : 0);
        }
    return mask;
}

template <class T>
class FilterPerType : public ::testing::Test {};
TYPED_TEST_SUITE(FilterPerType, norvexa_test::AllPixelTypes, norvexa_test::PixelTypeNames);

TYPED_TEST(FilterPerType, FastPathsEqualThePlainDefinitionsBitForBit)
{
    using T = TypeParam;
    std::mt19937 rng(7);
    // Wide enough for whole blocks of interior windows, narrow frames for shrinking ones.
    const std::pair<int, int> sizes[] = {{150, 12}, {5, 9}, {1, 1}};
    const std::pair<int, int> windows[] = {{1, 1}, {3, 3}, {5, 5}, {3, 1}, {1, 5}, {7, 7}, {9, 5}, {11, 11}, {-1, 3}};
    for (const auto& [w, h] : sizes)
        for (const bool small : {false, true})
            for (const int maskKind : {-1, 0, 1, 2}) {
                const DImage frame = randomFrame<T>(w, h, rng, small);
                const DImage mask = maskKind < 0 ? DImage() : randomMask(w, h, rng, maskKind);
                const DImage* m = maskKind < 0 ? nullptr : &mask;
                for (const auto& [mw, nh] : windows) {
                    SCOPED_TRACE(testing::Message() << w << "x" << h << " window " << mw << "x" << nh
                                                    << " small " << small << " mask " << maskKind);
                    EXPECT_EQ(pixelsOf<T>(frame.meanFilter(mw, nh, m)), referenceFilter<T>(Filter::Mean, frame, mw, nh, m));
                    const DImage median = frame.medianFilter(mw, nh, m);
                    const std::vector<Px<T>> reference = referenceFilter<T>(Filter::Median, frame, mw, nh, m);
                    EXPECT_EQ(std::memcmp(median.cdata(), reference.data(), reference.size() * sizeof(T)), 0);
                    const DImage variance = frame.varianceFilter(mw, nh, m);
                    const std::vector<Px<T>> refVariance = referenceFilter<T>(Filter::Variance, frame, mw, nh, m);
                    EXPECT_EQ(std::memcmp(variance.cdata(), refVariance.data(), refVariance.size() * sizeof(T)), 0);
                }
            }
}

TYPED_TEST(FilterPerType, StatisticsEqualThePlainDefinitions)
{
    using T = TypeParam;
    std::mt19937 rng(11);
    const DRect rects[] = {DRect(0, 0, 1000, 1000), DRect(3, 2, 10, 5), DRect(40, 0, 5, 5)};
    for (const bool small : {false, true})
        for (const int maskKind : {-1, 0, 1}) {
            const DImage frame = randomFrame<T>(37, 21, rng, small);
            const DImage mask = maskKind < 0 ? DImage() : randomMask(37, 21, rng, maskKind);
            const DImage* m = maskKind < 0 ? nullptr : &mask;
            for (const DRect& rect : rects)
                for (const auto& [low, high] : {std::pair{-1e300, 1e300}, std::pair{0.5, 3.0}, std::pair{1.0, 0.0}}) {
                    SCOPED_TRACE(testing::Message() << "small " << small << " mask " << maskKind << " rect "
                                                    << rect.left() << " limits " << low << " " << high);
                    std::vector<double> taken;
                    std::vector<Px<T>> values;
                    for (int y = rect.top(); y < std::min(rect.bottom(), 21); ++y)
                        for (int x = rect.left(); x < std::min(rect.right(), 37); ++x) {
                            if (excludedAt(m, x, y))
                                continue;
                            values.push_back(frame.pixel<T>(x, y, T(0)));
                            const double v = static_cast<double>(values.back());
                            if (low <= v && v <= high)
                                taken.push_back(v);
                        }
                    double sum = 0.0;
                    for (const double v : taken)
                        sum += v;
                    const double mean = taken.empty() ? 0.0 : sum / taken.size();
                    double squares = 0.0;
                    for (const double v : taken)
                        squares += (v - mean) * (v - mean);
                    const double variance = taken.size() < 2 ? 0.0 : squares / (taken.size() - 1);
                    EXPECT_EQ(frame.mean(&rect, m, low, high), mean);
                    EXPECT_EQ(frame.variance(&rect, m, low, high), variance);
                    EXPECT_EQ(frame.rms(&rect, m, low, high), std::sqrt(variance));
                    const T median = values.empty() ? T(0) : static_cast<T>(medianOf(values));
                    EXPECT_EQ(std::memcmp(&median, &static_cast<const T&>(frame.median<T>(&rect, m)), sizeof(T)), 0);
                    EXPECT_EQ(frame.median<double>(&rect, m), static_cast<double>(median));
                }
        }
}

TEST(Filters, FailuresInTheirOrder)
{
    const DImage frame(4, 3, 1.0);
    const DImage wrongMask(3, 4, 0);
    for (const auto& call : {&DImage::meanFilter, &DImage::medianFilter, &DImage::varianceFilter})
        EXPECT_THROW_MSG((frame.*call)(2, 3, &wrongMask), DRuntimeException, "Mask has the wrong shape");
    EXPECT_THROW_MSG(frame.meanFilter(2, 3, nullptr), DException, "DImage::meanFilter: m and n must be odd");
    EXPECT_THROW_MSG(frame.varianceFilter(3, 4, nullptr), DException, "DImage::meanFilter: m and n must be odd");
    EXPECT_THROW_MSG(frame.medianFilter(2, 2, nullptr), DException, "DImage::medianFilter: m and n must be odd");
    const DImage empty(0, 0, 1.0);
    EXPECT_TRUE(empty.meanFilter(2, 3, nullptr).empty());
    EXPECT_EQ(empty.medianFilter(2, 2, nullptr).type(), datatypes::FLOAT);

    EXPECT_THROW_MSG(frame.mean(nullptr, &wrongMask, 0, 1), DRuntimeException, "Mask has the wrong shape");
    EXPECT_THROW_MSG(frame.median<int>(nullptr, &wrongMask), DRuntimeException, "Mask has the wrong shape");
    const DImage noMask;
    EXPECT_EQ(frame.mean(nullptr, &noMask, 0, 2), 1.0);
    EXPECT_EQ(frame.median<int>(nullptr, &noMask), 1);
    EXPECT_EQ(frame.mean(nullptr, nullptr, 1.0, 0.0), 0.0);
    EXPECT_EQ(empty.variance(nullptr, &wrongMask, 0, 1), 0.0);
    EXPECT_EQ(DImage(1, 1, 3).rms(nullptr, nullptr, 0, 9), 0.0);
    EXPECT_EQ(DImage(2, 1, 2.75f).median<int>(nullptr, nullptr), 2);
}

} // namespace

#include "ReaderHelpers.h"
#include "TestHelpers.h"

#include "DImage.h"
#include "foundation/DException.h"

#include <array>
#include <cmath>
#include <cstring>
#include <vector>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

constexpr int W = 120, H = 80;
const std::vector<DRect> kModules = {DRect(2, 3, 55, 70), DRect(63, 3, 55, 70)};

template <class T>
std::vector<T> readFixture(const char* name)
{
    const std::vector<char> bytes = norvexa_test::fileBytes(norvexa_test::dataPath(std::string("spline/") + name));
    std::vector<T> values(bytes.size() / sizeof(T));
    std::memcpy(values.data(), bytes.data(), values.size() * sizeof(T));
    return values;
}

template <class T>
DImage frameWithModules(const std::vector<T>& pixels, const std::vector<DRect>& modules = kModules)
{
    DImage frame(W, H, T(0));
    std::memcpy(frame.data(), pixels.data(), pixels.size() * sizeof(T));
    std::vector<DImageModule> list;
    for (std::size_t i = 0; i < modules.size(); ++i)
        list.emplace_back(modules[i], std::vector<DRect>{modules[i]}, static_cast<int>(i));
    frame.optionalData().set_modules(list);
    return frame;
}

bool inModule(int x, int y)
{
    for (const DRect& r : kModules)
        if (x >= r.left() && x < r.right() && y >= r.top() && y < r.bottom())
            return true;
    return false;
}

TEST(SplineFit, AgreesWithAnIndependentLeastSquaresFit)
{
    // The fixture holds scipy's bivariate least-squares spline on the same points and
    // knots (tools/make_spline_fixture.py); both solve the same problem, so they agree
    // to rounding: within 1e-6 on values around 200.
    const std::vector<double> pixels = readFixture<double>("frame.f64");
    const std::vector<unsigned char> maskBytes = readFixture<unsigned char>("mask.u8");
    const std::vector<double> expected = readFixture<double>("expected.f64");
    ASSERT_EQ(pixels.size(), static_cast<std::size_t>(W * H));
    const DImage frame = frameWithModules(pixels);
    DImage mask(W, H, static_cast<unsigned char>(0));
    std::memcpy(mask.data(), maskBytes.data(), maskBytes.size());

    const DImage fit = frame.splineFit(6, 4, 6, 4, 2, &mask);
    ASSERT_EQ(std::make_pair(fit.width(), fit.type()), std::make_pair(W, datatypes::FLOAT));
    EXPECT_FALSE(fit.optionalData().modules());
    double worst = 0.0;
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x)
            if (inModule(x, y))
                worst = std::max(worst, std::fabs(fit.pixel<double>(x, y, 0) - expected[y * W + x]));
            else
                EXPECT_EQ(fit.pixel<double>(x, y, -1), 0.0) << x << " " << y;
    EXPECT_LT(worst, 1e-6);

    // The exported worker on raw arrays gives the same pixels; a float frame computes the
    // same fit and stores it as float.
    std::vector<double> out(pixels.size(), 0.0);
    splineFit<double, unsigned char>(out.data(), pixels.data(), maskBytes.data(), W, H, kModules, 6, 4, 6, 4, 2);
    EXPECT_EQ(std::memcmp(out.data(), fit.cdata(), out.size() * sizeof(double)), 0);
    const DImage asFloat = frameWithModules(pixels).asType<float>().splineFit(6, 4, 6, 4, 2, &mask);
    EXPECT_NEAR(asFloat.pixel<double>(30, 40, 0), expected[40 * W + 30], 1e-3);
}

TEST(SplineFit, UniformFramesHotPixelsAndOrders)
{
    const DImage uniform = frameWithModules(std::vector<int>(W * H, 37));
    for (const auto& [nx, kx, ny, ky] : {std::array{6, 4, 6, 4}, std::array{4, 2, 7, 3}, std::array{3, 3, 5, 1}}) {
        const DImage fit = uniform.splineFit(nx, kx, ny, ky, 0, nullptr);
        for (int y = 0; y < H; y += 7)
            for (int x = 0; x < W; x += 5)
                if (inModule(x, y)) {
                    EXPECT_NEAR(fit.pixel<int>(x, y, 0), 36.5, 0.5) << nx << kx << ny << ky;
                }
    }

    // Above 10,000,000 a pixel is left out as if masked; at exactly 10,000,000 it counts.
    std::vector<double> flat(W * H, 5.0);
    DImage one(W, H, false);
    one.setPixel<int>(20, 40, 1);
    const DImage base = frameWithModules(flat).splineFit(5, 3, 5, 3, 0, &one);
    flat[40 * W + 20] = 10000000.5;
    const DImage hot = frameWithModules(flat).splineFit(5, 3, 5, 3, 0, nullptr);
    EXPECT_EQ(std::memcmp(hot.cdata(), base.cdata(), hot.size() * sizeof(double)), 0);
    flat[40 * W + 20] = 10000000.0;
    EXPECT_GT(frameWithModules(flat).splineFit(5, 3, 5, 3, 0, nullptr).pixel<double>(20, 40, 0), 100.0);

    EXPECT_THROW_MSG(uniform.splineFit(3, 4, 6, 4, 0, nullptr), DBadParameterException,
                     "Spline orders must lie between 1 and the number of coefficients");
    EXPECT_THROW_MSG(uniform.splineFit(6, 4, 6, 0, 0, nullptr), DBadParameterException,
                     "Spline orders must lie between 1 and the number of coefficients");
}

TEST(SplineFit, NoModulesWrongMaskAndSingularSystems)
{
    DImage bare(W, H, 1.0f);
    const DImage goodMask(W, H, 0);
    EXPECT_TRUE(bare.splineFit(6, 4, 6, 4, 0, &goodMask).empty());
    EXPECT_TRUE(DImage().splineFit(6, 4, 6, 4, 0, nullptr).empty());
    const DImage framed = frameWithModules(std::vector<float>(W * H, 1.0f));
    const DImage wrongMask(H, W, 0);
    EXPECT_THROW_MSG(framed.splineFit(6, 4, 6, 4, 0, &wrongMask), DRuntimeException, "Mask has the wrong shape");

    // A border of half a module samples nothing; a mask over a whole knot cell leaves
    // part of the surface without points. Both print the message and still give a frame.
    DImage cell(W, H, 0);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W / 2; ++x)
            cell.setPixel<int>(x, y, 1);
    for (const auto& [border, mask] : {std::pair{28, static_cast<const DImage*>(nullptr)}, std::pair{0, static_cast<const DImage*>(&cell)}}) {
        testing::internal::CaptureStdout();
        const DImage fit = framed.splineFit(6, 4, 6, 4, border, mask);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error in LeastSquaresSolving.\n");
        EXPECT_EQ(fit.width(), W);
    }
    // Orders above 20 have no B-splines: singular, and every module pixel is 0.
    testing::internal::CaptureStdout();
    const DImage high = framed.splineFit(22, 21, 6, 4, 0, nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error in LeastSquaresSolving.\n");
    EXPECT_EQ(high.pixel<float>(30, 30, -1), 0.0f);
}

} // namespace

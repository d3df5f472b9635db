#include "CorrectionTestHelpers.h"

#include "DEfficiencyCorrection.h"
#include "foundation/DException.h"

#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>

using namespace norvexa;
using namespace norvexa::imglib;
using norvexa_test::TempDir;

namespace {

constexpr int kWidth = 6, kHeight = 4;

// Beam at pixel (1, 1); pixel (5, 1) sees the beam at 60 degrees (n = 2).
void setGeometry(DImageOptionalData& md, float wavelength = 1.0f)
{
    md.set_sensor_thickness(450e-6f);
    md.set_wavelength(wavelength);
    md.set_beam_center_x(1.0f);
    md.set_beam_center_y(1.0f);
    md.set_x_pixel_size(0.25f);
    md.set_y_pixel_size(0.25f);
    md.set_detector_distance(std::sqrt(1.0f / 3.0f));
    md.set_sensor_material(std::string("Si"));
}

// An image of ones as doubles: corrected, it holds the factor image's bytes.
DImage ones(float wavelength = 1.0f)
{
    DImage image(kWidth, kHeight, 1.0);
    setGeometry(image.optionalData(), wavelength);
    return image;
}

float storedFactor(const DImage& corrected, int index)
{
    float f;
    std::memcpy(&f, corrected.cdata() + 4 * index, sizeof f);
    return f;
}

std::vector<char> corrected(DEfficiencyCorrection& correction, DImage image, const DImage& mask)
{
    correction.correctImage(image, mask);
    return norvexa_test::pixelBytes(image);
}

TEST(EfficiencyCorrection, ValidatesInOrderWithItsTexts)
{
    using Edit = std::function<void(DImageOptionalData&)>;
    const struct {
        Edit edit;
        const char* message;
    } cases[] = {
        {[](auto& m) { m.set_sensor_thickness(0.0f); }, "Invalid sensor thickness"},
        {[](auto& m) { m.set_wavelength(boost::none); }, "Invalid wavelength"},
        {[](auto& m) { m.set_beam_center_x(boost::none); }, "Invalid beam center in x"},
        {[](auto& m) { m.set_beam_center_y(boost::none); }, "Invalid beam center in y"},
        {[](auto& m) { m.set_x_pixel_size(-1.0f); }, "Invalid pixel size in x"},
        {[](auto& m) { m.set_y_pixel_size(0.0f); }, "Invalid pixel size in y"},
        {[](auto& m) { m.set_detector_distance(boost::none); }, "Invalid detector distance"},
        {[](auto& m) { m.set_sensor_material(std::string("CdTe")); }, "Invalid sensor material"},
        {[](auto& m) { m.set_sensor_material(boost::none); }, "Invalid sensor material"},
        // Two faults: the earlier test wins.
        {[](auto& m) { m.set_sensor_material(boost::none), m.set_y_pixel_size(boost::none); }, "Invalid pixel size in y"},
    };
    const DImage mask(kWidth, kHeight, 0u);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        DImage image = ones();
        c.edit(image.optionalData());
        DEfficiencyCorrection correction;
        EXPECT_THROW_MSG(correction.correctImage(image, mask), DBadParameterException, c.message);
    }
    DEfficiencyCorrection correction;
    DImage small = ones();
    EXPECT_THROW_MSG(correction.correctImage(small, DImage(3, 3, 0u)), DRuntimeException,
                     "Image sizes do not coincide");
}

TEST(EfficiencyCorrection, StoresFloatFactorsInADoubleBuffer)
{
    DImage mask(kWidth, kHeight, 0u);
    mask.setPixel<unsigned>(2, 0, 1);
    mask.setPixel<unsigned>(3, 0, 1);
    DEfficiencyCorrection correction;
    DImage image = ones();
    correction.correctImage(image, mask);

    ASSERT_EQ(correction.readAttenuationCoefficients(), 615);
    const double muSi = correction.attenuationCoefficient(1.0, correction.si());
    const double dead = correction.attenuationCoefficient(1.0, correction.al()) * 6e-7 +
                        correction.attenuationCoefficient(1.0, correction.siN()) * 4e-7 + muSi * 4.5e-7;
    auto factor = [&](double n) { return static_cast<float>(1.0 / ((1.0 - std::exp(-n * 450e-6f * muSi)) * std::exp(-n * dead))); };
    EXPECT_NEAR(factor(1.0), 1.19695, 1e-4) << "450 um of silicon at 12.4 keV, by the physics database";

    const int beam = 1 + 1 * kWidth, slanted = 5 + 1 * kWidth;
    EXPECT_FLOAT_EQ(storedFactor(image, beam), factor(1.0));
    EXPECT_NEAR(storedFactor(image, slanted), factor(2.0), 2e-6f);
    EXPECT_LT(storedFactor(image, slanted), storedFactor(image, beam)) << "a slanted path absorbs more";

    // Masked pixels keep the bytes of the double 1.0 at their float offsets.
    const double one = 1.0;
    float low, high;
    std::memcpy(&low, &one, 4);
    std::memcpy(&high, reinterpret_cast<const char*>(&one) + 4, 4);
    EXPECT_EQ(storedFactor(image, 2), low);
    EXPECT_EQ(storedFactor(image, 3), high);
    // The back half of the buffer, read as doubles, stays 1.0.
    const double* asDoubles = reinterpret_cast<const double*>(image.cdata());
    for (int i = kWidth * kHeight / 2; i < kWidth * kHeight; ++i)
        EXPECT_EQ(asDoubles[i], 1.0) << "element " << i;
}

TEST(EfficiencyCorrection, ReusesFactorsWithinTolerances)
{
    const DImage mask(kWidth, kHeight, 0u);
    auto fresh = [&](float wavelength) {
        DEfficiencyCorrection c;
        return corrected(c, ones(wavelength), mask);
    };
    DEfficiencyCorrection correction;
    const std::vector<char> first = corrected(correction, ones(1.0f), mask);
    ASSERT_NE(fresh(1.0005f), first) << "the factors depend on the wavelength";

    EXPECT_EQ(corrected(correction, ones(1.0005f), mask), first) << "within 0.001: reused";
    DImage masked(kWidth, kHeight, 1u);
    EXPECT_EQ(corrected(correction, ones(1.0005f), masked), first) << "a new mask alone doesn't rebuild";
    EXPECT_EQ(corrected(correction, ones(1.002f), mask), fresh(1.002f)) << "beyond 0.001: rebuilt";
}

TEST(EfficiencyCorrection, AlreadyAppliedLeavesTheImage)
{
    DImage image(kWidth, kHeight, 7);
    setGeometry(image.optionalData());
    image.optionalData().set_efficiency_correction_applied(true);
    DEfficiencyCorrection correction;
    testing::internal::CaptureStdout();
    correction.correctImage(image, DImage(kWidth, kHeight, 0u));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Efficiency correction already applied\n");
    EXPECT_EQ(image.pixel<int>(3, 2, 0), 7);
    EXPECT_EQ(image.optionalData().efficiency_correction_applied(), true);
}

TEST(EfficiencyCorrection, QuantumEfficiencyTable)
{
    TempDir dir;
    const std::string path = (dir.path() / "qe.txt").string();
    std::ofstream(path) << "# quantum efficiency\n"
                           "keV 0 30 60\n"
                           "8 0.9 0.95 0.99\n"
                           "12 0.5 0.6 0.8\n"
                           "16 0.2 0.3\n"          // short: kept, its missing value counts as 0
                           "20 0.1 0.1 0.1 0.1\n"; // long: kept
    DEfficiencyCorrection correction;
    correction._readQETable(path.c_str());
    const double deg = 1.0 / 57.29579143313326;
    auto wavelength = [](double kev) { return 12.39842 / kev; };
    EXPECT_NEAR(correction._qe(wavelength(10), 15 * deg), 0.5 * (0.7 + 0.775), 1e-6) << "bilinear";
    EXPECT_NEAR(correction._qe(wavelength(12), 0), 0.5, 1e-6);
    EXPECT_NEAR(correction._qe(wavelength(14), 45 * deg), 0.5 * (0.45 + 0.4), 1e-6) << "short row: 0";
    EXPECT_EQ(correction._qe(wavelength(4), 80 * deg), 1.0) << "extrapolated above 1";
    EXPECT_EQ(correction._qe(wavelength(30), 0), 1e-6) << "extrapolated below 0";

    DEfficiencyCorrection empty;
    EXPECT_EQ(empty._qe(1.0, 0.0), 1e-6) << "no table";
    const std::string missing = (dir.path() / "none.txt").string();
    EXPECT_THROW_MSG(empty._readQETable(missing.c_str()), DNoFileAccessException, "Error accessing " + missing);
}

} // namespace

#include "CorrectionTestHelpers.h"

#include "DRateCorrection.h"
#include "foundation/DException.h"

#include <cmath>
#include <filesystem>
#include <functional>
#include <random>
#include <stdexcept>

using namespace norvexa;
using namespace norvexa::imglib;
using norvexa_test::kTau;
using norvexa_test::rateDirectory;
using norvexa_test::setModules;
using norvexa_test::setRateMetadata;
using norvexa_test::TempDir;

namespace {

constexpr int kW = 66, kH = 65;

// Chip pixels (x < 64) hold the ramp 0..4095 row by row, then a row of 4096; columns 64
// and 65 lie outside the chip and hold 3000. Count time 1 ms.
template <class T = int>
DImage rampFrame(int bitDepth = 12, int modeRegister = 2, const std::string& directory = rateDirectory())
{
    DImage frame(kW, kH, T(0));
    T* p = reinterpret_cast<T*>(frame.data());
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x)
            p[y * kW + x] = static_cast<T>(x >= 64 ? 3000 : y == 64 ? 4096 : y * 64 + x);
    setRateMetadata(frame.optionalData(), 0.001f, bitDepth, modeRegister, directory);
    setModules(frame.optionalData(), {DImageModule(DRect(0, 0, kW, kH), {DRect(0, 0, 64, kH)}, 0)}, -0.15f);
    return frame;
}

const DImage kNoMask(kW, kH, 0u);

int corrected(const DImage& frame, int count) { return frame.pixel<int>(count % 64, count / 64, -1); }

// True rate of a measured rate m on the rising branch of m = t exp(-t tau).
double paralysableTrue(double m)
{
    double t = m;
    for (int i = 0; i < 100; ++i)
        t = m * std::exp(t * kTau);
    return t;
}

std::string capture(const std::function<void()>& f)
{
    testing::internal::CaptureStdout();
    try {
        f();
    } catch (...) {
        testing::internal::GetCapturedStdout();
        throw;
    }
    return testing::internal::GetCapturedStdout();
}

TEST(RateCorrection, ValidatesInOrderWithItsTexts)
{
    using Edit = std::function<void(DImageOptionalData&)>;
    const struct {
        Edit edit;
        const char* message;
    } cases[] = {
        {[](auto& m) { m.set_count_time(0.0f); }, "Invalid count time"},
        {[](auto& m) { m.set_bit_depth_readout(boost::none); }, "Invalid bit depth readout"},
        {[](auto& m) { m.set_threshold_energy(-1.0f); }, "Invalid threshold energy"},
        {[](auto& m) { m.set_wavelength(boost::none); }, "Invalid wavelength"},
        {[](auto& m) { m.set_mode_register(boost::none); }, "Invalid mode register"},
        {[](auto& m) { m.set_countrate_correction_bunch_mode(boost::none); }, "Invalid bunch mode"},
        {[](auto& m) { m.set_modules(boost::none); }, "Invalid module data"},
        {[](auto& m) { setModules(m, *m.modules(), 0.0f); }, "Invalid Vrf value"},
        {[](auto& m) {
             auto modules = *m.modules();
             modules.push_back(DImageModule(DRect(0, 0, 4, 4), {}, 1)); // no "vrfp": Vrf 0
             m.set_modules(modules);
             m.neXus().at("/entry/instrument/detector/detectorSpecific/detectorModule_000/vrfp").asData().setValue(-0.15f);
         },
         "Invalid Vrf value"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        DImage frame = rampFrame();
        c.edit(frame.optionalData());
        DRateCorrection correction;
        correction.recomputeLookupTable(true);
        capture([&] { EXPECT_THROW_MSG(correction.correctImage(frame, kNoMask), DBadParameterException, c.message); });
    }
}

TEST(RateCorrection, TablesFromSimulationFiles)
{
    DImage frame = rampFrame();
    DImage mask(kW, kH, 0u);
    mask.setPixel<unsigned>(10, 50, 2); // count 3210
    DRateCorrection correction;
    correction.recomputeLookupTable(true);
    EXPECT_EQ(capture([&] { correction.correctImage(frame, mask); }),
              "Reading LUT from\n " + rateDirectory() + "\nfor Vrf -1.500000e-01 and Thr/E 5.000000e-01\n");

    const int saturation = frame.optionalData().saturation_value().value_or(-1);
    EXPECT_EQ(corrected(frame, 0), 0);
    for (int count : {1, 100, 1000, 2000, 2500}) {
        SCOPED_TRACE(count);
        const double expected = paralysableTrue(count / 1e-3) * 1e-3;
        EXPECT_NEAR(corrected(frame, count), expected, 1.0 + 0.002 * expected);
    }
    // Never falling; flat at the saturation value from the cutoff (near 2780 counts) on.
    int first = -1;
    for (int count = 1; count < 4096; ++count) {
        if (count == 3210)
            continue;
        ASSERT_GE(corrected(frame, count), corrected(frame, count - 1 == 3210 ? 3209 : count - 1)) << count;
        if (first < 0 && corrected(frame, count) == saturation)
            first = count;
    }
    EXPECT_GT(first, 2700);
    EXPECT_LT(first, 2900);
    EXPECT_EQ(corrected(frame, 4095), saturation);
    EXPECT_GT(saturation, 4500);

    EXPECT_EQ(frame.pixel<int>(10, 50, 0), 3210) << "masked";
    EXPECT_EQ(frame.pixel<int>(5, 64, 0), 4096) << "reaches the table's size of 2^12";
    EXPECT_EQ(frame.pixel<int>(64, 3, 0), 3000) << "outside the chips";
    EXPECT_EQ(frame.pixel<int>(65, 60, 0), 3000) << "outside the chips";
    EXPECT_FALSE(frame.optionalData().countrate_correction_applied()) << "the flag isn't set";

    // Retrigger mode reads the non-paralysable files: measured = true / (1 + true tau).
    DImage retrigger = rampFrame(12, 1);
    DRateCorrection other;
    other.recomputeLookupTable(true);
    capture([&] { other.correctImage(retrigger, kNoMask); });
    EXPECT_NEAR(corrected(retrigger, 2000), 2e6 / (1 - 2e6 * kTau) * 1e-3, 3.0);

    // At a depth of 32 the same tables cover every count, 4096 included.
    DImage deep = rampFrame<unsigned>(32);
    DRateCorrection wide;
    wide.recomputeLookupTable(true);
    capture([&] { wide.correctImage(deep, kNoMask); });
    for (int count : {0, 1000, 2500, 3210, 4095})
        EXPECT_EQ(deep.pixel<int>(count % 64, count / 64, 0), count == 3210 ? saturation : corrected(frame, count));
    EXPECT_EQ(deep.pixel<int>(5, 64, 0), saturation);
    EXPECT_EQ(deep.optionalData().saturation_value(), saturation);
}

TEST(RateCorrection, ReusesTablesWithinTolerances)
{
    DRateCorrection correction;
    correction.recomputeLookupTable(true);
    auto run = [&](const std::function<void(DImageOptionalData&)>& edit, DImage* out = nullptr) {
        DImage frame = rampFrame();
        edit(frame.optionalData());
        const std::string printed = capture([&] { correction.correctImage(frame, kNoMask); });
        if (out)
            *out = frame;
        return printed.find("Reading LUT from") != std::string::npos;
    };
    DImage first, later;
    EXPECT_TRUE(run([](auto&) {}, &first));
    EXPECT_FALSE(run([](auto&) {}, &later));
    EXPECT_EQ(norvexa_test::pixelBytes(later), norvexa_test::pixelBytes(first));
    EXPECT_FALSE(later.optionalData().saturation_value()) << "set only when the tables are built";
    EXPECT_FALSE(run([](auto& m) { m.set_wavelength(1.0005f); }));
    EXPECT_FALSE(run([](auto& m) { m.set_count_time(0.0010000005f); }));
    EXPECT_TRUE(run([](auto& m) { m.set_wavelength(1.002f); }));
    EXPECT_TRUE(run([](auto&) {}));
    EXPECT_TRUE(run([](auto& m) { m.set_threshold_energy(6199.3f); }));
    EXPECT_TRUE(run([](auto& m) { m.set_mode_register(4); }));
    EXPECT_TRUE(run([](auto& m) { m.set_bit_depth_readout(16); }));
    EXPECT_TRUE(run([](auto& m) { setModules(m, {DImageModule(DRect(0, 0, kW, kH), {DRect(0, 0, 60, kH)}, 0)}, -0.15f); }))
        << "other chips";
    EXPECT_TRUE(run([](auto&) {}));

    // Turned off, the tables stay in force whatever the metadata says.
    correction.recomputeLookupTable(false);
    DImage off;
    EXPECT_FALSE(run([](auto& m) { m.set_count_time(0.5f); }, &off));
    EXPECT_EQ(norvexa_test::pixelBytes(off), norvexa_test::pixelBytes(first));
    correction.recomputeLookupTable(true);
    EXPECT_TRUE(run([](auto&) {})) << "turned on again: rebuilt";
}

TEST(RateCorrection, SimulationFilesThatDoNotServe)
{
    TempDir dir;
    namespace fs = std::filesystem;
    for (const char* name : {"ratecorr_vrf_m0p150_thr_0p400.dat", "ratecorr_vrf_m0p150_thr_0p500.dat",
                             "ratecorr_vrf_m0p100_thr_0p500.dat", "ratecorr_vrf_m0p150_thr_0p500.txt"})
        fs::copy_file(fs::path(rateDirectory()) / (std::string(name).substr(0, 29) + ".dat"), dir.path() / name);
    const std::string d = dir.path().string();
    const struct {
        int mode;
        std::string directory, printed;
    } cases[] = {
        // Retrigger mode finds no file at all here.
        {1, d, "Did not find suitable LUTs for rate correction in\n " + d + "\n"},
        {2, d + "/none", "Cannot open directory\n " + d + "/none to read LUT\n"},
        // Two Vrf and two thresholds, but the corner (-0.100, 0.400) is missing.
        {2, d, "Cannot open file " + d + "/ratecorr_vrf_m0p100_thr_0p400.dat to read LUT\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.printed);
        DImage frame = rampFrame(12, c.mode, c.directory);
        DRateCorrection correction;
        correction.recomputeLookupTable(true);
        const std::string printed = capture([&] {
            EXPECT_THROW_MSG(correction.correctImage(frame, kNoMask), DBadParameterException,
                             "Could not read LUT for count rate correction");
        });
        EXPECT_NE(printed.find(c.printed), std::string::npos) << printed;
    }
}

TEST(RateCorrection, LeavesImagesItMustNotTouch)
{
    DRateCorrection correction;
    DImage untouched = rampFrame();
    EXPECT_EQ(capture([&] { correction.correctImage(untouched, kNoMask); }), "") << "no tables asked for";
    EXPECT_EQ(norvexa_test::pixelBytes(untouched), norvexa_test::pixelBytes(rampFrame()));
    EXPECT_FALSE(untouched.optionalData().saturation_value());

    correction.recomputeLookupTable(true);
    DImage applied = rampFrame();
    applied.optionalData().set_countrate_correction_applied(true);
    const DImage before = applied;
    const std::string printed = capture([&] { correction.correctImage(applied, kNoMask); });
    EXPECT_NE(printed.find("Countrate correction already applied\n"), std::string::npos);
    EXPECT_EQ(norvexa_test::pixelBytes(applied), norvexa_test::pixelBytes(before));

    DImage floating = rampFrame().asType<float>();
    const DImage floatBefore = floating;
    capture([&] { correction.correctImage(floating, kNoMask); });
    EXPECT_EQ(norvexa_test::pixelBytes(floating), norvexa_test::pixelBytes(floatBefore));

    DImage negative = rampFrame();
    negative.setPixel<int>(3, 3, -2);
    EXPECT_THROW(capture([&] { correction.correctImage(negative, kNoMask); }), std::out_of_range);
}

TEST(RateCorrection, Helpers)
{
    EXPECT_EQ(DRateCorrection::_pow(2, 12), 4096);
    EXPECT_EQ(DRateCorrection::_pow(7, 0), 1);
    EXPECT_EQ(DRateCorrection::_pow(2, 32), 0) << "wraps like the int it is";

    double rising[10][2], flattening[10][2];
    for (int i = 0; i < 10; ++i) {
        rising[i][0] = flattening[i][0] = i;
        rising[i][1] = 2.0 * i;
        flattening[i][1] = i < 4 ? i : 4;
    }
    EXPECT_EQ(DRateCorrection::determineCutoff(rising, 10, 0.2), 18.0) << "never flat: the last row";
    EXPECT_EQ(DRateCorrection::determineCutoff(flattening, 10, 0.2), 4.0) << "first window below the limit";
    EXPECT_EQ(DRateCorrection::determineCutoff(flattening, 0, 0.2), -1.0) << "no rows";

    // Half-way in Vrf and threshold: the mean of the four corner files.
    rateCorrParams params{};
    std::snprintf(params.directory, sizeof params.directory, "%s", rateDirectory().c_str());
    params.Vrf = -0.175;
    params.thresholdRatio = 0.55;
    static double rates[10000][2];
    ASSERT_EQ(DRateCorrection::interpolateLUTFromSimulation(params, rates, 10000), 240);
    auto tau = [](double vrf, double r) { return 120e-9 * std::pow(0.15 / vrf, 0.7) * (1.5 - r); };
    for (int row : {100, 180}) {
        double mean = 0;
        for (double vrf : {0.15, 0.2})
            for (double r : {0.5, 0.6})
                mean += 0.25 * rates[row][0] * std::exp(-rates[row][0] * tau(vrf, r));
        EXPECT_NEAR(rates[row][1], mean, 1e-6 * mean) << "row " << row;
    }
}

// Counts of known true rates through the files' own model, with Poisson noise, come back
// as the true counts within Poisson precision below the cutoff, and saturate above it.
TEST(RateCorrection, RecoversTrueCountsOfASimulatedFrame)
{
    const double levels[] = {0.02, 0.05, 0.1, 0.15, 0.2, 0.25, 0.3, 0.35, 0.4, 0.45, 0.5, 1.0}; // rate * tau
    constexpr int width = 256, rowsPerLevel = 2, height = 12 * rowsPerLevel;
    const float countTime = 0.004f;
    const double perTau = countTime / kTau; // true counts at rate 1 / tau

    DImage frame(width, height, 0u);
    unsigned* p = reinterpret_cast<unsigned*>(frame.data());
    std::mt19937 rng(20261123);
    for (int y = 0; y < height; ++y) {
        const double x = levels[y / rowsPerLevel];
        std::poisson_distribution<unsigned> counts(perTau * x * std::exp(-x));
        for (int i = 0; i < width; ++i)
            p[y * width + i] = counts(rng);
    }
    setRateMetadata(frame.optionalData(), countTime, 14, 0, rateDirectory());
    setModules(frame.optionalData(), {DImageModule(DRect(0, 0, width, height), {DRect(0, 0, width, height)}, 0)},
               -0.15f);

    DRateCorrection correction;
    correction.recomputeLookupTable(true);
    capture([&] { correction.correctImage(frame, DImage(width, height, 0u)); });
    const int saturation = frame.optionalData().saturation_value().value_or(-1);

    for (int level = 0; level < 12; ++level) {
        const double x = levels[level], trueCounts = perTau * x;
        SCOPED_TRACE("true counts " + std::to_string(trueCounts));
        double sum = 0;
        int saturated = 0;
        for (int y = level * rowsPerLevel; y < (level + 1) * rowsPerLevel; ++y)
            for (int i = 0; i < width; ++i) {
                sum += p[y * width + i];
                saturated += static_cast<int>(p[y * width + i]) == saturation;
            }
        if (x > 0.9) {
            EXPECT_EQ(saturated, width * rowsPerLevel) << "above the cutoff";
            continue;
        }
        // Poisson spread of the measured counts, carried through the slope of the model.
        const double sigma = std::sqrt(perTau * x * std::exp(-x)) / (std::exp(-x) * (1 - x));
        const double n = width * rowsPerLevel;
        EXPECT_NEAR(sum / n, trueCounts, 4 * sigma / std::sqrt(n) + 0.003 * trueCounts);
        for (int y = level * rowsPerLevel; y < (level + 1) * rowsPerLevel; ++y)
            for (int i = 0; i < width; ++i)
                ASSERT_NEAR(p[y * width + i], trueCounts, 5.5 * sigma + 0.005 * trueCounts) << "pixel " << i;
        EXPECT_EQ(saturated, 0);
    }
}

} // namespace

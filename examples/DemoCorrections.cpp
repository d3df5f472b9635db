#include "DemoCorrections.h"

#include "DDetector.h"
#include "DEfficiencyCorrection.h"
#include "DRateCorrection.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <iostream>

using namespace norvexa;
using namespace norvexa::imglib;

namespace norvexa_demo {

namespace {

double millisecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

// The detector's modules, or one module of one chip for a frame of no known family; each
// with the DAC "vrfp" as the 32-bit float that a detector's files carry.
void setModules(DImageOptionalData& md, int width, int height)
{
    std::vector<DImageModule> modules = DDetector::modules(width, height);
    if (modules.empty())
        modules.emplace_back(DRect(0, 0, width, height), std::vector<DRect>{DRect(0, 0, width, height)}, 0);
    for (auto& m : modules)
        m.setVrf(-0.15);
    md.set_modules(modules);
    for (std::size_t i = 0; i < modules.size(); ++i) {
        char path[96];
        std::snprintf(path, sizeof path, "/entry/instrument/detector/detectorSpecific/detectorModule_%03zu/vrfp", i);
        md.neXus().at(path).asData().setValue(-0.15f);
    }
}

// Gaps and defects: the detector's mask, and every negative pixel besides.
DImage maskOf(const DImage& frame)
{
    DImage mask = DDetector::mask(frame);
    const DImage values = frame.asType<int>();
    const int* v = reinterpret_cast<const int*>(values.cdata());
    unsigned* m = reinterpret_cast<unsigned*>(mask.data());
    for (std::size_t i = 0; i < mask.size(); ++i)
        if (v[i] < 0 && m[i] == 0)
            m[i] = 2;
    return mask;
}

} // namespace

DImage demoCorrections(const DImage& input)
{
    std::cout << "\nCorrections\n";
    DImage frame = input;
    DImageOptionalData& md = frame.optionalData();
    // 10 ms at 12.4 keV, threshold at half the photon energy, 32-bit counters.
    md.set_count_time(0.01f);
    md.set_bit_depth_readout(32);
    md.set_wavelength(1.0f);
    md.set_threshold_energy(6199.21f);
    md.set_mode_register(0);
    md.set_countrate_correction_bunch_mode(std::string(NORVEXA_DATA_DIR) + "/ratecorr");
    setModules(md, frame.width(), frame.height());
    md.set_sensor_thickness(450e-6f);
    md.set_sensor_material(std::string("Si"));
    md.set_beam_center_x(frame.width() / 2.0f);
    md.set_beam_center_y(frame.height() / 2.0f);
    md.set_x_pixel_size(172e-6f);
    md.set_y_pixel_size(172e-6f);
    md.set_detector_distance(0.2f);
    const DImage mask = maskOf(frame);

    // The brightest pixel of each half of the frame, and the first gap or defect.
    const DImage values = input.asType<int>();
    const int* raw = reinterpret_cast<const int*>(values.cdata());
    const unsigned* masked = reinterpret_cast<const unsigned*>(mask.cdata());
    const std::size_t n = values.size();
    std::size_t front = 0, back = n / 2, gap = 0;
    for (std::size_t i = 0; i < n; ++i) {
        std::size_t& brightest = i < n / 2 ? front : back;
        if (raw[i] > raw[brightest])
            brightest = i;
        if (masked[i] != 0 && gap == 0)
            gap = i;
    }
    const int w = frame.width();
    auto at = [w](std::size_t i) { return std::pair<int, int>(static_cast<int>(i % w), static_cast<int>(i / w)); };
    const std::pair<int, int> shown[] = {at(front), at(back), at(gap)};
    auto print = [&](const char* label, const DImage& image) {
        std::cout << "  " << std::left << std::setw(22) << label << std::right;
        for (const auto& p : shown)
            std::cout << " (" << p.first << ", " << p.second << ") " << std::setw(7) << image.pixel<int>(p.first, p.second, 0);
        std::cout << "\n";
    };
    print("raw counts", frame);

    DRateCorrection rate;
    rate.recomputeLookupTable(true);
    auto start = std::chrono::steady_clock::now();
    rate.correctImage(frame, mask); // prints where the tables come from
    std::cout << "  count-rate tables of " << md.modules()->size() << " modules built and applied in "
              << std::fixed << std::setprecision(1) << millisecondsSince(start) << " ms; saturation value "
              << md.saturation_value().value_or(-1) << " counts\n";
    print("count rate corrected", frame);

    DEfficiencyCorrection efficiency;
    start = std::chrono::steady_clock::now();
    efficiency.correctImage(frame, mask);
    std::cout << "  efficiency factors built and applied in " << millisecondsSince(start) << " ms\n";
    print("efficiency corrected", frame);
    std::cout << "  (the factors are stored as floats packed into a buffer of doubles: the frame's front\n"
                 "   half is multiplied by two factors read as one double, about 0.01, the back half by 1.0)\n";
    return frame;
}

} // namespace norvexa_demo

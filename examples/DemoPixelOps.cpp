#include "DemoPixelOps.h"

#include <chrono>
#include <climits>
#include <iomanip>
#include <iostream>
#include <vector>

using namespace norvexa::imglib;

namespace norvexa_demo {

namespace {

double millisecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

/// Runs of indices in [0, n) where `gap(i)` is false.
template <class Gap>
std::vector<std::pair<int, int>> runs(int n, Gap gap)
{
    std::vector<std::pair<int, int>> result;
    for (int i = 0; i < n;) {
        while (i < n && gap(i))
            ++i;
        const int first = i;
        while (i < n && !gap(i))
            ++i;
        if (i > first)
            result.emplace_back(first, i - first);
    }
    return result;
}

/// The modules of a frame without them in its metadata: blocks between the rows and
/// columns that hold nothing but gap pixels.
std::vector<DImageModule> modulesFromGaps(const DImage& frame)
{
    const auto gapColumn = [&](int x) {
        for (int y = 0; y < frame.height(); ++y)
            if (frame.pixel<int>(x, y, 0) != -1)
                return false;
        return true;
    };
    const auto gapRow = [&](int y) {
        for (int x = 0; x < frame.width(); ++x)
            if (frame.pixel<int>(x, y, 0) != -1)
                return false;
        return true;
    };
    std::vector<DImageModule> modules;
    for (const auto& [top, height] : runs(frame.height(), gapRow))
        for (const auto& [left, width] : runs(frame.width(), gapColumn)) {
            const DRect geometry(left, top, width, height);
            modules.emplace_back(geometry, std::vector<DRect>{geometry}, static_cast<int>(modules.size()));
        }
    return modules;
}

} // namespace

void demoPixelOps(const DImage& frame)
{
    std::cout << std::fixed << std::setprecision(1);
    DImage withModules = frame;
    if (!withModules.optionalData().modules())
        withModules.optionalData().set_modules(modulesFromGaps(frame));
    // Gaps (-1) and defective pixels (-2) are excluded: 1 outside [0, INT_MAX].
    const DImage mask = frame.createMask<int>(0, INT_MAX, false);

    auto start = std::chrono::steady_clock::now();
    const DImage background = withModules.splineFit(10, 4, 10, 4, 4, &mask);
    const double fitMs = millisecondsSince(start);
    std::cout << "Background by a 10 x 10 cubic spline over "
              << withModules.optionalData().modules()->size() << " modules in " << fitMs
              << " ms: mean " << background.mean(nullptr, &mask, -1e300, 1e300) << " counts\n";
    if (background.empty())
        return;

    const DImage corrected = frame - background;
    start = std::chrono::steady_clock::now();
    const DImage cleaned = corrected.medianFilter(3, 3, &mask);
    std::cout << "  subtracted; 3 x 3 median filter with the mask in " << millisecondsSince(start)
              << " ms: mean " << corrected.mean(nullptr, &mask, -1e300, 1e300) << " before, "
              << cleaned.mean(nullptr, &mask, -1e300, 1e300) << " after\n";

    // The brightest cleaned pixel stands for a spot; its 21 x 21 neighbourhood is the region.
    int bestX = 0, bestY = 0, best = INT_MIN;
    const int* p = reinterpret_cast<const int*>(cleaned.cdata());
    for (int y = 0; y < cleaned.height(); ++y)
        for (int x = 0; x < cleaned.width(); ++x)
            if (p[y * cleaned.width() + x] > best && !mask.pixel<bool>(x, y, true)) {
                best = p[y * cleaned.width() + x];
                bestX = x;
                bestY = y;
            }
    const DRect region(bestX - 10, bestY - 10, 21, 21);
    start = std::chrono::steady_clock::now();
    const double mean = frame.mean(&region, &mask, -1e300, 1e300);
    const double rms = frame.rms(&region, &mask, -1e300, 1e300);
    const int median = frame.median<int>(&region, &mask);
    int below = 0, inside = 0, above = 0;
    frame.numberOfPixelsInInterval<int>(below, inside, above, 0, median + 10, &region, &mask);
    std::cout << "  spot at (" << bestX << ", " << bestY << "): 21 x 21 region mean " << mean << ", rms "
              << rms << ", median " << median << ", " << above << " pixels above median + 10 ("
              << millisecondsSince(start) << " ms for the four statistics)\n";
}

} // namespace norvexa_demo

#include "common/DetectorFrames.h"

#include <cmath>
#include <random>

namespace norvexa_bench {

Layout layout6M() { return {2463, 2527, 487, 195, 7, 17}; }
Layout layout16M() { return {4148, 4362, 1028, 512, 12, 38}; }

template <class T>
std::vector<T> detectorFrame(const Layout& l, unsigned seed, double background)
{
    std::mt19937 rng(seed);
    std::vector<double> counts(static_cast<size_t>(l.width) * l.height);
    std::poisson_distribution<int> poisson(background);
    for (auto& c : counts)
        c = poisson(rng);

    // Spots: small Gaussian peaks of a wide range of heights.
    std::uniform_real_distribution<double> ux(0, l.width), uy(0, l.height), logPeak(1.0, 4.3);
    for (int s = 0; s < 400; ++s) {
        const double cx = ux(rng), cy = uy(rng), peak = std::pow(10.0, logPeak(rng));
        for (int dy = -4; dy <= 4; ++dy)
            for (int dx = -4; dx <= 4; ++dx) {
                const int x = static_cast<int>(cx) + dx, y = static_cast<int>(cy) + dy;
                if (x < 0 || y < 0 || x >= l.width || y >= l.height)
                    continue;
                const double r2 = (x - cx) * (x - cx) + (y - cy) * (y - cy);
                counts[static_cast<size_t>(y) * l.width + x] += std::floor(peak * std::exp(-r2 / 2.0));
            }
    }

    std::vector<T> frame(counts.size());
    const int pitchX = l.moduleWidth + l.gapX, pitchY = l.moduleHeight + l.gapY;
    for (int y = 0; y < l.height; ++y) {
        const bool gapRow = (y % pitchY) >= l.moduleHeight;
        for (int x = 0; x < l.width; ++x) {
            const size_t i = static_cast<size_t>(y) * l.width + x;
            const bool gap = gapRow || (x % pitchX) >= l.moduleWidth;
            // -1 converts to all bits set for unsigned types, as detectors write gaps.
            frame[i] = gap ? static_cast<T>(-1) : static_cast<T>(counts[i]);
        }
    }
    return frame;
}

template std::vector<std::uint16_t> detectorFrame<std::uint16_t>(const Layout&, unsigned, double);
template std::vector<std::uint32_t> detectorFrame<std::uint32_t>(const Layout&, unsigned, double);
template std::vector<std::int32_t> detectorFrame<std::int32_t>(const Layout&, unsigned, double);
template std::vector<float> detectorFrame<float>(const Layout&, unsigned, double);
template std::vector<double> detectorFrame<double>(const Layout&, unsigned, double);

std::vector<NamedLayout> realSizes()
{
    return {{"2463x2527", layout6M()}, {"4148x4362", layout16M()}};
}

} // namespace norvexa_bench

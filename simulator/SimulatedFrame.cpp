#include "SimulatedFrame.h"

#include <random>

namespace norvexa {
namespace simulator {

imglib::DImage simulatedFrame(int width, int height, std::uint32_t seed)
{
    // Modules of 1028 x 512 pixels with gaps of 10 and 38 pixels, a weak background and a
    // ring whose place moves with the seed, so that frames differ.
    imglib::DImage frame(width, height, 0);
    int* p = reinterpret_cast<int*>(frame.data());
    std::minstd_rand rng(seed);
    const double cx = width * 0.5 + static_cast<double>(seed % 7), cy = height * 0.5;
    const double radius = 0.25 * (width < height ? width : height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const bool gap = x % 1038 >= 1028 || y % 550 >= 512;
            const double dx = x - cx, dy = y - cy;
            const double d = dx * dx + dy * dy - radius * radius;
            const int ring = d > -radius * 8 && d < radius * 8 ? 50 : 0;
            p[static_cast<std::size_t>(y) * width + x] = gap ? -1 : static_cast<int>(rng() & 3u) + ring;
        }
    return frame;
}

} // namespace simulator
} // namespace norvexa

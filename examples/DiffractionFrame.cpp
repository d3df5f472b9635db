#include "DiffractionFrame.h"

#include "DDetector.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace norvexa::demo {

namespace {

using imglib::DImage;

// A Poisson draw that stays quick over millions of pixels: the product method for small
// means, a rounded normal for large ones (where the two are indistinguishable by eye).
class PoissonSampler {
public:
    explicit PoissonSampler(unsigned seed) : _rng(seed) {}

    int operator()(double mean)
    {
        if (mean <= 0.0)
            return 0;
        if (mean < 30.0) {
            const double limit = std::exp(-mean);
            double product = uniform();
            int k = 0;
            while (product > limit) {
                ++k;
                product *= uniform();
            }
            return k;
        }
        const double v = mean + std::sqrt(mean) * _normal(_rng);
        return v < 0.0 ? 0 : static_cast<int>(std::lround(std::min(v, 2.0e9)));
    }

    double uniform() { return (static_cast<double>(_rng() >> 11) + 0.5) * (1.0 / 9007199254740992.0); }
    std::mt19937_64& engine() { return _rng; }

private:
    std::mt19937_64 _rng;
    std::normal_distribution<double> _normal;
};

// 1 where a pixel lies between modules.
std::vector<std::uint8_t> gapMap(int width, int height)
{
    std::vector<std::uint8_t> gaps(static_cast<std::size_t>(width) * static_cast<std::size_t>(height), 0);
    const auto modules = imglib::DDetector::modules(width, height);
    if (!modules.empty()) {
        std::fill(gaps.begin(), gaps.end(), 1);
        for (const auto& module : modules) {
            const auto& g = module.geometry();
            for (int y = std::max(0, g.top()); y < std::min(height, g.bottom()); ++y)
                std::fill_n(gaps.begin() + static_cast<std::ptrdiff_t>(y) * width + std::max(0, g.left()),
                            std::max(0, std::min(width, g.right()) - std::max(0, g.left())), 0);
        }
        return gaps;
    }
    constexpr int mw = 1028, mh = 512, gx = 12, gy = 38;
    if (width >= mw && height >= mh && (width - mw) % (mw + gx) == 0 && (height - mh) % (mh + gy) == 0)
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                gaps[static_cast<std::size_t>(y) * width + x] = x % (mw + gx) >= mw || y % (mh + gy) >= mh;
    return gaps;
}

} // namespace

DImage diffractionFrame(int width, int height, unsigned seed)
{
    DImage frame(width, height, 0);
    int* out = reinterpret_cast<int*>(frame.data());
    PoissonSampler poisson(seed);
    const std::size_t n = frame.size();
    if (width < 16 || height < 16) {
        for (std::size_t i = 0; i < n; ++i)
            out[i] = poisson(2.0);
        return frame;
    }

    const double scale = std::min(width, height) / 2500.0; // distances are set for a 6M frame
    const double cx = 0.53 * width + 0.01 * width * (poisson.uniform() - 0.5);
    const double cy = 0.46 * height + 0.01 * height * (poisson.uniform() - 0.5);
    const double rMax = std::hypot(std::max(cx, width - cx), std::max(cy, height - cy)) + 2.0;

    // Mean counts against radius, in quarter pixels: air scatter plus the powder rings of
    // a cubic cell (h^2+k^2+l^2 = 3, 4, 8, 11, 12, 16, 19, 20 of a face-centred lattice).
    const double ringUnit = 250.0 * scale; // radius of the (111) ring
    const int hkl[] = {3, 4, 8, 11, 12, 16, 19, 20, 24, 27};
    const double multiplicity[] = {8, 6, 12, 24, 8, 6, 24, 24, 24, 32};
    const std::size_t bins = static_cast<std::size_t>(rMax * 4.0) + 2;
    std::vector<double> profile(bins);
    for (std::size_t b = 0; b < bins; ++b) {
        const double r = static_cast<double>(b) / 4.0;
        const double angleFall = std::exp(-r / (1300.0 * scale));
        double mean = 1.2 + 38.0 * std::exp(-r / (260.0 * scale)); // air and solvent scatter
        for (std::size_t k = 0; k < std::size(hkl); ++k) {
            const double rk = ringUnit * std::sqrt(hkl[k] / 3.0);
            const double width2 = 2.0 * std::pow(1.6 + 0.002 * rk, 2);
            mean += 9.0 * multiplicity[k] * angleFall * std::exp(-(r - rk) * (r - rk) / width2);
        }
        profile[b] = mean;
    }

    std::vector<double> expected(n);
    for (int y = 0; y < height; ++y) {
        const double dy = y - cy;
        for (int x = 0; x < width; ++x) {
            const double dx = x - cx;
            const double r = std::sqrt(dx * dx + dy * dy);
            const double t = r * 4.0;
            const std::size_t b = static_cast<std::size_t>(t);
            const double f = t - static_cast<double>(b);
            // A textured sample: the rings a little brighter along one direction.
            const double texture = 1.0 + 0.25 * (dx * 0.8 + dy * 0.6) / (r + 1.0);
            expected[static_cast<std::size_t>(y) * width + x] =
                (profile[b] * (1.0 - f) + profile[b + 1] * f) * texture;
        }
    }

    // Bragg spots of a single crystal: a rotated 2-D section of its reciprocal lattice,
    // the spots near the Ewald sphere lit, with intensities of the usual exponential spread.
    const double a = 23.0 * scale, phi = 0.41;
    const double ax = a * std::cos(phi), ay = a * std::sin(phi);
    const double bx = -a * 1.13 * std::sin(phi + 0.05), by = a * 1.13 * std::cos(phi + 0.05);
    const int reach = static_cast<int>(rMax / a) + 1;
    std::exponential_distribution<double> wilson(1.0);
    for (int i = -reach; i <= reach; ++i)
        for (int j = -reach; j <= reach; ++j) {
            const double sx = cx + i * ax + j * bx, sy = cy + i * ay + j * by;
            const double r = std::hypot(sx - cx, sy - cy);
            if (r < 60.0 * scale || sx < 3 || sy < 3 || sx >= width - 3 || sy >= height - 3)
                continue;
            // Lit where the lattice point lies near the sphere: bands of spots (lunes) that
            // curve with the radius, as a rotating crystal shows them.
            const double excitation = 0.37 * i + 0.61 * j + r * r / (2.0 * 5200.0 * scale * scale);
            if (excitation - std::floor(excitation) > 0.3 || poisson.uniform() > 0.8)
                continue;
            const double peak = 4000.0 * wilson(poisson.engine()) * std::exp(-r / (700.0 * scale));
            const int x0 = static_cast<int>(sx), y0 = static_cast<int>(sy);
            for (int yy = y0 - 3; yy <= y0 + 3; ++yy)
                for (int xx = x0 - 3; xx <= x0 + 3; ++xx) {
                    const double d2 = (xx - sx) * (xx - sx) + (yy - sy) * (yy - sy);
                    expected[static_cast<std::size_t>(yy) * width + xx] += peak * std::exp(-d2 / 2.2);
                }
        }

    // The beam stop, applied while sampling: a disc on the centre, held by an arm that runs
    // to the right edge.
    const double stop = 48.0 * scale, arm = 9.0 * scale;
    const std::vector<std::uint8_t> gaps = gapMap(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const std::size_t i = static_cast<std::size_t>(y) * width + x;
            const double dx = x - cx, dy = y - cy;
            const bool shadow = dx * dx + dy * dy < stop * stop || (dx > 0 && std::abs(dy - 0.12 * dx) < arm);
            out[i] = gaps[i] ? -1 : poisson(shadow ? 0.01 * expected[i] : expected[i]);
        }
    // Defective pixels: the detector reports them as -2.
    for (int k = 0; k < 40; ++k) {
        const std::size_t i = static_cast<std::size_t>(poisson.uniform() * static_cast<double>(n));
        if (i < n && !gaps[i])
            out[i] = -2;
    }
    return frame;
}

} // namespace norvexa::demo

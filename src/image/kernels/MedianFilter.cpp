// The window median. Integer windows that lie wholly inside the frame with no excluded
// pixel go through a selection network over a block of pixels at once (min and max of
// whole lanes, which vectorise); the rank of an integer is one value, however it is
// found. Other windows, and floating pixels (whose ties of -0 and +0 or NaN make the
// selection order visible), copy the window and select with nth_element as defined.

#include "DImage.h"
#include "image/kernels/Filters.h"
#include "image/kernels/Median.h"

#include <utility>

namespace norvexa {
namespace imglib {

namespace {
using kernels::FilterFrame;
using kernels::Stored;

using Comparators = std::vector<std::pair<int, int>>;

/// Batcher's odd-even merge sort for `size` elements, cut down to the comparators that
/// decide the element of rank size / 2. Built on the next power of two: comparators
/// that reach beyond `size` would only meet +infinity padding and are dropped.
Comparators medianNetwork(int size)
{
    int padded = 1;
    while (padded < size)
        padded <<= 1;
    Comparators all;
    for (int p = 1; p < padded; p <<= 1)
        for (int k = p; k >= 1; k >>= 1)
            for (int j = k % p; j + k < padded; j += 2 * k)
                for (int i = 0; i < std::min(k, padded - j - k); ++i)
                    if ((i + j) / (2 * p) == (i + j + k) / (2 * p) && i + j + k < size)
                        all.emplace_back(i + j, i + j + k);
    std::vector<bool> needed(static_cast<std::size_t>(size), false);
    needed[static_cast<std::size_t>(size / 2)] = true;
    Comparators kept;
    for (auto c = all.rbegin(); c != all.rend(); ++c)
        if (needed[c->first] || needed[c->second]) {
            needed[c->first] = needed[c->second] = true;
            kept.push_back(*c);
        }
    return Comparators(kept.rbegin(), kept.rend());
}

constexpr int kBlock = 64;
constexpr int kNetworkLimit = 49; // up to 7 x 7; wider windows select per pixel

template <class S>
NORVEXA_HOT_LOOP void compareLanes(S* a, S* b)
{
    for (int i = 0; i < kBlock; ++i) {
        const S lo = std::min(a[i], b[i]);
        const S hi = std::max(a[i], b[i]);
        a[i] = lo;
        b[i] = hi;
    }
}

struct MedianFilter {
    template <class P>
    static void selectWindow(const FilterFrame<P>& f, int x, int y, Stored<P>* scratch)
    {
        const std::size_t w = static_cast<std::size_t>(f.width);
        std::size_t count = 0;
        for (int yy = f.top(y); yy <= f.bottom(y); ++yy)
            for (int xx = f.left(x); xx <= f.right(x); ++xx)
                if (!f.excluded[yy * w + xx])
                    scratch[count++] = kernels::valueOf<P>(f.in[yy * w + xx]);
        if (count)
            f.out[y * w + x] = kernels::selectMedian(scratch, count);
    }

    template <class P>
    static void run(const FilterFrame<P>& f)
    {
        const std::size_t w = static_cast<std::size_t>(f.width);
        const int mw = 2 * f.hx + 1, nh = 2 * f.hy + 1;
        const long long area = static_cast<long long>(mw) * nh;
        std::vector<Stored<P>> scratch(static_cast<std::size_t>(std::min<long long>(
            area, static_cast<long long>(f.width) * f.height)));
        const bool network = std::is_integral_v<P> && area <= kNetworkLimit;
        if (!network) {
            for (int y = 0; y < f.height; ++y)
                for (int x = 0; x < f.width; ++x)
                    if (!f.excluded[y * w + x])
                        selectWindow(f, x, y, scratch.data());
            return;
        }
        // Windows with an excluded pixel, found by a summed-area table of the exclusions.
        const std::size_t pixels = w * static_cast<std::size_t>(f.height);
        const bool masked = std::any_of(f.excluded, f.excluded + pixels, [](std::uint8_t e) { return e != 0; });
        std::vector<int> excludedSums(masked ? (w + 1) * (f.height + 1) : 0, 0);
        for (int y = 0; masked && y < f.height; ++y)
            for (std::size_t x = 0; x < w; ++x)
                excludedSums[(y + 1) * (w + 1) + x + 1] = excludedSums[y * (w + 1) + x + 1] +
                                                          excludedSums[(y + 1) * (w + 1) + x] -
                                                          excludedSums[y * (w + 1) + x] +
                                                          f.excluded[y * w + x];
        auto anyExcluded = [&](int x, int y) {
            if (!masked)
                return false;
            const std::size_t x0 = x - f.hx, x1 = x + f.hx + 1, y0 = y - f.hy, y1 = y + f.hy + 1;
            return excludedSums[y1 * (w + 1) + x1] - excludedSums[y0 * (w + 1) + x1] -
                       excludedSums[y1 * (w + 1) + x0] + excludedSums[y0 * (w + 1) + x0] !=
                   0;
        };
        const int size = static_cast<int>(area);
        const Comparators comparators = medianNetwork(size);
        std::vector<Stored<P>> lanes(static_cast<std::size_t>(size) * kBlock);
        for (int y = 0; y < f.height; ++y) {
            const bool inside = y - f.hy >= 0 && y + f.hy < f.height;
            int x = 0;
            while (x < f.width) {
                const bool blockInside = inside && x - f.hx >= 0 && x + kBlock - 1 + f.hx < f.width;
                if (!blockInside) {
                    if (!f.excluded[y * w + x])
                        selectWindow(f, x, y, scratch.data());
                    ++x;
                    continue;
                }
                for (int dy = 0; dy < nh; ++dy)
                    for (int dx = 0; dx < mw; ++dx) {
                        const Stored<P>* source = f.in + (y - f.hy + dy) * w + (x - f.hx + dx);
                        Stored<P>* lane = lanes.data() + static_cast<std::size_t>(dy * mw + dx) * kBlock;
                        for (int i = 0; i < kBlock; ++i)
                            lane[i] = kernels::valueOf<P>(source[i]);
                    }
                for (const auto& c : comparators)
                    compareLanes(lanes.data() + static_cast<std::size_t>(c.first) * kBlock,
                                 lanes.data() + static_cast<std::size_t>(c.second) * kBlock);
                const Stored<P>* medians = lanes.data() + static_cast<std::size_t>(size / 2) * kBlock;
                for (int i = 0; i < kBlock; ++i, ++x) {
                    if (f.excluded[y * w + x])
                        continue;
                    if (anyExcluded(x, y))
                        selectWindow(f, x, y, scratch.data());
                    else
                        f.out[y * w + x] = medians[i];
                }
            }
        }
    }
};
} // namespace

DImage DImage::medianFilter(int m, int n, const DImage* mask) const
{
    return DImage(kernels::runFilter<MedianFilter>(_imageData, mask ? &mask->_imageData : nullptr,
                                                   m, n, "DImage::medianFilter: m and n must be odd"));
}

} // namespace imglib
} // namespace norvexa

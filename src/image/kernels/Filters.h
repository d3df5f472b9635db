#pragma once

// Internal to the kernels: the frame shared by the neighbourhood filters.

#include "image/kernels/PixelOps.h"

#include <algorithm>
#include <vector>

namespace norvexa {
namespace kernels {

/// A filter's window and frame, resolved once: half sizes (m / 2, truncating), the
/// frame's size, its pixels, the excluded bytes (all 0 without a mask) and the result.
template <class P>
struct FilterFrame {
    int hx, hy, width, height;
    const Stored<P>* in;
    const std::uint8_t* excluded;
    Stored<P>* out;

    int top(int y) const { return std::max(0, y - hy); }
    int bottom(int y) const { return std::min(height - 1, y + hy); }
    int left(int x) const { return std::max(0, x - hx); }
    int right(int x) const { return std::min(width - 1, x + hx); }
};

/// Mask check, dispatch, the empty frame, the oddness of m * n, then `Body::run<P>` on a
/// result cleared to zero. A negative size gives a window with no pixel: all results 0.
template <class Body>
Image runFilter(const Image& image, const Image* mask, int m, int n, const char* oddText)
{
    if (mask)
        requireMaskShape(image, *mask);
    return dispatchPixels(image, [&](auto tag) -> Image {
        using P = typename decltype(tag)::type;
        if (mask)
            dispatchPixels(*mask, [](auto) {});
        if (image.empty())
            return Image(static_cast<const P*>(nullptr), image.allocator());
        if ((static_cast<long long>(m) * n) % 2 == 0)
            throw DException(oddText);
        const int width = widthOf(image), height = heightOf(image);
        Image result = zeroImage<P>(width, height);
        if (m / 2 < 0 || n / 2 < 0)
            return result;
        std::vector<std::uint8_t> excluded = excludedBytes(mask);
        if (excluded.empty())
            excluded.assign(image.size(), 0);
        const FilterFrame<P> frame{m / 2,          n / 2,           width,
                                   height,         pixelsOf<P>(image), excluded.data(),
                                   pixelsOf<P>(result)};
        Body::template run<P>(frame);
        return result;
    });
}

/// Sliding window sums of `value(x, y)` (0 where excluded) and of the counts, in the
/// modular arithmetic of Acc: column sums move down one row at a time, the window sum
/// along the row. `emit(x, y, sum, count)` is called for each pixel not excluded.
template <class Acc, class P, class Value, class Emit>
void slidingSums(const FilterFrame<P>& f, Value value, Emit emit)
{
    const std::size_t w = static_cast<std::size_t>(f.width);
    std::vector<Acc> columnSum(w, 0);
    std::vector<int> columnCount(w, 0);
    auto addRow = [&](int y, bool add) {
        const std::size_t base = y * w;
        for (std::size_t x = 0; x < w; ++x) {
            const bool take = !f.excluded[base + x];
            const Acc v = take ? value(f.in[base + x]) : Acc(0);
            columnSum[x] = add ? Acc(columnSum[x] + v) : Acc(columnSum[x] - v);
            columnCount[x] += add ? take : -int(take);
        }
    };
    for (int y = 0; y < std::min(f.hy, f.height); ++y)
        addRow(y, true);
    for (int y = 0; y < f.height; ++y) {
        if (y + f.hy < f.height)
            addRow(y + f.hy, true);
        if (y - f.hy - 1 >= 0)
            addRow(y - f.hy - 1, false);
        Acc sum = 0;
        int count = 0;
        for (int x = 0; x < std::min(f.hx, f.width); ++x) {
            sum = Acc(sum + columnSum[x]);
            count += columnCount[x];
        }
        for (int x = 0; x < f.width; ++x) {
            if (x + f.hx < f.width) {
                sum = Acc(sum + columnSum[x + f.hx]);
                count += columnCount[x + f.hx];
            }
            if (x - f.hx - 1 >= 0) {
                sum = Acc(sum - columnSum[x - f.hx - 1]);
                count -= columnCount[x - f.hx - 1];
            }
            if (!f.excluded[y * w + x])
                emit(x, y, sum, count);
        }
    }
}

} // namespace kernels
} // namespace norvexa

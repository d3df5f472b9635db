// The window mean and the window variance. Integer windows use sliding sums, which give
// the defined results exactly: the mean's sum wraps at the pixel's width (modular sums
// are exact in any wider modular type), and the variance's first sum is an integer sum
// below 2^53, which a double holds exactly in any order. Floating sums and the squared
// deviations keep the defined order, window row by window row.

#include "DImage.h"
#include "image/kernels/Filters.h"

namespace norvexa {
namespace imglib {

namespace {
using kernels::FilterFrame;
using kernels::Stored;

template <class P>
Stored<P> meanOfSum(P sum, int count)
{
    if (count == 0)
        return 0;
    if constexpr (std::is_same_v<P, bool>)
        return (static_cast<int>(sum) / count) != 0;
    else
        return static_cast<P>(sum / count);
}

struct MeanFilter {
    template <class P>
    static void run(const FilterFrame<P>& f)
    {
        const std::size_t w = static_cast<std::size_t>(f.width);
        if constexpr (std::is_integral_v<P>) {
            using U = std::make_unsigned_t<std::conditional_t<std::is_same_v<P, bool>, char, P>>;
            kernels::slidingSums<unsigned long long>(
                f, [](Stored<P> v) { return static_cast<unsigned long long>(kernels::valueOf<P>(v)); },
                [&](int x, int y, unsigned long long sum, int count) {
                    // The sum as the pixel type would hold it after wrapping; BOOL: any set.
                    const P wrapped = std::is_same_v<P, bool> ? P(sum != 0) : static_cast<P>(static_cast<U>(sum));
                    f.out[y * w + x] = meanOfSum(wrapped, count);
                });
        } else {
            for (int y = 0; y < f.height; ++y)
                for (int x = 0; x < f.width; ++x) {
                    if (f.excluded[y * w + x])
                        continue;
                    P sum = 0;
                    int count = 0;
                    for (int yy = f.top(y); yy <= f.bottom(y); ++yy)
                        for (int xx = f.left(x); xx <= f.right(x); ++xx)
                            if (!f.excluded[yy * w + xx]) {
                                sum += f.in[yy * w + xx];
                                ++count;
                            }
                    f.out[y * w + x] = meanOfSum(sum, count);
                }
        }
    }
};

struct VarianceFilter {
    template <class P>
    static void deviations(const FilterFrame<P>& f, int x, int y, double sum, int count)
    {
        const std::size_t w = static_cast<std::size_t>(f.width);
        if (count <= 1)
            return; // the result stays 0
        const double mean = sum / count;
        double squares = 0.0;
        for (int yy = f.top(y); yy <= f.bottom(y); ++yy)
            for (int xx = f.left(x); xx <= f.right(x); ++xx) {
                const double d = static_cast<double>(kernels::valueOf<P>(f.in[yy * w + xx])) - mean;
                squares += d * d;
            }
        f.out[y * w + x] = kernels::convert<P>(squares / (count - 1));
    }

    template <class P>
    static void run(const FilterFrame<P>& f)
    {
        const std::size_t w = static_cast<std::size_t>(f.width);
        const long long area = (2LL * f.hx + 1) * (2LL * f.hy + 1);
        if constexpr (std::is_integral_v<P> && sizeof(P) <= 4) {
            if (area <= (1LL << 21)) {
                kernels::slidingSums<long long>(
                    f, [](Stored<P> v) { return static_cast<long long>(kernels::valueOf<P>(v)); },
                    [&](int x, int y, long long sum, int count) {
                        deviations(f, x, y, static_cast<double>(sum), count);
                    });
                return;
            }
        }
        for (int y = 0; y < f.height; ++y)
            for (int x = 0; x < f.width; ++x) {
                if (f.excluded[y * w + x])
                    continue;
                double sum = 0.0;
                int count = 0;
                for (int yy = f.top(y); yy <= f.bottom(y); ++yy)
                    for (int xx = f.left(x); xx <= f.right(x); ++xx)
                        if (!f.excluded[yy * w + xx]) {
                            sum += static_cast<double>(kernels::valueOf<P>(f.in[yy * w + xx]));
                            ++count;
                        }
                deviations(f, x, y, sum, count);
            }
    }
};
} // namespace

DImage DImage::meanFilter(int m, int n, const DImage* mask) const
{
    return DImage(kernels::runFilter<MeanFilter>(_imageData, mask ? &mask->_imageData : nullptr, m,
                                                 n, "DImage::meanFilter: m and n must be odd"));
}

DImage DImage::varianceFilter(int m, int n, const DImage* mask) const
{
    return DImage(kernels::runFilter<VarianceFilter>(_imageData,
                                                     mask ? &mask->_imageData : nullptr, m, n,
                                                     "DImage::meanFilter: m and n must be odd"));
}

} // namespace imglib
} // namespace norvexa

// The spline background: a tensor B-spline fitted to the sampled module pixels by the
// sequential band least squares with Householder reflections (rows in blocks of 50,
// ordered by knot interval in x), solved by back-substitution, evaluated on the modules.
//
// The arithmetic is the defined one, operation for operation. What is arranged
// differently: the B-splines of a column or a row are computed once (the same inputs
// give the same values), the points of one knot interval are found from the columns'
// intervals instead of a scan of stored points, and the band is kept by rows so that
// a reflection runs along the columns as vector lanes while each column's sum still
// accumulates in row order.

#include "DImage.h"
#include "image/kernels/PixelOps.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iostream>

namespace norvexa {
namespace kernels {
namespace {

constexpr int kMaxOrder = 20;
constexpr int kBlockRows = 50;
constexpr double kHotPixel = 10000000.0;

/// Open uniform knots on [0, 1]: k zeros, (i - k + 1) / (n + 1 - k) for i in [k, n), k ones.
/// The fit's y knots take the interior loop from `first` with the order k: from kx, the
/// way the fit has always built them; for kx > ky the entries below kx keep the plain
/// values.
std::vector<double> knots(int n, int k, int first)
{
    std::vector<double> t(static_cast<std::size_t>(n + k), 0.0);
    for (int i = k; i < n; ++i)
        t[i] = static_cast<double>(i - k + 1) / static_cast<double>(n + 1 - k);
    for (int i = first; i < n; ++i)
        t[i] = static_cast<double>(i - k + 1) / static_cast<double>(n + 1 - k);
    for (int i = n; i < n + k; ++i)
        t[i] = 1.0;
    return t;
}

int interval(double v, const std::vector<double>& t, int n, int k)
{
    if (v >= t[n])
        return n - 1;
    if (v < t[k - 1])
        return std::max(k - 2, 0);
    int lo = k - 1, hi = n;
    while (hi - lo > 1) {
        const int mid = (lo + hi) / 2;
        if (v < t[mid])
            hi = mid;
        else
            lo = mid;
    }
    return lo;
}

/// The k B-splines of order k that are non-zero on interval l at v (Cox-de Boor). Orders
/// above 20 have no values: all zero.
void basis(const std::vector<double>& t, int k, int l, double v, double* b)
{
    std::fill(b, b + k, 0.0);
    if (k > kMaxOrder)
        return;
    double left[kMaxOrder + 1], right[kMaxOrder + 1];
    b[0] = 1.0;
    for (int j = 1; j < k; ++j) {
        left[j] = v - t[l + 1 - j];
        right[j] = t[l + j] - v;
        double saved = 0.0;
        for (int r = 0; r < j; ++r) {
            const double temp = b[r] / (right[r + 1] + left[j - r]);
            b[r] = saved + right[r + 1] * temp;
            saved = left[j - r] * temp;
        }
        b[j] = saved;
    }
}

/// Intervals and B-splines of every column or row of the frame along one axis.
struct AxisBasis {
    std::vector<int> intervals;
    std::vector<double> values; // k per position

    AxisBasis(unsigned long size, const std::vector<double>& t, int n, int k)
        : intervals(size), values(size * static_cast<std::size_t>(k))
    {
        for (unsigned long p = 0; p < size; ++p) {
            const double v = static_cast<double>(p) / static_cast<double>(size);
            intervals[p] = interval(v, t, n, k);
            basis(t, k, intervals[p], v, &values[p * k]);
        }
    }
};

/// Constructs the reflection of band column `pivot` (1-based) over the pivot row and
/// rows [l1, m] (relative: row r is absolute row base + r) and applies it to the columns
/// to its right. Each column's sums accumulate in row order; the lanes are columns.
inline void blendUpdate(double* row, const double* factors, double u, const std::uint64_t* keep,
                        int columns)
{
    for (int c = 0; c < columns; ++c) {
        const double updated = row[c] + factors[c] * u;
        std::uint64_t a, b;
        std::memcpy(&a, &updated, sizeof a);
        std::memcpy(&b, &row[c], sizeof b);
        a = (a & ~keep[c]) | (b & keep[c]);
        std::memcpy(&row[c], &a, sizeof a);
    }
}

NORVEXA_HOT_LOOP void reflect(double* band, std::size_t stride, int base, int pivot, int l1, int m,
                              int nb, double* sums, double* factors, std::uint64_t* keep)
{
    if (pivot <= 0 || pivot >= l1 || l1 > m)
        return;
    auto g = [&](int row, int column) -> double& { return band[(row - 1) * stride + (column - 1)]; };
    double cl = std::fabs(g(base + pivot, pivot));
    for (int j = l1; j <= m; ++j)
        cl = std::max(std::fabs(g(base + j, pivot)), cl);
    if (cl < 1e-20)
        return;
    const double clinv = 1.0 / cl;
    double t = g(base + pivot, pivot) * clinv;
    double sm = t * t;
    for (int j = l1; j <= m; ++j) {
        t = g(base + j, pivot) * clinv;
        sm = sm + t * t;
    }
    cl = cl * std::sqrt(sm);
    if (g(base + pivot, pivot) > 0.0)
        cl = -cl;
    const double up = g(base + pivot, pivot) - cl;
    g(base + pivot, pivot) = cl;

    const int columns = nb + 1 - pivot; // the columns pivot + 1 .. nb + 1
    if (columns <= 0)
        return;
    double b = up * g(base + pivot, pivot);
    if (!(b < 0.0) || std::fabs(b) < 1e-24)
        return;
    b = 1.0 / b;
    const double* pivotRow = &g(base + pivot, pivot + 1);
    for (int c = 0; c < columns; ++c)
        sums[c] = pivotRow[c] * up;
    for (int i = l1; i <= m; ++i) {
        const double u = g(base + i, pivot);
        const double* row = &g(base + i, pivot + 1);
        for (int c = 0; c < columns; ++c)
            sums[c] = sums[c] + row[c] * u;
    }
    for (int c = 0; c < columns; ++c)
        factors[c] = sums[c] * b;
    double* pivotOut = &g(base + pivot, pivot + 1);
    // A column whose sum is exactly 0 is left as it was. The choice is made on the bits,
    // so that it stays a lane blend (a conditional floating add would not vectorise).
    for (int c = 0; c < columns; ++c)
        keep[c] = sums[c] != 0.0 ? 0 : ~std::uint64_t(0);
    blendUpdate(pivotOut, factors, up, keep, columns);
    for (int i = l1; i <= m; ++i) {
        const double u = g(base + i, pivot);
        double* row = &g(base + i, pivot + 1);
        blendUpdate(row, factors, u, keep, columns);
    }
}

/// The band triangle of the sequential accumulation, 1-based as the algorithm reads:
/// rows of `nb + 1` entries, the last one the right-hand side.
class BandSystem {
public:
    BandSystem(int unknowns, int nb)
        : _n(unknowns), _nb(nb), _stride(static_cast<std::size_t>(nb) + 1),
          _g((static_cast<std::size_t>(unknowns) + kBlockRows + 3) * _stride, 0.0),
          _sums(_stride), _factors(_stride), _keep(_stride)
    {
    }

    /// Row `r` of the pending block (0-based within the block), cleared.
    double* blockRow(int r)
    {
        double* row = &g(_ir + r, 1);
        std::fill(row, row + _stride, 0.0);
        return row;
    }

    /// Triangularises `mt` pending rows whose first column is `jt` (1-based).
    void accumulate(int mt, int jt)
    {
        const int nbp1 = _nb + 1;
        if (mt <= 0)
            return;
        if (jt != _ip) {
            if (jt > _ir) {
                for (int i = 1; i <= mt; ++i)
                    std::copy_n(&g(_ir + mt - i, 1), _stride, &g(jt + mt - i, 1));
                for (int i = 1; i <= jt - _ir; ++i)
                    std::fill_n(&g(_ir + i - 1, 1), _stride, 0.0);
                _ir = jt;
            }
            const int mu = std::min(_nb - 1, _ir - _ip - 1);
            for (int l = 1; l <= mu; ++l) {
                const int k = std::min(l, jt - _ip);
                const int ig = _ip + l;
                for (int i = l + 1; i <= _nb; ++i)
                    g(ig, i - k) = g(ig, i);
                for (int i = 1; i <= k; ++i)
                    g(ig, nbp1 - i) = 0.0;
            }
            _ip = jt;
        }
        const int mh = _ir + mt - _ip;
        const int kh = std::min(nbp1, mh);
        for (int i = 1; i <= kh; ++i)
            householder(i, std::max(i + 1, _ir - _ip + 1), mh);
        _ir = _ip + kh;
        if (kh >= nbp1)
            std::fill_n(&g(_ir - 1, 1), _nb, 0.0);
    }

    /// Back-substitution; on a zero diagonal the message is printed and the remaining
    /// coefficients keep their right-hand sides.
    std::vector<double> solve()
    {
        std::vector<double> x(static_cast<std::size_t>(_n) + 1, 0.0);
        for (int j = 1; j <= _n; ++j)
            x[j] = g(j, _nb + 1);
        for (int ii = 1; ii <= _n; ++ii) {
            const int i = _n + 1 - ii;
            double s = 0.0;
            const int l = std::max(0, i - _ip);
            if (i != _n) {
                const int ie = std::min(_n + 1 - i, _nb);
                for (int j = 2; j <= ie; ++j)
                    s += band(i, j + l) * x[i - 1 + j];
            }
            const double diagonal = band(i, l + 1);
            if (diagonal == 0.0) {
                std::cout << "Error in LeastSquaresSolving." << std::endl;
                break;
            }
            x[i] = (x[i] - s) / diagonal;
        }
        return std::vector<double>(x.begin() + 1, x.end());
    }

private:
    double& g(int row, int column) { return _g[(row - 1) * _stride + (column - 1)]; }
    /// An entry of the band; columns beyond it (reachable when the last intervals had no
    /// points) read as 0.
    double band(int row, int column) { return column <= _nb + 1 ? g(row, column) : 0.0; }

    void householder(int pivot, int l1, int m)
    {
        reflect(_g.data(), _stride, _ip - 1, pivot, l1, m, _nb, _sums.data(), _factors.data(),
                _keep.data());
    }

    int _n, _nb;
    std::size_t _stride;
    std::vector<double> _g;
    std::vector<double> _sums, _factors;
    std::vector<std::uint64_t> _keep;
    int _ip = 1, _ir = 1;
};

/// Where the fit reads its points and writes its values: the frame's pixel type and
/// the mask's are resolved by the worker, the arithmetic above exists once.
class Sampler {
public:
    virtual ~Sampler() = default;
    /// Pixels [begin, begin + n) as doubles, and whether each may be a point.
    virtual void row(std::size_t begin, std::size_t n, double* values, std::uint8_t* taken) const = 0;
    /// Stores n evaluated values at [begin, begin + n), converted to the pixel type.
    virtual void write(std::size_t begin, std::size_t n, const double* values) const = 0;
};

/// [x0, x1) of a rectangle shrunk by `inset` on each side and cut to [0, size).
std::pair<long, long> span(int start, int length, int inset, unsigned long size)
{
    const long first = std::max<long>(static_cast<long>(start) + inset, 0);
    const long last = std::min<long>(static_cast<long>(start) + length - inset, static_cast<long>(size));
    return {first, std::max(first, last)};
}

void fitAndEvaluate(const Sampler& sampler, unsigned long width, unsigned long height,
                    const std::vector<imglib::DRect>& rects, int nx, int kx, int ny, int ky,
                    int border)
{
    if (kx < 1 || ky < 1 || nx < kx || ny < ky)
        throw DBadParameterException(
            "Spline orders must lie between 1 and the number of coefficients");
    if (width == 0 || height == 0 || rects.empty())
        return;
    const std::vector<double> tx = knots(nx, kx, kx);
    const AxisBasis columns(width, tx, nx, kx);
    const AxisBasis rowsFit(height, knots(ny, ky, kx), ny, ky);
    const int nb = ny * kx;
    BandSystem system(nx * ny, nb);

    std::vector<double> values(width);
    std::vector<std::uint8_t> taken(width);
    for (int l = kx - 1; l <= nx - 1; ++l) {
        const int jt = (l + 1 - kx) * ny + 1;
        int rows = 0;
        for (const imglib::DRect& r : rects) {
            const auto xs = span(r.left(), r.width(), border, width);
            const auto ys = span(r.top(), r.height(), border, height);
            // The columns of interval l: a run, since the intervals rise with x.
            const auto begin = columns.intervals.begin();
            const long xa = std::lower_bound(begin + xs.first, begin + xs.second, l) - begin;
            const long xb = std::upper_bound(begin + xa, begin + xs.second, l) - begin;
            if (xa >= xb)
                continue;
            for (long y = ys.first; y < ys.second; ++y) {
                sampler.row(y * width + xa, xb - xa, values.data(), taken.data());
                const int ly = rowsFit.intervals[y];
                const double* by = &rowsFit.values[y * ky];
                for (long x = xa; x < xb; ++x) {
                    if (!taken[x - xa])
                        continue;
                    double* row = system.blockRow(rows);
                    const double* bx = &columns.values[x * kx];
                    for (int i = 0; i < kx; ++i)
                        for (int j = 0; j < ky; ++j) {
                            const int position = i * ny + ly + 1 - ky + j;
                            if (position >= 0 && position < nb)
                                row[position] = bx[i] * by[j];
                        }
                    row[nb] = values[x - xa];
                    if (++rows == kBlockRows) {
                        system.accumulate(rows, jt);
                        rows = 0;
                    }
                }
            }
        }
        system.accumulate(rows, jt);
    }
    const std::vector<double> c = system.solve();

    const AxisBasis rowsEval(height, knots(ny, ky, ky), ny, ky);
    const long coefficients = static_cast<long>(nx) * ny;
    for (const imglib::DRect& r : rects) {
        const auto xs = span(r.left(), r.width(), 0, width);
        const auto ys = span(r.top(), r.height(), 0, height);
        for (long y = ys.first; y < ys.second; ++y) {
            const int ly = std::max(rowsEval.intervals[y], 0);
            const double* by = &rowsEval.values[y * ky];
            for (long x = xs.first; x < xs.second; ++x) {
                const int lx = std::max(columns.intervals[x], 0);
                const double* bx = &columns.values[x * kx];
                double sum = 0.0;
                if (kx <= kMaxOrder && ky <= kMaxOrder)
                    for (int j = 0; j < ky; ++j)
                        for (int i = 0; i < kx; ++i) {
                            const long index = static_cast<long>(lx + 1 - kx + i) * ny + ly + 1 - ky + j;
                            if (index >= 0 && index < coefficients)
                                sum += by[j] * bx[i] * c[index];
                        }
                values[x - xs.first] = sum;
            }
            sampler.write(y * width + xs.first, xs.second - xs.first, values.data());
        }
    }
}

template <class T, class M>
class TypedSampler final : public Sampler {
public:
    TypedSampler(T* out, const T* in, const M* mask) : _out(out), _in(in), _mask(mask) {}

    void row(std::size_t begin, std::size_t n, double* values, std::uint8_t* taken) const override
    {
        for (std::size_t i = 0; i < n; ++i) {
            values[i] = static_cast<double>(_in[begin + i]);
            taken[i] = !(_mask && excludes(_mask[begin + i])) && !(values[i] > kHotPixel);
        }
    }

    void write(std::size_t begin, std::size_t n, const double* values) const override
    {
        for (std::size_t i = 0; i < n; ++i)
            _out[begin + i] = convert<T>(values[i]);
    }

private:
    T* _out;
    const T* _in;
    const M* _mask;
};

} // namespace
} // namespace kernels

namespace imglib {

template <class T, class M>
void splineFit(T* out, const T* in, const M* mask, unsigned long width, unsigned long height,
               const std::vector<DRect>& rects, int nx, int kx, int ny, int ky, int border)
{
    kernels::fitAndEvaluate(kernels::TypedSampler<T, M>(out, in, mask), width, height, rects, nx,
                            kx, ny, ky, border);
}

namespace {
struct SplineFit {
    int nx, kx, ny, ky, border;
    const std::vector<DRect>* rects;

    template <class L, class R>
    kernels::Image fire(const kernels::Image& image, const kernels::Image& mask) const
    {
        if (rects->empty() || image.empty())
            return kernels::Image();
        const int width = kernels::widthOf(image), height = kernels::heightOf(image);
        kernels::Image result = kernels::zeroImage<L>(width, height);
        splineFit<L, R>(reinterpret_cast<L*>(result.data()),
                        reinterpret_cast<const L*>(image.cdata()),
                        mask.empty() ? nullptr : reinterpret_cast<const R*>(mask.cdata()),
                        static_cast<unsigned long>(width), static_cast<unsigned long>(height),
                        *rects, nx, kx, ny, ky, border);
        return result;
    }
};
} // namespace

DImage DImage::splineFit(int nx, int kx, int ny, int ky, int border, const DImage* mask) const
{
    std::vector<DRect> rects;
    if (const auto modules = _optionalData.modules())
        for (const auto& module : *modules)
            rects.push_back(module.geometry());
    const SplineFit functor{nx, kx, ny, ky, border, &rects};
    if (mask) {
        kernels::requireMaskShape(_imageData, mask->_imageData);
        return DImage(datatypes::PixelDispatcher<SplineFit, const kernels::Image,
                                                 const kernels::Image,
                                                 kernels::Image>::Go(_imageData, mask->_imageData,
                                                                     functor));
    }
    return DImage(datatypes::dispatchWithTag<const kernels::Image, kernels::Image>(_imageData, functor));
}

#define NORVEXA_INSTANTIATE_SPLINE(T, M)                                                           \
    template void splineFit<T, M>(T*, const T*, const M*, unsigned long, unsigned long,            \
                                  const std::vector<DRect>&, int, int, int, int, int);
#define NORVEXA_INSTANTIATE_SPLINE_FOR(T, CLASS, BITS) NORVEXA_SPLINE_MASK_TYPES(NORVEXA_INSTANTIATE_SPLINE, T)
NORVEXA_PIXEL_TYPES(NORVEXA_INSTANTIATE_SPLINE_FOR)
#undef NORVEXA_INSTANTIATE_SPLINE_FOR
#undef NORVEXA_INSTANTIATE_SPLINE

} // namespace imglib
} // namespace norvexa

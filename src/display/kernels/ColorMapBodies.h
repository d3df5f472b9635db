#pragma once

// The definitions behind kernels/ColorMap.h; included only by the files that instantiate
// them.

#include "DMersenneTwister.h"
#include "display/kernels/ColorMap.h"
#include "image/kernels/PixelMath.h"

#include <algorithm>
#include <cstddef>
#include <memory>

namespace norvexa {
namespace kernels {

/// |m| as an unsigned number, defined for the most negative value too.
template <class R>
inline unsigned long long magnitude(R m)
{
    if constexpr (std::is_signed_v<R>)
        return m < 0 ? 0ULL - static_cast<unsigned long long>(m) : static_cast<unsigned long long>(m);
    else
        return static_cast<unsigned long long>(m);
}

/// Bits 0 to 4 of |m| (of m != 0 for a bool mask), in a form the loops vectorise.
template <class R>
inline unsigned int maskBits(R m)
{
    if constexpr (std::is_same_v<R, bool>) {
        return m ? 1u : 0u;
    } else if constexpr (sizeof(R) < sizeof(int)) {
        const int v = m;
        return static_cast<unsigned int>(v < 0 ? -v : v) & 31u;
    } else {
        using U = std::make_unsigned_t<R>;
        const U u = static_cast<U>(m);
        return static_cast<unsigned int>(m < R(0) ? U(0) - u : u) & 31u;
    }
}

/// The colours that a mask value imposes, by bits 0 to 4 of |m|: defective (bits 1 to
/// 4, when shown; never for a bool mask) before gap (bit 0).
struct MaskColors {
    MaskColors(const ColorSetup& s, bool gapsOnly)
        : defectiveBits(!gapsOnly && s.showDefective ? 30u : 0u), defective(s.defective), gap(s.gap)
    {
    }
    /// `color` as the mask leaves it; `imposed` tells whether the mask chose it. Blends
    /// rather than branches, so that the loops vectorise.
    unsigned int apply(unsigned int bits, unsigned int color, unsigned int& imposed) const
    {
        const unsigned int isDefective = (bits & defectiveBits) != 0;
        const unsigned int isGap = bits & 1u;
        imposed = isDefective | isGap;
        color = isGap ? gap : color;
        return isDefective ? defective : color;
    }
    unsigned int defectiveBits, defective, gap;
};

/// The integer types whose common values are coloured from a table filled per call.
template <class L>
constexpr bool usesValueTable()
{
    return std::is_integral_v<L> && !std::is_same_v<L, bool> && !std::is_same_v<L, char>;
}

/// Pixels per block: a block is coloured in one vectorisable pass, and its rare pixels
/// (values off the table, or at and above `high`) are put right in a second pass, while
/// the block is still in the cache.
constexpr std::size_t kBlock = 2048;

/// The values' table of an integer pixel type: the colours of -2 and -1 (signed types)
/// and of 0 by the direct rule, and of 1 to 99 999 (as far as the type reaches) with the
/// difference of rule 5 taken as an int. Negative values and 0 thus keep their direct
/// colour, and the gap codes need no detour.
template <class L>
struct ValueTable {
    using Index = std::conditional_t<(sizeof(L) <= 4), unsigned int, unsigned long long>;
    static constexpr Index kBias = std::is_signed_v<L> ? 2 : 0;

    explicit ValueTable(const ColorSetup& s)
    {
        constexpr unsigned long long kValues = 100000;
        const unsigned long long values =
            std::min<unsigned long long>(kValues, static_cast<unsigned long long>(std::numeric_limits<L>::max()) + 1);
        size = static_cast<Index>(values + kBias);
        table.reset(new unsigned int[size]);
        if constexpr (kBias > 0) {
            table[0] = valueColor<L>(s, L(-2));
            table[1] = valueColor<L>(s, L(-1));
        }
        table[kBias] = valueColor<L>(s, L(0));
        for (Index v = 1; v < values; ++v)
            table[v + kBias] = valueColor<int>(s, static_cast<L>(v));
    }

    std::unique_ptr<unsigned int[]> table;
    Index size = 0;
};

template <class L, class R, bool masked>
NORVEXA_HOT_LOOP void colorTableRun(const L* __restrict src, const R* __restrict mask,
                                    unsigned int* __restrict out, std::size_t n,
                                    const ValueTable<L>& values, const MaskColors& maskColors,
                                    const ColorSetup& setup)
{
    using Index = typename ValueTable<L>::Index;
    const unsigned int* __restrict table = values.table.get();
    const MaskColors byMask = maskColors;
    const Index size = values.size;
    for (std::size_t start = 0; start < n; start += kBlock) {
        const std::size_t end = std::min(n, start + kBlock);
        unsigned int rare = 0;
        for (std::size_t i = start; i < end; ++i) {
            const Index index = static_cast<Index>(src[i]) + ValueTable<L>::kBias;
            const unsigned int inTable = index < size;
            // Off the table reads entry 0 for now; arithmetic, so that it stays a gather.
            unsigned int color = table[index & (Index(0) - Index(inTable))];
            if constexpr (masked) {
                unsigned int imposed;
                color = byMask.apply(maskBits(mask[i]), color, imposed);
                rare |= ~inTable & ~imposed & 1u;
            } else {
                rare |= ~inTable & 1u;
            }
            out[i] = color;
        }
        if (rare) {
            for (std::size_t i = start; i < end; ++i) {
                const Index index = static_cast<Index>(src[i]) + ValueTable<L>::kBias;
                bool imposed = false;
                if constexpr (masked)
                    imposed = (maskBits(mask[i]) & (byMask.defectiveBits | 1u)) != 0;
                if (index >= size && !imposed)
                    out[i] = valueColor<L>(setup, src[i]);
            }
        }
    }
}

/// Floating pixels: below `high` (and below the saturation value when that counts) the
/// colour is a linear entry, worked out without branches; the rest take the full rule.
template <class L, class R, bool masked>
NORVEXA_HOT_LOOP void colorFloatingRun(const L* __restrict src, const R* __restrict mask,
                                       unsigned int* __restrict out, std::size_t n,
                                       const MaskColors& maskColors, const ColorSetup& setup)
{
    const double threshold =
        setup.showSaturated ? std::min(setup.high, static_cast<double>(setup.saturationValue)) : setup.high;
    // With high below low every common pixel is below low: a scale of 0 says so.
    const double low = setup.low, scale = setup.scale > 0 ? setup.scale : 0.0, top = setup.linSize - 1;
    const unsigned int* __restrict lin = setup.lin;
    const MaskColors byMask = maskColors;
    for (std::size_t start = 0; start < n; start += kBlock) {
        const std::size_t end = std::min(n, start + kBlock);
        unsigned int rare = 0;
        for (std::size_t i = start; i < end; ++i) {
            const double value = src[i];
            // NaN is rare too.
            const unsigned int common = value < threshold;
            // At or below low the product is not positive (or NaN), and the clamp gives 0.
            double x = (value - low) * scale;
            x = x > 0.0 ? x : 0.0;
            x = x < top ? x : top;
            unsigned int color = lin[static_cast<int>(x)];
            if constexpr (masked) {
                unsigned int imposed;
                color = byMask.apply(maskBits(mask[i]), color, imposed);
                rare |= ~common & ~imposed & 1u;
            } else {
                rare |= ~common & 1u;
            }
            out[i] = color;
        }
        if (rare) {
            for (std::size_t i = start; i < end; ++i) {
                bool imposed = false;
                if constexpr (masked)
                    imposed = (maskBits(mask[i]) & (byMask.defectiveBits | 1u)) != 0;
                if (!(static_cast<double>(src[i]) < threshold) && !imposed)
                    out[i] = valueColor<double>(setup, src[i]);
            }
        }
    }
}

/// bool and char: the rule as it stands, pixel by pixel.
template <class L, class R, bool masked>
void colorDirectRun(const L* src, const R* mask, unsigned int* out, std::size_t n,
                    const MaskColors& maskColors, const ColorSetup& setup)
{
    for (std::size_t i = 0; i < n; ++i) {
        if constexpr (masked) {
            unsigned int imposed;
            const unsigned int color = maskColors.apply(maskBits(mask[i]), 0, imposed);
            if (imposed) {
                out[i] = color;
                continue;
            }
        }
        out[i] = valueColor<L>(setup, src[i]);
    }
}

template <class L, class R, bool masked>
void colorRun(const L* src, const R* mask, unsigned int* out, std::size_t n,
              const ValueTable<L>* values, const MaskColors& maskColors, const ColorSetup& setup)
{
    if constexpr (usesValueTable<L>())
        colorTableRun<L, R, masked>(src, mask, out, n, *values, maskColors, setup);
    else if constexpr (std::is_floating_point_v<L>)
        colorFloatingRun<L, R, masked>(src, mask, out, n, maskColors, setup);
    else
        colorDirectRun<L, R, masked>(src, mask, out, n, maskColors, setup);
}

template <class L, class R>
DImage mapColors(const ColorSetup& setup, const DImage& image, const DImage& mask)
{
    DImage result(setup.width, setup.height, datatypes::UINT, 4);
    if (result.size() == 0)
        return result;
    // A floating mask says nothing here: it is ignored as if there were none.
    const bool masked = mask.cdata() != nullptr && !mask.empty();
    std::unique_ptr<ValueTable<L>> values;
    if constexpr (usesValueTable<L>())
        values.reset(new ValueTable<L>(setup));
    const MaskColors maskColors(setup, std::is_same_v<R, bool>);

    const std::size_t frameWidth = static_cast<std::size_t>(image.width());
    const auto* pixels = reinterpret_cast<const L*>(image.cdata());
    const auto* maskPixels = reinterpret_cast<const R*>(mask.cdata());
    auto* out = reinterpret_cast<unsigned int*>(result.data());
    // Whole rows form one run.
    const bool oneRun = setup.left == 0 && static_cast<std::size_t>(setup.width) == frameWidth;
    const int runs = oneRun ? 1 : setup.height;
    const std::size_t runLength = oneRun ? result.size() : static_cast<std::size_t>(setup.width);
    for (int y = 0; y < runs; ++y) {
        const std::size_t from = (static_cast<std::size_t>(setup.top) + y) * frameWidth + setup.left;
        unsigned int* to = out + static_cast<std::size_t>(y) * runLength;
        if constexpr (!std::is_floating_point_v<R>) {
            if (masked) {
                colorRun<L, R, true>(pixels + from, maskPixels + from, to, runLength, values.get(),
                                     maskColors, setup);
                continue;
            }
        }
        colorRun<L, R, false>(pixels + from, maskPixels, to, runLength, values.get(), maskColors, setup);
    }
    return result;
}

/// Whether a step from `a` to its neighbour `b` is larger than two standard deviations
/// of the difference of two Poisson counts, in the pixels' own (promoted) arithmetic.
template <class L>
inline bool steepStep(L a, L b)
{
    using P = decltype(a + b);
    P difference, sum;
    if constexpr (std::is_integral_v<P> && std::is_signed_v<P>) {
        // Two's complement wrap-around, as the machine does it, without the undefined
        // behaviour of a signed overflow.
        using U = std::make_unsigned_t<P>;
        difference = static_cast<P>(static_cast<U>(a) - static_cast<U>(b));
        sum = static_cast<P>(static_cast<U>(a) + static_cast<U>(b));
    } else {
        difference = static_cast<P>(a - b);
        sum = static_cast<P>(a + b);
    }
    const double d = static_cast<double>(difference);
    return d * d > 4.0 * static_cast<double>(sum);
}

template <class R>
inline bool excludes(R m)
{
    if constexpr (std::is_same_v<R, bool> || std::is_floating_point_v<R>)
        return m != 0;
    else
        return (magnitude(m) & 31u) != 0;
}

/// Whether the smallest value seen is a code of an invalid pixel rather than a count.
template <class L>
inline bool isInvalidCode(L smallest)
{
    if constexpr (std::is_same_v<L, unsigned int> || std::is_same_v<L, unsigned long long>)
        return smallest == std::numeric_limits<L>::max() || smallest == std::numeric_limits<L>::max() - 1;
    else if constexpr (std::is_signed_v<L> || std::is_same_v<L, char>)
        return smallest == L(-1) || smallest == L(-2);
    else
        return false;
}

template <class L, class R>
std::pair<double, double> contrast(double factor, unsigned long samples, const DImage& image,
                                   const DImage& mask)
{
    const std::size_t size = image.size();
    const auto* p = reinterpret_cast<const L*>(image.cdata());
    if (size == 0)
        return {1.0, 0.0};
    if (size == 1)
        return {static_cast<double>(p[0]), 0.0};
    const auto* m = reinterpret_cast<const R*>(mask.cdata());
    const bool masked = m != nullptr && !mask.empty();

    const unsigned long count = static_cast<unsigned long>(std::min<std::size_t>(samples, size));
    imglib::DMersenneTwister random(1000000);
    double sum = 0, squares = 0;
    unsigned long kept = 0;
    L smallest = std::numeric_limits<L>::max();
    // The positions don't depend on the pixels: drawn a batch ahead and fetched into the
    // cache together, the random reads of a large frame overlap instead of queueing.
    constexpr unsigned long kBatch = 64;
    std::size_t positions[kBatch];
    for (unsigned long done = 0; done < count; done += kBatch) {
        const unsigned long batch = std::min(kBatch, count - done);
        for (unsigned long b = 0; b < batch; ++b) {
            positions[b] = random.rand() % (size - 1);
            __builtin_prefetch(p + positions[b]);
            if (masked)
                __builtin_prefetch(m + positions[b]);
        }
        for (unsigned long b = 0; b < batch; ++b) {
            const std::size_t i = positions[b];
            if (masked && excludes(m[i]))
                continue;
            const L v = p[i];
            if (steepStep(v, p[i + 1]) || i == 0 || steepStep(v, p[i - 1]))
                continue;
            const double value = static_cast<double>(v);
            sum += value;
            squares += value * value;
            ++kept;
            if (v < smallest)
                smallest = v;
        }
    }
    if (kept < 2)
        return {1.0, 0.0};

    const double mean = sum / static_cast<double>(kept);
    const double sigma = std::sqrt(std::fabs(squares / static_cast<double>(kept - 1) - mean * mean)) * factor;
    const double floor = isInvalidCode(smallest) ? 0.0 : static_cast<double>(smallest);
    const double low = std::max(mean - sigma, floor);
    double high = mean + sigma;
    if (!(high > low))
        high = low + 1;
    return {high, low};
}

#define NORVEXA_INSTANTIATE_COLOR_KERNELS_FOR(L, R)                                                \
    template DImage mapColors<L, R>(const ColorSetup&, const DImage&, const DImage&);               \
    template std::pair<double, double> contrast<L, R>(double, unsigned long, const DImage&,        \
                                                      const DImage&);
/// All twelve mask types for the pixel type L.
#define NORVEXA_INSTANTIATE_COLOR_KERNELS(L)                                                       \
    NORVEXA_INSTANTIATE_COLOR_KERNELS_FOR(L, bool)                                                 \
    NORVEXA_INSTANTIATE_COLOR_KERNELS_FOR(L, char)                                                 \
    NORVEXA_INSTANTIATE_COLOR_KERNELS_FOR(L, signed char)                                          \
    NORVEXA_INSTANTIATE_COLOR_KERNELS_FOR(L, short)                                                \
    NORVEXA_INSTANTIATE_COLOR_KERNELS_FOR(L, int)                                                  \
    NORVEXA_INSTANTIATE_COLOR_KERNELS_FOR(L, long long)                                            \
    NORVEXA_INSTANTIATE_COLOR_KERNELS_FOR(L, unsigned char)                                        \
    NORVEXA_INSTANTIATE_COLOR_KERNELS_FOR(L, unsigned short)                                       \
    NORVEXA_INSTANTIATE_COLOR_KERNELS_FOR(L, unsigned int)                                         \
    NORVEXA_INSTANTIATE_COLOR_KERNELS_FOR(L, unsigned long long)                                   \
    NORVEXA_INSTANTIATE_COLOR_KERNELS_FOR(L, float)                                                \
    NORVEXA_INSTANTIATE_COLOR_KERNELS_FOR(L, double)

} // namespace kernels
} // namespace norvexa

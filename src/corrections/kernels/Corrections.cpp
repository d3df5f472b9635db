// Per-pixel-type loops of the corrections: efficiency factors over the mask's type, and
// the count-rate look-up over (integer image type, mask type).

#include "corrections/kernels/CorrectionKernels.h"

#include "foundation/image/DBinaryDispatcher.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace norvexa {
namespace kernels {

using imglib::DImage;

void efficiencyFactors(const DImage& mask, const EfficiencyModel& model, DImage& factors)
{
    datatypes::dispatchType(mask.type(), mask.typeBits(), [&](auto tag) {
        using M = typename decltype(tag)::type;
        const int width = mask.width(), height = mask.height();
        const M* m = reinterpret_cast<const M*>(mask.cdata());
        char* out = factors.data();
        const float bx = static_cast<float>(model.beamCenterX), by = static_cast<float>(model.beamCenterY);
        const float px = static_cast<float>(model.pixelSizeX), py = static_cast<float>(model.pixelSizeY);
        const double d2 = model.distance * model.distance;
        // Rows outer: each pixel stands alone, and this order walks memory forwards.
        for (int y = 0; y < height; ++y) {
            const float dy = (static_cast<float>(y) - by) * py;
            const double dy2 = static_cast<double>(dy) * dy;
            for (int x = 0; x < width; ++x) {
                const std::size_t i = static_cast<std::size_t>(x) + static_cast<std::size_t>(y) * width;
                if (m[i] != M(0))
                    continue;
                const float dx = (static_cast<float>(x) - bx) * px;
                const double n = std::sqrt(1.0 + (static_cast<double>(dx) * dx + dy2) / d2);
                const float f = static_cast<float>(
                    1.0 / ((1.0 - std::exp(-n * model.sensor)) * std::exp(-n * model.dead)));
                std::memcpy(out + 4 * i, &f, sizeof f);
            }
        }
    });
}

namespace {

using IntegerTypes = datatypes::TypeList<signed char, short, int, long long, unsigned char,
                                         unsigned short, unsigned int, unsigned long long>;

struct ApplyCorrection {
    const std::vector<imglib::DImageModule>* modules;
    long long tableSize;

    template <class T, class M>
    void fire(DImage& image, const DImage& mask) const
    {
        T* pixels = reinterpret_cast<T*>(image.data());
        const M* m = reinterpret_cast<const M*>(mask.cdata());
        const int maskWidth = mask.width();
        const imglib::DRect bounds(0, 0, std::min(image.width(), maskWidth),
                                   std::min(image.height(), mask.height()));
        const long long width = image.width();
        for (const auto& module : *modules) {
            const std::vector<int> table = module.countrate_correction_lookup_table();
            if (table.empty())
                continue;
            const long long stored = static_cast<long long>(table.size());
            const int plateau = table.back();
            // Low counts map to themselves (the correction there is below half a count), and
            // most pixels of a frame are low: blocks of them are passed over on one test.
            unsigned long long identity = 0;
            while (identity < static_cast<unsigned long long>(std::min(stored, tableSize)) &&
                   table[identity] == static_cast<long long>(identity))
                ++identity;
            auto correct = [&](T& pixel, M maskValue) {
                if (maskValue != M(0))
                    return;
                const T value = pixel;
                if constexpr (std::is_signed_v<T>) {
                    // The look-up is bounds-tested: the table raises its own error.
                    if (value < 0)
                        (void)table.at(static_cast<std::size_t>(static_cast<long long>(value)));
                }
                if (static_cast<unsigned long long>(value) >= static_cast<unsigned long long>(tableSize))
                    return;
                const long long v = static_cast<long long>(value);
                pixel = static_cast<T>(v < stored ? table[v] : plateau);
            };
            using U = std::make_unsigned_t<T>;
            // Conservative in U: a value at the limit only takes the full path.
            const U limit = static_cast<U>(std::min<unsigned long long>(identity, std::numeric_limits<U>::max()));
            constexpr int block = 16;
            for (int c = 0; c < module.numberOfChips(); ++c) {
                const imglib::DRect chip = clip(module.absoluteChipGeometry(c), bounds);
                for (int y = chip.top(); y < chip.bottom(); ++y) {
                    T* row = pixels + y * width;
                    const M* maskRow = m + static_cast<long long>(y) * maskWidth;
                    int x = chip.left();
                    for (; x + block <= chip.right(); x += block) {
                        const U* values = reinterpret_cast<const U*>(row + x);
                        unsigned high = 0;
                        for (int k = 0; k < block; ++k) // negative values read as high
                            high |= values[k] >= limit;
                        if (!high)
                            continue;
                        for (int k = 0; k < block; ++k)
                            correct(row[x + k], maskRow[x + k]);
                    }
                    for (; x < chip.right(); ++x)
                        correct(row[x], maskRow[x]);
                }
            }
        }
    }

    // Chips of bad metadata may reach outside the frame: they are cut to it.
    static imglib::DRect clip(const imglib::DRect& r, const imglib::DRect& bounds)
    {
        const int left = std::max(r.left(), bounds.left()), top = std::max(r.top(), bounds.top());
        const int right = std::min(r.right(), bounds.right()), bottom = std::min(r.bottom(), bounds.bottom());
        return imglib::DRect(left, top, std::max(0, right - left), std::max(0, bottom - top));
    }
};

} // namespace

void applyRateTables(DImage& image, const DImage& mask, const std::vector<imglib::DImageModule>& modules,
                     long long tableSize)
{
    datatypes::BinaryDispatcher<ApplyCorrection, DImage, const DImage, void, IntegerTypes,
                                datatypes::PixelTypeList>::Go(image, mask, ApplyCorrection{&modules, tableSize});
}

} // namespace kernels
} // namespace norvexa

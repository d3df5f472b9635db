#include "Picture.h"

#include "PixelTypes.h"

#include "DColorMap.h"
#include "DContrast.h"
#include "DDetector.h"
#include "foundation/DException.h"

#include <png.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <sstream>
#include <type_traits>
#include <vector>

using namespace norvexa::imglib;

namespace norvexa {
namespace view {

namespace {

/// The flag word the colour mapping sees for one mask value: a bool marks gaps only,
/// a floating mask nothing, any other type bits 0 to 4 of its absolute value.
template <class M>
std::uint8_t flagsOf(M m)
{
    if constexpr (std::is_same_v<M, bool>)
        return m ? 1 : 0;
    else if constexpr (std::is_floating_point_v<M>)
        return 0;
    else if constexpr (std::is_signed_v<M>)
        return static_cast<std::uint8_t>((m < 0 ? -static_cast<long long>(m) : static_cast<long long>(m)) & 31);
    else
        return static_cast<std::uint8_t>(m & 31u);
}

template <class T>
const T* pixelsOf(const DImage& image)
{
    return reinterpret_cast<const T*>(image.cdata());
}

} // namespace

DImage maskFlags(const DImage& frame)
{
    if (frame.empty())
        return DImage();
    boost::optional<DImage> mask;
    if (frame.optionalData().pixelMaskSize())
        mask = frame.optionalData().pixel_mask();
    else
        mask = DDetector::mask(frame);
    DImage flags;
    if (mask && mask->width() == frame.width() && mask->height() == frame.height())
        flags = flagsOfMask(*mask);
    return flags.empty() ? flagsOfCodes(frame) : flags;
}

DImage flagsOfCodes(const DImage& frame)
{
    DImage flags(frame.width(), frame.height(), static_cast<unsigned char>(0));
    auto* out = reinterpret_cast<std::uint8_t*>(flags.data());
    bool any = false;
    visitPixelType(frame, [&](auto tag) {
        using T = typename decltype(tag)::type;
        if constexpr (std::is_same_v<T, bool> || std::is_same_v<T, char> ||
                      (std::is_unsigned_v<T> && sizeof(T) < 4)) {
            return; // no codes
        } else {
            T gap, defective;
            if constexpr (std::is_unsigned_v<T>) {
                gap = std::numeric_limits<T>::max();
                defective = T(gap - 1);
            } else {
                gap = T(-1);
                defective = T(-2);
            }
            const T* p = pixelsOf<T>(frame);
            for (std::size_t i = 0; i < flags.size(); ++i) {
                out[i] = static_cast<std::uint8_t>((p[i] == gap) | ((p[i] == defective) << 1));
                any |= out[i] != 0;
            }
        }
    });
    return any ? flags : DImage();
}

DImage flagsOfMask(const DImage& mask)
{
    if (mask.empty())
        return DImage();
    DImage flags(mask.width(), mask.height(), static_cast<unsigned char>(0));
    auto* out = reinterpret_cast<std::uint8_t*>(flags.data());
    bool any = false;
    visitPixelType(mask, [&](auto tag) {
        using M = typename decltype(tag)::type;
        const M* m = pixelsOf<M>(mask);
        for (std::size_t i = 0; i < flags.size(); ++i) {
            out[i] = flagsOf(m[i]);
            any |= out[i] != 0;
        }
    });
    return any ? flags : DImage();
}

Limits autoLimits(const DImage& frame, const DImage& flags)
{
    Limits limits;
    // Eight deviations: the background light and even, the spots above it in the heat colours.
    DContrast(8, 100000)(limits.high, limits.low, frame, flags.empty() ? nullptr : &flags);
    double brightest = limits.high;
    const std::uint8_t* f = flags.empty() ? nullptr : pixelsOf<std::uint8_t>(flags);
    visitPixelType(frame, [&](auto tag) {
        using T = typename decltype(tag)::type;
        const T* p = pixelsOf<T>(frame);
        // The two largest values of a 32- or 64-bit unsigned frame are invalid-pixel codes.
        constexpr bool coded = std::is_unsigned_v<T> && sizeof(T) >= 4;
        const T ceiling = [] {
            if constexpr (coded)
                return T(std::numeric_limits<T>::max() - 2);
            else
                return std::numeric_limits<T>::max();
        }();
        T top = std::numeric_limits<T>::lowest();
        bool found = false;
        for (std::size_t i = 0; i < frame.size(); ++i)
            if ((!f || f[i] == 0) && p[i] > top && p[i] <= ceiling) {
                top = p[i];
                found = true;
            }
        if (found)
            brightest = std::max(brightest, static_cast<double>(top));
    });
    limits.logHigh = brightest > limits.high ? brightest : limits.high * 10;
    if (!(limits.logHigh > limits.high))
        limits.logHigh = limits.high + 1;
    return limits;
}

void binByMaximum(const DImage& frame, const DImage& flags, const DRect& region, int bin, DImage& binned,
                  DImage& binnedFlags)
{
    const int outWidth = (region.width() + bin - 1) / bin, outHeight = (region.height() + bin - 1) / bin;
    const int width = region.width();
    binned = DImage(outWidth, outHeight, frame.type(), frame.dataSize());
    binnedFlags = flags.empty() ? DImage() : DImage(outWidth, outHeight, static_cast<unsigned char>(0));
    const std::uint8_t* f = flags.empty() ? nullptr : pixelsOf<std::uint8_t>(flags);
    auto* of = flags.empty() ? nullptr : reinterpret_cast<std::uint8_t*>(binnedFlags.data());
    const std::size_t stride = static_cast<std::size_t>(frame.width());
    visitPixelType(frame, [&](auto tag) {
        using T = typename decltype(tag)::type;
        constexpr T lowest = std::numeric_limits<T>::lowest();
        const T* p = pixelsOf<T>(frame);
        T* out = reinterpret_cast<T*>(binned.data());
        // First down the columns of a band of `bin` rows, in loops over whole rows that
        // vectorise, then across each bin of the band's column maxima.
        // Arrays, not vectors: std::vector<bool> has no data().
        const auto columns = static_cast<std::size_t>(width);
        const std::unique_ptr<T[]> top(new T[columns]);
        const std::unique_ptr<std::uint8_t[]> valid(new std::uint8_t[columns]), seen(new std::uint8_t[columns]);
        T* t = top.get();
        std::uint8_t* va = valid.get();
        std::uint8_t* se = seen.get();
        for (int oy = 0; oy < outHeight; ++oy) {
            std::fill_n(t, columns, lowest);
            std::fill_n(va, columns, std::uint8_t(0));
            std::fill_n(se, columns, std::uint8_t(0));
            const int y0 = region.top() + oy * bin, y1 = std::min(y0 + bin, region.bottom());
            for (int y = y0; y < y1; ++y) {
                const T* row = p + y * stride + region.left();
                if (!f) {
                    for (int x = 0; x < width; ++x)
                        t[x] = row[x] > t[x] ? row[x] : t[x];
                    continue;
                }
                const std::uint8_t* frow = f + y * stride + region.left();
                for (int x = 0; x < width; ++x) {
                    const T v = frow[x] == 0 ? row[x] : lowest;
                    t[x] = v > t[x] ? v : t[x];
                    va[x] |= static_cast<std::uint8_t>(frow[x] == 0);
                    se[x] |= frow[x];
                }
            }
            T* line = out + static_cast<std::size_t>(oy) * outWidth;
            std::uint8_t* flagLine = of ? of + static_cast<std::size_t>(oy) * outWidth : nullptr;
            for (int ox = 0, x = 0; ox < outWidth; ++ox) {
                const int end = std::min(x + bin, width);
                T m = lowest;
                std::uint8_t anyValid = 0, all = 0;
                for (; x < end; ++x) {
                    m = t[x] > m ? t[x] : m;
                    anyValid |= va[x];
                    all |= se[x];
                }
                const bool none = f && !anyValid;
                line[ox] = none ? T(0) : m;
                if (flagLine)
                    flagLine[ox] = none ? all : std::uint8_t(0);
            }
        }
    });
}

int binFor(int width, int height, int screenWidth, int screenHeight)
{
    const int bx = (width + screenWidth - 1) / screenWidth, by = (height + screenHeight - 1) / screenHeight;
    return std::max(1, std::max(bx, by));
}

DImage colourRegion(const DImage& frame, const DImage& flags, const DRect& region, int bin, const Colouring& colouring)
{
    const Limits& l = colouring.limits;
    if (bin <= 1) {
        DRect rect = region;
        return DColorMap::rgb(frame, l.high, l.low, l.logHigh, *colouring.table, "ARGB",
                              flags.empty() ? nullptr : &flags, &rect, colouring.saturationValue, true,
                              colouring.showSaturated);
    }
    DImage binned, binnedFlags;
    binByMaximum(frame, flags, region, bin, binned, binnedFlags);
    return DColorMap::rgb(binned, l.high, l.low, l.logHigh, *colouring.table, "ARGB",
                          binnedFlags.empty() ? nullptr : &binnedFlags, nullptr, colouring.saturationValue, true,
                          colouring.showSaturated);
}

namespace {

/// The libpng calls; false where libpng gave up. It reports failures by a long jump back
/// into this function, which therefore holds nothing with a destructor.
bool writeRows(png_structp png, png_infop info, int width, int height, png_bytepp rows, int level, int filters,
               int strategy)
{
    if (setjmp(png_jmpbuf(png)))
        return false;
    png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8, PNG_COLOR_TYPE_RGB,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_compression_level(png, level);
    png_set_compression_strategy(png, strategy);
    png_set_filter(png, PNG_FILTER_TYPE_BASE, filters);
    png_write_info(png, info);
    // The rows hold 0xAARRGGBB words, little-endian B, G, R, A in memory: drop the alpha
    // byte behind, swap to R, G, B.
    png_set_filler(png, 0, PNG_FILLER_AFTER);
    png_set_bgr(png);
    png_write_image(png, rows);
    png_write_end(png, nullptr);
    return true;
}

void appendBytes(png_structp png, png_bytep data, png_size_t length)
{
    auto* out = static_cast<std::string*>(png_get_io_ptr(png));
    out->append(reinterpret_cast<const char*>(data), length);
}

} // namespace

std::string encodePng(const DImage& argb, bool bottomUp)
{
    // Of the settings that bench_view measures, the quickest at a size close to the
    // smallest for these pictures: noisy backgrounds gain nothing from row filters.
    return encodePng(argb, bottomUp, 1, PNG_FILTER_NONE, Z_DEFAULT_STRATEGY);
}

std::string encodePng(const DImage& argb, bool bottomUp, int level, int filters, int strategy)
{
    static_assert(sizeof(unsigned int) == 4, "colour words are 32 bits");
    const int width = argb.width(), height = argb.height();
    std::vector<png_bytep> rows(static_cast<std::size_t>(height));
    for (int y = 0; y < height; ++y) {
        const int row = bottomUp ? height - 1 - y : y;
        rows[static_cast<std::size_t>(y)] =
            reinterpret_cast<png_bytep>(const_cast<char*>(argb.cdata())) + std::size_t(row) * width * 4;
    }
    std::string out;
    out.reserve(std::size_t(width) * height + 1024);
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    bool written = false;
    if (info) {
        png_set_write_fn(png, &out, &appendBytes, nullptr);
        written = writeRows(png, info, width, height, rows.data(), level, filters, strategy);
    }
    png_destroy_write_struct(&png, &info);
    if (!written)
        throw DRuntimeException("PNG encoding failed");
    return out;
}

std::string pixelText(const DImage& frame, int x, int y)
{
    std::ostringstream text;
    visitPixelType(frame, [&](auto tag) {
        using T = typename decltype(tag)::type;
        const T v = pixelsOf<T>(frame)[std::size_t(y) * frame.width() + x];
        if constexpr (std::is_same_v<T, bool>)
            text << (v ? 1 : 0);
        else if constexpr (sizeof(T) == 1)
            text << static_cast<int>(v);
        else {
            text.precision(std::numeric_limits<T>::max_digits10);
            text << v;
        }
    });
    return text.str();
}

} // namespace view
} // namespace norvexa

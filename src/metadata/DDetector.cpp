#include "DDetector.h"

#include "foundation/image/DBinaryDispatcher.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace norvexa {
namespace imglib {

namespace {

struct Family {
    int moduleWidth, moduleHeight;
    int pitchX, pitchY; // module plus gap
};

constexpr Family kBrennik{487, 195, 494, 212};
constexpr Family kOrvik{1030, 514, 1040, 551};

bool fits(const Family& family, int width, int height)
{
    // One module is the smallest frame; the lower bound also keeps the subtraction in range.
    return width >= family.moduleWidth && height >= family.moduleHeight &&
           (width - family.moduleWidth) % family.pitchX == 0 &&
           (height - family.moduleHeight) % family.pitchY == 0;
}

/// Brennik first, as everywhere.
const Family* familyOf(int width, int height)
{
    if (fits(kBrennik, width, height))
        return &kBrennik;
    if (fits(kOrvik, width, height))
        return &kOrvik;
    return nullptr;
}

// The pixel_mask convention.
constexpr std::uint32_t kValid = 0;
constexpr std::uint32_t kGap = 1;
constexpr std::uint32_t kDefective = 2;

/// Pixel types whose values the mask never reads: they cannot hold the defect code.
template <class T>
constexpr bool kGapsOnly = std::is_same_v<T, bool> || std::is_same_v<T, unsigned char> ||
                           std::is_same_v<T, unsigned short>;

// A pixel read as int: integers by the language's conversion (64-bit ones keep their low
// 32 bits, so 0xFFFFFFFE is -2), floating ones truncated toward zero with saturation. The
// floating tests below compare in their own type, which gives the same answers without a
// conversion that is undefined out of range: -2 is the interval (-3, -2], below -2 is
// -3 and less, and NaN is neither.

/// 2 for a pixel that reads as -2, else 0.
template <class T>
inline std::uint32_t defectMark(T v)
{
    if constexpr (std::is_floating_point_v<T>) {
        // Both comparisons, without a short circuit: a body without branches vectorises.
        const unsigned minusTwo = static_cast<unsigned>(v <= T(-2)) & static_cast<unsigned>(v > T(-3));
        return minusTwo ? kDefective : kValid;
    } else {
        return static_cast<int>(v) == -2 ? kDefective : kValid;
    }
}

/// 1 for a pixel that reads below -2.
template <class T>
inline unsigned belowDefectCode(T v)
{
    if constexpr (std::is_floating_point_v<T>)
        return v <= T(-3);
    else
        return static_cast<int>(v) < -2;
}

// Loops over whole blocks of a fixed length: GCC's vectoriser at -O2 takes a loop only if
// the vector code replaces it entirely. The rest runs scalar.
constexpr std::size_t kBlock = 16;

/// Module pixels: 2 or 0. Returns whether any pixel read below -2.
template <class T>
unsigned markModulePixels(const T* __restrict in, std::uint32_t* __restrict out, std::size_t n)
{
    unsigned below = 0;
    std::size_t x = 0;
    for (; x + kBlock <= n; x += kBlock)
        for (std::size_t k = 0; k < kBlock; ++k) {
            out[x + k] = defectMark(in[x + k]);
            below |= belowDefectCode(in[x + k]);
        }
    for (; x < n; ++x) {
        out[x] = defectMark(in[x]);
        below |= belowDefectCode(in[x]);
    }
    return below;
}

/// Gap pixels: 1, but their values still count for the watch.
template <class T>
unsigned markGapPixels(const T* __restrict in, std::uint32_t* __restrict out, std::size_t n)
{
    std::fill_n(out, n, kGap);
    unsigned below = 0;
    std::size_t x = 0;
    for (; x + kBlock <= n; x += kBlock)
        for (std::size_t k = 0; k < kBlock; ++k)
            below |= belowDefectCode(in[x + k]);
    for (; x < n; ++x)
        below |= belowDefectCode(in[x]);
    return below;
}

bool isGapRow(std::size_t y, const Family& family)
{
    return y % static_cast<std::size_t>(family.pitchY) >= static_cast<std::size_t>(family.moduleHeight);
}

/// Rows [y, height) with 1 in the gaps and 0 elsewhere, without reading the frame.
void writeGapRows(std::uint32_t* mask, std::size_t width, std::size_t y, std::size_t height,
                  const Family& family)
{
    const std::size_t moduleWidth = static_cast<std::size_t>(family.moduleWidth);
    const std::size_t pitchX = static_cast<std::size_t>(family.pitchX);
    for (; y < height; ++y) {
        std::uint32_t* out = mask + y * width;
        if (isGapRow(y, family)) {
            std::fill_n(out, width, kGap);
            continue;
        }
        for (std::size_t x = 0; x < width; x += pitchX) {
            const std::size_t moduleEnd = std::min(x + moduleWidth, width);
            std::fill(out + x, out + moduleEnd, kValid);
            std::fill(out + moduleEnd, out + std::min(x + pitchX, width), kGap);
        }
    }
}

template <class T>
void writeMask(const T* pixels, std::uint32_t* mask, std::size_t width, std::size_t height,
               const Family* family)
{
    if (!family) {
        if (width * height != 0)
            std::memset(mask, 0, width * height * sizeof *mask);
        return;
    }
    std::size_t y = 0;
    if constexpr (!kGapsOnly<T>) {
        const std::size_t moduleWidth = static_cast<std::size_t>(family->moduleWidth);
        const std::size_t pitchX = static_cast<std::size_t>(family->pitchX);
        for (; y < height; ++y) {
            const T* in = pixels + y * width;
            std::uint32_t* out = mask + y * width;
            unsigned below = 0;
            if (isGapRow(y, *family)) {
                below = markGapPixels(in, out, width);
            } else {
                for (std::size_t x = 0; x < width; x += pitchX) {
                    const std::size_t moduleEnd = std::min(x + moduleWidth, width);
                    below |= markModulePixels(in + x, out + x, moduleEnd - x);
                    below |= markGapPixels(in + moduleEnd, out + moduleEnd,
                                           std::min(x + pitchX, width) - moduleEnd);
                }
            }
            if (below) {
                // A value below -2 means the frame is not raw counts, so its -2 is no defect
                // code either: all or none are marked. Take back what this pass marked.
                std::replace(mask, out + width, kDefective, kValid);
                ++y;
                break;
            }
        }
    }
    writeGapRows(mask, width, y, height, *family);
}

} // namespace

bool DDetector::isBrennik(int width, int height) { return fits(kBrennik, width, height); }

bool DDetector::isBrennik(const DImage& image) { return isBrennik(image.width(), image.height()); }

bool DDetector::isOrvik(int width, int height) { return fits(kOrvik, width, height); }

bool DDetector::isOrvik(const DImage& image) { return isOrvik(image.width(), image.height()); }

DImage DDetector::mask(const DImage& image)
{
    const int width = image.width(), height = image.height();
    DImage result(width, height, datatypes::UINT, sizeof(std::uint32_t));
    auto* out = reinterpret_cast<std::uint32_t*>(result.data());
    const Family* family = familyOf(width, height);
    // The pixel type is resolved once; an unimplemented one fails here, after the
    // allocation and before anything is written.
    datatypes::dispatchType(image.type(), image.typeBits(), [&](auto tag) {
        using T = typename decltype(tag)::type;
        writeMask(reinterpret_cast<const T*>(image.cdata()), out, static_cast<std::size_t>(width),
                  static_cast<std::size_t>(height), family);
    });
    return result;
}

std::vector<DImageModule> DDetector::modules(int width, int height)
{
    std::vector<DImageModule> result;
    const Family* family = familyOf(width, height);
    if (!family)
        return result;
    const int cols = width / family->pitchX + 1;
    if (family == &kBrennik) {
        // Two rows of eight chips of 60 x 97, one pixel apart.
        std::vector<DRect> chips;
        for (int i = 0; i < 16; ++i)
            chips.emplace_back(61 * (i % 8), i < 8 ? 0 : 98, 60, 97);
        const DImageModule module(DRect(0, 0, family->moduleWidth, family->moduleHeight), chips, -1);
        const int rows = height / family->pitchY + 1;
        result.reserve(static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols));
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < cols; ++c) {
                result.push_back(module);
                result.back().move(c * family->pitchX, r * family->pitchY);
                result.back().setModuleNumber(r + c * rows);
            }
        return result;
    }
    // An Orvik module is two half modules of 1030 x 257, each a row of four chips of
    // 256 x 256; the odd half's chips start one row lower.
    const int halfHeight = family->moduleHeight / 2;
    auto halfModule = [&](int chipTop) {
        std::vector<DRect> chips;
        for (int i = 0; i < 4; ++i)
            chips.emplace_back(258 * i, chipTop, 256, 256);
        return DImageModule(DRect(0, 0, family->moduleWidth, halfHeight), chips, -1);
    };
    const DImageModule even = halfModule(0), odd = halfModule(1);
    const int rows = 2 * (height / family->pitchY) + 2;
    result.reserve(static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols));
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            result.push_back(r % 2 ? odd : even);
            result.back().move(c * family->pitchX, (r / 2) * family->pitchY + (r % 2) * halfHeight);
            result.back().setModuleNumber(r + c * rows);
        }
    return result;
}

} // namespace imglib
} // namespace norvexa

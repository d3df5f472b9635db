#pragma once

#include <cstdint>
#include <type_traits>

namespace norvexa {
namespace imglib {

/// A pixel position with a value, for lists of pixels that travel beside a frame (peaks,
/// hot pixels) in a DArray<DPixel>. A plain 16-byte value: it is copied as raw bytes,
/// also into and out of shared memory. The library gives the fields no meaning of its
/// own; a value of INVALID marks a pixel without one, and is what a new DPixel holds.
struct DPixel {
    /// The smallest positive normal double: no measured value is that small.
    static constexpr double INVALID = 2.2250738585072014e-308;

    std::int32_t x = 0;
    std::int32_t y = 0;
    double value = INVALID;
};

inline bool operator==(const DPixel& a, const DPixel& b) noexcept
{
    return a.x == b.x && a.y == b.y && a.value == b.value;
}
inline bool operator!=(const DPixel& a, const DPixel& b) noexcept { return !(a == b); }

static_assert(sizeof(DPixel) == 16, "a DPixel crosses processes as 16 raw bytes");
static_assert(std::is_trivially_copyable<DPixel>::value, "a DPixel is copied as raw bytes");

} // namespace imglib
} // namespace norvexa

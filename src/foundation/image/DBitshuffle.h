#pragma once

#include <cstddef>

namespace norvexa {
namespace image {

/// The bit transposition of a block of elements, in the layout of the bitshuffle chunks.
///
/// A block of n elements (n a multiple of 8) of s bytes each becomes 8 * s bit rows of
/// n / 8 bytes. Row 8 * j + k holds bit k of byte j of every element; element i sits at
/// bit i % 8 of byte i / 8 of its row. bitunshuffle undoes bitshuffle.
struct DBitshuffle {
    /// The instruction set a transposition runs on. PATH_AUTO takes the best one the
    /// processor offers; the others exist so that tests and benchmarks can compare them.
    enum PATH {
        PATH_AUTO = 0,
        PATH_SCALAR = 1,
        PATH_SSE2 = 2,
        PATH_AVX2 = 3,
    };

    /// Whether `path` can run on this processor (PATH_AUTO and PATH_SCALAR always can).
    static bool available(PATH path);
    /// The path that PATH_AUTO stands for on this processor.
    static PATH best();
    /// A short name of the path, for test labels and benchmark names.
    static const char* name(PATH path);
};

namespace codec {

/// Transposes `nElements` elements of `elementSize` bytes from `in` into bit rows in `out`.
/// `nElements` must be a multiple of 8; the buffers must not overlap. The vector paths
/// exist for element sizes 1, 2, 4 and 8; other sizes run the scalar code on every path.
/// Raises DBadParameterException for a count that is not a multiple of 8, an element size
/// of 0, or a path that this processor can't run.
void bitshuffle(const void* in, void* out, std::size_t nElements, std::size_t elementSize,
                DBitshuffle::PATH path = DBitshuffle::PATH_AUTO);

/// The inverse of bitshuffle: bit rows in `in` back to `nElements` elements in `out`.
void bitunshuffle(const void* in, void* out, std::size_t nElements, std::size_t elementSize,
                  DBitshuffle::PATH path = DBitshuffle::PATH_AUTO);

} // namespace codec
} // namespace image
} // namespace norvexa

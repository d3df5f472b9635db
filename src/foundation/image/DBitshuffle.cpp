#include "foundation/image/DBitshuffle.h"

#include "foundation/DException.h"

#include <cstdint>

#if defined(__x86_64__) || defined(__i386__)
#define NORVEXA_BITSHUFFLE_X86 1
#include <immintrin.h>
#define NORVEXA_AVX2 __attribute__((target("avx2")))
#endif

namespace norvexa {
namespace image {

namespace {

const char* const TEXT_COUNT = "Bitshuffle element count is not a multiple of 8";
const char* const TEXT_ELEMENT_SIZE = "Bitshuffle element size is invalid";
const char* const TEXT_PATH = "Instruction set is not available on this processor";

using std::size_t;
using std::uint8_t;
using std::uint64_t;

// Transposes the 8x8 bit matrix whose row r is byte r and column c is bit c.
inline uint64_t transpose8x8(uint64_t x)
{
    uint64_t t = (x ^ (x >> 7)) & 0x00AA00AA00AA00AAull;
    x ^= t ^ (t << 7);
    t = (x ^ (x >> 14)) & 0x0000CCCC0000CCCCull;
    x ^= t ^ (t << 14);
    t = (x ^ (x >> 28)) & 0x00000000F0F0F0F0ull;
    x ^= t ^ (t << 28);
    return x;
}

// Scalar code for the groups [g0, g1) of 8 elements; R is the length of a bit row.
void shuffleScalar(const uint8_t* in, uint8_t* out, size_t R, size_t s, size_t g0, size_t g1)
{
    for (size_t g = g0; g < g1; ++g) {
        const uint8_t* src = in + 8 * g * s;
        for (size_t j = 0; j < s; ++j) {
            uint64_t x = 0;
            for (unsigned e = 0; e < 8; ++e)
                x |= uint64_t(src[e * s + j]) << (8 * e);
            x = transpose8x8(x);
            uint8_t* dst = out + 8 * j * R + g;
            for (unsigned k = 0; k < 8; ++k)
                dst[k * R] = uint8_t(x >> (8 * k));
        }
    }
}

void unshuffleScalar(const uint8_t* in, uint8_t* out, size_t R, size_t s, size_t g0, size_t g1)
{
    for (size_t g = g0; g < g1; ++g) {
        uint8_t* dst = out + 8 * g * s;
        for (size_t j = 0; j < s; ++j) {
            const uint8_t* src = in + 8 * j * R + g;
            uint64_t x = 0;
            for (unsigned k = 0; k < 8; ++k)
                x |= uint64_t(src[k * R]) << (8 * k);
            x = transpose8x8(x);
            for (unsigned e = 0; e < 8; ++e)
                dst[e * s + j] = uint8_t(x >> (8 * e));
        }
    }
}

#ifdef NORVEXA_BITSHUFFLE_X86

// ---- SSE2: tiles of 16 groups (128 elements) -------------------------------------------
//
// The vector paths work on tiles: for each byte j of the element, the 8 bit rows of the
// tile are transposed as 8x8 bit matrices across registers (byte g of register k is row k
// of group g's matrix), and the byte planes of the tile meet the elements through a small
// buffer that stays in L1.

template <int S>
inline void swapBits(__m128i& a, __m128i& b, __m128i mask)
{
    const __m128i t = _mm_and_si128(_mm_xor_si128(_mm_srli_epi16(a, S), b), mask);
    b = _mm_xor_si128(b, t);
    a = _mm_xor_si128(a, _mm_slli_epi16(t, S));
}

inline void bitTranspose(__m128i* v)
{
    const __m128i m4 = _mm_set1_epi8(0x0F), m2 = _mm_set1_epi8(0x33), m1 = _mm_set1_epi8(0x55);
    swapBits<4>(v[0], v[4], m4);
    swapBits<4>(v[1], v[5], m4);
    swapBits<4>(v[2], v[6], m4);
    swapBits<4>(v[3], v[7], m4);
    swapBits<2>(v[0], v[2], m2);
    swapBits<2>(v[1], v[3], m2);
    swapBits<2>(v[4], v[6], m2);
    swapBits<2>(v[5], v[7], m2);
    swapBits<1>(v[0], v[1], m1);
    swapBits<1>(v[2], v[3], m1);
    swapBits<1>(v[4], v[5], m1);
    swapBits<1>(v[6], v[7], m1);
}

inline __m128i load16(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline void store16(uint8_t* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }

// Even and odd bytes of a and b.
inline void deinterleave8(__m128i a, __m128i b, __m128i& lo, __m128i& hi)
{
    const __m128i m = _mm_set1_epi16(0x00FF);
    lo = _mm_packus_epi16(_mm_and_si128(a, m), _mm_and_si128(b, m));
    hi = _mm_packus_epi16(_mm_srli_epi16(a, 8), _mm_srli_epi16(b, 8));
}

// Even and odd 16-bit words; sign extension keeps the signed pack exact.
inline void deinterleave16(__m128i a, __m128i b, __m128i& lo, __m128i& hi)
{
    lo = _mm_packs_epi32(_mm_srai_epi32(_mm_slli_epi32(a, 16), 16), _mm_srai_epi32(_mm_slli_epi32(b, 16), 16));
    hi = _mm_packs_epi32(_mm_srai_epi32(a, 16), _mm_srai_epi32(b, 16));
}

inline void deinterleave32(__m128i a, __m128i b, __m128i& lo, __m128i& hi)
{
    a = _mm_shuffle_epi32(a, _MM_SHUFFLE(3, 1, 2, 0));
    b = _mm_shuffle_epi32(b, _MM_SHUFFLE(3, 1, 2, 0));
    lo = _mm_unpacklo_epi64(a, b);
    hi = _mm_unpackhi_epi64(a, b);
}

// Elements of 4 bytes, x[0..3], into byte planes p[0..3].
inline void splitBytes4(const __m128i* x, __m128i* p)
{
    __m128i l01, h01, l23, h23;
    deinterleave16(x[0], x[1], l01, h01);
    deinterleave16(x[2], x[3], l23, h23);
    deinterleave8(l01, l23, p[0], p[1]);
    deinterleave8(h01, h23, p[2], p[3]);
}

// One tile of elements (128 * S bytes at `in`) into its S byte planes of 128 bytes.
template <int S>
inline void splitPlanesSse2(const uint8_t* in, uint8_t (*planes)[128])
{
    for (int q = 0; q < 8; ++q) {
        const uint8_t* src = in + 16 * S * q;
        // Loads one by one: a loop of them becomes a copy through the stack.
        __m128i p[S];
        if constexpr (S == 2) {
            deinterleave8(load16(src), load16(src + 16), p[0], p[1]);
        } else if constexpr (S == 4) {
            const __m128i x[4] = {load16(src), load16(src + 16), load16(src + 32), load16(src + 48)};
            splitBytes4(x, p);
        } else {
            __m128i a[4], b[4];
            deinterleave32(load16(src), load16(src + 16), a[0], b[0]);
            deinterleave32(load16(src + 32), load16(src + 48), a[1], b[1]);
            deinterleave32(load16(src + 64), load16(src + 80), a[2], b[2]);
            deinterleave32(load16(src + 96), load16(src + 112), a[3], b[3]);
            splitBytes4(a, p);
            splitBytes4(b, p + 4);
        }
        for (int j = 0; j < S; ++j)
            store16(planes[j] + 16 * q, p[j]);
    }
}

template <int S>
void shuffleTileSse2(const uint8_t* in, uint8_t* out, size_t R, size_t g0)
{
    alignas(16) uint8_t planes[S][128];
    const uint8_t* tile = in + 8 * g0 * S;
    if constexpr (S > 1)
        splitPlanesSse2<S>(tile, planes);
    // The tile's part of each bit row is gathered here and leaves in one wide store.
    alignas(16) std::uint16_t rows[8 * S][8];
    for (int j = 0; j < S; ++j) {
        const uint8_t* plane = S == 1 ? tile : planes[j];
        for (int m = 0; m < 8; ++m) {
            // The sign bits of 16 elements are 2 bytes of a bit row; a shift by 7 - k brings
            // up bit k. Shifted copies side by side rather than one chain of doublings.
            const __m128i v = load16(plane + 16 * m);
            std::uint16_t* r = rows[8 * j] + m;
            r[7 * 8] = std::uint16_t(_mm_movemask_epi8(v));
            r[6 * 8] = std::uint16_t(_mm_movemask_epi8(_mm_add_epi8(v, v)));
            r[5 * 8] = std::uint16_t(_mm_movemask_epi8(_mm_slli_epi16(v, 2)));
            r[4 * 8] = std::uint16_t(_mm_movemask_epi8(_mm_slli_epi16(v, 3)));
            r[3 * 8] = std::uint16_t(_mm_movemask_epi8(_mm_slli_epi16(v, 4)));
            r[2 * 8] = std::uint16_t(_mm_movemask_epi8(_mm_slli_epi16(v, 5)));
            r[1 * 8] = std::uint16_t(_mm_movemask_epi8(_mm_slli_epi16(v, 6)));
            r[0] = std::uint16_t(_mm_movemask_epi8(_mm_slli_epi16(v, 7)));
        }
    }
    for (int r = 0; r < 8 * S; ++r)
        store16(out + r * R + g0, _mm_load_si128(reinterpret_cast<const __m128i*>(rows[r])));
}

template <int S>
void unshuffleTileSse2(const uint8_t* in, uint8_t* out, size_t R, size_t g0)
{
    alignas(16) uint8_t planes[S][128];
    uint8_t* tile = out + 8 * g0 * S;
    for (int j = 0; j < S; ++j) {
        __m128i v[8];
        for (int k = 0; k < 8; ++k)
            v[k] = load16(in + (8 * j + k) * R + g0);
        bitTranspose(v);
        // v[e] byte g is now byte j of element 8 * g + e: transpose 8 x 16 bytes into the plane.
        const __m128i a0 = _mm_unpacklo_epi8(v[0], v[1]), a1 = _mm_unpackhi_epi8(v[0], v[1]);
        const __m128i a2 = _mm_unpacklo_epi8(v[2], v[3]), a3 = _mm_unpackhi_epi8(v[2], v[3]);
        const __m128i a4 = _mm_unpacklo_epi8(v[4], v[5]), a5 = _mm_unpackhi_epi8(v[4], v[5]);
        const __m128i a6 = _mm_unpacklo_epi8(v[6], v[7]), a7 = _mm_unpackhi_epi8(v[6], v[7]);
        const __m128i b0 = _mm_unpacklo_epi16(a0, a2), b1 = _mm_unpackhi_epi16(a0, a2);
        const __m128i b2 = _mm_unpacklo_epi16(a1, a3), b3 = _mm_unpackhi_epi16(a1, a3);
        const __m128i b4 = _mm_unpacklo_epi16(a4, a6), b5 = _mm_unpackhi_epi16(a4, a6);
        const __m128i b6 = _mm_unpacklo_epi16(a5, a7), b7 = _mm_unpackhi_epi16(a5, a7);
        uint8_t* dst = S == 1 ? tile : planes[j];
        store16(dst + 0, _mm_unpacklo_epi32(b0, b4));
        store16(dst + 16, _mm_unpackhi_epi32(b0, b4));
        store16(dst + 32, _mm_unpacklo_epi32(b1, b5));
        store16(dst + 48, _mm_unpackhi_epi32(b1, b5));
        store16(dst + 64, _mm_unpacklo_epi32(b2, b6));
        store16(dst + 80, _mm_unpackhi_epi32(b2, b6));
        store16(dst + 96, _mm_unpacklo_epi32(b3, b7));
        store16(dst + 112, _mm_unpackhi_epi32(b3, b7));
    }
    // Interleave the byte planes into elements, 16 at a time.
    for (int q = 0; q < 8; ++q) {
        const int o = 16 * q;
        [[maybe_unused]] uint8_t* dst = tile + S * o; // S == 1: the planes were the elements
        if constexpr (S == 2) {
            const __m128i p0 = load16(planes[0] + o), p1 = load16(planes[1] + o);
            store16(dst, _mm_unpacklo_epi8(p0, p1));
            store16(dst + 16, _mm_unpackhi_epi8(p0, p1));
        } else if constexpr (S == 4) {
            const __m128i p0 = load16(planes[0] + o), p1 = load16(planes[1] + o);
            const __m128i p2 = load16(planes[2] + o), p3 = load16(planes[3] + o);
            const __m128i a = _mm_unpacklo_epi8(p0, p1), b = _mm_unpackhi_epi8(p0, p1);
            const __m128i c = _mm_unpacklo_epi8(p2, p3), d = _mm_unpackhi_epi8(p2, p3);
            store16(dst, _mm_unpacklo_epi16(a, c));
            store16(dst + 16, _mm_unpackhi_epi16(a, c));
            store16(dst + 32, _mm_unpacklo_epi16(b, d));
            store16(dst + 48, _mm_unpackhi_epi16(b, d));
        } else if constexpr (S == 8) {
            __m128i p[8];
            for (int i = 0; i < 8; ++i)
                p[i] = load16(planes[i] + o);
            const __m128i a01l = _mm_unpacklo_epi8(p[0], p[1]), a01h = _mm_unpackhi_epi8(p[0], p[1]);
            const __m128i a23l = _mm_unpacklo_epi8(p[2], p[3]), a23h = _mm_unpackhi_epi8(p[2], p[3]);
            const __m128i a45l = _mm_unpacklo_epi8(p[4], p[5]), a45h = _mm_unpackhi_epi8(p[4], p[5]);
            const __m128i a67l = _mm_unpacklo_epi8(p[6], p[7]), a67h = _mm_unpackhi_epi8(p[6], p[7]);
            const __m128i b0l = _mm_unpacklo_epi16(a01l, a23l), b0h = _mm_unpackhi_epi16(a01l, a23l);
            const __m128i b1l = _mm_unpacklo_epi16(a01h, a23h), b1h = _mm_unpackhi_epi16(a01h, a23h);
            const __m128i c0l = _mm_unpacklo_epi16(a45l, a67l), c0h = _mm_unpackhi_epi16(a45l, a67l);
            const __m128i c1l = _mm_unpacklo_epi16(a45h, a67h), c1h = _mm_unpackhi_epi16(a45h, a67h);
            store16(dst + 0, _mm_unpacklo_epi32(b0l, c0l));
            store16(dst + 16, _mm_unpackhi_epi32(b0l, c0l));
            store16(dst + 32, _mm_unpacklo_epi32(b0h, c0h));
            store16(dst + 48, _mm_unpackhi_epi32(b0h, c0h));
            store16(dst + 64, _mm_unpacklo_epi32(b1l, c1l));
            store16(dst + 80, _mm_unpackhi_epi32(b1l, c1l));
            store16(dst + 96, _mm_unpacklo_epi32(b1h, c1h));
            store16(dst + 112, _mm_unpackhi_epi32(b1h, c1h));
        }
    }
}

template <int S>
void shuffleSse2(const uint8_t* in, uint8_t* out, size_t R)
{
    size_t g = 0;
    for (; g + 16 <= R; g += 16)
        shuffleTileSse2<S>(in, out, R, g);
    shuffleScalar(in, out, R, S, g, R);
}

template <int S>
void unshuffleSse2(const uint8_t* in, uint8_t* out, size_t R)
{
    size_t g = 0;
    for (; g + 16 <= R; g += 16)
        unshuffleTileSse2<S>(in, out, R, g);
    unshuffleScalar(in, out, R, S, g, R);
}

// ---- AVX2: tiles of 32 groups (256 elements) -------------------------------------------
//
// The same steps on 32-byte registers. Unpacks and packs work within 128-bit lanes, so
// each step ends with a lane permutation that restores the order.

template <int S>
NORVEXA_AVX2 inline void swapBits256(__m256i& a, __m256i& b, __m256i mask)
{
    const __m256i t = _mm256_and_si256(_mm256_xor_si256(_mm256_srli_epi16(a, S), b), mask);
    b = _mm256_xor_si256(b, t);
    a = _mm256_xor_si256(a, _mm256_slli_epi16(t, S));
}

NORVEXA_AVX2 inline void bitTranspose256(__m256i* v)
{
    const __m256i m4 = _mm256_set1_epi8(0x0F), m2 = _mm256_set1_epi8(0x33), m1 = _mm256_set1_epi8(0x55);
    swapBits256<4>(v[0], v[4], m4);
    swapBits256<4>(v[1], v[5], m4);
    swapBits256<4>(v[2], v[6], m4);
    swapBits256<4>(v[3], v[7], m4);
    swapBits256<2>(v[0], v[2], m2);
    swapBits256<2>(v[1], v[3], m2);
    swapBits256<2>(v[4], v[6], m2);
    swapBits256<2>(v[5], v[7], m2);
    swapBits256<1>(v[0], v[1], m1);
    swapBits256<1>(v[2], v[3], m1);
    swapBits256<1>(v[4], v[5], m1);
    swapBits256<1>(v[6], v[7], m1);
}

NORVEXA_AVX2 inline __m256i load32(const uint8_t* p)
{
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}
NORVEXA_AVX2 inline void store32(uint8_t* p, __m256i v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }

// The low lanes of a and b, then the high lanes.
NORVEXA_AVX2 inline __m256i lowLanes(__m256i a, __m256i b) { return _mm256_permute2x128_si256(a, b, 0x20); }
NORVEXA_AVX2 inline __m256i highLanes(__m256i a, __m256i b) { return _mm256_permute2x128_si256(a, b, 0x31); }

NORVEXA_AVX2 inline void deinterleave8x256(__m256i a, __m256i b, __m256i& lo, __m256i& hi)
{
    const __m256i m = _mm256_set1_epi16(0x00FF);
    lo = _mm256_packus_epi16(_mm256_and_si256(a, m), _mm256_and_si256(b, m));
    hi = _mm256_packus_epi16(_mm256_srli_epi16(a, 8), _mm256_srli_epi16(b, 8));
    lo = _mm256_permute4x64_epi64(lo, 0xD8);
    hi = _mm256_permute4x64_epi64(hi, 0xD8);
}

NORVEXA_AVX2 inline void deinterleave16x256(__m256i a, __m256i b, __m256i& lo, __m256i& hi)
{
    const __m256i m = _mm256_set1_epi32(0x0000FFFF);
    lo = _mm256_packus_epi32(_mm256_and_si256(a, m), _mm256_and_si256(b, m));
    hi = _mm256_packus_epi32(_mm256_srli_epi32(a, 16), _mm256_srli_epi32(b, 16));
    lo = _mm256_permute4x64_epi64(lo, 0xD8);
    hi = _mm256_permute4x64_epi64(hi, 0xD8);
}

NORVEXA_AVX2 inline void deinterleave32x256(__m256i a, __m256i b, __m256i& lo, __m256i& hi)
{
    a = _mm256_shuffle_epi32(a, _MM_SHUFFLE(3, 1, 2, 0));
    b = _mm256_shuffle_epi32(b, _MM_SHUFFLE(3, 1, 2, 0));
    lo = _mm256_permute4x64_epi64(_mm256_unpacklo_epi64(a, b), 0xD8);
    hi = _mm256_permute4x64_epi64(_mm256_unpackhi_epi64(a, b), 0xD8);
}

NORVEXA_AVX2 inline void splitBytes4x256(const __m256i* x, __m256i* p)
{
    __m256i l01, h01, l23, h23;
    deinterleave16x256(x[0], x[1], l01, h01);
    deinterleave16x256(x[2], x[3], l23, h23);
    deinterleave8x256(l01, l23, p[0], p[1]);
    deinterleave8x256(h01, h23, p[2], p[3]);
}

template <int S>
NORVEXA_AVX2 inline void splitPlanesAvx2(const uint8_t* in, uint8_t (*planes)[256])
{
    for (int q = 0; q < 8; ++q) {
        const uint8_t* src = in + 32 * S * q;
        __m256i p[S];
        if constexpr (S == 2) {
            deinterleave8x256(load32(src), load32(src + 32), p[0], p[1]);
        } else if constexpr (S == 4) {
            const __m256i x[4] = {load32(src), load32(src + 32), load32(src + 64), load32(src + 96)};
            splitBytes4x256(x, p);
        } else {
            __m256i a[4], b[4];
            deinterleave32x256(load32(src), load32(src + 32), a[0], b[0]);
            deinterleave32x256(load32(src + 64), load32(src + 96), a[1], b[1]);
            deinterleave32x256(load32(src + 128), load32(src + 160), a[2], b[2]);
            deinterleave32x256(load32(src + 192), load32(src + 224), a[3], b[3]);
            splitBytes4x256(a, p);
            splitBytes4x256(b, p + 4);
        }
        for (int j = 0; j < S; ++j)
            store32(planes[j] + 32 * q, p[j]);
    }
}

template <int S>
NORVEXA_AVX2 void shuffleTileAvx2(const uint8_t* in, uint8_t* out, size_t R, size_t g0)
{
    alignas(32) uint8_t planes[S][256];
    const uint8_t* tile = in + 8 * g0 * S;
    if constexpr (S > 1)
        splitPlanesAvx2<S>(tile, planes);
    alignas(32) std::uint32_t rows[8 * S][8];
    for (int j = 0; j < S; ++j) {
        const uint8_t* plane = S == 1 ? tile : planes[j];
        for (int m = 0; m < 8; ++m) {
            const __m256i v = load32(plane + 32 * m);
            const __m256i v1 = _mm256_add_epi8(v, v), v2 = _mm256_slli_epi16(v, 2), v3 = _mm256_slli_epi16(v, 3);
            const __m256i v4 = _mm256_slli_epi16(v, 4), v5 = _mm256_slli_epi16(v, 5), v6 = _mm256_slli_epi16(v, 6);
            const __m256i v7 = _mm256_slli_epi16(v, 7);
            std::uint32_t* r = rows[8 * j] + m;
            r[7 * 8] = std::uint32_t(_mm256_movemask_epi8(v));
            r[6 * 8] = std::uint32_t(_mm256_movemask_epi8(v1));
            r[5 * 8] = std::uint32_t(_mm256_movemask_epi8(v2));
            r[4 * 8] = std::uint32_t(_mm256_movemask_epi8(v3));
            r[3 * 8] = std::uint32_t(_mm256_movemask_epi8(v4));
            r[2 * 8] = std::uint32_t(_mm256_movemask_epi8(v5));
            r[1 * 8] = std::uint32_t(_mm256_movemask_epi8(v6));
            r[0] = std::uint32_t(_mm256_movemask_epi8(v7));
        }
    }
    for (int r = 0; r < 8 * S; ++r)
        store32(out + r * R + g0, _mm256_load_si256(reinterpret_cast<const __m256i*>(rows[r])));
}

template <int S>
NORVEXA_AVX2 void unshuffleTileAvx2(const uint8_t* in, uint8_t* out, size_t R, size_t g0)
{
    alignas(32) uint8_t planes[S][256];
    uint8_t* tile = out + 8 * g0 * S;
    for (int j = 0; j < S; ++j) {
        __m256i v[8];
        for (int k = 0; k < 8; ++k)
            v[k] = load32(in + (8 * j + k) * R + g0);
        bitTranspose256(v);
        // Lane L of c_m below holds groups 16 L + 2 m and 16 L + 2 m + 1.
        const __m256i a0 = _mm256_unpacklo_epi8(v[0], v[1]), a1 = _mm256_unpackhi_epi8(v[0], v[1]);
        const __m256i a2 = _mm256_unpacklo_epi8(v[2], v[3]), a3 = _mm256_unpackhi_epi8(v[2], v[3]);
        const __m256i a4 = _mm256_unpacklo_epi8(v[4], v[5]), a5 = _mm256_unpackhi_epi8(v[4], v[5]);
        const __m256i a6 = _mm256_unpacklo_epi8(v[6], v[7]), a7 = _mm256_unpackhi_epi8(v[6], v[7]);
        const __m256i b0 = _mm256_unpacklo_epi16(a0, a2), b1 = _mm256_unpackhi_epi16(a0, a2);
        const __m256i b2 = _mm256_unpacklo_epi16(a1, a3), b3 = _mm256_unpackhi_epi16(a1, a3);
        const __m256i b4 = _mm256_unpacklo_epi16(a4, a6), b5 = _mm256_unpackhi_epi16(a4, a6);
        const __m256i b6 = _mm256_unpacklo_epi16(a5, a7), b7 = _mm256_unpackhi_epi16(a5, a7);
        const __m256i c0 = _mm256_unpacklo_epi32(b0, b4), c1 = _mm256_unpackhi_epi32(b0, b4);
        const __m256i c2 = _mm256_unpacklo_epi32(b1, b5), c3 = _mm256_unpackhi_epi32(b1, b5);
        const __m256i c4 = _mm256_unpacklo_epi32(b2, b6), c5 = _mm256_unpackhi_epi32(b2, b6);
        const __m256i c6 = _mm256_unpacklo_epi32(b3, b7), c7 = _mm256_unpackhi_epi32(b3, b7);
        uint8_t* dst = S == 1 ? tile : planes[j];
        store32(dst + 0, lowLanes(c0, c1));
        store32(dst + 32, lowLanes(c2, c3));
        store32(dst + 64, lowLanes(c4, c5));
        store32(dst + 96, lowLanes(c6, c7));
        store32(dst + 128, highLanes(c0, c1));
        store32(dst + 160, highLanes(c2, c3));
        store32(dst + 192, highLanes(c4, c5));
        store32(dst + 224, highLanes(c6, c7));
    }
    // Interleave the byte planes into elements, 32 at a time; lane L holds elements 16 L + ...
    for (int q = 0; q < 8; ++q) {
        const int o = 32 * q;
        [[maybe_unused]] uint8_t* dst = tile + S * o; // S == 1: the planes were the elements
        if constexpr (S == 2) {
            const __m256i p0 = load32(planes[0] + o), p1 = load32(planes[1] + o);
            const __m256i lo = _mm256_unpacklo_epi8(p0, p1), hi = _mm256_unpackhi_epi8(p0, p1);
            store32(dst, lowLanes(lo, hi));
            store32(dst + 32, highLanes(lo, hi));
        } else if constexpr (S == 4) {
            const __m256i p0 = load32(planes[0] + o), p1 = load32(planes[1] + o);
            const __m256i p2 = load32(planes[2] + o), p3 = load32(planes[3] + o);
            const __m256i a = _mm256_unpacklo_epi8(p0, p1), b = _mm256_unpackhi_epi8(p0, p1);
            const __m256i c = _mm256_unpacklo_epi8(p2, p3), d = _mm256_unpackhi_epi8(p2, p3);
            const __m256i e0 = _mm256_unpacklo_epi16(a, c), e1 = _mm256_unpackhi_epi16(a, c);
            const __m256i e2 = _mm256_unpacklo_epi16(b, d), e3 = _mm256_unpackhi_epi16(b, d);
            store32(dst, lowLanes(e0, e1));
            store32(dst + 32, lowLanes(e2, e3));
            store32(dst + 64, highLanes(e0, e1));
            store32(dst + 96, highLanes(e2, e3));
        } else if constexpr (S == 8) {
            __m256i p[8];
            for (int i = 0; i < 8; ++i)
                p[i] = load32(planes[i] + o);
            const __m256i a01l = _mm256_unpacklo_epi8(p[0], p[1]), a01h = _mm256_unpackhi_epi8(p[0], p[1]);
            const __m256i a23l = _mm256_unpacklo_epi8(p[2], p[3]), a23h = _mm256_unpackhi_epi8(p[2], p[3]);
            const __m256i a45l = _mm256_unpacklo_epi8(p[4], p[5]), a45h = _mm256_unpackhi_epi8(p[4], p[5]);
            const __m256i a67l = _mm256_unpacklo_epi8(p[6], p[7]), a67h = _mm256_unpackhi_epi8(p[6], p[7]);
            const __m256i b0l = _mm256_unpacklo_epi16(a01l, a23l), b0h = _mm256_unpackhi_epi16(a01l, a23l);
            const __m256i b1l = _mm256_unpacklo_epi16(a01h, a23h), b1h = _mm256_unpackhi_epi16(a01h, a23h);
            const __m256i c0l = _mm256_unpacklo_epi16(a45l, a67l), c0h = _mm256_unpackhi_epi16(a45l, a67l);
            const __m256i c1l = _mm256_unpacklo_epi16(a45h, a67h), c1h = _mm256_unpackhi_epi16(a45h, a67h);
            const __m256i d0 = _mm256_unpacklo_epi32(b0l, c0l), d1 = _mm256_unpackhi_epi32(b0l, c0l);
            const __m256i d2 = _mm256_unpacklo_epi32(b0h, c0h), d3 = _mm256_unpackhi_epi32(b0h, c0h);
            const __m256i d4 = _mm256_unpacklo_epi32(b1l, c1l), d5 = _mm256_unpackhi_epi32(b1l, c1l);
            const __m256i d6 = _mm256_unpacklo_epi32(b1h, c1h), d7 = _mm256_unpackhi_epi32(b1h, c1h);
            store32(dst + 0, lowLanes(d0, d1));
            store32(dst + 32, lowLanes(d2, d3));
            store32(dst + 64, lowLanes(d4, d5));
            store32(dst + 96, lowLanes(d6, d7));
            store32(dst + 128, highLanes(d0, d1));
            store32(dst + 160, highLanes(d2, d3));
            store32(dst + 192, highLanes(d4, d5));
            store32(dst + 224, highLanes(d6, d7));
        }
    }
}

template <int S>
NORVEXA_AVX2 void shuffleAvx2(const uint8_t* in, uint8_t* out, size_t R)
{
    size_t g = 0;
    for (; g + 32 <= R; g += 32)
        shuffleTileAvx2<S>(in, out, R, g);
    if (g + 16 <= R) {
        shuffleTileSse2<S>(in, out, R, g);
        g += 16;
    }
    shuffleScalar(in, out, R, S, g, R);
}

template <int S>
NORVEXA_AVX2 void unshuffleAvx2(const uint8_t* in, uint8_t* out, size_t R)
{
    size_t g = 0;
    for (; g + 32 <= R; g += 32)
        unshuffleTileAvx2<S>(in, out, R, g);
    if (g + 16 <= R) {
        unshuffleTileSse2<S>(in, out, R, g);
        g += 16;
    }
    unshuffleScalar(in, out, R, S, g, R);
}

bool detectAvx2()
{
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
}

#endif // NORVEXA_BITSHUFFLE_X86

DBitshuffle::PATH resolve(DBitshuffle::PATH path)
{
    if (path == DBitshuffle::PATH_AUTO)
        return DBitshuffle::best();
    if (!DBitshuffle::available(path))
        throw DBadParameterException(TEXT_PATH);
    return path;
}

void checkArguments(std::size_t nElements, std::size_t elementSize)
{
    if (elementSize == 0)
        throw DBadParameterException(TEXT_ELEMENT_SIZE);
    if (nElements % 8 != 0)
        throw DBadParameterException(TEXT_COUNT);
}

} // namespace

bool DBitshuffle::available(PATH path)
{
    switch (path) {
    case PATH_AUTO:
    case PATH_SCALAR:
        return true;
#ifdef NORVEXA_BITSHUFFLE_X86
    case PATH_SSE2:
        return true; // part of every x86-64 processor
    case PATH_AVX2: {
        static const bool avx2 = detectAvx2();
        return avx2;
    }
#endif
    default:
        return false;
    }
}

DBitshuffle::PATH DBitshuffle::best()
{
    if (available(PATH_AVX2))
        return PATH_AVX2;
    if (available(PATH_SSE2))
        return PATH_SSE2;
    return PATH_SCALAR;
}

const char* DBitshuffle::name(PATH path)
{
    switch (path) {
    case PATH_AUTO:
        return "auto";
    case PATH_SCALAR:
        return "scalar";
    case PATH_SSE2:
        return "sse2";
    case PATH_AVX2:
        return "avx2";
    }
    return "unknown";
}

namespace codec {

void bitshuffle(const void* in, void* out, std::size_t nElements, std::size_t elementSize,
                DBitshuffle::PATH path)
{
    checkArguments(nElements, elementSize);
    path = resolve(path);
    const auto* src = static_cast<const uint8_t*>(in);
    auto* dst = static_cast<uint8_t*>(out);
    const size_t R = nElements / 8;
#ifdef NORVEXA_BITSHUFFLE_X86
    if (path == DBitshuffle::PATH_AVX2) {
        switch (elementSize) {
        case 1: return shuffleAvx2<1>(src, dst, R);
        case 2: return shuffleAvx2<2>(src, dst, R);
        case 4: return shuffleAvx2<4>(src, dst, R);
        case 8: return shuffleAvx2<8>(src, dst, R);
        }
    } else if (path == DBitshuffle::PATH_SSE2) {
        switch (elementSize) {
        case 1: return shuffleSse2<1>(src, dst, R);
        case 2: return shuffleSse2<2>(src, dst, R);
        case 4: return shuffleSse2<4>(src, dst, R);
        case 8: return shuffleSse2<8>(src, dst, R);
        }
    }
#endif
    shuffleScalar(src, dst, R, elementSize, 0, R);
}

void bitunshuffle(const void* in, void* out, std::size_t nElements, std::size_t elementSize,
                  DBitshuffle::PATH path)
{
    checkArguments(nElements, elementSize);
    path = resolve(path);
    const auto* src = static_cast<const uint8_t*>(in);
    auto* dst = static_cast<uint8_t*>(out);
    const size_t R = nElements / 8;
#ifdef NORVEXA_BITSHUFFLE_X86
    if (path == DBitshuffle::PATH_AVX2) {
        switch (elementSize) {
        case 1: return unshuffleAvx2<1>(src, dst, R);
        case 2: return unshuffleAvx2<2>(src, dst, R);
        case 4: return unshuffleAvx2<4>(src, dst, R);
        case 8: return unshuffleAvx2<8>(src, dst, R);
        }
    } else if (path == DBitshuffle::PATH_SSE2) {
        switch (elementSize) {
        case 1: return unshuffleSse2<1>(src, dst, R);
        case 2: return unshuffleSse2<2>(src, dst, R);
        case 4: return unshuffleSse2<4>(src, dst, R);
        case 8: return unshuffleSse2<8>(src, dst, R);
        }
    }
#endif
    unshuffleScalar(src, dst, R, elementSize, 0, R);
}

} // namespace codec
} // namespace image
} // namespace norvexa

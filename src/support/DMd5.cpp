#include "DMd5.h"

#include <cstdint>
#include <cstring>

namespace norvexa {
namespace imglib {

struct DMd5::DMd5Private {
    std::uint32_t count[2];   // message length in bits, low word first
    std::uint32_t state[4];   // chaining words A, B, C, D
    unsigned char buffer[64]; // input that doesn't make up a whole block yet
    unsigned char digest[16];

    /// The inner append: a signed 32-bit length, nothing for 0 or less.
    void appendChunk(const unsigned char* data, std::int32_t length);
};

namespace {

inline std::uint32_t rotateLeft(std::uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

// Word k of a block, little-endian whatever the host's order.
inline std::uint32_t word(const unsigned char* block, int k)
{
    const unsigned char* p = block + 4 * k;
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    std::uint32_t value;
    std::memcpy(&value, p, 4); // an unaligned load; the input needn't be aligned
    return value;
#else
    return std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16 |
           std::uint32_t(p[3]) << 24;
#endif
}

inline void storeWord(unsigned char* p, std::uint32_t value)
{
    p[0] = static_cast<unsigned char>(value);
    p[1] = static_cast<unsigned char>(value >> 8);
    p[2] = static_cast<unsigned char>(value >> 16);
    p[3] = static_cast<unsigned char>(value >> 24);
}

// Round functions F, H and I in forms that need the fewest dependent operations; G is
// folded into its step below.
#define NORVEXA_MD5_F(x, y, z) ((z) ^ ((x) & ((y) ^ (z))))
#define NORVEXA_MD5_H(x, y, z) ((x) ^ (y) ^ (z))
#define NORVEXA_MD5_I(x, y, z) ((y) ^ ((x) | ~(z)))

#define NORVEXA_MD5_STEP(f, a, b, c, d, k, s, t)                                                   \
    a += f(b, c, d) + word(block, k) + (t);                                                        \
    a = rotateLeft(a, s) + b;

// G(x, y, z) = (x & z) | (y & ~z): the two terms have no bit in common, so they are added
// one at a time, and the second doesn't wait for the first.
#define NORVEXA_MD5_STEP_G(a, b, c, d, k, s, t)                                                    \
    a += (c & ~d) + word(block, k) + (t);                                                          \
    a += b & d;                                                                                    \
    a = rotateLeft(a, s) + b;

// The block function of RFC 1321 over `blocks` consecutive 64-byte blocks, read in place.
void transform(std::uint32_t state[4], const unsigned char* block, std::size_t blocks)
{
    std::uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    for (; blocks > 0; --blocks, block += 64) {
        const std::uint32_t a0 = a, b0 = b, c0 = c, d0 = d;

        NORVEXA_MD5_STEP(NORVEXA_MD5_F, a, b, c, d, 0, 7, 0xd76aa478)
        NORVEXA_MD5_STEP(NORVEXA_MD5_F, d, a, b, c, 1, 12, 0xe8c7b756)
        NORVEXA_MD5_STEP(NORVEXA_MD5_F, c, d, a, b, 2, 17, 0x242070db)
        NORVEXA_MD5_STEP(NORVEXA_MD5_F, b, c, d, a, 3, 22, 0xc1bdceee)
        NORVEXA_MD5_STEP(NORVEXA_MD5_F, a, b, c, d, 4, 7, 0xf57c0faf)
        NORVEXA_MD5_STEP(NORVEXA_MD5_F, d, a, b, c, 5, 12, 0x4787c62a)
        NORVEXA_MD5_STEP(NORVEXA_MD5_F, c, d, a, b, 6, 17, 0xa8304613)
        NORVEXA_MD5_STEP(NORVEXA_MD5_F, b, c, d, a, 7, 22, 0xfd469501)
        NORVEXA_MD5_STEP(NORVEXA_MD5_F, a, b, c, d, 8, 7, 0x698098d8)
        NORVEXA_MD5_STEP(NORVEXA_MD5_F, d, a, b, c, 9, 12, 0x8b44f7af)
        NORVEXA_MD5_STEP(NORVEXA_MD5_F, c, d, a, b, 10, 17, 0xffff5bb1)
        NORVEXA_MD5_STEP(NORVEXA_MD5_F, b, c, d, a, 11, 22, 0x895cd7be)
        NORVEXA_MD5_STEP(NORVEXA_MD5_F, a, b, c, d, 12, 7, 0x6b901122)
        NORVEXA_MD5_STEP(NORVEXA_MD5_F, d, a, b, c, 13, 12, 0xfd987193)
        NORVEXA_MD5_STEP(NORVEXA_MD5_F, c, d, a, b, 14, 17, 0xa679438e)
        NORVEXA_MD5_STEP(NORVEXA_MD5_F, b, c, d, a, 15, 22, 0x49b40821)

        NORVEXA_MD5_STEP_G(a, b, c, d, 1, 5, 0xf61e2562)
        NORVEXA_MD5_STEP_G(d, a, b, c, 6, 9, 0xc040b340)
        NORVEXA_MD5_STEP_G(c, d, a, b, 11, 14, 0x265e5a51)
        NORVEXA_MD5_STEP_G(b, c, d, a, 0, 20, 0xe9b6c7aa)
        NORVEXA_MD5_STEP_G(a, b, c, d, 5, 5, 0xd62f105d)
        NORVEXA_MD5_STEP_G(d, a, b, c, 10, 9, 0x02441453)
        NORVEXA_MD5_STEP_G(c, d, a, b, 15, 14, 0xd8a1e681)
        NORVEXA_MD5_STEP_G(b, c, d, a, 4, 20, 0xe7d3fbc8)
        NORVEXA_MD5_STEP_G(a, b, c, d, 9, 5, 0x21e1cde6)
        NORVEXA_MD5_STEP_G(d, a, b, c, 14, 9, 0xc33707d6)
        NORVEXA_MD5_STEP_G(c, d, a, b, 3, 14, 0xf4d50d87)
        NORVEXA_MD5_STEP_G(b, c, d, a, 8, 20, 0x455a14ed)
        NORVEXA_MD5_STEP_G(a, b, c, d, 13, 5, 0xa9e3e905)
        NORVEXA_MD5_STEP_G(d, a, b, c, 2, 9, 0xfcefa3f8)
        NORVEXA_MD5_STEP_G(c, d, a, b, 7, 14, 0x676f02d9)
        NORVEXA_MD5_STEP_G(b, c, d, a, 12, 20, 0x8d2a4c8a)

        NORVEXA_MD5_STEP(NORVEXA_MD5_H, a, b, c, d, 5, 4, 0xfffa3942)
        NORVEXA_MD5_STEP(NORVEXA_MD5_H, d, a, b, c, 8, 11, 0x8771f681)
        NORVEXA_MD5_STEP(NORVEXA_MD5_H, c, d, a, b, 11, 16, 0x6d9d6122)
        NORVEXA_MD5_STEP(NORVEXA_MD5_H, b, c, d, a, 14, 23, 0xfde5380c)
        NORVEXA_MD5_STEP(NORVEXA_MD5_H, a, b, c, d, 1, 4, 0xa4beea44)
        NORVEXA_MD5_STEP(NORVEXA_MD5_H, d, a, b, c, 4, 11, 0x4bdecfa9)
        NORVEXA_MD5_STEP(NORVEXA_MD5_H, c, d, a, b, 7, 16, 0xf6bb4b60)
        NORVEXA_MD5_STEP(NORVEXA_MD5_H, b, c, d, a, 10, 23, 0xbebfbc70)
        NORVEXA_MD5_STEP(NORVEXA_MD5_H, a, b, c, d, 13, 4, 0x289b7ec6)
        NORVEXA_MD5_STEP(NORVEXA_MD5_H, d, a, b, c, 0, 11, 0xeaa127fa)
        NORVEXA_MD5_STEP(NORVEXA_MD5_H, c, d, a, b, 3, 16, 0xd4ef3085)
        NORVEXA_MD5_STEP(NORVEXA_MD5_H, b, c, d, a, 6, 23, 0x04881d05)
        NORVEXA_MD5_STEP(NORVEXA_MD5_H, a, b, c, d, 9, 4, 0xd9d4d039)
        NORVEXA_MD5_STEP(NORVEXA_MD5_H, d, a, b, c, 12, 11, 0xe6db99e5)
        NORVEXA_MD5_STEP(NORVEXA_MD5_H, c, d, a, b, 15, 16, 0x1fa27cf8)
        NORVEXA_MD5_STEP(NORVEXA_MD5_H, b, c, d, a, 2, 23, 0xc4ac5665)

        NORVEXA_MD5_STEP(NORVEXA_MD5_I, a, b, c, d, 0, 6, 0xf4292244)
        NORVEXA_MD5_STEP(NORVEXA_MD5_I, d, a, b, c, 7, 10, 0x432aff97)
        NORVEXA_MD5_STEP(NORVEXA_MD5_I, c, d, a, b, 14, 15, 0xab9423a7)
        NORVEXA_MD5_STEP(NORVEXA_MD5_I, b, c, d, a, 5, 21, 0xfc93a039)
        NORVEXA_MD5_STEP(NORVEXA_MD5_I, a, b, c, d, 12, 6, 0x655b59c3)
        NORVEXA_MD5_STEP(NORVEXA_MD5_I, d, a, b, c, 3, 10, 0x8f0ccc92)
        NORVEXA_MD5_STEP(NORVEXA_MD5_I, c, d, a, b, 10, 15, 0xffeff47d)
        NORVEXA_MD5_STEP(NORVEXA_MD5_I, b, c, d, a, 1, 21, 0x85845dd1)
        NORVEXA_MD5_STEP(NORVEXA_MD5_I, a, b, c, d, 8, 6, 0x6fa87e4f)
        NORVEXA_MD5_STEP(NORVEXA_MD5_I, d, a, b, c, 15, 10, 0xfe2ce6e0)
        NORVEXA_MD5_STEP(NORVEXA_MD5_I, c, d, a, b, 6, 15, 0xa3014314)
        NORVEXA_MD5_STEP(NORVEXA_MD5_I, b, c, d, a, 13, 21, 0x4e0811a1)
        NORVEXA_MD5_STEP(NORVEXA_MD5_I, a, b, c, d, 4, 6, 0xf7537e82)
        NORVEXA_MD5_STEP(NORVEXA_MD5_I, d, a, b, c, 11, 10, 0xbd3af235)
        NORVEXA_MD5_STEP(NORVEXA_MD5_I, c, d, a, b, 2, 15, 0x2ad7d2bb)
        NORVEXA_MD5_STEP(NORVEXA_MD5_I, b, c, d, a, 9, 21, 0xeb86d391)

        a += a0;
        b += b0;
        c += c0;
        d += d0;
    }
    state[0] = a;
    state[1] = b;
    state[2] = c;
    state[3] = d;
}

#undef NORVEXA_MD5_STEP_G
#undef NORVEXA_MD5_STEP
#undef NORVEXA_MD5_I
#undef NORVEXA_MD5_H
#undef NORVEXA_MD5_F

} // namespace

// Whole blocks of the input go to the block function where they lie; only a tail is buffered.
void DMd5::DMd5Private::appendChunk(const unsigned char* data, std::int32_t length)
{
    if (length <= 0)
        return;
    const auto bytes = static_cast<std::uint32_t>(length);
    const std::uint32_t index = (count[0] >> 3) & 0x3f;
    count[0] += bytes << 3;
    if (count[0] < (bytes << 3))
        ++count[1];
    count[1] += bytes >> 29;

    std::uint32_t done = 0;
    if (index != 0) {
        const std::uint32_t room = 64 - index;
        if (bytes < room) {
            std::memcpy(buffer + index, data, bytes);
            return;
        }
        std::memcpy(buffer + index, data, room);
        transform(state, buffer, 1);
        done = room;
    }
    const std::uint32_t blocks = (bytes - done) / 64;
    transform(state, data + done, blocks);
    done += blocks * 64;
    std::memcpy(buffer, data + done, bytes - done);
}

DMd5::DMd5()
    : _d(new DMd5Private())
{
    reset();
}

DMd5::DMd5(const DMd5& other)
    : _d(new DMd5Private(*other._d))
{
}

DMd5& DMd5::operator=(const DMd5& other)
{
    // The record is kept, so digest() pointers handed out earlier stay valid.
    *_d = *other._d;
    return *this;
}

DMd5::~DMd5() = default;

void DMd5::reset()
{
    _d->count[0] = 0;
    _d->count[1] = 0;
    _d->state[0] = 0x67452301;
    _d->state[1] = 0xefcdab89;
    _d->state[2] = 0x98badcfe;
    _d->state[3] = 0x10325476;
}

void DMd5::append(const unsigned char* data, unsigned long length)
{
    // The inner append takes a signed 32-bit length, so longer input goes in chunks.
    constexpr unsigned long chunk = 0x7fffffff;
    while (length >> 31) {
        _d->appendChunk(data, static_cast<std::int32_t>(chunk));
        data += chunk;
        length -= chunk;
    }
    _d->appendChunk(data, static_cast<std::int32_t>(length));
}

void DMd5::finish()
{
    static const unsigned char padding[64] = {0x80};
    unsigned char bits[8];
    storeWord(bits, _d->count[0]);
    storeWord(bits + 4, _d->count[1]);
    const std::uint32_t index = (_d->count[0] >> 3) & 0x3f;
    const std::uint32_t padLength = index < 56 ? 56 - index : 120 - index;
    _d->appendChunk(padding, static_cast<std::int32_t>(padLength));
    _d->appendChunk(bits, 8);
    for (int i = 0; i < 4; ++i)
        storeWord(_d->digest + 4 * i, _d->state[i]);
}

void DMd5::hash(const unsigned char* data, unsigned long length)
{
    reset();
    append(data, length);
    finish();
}

const unsigned char* DMd5::digest() const { return _d->digest; }

std::string DMd5::toHex() const
{
    static const char alphabet[] = "0123456789abcdef";
    std::string text(32, '\0');
    for (int i = 0; i < 16; ++i) {
        text[2 * i] = alphabet[_d->digest[i] >> 4];
        text[2 * i + 1] = alphabet[_d->digest[i] & 0x0f];
    }
    return text;
}

std::string DMd5::toBase64() const
{
    static const char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const unsigned char* bytes = _d->digest;
    std::string text;
    text.reserve(24);
    for (int i = 0; i < 15; i += 3) {
        const std::uint32_t group = std::uint32_t(bytes[i]) << 16 |
                                    std::uint32_t(bytes[i + 1]) << 8 | bytes[i + 2];
        text += alphabet[(group >> 18) & 0x3f];
        text += alphabet[(group >> 12) & 0x3f];
        text += alphabet[(group >> 6) & 0x3f];
        text += alphabet[group & 0x3f];
    }
    text += alphabet[bytes[15] >> 2];
    text += alphabet[(bytes[15] & 0x03) << 4];
    text += "==";
    return text;
}

} // namespace imglib
} // namespace norvexa

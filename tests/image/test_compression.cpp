#include "ReaderHelpers.h"
#include "TestHelpers.h"

#include "foundation/DException.h"
#include "foundation/image/DBitshuffle.h"
#include "foundation/image/DCompression.h"

#include <cstdint>
#include <random>

using namespace norvexa;
using namespace norvexa::image;
using Bytes = std::vector<char>;

namespace {

const DCompression::FILTER NONE = DCompression::FILTER_NONE;
const DCompression::FILTER LZ4 = DCompression::FILTER_LZ4;
const DCompression::FILTER BS16 = DCompression::FILTER_BS16_LZ4;
const DCompression::FILTER BS32 = DCompression::FILTER_BS32_LZ4;

// The element counts of the bitshuffle fixtures (tools/make_codec_fixtures.py).
const std::size_t COUNTS[] = {1, 7, 8, 9, 2047, 2048, 2049, 4101, 4104, 97 * 103, 487 * 195};

Bytes fixture(const std::string& name) { return norvexa_test::fileBytes(norvexa_test::dataPath("codecs/" + name)); }

// Decodes the first `chunkSize` bytes of `chunk` from a buffer of exactly that size, so
// that the sanitizer sees any read past its end.
Bytes decoded(DCompression::FILTER filter, const Bytes& chunk, std::size_t outSize, std::size_t chunkSize)
{
    const Bytes exact(chunk.begin(), chunk.begin() + static_cast<std::ptrdiff_t>(chunkSize));
    Bytes out(outSize);
    codec::decode(filter, exact.data(), exact.size(), out.data(), out.size());
    return out;
}
Bytes decoded(DCompression::FILTER filter, const Bytes& chunk, std::size_t outSize)
{
    return decoded(filter, chunk, outSize, chunk.size());
}

void putBe32(Bytes& b, std::size_t pos, std::uint32_t v)
{
    for (int i = 3; i >= 0; --i, v >>= 8)
        b[pos + i] = static_cast<char>(v & 0xFF);
}

Bytes header(std::uint64_t total, std::uint32_t block)
{
    Bytes b(12);
    for (int i = 7; i >= 0; --i, total >>= 8)
        b[i] = static_cast<char>(total & 0xFF);
    putBe32(b, 8, block);
    return b;
}

std::vector<DBitshuffle::PATH> paths()
{
    std::vector<DBitshuffle::PATH> result;
    for (auto p : {DBitshuffle::PATH_SCALAR, DBitshuffle::PATH_SSE2, DBitshuffle::PATH_AVX2})
        if (DBitshuffle::available(p))
            result.push_back(p);
    return result;
}

} // namespace

TEST(BitshuffleLz4, FixturesDecodeAndEncodeByteForByteAndOneByteShortDecodes)
{
    int changed = 0;
    for (auto [filter, tag, size] : {std::tuple{BS16, "u16", 2}, std::tuple{BS32, "u32", 4}}) {
        for (std::size_t n : COUNTS) {
            const std::string name = std::string("bs_") + tag + "_" + std::to_string(n);
            SCOPED_TRACE(name);
            const Bytes plain = fixture(name + ".plain"), chunk = fixture(name + ".chunk");
            ASSERT_EQ(plain.size(), n * size);
            EXPECT_EQ(decoded(filter, chunk, plain.size()), plain);
            EXPECT_EQ(codec::encode(filter, plain.data(), plain.size()), chunk);
            // A chunk one byte short decodes with that byte zero: the top byte of a raw last
            // element, or else the top bit plane of the last 8 elements of the final LZ4 block.
            Bytes expected = plain;
            if (n % 8 != 0) {
                expected[n * size - 1] = 0;
            } else {
                for (std::size_t i = n - 8; i < n; ++i)
                    expected[i * size + size - 1] &= 0x7F;
            }
            changed += expected != plain;
            EXPECT_EQ(decoded(filter, chunk, plain.size(), chunk.size() - 1), expected);
            EXPECT_THROW_MSG(decoded(filter, chunk, plain.size(), chunk.size() - 2), DImageCorruptedException,
                             "Compressed chunk is truncated");
        }
    }
    EXPECT_EQ(changed, 2 * static_cast<int>(std::size(COUNTS))) << "every fixture ends in a gap pixel";
}

TEST(Bitshuffle, EveryPathMatchesTheIndependentTransposition)
{
    for (std::size_t s : {1, 2, 4, 8}) {
        for (std::size_t n : {8, 136, 408, 2048}) {
            const std::string name = "transpose_s" + std::to_string(s) + "_n" + std::to_string(n);
            const Bytes plain = fixture(name + ".plain"), shuffled = fixture(name + ".shuffled");
            ASSERT_EQ(plain.size(), n * s);
            for (auto path : paths()) {
                SCOPED_TRACE(name + " " + DBitshuffle::name(path));
                Bytes out(n * s);
                codec::bitshuffle(plain.data(), out.data(), n, s, path);
                EXPECT_EQ(out, shuffled);
                codec::bitunshuffle(shuffled.data(), out.data(), n, s, path);
                EXPECT_EQ(out, plain);
            }
        }
    }
}

TEST(Bitshuffle, VectorPathsAgreeWithScalarOnEveryTileRemainder)
{
    // Group counts around the tiles of 16 (SSE2) and 32 (AVX2) groups of 8 elements;
    // sizes 3 and 16 have no vector code and must still work on every path.
    std::mt19937 rng(5);
    for (std::size_t s : {1, 2, 3, 4, 8, 16}) {
        for (std::size_t groups = 0; groups <= 100; groups += (groups < 70 ? 1 : 15)) {
            const std::size_t n = 8 * groups;
            Bytes plain(n * s), reference(n * s);
            for (char& c : plain)
                c = static_cast<char>(rng());
            codec::bitshuffle(plain.data(), reference.data(), n, s, DBitshuffle::PATH_SCALAR);
            for (auto path : paths()) {
                SCOPED_TRACE("size " + std::to_string(s) + " groups " + std::to_string(groups) + " " +
                             DBitshuffle::name(path));
                Bytes shuffled(n * s), back(n * s);
                codec::bitshuffle(plain.data(), shuffled.data(), n, s, path);
                ASSERT_EQ(shuffled, reference);
                codec::bitunshuffle(shuffled.data(), back.data(), n, s, path);
                ASSERT_EQ(back, plain);
            }
        }
    }
}

TEST(Bitshuffle, RefusesWhatItCannotTranspose)
{
    char buffer[16] = {};
    EXPECT_THROW_MSG(codec::bitshuffle(buffer, buffer + 8, 7, 1), DBadParameterException,
                     "Bitshuffle element count is not a multiple of 8");
    EXPECT_THROW_MSG(codec::bitunshuffle(buffer, buffer + 8, 8, 0), DBadParameterException,
                     "Bitshuffle element size is invalid");
    EXPECT_NE(DBitshuffle::best(), DBitshuffle::PATH_AUTO);
    if (!DBitshuffle::available(DBitshuffle::PATH_AVX2))
        EXPECT_THROW_MSG(codec::bitshuffle(buffer, buffer + 8, 8, 1, DBitshuffle::PATH_AVX2), DBadParameterException,
                         "Instruction set is not available on this processor");
}

TEST(Lz4, FixturesOfTheIndependentToolDecodeAndEncode)
{
    // python-lz4 packs blocks differently from LZ4_compress_default: decode only.
    for (const char* name : {"lz4_frame", "lz4_noise", "lz4_blocks"}) {
        SCOPED_TRACE(name);
        const Bytes plain = fixture(std::string(name) + ".plain"), chunk = fixture(std::string(name) + ".chunk");
        EXPECT_EQ(decoded(LZ4, chunk, plain.size()), plain);
    }
    // What the HDF5 LZ4 filter writes for one block, and a raw block.
    const Bytes frame = fixture("lz4_frame.plain"), noise = fixture("lz4_noise.plain");
    EXPECT_EQ(codec::encode(LZ4, frame.data(), frame.size()), fixture("lz4_frame_default.chunk"));
    EXPECT_EQ(codec::encode(LZ4, noise.data(), noise.size()), fixture("lz4_noise.chunk"));
    EXPECT_EQ(decoded(LZ4, fixture("lz4_frame_default.chunk"), frame.size()), frame);
}

TEST(Lz4, EncoderFramesOneBlockAsTheStreamDoes)
{
    const Bytes frame = fixture("lz4_frame.plain");
    for (std::size_t size : {std::size_t(0), std::size_t(1), std::size_t(15), std::size_t(5000), frame.size()}) {
        SCOPED_TRACE(size);
        const Bytes plain(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(size));
        const Bytes chunk = codec::encode(LZ4, plain.data(), plain.size());
        ASSERT_GE(chunk.size(), 12u);
        const Bytes head = header(size, static_cast<std::uint32_t>(size));
        EXPECT_TRUE(std::equal(head.begin(), head.end(), chunk.begin()));
        if (size == 0) {
            EXPECT_EQ(chunk.size(), 12u);
        } else {
            Bytes length(4);
            putBe32(length, 0, static_cast<std::uint32_t>(chunk.size() - 16));
            EXPECT_TRUE(std::equal(length.begin(), length.end(), chunk.begin() + 12));
            // Tiny inputs don't shrink and are stored raw; a frame does.
            EXPECT_EQ(chunk.size() - 16 == size, size < 16);
        }
        EXPECT_EQ(decoded(LZ4, chunk, size), plain);
    }
}

TEST(Compression, EachFailureHasItsText)
{
    const Bytes plain = fixture("bs_u32_9.plain"), bs = fixture("bs_u32_9.chunk");
    const Bytes lz4 = codec::encode(LZ4, plain.data(), plain.size());
    const auto bad = static_cast<DCompression::FILTER>(7);
    const std::string mismatch = "Compressed chunk does not match the image size";
    {
        SCOPED_TRACE("no filter copies equal sizes only");
        EXPECT_EQ(decoded(NONE, plain, plain.size()), plain);
        EXPECT_EQ(codec::encode(NONE, plain.data(), plain.size()), plain);
        EXPECT_THROW_MSG(decoded(NONE, plain, plain.size() - 1), DImageCorruptedException, mismatch);
    }
    {
        SCOPED_TRACE("unknown filter");
        EXPECT_THROW_MSG(decoded(bad, bs, plain.size()), DImageCorruptedException, "Unknown compression filter");
        EXPECT_THROW_MSG(codec::encode(bad, plain.data(), plain.size()), DBadParameterException,
                         "Unknown compression filter");
    }
    {
        SCOPED_TRACE("size mismatch");
        EXPECT_THROW_MSG(decoded(BS32, bs, plain.size() + 4), DImageCorruptedException, mismatch);
        EXPECT_THROW_MSG(decoded(LZ4, lz4, plain.size() - 1), DImageCorruptedException, mismatch);
        Bytes odd = header(35, 8192); // 35 bytes are no whole number of 16-bit elements
        EXPECT_THROW_MSG(decoded(BS16, odd, 35), DImageCorruptedException, mismatch);
        Bytes absurd = header(~std::uint64_t(0), 8192);
        EXPECT_THROW_MSG(decoded(BS32, absurd, 64), DImageCorruptedException, mismatch);
        EXPECT_THROW_MSG(codec::encode(BS32, plain.data(), plain.size() - 1), DBadParameterException,
                         "Size is not a multiple of the element size");
    }
    {
        SCOPED_TRACE("block sizes");
        Bytes chunk = lz4;
        putBe32(chunk, 8, 0);
        EXPECT_THROW_MSG(decoded(LZ4, chunk, plain.size()), DImageCorruptedException, "LZ4 block size is invalid");
        for (std::uint32_t block : {0u, 8190u, 48u}) { // zero, not whole elements, 12 elements
            SCOPED_TRACE(block);
            chunk = bs;
            putBe32(chunk, 8, block);
            EXPECT_THROW_MSG(decoded(BS32, chunk, plain.size()), DImageCorruptedException,
                             "Bitshuffle block size is invalid");
        }
        // A block larger than LZ4 can hold; raised from the header, before `out` is touched.
        char out[1];
        Bytes huge = header(0x80000000u, 0x80000000u);
        huge.resize(0x80000000u / 256 + 16); // enough bytes for LZ4 to expand to 2 GiB
        EXPECT_THROW_MSG(codec::decode(BS32, huge.data(), huge.size(), out, 0x80000000u), DImageCorruptedException,
                         "Bitshuffle block size is invalid");
        // Fewer bytes than LZ4 can expand to the announced size: truncated, from the header.
        huge.resize(0x80000000u / 256 - 1);
        EXPECT_THROW_MSG(codec::decode(BS32, huge.data(), huge.size(), out, 0x80000000u), DImageCorruptedException,
                         "Compressed chunk is truncated");
        EXPECT_STREQ(codec::headerProblem(LZ4, huge.data(), huge.size(), 0x80000000u), "Compressed chunk is truncated");
    }
    {
        SCOPED_TRACE("LZ4 blocks");
        Bytes chunk = bs; // the block of 8 elements: 4-byte length at 12, LZ4 data from 16
        for (std::size_t i = 16; i + 4 < chunk.size(); ++i)
            chunk[i] = static_cast<char>(0xFF);
        EXPECT_THROW_MSG(decoded(BS32, chunk, plain.size()), DImageCorruptedException, "LZ4 block does not decode");
        // A valid LZ4 block of 36 bytes where the header announces 40.
        Bytes shorter = codec::encode(LZ4, Bytes(36, 'a').data(), 36);
        ASSERT_LT(shorter.size(), 16u + 36u);
        shorter[7] = 40;
        shorter[11] = 40;
        EXPECT_THROW_MSG(decoded(LZ4, shorter, 40), DImageCorruptedException, "LZ4 block does not decode");
    }
}

TEST(Compression, TruncationAtEveryLength)
{
    const Bytes frame = fixture("lz4_frame.plain");
    const Bytes small(frame.begin(), frame.begin() + 200);
    const Bytes bs16 = fixture("bs_u16_9.chunk"), bs32 = fixture("bs_u32_2049.chunk");
    const Bytes lz4 = codec::encode(LZ4, small.data(), small.size());
    for (auto [filter, chunk, size] : {std::tuple{BS16, bs16, std::size_t(18)},
                                       std::tuple{BS32, bs32, std::size_t(8196)},
                                       std::tuple{LZ4, lz4, small.size()}}) {
        for (std::size_t length = 0; length < chunk.size(); ++length) {
            SCOPED_TRACE("filter " + std::to_string(filter) + " length " + std::to_string(length));
            if (filter != LZ4 && length + 1 == chunk.size()) {
                EXPECT_NO_THROW(decoded(filter, chunk, size, length));
            } else {
                EXPECT_THROW_MSG(decoded(filter, chunk, size, length), DImageCorruptedException,
                                 "Compressed chunk is truncated");
            }
        }
    }
}

TEST(Compression, DamagedLengthFieldsAndBytesNeverEscapeTheBuffers)
{
    const Bytes plain = fixture("bs_u32_9991.plain"), bs = fixture("bs_u32_9991.chunk");
    const Bytes lz4 = fixture("lz4_blocks.chunk");
    {
        SCOPED_TRACE("length fields");
        // The first block's length field follows the header; every other value breaks the chunk.
        const std::uint32_t real = (std::uint8_t(bs[12]) << 24) | (std::uint8_t(bs[13]) << 16) |
                                   (std::uint8_t(bs[14]) << 8) | std::uint8_t(bs[15]);
        for (std::uint32_t length : {0u, 1u, real - 1, real + 1, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
            SCOPED_TRACE(length);
            Bytes chunk = bs;
            putBe32(chunk, 12, length);
            EXPECT_THROW(decoded(BS32, chunk, plain.size()), DImageCorruptedException);
        }
    }
    {
        SCOPED_TRACE("legal but absurd block size");
        Bytes chunk = header(plain.size(), 0xFFFFFFE0u); // one block of all elements but the tail
        Bytes shuffled(9984 * 4);
        codec::bitshuffle(plain.data(), shuffled.data(), 9984, 4);
        const Bytes block = codec::encode(LZ4, shuffled.data(), shuffled.size());
        const Bytes tail(plain.end() - 28, plain.end());
        chunk.insert(chunk.end(), block.begin() + 12, block.end()); // length and LZ4 data
        chunk.insert(chunk.end(), tail.begin(), tail.end());
        EXPECT_EQ(decoded(BS32, chunk, plain.size()), plain);
    }
}

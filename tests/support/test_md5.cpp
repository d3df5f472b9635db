#include "TestHelpers.h"

#include "DMd5.h"

#include <sys/mman.h>

#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <vector>

using norvexa::imglib::DMd5;

namespace {

using Bytes = std::vector<unsigned char>;

Bytes randomBytes(std::size_t length, unsigned seed)
{
    std::mt19937 generator(seed);
    Bytes bytes(length);
    for (auto& byte : bytes)
        byte = static_cast<unsigned char>(generator() >> 24);
    return bytes;
}

std::string hexOf(const Bytes& message)
{
    DMd5 md5;
    md5.hash(message.data(), message.size());
    return md5.toHex();
}

// coreutils' md5sum over the files of `dir`, in one run: file name -> digest.
std::map<std::string, std::string> md5sumOf(const std::filesystem::path& dir)
{
    std::istringstream lines(norvexa_test::runCommand("cd '" + dir.string() + "' && md5sum -- *").second);
    std::map<std::string, std::string> digests;
    for (std::string text; std::getline(lines, text);) // "<32 hex digits>  <name>"
        if (text.size() > 34)
            digests[text.substr(34)] = text.substr(0, 32);
    return digests;
}

} // namespace

TEST(Md5, ReferenceVectorsInHexAndBase64)
{
    // The test suite of RFC 1321; the Base64 forms include both '+' and '/'.
    const char* vectors[][3] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e", "1B2M2Y8AsgTpgAmY7PhCfg=="},
        {"a", "0cc175b9c0f1b6a831c399e269772661", "DMF1ucDxtqgxw5niaXcmYQ=="},
        {"abc", "900150983cd24fb0d6963f7d28e17f72", "kAFQmDzST7DWlj99KOF/cg=="},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0", "+WtpfXy3k41SWi8xqvFh0A=="},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b", "w/zT12GS5AB9+0lsymfhOw=="},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f",
         "0XSrmNJ32fWlYRwsn0Gdnw=="},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a", "V+30oivjyVWsSdouIQe2eg=="},
    };
    DMd5 md5;
    for (const auto& vector : vectors) {
        SCOPED_TRACE(std::string("message \"") + vector[0] + "\"");
        const std::size_t length = std::strlen(vector[0]);
        // The empty message needs no data at all.
        md5.hash(length ? reinterpret_cast<const unsigned char*>(vector[0]) : nullptr, length);
        EXPECT_EQ(md5.toHex(), vector[1]);
        EXPECT_EQ(md5.toBase64(), vector[2]);
    }
}

TEST(Md5, RandomMessagesAgreeWithMd5sum)
{
    // Every length around the padding boundaries (55/56, 63/64, 119/120, 127/128), then
    // larger ones that take the in-place block path many times.
    std::vector<std::size_t> lengths;
    for (std::size_t length = 0; length <= 200; ++length)
        lengths.push_back(length);
    for (std::size_t length : {255, 256, 257, 4095, 4096, 4097, 65535, 65536, 65537, 3000017})
        lengths.push_back(length);

    norvexa_test::TempDir dir;
    for (std::size_t length : lengths) {
        const Bytes message = randomBytes(length, static_cast<unsigned>(length));
        std::ofstream(dir.path() / std::to_string(length), std::ios::binary)
            .write(reinterpret_cast<const char*>(message.data()), static_cast<std::streamsize>(length));
    }
    const auto reference = md5sumOf(dir.path());
    ASSERT_EQ(reference.size(), lengths.size()) << "md5sum did not report every file";

    DMd5 md5; // one object for all: each hash() stands on its own
    for (std::size_t length : lengths) {
        SCOPED_TRACE("length " + std::to_string(length));
        const Bytes message = randomBytes(length, static_cast<unsigned>(length));
        md5.hash(message.data(), message.size());
        EXPECT_EQ(md5.toHex(), reference.at(std::to_string(length)));
    }
}

TEST(Md5, AppendInPiecesAndInCopiesGivesTheDigestOfTheWhole)
{
    DMd5 md5;
    const Bytes small = randomBytes(300, 3);
    for (std::size_t split = 0; split <= small.size(); ++split) {
        md5.reset();
        md5.append(small.data(), split);
        md5.append(small.data() + split, small.size() - split);
        md5.finish();
        ASSERT_EQ(md5.toHex(), hexOf(small)) << "split at " << split;
    }
    // Random pieces of 0 to 150 bytes over 1 MiB.
    const Bytes message = randomBytes(1 << 20, 4);
    std::mt19937 generator(5);
    md5.reset();
    for (std::size_t done = 0; done < message.size();) {
        const std::size_t piece = std::min<std::size_t>(generator() % 151, message.size() - done);
        md5.append(message.data() + done, piece);
        done += piece;
    }
    md5.finish();
    EXPECT_EQ(md5.toHex(), hexOf(message));

    // Copies, made or assigned in the middle, go on independently.
    DMd5 original;
    original.append(message.data(), 150);
    DMd5 copy(original), assigned;
    const unsigned char* record = assigned.digest();
    assigned = original;
    original.finish(); // the digest of the first 150 bytes only
    for (DMd5* part : {&copy, &assigned}) {
        part->append(message.data() + 150, 50);
        part->finish();
        EXPECT_EQ(part->toHex(), hexOf(Bytes(message.begin(), message.begin() + 200)));
    }
    EXPECT_EQ(original.toHex(), hexOf(Bytes(message.begin(), message.begin() + 150)));
    EXPECT_EQ(assigned.digest(), record) << "assignment keeps the record";
}

TEST(Md5, HashAndResetStartFromScratchFinishDoesNot)
{
    const Bytes junk = randomBytes(100, 6); // leaves 36 bytes in the block buffer
    const unsigned char abc[] = {'a', 'b', 'c'}, def[] = {'d', 'e', 'f'};
    DMd5 md5;
    md5.append(junk.data(), junk.size());
    md5.hash(abc, 3);
    EXPECT_EQ(md5.toHex(), "900150983cd24fb0d6963f7d28e17f72") << "hash";
    md5.append(junk.data(), junk.size());
    md5.reset();
    md5.append(abc, 3);
    md5.finish();
    EXPECT_EQ(md5.toHex(), "900150983cd24fb0d6963f7d28e17f72") << "reset, append, finish";

    // Without a reset, the padding and the length become part of the message.
    md5.append(def, 3);
    md5.finish();
    Bytes padded(abc, abc + 3);
    padded.push_back(0x80);
    padded.resize(56, 0);
    padded.push_back(24); // the length in bits, little-endian over 8 bytes
    padded.resize(64, 0);
    padded.insert(padded.end(), def, def + 3);
    EXPECT_EQ(md5.toHex(), hexOf(padded));
}

TEST(Md5, MessageAboveTwoGibibytes)
{
    if (sizeof(unsigned long) < 8)
        GTEST_SKIP() << "unsigned long can't hold the length";
    // 2^31 + 1000 zero bytes: more than one 0x7fffffff chunk, and a first chunk that ends
    // inside a block. Reference: head -c 2147484648 /dev/zero | md5sum
    const unsigned long length = (1ul << 31) + 1000;
    // Read-only anonymous pages all map the one zero page: no memory is committed.
    void* zeros = ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (zeros == MAP_FAILED)
        GTEST_SKIP() << "can't map " << length << " bytes";
    DMd5 md5;
    md5.hash(static_cast<const unsigned char*>(zeros), length);
    ::munmap(zeros, length);
    EXPECT_EQ(md5.toHex(), "2e7a126f84ac1e6abd697988022f27fb");
}

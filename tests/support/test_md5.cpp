#include "TestHelpers.h"

#include "DMd5.h"

#include <sys/mman.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

using norvexa::imglib::DMd5;

namespace {

using Bytes = std::vector<unsigned char>;

Bytes bytesOf(const std::string& text) { return Bytes(text.begin(), text.end()); }

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

// Digests from coreutils' md5sum, one run over all files, keyed by file name.
std::map<std::string, std::string> md5sumOf(const std::filesystem::path& dir,
                                            const std::vector<std::string>& names)
{
    std::string command = "cd '" + dir.string() + "' && md5sum --";
    for (const auto& name : names)
        command += " " + name;
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
    std::map<std::string, std::string> digests;
    if (!pipe)
        return digests;
    char line[512];
    while (std::fgets(line, sizeof line, pipe.get())) {
        const std::string text(line);
        if (text.size() > 34)
            digests[text.substr(34, text.find_last_not_of("\r\n") - 33)] = text.substr(0, 32);
    }
    return digests;
}

} // namespace

TEST(Md5, ReferenceVectorsInHexAndBase64)
{
    struct Vector {
        const char* message;
        const char* hex;
        const char* base64;
    };
    // The test suite of RFC 1321; the Base64 forms include both '+' and '/'.
    const Vector vectors[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e", "1B2M2Y8AsgTpgAmY7PhCfg=="},
        {"a", "0cc175b9c0f1b6a831c399e269772661", "DMF1ucDxtqgxw5niaXcmYQ=="},
        {"abc", "900150983cd24fb0d6963f7d28e17f72", "kAFQmDzST7DWlj99KOF/cg=="},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0", "+WtpfXy3k41SWi8xqvFh0A=="},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b",
         "w/zT12GS5AB9+0lsymfhOw=="},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f", "0XSrmNJ32fWlYRwsn0Gdnw=="},
        {"1234567890123456789012345678901234567890123456789012345678901234567890123456789"
         "0",
         "57edf4a22be3c955ac49da2e2107b67a", "V+30oivjyVWsSdouIQe2eg=="},
    };
    DMd5 md5;
    for (const auto& vector : vectors) {
        SCOPED_TRACE(std::string("message \"") + vector.message + "\"");
        const Bytes message = bytesOf(vector.message);
        md5.hash(message.data(), message.size());
        EXPECT_EQ(md5.toHex(), vector.hex);
        EXPECT_EQ(md5.toBase64(), vector.base64);
    }

    // The raw bytes, in the order of the text.
    const Bytes abc = bytesOf("abc");
    md5.hash(abc.data(), abc.size());
    const unsigned char expected[16] = {0x90, 0x01, 0x50, 0x98, 0x3c, 0xd2, 0x4f, 0xb0,
                                        0xd6, 0x96, 0x3f, 0x7d, 0x28, 0xe1, 0x7f, 0x72};
    EXPECT_EQ(std::memcmp(md5.digest(), expected, 16), 0);
}

TEST(Md5, EmptyMessageWithoutData)
{
    DMd5 md5;
    md5.hash(nullptr, 0);
    EXPECT_EQ(md5.toHex(), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(md5.toBase64(), "1B2M2Y8AsgTpgAmY7PhCfg==");
    EXPECT_EQ(md5.toBase64().size(), 24u);
}

TEST(Md5, RandomMessagesAgreeWithMd5sum)
{
    // Every length around the padding boundaries (55/56, 63/64, 119/120, 127/128) and
    // a few larger ones that take the in-place block path many times.
    std::vector<std::size_t> lengths;
    for (std::size_t length = 0; length <= 200; ++length)
        lengths.push_back(length);
    for (std::size_t length : {255, 256, 257, 1000, 4095, 4096, 4097, 65535, 65536, 65537,
                               (1 << 20) - 1, (1 << 20) + 1, 3000017})
        lengths.push_back(length);

    norvexa_test::TempDir dir;
    std::vector<std::string> names;
    std::map<std::string, Bytes> messages;
    for (std::size_t length : lengths) {
        const std::string name = "len_" + std::to_string(length) + ".bin";
        Bytes message = randomBytes(length, static_cast<unsigned>(length) + 17);
        std::ofstream(dir.path() / name, std::ios::binary)
            .write(reinterpret_cast<const char*>(message.data()),
                   static_cast<std::streamsize>(message.size()));
        names.push_back(name);
        messages.emplace(name, std::move(message));
    }

    const auto reference = md5sumOf(dir.path(), names);
    ASSERT_EQ(reference.size(), names.size()) << "md5sum did not report every file";
    DMd5 md5; // one object for all: each hash() stands on its own
    for (const auto& name : names) {
        SCOPED_TRACE(name);
        const Bytes& message = messages.at(name);
        md5.hash(message.data(), message.size());
        EXPECT_EQ(md5.toHex(), reference.at(name));
    }
}

TEST(Md5, AppendInPiecesGivesTheDigestOfTheWhole)
{
    const Bytes message = randomBytes(1000, 3);
    const std::string whole = hexOf(message);
    DMd5 md5;

    {
        SCOPED_TRACE("every split into two pieces");
        for (std::size_t split = 0; split <= message.size(); ++split) {
            md5.reset();
            md5.append(message.data(), split);
            md5.append(message.data() + split, message.size() - split);
            md5.finish();
            ASSERT_EQ(md5.toHex(), whole) << "split at " << split;
        }
    }
    {
        SCOPED_TRACE("one byte at a time");
        md5.reset();
        for (unsigned char byte : message)
            md5.append(&byte, 1);
        md5.finish();
        EXPECT_EQ(md5.toHex(), whole);
    }
    {
        SCOPED_TRACE("random pieces, empty ones included, over 1 MiB");
        const Bytes large = randomBytes(1 << 20, 4);
        std::mt19937 generator(5);
        std::uniform_int_distribution<std::size_t> pieceLength(0, 300);
        md5.reset();
        for (std::size_t done = 0; done < large.size();) {
            const std::size_t piece = std::min(pieceLength(generator), large.size() - done);
            md5.append(large.data() + done, piece);
            done += piece;
        }
        md5.finish();
        EXPECT_EQ(md5.toHex(), hexOf(large));
    }
}

TEST(Md5, ResetAndRepeatedHashStartFromScratch)
{
    const Bytes abc = bytesOf("abc");
    const Bytes junk = randomBytes(100, 6); // leaves 36 bytes in the block buffer
    DMd5 md5;

    {
        SCOPED_TRACE("hash after a half-done message");
        md5.append(junk.data(), junk.size());
        md5.hash(abc.data(), abc.size());
        EXPECT_EQ(md5.toHex(), "900150983cd24fb0d6963f7d28e17f72");
    }
    {
        SCOPED_TRACE("hash after hash");
        md5.hash(junk.data(), junk.size());
        md5.hash(abc.data(), abc.size());
        EXPECT_EQ(md5.toHex(), "900150983cd24fb0d6963f7d28e17f72");
    }
    {
        SCOPED_TRACE("reset, append and finish after a half-done message");
        md5.append(junk.data(), junk.size());
        md5.reset();
        md5.append(abc.data(), abc.size());
        md5.finish();
        EXPECT_EQ(md5.toHex(), "900150983cd24fb0d6963f7d28e17f72");
    }
}

TEST(Md5, AppendAfterFinishGoesOnFromThePaddedMessage)
{
    // Without a reset the padding and length become part of the message.
    DMd5 md5;
    const Bytes abc = bytesOf("abc");
    const Bytes def = bytesOf("def");
    md5.append(abc.data(), abc.size());
    md5.finish();
    md5.append(def.data(), def.size());
    md5.finish();

    Bytes padded = abc;
    padded.push_back(0x80);
    padded.resize(56, 0);
    const unsigned char bits[8] = {24, 0, 0, 0, 0, 0, 0, 0};
    padded.insert(padded.end(), bits, bits + 8);
    padded.insert(padded.end(), def.begin(), def.end());
    EXPECT_EQ(md5.toHex(), hexOf(padded));
    EXPECT_NE(md5.toHex(), hexOf(bytesOf("abcdef")));
}

TEST(Md5, CopiesGoOnIndependently)
{
    const Bytes head = randomBytes(150, 7);
    const Bytes tailA = bytesOf("first tail");
    const Bytes tailB = randomBytes(70, 8);
    auto joined = [&](const Bytes& tail) {
        Bytes whole = head;
        whole.insert(whole.end(), tail.begin(), tail.end());
        return hexOf(whole);
    };

    DMd5 original;
    original.append(head.data(), head.size());
    DMd5 copy(original);
    original.append(tailA.data(), tailA.size());
    original.finish();
    copy.append(tailB.data(), tailB.size());
    copy.finish();
    EXPECT_EQ(original.toHex(), joined(tailA));
    EXPECT_EQ(copy.toHex(), joined(tailB));

    // Assignment copies into the existing record: the digest pointer stays.
    DMd5 assigned;
    const unsigned char* digest = assigned.digest();
    assigned = original;
    EXPECT_EQ(assigned.digest(), digest);
    EXPECT_EQ(std::memcmp(digest, original.digest(), 16), 0);
}

TEST(Md5, MessageAboveTwoGibibytes)
{
    if (sizeof(unsigned long) < 8)
        GTEST_SKIP() << "unsigned long can't hold the length";
    // 2^31 + 1000 zero bytes: more than one 0x7fffffff chunk, and a first chunk that
    // ends in the middle of a block. Reference: head -c 2147484648 /dev/zero | md5sum
    const unsigned long length = (1ul << 31) + 1000;
    // Read-only anonymous pages all map the one zero page: no memory is committed.
    void* zeros = ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE,
                         -1, 0);
    if (zeros == MAP_FAILED)
        GTEST_SKIP() << "can't map " << length << " bytes";
    DMd5 md5;
    md5.hash(static_cast<const unsigned char*>(zeros), length);
    ::munmap(zeros, length);
    EXPECT_EQ(md5.toHex(), "2e7a126f84ac1e6abd697988022f27fb");
}

#include "PixelTypes.h"
#include "SharedSegment.h"
#include "TestHelpers.h"

#include "foundation/DException.h"
#include "foundation/image/DBasicImage.h"
#include "foundation/image/DLargeBlocks.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

using namespace norvexa;
using namespace norvexa::image;
using namespace norvexa::datatypes;
using Image = DBasicImage<StdAllocator>;
using ShmImage = DBasicImage<ShmAllocator>;

namespace {

template <class A, class B>
void expectSameContainer(const A& a, const B& b)
{
    EXPECT_TRUE(std::equal(a.shape().begin(), a.shape().end(), b.shape().begin(), b.shape().end()));
    EXPECT_EQ(a.type(), b.type());
    EXPECT_EQ(a.typeBits(), b.typeBits());
    EXPECT_EQ(a.filter(), b.filter());
    ASSERT_EQ(a.usedBytes(), b.usedBytes());
    if (a.usedBytes()) {
        EXPECT_EQ(std::memcmp(a.cdata(), b.cdata(), a.usedBytes()), 0);
    }
}

Image ramp(unsigned long width, unsigned long height)
{
    Image image(static_cast<const unsigned int*>(nullptr), width, height);
    auto* p = reinterpret_cast<unsigned int*>(image.data());
    for (std::size_t i = 0; i < image.size(); ++i)
        p[i] = static_cast<unsigned int>(i % 97 == 0 ? 0xFFFFFFFFu : i % 13);
    return image;
}

} // namespace

template <class T>
class ContainerPerType : public ::testing::Test {};
TYPED_TEST_SUITE(ContainerPerType, norvexa_test::AllPixelTypes, norvexa_test::PixelTypeNames);

TYPED_TEST(ContainerPerType, TagTwoDimensionalCopyAndConversion)
{
    using T = TypeParam;
    const Image tag(static_cast<const T*>(nullptr));
    EXPECT_EQ(tag.size(), 0u);
    EXPECT_TRUE(tag.empty());
    EXPECT_EQ(tag.data(), nullptr);
    EXPECT_EQ(tag.type(), PixelTraits<T>::type);
    EXPECT_EQ(tag.typeBits(), PixelTraits<T>::bits);

    Image image(static_cast<const T*>(nullptr), 5, 3);
    EXPECT_TRUE(image.shape() == Image::Shape({5, 3}));
    EXPECT_EQ(image.size(), 15u);
    EXPECT_EQ(image.usedBytes(), 15 * sizeof(T));
    EXPECT_EQ(image.filter(), DCompression::FILTER_NONE);
    T* p = reinterpret_cast<T*>(image.data());
    for (int i = 0; i < 15; ++i)
        p[i] = static_cast<T>(i % 2 ? i : 0);

    Image copy(image);
    reinterpret_cast<T*>(copy.data())[1] = T(0);
    EXPECT_EQ(reinterpret_cast<const T*>(image.cdata())[1], static_cast<T>(1)) << "copies are values";

    // Every type converts to double and back without loss for these small values.
    const Image asDouble = image.asType<double>();
    EXPECT_EQ(asDouble.type(), FLOAT);
    EXPECT_EQ(asDouble.typeBits(), 64u);
    const Image back = asDouble.asType(PixelTraits<T>::type, PixelTraits<T>::bits);
    expectSameContainer(back, image);
    expectSameContainer(image.asType<T>(), image);
}

TEST(Container, EmptyScalarAndResize)
{
    Image text(StdAllocator(), INT, 32);
    text.setType(CHAR);
    text.setTypeBits(40);
    text.resizeScalar();
    EXPECT_EQ(text.size(), 1u);
    EXPECT_TRUE(text.shape().empty());
    EXPECT_EQ(text.usedBytes(), 5u);
    std::memcpy(text.data(), "hello", 5);
    EXPECT_EQ(std::string(text.cdata(), 5), "hello");

    Image image = ramp(4, 3);
    image.clear();
    EXPECT_TRUE(image.empty());
    EXPECT_EQ(image.data(), nullptr);
    EXPECT_EQ(image.type(), UINT) << "the description survives clear()";

    image.resize1D(7);
    EXPECT_EQ(image.size(), 7u);
    EXPECT_EQ(image.usedBytes(), 28u);
    image.resize2D(0, 9);
    EXPECT_TRUE(image.empty());
    EXPECT_EQ(image.data(), nullptr);

    // A shape whose byte count overflows is refused, never allocated short.
    EXPECT_THROW(Image(1UL << 40, 1UL << 40, StdAllocator(), UINT, 32), std::bad_alloc);
}

TEST(Container, MoveSwapAndAssignment)
{
    Image a = ramp(6, 2);
    const Image reference = a;
    const char* pixels = a.cdata();

    Image moved(std::move(a));
    EXPECT_EQ(moved.cdata(), pixels) << "a move must not touch pixels";
    EXPECT_TRUE(a.empty());
    EXPECT_EQ(a.data(), nullptr);

    Image b(static_cast<const float*>(nullptr), 2, 2);
    b.swap(moved);
    EXPECT_EQ(b.cdata(), pixels);
    EXPECT_EQ(moved.type(), FLOAT);

    Image c;
    c = b;
    expectSameContainer(c, reference);
    c = c; // self-assignment keeps the contents
    expectSameContainer(c, reference);
}

TEST(Container, CompressedStateAndDecoding)
{
    const Image plain = ramp(37, 11);
    for (auto filter : {DCompression::FILTER_LZ4, DCompression::FILTER_BS16_LZ4,
                        DCompression::FILTER_BS32_LZ4}) {
        SCOPED_TRACE(static_cast<int>(filter));
        Image compressed = plain;
        compressed.setFilter(filter, 0);
        EXPECT_EQ(compressed.filter(), filter);
        EXPECT_EQ(compressed.size(), plain.size()) << "size() counts pixels, not bytes";
        EXPECT_LT(compressed.usedBytes(), plain.usedBytes());

        // As a detector would hand it over: a raw chunk taken as it stands.
        DBasicImageData<StdAllocator> chunk;
        chunk.resize(compressed.usedBytes());
        std::memcpy(chunk.data(), compressed.cdata(), compressed.usedBytes());
        Image received;
        received.setRawData(std::move(chunk), Image::Shape{37, 11}, UINT, 32, filter);
        EXPECT_EQ(received.filter(), filter);

        // Into a slot of a caller's buffer, as a stack of frames is filled; the bytes
        // around the slot stay as they were.
        std::vector<char> stack(plain.usedBytes() + 2, '#');
        received.decodeInto(stack.data() + 1, plain.usedBytes());
        EXPECT_EQ(0, std::memcmp(stack.data() + 1, plain.cdata(), plain.usedBytes()));
        EXPECT_EQ(stack.front(), '#');
        EXPECT_EQ(stack.back(), '#');
        EXPECT_THROW(received.decodeInto(stack.data(), plain.usedBytes() + 1), DBadParameterException);
        EXPECT_THROW(plain.decodeInto(stack.data(), plain.usedBytes() - 4), DBadParameterException);

        received.setFilter(DCompression::FILTER_NONE, 0);
        expectSameContainer(received, plain);

        const char* before = received.cdata();
        received.setFilter(DCompression::FILTER_NONE, 0); // cheap no-op on a plain container
        EXPECT_EQ(received.cdata(), before);
    }
}

TEST(Container, CorruptChunkFailsAndLeavesTheContainerAsItWas)
{
    Image compressed = ramp(64, 64);
    compressed.setFilter(DCompression::FILTER_LZ4, 0);
    compressed.data()[compressed.usedBytes() / 2] ^= 0x5a;
    compressed.data()[20] ^= 0x7f;
    const Image before = compressed;
    EXPECT_THROW(compressed.setFilter(DCompression::FILTER_NONE, 0), DImageCorruptedException);
    expectSameContainer(compressed, before);
}

TEST(Container, ChunkOfAnotherSizeIsRefusedBeforeAnythingIsAllocated)
{
    Image compressed = ramp(37, 11);
    compressed.setFilter(DCompression::FILTER_BS32_LZ4, 0);
    const auto chunkOf = [&](std::size_t bytes) {
        DBasicImageData<StdAllocator> chunk;
        chunk.resize(bytes);
        std::memcpy(chunk.data(), compressed.cdata(), std::min(bytes, compressed.usedBytes()));
        return chunk;
    };
    const struct {
        const char* label;
        Image::Shape shape;
        std::size_t bytes;
        const char* text;
    } cases[] = {
        {"another shape", Image::Shape{11, 37 * 2}, compressed.usedBytes(), codec::text::SIZE_MISMATCH},
        {"a shape whose bytes overflow", Image::Shape{1UL << 40, 1UL << 40}, compressed.usedBytes(),
         codec::text::SIZE_MISMATCH},
        {"shorter than its header", Image::Shape{37, 11}, 11, codec::text::TRUNCATED},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        Image received(ramp(2, 2));
        const Image before = received;
        EXPECT_THROW_MSG(received.setRawData(chunkOf(c.bytes), c.shape, UINT, 32, DCompression::FILTER_BS32_LZ4),
                         DImageCorruptedException, c.text);
        expectSameContainer(received, before);
    }

    // A header that agrees with a huge shape, on a chunk of 100 bytes: LZ4 cannot expand
    // 100 bytes to 16 GiB, so neither the container nor the decoder takes it.
    DBasicImageData<StdAllocator> huge = chunkOf(100);
    const std::uint64_t claimed = std::uint64_t(65536) * 65536 * 4;
    for (int i = 0; i < 8; ++i)
        huge.data()[i] = static_cast<char>(claimed >> (56 - 8 * i));
    EXPECT_STREQ(codec::headerProblem(DCompression::FILTER_BS32_LZ4, huge.cdata(), huge.size(), claimed),
                 codec::text::TRUNCATED);
    Image received;
    EXPECT_THROW_MSG(received.setRawData(std::move(huge), Image::Shape{65536, 65536}, UINT, 32,
                                         DCompression::FILTER_BS32_LZ4),
                     DImageCorruptedException, codec::text::TRUNCATED);
    EXPECT_TRUE(received.empty());
}

TEST(SharedContainer, CopiesIntoASegmentAndBackIncludingCompressedState)
{
    norvexa_test::SharedSegment segment(8 << 20);
    const std::size_t freeAtStart = segment.segment.get_free_memory();
    {
        const Image plain = ramp(123, 45);
        Image compressed = plain;
        compressed.setFilter(DCompression::FILTER_BS32_LZ4, 0);

        for (const Image* source : {&plain, static_cast<const Image*>(&compressed)}) {
            SCOPED_TRACE(source == &plain ? "plain" : "compressed");
            ShmImage* shared = segment.segment.construct<ShmImage>(boost::interprocess::anonymous_instance)(
                *source, segment.allocator());
            EXPECT_TRUE(segment.contains(shared->data()));
            EXPECT_TRUE(segment.contains(&shared->shape()[0]));
            expectSameContainer(*shared, *source);

            const ShmImage sharedCopy(*shared); // stays in the segment
            EXPECT_TRUE(segment.contains(sharedCopy.data()));

            Image back(*shared, StdAllocator());
            expectSameContainer(back, *source);
            back.setFilter(DCompression::FILTER_NONE, 0);
            expectSameContainer(back, plain);

            *shared = sharedCopy;
            expectSameContainer(*shared, *source);
            segment.segment.destroy_ptr(shared);
        }

        DBasicImageData<ShmAllocator> bytes(segment.allocator());
        bytes.resize(10);
        DBasicImageData<StdAllocator> heap(bytes, StdAllocator());
        EXPECT_EQ(heap.size(), 10u);
        DBasicImageData<ShmAllocator> again(heap, segment.allocator());
        DBasicImageData<ShmAllocator> moved(std::move(again));
        EXPECT_TRUE(segment.contains(moved.data()));
    }
    EXPECT_EQ(segment.segment.get_free_memory(), freeAtStart) << "everything given back";
}

TEST(BufferData, TwoWordsAlignedAndLargeBlocksComeBackForTheNextFrame)
{
    static_assert(sizeof(DBasicImageData<StdAllocator>) == 2 * sizeof(void*));
    const std::size_t frame = 6u << 20;
    const void* first = nullptr;
    DLargeBlocks::trim();
    {
        DBasicImageData<StdAllocator> buffer;
        EXPECT_EQ(buffer.capacity(), 0u);
        buffer.resize(1000);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buffer.cdata()) % 16, 0u);
        std::memset(buffer.data(), 0x5a, 1000);
        buffer.reserve(4000);
        EXPECT_GE(buffer.capacity(), 4000u);
        EXPECT_EQ(buffer.cdata()[999], 0x5a);
        buffer.resize(frame); // grows from a small block into a large one
        EXPECT_EQ(buffer.data()[999], 0x5a);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buffer.cdata()) % 16, 0u);
        buffer.data()[frame - 1] = 1;
        DBasicImageData<StdAllocator> copy(buffer);
        EXPECT_EQ(copy.cdata()[frame - 1], 1);
        EXPECT_EQ(copy.cdata()[0], 0x5a);
        first = copy.cdata();
    }
    // A freed frame's block serves the next frame of the same size.
    DBasicImageData<StdAllocator> next;
    next.resize(frame);
    EXPECT_EQ(next.cdata(), first);
    std::memset(next.data(), 0, frame);
}

TEST(BufferData, CopiesShareUntilAWritablePointerIsAskedFor)
{
    DBasicImageData<StdAllocator> source;
    {
        DBasicImageData<StdAllocator> filler;
        filler.resize(4);
        std::memcpy(filler.data(), "abcd", 4);
        source = DBasicImageData<StdAllocator>(filler, StdAllocator()); // a copy of a written block: its own
    }
    ASSERT_EQ(std::string(source.cdata(), 4), "abcd");
    DBasicImageData<StdAllocator> copy(source);
    EXPECT_EQ(copy.cdata(), source.cdata()) << "shared while nobody writes";
    DBasicImageData<StdAllocator> assigned;
    assigned = copy;
    EXPECT_EQ(assigned.cdata(), source.cdata());

    copy.data()[0] = 'X';
    EXPECT_NE(copy.cdata(), source.cdata()) << "the writer got its own block";
    EXPECT_EQ(std::string(source.cdata(), 4), "abcd");
    EXPECT_EQ(std::string(assigned.cdata(), 4), "abcd");
    EXPECT_EQ(std::string(copy.cdata(), 4), "Xbcd");

    // Once a writable pointer is out, copies are real copies: the pointer may still be used.
    char* kept = copy.data();
    DBasicImageData<StdAllocator> later(copy);
    EXPECT_NE(later.cdata(), copy.cdata());
    kept[1] = 'Y';
    EXPECT_EQ(std::string(later.cdata(), 4), "Xbcd");

    // Images built on shared buffers keep value semantics through every path.
    Image base = ramp(16, 4);
    const Image viaTree(base, StdAllocator());
    Image second(viaTree);
    reinterpret_cast<unsigned int*>(second.data())[0] = 12345u;
    EXPECT_NE(reinterpret_cast<const unsigned int*>(viaTree.cdata())[0], 12345u);
}

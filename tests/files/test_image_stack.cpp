#include "TestHelpers.h"

#include "DImageStack.h"
#include "foundation/DException.h"

using namespace norvexa;
using namespace norvexa::imglib;

TEST(ImageStack, KeepsTheNewestImagesByNumber)
{
    DImageStack stack(3);
    EXPECT_EQ(std::make_tuple(stack.maxStackSize(), stack.empty(), stack.first(), stack.last()),
              std::make_tuple(3, true, 0, -1));
    EXPECT_THROW_MSG(stack.front(), DOutOfRangeException, "Image Stack is empty");
    stack.popFront(); // silent when empty
    for (int i = 1; i <= 4; ++i)
        stack.pushBack(DImage(4, 3, i)); // a frame whose pixels tell its number
    EXPECT_EQ(stack.size(), 3u);
    EXPECT_EQ(stack.last(), 2);
    EXPECT_EQ(stack[0].pixel<int>(0, 0, 0), 2);
    EXPECT_EQ(stack.front().pixel<int>(0, 0, 0), 2);
    EXPECT_EQ(stack[2].pixel<int>(0, 0, 0), 4);
    EXPECT_THROW_MSG(stack[3], DOutOfRangeException, "DImageStack: index is out of range");
    EXPECT_THROW_MSG(stack[-1], DOutOfRangeException, "DImageStack: index is out of range");
    stack.popFront();
    EXPECT_EQ(stack.first(), 0) << "indices are positions";
    EXPECT_EQ(stack[0].pixel<int>(0, 0, 0), 3);
    EXPECT_FALSE(stack.blocking());
}

TEST(ImageStack, EveryStoredImageHasAMaskOfItsSizeAndTheCallersIsUntouched)
{
    DImageStack stack(0);
    DImage image(6, 2, 5);
    DImage wrongMask(3, 3, 1u);
    image.optionalData().set_pixel_mask(wrongMask);
    stack.pushBack(image);
    EXPECT_EQ(image.optionalData().pixel_mask()->width(), 3) << "the caller's image is not changed";
    const auto stored = stack[0].optionalData().pixel_mask();
    ASSERT_TRUE(stored);
    EXPECT_EQ(std::make_tuple(stored->width(), stored->type(), stored->pixel<int>(5, 1, 9)),
              std::make_tuple(6, datatypes::UINT, 0));
    EXPECT_EQ(stack.bytesHeld(), 6u * 2 * 4 * 2) << "pixels and the new mask";
    EXPECT_EQ(DImageStack::imageSize(stack[0]), stack.bytesHeld());
}

TEST(ImageStack, DropsTheOldestAboveOneGibibyteButNeverTheLastOneHeld)
{
    // 80 million one-byte pixels and their 4-byte mask: 400 MB an image.
    const int width = 10000, height = 8000;
    DImage big(width, height, static_cast<unsigned char>(1));
    big.optionalData().set_pixel_mask(DImage(big, 0u));
    DImageStack stack(0);
    stack.pushBack(big);
    stack.pushBack(big);
    EXPECT_EQ(stack.size(), 2u);
    stack.pushBack(big);
    EXPECT_EQ(stack.size(), 2u) << "three would exceed 1 GiB";
    EXPECT_EQ(stack.bytesHeld(), 2ull * 400000000ull);

    // The one image left is never dropped for the sake of the bytes: two held ones are.
    stack.popFront();
    stack.pushBack(DImage(10000, 20000, static_cast<unsigned char>(0))); // 1 GB with its mask
    EXPECT_EQ(stack.size(), 2u);
    EXPECT_GT(stack.bytesHeld(), DImageStack::kMaxBytes);
}

#include "SharedSegment.h"
#include "TestHelpers.h"

#include "DDrawingList.h"
#include "foundation/DException.h"

#include <string>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

using Segment = norvexa_test::SharedSegment;

constexpr unsigned long kSlot = 8;

template <class List>
void expectSample(const List& list)
{
    ASSERT_GE(list.size(), 3u);
    ASSERT_EQ(list[0].type(), DDrawingPrimitive::STRING);
    const auto& text = static_cast<const DDrawingString&>(list[0]);
    EXPECT_EQ(text.text(), "spot 17");
    EXPECT_EQ(text.x(), 10.5);
    ASSERT_EQ(list[1].type(), DDrawingPrimitive::PIXEL);
    const auto& pixel = static_cast<const DDrawingPixel&>(list[1]);
    EXPECT_EQ(pixel.x(), 3);
    EXPECT_EQ(pixel.y(), 4);
    unsigned char r, g, b, a;
    pixel.color(r, g, b, a);
    EXPECT_EQ((std::vector<int>{r, g, b, a}), (std::vector<int>{1, 2, 3, 4}));
    ASSERT_EQ(list[2].type(), DDrawingPrimitive::ELLIPSE);
    EXPECT_EQ(static_cast<const DDrawingEllipse&>(list[2]).rotation(), 0.25);
}

template <class List>
void pushSample(List& list)
{
    list.pushBack(DDrawingString(10.5, 20, "spot 17", 255, 0, 0, 255));
    list.pushBack(DDrawingPixel(3, 4, 1, 2, 3, 4));
    list.pushBack(DDrawingEllipse(50, 60, 5, 3, 0.25, 0, 255, 0, 128));
}

} // namespace

TEST(DrawingPrimitives, FieldsAndCutTexts)
{
    const DDrawingLine line(1, 2, 3, 4, 9, 8, 7, 6);
    EXPECT_EQ(line.type(), DDrawingPrimitive::LINE);
    EXPECT_EQ((std::vector<double>{line.xBegin(), line.yBegin(), line.xEnd(), line.yEnd()}),
              (std::vector<double>{1, 3, 2, 4}));
    EXPECT_EQ(line.alpha(), 6);
    DDrawingString text(0, 0, std::string(300, 'a') + "b", 0, 0, 0, 0);
    EXPECT_EQ(text.length(), 256u);
    EXPECT_EQ(text.text(), std::string(256, 'a'));
    text.setText("short");
    EXPECT_EQ(text.text(), "short");
    EXPECT_EQ(sizeof(DDrawingPixel), 24u);
    EXPECT_EQ(sizeof(DDrawingString), 288u);
}

TEST(DrawingList, GrowthAccessAndClear)
{
    DStdDrawingList list;
    EXPECT_EQ(std::make_pair(list.size(), list.memsize()), std::make_pair(0ul, 0ul));
    EXPECT_THROW_MSG(list[0], DOutOfRangeException, "Error: Access to DDrawingList is out of range");

    // Slots: 10, then 13 on the eleventh push, then 17. Pixels of 24 bytes fit in 1024.
    for (int i = 0; i < 10; ++i)
        list.pushBack(DDrawingPixel(i, -i, 0, 0, 0, 255));
    EXPECT_EQ(list.memsize(), 10 * kSlot + 1024);
    list.pushBack(DDrawingPixel(10, -10, 0, 0, 0, 255));
    EXPECT_EQ(list.memsize(), 13 * kSlot + 1024);
    for (int i = 11; i < 14; ++i)
        list.pushBack(DDrawingPixel(i, -i, 0, 0, 0, 255));
    EXPECT_EQ(list.memsize(), 17 * kSlot + 1024);
    EXPECT_EQ(static_cast<const DDrawingPixel&>(list[13]).y(), -13);
    EXPECT_THROW_MSG(list[14], DOutOfRangeException, "Error: Access to DDrawingList is out of range");

    // Bytes: 1024 holds 3 texts of 288 bytes beside nothing else; then 1332, then 1732.
    list.clear();
    EXPECT_EQ(list.memsize(), 0u);
    for (int i = 0; i < 3; ++i)
        list.pushBack(DDrawingString(i, i, std::to_string(i), 0, 0, 0, 255));
    EXPECT_EQ(list.memsize(), 10 * kSlot + 1024);
    list.pushBack(DDrawingString(3, 3, "3", 0, 0, 0, 255));
    EXPECT_EQ(list.memsize(), 10 * kSlot + 1332);
    list.pushBack(DDrawingString(4, 4, "4", 0, 0, 0, 255));
    EXPECT_EQ(list.memsize(), 10 * kSlot + 1732);
    EXPECT_EQ(static_cast<const DDrawingString&>(list[4]).text(), "4");

    // An unknown kind is dropped without a word.
    list.pushBack(DDrawingPrimitive(static_cast<DDrawingPrimitive::Type>(7), 0, 0, 0, 0));
    EXPECT_EQ(list.size(), 5u);

    DStdDrawingList mixed;
    pushSample(mixed);
    expectSample(mixed);
    static_cast<DDrawingPixel&>(mixed[1]).setX(99);
    EXPECT_EQ(static_cast<const DDrawingPixel&>(mixed[1]).x(), 99);
}

TEST(DrawingList, CopiesIntoSharedMemoryAndBack)
{
    Segment segment(1 << 20);
    DStdDrawingList heap;
    pushSample(heap);
    for (int i = 0; i < 20; ++i)
        heap.pushBack(DDrawingLine(i, i + 1, 0, 1, 0, 0, 0, 255));

    auto* shared = segment.segment.construct<DShmDrawingList>(boost::interprocess::anonymous_instance)(
        heap, segment.allocator());
    EXPECT_TRUE(segment.contains(shared));
    EXPECT_TRUE(segment.contains(&(*shared)[0]));
    EXPECT_EQ(std::make_pair(shared->memsize(), shared->size()), std::make_pair(heap.memsize(), 23ul));
    expectSample(*shared);
    EXPECT_EQ(static_cast<const DDrawingLine&>((*shared)[22]).xEnd(), 20);

    const DStdDrawingList back(*shared, image::StdAllocator());
    EXPECT_EQ(std::make_pair(back.memsize(), back.size()), std::make_pair(heap.memsize(), 23ul));
    expectSample(back);

    // Assignment keeps each list in its own segment.
    Segment other(1 << 20);
    DShmDrawingList elsewhere(other.allocator());
    elsewhere.pushBack(DDrawingPixel(1, 1, 0, 0, 0, 0));
    *shared = elsewhere;
    EXPECT_EQ(shared->size(), 1u);
    EXPECT_TRUE(segment.contains(&(*shared)[0]));
    elsewhere = heap;
    EXPECT_TRUE(other.contains(&elsewhere[0]));
    expectSample(elsewhere);
    DStdDrawingList fromShared;
    fromShared = elsewhere;
    expectSample(fromShared);

    DShmDrawingList moved(std::move(elsewhere));
    EXPECT_EQ(std::make_pair(elsewhere.size(), moved.size()), std::make_pair(0ul, 23ul));
    segment.segment.destroy_ptr(shared);
}

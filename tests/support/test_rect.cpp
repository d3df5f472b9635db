#include "TestHelpers.h"

#include "DRect.h"

#include <cstring>
#include <type_traits>

using norvexa::imglib::DRect;

namespace {
::testing::AssertionResult hasFields(const DRect& rect, int left, int top, int width, int height)
{
    if (rect.left() == left && rect.top() == top && rect.width() == width &&
        rect.height() == height)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << "(left, top, width, height) = (" << rect.left() << ", " << rect.top() << ", "
           << rect.width() << ", " << rect.height() << "), expected (" << left << ", " << top
           << ", " << width << ", " << height << ")";
}
} // namespace

// Modules keep their rectangles in shared memory: the class must stay a plain block of ints.
static_assert(std::is_trivially_copyable_v<DRect>);
static_assert(sizeof(DRect) == 4 * sizeof(int));

TEST(Rect, ConstructionAndEdges)
{
    EXPECT_TRUE(hasFields(DRect(), 0, 0, 0, 0));

    const DRect rect(1, 2, 3, 4);
    EXPECT_TRUE(hasFields(rect, 1, 2, 3, 4));
    EXPECT_EQ(rect.right(), 4);
    EXPECT_EQ(rect.bottom(), 6);

    // Stored as top, left, width, height.
    int fields[4];
    std::memcpy(fields, &rect, sizeof fields);
    EXPECT_EQ(fields[0], 2);
    EXPECT_EQ(fields[1], 1);
    EXPECT_EQ(fields[2], 3);
    EXPECT_EQ(fields[3], 4);
}

TEST(Rect, SettersMoveOrResizeAsNamed)
{
    {
        SCOPED_TRACE("setRight and setBottom move, keeping the size");
        DRect rect(1, 2, 3, 4);
        rect.setRight(10);
        EXPECT_TRUE(hasFields(rect, 7, 2, 3, 4));
        EXPECT_EQ(rect.right(), 10);
        rect.setBottom(-1);
        EXPECT_TRUE(hasFields(rect, 7, -5, 3, 4));
        EXPECT_EQ(rect.bottom(), -1);
    }
    {
        SCOPED_TRACE("setLeft and setTop move the far edges with them");
        DRect rect(1, 2, 3, 4);
        rect.setLeft(20);
        rect.setTop(30);
        EXPECT_TRUE(hasFields(rect, 20, 30, 3, 4));
        EXPECT_EQ(rect.right(), 23);
        EXPECT_EQ(rect.bottom(), 34);
    }
    {
        SCOPED_TRACE("setWidth and setHeight keep the corner");
        DRect rect(1, 2, 3, 4);
        rect.setWidth(10);
        rect.setHeight(0);
        EXPECT_TRUE(hasFields(rect, 1, 2, 10, 0));
    }
    {
        SCOPED_TRACE("move");
        DRect rect(1, 2, 3, 4);
        rect.move(5, -7);
        EXPECT_TRUE(hasFields(rect, 6, -5, 3, 4));
    }
}

TEST(Rect, EqualityComparesEveryField)
{
    const DRect rect(1, 2, 3, 4);
    EXPECT_TRUE(rect == DRect(rect));
    EXPECT_FALSE(rect != DRect(1, 2, 3, 4));
    const DRect others[] = {DRect(9, 2, 3, 4), DRect(1, 9, 3, 4), DRect(1, 2, 9, 4),
                            DRect(1, 2, 3, 9), DRect(2, 1, 3, 4)};
    for (const DRect& other : others) {
        SCOPED_TRACE(::testing::PrintToString(other.left()) + "," +
                     ::testing::PrintToString(other.top()) + "," +
                     ::testing::PrintToString(other.width()) + "," +
                     ::testing::PrintToString(other.height()));
        EXPECT_FALSE(rect == other);
        EXPECT_TRUE(rect != other);
    }
}

TEST(Rect, Intersection)
{
    struct Case {
        const char* label;
        DRect a, b, expected;
    };
    const DRect frame(0, 0, 10, 10);
    const Case cases[] = {
        {"itself", frame, frame, frame},
        {"overlap", frame, DRect(5, -3, 10, 8), DRect(5, 0, 5, 5)},
        {"contained", frame, DRect(2, 3, 4, 5), DRect(2, 3, 4, 5)},
        {"negative coordinates", DRect(-10, -10, 8, 8), DRect(-5, -20, 20, 12),
         DRect(-5, -10, 3, 2)},
        {"apart sideways", frame, DRect(11, 2, 3, 3), DRect()},
        {"apart vertically", frame, DRect(2, 12, 3, 3), DRect()},
        {"apart diagonally", frame, DRect(-5, -5, 2, 2), DRect()},
        {"touching at the right edge", frame, DRect(10, 4, 5, 3), DRect(10, 4, 0, 3)},
        {"touching at the bottom edge", frame, DRect(3, 10, 2, 5), DRect(3, 10, 2, 0)},
        {"touching at a corner", frame, DRect(10, 10, 2, 2), DRect(10, 10, 0, 0)},
        {"empty rectangle inside", frame, DRect(4, 5, 0, 0), DRect(4, 5, 0, 0)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        const DRect ab = c.a.intersection(c.b);
        const DRect ba = c.b.intersection(c.a);
        EXPECT_TRUE(hasFields(ab, c.expected.left(), c.expected.top(), c.expected.width(),
                              c.expected.height()));
        EXPECT_TRUE(ab == ba) << "not symmetric";
    }
}

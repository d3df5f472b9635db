#include "TestHelpers.h"

#include "DRect.h"

#include <ostream>
#include <type_traits>

namespace norvexa {
namespace imglib {
void PrintTo(const DRect& rect, std::ostream* out)
{
    *out << "DRect(" << rect.left() << ", " << rect.top() << ", " << rect.width() << ", "
         << rect.height() << ")";
}
} // namespace imglib
} // namespace norvexa

using norvexa::imglib::DRect;

// Module rectangles live in shared memory: the class must stay a plain block of ints.
static_assert(std::is_trivially_copyable_v<DRect> && sizeof(DRect) == 4 * sizeof(int));

TEST(Rect, FieldsAndEdges)
{
    const DRect zero;
    EXPECT_EQ(zero.left() | zero.top() | zero.width() | zero.height(), 0);

    const DRect rect(1, 2, 3, 4);
    EXPECT_EQ(rect.left(), 1);
    EXPECT_EQ(rect.top(), 2);
    EXPECT_EQ(rect.width(), 3);
    EXPECT_EQ(rect.height(), 4);
    EXPECT_EQ(rect.right(), 4);
    EXPECT_EQ(rect.bottom(), 6);
}

TEST(Rect, SettersMoveOrResizeAsNamed)
{
    DRect rect(1, 2, 3, 4);
    rect.setRight(10);
    rect.setBottom(-1);
    EXPECT_EQ(rect, DRect(7, -5, 3, 4)) << "setRight and setBottom move and keep the size";
    rect.setLeft(20);
    rect.setTop(30);
    EXPECT_EQ(rect, DRect(20, 30, 3, 4)) << "setLeft and setTop keep the size";
    rect.setWidth(10);
    rect.setHeight(0);
    EXPECT_EQ(rect, DRect(20, 30, 10, 0)) << "setWidth and setHeight keep the corner";
    rect.move(5, -7);
    EXPECT_EQ(rect, DRect(25, 23, 10, 0));
}

TEST(Rect, EqualityComparesEveryField)
{
    const DRect rect(1, 2, 3, 4);
    EXPECT_TRUE(rect == DRect(rect));
    EXPECT_FALSE(rect != DRect(1, 2, 3, 4));
    for (const DRect& other :
         {DRect(9, 2, 3, 4), DRect(1, 9, 3, 4), DRect(1, 2, 9, 4), DRect(1, 2, 3, 9)}) {
        SCOPED_TRACE(::testing::PrintToString(other));
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
        {"touching at the right edge", frame, DRect(10, 4, 5, 3), DRect(10, 4, 0, 3)},
        {"touching at the bottom edge", frame, DRect(3, 10, 2, 5), DRect(3, 10, 2, 0)},
        {"touching at a corner", frame, DRect(10, 10, 2, 2), DRect(10, 10, 0, 0)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(c.a.intersection(c.b), c.expected);
        EXPECT_EQ(c.b.intersection(c.a), c.expected);
    }
}

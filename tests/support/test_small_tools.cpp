#include "RectPrinter.h"
#include "TestHelpers.h"

#include "DMersenneTwister.h"

#include <random>
#include <type_traits>
#include <vector>

using norvexa::imglib::DMersenneTwister;
using norvexa::imglib::DRect;

// Module rectangles live in shared memory: the class must stay a plain block of ints.
static_assert(std::is_trivially_copyable_v<DRect> && sizeof(DRect) == 4 * sizeof(int));

TEST(Rect, EdgesAndTheSettersThatMove)
{
    EXPECT_EQ(DRect(), DRect(0, 0, 0, 0));
    DRect rect(1, 2, 3, 4);
    EXPECT_EQ(std::make_pair(rect.right(), rect.bottom()), std::make_pair(4, 6)) << "one beyond the last column and row";
    rect.setRight(10);
    rect.setBottom(-1);
    EXPECT_EQ(rect, DRect(7, -5, 3, 4)) << "setRight and setBottom move and keep the size";
    rect.move(5, -7);
    EXPECT_EQ(rect, DRect(12, -12, 3, 4));
    for (const DRect& other : {DRect(9, 2, 3, 4), DRect(1, 9, 3, 4), DRect(1, 2, 9, 4), DRect(1, 2, 3, 9)}) {
        SCOPED_TRACE(::testing::PrintToString(other));
        EXPECT_FALSE(DRect(1, 2, 3, 4) == other);
        EXPECT_TRUE(DRect(1, 2, 3, 4) != other);
    }
}

TEST(Rect, Intersection)
{
    const DRect frame(0, 0, 10, 10);
    const struct {
        const char* label;
        DRect a, b, expected;
    } cases[] = {
        {"itself", frame, frame, frame},
        {"overlap", frame, DRect(5, -3, 10, 8), DRect(5, 0, 5, 5)},
        {"contained", frame, DRect(2, 3, 4, 5), DRect(2, 3, 4, 5)},
        {"negative coordinates", DRect(-10, -10, 8, 8), DRect(-5, -20, 20, 12), DRect(-5, -10, 3, 2)},
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

TEST(MersenneTwister, SameSequenceAsTheReferenceGenerator)
{
    // 2000 numbers regenerate the state several times.
    for (unsigned seed : {5489u, 0u, 1u, 1000000u, 0xffffffffu}) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        DMersenneTwister generator(seed);
        std::mt19937 reference(seed);
        for (int i = 0; i < 2000; ++i)
            ASSERT_EQ(generator.rand(), reference()) << "number " << i + 1;
    }
    // The published check value: the 10000th number for the seed 5489.
    DMersenneTwister generator(5489);
    for (int i = 1; i < 10000; ++i)
        generator.rand();
    EXPECT_EQ(generator.rand(), 4123659995u);
}

TEST(MersenneTwister, InitializeRefillsTheStateAndKeepsThePosition)
{
    std::mt19937 reference(2024);
    std::vector<unsigned> expected(624);
    for (auto& value : expected)
        value = reference();
    for (int drawn : {0, 5, 623, 624 + 10}) {
        SCOPED_TRACE("after " + std::to_string(drawn) + " numbers");
        DMersenneTwister generator(2024);
        for (int i = 0; i < drawn; ++i)
            generator.rand();
        generator.__initialize();
        if (drawn > 0) {
            // The rest of this pass reads the refilled words as they are, untwisted.
            const unsigned next = generator.rand();
            EXPECT_NE(next, expected[0]);
            EXPECT_NE(next, expected[drawn % 624]);
            for (int i = drawn % 624 + 1; i < 624; ++i)
                generator.rand();
        }
        // Then the state regenerates from the seed's words: the sequence starts over.
        for (int i = 0; i < 624; ++i)
            ASSERT_EQ(generator.rand(), expected[i]) << "number " << i + 1 << " after refill";
    }
}

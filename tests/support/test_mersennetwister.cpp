#include "TestHelpers.h"

#include "DMersenneTwister.h"

#include <random>

using norvexa::imglib::DMersenneTwister;

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

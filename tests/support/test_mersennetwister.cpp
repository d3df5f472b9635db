#include "TestHelpers.h"

#include "DMersenneTwister.h"

#include <random>

using norvexa::imglib::DMersenneTwister;

TEST(MersenneTwister, SameSequenceAsTheReferenceGenerator)
{
    // 2000 numbers regenerate the state several times.
    for (unsigned seed : {5489u, 0u, 1u, 1000000u, 0x12345678u, 0xffffffffu}) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        DMersenneTwister generator(seed);
        std::mt19937 reference(seed);
        for (int i = 0; i < 2000; ++i)
            ASSERT_EQ(generator.rand(), reference()) << "number " << i + 1;
    }

    // The check value of the published generator: the 10000th number for the seed 5489.
    DMersenneTwister generator(5489);
    for (int i = 1; i < 10000; ++i)
        generator.rand();
    EXPECT_EQ(generator.rand(), 4123659995u);
}

TEST(MersenneTwister, GeneratorsShareNoState)
{
    DMersenneTwister a(42), b(42), c(43);
    std::mt19937 referenceC(43);
    for (int i = 0; i < 1500; ++i) {
        ASSERT_EQ(a.rand(), b.rand()) << "number " << i + 1;
        ASSERT_EQ(c.rand(), referenceC()) << "number " << i + 1;
        if (i % 3 == 0)
            a.rand(), b.rand(); // uneven steps between the two pairs
    }
}

TEST(MersenneTwister, InitializeRefillsTheStateAndKeepsThePosition)
{
    const unsigned seed = 2024;
    std::mt19937 reference(seed);
    std::vector<unsigned> expected(624);
    for (auto& value : expected)
        value = reference();

    {
        SCOPED_TRACE("fresh generator: nothing changes");
        DMersenneTwister generator(seed);
        generator.__initialize();
        for (int i = 0; i < 624; ++i)
            ASSERT_EQ(generator.rand(), expected[i]) << "number " << i + 1;
    }
    for (int drawn : {5, 624 + 10, 623}) {
        SCOPED_TRACE("after " + std::to_string(drawn) + " numbers");
        DMersenneTwister generator(seed);
        for (int i = 0; i < drawn; ++i)
            generator.rand();
        generator.__initialize();
        // The rest of this pass reads the refilled, not yet regenerated, words.
        const int left = 624 - drawn % 624;
        const unsigned next = generator.rand();
        EXPECT_NE(next, expected[0]);
        EXPECT_NE(next, expected[drawn % 624]);
        for (int i = 1; i < left; ++i)
            generator.rand();
        // Then the state regenerates from the seed's words: the sequence starts over.
        for (int i = 0; i < 624; ++i)
            ASSERT_EQ(generator.rand(), expected[i]) << "number " << i + 1 << " after refill";
    }
}

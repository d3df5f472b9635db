#pragma once

#include <cstdint>
#include <vector>

namespace norvexa {
namespace imglib {

/// The MT19937 generator, 32-bit form: a reproducible sequence for a seed, the same as
/// the reference generator's. A value; it changes with every rand() and has no lock.
class DMersenneTwister {
public:
    /// Stores the seed and fills the state from it.
    explicit DMersenneTwister(unsigned int seed);

    /// Fills the state from the seed anew. The position in the state stays, so the next
    /// numbers come from the fresh words until the state is regenerated.
    void __initialize();
    /// The next 32-bit number.
    unsigned int rand();

private:
    std::uint32_t _seed;
    int _index;
    std::vector<std::uint32_t> _state;
};

} // namespace imglib
} // namespace norvexa

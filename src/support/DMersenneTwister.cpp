#include "DMersenneTwister.h"

namespace norvexa {
namespace imglib {

namespace {
constexpr int stateSize = 624;
constexpr int offset = 397;
constexpr std::uint32_t matrix = 0x9908b0df;
constexpr std::uint32_t upperBit = 0x80000000;
constexpr std::uint32_t lowerBits = 0x7fffffff;

inline std::uint32_t twist(std::uint32_t current, std::uint32_t next, std::uint32_t distant)
{
    const std::uint32_t y = (current & upperBit) | (next & lowerBits);
    return distant ^ (y >> 1) ^ ((y & 1) ? matrix : 0);
}
} // namespace

DMersenneTwister::DMersenneTwister(unsigned int seed)
    : _seed(seed)
    , _index(stateSize)
    , _state(stateSize)
{
    __initialize();
}

void DMersenneTwister::__initialize()
{
    _state[0] = _seed;
    for (int i = 1; i < stateSize; ++i) {
        const std::uint32_t previous = _state[i - 1];
        _state[i] = 1812433253u * (previous ^ (previous >> 30)) + static_cast<std::uint32_t>(i);
    }
}

unsigned int DMersenneTwister::rand()
{
    if (_index >= stateSize) {
        std::uint32_t* x = _state.data();
        int i = 0;
        for (; i < stateSize - offset; ++i)
            x[i] = twist(x[i], x[i + 1], x[i + offset]);
        for (; i < stateSize - 1; ++i)
            x[i] = twist(x[i], x[i + 1], x[i + offset - stateSize]);
        x[stateSize - 1] = twist(x[stateSize - 1], x[0], x[offset - 1]);
        _index = 0;
    }
    std::uint32_t y = _state[_index++];
    y ^= y >> 11;
    y ^= (y << 7) & 0x9d2c5680;
    y ^= (y << 15) & 0xefc60000;
    y ^= y >> 18;
    return y;
}

} // namespace imglib
} // namespace norvexa

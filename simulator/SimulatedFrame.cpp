#include "SimulatedFrame.h"

#include "DiffractionFrame.h"

namespace norvexa {
namespace simulator {

imglib::DImage simulatedFrame(int width, int height, std::uint32_t seed)
{
    return demo::diffractionFrame(width, height, seed);
}

} // namespace simulator
} // namespace norvexa

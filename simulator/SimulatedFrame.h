#pragma once

#include "DImage.h"

#include <cstdint>

namespace norvexa {
namespace simulator {

/// One frame of the simulated detector: a diffraction frame of 32-bit signed counts with the
/// module gaps at -1 and defective pixels at -2, the same for the same seed.
imglib::DImage simulatedFrame(int width, int height, std::uint32_t seed);

} // namespace simulator
} // namespace norvexa

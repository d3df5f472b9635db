// Colour mapping and contrast sampling for bool, char and the floating pixels, with every mask type.

#include "display/kernels/ColorMapBodies.h"

namespace norvexa {
namespace kernels {

NORVEXA_INSTANTIATE_COLOR_KERNELS(bool)
NORVEXA_INSTANTIATE_COLOR_KERNELS(char)
NORVEXA_INSTANTIATE_COLOR_KERNELS(float)
NORVEXA_INSTANTIATE_COLOR_KERNELS(double)

} // namespace kernels
} // namespace norvexa

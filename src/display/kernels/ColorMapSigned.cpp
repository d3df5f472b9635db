// Colour mapping and contrast sampling for the signed integer pixels, with every mask type.

#include "display/kernels/ColorMapBodies.h"

namespace norvexa {
namespace kernels {

NORVEXA_INSTANTIATE_COLOR_KERNELS(signed char)
NORVEXA_INSTANTIATE_COLOR_KERNELS(short)
NORVEXA_INSTANTIATE_COLOR_KERNELS(int)
NORVEXA_INSTANTIATE_COLOR_KERNELS(long long)

} // namespace kernels
} // namespace norvexa

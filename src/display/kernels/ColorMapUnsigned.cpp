// Colour mapping and contrast sampling for the unsigned integer pixels, with every mask type.

#include "display/kernels/ColorMapBodies.h"

namespace norvexa {
namespace kernels {

NORVEXA_INSTANTIATE_COLOR_KERNELS(unsigned char)
NORVEXA_INSTANTIATE_COLOR_KERNELS(unsigned short)
NORVEXA_INSTANTIATE_COLOR_KERNELS(unsigned int)
NORVEXA_INSTANTIATE_COLOR_KERNELS(unsigned long long)

} // namespace kernels
} // namespace norvexa

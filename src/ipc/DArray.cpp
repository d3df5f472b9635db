#include "DArray.h"

namespace norvexa {
namespace imglib {

template class DArray<DPixel, image::StdAllocator>;
template class DArray<DPixel, image::ShmAllocator>;

} // namespace imglib
} // namespace norvexa

#pragma once

#include "DImage.h"
#include "foundation/image/DDataTypes.h"

namespace norvexa {
namespace view {

/// Calls `f(datatypes::TypeTag<T>{})` with the C++ type of the image's pixels;
/// DNotImplementedException for a type outside the twelve.
template <class F>
void visitPixelType(const imglib::DImage& image, F&& f)
{
#define NORVEXA_VIEW_VISIT(T, CLASS, BITS)                                                         \
    if (image.type() == datatypes::CLASS && image.typeBits() == BITS) {                            \
        f(datatypes::TypeTag<T>{});                                                                \
        return;                                                                                    \
    }
    NORVEXA_PIXEL_TYPES(NORVEXA_VIEW_VISIT)
#undef NORVEXA_VIEW_VISIT
    datatypes::throwMissingImplementation(image.type(), image.typeBits());
}

} // namespace view
} // namespace norvexa

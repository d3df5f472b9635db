#pragma once

#include "DRect.h"

#include <ostream>

namespace norvexa {
namespace imglib {
/// Readable rectangles in failure messages.
inline void PrintTo(const DRect& rect, std::ostream* out)
{
    *out << "DRect(" << rect.left() << ", " << rect.top() << ", " << rect.width() << ", "
         << rect.height() << ")";
}
} // namespace imglib
} // namespace norvexa

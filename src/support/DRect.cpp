#include "DRect.h"

#include <algorithm>

namespace norvexa {
namespace imglib {

DRect::DRect(int left, int top, int width, int height)
    : _top(top)
    , _left(left)
    , _width(width)
    , _height(height)
{
}

void DRect::move(int dx, int dy)
{
    _left += dx;
    _top += dy;
}

bool DRect::operator==(const DRect& other) const
{
    return _top == other._top && _left == other._left && _width == other._width &&
           _height == other._height;
}

bool DRect::operator!=(const DRect& other) const { return !(*this == other); }

DRect DRect::intersection(const DRect& other) const
{
    const int x0 = std::max(left(), other.left());
    const int x1 = std::min(right(), other.right());
    if (x1 < x0)
        return DRect();
    const int y0 = std::max(top(), other.top());
    const int y1 = std::min(bottom(), other.bottom());
    if (y1 < y0)
        return DRect();
    return DRect(x0, y0, x1 - x0, y1 - y0);
}

} // namespace imglib
} // namespace norvexa

#pragma once

namespace norvexa {
namespace imglib {

/// An integer rectangle: left, top, width and height. right() and bottom() lie one beyond
/// the last column and row. A plain value, trivially copyable, so it can live in shared memory.
class DRect {
public:
    /// All zero.
    DRect() = default;
    DRect(int left, int top, int width, int height);
    DRect(const DRect& other) = default;
    DRect& operator=(const DRect& other) = default;

    int left() const { return _left; }
    int top() const { return _top; }
    int width() const { return _width; }
    int height() const { return _height; }
    /// left + width: one beyond the last column.
    int right() const { return _left + _width; }
    /// top + height: one beyond the last row.
    int bottom() const { return _top + _height; }

    void setLeft(int left) { _left = left; }
    void setTop(int top) { _top = top; }
    void setWidth(int width) { _width = width; }
    void setHeight(int height) { _height = height; }
    /// Moves the rectangle so that right() is `right`; the width stays.
    void setRight(int right) { _left = right - _width; }
    /// Moves the rectangle so that bottom() is `bottom`; the height stays.
    void setBottom(int bottom) { _top = bottom - _height; }
    void move(int dx, int dy);

    /// All four fields equal.
    bool operator==(const DRect& other) const;
    bool operator!=(const DRect& other) const;

    /// The common part. Rectangles that only touch give a width or height of 0 in place;
    /// rectangles apart give the all-zero rectangle.
    DRect intersection(const DRect& other) const;

private:
    // Top before left, and the width rather than the right edge: this is the stored layout.
    int _top = 0;
    int _left = 0;
    int _width = 0;
    int _height = 0;
};

} // namespace imglib
} // namespace norvexa

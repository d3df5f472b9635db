#pragma once

#include <cstdint>
#include <string>
#include <type_traits>

namespace norvexa {
namespace imglib {

/// The common part of the shapes of a DDrawingList: the kind of shape and its colour.
///
/// Shapes are plain values, copied as raw bytes (between processes too): no virtual
/// operations, no pointers, and a derived class only adds fields behind the base's.
/// A holder of a base reference tells the concrete class by type() and casts to it.
class DDrawingPrimitive {
public:
    /// Stored as 32 bits; the values are what count.
    enum Type : std::uint32_t { PIXEL = 0, LINE = 1, STRING = 2, ELLIPSE = 3 };

    DDrawingPrimitive(Type type, unsigned char red, unsigned char green, unsigned char blue,
                      unsigned char alpha)
        : _type(type), _red(red), _green(green), _blue(blue), _alpha(alpha)
    {
    }

    Type type() const noexcept { return _type; }
    unsigned char red() const noexcept { return _red; }
    unsigned char green() const noexcept { return _green; }
    unsigned char blue() const noexcept { return _blue; }
    unsigned char alpha() const noexcept { return _alpha; }
    void color(unsigned char& red, unsigned char& green, unsigned char& blue, unsigned char& alpha) const noexcept
    {
        red = _red, green = _green, blue = _blue, alpha = _alpha;
    }
    void setColor(unsigned char red, unsigned char green, unsigned char blue, unsigned char alpha) noexcept
    {
        _red = red, _green = green, _blue = blue, _alpha = alpha;
    }

private:
    Type _type;
    unsigned char _red, _green, _blue, _alpha;
};

/// One pixel at (x, y).
class DDrawingPixel : public DDrawingPrimitive {
public:
    DDrawingPixel(double x, double y, unsigned char red, unsigned char green, unsigned char blue,
                  unsigned char alpha)
        : DDrawingPrimitive(PIXEL, red, green, blue, alpha), _x(x), _y(y)
    {
    }
    double x() const noexcept { return _x; }
    double y() const noexcept { return _y; }
    void setX(double x) noexcept { _x = x; }
    void setY(double y) noexcept { _y = y; }

private:
    double _x, _y;
};

/// A line from (xBegin, yBegin) to (xEnd, yEnd). The coordinates are grouped by axis,
/// not by end point: DDrawingLine(1, 2, 3, 4, ...) runs from (1, 3) to (2, 4).
class DDrawingLine : public DDrawingPrimitive {
public:
    DDrawingLine(double xBegin, double xEnd, double yBegin, double yEnd, unsigned char red,
                 unsigned char green, unsigned char blue, unsigned char alpha)
        : DDrawingPrimitive(LINE, red, green, blue, alpha), _xBegin(xBegin), _xEnd(xEnd),
          _yBegin(yBegin), _yEnd(yEnd)
    {
    }
    double xBegin() const noexcept { return _xBegin; }
    double xEnd() const noexcept { return _xEnd; }
    double yBegin() const noexcept { return _yBegin; }
    double yEnd() const noexcept { return _yEnd; }
    void setXBegin(double x) noexcept { _xBegin = x; }
    void setXEnd(double x) noexcept { _xEnd = x; }
    void setYBegin(double y) noexcept { _yBegin = y; }
    void setYEnd(double y) noexcept { _yEnd = y; }

private:
    double _xBegin, _xEnd, _yBegin, _yEnd;
};

/// A text at (x, y), kept inside the object (at most 256 bytes, no terminator), so that
/// it stays a raw-copyable value. A longer text is cut to its first 256 bytes.
class DDrawingString : public DDrawingPrimitive {
public:
    static constexpr std::uint64_t kMaxLength = 256;

    DDrawingString(double x, double y, const std::string& text, unsigned char red,
                   unsigned char green, unsigned char blue, unsigned char alpha);
    double x() const noexcept { return _x; }
    double y() const noexcept { return _y; }
    void setX(double x) noexcept { _x = x; }
    void setY(double y) noexcept { _y = y; }
    std::uint64_t length() const noexcept { return _length; }
    /// The stored bytes, as many as the stored length.
    std::string text() const;
    void setText(const std::string& text);

private:
    double _x, _y;
    std::uint64_t _length;
    char _text[kMaxLength];
};

/// An ellipse centred at (x, y) with the half axes rx and ry, turned by `rotation`.
class DDrawingEllipse : public DDrawingPrimitive {
public:
    DDrawingEllipse(double x, double y, double rx, double ry, double rotation, unsigned char red,
                    unsigned char green, unsigned char blue, unsigned char alpha)
        : DDrawingPrimitive(ELLIPSE, red, green, blue, alpha), _x(x), _y(y), _rx(rx), _ry(ry),
          _rotation(rotation)
    {
    }
    double x() const noexcept { return _x; }
    double y() const noexcept { return _y; }
    double rx() const noexcept { return _rx; }
    double ry() const noexcept { return _ry; }
    double rotation() const noexcept { return _rotation; }
    void setX(double x) noexcept { _x = x; }
    void setY(double y) noexcept { _y = y; }
    void setRx(double rx) noexcept { _rx = rx; }
    void setRy(double ry) noexcept { _ry = ry; }
    void setRotation(double rotation) noexcept { _rotation = rotation; }

private:
    double _x, _y, _rx, _ry, _rotation;
};

static_assert(std::is_trivially_copyable_v<DDrawingPixel> && std::is_trivially_copyable_v<DDrawingLine> &&
                  std::is_trivially_copyable_v<DDrawingString> && std::is_trivially_copyable_v<DDrawingEllipse>,
              "drawing primitives travel as raw bytes");

} // namespace imglib
} // namespace norvexa

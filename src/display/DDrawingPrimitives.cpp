#include "DDrawingPrimitives.h"

#include <algorithm>
#include <cstring>

namespace norvexa {
namespace imglib {

DDrawingString::DDrawingString(double x, double y, const std::string& text, unsigned char red,
                               unsigned char green, unsigned char blue, unsigned char alpha)
    : DDrawingPrimitive(STRING, red, green, blue, alpha), _x(x), _y(y), _length(0)
{
    // The unused tail is zeroed so that copies of equal texts are equal bytes.
    std::memset(_text, 0, sizeof _text);
    setText(text);
}

std::string DDrawingString::text() const
{
    return std::string(_text, static_cast<std::size_t>(std::min(_length, kMaxLength)));
}

void DDrawingString::setText(const std::string& text)
{
    _length = std::min<std::uint64_t>(text.size(), kMaxLength);
    std::memcpy(_text, text.data(), static_cast<std::size_t>(_length));
}

} // namespace imglib
} // namespace norvexa

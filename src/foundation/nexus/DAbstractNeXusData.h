#pragma once

#include "foundation/image/DBasicImage.h"
#include "foundation/nexus/DBasicNeXusNode.h"

#include <string>

namespace norvexa {
namespace nexus {

/// A node that holds one value: a dataset or an attribute. The value is a container of
/// any type and shape; a text is a scalar of type CHAR whose element is as wide as the
/// text (8 bits a byte), without a terminator.
template <class Allocator>
class DAbstractNeXusData : public DBasicNeXusNode<Allocator> {
    using Node = DBasicNeXusNode<Allocator>;

public:
    template <class T>
    using PixelOnly = std::enable_if_t<datatypes::IsPixelType<T>::value>;

    /// The value; a caller may swap a container into it.
    image::DBasicImage<Allocator>& data() noexcept { return _value; }
    const image::DBasicImage<Allocator>& data() const noexcept { return _value; }

    /// The value becomes a scalar of T's pixel type.
    template <class T, class = PixelOnly<T>>
    void setValue(const T& value);
    /// The value becomes a one-dimensional array of `count` elements copied from `first`
    /// and the elements after it.
    template <class T, class = PixelOnly<T>>
    void setValue(const T& first, unsigned long count);
    /// The value becomes the text.
    void setValue(const std::string& text);

    /// Converts the first `count` elements to T, into `first` and the places after it.
    /// DRuntimeException for an empty value, a text, or a type without implementation;
    /// DOutOfRangeException when the value has fewer than `count` elements.
    template <class T, class = PixelOnly<T>>
    void asType(T& first, unsigned long count) const;
    /// The text of a CHAR value (up to its first zero byte); with an array of texts the
    /// first one. DRuntimeException for another type.
    void asType(std::string& out, unsigned long count) const;

    DAbstractNeXusData(const DAbstractNeXusData& other) = default;

protected:
    DAbstractNeXusData(const Allocator& allocator, DNeXusType type, std::string_view name,
                       typename Node::NodePointer parent)
        : Node(allocator, type, name, parent), _value(allocator, datatypes::NONE, 0)
    {
    }

    image::DBasicImage<Allocator> _value;
};

} // namespace nexus
} // namespace norvexa

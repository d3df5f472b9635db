#pragma once

#include "foundation/hdf5/DH5DataType.h"
#include "foundation/image/DBasicImage.h"

#include <memory>
#include <string>

namespace norvexa {
namespace hdf5 {

namespace detail {
struct DH5Access;
}

/// An attribute of a group or dataset. A value handle: copies share the HDF5 attribute,
/// which closes with the last of them. Made by DH5Group and DH5Data.
///
/// Failures of HDF5 raise DRuntimeException (see DH5File.h).
class DH5Attribute {
public:
    DH5Attribute(const DH5Attribute& other) = default;
    DH5Attribute(DH5Attribute&& other) noexcept = default;
    DH5Attribute& operator=(DH5Attribute other) noexcept;
    ~DH5Attribute() = default;

    /// The element class; DRuntimeException for a class with no DataType (compound, ...).
    DataType dataType() const;
    /// Element size in bytes; a string's length, 0 for a variable-length string.
    unsigned long dataSize() const;
    /// Elements in the dataspace: 1 for a scalar and for one string, 0 for an empty one.
    unsigned long numberOfElements() const;

    /// The one string, up to its first zero byte. DRuntimeException for numbers or for
    /// more than one element.
    void read(std::string& value) const;
    /// The one number, converted by HDF5. DRuntimeException for a string or for more than
    /// one element.
    void read(int& value) const;
    /// The whole value, as DH5Data::read does it; DRuntimeException "Value of HDF5
    /// attribute <path> is not in the file" when its header stores fewer bytes than its
    /// elements need.
    template <class Allocator> void read(image::DBasicImage<Allocator>& value) const;

    /// Writes the one string; a shorter text is padded with zero bytes, a longer one than
    /// the element size raises DRuntimeException.
    void write(const std::string& value);
    /// Writes the one number, converted by HDF5 to the attribute's type.
    void write(const int& value);
    /// Writes the whole value from plain elements of the attribute's class and size.
    void write(const void* data);

private:
    friend struct detail::DH5Access;
    class DH5AttributePrivate;
    explicit DH5Attribute(std::shared_ptr<DH5AttributePrivate> d) noexcept;
    std::shared_ptr<DH5AttributePrivate> _d;
};

extern template void DH5Attribute::read(image::DBasicImage<image::StdAllocator>&) const;
extern template void DH5Attribute::read(image::DBasicImage<image::ShmAllocator>&) const;

} // namespace hdf5
} // namespace norvexa

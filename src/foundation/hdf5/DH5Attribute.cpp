#include "foundation/hdf5/DH5Attribute.h"

#include "foundation/DException.h"
#include "foundation/hdf5/DH5Common.h"

#include <cstring>

namespace norvexa {
namespace hdf5 {

using detail::check;
using detail::checkStatus;
using detail::DH5Access;
using detail::Id;

namespace {

/// The attribute's type after checking that it holds exactly one element of the wanted
/// kind (text or number).
Id singleValueType(const detail::DH5Object& a, bool text)
{
    Id type(check(H5Aget_type(a.id.get()), "Cannot read the type of HDF5 attribute", a.path));
    const bool isText = detail::dataTypeOf(type.get(), a.path) == H5String;
    if (isText != text)
        throw DRuntimeException("HDF5 attribute " + a.path + (isText ? " holds text" : " holds numbers"));
    const Id space(check(H5Aget_space(a.id.get()), "Cannot read the dataspace of HDF5 attribute", a.path));
    const hssize_t count = H5Sget_simple_extent_npoints(space.get());
    if (count != 1)
        throw DRuntimeException("HDF5 attribute " + a.path + " holds " + std::to_string(count) +
                                " elements, not one");
    return type;
}

/// A variable-length string type of the same character set as `type`.
Id variableString(hid_t type)
{
    Id memory(check(H5Tcopy(H5T_C_S1), "Cannot make", "a string type"));
    checkStatus(H5Tset_size(memory.get(), H5T_VARIABLE), "Cannot size", "a string type");
    checkStatus(H5Tset_cset(memory.get(), H5Tget_cset(type)), "Cannot set the character set of",
                "a string type");
    return memory;
}

} // namespace

DH5Attribute::DH5Attribute(std::shared_ptr<DH5AttributePrivate> d) noexcept : _d(std::move(d)) {}

DH5Attribute& DH5Attribute::operator=(DH5Attribute other) noexcept
{
    _d = std::move(other._d);
    return *this;
}

DataType DH5Attribute::dataType() const
{
    const detail::DH5Object& a = DH5Access::object(*this);
    const Id type(check(H5Aget_type(a.id.get()), "Cannot read the type of HDF5 attribute", a.path));
    return detail::dataTypeOf(type.get(), a.path);
}

unsigned long DH5Attribute::dataSize() const
{
    const detail::DH5Object& a = DH5Access::object(*this);
    const Id type(check(H5Aget_type(a.id.get()), "Cannot read the type of HDF5 attribute", a.path));
    return detail::elementSizeOf(type.get());
}

unsigned long DH5Attribute::numberOfElements() const
{
    const detail::DH5Object& a = DH5Access::object(*this);
    const Id space(check(H5Aget_space(a.id.get()), "Cannot read the dataspace of HDF5 attribute", a.path));
    return static_cast<unsigned long>(checkStatus(H5Sget_simple_extent_npoints(space.get()),
                                                  "Cannot count the elements of HDF5 attribute", a.path));
}

void DH5Attribute::read(std::string& value) const
{
    const detail::DH5Object& a = DH5Access::object(*this);
    const Id type = singleValueType(a, true);
    if (detail::isVariableString(type.get())) {
        const Id memory = variableString(type.get());
        char* text = nullptr;
        checkStatus(H5Aread(a.id.get(), memory.get(), &text), "Cannot read HDF5 attribute", a.path);
        value.assign(text ? text : "");
        H5free_memory(text);
        return;
    }
    std::string bytes(H5Tget_size(type.get()), '\0');
    checkStatus(H5Aread(a.id.get(), type.get(), bytes.data()), "Cannot read HDF5 attribute", a.path);
    bytes.resize(std::strlen(bytes.c_str()));
    if (H5Tget_strpad(type.get()) == H5T_STR_SPACEPAD)
        bytes.erase(bytes.find_last_not_of(' ') + 1);
    value.swap(bytes);
}

void DH5Attribute::read(int& value) const
{
    const detail::DH5Object& a = DH5Access::object(*this);
    singleValueType(a, false);
    int number = 0;
    checkStatus(H5Aread(a.id.get(), H5T_NATIVE_INT, &number), "Cannot read HDF5 attribute", a.path);
    value = number;
}

template <class Allocator> void DH5Attribute::read(image::DBasicImage<Allocator>& value) const
{
    const detail::DH5Object& a = DH5Access::object(*this);
    // The value lies in its object's header, which a damaged file may make declare far
    // more elements than it stores: refused before the image takes memory for them.
    unsigned long needed = 0;
    if (__builtin_mul_overflow(numberOfElements(), dataSize(), &needed) ||
        needed > H5Aget_storage_size(a.id.get()))
        throw DRuntimeException("Value of HDF5 attribute " + a.path + " is not in the file");
    detail::readImage(a.id.get(), true, a.path, value);
}

void DH5Attribute::write(const std::string& value)
{
    const detail::DH5Object& a = DH5Access::object(*this);
    const Id type = singleValueType(a, true);
    if (detail::isVariableString(type.get())) {
        const Id memory = variableString(type.get());
        const char* text = value.c_str();
        checkStatus(H5Awrite(a.id.get(), memory.get(), &text), "Cannot write HDF5 attribute", a.path);
        return;
    }
    std::string bytes(H5Tget_size(type.get()), '\0');
    if (value.size() > bytes.size())
        throw DRuntimeException("A text of " + std::to_string(value.size()) +
                                " bytes does not fit HDF5 attribute " + a.path + " of " +
                                std::to_string(bytes.size()));
    value.copy(bytes.data(), value.size());
    checkStatus(H5Awrite(a.id.get(), type.get(), bytes.data()), "Cannot write HDF5 attribute", a.path);
}

void DH5Attribute::write(const int& value)
{
    const detail::DH5Object& a = DH5Access::object(*this);
    singleValueType(a, false);
    checkStatus(H5Awrite(a.id.get(), H5T_NATIVE_INT, &value), "Cannot write HDF5 attribute", a.path);
}

void DH5Attribute::write(const void* data)
{
    const detail::DH5Object& a = DH5Access::object(*this);
    const Id type(check(H5Aget_type(a.id.get()), "Cannot read the type of HDF5 attribute", a.path));
    const Id memory = detail::memoryType(type.get(), a.path);
    checkStatus(H5Awrite(a.id.get(), memory.get(), data), "Cannot write HDF5 attribute", a.path);
}

template void DH5Attribute::read(image::DBasicImage<image::StdAllocator>&) const;
template void DH5Attribute::read(image::DBasicImage<image::ShmAllocator>&) const;

} // namespace hdf5
} // namespace norvexa

#include "foundation/hdf5/DH5Group.h"

#include "foundation/hdf5/DH5Common.h"

namespace norvexa {
namespace hdf5 {

using detail::DH5Access;

DH5Group::DH5Group(std::shared_ptr<DH5GroupPrivate> d) noexcept : _d(std::move(d)) {}

DH5Group& DH5Group::operator=(DH5Group other) noexcept
{
    _d = std::move(other._d);
    return *this;
}

DH5Group DH5Group::group(const std::string& name) const
{
    return detail::openGroup(DH5Access::object(*this), name);
}

DH5Data DH5Group::dataset(const std::string& name) const
{
    return detail::openDataset(DH5Access::object(*this), name);
}

std::set<std::string> DH5Group::groups() const
{
    return detail::linkNames(DH5Access::object(*this), detail::LinkKind::Group);
}

std::set<std::string> DH5Group::datasets() const
{
    return detail::linkNames(DH5Access::object(*this), detail::LinkKind::Dataset);
}

std::set<std::string> DH5Group::links() const
{
    return detail::linkNames(DH5Access::object(*this), detail::LinkKind::Any);
}

bool DH5Group::linkIsValid(const std::string& name) const
{
    return detail::linkIsValid(DH5Access::object(*this), name);
}

DH5Attribute DH5Group::attribute(const std::string& name)
{
    return detail::openAttribute(DH5Access::object(*this), name);
}

DH5Attribute DH5Group::attribute(const std::string& name) const
{
    return detail::openAttribute(DH5Access::object(*this), name);
}

std::set<std::string> DH5Group::attributes() const
{
    return detail::attributeNames(DH5Access::object(*this));
}

DH5Attribute DH5Group::addAttribute(const std::string& name, const DataType& type, unsigned long elementSize,
                                    const std::vector<long>& dims)
{
    return detail::createAttribute(DH5Access::object(*this), name, type, elementSize, dims);
}

void DH5Group::removeAttribute(const std::string& name)
{
    detail::deleteAttribute(DH5Access::object(*this), name);
}

DH5Group DH5Group::addGroup(const std::string& name, bool makeParents)
{
    return detail::createGroup(DH5Access::object(*this), name, makeParents);
}

DH5Data DH5Group::addDataset(const std::string& name, const DataType& type, unsigned long elementSize,
                             const std::vector<long>& dims, image::DCompression::FILTER filter)
{
    return detail::createDataset(DH5Access::object(*this), name, type, elementSize, dims, filter);
}

} // namespace hdf5
} // namespace norvexa

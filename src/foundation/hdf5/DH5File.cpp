#include "foundation/hdf5/DH5File.h"

#include "foundation/DException.h"
#include "foundation/hdf5/DH5Common.h"
#include "foundation/hdf5/DH5Filters.h"

#include <filesystem>
#include <system_error>

namespace norvexa {
namespace hdf5 {

using detail::DH5Access;
using detail::Id;

DH5File::DH5File(const std::string& path, const std::string& mode)
{
    if (mode != "r" && mode != "w")
        throw DBadParameterException("Unknown HDF5 file mode \"" + mode + "\"");
    registerBuiltinFilters();
    // An absolute name, so that external links resolve beside this file whatever the
    // working directory is later.
    std::error_code error;
    std::filesystem::path absolute = std::filesystem::absolute(path, error);
    if (error)
        absolute = path;
    Id id(mode == "r" ? H5Fopen(absolute.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT)
                      : H5Fcreate(absolute.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT));
    detail::check(id.get(), mode == "r" ? "Cannot open HDF5 file" : "Cannot create HDF5 file", path);
    _d = std::make_shared<DH5FilePrivate>(std::move(id), path);
}

DH5File& DH5File::operator=(DH5File other) noexcept
{
    _d = std::move(other._d);
    return *this;
}

DH5Group DH5File::group(const std::string& absPath) const
{
    return detail::openGroup(DH5Access::object(*this), absPath);
}

DH5Data DH5File::dataset(const std::string& absPath) const
{
    return detail::openDataset(DH5Access::object(*this), absPath);
}

std::set<std::string> DH5File::groups() const { return group("/").groups(); }

DH5Group DH5File::addGroup(const std::string& path, bool makeParents)
{
    return detail::createGroup(DH5Access::object(*this), path, makeParents);
}

DH5Data DH5File::addDataset(const std::string& absPath, const DataType& type, unsigned long elementSize,
                            const std::vector<long>& dims, image::DCompression::FILTER filter)
{
    return detail::createDataset(DH5Access::object(*this), absPath, type, elementSize, dims, filter);
}

void DH5File::createExternalLink(const std::string& fileName, const std::string& targetPath,
                                 const std::string& linkPath)
{
    const detail::DH5Object& file = DH5Access::object(*this);
    const Id lcpl(
        detail::check(H5Pcreate(H5P_LINK_CREATE), "Cannot make a link creation list for", linkPath));
    detail::checkStatus(H5Pset_create_intermediate_group(lcpl.get(), 1), "Cannot set intermediate groups for",
                        linkPath);
    detail::checkStatus(H5Lcreate_external(fileName.c_str(), targetPath.c_str(), file.id.get(),
                                           linkPath.c_str(), lcpl.get(), H5P_DEFAULT),
                        "Cannot create HDF5 external link", linkPath + " to " + fileName + ":" + targetPath);
}

void DH5File::flush()
{
    DH5Access::object(*this); // raises for a default-made file
    detail::checkStatus(H5Fflush(_d->id.get(), H5F_SCOPE_GLOBAL), "Cannot flush HDF5 file", _d->fileName);
}

void DH5File::close() noexcept { _d.reset(); }

} // namespace hdf5
} // namespace norvexa

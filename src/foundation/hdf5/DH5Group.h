#pragma once

#include "foundation/hdf5/DH5Attribute.h"
#include "foundation/hdf5/DH5Data.h"
#include "foundation/hdf5/DH5DataType.h"
#include "foundation/image/DCompression.h"

#include <memory>
#include <set>
#include <string>
#include <vector>

namespace norvexa {
namespace hdf5 {

/// A group. A value handle: copies share the HDF5 group, which closes with the last of
/// them; a default-made one refers to nothing.
///
/// Names are link names in this group, or paths below it; a name that begins with "/" is
/// absolute in the group's file. External links resolve beside the file that holds them.
/// Failures raise DRuntimeException (see DH5File.h).
class DH5Group {
public:
    DH5Group() noexcept = default;
    DH5Group(const DH5Group& other) = default;
    DH5Group(DH5Group&& other) noexcept = default;
    DH5Group& operator=(DH5Group other) noexcept;
    ~DH5Group() = default;

    /// The child group; DRuntimeException if there is none.
    DH5Group group(const std::string& name) const;
    /// The child dataset; DRuntimeException if there is none.
    DH5Data dataset(const std::string& name) const;

    /// Names of the child groups, soft and external links to groups included.
    std::set<std::string> groups() const;
    /// Names of the child datasets, soft and external links to datasets included.
    std::set<std::string> datasets() const;
    /// All link names: hard, soft and external, also those whose target is missing.
    std::set<std::string> links() const;
    /// True if the link exists and its target can be opened; false otherwise, e.g. for an
    /// external link into a missing file. Never raises for a bad name.
    bool linkIsValid(const std::string& name) const;

    DH5Attribute attribute(const std::string& name);
    DH5Attribute attribute(const std::string& name) const;
    std::set<std::string> attributes() const;
    /// Makes an attribute of the given class, size and dimensions (empty for a scalar).
    DH5Attribute addAttribute(const std::string& name, const DataType& type, unsigned long elementSize,
                              const std::vector<long>& dims);
    /// DRuntimeException when there is no such attribute.
    void removeAttribute(const std::string& name);

    /// Makes a group below this one; see DH5File::addGroup.
    DH5Group addGroup(const std::string& name, bool makeParents);
    /// Makes a dataset, and missing groups on its path.
    ///
    /// `dims` empty: a scalar. A first dimension of -1: extensible, starting at 0, with
    /// chunks of one frame ([1, height, width]). Other dimensions are fixed. Chunks and the
    /// filter come with a first dimension of -1 or a filter other than FILTER_NONE; fixed
    /// dimensions without a filter are stored contiguous. A chunk is one element in the
    /// leading dimensions and whole in the last two.
    ///
    /// The bitshuffle forms need elements of 2 (FILTER_BS16_LZ4) or 4 (FILTER_BS32_LZ4)
    /// bytes: the chunk holds that many bytes an element. DBadParameterException for a
    /// size that does not fit the class or the filter, for a negative dimension other than
    /// a leading -1, and for an unknown class or filter.
    DH5Data addDataset(const std::string& name, const DataType& type, unsigned long elementSize,
                       const std::vector<long>& dims, image::DCompression::FILTER filter);

private:
    friend struct detail::DH5Access;
    class DH5GroupPrivate;
    explicit DH5Group(std::shared_ptr<DH5GroupPrivate> d) noexcept;
    std::shared_ptr<DH5GroupPrivate> _d;
};

} // namespace hdf5
} // namespace norvexa

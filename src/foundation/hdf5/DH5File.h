#pragma once

#include "foundation/hdf5/DH5Data.h"
#include "foundation/hdf5/DH5DataType.h"
#include "foundation/hdf5/DH5Group.h"
#include "foundation/image/DCompression.h"

#include <memory>
#include <set>
#include <string>
#include <vector>

namespace norvexa {
namespace hdf5 {

/// An HDF5 file. A value handle: copies share the file; a default-made one refers to
/// nothing. The file closes when its last handle and the last object opened from it go.
///
/// Every failure of the HDF5 library raises DRuntimeException with a text of the form
/// "<what failed> <path>: <innermost message of the HDF5 error stack>", after which the
/// error stack is empty, so that callers can probe by catching. A missing group, dataset
/// or attribute is such a failure. Whether HDF5 also prints the stack is up to
/// DH5DontPrint.
///
/// External links resolve beside the file that holds them, whatever the working
/// directory: each open that may cross a link sets the link's prefix to that file's
/// directory (which therefore must not contain ':', HDF5's separator of prefixes).
class DH5File {
public:
    DH5File() noexcept = default;
    /// Opens `path`: mode "r" for reading, "w" to create or truncate. The built-in
    /// filters are registered on the first file (DH5Filters.h). DBadParameterException
    /// for another mode.
    DH5File(const std::string& path, const std::string& mode);
    DH5File(const DH5File& other) = default;
    DH5File(DH5File&& other) noexcept = default;
    /// Releases the handle held before.
    DH5File& operator=(DH5File other) noexcept;
    ~DH5File() = default;

    /// The group at the absolute path.
    DH5Group group(const std::string& absPath) const;
    /// The dataset at the absolute path; external links on the way are followed.
    DH5Data dataset(const std::string& absPath) const;
    /// Names of the root's groups.
    std::set<std::string> groups() const;

    /// Makes the group. With `makeParents`, missing parents are made too and a group that
    /// is already there is returned (as `mkdir -p` does); without, an existing group or a
    /// missing parent raises DRuntimeException.
    DH5Group addGroup(const std::string& path, bool makeParents);
    /// Makes the dataset at the absolute path with missing groups on the way; see
    /// DH5Group::addDataset.
    DH5Data addDataset(const std::string& absPath, const DataType& type, unsigned long elementSize,
                       const std::vector<long>& dims, image::DCompression::FILTER filter);
    /// Makes an external link at `linkPath` to `targetPath` in the file `fileName`, which
    /// is stored as it comes; a bare name resolves beside this file. Missing groups on
    /// `linkPath` are made.
    void createExternalLink(const std::string& fileName, const std::string& targetPath,
                            const std::string& linkPath);

    /// Writes HDF5's buffers of this file to disk.
    void flush();
    /// Drops this handle, as assigning a default-made file does.
    void close() noexcept;

private:
    friend struct detail::DH5Access;
    class DH5FilePrivate;
    std::shared_ptr<DH5FilePrivate> _d;
};

} // namespace hdf5
} // namespace norvexa

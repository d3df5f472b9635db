#pragma once

// Private to the HDF5 layer: the one place besides the sources that includes hdf5.h.

#include "foundation/hdf5/DH5Attribute.h"
#include "foundation/hdf5/DH5Data.h"
#include "foundation/hdf5/DH5File.h"
#include "foundation/hdf5/DH5Group.h"

#include <hdf5.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

namespace norvexa {
namespace hdf5 {
namespace detail {

/// Owns one reference to an HDF5 id of any kind; the last reference closes the object.
class Id {
public:
    Id() noexcept = default;
    explicit Id(hid_t id) noexcept : _id(id) {}
    Id(Id&& other) noexcept : _id(std::exchange(other._id, -1)) {}
    Id& operator=(Id&& other) noexcept
    {
        Id moved(std::move(other));
        std::swap(_id, moved._id);
        return *this;
    }
    Id(const Id&) = delete;
    Id& operator=(const Id&) = delete;
    ~Id()
    {
        if (_id >= 0)
            H5Idec_ref(_id);
    }
    hid_t get() const noexcept { return _id; }

private:
    hid_t _id = -1;
};

/// What every handle shares: the id, and the path by which it was opened (for messages).
class DH5Object {
public:
    DH5Object(Id id, std::string path) noexcept : id(std::move(id)), path(std::move(path)) {}
    Id id;
    std::string path;
};

/// Raises DRuntimeException with `what`, then ": " and the innermost message of the HDF5
/// error stack if there is one, and clears the stack.
[[noreturn]] void fail(const std::string& what);

/// The innermost message of the HDF5 error stack ("" if it is empty); clears the stack.
std::string takeErrorMessage();

/// A failed read of a dataset: names a filter of its pipeline that HDF5 can neither find
/// nor load, "HDF5 filter 307 (bzip2) is not available for dataset <path>", else as fail().
[[noreturn]] void failRead(hid_t dataset, const std::string& path);

/// `id` if it is valid, else fail("<what> <object>").
inline hid_t check(hid_t id, const char* what, const std::string& object)
{
    if (id < 0)
        fail(std::string(what) + " " + object);
    return id;
}

/// `status` if it is not negative, else fail("<what> <object>").
template <class Status> inline Status checkStatus(Status status, const char* what, const std::string& object)
{
    if (status < 0)
        fail(std::string(what) + " " + object);
    return status;
}

/// `name` below `parent`; a name beginning with "/" is absolute.
std::string childPath(const std::string& parent, const std::string& name);

/// The layer's side door into the handles: makes them from ids and reads their ids.
struct DH5Access {
    static DH5Group group(Id id, std::string path);
    static DH5Data data(Id id, std::string path);
    static DH5Attribute attribute(Id id, std::string path);
    static const DH5Object& object(const DH5File& file);
    static const DH5Object& object(const DH5Group& group);
    static const DH5Object& object(const DH5Data& data);
    static const DH5Object& object(const DH5Attribute& attribute);
};

// Operations on a location (a file's root or a group), shared by file and group.
DH5Group openGroup(const DH5Object& loc, const std::string& name);
DH5Data openDataset(const DH5Object& loc, const std::string& name);
DH5Group createGroup(const DH5Object& loc, const std::string& name, bool makeParents);
DH5Data createDataset(const DH5Object& loc, const std::string& name, DataType type, unsigned long elementSize,
                      const std::vector<long>& dims, image::DCompression::FILTER filter);
enum class LinkKind { Any, Group, Dataset };
std::set<std::string> linkNames(const DH5Object& loc, LinkKind kind);
bool linkIsValid(const DH5Object& loc, const std::string& name) noexcept;
/// A link-access list (or one derived from it, by `plistClass`) whose external links
/// resolve only beside the file that holds `loc`: its directory is the prefix.
Id linkAccess(hid_t loc, hid_t plistClass);

// Attributes, shared by group and dataset.
DH5Attribute openAttribute(const DH5Object& owner, const std::string& name);
std::set<std::string> attributeNames(const DH5Object& owner);
DH5Attribute createAttribute(const DH5Object& owner, const std::string& name, DataType type,
                             unsigned long elementSize, const std::vector<long>& dims);
void deleteAttribute(const DH5Object& owner, const std::string& name);

// Types.
/// A new file type for the class and size; DBadParameterException for a size the class has not.
Id fileType(DataType type, unsigned long elementSize);
/// The class of a file type; fail() for a class with no DataType.
DataType dataTypeOf(hid_t type, const std::string& object);
/// Element size in bytes; 0 for a variable-length string.
unsigned long elementSizeOf(hid_t type);
bool isVariableString(hid_t type);
/// The memory type that reads and writes elements of the file type plainly.
Id memoryType(hid_t type, const std::string& object);

/// Reads a whole dataset or attribute into an image (see DH5Data::read).
template <class Allocator>
void readImage(hid_t object, bool isAttribute, const std::string& path, image::DBasicImage<Allocator>& image);

} // namespace detail

class DH5File::DH5FilePrivate : public detail::DH5Object {
public:
    DH5FilePrivate(detail::Id id, std::string fileName) noexcept
        : DH5Object(std::move(id), "/"), fileName(std::move(fileName))
    {
    }
    std::string fileName; ///< as the caller gave it
};
class DH5Group::DH5GroupPrivate : public detail::DH5Object {
public:
    using DH5Object::DH5Object;
};
class DH5Data::DH5DataPrivate : public detail::DH5Object {
public:
    using DH5Object::DH5Object;
};
class DH5Attribute::DH5AttributePrivate : public detail::DH5Object {
public:
    using DH5Object::DH5Object;
};

} // namespace hdf5
} // namespace norvexa

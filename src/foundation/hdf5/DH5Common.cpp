#include "foundation/hdf5/DH5Common.h"

#include "foundation/DException.h"
#include "foundation/hdf5/DH5DontPrint.h"
#include "foundation/hdf5/DH5Filters.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <filesystem>
#include <memory>
#include <type_traits>

namespace norvexa {
namespace hdf5 {
namespace detail {

// The public headers hold no HDF5 type; ids cross them as 64-bit integers.
static_assert(std::is_same_v<hid_t, std::int64_t>, "hid_t must be a 64-bit integer");
static_assert(sizeof(hsize_t) == sizeof(unsigned long), "hsize_t must match unsigned long");

namespace {

herr_t firstMessage(unsigned n, const H5E_error2_t* error, void* data)
{
    if (n == 0 && error->desc)
        *static_cast<std::string*>(data) = error->desc;
    return 0;
}

std::vector<hsize_t> extent(hid_t space)
{
    const int rank = H5Sget_simple_extent_ndims(space);
    std::vector<hsize_t> dims(rank > 0 ? rank : 0);
    if (rank > 0)
        H5Sget_simple_extent_dims(space, dims.data(), nullptr);
    return dims;
}

Id linkCreation(bool makeParents)
{
    Id lcpl(check(H5Pcreate(H5P_LINK_CREATE), "Cannot make a link creation list for", "HDF5"));
    checkStatus(H5Pset_create_intermediate_group(lcpl.get(), makeParents ? 1 : 0),
                "Cannot set intermediate groups for", "HDF5");
    return lcpl;
}

std::string attributePath(const DH5Object& owner, const std::string& name)
{
    return name + " of " + owner.path;
}

} // namespace

std::string takeErrorMessage()
{
    std::string inner;
    H5Ewalk2(H5E_DEFAULT, H5E_WALK_UPWARD, firstMessage, &inner);
    H5Eclear2(H5E_DEFAULT);
    return inner;
}

void fail(const std::string& what)
{
    const std::string inner = takeErrorMessage();
    throw DRuntimeException(inner.empty() ? what : what + ": " + inner);
}

namespace {
const char* knownFilterName(H5Z_filter_t id)
{
    switch (id) {
    case H5Z_FILTER_DEFLATE: return "deflate";
    case H5Z_FILTER_SHUFFLE: return "shuffle";
    case H5Z_FILTER_FLETCHER32: return "fletcher32";
    case H5Z_FILTER_SZIP: return "szip";
    case H5Z_FILTER_NBIT: return "nbit";
    case H5Z_FILTER_SCALEOFFSET: return "scaleoffset";
    case 307: return "bzip2";
    case 32000: return "lzf";
    case 32001: return "blosc";
    case LZ4_FILTER_ID: return "lz4";
    case BITSHUFFLE_FILTER_ID: return "bitshuffle";
    case 32015: return "zstd";
    default: return nullptr;
    }
}
} // namespace

void failRead(hid_t dataset, const std::string& path)
{
    const std::string inner = takeErrorMessage();
    const std::string what = "Cannot read HDF5 dataset " + path;
    DH5DontPrint quiet;
    const Id dcpl(H5Dget_create_plist(dataset));
    const int filters = dcpl.get() >= 0 ? H5Pget_nfilters(dcpl.get()) : 0;
    for (int i = 0; i < filters; ++i) {
        unsigned flags = 0;
        std::size_t values = 0;
        char stored[256] = {};
        const H5Z_filter_t id = H5Pget_filter2(dcpl.get(), static_cast<unsigned>(i), &flags, &values, nullptr,
                                               sizeof stored, stored, nullptr);
        if (id < 0 || H5Zfilter_avail(id) > 0)
            continue;
        H5Eclear2(H5E_DEFAULT);
        const char* name = knownFilterName(id);
        const std::string label = name ? name : stored;
        throw DRuntimeException("HDF5 filter " + std::to_string(id) +
                                (label.empty() ? "" : " (" + label + ")") + " is not available for dataset " +
                                path);
    }
    H5Eclear2(H5E_DEFAULT);
    throw DRuntimeException(inner.empty() ? what : what + ": " + inner);
}

std::string childPath(const std::string& parent, const std::string& name)
{
    if (!name.empty() && name.front() == '/')
        return name;
    if (parent.empty() || parent.back() == '/')
        return parent + name;
    return parent + "/" + name;
}

DH5Group DH5Access::group(Id id, std::string path)
{
    return DH5Group(std::make_shared<DH5Group::DH5GroupPrivate>(std::move(id), std::move(path)));
}

DH5Data DH5Access::data(Id id, std::string path)
{
    return DH5Data(std::make_shared<DH5Data::DH5DataPrivate>(std::move(id), std::move(path)));
}

DH5Attribute DH5Access::attribute(Id id, std::string path)
{
    return DH5Attribute(std::make_shared<DH5Attribute::DH5AttributePrivate>(std::move(id), std::move(path)));
}

namespace {
template <class Pointer> const DH5Object& objectOf(const Pointer& d, const char* kind)
{
    if (!d)
        throw DRuntimeException(std::string("HDF5 ") + kind + " handle refers to nothing");
    return *d;
}
} // namespace

const DH5Object& DH5Access::object(const DH5File& file) { return objectOf(file._d, "file"); }
const DH5Object& DH5Access::object(const DH5Group& group) { return objectOf(group._d, "group"); }
const DH5Object& DH5Access::object(const DH5Data& data) { return objectOf(data._d, "dataset"); }
const DH5Object& DH5Access::object(const DH5Attribute& attribute)
{
    return objectOf(attribute._d, "attribute");
}

namespace {

/// Lets an external link be followed only to a file beside the file that holds it (or to
/// an absolute name that exists). Without it HDF5 falls back to the working directory,
/// where a file of the same name from another series may lie.
herr_t onlyBeside(const char* parentFile, const char*, const char* childFile, const char*, unsigned*, hid_t,
                  void*) noexcept
{
    try {
        std::error_code error;
        const std::filesystem::path child(childFile);
        if (child.is_absolute() && std::filesystem::exists(child, error))
            return 0;
        const std::filesystem::path beside = std::filesystem::path(parentFile).parent_path() /
                                             (child.is_absolute() ? child.filename() : child);
        if (std::filesystem::exists(beside, error))
            return 0;
        H5Epush2(H5E_DEFAULT, __FILE__, "onlyBeside", __LINE__, H5E_ERR_CLS, H5E_LINK, H5E_NOTFOUND,
                 "external file %s not found", beside.c_str());
        return -1;
    } catch (...) {
        return -1;
    }
}

} // namespace

Id linkAccess(hid_t loc, hid_t plistClass)
{
    Id lapl(check(H5Pcreate(plistClass), "Cannot make a link access list for", "HDF5"));
    const ssize_t length = H5Fget_name(loc, nullptr, 0);
    if (length < 0)
        fail("Cannot find the file of an HDF5 object");
    std::string name(static_cast<std::size_t>(length) + 1, '\0');
    H5Fget_name(loc, name.data(), name.size());
    name.resize(static_cast<std::size_t>(length));
    const std::string directory = std::filesystem::path(name).parent_path().string();
    checkStatus(H5Pset_elink_prefix(lapl.get(), directory.empty() ? "." : directory.c_str()),
                "Cannot set the external link prefix for", name);
    checkStatus(H5Pset_elink_cb(lapl.get(), onlyBeside, nullptr), "Cannot set the external link check for",
                name);
    return lapl;
}

DH5Group openGroup(const DH5Object& loc, const std::string& name)
{
    const Id gapl = linkAccess(loc.id.get(), H5P_GROUP_ACCESS);
    Id id(H5Gopen2(loc.id.get(), name.c_str(), gapl.get()));
    const std::string path = childPath(loc.path, name);
    check(id.get(), "Cannot open HDF5 group", path);
    return DH5Access::group(std::move(id), path);
}

DH5Data openDataset(const DH5Object& loc, const std::string& name)
{
    const Id dapl = linkAccess(loc.id.get(), H5P_DATASET_ACCESS);
    Id id(H5Dopen2(loc.id.get(), name.c_str(), dapl.get()));
    const std::string path = childPath(loc.path, name);
    check(id.get(), "Cannot open HDF5 dataset", path);
    return DH5Access::data(std::move(id), path);
}

DH5Group createGroup(const DH5Object& loc, const std::string& name, bool makeParents)
{
    const std::string path = childPath(loc.path, name);
    if (makeParents) {
        DH5DontPrint quiet;
        const Id gapl = linkAccess(loc.id.get(), H5P_GROUP_ACCESS);
        Id existing(H5Gopen2(loc.id.get(), name.c_str(), gapl.get()));
        if (existing.get() >= 0)
            return DH5Access::group(std::move(existing), path);
        H5Eclear2(H5E_DEFAULT);
    }
    const Id lcpl = linkCreation(makeParents);
    Id id(H5Gcreate2(loc.id.get(), name.c_str(), lcpl.get(), H5P_DEFAULT, H5P_DEFAULT));
    check(id.get(), "Cannot create HDF5 group", path);
    return DH5Access::group(std::move(id), path);
}

namespace {

[[noreturn]] void badParameter(const std::string& text) { throw DBadParameterException(text); }

/// The dataspace of `dims`; an empty list is a scalar, a leading -1 (if allowed) starts
/// at 0 and is unlimited.
Id makeSpace(const std::vector<long>& dims, bool extensible, const std::string& path)
{
    if (dims.empty())
        return Id(check(H5Screate(H5S_SCALAR), "Cannot make the dataspace of", path));
    std::vector<hsize_t> current(dims.size()), maximum(dims.size());
    for (std::size_t i = 0; i < dims.size(); ++i) {
        if (dims[i] < 0 && !(i == 0 && extensible && dims[i] == -1))
            badParameter("Dimension " + std::to_string(dims[i]) + " of " + path + " is negative");
        current[i] = dims[i] < 0 ? 0 : static_cast<hsize_t>(dims[i]);
        maximum[i] = dims[i] < 0 ? H5S_UNLIMITED : current[i];
    }
    return Id(check(H5Screate_simple(static_cast<int>(dims.size()), current.data(), maximum.data()),
                    "Cannot make the dataspace of", path));
}

} // namespace

DH5Data createDataset(const DH5Object& loc, const std::string& name, DataType type, unsigned long elementSize,
                      const std::vector<long>& dims, image::DCompression::FILTER filter)
{
    using image::DCompression;
    const std::string path = childPath(loc.path, name);
    switch (filter) {
    case DCompression::FILTER_NONE:
    case DCompression::FILTER_LZ4: break;
    case DCompression::FILTER_BS16_LZ4:
    case DCompression::FILTER_BS32_LZ4:
        // The bitshuffle filter takes its element size from the dataset's type, so the
        // chunk form fixes the element size.
        if (elementSize != (filter == DCompression::FILTER_BS16_LZ4 ? 2u : 4u))
            badParameter("Bitshuffle filter for " +
                         std::string(filter == DCompression::FILTER_BS16_LZ4 ? "16" : "32") +
                         "-bit elements does not fit the element size " + std::to_string(elementSize) +
                         " of " + path);
        break;
    default: badParameter("Unknown compression filter for " + path);
    }
    const Id type_ = fileType(type, elementSize);
    const bool extensible = !dims.empty() && dims.front() == -1;
    const Id space = makeSpace(dims, true, path);
    const Id dcpl(check(H5Pcreate(H5P_DATASET_CREATE), "Cannot make a creation list for", path));
    if (extensible || filter != DCompression::FILTER_NONE) {
        if (dims.empty())
            badParameter("A scalar cannot be compressed: " + path);
        // One frame a chunk: single elements in the leading dimensions, the last two whole.
        const std::size_t rank = dims.size();
        std::vector<hsize_t> chunk(rank);
        for (std::size_t i = 0; i < rank; ++i)
            chunk[i] = (i + 2 < rank || dims[i] < 0) ? 1 : std::max<hsize_t>(1, dims[i]);
        checkStatus(H5Pset_chunk(dcpl.get(), static_cast<int>(rank), chunk.data()),
                    "Cannot set the chunks of", path);
        if (filter == DCompression::FILTER_LZ4) {
            const unsigned values[] = {0}; // the default block size
            checkStatus(H5Pset_filter(dcpl.get(), LZ4_FILTER_ID, H5Z_FLAG_OPTIONAL, 1, values),
                        "Cannot set the LZ4 filter of", path);
        } else if (filter != DCompression::FILTER_NONE) {
            // The default block size and LZ4; the filter puts its version and the element
            // size in front when the dataset is made.
            const unsigned values[] = {0, 2};
            checkStatus(H5Pset_filter(dcpl.get(), BITSHUFFLE_FILTER_ID, H5Z_FLAG_OPTIONAL, 2, values),
                        "Cannot set the bitshuffle filter of", path);
        }
    }
    const Id lcpl = linkCreation(true);
    Id id(H5Dcreate2(loc.id.get(), name.c_str(), type_.get(), space.get(), lcpl.get(), dcpl.get(),
                     H5P_DEFAULT));
    check(id.get(), "Cannot create HDF5 dataset", path);
    return DH5Access::data(std::move(id), path);
}

namespace {

struct Link {
    std::string name;
    H5L_type_t type;
};

herr_t collectLink(hid_t, const char* name, const H5L_info_t* info, void* data)
{
    static_cast<std::vector<Link>*>(data)->push_back({name, info->type});
    return 0;
}

herr_t collectName(hid_t, const char* name, const H5A_info_t*, void* data)
{
    static_cast<std::set<std::string>*>(data)->insert(name);
    return 0;
}

} // namespace

std::set<std::string> linkNames(const DH5Object& loc, LinkKind kind)
{
    std::vector<Link> links;
    checkStatus(H5Literate(loc.id.get(), H5_INDEX_NAME, H5_ITER_INC, nullptr, collectLink, &links),
                "Cannot list the links of", loc.path);
    std::set<std::string> names;
    if (kind == LinkKind::Any) {
        for (const Link& link : links)
            names.insert(link.name);
        return names;
    }
    const H5O_type_t wanted = kind == LinkKind::Group ? H5O_TYPE_GROUP : H5O_TYPE_DATASET;
    std::unique_ptr<Id> lapl;
    for (const Link& link : links) {
        H5O_info_t info;
        if (link.type == H5L_TYPE_HARD) {
            checkStatus(
                H5Oget_info_by_name2(loc.id.get(), link.name.c_str(), &info, H5O_INFO_BASIC, H5P_DEFAULT),
                "Cannot read the object", childPath(loc.path, link.name));
        } else {
            // A soft or external link counts by its target; a dangling one not at all.
            if (!lapl)
                lapl = std::make_unique<Id>(linkAccess(loc.id.get(), H5P_LINK_ACCESS));
            DH5DontPrint quiet;
            if (H5Oget_info_by_name2(loc.id.get(), link.name.c_str(), &info, H5O_INFO_BASIC, lapl->get()) <
                0) {
                H5Eclear2(H5E_DEFAULT);
                continue;
            }
        }
        if (info.type == wanted)
            names.insert(link.name);
    }
    return names;
}

bool linkIsValid(const DH5Object& loc, const std::string& name) noexcept
{
    try {
        DH5DontPrint quiet;
        const Id lapl = linkAccess(loc.id.get(), H5P_LINK_ACCESS);
        const bool valid = H5Lexists(loc.id.get(), name.c_str(), lapl.get()) > 0 &&
                           H5Oexists_by_name(loc.id.get(), name.c_str(), lapl.get()) > 0;
        H5Eclear2(H5E_DEFAULT);
        return valid;
    } catch (...) {
        H5Eclear2(H5E_DEFAULT);
        return false;
    }
}

DH5Attribute openAttribute(const DH5Object& owner, const std::string& name)
{
    Id id(H5Aopen(owner.id.get(), name.c_str(), H5P_DEFAULT));
    const std::string path = attributePath(owner, name);
    check(id.get(), "Cannot open HDF5 attribute", path);
    return DH5Access::attribute(std::move(id), path);
}

std::set<std::string> attributeNames(const DH5Object& owner)
{
    std::set<std::string> names;
    checkStatus(H5Aiterate2(owner.id.get(), H5_INDEX_NAME, H5_ITER_INC, nullptr, collectName, &names),
                "Cannot list the attributes of", owner.path);
    return names;
}

DH5Attribute createAttribute(const DH5Object& owner, const std::string& name, DataType type,
                             unsigned long elementSize, const std::vector<long>& dims)
{
    const std::string path = attributePath(owner, name);
    const Id type_ = fileType(type, elementSize);
    const Id space = makeSpace(dims, false, path);
    Id id(H5Acreate2(owner.id.get(), name.c_str(), type_.get(), space.get(), H5P_DEFAULT, H5P_DEFAULT));
    check(id.get(), "Cannot create HDF5 attribute", path);
    return DH5Access::attribute(std::move(id), path);
}

void deleteAttribute(const DH5Object& owner, const std::string& name)
{
    checkStatus(H5Adelete(owner.id.get(), name.c_str()), "Cannot remove HDF5 attribute",
                attributePath(owner, name));
}

Id fileType(DataType type, unsigned long elementSize)
{
    hid_t base = -1;
    switch (type) {
    case H5Int:
        base = elementSize == 1   ? H5T_STD_I8LE
               : elementSize == 2 ? H5T_STD_I16LE
               : elementSize == 4 ? H5T_STD_I32LE
               : elementSize == 8 ? H5T_STD_I64LE
                                  : -1;
        break;
    case H5UInt:
        base = elementSize == 1   ? H5T_STD_U8LE
               : elementSize == 2 ? H5T_STD_U16LE
               : elementSize == 4 ? H5T_STD_U32LE
               : elementSize == 8 ? H5T_STD_U64LE
                                  : -1;
        break;
    case H5Float: base = elementSize == 4 ? H5T_IEEE_F32LE : elementSize == 8 ? H5T_IEEE_F64LE : -1; break;
    case H5String: {
        Id string(check(H5Tcopy(H5T_C_S1), "Cannot make", "a string type"));
        // HDF5 has no strings of length 0: an empty text is one zero byte.
        checkStatus(H5Tset_size(string.get(), std::max(1ul, elementSize)), "Cannot size", "a string type");
        checkStatus(H5Tset_strpad(string.get(), H5T_STR_NULLPAD), "Cannot pad", "a string type");
        return string;
    }
    default: badParameter("Unknown HDF5 data type " + std::to_string(static_cast<int>(type)));
    }
    if (base < 0)
        badParameter("No HDF5 type of class " + std::to_string(static_cast<int>(type)) + " has " +
                     std::to_string(elementSize) + " bytes");
    return Id(check(H5Tcopy(base), "Cannot copy", "a predefined type"));
}

DataType dataTypeOf(hid_t type, const std::string& object)
{
    switch (H5Tget_class(type)) {
    case H5T_INTEGER: return H5Tget_sign(type) == H5T_SGN_NONE ? H5UInt : H5Int;
    case H5T_FLOAT: return H5Float;
    case H5T_STRING: return H5String;
    case H5T_ENUM: {
        // h5py stores booleans as an enumeration over an 8-bit integer.
        const Id super(check(H5Tget_super(type), "Cannot read the base type of", object));
        return dataTypeOf(super.get(), object);
    }
    default: break;
    }
    fail("HDF5 type class " + std::to_string(static_cast<int>(H5Tget_class(type))) + " of " + object +
         " has no DataType");
}

bool isVariableString(hid_t type) { return H5Tget_class(type) == H5T_STRING && H5Tis_variable_str(type) > 0; }

unsigned long elementSizeOf(hid_t type) { return isVariableString(type) ? 0 : H5Tget_size(type); }

Id memoryType(hid_t type, const std::string& object)
{
    const H5T_class_t typeClass = H5Tget_class(type);
    const std::size_t size = H5Tget_size(type);
    hid_t native = -1;
    if (typeClass == H5T_INTEGER) {
        const bool isSigned = H5Tget_sign(type) != H5T_SGN_NONE;
        native = size == 1   ? (isSigned ? H5T_NATIVE_SCHAR : H5T_NATIVE_UCHAR)
                 : size == 2 ? (isSigned ? H5T_NATIVE_SHORT : H5T_NATIVE_USHORT)
                 : size == 4 ? (isSigned ? H5T_NATIVE_INT : H5T_NATIVE_UINT)
                 : size == 8 ? (isSigned ? H5T_NATIVE_LLONG : H5T_NATIVE_ULLONG)
                             : -1;
    } else if (typeClass == H5T_FLOAT) {
        native = size == 4 ? H5T_NATIVE_FLOAT : size == 8 ? H5T_NATIVE_DOUBLE : -1;
    } else if (typeClass == H5T_STRING) {
        return Id(check(H5Tcopy(type), "Cannot copy the type of", object));
    } else if (typeClass == H5T_ENUM) {
        // No conversion from an enumeration to an integer: read the stored values as they are.
        return Id(check(H5Tget_native_type(type, H5T_DIR_ASCEND), "Cannot read the type of", object));
    } else {
        dataTypeOf(type, object); // fails with the class
    }
    if (native < 0)
        fail("Elements of " + std::to_string(size) + " bytes in " + object + " are not supported");
    return Id(check(H5Tcopy(native), "Cannot copy", "a native type"));
}

namespace {

/// Reads variable-length strings and hands them over as std::strings.
std::vector<std::string> readVariableStrings(hid_t object, bool isAttribute, hid_t type, hid_t space,
                                             std::size_t count, const std::string& path)
{
    const Id memory(check(H5Tcopy(H5T_C_S1), "Cannot make", "a string type"));
    checkStatus(H5Tset_size(memory.get(), H5T_VARIABLE), "Cannot size", "a string type");
    checkStatus(H5Tset_cset(memory.get(), H5Tget_cset(type)), "Cannot set the character set of",
                "a string type");
    std::vector<char*> pointers(count, nullptr);
    const herr_t status = isAttribute
                              ? H5Aread(object, memory.get(), pointers.data())
                              : H5Dread(object, memory.get(), H5S_ALL, H5S_ALL, H5P_DEFAULT, pointers.data());
    checkStatus(status, isAttribute ? "Cannot read HDF5 attribute" : "Cannot read HDF5 dataset", path);
    std::vector<std::string> strings;
    strings.reserve(count);
    for (char* p : pointers)
        strings.emplace_back(p ? p : "");
    H5Dvlen_reclaim(memory.get(), space, H5P_DEFAULT, pointers.data());
    return strings;
}

} // namespace

template <class Allocator>
void readImage(hid_t object, bool isAttribute, const std::string& path, image::DBasicImage<Allocator>& image)
{
    using Image = image::DBasicImage<Allocator>;
    const Id type(
        check(isAttribute ? H5Aget_type(object) : H5Dget_type(object), "Cannot read the type of", path));
    const Id space(check(isAttribute ? H5Aget_space(object) : H5Dget_space(object),
                         "Cannot read the dataspace of", path));
    const DataType dataType = dataTypeOf(type.get(), path);
    const std::vector<hsize_t> dims = extent(space.get());
    const hssize_t points = H5Sget_simple_extent_npoints(space.get());
    const std::size_t count = points > 0 ? static_cast<std::size_t>(points) : 0;

    typename Image::Shape shape{typename Image::ShapeAllocator(image.allocator())};
    if (H5Sget_simple_extent_type(space.get()) == H5S_NULL)
        shape.push_back(0);
    for (auto d = dims.rbegin(); d != dims.rend(); ++d)
        shape.push_back(*d);

    if (isVariableString(type.get())) {
        const std::vector<std::string> strings =
            readVariableStrings(object, isAttribute, type.get(), space.get(), count, path);
        std::size_t width = 1;
        for (const std::string& s : strings)
            width = std::max(width, s.size());
        Image result(shape, image.allocator(), datatypes::CHAR, 8 * width);
        for (std::size_t i = 0; i < strings.size(); ++i) {
            char* element = result.data() + i * width;
            std::memset(element, 0, width);
            std::memcpy(element, strings[i].data(), strings[i].size());
        }
        image.swap(result);
        return;
    }

    const Id memory = memoryType(type.get(), path);
    Image result(image.allocator());
    try {
        result = Image(shape, image.allocator(), imageType(dataType), 8 * H5Tget_size(type.get()));
    } catch (const std::bad_alloc&) {
        // Unwritten chunks read as the fill value: a damaged header may declare more of them
        // than any memory holds.
        fail(std::string(isAttribute ? "HDF5 attribute " : "HDF5 dataset ") + path + " declares more data than memory holds");
    }
    if (count) {
        const herr_t status =
            isAttribute ? H5Aread(object, memory.get(), result.data())
                        : H5Dread(object, memory.get(), H5S_ALL, H5S_ALL, H5P_DEFAULT, result.data());
        if (status < 0) {
            if (isAttribute)
                fail("Cannot read HDF5 attribute " + path);
            failRead(object, path);
        }
    }
    image.swap(result);
}

template void readImage(hid_t, bool, const std::string&, image::DBasicImage<image::StdAllocator>&);
template void readImage(hid_t, bool, const std::string&, image::DBasicImage<image::ShmAllocator>&);

} // namespace detail
} // namespace hdf5
} // namespace norvexa

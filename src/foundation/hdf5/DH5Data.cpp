#include "foundation/hdf5/DH5Data.h"

#include "foundation/DException.h"
#include "foundation/hdf5/DH5Common.h"
#include "foundation/hdf5/DH5Filters.h"

#include <algorithm>
#include <cstdint>

namespace norvexa {
namespace hdf5 {

using detail::check;
using detail::checkStatus;
using detail::DH5Access;
using detail::Id;

namespace {

std::vector<hsize_t> currentDims(hid_t dataset, const std::string& path)
{
    const Id space(check(H5Dget_space(dataset), "Cannot read the dataspace of", path));
    const int rank = checkStatus(H5Sget_simple_extent_ndims(space.get()), "Cannot read the rank of", path);
    std::vector<hsize_t> dims(static_cast<std::size_t>(rank));
    if (rank > 0)
        checkStatus(H5Sget_simple_extent_dims(space.get(), dims.data(), nullptr),
                    "Cannot read the dimensions of", path);
    return dims;
}

/// `offset` as hsize_t, after checking that it has one coordinate per dimension.
std::vector<hsize_t> coordinates(const std::vector<unsigned long>& offset, std::size_t rank, const char* what,
                                 const std::string& path)
{
    if (offset.size() != rank)
        throw DBadParameterException(std::string(what) + " of " + path + " needs " + std::to_string(rank) +
                                     " coordinates, not " + std::to_string(offset.size()));
    return {offset.begin(), offset.end()};
}

/// Grows the dataset to at least `wanted` in each dimension, within its maximum.
void extendTo(hid_t dataset, std::vector<hsize_t> wanted, const std::string& path)
{
    const Id space(check(H5Dget_space(dataset), "Cannot read the dataspace of", path));
    std::vector<hsize_t> current(wanted.size()), maximum(wanted.size());
    checkStatus(H5Sget_simple_extent_dims(space.get(), current.data(), maximum.data()),
                "Cannot read the dimensions of", path);
    bool grow = false;
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        if (maximum[i] != H5S_UNLIMITED)
            wanted[i] = std::min(wanted[i], maximum[i]);
        grow = grow || wanted[i] > current[i];
        wanted[i] = std::max(wanted[i], current[i]);
    }
    if (grow)
        checkStatus(H5Dset_extent(dataset, wanted.data()), "Cannot extend HDF5 dataset", path);
}

} // namespace

DH5Data::DH5Data(std::shared_ptr<DH5DataPrivate> d) noexcept : _d(std::move(d)) {}

DH5Data& DH5Data::operator=(DH5Data other) noexcept
{
    _d = std::move(other._d);
    return *this;
}

DataType DH5Data::dataType() const
{
    const detail::DH5Object& d = DH5Access::object(*this);
    const Id type(check(H5Dget_type(d.id.get()), "Cannot read the type of", d.path));
    return detail::dataTypeOf(type.get(), d.path);
}

unsigned long DH5Data::dataSize() const
{
    const detail::DH5Object& d = DH5Access::object(*this);
    const Id type(check(H5Dget_type(d.id.get()), "Cannot read the type of", d.path));
    return detail::elementSizeOf(type.get());
}

std::vector<unsigned long> DH5Data::dim() const
{
    const detail::DH5Object& d = DH5Access::object(*this);
    const std::vector<hsize_t> dims = currentDims(d.id.get(), d.path);
    return {dims.begin(), dims.end()};
}

image::DCompression::FILTER DH5Data::filter() const
{
    const detail::DH5Object& d = DH5Access::object(*this);
    const Id dcpl(check(H5Dget_create_plist(d.id.get()), "Cannot read the creation list of", d.path));
    const int count = checkStatus(H5Pget_nfilters(dcpl.get()), "Cannot read the filters of", d.path);
    if (count == 0)
        return image::DCompression::FILTER_NONE;
    if (count == 1) {
        unsigned flags = 0;
        std::size_t values = 0;
        const H5Z_filter_t id =
            checkStatus(H5Pget_filter2(dcpl.get(), 0, &flags, &values, nullptr, 0, nullptr, nullptr),
                        "Cannot read the filters of", d.path);
        if (id == LZ4_FILTER_ID)
            return image::DCompression::FILTER_LZ4;
        const unsigned long size = dataSize();
        if (id == BITSHUFFLE_FILTER_ID && (size == 2 || size == 4))
            return size == 2 ? image::DCompression::FILTER_BS16_LZ4 : image::DCompression::FILTER_BS32_LZ4;
    }
    throw DRuntimeException("The filters of HDF5 dataset " + d.path + " have no compression form");
}

namespace {

/// Whether a whole read takes memory in some proportion to what the file stores: at most
/// 65536 times the stored bytes (the most a filter expands) plus 16 MiB. Unwritten chunks
/// read as the fill value, so a damaged header may declare gigabytes of them over a file of
/// kilobytes; a frame may legitimately be unwritten yet, a header item hardly.
bool mostlyStored(const detail::DH5Object& d, const std::vector<unsigned long>& dims)
{
    const Id type(check(H5Dget_type(d.id.get()), "Cannot read the type of", d.path));
    std::uint64_t plain = H5Tget_size(type.get());
    for (unsigned long extent : dims) {
        if (__builtin_mul_overflow(plain, extent, &plain))
            return false;
    }
    const std::uint64_t stored = H5Dget_storage_size(d.id.get());
    std::uint64_t most = 0;
    return __builtin_mul_overflow(stored, std::uint64_t(65536), &most) ||
           plain <= most + (std::uint64_t(16) << 20);
}

} // namespace

template <class Allocator> void DH5Data::read(image::DBasicImage<Allocator>& image) const
{
    const detail::DH5Object& d = DH5Access::object(*this);
    // A damaged header may declare a dataset of gigabytes in a file of kilobytes: refused
    // before the image takes memory for it.
    const std::vector<unsigned long> dims = dim();
    if (!dims.empty() && (!sliceInFile(std::vector<unsigned long>(dims.size(), 0), dims) || !mostlyStored(d, dims)))
        throw DRuntimeException("Data of HDF5 dataset " + d.path + " is not in the file");
    detail::readImage(d.id.get(), false, d.path, image);
}

void DH5Data::readSlice(void* out, const std::vector<unsigned long>& start,
                        const std::vector<unsigned long>& count) const
{
    const detail::DH5Object& d = DH5Access::object(*this);
    const Id space(check(H5Dget_space(d.id.get()), "Cannot read the dataspace of", d.path));
    const int rank = checkStatus(H5Sget_simple_extent_ndims(space.get()), "Cannot read the rank of", d.path);
    const std::vector<hsize_t> first =
        coordinates(start, static_cast<std::size_t>(rank), "Slice start", d.path);
    const std::vector<hsize_t> extent =
        coordinates(count, static_cast<std::size_t>(rank), "Slice count", d.path);
    const Id type(check(H5Dget_type(d.id.get()), "Cannot read the type of", d.path));
    if (detail::isVariableString(type.get()))
        throw DRuntimeException("Cannot read a slice of variable-length strings from " + d.path);
    const Id memoryType = detail::memoryType(type.get(), d.path);
    if (rank > 0)
        checkStatus(
            H5Sselect_hyperslab(space.get(), H5S_SELECT_SET, first.data(), nullptr, extent.data(), nullptr),
            "Cannot select a slice of", d.path);
    const Id memory(check(rank > 0 ? H5Screate_simple(rank, extent.data(), nullptr) : H5Screate(H5S_SCALAR),
                          "Cannot make the memory space for", d.path));
    if (H5Dread(d.id.get(), memoryType.get(), memory.get(), space.get(), H5P_DEFAULT, out) < 0)
        detail::failRead(d.id.get(), d.path);
}

namespace {

/// a * b, or false where the product leaves 64 bits.
bool multiply(std::uint64_t a, std::uint64_t b, std::uint64_t& product)
{
    return !__builtin_mul_overflow(a, b, &product);
}

/// Whether `size` bytes at `address` end within a file of `fileSize` bytes.
bool withinFile(haddr_t address, std::uint64_t size, hsize_t fileSize)
{
    return address <= fileSize && size <= fileSize - address;
}

} // namespace

bool DH5Data::sliceInFile(const std::vector<unsigned long>& start, const std::vector<unsigned long>& count) const
{
    const detail::DH5Object& d = DH5Access::object(*this);
    const std::vector<hsize_t> dims = currentDims(d.id.get(), d.path);
    const std::vector<hsize_t> first = coordinates(start, dims.size(), "Slice start", d.path);
    const std::vector<hsize_t> extent = coordinates(count, dims.size(), "Slice count", d.path);
    for (std::size_t i = 0; i < dims.size(); ++i) {
        if (first[i] > dims[i] || extent[i] > dims[i] - first[i])
            throw DBadParameterException("Slice of " + d.path + " lies outside its dimensions");
    }
    if (std::find(extent.begin(), extent.end(), 0) != extent.end())
        return true;
    const Id dcpl(check(H5Dget_create_plist(d.id.get()), "Cannot read the creation list of", d.path));
    const bool filtered = checkStatus(H5Pget_nfilters(dcpl.get()), "Cannot read the filters of", d.path) != 0;
    const H5D_layout_t layout = H5Pget_layout(dcpl.get());
    if (layout != H5D_CONTIGUOUS && layout != H5D_CHUNKED)
        return true;
    if (layout == H5D_CONTIGUOUS &&
        checkStatus(H5Pget_external_count(dcpl.get()), "Cannot read the storage of", d.path) > 0)
        return true;
    const Id type(check(H5Dget_type(d.id.get()), "Cannot read the type of", d.path));
    const std::uint64_t elementSize = H5Tget_size(type.get());
    // The file that holds the data: for a dataset behind an external link, the linked file.
    const Id file(check(H5Iget_file_id(d.id.get()), "Cannot find the file of", d.path));
    hsize_t fileSize = 0;
    checkStatus(H5Fget_filesize(file.get(), &fileSize), "Cannot read the file size of", d.path);

    if (layout == H5D_CONTIGUOUS) {
        if (filtered)
            return true;
        const haddr_t address = H5Dget_offset(d.id.get());
        if (address == HADDR_UNDEF) {
            detail::takeErrorMessage();
            return true;
        }
        // Elements are stored in row-major order: the slice needs every byte up to its last
        // element.
        std::uint64_t last = 0, stride = 1;
        for (std::size_t i = dims.size(); i-- > 0;) {
            std::uint64_t term = 0;
            if (!multiply(first[i] + extent[i] - 1, stride, term) ||
                __builtin_add_overflow(last, term, &last) || !multiply(stride, dims[i], stride))
                return false;
        }
        std::uint64_t needed = 0;
        if (!multiply(last + 1, elementSize, needed))
            return false;
        return needed <= H5Dget_storage_size(d.id.get()) && withinFile(address, needed, fileSize);
    }

    const int rank = checkStatus(H5Pget_chunk(dcpl.get(), 0, nullptr), "Cannot read the chunks of", d.path);
    std::vector<hsize_t> chunk(static_cast<std::size_t>(rank));
    checkStatus(H5Pget_chunk(dcpl.get(), rank, chunk.data()), "Cannot read the chunks of", d.path);
    if (chunk.size() != dims.size() || std::find(chunk.begin(), chunk.end(), 0) != chunk.end())
        return false;
    std::uint64_t plain = elementSize;
    for (const hsize_t c : chunk) {
        if (!multiply(plain, c, plain))
            return false;
    }
    // Every chunk of the grid that the slice touches, counted like an odometer.
    std::vector<hsize_t> low(dims.size()), high(dims.size());
    for (std::size_t i = 0; i < dims.size(); ++i) {
        low[i] = first[i] / chunk[i] * chunk[i];
        high[i] = (first[i] + extent[i] - 1) / chunk[i] * chunk[i];
    }
    // A slice of very many small chunks (a hostile file may declare billions) is checked
    // by the chunks stored instead, when they are few: a lookup by index walks the index
    // from its start.
    std::uint64_t touched = 1;
    for (std::size_t i = 0; i < dims.size(); ++i) {
        if (!multiply(touched, (high[i] - low[i]) / chunk[i] + 1, touched))
            touched = UINT64_MAX;
    }
    // A plain chunk is stored at its plain size. A compressed one may decode to far more
    // than it stores (a dark frame compresses a thousandfold), but no filter expands a
    // chunk 65536-fold: HDF5 takes a buffer of the plain chunk size to decode into, which
    // a damaged header may set to gigabytes over a chunk of a few hundred bytes.
    constexpr std::uint64_t maxExpansion = 65536, slack = std::uint64_t(1) << 20;
    const auto fits = [&](haddr_t address, hsize_t stored) {
        if (stored == 0 || address == HADDR_UNDEF)
            return true; // not written: the fill value
        if (!filtered)
            return withinFile(address, plain, fileSize);
        std::uint64_t most = 0;
        return withinFile(address, stored, fileSize) &&
               (!multiply(stored, maxExpansion, most) || plain <= most + slack);
    };
    constexpr hsize_t manyChunks = 4096, fewStored = 1024;
    if (touched > manyChunks) {
        const Id all(check(H5Dget_space(d.id.get()), "Cannot read the dataspace of", d.path));
        hsize_t count = 0;
        checkStatus(H5Dget_num_chunks(d.id.get(), all.get(), &count), "Cannot count the chunks of", d.path);
        if (count <= fewStored) {
            std::vector<hsize_t> offset(dims.size());
            for (hsize_t index = 0; index < count; ++index) {
                haddr_t address = HADDR_UNDEF;
                hsize_t stored = 0;
                unsigned mask = 0;
                checkStatus(H5Dget_chunk_info(d.id.get(), all.get(), index, offset.data(), &mask, &address, &stored),
                            "Cannot find the chunk of", d.path);
                bool inSlice = true;
                for (std::size_t i = 0; i < dims.size(); ++i)
                    inSlice = inSlice && offset[i] >= low[i] && offset[i] <= high[i];
                if (inSlice && !fits(address, stored))
                    return false;
            }
            return true;
        }
    }
    std::vector<hsize_t> at = low;
    for (;;) {
        haddr_t address = HADDR_UNDEF;
        hsize_t stored = 0;
        unsigned mask = 0;
        checkStatus(H5Dget_chunk_info_by_coord(d.id.get(), at.data(), &mask, &address, &stored),
                    "Cannot find the chunk of", d.path);
        if (!fits(address, stored))
            return false;
        std::size_t i = at.size();
        while (i-- > 0 && at[i] == high[i])
            at[i] = low[i];
        if (i == static_cast<std::size_t>(-1))
            return true;
        at[i] += chunk[i];
    }
}

std::vector<char> DH5Data::readRawChunk(const std::vector<unsigned long>& offset) const
{
    const unsigned long size = rawChunkSize(offset);
    if (size == 0)
        throw DRuntimeException("No chunk is stored at this offset of HDF5 dataset " +
                                DH5Access::object(*this).path);
    std::vector<char> chunk(size);
    readRawChunk(offset, chunk.data(), size);
    return chunk;
}

std::vector<unsigned long> DH5Data::chunkDims() const
{
    const detail::DH5Object& d = DH5Access::object(*this);
    const Id dcpl(check(H5Dget_create_plist(d.id.get()), "Cannot read the creation list of", d.path));
    if (H5Pget_layout(dcpl.get()) != H5D_CHUNKED)
        return {};
    const int rank = checkStatus(H5Pget_chunk(dcpl.get(), 0, nullptr), "Cannot read the chunks of", d.path);
    std::vector<hsize_t> chunk(static_cast<std::size_t>(rank));
    checkStatus(H5Pget_chunk(dcpl.get(), rank, chunk.data()), "Cannot read the chunks of", d.path);
    return std::vector<unsigned long>(chunk.begin(), chunk.end());
}

unsigned long DH5Data::rawChunkSize(const std::vector<unsigned long>& offset) const
{
    const detail::DH5Object& d = DH5Access::object(*this);
    const std::vector<hsize_t> at =
        coordinates(offset, currentDims(d.id.get(), d.path).size(), "Chunk offset", d.path);
    hsize_t size = 0;
    checkStatus(H5Dget_chunk_storage_size(d.id.get(), at.data(), &size), "Cannot find the chunk of", d.path);
    return static_cast<unsigned long>(size);
}

std::uint32_t DH5Data::readRawChunk(const std::vector<unsigned long>& offset, void* out, unsigned long size) const
{
    const detail::DH5Object& d = DH5Access::object(*this);
    const std::vector<hsize_t> at =
        coordinates(offset, currentDims(d.id.get(), d.path).size(), "Chunk offset", d.path);
    hsize_t stored = 0;
    checkStatus(H5Dget_chunk_storage_size(d.id.get(), at.data(), &stored), "Cannot find the chunk of", d.path);
    // HDF5 writes the whole chunk, whatever the buffer: refuse a buffer that is too short.
    if (stored == 0 || stored > size)
        throw DRuntimeException("The chunk at this offset of HDF5 dataset " + d.path + " does not fit " +
                                std::to_string(size) + " bytes");
    uint32_t mask = 0;
    checkStatus(H5Dread_chunk(d.id.get(), H5P_DEFAULT, at.data(), &mask, out), "Cannot read a chunk of", d.path);
    return mask;
}

void DH5Data::write(const void* data)
{
    const detail::DH5Object& d = DH5Access::object(*this);
    const Id type(check(H5Dget_type(d.id.get()), "Cannot read the type of", d.path));
    const Id memoryType = detail::memoryType(type.get(), d.path);
    checkStatus(H5Dwrite(d.id.get(), memoryType.get(), H5S_ALL, H5S_ALL, H5P_DEFAULT, data),
                "Cannot write HDF5 dataset", d.path);
}

void DH5Data::writeChunk(const void* data, const std::vector<unsigned long>& offset)
{
    const detail::DH5Object& d = DH5Access::object(*this);
    const std::size_t rank = currentDims(d.id.get(), d.path).size();
    const std::vector<hsize_t> start = coordinates(offset, rank, "Chunk offset", d.path);
    if (rank == 0)
        throw DBadParameterException("HDF5 dataset " + d.path + " is a scalar and has no frames");
    std::vector<hsize_t> wanted(rank, 0);
    wanted[0] = start[0] + 1;
    extendTo(d.id.get(), wanted, d.path);

    std::vector<hsize_t> count = currentDims(d.id.get(), d.path);
    count[0] = 1;
    const Id space(check(H5Dget_space(d.id.get()), "Cannot read the dataspace of", d.path));
    checkStatus(
        H5Sselect_hyperslab(space.get(), H5S_SELECT_SET, start.data(), nullptr, count.data(), nullptr),
        "Cannot select a frame of", d.path);
    const Id memory(check(H5Screate_simple(static_cast<int>(rank), count.data(), nullptr),
                          "Cannot make the memory space for", d.path));
    const Id type(check(H5Dget_type(d.id.get()), "Cannot read the type of", d.path));
    const Id memoryType = detail::memoryType(type.get(), d.path);
    checkStatus(H5Dwrite(d.id.get(), memoryType.get(), memory.get(), space.get(), H5P_DEFAULT, data),
                "Cannot write a frame of HDF5 dataset", d.path);
}

void DH5Data::writePrecompressedChunk(const void* data, unsigned long size,
                                      const std::vector<unsigned long>& offset)
{
    const detail::DH5Object& d = DH5Access::object(*this);
    const std::size_t rank = currentDims(d.id.get(), d.path).size();
    const std::vector<hsize_t> start = coordinates(offset, rank, "Chunk offset", d.path);
    const Id dcpl(check(H5Dget_create_plist(d.id.get()), "Cannot read the creation list of", d.path));
    if (H5Pget_layout(dcpl.get()) != H5D_CHUNKED) {
        detail::takeErrorMessage();
        throw DRuntimeException("HDF5 dataset " + d.path + " is not chunked");
    }
    std::vector<hsize_t> chunk(rank);
    checkStatus(H5Pget_chunk(dcpl.get(), static_cast<int>(rank), chunk.data()), "Cannot read the chunks of",
                d.path);
    for (std::size_t i = 0; i < rank; ++i)
        chunk[i] += start[i];
    extendTo(d.id.get(), chunk, d.path);
    // Filter mask 0: every filter of the pipeline has run on these bytes.
    checkStatus(H5Dwrite_chunk(d.id.get(), H5P_DEFAULT, 0, start.data(), size, data),
                "Cannot write a chunk of HDF5 dataset", d.path);
}

DH5Attribute DH5Data::attribute(const std::string& name)
{
    return detail::openAttribute(DH5Access::object(*this), name);
}

DH5Attribute DH5Data::attribute(const std::string& name) const
{
    return detail::openAttribute(DH5Access::object(*this), name);
}

std::set<std::string> DH5Data::attributes() const { return detail::attributeNames(DH5Access::object(*this)); }

DH5Attribute DH5Data::addAttribute(const std::string& name, const DataType& type, unsigned long elementSize,
                                   const std::vector<long>& dims)
{
    return detail::createAttribute(DH5Access::object(*this), name, type, elementSize, dims);
}

void DH5Data::removeAttribute(const std::string& name)
{
    detail::deleteAttribute(DH5Access::object(*this), name);
}

template void DH5Data::read(image::DBasicImage<image::StdAllocator>&) const;
template void DH5Data::read(image::DBasicImage<image::ShmAllocator>&) const;

} // namespace hdf5
} // namespace norvexa

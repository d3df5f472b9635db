#pragma once

#include "foundation/hdf5/DH5Attribute.h"
#include "foundation/hdf5/DH5DataType.h"
#include "foundation/image/DBasicImage.h"
#include "foundation/image/DCompression.h"

#include <memory>
#include <set>
#include <string>
#include <cstdint>
#include <vector>

namespace norvexa {
namespace hdf5 {

/// A dataset. A value handle: copies share the HDF5 dataset, which closes with the last
/// of them; a default-made one refers to nothing.
///
/// Dimensions are in HDF5's order, the slowest first: a stack of frames is
/// [frames, height, width]. Buffers hold plain little-endian elements of the dataset's
/// class and size (see DH5DataType.h); HDF5 converts from the file's byte order.
///
/// Failures of HDF5 raise DRuntimeException (see DH5File.h); so does any operation on a
/// handle that refers to nothing. Coordinates of the wrong count raise
/// DBadParameterException.
class DH5Data {
public:
    DH5Data() noexcept = default;
    DH5Data(const DH5Data& other) = default;
    DH5Data(DH5Data&& other) noexcept = default;
    DH5Data& operator=(DH5Data other) noexcept;
    ~DH5Data() = default;

    /// False for a default-made handle.
    bool isOpen() const noexcept { return _d != nullptr; }
    /// The element class; DRuntimeException for a class with no DataType (compound, ...).
    DataType dataType() const;
    /// Element size in bytes; a string's length, 0 for a variable-length string.
    unsigned long dataSize() const;
    /// The current dimensions; empty for a scalar.
    std::vector<unsigned long> dim() const;
    /// The form of the filter pipeline: FILTER_NONE without filters, FILTER_LZ4 for the
    /// LZ4 filter, FILTER_BS16_LZ4 / FILTER_BS32_LZ4 for bitshuffle by the element size.
    /// DRuntimeException for any other pipeline.
    image::DCompression::FILTER filter() const;

    /// Reads the whole dataset. The image takes the file's class (INT, UINT, FLOAT or
    /// CHAR), bits (element size * 8) and shape, reversed into the image's fastest-first
    /// order. A variable-length string becomes a CHAR value as wide as its longest text.
    /// Data that is not in the file (see sliceInFile), or more than 65536 times the bytes
    /// stored plus 16 MiB (mostly unwritten chunks, read as the fill value), raises
    /// DRuntimeException "Data of HDF5 dataset <path> is not in the file" before anything
    /// is allocated. On failure
    /// the image is unchanged.
    template <class Allocator> void read(image::DBasicImage<Allocator>& image) const;
    /// Reads the hyperslab at `start` of extent `count` into `out`, which must hold the
    /// product of `count` elements. Unavailable filters raise a DRuntimeException naming
    /// the filter: "HDF5 filter 307 (bzip2) is not available for dataset <path>".
    void readSlice(void* out, const std::vector<unsigned long>& start,
                   const std::vector<unsigned long>& count) const;
    /// Whether the stored bytes that the hyperslab at `start` of extent `count` reads lie
    /// within the dataset's own file. Without filters the stored size is the plain size:
    /// contiguous storage must reach the slice's last element and end within the file;
    /// every stored chunk the slice touches must fit its plain size (chunk elements *
    /// element size) between its address and the file's end. With filters a stored chunk
    /// must lie within the file and its plain size be at most 65536 times its stored size
    /// plus 1 MiB (content may decode to many times its size, but no filter expands that
    /// far; HDF5 takes a buffer of the plain chunk size first). Storage or chunks not yet
    /// written read as the fill value and count as backed, as do compact, external and
    /// virtual storage. Queries only, no data is read; a chunked slice costs
    /// one index lookup per chunk it touches, as its read does, or, past 4096 chunks, a
    /// walk of the stored chunks where at most 1024 are stored. A slice outside the
    /// dimensions raises DBadParameterException.
    bool sliceInFile(const std::vector<unsigned long>& start, const std::vector<unsigned long>& count) const;
    /// Reads the stored bytes of the chunk at `offset`, as they lie in the file (the
    /// filters not undone).
    std::vector<char> readRawChunk(const std::vector<unsigned long>& offset) const;
    /// The chunk's dimensions; empty for a dataset that is not chunked.
    std::vector<unsigned long> chunkDims() const;
    /// Bytes stored for the chunk at `offset`; 0 where no chunk is stored.
    unsigned long rawChunkSize(const std::vector<unsigned long>& offset) const;
    /// Reads the stored bytes of the chunk at `offset` into `out`, which holds `size` =
    /// rawChunkSize(offset) bytes, and returns the chunk's filter mask: 0 when every filter
    /// of the pipeline ran on it, a bit set for each filter skipped.
    std::uint32_t readRawChunk(const std::vector<unsigned long>& offset, void* out, unsigned long size) const;

    /// Writes the whole dataset.
    void write(const void* data);
    /// Writes one frame of plain elements at `offset` = [frame, 0, 0], extending the first
    /// dimension to frame + 1 where it is shorter; the filter pipeline compresses.
    void writeChunk(const void* data, const std::vector<unsigned long>& offset);
    /// Stores `size` bytes as the chunk at `offset`, as they are, marked as having passed
    /// all filters; extends the dataset to cover the chunk where it is shorter.
    void writePrecompressedChunk(const void* data, unsigned long size,
                                 const std::vector<unsigned long>& offset);

    DH5Attribute attribute(const std::string& name);
    DH5Attribute attribute(const std::string& name) const;
    std::set<std::string> attributes() const;
    /// Makes an attribute of the given class, size and dimensions (empty for a scalar).
    DH5Attribute addAttribute(const std::string& name, const DataType& type, unsigned long elementSize,
                              const std::vector<long>& dims);
    /// DRuntimeException when there is no such attribute.
    void removeAttribute(const std::string& name);

private:
    friend struct detail::DH5Access;
    class DH5DataPrivate;
    explicit DH5Data(std::shared_ptr<DH5DataPrivate> d) noexcept;
    std::shared_ptr<DH5DataPrivate> _d;
};

extern template void DH5Data::read(image::DBasicImage<image::StdAllocator>&) const;
extern template void DH5Data::read(image::DBasicImage<image::ShmAllocator>&) const;

} // namespace hdf5
} // namespace norvexa

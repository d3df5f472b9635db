#pragma once

#include "DBasicImageOptionalData.h"
#include "DImage.h"
#include "foundation/image/DBasicImageData.h"

#include <boost/optional.hpp>

#include <cstdint>
#include <string>

namespace norvexa {
namespace imglib {

/// The frame of every single-image file reader: holds the whole file in memory, runs a
/// concrete reader's steps in a fixed order (readData) and attaches the metadata, and
/// parses the detector's "#" text header (readNorvexaHeader) for the readers whose files
/// carry one.
///
/// A reader is used once: constructed (a concrete reader parses what it needs of its
/// file there and raises the header's failures), readData, destroyed. Reading never
/// changes the reader.
///
/// The file's bytes are followed in memory by kPadding zero bytes that are not part of
/// the file, so that a decoder which, as the formats allow, looks a few bytes past the
/// end of a block never reads outside the buffer.
class DAbstractImageReader {
public:
    using Data = image::DBasicImageData<image::StdAllocator>;
    static constexpr std::size_t kPadding = 16;

    /// Reads the whole file. The time-out is accepted and not used. DRuntimeException
    /// "DAbstractImageReader: Passed empty string as filename" for an empty name,
    /// DNoFileAccessException "Error accessing <name>" when the file can't be opened.
    DAbstractImageReader(const char* fileName, int timeout);
    /// Takes a copy of bytes already in memory, without any check.
    DAbstractImageReader(const Data& data, const std::string& fileName);
    virtual ~DAbstractImageReader();
    DAbstractImageReader(const DAbstractImageReader&) = delete;
    DAbstractImageReader& operator=(const DAbstractImageReader&) = delete;

    virtual int width() const = 0;
    virtual int height() const = 0;
    virtual datatypes::Type dataType() const = 0;
    virtual unsigned long typeBits() const = 0;
    /// Fills the pixels of an image of the reader's size and type.
    virtual void readPixelData(DImage& image) const = 0;
    /// Lays what this file says over metadata that the caller supplied.
    virtual void readImageSpecificHeader(DImageOptionalData& optionalData) const = 0;
    /// Fills empty metadata from the file's header.
    virtual void readHeaderData(DImageOptionalData& optionalData) const = 0;
    /// Stores the file's unparsed header.
    virtual void readRawHeader(DImageOptionalData& optionalData) const = 0;

    /// The image with its metadata: new pixels of the reader's size and type, filled;
    /// then the caller's metadata with this file's laid over it, or (without) the file's
    /// own header and raw header; a mask from DDetector when there is none; and the file
    /// name as the image description. A size below 0 or above 2^31 - 1 pixels raises
    /// DImageCorruptedException "Image <name> has an invalid size of <w> x <h> pixels".
    void readData(DImage& image, const DImageOptionalData* optionalData) const;

    /// Parses the "#" lines among the first 4096 bytes into the metadata.
    void readNorvexaHeader(DImageOptionalData& optionalData) const;
    /// The module layout of the frame's size (with the Vrf of the gain setting, and a
    /// bit depth of 20, for a detector of the first family).
    void readModules(DImageOptionalData& optionalData) const;
    /// The serial number that follows "SN " in the description.
    void readDetectorNumber(DImageOptionalData& optionalData) const;

protected:
    /// Called by readData before the pixels are allocated, with their byte count: a reader
    /// of uncompressed pixels raises its failure when the file can't hold that many bytes,
    /// so that a header which claims a huge image costs no memory. The default takes any.
    virtual void checkBackedByFile(std::uint64_t /*imageBytes*/) const {}
    /// The file's bytes; kPadding zero bytes follow them in memory.
    const Data& fileData() const noexcept { return _data; }
    const std::string& fileName() const noexcept { return _fileName; }

private:
    Data _data;
    std::string _fileName;
};

namespace utils {
/// The first time stamp in a block of bytes ("2011/Jun/14 10:22:33.125",
/// "2011-06-14T10:22:33.125", ...) with the rest of its line; absent when there is none.
boost::optional<std::string> findDate(const char* text, unsigned long length);
} // namespace utils

} // namespace imglib
} // namespace norvexa

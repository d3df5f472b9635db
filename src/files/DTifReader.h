#pragma once

#include "DAbstractImageReader.h"

#include <cstdint>
#include <string>
#include <vector>

namespace norvexa {
namespace imglib {

/// Reads the one image of a TIFF file of the narrow kind the detector's software writes:
/// uncompressed, little-endian, one sample per pixel, the image in one strip, with the
/// detector's "#" text header somewhere in the first 4096 bytes. It is no general TIFF
/// reader.
///
/// Every directory of the chain is read and later values overwrite earlier ones, so the
/// last directory's image is the one read. Strips are copied one after the other to the
/// start of the image (right for the one strip the detector writes). All failures are
/// DImageCorruptedException "Image <name> is corrupted. <reason>"; "Invalid binary data."
/// comes from readPixelData, every other reason from the constructor. Directories that
/// loop or overlap are "Invalid data offset"; a rows per strip of 0, or a strip longer than
/// the image, is "Invalid binary data.".
class DTifReader : public DAbstractImageReader {
public:
    /// Reads the file and walks its directories. The time-out is not used.
    DTifReader(const char* fileName, int timeout);
    /// Walks the directories of bytes already in memory (say, a TIFF fetched over HTTP);
    /// the name serves in messages and as the image's description.
    DTifReader(const Data& data, const std::string& fileName);
    ~DTifReader() override;

    int width() const override { return _width; }
    int height() const override { return _height; }
    datatypes::Type dataType() const override { return _dataType; }
    unsigned long typeBits() const override { return _typeBits; }
    void readPixelData(DImage& image) const override;
    /// The text header and the model text, with the serial number, laid over the caller's
    /// metadata; no raw header, no modules.
    void readImageSpecificHeader(DImageOptionalData& optionalData) const override;
    /// The text header; the model text (tag 272), when there is one, as the description;
    /// the modules and the serial number.
    void readHeaderData(DImageOptionalData& optionalData) const override;
    /// The first 4096 bytes of the file (fewer when the file is shorter).
    void readRawHeader(DImageOptionalData& optionalData) const override;

protected:
    /// The pixels are uncompressed: a file shorter than them is "Invalid binary data.".
    void checkBackedByFile(std::uint64_t imageBytes) const override;

private:
    void _initialize(const std::string& fileName);

    int _width = -1;
    int _height = -1;
    int _rowsPerStrip = -1;
    int _numberOfStrips = -1;
    std::string _model;
    std::vector<std::int64_t> _stripOffsets;
    datatypes::Type _dataType = datatypes::NONE;
    unsigned long _typeBits = 0;
};

} // namespace imglib
} // namespace norvexa

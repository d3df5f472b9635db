#pragma once

#include "DAbstractImageReader.h"

#include <string>

namespace norvexa {
namespace imglib {

/// Reads the single image of a CBF file as the detector's control software and
/// DImageWriter write it: 32-bit signed pixels, byte-offset compressed or plain.
///
/// Not a CIF parser: the file is one block of bytes in which a few MIME keys are looked
/// for before the binary section's magic (0x0C 0x1A 0x04 0xD5). The "#" text header is
/// parsed by the base. Every failure is a DImageCorruptedException: those of the header
/// region, "Image <name> is corrupted. <reason>", at construction; those of the pixel
/// data, "<name> corrupted. <reason>", in readPixelData.
class DCbfReader : public DAbstractImageReader {
public:
    /// Reads the file and parses its header region. The time-out is not used.
    DCbfReader(const char* fileName, int timeout);
    /// Parses bytes already in memory; `fileName` only names them in messages and in the
    /// image description.
    DCbfReader(const Data& data, const std::string& fileName);
    ~DCbfReader() override;

    int width() const override;
    int height() const override;
    datatypes::Type dataType() const override;
    unsigned long typeBits() const override;
    /// Checks the block's size and MD5 sum and decodes it into the image's pixels, which
    /// must be 32 bits wide. Pixels that a short block doesn't reach are left as they are.
    void readPixelData(DImage& image) const override;
    /// The file's "#" header, detector number and raw header laid over the caller's
    /// metadata; the caller's modules stay.
    void readImageSpecificHeader(DImageOptionalData& optionalData) const override;
    /// The "#" header, the module layout and the detector number.
    void readHeaderData(DImageOptionalData& optionalData) const override;
    /// The file's bytes up to and including the magic.
    void readRawHeader(DImageOptionalData& optionalData) const override;

private:
    enum Compression : int { NONE = 0, BYTE_OFFSET = 1 };

    void _initialize(const char* fileName);

    int _width = 0;
    int _height = 0;
    std::string _md5Sum;
    unsigned long _binarySize = 0;
    unsigned long _binaryOffset = 0;
    Compression _compression = NONE;
    datatypes::Type _dataType = datatypes::NONE;
    unsigned long _typeBits = 0;
};

} // namespace imglib
} // namespace norvexa

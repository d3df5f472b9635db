#pragma once

#include "DAbstractImageReader.h"

#include <cstdint>
#include <string>

namespace norvexa {
namespace imglib {

/// Reads the image of an EDF file: a text header of "key = value ;" pairs between braces,
/// then raw pixels two bytes behind the closing brace. It reads the one kind the system
/// needs, 32-bit signed integers in one data block; every image comes out as INT 32.
///
/// Keys are found case-insensitively, also at the end of a longer key. All failures are
/// DImageCorruptedException with a text of its own ("DEdfReader: ..."), raised by the
/// constructor, except a "count_time" that is no number, which readHeaderData and
/// readImageSpecificHeader refuse as "DEdfReader: Header corrupted".
class DEdfReader : public DAbstractImageReader {
public:
    /// Reads the file and parses its header. The time-out is not used.
    DEdfReader(const char* fileName, int timeout);
    /// Parses bytes already in memory; the name becomes the image's description.
    DEdfReader(const Data& data, const std::string& fileName);
    ~DEdfReader() override;

    int width() const override { return _width; }
    int height() const override { return _height; }
    datatypes::Type dataType() const override { return datatypes::INT; }
    unsigned long typeBits() const override { return 32; }
    /// "LowByteFirst": the pixels as they stand. "HighByteFirst": one byte per pixel,
    /// sign-extended and byte-reversed, a long-standing reading kept on purpose.
    void readPixelData(DImage& image) const override;
    /// "Date" and "count_time" laid over the caller's metadata.
    void readImageSpecificHeader(DImageOptionalData& optionalData) const override;
    /// "Date" as written, "count_time", and the modules of the frame's size.
    void readHeaderData(DImageOptionalData& optionalData) const override;
    /// The bytes from the "{" up to, not including, the "}".
    void readRawHeader(DImageOptionalData& optionalData) const override;

private:
    void _initialize();
    void _readDateAndCountTime(DImageOptionalData& optionalData) const;

    std::uint64_t _headerStart = ~std::uint64_t(0);
    std::uint64_t _headerEnd = ~std::uint64_t(0);
    int _width = -1;
    int _height = -1;
    int _dataSize = -1;
    std::string _dataType;
    std::string _byteOrder;
    const char* _data = nullptr;
    std::string _header;
};

} // namespace imglib
} // namespace norvexa

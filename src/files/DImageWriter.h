#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace norvexa {
namespace imglib {

class DImage;

/// Writes one image with its metadata to a CBF or a TIFF file that DCbfReader and
/// DTifReader read back.
///
/// CBF: 32-bit signed pixels, byte-offset compressed (stored as they stand, "x-CBF_NONE",
/// when more than a quarter of the differences need the 7-byte form), with the MD5
/// digest of the binary block and a "#" text header rebuilt from the metadata. Lines of
/// the image's raw header (the header of the file it was read from) are kept, and the
/// ones the metadata knows are brought up to date where they stand.
///
/// TIFF: little-endian, one strip, pixels from byte 4096; the text header stands in
/// plain text among the first 4096 bytes when it fits there, and is left out whole when
/// it doesn't.
///
/// Bounds. The formatted CBF header has no size limit: its buffer grows with a long
/// text header, so any metadata gives a valid file (the readers' "#" header parser only
/// looks at the first 4096 bytes, so lines beyond that are kept in the file but not read
/// back as metadata). In a TIFF the Model text (the description) is cut to what the
/// 4096-byte header leaves free (3887 characters) rather than let the pixels move.
///
/// A writer holds nothing but its name and format and can write any number of images;
/// several writers can run at once on different files.
class DImageWriter {
public:
    enum Format { NONE = 0, CBF = 1, TIF = 2, TIF_INT = 3, TIF_FLOAT = 4 };

    /// Empty name, NONE.
    DImageWriter();
    /// Stores the format, then setFileName: NONE is replaced by what the name's ending tells.
    DImageWriter(const std::string& fileName, Format format);

    /// Stores the name. Only while the format is NONE, the ending from the last '.' sets
    /// it: ".cbf" CBF, ".tif" TIF (case-sensitive); anything else leaves NONE.
    void setFileName(const std::string& fileName);
    std::string fileName() const { return _fileName; }
    Format format() const { return _format; }
    void setFormat(Format format) { _format = format; }

    /// Writes the file. DUnknownFormatException "DImageWriter: File format is NONE";
    /// DNoFileAccessException "No write access to <name>" when the file can't be created.
    /// TIF with an image that is neither INT, UINT nor FLOAT leaves an empty file; TIF_FLOAT
    /// writes a UINT image as TIF_INT. Write errors after opening are not reported.
    void write(const DImage& image) const;
    /// A temporary writer with `format` and `fileName` writes `image`.
    static void write(const DImage& image, const std::string& fileName, Format format);

private:
    std::string _fileName;
    Format _format = NONE;
};

namespace detail {
/// What byteOffsetEncode returns when it gives up.
constexpr std::size_t kByteOffsetGivenUp = ~std::size_t(0);
/// The CBF byte-offset form of `count` pixels (differences from a previous value that
/// starts at 0) into `out`, which has room for 4 * count bytes; the number of bytes
/// written, or kByteOffsetGivenUp (with `out` partly written) when more than count / 4
/// pixels would need the 7-byte form. For the writer, its tests and benchmark.
std::size_t byteOffsetEncode(const std::int32_t* pixels, std::size_t count,
                             unsigned char* out) noexcept;
} // namespace detail

} // namespace imglib
} // namespace norvexa

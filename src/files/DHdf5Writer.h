#pragma once

#include "DImage.h"
#include "foundation/image/DCompression.h"
#include "foundation/nexus/DBasicNeXusTree.h"

#include <memory>
#include <string>

namespace norvexa {
namespace imglib {

/// Writes a series of images as an HDF5/NeXus master file with the given header tree,
/// in the layout that DHdf5Iterator reads:
/// - multi-file mode (`numImagesPerFile` N > 0): "<base>_master.<ext>" ("_master" not
///   doubled) with the header and the external links "/entry/data/data_NNNNNN", and the
///   data files "<base>_data_NNNNNN.<ext>" of N images each (the last may hold fewer);
/// - single-file mode (N = 0): "<base>.<ext>" with the header and "/entry/data/data_000001".
/// Each image dataset is [-1, height, width], one frame a chunk, with the writer's filter
/// and the attributes "image_nr_low" and "image_nr_high" (numbers from 1). A data file's
/// "image_nr_high" is written when it fills, the last one's on closing.
///
/// An image whose container is already in the writer's filter form (as it came from a
/// detector's stream) is stored as it stands by a direct chunk write: no decoding, no copy
/// of its pixels, no compressor. Any other image is decoded on a private copy and goes
/// through the HDF5 filter pipeline (the library's own filters when no plugin is
/// installed). The first image fixes the element type of its dataset.
///
/// The header's empty values and values of no pixel type are left out silently, and so
/// are the attributes of a tree read by DHdf5Iterator (whose values are empty).
///
/// A negative `numImagesPerFile` is refused with DBadParameterException "Number of images
/// per file must not be negative", and the writer stays closed.
///
/// Every operation but open and close on a closed writer raises DRuntimeException
/// "DHdfWriter not open". flush() closes, as close() does.
class DHdf5Writer {
public:
    class DHdf5WriterPrivate;

    DHdf5Writer();
    DHdf5Writer(const std::string& fileName, int numImagesPerFile, const nexus::DNeXusTree& header,
                image::DCompression::FILTER filter);
    ~DHdf5Writer();
    DHdf5Writer(const DHdf5Writer&) = delete;
    DHdf5Writer& operator=(const DHdf5Writer&) = delete;

    /// Closes what is open, then opens; a failed open leaves the writer closed.
    void open(const std::string& fileName, int numImagesPerFile, const nexus::DNeXusTree& header,
              image::DCompression::FILTER filter);
    /// Writes the pending "image_nr_high" and closes the files; nothing if closed.
    void close();
    /// The same as close(): the writer is closed afterwards.
    void flush();

    void write(const DImage& image);
    void write(const image::DBasicImage<image::StdAllocator>& image);

    std::string fileName() const;
    long numImagesPerFile() const;

private:
    DHdf5WriterPrivate& _getD() const;

    std::unique_ptr<DHdf5WriterPrivate> _d;
};

} // namespace imglib
} // namespace norvexa

#pragma once

#include "DAbstractImageIterator.h"
#include "foundation/nexus/DBasicNeXusTree.h"

#include <memory>
#include <string>

namespace norvexa {
namespace imglib {

/// A detector's HDF5/NeXus master file as a sequence of images, addressed by the image
/// numbers of the file (normally from 1, inclusive at both ends).
///
/// Opening reads the whole header into a NeXus tree and touches no image data. Groups
/// and datasets marked NXdata are the image data and stay out of the tree; attributes
/// stand in the tree by name only, with empty values, so that a tree read here and
/// written elsewhere carries no units or classes of this file. A header dataset that
/// can't be read is reported on the error console and left out.
///
/// The images are found at the first need (and again by update()):
/// - in "/entry/data", an NXdata group of links named "data_" and six digits, of which
///   only the first and the last usable datasets are opened: all but the last are taken
///   to hold the same number of frames, so that a master may link to thousands of data
///   files, some not written yet;
/// - failing that (the reason is printed to standard output), in three-dimensional
///   datasets of "/entry/data" or "/entry", each opened, which finds gaps and overlaps.
/// Every failure of the file's structure is reported as DImageCorruptedException; a
/// failed update leaves the previous table in force.
///
/// External data files are found beside the master file, whatever the current directory.
class DHdf5Iterator : public DAbstractImageIterator {
public:
    class DHdf5IteratorPrivate;

    /// Opens the file for reading and reads its header; a file that can't be opened
    /// raises what the HDF5 layer raises.
    explicit DHdf5Iterator(const std::string& fileName);
    ~DHdf5Iterator() override;

    /// Only stored: nothing in this class waits.
    bool blocking() const override;
    void setBlocking(bool blocking, int timeout) override;
    /// operator[](first()).
    DImage front() const override;
    /// Drops the first image until the next update(), which brings it back.
    void popFront() override;
    /// DRuntimeException "Cannot push back image to hdf5 container".
    void pushBack(const DImage& image) override;
    unsigned long size() const override;
    int first() const override;
    int last() const override;
    /// The image of that number, with the header's metadata, the description
    /// "<file> # <number>/<size>", neXusIndex the number, and a mask of the image's size
    /// (the file's when it fits, else all zero, UINT 32). An out-of-range number updates
    /// once, then raises DOutOfRangeException "Image number <n> out of range". A frame
    /// stored as one chunk in the LZ4 or bitshuffle/LZ4 form is decoded by the library
    /// itself, whatever filter plugins are installed; a chunk that does not decode raises
    /// DImageCorruptedException. A frame of a dataset without filters whose stored bytes
    /// run past the end of their file (a truncated or hostile file) raises
    /// DImageCorruptedException "Data of HDF5 dataset <path> is not in the file" before
    /// memory is taken for it; chunks or storage never written read as the fill value.
    DImage operator[](int imgNr) const override;
    /// Image `imgNr` as it is stored, not decoded: its chunk in the FILTER_* form of the
    /// dataset's filter, read by a direct chunk read, with the metadata operator[] gives.
    /// It decodes when it enters a DImage (DImage(std::move(s.pixels),
    /// std::move(s.metadata))), and DHdf5Writer stores it as it stands where the writer's
    /// filter matches, so that a series copies without decoding. A dataset that is not
    /// chunked one frame a chunk, a filter the library does not know, or a chunk that
    /// skipped a filter give the decoded pixels (FILTER_NONE) instead. Failures as
    /// operator[].
    struct StoredImage {
        image::DBasicImage<image::StdAllocator> pixels;
        DImageOptionalData metadata;
    };
    StoredImage storedImage(int imgNr) const;
    bool empty() const override;
    void update() override;

    std::string fileName() const;
    /// A copy of the header tree.
    nexus::DNeXusTree neXus() const;

private:
    std::unique_ptr<DHdf5IteratorPrivate> _d;
};

} // namespace imglib
} // namespace norvexa

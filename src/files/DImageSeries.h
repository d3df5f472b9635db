#pragma once

#include "DAbstractImageIterator.h"
#include "DHdf5Iterator.h"
#include "foundation/nexus/DBasicNeXusTree.h"

#include <memory>
#include <string>

namespace norvexa {
namespace imglib {

/// One entry to a sequence of images whatever holds it: numbered CBF, TIFF or EDF files
/// (DFileSeriesIterator), an HDF5 master file (DHdf5Iterator), or images in memory
/// (DImageStack). The operations forward to the iterator, without checks of their own.
class DImageSeries {
public:
    /// An in-memory series of at most `stackSize` images (0: bounded by bytes only).
    explicit DImageSeries(unsigned long stackSize);
    /// open(path).
    explicit DImageSeries(const std::string& path);
    ~DImageSeries();
    DImageSeries(const DImageSeries&) = delete;
    DImageSeries& operator=(const DImageSeries&) = delete;

    /// Replaces the iterator by a new, empty image stack.
    void open(int stackSize);
    /// Opens the path by its suffix: "hdf5" or "h5" (any case) as an HDF5 master file,
    /// returning its first image number; any other as a numbered file series with the
    /// search span 10, returning the file's number. A file of the series already open
    /// only gives its number. A failed open leaves the previous iterator in place.
    int open(const std::string& path);

    bool blocking() const;
    void setBlocking(bool blocking, int timeout);
    DImage front() const;
    void popFront();
    void pushBack(const DImage& image);
    unsigned long size() const;
    int first() const;
    int last() const;
    bool empty() const;
    void update();
    DImage operator[](unsigned long index) const;
    DImage at(unsigned long index) const;
    /// For an HDF5 series, the image as stored, not decoded (DHdf5Iterator::storedImage);
    /// for any other series, operator[]'s pixels and metadata.
    DHdf5Iterator::StoredImage storedImage(unsigned long index) const;

    /// The header tree of an HDF5 series; DRuntimeException "Invalid operation" otherwise.
    nexus::DNeXusTree neXus() const;
    /// The file of that image: for a file series its path, for an HDF5 series the master
    /// file whatever the index; DRuntimeException "Invalid operation" for a stack.
    std::string pathToImage(unsigned long index) const;

private:
    std::unique_ptr<DAbstractImageIterator> _iterator;
};

} // namespace imglib
} // namespace norvexa

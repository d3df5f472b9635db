#pragma once

#include "DAbstractImageIterator.h"

#include <memory>
#include <string>

namespace norvexa {
namespace imglib {

class DFileSeriesIteratorPrivate;

/// A series of numbered image files (CBF, TIFF, EDF), such as "/data/x_00042.cbf",
/// found by probing for neighbouring numbers and never by listing the directory: a scan
/// costs a number of file opens that grows with the logarithm of the series' length
/// times the search span, which bridges gaps of up to that many missing files.
///
/// Images are read one file per operator[], each with the metadata of the previous read
/// as the starting point, so that only the first image pays for the whole header.
///
/// A name beginning with "~/" is taken from the "HOME" directory; when "HOME" is not set
/// the name can't be resolved and fails like a missing file ("Error accessing <name>").
class DFileSeriesIterator : public DAbstractImageIterator {
public:
    /// Parses the name (the file must exist) and scans for the series around it.
    DFileSeriesIterator(const std::string& fileName, int searchSpan);
    ~DFileSeriesIterator() override;

    bool blocking() const override;
    void setBlocking(bool blocking, int timeout) override;
    DImage front() const override;
    void popFront() override;
    /// DRuntimeException "Cannot push back image to file series".
    void pushBack(const DImage& image) override;
    unsigned long size() const override;
    int first() const override;
    int last() const override;
    /// The image of that number, whether or not it lies in first() to last();
    /// DOutOfRangeException "Error accessing <path>" when its file is missing.
    DImage operator[](int index) const override;
    bool empty() const override;
    /// Scans again from the same start: new files join, popped ones that exist return.
    void update() override;

    /// The number of that file in this series, or -1 if it belongs to another series.
    /// The file must exist.
    int imageIndex(const std::string& fileName);
    std::string pathToImage(unsigned long index) const;
    std::string pathToFront() const;
    std::string suffix() const;

    /// The number of file opens made by all series so far, for tests and benchmarks.
    static unsigned long probes();

private:
    std::unique_ptr<DFileSeriesIteratorPrivate> _d;
};

} // namespace imglib
} // namespace norvexa

#pragma once

#include "DImage.h"

namespace norvexa {
namespace imglib {

/// A sequence of images that a viewer walks through: numbered files on disk
/// (DFileSeriesIterator), an HDF5 container, or images held in memory (DImageStack).
/// Indices run from first() to last(); the sequence is empty when first() is last() + 1.
class DAbstractImageIterator {
public:
    virtual ~DAbstractImageIterator();

    virtual bool blocking() const = 0;
    virtual void setBlocking(bool blocking, int timeout) = 0;
    /// The first image, by value.
    virtual DImage front() const = 0;
    /// Drops the first image from the sequence.
    virtual void popFront() = 0;
    virtual void pushBack(const DImage& image) = 0;
    /// The number of images.
    virtual unsigned long size() const = 0;
    virtual int first() const = 0;
    virtual int last() const = 0;
    /// An image by its index, in the index space of first() to last().
    virtual DImage operator[](int index) const = 0;
    virtual bool empty() const = 0;
    /// Takes note of images that appeared since.
    virtual void update() = 0;

protected:
    DAbstractImageIterator() = default;
    DAbstractImageIterator(const DAbstractImageIterator&) = delete;
    DAbstractImageIterator& operator=(const DAbstractImageIterator&) = delete;
};

} // namespace imglib
} // namespace norvexa

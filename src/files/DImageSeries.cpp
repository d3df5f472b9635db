#include "DImageSeries.h"

#include "DFileSeriesIterator.h"
#include "DFilesystemUtils.h"
#include "DHdf5Iterator.h"
#include "DImageStack.h"
#include "foundation/DException.h"

#include <algorithm>
#include <cctype>

namespace norvexa {
namespace imglib {

namespace {

const char* const kInvalidOperation = "Invalid operation";

} // namespace

DImageSeries::DImageSeries(unsigned long stackSize)
    : _iterator(std::make_unique<DImageStack>(static_cast<int>(stackSize)))
{
}

DImageSeries::DImageSeries(const std::string& path)
{
    open(path);
}

DImageSeries::~DImageSeries() = default;

void DImageSeries::open(int stackSize)
{
    _iterator = std::make_unique<DImageStack>(stackSize);
}

int DImageSeries::open(const std::string& path)
{
    std::string name = path;
    std::string suffix;
    std::string base;
    std::string directory;
    utils::parseFileName(name, suffix, base, directory);
    std::transform(suffix.begin(), suffix.end(), suffix.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (suffix == "hdf5" || suffix == "h5") {
        auto hdf5 = std::make_unique<DHdf5Iterator>(path);
        const int first = hdf5->first();
        _iterator = std::move(hdf5);
        return first;
    }
    // A neighbouring file of the series already open costs no new scan.
    if (auto* series = dynamic_cast<DFileSeriesIterator*>(_iterator.get())) {
        const int index = series->imageIndex(path);
        if (index >= 0)
            return index;
    }
    auto series = std::make_unique<DFileSeriesIterator>(path, 10);
    const int index = series->imageIndex(path);
    _iterator = std::move(series);
    return index;
}

bool DImageSeries::blocking() const
{
    return _iterator->blocking();
}

void DImageSeries::setBlocking(bool blocking, int timeout)
{
    _iterator->setBlocking(blocking, timeout);
}

DImage DImageSeries::front() const
{
    return _iterator->front();
}

void DImageSeries::popFront()
{
    _iterator->popFront();
}

void DImageSeries::pushBack(const DImage& image)
{
    _iterator->pushBack(image);
}

unsigned long DImageSeries::size() const
{
    return _iterator->size();
}

int DImageSeries::first() const
{
    return _iterator->first();
}

int DImageSeries::last() const
{
    return _iterator->last();
}

bool DImageSeries::empty() const
{
    return _iterator->empty();
}

void DImageSeries::update()
{
    _iterator->update();
}

DImage DImageSeries::operator[](unsigned long index) const
{
    return (*_iterator)[static_cast<int>(index)];
}

DImage DImageSeries::at(unsigned long index) const
{
    return (*this)[index];
}

DHdf5Iterator::StoredImage DImageSeries::storedImage(unsigned long index) const
{
    if (const auto* hdf5 = dynamic_cast<const DHdf5Iterator*>(_iterator.get()))
        return hdf5->storedImage(static_cast<int>(index));
    DImage image = (*this)[index];
    return {image.imageData(), image.optionalData()};
}

nexus::DNeXusTree DImageSeries::neXus() const
{
    if (const auto* hdf5 = dynamic_cast<const DHdf5Iterator*>(_iterator.get()))
        return hdf5->neXus();
    throw DRuntimeException(kInvalidOperation);
}

std::string DImageSeries::pathToImage(unsigned long index) const
{
    if (const auto* series = dynamic_cast<const DFileSeriesIterator*>(_iterator.get()))
        return series->pathToImage(index);
    if (const auto* hdf5 = dynamic_cast<const DHdf5Iterator*>(_iterator.get()))
        return hdf5->fileName();
    throw DRuntimeException(kInvalidOperation);
}

} // namespace imglib
} // namespace norvexa

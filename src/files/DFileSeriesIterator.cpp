#include "DFileSeriesIterator.h"

#include "DCbfReader.h"
#include "DDetector.h"
#include "DEdfReader.h"
#include "DFilesystemUtils.h"
#include "DTifReader.h"
#include "foundation/DException.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace norvexa {
namespace imglib {

namespace {

std::atomic<unsigned long> probeCount{0};

/// Whether the file opens for reading; every probe of a scan goes through here.
bool opensForReading(const std::string& path)
{
    ++probeCount;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    ::close(fd);
    return true;
}

int decimalPlaces(int index)
{
    int places = 0;
    for (; index > 0; index /= 10)
        ++places;
    return places;
}

std::string lowerCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

} // namespace

class DFileSeriesIteratorPrivate {
public:
    DFileSeriesIteratorPrivate(DFileSeriesIterator* q, const std::string& fileName, int searchSpan)
        : _q(q), _fileName(fileName), _searchSpan(searchSpan)
    {
        _startIndex = parseFileName(_fileName, _suffix, _base, _directory, _digits);
        scanDirectory();
    }

    /// Splits a series name; returns its number.
    static int parseFileName(std::string fileName, std::string& suffix, std::string& base,
                             std::string& directory, int& digits)
    {
        if (fileName.empty())
            throw DNoFileAccessException("Error accessing " + fileName);
        if (fileName.compare(0, 2, "~/") == 0) {
            const char* home = std::getenv("HOME");
            if (!home)
                throw DNoFileAccessException("Error accessing " + fileName);
            fileName.replace(0, 1, home);
        }
        if (!opensForReading(fileName) || fileName.back() == '/')
            throw DNoFileAccessException("Error accessing " + fileName);
        const std::string name = fileName;
        utils::parseFileName(fileName, suffix, base, directory);
        if (suffix.empty())
            throw DUnknownFormatException("File format of " + name + " cannot be determined from ending");
        std::size_t begin = base.size();
        while (begin > 0 && std::isdigit(static_cast<unsigned char>(base[begin - 1])))
            --begin;
        digits = static_cast<int>(base.size() - begin);
        const int number = digits ? std::atoi(base.c_str() + begin) : 0;
        base.erase(begin);
        return number;
    }

    std::string pathToImage(unsigned long index, int digits) const
    {
        char number[1024] = "";
        if (digits)
            std::snprintf(number, sizeof number, "%0*lu", digits, index);
        else if (index)
            std::snprintf(number, sizeof number, "%lu", index);
        return _directory + "/" + _base + number + "." + _suffix;
    }

    int findImageInRange(int from, int to)
    {
        for (int index = std::max(from, 0); index <= to; ++index) {
            if (opensForReading(pathToImage(static_cast<unsigned long>(index), _digits)))
                return index;
            // A detector that padded its first file may write later ones with fewer places.
            for (int d = _digits - 1; d >= decimalPlaces(index); --d)
                if (opensForReading(pathToImage(static_cast<unsigned long>(index), d))) {
                    _digits = d;
                    return index;
                }
        }
        return -1;
    }

    void scanDirectory()
    {
        if (_digits == 0) {
            _first = _last = 0;
            return;
        }
        const int w = _searchSpan;
        int found = _startIndex;
        int probe = std::max(_startIndex, 1);
        for (;;) {
            const int next = findImageInRange(2 * probe, 2 * probe + w);
            if (next < 0)
                break;
            found = probe = next;
        }
        int high = 2 * probe;
        while (high - found >= 2) {
            const int m = found + (high - found) / 2;
            const int next = findImageInRange(m, m + w);
            if (next >= 0)
                found = next;
            else
                high = m;
        }
        _last = found;

        int low = 0;
        high = _startIndex;
        if (high >= 2) {
            do {
                const int m = low + (high - low) / 2;
                const int next = findImageInRange(m - w, m);
                if (next >= 0)
                    high = next;
                else
                    low = m;
            } while (high - low > 1);
        }
        _first = high;
    }

    DImage readImage(const std::string& path) const
    {
        const int timeout = _blocking ? _timeout : 0;
        const std::string kind = lowerCase(_suffix);
        std::unique_ptr<DAbstractImageReader> reader;
        try {
            if (kind == "cbf")
                reader = std::make_unique<DCbfReader>(path.c_str(), timeout);
            else if (kind == "tiff" || kind == "tif")
                reader = std::make_unique<DTifReader>(path.c_str(), timeout);
            else if (kind == "edf")
                reader = std::make_unique<DEdfReader>(path.c_str(), timeout);
            else
                throw DUnknownFormatException("Unknown file type: " + _suffix);
        } catch (const DNoFileAccessException& e) {
            throw DOutOfRangeException(e.what()); // the file of that index is missing
        }
        DImage image;
        reader->readData(image, _metadata.get());
        const auto mask = image.optionalData().pixelMaskSize();
        if (!mask || mask->first != static_cast<unsigned long>(image.width()) ||
            mask->second != static_cast<unsigned long>(image.height()))
            image.optionalData().set_pixel_mask(DDetector::mask(image));
        _metadata = std::make_unique<DImageOptionalData>(image.optionalData());
        return image;
    }

    DFileSeriesIterator* _q;
    int _first = -1;
    int _last = -2;
    std::string _directory;
    std::string _base;
    int _digits = 0;
    std::string _suffix;
    std::string _fileName;
    int _startIndex = 0;
    int _searchSpan;
    bool _blocking = false;
    int _timeout = -1;
    mutable std::unique_ptr<DImageOptionalData> _metadata;
};

DFileSeriesIterator::DFileSeriesIterator(const std::string& fileName, int searchSpan)
    : _d(std::make_unique<DFileSeriesIteratorPrivate>(this, fileName, searchSpan))
{
}

DFileSeriesIterator::~DFileSeriesIterator() = default;

bool DFileSeriesIterator::blocking() const { return _d->_blocking; }

void DFileSeriesIterator::setBlocking(bool blocking, int timeout)
{
    _d->_blocking = blocking;
    _d->_timeout = timeout;
}

DImage DFileSeriesIterator::front() const { return (*this)[_d->_first]; }

void DFileSeriesIterator::popFront()
{
    if (_d->_first <= _d->_last)
        ++_d->_first;
}

void DFileSeriesIterator::pushBack(const DImage&)
{
    throw DRuntimeException("Cannot push back image to file series");
}

unsigned long DFileSeriesIterator::size() const
{
    return static_cast<unsigned long>(_d->_last + 1 - _d->_first);
}

int DFileSeriesIterator::first() const { return _d->_first; }
int DFileSeriesIterator::last() const { return _d->_last; }

DImage DFileSeriesIterator::operator[](int index) const
{
    DImage image = _d->readImage(_d->pathToImage(static_cast<unsigned long>(index), _d->_digits));
    image.optionalData().setNeXusIndex(index - _d->_first);
    return image;
}

bool DFileSeriesIterator::empty() const { return _d->_first == _d->_last + 1; }

void DFileSeriesIterator::update() { _d->scanDirectory(); }

int DFileSeriesIterator::imageIndex(const std::string& fileName)
{
    std::string suffix, base, directory;
    int digits = 0;
    const int number = DFileSeriesIteratorPrivate::parseFileName(fileName, suffix, base, directory, digits);
    if (suffix != _d->_suffix || base != _d->_base || directory != _d->_directory)
        return -1;
    return number;
}

std::string DFileSeriesIterator::pathToImage(unsigned long index) const
{
    return _d->pathToImage(index, _d->_digits);
}

std::string DFileSeriesIterator::pathToFront() const
{
    return pathToImage(static_cast<unsigned long>(_d->_first));
}

std::string DFileSeriesIterator::suffix() const { return _d->_suffix; }

unsigned long DFileSeriesIterator::probes() { return probeCount.load(); }

} // namespace imglib
} // namespace norvexa

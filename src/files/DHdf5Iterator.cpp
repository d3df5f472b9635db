#include "DHdf5Iterator.h"

#include "foundation/DAssert.h"
#include "foundation/DException.h"
#include "foundation/hdf5/DH5.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <iostream>
#include <map>
#include <set>
#include <vector>

namespace norvexa {
namespace imglib {

using hdf5::DH5Data;
using hdf5::DH5DontPrint;
using hdf5::DH5File;
using hdf5::DH5Group;
using image::StdAllocator;
using Tree = nexus::DNeXusTree;
using Node = Tree::Node;

namespace {

/// One dataset of images, keyed in the read table by its first image number.
struct MapStruct_t {
    std::string path;
    int imageNrLow;
    int imageNrHigh;
};
using ReadTable = std::map<unsigned long, MapStruct_t>;

const char* const kWrongDatatype = "Failed to read attribute: Wrong datatype";
const std::string kDataGroup = "/entry/data";

/// Whether the object's "NX_class" is the one text "NXdata"; a missing or unreadable
/// attribute counts as no.
template <class T>
bool isNXData(const T& object)
{
    DH5DontPrint quiet;
    try {
        const hdf5::DH5Attribute attribute = object.attribute("NX_class");
        if (attribute.dataType() != hdf5::H5String || attribute.numberOfElements() != 1)
            throw DRuntimeException(kWrongDatatype);
        std::string value;
        attribute.read(value);
        return value == "NXdata";
    } catch (const DRuntimeException&) {
        return false;
    }
}

/// A scalar integer attribute; a missing one raises what the HDF5 layer raises.
void simpleAttribute(const DH5Data& data, const std::string& name, int& value)
{
    const hdf5::DH5Attribute attribute = data.attribute(name);
    if (attribute.dataType() != hdf5::H5Int || attribute.numberOfElements() != 1)
        throw DRuntimeException(kWrongDatatype);
    attribute.read(value);
}

/// Reads every attribute of an HDF5 object and adds its name to the node with an empty
/// value: the values are dropped on purpose, so that a tree read here and written to
/// another file carries no units or classes from this one.
template <class H5Object, class NexusNode>
void readAttributes(const H5Object& object, NexusNode& node)
{
    for (const std::string& name : object.attributes()) {
        image::DBasicImage<StdAllocator> value;
        try {
            object.attribute(name).read(value);
        } catch (const DRuntimeException&) {
            std::cerr << "Error reading NeXus attribute " << name << "\n";
        }
        node.addAttribute(name, datatypes::NONE, 0);
    }
}

std::string childPath(const std::string& parent, const std::string& name)
{
    return parent == "/" ? "/" + name : parent + "/" + name;
}

void readHeader(const DH5Group& group, Tree& tree, const std::string& path);

/// A group of the header: its node, its attributes and everything below. Image data
/// (groups marked NXdata) is left out.
void readGroup(const DH5Group& group, Tree& tree, const std::string& path)
{
    if (isNXData(group))
        return;
    Node& node = tree.newPath(path, nexus::NeXusGroup);
    readAttributes(group, node.asGroup());
    readHeader(group, tree, path);
}

void readHeader(const DH5Group& group, Tree& tree, const std::string& path)
{
    for (const std::string& name : group.groups())
        readGroup(group.group(name), tree, childPath(path, name));
    for (const std::string& name : group.datasets()) {
        const std::string datasetPath = childPath(path, name);
        DH5Data data;
        image::DBasicImage<StdAllocator> value;
        try {
            data = group.dataset(name);
            if (isNXData(data))
                continue;
            data.read(value);
        } catch (const DRuntimeException&) {
            std::cerr << "Error reading NeXus data " << datasetPath << "\n";
            continue;
        }
        // Written once, then copied with every image: copies may share the bytes.
        value.allowSharing();
        Node& node = tree.newPath(datasetPath, nexus::NeXusData);
        swap(node.asData().data(), value);
        readAttributes(data, node.asData());
    }
}

/// "data_" and six digits.
bool isDataLinkName(const std::string& name)
{
    return name.size() == 11 && name.compare(0, 5, "data_") == 0 &&
           std::all_of(name.begin() + 5, name.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// The main layout: "/entry/data" links data_NNNNNN; opens the first and the last usable
/// datasets only. Structural failures come out as DImageCorruptedException.
void createReadLut(const DH5File& file, int& first, int& last, int& size, ReadTable& table)
{
    table.clear();
    std::vector<std::string> names;
    std::size_t firstIndex = 0;
    std::size_t lastIndex = 0;
    int frames = 0;
    try {
        DH5DontPrint quiet;
        const DH5Group data = file.group(kDataGroup);
        if (!isNXData(data))
            throw DImageCorruptedException("NX_class of /entry/data is not NXdata");
        const std::set<std::string> links = data.links();
        if (links.empty())
            throw DImageCorruptedException("No links in /entry/data");
        std::copy_if(links.begin(), links.end(), std::back_inserter(names), isDataLinkName);
        if (names.empty())
            throw DImageCorruptedException("No valid datasets /entry/data");

        bool found = false;
        for (std::size_t i = 0; i < names.size() && !found; ++i) {
            if (!data.linkIsValid(names[i]))
                continue;
            const DH5Data dataset = data.dataset(names[i]);
            if (dataset.dim().size() != 3)
                throw DImageCorruptedException("Wrong shape of /entry/data/" + names[i]);
            int low = -1;
            int high = -1;
            simpleAttribute(dataset, "image_nr_low", low);
            simpleAttribute(dataset, "image_nr_high", high);
            if (low >= 0 && high >= low) {
                found = true;
                firstIndex = i;
                first = low;
                frames = high - low + 1;
            }
        }
        if (!found)
            throw DImageCorruptedException("No valid datasets /entry/data");

        lastIndex = firstIndex;
        last = first + frames - 1;
        for (std::size_t i = names.size() - 1; i > firstIndex; --i) {
            if (data.linkIsValid(names[i])) {
                simpleAttribute(data.dataset(names[i]), "image_nr_high", last);
                lastIndex = i;
                break;
            }
        }
    } catch (const DRuntimeException& e) {
        throw DImageCorruptedException(e.what());
    }
    size = last - first + 1;
    // imageNrHigh is a loose bound meant for lookup by key, not the dataset's last image.
    long start = first;
    for (std::size_t i = firstIndex; i <= lastIndex; ++i) {
        const int low = static_cast<int>(start);
        const int high = std::max(low + frames, size - 1);
        table[static_cast<unsigned long>(start)] = MapStruct_t{kDataGroup + "/" + names[i], low, high};
        start += frames;
    }
}

/// Three-dimensional datasets with both image number attributes in "/entry/data" (all of
/// them if it is NXdata, else those marked NXdata) or in "/entry".
std::set<std::string> datasetsLegacy(const DH5File& file)
{
    std::set<std::string> result;
    DH5DontPrint quiet;
    for (const char* searchPath : {"/entry/data", "/entry"}) {
        DH5Group group;
        try {
            group = file.group(searchPath);
        } catch (const DRuntimeException&) {
            continue;
        }
        const bool nxData = isNXData(group);
        for (const std::string& name : group.datasets()) {
            try {
                const DH5Data data = group.dataset(name);
                if (!nxData && !isNXData(data))
                    continue;
                int low = -1;
                int high = -1;
                simpleAttribute(data, "image_nr_low", low);
                simpleAttribute(data, "image_nr_high", high);
                if (data.dim().size() == 3)
                    result.insert(std::string(searchPath) + "/" + name);
            } catch (const DException&) {
            }
        }
    }
    return result;
}

/// The legacy layout: every dataset is opened and its numbers checked against its
/// neighbour's and its own frame count.
void createReadLutLegacy(const DH5File& file, int& first, int& last, int& size, ReadTable& table)
{
    table.clear();
    first = 2147483647;
    last = -2147483647 - 1;
    int low = -1;
    int high = -1;
    bool any = false;
    for (const std::string& path : datasetsLegacy(file)) {
        DH5Data data;
        try {
            data = file.dataset(path);
        } catch (const DRuntimeException&) {
            throw DImageCorruptedException("DHdf5Iterator: Failed to read dataset \"" + path + "\"");
        }
        try {
            simpleAttribute(data, "image_nr_low", low);
        } catch (const DRuntimeException&) {
            throw DImageCorruptedException("DHdf5Iterator: No attribute image_nr_low");
        }
        if (any) {
            if (low > high + 1)
                throw DImageCorruptedException("DHdf5Iterator: Missing images");
            if (low <= high)
                throw DImageCorruptedException("DHdf5Iterator: Overlapping images");
        }
        try {
            simpleAttribute(data, "image_nr_high", high);
        } catch (const DRuntimeException&) {
            throw DImageCorruptedException("DHdf5Iterator: No attribute image_nr_high");
        }
        const std::vector<unsigned long> dim = data.dim();
        if (dim.size() != 3)
            throw DImageCorruptedException("Expected 3-dim hdf5 data");
        if (static_cast<long>(dim[0]) != static_cast<long>(high) + 1 - low)
            throw DImageCorruptedException("Inconsistent hdf5 data attributes \"image_nr_low\" and "
                                           "\"image_number_high\"");
        table[static_cast<unsigned long>(low)] = MapStruct_t{path, low, high};
        first = std::min(first, low);
        last = std::max(last, high);
        any = true;
    }
    if (any) {
        NORVEXA_ASSERT(first <= last, "DHdf5Iterator::_createReadLutLegacy");
        size = last + 1 - first;
    } else {
        first = 1;
        last = 0;
        size = 0;
    }
}

} // namespace

class DHdf5Iterator::DHdf5IteratorPrivate {
public:
    explicit DHdf5IteratorPrivate(const std::string& name) : fileName(name), file(name, "r") {}

    /// Rebuilds the read table on local copies and commits only when it succeeds.
    void update()
    {
        int newFirst = 1;
        int newLast = 0;
        int newSize = 0;
        ReadTable newTable;
        try {
            try {
                createReadLut(file, newFirst, newLast, newSize, newTable);
            } catch (const DImageCorruptedException& e) {
                std::cout << "Failed to read h5 file: " << e.what() << "\n"
                          << "Using legacy code. " << std::endl;
                createReadLutLegacy(file, newFirst, newLast, newSize, newTable);
            }
        } catch (const DException& e) {
            throw DImageCorruptedException(e.what());
        }
        first = newFirst;
        last = newLast;
        size = last + 1 - first;
        readTable.swap(newTable);
        openData = DH5Data();
        openPath.clear();
    }

    /// The dataset at `path`, kept open from one frame to the next: reopening it through an
    /// external link opens its data file again and builds that file's metadata cache anew,
    /// which costs as much as decoding a small frame.
    DH5Data dataset(const std::string& path)
    {
        if (!openData.isOpen() || openPath != path) {
            openData = file.dataset(path);
            openPath = path;
        }
        return openData;
    }

    /// An all-zero mask of this size, one for every frame: copies share its block until
    /// one of them is written, so a frame costs no mask of its own.
    DImage zeroMask(unsigned long width, unsigned long height)
    {
        if (zeros.width() != static_cast<int>(width) || zeros.height() != static_cast<int>(height)) {
            DBasicImage plain(width, height, image::StdAllocator(), datatypes::UINT, 32);
            std::memset(plain.data(), 0, plain.usedBytes());
            plain.allowSharing();
            zeros = DImage(std::move(plain));
        }
        return zeros;
    }

    void updateIfUnread()
    {
        if (readTable.empty())
            update();
    }

    std::string fileName;
    DH5File file;
    int size = 0;
    int first = 1;
    int last = 0;
    DImageOptionalData metadata;
    ReadTable readTable;
    DH5Data openData;
    std::string openPath;
    DImage zeros;
    bool blocking = false;
    int timeout = -1;
};

DHdf5Iterator::DHdf5Iterator(const std::string& fileName)
    : _d(std::make_unique<DHdf5IteratorPrivate>(fileName))
{
    Tree& tree = _d->metadata.neXus();
    for (const std::string& name : _d->file.groups())
        readGroup(_d->file.group("/" + name), tree, "/" + name);
}

DHdf5Iterator::~DHdf5Iterator() = default;

bool DHdf5Iterator::blocking() const
{
    return _d->blocking;
}

void DHdf5Iterator::setBlocking(bool blocking, int timeout)
{
    _d->blocking = blocking;
    _d->timeout = timeout;
}

DImage DHdf5Iterator::front() const
{
    _d->updateIfUnread();
    return (*this)[_d->first];
}

void DHdf5Iterator::popFront()
{
    if (_d->first > _d->last)
        return;
    ++_d->first;
    --_d->size;
}

void DHdf5Iterator::pushBack(const DImage&)
{
    throw DRuntimeException("Cannot push back image to hdf5 container");
}

unsigned long DHdf5Iterator::size() const
{
    _d->updateIfUnread();
    return static_cast<unsigned long>(_d->size);
}

int DHdf5Iterator::first() const
{
    _d->updateIfUnread();
    return _d->first;
}

int DHdf5Iterator::last() const
{
    _d->updateIfUnread();
    return _d->last;
}

bool DHdf5Iterator::empty() const
{
    _d->updateIfUnread();
    return _d->size == 0;
}

void DHdf5Iterator::update()
{
    _d->update();
}

std::string DHdf5Iterator::fileName() const
{
    return _d->fileName;
}

nexus::DNeXusTree DHdf5Iterator::neXus() const
{
    return _d->metadata.neXus();
}

namespace {

/// Where image `imgNr` lies: its dataset, its frame in that dataset, its shape and type.
struct Located {
    DH5Data data;
    std::string path;
    unsigned long frame;
    unsigned long width, height;
    datatypes::Type type;
};

} // namespace

static Located locate(DHdf5Iterator::DHdf5IteratorPrivate& d, int imgNr)
{
    if (d.size == 0)
        d.update();
    if (imgNr < d.first || imgNr > d.last) {
        d.update();
        if (imgNr < d.first || imgNr > d.last)
            throw DOutOfRangeException("Image number " + std::to_string(imgNr) + " out of range");
    }
    auto entry = d.readTable.upper_bound(static_cast<unsigned long>(imgNr));
    if (entry == d.readTable.begin() || imgNr < (--entry)->second.imageNrLow ||
        imgNr > entry->second.imageNrHigh)
        throw DOutOfRangeException("Image nr " + std::to_string(imgNr) + " is out of range");
    const MapStruct_t& where = entry->second;

    DH5Data data = d.dataset(where.path);
    NORVEXA_ASSERT(imgNr >= where.imageNrLow && imgNr <= where.imageNrHigh,
                   "DHdf5Iterator::operator[]");
    const std::vector<unsigned long> dim = data.dim();
    if (dim.size() != 3)
        throw DImageCorruptedException("3-dim hdf5 data expected in dataset: " + where.path);
    if (std::find(dim.begin(), dim.end(), 0UL) != dim.end())
        throw DImageCorruptedException("No data found in dataset: " + where.path);
    datatypes::Type type = datatypes::NONE;
    try {
        const hdf5::DataType h5Type = data.dataType();
        if (h5Type == hdf5::H5String)
            throw DImageCorruptedException("Cannot read string data in dataset: " + where.path);
        type = hdf5::imageType(h5Type);
    } catch (const DRuntimeException&) {
        // An element class outside the four (compound, enumeration, ...).
    }
    if (type == datatypes::NONE)
        throw DImageCorruptedException("Unknown datatype");
    return {std::move(data), where.path, static_cast<unsigned long>(imgNr - where.imageNrLow), dim[2], dim[1], type};
}

static DImageOptionalData metadataOf(DHdf5Iterator::DHdf5IteratorPrivate& d, int imgNr,
                                     unsigned long width, unsigned long height)
{
    DImageOptionalData metadata(d.metadata);
    metadata.setImageDescription(d.fileName + " # " + std::to_string(imgNr) + "/" + std::to_string(d.size));
    metadata.setNeXusIndex(imgNr);
    const auto maskSize = metadata.pixelMaskSize();
    if (!maskSize || maskSize->first != width || maskSize->second != height)
        metadata.set_pixel_mask(d.zeroMask(width, height));
    return metadata;
}

static image::DBasicImage<StdAllocator> decodedPixels(const Located& at)
{
    // Plain content must be in the file before its frame takes memory: a few hundred bytes
    // may declare a frame of gigabytes.
    if (!at.data.sliceInFile({at.frame, 0, 0}, {1, at.height, at.width}))
        throw DImageCorruptedException("Data of HDF5 dataset " + at.path + " is not in the file");
    image::DBasicImage<StdAllocator> pixels;
    try {
        pixels = image::DBasicImage<StdAllocator>(at.width, at.height, StdAllocator(), at.type,
                                                  at.data.dataSize() * 8);
    } catch (const std::bad_alloc&) {
        // Chunks never written read as the fill value, so a frame of no stored data may
        // still declare more than any memory holds.
        throw DImageCorruptedException("HDF5 dataset " + at.path + " declares a frame larger than memory");
    }
    at.data.readSlice(pixels.data(), {at.frame, 0, 0}, {1, at.height, at.width});
    return pixels;
}

DImage DHdf5Iterator::operator[](int imgNr) const
{
    // The stored chunk decoded straight into the image's buffer: HDF5's own pipeline would
    // decode into a buffer of its own and copy the frame once more.
    StoredImage stored = storedImage(imgNr);
    return DImage(std::move(stored.pixels), std::move(stored.metadata));
}

DHdf5Iterator::StoredImage DHdf5Iterator::storedImage(int imgNr) const
{
    const Located at = locate(*_d, imgNr);
    // The pixels before the metadata: the frame-sized zero mask takes memory only for a
    // frame that was found in the file.
    StoredImage result{image::DBasicImage<StdAllocator>(), DImageOptionalData()};
    image::DCompression::FILTER filter = image::DCompression::FILTER_NONE;
    try {
        filter = at.data.filter();
    } catch (const DRuntimeException&) {
        // A pipeline of no form the library knows: decoded below.
    }
    const std::vector<unsigned long> chunk = at.data.chunkDims();
    const bool oneFrameAChunk =
        chunk.size() == 3 && chunk[0] == 1 && chunk[1] == at.height && chunk[2] == at.width;
    const unsigned long size = oneFrameAChunk && filter != image::DCompression::FILTER_NONE
                                   ? at.data.rawChunkSize({at.frame, 0, 0})
                                   : 0;
    bool stored = false;
    if (size > 0) {
        image::DBasicImageData<StdAllocator> bytes;
        bytes.resize(size);
        if (at.data.readRawChunk({at.frame, 0, 0}, bytes.data(), size) == 0) {
            result.pixels.setRawData(std::move(bytes), {at.width, at.height}, at.type, at.data.dataSize() * 8,
                                     filter);
            stored = true;
        }
    }
    if (!stored)
        result.pixels = decodedPixels(at);
    result.metadata = metadataOf(*_d, imgNr, at.width, at.height);
    return result;
}

} // namespace imglib
} // namespace norvexa

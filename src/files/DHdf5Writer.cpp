#include "DHdf5Writer.h"

#include "DFilesystemUtils.h"
#include "foundation/DException.h"
#include "foundation/hdf5/DH5.h"

#include <cstdio>
#include <vector>

namespace norvexa {
namespace imglib {

using hdf5::DH5Data;
using hdf5::DH5DontPrint;
using hdf5::DH5File;
using hdf5::DH5Group;
using image::DCompression;
using Image = image::DBasicImage<image::StdAllocator>;
using Tree = nexus::DNeXusTree;

namespace {

/// The signal to go on with the next item: it has no message, and what() is null.
class DContinueException : public DException {
public:
    DContinueException() : DException("") {}
    const char* what() const noexcept override { return nullptr; }
};

/// The HDF5 element class of a pixel type; DContinueException for a type without one.
hdf5::DataType elementClass(datatypes::Type type)
{
    hdf5::DataType h5Type;
    if (!hdf5::dataTypeOf(type, h5Type))
        throw DContinueException();
    return h5Type;
}

/// The value's shape in HDF5's order (slowest first); empty for a scalar.
std::vector<long> dimensions(const Image& value)
{
    return std::vector<long>(value.shape().rbegin(), value.shape().rend());
}

/// The value with plain pixels: a copy, which shares a plain value's bytes and decodes a
/// compressed one.
Image plain(const Image& value)
{
    Image copy(value);
    copy.setFilter(DCompression::FILTER_NONE, 0);
    return copy;
}

std::string sixDigits(int index)
{
    char text[16];
    std::snprintf(text, sizeof text, "%06d", index);
    return text;
}

void writeSimpleAttribute(DH5Data& dataset, const std::string& name, int value)
{
    {
        DH5DontPrint quiet;
        try {
            dataset.removeAttribute(name);
        } catch (const DRuntimeException&) {
        }
    }
    dataset.addAttribute(name, hdf5::H5Int, 4, {}).write(value);
}

/// Adds the attributes whose value is of a pixel type; the others are left out silently.
template <class H5Object>
void writeAttributes(H5Object& object, const std::vector<const Tree::Node*>& attributes)
{
    for (const Tree::Node* attribute : attributes) {
        try {
            const Image& value = attribute->asData().data();
            if (value.empty())
                throw DContinueException();
            const hdf5::DataType type = elementClass(value.type());
            object.addAttribute(attribute->name(), type, value.typeBits() / 8, dimensions(value))
                .write(static_cast<const void*>(plain(value).cdata()));
        } catch (const DContinueException&) {
        }
    }
}

/// Copies the header: groups, datasets with a value of a pixel type (contiguous, no
/// filter), and attributes with such a value. Other items are left out silently, a
/// dataset with its attributes.
void writeHeader(DH5File& file, const Tree& header)
{
    for (auto node = header.root().begin(); node != header.root().end(); ++node) {
        const std::string path = node->path();
        if (path == "/")
            continue;
        std::vector<const Tree::Node*> attributes;
        switch (node->type()) {
        case nexus::NeXusData: attributes = node->asData().attributes(); break;
        case nexus::NeXusGroup: attributes = node->asGroup().attributes(); break;
        case nexus::NeXusAttribute: throw DRuntimeException("NeXus Attributes cannot have attributes");
        default: throw DRuntimeException("Unknown NeXus type");
        }
        if (node->type() == nexus::NeXusGroup) {
            DH5Group group = file.addGroup(path, true);
            writeAttributes(group, attributes);
            continue;
        }
        try {
            const Image& value = node->asData().data();
            if (value.empty())
                throw DContinueException();
            DH5Data dataset = file.addDataset(path, elementClass(value.type()), value.typeBits() / 8,
                                              dimensions(value), DCompression::FILTER_NONE);
            dataset.write(plain(value).cdata());
            writeAttributes(dataset, attributes);
        } catch (const DContinueException&) {
        }
    }
}

/// "/entry" (NXentry) and "/entry/data" (NXdata), made where missing, their class set anew.
DH5Group addDataGroup(DH5File& file)
{
    DH5Group group;
    for (const auto& [path, nxClass] : {std::pair<const char*, std::string>{"/entry", "NXentry"},
                                        std::pair<const char*, std::string>{"/entry/data", "NXdata"}}) {
        {
            DH5DontPrint quiet;
            try {
                group = file.group(path);
            } catch (const DRuntimeException&) {
                group = file.addGroup(path, true);
            }
        }
        {
            DH5DontPrint quiet;
            try {
                group.removeAttribute("NX_class");
            } catch (const DRuntimeException&) {
            }
        }
        group.addAttribute("NX_class", hdf5::H5String, nxClass.size(), {}).write(nxClass);
    }
    return group;
}

} // namespace

class DHdf5Writer::DHdf5WriterPrivate {
public:
    DHdf5WriterPrivate(const std::string& name, long perFile, const Tree& header, DCompression::FILTER filter)
        : fileName(name), imagesPerFile(perFile), multiFile(perFile != 0), filter(filter)
    {
        utils::parseFileName(fileName, extension, baseName, directory);
        directory += "/";
        initMasterFile();
        writeHeader(masterFile, header);
    }

    /// Writes the pending "image_nr_high"; a failure here ends the process, as nothing
    /// may leave a destructor.
    ~DHdf5WriterPrivate()
    {
        const bool pending = multiFile ? imagesWritten % imagesPerFile != 0 : imagesWritten >= 1;
        if (pending && dataset.isOpen())
            writeSimpleAttribute(dataset, "image_nr_high", imageNrHigh);
    }

    void write(const Image& image)
    {
        if (multiFile) {
            if (imagesWritten % imagesPerFile == 0) {
                if (imagesWritten == 0)
                    addDataGroup(masterFile);
                imageNrLow = imagesWritten + 1;
                const std::string index = sixDigits(static_cast<int>(dataFileNames.size()) + 1);
                const std::string name = baseName + "_data_" + index + "." + extension;
                dataFileNames.push_back(name);
                dataFile = DH5File(directory + name, "w");
                addDataset(dataFile, "data", image, imageNrLow);
                offset[0] = 1;
                masterFile.createExternalLink(name, "/entry/data/data", "/entry/data/data_" + index);
            } else {
                writeChunk(image);
            }
        } else if (!dataset.isOpen()) {
            imageNrLow = 1;
            addDataset(masterFile, "data_000001", image, 1);
            offset[0] = 1;
        } else {
            writeChunk(image);
        }
        ++imagesWritten;
        imageNrHigh = imagesWritten;
        if (multiFile && imagesWritten % imagesPerFile == 0)
            writeSimpleAttribute(dataset, "image_nr_high", imageNrHigh);
    }

    std::string fileName;
    std::string directory;
    std::string baseName;
    std::string extension;
    long imagesPerFile;
    bool multiFile;
    std::vector<std::string> dataFileNames;
    int imagesWritten = 0;
    int imageNrLow = 0;
    int imageNrHigh = 0;
    DH5File dataFile;
    DH5File masterFile;
    DH5Data dataset;
    std::vector<unsigned long> offset{0, 0, 0};
    DCompression::FILTER filter;

private:
    void initMasterFile()
    {
        const std::string suffix = "_master";
        const bool named = multiFile && !(baseName.size() >= suffix.size() &&
                                           baseName.compare(baseName.size() - suffix.size(), suffix.size(), suffix) == 0);
        masterFile = DH5File(directory + baseName + (named ? suffix : "") + "." + extension, "w");
    }

    void addDataset(DH5File& file, const std::string& name, const Image& image, int low)
    {
        const std::vector<long> dims{-1, static_cast<long>(image.shape()[1]), static_cast<long>(image.shape()[0])};
        DH5Group group = addDataGroup(file);
        dataset = group.addDataset(name, elementClass(image.type()), image.typeBits() / 8, dims, filter);
        offset[0] = 0;
        writeChunk(image);
        writeSimpleAttribute(dataset, "image_nr_low", low);
    }

    /// A chunk already in the file's form is stored as it stands; any other is decoded on
    /// a private copy and compressed by the filter pipeline.
    void writeChunk(const Image& image)
    {
        if (image.filter() == filter) {
            dataset.writePrecompressedChunk(image.cdata(), image.usedBytes(), offset);
        } else {
            dataset.writeChunk(plain(image).cdata(), offset);
        }
        ++offset[0];
    }
};

DHdf5Writer::DHdf5Writer() = default;

DHdf5Writer::DHdf5Writer(const std::string& fileName, int numImagesPerFile, const Tree& header,
                         DCompression::FILTER filter)
{
    open(fileName, numImagesPerFile, header, filter);
}

DHdf5Writer::~DHdf5Writer() = default;

void DHdf5Writer::open(const std::string& fileName, int numImagesPerFile, const Tree& header,
                       DCompression::FILTER filter)
{
    close();
    if (numImagesPerFile < 0)
        throw DBadParameterException("Number of images per file must not be negative");
    _d = std::make_unique<DHdf5WriterPrivate>(fileName, numImagesPerFile, header, filter);
}

void DHdf5Writer::close()
{
    _d.reset();
}

void DHdf5Writer::flush()
{
    close();
}

void DHdf5Writer::write(const DImage& image)
{
    _getD().write(image.constImageData());
}

void DHdf5Writer::write(const Image& image)
{
    _getD().write(image);
}

std::string DHdf5Writer::fileName() const
{
    return _getD().fileName;
}

long DHdf5Writer::numImagesPerFile() const
{
    return _getD().imagesPerFile;
}

DHdf5Writer::DHdf5WriterPrivate& DHdf5Writer::_getD() const
{
    if (!_d)
        throw DRuntimeException("DHdfWriter not open");
    return *_d;
}

} // namespace imglib
} // namespace norvexa

#include "convert.h"

#include "DGlobal.h"
#include "DHdf5Writer.h"
#include "DImageSeries.h"
#include "DImageWriter.h"
#include "foundation/DException.h"

#include <algorithm>
#include <memory>
#include <utility>
#include <mutex>
#include <string>

namespace norvexa {
namespace python {

using imglib::DHdf5Writer;
using imglib::DImage;
using imglib::DImageSeries;

namespace {

// A series with the lock that its calls take: the HDF5 lock for an HDF5 series (the
// library below is not thread-safe), its own for a file series. Calls run with the GIL
// released and never take the GIL while they hold the lock.
class Series {
public:
    explicit Series(const std::string& path) : _path(path), _hdf5(isHdf5Path(path))
    {
        py::gil_scoped_release release;
        auto guard = lock();
        _series = std::make_unique<DImageSeries>(path);
    }
    ~Series()
    {
        // Runs with the GIL held (garbage collection): safe, as no lock holder waits for it.
        auto guard = lock();
        _series.reset();
    }
    Series(const Series&) = delete;
    Series& operator=(const Series&) = delete;

    const std::string& path() const { return _path; }
    bool closed() const { return !_series; }

    void close()
    {
        py::gil_scoped_release release;
        auto guard = lock();
        _series.reset();
    }

    int first() { return call([](DImageSeries& s) { return s.first(); }); }
    int last() { return call([](DImageSeries& s) { return s.last(); }); }
    unsigned long size() { return call([](DImageSeries& s) { return s.size(); }); }

    StoredChunk stored(long long number)
    {
        const unsigned long n = checked(number);
        return call([n](DImageSeries& s) { return s.storedImage(n); });
    }

    DImage image(long long number)
    {
        const unsigned long n = checked(number);
        if (!_hdf5)
            return call([n](DImageSeries& s) { return s[n]; });
        // The chunk is read under the HDF5 lock; it is decoded outside it, so that threads
        // decode side by side.
        StoredChunk chunk = call([n](DImageSeries& s) { return s.storedImage(n); });
        py::gil_scoped_release release;
        return DImage(std::move(chunk.pixels), std::move(chunk.metadata));
    }

    /// Images start..stop-1 as one array of shape (n, height, width), each decoded
    /// straight into its slot, with the GIL released throughout. The block comes from the
    /// library's cache of large blocks, so a worker reading block after block reuses its
    /// memory instead of faulting in fresh pages.
    py::array frames(const py::slice& range)
    {
        const py::object step = range.attr("step");
        if (!step.is_none() && step.cast<long long>() != 1)
            throw py::value_error("Series slices take consecutive images: the step must be 1");
        const int low = first(), high = last() + 1;
        const auto bound = [&](const py::object& value, int fallback) {
            if (value.is_none())
                return fallback;
            const long long n = value.cast<long long>();
            return static_cast<int>(std::min<long long>(std::max<long long>(n, low), high));
        };
        const int start = bound(range.attr("start"), low);
        const int stop = std::max(start, bound(range.attr("stop"), high));

        auto block = std::make_unique<imglib::DBasicImage>();
        std::size_t frameBytes = 0;
        {
            py::gil_scoped_release release;
            // The first image tells the frame, even for an empty range.
            StoredChunk chunk = readStored(stop > start ? start : low);
            const std::string firstFrame = describe(chunk.pixels);
            const auto& shape = chunk.pixels.shape();
            const unsigned long width = shape.at(0), height = shape.at(1);
            const datatypes::Type type = chunk.pixels.type();
            const unsigned long bits = chunk.pixels.typeBits();
            *block = imglib::DBasicImage({width, height, static_cast<unsigned long>(stop - start)},
                                         image::StdAllocator(), type, bits);
            frameBytes = width * height * ((bits + 7) / 8);
            for (int n = start; n < stop; ++n) {
                if (n > start)
                    chunk = readStored(n);
                const auto& other = chunk.pixels.shape();
                if (other.size() != 2 || other[0] != width || other[1] != height ||
                    chunk.pixels.type() != type || chunk.pixels.typeBits() != bits)
                    throw DBadParameterException(
                        "Image " + std::to_string(n) + " of " + _path + " is " + describe(chunk.pixels) +
                        ", unlike image " + std::to_string(start) + ": " + firstFrame);
                chunk.pixels.decodeInto(block->data() + (n - start) * frameBytes, frameBytes);
            }
        }
        const auto& shape = block->shape();
        const py::ssize_t width = shape[0], height = shape[1], count = shape[2];
        const py::ssize_t size = static_cast<py::ssize_t>((block->typeBits() + 7) / 8);
        const py::dtype dtype = dtypeOf(block->type(), block->typeBits());
        if (count == 0)
            return py::array(dtype, {count, height, width});
        char* pointer = block->data();
        py::capsule owner(block.get(), [](void* p) { delete static_cast<imglib::DBasicImage*>(p); });
        block.release();
        return py::array(dtype, {count, height, width}, {height * width * size, width * size, size}, pointer,
                         owner);
    }

    nexus::DNeXusTree header()
    {
        return call([](DImageSeries& s) { return s.neXus(); });
    }

private:
    /// The stored chunk of image n; the GIL is already released.
    StoredChunk readStored(int n)
    {
        return locked([n](DImageSeries& s) { return s.storedImage(static_cast<unsigned long>(n)); });
    }

    /// "100x50 UINT of 32 bits", for the message on a frame unlike the others.
    static std::string describe(const imglib::DBasicImage& pixels)
    {
        const auto& shape = pixels.shape();
        std::string text;
        for (std::size_t i = 0; i < shape.size(); ++i)
            text += (i ? "x" : "") + std::to_string(shape[i]);
        return text + " " + datatypes::typeStr(pixels.type()) + " of " + std::to_string(pixels.typeBits()) +
               " bits";
    }

    std::unique_lock<std::mutex> lock() { return std::unique_lock<std::mutex>(_hdf5 ? hdf5Mutex() : _mutex); }

    static unsigned long checked(long long number)
    {
        if (number < 0)
            throw DOutOfRangeException("Image number " + std::to_string(number) + " out of range");
        return static_cast<unsigned long>(number);
    }

    /// f(series) under the series' lock, with the GIL released.
    template <class F>
    auto call(F&& f) -> decltype(f(std::declval<DImageSeries&>()))
    {
        py::gil_scoped_release release;
        return locked(std::forward<F>(f));
    }

    /// f(series) under the series' lock; the caller has released the GIL.
    template <class F>
    auto locked(F&& f) -> decltype(f(std::declval<DImageSeries&>()))
    {
        auto guard = lock();
        if (!_series)
            throw DRuntimeException("Image series " + _path + " is closed");
        return f(*_series);
    }

    std::string _path;
    bool _hdf5;
    std::mutex _mutex;
    std::unique_ptr<DImageSeries> _series;
};

image::DCompression::FILTER filterOf(const py::object& compression)
{
    if (compression.is_none())
        return image::DCompression::FILTER_NONE;
    const std::string name = py::str(compression);
    if (name == "bslz4")
        return image::DCompression::FILTER_BS32_LZ4;
    if (name == "lz4")
        return image::DCompression::FILTER_LZ4;
    if (name == "none")
        return image::DCompression::FILTER_NONE;
    throw DBadParameterException("Unknown compression \"" + name +
                                 "\": use \"bslz4\", \"lz4\" or \"none\"");
}

// The header tree a writer starts from: a Series' header, an Image's or a Metadata's tree.
nexus::DNeXusTree headerOf(const py::object& header)
{
    if (header.is_none())
        return nexus::DNeXusTree();
    if (py::isinstance<Series>(header))
        return header.cast<Series&>().header();
    if (py::isinstance<DImage>(header))
        return header.cast<const DImage&>().optionalData().neXus();
    if (py::isinstance<imglib::DImageOptionalData>(header))
        return header.cast<const imglib::DImageOptionalData&>().neXus();
    throw py::type_error("header must be None, a Series, an Image or a Metadata");
}

// "bslz4" means the bitshuffle filter of the pixel's own width: the writer is reopened for
// 16-bit elements when the first image is 16-bit (before anything was written).
class Hdf5Writer {
public:
    Hdf5Writer(const py::object& path, int imagesPerFile, const py::object& header,
               const py::object& compression)
        : _name(pathOf(path)), _imagesPerFile(imagesPerFile), _filter(filterOf(compression)),
          _header(headerOf(header))
    {
        py::gil_scoped_release release;
        std::lock_guard<std::mutex> guard(hdf5Mutex());
        _writer.open(_name, _imagesPerFile, _header, _filter);
    }
    ~Hdf5Writer()
    {
        std::lock_guard<std::mutex> guard(hdf5Mutex());
        _writer.close();
    }
    Hdf5Writer(const Hdf5Writer&) = delete;
    Hdf5Writer& operator=(const Hdf5Writer&) = delete;

    void write(const py::object& item)
    {
        if (py::isinstance<DImage>(item)) {
            const DImage& image = item.cast<const DImage&>();
            py::gil_scoped_release release;
            std::lock_guard<std::mutex> guard(hdf5Mutex());
            adaptFilter(image.typeBits());
            _writer.write(image);
        } else if (py::isinstance<StoredChunk>(item)) {
            const StoredChunk& chunk = item.cast<const StoredChunk&>();
            py::gil_scoped_release release;
            std::lock_guard<std::mutex> guard(hdf5Mutex());
            adaptFilter(chunk.pixels.typeBits());
            _writer.write(chunk.pixels);
        } else {
            throw py::type_error("Hdf5Writer.write takes an Image or a StoredChunk");
        }
        ++_written;
    }
    void close()
    {
        py::gil_scoped_release release;
        std::lock_guard<std::mutex> guard(hdf5Mutex());
        _writer.close();
        _closed = true;
    }
    std::string fileName() const { return _writer.fileName(); }
    long imagesPerFile() const { return _imagesPerFile; }

private:
    void adaptFilter(unsigned long bits)
    {
        if (_written > 0 || _closed || _filter != image::DCompression::FILTER_BS32_LZ4 || bits != 16)
            return;
        _filter = image::DCompression::FILTER_BS16_LZ4;
        _writer.open(_name, _imagesPerFile, _header, _filter);
    }

    std::string _name;
    int _imagesPerFile;
    image::DCompression::FILTER _filter;
    nexus::DNeXusTree _header;
    DHdf5Writer _writer;
    long _written = 0;
    bool _closed = false;
};

DImage read(const py::object& path, long long index)
{
    const std::string name = pathOf(path);
    if (isHdf5Path(name)) {
        StoredChunk chunk;
        {
            py::gil_scoped_release release;
            std::lock_guard<std::mutex> guard(hdf5Mutex());
            DImageSeries series(name);
            if (index < 0 || static_cast<unsigned long long>(index) >= series.size())
                throw DOutOfRangeException("Image index " + std::to_string(index) + " out of range");
            chunk = series.storedImage(static_cast<unsigned long>(series.first() + index));
        }
        py::gil_scoped_release release;
        return DImage(std::move(chunk.pixels), std::move(chunk.metadata));
    }
    if (index != 0)
        throw DOutOfRangeException("Image index " + std::to_string(index) + " out of range");
    DImage image;
    py::gil_scoped_release release;
    imglib::readImage(image, name.c_str(), 0);
    return image;
}

void write(const DImage& image, const py::object& path)
{
    const std::string name = pathOf(path);
    py::gil_scoped_release release;
    imglib::DImageWriter(name, imglib::DImageWriter::NONE).write(image);
}

} // namespace

void initFiles(py::module_& m)
{
    m.def("read", &read, py::arg("path"), py::arg("index") = 0, R"doc(read(path, index=0) -> Image

Reads one image with its metadata.

Args:
    path: a file name or path-like. ".cbf", ".tif" and ".edf" files hold one image;
        an HDF5 master file (".h5" or ".hdf5") holds a series.
    index: the image's position in the file from 0 (the first image number of an HDF5
        series is usually 1: read(p, 0) is open(p)[open(p).first]).
Returns:
    An Image.
Raises:
    norvexa.NoFileAccessException (an OSError): the file can't be read.
    norvexa.UnknownFormatException: "Format of <name> not supported." for another ending.
    norvexa.ImageCorruptedException: damaged content.
    norvexa.OutOfRangeException (an IndexError): "Image index <i> out of range".)doc");

    m.def("write", &write, py::arg("image"), py::arg("path"), R"doc(write(image, path) -> None

Writes one image with its metadata: CBF (byte offset, 32-bit signed pixels) for a name
ending in ".cbf", TIFF for ".tif".

Raises:
    norvexa.UnknownFormatException: "DImageWriter: File format is NONE" for another ending.
    norvexa.NoFileAccessException (an OSError): "No write access to <name>".)doc");

    py::class_<Series>(m, "Series", R"doc(
A sequence of images: an HDF5 master file with its data files, or numbered CBF, TIFF or
EDF files. Made by norvexa.open(path); use it as a context manager.

series[n] is the image of number n (from series.first to series.last), decoded;
series[start:stop] is images start to stop - 1 as one (n, height, width) array;
len(series) is the number of images; iterating yields the images in order;
series.stored(n) is the stored chunk, not decoded. After close() (or the end of its
with block) every use raises norvexa.RuntimeException "Image series <path> is closed".)doc")
        .def(py::init([](const py::object& path) { return std::make_unique<Series>(pathOf(path)); }),
             py::arg("path"), R"doc(Series(path)

Opens a series by the path's ending: "h5" or "hdf5" (any case) as an HDF5 master file,
any other as one file of a numbered series.

Raises:
    norvexa.NoFileAccessException (an OSError), norvexa.UnknownFormatException,
    norvexa.ImageCorruptedException.)doc")
        .def_property_readonly("first", &Series::first, "The first image number.")
        .def_property_readonly("last", &Series::last, "The last image number.")
        .def_property_readonly("path", &Series::path, "The path the series was opened with.")
        .def_property_readonly("closed", &Series::closed, "Whether close() was called.")
        .def("__len__", &Series::size, "The number of images.")
        .def("__getitem__", &Series::image, py::arg("number"), R"doc(series[number] -> Image

The image of that number (not a position: numbers run from first to last), decoded,
with its metadata and mask.

Raises:
    norvexa.OutOfRangeException (an IndexError): a number outside the series.
    norvexa.ImageCorruptedException: a chunk that does not decode.)doc")
        .def("__getitem__", &Series::frames, py::arg("numbers"), R"doc(series[start:stop] -> numpy.ndarray

Images start to stop - 1 (numbers, as for series[n]; None means the first or past the
last, and the range is clipped to the series) as one array of shape
(images, height, width) in the frames' dtype, without metadata. Each frame is decoded
straight into its place; the GIL is released while it reads.

Raises:
    ValueError: a step other than 1.
    norvexa.BadParameterException (a ValueError): a frame of another size or type than the
        first of the range.
    norvexa.ImageCorruptedException: a chunk that does not decode.)doc")
        .def("stored", &Series::stored, py::arg("number"), R"doc(stored(number) -> StoredChunk

The image of that number as it is stored, not decoded, with its metadata. For a file
series the chunk holds the decoded pixels.

Raises:
    norvexa.OutOfRangeException (an IndexError): a number outside the series.)doc")
        .def("close", &Series::close, "close() -> None\n\nCloses the files; later use raises norvexa.RuntimeException.");

    py::class_<Hdf5Writer>(m, "Hdf5Writer", R"doc(
Writes images to an HDF5/NeXus master file and its data files. Use it as a context
manager (the files are complete when it closes).)doc")
        .def(py::init<const py::object&, int, const py::object&, const py::object&>(), py::arg("path"),
             py::arg("images_per_file"), py::arg("header") = py::none(), py::arg("compression") = "bslz4",
             R"doc(Hdf5Writer(path, images_per_file, header=None, compression="bslz4")

Args:
    path: the master file, "<base>.h5" ("<base>_master.h5" in multi-file mode, when the
        name does not end so already).
    images_per_file: images per data file "<base>_data_NNNNNN.h5" (base without the
        ending, "_master" included); 0 writes one file.
    header: None, or a Series (its header tree), an Image or a Metadata (its tree).
    compression: "bslz4" (bitshuffle/LZ4), "lz4" or "none".
Raises:
    norvexa.BadParameterException (a ValueError): a negative images_per_file or an
        unknown compression.
    norvexa.NoFileAccessException (an OSError): the file can't be created.)doc")
        .def("write", &Hdf5Writer::write, py::arg("image"), R"doc(write(image) -> None

Appends an Image (compressed by the writer) or a StoredChunk (stored as it stands when it
is in the writer's compression, else decoded and compressed).

Raises:
    norvexa.RuntimeException: "DHdfWriter not open" after close().
    TypeError: for anything else.)doc")
        .def("close", &Hdf5Writer::close, "close() -> None\n\nCompletes and closes the files.")
        .def_property_readonly("file_name", &Hdf5Writer::fileName, "The master file's name.")
        .def_property_readonly("images_per_file", &Hdf5Writer::imagesPerFile, "Images per data file.");
}

} // namespace python
} // namespace norvexa

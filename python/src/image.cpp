#include "convert.h"

#include "foundation/DException.h"

#include <pybind11/stl.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cmath>
#include <cstring>
#include <limits>

namespace norvexa {
namespace python {

using imglib::DImage;
using imglib::DImageOptionalData;
using imglib::DRect;

// ---- Conversions (declared in convert.h) ----

namespace {

struct DtypeEntry {
    datatypes::Type type;
    unsigned long bits;
    const char* name; // numpy's name of the dtype
};

// The twelve pixel types in dispatch order; CHAR has no numeric dtype and maps to "S1".
const DtypeEntry kDtypes[] = {
    {datatypes::BOOL, 8, "bool"},     {datatypes::CHAR, 8, "S1"},       {datatypes::INT, 8, "int8"},
    {datatypes::INT, 16, "int16"},    {datatypes::INT, 32, "int32"},    {datatypes::INT, 64, "int64"},
    {datatypes::UINT, 8, "uint8"},    {datatypes::UINT, 16, "uint16"},  {datatypes::UINT, 32, "uint32"},
    {datatypes::UINT, 64, "uint64"},  {datatypes::FLOAT, 32, "float32"}, {datatypes::FLOAT, 64, "float64"},
};

} // namespace

py::dtype dtypeOf(datatypes::Type type, unsigned long bits)
{
    for (const DtypeEntry& entry : kDtypes)
        if (entry.type == type && entry.bits == bits)
            return py::dtype(entry.name);
    datatypes::throwMissingImplementation(type, bits);
}

bool pixelTypeOf(const py::dtype& dtype, datatypes::Type& type, unsigned long& bits)
{
    for (const DtypeEntry& entry : kDtypes) {
        // equiv ignores the byte order only through newbyteorder; compare kind and size.
        const py::dtype candidate(entry.name);
        if (candidate.kind() == dtype.kind() && candidate.itemsize() == dtype.itemsize()) {
            type = entry.type;
            bits = entry.bits;
            return true;
        }
    }
    return false;
}

const char* acceptedDtypes()
{
    return "bool, S1 (char), int8, int16, int32, int64, uint8, uint16, uint32, uint64, float32, "
           "float64";
}

DImage imageFromArray(const py::handle& object)
{
    py::module_ numpy = py::module_::import("numpy");
    py::array array = numpy.attr("asarray")(object);
    datatypes::Type type = datatypes::NONE;
    unsigned long bits = 0;
    if (!pixelTypeOf(array.dtype(), type, bits))
        throw py::type_error("an Image takes an array of dtype " + std::string(acceptedDtypes()) +
                             "; got " + py::str(array.dtype()).cast<std::string>());
    if (array.ndim() != 2)
        throw py::value_error("an Image takes a 2-D array; got " + std::to_string(array.ndim()) +
                              " dimensions");
    if (array.shape(0) > INT_MAX || array.shape(1) > INT_MAX)
        throw py::value_error("an Image is at most 2**31 - 1 pixels wide and high");
    // Native byte order, C order: a copy only when the array is not already so.
    py::dtype native = array.dtype().attr("newbyteorder")("=");
    array = numpy.attr("ascontiguousarray")(array, native);
    const int height = static_cast<int>(array.shape(0));
    const int width = static_cast<int>(array.shape(1));
    DImage image(width, height, type, bits / 8);
    const std::size_t bytes = static_cast<std::size_t>(width) * height * (bits / 8);
    if (bytes > 0) {
        const void* source = array.data();
        char* target = image.data();
        py::gil_scoped_release release;
        std::memcpy(target, source, bytes);
    }
    return image;
}

MaskArg::MaskArg(const py::object& object)
{
    if (object.is_none())
        return;
    if (py::isinstance<DImage>(object)) {
        _pointer = &object.cast<const DImage&>();
        return;
    }
    _copy = imageFromArray(object);
    _pointer = &_copy;
}

RectArg::RectArg(const py::object& object)
{
    if (object.is_none())
        return;
    if (!py::isinstance<py::sequence>(object) || py::len(object) != 4)
        throw py::type_error("rect must be a tuple (x, y, width, height)");
    const py::sequence values = py::reinterpret_borrow<py::sequence>(object);
    if (py::len(values) != 4)
        throw py::type_error("rect must be a tuple (x, y, width, height)");
    try {
        _rect = DRect(values[0].cast<int>(), values[1].cast<int>(), values[2].cast<int>(),
                      values[3].cast<int>());
    } catch (const py::cast_error&) {
        throw py::type_error("rect must be a tuple (x, y, width, height) of ints");
    }
    _set = true;
}

std::string pathOf(const py::handle& path)
{
    return py::str(py::module_::import("os").attr("fspath")(path)).cast<std::string>();
}

std::mutex& hdf5Mutex()
{
    static std::mutex mutex;
    return mutex;
}

bool isHdf5Path(const std::string& path)
{
    const std::size_t dot = path.rfind('.');
    if (dot == std::string::npos)
        return false;
    std::string ending = path.substr(dot + 1);
    std::transform(ending.begin(), ending.end(), ending.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ending == "h5" || ending == "hdf5";
}

DImage decodeChunk(const StoredChunk& chunk)
{
    py::gil_scoped_release release;
    return DImage(chunk.pixels, chunk.metadata);
}

namespace {

// ---- Scalars of the image's pixel type ----

// Calls f(value) with a Python number as the C++ type that keeps it: bool, long long,
// unsigned long long (above the long long range) or double.
template <class F>
auto withScalar(const py::handle& value, F&& f)
{
    if (py::isinstance<py::bool_>(value))
        return f(value.cast<bool>());
    if (py::isinstance<py::int_>(value) || py::hasattr(value, "__index__")) {
        py::int_ number = py::reinterpret_borrow<py::object>(value);
        if (number >= py::int_(0) && number > py::int_(LLONG_MAX))
            return f(number.cast<unsigned long long>());
        return f(number.cast<long long>());
    }
    return f(value.cast<double>());
}

bool isFloating(const DImage& image) { return image.type() == datatypes::FLOAT; }

// The median's type: the widest of the pixel's kind, returned as a Python int or float.
py::object median(const DImage& image, const RectArg& rect, const MaskArg& mask)
{
    if (isFloating(image)) {
        double value;
        {
            py::gil_scoped_release release;
            value = image.median<double>(rect.get(), mask.get());
        }
        return py::float_(value);
    }
    if (image.type() == datatypes::UINT) {
        unsigned long long value;
        {
            py::gil_scoped_release release;
            value = image.median<unsigned long long>(rect.get(), mask.get());
        }
        return py::int_(value);
    }
    long long value;
    {
        py::gil_scoped_release release;
        value = image.median<long long>(rect.get(), mask.get());
    }
    return py::int_(value);
}

// ---- Cuts ----

/// A binding of a cut that takes an Image (pixel by pixel) or a number: `apply(image,
/// limit)` runs with the GIL released.
template <class Apply>
auto cutBy(Apply apply)
{
    return [apply](DImage& self, const py::object& limit) {
        if (py::isinstance<DImage>(limit)) {
            const DImage& limits = limit.cast<const DImage&>();
            py::gil_scoped_release release;
            apply(self, limits);
            return;
        }
        withScalar(limit, [&](auto v) {
            py::gil_scoped_release release;
            apply(self, v);
        });
    };
}

// ---- The array view ----

py::array dataView(py::object self)
{
    DImage& image = self.cast<DImage&>();
    const py::dtype dtype = dtypeOf(image.type(), image.typeBits());
    const py::ssize_t size = static_cast<py::ssize_t>(image.dataSize());
    const py::ssize_t width = image.width(), height = image.height();
    // data() unshares the buffer once; from then on it is the image's own, and stays put
    // for as long as the image lives, which the array's base guarantees.
    char* pointer = image.empty() ? nullptr : image.data();
    if (!pointer)
        return py::array(dtype, {height, width}, {width * size, size});
    return py::array(dtype, {height, width}, {width * size, size}, pointer, self);
}

std::string reprOf(const DImage& image)
{
    return "<norvexa.Image " + std::to_string(image.width()) + "x" + std::to_string(image.height()) +
           " " + py::str(dtypeOf(image.type(), image.typeBits())).cast<std::string>() + ">";
}

const char* compressionName(image::DCompression::FILTER filter)
{
    switch (filter) {
    case image::DCompression::FILTER_NONE:
        return "none";
    case image::DCompression::FILTER_LZ4:
        return "lz4";
    case image::DCompression::FILTER_BS16_LZ4: // the same filter; its element size is the pixel's
    case image::DCompression::FILTER_BS32_LZ4:
        return "bslz4";
    }
    return "unknown";
}

// ---- Metadata ----

// An item as Python sees it: None when absent; texts from files may hold bytes that are
// not UTF-8, which read as U+FFFD rather than failing.
template <class T>
py::object toPython(const boost::optional<T>& value)
{
    return value ? py::object(py::cast(*value)) : py::object(py::none());
}
py::object toPython(const boost::optional<std::string>& value)
{
    if (!value)
        return py::none();
    PyObject* text = PyUnicode_DecodeUTF8(value->data(), static_cast<py::ssize_t>(value->size()), "replace");
    if (!text)
        throw py::error_already_set();
    return py::reinterpret_steal<py::object>(text);
}

void bindMetadata(py::module_& m)
{
    py::class_<DImageOptionalData> metadata(m, "Metadata", R"doc(
The metadata of one exposure: typed items, each None when absent and assignable
(None removes it). Items are named as the C++ getters: count_time, wavelength,
beam_center_x, ... An Image's metadata is a live view of that image's items.)doc");
    metadata.def(py::init<>(), "Empty metadata: every item None.");

    // One property per item of the library's item table.
#define NORVEXA_PY_METADATA_ITEM(NAME, VALUE, STORED, UNIT, PATH1, PATH2, PATH3)                   \
    metadata.def_property(                                                                         \
        #NAME, [](const DImageOptionalData& self) { return toPython(self.NAME()); },              \
        [](DImageOptionalData& self, boost::optional<VALUE> value) {                               \
            self.set_##NAME(std::move(value));                                                     \
        },                                                                                         \
        "The item " #NAME " (" #VALUE ", unit \"" UNIT "\", at " PATH1 "), or None.");
    NORVEXA_METADATA_ITEMS(NORVEXA_PY_METADATA_ITEM)
#undef NORVEXA_PY_METADATA_ITEM
    metadata.def_property(
        "rotation_angle", [](const DImageOptionalData& self) { return toPython(self.rotation_angle()); },
        &DImageOptionalData::set_rotation_angle, "The item rotation_angle (float), or None.");
    metadata.def_property(
        "rotation_angle_step",
        [](const DImageOptionalData& self) { return toPython(self.rotation_angle_step()); },
        &DImageOptionalData::set_rotation_angle_step, "The item rotation_angle_step (float), or None.");
    metadata.def_property(
        "image_description", [](const DImageOptionalData& self) { return toPython(self.imageDescription()); },
        &DImageOptionalData::setImageDescription,
        "The image's description (imageDescription, str), or None.");
    metadata.def_property(
        "raw_header", [](const DImageOptionalData& self) { return toPython(self.rawHeader()); },
        &DImageOptionalData::setRawHeader,
        "The text header of the file it was read from (rawHeader, str; bytes that are not "
        "UTF-8 read as U+FFFD), or None.");
    metadata.def_property("pixel_mask", &DImageOptionalData::pixel_mask,
                          &DImageOptionalData::set_pixel_mask,
                          "The pixel mask as an Image (UINT 32), or None; an assigned mask is "
                          "stored as UINT 32.");
    metadata.def_property_readonly(
        "module_rects",
        [](const DImageOptionalData& self) -> py::object {
            const auto modules = self.modules();
            if (!modules)
                return py::none();
            py::list rects;
            for (const auto& module : *modules) {
                const DRect rect = module.geometry();
                rects.append(py::make_tuple(rect.left(), rect.top(), rect.width(), rect.height()));
            }
            return std::move(rects);
        },
        "The detector modules' rectangles (x, y, width, height) in name order, or None.");
    metadata.def(
        "to_dict",
        [](const DImageOptionalData& self) {
            py::dict items;
#define NORVEXA_PY_METADATA_DICT(NAME, VALUE, STORED, UNIT, PATH1, PATH2, PATH3)                   \
    if (const auto value = self.NAME())                                                            \
        items[#NAME] = toPython(value);
            NORVEXA_METADATA_ITEMS(NORVEXA_PY_METADATA_DICT)
#undef NORVEXA_PY_METADATA_DICT
            if (const auto value = self.rotation_angle())
                items["rotation_angle"] = *value;
            if (const auto value = self.rotation_angle_step())
                items["rotation_angle_step"] = *value;
            return items;
        },
        R"doc(to_dict() -> dict

The typed items that are present, by name (the mask, the modules and the texts
image_description and raw_header are left out).)doc");
    metadata.def("__repr__", [](const DImageOptionalData& self) {
        return "<norvexa.Metadata " + py::repr(py::cast(self).attr("to_dict")()).cast<std::string>() +
               ">";
    });
}

// ---- The stored chunk ----

void bindStoredChunk(py::module_& m)
{
    py::class_<StoredChunk>(m, "StoredChunk", R"doc(
A frame as it is stored in its file, not decoded: the compressed chunk with the frame's
metadata. norvexa.Image(chunk) decodes it; Hdf5Writer.write(chunk) stores it as it stands.
Made by Series.stored(n).)doc")
        .def_property_readonly("width", [](const StoredChunk& self) { return self.pixels.shape().at(0); },
                               "Width of the frame in pixels.")
        .def_property_readonly("height", [](const StoredChunk& self) { return self.pixels.shape().at(1); },
                               "Height of the frame in pixels.")
        .def_property_readonly(
            "dtype",
            [](const StoredChunk& self) { return dtypeOf(self.pixels.type(), self.pixels.typeBits()); },
            "The pixel type, as a numpy dtype.")
        .def_property_readonly(
            "compression", [](const StoredChunk& self) { return compressionName(self.pixels.filter()); },
            "How the chunk is stored: \"bslz4\" (bitshuffle/LZ4), \"lz4\" or \"none\".")
        .def_property_readonly("nbytes", [](const StoredChunk& self) { return self.pixels.usedBytes(); },
                               "Bytes of the chunk as stored.")
        .def_property_readonly(
            "metadata", [](StoredChunk& self) -> DImageOptionalData& { return self.metadata; },
            py::return_value_policy::reference_internal, "The frame's metadata (a Metadata).")
        .def("__repr__", [](const StoredChunk& self) {
            return "<norvexa.StoredChunk " + std::to_string(self.pixels.shape().at(0)) + "x" +
                   std::to_string(self.pixels.shape().at(1)) + " " +
                   py::str(dtypeOf(self.pixels.type(), self.pixels.typeBits())).cast<std::string>() +
                   " " + compressionName(self.pixels.filter()) + ", " +
                   std::to_string(self.pixels.usedBytes()) + " bytes>";
        });
}

// ---- The image ----

// Filters, with the GIL released around the library's call.
using FilterFunction = DImage (DImage::*)(int, int, const DImage*) const;
template <FilterFunction F>
DImage filter(const DImage& self, int m, int n, const py::object& mask)
{
    const MaskArg maskArg(mask);
    py::gil_scoped_release release;
    return (self.*F)(m, n, maskArg.get());
}

using StatFunction = double (DImage::*)(const DRect*, const DImage*, double, double) const;
template <StatFunction F>
double statistic(const DImage& self, const py::object& rect, const py::object& mask, double low,
                 double high)
{
    const RectArg rectArg(rect);
    const MaskArg maskArg(mask);
    py::gil_scoped_release release;
    return (self.*F)(rectArg.get(), maskArg.get(), low, high);
}

const char* const kFilterDoc = R"doc(

Args:
    m: window width in columns (odd).
    n: window height in rows (odd).
    mask: an Image or 2-D array of the frame's shape; a non-zero pixel is left out of
        every window and is 0 in the result. None: no mask.
Returns:
    A new Image of the frame's type and size, without metadata.
Raises:
    norvexa.Error: "DImage::<name>: m and n must be odd" for even windows;
    norvexa.RuntimeException: "Mask has the wrong shape".)doc";

const char* const kStatDoc = R"doc(

Args:
    rect: (x, y, width, height), cut to the frame; None: the whole frame.
    mask: an Image or 2-D array of the frame's shape; non-zero excludes the pixel.
    low, high: only pixels with low <= value <= high count.
Returns:
    A float; 0.0 when no pixel counts.)doc";

std::string doc(const char* head, const char* body) { return std::string(head) + body; }

void bindImage(py::module_& m)
{
    py::class_<DImage> image(m, "Image", R"doc(
A 2-D detector frame with its metadata.

Image(array) copies a 2-D numpy array of one of the twelve pixel dtypes (bool, S1 for
char, int8 to int64, uint8 to uint64, float32, float64); any other dtype raises
TypeError. Image(chunk) decodes a StoredChunk (from Series.stored(n)) with its metadata.

image.data is a numpy view of the pixels, shape (height, width): no copy, writes change
the image, and the view keeps the image alive. Arithmetic goes through image.data; the
library's own operations are methods. Where a method takes them, rect is a tuple
(x, y, width, height) in pixels and mask an Image or 2-D array of the frame's shape whose
non-zero pixels are excluded.)doc");

    image
        .def(py::init([](const StoredChunk& chunk) { return decodeChunk(chunk); }), py::arg("chunk"),
             "Decodes a stored chunk (bitshuffle/LZ4, LZ4 or plain) with its metadata. Raises "
             "norvexa.ImageCorruptedException for a chunk that does not decode.")
        .def(py::init([](const py::object& array) { return imageFromArray(array); }), py::arg("array"),
             "Copies a 2-D array of one of the twelve pixel dtypes. Raises TypeError for any other "
             "dtype (naming the accepted ones) and ValueError for another number of dimensions.")
        .def_property_readonly("data", &dataView,
                               "The pixels as a numpy array of shape (height, width), sharing the "
                               "image's memory; it keeps the image alive.")
        .def_property_readonly("width", &DImage::width, "Width in pixels (columns).")
        .def_property_readonly("height", &DImage::height, "Height in pixels (rows).")
        .def_property_readonly("shape", [](const DImage& self) { return py::make_tuple(self.height(), self.width()); },
                               "(height, width), as the data array's shape.")
        .def_property_readonly(
            "dtype", [](const DImage& self) { return dtypeOf(self.type(), self.typeBits()); },
            "The pixel type, as a numpy dtype.")
        .def_property(
            "metadata", [](DImage& self) -> DImageOptionalData& { return self.optionalData(); },
            [](DImage& self, const DImageOptionalData& metadata) { self.setOptionalData(metadata); },
            py::return_value_policy::reference_internal,
            "The image's metadata (a Metadata), a live view; assigning a Metadata copies it in.")
        .def_property(
            "pixel_mask", [](const DImage& self) { return self.optionalData().pixel_mask(); },
            [](DImage& self, const py::object& mask) {
                if (mask.is_none())
                    self.optionalData().set_pixel_mask(boost::none);
                else
                    self.optionalData().set_pixel_mask(*MaskArg(mask).get());
            },
            "The metadata's pixel mask as an Image (UINT 32), or None. Assign an Image, a 2-D "
            "array or None; it is stored as UINT 32.")
        .def(
            "__array__",
            [](py::object self, const py::object& dtype, const py::object& copy) {
                py::object view = dataView(self);
                if (!dtype.is_none())
                    return py::object(view.attr("astype")(dtype, py::arg("copy") = false));
                if (!copy.is_none() && copy.cast<bool>())
                    return py::object(view.attr("copy")());
                return view;
            },
            py::arg("dtype") = py::none(), py::arg("copy") = py::none(),
            "numpy.asarray(image) is image.data (a view), or a converted copy for another dtype.")
        .def(py::pickle(
            [](py::object self) {
                // The pixels, the typed items and the mask; the rest of the header tree stays behind.
                const DImage& image = self.cast<const DImage&>();
                py::object data = dataView(self).attr("copy")();
                return py::make_tuple(data, py::cast(image.optionalData()).attr("to_dict")(),
                                      image.optionalData().pixel_mask());
            },
            [](const py::tuple& state) {
                if (py::len(state) != 3)
                    throw py::value_error("not a pickled norvexa.Image");
                DImage image = imageFromArray(state[0]);
                py::object metadata = py::cast(&image.optionalData(), py::return_value_policy::reference);
                for (const auto& item : state[1].cast<py::dict>())
                    metadata.attr(item.first) = item.second;
                if (!state[2].is_none())
                    image.optionalData().set_pixel_mask(state[2].cast<DImage>());
                return image;
            }))
        .def("copy", [](const DImage& self) { return DImage(self); },
             "copy() -> Image\n\nA copy of the pixels and the metadata.")
        .def("__copy__", [](const DImage& self) { return DImage(self); })
        .def("__deepcopy__", [](const DImage& self, const py::object&) { return DImage(self); })
        .def("__repr__", &reprOf)
        .def(
            "as_type",
            [](const DImage& self, const py::object& dtype) {
                datatypes::Type type;
                unsigned long bits;
                const py::dtype target = py::dtype::from_args(dtype);
                if (!pixelTypeOf(target, type, bits))
                    throw py::type_error("as_type takes a dtype of " + std::string(acceptedDtypes()) +
                                         "; got " + py::str(py::object(target)).cast<std::string>());
                py::gil_scoped_release release;
                return DImage(self, type, bits / 8);
            },
            py::arg("dtype"), R"doc(as_type(dtype) -> Image

A converted copy with the metadata: integers wrap, floating values truncate toward
zero and saturate at an integer type's limits, NaN gives 0.

Args:
    dtype: one of the twelve pixel dtypes (anything numpy.dtype() takes).
Raises:
    TypeError: for another dtype.)doc")

        // ---- Filters and statistics ----
        .def("mean_filter", &filter<&DImage::meanFilter>, py::arg("m"), py::arg("n"),
             py::arg("mask") = py::none(),
             doc("mean_filter(m, n, mask=None) -> Image\n\nWindow mean in the pixel's own type "
                 "(integer sums wrap, the quotient truncates).",
                 kFilterDoc)
                 .c_str())
        .def("median_filter", &filter<&DImage::medianFilter>, py::arg("m"), py::arg("n"),
             py::arg("mask") = py::none(),
             doc("median_filter(m, n, mask=None) -> Image\n\nWindow median (the element of rank "
                 "count // 2; an even count averages it with the one below).",
                 kFilterDoc)
                 .c_str())
        .def("variance_filter", &filter<&DImage::varianceFilter>, py::arg("m"), py::arg("n"),
             py::arg("mask") = py::none(),
             doc("variance_filter(m, n, mask=None) -> Image\n\nWindow sample variance, converted "
                 "to the pixel type.",
                 kFilterDoc)
                 .c_str())
        .def("mean", &statistic<&DImage::mean>, py::arg("rect") = py::none(), py::arg("mask") = py::none(),
             py::arg("low") = -std::numeric_limits<double>::infinity(),
             py::arg("high") = std::numeric_limits<double>::infinity(),
             doc("mean(rect=None, mask=None, low=-inf, high=inf) -> float\n\nMean of the counted "
                 "pixels, summed in double in row order.",
                 kStatDoc)
                 .c_str())
        .def("variance", &statistic<&DImage::variance>, py::arg("rect") = py::none(),
             py::arg("mask") = py::none(), py::arg("low") = -std::numeric_limits<double>::infinity(),
             py::arg("high") = std::numeric_limits<double>::infinity(),
             doc("variance(rect=None, mask=None, low=-inf, high=inf) -> float\n\nSample variance "
                 "(n - 1) of the counted pixels; 0.0 for fewer than two.",
                 kStatDoc)
                 .c_str())
        .def("rms", &statistic<&DImage::rms>, py::arg("rect") = py::none(), py::arg("mask") = py::none(),
             py::arg("low") = -std::numeric_limits<double>::infinity(),
             py::arg("high") = std::numeric_limits<double>::infinity(),
             doc("rms(rect=None, mask=None, low=-inf, high=inf) -> float\n\nSample standard "
                 "deviation: the square root of variance().",
                 kStatDoc)
                 .c_str())
        .def(
            "median",
            [](const DImage& self, const py::object& rect, const py::object& mask) {
                return median(self, RectArg(rect), MaskArg(mask));
            },
            py::arg("rect") = py::none(), py::arg("mask") = py::none(), R"doc(median(rect=None, mask=None) -> int | float

Median of the unexcluded pixels of rect (the rule of median_filter), in the pixel's
type; an int for integer frames, a float for floating ones; 0 when no pixel counts.

Args:
    rect: (x, y, width, height), cut to the frame; None: the whole frame.
    mask: an Image or 2-D array of the frame's shape; non-zero excludes the pixel.)doc")

        // ---- Regions, masks and cuts ----
        .def(
            "extract",
            [](const DImage& self, const py::object& rect) {
                const RectArg rectArg(rect);
                py::gil_scoped_release release;
                return self.extract(rectArg.get());
            },
            py::arg("rect") = py::none(), R"doc(extract(rect=None) -> Image

A copy of the pixels of rect (cut to the frame) with the pixel_mask cut the same way
and no other metadata; no overlap gives an empty image.

Args:
    rect: (x, y, width, height); None: the whole frame.)doc")
        .def(
            "slice_extract",
            [](const DImage& self, int x0, int dx, int nx, int y0, int dy, int ny) {
                py::gil_scoped_release release;
                return self.sliceExtract(x0, dx, nx, y0, dy, ny);
            },
            py::arg("x0"), py::arg("dx"), py::arg("nx"), py::arg("y0"), py::arg("dy"), py::arg("ny"),
            R"doc(slice_extract(x0, dx, nx, y0, dy, ny) -> Image

nx by ny pixels at (x0 + dx * i, y0 + dy * j); steps may be negative. The pixel_mask is
sliced along.

Raises:
    norvexa.OutOfRangeException: "Slicing parameters outside image borders".)doc")
        .def(
            "fill",
            [](DImage& self, const py::object& value, const py::object& rect, const py::object& mask) {
                const RectArg rectArg(rect);
                const MaskArg maskArg(mask);
                withScalar(value, [&](auto v) {
                    py::gil_scoped_release release;
                    self.fill(v, rectArg.get(), maskArg.get());
                });
            },
            py::arg("value"), py::arg("rect") = py::none(), py::arg("mask") = py::none(),
            R"doc(fill(value, rect=None, mask=None) -> None

Writes value, converted to the pixel type, into every pixel of rect (cut to the frame)
that the mask does not exclude. In place.

Raises:
    norvexa.RuntimeException: "Mask has the wrong shape".)doc")
        .def(
            "slice_fill",
            [](DImage& self, const py::object& value, int x0, int dx, int nx, int y0, int dy, int ny) {
                withScalar(value, [&](auto v) {
                    py::gil_scoped_release release;
                    self.sliceFill(v, x0, dx, nx, y0, dy, ny);
                });
            },
            py::arg("value"), py::arg("x0"), py::arg("dx"), py::arg("nx"), py::arg("y0"), py::arg("dy"),
            py::arg("ny"), R"doc(slice_fill(value, x0, dx, nx, y0, dy, ny) -> None

Writes value, converted, to every position (x0 + dx * i, y0 + dy * j) of the slice.

Raises:
    norvexa.OutOfRangeException: "Slicing parameters outside image borders".)doc")
        .def(
            "slice_fill",
            [](DImage& self, const DImage& source, int x0, int dx, int y0, int dy) {
                py::gil_scoped_release release;
                self.sliceFill(source, x0, dx, y0, dy);
            },
            py::arg("source"), py::arg("x0"), py::arg("dx"), py::arg("y0"), py::arg("dy"),
            R"doc(slice_fill(source, x0, dx, y0, dy) -> None

Writes source's pixel (i, j), converted, to (x0 + dx * i, y0 + dy * j); the slice's
extent is the source's width and height.)doc")
        .def(
            "low_cut",
            cutBy([](DImage& self, const auto& limit) { self.lowCut(limit); }),
            py::arg("limit"), R"doc(low_cut(limit) -> None

Raises every pixel below limit to it, in place: limit is a number (compared in the common
type of pixel and number) or an Image (pixel by pixel).

Raises:
    norvexa.RuntimeException: "Image sizes do not coincide" for an Image of another size.)doc")
        .def(
            "high_cut",
            cutBy([](DImage& self, const auto& limit) { self.highCut(limit); }),
            py::arg("limit"), R"doc(high_cut(limit) -> None

Lowers every pixel above limit to it, in place; limit as for low_cut.

Raises:
    norvexa.RuntimeException: "Image sizes do not coincide" for an Image of another size.)doc")
        .def(
            "create_mask",
            [](const DImage& self, const py::object& low, const py::object& high, bool inside) {
                const bool floating = !py::isinstance<py::int_>(low) || !py::isinstance<py::int_>(high);
                if (floating) {
                    const double lo = low.cast<double>(), hi = high.cast<double>();
                    py::gil_scoped_release release;
                    return self.createMask(lo, hi, inside);
                }
                const long long lo = low.cast<long long>(), hi = high.cast<long long>();
                py::gil_scoped_release release;
                return self.createMask(lo, hi, inside);
            },
            py::arg("low"), py::arg("high"), py::arg("inside") = true,
            R"doc(create_mask(low, high, inside=True) -> Image

A UINT 32 image of the frame's size: 1 where low <= pixel <= high (inside=True) or where
the pixel lies outside [low, high] (inside=False), else 0. Integer limits compare as
64-bit integers, any float limit as double.)doc")
        .def(
            "number_of_pixels_in_interval",
            [](const DImage& self, const py::object& a, const py::object& b, const py::object& rect,
               const py::object& mask) {
                const RectArg rectArg(rect);
                const MaskArg maskArg(mask);
                int below = 0, inside = 0, above = 0;
                const bool floating = !py::isinstance<py::int_>(a) || !py::isinstance<py::int_>(b);
                if (floating) {
                    const double lo = a.cast<double>(), hi = b.cast<double>();
                    py::gil_scoped_release release;
                    self.numberOfPixelsInInterval(below, inside, above, lo, hi, rectArg.get(), maskArg.get());
                } else {
                    const long long lo = a.cast<long long>(), hi = b.cast<long long>();
                    py::gil_scoped_release release;
                    self.numberOfPixelsInInterval(below, inside, above, lo, hi, rectArg.get(), maskArg.get());
                }
                return py::make_tuple(below, inside, above);
            },
            py::arg("a"), py::arg("b"), py::arg("rect") = py::none(), py::arg("mask") = py::none(),
            R"doc(number_of_pixels_in_interval(a, b, rect=None, mask=None) -> (below, inside, above)

Counts the unexcluded pixels of rect below both limits, between them (inclusive) and
above both; the order of a and b does not matter.)doc")
        .def(
            "inverse",
            [](const DImage& self, const py::object& numerator) {
                return withScalar(numerator, [&](auto v) {
                    py::gil_scoped_release release;
                    return self.inverse(v);
                });
            },
            py::arg("numerator") = 1, R"doc(inverse(numerator=1) -> Image

numerator / pixel in the common type of pixel and numerator, 0 where the quotient does
not fit (so for zero pixels). int32, int64, float32 and float64 frames keep their type;
every other gives int32.)doc")
        .def(
            "spline_fit",
            [](const DImage& self, int nx, int kx, int ny, int ky, int border, const py::object& mask) {
                const MaskArg maskArg(mask);
                py::gil_scoped_release release;
                return self.splineFit(nx, kx, ny, ky, border, maskArg.get());
            },
            py::arg("nx") = 10, py::arg("kx") = 4, py::arg("ny") = 10, py::arg("ky") = 4,
            py::arg("border") = 4, py::arg("mask") = py::none(),
            R"doc(spline_fit(nx=10, kx=4, ny=10, ky=4, border=4, mask=None) -> Image

The smooth background over the metadata's modules: a tensor B-spline of nx by ny
coefficients of orders kx and ky (4: cubic), fitted to the pixels not excluded by mask,
not within border of a module's edge and not above 10,000,000, evaluated on every
module pixel; 0 outside the modules. No modules: an empty Image.

Raises:
    norvexa.BadParameterException: "Spline orders must lie between 1 and the number of
        coefficients".)doc");
}

} // namespace

void initImage(py::module_& m)
{
    bindMetadata(m);
    bindStoredChunk(m);
    bindImage(m);
}

} // namespace python
} // namespace norvexa

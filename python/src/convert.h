#pragma once
// Conversions shared by the image, file and display bindings: numpy dtypes of the pixel
// types, images from arrays, rectangles, masks, paths, and the lock around HDF5.
#include "bindings.h"

#include "DImage.h"
#include "DRect.h"
#include "DHdf5Iterator.h"

#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <boost/optional.hpp>

#include <mutex>
#include <string>

// boost::optional as None or the value, both ways (the metadata's items).
namespace pybind11 {
namespace detail {
template <typename T>
struct type_caster<boost::optional<T>> : optional_caster<boost::optional<T>> {};
template <>
struct type_caster<boost::none_t> : void_caster<boost::none_t> {};
} // namespace detail
} // namespace pybind11

namespace norvexa {
namespace python {

/// A frame as stored in its file, not decoded: the chunk and the frame's metadata.
using StoredChunk = imglib::DHdf5Iterator::StoredImage;

/// The numpy dtype of a pixel type; CHAR is "S1" (one byte, not a number).
py::dtype dtypeOf(datatypes::Type type, unsigned long bits);
/// The pixel type of a numpy dtype (any byte order); false for none of the twelve.
bool pixelTypeOf(const py::dtype& dtype, datatypes::Type& type, unsigned long& bits);
/// The accepted dtypes, for messages: "bool, S1, int8, ...".
const char* acceptedDtypes();

/// A copy of a 2-D array of one of the twelve dtypes. TypeError naming the accepted dtypes
/// for any other dtype, ValueError for another number of dimensions.
imglib::DImage imageFromArray(const py::handle& object);

/// An Image, or an array converted by imageFromArray, kept for one call.
class MaskArg {
public:
    explicit MaskArg(const py::object& object);
    const imglib::DImage* get() const { return _pointer; }

private:
    imglib::DImage _copy;
    const imglib::DImage* _pointer = nullptr;
};

/// A rectangle (x, y, width, height), or none for None.
class RectArg {
public:
    explicit RectArg(const py::object& object);
    const imglib::DRect* get() const { return _set ? &_rect : nullptr; }
    imglib::DRect* get() { return _set ? &_rect : nullptr; }

private:
    imglib::DRect _rect;
    bool _set = false;
};

/// str(os.fspath(path)): a str or a path-like object.
std::string pathOf(const py::handle& path);

/// The HDF5 C library of Debian is built without its thread-safety option: every call
/// into it, from any thread, holds this lock (taken with the GIL released).
std::mutex& hdf5Mutex();

/// Whether the path names an HDF5 file ("h5" or "hdf5" ending, any case).
bool isHdf5Path(const std::string& path);

/// The image decoded from a stored chunk, with its metadata; the GIL is released.
imglib::DImage decodeChunk(const StoredChunk& chunk);

} // namespace python
} // namespace norvexa

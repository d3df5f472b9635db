#pragma once
// The pixel lists of drawing.cpp, for the message queue: a DArray<DPixel> is a numpy
// structured array of norvexa.pixel_dtype on the Python side.
#include "bindings.h"

#include "DArray.h"
#include "DPixel.h"

#include <pybind11/numpy.h>

namespace norvexa {
namespace python {

/// norvexa.pixel_dtype: x int32, y int32, value float64, 16 bytes packed like DPixel.
py::object pixelDtype();
/// Whether `object` has the pixel dtype (then it is sent as a pixel list).
bool isPixelArray(const py::handle& object);
/// A new 1-D array of the pixels.
py::array pixelsToArray(const imglib::DArray<imglib::DPixel>& pixels);
/// The pixels of a 1-D array of pixel_dtype; TypeError for anything else.
imglib::DArray<imglib::DPixel> arrayToPixels(const py::handle& array);

} // namespace python
} // namespace norvexa

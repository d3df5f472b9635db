// What travels beside a frame: drawing lists (DrawingList of DrawingPixel, DrawingLine,
// DrawingString, DrawingEllipse) and pixel lists. A pixel list is a numpy structured array
// of `pixel_dtype` (the 16 bytes of a DPixel), not a class of its own: it is data, and
// numpy is the better tool for it.
#include "drawing.h"

#include "DDrawingList.h"
#include "DDrawingPrimitives.h"
#include "foundation/DException.h"

#include <cstring>
#include <string>
#include <vector>

namespace norvexa {
namespace python {

using imglib::DArray;
using imglib::DDrawingEllipse;
using imglib::DDrawingLine;
using imglib::DDrawingPixel;
using imglib::DDrawingPrimitive;
using imglib::DDrawingString;
using imglib::DPixel;
using imglib::DStdDrawingList;

namespace {

PyObject* pixelDtypeObject = nullptr; // kept alive by the module's attribute

/// The concrete primitive behind a base reference, as a Python object of its class.
py::object concrete(const DDrawingPrimitive& p)
{
    switch (p.type()) {
    case DDrawingPrimitive::PIXEL:
        return py::cast(static_cast<const DDrawingPixel&>(p));
    case DDrawingPrimitive::LINE:
        return py::cast(static_cast<const DDrawingLine&>(p));
    case DDrawingPrimitive::STRING:
        return py::cast(static_cast<const DDrawingString&>(p));
    default:
        return py::cast(static_cast<const DDrawingEllipse&>(p));
    }
}

std::string colorText(const DDrawingPrimitive& p)
{
    return "red=" + std::to_string(p.red()) + ", green=" + std::to_string(p.green()) +
           ", blue=" + std::to_string(p.blue()) + ", alpha=" + std::to_string(p.alpha());
}

std::string number(double x) { return py::repr(py::float_(x)).cast<std::string>(); }

/// The fields of a primitive, for comparison: equal classes, colours and fields.
py::tuple fields(const DDrawingPrimitive& p)
{
    py::tuple color = py::make_tuple(p.red(), p.green(), p.blue(), p.alpha());
    switch (p.type()) {
    case DDrawingPrimitive::PIXEL: {
        const auto& d = static_cast<const DDrawingPixel&>(p);
        return py::make_tuple(int(p.type()), color, d.x(), d.y());
    }
    case DDrawingPrimitive::LINE: {
        const auto& d = static_cast<const DDrawingLine&>(p);
        return py::make_tuple(int(p.type()), color, d.xBegin(), d.xEnd(), d.yBegin(), d.yEnd());
    }
    case DDrawingPrimitive::STRING: {
        const auto& d = static_cast<const DDrawingString&>(p);
        return py::make_tuple(int(p.type()), color, d.x(), d.y(), py::bytes(d.text()));
    }
    default: {
        const auto& d = static_cast<const DDrawingEllipse&>(p);
        return py::make_tuple(int(p.type()), color, d.x(), d.y(), d.rx(), d.ry(), d.rotation());
    }
    }
}

#define COLOR_ARGS                                                                                 \
    py::arg("red") = 255, py::arg("green") = 255, py::arg("blue") = 255, py::arg("alpha") = 255
#define COLOR_DOC "    red, green, blue, alpha: the colour, 0 to 255 each (default opaque white).\n"

} // namespace

py::object pixelDtype() { return py::reinterpret_borrow<py::object>(pixelDtypeObject); }

py::array pixelsToArray(const DArray<DPixel>& pixels)
{
    py::array out(py::dtype::from_args(pixelDtype()), std::vector<py::ssize_t>{static_cast<py::ssize_t>(pixels.size())});
    if (pixels.size())
        std::memcpy(out.mutable_data(), &pixels[0], pixels.size() * sizeof(DPixel));
    return out;
}

DArray<DPixel> arrayToPixels(const py::handle& array)
{
    py::object dtype = py::getattr(array, "dtype", py::none());
    if (dtype.is_none() || !dtype.equal(pixelDtype()) || py::len(array.attr("shape")) != 1)
        throw py::type_error("a pixel list is a 1-D numpy array of norvexa.pixel_dtype "
                             "(fields x: int32, y: int32, value: float64)");
    py::array plain = py::module_::import("numpy").attr("ascontiguousarray")(array);
    DArray<DPixel> pixels(static_cast<std::size_t>(plain.shape(0)), DPixel());
    if (pixels.size())
        std::memcpy(&pixels[0], plain.data(), pixels.size() * sizeof(DPixel));
    return pixels;
}

bool isPixelArray(const py::handle& object)
{
    py::object dtype = py::getattr(object, "dtype", py::none());
    return !dtype.is_none() && dtype.equal(pixelDtype());
}

void initDrawing(py::module_& m)
{
    py::module_ numpy = py::module_::import("numpy");
    py::list layout;
    layout.append(py::make_tuple("x", "<i4"));
    layout.append(py::make_tuple("y", "<i4"));
    layout.append(py::make_tuple("value", "<f8"));
    py::object dtype = numpy.attr("dtype")(layout);
    m.attr("pixel_dtype") = dtype;
    pixelDtypeObject = dtype.ptr();
    m.attr("PIXEL_INVALID") = py::float_(DPixel::INVALID);

    py::class_<DDrawingPrimitive> base(m, "DrawingPrimitive", R"doc(
Base of the shapes of a DrawingList: its colour. Shapes are plain values; a list holds
copies of them.)doc");
    base.def_property_readonly("red", &DDrawingPrimitive::red, "Red, 0 to 255.")
        .def_property_readonly("green", &DDrawingPrimitive::green, "Green, 0 to 255.")
        .def_property_readonly("blue", &DDrawingPrimitive::blue, "Blue, 0 to 255.")
        .def_property_readonly("alpha", &DDrawingPrimitive::alpha, "Opacity, 0 to 255.")
        .def_property(
            "color",
            [](const DDrawingPrimitive& p) { return py::make_tuple(p.red(), p.green(), p.blue(), p.alpha()); },
            [](DDrawingPrimitive& p, const std::tuple<unsigned char, unsigned char, unsigned char, unsigned char>& c) {
                p.setColor(std::get<0>(c), std::get<1>(c), std::get<2>(c), std::get<3>(c));
            },
            "The colour as (red, green, blue, alpha).")
        .def("__eq__",
             [](const DDrawingPrimitive& a, const py::object& b) {
                 return py::isinstance<DDrawingPrimitive>(b) &&
                        fields(a).equal(fields(b.cast<const DDrawingPrimitive&>()));
             });

    py::class_<DDrawingPixel, DDrawingPrimitive>(m, "DrawingPixel", "One pixel at (x, y).")
        .def(py::init<double, double, unsigned char, unsigned char, unsigned char, unsigned char>(),
             py::arg("x"), py::arg("y"), COLOR_ARGS,
             "DrawingPixel(x, y, red=255, green=255, blue=255, alpha=255)\n\nArgs:\n"
             "    x, y: the pixel's position.\n" COLOR_DOC)
        .def_property("x", &DDrawingPixel::x, &DDrawingPixel::setX, "Column.")
        .def_property("y", &DDrawingPixel::y, &DDrawingPixel::setY, "Row.")
        .def("__repr__", [](const DDrawingPixel& p) {
            return "DrawingPixel(x=" + number(p.x()) + ", y=" + number(p.y()) + ", " + colorText(p) + ")";
        });

    py::class_<DDrawingLine, DDrawingPrimitive>(m, "DrawingLine", R"doc(
A line from (x_begin, y_begin) to (x_end, y_end). The constructor takes the coordinates by
axis, as the library does: DrawingLine(1, 2, 3, 4) runs from (1, 3) to (2, 4).)doc")
        .def(py::init<double, double, double, double, unsigned char, unsigned char, unsigned char, unsigned char>(),
             py::arg("x_begin"), py::arg("x_end"), py::arg("y_begin"), py::arg("y_end"), COLOR_ARGS,
             "DrawingLine(x_begin, x_end, y_begin, y_end, red=255, green=255, blue=255, alpha=255)\n\n"
             "Args:\n    x_begin, x_end: the columns of the two ends.\n"
             "    y_begin, y_end: the rows of the two ends.\n" COLOR_DOC)
        .def_property("x_begin", &DDrawingLine::xBegin, &DDrawingLine::setXBegin, "Column of the start.")
        .def_property("x_end", &DDrawingLine::xEnd, &DDrawingLine::setXEnd, "Column of the end.")
        .def_property("y_begin", &DDrawingLine::yBegin, &DDrawingLine::setYBegin, "Row of the start.")
        .def_property("y_end", &DDrawingLine::yEnd, &DDrawingLine::setYEnd, "Row of the end.")
        .def("__repr__", [](const DDrawingLine& l) {
            return "DrawingLine(x_begin=" + number(l.xBegin()) + ", x_end=" + number(l.xEnd()) +
                   ", y_begin=" + number(l.yBegin()) + ", y_end=" + number(l.yEnd()) + ", " + colorText(l) + ")";
        });

    py::class_<DDrawingString, DDrawingPrimitive>(m, "DrawingString", R"doc(
A text at (x, y). It is kept inside the shape, at most 256 bytes of UTF-8; a longer text is
cut to its first 256 bytes.)doc")
        .def(py::init<double, double, const std::string&, unsigned char, unsigned char, unsigned char, unsigned char>(),
             py::arg("x"), py::arg("y"), py::arg("text"), COLOR_ARGS,
             "DrawingString(x, y, text, red=255, green=255, blue=255, alpha=255)\n\nArgs:\n"
             "    x, y: the text's position.\n    text: a str (UTF-8, cut to 256 bytes).\n" COLOR_DOC)
        .def_property("x", &DDrawingString::x, &DDrawingString::setX, "Column.")
        .def_property("y", &DDrawingString::y, &DDrawingString::setY, "Row.")
        .def_property(
            "text",
            [](const DDrawingString& s) {
                const std::string bytes = s.text();
                // A cut inside a UTF-8 sequence leaves a broken tail: replace it.
                return py::reinterpret_steal<py::str>(
                    PyUnicode_DecodeUTF8(bytes.data(), static_cast<Py_ssize_t>(bytes.size()), "replace"));
            },
            &DDrawingString::setText, "The text (cut to 256 bytes of UTF-8 when set).")
        .def("__repr__", [](const DDrawingString& s) {
            return "DrawingString(x=" + number(s.x()) + ", y=" + number(s.y()) + ", text=" +
                   py::repr(py::str(s.text())).cast<std::string>() + ", " + colorText(s) + ")";
        });

    py::class_<DDrawingEllipse, DDrawingPrimitive>(m, "DrawingEllipse",
                                                   "An ellipse centred at (x, y) with the half axes rx and ry, turned by `rotation`.")
        .def(py::init<double, double, double, double, double, unsigned char, unsigned char, unsigned char, unsigned char>(),
             py::arg("x"), py::arg("y"), py::arg("rx"), py::arg("ry"), py::arg("rotation") = 0.0, COLOR_ARGS,
             "DrawingEllipse(x, y, rx, ry, rotation=0.0, red=255, green=255, blue=255, alpha=255)\n\n"
             "Args:\n    x, y: the centre.\n    rx, ry: the half axes.\n"
             "    rotation: the turn of the rx axis.\n" COLOR_DOC)
        .def_property("x", &DDrawingEllipse::x, &DDrawingEllipse::setX, "Column of the centre.")
        .def_property("y", &DDrawingEllipse::y, &DDrawingEllipse::setY, "Row of the centre.")
        .def_property("rx", &DDrawingEllipse::rx, &DDrawingEllipse::setRx, "Half axis along x.")
        .def_property("ry", &DDrawingEllipse::ry, &DDrawingEllipse::setRy, "Half axis along y.")
        .def_property("rotation", &DDrawingEllipse::rotation, &DDrawingEllipse::setRotation, "The turn.")
        .def("__repr__", [](const DDrawingEllipse& e) {
            return "DrawingEllipse(x=" + number(e.x()) + ", y=" + number(e.y()) + ", rx=" + number(e.rx()) +
                   ", ry=" + number(e.ry()) + ", rotation=" + number(e.rotation()) + ", " + colorText(e) + ")";
        });

    py::class_<DStdDrawingList>(m, "DrawingList", R"doc(
A sequence of shapes (DrawingPixel, DrawingLine, DrawingString, DrawingEllipse) to draw over
a frame, stored by value; MessageQueue carries it to another process.

Example:
    spots = norvexa.DrawingList([norvexa.DrawingEllipse(120, 340, 6, 6, red=255, green=64, blue=0)])
    spots.append(norvexa.DrawingString(130, 340, "peak 1"))
)doc")
        .def(py::init<>(), "An empty list.")
        .def(py::init([](const py::iterable& shapes) {
                 DStdDrawingList list;
                 for (py::handle shape : shapes)
                     list.pushBack(shape.cast<const DDrawingPrimitive&>());
                 return list;
             }),
             py::arg("shapes"),
             "DrawingList(shapes): a list of copies of the shapes.\n\nRaises:\n"
             "    TypeError: an item that is no drawing shape.")
        .def(
            "append", [](DStdDrawingList& l, const DDrawingPrimitive& p) { l.pushBack(p); }, py::arg("shape"),
            "Appends a copy of the shape.\n\nArgs:\n    shape: a DrawingPixel, DrawingLine, DrawingString or DrawingEllipse.\n\n"
            "Raises:\n    TypeError: anything else.")
        .def("__len__", &DStdDrawingList::size, "The number of shapes.")
        .def(
            "__getitem__",
            [](const DStdDrawingList& l, long i) {
                if (i < 0)
                    i += static_cast<long>(l.size());
                if (i < 0)
                    throw DOutOfRangeException("Error: Access to DDrawingList is out of range");
                return concrete(l[static_cast<unsigned long>(i)]);
            },
            py::arg("index"),
            "A copy of the shape at `index` (negative counts from the end), as its own class.\n\n"
            "Raises:\n    OutOfRangeException (an IndexError): no such shape.")
        .def(
            "__iter__",
            [](const DStdDrawingList& l) {
                py::list items;
                for (unsigned long i = 0; i < l.size(); ++i)
                    items.append(concrete(l[i]));
                return items.attr("__iter__")();
            },
            "Copies of the shapes, in order, each as its own class.")
        .def("__eq__",
             [](const DStdDrawingList& a, const py::object& b) {
                 if (!py::isinstance<DStdDrawingList>(b))
                     return false;
                 const auto& other = b.cast<const DStdDrawingList&>();
                 if (a.size() != other.size())
                     return false;
                 for (unsigned long i = 0; i < a.size(); ++i)
                     if (!fields(a[i]).equal(fields(other[i])))
                         return false;
                 return true;
             })
        .def("clear", &DStdDrawingList::clear, "Removes every shape and frees the storage.")
        .def_property_readonly("memsize", &DStdDrawingList::memsize, "The bytes allocated (not the bytes in use).")
        .def("__repr__", [](const DStdDrawingList& l) {
            return "<norvexa.DrawingList of " + std::to_string(l.size()) + " shapes>";
        });
}

} // namespace python
} // namespace norvexa

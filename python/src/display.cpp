#include "convert.h"

#include "DColorMap.h"
#include "DColorTable.h"
#include "DContrast.h"
#include "foundation/DException.h"

#include <png.h>

#include <climits>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

namespace norvexa {
namespace python {

using imglib::DColorMap;
using imglib::DColorTable;
using imglib::DImage;

namespace {

const DColorTable& tableOf(const std::string& name, bool reverse)
{
    const DColorTable* table = DColorTable::byName(name);
    if (!table)
        throw DBadParameterException("Unknown colour table \"" + name +
                                     "\": use \"hdr\", \"grey\", \"heat\" or \"rainbow\"");
    return reverse ? *table->inverseTable() : *table;
}

// A UINT 32 "RGBA" colour image (0xRRGGBBAA) as an (h, w, 4) uint8 array in R, G, B, A
// byte order: the words are byte-swapped in place and the array owns the image.
py::array rgbaArray(DImage&& colours)
{
    const py::ssize_t width = colours.width(), height = colours.height();
    auto* owner = new DImage(std::move(colours));
    py::capsule base(owner, [](void* p) { delete static_cast<DImage*>(p); });
    if (owner->empty())
        return py::array(py::dtype("uint8"), {height, width, py::ssize_t(4)});
    auto* words = reinterpret_cast<std::uint32_t*>(owner->data());
    {
        py::gil_scoped_release release;
        for (std::size_t i = 0, n = owner->size(); i < n; ++i)
            words[i] = __builtin_bswap32(words[i]);
    }
    return py::array(py::dtype("uint8"), {height, width, py::ssize_t(4)}, {width * 4, py::ssize_t(4), py::ssize_t(1)},
                     reinterpret_cast<unsigned char*>(words), base);
}

DImage colourImage(const DImage& image, double low, double high, const py::object& logHigh,
                   const std::string& table, const py::object& mask, const py::object& rect,
                   const py::object& saturationValue, bool showDefective, bool showSaturated,
                   bool reverse)
{
    const DColorTable& colours = tableOf(table, reverse);
    const MaskArg maskArg(mask);
    RectArg rectArg(rect);
    if (const imglib::DRect* r = rectArg.get()) {
        // The library reads the rectangle unchecked.
        if (r->left() < 0 || r->top() < 0 || r->width() < 0 || r->height() < 0 ||
            r->right() > image.width() || r->bottom() > image.height())
            throw DOutOfRangeException("Rectangle outside the frame");
    }
    const double logTop = logHigh.is_none() ? high : logHigh.cast<double>();
    int saturation = INT_MAX;
    if (!saturationValue.is_none())
        saturation = saturationValue.cast<int>();
    else if (const auto value = image.optionalData().saturation_value())
        saturation = *value;
    py::gil_scoped_release release;
    return DColorMap::rgb(image, high, low, logTop, colours, "RGBA", maskArg.get(), rectArg.get(),
                          saturation, showDefective, showSaturated);
}

py::array colorMap(const DImage& image, double low, double high, const py::object& logHigh,
                   const std::string& table, const py::object& mask, const py::object& rect,
                   const py::object& saturationValue, bool showDefective, bool showSaturated,
                   bool reverse)
{
    return rgbaArray(colourImage(image, low, high, logHigh, table, mask, rect, saturationValue,
                                 showDefective, showSaturated, reverse));
}

py::tuple contrast(const DImage& image, double factor, unsigned long samples, const py::object& mask)
{
    const MaskArg maskArg(mask);
    double high = 0, low = 0;
    {
        py::gil_scoped_release release;
        imglib::DContrast(factor, samples)(high, low, image, maskArg.get());
    }
    return py::make_tuple(low, high);
}

py::tuple legend(int width, int height, double low, double high, const py::object& logHigh,
                 const std::string& table, bool reverse)
{
    if (width < 0 || height < 0)
        throw DBadParameterException("Legend size must not be negative");
    const DColorTable& colours = tableOf(table, reverse);
    const double logTop = logHigh.is_none() ? high : logHigh.cast<double>();
    DImage bar(width, height, 0u);
    std::map<int, double> ticks;
    {
        py::gil_scoped_release release;
        DColorMap::legend(bar, ticks, high, low, logTop, colours, "RGBA");
    }
    py::dict tickDict;
    for (const auto& tick : ticks)
        tickDict[py::int_(tick.first)] = tick.second;
    return py::make_tuple(rgbaArray(std::move(bar)), tickDict);
}

// ---- PNG through libpng, into memory ----

void appendBytes(png_structp png, png_bytep data, png_size_t length)
{
    auto* out = static_cast<std::vector<unsigned char>*>(png_get_io_ptr(png));
    out->insert(out->end(), data, data + length);
}

// Plain C between setjmp and its longjmp: no object with a destructor lives here.
bool encodePng(std::vector<unsigned char>* out, const unsigned char* rgba, png_uint_32 width,
               png_uint_32 height, png_bytepp rows)
{
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    if (!png)
        return false;
    png_infop info = png_create_info_struct(png);
    if (!info || setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, info ? &info : nullptr);
        return false;
    }
    png_set_write_fn(png, out, &appendBytes, nullptr);
    png_set_compression_level(png, 1);
    png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    for (png_uint_32 y = 0; y < height; ++y)
        rows[y] = const_cast<unsigned char*>(rgba) + static_cast<std::size_t>(y) * width * 4;
    png_set_rows(png, info, rows);
    png_write_png(png, info, PNG_TRANSFORM_IDENTITY, nullptr);
    png_destroy_write_struct(&png, &info);
    return true;
}

py::bytes reprPng(const DImage& image)
{
    if (image.empty())
        return py::bytes();
    double high = 0, low = 0;
    {
        py::gil_scoped_release release;
        imglib::DContrast(3.0, 10000)(high, low, image, nullptr);
    }
    py::array rgba = colorMap(image, low, high, py::float_(high * 100.0), "hdr", py::none(),
                              py::none(), py::none(), true, false, false);
    std::vector<unsigned char> out;
    std::vector<png_bytep> rows(static_cast<std::size_t>(image.height()));
    bool ok;
    {
        const auto* pixels = static_cast<const unsigned char*>(rgba.data());
        py::gil_scoped_release release;
        ok = encodePng(&out, pixels, static_cast<png_uint_32>(image.width()),
                       static_cast<png_uint_32>(image.height()), rows.data());
    }
    if (!ok)
        throw DRuntimeException("PNG encoding failed");
    return py::bytes(reinterpret_cast<const char*>(out.data()), out.size());
}

} // namespace

void initDisplay(py::module_& m)
{
    m.def("color_map", &colorMap, py::arg("image"), py::arg("low"), py::arg("high"),
          py::arg("log_high") = py::none(), py::arg("table") = "hdr", py::arg("mask") = py::none(),
          py::arg("rect") = py::none(), py::arg("saturation_value") = py::none(),
          py::arg("show_defective") = true, py::arg("show_saturated") = true, py::arg("reverse") = false,
          R"doc(color_map(image, low, high, log_high=None, table="hdr", mask=None, rect=None, saturation_value=None, show_defective=True, show_saturated=True, reverse=False) -> numpy.ndarray

The frame in colours, as an (h, w, 4) uint8 RGBA array for PIL
(Image.fromarray(a, "RGBA")) or matplotlib (imshow(a)).

Values from low to high run through the table's linear part; with "hdr" and
log_high > high, values from high to log_high run logarithmically through its bright
part. Gap pixels (mask bit 0) are black, defective ones (bits 1 to 4) the table's
defective colour when show_defective, values >= saturation_value its saturated colour
when show_saturated.

Args:
    image: an Image.
    low, high: the linear section's limits.
    log_high: top of the logarithmic section; None: no logarithmic section.
    table: "hdr", "grey", "heat" or "rainbow"; reverse=True takes it backwards.
    mask: an Image or 2-D array; None: the image's pixel_mask, if any.
    rect: (x, y, width, height) inside the frame: only that part is mapped.
    saturation_value: None: the metadata's saturation_value (or none).
Returns:
    numpy.ndarray of uint8, shape (h, w, 4).
Raises:
    norvexa.BadParameterException (a ValueError): an unknown table.
    norvexa.OutOfRangeException (an IndexError): "Rectangle outside the frame".)doc");

    m.def("contrast", &contrast, py::arg("image"), py::arg("factor"), py::arg("samples"),
          py::arg("mask") = py::none(), R"doc(contrast(image, factor, samples, mask=None) -> (low, high)

Display limits proposed from a reproducible sample of the frame: the background's mean
widened by factor standard deviations (spots, edges and invalid-pixel codes left out).

Args:
    image: an Image.
    factor: the width of the range in standard deviations (3 to 5 suits most frames).
    samples: how many pixels to draw (10000 is plenty).
    mask: an Image or 2-D array; None: the image's pixel_mask, if any.
Returns:
    (low, high) as floats, for color_map.)doc");

    m.def("legend", &legend, py::arg("width"), py::arg("height"), py::arg("low"), py::arg("high"),
          py::arg("log_high") = py::none(), py::arg("table") = "hdr", py::arg("reverse") = false,
          R"doc(legend(width, height, low, high, log_high=None, table="hdr", reverse=False) -> (numpy.ndarray, dict)

The colour bar that goes with color_map(..., low, high, log_high, table): row 0 has the
value low, the rows go up to high and, with a logarithmic section, the upper half runs
logarithmically to log_high (flip it with bar[::-1] to put low at the bottom).

Returns:
    (bar, ticks): bar an (height, width, 4) uint8 RGBA array, ticks a dict from row to
    the value marked there.
Raises:
    norvexa.BadParameterException (a ValueError): an unknown table or a negative size.)doc");

    py::type image = py::type::of<DImage>();
    image.attr("_repr_png_") = py::cpp_function(&reprPng, py::is_method(image), py::name("_repr_png_"),
                                                "_repr_png_() -> bytes\n\nThe frame as a PNG "
                                                "(\"hdr\" colours, limits from contrast(image, 3, "
                                                "10000)), for Jupyter.");
}

} // namespace python
} // namespace norvexa

// RateCorrection, EfficiencyCorrection and BrennikCalibration. Each works on Images in place
// or into its own result, with the GIL released for the work on pixels.
#include "bindings.h"

#include "DBrennikCalibration.h"
#include "DEfficiencyCorrection.h"
#include "DImage.h"
#include "DRateCorrection.h"
#include "foundation/DException.h"

#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <cstring>
#include <string>
#include <vector>

namespace norvexa {
namespace python {

namespace {

using imglib::DBrennikCalibration;
using imglib::DDataCorrection;
using imglib::DEfficiencyCorrection;
using imglib::DImage;
using imglib::DRateCorrection;

/// correctImage with a mask of zeros (nothing excluded) when none is given.
void correct(DDataCorrection& correction, DImage& image, const DImage* mask)
{
    py::gil_scoped_release release;
    if (mask) {
        correction.correctImage(image, *mask);
    } else {
        const DImage none(image.width(), image.height(), static_cast<unsigned char>(0));
        correction.correctImage(image, none);
    }
}

const char* const correctDoc = R"doc(Corrects the image in place.

Args:
    image: the Image, with the metadata the correction needs.
    mask: an Image of the frame's shape whose non-zero pixels are left alone, or None.

Raises:
    BadParameterException: missing or bad metadata (the text names the item).
    RuntimeException: a mask of another size than the image.)doc";

} // namespace

void initCorrections(py::module_& m)
{
    py::class_<DRateCorrection>(m, "RateCorrection", R"doc(
The count-rate correction: maps each measured count of a counting pixel to the count the
incident photons would have given, module by module, through tables interpolated from
simulation files (in the directory the metadata's countrate_correction_bunch_mode names).

Nothing happens until recompute_lookup_table(True); the tables are then built from the
first image (its count_time, bit_depth_readout, mode_register, wavelength,
threshold_energy and modules) and reused while those stay the same. Only integer images
are corrected. One thread at a time per object.
)doc")
        .def(py::init<>(), "A correction with no tables yet.")
        .def("recompute_lookup_table", &DRateCorrection::recomputeLookupTable, py::arg("value"),
             "Turns the building of tables on or off; a change makes the next image rebuild them.\n\n"
             "Args:\n    value: bool.")
        .def(
            "correct", [](DRateCorrection& c, DImage& image, const DImage* mask) { correct(c, image, mask); },
            py::arg("image"), py::arg("mask") = py::none(), correctDoc)
        .def_static(
            "lookup_table",
            [](const std::string& directory, double countTime, double vrf, double thresholdRatio, int size,
               bool retrigger, double slopeLimit) {
                imglib::rateCorrParams params{};
                if (directory.size() >= sizeof params.directory)
                    throw DBadParameterException("Directory name too long: " + directory);
                std::memcpy(params.directory, directory.c_str(), directory.size() + 1);
                params.countTime = countTime;
                params.slopeLimit = slopeLimit;
                params.Vrf = vrf;
                params.thresholdRatio = thresholdRatio;
                params.retrigger = retrigger ? 1 : 0;
                if (size < 1)
                    throw DBadParameterException("size must be positive");
                py::array_t<std::int32_t> table(size);
                int* out = reinterpret_cast<int*>(table.mutable_data());
                std::memset(out, 0, sizeof(int) * static_cast<std::size_t>(size));
                double cutoff;
                {
                    py::gil_scoped_release release;
                    cutoff = DRateCorrection::createLUTFromSimulation(params, out, size);
                }
                return py::make_tuple(cutoff, table);
            },
            py::arg("directory"), py::arg("count_time"), py::arg("vrf"), py::arg("threshold_ratio"),
            py::arg("size"), py::arg("retrigger") = false, py::arg("slope_limit") = 0.2,
            R"doc(One count-rate table from the simulation files, as the correction builds it.

Args:
    directory: the folder of the files "ratecorr_vrf_m0p<vrf>_thr_0p<ratio>[_retrigger].dat".
    count_time: seconds.
    vrf: the module's DAC value (negative).
    threshold_ratio: threshold energy over photon energy.
    size: entries of the table (the counts 0 to size - 1).
    retrigger: use the retrigger files.
    slope_limit: the cutoff's slope of measured over true rate.

Returns:
    (cutoff, table): the measured rate at the cutoff, -1.0 when the files can't be read
    (the table is then zeros); table[count] the corrected count, a numpy int32 array.

Raises:
    BadParameterException: a directory name of 504 bytes or more, or a size below 1.)doc");

    py::class_<DEfficiencyCorrection>(m, "EfficiencyCorrection", R"doc(
The correction for the quantum efficiency of a silicon sensor, pixel by pixel by the angle
of incidence, from the metadata's sensor_thickness, wavelength, beam_center_x/y,
x/y_pixel_size, detector_distance and sensor_material ("Si"). The factors are built once
per parameter set over the mask's shape and then multiply image after image. One thread
at a time per object.

The library keeps its factor image in a stored form that the correction multiplies as it
stands: 32-bit factors in the buffer of a 64-bit float image (see the C++ documentation).
)doc")
        .def(py::init<>(), "A correction with no factors yet.")
        .def(
            "correct", [](DEfficiencyCorrection& c, DImage& image, const DImage* mask) { correct(c, image, mask); },
            py::arg("image"), py::arg("mask") = py::none(), correctDoc)
        .def(
            "read_qe_table",
            [](DEfficiencyCorrection& c, const py::object& path) {
                const std::string text = py::str(py::module_::import("os").attr("fspath")(path));
                c._readQETable(text.c_str());
            },
            py::arg("path"),
            "Reads a table of quantum efficiency: a first row \"<word> angle...\" in degrees, then\n"
            "rows \"keV efficiency...\"; lines beginning with \"#\" are passed over.\n\nArgs:\n"
            "    path: str or path-like.\n\nRaises:\n"
            "    NoFileAccessException: \"Error accessing <path>\".")
        .def("qe", &DEfficiencyCorrection::_qe, py::arg("wavelength"), py::arg("angle"),
             "The efficiency from the table that read_qe_table read, interpolated bilinearly.\n\n"
             "Args:\n    wavelength: angstrom.\n    angle: the angle of incidence in radians.\n\n"
             "Returns:\n    float between 1e-6 and 1 (1e-6 without a usable table).")
        .def(
            "attenuation_coefficient",
            [](DEfficiencyCorrection& c, double wavelength, const std::string& material) {
                if (c.tableRows() == 0)
                    c.readAttenuationCoefficients();
                const float* column = material == "Si"    ? c.si()
                                      : material == "Al"  ? c.al()
                                      : material == "SiN" ? c.siN()
                                                          : nullptr;
                if (!column)
                    throw DBadParameterException("Unknown material " + material + " (Si, Al or SiN)");
                return c.attenuationCoefficient(wavelength, column);
            },
            py::arg("wavelength"), py::arg("material") = "Si",
            "The photo-absorption coefficient of the library's table.\n\nArgs:\n"
            "    wavelength: angstrom.\n    material: \"Si\", \"Al\" or \"SiN\".\n\n"
            "Returns:\n    float: the coefficient in 1/m.\n\nRaises:\n"
            "    BadParameterException: another material.");

    py::class_<DBrennikCalibration>(m, "BrennikCalibration", R"doc(
Evaluates a threshold scan: a stack of images of one scene, one per value of a swept
parameter (the x values). For each pixel it finds where the pixel's curve over the stack
passes a level and writes that position into `result`. Pixels are read as float.
)doc")
        .def(py::init<>(), "A calibration with no stack.")
        .def(
            "set_stack",
            [](DBrennikCalibration& c, const std::vector<DImage*>& images, std::vector<double> xValues) {
                std::vector<DImage> copies;
                copies.reserve(images.size());
                for (const DImage* image : images) {
                    if (!image)
                        throw py::type_error("set_stack takes Images, not None");
                    copies.push_back(*image);
                }
                py::gil_scoped_release release;
                c.setStack(std::move(copies), std::move(xValues));
            },
            py::arg("images"), py::arg("x_values"),
            R"doc(Sets the stack (copies of the images) and its x values.

Args:
    images: a sequence of Images of one size.
    x_values: one float per image.

Raises:
    OutOfRangeException: more than 1000 images.
    BadParameterException: another count of x values than of images, or images of
        different sizes.)doc")
        .def_property_readonly("count", &DBrennikCalibration::count, "Images in the stack.")
        .def(
            "__len__", &DBrennikCalibration::count, "Images in the stack.")
        .def_property_readonly(
            "result", [](const DBrennikCalibration& c) { return DImage(c.result()); },
            "A copy of the last x_at_y or inflection_point result (the first image's size and\n"
            "type), an empty Image before.")
        .def_property_readonly("histogram", &DBrennikCalibration::histogram,
                               "(bin position, count) of the last x_at_y's results, one bin per image.")
        .def("x_at_y",
             [](DBrennikCalibration& c, double level, const DImage* mask) {
                 py::gil_scoped_release release;
                 c.XAtY(level, mask ? *mask : DImage());
             },
             py::arg("level"), py::arg("mask") = py::none(),
             R"doc(Per pixel, the x value at which the curve passes `level` (XAtY), interpolated
between the nearest image and its neighbour towards the level; into `result`.

Args:
    level: the level.
    mask: an Image; pixels where it is 1 keep the first image's value. None masks nothing.)doc")
        .def(
            "inflection_point",
            [](DBrennikCalibration& c, double level) {
                py::gil_scoped_release release;
                c.InvflectionPoint(level);
            },
            py::arg("level"),
            "Per pixel, the stack index at which the curve passes `level` (InvflectionPoint),\n"
            "found by lines fitted through four shrinking windows; into `result`.\n\nArgs:\n"
            "    level: the level.")
        .def_static(
            "linear_regression",
            [](const std::vector<double>& x, const std::vector<double>& y) {
                if (x.size() != y.size())
                    throw DBadParameterException("x and y differ in length");
                double intercept = 0, slope = 0;
                DBrennikCalibration::LinearRegression(0, static_cast<int>(x.size()), x.data(), y.data(), intercept,
                                                      slope);
                return py::make_tuple(intercept, slope);
            },
            py::arg("x"), py::arg("y"),
            "The least-squares line through the points.\n\nArgs:\n    x, y: sequences of floats of one length.\n\n"
            "Returns:\n    (intercept, slope); both 0 when the x values don't spread.\n\nRaises:\n"
            "    BadParameterException: sequences of different lengths.");
}

} // namespace python
} // namespace norvexa

// Detector, FileWriter and Monitor: the REST clients of a detector's server. Every method is
// one HTTP exchange run through runAbortable(), so it releases the GIL, ends on Ctrl-C and
// takes `abort=`. A client object serialises its own calls: the library's clients are one
// thread at a time, Python threads may share one.
#include "abortable.h"

#include "DImage.h"
#include "DOrvikDetector.h"
#include "DOrvikFileWriter.h"
#include "DOrvikMonitor.h"

#include <pybind11/stl.h>

#include <mutex>
#include <string>

namespace norvexa {
namespace python {

namespace {

using imglib::ChoiceValue;
using imglib::DOrvikDetector;
using imglib::DOrvikFileWriter;
using imglib::DOrvikMonitor;
using imglib::RangedValue;

/// A client with the lock that serialises the calls made on it.
template <class Client>
struct Remote {
    Remote(const std::string& host, int port) : client(host, port) {}
    Client client;
    std::timed_mutex serial;
};

using Detector = Remote<DOrvikDetector>;
using FileWriter = Remote<DOrvikFileWriter>;
using Monitor = Remote<DOrvikMonitor>;

/// `work(client, flag)` as an abortable call on `remote`.
template <class Client, class Work>
auto run(Remote<Client>& remote, const py::object& abort, Work work)
{
    return runAbortable(
        abort, [&](const std::atomic<bool>& flag) { return work(remote.client, flag); }, &remote.serial);
}

// The named tuples of the getters, made at import; the module keeps them alive.
PyObject* rangedType = nullptr;
PyObject* choiceType = nullptr;
PyObject* monitorFrameType = nullptr;

template <class T>
py::object ranged(const RangedValue<T>& v)
{
    return py::reinterpret_borrow<py::object>(rangedType)(v.value, v.min, v.max);
}

py::object choice(const ChoiceValue& v)
{
    py::frozenset allowed(py::cast(v.allowed));
    return py::reinterpret_borrow<py::object>(choiceType)(v.value, allowed);
}

PyObject* namedTuple(py::module_& m, const char* name, const char* fields, const char* doc)
{
    py::object type = py::module_::import("collections")
                          .attr("namedtuple")(name, fields, py::arg("module") = "norvexa");
    type.attr("__doc__") = doc;
    m.attr(name) = type;
    return type.ptr();
}

// The shared parts of the docstrings.
#define ABORT_ARG "    abort: a threading.Event (or None); setting it from another thread ends the call.\n"
#define HTTP_RAISES                                                                                \
    "    HttpException: the server refused (.status is the HTTP status, str(e) its text).\n"      \
    "    RuntimeException: the transfer failed, or the reply was no valid JSON.\n"                 \
    "    KeyboardInterrupt: Ctrl-C during the call (it ends within about 100 ms).\n"               \
    "    TerminateException: `abort` was set.\n"

#define GETTER_DOC(what, returns)                                                                  \
    what "\n\nArgs:\n" ABORT_ARG "\nReturns:\n    " returns "\n\nRaises:\n" HTTP_RAISES
#define SETTER_DOC(what, valuedoc)                                                                      \
    what "\n\nArgs:\n    value: " valuedoc "\n" ABORT_ARG "\nRaises:\n" HTTP_RAISES
#define COMMAND_DOC(what) what "\n\nArgs:\n" ABORT_ARG "\nRaises:\n" HTTP_RAISES

template <class Class>
void bindAddress(Class& c)
{
    using Holder = typename Class::type;
    c.def_property_readonly(
         "host", [](const Holder& r) { return r.client.host(); }, "The server's host, as given.")
        .def_property_readonly(
            "port", [](const Holder& r) { return r.client.port(); }, "The server's HTTP port.")
        .def("__repr__", [](const Holder& r) {
            return "<norvexa." + py::str(py::type::of<Holder>().attr("__name__")).cast<std::string>() +
                   " " + r.client.host() + ":" + std::to_string(r.client.port()) + ">";
        });
}

// Binds a getter `name` and, with `setter`, its setter "set_<name>".
#define DETECTOR_RANGED(name, getter, setter, T, what, unit)                                         \
    d.def(                                                                                         \
         name,                                                                                     \
         [](Detector& r, const py::object& abort) {                                                \
             return ranged(run(r, abort, [](DOrvikDetector& c, const std::atomic<bool>& f) {       \
                 return c.getter(f);                                                               \
             }));                                                                                  \
         },                                                                                        \
         py::kw_only(), py::arg("abort") = py::none(),                                             \
         GETTER_DOC("The " what " with the limits the server states.",                             \
                    "Ranged(value, min, max), in " unit "."))                                      \
        .def(                                                                                      \
            "set_" name,                                                                           \
            [](Detector& r, T value, const py::object& abort) {                                    \
                run(r, abort, [value](DOrvikDetector& c, const std::atomic<bool>& f) {             \
                    c.setter(value, f);                                                            \
                });                                                                                \
            },                                                                                     \
            py::arg("value"), py::kw_only(), py::arg("abort") = py::none(),                        \
            SETTER_DOC("Writes the " what "; a value outside the limits is refused (400).", unit));

#define DETECTOR_SET(name, setter, T, what, valuedoc)                                                     \
    d.def(                                                                                         \
        name,                                                                                      \
        [](Detector& r, T value, const py::object& abort) {                                        \
            run(r, abort,                                                                          \
                [value](DOrvikDetector& c, const std::atomic<bool>& f) { c.setter(value, f); });   \
        },                                                                                         \
        py::arg("value"), py::kw_only(), py::arg("abort") = py::none(), SETTER_DOC(what, valuedoc));

#define DETECTOR_GET(name, getter, what, returns)                                                    \
    d.def(                                                                                         \
        name,                                                                                      \
        [](Detector& r, const py::object& abort) {                                                 \
            return run(r, abort,                                                                   \
                       [](DOrvikDetector& c, const std::atomic<bool>& f) { return c.getter(f); }); \
        },                                                                                         \
        py::kw_only(), py::arg("abort") = py::none(), GETTER_DOC(what, returns));

#define DETECTOR_CHOICE(name, getter, setter, what)                                                  \
    d.def(                                                                                         \
         name,                                                                                     \
         [](Detector& r, const py::object& abort) {                                                \
             return choice(run(r, abort, [](DOrvikDetector& c, const std::atomic<bool>& f) {       \
                 return c.getter(f);                                                               \
             }));                                                                                  \
         },                                                                                        \
         py::kw_only(), py::arg("abort") = py::none(),                                             \
         GETTER_DOC("The " what " with the values the server allows.",                             \
                    "Choice(value, allowed): a str and a frozenset of str."))                      \
        .def(                                                                                      \
            "set_" name,                                                                           \
            [](Detector& r, const std::string& value, const py::object& abort) {                   \
                run(r, abort, [&value](DOrvikDetector& c, const std::atomic<bool>& f) {            \
                    c.setter(value, f);                                                            \
                });                                                                                \
            },                                                                                     \
            py::arg("value"), py::kw_only(), py::arg("abort") = py::none(),                        \
            SETTER_DOC("Writes the " what "; a value not allowed is refused (400).", "a str"));

#define DETECTOR_COMMAND(name, method, what)                                                         \
    d.def(                                                                                         \
        name,                                                                                      \
        [](Detector& r, const py::object& abort) {                                                 \
            run(r, abort, [](DOrvikDetector& c, const std::atomic<bool>& f) { c.method(f); });     \
        },                                                                                         \
        py::kw_only(), py::arg("abort") = py::none(), COMMAND_DOC(what));

void bindDetector(py::module_& m)
{
    py::class_<Detector> d(m, "Detector", R"doc(
The remote control of one detector over its REST interface ("/detector/api/1.0.0/...").

Every method is one HTTP exchange; nothing is cached or checked here: limits and states
are the server's, and a refusal raises HttpException with the server's status and text.
Every method releases the GIL, ends on Ctrl-C (KeyboardInterrupt) and takes a keyword
`abort`, a threading.Event whose setting ends it (TerminateException). Calls on one
object from several threads run one after the other.

Example:
    det = norvexa.Detector("127.0.0.1", 8080)
    det.set_count_time(0.1)
    det.count_time()          # Ranged(value=0.1, min=..., max=...)
    det.arm(); det.trigger(); det.disarm()
)doc");
    d.def(py::init<const std::string&, int>(), py::arg("host"), py::arg("port"),
          "Detector(host, port): a client of the server at host (with or without \"http://\")\n"
          "and port. Talks to nobody yet.\n\nRaises:\n"
          "    RuntimeException: no connection handle could be made.");
    bindAddress(d);
    DETECTOR_GET("version", version, "The server's interface version.", "str")
    DETECTOR_GET("status", status, "The detector's state (\"idle\", \"ready\", \"acquire\", ...).", "str")
    DETECTOR_GET("is_error", isError,
                 "Whether the detector's state resource reports anything but \"normal\".", "bool")
    DETECTOR_GET("description", description, "The detector's model text.", "str")
    DETECTOR_GET("detector_number", detectorNumber, "The detector's serial number.", "str")
    DETECTOR_RANGED("count_time", countTime, setCountTime, double, "count time", "seconds")
    DETECTOR_RANGED("frame_time", frameTime, setFrameTime, double, "frame time", "seconds")
    DETECTOR_RANGED("nimages", nImages, setNImages, int, "number of images per trigger", "images")
    DETECTOR_RANGED("photon_energy", photonEnergy, setPhotonEnergy, double, "photon energy", "eV")
    DETECTOR_RANGED("threshold_energy", thresholdEnergy, setThresholdEnergy, double,
                    "threshold energy", "eV")
    DETECTOR_CHOICE("element", element, setElement, "element of the photon energy")
    DETECTOR_CHOICE("trigger_mode", triggerMode, setTriggerMode, "trigger mode")
    DETECTOR_GET("flatfield_correction_applied", flatfieldCorrectionApplied,
                 "Whether the detector applies its flat field.", "bool")
    DETECTOR_SET("set_flatfield_correction_applied", setFlatfieldCorrectionApplied, bool,
                 "Switches the detector's flat-field correction.", "bool")
    DETECTOR_GET("pixel_mask_applied", pixelMaskApplied,
                 "Whether the detector applies its pixel mask.", "bool")
    DETECTOR_SET("set_pixel_mask_applied", setPixelMaskApplied, bool,
                 "Switches the detector's pixel mask.", "bool")
    DETECTOR_SET("set_auto_summation", setAutoSummation, bool,
                 "Switches the summation of sub-frames (write-only on the server).", "bool")
    DETECTOR_SET("set_countrate_correction_applied", setCountrateCorrectionApplied, bool,
                 "Switches the count-rate correction (write-only on the server).", "bool")
    DETECTOR_SET("set_virtual_pixel_correction_applied", setVirtualPixelCorrectionApplied, bool,
                 "Switches the virtual-pixel correction (write-only on the server).", "bool")
    DETECTOR_SET("set_calibration_type", setCalibrationType, const std::string&,
                 "Writes the calibration type (write-only on the server).", "str")
    DETECTOR_SET("set_countrate_correction_bunch_mode", setCountrateCorrectionBunchMode,
                 const std::string&,
                 "Writes the count-rate correction's bunch mode (write-only on the server).", "str")
    DETECTOR_COMMAND("initialize", initialize, "Initialises the detector (the state becomes \"idle\").")
    DETECTOR_COMMAND("arm", arm, "Arms the detector for a series (\"idle\" to \"ready\").")
    DETECTOR_COMMAND("trigger", trigger, "Starts the acquisition of an armed detector.")
    DETECTOR_COMMAND("disarm", disarm, "Ends the series and disarms the detector.")
    DETECTOR_COMMAND("abort", abort,
                     "Aborts the running acquisition (the detector's command \"abort\"; the\n"
                     "keyword `abort` is the Event that calls off this request itself).")
}

void bindFileWriter(py::module_& m)
{
    py::class_<FileWriter> w(m, "FileWriter", R"doc(
The file writer of a detector's server ("/filewriter/api/1.5.0/..."): switches writing on
and off, lists, fetches and deletes the files of its file area. Blocking as Detector is:
GIL released, Ctrl-C, keyword `abort`.
)doc");
    w.def(py::init<const std::string&, int>(), py::arg("host"), py::arg("port"),
          "FileWriter(host, port): a client of the server at host and port.\n\nRaises:\n"
          "    RuntimeException: no connection handle could be made.");
    bindAddress(w);
    w.def(
         "version",
         [](FileWriter& r, const py::object& abort) {
             return run(r, abort, [](DOrvikFileWriter& c, const std::atomic<bool>& f) { return c.version(f); });
         },
         py::kw_only(), py::arg("abort") = py::none(), GETTER_DOC("The file writer's interface version.", "str"))
        .def(
            "enabled",
            [](FileWriter& r, const py::object& abort) {
                return run(r, abort, [](DOrvikFileWriter& c, const std::atomic<bool>& f) { return c.enabled(f); });
            },
            py::kw_only(), py::arg("abort") = py::none(),
            GETTER_DOC("Whether the writer's mode is \"enabled\".", "bool"))
        .def(
            "set_enabled",
            [](FileWriter& r, bool value, const py::object& abort) {
                run(r, abort, [value](DOrvikFileWriter& c, const std::atomic<bool>& f) { c.setEnabled(value, f); });
            },
            py::arg("value"), py::kw_only(), py::arg("abort") = py::none(),
            SETTER_DOC("Writes the mode \"enabled\" or \"disabled\".", "bool"))
        .def(
            "list_files",
            [](FileWriter& r, const py::object& abort) {
                return run(r, abort, [](DOrvikFileWriter& c, const std::atomic<bool>& f) { return c.listFiles(f); });
            },
            py::kw_only(), py::arg("abort") = py::none(),
            GETTER_DOC("The names of the files in the server's file area.", "list of str"))
        .def(
            "remove",
            [](FileWriter& r, const std::string& name, const py::object& abort) {
                run(r, abort, [&name](DOrvikFileWriter& c, const std::atomic<bool>& f) { c.remove(name, f); });
            },
            py::arg("name"), py::kw_only(), py::arg("abort") = py::none(),
            "Deletes the file `name` of the server's file area.\n\nArgs:\n"
            "    name: the file's name as list_files() gives it.\n" ABORT_ARG "\nRaises:\n" HTTP_RAISES)
        .def(
            "download",
            [](FileWriter& r, const std::string& name, const py::object& directory, const py::object& abort) {
                const std::string dir = py::str(py::module_::import("os").attr("fspath")(directory));
                return run(r, abort, [&](DOrvikFileWriter& c, const std::atomic<bool>& f) {
                    return c.download(name, dir, f);
                });
            },
            py::arg("name"), py::arg("directory"), py::kw_only(), py::arg("abort") = py::none(),
            "Fetches the file `name` into directory/name.\n\nArgs:\n"
            "    name: the file's name as list_files() gives it; a sub-directory in it must exist.\n"
            "    directory: a str or path-like.\n" ABORT_ARG "\nReturns:\n"
            "    int: the size the reply's content-length states.\n\nRaises:\n" HTTP_RAISES
            "    (after a refusal the local file holds the server's page.)\n");
}

void bindMonitor(py::module_& m)
{
    monitorFrameType = namedTuple(m, "MonitorFrame", "image series image_number",
                                  "An image of the monitor with the numbers the server gave it.");
    py::class_<Monitor> mon(m, "Monitor", R"doc(
The monitor interface of a detector's server ("/monitor/api/1.0.0/..."): single recent
images as Image, and control of the server's buffer of them. Blocking as Detector is: GIL
released, Ctrl-C, keyword `abort`.
)doc");
    mon.def(py::init<const std::string&, int>(), py::arg("host"), py::arg("port"),
            "Monitor(host, port): a client of the server at host and port.\n\nRaises:\n"
            "    RuntimeException: no connection handle could be made.");
    bindAddress(mon);
    mon.def(
           "version",
           [](Monitor& r, const py::object& abort) {
               return run(r, abort, [](DOrvikMonitor& c, const std::atomic<bool>& f) { return c.version(f); });
           },
           py::kw_only(), py::arg("abort") = py::none(), GETTER_DOC("The monitor's interface version.", "str"))
        .def(
            "enabled",
            [](Monitor& r, const py::object& abort) {
                return run(r, abort, [](DOrvikMonitor& c, const std::atomic<bool>& f) { return c.enabled(f); });
            },
            py::kw_only(), py::arg("abort") = py::none(),
            GETTER_DOC("Whether the monitor's mode is \"enabled\".", "bool"))
        .def(
            "set_enabled",
            [](Monitor& r, bool value, const py::object& abort) {
                run(r, abort, [value](DOrvikMonitor& c, const std::atomic<bool>& f) { c.setEnabled(value, f); });
            },
            py::arg("value"), py::kw_only(), py::arg("abort") = py::none(),
            SETTER_DOC("Writes the mode \"enabled\" or \"disabled\".", "bool"))
        .def(
            "buffer_size",
            [](Monitor& r, const py::object& abort) {
                return run(r, abort, [](DOrvikMonitor& c, const std::atomic<bool>& f) { return c.bufferSize(f); });
            },
            py::kw_only(), py::arg("abort") = py::none(),
            GETTER_DOC("How many recent images the server keeps.", "int"))
        .def(
            "set_buffer_size",
            [](Monitor& r, int value, const py::object& abort) {
                run(r, abort, [value](DOrvikMonitor& c, const std::atomic<bool>& f) { c.setBufferSize(value, f); });
            },
            py::arg("value"), py::kw_only(), py::arg("abort") = py::none(),
            SETTER_DOC("Sets how many recent images the server keeps.", "int"))
        .def(
            "clear",
            [](Monitor& r, const py::object& abort) {
                run(r, abort, [](DOrvikMonitor& c, const std::atomic<bool>& f) { c.clear(f); });
            },
            py::kw_only(), py::arg("abort") = py::none(), COMMAND_DOC("Empties the server's buffer."));

    // The four image getters differ in the view ("monitor": the latest image, "next": the
    // next one not handed out yet) and in whether the numbers come along.
    const char* const imageRaises =
        "\nRaises:\n"
        "    TimeoutException: no image came within the time (the server's 408).\n" HTTP_RAISES;
    struct View {
        const char* name;
        const char* what;
        bool all;
        bool next;
    };
    const View views[] = {
        {"monitor", "The latest image of the server's buffer.", false, false},
        {"next", "The next image that the server has not handed out yet.", false, true},
        {"monitor_all", "The latest image with its series and image numbers.", true, false},
        {"next_all", "The next image not handed out yet, with its series and image numbers.", true, true},
    };
    for (const View& v : views) {
        const std::string doc = std::string(v.what) +
                                "\n\nArgs:\n"
                                "    timeout_ms: how long the server waits for an image, in milliseconds.\n" ABORT_ARG
                                "\nReturns:\n" +
                                (v.all ? "    MonitorFrame(image, series, image_number)\n"
                                       : "    Image: the decoded frame.\n") +
                                imageRaises;
        const bool next = v.next;
        if (v.all)
            mon.def(
                v.name,
                [next](Monitor& r, int timeout, const py::object& abort) {
                    imglib::MonitorFrame frame =
                        run(r, abort, [&](DOrvikMonitor& c, const std::atomic<bool>& f) {
                            return next ? c.nextAll(timeout, f) : c.monitorAll(timeout, f);
                        });
                    return py::reinterpret_borrow<py::object>(monitorFrameType)(
                        std::move(frame.image), frame.series, frame.imageNumber);
                },
                py::arg("timeout_ms") = 500, py::kw_only(), py::arg("abort") = py::none(), doc.c_str());
        else
            mon.def(
                v.name,
                [next](Monitor& r, int timeout, const py::object& abort) {
                    return run(r, abort, [&](DOrvikMonitor& c, const std::atomic<bool>& f) {
                        return next ? c.next(timeout, f) : c.monitor(timeout, f);
                    });
                },
                py::arg("timeout_ms") = 500, py::kw_only(), py::arg("abort") = py::none(), doc.c_str());
    }
}

} // namespace

void initClients(py::module_& m)
{
    rangedType = namedTuple(m, "Ranged", "value min max",
                            "A parameter's value with the limits the server states for it.");
    choiceType = namedTuple(m, "Choice", "value allowed",
                            "A parameter's value with the values (a frozenset) the server allows.");
    bindDetector(m);
    bindFileWriter(m);
    bindMonitor(m);
}

} // namespace python
} // namespace norvexa

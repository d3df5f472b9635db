// Stream: a detector's live stream, received one message at a time in the caller's process.
// Each receive goes through runAbortable(), so it releases the GIL, ends on Ctrl-C and takes
// `abort=`. An image stays in the form it came in (a compressed chunk, usually) until the
// caller asks for an Image.
#include "abortable.h"
#include "convert.h"

#include "DImage.h"
#include "DHttpClient.h"
#include "DOrvikStream.h"
#include "DStreamClient.h"
#include "DStreamObject.h"
#include "foundation/DException.h"
#include "foundation/nexus/DBasicNeXusTree.h"
#include "orviktools.h"

#include <pybind11/stl.h>

#include <cmath>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace norvexa {
namespace python {

namespace {

using imglib::DStreamClient;
using imglib::DStreamConfig;
using imglib::DStreamData;
using imglib::DStreamEnd;
using imglib::DStreamObject;

/// A receiving socket that close() can drop before the Python object goes.
struct Stream {
    /// Drops the socket once no receive runs (a receive holds `serial`).
    void close()
    {
        py::gil_scoped_release release;
        std::lock_guard<std::timed_mutex> lock(serial);
        client.reset();
    }

    Stream(std::string host, int port, std::optional<int> restPort)
        : host(std::move(host)), port(port), client(std::make_unique<DStreamClient>(this->host, port))
    {
        if (restPort)
            rest = std::make_unique<imglib::DHttpClient>(this->host, *restPort);
    }
    /// The stream interface's REST control, as DOrvikStream has it, on its own client and
    /// lock: a receive that waits does not hold up a switch of the mode.
    template <class Work>
    auto control(const py::object& abort, Work work)
    {
        if (!rest)
            throw DRuntimeException("Stream " + host + ":" + std::to_string(port) +
                                    " has no REST control: give rest_port");
        return runAbortable(
            abort, [&](const std::atomic<bool>& flag) { return work(*rest, flag); }, &restSerial);
    }
    static std::string config(const char* name)
    {
        return std::string("/stream/api/") + imglib::DOrvikStream::API_VERSION + "/config/" + name;
    }
    DStreamClient& open() const
    {
        if (!client)
            throw DRuntimeException("Stream " + host + ":" + std::to_string(port) + " is closed");
        return *client;
    }

    std::string host;
    int port;
    std::unique_ptr<DStreamClient> client;
    std::timed_mutex serial;
    std::unique_ptr<imglib::DHttpClient> rest;
    std::timed_mutex restSerial;
};

/// The value of a dataset or attribute: str for a text, a number for a scalar, a list of
/// numbers for an array.
py::object nodeValue(const nexus::DNeXusTree::Data& node)
{
    const auto& value = node.data();
    if (value.type() == datatypes::NONE || value.size() == 0)
        return py::none();
    if (value.type() == datatypes::CHAR) {
        std::string text;
        node.asType(text, 1);
        return py::str(text);
    }
    const unsigned long count = value.size();
    py::list items;
    if (value.type() == datatypes::FLOAT) {
        std::vector<double> numbers(count);
        node.asType(numbers[0], count);
        for (double x : numbers)
            items.append(py::float_(x));
    } else if (value.type() == datatypes::UINT) {
        std::vector<unsigned long long> numbers(count);
        node.asType(numbers[0], count);
        for (unsigned long long x : numbers)
            items.append(py::int_(x));
    } else if (value.type() == datatypes::BOOL) {
        std::vector<bool> flags(count);
        for (unsigned long i = 0; i < count; ++i)
            flags[i] = value.cdata()[i] != 0;
        for (bool x : flags)
            items.append(py::bool_(x));
    } else {
        std::vector<long long> numbers(count);
        node.asType(numbers[0], count);
        for (long long x : numbers)
            items.append(py::int_(x));
    }
    if (count == 1 && value.shape().size() <= 1)
        return items[0];
    return std::move(items);
}

/// The tree's datasets as {absolute path: value}, in the tree's order.
py::dict treeDict(const nexus::DNeXusTree& tree)
{
    py::dict result;
    for (const auto* node : tree.root().children(true))
        if (node->type() == nexus::NeXusData)
            result[py::str(node->path())] = nodeValue(node->asData());
    return result;
}

/// The "units" attribute of every dataset that has one, as {path: unit}.
py::dict treeUnits(const nexus::DNeXusTree& tree)
{
    py::dict result;
    for (const auto* node : tree.root().children(true)) {
        if (node->type() != nexus::NeXusData)
            continue;
        for (const auto* attribute : node->asData().attributes())
            if (attribute->name() == "units")
                result[py::str(node->path())] = nodeValue(attribute->asData());
    }
    return result;
}

py::object message(DStreamObject object)
{
    switch (object.type()) {
    case DStreamObject::CONFIG:
        return py::cast(object.config());
    case DStreamObject::DATA:
        return py::cast(object.data());
    default:
        return py::cast(object.end());
    }
}

double checkedTimeout(const py::object& timeout)
{
    if (timeout.is_none())
        return 0.0; // the library's "for ever"
    const double seconds = timeout.cast<double>();
    if (!(seconds > 0.0) || !std::isfinite(seconds))
        throw DBadParameterException("timeout must be a positive number of seconds or None");
    return seconds;
}

py::object pop(Stream& stream, double timeout, const py::object& abort)
{
    // open() under the lock: close() takes the same lock, so the client stays for the call.
    return message(runAbortable(
        abort, [&](const std::atomic<bool>& flag) { return stream.open().pop(timeout, flag); },
        &stream.serial));
}

/// The iterator of Stream.messages(): pops until it has yielded an end message.
struct Messages {
    py::object stream; // keeps the Stream alive while the iterator is
    double timeout;
    py::object abort;
    bool finished = false;
};

#define ABORT_ARG "    abort: a threading.Event (or None); setting it from another thread ends the wait.\n"
#define CONTROL_RAISES                                                                             \
    "    RuntimeException: no rest_port was given; a failed transfer or reply.\n"                 \
    "    HttpException: the server refused (.status is the HTTP status, str(e) its text).\n"      \
    "    KeyboardInterrupt: Ctrl-C during the call (it ends within about 100 ms).\n"               \
    "    TerminateException: `abort` was set.\n"
#define RECEIVE_RAISES                                                                             \
    "    TimeoutException: no message within `timeout` (.time: the seconds waited).\n"             \
    "    RuntimeException: a malformed message (the next receive goes on with the next one),\n"    \
    "        or the stream was closed.\n"                                                          \
    "    KeyboardInterrupt: Ctrl-C during the wait (it ends within about 100 ms).\n"               \
    "    TerminateException: `abort` was set.\n"

} // namespace

void initStream(py::module_& m)
{
    py::class_<DStreamConfig>(m, "StreamHeader", "The header of a live series: its number and the detector's configuration.")
        .def_property_readonly("series_id", &DStreamConfig::seriesId, "The series number (int).")
        .def_property_readonly(
            "config", [](const DStreamConfig& c) { return treeDict(c.config()); },
            "The detector's configuration as {NeXus path: value}, e.g.\n"
            "config[\"/entry/instrument/detector/count_time\"]; empty for the header detail \"none\".\n"
            "Texts are str, scalars int/float/bool, arrays lists.")
        .def_property_readonly(
            "metadata",
            [](const DStreamConfig& c) {
                imglib::DImageOptionalData metadata;
                metadata.neXus() = c.config();
                return metadata;
            },
            "The configuration as a Metadata (count_time, wavelength, ... read from the tree);\n"
            "Hdf5Writer(path, n, header=message.metadata) starts its files from it.")
        .def_property_readonly(
            "units", [](const DStreamConfig& c) { return treeUnits(c.config()); },
            "The \"units\" attribute of each configuration item that has one, as {path: unit}.")
        .def("__repr__", [](const DStreamConfig& c) {
            return "<norvexa.StreamHeader series " + std::to_string(c.seriesId()) + ", " +
                   std::to_string(py::len(treeDict(c.config()))) + " items>";
        });

    py::class_<DStreamData>(m, "StreamImage", R"doc(
One image of a live series, in the form in which it came: plain pixels or a compressed
chunk (`data`). Nothing is decoded until image() or norvexa.Image(message.data).)doc")
        .def_property_readonly("image_id", &DStreamData::imageId, "The image's number in the series (the wire's \"frame\").")
        .def_property_readonly(
            "data",
            [](const DStreamData& d) {
                StoredChunk chunk;
                chunk.pixels = d.data(); // shares the buffer, no copy of the pixels
                return chunk;
            },
            "The image as it came, a StoredChunk (plain pixels or a compressed chunk, no\n"
            "metadata): norvexa.Image(message.data) decodes it, Hdf5Writer.write(message.data)\n"
            "stores it as it stands.")
        .def(
            "image",
            [](const DStreamData& d) {
                StoredChunk chunk;
                chunk.pixels = d.data();
                return decodeChunk(chunk);
            },
            R"doc(Decodes the image.

Returns:
    Image: the pixels, decoded, without metadata.

Raises:
    ImageCorruptedException: the chunk does not decode.)doc")
        .def("__repr__", [](const DStreamData& d) {
            return "<norvexa.StreamImage " + std::to_string(d.imageId()) + " " +
                   py::repr(py::cast(d).attr("data")).cast<std::string>() + ">";
        });

    py::class_<DStreamEnd>(m, "StreamEnd", "The end of a live series.")
        .def_property_readonly("series_id", &DStreamEnd::seriesId, "The series number (int).")
        .def("__repr__", [](const DStreamEnd& e) {
            return "<norvexa.StreamEnd series " + std::to_string(e.seriesId()) + ">";
        });

    py::class_<Messages>(m, "StreamMessages", "The iterator that Stream.messages() returns.")
        .def("__iter__", [](py::object self) { return self; }, "The iterator itself.")
        .def(
            "__next__",
            [](Messages& it) {
                if (it.finished)
                    throw py::stop_iteration();
                py::object next = pop(it.stream.cast<Stream&>(), it.timeout, it.abort);
                it.finished = py::isinstance<DStreamEnd>(next);
                return next;
            },
            "The next message; StopIteration after the end message.\n\nRaises:\n" RECEIVE_RAISES);

    py::class_<Stream>(m, "Stream", R"doc(
The receiving end of a detector's live stream: a ZeroMQ socket connected to
tcp://host:port, on which the detector pushes, for every series, a header
(StreamHeader), each image (StreamImage) and an end (StreamEnd). The socket connects in
the background: a detector that is not up yet is no failure here.

Every receive releases the GIL, ends on Ctrl-C (KeyboardInterrupt) and takes a keyword
`abort`, a threading.Event whose setting ends it (TerminateException).

With `rest_port`, the stream interface's REST control on the detector's HTTP port comes
along: set_enabled(), set_header_detail(), dropped(), as the detector's other clients have
them (one HTTP exchange each, GIL released, Ctrl-C, `abort=`).

Example:
    with norvexa.Stream("127.0.0.1", 9999, rest_port=80) as stream:
        stream.set_enabled(True)
        for message in stream.messages(timeout=5):
            if isinstance(message, norvexa.StreamImage):
                frame = norvexa.Image(message.data)
)doc")
        .def(py::init<std::string, int, std::optional<int>>(), py::arg("host"), py::arg("port") = 9999,
             py::kw_only(), py::arg("rest_port") = py::none(),
             "Stream(host, port=9999, *, rest_port=None): a socket connected to the stream's data\n"
             "port, and with rest_port the REST control of the stream interface.\n\nRaises:\n"
             "    RuntimeException: the socket could not be made.")
        .def_readonly("host", &Stream::host, "The detector's host.")
        .def_readonly("port", &Stream::port, "The stream's data port.")
        .def(
            "pop",
            [](Stream& s, const py::object& timeout, const py::object& abort) {
                return pop(s, checkedTimeout(timeout), abort);
            },
            py::arg("timeout") = py::none(), py::kw_only(), py::arg("abort") = py::none(),
            "Receives the next message.\n\nArgs:\n"
            "    timeout: seconds to wait at most, or None to wait for ever. A message already\n"
            "        waiting is delivered whatever the timeout.\n" ABORT_ARG
            "\nReturns:\n    StreamHeader, StreamImage or StreamEnd.\n\nRaises:\n"
            "    BadParameterException: a timeout that is not positive.\n" RECEIVE_RAISES)
        .def(
            "messages",
            [](py::object self, const py::object& timeout, const py::object& abort) {
                self.cast<Stream&>().open();
                return Messages{self, checkedTimeout(timeout), abort};
            },
            py::arg("timeout") = py::none(), py::kw_only(), py::arg("abort") = py::none(),
            "The messages of one series as an iterator: the header, each image, and the end,\n"
            "after which the iteration stops. A stream joined mid-series starts with images.\n\n"
            "Args:\n"
            "    timeout: seconds to wait at most for each message, or None to wait for ever.\n" ABORT_ARG
            "\nReturns:\n    an iterator of StreamHeader, StreamImage and StreamEnd.\n\n"
            "Raises (from the iteration):\n"
            "    BadParameterException: a timeout that is not positive (at the call).\n" RECEIVE_RAISES)
        .def(
            "version",
            [](Stream& s, const py::object& abort) {
                return s.control(abort, [](imglib::DHttpClient& c, const std::atomic<bool>& f) {
                    return imglib::orviktools::httpGetValue<std::string>("/stream/api/version/", c, f);
                });
            },
            py::kw_only(), py::arg("abort") = py::none(),
            "The server's version of the stream interface.\n\nArgs:\n" ABORT_ARG
            "\nReturns:\n    str\n\nRaises:\n" CONTROL_RAISES)
        .def(
            "enabled",
            [](Stream& s, const py::object& abort) {
                return s.control(abort, [](imglib::DHttpClient& c, const std::atomic<bool>& f) {
                    return imglib::orviktools::httpGetEnabled(Stream::config("mode"), c, f);
                });
            },
            py::kw_only(), py::arg("abort") = py::none(),
            "Whether the stream's mode is \"enabled\".\n\nArgs:\n" ABORT_ARG
            "\nReturns:\n    bool\n\nRaises:\n" CONTROL_RAISES)
        .def(
            "set_enabled",
            [](Stream& s, bool value, const py::object& abort) {
                s.control(abort, [value](imglib::DHttpClient& c, const std::atomic<bool>& f) {
                    imglib::orviktools::httpPutEnabled(Stream::config("mode"), c, value, f);
                });
            },
            py::arg("value"), py::kw_only(), py::arg("abort") = py::none(),
            "Switches the detector's stream on or off (the mode \"enabled\" or \"disabled\").\n\n"
            "Args:\n    value: bool.\n" ABORT_ARG "\nRaises:\n" CONTROL_RAISES)
        .def(
            "header_detail",
            [](Stream& s, const py::object& abort) {
                return s.control(abort, [](imglib::DHttpClient& c, const std::atomic<bool>& f) {
                    return imglib::orviktools::httpGetValue<std::string>(Stream::config("header_detail"), c, f);
                });
            },
            py::kw_only(), py::arg("abort") = py::none(),
            "How much configuration the headers carry.\n\nArgs:\n" ABORT_ARG
            "\nReturns:\n    str: \"none\", \"basic\" or \"all\".\n\nRaises:\n" CONTROL_RAISES)
        .def(
            "set_header_detail",
            [](Stream& s, const std::string& value, const py::object& abort) {
                s.control(abort, [&value](imglib::DHttpClient& c, const std::atomic<bool>& f) {
                    imglib::orviktools::httpPutValue<std::string>(Stream::config("header_detail"), c, value, f);
                });
            },
            py::arg("value"), py::kw_only(), py::arg("abort") = py::none(),
            "Sets how much configuration the headers carry.\n\nArgs:\n"
            "    value: \"none\", \"basic\" or \"all\" (passed on unchecked).\n" ABORT_ARG
            "\nRaises:\n" CONTROL_RAISES)
        .def(
            "dropped",
            [](Stream& s, const py::object& abort) {
                return s.control(abort, [](imglib::DHttpClient& c, const std::atomic<bool>& f) {
                    return imglib::orviktools::httpGetValue<int>(
                        std::string("/stream/api/") + imglib::DOrvikStream::API_VERSION + "/status/dropped", c, f);
                });
            },
            py::kw_only(), py::arg("abort") = py::none(),
            "Images the detector could not send in the current series.\n\nArgs:\n" ABORT_ARG
            "\nReturns:\n    int\n\nRaises:\n" CONTROL_RAISES)
        .def(
            "close", &Stream::close,
            "Closes the socket once no receive of another thread runs; messages not received\n"
            "are lost. Harmless when closed already.")
        .def_property_readonly(
            "closed", [](const Stream& s) { return !s.client; }, "Whether close() was called.")
        .def("__enter__", [](py::object self) { return self; }, "The stream itself.")
        .def(
            "__exit__", [](Stream& s, const py::args&) { s.close(); },
            "Closes the socket.")
        .def("__repr__", [](const Stream& s) {
            return "<norvexa.Stream tcp://" + s.host + ":" + std::to_string(s.port) +
                   (s.client ? ">" : " closed>");
        });
}

} // namespace python
} // namespace norvexa

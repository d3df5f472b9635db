// MessageQueue: the shared-memory channel between two processes of one machine. Texts,
// Images, DrawingLists and pixel lists (numpy arrays of pixel_dtype) cross it; every wait
// goes through runAbortable() (GIL released, Ctrl-C, `abort=`) and the queue's abort flag.
#include "abortable.h"
#include "drawing.h"

#include "DImage.h"
#include "DMessageQueue.h"

#include <memory>
#include <shared_mutex>
#include <string>

namespace norvexa {
namespace python {

namespace {

using imglib::DArray;
using imglib::DImage;
using imglib::DMessageQueue;
using imglib::DPixel;
using imglib::DStdDrawingList;

struct Queue {
    explicit Queue(std::string name) : name(std::move(name))
    {
        py::gil_scoped_release release; // opening waits while the other side opens or closes
        queue = std::make_unique<DMessageQueue>(this->name.c_str());
    }
    DMessageQueue& open() const
    {
        if (!queue)
            throw imglib::DMessageQueueException("DMessageQueue " + name + " is not open.");
        return *queue;
    }
    /// Waits for the calls of other threads to end (they hold `inUse` shared), then closes.
    void close()
    {
        py::gil_scoped_release release;
        std::unique_lock<std::shared_mutex> lock(inUse);
        queue.reset();
    }

    std::string name;
    std::unique_ptr<DMessageQueue> queue;
    std::shared_mutex inUse;
};

/// `work(queue, flag)` as an abortable call: the queue's own abort-flag overloads end the
/// wait. Several threads may wait on one queue at once.
template <class Work>
auto blocking(Queue& q, const py::object& abort, Work work)
{
    return runAbortable(abort, [&](const std::atomic<bool>& flag) {
        std::shared_lock<std::shared_mutex> lock(q.inUse);
        return work(q.open(), flag);
    });
}

/// The next object of type T from the slot, as an abortable wait.
template <class T>
T receiveObject(Queue& q, const py::object& abort)
{
    return blocking(q, abort, [](DMessageQueue& queue, const std::atomic<bool>& flag) {
        T value;
        queue.receive(value, flag);
        return value;
    });
}

#define ABORT_ARG "    abort: a threading.Event (or None); setting it from another thread ends the wait.\n"
#define QUEUE_RAISES                                                                               \
    "    MessageQueueException: the queue is closed, or an inter-process primitive failed.\n"     \
    "    KeyboardInterrupt: Ctrl-C during the wait (it ends within about 100 ms).\n"               \
    "    TerminateException: `abort` was set; the message stays for the next receive.\n"

} // namespace

void initIpc(py::module_& m)
{
    py::class_<Queue>(m, "MessageQueue", R"doc(
A two-way channel between two processes of one machine, under a name that both open. Each
direction carries short texts (at most 4096 bytes, up to 100 waiting) and one slot for one
big object at a time: an Image with its metadata, a DrawingList or a pixel list (a 1-D
numpy array of norvexa.pixel_dtype). Objects are copied into shared memory on one side and
out of it on the other, without serialisation.

The first process to open a name is the main side: it clears what an earlier run left and
creates the shared objects; the second attaches. Use one open queue of a name per
process. The slot does not say what it holds: both sides agree on what comes next and the
receiver calls the matching receive_*(). Nothing tells one side that the other has gone:
a wait for a peer that left lasts until Ctrl-C or `abort`.

Example:
    with norvexa.MessageQueue("viewer") as queue:
        queue.send("show frame 42")
        queue.send(image)
        reply = queue.receive()
)doc")
        .def(py::init<std::string>(), py::arg("name"),
             "MessageQueue(name): opens the queue `name` and takes the role that is free.\n\nRaises:\n"
             "    MessageQueueException: an inter-process primitive failed.")
        .def_readonly("name", &Queue::name, "The queue's name.")
        .def_property_readonly(
            "closed", [](const Queue& q) { return !q.queue; }, "Whether close() was called.")
        .def(
            "send",
            [](Queue& q, const py::object& object, const py::object& abort) {
                if (py::isinstance<py::str>(object)) {
                    const std::string text = object.cast<std::string>();
                    blocking(q, abort, [&](DMessageQueue& queue, const std::atomic<bool>& flag) { queue.send(text, flag); });
                } else if (py::isinstance<DImage>(object)) {
                    const DImage& image = object.cast<const DImage&>();
                    blocking(q, abort, [&](DMessageQueue& queue, const std::atomic<bool>& flag) { queue.send(image, flag); });
                } else if (py::isinstance<DStdDrawingList>(object)) {
                    const DStdDrawingList& list = object.cast<const DStdDrawingList&>();
                    blocking(q, abort, [&](DMessageQueue& queue, const std::atomic<bool>& flag) { queue.send(list, flag); });
                } else if (isPixelArray(object)) {
                    const DArray<DPixel> pixels = arrayToPixels(object);
                    blocking(q, abort, [&](DMessageQueue& queue, const std::atomic<bool>& flag) { queue.send(pixels, flag); });
                } else {
                    throw py::type_error("MessageQueue.send takes a str, an Image, a DrawingList or a "
                                         "numpy array of norvexa.pixel_dtype, not " +
                                         py::str(py::type::of(object).attr("__name__")).cast<std::string>());
                }
            },
            py::arg("object"), py::kw_only(), py::arg("abort") = py::none(),
            R"doc(Sends a text or an object to the other side.

A text waits in a queue (send blocks while 100 wait); an object goes into the slot (send
blocks while the slot still holds the previous object).

Args:
    object: a str (at most 4096 bytes of UTF-8), an Image (with its metadata), a
        DrawingList, or a 1-D numpy array of norvexa.pixel_dtype.
)doc" ABORT_ARG R"doc(
Raises:
    TypeError: anything else.
    MessageQueueException: "Maximum message length exceeded (4096 characters)", a closed
        queue, or a failed inter-process primitive.
    KeyboardInterrupt: Ctrl-C during the wait (it ends within about 100 ms).
    TerminateException: `abort` was set; nothing was sent.)doc")
        .def(
            "receive",
            [](Queue& q, const py::object& abort) {
                const std::string text =
                    blocking(q, abort, [](DMessageQueue& queue, const std::atomic<bool>& flag) { return queue.receive(flag); });
                // Bytes that are no UTF-8 (a peer in another language) survive as escapes.
                return py::reinterpret_steal<py::str>(PyUnicode_DecodeUTF8(
                    text.data(), static_cast<Py_ssize_t>(text.size()), "surrogateescape"));
            },
            py::kw_only(), py::arg("abort") = py::none(),
            "The next text from the other side; waits until there is one.\n\nArgs:\n" ABORT_ARG
            "\nReturns:\n    str\n\nRaises:\n" QUEUE_RAISES)
        .def(
            "receive_image",
            [](Queue& q, const py::object& abort) { return receiveObject<DImage>(q, abort); },
            py::kw_only(), py::arg("abort") = py::none(),
            "Takes an Image out of the slot; waits until there is one. The other side must\n"
            "have sent an Image.\n\nArgs:\n" ABORT_ARG
            "\nReturns:\n    Image, with its metadata.\n\nRaises:\n" QUEUE_RAISES)
        .def(
            "receive_drawing_list",
            [](Queue& q, const py::object& abort) { return receiveObject<DStdDrawingList>(q, abort); },
            py::kw_only(), py::arg("abort") = py::none(),
            "Takes a DrawingList out of the slot; waits until there is one. The other side must\n"
            "have sent a DrawingList.\n\nArgs:\n" ABORT_ARG
            "\nReturns:\n    DrawingList\n\nRaises:\n" QUEUE_RAISES)
        .def(
            "receive_pixels",
            [](Queue& q, const py::object& abort) { return pixelsToArray(receiveObject<DArray<DPixel>>(q, abort)); },
            py::kw_only(), py::arg("abort") = py::none(),
            "Takes a pixel list out of the slot; waits until there is one. The other side must\n"
            "have sent a pixel list.\n\nArgs:\n" ABORT_ARG
            "\nReturns:\n    a 1-D numpy array of norvexa.pixel_dtype (fields x, y, value).\n\nRaises:\n" QUEUE_RAISES)
        .def("close", &Queue::close,
             "Leaves the queue once the calls of other threads on it have ended; the main side\n"
             "removes the shared objects. Harmless when closed already.")
        .def("__enter__", [](py::object self) { return self; }, "The queue itself.")
        .def(
            "__exit__", [](Queue& q, const py::args&) { q.close(); }, "Closes the queue.")
        .def("__repr__", [](const Queue& q) {
            return "<norvexa.MessageQueue " + q.name + (q.queue ? ">" : " closed>");
        });
}

} // namespace python
} // namespace norvexa

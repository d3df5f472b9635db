#include "bindings.h"

#include "DHttpException.h"
#include "DMessageQueueException.h"
#include "DTerminateException.h"
#include "foundation/DException.h"

namespace norvexa {
namespace python {

namespace {

// The Python classes, made once at import and kept for the life of the process.
struct ErrorClasses {
    PyObject* error = nullptr;
    PyObject* runtime = nullptr;
    PyObject* noFileAccess = nullptr;
    PyObject* imageCorrupted = nullptr;
    PyObject* unknownFormat = nullptr;
    PyObject* outOfRange = nullptr;
    PyObject* badParameter = nullptr;
    PyObject* notImplemented = nullptr;
    PyObject* timeout = nullptr;
    PyObject* http = nullptr;
    PyObject* terminate = nullptr;
    PyObject* messageQueue = nullptr;
};
ErrorClasses classes;

// A class under norvexa.Error, also deriving from a built-in that means the same when given.
PyObject* makeClass(py::module_& m, const char* name, PyObject* builtin, const char* doc)
{
    py::tuple bases = builtin ? py::make_tuple(py::handle(classes.error), py::handle(builtin))
                              : py::make_tuple(py::handle(classes.error));
    const std::string qualified = std::string("norvexa.") + name;
    PyObject* type = PyErr_NewExceptionWithDoc(qualified.c_str(), doc, bases.ptr(), nullptr);
    if (!type)
        throw py::error_already_set();
    m.add_object(name, py::handle(type));
    return type;
}

// Raises `type(message)` with extra attributes set on the instance.
void raise(PyObject* type, const char* message, const char* attribute = nullptr,
           py::object value = py::none())
{
    py::object instance = py::reinterpret_steal<py::object>(
        PyObject_CallFunction(type, "s", message));
    if (!instance) {
        PyErr_SetString(type, message);
        return;
    }
    if (attribute)
        instance.attr(attribute) = value;
    PyErr_SetObject(type, instance.ptr());
}

} // namespace

void initErrors(py::module_& m)
{
    classes.error = PyErr_NewExceptionWithDoc(
        "norvexa.Error", "Root of the library's exceptions; str(e) is the library's message.",
        PyExc_Exception, nullptr);
    if (!classes.error)
        throw py::error_already_set();
    m.add_object("Error", py::handle(classes.error));
    classes.runtime = makeClass(m, "RuntimeException", nullptr,
                                "A failed operation, a bad state or bad data.");
    classes.noFileAccess = makeClass(m, "NoFileAccessException", PyExc_OSError,
                                     "A file that can't be opened or read.");
    classes.imageCorrupted = makeClass(m, "ImageCorruptedException", nullptr,
                                       "Damaged file content or a chunk that does not decode.");
    classes.unknownFormat = makeClass(m, "UnknownFormatException", nullptr,
                                      "A file of no known format.");
    classes.outOfRange = makeClass(m, "OutOfRangeException", PyExc_IndexError,
                                   "A position, index or path outside its range.");
    classes.badParameter = makeClass(m, "BadParameterException", PyExc_ValueError,
                                     "An argument or metadata value that can't be used.");
    classes.notImplemented = makeClass(m, "NotImplementedException", PyExc_NotImplementedError,
                                       "A pixel type or type class with no implementation.");
    classes.timeout = makeClass(m, "TimeoutException", PyExc_TimeoutError,
                                "A wait that ran out; .time is the time waited in seconds.");
    classes.http = makeClass(m, "HttpException", nullptr,
                             "A server's refusal; .status is the HTTP status, str(e) its text.");
    classes.terminate = makeClass(m, "TerminateException", nullptr,
                                  "A blocking call was called off through its abort flag.");
    classes.messageQueue = makeClass(m, "MessageQueueException", nullptr,
                                     "A failure of the shared-memory message queue.");

    // Most derived first; pybind11 tries translators newest first, so this one runs before
    // its own std::exception fallback.
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p)
                std::rethrow_exception(p);
        } catch (const imglib::DHttpException& e) {
            raise(classes.http, e.what(), "status", py::int_(e.status()));
        } catch (const imglib::DTerminateException& e) {
            PyErr_SetString(classes.terminate, e.what());
        } catch (const imglib::DMessageQueueException& e) {
            PyErr_SetString(classes.messageQueue, e.what());
        } catch (const DTimeoutException& e) {
            raise(classes.timeout, e.what(), "time", py::float_(e.time()));
        } catch (const DRuntimeException& e) {
            PyErr_SetString(classes.runtime, e.what());
        } catch (const DNoFileAccessException& e) {
            PyErr_SetString(classes.noFileAccess, e.what());
        } catch (const DImageCorruptedException& e) {
            PyErr_SetString(classes.imageCorrupted, e.what());
        } catch (const DUnknownFormatException& e) {
            PyErr_SetString(classes.unknownFormat, e.what());
        } catch (const DOutOfRangeException& e) {
            PyErr_SetString(classes.outOfRange, e.what());
        } catch (const DBadParameterException& e) {
            PyErr_SetString(classes.badParameter, e.what());
        } catch (const DNotImplementedException& e) {
            PyErr_SetString(classes.notImplemented, e.what());
        } catch (const DException& e) {
            PyErr_SetString(classes.error, e.what());
        }
    });
}

} // namespace python
} // namespace norvexa

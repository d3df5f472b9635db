#pragma once
// One init function per subsystem; module.cpp calls them in dependency order.
#include <pybind11/pybind11.h>

namespace norvexa {
namespace python {

namespace py = pybind11;

void initErrors(py::module_& m);      // errors.cpp: the exception classes
void initImage(py::module_& m);       // image.cpp: Image, its metadata and pixel operations
void initFiles(py::module_& m);       // files.cpp: read, open, write, Hdf5Writer
void initDisplay(py::module_& m);     // display.cpp: colour map, contrast, legend, drawing lists
void initDrawing(py::module_& m);     // drawing.cpp: drawing lists and pixel lists
void initCorrections(py::module_& m); // corrections.cpp
void initClients(py::module_& m);     // clients.cpp: detector, file writer, monitor
void initStream(py::module_& m);      // stream.cpp
void initIpc(py::module_& m);         // ipc.cpp: the message queue

} // namespace python
} // namespace norvexa

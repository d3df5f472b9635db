#include "bindings.h"

#include "DGlobal.h"

PYBIND11_MODULE(_norvexa, m)
{
    using namespace norvexa::python;
    m.doc() = "Compiled core of the norvexa package; import norvexa instead.";
    m.attr("__version__") = norvexa::imglib::version();
    initErrors(m);
    initImage(m);
    initFiles(m);
    initDisplay(m);
    initDrawing(m);
    initCorrections(m);
    initClients(m);
    initStream(m);
    initIpc(m);
}

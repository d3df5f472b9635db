#include "bindings.h"

namespace norvexa {
namespace python {

void initClients(py::module_& m)
{
    (void)m;
}

} // namespace python
} // namespace norvexa

#include "bindings.h"

namespace norvexa {
namespace python {

void initIpc(py::module_& m)
{
    (void)m;
}

} // namespace python
} // namespace norvexa

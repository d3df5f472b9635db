#include "bindings.h"

namespace norvexa {
namespace python {

void initCorrections(py::module_& m)
{
    (void)m;
}

} // namespace python
} // namespace norvexa

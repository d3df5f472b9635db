#include "bindings.h"

namespace norvexa {
namespace python {

void initFiles(py::module_& m)
{
    (void)m;
}

} // namespace python
} // namespace norvexa

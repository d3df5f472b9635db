#include "bindings.h"

namespace norvexa {
namespace python {

void initDisplay(py::module_& m)
{
    (void)m;
}

} // namespace python
} // namespace norvexa

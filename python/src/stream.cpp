#include "bindings.h"

namespace norvexa {
namespace python {

void initStream(py::module_& m)
{
    (void)m;
}

} // namespace python
} // namespace norvexa

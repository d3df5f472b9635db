#include "bindings.h"

namespace norvexa {
namespace python {

void initImage(py::module_& m)
{
    (void)m;
}

} // namespace python
} // namespace norvexa

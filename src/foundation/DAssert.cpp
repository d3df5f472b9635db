#include "foundation/DAssert.h"

#include <cstdio>
#include <cstdlib>

namespace norvexa {
namespace detail {

void assertionFailed(const char* expression, const char* function, const char* file,
                     int line) noexcept
{
    std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, function, expression);
    std::fflush(stderr);
    std::abort();
}

} // namespace detail
} // namespace norvexa

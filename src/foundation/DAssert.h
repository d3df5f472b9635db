#pragma once

namespace norvexa {
namespace detail {
/// Prints "<function>: Assertion `<expression>' failed." to the error console and aborts.
[[noreturn]] void assertionFailed(const char* expression, const char* function, const char* file,
                                  int line) noexcept;
} // namespace detail
} // namespace norvexa

/// An assertion that stays in release builds: broken invariants end the process, and
/// some of the library's assertion texts are part of its behaviour.
#define NORVEXA_ASSERT(expression, function)                                                       \
    ((expression) ? static_cast<void>(0)                                                           \
                  : ::norvexa::detail::assertionFailed(#expression, function, __FILE__, __LINE__))

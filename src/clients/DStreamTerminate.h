#pragma once

#include "foundation/DException.h"

#include <string>

namespace norvexa {
namespace imglib {

/// A blocking receive ended because the work was called off (the abort flag, or the end
/// of the ZeroMQ context).
class DTerminateException : public DException {
public:
    DTerminateException() : DException("") {}
    explicit DTerminateException(const std::string& message) : DException(message) {}
};

} // namespace imglib
} // namespace norvexa

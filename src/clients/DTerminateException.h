#pragma once

#include "foundation/DException.h"

#include <string>

namespace norvexa {
namespace imglib {

/// A blocking receive ended because the work was called off.
class DTerminateException : public DException {
public:
    DTerminateException();
    explicit DTerminateException(const std::string& message);
    ~DTerminateException() override;
};

} // namespace imglib
} // namespace norvexa

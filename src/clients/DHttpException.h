#pragma once

#include "foundation/DException.h"

#include <string>

namespace norvexa {
namespace imglib {

/// A reply of a server with a status outside 200 to 299; the message is the reply's body.
class DHttpException : public DException {
public:
    DHttpException(int status, const std::string& message);
    ~DHttpException() override;
    int status() const noexcept { return _status; }

private:
    int _status;
};

} // namespace imglib
} // namespace norvexa

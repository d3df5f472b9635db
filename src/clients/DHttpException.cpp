#include "DHttpException.h"

namespace norvexa {
namespace imglib {

DHttpException::DHttpException(int status, const std::string& message)
    : DException(message), _status(status)
{
}

DHttpException::~DHttpException() = default;

} // namespace imglib
} // namespace norvexa

#include "DTerminateException.h"

namespace norvexa {
namespace imglib {

DTerminateException::DTerminateException() : DException(std::string()) {}

DTerminateException::DTerminateException(const std::string& message) : DException(message) {}

DTerminateException::~DTerminateException() = default;

} // namespace imglib
} // namespace norvexa

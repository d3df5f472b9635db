#include "foundation/DException.h"

#include <sstream>
#include <utility>

namespace norvexa {

DException::DException(std::string message) : _message(std::move(message)) {}

const char* DException::what() const noexcept { return _message.c_str(); }

namespace {
std::string timeoutText(double time)
{
    std::ostringstream s;
    s << "Timeout after " << time << " s";
    return s.str();
}
} // namespace

DTimeoutException::DTimeoutException(double time) : DException(timeoutText(time)), _time(time) {}

DTimeoutException::DTimeoutException(double time, std::string message)
    : DException(std::move(message)), _time(time)
{
}

} // namespace norvexa

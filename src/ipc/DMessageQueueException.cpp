#include "DMessageQueueException.h"

#include <utility>

namespace norvexa {
namespace imglib {

DMessageQueueException::DMessageQueueException() : DException(std::string()) {}

DMessageQueueException::DMessageQueueException(std::string message) : DException(std::move(message))
{
}

} // namespace imglib
} // namespace norvexa

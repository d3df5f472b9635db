#pragma once

#include "foundation/DException.h"

#include <string>

namespace norvexa {
namespace imglib {

/// Every failure of a DMessageQueue: its own texts, or the text of the failed
/// inter-process primitive.
class DMessageQueueException : public DException {
public:
    DMessageQueueException();
    explicit DMessageQueueException(std::string message);
    DMessageQueueException(const DMessageQueueException& other) = default;
    DMessageQueueException& operator=(const DMessageQueueException& other) = default;
};

} // namespace imglib
} // namespace norvexa

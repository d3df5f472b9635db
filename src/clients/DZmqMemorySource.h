#pragma once

#include "DZmqPartSource.h"

#include <string>
#include <vector>

namespace norvexa {
namespace imglib {

/// Multi-part messages held in memory, handed out in order as a socket would hand them
/// out: every part but the last of its message has the "more" flag set, and once all are
/// used up a receive fails with EAGAIN, which the stream reads as a receive time-out.
class DZmqMemorySource : public DZmqPartSource {
public:
    using Message = std::vector<std::string>;

    explicit DZmqMemorySource(const std::vector<Message>& messages);

    int receive(zmq_msg_t* message) override;
    int receive(void* buffer, std::size_t size) override;
    int more() override;
    /// Whether every part has been received.
    bool atEnd() const noexcept { return _next >= _parts.size(); }

private:
    std::vector<std::string> _parts;
    std::vector<bool> _more;
    std::size_t _next = 0;
    int _lastMore = 0;
};

} // namespace imglib
} // namespace norvexa

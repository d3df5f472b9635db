#pragma once

#include <cstddef>

struct zmq_msg_t;

namespace norvexa {
namespace imglib {

/// Where a stream receive takes the parts of a multi-part message from: a ZeroMQ socket
/// (DZmqSocket), or parts held in memory (DZmqMemorySource), so that the parsing can be
/// fed bytes directly. The calls mirror libzmq's, errno included.
class DZmqPartSource {
public:
    virtual ~DZmqPartSource() = default;
    /// As zmq_msg_recv into an initialised message: the part's length, or -1 with errno
    /// set (EAGAIN when no part came within the receive time-out).
    virtual int receive(zmq_msg_t* message) = 0;
    /// As zmq_recv: copies at most `size` bytes of the next part into `buffer` and
    /// returns the part's full length, or -1 with errno set.
    virtual int receive(void* buffer, std::size_t size) = 0;
    /// ZMQ_RCVMORE after the last part received: non-zero when more parts follow.
    virtual int more() = 0;
};

} // namespace imglib
} // namespace norvexa

#pragma once

#include "DStreamObject.h"

#include <atomic>
#include <memory>
#include <string>

namespace norvexa {
namespace imglib {

class DZmqSocket;

/// The receiving half of a live stream: a socket connected to "tcp://<host>:<port>" on
/// the library's one ZeroMQ context, and a blocking pop. No thread, no queue: one pop
/// receives one message in the caller's thread.
///
/// pop(timeout, abort) returns the next message (a CONFIG, then DATA for every image,
/// then END, for each series; a client that joins mid-series sees DATA first). A message
/// already waiting is delivered whatever the timeout. It raises
/// - DTerminateException "Operation aborted" when `abort` is set, also before the first
///   receive and with a message waiting; the flag is polled every 100 ms;
/// - DTimeoutException with the seconds measured, once they exceed `timeout` (a timeout
///   of 0 or less waits for ever);
/// - whatever DZmqSocket::recv raises for a malformed message, after which the next pop
///   goes on with the next message; DTerminateException without a message when the
///   library's context ended.
class DStreamClient {
public:
    DStreamClient(const std::string& host, int port);
    ~DStreamClient();
    DStreamClient(const DStreamClient&) = delete;
    DStreamClient& operator=(const DStreamClient&) = delete;

    DStreamObject pop(double timeout, const std::atomic<bool>& abort);

private:
    std::string _host;
    int _port;
    std::unique_ptr<DZmqSocket> _socket;
};

} // namespace imglib
} // namespace norvexa

#include "DStreamClient.h"

#include "DTerminateException.h"
#include "DZmqContext.h"
#include "DZmqSocket.h"

#include <chrono>

namespace norvexa {
namespace imglib {

namespace {
// The library's one ZeroMQ context, shared by every client; it lives until the process ends.
DZmqContext socketContext;

const char* const ABORTED = "Operation aborted";
} // namespace

DStreamClient::DStreamClient(const std::string& host, int port)
    : _host(host), _port(port), _socket(new DZmqSocket(socketContext, host, port))
{
}

DStreamClient::~DStreamClient() = default;

DStreamObject DStreamClient::pop(double timeout, const std::atomic<bool>& abort)
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    if (abort)
        throw DTerminateException(ABORTED);
    while (true) {
        try {
            return _socket->recv();
        } catch (const DTimeoutException&) {
            // One receive time-out of 100 ms passed without a message.
            const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
            if (timeout > 0 && elapsed > timeout)
                throw DTimeoutException(elapsed);
        }
        if (abort)
            throw DTerminateException(ABORTED);
    }
}

} // namespace imglib
} // namespace norvexa

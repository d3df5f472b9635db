#pragma once

#include <atomic>

namespace norvexa {
namespace imglib {

/// Owner of one ZeroMQ context. Not copyable. The context is safe across threads:
/// shutdown() from another thread makes a receive blocked on one of its sockets end with
/// DTerminateException, and returns once every socket of the context is closed.
class DZmqContext {
public:
    DZmqContext();
    /// shutdown().
    ~DZmqContext();
    DZmqContext(const DZmqContext&) = delete;
    DZmqContext& operator=(const DZmqContext&) = delete;

    /// Destroys the context if it is still there; a second call does nothing.
    void shutdown();
    /// The raw handle, null after shutdown().
    void* handle() const noexcept { return _context.load(); }

private:
    // Atomic because shutdown() is meant to be called from another thread than the one
    // that makes sockets.
    std::atomic<void*> _context;
};

} // namespace imglib
} // namespace norvexa

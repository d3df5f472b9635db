#pragma once

#include <functional>
#include <memory>

namespace norvexa {
namespace imglib {

/// Calls a function once after a delay, on a thread of its own. Each start makes a new
/// thread, which ends after the call; stopping during the wait cancels the call.
///
/// Not copyable or movable: the object owns its worker. One thread owns the timer; the
/// callback runs on the worker and must not start, stop or destroy its own timer.
class DTimer {
public:
    /// Idle.
    DTimer();
    /// As start(delay, callback).
    DTimer(double delay, const std::function<void()>& callback);
    /// As stop().
    ~DTimer();
    DTimer(const DTimer&) = delete;
    DTimer& operator=(const DTimer&) = delete;

    /// Stops any earlier run, then calls a copy of `callback` after `delay` seconds
    /// (0 or less: at once). A thread that can't be made raises std::system_error.
    void start(double delay, const std::function<void()>& callback);
    /// Cancels a pending call, or waits for a running one to return; leaves the timer idle.
    void stop();
    /// True while waiting and while calling; false when idle or finished.
    bool isActive() const;

private:
    class DTimerPrivate;
    std::unique_ptr<DTimerPrivate> _d;
};

} // namespace imglib
} // namespace norvexa

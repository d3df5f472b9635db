#include "DTimer.h"

#include "foundation/DAssert.h"

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

namespace norvexa {
namespace imglib {

/// One run of a timer: the flags, guarded by the mutex, and the worker that waits and calls.
class DTimer::DTimerPrivate {
public:
    DTimerPrivate(double delay, const std::function<void()>& callback);
    /// Cancels the call if it hasn't come yet, and joins the worker.
    ~DTimerPrivate();

    std::condition_variable condition;
    std::mutex mutex;
    bool stop = false;
    bool active = true;
    std::thread thread; // last: the worker uses everything above from its first instant

private:
    void _workerThread(std::chrono::system_clock::time_point timeoutTime,
                       std::function<void()> callback);
};

namespace {
// Whole nanoseconds, truncated. Delays a time point can't hold (and NaN) would make the
// conversion undefined; a century is as good as never, and NaN counts as no delay.
std::chrono::nanoseconds delayInNanoseconds(double delay)
{
    constexpr double century = 100.0 * 365.25 * 24 * 3600;
    if (std::isnan(delay))
        delay = 0.0;
    delay = std::fmax(-century, std::fmin(century, delay));
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::duration<double>(delay));
}
} // namespace

DTimer::DTimerPrivate::DTimerPrivate(double delay, const std::function<void()>& callback)
{
    const auto timeoutTime = std::chrono::system_clock::now() + delayInNanoseconds(delay);
    try {
        thread = std::thread(&DTimerPrivate::_workerThread, this, timeoutTime, callback);
    } catch (const std::system_error& e) {
        throw std::system_error(e.code(), "thread constructor failed");
    }
}

DTimer::DTimerPrivate::~DTimerPrivate()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        stop = true;
        condition.notify_all();
    }
    if (thread.joinable())
        thread.join();
}

void DTimer::DTimerPrivate::_workerThread(std::chrono::system_clock::time_point timeoutTime,
                                          std::function<void()> callback)
{
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        if (stop) {
            active = false;
            return;
        }
        if (std::chrono::system_clock::now() >= timeoutTime)
            break;
        if (condition.wait_until(lock, timeoutTime) == std::cv_status::timeout)
            break; // stop is tested once more below
    }
    if (stop) {
        active = false;
        return;
    }
    lock.unlock();

    // The wait ran on the system clock; one that was set back meanwhile lands here.
    NORVEXA_ASSERT(timeoutTime <= std::chrono::system_clock::now(), "_workerThread");
    callback();

    lock.lock();
    active = false;
}

DTimer::DTimer() = default;

DTimer::DTimer(double delay, const std::function<void()>& callback) { start(delay, callback); }

DTimer::~DTimer() { stop(); }

void DTimer::start(double delay, const std::function<void()>& callback)
{
    stop();
    _d = std::make_unique<DTimerPrivate>(delay, callback);
}

void DTimer::stop() { _d.reset(); }

bool DTimer::isActive() const
{
    if (!_d)
        return false;
    std::lock_guard<std::mutex> lock(_d->mutex);
    return _d->active;
}

} // namespace imglib
} // namespace norvexa

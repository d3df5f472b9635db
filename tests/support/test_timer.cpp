#include "TestHelpers.h"

#include "DTimer.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <limits>
#include <thread>

using norvexa::imglib::DTimer;
using namespace std::chrono_literals;

namespace {
// Polls until `done` holds or a generous limit passes; a loaded machine is only slower.
template <class Predicate>
bool waitFor(Predicate done)
{
    const auto end = std::chrono::steady_clock::now() + 5s;
    while (!done() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(1ms);
    return done();
}
} // namespace

TEST(Timer, CallsOnceNoEarlierThanTheDelayWhichIsZeroWhenNegative)
{
    const double delays[] = {0.05, 0.0, -0.5, -1e300, -std::numeric_limits<double>::infinity(),
                             std::numeric_limits<double>::quiet_NaN()};
    for (double delay : delays) {
        SCOPED_TRACE("delay " + std::to_string(delay));
        std::atomic<int> calls{0};
        const auto started = std::chrono::system_clock::now();
        auto calledAt = started; // read after isActive() turned false, under the timer's lock
        DTimer timer(delay, [&] {
            calledAt = std::chrono::system_clock::now();
            ++calls;
        });
        ASSERT_TRUE(waitFor([&] { return !timer.isActive(); }));
        std::this_thread::sleep_for(20ms);
        EXPECT_EQ(calls, 1);
        EXPECT_TRUE(!(delay > 0) || calledAt - started >= 50ms);
    }
}

TEST(Timer, IsActiveWhileWaitingAndCallingOnlyStopCancelsTheWaitButNotTheCall)
{
    std::atomic<int> calls{0};
    DTimer timer;
    EXPECT_FALSE(timer.isActive()) << "idle";
    const auto started = std::chrono::steady_clock::now();
    timer.start(10.0, [&] { ++calls; });
    EXPECT_TRUE(timer.isActive()) << "waiting";
    timer.stop();
    timer.stop();
    EXPECT_FALSE(timer.isActive()) << "stopped twice";
    { DTimer destroyed(10.0, [&] { ++calls; }); }
    EXPECT_LT(std::chrono::steady_clock::now() - started, 2s) << "stop() and the destructor don't wait for the delay";
    EXPECT_EQ(calls, 0);

    std::promise<void> entered, release;
    std::shared_future<void> released = release.get_future().share();
    timer.start(0.0, [&] {
        entered.set_value();
        released.wait();
    });
    ASSERT_EQ(entered.get_future().wait_for(5s), std::future_status::ready);
    EXPECT_TRUE(timer.isActive()) << "calling";
    release.set_value();
    EXPECT_TRUE(waitFor([&] { return !timer.isActive(); })) << "finished";

    // stop() during the call waits for it to end.
    std::promise<void> called;
    timer.start(0.0, [&] {
        called.set_value();
        std::this_thread::sleep_for(50ms);
        ++calls;
    });
    ASSERT_EQ(called.get_future().wait_for(5s), std::future_status::ready);
    timer.stop();
    EXPECT_EQ(calls, 1);
}

TEST(Timer, StartAgainReplacesTheEarlierCall)
{
    std::atomic<int> first{0}, second{0};
    const auto started = std::chrono::steady_clock::now();
    DTimer timer(0.05, [&] { ++first; });
    timer.start(0.01, [&] { ++second; });
    ASSERT_TRUE(waitFor([&] { return second == 1; }));
    std::this_thread::sleep_until(started + 120ms); // past the first call's time
    EXPECT_EQ(first, 0);

    SCOPED_TRACE("a finished timer starts again, on a new thread");
    timer.start(0.0, [&] { ++second; });
    EXPECT_TRUE(waitFor([&] { return second == 2; }));
}

TEST(TimerDeathTest, EmptyCallbackEndsTheProcessWhenDue)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            DTimer timer(0.0, std::function<void()>());
            std::this_thread::sleep_for(5s);
        },
        "bad_function_call");
}

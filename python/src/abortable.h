#pragma once
// Blocking library calls that Python can interrupt.
//
// The library's blocking calls (HTTP exchanges, stream receives, queue waits) take a
// `const std::atomic<bool>& abort` that another thread sets to end them; they start no
// threads of their own. A call made straight from the interpreter's thread would hold that
// thread until the call returns, and Ctrl-C would only be seen afterwards. So
// runAbortable() runs the call on a thread of its own and keeps the caller's thread
// (the interpreter's) as the watcher:
//
//   caller (GIL held) ── starts worker ──► worker: result = call(flag)
//        │ loop: wait <= 20 ms with the GIL released
//        │       take the GIL, PyErr_CheckSignals(), event.is_set()
//        │ on a signal or the event: flag = true, join (GIL released), raise
//        └ on completion: join, return the result or rethrow the worker's exception
//
// - Ctrl-C: Python's handler only records the signal; PyErr_CheckSignals() runs it in the
//   main thread and raises KeyboardInterrupt, which is passed on as it stands (as is any
//   exception a user's handler raises; a handler that raises nothing lets the call go on).
// - `abort`: None, or any object with is_set() (a threading.Event). Set before the call,
//   the call is not started; set during it, the flag ends it. Both give
//   norvexa.TerminateException "Operation aborted".
// - The worker touches no Python object: the call captures C++ values and references to
//   C++ objects that the binding keeps alive for the length of the call.
// - A result or exception of the worker travels back through a std::promise; the caller
//   rethrows it, so the exception translators of errors.cpp apply as for any binding.
// - `serial`, when given, is held by the worker for the length of the call, so that two
//   Python threads that share one client object use it one after the other, as the
//   library requires. A worker waiting for it gives up when the flag is set.
//
// Latency: the flag is seen 20 ms after the signal at worst, plus the library's own
// polling of the flag (100 ms at most for the stream, less for HTTP transfers).

#include "bindings.h"

#include "DTerminateException.h"

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <type_traits>
#include <utility>

namespace norvexa {
namespace python {

namespace detail {

/// Whether `abort` (None or an object with is_set()) is set. Needs the GIL.
inline bool eventIsSet(const py::object& abort)
{
    return !abort.is_none() && py::bool_(abort.attr("is_set")());
}

} // namespace detail

/// The slice in which the watcher looks at signals and the event.
constexpr std::chrono::milliseconds kAbortPollInterval{20};

/// Runs `call(flag)` (a callable taking `const std::atomic<bool>&`) on a thread of its
/// own while the caller, holding the GIL, watches Ctrl-C and the event `abort`; returns
/// the call's result or raises its exception (see the top of this file).
template <class Call>
auto runAbortable(const py::object& abort, Call&& call, std::timed_mutex* serial = nullptr)
    -> std::invoke_result_t<Call&, const std::atomic<bool>&>
{
    using Result = std::invoke_result_t<Call&, const std::atomic<bool>&>;
    if (detail::eventIsSet(abort))
        throw imglib::DTerminateException("Operation aborted");

    std::atomic<bool> flag(false);
    std::promise<Result> promise;
    std::future<Result> future = promise.get_future();
    auto work = [&]() {
        try {
            std::unique_lock<std::timed_mutex> lock;
            if (serial) {
                lock = std::unique_lock<std::timed_mutex>(*serial, std::defer_lock);
                while (!lock.try_lock_for(kAbortPollInterval))
                    if (flag)
                        throw imglib::DTerminateException("Operation aborted");
            }
            if constexpr (std::is_void_v<Result>) {
                call(flag);
                promise.set_value();
            } else {
                promise.set_value(call(flag));
            }
        } catch (...) {
            promise.set_exception(std::current_exception());
        }
    };

    std::thread worker(work);
    // From here on the worker reads `flag`, `promise` and what `call` refers to: every
    // way out of this function joins it first.
    auto stopAndJoin = [&]() {
        flag = true;
        py::gil_scoped_release release;
        worker.join();
    };
    for (;;) {
        bool done;
        {
            py::gil_scoped_release release;
            done = future.wait_for(kAbortPollInterval) == std::future_status::ready;
        }
        if (done)
            break;
        if (PyErr_CheckSignals() != 0) {
            // The handler's exception (KeyboardInterrupt) is pending; keep it through the join.
            py::error_already_set interrupted;
            stopAndJoin();
            throw interrupted;
        }
        bool eventSet;
        try {
            eventSet = detail::eventIsSet(abort);
        } catch (...) {
            stopAndJoin();
            throw;
        }
        if (eventSet) {
            stopAndJoin();
            throw imglib::DTerminateException("Operation aborted");
        }
    }
    {
        py::gil_scoped_release release;
        worker.join();
    }
    return future.get();
}

} // namespace python
} // namespace norvexa

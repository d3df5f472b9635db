#pragma once

namespace norvexa {
namespace imglib {

/// A point in time: seconds since the epoch, with microseconds.
class DTime {
public:
    explicit DTime(double seconds = 0.0) : _seconds(seconds) {}
    /// The wall-clock time of now.
    static DTime now();
    double seconds() const noexcept { return _seconds; }
    /// Seconds from this point to now.
    double elapsed() const { return now()._seconds - _seconds; }

private:
    double _seconds;
};

} // namespace imglib
} // namespace norvexa

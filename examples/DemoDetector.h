#pragma once

// The demo's detector part: a simulated detector server as a child process, driven end to
// end through the REST clients.

#include <string>

namespace norvexa_demo {

/// Starts the detector simulator on a free port of 127.0.0.1, reads the detector's
/// description and ranges, sets up an acquisition, arms and triggers it, waits for it to
/// end, fetches the series' files into `directory` and reads them, fetches a monitor image,
/// and prints what it did. The simulator is stopped on every way out; a failure is printed,
/// not raised.
void driveSimulatedDetector(const std::string& directory);

} // namespace norvexa_demo

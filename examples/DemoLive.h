#pragma once

// The demo's live road: a simulated detector's series followed from the stream into an
// HDF5 file and a picture.

#include <string>

namespace norvexa_demo {

/// Starts the detector simulator (its REST interface on a free port, its stream on the data
/// port 9999), configures it through DOrvikDetector, sets its stream to the header detail
/// "all" through DOrvikStream, arms and triggers it, and follows the
/// series with DOrvikStream::pop: every image goes into an HDF5 master with data files
/// under `dir` as the compressed chunk it came as, the last one is drawn into
/// "<dir>/live.png" with its colour bar, and the written file is read back and compared
/// with the stream's pixels. Prints frames per second for the receive and for the write.
/// Says so and returns when the simulator can't start (the data port taken, say).
void followLiveSeries(const std::string& dir);

} // namespace norvexa_demo

#pragma once

#include "DetectorStateMachine.h"
#include "ParameterStore.h"
#include "SimulatorOptions.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>
#include <ostream>

namespace norvexa {
namespace simulator {

/// A request as the server got it.
struct RecordedRequest {
    std::string method;
    /// The path with its query, as sent.
    std::string target;
    /// Keys in lower case.
    std::multimap<std::string, std::string> headers;
    std::string body;
};

/// A deliberate misbehaviour, for the requests whose path begins with `pathPrefix` (every
/// request when it is empty), `count` times (for ever when negative). The first matching
/// fault applies.
struct Fault {
    std::string pathPrefix;
    int count = -1;
    /// Wait this long before answering.
    int delayMs = 0;
    /// Answer with this status instead of doing the work (0: do the work).
    int status = 0;
    /// Replace the body of the answer.
    std::optional<std::string> body;
    /// Replace the content type; an empty text removes the header.
    std::optional<std::string> contentType;
    /// Send the body in chunks, without content-length.
    bool chunked = false;
    /// Announce the whole body, send half of it, and close the connection.
    bool truncate = false;
    /// Add a header line of this many bytes.
    std::size_t hugeHeader = 0;
    /// Further header lines of the answer.
    std::map<std::string, std::string> headers;
};

/// The simulated detector server on one port of 127.0.0.1: the interfaces "detector",
/// "filewriter" and "monitor" under "/<interface>/api/<version>/<config|status|command>/
/// <name>", the file area under "/data/<name>", and, for tests and tools:
///   GET  /simulator/requests   the recorded requests as a JSON array (DELETE empties it)
///   PUT  /simulator/faults     a fault (JSON object with the members of Fault)
///   DELETE /simulator/faults   no more faults
/// Requests under "/simulator/" are neither recorded nor faulted.
class SimulatorServer {
public:
    explicit SimulatorServer(SimulatorOptions options = SimulatorOptions());
    /// Stops.
    ~SimulatorServer();
    SimulatorServer(const SimulatorServer&) = delete;
    SimulatorServer& operator=(const SimulatorServer&) = delete;

    /// Binds and serves on a thread of its own; returns the port. std::runtime_error when
    /// the port can't be bound.
    int start();
    /// Ends the acquisition and every waiting request, and the serving thread.
    void stop();
    int port() const;
    /// The port of the data stream.
    int dataPort() const;

    ParameterStore& parameters();
    DetectorStateMachine& detector();
    /// A further consumer of the series (a data stream); not owned, added before start().
    void addObserver(SeriesObserver* observer);

    std::vector<RecordedRequest> requests() const;
    void clearRequests();
    void addFault(Fault fault);
    void clearFaults();

    class Private;

private:
    std::unique_ptr<Private> _d;
};

/// The simulator program: serves on `options` until SIGINT or SIGTERM (blocked in every
/// thread and taken by sigwait, so no handler runs inside the server), after writing
/// "listening on http://HOST:PORT" and "stream on tcp://HOST:PORT" to `out`. A server
/// that can't start throws.
void serveUntilStopped(const SimulatorOptions& options, std::ostream& out);

} // namespace simulator
} // namespace norvexa

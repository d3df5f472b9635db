#pragma once

#include <memory>
#include <string>

namespace norvexa {
namespace view {

class ViewTarget;

/// The viewer's web server: its own page, and the opened target drawn by the library.
///
/// Routes (GET only; any other path is 404, and no path reaches the file system):
/// "/", "/view.js", "/view.css" the page; "/api/info" what is open; "/api/render" a
/// region of a frame as PNG, binned by maximum to the screen size asked for;
/// "/api/legend" and "/api/legend.png" the colour bar; "/api/pixel" one pixel's value
/// and mask; "/api/header" the frame's header items; "/api/overlay" the pixels above a
/// threshold as circles; "/api/live" the counts of a live stream. A parameter that is
/// no number, or a region with nothing inside the frame, gets 400; a region partly
/// outside is clipped.
class ViewServer {
public:
    /// Opens the target (see ViewTarget); the library's exception when it can't.
    explicit ViewServer(const std::string& target);
    ~ViewServer();
    ViewServer(const ViewServer&) = delete;
    ViewServer& operator=(const ViewServer&) = delete;

    /// Binds to `address` and `port` (0 picks a free one) and serves on threads of its
    /// own; returns the port. DRuntimeException when it can't bind.
    int start(const std::string& address = "127.0.0.1", int port = 0);
    /// Stops serving; waits for the threads. Also done by the destructor.
    void stop();
    int port() const;
    /// "http://ADDRESS:PORT/".
    std::string url() const;
    ViewTarget& target();

private:
    struct Private;
    std::unique_ptr<Private> _d;
};

} // namespace view
} // namespace norvexa

#pragma once

#include "Picture.h"

#include "DImage.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace norvexa {
namespace imglib {
class DImageSeries;
}
namespace view {

/// One line of the header panel.
struct HeaderItem {
    std::string name;
    std::string value;
    std::string unit;
};

/// A frame ready to be drawn: pixels, mask flags, automatic limits and header items.
struct ViewFrame {
    imglib::DImage image;
    std::shared_ptr<const imglib::DImage> flags; ///< null when nothing is masked
    Limits limits;
    int saturationValue = 0;
    bool hasSaturation = false;
    std::vector<HeaderItem> header;
    int number = 0;            ///< the image number in its series
    std::uint64_t sequence = 0; ///< live: counts every received image, from 1
    std::uint64_t series = 0;   ///< live: the series' number
};
using FramePtr = std::shared_ptr<const ViewFrame>;

/// The frame's flags, or an empty image.
const imglib::DImage& flagsOf(const ViewFrame& frame);

/// Counts of a live stream. Every received image is displayed, skipped (a newer one came
/// before it was drawn) or, for the newest, still waiting: received == displayed + skipped + waiting.
struct LiveCounts {
    std::uint64_t received = 0;
    std::uint64_t displayed = 0;
    std::uint64_t skipped = 0;
    std::uint64_t waiting = 0;
    std::uint64_t series = 0;
    std::uint64_t seriesImages = 0;
    bool seriesEnded = false;
    std::uint64_t errors = 0;
    std::string lastError;
};

/// What the viewer shows: a file, a numbered series, an HDF5 master, or "HOST:PORT" of a
/// detector's stream, which a thread follows while the object lives, keeping only the
/// newest image (still compressed) and the one last drawn.
class ViewTarget {
public:
    /// Opens the target; the library's exception when it is no readable series.
    explicit ViewTarget(const std::string& target);
    ~ViewTarget();
    ViewTarget(const ViewTarget&) = delete;
    ViewTarget& operator=(const ViewTarget&) = delete;

    const std::string& name() const { return _name; }
    bool live() const { return _live; }
    int first() const { return _first; }
    int last() const { return _last; }

    /// Image `number` of a series (a few recent ones are kept); DOutOfRangeException
    /// outside first()..last().
    FramePtr image(int number);

    /// Live: the newest image if it is newer than `after`, waiting up to `waitSeconds`
    /// for one; null if none came. Counts it as displayed.
    FramePtr newest(std::uint64_t after, double waitSeconds);
    /// Live: the image handed out last, null before the first.
    FramePtr shown() const;
    LiveCounts counts() const;

    /// True for "HOST:PORT" (a name or IPv4 address, a port of 1 to 65535) that is no file.
    static bool isStreamAddress(const std::string& target, std::string& host, int& port);

private:
    void follow();

    std::string _name;
    bool _live = false;
    int _first = 0;
    int _last = -1;

    std::mutex _seriesMutex;
    std::unique_ptr<imglib::DImageSeries> _series;
    std::vector<FramePtr> _recent;

    // The live stream, all under _liveMutex but the decoding.
    std::string _host;
    int _port = 0;
    std::atomic<bool> _stop{false};
    std::thread _follower;
    mutable std::mutex _liveMutex;
    std::condition_variable _arrived;
    struct Pending;
    std::shared_ptr<Pending> _pending;
    std::shared_ptr<Pending> _taken;
    struct SeriesState;
    std::shared_ptr<SeriesState> _seriesState;
    LiveCounts _counts;
    std::uint64_t _sequence = 0;
    std::mutex _decodeMutex;
    FramePtr _shown;
};

} // namespace view
} // namespace norvexa

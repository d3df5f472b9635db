#include "DemoIpc.h"

#include "DArray.h"
#include "DDrawingList.h"
#include "DMessageQueue.h"
#include "DPixel.h"
#include "foundation/DException.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <string>
#include <thread>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

using namespace norvexa;
using namespace norvexa::imglib;

namespace norvexa_demo {

namespace {

constexpr std::size_t kMaxSpots = 2000;
constexpr int kLabels = 25;

/// Local maxima above `threshold`, as peak pixels. Gap and defective pixels (negative, or
/// all bits set in unsigned frames) lie outside the range of counts and are skipped.
DArray<DPixel> findSpots(const DImage& frame, float threshold)
{
    const DImage counts = frame.asType<float>();
    const float* p = reinterpret_cast<const float*>(counts.cdata());
    const int w = counts.width(), h = counts.height();
    DArray<DPixel> peaks;
    for (int y = 1; y + 1 < h && peaks.size() < kMaxSpots; ++y)
        for (int x = 1; x + 1 < w && peaks.size() < kMaxSpots; ++x) {
            const float v = p[std::size_t(y) * w + x];
            if (!(v > threshold && v < 1e9f))
                continue;
            bool highest = true;
            for (int dy = -1; dy <= 1 && highest; ++dy)
                for (int dx = -1; dx <= 1 && highest; ++dx) {
                    const float n = p[std::size_t(y + dy) * w + x + dx];
                    // Ties go to the first pixel in reading order, so a flat top counts once.
                    highest = (dy == 0 && dx == 0) || n < v || (n == v && (dy > 0 || (dy == 0 && dx > 0)));
                }
            if (highest)
                peaks.pushBack(DPixel{x, y, v});
        }
    return peaks;
}

DStdDrawingList drawingsOf(const DArray<DPixel>& peaks)
{
    DStdDrawingList list;
    for (std::size_t i = 0; i < peaks.size(); ++i) {
        list.pushBack(DDrawingEllipse(peaks[i].x, peaks[i].y, 6, 6, 0, 255, 64, 0, 255));
        if (i < kLabels)
            list.pushBack(DDrawingString(peaks[i].x + 8, peaks[i].y, "spot " + std::to_string(i + 1), 255,
                                         255, 0, 255));
    }
    return list;
}

bool samePixels(const DImage& a, const DImage& b)
{
    return a.width() == b.width() && a.height() == b.height() && a.type() == b.type() &&
           a.typeBits() == b.typeBits() && std::memcmp(a.cdata(), b.cdata(), a.size() * a.dataSize()) == 0;
}

bool sameMetadata(const DImage& a, const DImage& b)
{
    const auto &m = a.optionalData(), &n = b.optionalData();
    const auto maskA = m.pixel_mask(), maskB = n.pixel_mask();
    return m.neXus().size() == n.neXus().size() && m.count_time() == n.count_time() &&
           m.wavelength() == n.wavelength() && m.detector_number() == n.detector_number() &&
           bool(maskA) == bool(maskB) && (!maskA || samePixels(*maskA, *maskB));
}

bool sameDrawings(const DStdDrawingList& a, const DStdDrawingList& b)
{
    if (a.size() != b.size() || a.memsize() != b.memsize())
        return false;
    for (unsigned long i = 0; i < a.size(); ++i) {
        const bool ellipse = a[i].type() == DDrawingPrimitive::ELLIPSE;
        if (a[i].type() != b[i].type() ||
            std::memcmp(&a[i], &b[i], ellipse ? sizeof(DDrawingEllipse) : sizeof(DDrawingString)) != 0)
            return false;
    }
    return true;
}

double millisecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

int queuePeer(const char* name)
{
    try {
        DMessageQueue queue(name);
        const std::string command = queue.receive();
        DImage frame;
        DStdDrawingList drawings;
        DArray<DPixel> peaks;
        queue.receive(frame);
        queue.receive(drawings);
        queue.receive(peaks);
        queue.send("did \"" + command + "\": " + std::to_string(frame.width()) + " x " +
                   std::to_string(frame.height()) + " pixels, " + std::to_string(drawings.size()) +
                   " drawings, " + std::to_string(peaks.size()) + " peaks");
        queue.send(frame);
        queue.send(drawings);
        queue.send(peaks);
        // The main side removes the objects when it closes; this side only detaches.
        queue.receive();
        return 0;
    } catch (const DException& e) {
        std::cerr << "queue peer: " << e.what() << "\n";
        return 1;
    }
}

void demoIpc(const DImage& frame, const char* self)
{
    std::cout << "\nInter-process\n";
    // One name per user: the lock files stay in /tmp, and whatever a crashed run left in
    // shared memory is cleared by the next run, which is main again.
    const std::string name = "norvexa_demo_" + std::to_string(::getuid());
    // First to open the name: this process is the main side, and makes the shared objects.
    DMessageQueue queue(name.c_str());

    std::string option = kQueuePeerOption;
    char* arguments[] = {const_cast<char*>(self), option.data(), const_cast<char*>(name.c_str()), nullptr};
    pid_t peer = 0;
    if (::posix_spawnp(&peer, self, nullptr, nullptr, arguments, environ) != 0) {
        std::cout << "  could not start " << self << " as the peer\n";
        return;
    }
    // Every call below waits for the peer: if it dies, say so instead of waiting for ever.
    std::atomic<bool> done{false};
    int status = 0;
    bool reaped = false;
    std::thread watchdog([&] {
        while (!done && !reaped) {
            reaped = ::waitpid(peer, &status, WNOHANG) == peer;
            if (reaped && !done) {
                std::cout << "  the peer process ended early" << std::endl;
                std::_Exit(1);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });

    const DArray<DPixel> peaks = findSpots(frame, 100.0f);
    const DStdDrawingList drawings = drawingsOf(peaks);
    std::cout << "  queue \"" << name << "\" opened as the main side; peer process " << peer << " started\n"
              << "  found " << peaks.size() << " spots; sending the frame (" << frame.width() << " x "
              << frame.height() << ", " << frame.optionalData().neXus().size() << " metadata nodes), "
              << drawings.size() << " drawings and the peak list\n";
    const auto start = std::chrono::steady_clock::now();
    queue.send(std::string("echo everything"));
    queue.send(frame);
    queue.send(drawings);
    queue.send(peaks);
    const std::string answer = queue.receive();
    DImage frameBack;
    DStdDrawingList drawingsBack;
    DArray<DPixel> peaksBack;
    queue.receive(frameBack);
    queue.receive(drawingsBack);
    queue.receive(peaksBack);
    const double roundTrip = millisecondsSince(start);
    done = true;
    queue.send(std::string("bye"));
    watchdog.join();
    if (!reaped)
        ::waitpid(peer, &status, 0);

    std::cout << "  the peer answered: " << answer << "\n  round trip of everything in " << std::fixed
              << std::setprecision(1) << roundTrip
              << " ms (there and back; each way one copy into shared memory and one out of it)\n";
    const bool same = samePixels(frame, frameBack) && sameMetadata(frame, frameBack) &&
                      sameDrawings(drawings, drawingsBack) && peaks.vector() == peaksBack.vector();
    std::cout << "  frame, metadata, drawings and peaks came back " << (same ? "unchanged" : "CHANGED")
              << "; the peer exited with " << (WIFEXITED(status) ? WEXITSTATUS(status) : -1) << "\n";
}

} // namespace norvexa_demo

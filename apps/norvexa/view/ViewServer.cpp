#include "ViewServer.h"

#include "Assets.h"
#include "Picture.h"
#include "ViewTarget.h"

#include "DColorMap.h"
#include "DColorTable.h"
#include "DDrawingList.h"
#include "DDrawingPrimitives.h"
#include "foundation/DException.h"

#include <httplib.h>
#include <json/json.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <thread>

using namespace norvexa::imglib;

namespace norvexa {
namespace view {

namespace {

constexpr int kMaxScreen = 8192;      // pixels of a picture asked for, each way
constexpr int kMaxLegendRows = 4096;
constexpr int kMaxCircles = 2000;     // an overlay beyond this says so instead of drawing more
constexpr double kMaxLiveWait = 2.0;  // seconds a live request waits for a newer image

/// A request that can't be served as asked: 400 with this text.
struct BadRequest : std::runtime_error {
    using std::runtime_error::runtime_error;
};
/// Nothing there (an image outside the series): 404.
struct NotFound : std::runtime_error {
    using std::runtime_error::runtime_error;
};

bool has(const httplib::Request& req, const char* name) { return req.has_param(name); }

double number(const httplib::Request& req, const char* name, double fallback)
{
    if (!req.has_param(name))
        return fallback;
    const std::string text = req.get_param_value(name);
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno == ERANGE || !std::isfinite(value))
        throw BadRequest(std::string("Parameter ") + name + " is no finite number");
    return value;
}

long long integer(const httplib::Request& req, const char* name, long long fallback, long long low,
                  long long high)
{
    if (!req.has_param(name))
        return fallback;
    const std::string text = req.get_param_value(name);
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno == ERANGE)
        throw BadRequest(std::string("Parameter ") + name + " is no integer");
    if (value < low || value > high)
        throw BadRequest(std::string("Parameter ") + name + " is out of range");
    return value;
}

bool flag(const httplib::Request& req, const char* name) { return integer(req, name, 0, 0, 1) == 1; }

const DColorTable& tableOf(const httplib::Request& req)
{
    const DColorTable* table = DColorTable::byName(req.has_param("table") ? req.get_param_value("table") : "hdr");
    if (!table)
        throw BadRequest("Unknown colour table");
    return flag(req, "reverse") ? *table->inverseTable() : *table;
}

/// The limits asked for; the frame's automatic ones for those not given.
Limits limitsOf(const httplib::Request& req, const Limits& automatic)
{
    Limits limits;
    limits.low = number(req, "low", automatic.low);
    limits.high = number(req, "high", automatic.high);
    limits.logHigh = number(req, "loghigh", automatic.logHigh);
    return limits;
}

/// The requested region cut to the frame; 400 when nothing of it lies inside.
DRect regionOf(const httplib::Request& req, const DImage& image)
{
    constexpr long long kFar = 1LL << 40;
    const long long x = integer(req, "x", 0, -kFar, kFar), y = integer(req, "y", 0, -kFar, kFar);
    const long long w = integer(req, "w", image.width(), 1, kFar), h = integer(req, "h", image.height(), 1, kFar);
    const long long left = std::max(0LL, x), top = std::max(0LL, y);
    const long long right = std::min<long long>(image.width(), x + w), bottom = std::min<long long>(image.height(), y + h);
    if (right <= left || bottom <= top)
        throw BadRequest("The region lies outside the frame");
    return DRect(static_cast<int>(left), static_cast<int>(top), static_cast<int>(right - left),
                 static_cast<int>(bottom - top));
}

std::string jsonText(const Json::Value& value)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

void sendJson(httplib::Response& res, const Json::Value& value)
{
    res.set_header("Cache-Control", "no-store");
    res.set_content(jsonText(value), "application/json");
}

std::string numberText(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

} // namespace

struct ViewServer::Private {
    explicit Private(const std::string& name) : target(name) {}

    ViewTarget target;
    httplib::Server server;
    std::thread listener;
    std::string address;
    int port = 0;

    /// The frame a request names by "image": a number of the series, or for a live
    /// target the newest image (with "after", one newer than that, waiting for it).
    /// Null when a live request found none.
    FramePtr frameOf(const httplib::Request& req, bool render)
    {
        if (target.live()) {
            if (req.has_param("image") && req.get_param_value("image") != "live")
                throw BadRequest("A live target has only the image \"live\"");
            if (!render)
                return target.shown();
            if (req.has_param("after")) {
                const auto after = static_cast<std::uint64_t>(integer(req, "after", 0, 0, LLONG_MAX));
                return target.newest(after, std::min(kMaxLiveWait, std::max(0.0, number(req, "wait", 1.0))));
            }
            return target.newest(0, 0);
        }
        const long long number = integer(req, "image", target.first(), LLONG_MIN, LLONG_MAX);
        if (number < target.first() || number > target.last())
            throw NotFound("No image " + std::to_string(number));
        return target.image(static_cast<int>(number));
    }

    void routes();
    void render(const httplib::Request& req, httplib::Response& res);
    void legend(const httplib::Request& req, httplib::Response& res, bool picture);
    void pixel(const httplib::Request& req, httplib::Response& res);
    void header(const httplib::Request& req, httplib::Response& res);
    void overlay(const httplib::Request& req, httplib::Response& res);
    void live(httplib::Response& res);
    void info(httplib::Response& res);
};

void ViewServer::Private::routes()
{
    // Turns the failures of a handler into their status; nothing of them reaches a crash.
    auto guarded = [](auto handler) {
        return [handler](const httplib::Request& req, httplib::Response& res) {
            try {
                handler(req, res);
            } catch (const BadRequest& e) {
                res.status = 400;
                res.set_content(std::string(e.what()) + "\n", "text/plain");
            } catch (const NotFound& e) {
                res.status = 404;
                res.set_content(std::string(e.what()) + "\n", "text/plain");
            } catch (const std::exception& e) {
                res.status = 500;
                res.set_content(std::string(e.what()) + "\n", "text/plain");
            }
        };
    };
    for (const char* name : {"index.html", "view.js", "view.css"}) {
        const Asset* asset = findAsset(name);
        const std::string path = std::string(name) == "index.html" ? "/" : std::string("/") + name;
        const std::string type = path == "/" ? "text/html; charset=utf-8"
                                 : path == "/view.js" ? "text/javascript; charset=utf-8"
                                                      : "text/css; charset=utf-8";
        server.Get(path, [asset, type](const httplib::Request&, httplib::Response& res) {
            res.set_header("Cache-Control", "no-store");
            res.set_content(reinterpret_cast<const char*>(asset->bytes), asset->size, type.c_str());
        });
    }
    server.Get("/api/info", guarded([this](const httplib::Request&, httplib::Response& res) { info(res); }));
    server.Get("/api/render", guarded([this](const httplib::Request& q, httplib::Response& r) { render(q, r); }));
    server.Get("/api/legend", guarded([this](const httplib::Request& q, httplib::Response& r) { legend(q, r, false); }));
    server.Get("/api/legend.png", guarded([this](const httplib::Request& q, httplib::Response& r) { legend(q, r, true); }));
    server.Get("/api/pixel", guarded([this](const httplib::Request& q, httplib::Response& r) { pixel(q, r); }));
    server.Get("/api/header", guarded([this](const httplib::Request& q, httplib::Response& r) { header(q, r); }));
    server.Get("/api/overlay", guarded([this](const httplib::Request& q, httplib::Response& r) { overlay(q, r); }));
    server.Get("/api/live", guarded([this](const httplib::Request&, httplib::Response& r) { live(r); }));
}

void ViewServer::Private::info(httplib::Response& res)
{
    Json::Value v;
    v["mode"] = target.live() ? "live" : "series";
    v["target"] = target.name();
    if (!target.live()) {
        v["first"] = target.first();
        v["last"] = target.last();
    }
    sendJson(res, v);
}

void ViewServer::Private::render(const httplib::Request& req, httplib::Response& res)
{
    // Everything that can be refused is read before any work is done.
    const DColorTable& table = tableOf(req);
    const bool showSaturated = flag(req, "sat");
    const int screenWidth = static_cast<int>(integer(req, "sw", kMaxScreen, 1, kMaxScreen));
    const int screenHeight = static_cast<int>(integer(req, "sh", kMaxScreen, 1, kMaxScreen));
    const FramePtr frame = frameOf(req, true);
    if (!frame) {
        res.status = 204;
        return;
    }
    const DRect region = regionOf(req, frame->image);
    Colouring colouring;
    colouring.limits = limitsOf(req, frame->limits);
    colouring.table = &table;
    colouring.showSaturated = showSaturated && frame->hasSaturation;
    colouring.saturationValue = frame->hasSaturation ? frame->saturationValue : INT_MAX;
    const int bin = binFor(region.width(), region.height(), screenWidth, screenHeight);
    const DImage picture = colourRegion(frame->image, flagsOf(*frame), region, bin, colouring);
    res.set_header("Cache-Control", "no-store");
    res.set_header("X-Bin", std::to_string(bin));
    res.set_header("X-Region", std::to_string(region.left()) + "," + std::to_string(region.top()) + "," +
                                   std::to_string(region.width()) + "," + std::to_string(region.height()));
    res.set_header("X-Frame-Size", std::to_string(frame->image.width()) + "," + std::to_string(frame->image.height()));
    res.set_header("X-Limits", numberText(frame->limits.low) + "," + numberText(frame->limits.high) + "," +
                                   numberText(frame->limits.logHigh));
    res.set_header("X-Image", std::to_string(frame->number));
    res.set_header("X-Sequence", std::to_string(frame->sequence));
    res.set_header("X-Series", std::to_string(frame->series));
    res.set_content(encodePng(picture), "image/png");
}

void ViewServer::Private::legend(const httplib::Request& req, httplib::Response& res, bool picture)
{
    const DColorTable& table = tableOf(req);
    const int rows = static_cast<int>(integer(req, "h", 256, 2, kMaxLegendRows));
    const int width = static_cast<int>(integer(req, "w", 16, 1, 256));
    if (!has(req, "low") || !has(req, "high") || !has(req, "loghigh"))
        throw BadRequest("The colour bar needs low, high and loghigh");
    const Limits limits = limitsOf(req, Limits());
    DImage bar(width, rows, 0);
    std::map<int, double> ticks;
    DColorMap::legend(bar, ticks, limits.high, limits.low, limits.logHigh, table, "ARGB");
    if (picture) {
        res.set_header("Cache-Control", "no-store");
        // Row 0 holds the lowest value: it goes at the bottom.
        res.set_content(encodePng(bar, true), "image/png");
        return;
    }
    Json::Value v;
    v["rows"] = rows;
    v["ticks"] = Json::arrayValue;
    for (const auto& [row, value] : ticks) {
        Json::Value tick;
        tick.append(row);
        tick.append(value);
        v["ticks"].append(tick);
    }
    sendJson(res, v);
}

void ViewServer::Private::pixel(const httplib::Request& req, httplib::Response& res)
{
    const FramePtr frame = frameOf(req, false);
    if (!frame) {
        res.status = 204;
        return;
    }
    const int x = static_cast<int>(integer(req, "x", 0, 0, frame->image.width() - 1));
    const int y = static_cast<int>(integer(req, "y", 0, 0, frame->image.height() - 1));
    const DImage& flags = flagsOf(*frame);
    const unsigned flagWord =
        flags.empty() ? 0u : reinterpret_cast<const std::uint8_t*>(flags.cdata())[std::size_t(y) * flags.width() + x];
    Json::Value v;
    v["x"] = x;
    v["y"] = y;
    v["value"] = pixelText(frame->image, x, y);
    v["flags"] = flagWord;
    // The colour mapping's order: a defect is shown before a gap.
    v["mask"] = (flagWord & 30u) ? "defective" : (flagWord & 1u) ? "gap" : "";
    v["image"] = frame->number;
    sendJson(res, v);
}

void ViewServer::Private::header(const httplib::Request& req, httplib::Response& res)
{
    const FramePtr frame = frameOf(req, false);
    if (!frame) {
        res.status = 204;
        return;
    }
    Json::Value v;
    v["image"] = frame->number;
    v["width"] = frame->image.width();
    v["height"] = frame->image.height();
    v["type"] = datatypes::typeStr(frame->image.type()) + " " + std::to_string(frame->image.typeBits());
    if (target.live()) {
        v["series"] = Json::UInt64(frame->series);
        v["sequence"] = Json::UInt64(frame->sequence);
    }
    v["items"] = Json::arrayValue;
    for (const HeaderItem& item : frame->header) {
        Json::Value row;
        row.append(item.name);
        row.append(item.value);
        row.append(item.unit);
        v["items"].append(row);
    }
    sendJson(res, v);
}

void ViewServer::Private::overlay(const httplib::Request& req, httplib::Response& res)
{
    if (!has(req, "threshold"))
        throw BadRequest("The overlay needs a threshold");
    const double threshold = number(req, "threshold", 0);
    const double radius = number(req, "radius", 3);
    if (radius <= 0 || radius > 1000)
        throw BadRequest("Parameter radius is out of range");
    const FramePtr frame = frameOf(req, false);
    if (!frame) {
        res.status = 204;
        return;
    }
    const DRect region = regionOf(req, frame->image);
    const DImage above =
        frame->image.extract(&region).createMask<double>(threshold, std::numeric_limits<double>::max(), true);
    const auto* hit = reinterpret_cast<const std::uint32_t*>(above.cdata());
    const DImage& flags = flagsOf(*frame);
    const auto* f = flags.empty() ? nullptr : reinterpret_cast<const std::uint8_t*>(flags.cdata());
    DStdDrawingList circles;
    long long found = 0;
    for (int y = 0; y < region.height(); ++y)
        for (int x = 0; x < region.width(); ++x) {
            const int fx = region.left() + x, fy = region.top() + y;
            if (!hit[std::size_t(y) * region.width() + x] || (f && f[std::size_t(fy) * flags.width() + fx]))
                continue;
            if (++found <= kMaxCircles)
                circles.pushBack(DDrawingEllipse(fx + 0.5, fy + 0.5, radius, radius, 0, 0, 255, 255, 255));
        }
    Json::Value v;
    v["found"] = Json::Int64(found);
    v["circles"] = Json::arrayValue;
    for (unsigned long i = 0; i < circles.size(); ++i) {
        const auto& e = static_cast<const DDrawingEllipse&>(circles[i]);
        Json::Value c;
        c.append(e.x());
        c.append(e.y());
        c.append(e.rx());
        c.append(e.ry());
        char colour[16];
        std::snprintf(colour, sizeof colour, "#%02x%02x%02x", e.red(), e.green(), e.blue());
        c.append(colour);
        v["circles"].append(c);
    }
    sendJson(res, v);
}

void ViewServer::Private::live(httplib::Response& res)
{
    if (!target.live())
        throw NotFound("Not a live target");
    const LiveCounts c = target.counts();
    Json::Value v;
    v["received"] = Json::UInt64(c.received);
    v["displayed"] = Json::UInt64(c.displayed);
    v["skipped"] = Json::UInt64(c.skipped);
    v["waiting"] = Json::UInt64(c.waiting);
    v["series"] = Json::UInt64(c.series);
    v["seriesImages"] = Json::UInt64(c.seriesImages);
    v["seriesEnded"] = c.seriesEnded;
    v["errors"] = Json::UInt64(c.errors);
    v["lastError"] = c.lastError;
    sendJson(res, v);
}

ViewServer::ViewServer(const std::string& target) : _d(std::make_unique<Private>(target))
{
    _d->routes();
}

ViewServer::~ViewServer() { stop(); }

int ViewServer::start(const std::string& address, int port)
{
    if (_d->listener.joinable())
        throw DRuntimeException("The viewer is already serving");
    if (port < 0 || port > 65535)
        throw DBadParameterException("Invalid port " + std::to_string(port));
    const int bound = port == 0 ? _d->server.bind_to_any_port(address)
                                : (_d->server.bind_to_port(address, port) ? port : -1);
    if (bound <= 0)
        throw DRuntimeException("Cannot listen on " + address + ":" + std::to_string(port));
    _d->address = address;
    _d->port = bound;
    _d->listener = std::thread([this] { _d->server.listen_after_bind(); });
    return bound;
}

void ViewServer::stop()
{
    if (!_d->listener.joinable())
        return;
    _d->server.stop();
    _d->listener.join();
}

int ViewServer::port() const { return _d->port; }

std::string ViewServer::url() const
{
    const bool v6 = _d->address.find(':') != std::string::npos;
    return "http://" + (v6 ? "[" + _d->address + "]" : _d->address) + ":" + std::to_string(_d->port) + "/";
}

ViewTarget& ViewServer::target() { return _d->target; }

} // namespace view
} // namespace norvexa

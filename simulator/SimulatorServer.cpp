#include "SimulatorServer.h"

#include "SimulatedStream.h"

#include "FileArea.h"
#include "MonitorBuffer.h"
#include "SimulatedFrame.h"
#include "orviktools.h"

#include <httplib.h>

#include <atomic>
#include <csignal>
#include <chrono>
#include <set>
#include <thread>

#include <pthread.h>
#include <unistd.h>

namespace norvexa {
namespace simulator {

namespace fs = std::filesystem;
using httplib::Request;
using httplib::Response;
using imglib::orviktools::jsonText;
using imglib::orviktools::parseJson;

namespace {

const std::set<std::string> kInterfaces{"detector", "filewriter", "monitor", "stream"};
// The versions this server speaks: its own and those of the clients it has met.
const std::set<std::string> kVersions{"1.0.0", "1.4.0", "1.5.0", "1.6.0", "1.8.0"};
const char* const kServerVersion = "1.8.0";
const char* const kJson = "application/json; charset=utf-8";

/// A body in memory, replacing whatever the answer had, a streamed body included.
void setBody(Response& res, const std::string& body, const std::string& type)
{
    res.content_provider_ = nullptr;
    res.content_length_ = 0;
    res.is_chunked_content_provider_ = false;
    res.set_content(body, type);
}

void replyJson(Response& res, const Json::Value& value, int status = 200)
{
    res.status = status;
    setBody(res, jsonText(value), kJson);
}

void replyText(Response& res, int status, const std::string& text)
{
    res.status = status;
    setBody(res, text, "text/plain");
}

std::string lowerCase(std::string s)
{
    for (char& c : s)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

Json::Value listValue(const std::vector<std::string>& names)
{
    Json::Value list(Json::arrayValue);
    for (const std::string& name : names)
        list.append(name);
    return list;
}

} // namespace

class SimulatorServer::Private {
public:
    explicit Private(SimulatorOptions o)
        : options(std::move(o)),
          scratch(fs::temp_directory_path() /
                  ("norvexa-sim-" + std::to_string(::getpid()) + "-" + std::to_string(++instances))),
          detector(store, &simulatedFrame, !options.uninitialized),
          files(options.dataDirectory.empty() ? scratch / "data" : options.dataDirectory, store),
          monitor(store, scratch / "monitor"),
          stream(store, options.streamPort, options.streamMaster)
    {
        defineParameters();
        detector.addObserver(&files);
        detector.addObserver(&monitor);
        detector.addObserver(&stream);
        routes();
    }

    ~Private()
    {
        std::error_code error;
        fs::remove_all(scratch, error);
    }

    void defineParameters();
    void routes();
    httplib::Server::Handler wrap(httplib::Server::Handler handler);
    std::optional<Fault> takeFault(const std::string& path);
    void applyFault(const Fault& fault, Response& res);
    void sleepFor(int milliseconds);
    bool known(const std::string& interface, const std::string& version, Response& res);

    void getParameter(const Request& req, Response& res);
    void putParameter(const Request& req, Response& res);
    void command(const Request& req, Response& res);
    void image(const Request& req, Response& res);

    static std::atomic<int> instances;

    SimulatorOptions options;
    fs::path scratch;
    ParameterStore store;
    DetectorStateMachine detector;
    FileArea files;
    MonitorBuffer monitor;
    SimulatedStream stream;
    httplib::Server server;
    std::thread thread;
    int port = 0;
    std::atomic<bool> stopping{false};

    mutable std::mutex logMutex;
    std::vector<RecordedRequest> log;
    std::vector<Fault> faults;
};

std::atomic<int> SimulatorServer::Private::instances{0};

void SimulatorServer::Private::defineParameters()
{
    const std::string det = "detector", fw = "filewriter", mon = "monitor";
    store.define(det, "config", "description", readOnly("Norvexa simulated detector", "string"));
    store.define(det, "config", "detector_number", readOnly("SIM-0001", "string"));
    store.define(det, "config", "x_pixels_in_detector", readOnly(options.width, "int"));
    store.define(det, "config", "y_pixels_in_detector", readOnly(options.height, "int"));
    store.define(det, "config", "bit_depth_image", readOnly(32, "int"));
    store.define(det, "config", "count_time", ranged(0.5, "float", 1e-5, 3600.0, "s"));
    store.define(det, "config", "frame_time", ranged(0.5, "float", 1e-5, 3600.0, "s"));
    store.define(det, "config", "nimages", ranged(1, "int", 1, 1000000));
    store.define(det, "config", "ntrigger", ranged(1, "int", 1, 1000000));
    store.define(det, "config", "photon_energy", ranged(8046.3, "float", 2500.0, 30000.0, "eV"));
    store.define(det, "config", "threshold_energy", ranged(4023.15, "float", 1000.0, 25000.0, "eV"));
    store.define(det, "config", "element", choice("Cu", {"Ag", "Cr", "Cu", "Fe", "Ga", "In", "Mo", "Ti"}));
    store.define(det, "config", "trigger_mode", choice("ints", {"exte", "exts", "inte", "ints"}));
    store.define(det, "config", "flatfield_correction_applied", flag(true));
    store.define(det, "config", "pixel_mask_applied", flag(true));
    store.define(det, "config", "auto_summation", flag(true));
    store.define(det, "config", "countrate_correction_applied", flag(true));
    store.define(det, "config", "virtual_pixel_correction_applied", flag(true));
    store.define(det, "config", "calibration_type", choice("standard", {"standard", "fast"}));
    store.define(det, "config", "countrate_correction_bunch_mode",
                 choice("continuous", {"continuous", "single_bunch"}));
    store.define(det, "status", "state", readOnly(detector.state(), "string"));
    store.define(det, "status", "error", readOnly(Json::Value(Json::arrayValue), "list"));

    store.define(fw, "config", "mode", choice("enabled", {"enabled", "disabled"}));
    Parameter pattern = readOnly("series_$id", "string");
    pattern.writable = true;
    store.define(fw, "config", "name_pattern", pattern);
    store.define(fw, "config", "nimages_per_file", ranged(1000, "int", 0, 1000000));
    store.define(fw, "config", "compression", choice("bslz4", {"bslz4", "lz4", "none"}));
    store.define(fw, "status", "state", readOnly("ready", "string"));

    store.define(mon, "config", "mode", choice("enabled", {"enabled", "disabled"}));
    store.define(mon, "config", "buffer_size", ranged(2, "int", 1, 1000));
    Json::Value none(Json::arrayValue);
    none.append(0);
    none.append(0);
    store.define(mon, "status", "monitor_image_number", readOnly(none, "list"));
    store.define(mon, "status", "next_image_number", readOnly(none, "list"));
    store.define(mon, "status", "state", readOnly("normal", "string"));
}

std::optional<Fault> SimulatorServer::Private::takeFault(const std::string& path)
{
    std::lock_guard<std::mutex> lock(logMutex);
    for (auto it = faults.begin(); it != faults.end(); ++it) {
        if (path.compare(0, it->pathPrefix.size(), it->pathPrefix) != 0)
            continue;
        Fault fault = *it;
        if (it->count > 0 && --it->count == 0)
            faults.erase(it);
        return fault;
    }
    return std::nullopt;
}

void SimulatorServer::Private::sleepFor(int milliseconds)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (!stopping && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

void SimulatorServer::Private::applyFault(const Fault& fault, Response& res)
{
    if (fault.body && !fault.status)
        setBody(res, *fault.body, res.get_header_value("Content-Type"));
    if (fault.contentType) {
        res.headers.erase("Content-Type");
        if (!fault.contentType->empty())
            res.set_header("Content-Type", *fault.contentType);
    }
    if (fault.hugeHeader)
        res.set_header("X-Padding", std::string(fault.hugeHeader, 'x'));
    for (const auto& [key, value] : fault.headers)
        res.set_header(key, value);
    const std::string type = res.get_header_value("Content-Type");
    if (fault.chunked) {
        auto body = std::make_shared<std::string>(std::move(res.body));
        res.body.clear();
        res.set_chunked_content_provider(type, [body](std::size_t offset, httplib::DataSink& sink) {
            // Several chunks, so that a client sees a real chunked transfer.
            const std::size_t piece = std::min<std::size_t>(body->size() - offset, 1000);
            if (piece)
                sink.write(body->data() + offset, piece);
            if (offset + piece >= body->size())
                sink.done();
            return true;
        });
    } else if (fault.truncate) {
        auto body = std::make_shared<std::string>(std::move(res.body));
        res.body.clear();
        res.set_content_provider(body->size(), type,
                                 [body](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
                                     const std::size_t half = body->size() / 2;
                                     if (offset >= half)
                                         return false; // closes the connection mid-reply
                                     sink.write(body->data() + offset, std::min(length, half - offset));
                                     return true;
                                 });
    }
}

httplib::Server::Handler SimulatorServer::Private::wrap(httplib::Server::Handler handler)
{
    return [this, handler](const Request& req, Response& res) {
        RecordedRequest record{req.method, req.target, {}, req.body};
        for (const auto& [key, value] : req.headers)
            record.headers.emplace(lowerCase(key), value);
        {
            std::lock_guard<std::mutex> lock(logMutex);
            log.push_back(std::move(record));
        }
        const std::optional<Fault> fault = takeFault(req.path);
        sleepFor(options.delayMs + (fault ? fault->delayMs : 0));
        if (fault && fault->status) {
            replyText(res, fault->status, fault->body.value_or("Simulated failure"));
        } else {
            try {
                handler(req, res);
            } catch (const std::exception& e) {
                replyText(res, 500, e.what());
            }
        }
        if (fault)
            applyFault(*fault, res);
    };
}

bool SimulatorServer::Private::known(const std::string& interface, const std::string& version,
                                     Response& res)
{
    if (!kInterfaces.count(interface)) {
        replyText(res, 404, "Unknown interface " + interface);
        return false;
    }
    if (!kVersions.count(version)) {
        replyText(res, 404, "Unsupported version " + version + " of " + interface);
        return false;
    }
    return true;
}

void SimulatorServer::Private::getParameter(const Request& req, Response& res)
{
    const std::string interface = req.matches[1], version = req.matches[2], section = req.matches[3],
                      name = req.matches[4];
    if (!known(interface, version, res))
        return;
    const std::optional<Json::Value> value = store.get(interface, section, name);
    if (!value)
        return replyText(res, 404, "Parameter " + name + " not found");
    replyJson(res, *value);
}

void SimulatorServer::Private::putParameter(const Request& req, Response& res)
{
    const std::string interface = req.matches[1], version = req.matches[2], name = req.matches[3];
    if (!known(interface, version, res))
        return;
    Json::Value body;
    if (!parseJson(req.body, body) || !body.isObject() || !body.isMember("value"))
        return replyText(res, 400, "Expected a JSON object with the member \"value\"");
    if (interface == "detector" && !detector.acceptsConfiguration())
        return replyText(res, 400, "Configuration refused in state " + detector.state());
    PutResult result = store.put(interface, "config", name, body["value"]);
    if (result.status != 200)
        return replyText(res, result.status, result.message);
    if (interface == "detector")
        for (const std::string& more : detector.configure(name))
            result.changed.push_back(more);
    replyJson(res, listValue(result.changed));
}

void SimulatorServer::Private::command(const Request& req, Response& res)
{
    const std::string interface = req.matches[1], version = req.matches[2], name = req.matches[3];
    if (!known(interface, version, res))
        return;
    if (interface == "detector") {
        const CommandResult result = detector.command(name);
        if (result.status != 200)
            return replyText(res, result.status, result.message);
        return replyJson(res, result.body.isNull() ? Json::Value(Json::objectValue) : result.body);
    }
    if (name == "clear" && interface == "monitor")
        monitor.clear();
    else if (name == "clear" && interface == "filewriter")
        files.clear();
    else
        return replyText(res, 404, "Unknown command " + name);
    replyJson(res, Json::Value(Json::objectValue));
}

void SimulatorServer::Private::image(const Request& req, Response& res)
{
    if (!known("monitor", req.matches[1], res))
        return;
    int timeout = 500;
    if (req.has_param("timeout")) {
        try {
            timeout = std::stoi(req.get_param_value("timeout"));
        } catch (const std::exception&) {
            return replyText(res, 400, "Invalid timeout " + req.get_param_value("timeout"));
        }
    }
    timeout = std::max(0, std::min(timeout, 600000));
    const std::optional<MonitorBuffer::Image> image =
        monitor.take(req.matches[2], std::chrono::milliseconds(timeout));
    if (!image)
        return replyText(res, 408, "No image within " + std::to_string(timeout) + " ms");
    res.status = 200;
    const std::shared_ptr<const std::string> tiff = image->tiff;
    // Streamed from the buffer's copy: a large frame is not copied once more per request.
    res.set_content_provider(tiff->size(), "application/tiff",
                             [tiff](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
                                 return sink.write(tiff->data() + offset, length);
                             });
}

void SimulatorServer::Private::routes()
{
    server.set_keep_alive_max_count(1000000);
    server.set_payload_max_length(1 << 20);
    server.set_tcp_nodelay(true);

    server.Get(R"(/(\w+)/api/version/?)", wrap([this](const Request& req, Response& res) {
                   if (!kInterfaces.count(req.matches[1]))
                       return replyText(res, 404, "Unknown interface " + std::string(req.matches[1]));
                   Json::Value value(Json::objectValue);
                   value["value"] = kServerVersion;
                   value["value_type"] = "string";
                   replyJson(res, value);
               }));
    server.Get(R"(/filewriter/api/([^/]+)/data/?)", wrap([this](const Request& req, Response& res) {
                   if (!known("filewriter", req.matches[1], res))
                       return;
                   Json::Value value(Json::objectValue);
                   value["value"] = listValue(files.list());
                   value["value_type"] = "list";
                   replyJson(res, value);
               }));
    server.Get(R"(/monitor/api/([^/]+)/images/(monitor|next))",
               wrap([this](const Request& req, Response& res) { image(req, res); }));
    server.Get(R"(/(\w+)/api/([^/]+)/(config|status)/(\w+))",
               wrap([this](const Request& req, Response& res) { getParameter(req, res); }));
    server.Put(R"(/(\w+)/api/([^/]+)/config/(\w+))",
               wrap([this](const Request& req, Response& res) { putParameter(req, res); }));
    server.Put(R"(/(\w+)/api/([^/]+)/command/(\w+))",
               wrap([this](const Request& req, Response& res) { command(req, res); }));
    server.Get(R"(/data/(.+))", wrap([this](const Request& req, Response& res) {
                   const std::optional<std::string> bytes = files.read(req.matches[1]);
                   if (!bytes)
                       return replyText(res, 404, "File " + std::string(req.matches[1]) + " not found");
                   res.status = 200;
                   setBody(res, *bytes, "application/octet-stream");
               }));
    server.Delete(R"(/data/(.+))", wrap([this](const Request& req, Response& res) {
                      if (!files.remove(req.matches[1]))
                          return replyText(res, 404, "File " + std::string(req.matches[1]) + " not found");
                      replyJson(res, Json::Value(Json::objectValue));
                  }));

    // The simulator's own controls; not recorded, never faulted.
    server.Get("/simulator/requests", [this](const Request&, Response& res) {
        Json::Value list(Json::arrayValue);
        std::lock_guard<std::mutex> lock(logMutex);
        for (const RecordedRequest& r : log) {
            Json::Value entry(Json::objectValue);
            entry["method"] = r.method;
            entry["target"] = r.target;
            entry["body"] = r.body;
            Json::Value headers(Json::objectValue);
            for (const auto& [key, value] : r.headers)
                headers[key] = value;
            entry["headers"] = headers;
            list.append(entry);
        }
        replyJson(res, list);
    });
    server.Delete("/simulator/requests", [this](const Request&, Response& res) {
        std::lock_guard<std::mutex> lock(logMutex);
        log.clear();
        res.status = 204;
    });
    server.Put("/simulator/faults", [this](const Request& req, Response& res) {
        Json::Value f;
        if (!parseJson(req.body, f) || !f.isObject())
            return replyText(res, 400, "Expected a JSON object");
        Fault fault;
        fault.pathPrefix = f.get("path_prefix", "").asString();
        fault.count = f.get("count", -1).asInt();
        fault.delayMs = f.get("delay_ms", 0).asInt();
        fault.status = f.get("status", 0).asInt();
        if (f.isMember("body"))
            fault.body = f["body"].asString();
        if (f.isMember("content_type"))
            fault.contentType = f["content_type"].asString();
        fault.chunked = f.get("chunked", false).asBool();
        fault.truncate = f.get("truncate", false).asBool();
        fault.hugeHeader = f.get("huge_header", 0).asUInt();
        for (const std::string& key : f.get("headers", Json::Value(Json::objectValue)).getMemberNames())
            fault.headers[key] = f["headers"][key].asString();
        std::lock_guard<std::mutex> lock(logMutex);
        faults.push_back(fault);
        res.status = 204;
    });
    server.Delete("/simulator/faults", [this](const Request&, Response& res) {
        std::lock_guard<std::mutex> lock(logMutex);
        faults.clear();
        res.status = 204;
    });

    // Anything else is recorded too, and answered as a real server would.
    auto notFound = wrap([](const Request& req, Response& res) { replyText(res, 404, "No resource " + req.path); });
    server.Get(".*", notFound);
    server.Put(".*", notFound);
    server.Post(".*", notFound);
    server.Delete(".*", notFound);
}

SimulatorServer::SimulatorServer(SimulatorOptions options) : _d(std::make_unique<Private>(std::move(options))) {}

SimulatorServer::~SimulatorServer() { stop(); }

int SimulatorServer::start()
{
    Private& d = *_d;
    if (d.options.port == 0)
        d.port = d.server.bind_to_any_port(d.options.host);
    else
        d.port = d.server.bind_to_port(d.options.host, d.options.port) ? d.options.port : -1;
    if (d.port <= 0)
        throw std::runtime_error("Cannot listen on " + d.options.host + ":" + std::to_string(d.options.port));
    d.thread = std::thread([&d] { d.server.listen_after_bind(); });
    // stop() only reaches a server that runs: wait for it, so that a quick stop can't hang.
    for (int i = 0; i < 5000 && !d.server.is_running(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return d.port;
}

void SimulatorServer::stop()
{
    Private& d = *_d;
    d.stopping = true;
    d.monitor.stop();
    d.detector.command("abort");
    d.server.stop();
    if (d.thread.joinable())
        d.thread.join();
}

int SimulatorServer::port() const { return _d->port; }

int SimulatorServer::dataPort() const { return _d->stream.port(); }

ParameterStore& SimulatorServer::parameters() { return _d->store; }

DetectorStateMachine& SimulatorServer::detector() { return _d->detector; }

void SimulatorServer::addObserver(SeriesObserver* observer) { _d->detector.addObserver(observer); }

std::vector<RecordedRequest> SimulatorServer::requests() const
{
    std::lock_guard<std::mutex> lock(_d->logMutex);
    return _d->log;
}

void SimulatorServer::clearRequests()
{
    std::lock_guard<std::mutex> lock(_d->logMutex);
    _d->log.clear();
}

void SimulatorServer::addFault(Fault fault)
{
    std::lock_guard<std::mutex> lock(_d->logMutex);
    _d->faults.push_back(std::move(fault));
}

void SimulatorServer::clearFaults()
{
    std::lock_guard<std::mutex> lock(_d->logMutex);
    _d->faults.clear();
}

void serveUntilStopped(const SimulatorOptions& options, std::ostream& out)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    SimulatorServer server(options);
    const int port = server.start();
    out << "listening on http://" << options.host << ":" << port << "\n"
        << "stream on tcp://" << options.host << ":" << server.dataPort() << std::endl;
    int signal = 0;
    sigwait(&signals, &signal);
    server.stop();
}

} // namespace simulator
} // namespace norvexa

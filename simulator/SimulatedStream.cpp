#include "SimulatedStream.h"

#include "DImage.h"
#include "DImageSeries.h"
#include "DiffractionFrame.h"
#include "foundation/image/DCompression.h"

#include <zmq.h>

#include <chrono>
#include <cstring>
#include <stdexcept>

namespace norvexa {
namespace simulator {

using imglib::DImage;
using image::DCompression;
using Parts = std::vector<std::string>;

namespace {

std::string json(const Json::Value& value)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

DCompression::FILTER filterOf(const std::string& encoding)
{
    if (encoding == "lz4<")
        return DCompression::FILTER_LZ4;
    if (encoding == "bs16-lz4<")
        return DCompression::FILTER_BS16_LZ4;
    if (encoding == "bs32-lz4<")
        return DCompression::FILTER_BS32_LZ4;
    return DCompression::FILTER_NONE;
}

const char* encodingOf(DCompression::FILTER filter)
{
    switch (filter) {
    case DCompression::FILTER_LZ4:
        return "lz4<";
    case DCompression::FILTER_BS16_LZ4:
        return "bs16-lz4<";
    case DCompression::FILTER_BS32_LZ4:
        return "bs32-lz4<";
    default:
        return "<";
    }
}

/// Plain little-endian pixels in the wire form of `encoding`. The wire carries an LZ4
/// block without the 16-byte framing, which the receiver writes itself.
std::string encode(const std::string& encoding, const char* plain, std::size_t size)
{
    const DCompression::FILTER filter = filterOf(encoding);
    if (filter == DCompression::FILTER_NONE)
        return std::string(plain, size);
    const std::vector<char> chunk = image::codec::encode(filter, plain, size);
    const std::size_t skip = filter == DCompression::FILTER_LZ4 ? 16 : 0;
    return std::string(chunk.begin() + skip, chunk.end());
}

std::string bytesOf(const DImage& image)
{
    return std::string(image.cdata(), image.size() * image.dataSize());
}

DImage asWireType(const DImage& frame, const std::string& type)
{
    if (type == "uint16")
        return frame.asType<unsigned short>();
    if (type == "float32")
        return frame.asType<float>();
    return frame.asType<unsigned int>();
}

std::string imageHeader(const std::string& htype, int width, int height, const std::string& type,
                        const std::string& encoding, std::size_t size)
{
    Json::Value header;
    header["htype"] = htype;
    header["shape"].append(width);
    header["shape"].append(height);
    header["type"] = type;
    header["encoding"] = encoding;
    header["size"] = Json::UInt64(size);
    return json(header);
}

/// Plausible values for every key of a header's configuration part.
Json::Value defaultConfig(const SimulatedStream::Acquisition& a)
{
    Json::Value c;
    c["auto_summation"] = true;
    c["beam_center_x"] = a.width * 0.52;
    c["beam_center_y"] = a.height * 0.47;
    c["bit_depth_readout"] = 16;
    c["calibration_type"] = "standard";
    c["count_time"] = a.frameTime > 0 ? a.frameTime - 1e-7 : 0.01;
    c["countrate_correction_applied"] = true;
    c["countrate_correction_bunch_mode"] = "continuous";
    c["data_collection_date"] = "2026-11-23T15:00:00.000+00:00";
    c["description"] = "Simulated photon-counting detector";
    c["detector_distance"] = 0.15;
    c["detector_number"] = "SIM-0001";
    for (int v : {-1, 0, 0, 0, -1, 0})
        c["detector_orientation"].append(v);
    c["detector_readout_period"] = 1e-7;
    c["detector_readout_time"] = 1e-7;
    for (double v : {0.0, 0.0, 0.15})
        c["detector_translation"].append(v);
    c["efficiency_correction_applied"] = false;
    c["element"] = "Cu";
    c["flatfield_correction_applied"] = true;
    c["frame_count_time"] = 0.0025;
    c["frame_period"] = 0.0025;
    c["frame_time"] = a.frameTime > 0 ? a.frameTime : 0.01;
    c["nframes_sum"] = 1;
    c["nimages"] = a.nimages;
    c["ntrigger"] = 1;
    c["number_of_excluded_pixels"] = 0;
    c["photon_energy"] = 8041.0;
    c["pixel_mask_applied"] = true;
    c["sensor_material"] = "Si";
    c["sensor_thickness"] = 0.00045;
    c["software_version"] = "1.0.0";
    c["summation_nimages"] = 1;
    c["threshold_energy"] = 4020.5;
    c["trigger_mode"] = "ints";
    c["virtual_pixel_correction_applied"] = true;
    c["wavelength"] = 1.5419;
    c["x_pixel_size"] = 7.5e-5;
    c["x_pixels_in_detector"] = a.width;
    c["y_pixel_size"] = 7.5e-5;
    c["y_pixels_in_detector"] = a.height;
    return c;
}

} // namespace

struct SimulatedStream::Series {
    unsigned long long id = 0;
    Parts header;
    struct Frame {
        std::string encoding, type, data;
        int width = 0, height = 0;
    };
    std::vector<Frame> frames; // cycled when fewer than nimages
    int nimages = 0;
    double frameTime = 0;
    int dropEvery = 0;
    bool stopBeforeEnd = false;
    std::string malformed;
};

SimulatedStream::SimulatedStream(int port, std::string master)
    : _context(zmq_ctx_new()), _socket(zmq_socket(_context, ZMQ_PUSH)), _master(std::move(master))
{
    const int linger = 0, timeout = 1000;
    zmq_setsockopt(_socket, ZMQ_LINGER, &linger, sizeof(linger));
    zmq_setsockopt(_socket, ZMQ_SNDTIMEO, &timeout, sizeof(timeout));
    const std::string address = "tcp://127.0.0.1:" + std::to_string(port);
    if (zmq_bind(_socket, address.c_str()) != 0) {
        zmq_close(_socket);
        zmq_ctx_destroy(_context);
        throw std::runtime_error("Cannot bind the data port " + address + ": " +
                                 zmq_strerror(zmq_errno()));
    }
    _settings["mode"] = "disabled";
    _settings["header_detail"] = "basic";
    _settings["encoding"] = "bs32-lz4<";
    _settings["drop_every"] = 0;
    _settings["stop_before_end"] = false;
    _settings["malformed"] = "";
}

SimulatedStream::~SimulatedStream()
{
    wait();
    zmq_close(_socket);
    zmq_ctx_destroy(_context);
}

Json::Value SimulatedStream::setting(const std::string& name) const
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _settings.isMember(name) ? _settings[name] : Json::Value();
}

bool SimulatedStream::setSetting(const std::string& name, const Json::Value& value)
{
    static const Json::Value allowed = [] {
        Json::Value a;
        for (const char* v : {"enabled", "disabled"})
            a["mode"].append(v);
        for (const char* v : {"none", "basic", "all"})
            a["header_detail"].append(v);
        for (const char* v : {"<", "lz4<", "bs16-lz4<", "bs32-lz4<"})
            a["encoding"].append(v);
        for (const char* v : {"", "json", "htype", "shape", "type", "size", "parts"})
            a["malformed"].append(v);
        return a;
    }();
    std::lock_guard<std::mutex> lock(_mutex);
    if (!_settings.isMember(name))
        return false;
    if (name == "drop_every" ? !value.isInt() || value.asInt() < 0
        : name == "stop_before_end" ? !value.isBool()
                                    : !value.isString())
        return false;
    if (allowed.isMember(name)) {
        bool found = false;
        for (const Json::Value& v : allowed[name])
            found = found || v == value;
        if (!found)
            return false;
    }
    _settings[name] = value;
    return true;
}

Json::Value SimulatedStream::status(const std::string& name) const
{
    return name == "dropped" ? Json::Value(_dropped.load()) : Json::Value();
}

void SimulatedStream::arm(const Acquisition& acquisition)
{
    wait();
    auto series = std::make_shared<Series>();
    Json::Value settings;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        settings = _settings;
    }
    series->id = ++_seriesId;
    series->nimages = acquisition.nimages;
    series->frameTime = acquisition.frameTime;
    series->dropEvery = settings["drop_every"].asInt();
    series->stopBeforeEnd = settings["stop_before_end"].asBool();
    series->malformed = settings["malformed"].asString();
    const std::string encoding = settings["encoding"].asString();

    // The frames: a file's stored chunks as they stand, or synthetic frames encoded now.
    DImage first;
    if (!_master.empty()) {
        imglib::DImageSeries file(_master);
        for (int i = file.first(); i <= file.last(); ++i) {
            auto stored = file.storedImage(i).pixels;
            const bool wireType = stored.type() == datatypes::UINT
                                      ? stored.typeBits() == 16 || stored.typeBits() == 32
                                      : stored.type() == datatypes::FLOAT && stored.typeBits() == 32;
            // A chunk the wire can't carry as it is (several LZ4 blocks, another pixel type)
            // is decoded and sent plain.
            const bool oneLz4Block =
                stored.filter() != DCompression::FILTER_LZ4 ||
                (stored.usedBytes() >= 16 &&
                 stored.usedBytes() - 16 ==
                     ((std::uint32_t(std::uint8_t(stored.cdata()[12])) << 24) |
                      (std::uint32_t(std::uint8_t(stored.cdata()[13])) << 16) |
                      (std::uint32_t(std::uint8_t(stored.cdata()[14])) << 8) |
                      std::uint32_t(std::uint8_t(stored.cdata()[15]))));
            Series::Frame frame;
            frame.width = static_cast<int>(stored.shape()[0]);
            frame.height = static_cast<int>(stored.shape()[1]);
            if (!wireType || !oneLz4Block) {
                const DImage plain = asWireType(DImage(std::move(stored)), "uint32");
                frame.type = "uint32";
                frame.encoding = "<";
                frame.data = bytesOf(plain);
            } else {
                frame.type = stored.type() == datatypes::FLOAT ? "float32"
                             : stored.typeBits() == 16         ? "uint16"
                                                               : "uint32";
                frame.encoding = encodingOf(stored.filter());
                const std::size_t skip = stored.filter() == DCompression::FILTER_LZ4 ? 16 : 0;
                frame.data.assign(stored.cdata() + skip, stored.usedBytes() - skip);
            }
            if (series->frames.empty())
                first = DImage(file.storedImage(i).pixels);
            series->frames.push_back(std::move(frame));
        }
        series->nimages = static_cast<int>(series->frames.size());
    } else {
        const int distinct = std::max(1, std::min(acquisition.nimages, 4));
        for (int k = 0; k < distinct; ++k) {
            const DImage frame = asWireType(
                demo::diffractionFrame(acquisition.width, acquisition.height, acquisition.seed + k),
                acquisition.type);
            if (k == 0)
                first = frame;
            const std::string plain = bytesOf(frame);
            series->frames.push_back({encoding, acquisition.type,
                                      encode(encoding, plain.data(), plain.size()),
                                      acquisition.width, acquisition.height});
        }
    }

    // The header message at the configured detail.
    Json::Value head;
    head["htype"] = "dheader-1.0";
    head["series"] = Json::UInt64(series->id);
    head["header_detail"] = settings["header_detail"];
    series->header.push_back(json(head));
    if (settings["header_detail"] != "none") {
        Json::Value config = defaultConfig(acquisition);
        for (const std::string& key : acquisition.config.getMemberNames())
            config[key] = acquisition.config[key];
        series->header.push_back(json(config));
    }
    if (settings["header_detail"] == "all" && !first.empty()) {
        const int w = first.width(), h = first.height();
        DImage flat = asWireType(first, "float32");
        DImage mask = asWireType(first, "uint32");
        auto* f = reinterpret_cast<float*>(flat.data());
        auto* m = reinterpret_cast<std::uint32_t*>(mask.data());
        for (std::size_t i = 0; i < flat.size(); ++i) {
            // The frame's codes: -1 a gap (bit 0), -2 a defective pixel (bit 1).
            m[i] = m[i] == 0xFFFFFFFFu ? 1 : m[i] == 0xFFFFFFFEu ? 2 : 0;
            f[i] = 1.0f + 0.01f * static_cast<float>(i % 7);
        }
        const std::string flatBytes = bytesOf(flat);
        const std::string maskChunk = encode("bs32-lz4<", mask.cdata(), mask.size() * 4);
        std::vector<std::uint32_t> table(2 * 1000);
        for (std::size_t i = 0; i < 1000; ++i) {
            table[2 * i] = static_cast<std::uint32_t>(i * 1000);
            table[2 * i + 1] = static_cast<std::uint32_t>(i * 1000 * (1 + i * 1e-4));
        }
        const std::string tableBytes(reinterpret_cast<const char*>(table.data()), table.size() * 4);
        series->header.push_back(imageHeader("dflatfield-1.0", w, h, "float32", "<", flatBytes.size()));
        series->header.push_back(flatBytes);
        series->header.push_back(
            imageHeader("dpixelmask-1.0", w, h, "uint32", "bs32-lz4<", maskChunk.size()));
        series->header.push_back(maskChunk);
        series->header.push_back(
            imageHeader("dcountrate_table-1.0", 2, 1000, "uint32", "<", tableBytes.size()));
        series->header.push_back(tableBytes);
    }
    std::lock_guard<std::mutex> lock(_mutex);
    _armed = series;
}

void SimulatedStream::trigger()
{
    std::shared_ptr<Series> series;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        if (_settings["mode"] != "enabled" || !_armed)
            return;
        series = std::move(_armed);
    }
    wait();
    _dropped = 0;
    _sender = std::thread([this, series] { send(series); });
}

void SimulatedStream::wait()
{
    if (_sender.joinable())
        _sender.join();
}

void SimulatedStream::disarm()
{
    std::lock_guard<std::mutex> lock(_mutex);
    _armed.reset();
}

void SimulatedStream::send(std::shared_ptr<Series> series)
{
    // The first part waits at most the send time-out; once it is out, the rest follows.
    const auto sendParts = [this](const Parts& parts) {
        for (std::size_t i = 0; i < parts.size(); ++i)
            if (zmq_send(_socket, parts[i].data(), parts[i].size(),
                         i + 1 < parts.size() ? ZMQ_SNDMORE : 0) < 0)
                return false;
        return true;
    };
    sendParts(series->header);

    const std::string image = R"({"htype":"dimage-1.0","series":)" + std::to_string(series->id);
    if (!series->malformed.empty()) {
        const Series::Frame& f = series->frames.front();
        const std::string first = image + R"(,"frame":0})";
        const std::string& m = series->malformed;
        Parts bad;
        if (m == "json")
            bad = {"{not json"};
        else if (m == "htype")
            bad = {R"({"htype":"dunknown-1.0"})"};
        else if (m == "shape")
            bad = {first, R"({"htype":"dimage_d-1.0","shape":[1,2,3],"type":"uint32"})"};
        else if (m == "type")
            bad = {first, R"({"htype":"dimage_d-1.0","shape":[1,2],"type":"int8"})"};
        else if (m == "size")
            bad = {first, R"({"htype":"dimage_d-1.0","shape":[1,2],"type":"uint32","encoding":"lz4<"})"};
        else
            bad = {first, imageHeader("dimage_d-1.0", f.width, f.height, f.type, f.encoding, f.data.size())};
        sendParts(bad);
    }

    const auto start = std::chrono::steady_clock::now();
    for (int i = 1; i <= series->nimages; ++i) {
        if (series->frameTime > 0)
            std::this_thread::sleep_until(start + std::chrono::duration<double>(series->frameTime * (i - 1)));
        if (series->dropEvery > 0 && i % series->dropEvery == 0) {
            ++_dropped;
            continue;
        }
        const Series::Frame& f = series->frames[(i - 1) % series->frames.size()];
        const std::string now = std::to_string(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        if (!sendParts({image + R"(,"frame":)" + std::to_string(i) + "}",
                        imageHeader("dimage_d-1.0", f.width, f.height, f.type, f.encoding, f.data.size()),
                        f.data,
                        R"({"htype":"dconfig-1.0","start_time":)" + now + R"(,"stop_time":)" + now +
                            R"(,"real_time":)" + std::to_string(series->frameTime) + "}"}))
            ++_dropped;
    }
    if (!series->stopBeforeEnd)
        sendParts({R"({"htype":"dseries_end-1.0","series":)" + std::to_string(series->id) + "}"});
}

} // namespace simulator
} // namespace norvexa

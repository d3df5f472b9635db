#include "SimulatedStream.h"

#include "DImage.h"
#include "DImageSeries.h"
#include "DiffractionFrame.h"
#include "foundation/image/DCompression.h"
#include "orviktools.h"

#include <json/json.h>
#include <zmq.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace norvexa {
namespace simulator {

using imglib::DImage;
using imglib::orviktools::jsonText;
using image::DCompression;
using Parts = std::vector<std::string>;

namespace {

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
    return jsonText(header);
}

/// Plausible values for every key of a header's configuration part.
Json::Value defaultConfig(const SeriesInfo& a)
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
    c["nimages"] = a.nImages;
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
    struct Frame {
        std::string encoding, type, data;
        int width = 0, height = 0;
    };
    std::vector<Frame> frames; // cycled
    int dropEvery = 0;
    bool stopBeforeEnd = false;
    int dropped = 0;
};

SimulatedStream::SimulatedStream(ParameterStore& store, int port, std::string master)
    : _store(store), _context(zmq_ctx_new()), _socket(zmq_socket(_context, ZMQ_PUSH)),
      _master(std::move(master))
{
    const int linger = 0, timeout = 1000;
    zmq_setsockopt(_socket, ZMQ_LINGER, &linger, sizeof(linger));
    zmq_setsockopt(_socket, ZMQ_SNDTIMEO, &timeout, sizeof(timeout));
    const std::string address = "tcp://127.0.0.1:" + (port ? std::to_string(port) : "*");
    if (zmq_bind(_socket, address.c_str()) != 0) {
        const std::string error = zmq_strerror(zmq_errno());
        zmq_close(_socket);
        zmq_ctx_destroy(_context);
        throw std::runtime_error("Cannot bind the data port " + address + ": " + error);
    }
    char endpoint[256] = {};
    std::size_t length = sizeof(endpoint) - 1;
    zmq_getsockopt(_socket, ZMQ_LAST_ENDPOINT, endpoint, &length);
    const char* colon = std::strrchr(endpoint, ':');
    _port = colon ? std::atoi(colon + 1) : port;
    const std::string s = "stream";
    store.define(s, "config", "mode", choice("disabled", {"enabled", "disabled"}));
    store.define(s, "config", "header_detail", choice("basic", {"none", "basic", "all"}));
    store.define(s, "config", "encoding", choice("bs32-lz4<", {"<", "lz4<", "bs16-lz4<", "bs32-lz4<"}));
    store.define(s, "config", "pixel_type", choice("uint32", {"uint16", "uint32", "float32"}));
    store.define(s, "config", "drop_every", ranged(0, "int", 0, 1000000));
    store.define(s, "config", "stop_before_end", flag(false));
    store.define(s, "config", "malformed",
                 choice("", {"", "json", "htype", "shape", "type", "size", "parts"}));
    store.define(s, "status", "dropped", readOnly(0, "int"));
}

SimulatedStream::~SimulatedStream()
{
    zmq_close(_socket);
    zmq_ctx_destroy(_context);
}

bool SimulatedStream::send(const std::vector<std::string>& parts)
{
    // The first part waits at most the send time-out; once it is out, the rest follows.
    for (std::size_t i = 0; i < parts.size(); ++i)
        if (zmq_send(_socket, parts[i].data(), parts[i].size(), i + 1 < parts.size() ? ZMQ_SNDMORE : 0) < 0)
            return false;
    return true;
}

void SimulatedStream::countDropped()
{
    _store.setValue("stream", "status", "dropped", ++_series->dropped);
}

void SimulatedStream::seriesStarted(const SeriesInfo& info)
{
    _series.reset();
    _store.setValue("stream", "status", "dropped", 0);
    const Json::Value settings = _store.snapshot("stream", "config");
    if (settings["mode"] != "enabled")
        return;
    auto series = std::make_unique<Series>();
    series->id = static_cast<unsigned long long>(info.series);
    series->dropEvery = settings["drop_every"].asInt();
    series->stopBeforeEnd = settings["stop_before_end"].asBool();
    const std::string encoding = settings["encoding"].asString();
    const std::string type = settings["pixel_type"].asString();

    // The frames: a file's stored chunks as they stand, or diffraction frames encoded now.
    DImage first;
    if (!_master.empty()) {
        imglib::DImageSeries file(_master);
        for (int i = file.first(); i <= file.last(); ++i) {
            auto stored = file.storedImage(static_cast<unsigned long>(i)).pixels;
            const bool wireType = stored.type() == datatypes::UINT
                                      ? stored.typeBits() == 16 || stored.typeBits() == 32
                                      : stored.type() == datatypes::FLOAT && stored.typeBits() == 32;
            // An LZ4 chunk goes on the wire as its one block; one of several blocks can't.
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
            if (first.empty())
                first = DImage(stored);
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
            series->frames.push_back(std::move(frame));
        }
    } else {
        const int distinct = std::max(1, std::min(info.nImages, 4));
        for (int k = 0; k < distinct; ++k) {
            const DImage frame = asWireType(
                demo::diffractionFrame(info.width, info.height, 7u + static_cast<unsigned>(k)), type);
            if (k == 0)
                first = frame;
            const std::string plain = bytesOf(frame);
            series->frames.push_back(
                {encoding, type, encode(encoding, plain.data(), plain.size()), info.width, info.height});
        }
    }

    // The header message at the configured detail.
    const std::string detail = settings["header_detail"].asString();
    Json::Value head;
    head["htype"] = "dheader-1.0";
    head["series"] = Json::UInt64(series->id);
    head["header_detail"] = detail;
    Parts header{jsonText(head)};
    if (detail != "none") {
        Json::Value config = defaultConfig(info);
        for (const std::string& key : info.config.getMemberNames())
            config[key] = info.config[key];
        header.push_back(jsonText(config));
    }
    if (detail == "all" && !first.empty()) {
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
        header.push_back(imageHeader("dflatfield-1.0", w, h, "float32", "<", flatBytes.size()));
        header.push_back(flatBytes);
        header.push_back(imageHeader("dpixelmask-1.0", w, h, "uint32", "bs32-lz4<", maskChunk.size()));
        header.push_back(maskChunk);
        header.push_back(imageHeader("dcountrate_table-1.0", 2, 1000, "uint32", "<", tableBytes.size()));
        header.push_back(tableBytes);
    }
    send(header);

    const std::string malformed = settings["malformed"].asString();
    if (!malformed.empty()) {
        const Series::Frame& fr = series->frames.front();
        const std::string image = R"({"htype":"dimage-1.0","series":)" + std::to_string(series->id) +
                                  R"(,"frame":0})";
        Parts bad;
        if (malformed == "json")
            bad = {"{not json"};
        else if (malformed == "htype")
            bad = {R"({"htype":"dunknown-1.0"})"};
        else if (malformed == "shape")
            bad = {image, R"({"htype":"dimage_d-1.0","shape":[1,2,3],"type":"uint32"})"};
        else if (malformed == "type")
            bad = {image, R"({"htype":"dimage_d-1.0","shape":[1,2],"type":"int8"})"};
        else if (malformed == "size")
            bad = {image, R"({"htype":"dimage_d-1.0","shape":[1,2],"type":"uint32","encoding":"lz4<"})"};
        else // "parts": the data part is missing
            bad = {image, imageHeader("dimage_d-1.0", fr.width, fr.height, fr.type, fr.encoding, fr.data.size())};
        send(bad);
    }
    _series = std::move(series);
}

void SimulatedStream::frameProduced(const SeriesInfo&, int imageNumber, const DImage&)
{
    if (!_series)
        return;
    if (_series->dropEvery > 0 && imageNumber % _series->dropEvery == 0)
        return countDropped();
    const Series::Frame& f = _series->frames[static_cast<std::size_t>(imageNumber - 1) % _series->frames.size()];
    const std::string series = std::to_string(_series->id);
    if (!send({R"({"htype":"dimage-1.0","series":)" + series + R"(,"frame":)" + std::to_string(imageNumber) + "}",
               imageHeader("dimage_d-1.0", f.width, f.height, f.type, f.encoding, f.data.size()), f.data,
               R"({"htype":"dconfig-1.0","series":)" + series + "}"}))
        countDropped();
}

void SimulatedStream::seriesEnded(const SeriesInfo&, int, bool)
{
    if (_series && !_series->stopBeforeEnd)
        send({R"({"htype":"dseries_end-1.0","series":)" + std::to_string(_series->id) + "}"});
    _series.reset();
}

} // namespace simulator
} // namespace norvexa

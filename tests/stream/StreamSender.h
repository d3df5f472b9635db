#pragma once

#include "foundation/image/DCompression.h"

#include <gtest/gtest.h>
#include <zmq.h>

#include <cstring>
#include <string>
#include <vector>

namespace stream_test {

using Parts = std::vector<std::string>;

/// A real PUSH socket bound to 127.0.0.1 on a port the system picks, sending as a detector
/// does. Sends give up after 2 s, and closing drops what was not delivered, so that a test
/// can never hang on it.
class Sender {
public:
    Sender() : _context(zmq_ctx_new()), _socket(zmq_socket(_context, ZMQ_PUSH))
    {
        const int linger = 0, timeout = 2000;
        zmq_setsockopt(_socket, ZMQ_LINGER, &linger, sizeof(linger));
        zmq_setsockopt(_socket, ZMQ_SNDTIMEO, &timeout, sizeof(timeout));
        EXPECT_EQ(zmq_bind(_socket, "tcp://127.0.0.1:*"), 0);
        char endpoint[256] = {};
        std::size_t length = sizeof(endpoint);
        zmq_getsockopt(_socket, ZMQ_LAST_ENDPOINT, endpoint, &length);
        _port = std::stoi(std::strrchr(endpoint, ':') + 1);
    }
    ~Sender()
    {
        zmq_close(_socket);
        zmq_ctx_destroy(_context);
    }
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    int port() const { return _port; }

    void send(const Parts& parts)
    {
        for (std::size_t i = 0; i < parts.size(); ++i)
            ASSERT_EQ(zmq_send(_socket, parts[i].data(), parts[i].size(),
                               i + 1 < parts.size() ? ZMQ_SNDMORE : 0),
                      static_cast<int>(parts[i].size()))
                << "part " << i;
    }

private:
    void* _context;
    void* _socket;
    int _port = 0;
};

inline std::string headerPart(unsigned series, const std::string& detail)
{
    return R"({"htype":"dheader-1.0","series":)" + std::to_string(series) +
           R"(,"header_detail":")" + detail + "\"}";
}

inline std::string imageHeader(unsigned width, unsigned height, const std::string& type,
                               const std::string& encoding, std::size_t size,
                               const std::string& htype = "dimage_d-1.0")
{
    std::string text = R"({"htype":")" + htype + R"(","shape":[)" + std::to_string(width) + "," +
                       std::to_string(height) + R"(],"type":")" + type + "\"";
    if (!encoding.empty())
        text += R"(,"encoding":")" + encoding + "\"";
    return text + R"(,"size":)" + std::to_string(size) + "}";
}

inline std::string endPart(unsigned series)
{
    return R"({"htype":"dseries_end-1.0","series":)" + std::to_string(series) + "}";
}

/// The bytes of `plain` in the wire form of `encoding` ("<", "lz4<", "bs16-lz4<", "bs32-lz4<").
inline std::string encodeAs(const std::string& encoding, const std::string& plain)
{
    using norvexa::image::DCompression;
    if (encoding == "<")
        return plain;
    const DCompression::FILTER filter = encoding == "lz4<"        ? DCompression::FILTER_LZ4
                                        : encoding == "bs16-lz4<" ? DCompression::FILTER_BS16_LZ4
                                                                  : DCompression::FILTER_BS32_LZ4;
    std::vector<char> chunk = norvexa::image::codec::encode(filter, plain.data(), plain.size());
    // The LZ4 framing is the receiver's: the wire carries the block alone.
    const std::size_t skip = encoding == "lz4<" ? 16 : 0;
    return std::string(chunk.begin() + skip, chunk.end());
}

/// An image message as a detector sends it, with the trailing part the receiver drops.
inline Parts imageMessage(unsigned frame, unsigned width, unsigned height, const std::string& type,
                          const std::string& encoding, const std::string& pixels)
{
    const std::string data = encodeAs(encoding, pixels);
    return {R"({"htype":"dimage-1.0","series":1,"frame":)" + std::to_string(frame) + "}",
            imageHeader(width, height, type, encoding, data.size()), data,
            R"({"htype":"dconfig-1.0","start_time":0,"stop_time":1,"real_time":1})"};
}

} // namespace stream_test

#include "DZmqSocket.h"

#include "DStreamTables.h"
#include "DTerminateException.h"
#include "DZmqContext.h"
#include "DZmqPartSource.h"
#include "foundation/DAssert.h"
#include "foundation/DException.h"

#include <json/json.h>
#include <zmq.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <new>
#include <string_view>

namespace norvexa {
namespace imglib {

using Image = image::DBasicImage<image::StdAllocator>;
using FILTER = image::DCompression::FILTER;

class DZmqSocket::DZmqSocketPrivate : public DZmqPartSource {
public:
    DZmqSocketPrivate(DZmqContext& context, const std::string& host, int port)
        : context(context), host(host), port(port)
    {
    }

    int receive(zmq_msg_t* message) override { return zmq_msg_recv(message, socket, 0); }
    int receive(void* buffer, std::size_t size) override
    {
        return zmq_recv(socket, buffer, size, 0);
    }
    int more() override
    {
        int more = 0;
        std::size_t length = sizeof(more);
        zmq_getsockopt(socket, ZMQ_RCVMORE, &more, &length);
        return more;
    }

    DZmqContext& context;
    std::string host;
    int port;
    void* socket = nullptr;
};

namespace {

[[noreturn]] void parseError(int line)
{
    throw DRuntimeException("Error parsing ORVIK stream: \"DZmqSocket\":" + std::to_string(line));
}

/// One part of a multi-part message, received into an owned zmq_msg_t that is released on
/// every way out.
class Message {
public:
    Message() : _message(new zmq_msg_t) { zmq_msg_init(_message.get()); }
    ~Message() { zmq_msg_close(_message.get()); }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    void recv(DZmqPartSource& source)
    {
        _more = 0;
        const int result = source.receive(_message.get());
        if (result < 0) {
            const int error = errno;
            if (error == EAGAIN || error == ETIMEDOUT)
                throw DTimeoutException(0.1);
            if (error == ETERM)
                throw DTerminateException();
            if (error != 0)
                throw DRuntimeException("Receiving message returned error code: " +
                                        std::to_string(error));
        }
        _more = source.more();
    }

    const char* bytes() const { return static_cast<const char*>(zmq_msg_data(_message.get())); }
    std::size_t size() const { return zmq_msg_size(_message.get()); }
    int more() const { return _more; }

private:
    std::unique_ptr<zmq_msg_t> _message;
    int _more = 0;
};

bool parseJson(const char* bytes, std::size_t size, Json::Value& root)
{
    if (!bytes)
        bytes = "";
    try {
        Json::Reader reader;
        return reader.parse(bytes, bytes + size, root, true);
    } catch (const Json::Exception&) {
        // The parser's own limits (nesting depth) end the parse by an exception.
        return false;
    }
}

bool parseJson(const Message& part, Json::Value& root)
{
    return parseJson(part.bytes(), part.size(), root);
}

/// A member, or null when the value is no object (jsoncpp asserts on those).
const Json::Value& member(const Json::Value& value, const char* key)
{
    static const Json::Value null;
    return value.isObject() ? value[key] : null;
}

bool isUnsigned(const Json::Value& value)
{
    return value.isConvertibleTo(Json::uintValue) || value.isUInt64();
}

/// The low 32 bits of a number; a value that is no number counts as 0, and a real as its
/// integer part (jsoncpp's own conversions throw outside their ranges).
std::uint32_t low32(const Json::Value& value)
{
    switch (value.type()) {
    case Json::intValue:
        return static_cast<std::uint32_t>(value.asInt64());
    case Json::uintValue:
        return static_cast<std::uint32_t>(value.asUInt64());
    case Json::realValue: {
        const double real = value.asDouble();
        return real > -9.2e18 && real < 9.2e18 ? static_cast<std::uint32_t>(static_cast<long long>(real)) : 0;
    }
    case Json::booleanValue:
        return value.asBool() ? 1 : 0;
    default:
        return 0;
    }
}

bool startsWith(const std::string& text, std::string_view prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0 && text.size() >= prefix.size();
}

template <class T>
void setScalar(Image& image, datatypes::Type type, unsigned long bits, T value)
{
    image.setType(type);
    image.setTypeBits(bits);
    image.resizeScalar();
    std::memcpy(image.data(), &value, sizeof(T));
}

template <class T, class Get>
void setArray(Image& image, const Json::Value& array, datatypes::Type type, Get get)
{
    image.setType(type);
    image.setTypeBits(sizeof(T) * 8);
    image.resize1D(array.size());
    char* out = image.data();
    for (Json::ArrayIndex i = 0; i < array.size(); ++i) {
        const T value = get(array[i]);
        std::memcpy(out + i * sizeof(T), &value, sizeof(T));
    }
}

void arrayToImage(const Json::Value& array, Image& image)
{
    const Json::ValueType kind = array[0].type();
    for (const Json::Value& element : array)
        if (element.type() != kind)
            parseError(110);
    switch (kind) {
    case Json::nullValue:
        image.clear();
        break;
    case Json::intValue:
        setArray<std::int32_t>(image, array, datatypes::INT, [](const Json::Value& v) {
            return static_cast<std::int32_t>(v.asInt64());
        });
        break;
    case Json::uintValue:
        setArray<std::uint32_t>(image, array, datatypes::UINT, [](const Json::Value& v) {
            return static_cast<std::uint32_t>(v.asUInt64());
        });
        break;
    case Json::realValue:
        setArray<float>(image, array, datatypes::FLOAT,
                        [](const Json::Value& v) { return v.asFloat(); });
        break;
    case Json::booleanValue:
        setArray<bool>(image, array, datatypes::BOOL,
                       [](const Json::Value& v) { return v.asBool(); });
        break;
    case Json::stringValue: {
        std::size_t slot = 0;
        for (const Json::Value& element : array)
            slot = std::max(slot, element.asString().size());
        image.setType(datatypes::CHAR);
        image.setTypeBits(8 * slot);
        image.resize1D(array.size());
        char* out = image.data();
        if (image.usedBytes())
            std::memset(out, 0, image.usedBytes());
        for (Json::ArrayIndex i = 0; i < array.size(); ++i) {
            const std::string text = array[i].asString();
            if (!text.empty())
                std::memcpy(out + i * slot, text.data(), text.size());
        }
        break;
    }
    default:
        parseError(166);
    }
}

/// A configuration value as a container; an empty array and an object stay empty.
Image jsonToImage(const Json::Value& value)
{
    Image image(image::StdAllocator(), datatypes::INT, 32);
    switch (value.type()) {
    case Json::intValue:
        if (value.isInt())
            setScalar(image, datatypes::INT, 32, value.asInt());
        else
            setScalar(image, datatypes::INT, 64, static_cast<long long>(value.asInt64()));
        break;
    case Json::uintValue:
        if (value.isUInt())
            setScalar(image, datatypes::UINT, 32, value.asUInt());
        else
            setScalar(image, datatypes::UINT, 64,
                      static_cast<unsigned long long>(value.asUInt64()));
        break;
    case Json::realValue:
        setScalar(image, datatypes::FLOAT, 64, value.asDouble());
        break;
    case Json::booleanValue:
        setScalar(image, datatypes::BOOL, 8, value.asBool());
        break;
    case Json::stringValue: {
        const std::string text = value.asString();
        image.setType(datatypes::CHAR);
        image.setTypeBits(8 * text.size());
        image.resizeScalar();
        if (!text.empty())
            std::memcpy(image.data(), text.data(), text.size());
        break;
    }
    case Json::arrayValue:
        if (!value.empty())
            arrayToImage(value, image);
        break;
    default:
        break;
    }
    return image;
}

/// What an image header prepares for its data part; the pairs of a header message share one.
struct ImageSlot {
    Image::Shape shape;
    datatypes::Type type = datatypes::UINT;
    unsigned long bits = 32;
    FILTER filter = image::DCompression::FILTER_NONE;
    Image::Data buffer;
    // Starts at -1 for an image: the bitshuffle path sizes the buffer by it.
    std::size_t offset = 0;
    // What the header announces: the buffer's length, the plain pixels' length and, for
    // "lz4<", the chunk's length ("size"). SIZE_MAX stands for more than memory holds.
    std::size_t bufferBytes = 0;
    std::size_t plainBytes = 0;
    std::uint32_t chunkBytes = 0;
};

void putBigEndian(char* out, std::uint64_t value, int bytes)
{
    for (int i = bytes - 1; i >= 0; --i, value >>= 8)
        out[i] = static_cast<char>(value & 0xff);
}

/// The product, or SIZE_MAX when it overflows.
std::size_t multiply(std::size_t a, std::size_t b)
{
    std::size_t product;
    return __builtin_mul_overflow(a, b, &product) ? SIZE_MAX : product;
}

/// Reads an image header into the slot. Nothing is allocated here: the buffer is sized by
/// receiveData, once the data part tells how many bytes actually came.
void initImg(const Message& part, ImageSlot& slot, Json::Value& header)
{
    if (!parseJson(part, header))
        parseError(180);
    const Json::Value& shape = member(header, "shape");
    if (!shape.isArray())
        parseError(182);
    if (shape.size() != 2)
        parseError(183);
    if (!isUnsigned(shape[0]) || !isUnsigned(shape[1]))
        parseError(182);
    slot.shape.assign({static_cast<unsigned long>(shape[0].asUInt64()),
                       static_cast<unsigned long>(shape[1].asUInt64())});

    const Json::Value& type = member(header, "type");
    const std::string typeText = type.isString() ? type.asString() : std::string();
    if (typeText == "uint16") {
        slot.type = datatypes::UINT;
        slot.bits = 16;
    } else if (typeText == "uint32") {
        slot.type = datatypes::UINT;
        slot.bits = 32;
    } else if (typeText == "float32") {
        slot.type = datatypes::FLOAT;
        slot.bits = 32;
    } else {
        parseError(197);
    }

    const Json::Value& encoding = member(header, "encoding");
    const std::string encodingText = encoding.isString() ? encoding.asString() : std::string();
    slot.filter = image::DCompression::FILTER_NONE;
    if (encodingText == "lz4<")
        slot.filter = image::DCompression::FILTER_LZ4;
    else if (encodingText == "bs16-lz4<")
        slot.filter = image::DCompression::FILTER_BS16_LZ4;
    else if (encodingText == "bs32-lz4<")
        slot.filter = image::DCompression::FILTER_BS32_LZ4;

    slot.buffer.clear();
    slot.plainBytes = multiply(multiply(slot.shape[0], slot.shape[1]), slot.bits / 8);
    if (slot.filter == image::DCompression::FILTER_NONE) {
        slot.bufferBytes = slot.plainBytes;
        slot.offset = 0;
        return;
    }
    const Json::Value& size = member(header, "size");
    if (size.isNull())
        parseError(217);
    slot.chunkBytes = low32(size);
    if (slot.filter == image::DCompression::FILTER_LZ4) {
        slot.offset = 16;
        slot.bufferBytes = std::size_t(slot.chunkBytes) + 16;
        return;
    }
    // The offset as it stands on entry: -1 for an image, so the chunk arrives a byte short.
    const std::size_t length = slot.chunkBytes + slot.offset;
    slot.bufferBytes = slot.offset == static_cast<std::size_t>(-1) && slot.chunkBytes == 0 ? 0 : length;
    slot.offset = 0;
}

/// Receives a data part and copies it into the slot's buffer behind the offset, truncated
/// to the buffer; the rest of a shorter part's buffer is zero. Returns the part's "more"
/// flag. Memory follows what came, not what the header claims: a buffer of more than
/// twice the part plus a page is a malformed message (line 531), as is a compressed
/// chunk whose own header disagrees with the shape, or that cannot hold it (line 532).
/// zmq_recv would copy from a message just the same, so this costs no extra copy.
int receiveData(DZmqPartSource& source, ImageSlot& slot)
{
    Message data;
    data.recv(source);
    const std::size_t carried = data.size();
    if (slot.bufferBytes > 2 * carried + 4096)
        parseError(531);
    slot.buffer.resize(slot.bufferBytes);
    char* buffer = slot.buffer.data();
    if (slot.filter == image::DCompression::FILTER_LZ4) {
        putBigEndian(buffer, slot.plainBytes, 8);
        putBigEndian(buffer + 8, static_cast<std::uint32_t>(slot.plainBytes), 4);
        putBigEndian(buffer + 12, slot.chunkBytes, 4);
    }
    const std::size_t room = slot.bufferBytes - slot.offset;
    const std::size_t taken = std::min(room, carried);
    if (taken)
        std::memcpy(buffer + slot.offset, data.bytes(), taken);
    if (room > taken)
        std::memset(buffer + slot.offset + taken, 0, room - taken);
    if (slot.filter != image::DCompression::FILTER_NONE &&
        image::codec::headerProblem(slot.filter, buffer, slot.bufferBytes, slot.plainBytes))
        parseError(532);
    return data.more();
}

/// Receives and drops the rest of a multi-part message.
void dropRest(DZmqPartSource& source, int more)
{
    while (more) {
        Message rest;
        rest.recv(source);
        more = rest.more();
    }
}

struct Pair {
    std::string_view prefix;
    const char* key;
    int missingHeader, wrongType, level, minimumLevel, missingData;
};

DStreamObject recvHeader(DZmqPartSource& source, const Message& first, const Json::Value& root)
{
    const Json::Value& series = member(root, "series");
    if (series.isNull())
        parseError(585);
    if (!isUnsigned(series))
        parseError(586);
    const std::uint64_t seriesId = series.asUInt64();

    const Json::Value& detail = member(root, "header_detail");
    if (detail.isNull())
        parseError(590);
    if (!detail.isConvertibleTo(Json::stringValue))
        parseError(591);
    const std::string detailText = detail.asString();
    int level;
    if (detailText == "none")
        level = 0;
    else if (detailText == "basic")
        level = 1;
    else if (detailText == "all")
        level = 7;
    else
        parseError(599);

    nexus::DNeXusTree tree;
    if (level == 0)
        return DStreamObject(DStreamConfig(seriesId, std::move(tree)));

    if (!first.more())
        parseError(361);
    Message configPart;
    configPart.recv(source);
    Json::Value config;
    if (!parseJson(configPart, config))
        parseError(369);
    for (const auto& [key, path] : NEXUS_PATH) {
        auto& data = tree.newPath(path, nexus::NeXusData).asData();
        const auto unit = NEXUS_UNIT.find(key);
        if (unit != NEXUS_UNIT.end())
            data.addAttribute("units", datatypes::CHAR, 8 * unit->second.size())
                .setValue(unit->second);
        const Json::Value& value = member(config, key.c_str());
        if (value.isNull())
            continue;
        data.data() = jsonToImage(value);
    }
    if (level == 1)
        return DStreamObject(DStreamConfig(seriesId, std::move(tree)));

    static const Pair pairs[] = {
        {"dflatfield-", "flatfield", 386, 396, 415, 3, 405},
        {"dpixelmask-", "pixel_mask", 422, 429, 448, 5, 438},
        {"dcountrate_table-", "countrate_correction_table", 454, 461, 480, 7, 470},
    };
    ImageSlot slot;
    int more = configPart.more();
    for (const Pair& pair : pairs) {
        if (!more)
            parseError(pair.missingHeader);
        Message headerPart;
        headerPart.recv(source);
        Json::Value header;
        initImg(headerPart, slot, header);
        const Json::Value& htype = member(header, "htype");
        if (!htype.isString() || !startsWith(htype.asString(), pair.prefix)) {
            if (pair.minimumLevel == 3)
                std::cout << Json::StyledWriter().write(header) << std::flush;
            parseError(pair.wrongType);
        }
        // Never fails with the three levels there are; the test stays with its line.
        if (pair.minimumLevel == 7 ? level != 7 : level < pair.minimumLevel)
            parseError(pair.level);
        if (!headerPart.more())
            parseError(pair.missingData);
        more = receiveData(source, slot);
        Image& value = tree.newPath(NEXUS_PATH.at(pair.key), nexus::NeXusData).asData().data();
        value.setRawData(std::move(slot.buffer), slot.shape, slot.type, slot.bits, slot.filter);
        value.setFilter(image::DCompression::FILTER_NONE, 0);
        slot.buffer = Image::Data();
    }
    dropRest(source, more);
    return DStreamObject(DStreamConfig(seriesId, std::move(tree)));
}

DStreamObject recvImage(DZmqPartSource& source, const Message& first, const Json::Value& root)
{
    const Json::Value& frame = member(root, "frame");
    if (frame.isNull())
        parseError(607);
    if (!isUnsigned(frame))
        parseError(608);
    const std::uint64_t imageId = frame.asUInt64();

    ImageSlot slot;
    slot.offset = static_cast<std::size_t>(-1);
    if (!first.more())
        parseError(518);
    Message headerPart;
    headerPart.recv(source);
    Json::Value header;
    initImg(headerPart, slot, header);
    const Json::Value& htype = member(header, "htype");
    if (!htype.isString() || !startsWith(htype.asString(), "dimage_d-"))
        parseError(516);
    if (!headerPart.more())
        parseError(529);

    const std::size_t imgOffset = slot.offset;
    NORVEXA_ASSERT(imgOffset <= slot.bufferBytes, "recvImage");
    dropRest(source, receiveData(source, slot));

    Image image;
    image.setRawData(std::move(slot.buffer), std::move(slot.shape), slot.type, slot.bits,
                     slot.filter);
    // Nothing writes through the pointer the data went in by: copies may share the pixels.
    image.allowSharing();
    return DStreamObject(DStreamData(imageId, std::move(image)));
}

} // namespace

DZmqSocket::DZmqSocket(DZmqContext& context, const std::string& host, int port)
    : _d(new DZmqSocketPrivate(context, host, port))
{
    _d->socket = zmq_socket(context.handle(), ZMQ_PULL);
    const int timeout = 100;
    zmq_setsockopt(_d->socket, ZMQ_RCVTIMEO, &timeout, sizeof(timeout));
    const std::string address = "tcp://" + host + ":" + std::to_string(port);
    if (zmq_connect(_d->socket, address.c_str()) < 0) {
        zmq_close(_d->socket);
        _d->socket = nullptr;
        throw DRuntimeException("ERROR: Binding socket");
    }
}

DZmqSocket::~DZmqSocket() { close(); }

void DZmqSocket::close()
{
    std::cout << "Closing ZMQ socket" << std::endl;
    if (_d->socket)
        zmq_close(_d->socket);
    _d->socket = nullptr;
}

DStreamObject DZmqSocket::recv() { return recv(*_d); }

DStreamObject DZmqSocket::recv(DZmqPartSource& source)
{
    Message first;
    first.recv(source);
    Json::Value root;
    if (!parseJson(first, root))
        parseError(574);
    const Json::Value& htype = member(root, "htype");
    if (htype.isNull()) {
        std::cerr << std::string(first.bytes() ? first.bytes() : "", first.size()) << std::endl;
        parseError(578);
    }
    if (!htype.isString())
        parseError(580);
    const std::string text = htype.asString();
    if (startsWith(text, "dheader-"))
        return recvHeader(source, first, root);
    if (startsWith(text, "dimage-"))
        return recvImage(source, first, root);
    if (startsWith(text, "dseries_end-")) {
        const Json::Value& series = member(root, "series");
        if (series.isNull())
            parseError(615);
        if (!isUnsigned(series))
            parseError(616);
        return DStreamObject(DStreamEnd(series.asUInt64()));
    }
    parseError(619);
}

} // namespace imglib
} // namespace norvexa

#include "DZmqMemorySource.h"

#include <zmq.h>

#include <cerrno>
#include <climits>
#include <cstring>

namespace norvexa {
namespace imglib {

namespace {
int partLength(const std::string& part)
{
    return part.size() > static_cast<std::size_t>(INT_MAX) ? INT_MAX : static_cast<int>(part.size());
}
} // namespace

DZmqMemorySource::DZmqMemorySource(const std::vector<Message>& messages)
{
    for (const Message& message : messages)
        for (std::size_t i = 0; i < message.size(); ++i) {
            _parts.push_back(message[i]);
            _more.push_back(i + 1 < message.size());
        }
}

int DZmqMemorySource::receive(zmq_msg_t* message)
{
    if (atEnd()) {
        errno = EAGAIN;
        return -1;
    }
    _lastMore = _more[_next];
    const std::string& part = _parts[_next++];
    zmq_msg_close(message);
    if (zmq_msg_init_size(message, part.size()) != 0)
        return -1;
    if (!part.empty())
        std::memcpy(zmq_msg_data(message), part.data(), part.size());
    return partLength(part);
}

int DZmqMemorySource::receive(void* buffer, std::size_t size)
{
    if (atEnd()) {
        errno = EAGAIN;
        return -1;
    }
    _lastMore = _more[_next];
    const std::string& part = _parts[_next++];
    const std::size_t n = part.size() < size ? part.size() : size;
    if (n)
        std::memcpy(buffer, part.data(), n);
    return partLength(part);
}

int DZmqMemorySource::more() { return _lastMore; }

} // namespace imglib
} // namespace norvexa

// Arbitrary multi-part messages through the stream's receive path, fed from memory.
//
// Input: messages separated by the byte sequence "\n--\n", parts of a message separated
// by "\n-\n". Every message is received in turn, as a socket would hand them over, until
// the parts run out (a receive time-out). Only the library's exceptions may come out;
// an image that arrives is decoded when it is small, as a viewer would.
#include "DZmqMemorySource.h"
#include "DZmqSocket.h"
#include "foundation/DException.h"

#include <iostream>
#include <string>
#include <string_view>
#include <vector>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {
std::vector<std::string_view> split(std::string_view text, std::string_view separator)
{
    std::vector<std::string_view> pieces;
    std::size_t at = 0;
    while (true) {
        const std::size_t next = text.find(separator, at);
        pieces.push_back(text.substr(at, next == std::string_view::npos ? next : next - at));
        if (next == std::string_view::npos)
            return pieces;
        at = next + separator.size();
    }
}
} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The stream's diagnostics would drown the fuzzer's own output.
    std::cout.setstate(std::ios::failbit);
    std::cerr.setstate(std::ios::failbit);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    std::vector<DZmqMemorySource::Message> messages;
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    for (std::string_view message : split(input, "\n--\n")) {
        messages.emplace_back();
        for (std::string_view part : split(message, "\n-\n"))
            messages.back().emplace_back(part);
    }
    DZmqMemorySource source(messages);
    // Every receive takes at least one part, so this ends.
    while (!source.atEnd()) {
        try {
            const DStreamObject object = DZmqSocket::recv(source);
            if (object.type() == DStreamObject::DATA) {
                auto image = object.data().data();
                if (image.size() <= (1u << 20))
                    image.setFilter(image::DCompression::FILTER_NONE, 0);
            } else if (object.type() == DStreamObject::CONFIG) {
                object.config().config();
            }
        } catch (const DTimeoutException&) {
            return 0;
        } catch (const DException&) {
            // Malformed: refused with the library's exception. A header that asks for more
            // memory than its message carries is one of these, never an allocation.
        }
    }
    return 0;
}

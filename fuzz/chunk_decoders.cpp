// Feeds arbitrary bytes to every chunk decoder. The output sizes come from the chunk's
// own header, so that inputs get past the size check into the blocks.
#include "foundation/DException.h"
#include "foundation/image/DCompression.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

using norvexa::image::DCompression;
namespace codec = norvexa::image::codec;

namespace {

constexpr std::uint64_t MAX_OUT = 1 << 22; // keeps the runs fast and far from the memory limit

std::uint64_t headerTotal(const std::uint8_t* data, std::size_t size)
{
    std::uint64_t total = 0;
    for (std::size_t i = 0; i < 8 && i < size; ++i)
        total = (total << 8) | data[i];
    return size >= 8 ? total : 0;
}

// A chunk that decoded must survive our own encoder and decoder unchanged.
void checkRoundTrip(DCompression::FILTER filter, const std::vector<char>& plain)
{
    const std::vector<char> chunk = codec::encode(filter, plain.data(), plain.size());
    std::vector<char> again(plain.size());
    codec::decode(filter, chunk.data(), chunk.size(), again.data(), again.size());
    if (again != plain)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const char* chunk = reinterpret_cast<const char*>(data);
    const std::uint64_t total = headerTotal(data, size);
    const std::uint64_t sizes[] = {total, total + 1, size, 0, 2};
    for (int f = -1; f <= 3; ++f) {
        const auto filter = static_cast<DCompression::FILTER>(f);
        for (std::uint64_t outSize : sizes) {
            if (outSize > MAX_OUT)
                continue;
            std::vector<char> out(outSize);
            try {
                codec::decode(filter, chunk, size, out.data(), out.size());
            } catch (const norvexa::DException&) {
                continue;
            }
            if (f >= 0 && f <= 2)
                checkRoundTrip(filter, out);
        }
    }
    return 0;
}

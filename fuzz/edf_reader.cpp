// Feeds arbitrary bytes to the EDF reader from memory: the header, the pixel copy in either
// byte order and the metadata. A reader that exists has all its pixels inside the file.
#include "DEdfReader.h"
#include "foundation/DException.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

using namespace norvexa;
using namespace norvexa::imglib;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    DAbstractImageReader::Data bytes;
    bytes.resize(size);
    if (size)
        std::memcpy(bytes.data(), data, size);
    try {
        const DEdfReader reader(bytes, "fuzz.edf");
        if (reader.width() < 0 || reader.height() < 0 ||
            std::uint64_t(reader.width()) * std::uint64_t(reader.height()) * 4 > size)
            std::abort();
        try {
            DImage image;
            reader.readData(image, nullptr);
            DImageOptionalData caller;
            reader.readData(image, &caller);
        } catch (const DException&) {
        }
        DImageOptionalData own, caller;
        reader.readHeaderData(own);
        reader.readRawHeader(own);
        reader.readImageSpecificHeader(caller);
    } catch (const DException&) {
    }
    return 0;
}

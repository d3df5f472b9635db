// Fuzzes the "#" text header parser, the date search and the module layout of the
// reader frame with arbitrary bytes as a file's header.

#include "DAbstractImageReader.h"
#include "foundation/DException.h"

#include <cstdint>
#include <cstring>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

class HeaderOnlyReader : public DAbstractImageReader {
public:
    HeaderOnlyReader(const Data& data, int width, int height)
        : DAbstractImageReader(data, "fuzz.cbf"), _width(width), _height(height)
    {
    }
    int width() const override { return _width; }
    int height() const override { return _height; }
    datatypes::Type dataType() const override { return datatypes::INT; }
    unsigned long typeBits() const override { return 32; }
    void readPixelData(DImage&) const override {}
    void readImageSpecificHeader(DImageOptionalData&) const override {}
    void readHeaderData(DImageOptionalData&) const override {}
    void readRawHeader(DImageOptionalData&) const override {}

private:
    int _width, _height;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    // The first byte picks a frame size: none, one module, or a few of either family.
    static const int kSizes[][2] = {{0, 0}, {487, 195}, {981, 407}, {1030, 514}, {2070, 1065}};
    const int* frame = kSizes[size ? bytes[0] % 5 : 0];
    DAbstractImageReader::Data data;
    data.resize(size);
    if (size)
        std::memcpy(data.data(), bytes, size);
    try {
        HeaderOnlyReader reader(data, frame[0], frame[1]);
        DImageOptionalData metadata;
        reader.readNorvexaHeader(metadata);
        reader.readDetectorNumber(metadata);
        reader.readModules(metadata);
        (void)metadata.modules();
        (void)utils::findDate(reinterpret_cast<const char*>(bytes), size);
    } catch (const DException&) {
    }
    return 0;
}

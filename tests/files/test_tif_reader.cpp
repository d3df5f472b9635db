#include "ReaderHelpers.h"
#include "TestHelpers.h"

#include "DTifReader.h"
#include "foundation/DException.h"

#include <boost/optional/optional_io.hpp>

#include <cstdint>
#include <cstdio>
#include <tuple>

using namespace norvexa;
using namespace norvexa::imglib;
using norvexa_test::pixelBytes;
using norvexa_test::readerData;
using Bytes = std::vector<char>;

namespace {

Bytes fixture(const std::string& name) { return norvexa_test::fileBytes(norvexa_test::dataPath("tiff/" + name)); }

// Width, height, type class and bits, as the reader reports them.
std::tuple<int, int, datatypes::Type, unsigned long> shapeOf(const DTifReader& reader)
{
    return {reader.width(), reader.height(), reader.dataType(), reader.typeBits()};
}

std::string corrupted(const std::string& reason) { return "Image mem.tif is corrupted. " + reason; }

// One directory entry; values of more than 4 bytes go behind the pixels.
struct Field {
    std::uint16_t tag, type;
    std::uint32_t count;
    Bytes value;
};

void put(Bytes& b, std::size_t at, std::uint64_t v, int n)
{
    for (int i = 0; i < n; ++i, v >>= 8)
        b[at + i] = static_cast<char>(v & 0xFF);
}
Bytes le(std::uint64_t v, int n)
{
    Bytes b(n);
    put(b, 0, v, n);
    return b;
}

Field shortField(std::uint16_t tag, std::uint32_t v) { return {tag, 3, 1, le(v, 2)}; }
Field longField(std::uint16_t tag, std::uint32_t v) { return {tag, 4, 1, le(v, 4)}; }
Field asciiField(std::uint16_t tag, const std::string& text)
{
    return {tag, 2, static_cast<std::uint32_t>(text.size() + 1), Bytes(text.begin(), text.end() + 1)};
}

// The fields of an image whose one strip starts at byte 8.
std::vector<Field> imageFields(std::uint32_t width, std::uint32_t height, unsigned bits, unsigned format,
                               std::uint32_t rows, std::uint32_t stripOffset = 8)
{
    return {longField(256, width), longField(257, height), shortField(258, bits),
            longField(273, stripOffset), longField(278, rows), shortField(339, format)};
}

// "II", 42, the first directory's offset; `payload` from byte 8; then each directory
// behind its own out-of-line values, chained in order.
Bytes tiff(const Bytes& payload, const std::vector<std::vector<Field>>& directories)
{
    Bytes b{'I', 'I', 42, 0, 0, 0, 0, 0};
    b.insert(b.end(), payload.begin(), payload.end());
    std::size_t link = 4;
    for (const auto& fields : directories) {
        Bytes entries = le(fields.size(), 2);
        for (const Field& f : fields) {
            Bytes value = f.value;
            if (value.size() > 4) {
                const Bytes offset = le(b.size(), 4);
                b.insert(b.end(), value.begin(), value.end());
                value = offset;
            }
            value.resize(4);
            for (const Bytes& part : {le(f.tag, 2), le(f.type, 2), le(f.count, 4), value})
                entries.insert(entries.end(), part.begin(), part.end());
        }
        put(b, link, b.size(), 4);
        b.insert(b.end(), entries.begin(), entries.end());
        link = b.size();
        b.resize(b.size() + 4);
    }
    return b;
}

Bytes pattern(std::size_t n)
{
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i)
        b[i] = static_cast<char>(i * 7 + 3);
    return b;
}

} // namespace

TEST(TifReader, FramesWrittenByIndependentToolsReadPixelForPixel)
{
    for (const char* name : {"u8_7x5", "u8_97x103", "u16_13x11", "u16_97x103", "u32_64x33", "u32_97x103", "u64_7x5",
                             "i8_7x5", "i16_13x11", "i32_7x5", "i32_97x103", "i64_7x5", "f32_31x17", "f32_97x103"}) {
        SCOPED_TRACE(name);
        char kind = 0;
        unsigned long bits = 0;
        int width = 0, height = 0;
        ASSERT_EQ(std::sscanf(name, "%c%lu_%dx%d", &kind, &bits, &width, &height), 4);
        const datatypes::Type type = kind == 'u' ? datatypes::UINT : kind == 'i' ? datatypes::INT : datatypes::FLOAT;
        const std::string path = norvexa_test::dataPath(std::string("tiff/") + name + ".tif").string();
        const Bytes expected = fixture(name + std::string(".raw"));

        const DTifReader fromFile(path.c_str(), 0);
        const DTifReader fromMemory(readerData(fixture(name + std::string(".tif"))), "mem.tif");
        for (const DTifReader* reader : {&fromFile, &fromMemory}) {
            EXPECT_EQ(shapeOf(*reader), std::make_tuple(width, height, type, bits));
            DImage image;
            reader->readData(image, nullptr);
            EXPECT_TRUE(pixelBytes(image) == expected);
        }
    }
}

TEST(TifReader, StripsEachGoToTheStartOfTheImage)
{
    // Each strip is copied to the image's start: (file, image prefix, the frame's bytes it holds).
    const std::size_t strip11 = 64 * 11 * 4, strip4 = 13 * 4 * 2, last = 3 * 2;
    const struct {
        const char* name;
        std::size_t imageFrom, imageTo, frameFrom;
    } cases[] = {
        {"strips_u32_64x33_r11", 0, strip11, 2 * strip11}, // the last of three strips of 11 rows
        {"strips_u16_13x11_r4", 0, last, 2 * strip4},      // the last strip copies 11 % 4 pixels, not rows
        {"strips_u16_13x11_r4", last, strip4, strip4 + last},
        {"strips_u16_13x11_r64", 0, 11 * 2, 0}, // rows beyond the height: as many pixels as rows
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes frame = fixture(c.name + std::string(".raw"));
        DImage image;
        DTifReader(norvexa_test::dataPath("tiff/" + std::string(c.name) + ".tif").string().c_str(), 0)
            .readData(image, nullptr);
        const Bytes pixels = pixelBytes(image);
        EXPECT_TRUE(Bytes(pixels.begin() + c.imageFrom, pixels.begin() + c.imageTo) ==
                    Bytes(frame.begin() + c.frameFrom, frame.begin() + c.frameFrom + c.imageTo - c.imageFrom));
    }
}

TEST(TifReader, TextHeaderAndModelText)
{
    const std::string path = norvexa_test::dataPath("tiff/header_u32_7x5.tif").string();
    const Bytes file = fixture("header_u32_7x5.tif");
    const DTifReader reader(path.c_str(), 0);
    const std::string model = "Model detector 1M, SN 31-0415";
    {
        SCOPED_TRACE("own metadata: the model text replaces the header's Detector line");
        DImage image;
        reader.readData(image, nullptr);
        EXPECT_TRUE(pixelBytes(image) == fixture("header_u32_7x5.raw"));
        const DImageOptionalData& meta = image.optionalData();
        EXPECT_EQ(meta.description(), model);
        EXPECT_EQ(meta.detector_number(), std::string("31-0415"));
        EXPECT_EQ(meta.count_time(), 0.0995f);
        EXPECT_EQ(meta.rawHeader(), std::string(file.begin(), file.end())); // shorter than 4096
    }
    {
        SCOPED_TRACE("the model text, or else the Detector line, in both paths; the caller's other items stay");
        const std::string header = "\n# Detector: Lab frame, SN 12-3456\n# Exposure_time 0.5 s\n";
        std::vector<Field> fields = imageFields(1, 1, 8, 1, 1);
        for (bool withModel : {false, true}) {
            if (withModel)
                fields.push_back(asciiField(272, model));
            const DTifReader lab(readerData(tiff(Bytes(header.begin(), header.end()), {fields})), "mem.tif");
            DImageOptionalData own, caller;
            caller.set_description(std::string("caller's, SN 99-9999"));
            caller.set_count_time(5.0f);
            caller.set_beam_flux(1e12f);
            lab.readHeaderData(own);
            lab.readImageSpecificHeader(caller);
            for (const DImageOptionalData* meta : {&own, &caller}) {
                EXPECT_EQ(meta->description(), withModel ? model : std::string("Lab frame, SN 12-3456"));
                EXPECT_EQ(meta->detector_number(), std::string(withModel ? "31-0415" : "12-3456"));
                EXPECT_EQ(meta->count_time(), 0.5f);
            }
            EXPECT_EQ(caller.beam_flux(), 1e12f);
        }
    }
    {
        SCOPED_TRACE("a longer file: the raw header is its first 4096 bytes");
        const Bytes big = fixture("u32_97x103.tif");
        DImageOptionalData meta;
        DTifReader(readerData(big), "mem.tif").readRawHeader(meta);
        EXPECT_EQ(meta.rawHeader(), std::string(big.begin(), big.begin() + 4096));
    }
}

TEST(TifReader, DirectoryFailures)
{
    const Bytes pixels = pattern(16);
    const auto without = [](std::vector<Field> fields, std::uint16_t tag) {
        std::vector<Field> kept;
        for (const Field& f : fields)
            if (f.tag != tag)
                kept.push_back(f);
        return kept;
    };
    const auto with = [](std::vector<Field> fields, const Field& field) {
        for (Field& f : fields)
            if (f.tag == field.tag)
                f = field;
        return fields;
    };
    const auto plus = [](std::vector<Field> fields, const Field& field) {
        fields.insert(fields.begin(), field);
        return fields;
    };
    const std::vector<Field> good = imageFields(4, 4, 8, 1, 4);
    Bytes looped = tiff(pixels, {good}); // the directory names itself as the next one
    std::copy(looped.begin() + 4, looped.begin() + 8, looped.end() - 4);

    struct Case {
        const char* label;
        Bytes file;
        const char* reason;
    };
    const Case cases[] = {
        {"empty file", {}, "Invalid data offset"},
        {"shorter than the header", Bytes{'I', 'I', 42, 0, 8, 0}, "Invalid data offset"},
        {"first directory at the file's end", [&] { Bytes b = tiff(pixels, {good}); put(b, 4, b.size(), 4); return b; }(),
         "Invalid data offset"},
        {"more entries than the file holds", [&] { Bytes b = tiff(pixels, {good}); put(b, 24, 7, 2); return b; }(),
         "Invalid data offset"},
        {"value offset beyond the end", tiff(pixels, {plus(good, {270, 2, 5, le(0xFFFFFF00u, 4)})}), "Invalid data offset"},
        {"a strip count that wraps the value size", tiff(pixels, {with(good, {273, 4, 0x40000001u, le(8, 4)})}),
         "Invalid data offset"},
        {"directories in a loop", looped, "Invalid data offset"},
        {"field type 0 on a tag never read", tiff(pixels, {plus(good, {999, 0, 1, le(0, 4)})}), "Invalid field type."},
        {"DOUBLE, legal TIFF, on a tag never read", tiff(pixels, {plus(good, {999, 12, 1, le(0, 8)})}),
         "Invalid field type."},
        {"width as ASCII", tiff(pixels, {with(good, asciiField(256, "4"))}), "Invalid field type."},
        {"bits per sample as LONG", tiff(pixels, {with(good, longField(258, 8))}), "Invalid field type."},
        {"model as SHORT", tiff(pixels, {plus(good, shortField(272, 1))}), "Invalid field type."},
        {"strip offsets as BYTE", tiff(pixels, {with(good, {273, 1, 1, le(8, 1)})}), "Invalid field type."},
        {"an empty directory", tiff(pixels, {{}}), "Missing image width."},
        {"no width (and no bits)", tiff(pixels, {without(without(good, 256), 258)}), "Missing image width."},
        {"no height", tiff(pixels, {without(good, 257)}), "Missing image height."},
        {"no strips", tiff(pixels, {without(good, 273)}), "Missing number of strips."},
        {"no rows per strip", tiff(pixels, {without(good, 278)}), "Missing rows per strips."},
        {"no bits per sample", tiff(pixels, {without(good, 258)}), "Missing bits per sample."},
        {"a width of 2^31 counts as missing", tiff(pixels, {with(good, longField(256, 0x80000000u))}),
         "Missing image width."},
        {"64-bit floating point", tiff(pixels, {imageFields(1, 1, 64, 3, 1)}), "Unsupported tif data type."},
        {"12-bit integers", tiff(pixels, {imageFields(1, 1, 12, 1, 1)}), "Unsupported tif data type."},
        {"sample format 4", tiff(pixels, {imageFields(1, 1, 16, 4, 1)}), "Unsupported tif data type."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        EXPECT_THROW_MSG(DTifReader(readerData(c.file), "mem.tif"), DImageCorruptedException, corrupted(c.reason));
    }
}

TEST(TifReader, DirectoryChainAndFieldForms)
{
    const Bytes pixels = pattern(64);
    const auto readAll = [](const Bytes& b) {
        DImage image;
        DTifReader(readerData(b), "mem.tif").readData(image, nullptr);
        return image;
    };
    {
        SCOPED_TRACE("a second directory replaces the size and the strips; SHORT values inline, in front");
        std::vector<Field> second = imageFields(0, 0, 16, 2, 2, 20);
        second[0] = {256, 3, 1, le(0xBEEF0003u, 4)};
        second[1] = {257, 3, 2, le(0x00070002u, 4)}; // of a count of 2, the first value
        const Bytes b = tiff(pixels, {imageFields(4, 4, 8, 1, 4, 8), second});
        const DTifReader reader(readerData(b), "mem.tif");
        EXPECT_EQ(shapeOf(reader), std::make_tuple(3, 2, datatypes::INT, 16ul));
        EXPECT_TRUE(pixelBytes(readAll(b)) == Bytes(pixels.begin() + 12, pixels.begin() + 24));
    }
    {
        SCOPED_TRACE("a next directory at 14 bytes or less before the end is not followed");
        Bytes b = tiff(pixels, {imageFields(4, 4, 8, 1, 4, 8)});
        put(b, b.size() - 4, b.size() - 14, 4);
        EXPECT_EQ(DTifReader(readerData(b), "mem.tif").width(), 4);
        put(b, b.size() - 4, b.size() - 15, 4); // one byte earlier it is followed, into the last entry
        EXPECT_THROW_MSG(DTifReader(readerData(b), "mem.tif"), DImageCorruptedException, corrupted("Invalid field type."));
        b.resize(b.size() - 2); // a next-directory field cut off ends the chain too
        EXPECT_EQ(DTifReader(readerData(b), "mem.tif").height(), 4);
    }
    {
        SCOPED_TRACE("strip offsets as an out-of-line LONG array and as SHORT");
        std::vector<Field> fields = imageFields(4, 2, 8, 1, 1, 8);
        fields[3] = {273, 4, 2, le(0x0000001400000028ull, 8)}; // strips at 40, then 20
        fields.push_back(asciiField(272, "Model X"));
        const DImage image = readAll(tiff(pixels, {fields}));
        // Two strips of one row: the second lands on the first, at the image's start.
        EXPECT_TRUE(Bytes(image.data(), image.data() + 4) == Bytes(pixels.begin() + 12, pixels.begin() + 16));
        EXPECT_EQ(image.optionalData().description(), std::string("Model X")); // without its NUL

        fields = imageFields(2, 1, 8, 1, 1);
        fields[3] = {273, 3, 1, le(30, 2)};
        EXPECT_TRUE(pixelBytes(readAll(tiff(pixels, {fields}))) == Bytes(pixels.begin() + 22, pixels.begin() + 24));
    }
    {
        SCOPED_TRACE("every legal field type on a tag that isn't read; no sample format is unsigned");
        std::vector<Field> fields = imageFields(2, 2, 32, 1, 2);
        fields.pop_back();
        for (std::uint16_t type = 1; type <= 11; ++type)
            fields.push_back({static_cast<std::uint16_t>(60000 + type), type, 3, pattern(24)});
        EXPECT_EQ(shapeOf(DTifReader(readerData(tiff(pixels, {fields})), "mem.tif")),
                  std::make_tuple(2, 2, datatypes::UINT, 32ul));
    }
    {
        SCOPED_TRACE("no strips (count 0, its type not tested) and no width or height: nothing is copied");
        std::vector<Field> fields = imageFields(2, 2, 8, 1, 2);
        fields[3] = {273, 7, 0, le(0, 4)};
        EXPECT_NO_THROW(readAll(tiff(pixels, {fields})));
        EXPECT_NO_THROW(readAll(tiff(pixels, {imageFields(0, 5, 8, 1, 0, 0xFFFFFFFFu)})));
        EXPECT_NO_THROW(readAll(tiff(pixels, {imageFields(5, 0, 8, 1, 0, 0xFFFFFFFFu)})));
    }
}

TEST(TifReader, PixelDataFailures)
{
    const Bytes pixels = pattern(64);
    std::vector<Field> laterBad = imageFields(2, 2, 8, 1, 1), tooLong = imageFields(2, 2, 8, 1, 3);
    laterBad[3] = {273, 3, 2, le(0xFFFF0008u, 4)};
    tooLong[3] = {273, 3, 2, le(0x00080008u, 4)};
    struct Case {
        const char* label;
        Bytes file;
    };
    const Case cases[] = {
        {"a strip that runs past the end", tiff(pixels, {imageFields(16, 17, 8, 1, 17)})},
        {"the strip's offset beyond the end", tiff(pixels, {imageFields(2, 2, 8, 1, 2, 0xFFFFFFF0u)})},
        {"a later strip bad, an earlier good", tiff(pixels, {laterBad})},
        {"rows per strip of 0", tiff(pixels, {imageFields(2, 2, 8, 1, 0)})},
        {"two strips of more rows than the image has", tiff(pixels, {tooLong})},
        {"a strip length beyond 64 bits", tiff(pixels, {imageFields(0x7FFFFFFF, 0x7FFFFFFF, 64, 2, 0x7FFFFFFF)})},
        {"a huge strip at a huge offset", tiff(pixels, {imageFields(65535, 65535, 32, 1, 65535, 0xFFFFFFFFu)})},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        const DTifReader reader(readerData(c.file), "mem.tif");
        // Absurd sizes exist as readers; their strips are refused, here on a one-pixel image.
        const bool small = std::uint64_t(reader.width()) * std::uint64_t(reader.height()) <= 4096;
        DImage image = small ? DImage(reader.width(), reader.height(), reader.dataType(), reader.typeBits() / 8)
                             : DImage(1, 1, datatypes::UINT, 1);
        EXPECT_THROW_MSG(reader.readPixelData(image), DImageCorruptedException, corrupted("Invalid binary data."));
    }
}

TEST(TifReader, AFrameTheFileCannotHoldIsRefusedBeforeItIsAllocated)
{
    // One strip of one row, 64 bytes present, for a frame of 16 x 2^22 pixels (256 MiB):
    // the strip alone would pass, but the pixels are uncompressed and the file is 200 bytes.
    const Bytes file = tiff(pattern(64), {imageFields(16, 1u << 22, 32, 1, 1)});
    const DTifReader reader(readerData(file), "mem.tif");
    DImage image;
    EXPECT_THROW_MSG(reader.readData(image, nullptr), DImageCorruptedException, corrupted("Invalid binary data."));
    EXPECT_TRUE(image.empty());
}

TEST(TifReader, DamagedFilesFailCleanly)
{
    const Bytes file = fixture("u16_13x11.tif");
    const std::size_t stripOffset = 196;
    ASSERT_GT(file.size(), stripOffset);
    // Cut at every length: a bad offset in the directory, then bad binary data.
    std::size_t firstReadable = file.size();
    for (std::size_t length = 0; length < file.size(); ++length) {
        SCOPED_TRACE(length);
        try {
            const DTifReader reader(readerData(file, length), "mem.tif");
            firstReadable = std::min(firstReadable, length);
            DImage image;
            EXPECT_THROW_MSG(reader.readData(image, nullptr), DImageCorruptedException, corrupted("Invalid binary data."));
        } catch (const DImageCorruptedException& e) {
            EXPECT_EQ(std::string(e.what()), corrupted("Invalid data offset"));
            EXPECT_LT(length, firstReadable) << "a shorter cut was readable";
        }
    }
    EXPECT_LE(firstReadable, stripOffset);
}

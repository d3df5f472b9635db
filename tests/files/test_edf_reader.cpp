#include "ReaderHelpers.h"
#include "TestHelpers.h"

#include "DEdfReader.h"
#include "foundation/DException.h"

#include <boost/optional/optional_io.hpp>

using namespace norvexa;
using namespace norvexa::imglib;
using norvexa_test::pixelBytes;
using norvexa_test::readerData;
using Bytes = std::vector<char>;
using namespace std::string_literals;

namespace {

const std::string MISSING_HEADER = "DEdfReader: Missing header";
const std::string HEADER_CORRUPTED = "DEdfReader: Header corrupted";
const std::string INCONSISTENT = "DEdfReader: Inconsistent image dimensions";
const std::string TOO_SHORT = "DEdfReader: Image size larger than file size";

Bytes fixture(const std::string& name) { return norvexa_test::fileBytes(norvexa_test::dataPath("edf/" + name)); }

// A header of the given lines between braces, a line feed, then `pixelBytes` bytes.
Bytes edf(const std::string& lines, std::size_t pixelBytes)
{
    const std::string text = "{\n" + lines + "}\n";
    Bytes b(text.begin(), text.end());
    for (std::size_t i = 0; i < pixelBytes; ++i)
        b.push_back(static_cast<char>(i * 13 + 1));
    return b;
}

const std::string GOOD = "ByteOrder = LowByteFirst ;\nDataType = SignedInteger ;\nDim_1 = 3 ;\nDim_2 = 2 ;\nSize = 24 ;\n";

DImage readAll(const Bytes& b, const DImageOptionalData* metadata = nullptr)
{
    DImage image;
    DEdfReader(readerData(b), "mem.edf").readData(image, metadata);
    return image;
}

} // namespace

TEST(EdfReader, FramesWrittenByAnIndependentToolReadPixelForPixel)
{
    for (const auto& [name, width, height] : {std::tuple{"i32_7x5", 7, 5}, std::tuple{"i32_64x33", 64, 33},
                                              std::tuple{"i32_97x103", 97, 103}, std::tuple{"highbyte_i32_7x5", 7, 5}}) {
        SCOPED_TRACE(name);
        const std::string path = norvexa_test::dataPath(std::string("edf/") + name + ".edf").string();
        const Bytes file = fixture(std::string(name) + ".edf");
        const DEdfReader fromFile(path.c_str(), 0), fromMemory(readerData(file), "mem.edf");
        for (const DEdfReader* reader : {&fromFile, &fromMemory}) {
            EXPECT_EQ(reader->width(), width);
            EXPECT_EQ(reader->height(), height);
            DImage image;
            reader->readData(image, nullptr);
            EXPECT_TRUE(pixelBytes(image) == fixture(std::string(name) + ".raw"));
            const DImageOptionalData& meta = image.optionalData();
            EXPECT_EQ(meta.data_collection_date(), std::string("2014 06 01 12:00")); // blanks reduced
            EXPECT_EQ(meta.count_time(), 0.001f * width);
            const std::size_t close = std::string(file.begin(), file.end()).find('}');
            EXPECT_EQ(meta.rawHeader(), std::string(file.begin(), file.begin() + close));
        }
    }
}

TEST(EdfReader, HeaderFailuresInTheOrderOfTheSteps)
{
    const std::string noSemicolon = "DataType = SignedInteger ;\nDim_1 = 10\nDim_2 = 5 ;\nSize = 200 ;\n";
    const auto s = [](const std::string& text) { return Bytes(text.begin(), text.end()); };
    const struct {
        const char* label;
        Bytes file;
        std::string text;
    } cases[] = {
        {"empty file", {}, MISSING_HEADER},
        {"no opening brace", s("DataType = SignedInteger ;}\n"), MISSING_HEADER},
        {"no closing brace behind the opening one", s("}{\nDataType = SignedInteger ;\n"), MISSING_HEADER},
        {"a keyword with nothing behind it", s("{\nDataType = SignedInteger ;\nDim_1}\n"), HEADER_CORRUPTED},
        {"a keyword without =", edf("ByteOrder LowByteFirst\n", 0), HEADER_CORRUPTED},
        {"a missing semicolon swallows the next key", edf(noSemicolon, 200), HEADER_CORRUPTED},
        {"an empty text value", edf("ByteOrder = ;\n", 0), HEADER_CORRUPTED},
        {"a byte order of neither kind", edf("ByteOrder = Native ;\n" + GOOD, 24), "DEdfReader: Undefined byte order"},
        {"no data type", edf("Dim_1 = 3 ;\nDim_2 = 2 ;\nSize = 24 ;\n", 24), "DEdfReader: Missing data type (DataType)"},
        {"a data type of no accepted name", edf("DataType = FloatValue ;\nDim_1 = 1 ;\n", 24), HEADER_CORRUPTED},
        {"a header on one line doesn't fit its line buffer",
         s("{ DataType = SignedInteger ; Dim_1 = 1 ; Dim_2 = 1 ; Size = 4 ; }\n1234"),
         "DEdfReader: Missing data type (DataType)"},
        {"no width", edf("DataType = SignedInteger ;\nDim_2 = 2 ;\nSize = 24 ;\n", 24), "DEdfReader: Missing width (Dim_1)"},
        {"a width that is no number", edf("DataType = SignedInteger ;\nDim_1 = many ;\n", 24), HEADER_CORRUPTED},
        {"a width beyond int", edf("DataType = SignedInteger ;\nDim_1 = 4294967297 ;\n", 24), HEADER_CORRUPTED},
        {"no height", edf("DataType = SignedInteger ;\nDim_1 = 3 ;\nSize = 24 ;\n", 24), "DEdfReader: Missing height (Dim_2)"},
        {"no size", edf("DataType = SignedInteger ;\nDim_1 = 3 ;\nDim_2 = 2 ;\n", 24), "DEdfReader: Missing data size (Size)"},
        {"a size one byte off", edf("DataType = SignedInteger ;\nDim_1 = 10 ;\nDim_2 = 10 ;\nSize = 401 ;\n", 400),
         INCONSISTENT},
        {"negative extents whose product matches",
         edf("DataType = SignedInteger ;\nDim_1 = -2 ;\nDim_2 = -3 ;\nSize = 24 ;\n", 24), INCONSISTENT},
        {"the largest extents",
         edf("DataType = SignedInteger ;\nDim_1 = 2147483647 ;\nDim_2 = 2147483647 ;\nSize = 4 ;\n", 4), INCONSISTENT},
        {"extents whose product wraps an int to the size",
         edf("DataType = SignedInteger ;\nDim_1 = 65536 ;\nDim_2 = 16384 ;\nSize = 0 ;\n", 0), INCONSISTENT},
        {"a pixel block one byte short", edf(GOOD, 23), TOO_SHORT},
        {"a huge size in a small file",
         edf("DataType = SignedInteger ;\nDim_1 = 16384 ;\nDim_2 = 32767 ;\nSize = 2147418112 ;\n", 8), TOO_SHORT},
        {"nothing behind the closing brace", s("{\n" + GOOD + "}"), TOO_SHORT},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        EXPECT_THROW_MSG(DEdfReader(readerData(c.file), "mem.edf"), DImageCorruptedException, c.text);
    }
    for (const char* name : {"u8_7x5", "u16_7x5", "u32_7x5", "f32_7x5", "i16_7x5", "i64_7x5"}) {
        SCOPED_TRACE(std::string("another tool's frame of another pixel type: ") + name);
        const std::string path = norvexa_test::dataPath(std::string("edf/") + name + ".edf").string();
        EXPECT_THROW_MSG(DEdfReader(path.c_str(), 0), DImageCorruptedException, HEADER_CORRUPTED);
    }
}

TEST(EdfReader, KeysValuesPixelsAndTheCallersMetadata)
{
    const auto reader = [](const std::string& lines, std::size_t pixels) {
        return DEdfReader(readerData(edf(lines, pixels)), "mem.edf");
    };
    {
        SCOPED_TRACE("keys in any case; no byte order reads as LowByteFirst; size 400 for 10 x 10");
        const Bytes b = edf("datatype = SignedInteger ;\ndim_1 = 10 ;\nDIM_2 = 10 ;\nsize = 400 ;\n", 400);
        const DImage image = readAll(b);
        EXPECT_EQ(std::make_pair(image.width(), image.height()), std::make_pair(10, 10));
        EXPECT_TRUE(pixelBytes(image) == Bytes(b.end() - 400, b.end()));
    }
    // A key is also found at the end of a longer one; the first occurrence wins.
    EXPECT_EQ(reader("EDF_BinarySize = 24 ;\nDataType = SignedInteger ;\nDim_1 = 6 ;\nDim_2 = 1 ;\nSize = 99 ;\n", 24)
                  .width(),
              6);
    // Text after the first ; of a line is dropped; numbers stop at what isn't one.
    const DEdfReader cut =
        reader("DataType = SignedInteger ; Dim_1 = 99 ;\nDim_1 = 3px ;\nDim_2 = 2 ; x = y\nSize = 24 ;\n", 24);
    EXPECT_EQ(std::make_pair(cut.width(), cut.height()), std::make_pair(3, 2));
    // A width or height of 0 reads no pixels, even with nothing behind the brace.
    EXPECT_NO_THROW(readAll(edf("DataType = SignedInteger ;\nDim_1 = 0 ;\nDim_2 = 7 ;\nSize = 0 ;\n", 0)));
    const std::string braceLast = "{\nDataType = SignedInteger ;\nDim_1 = 3 ;\nDim_2 = 0 ;\nSize = 0 ;\n}";
    const Bytes b(braceLast.begin(), braceLast.end());
    EXPECT_EQ(DEdfReader(readerData(b), "mem.edf").width(), 3);
    EXPECT_NO_THROW(readAll(b));
    for (const std::string type : {"Signed32", "SignedLong"}) // the other names of the one type read
        EXPECT_EQ(readAll(edf("DataType = " + type + " ;\nDim_1 = 1 ;\nDim_2 = 1 ;\nSize = 4 ;\n", 4)).type(),
                  datatypes::INT);

    // The caller's metadata: the file's items laid over it.
    DImageOptionalData caller;
    caller.set_count_time(9.0f);
    caller.set_wavelength(1.5f);
    caller.set_data_collection_date(std::string("yesterday"));
    const DImageOptionalData meta = readAll(edf(GOOD + "count_time = 0.5 ;\n", 24), &caller).optionalData();
    EXPECT_EQ(std::make_tuple(meta.count_time(), meta.wavelength(), meta.data_collection_date()),
              std::make_tuple(boost::make_optional(0.5f), boost::make_optional(1.5f), boost::make_optional("yesterday"s)));
    // A count time that is no number fails when the header is read, not before.
    const DEdfReader fast(readerData(edf(GOOD + "count_time = fast ;\n", 24)), "mem.edf");
    DImage image;
    EXPECT_THROW_MSG(fast.readData(image, nullptr), DImageCorruptedException, HEADER_CORRUPTED);
    EXPECT_THROW_MSG(fast.readData(image, &caller), DImageCorruptedException, HEADER_CORRUPTED);
}

TEST(EdfReader, DamagedFilesFailCleanly)
{
    const Bytes file = fixture("i32_7x5.edf");
    const std::size_t close = std::string(file.begin(), file.end()).find('}');
    ASSERT_EQ(file.size(), close + 2 + 7 * 5 * 4);
    // Cut at every length: no header until the brace, then too short.
    for (std::size_t length = 0; length < file.size(); ++length) {
        SCOPED_TRACE(length);
        EXPECT_THROW_MSG(DEdfReader(readerData(file, length), "mem.edf"), DImageCorruptedException,
                         length <= close ? MISSING_HEADER : TOO_SHORT);
    }
}

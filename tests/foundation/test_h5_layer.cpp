#include "TestHelpers.h"

#include "foundation/DException.h"
#include "foundation/hdf5/DH5.h"

#include <hdf5.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

using namespace norvexa;
using namespace norvexa::hdf5;
using image::DCompression;
using Image = image::DBasicImage<image::StdAllocator>;
namespace fs = std::filesystem;

namespace {

const DCompression::FILTER NONE = DCompression::FILTER_NONE;

// A failure must be a DRuntimeException whose text begins with `prefix`, and must leave
// HDF5's error stack empty, since callers probe by catching.
template <class Statement> void expectFailure(Statement statement, const std::string& prefix)
{
    SCOPED_TRACE(prefix);
    try {
        statement();
        ADD_FAILURE() << "no exception";
    } catch (const DRuntimeException& e) {
        EXPECT_EQ(std::string(e.what()).substr(0, prefix.size()), prefix) << e.what();
    }
    EXPECT_EQ(H5Eget_num(H5E_DEFAULT), 0);
}

std::vector<std::uint16_t> ramp(std::size_t n, std::uint16_t first)
{
    std::vector<std::uint16_t> v(n);
    std::iota(v.begin(), v.end(), first);
    return v;
}

bool printingIsOn()
{
    H5E_auto2_t function = nullptr;
    void* data = nullptr;
    H5Eget_auto2(H5E_DEFAULT, &function, &data);
    return function != nullptr;
}

} // namespace

TEST(H5Layer, DatasetsAndAttributesRoundTripForEveryClass)
{
    norvexa_test::TempDir dir;
    const std::string path = (dir.path() / "types.h5").string();
    const std::int16_t shorts[] = {-3, -2, -1, 0, 1, 2};
    const std::uint32_t uints[] = {0, 4000000000u};
    const double doubles[] = {0.5, -1e300, 3.25};
    {
        DH5File file(path, "w");
        file.addDataset("/a/b/shorts", H5Int, 2, {2, 3}, NONE).write(shorts);
        DH5Group group = file.group("/a");
        group.addDataset("uints", H5UInt, 4, {2}, NONE).write(uints);
        DH5Data text = group.addDataset("text", H5String, 5, {}, NONE);
        text.write("hello");
        text.addAttribute("doubles", H5Float, 8, {3}).write(doubles);
        group.addAttribute("NX_class", H5String, 6, {}).write(std::string("NXdata"));
        DH5Attribute number = group.addAttribute("number", H5Int, 4, {});
        number.write(-7);
        EXPECT_THROW(group.addAttribute("short", H5String, 2, {}).write(std::string("long")),
                     DRuntimeException);
    }
    DH5File file(path, "r");
    EXPECT_EQ(file.groups(), (std::set<std::string>{"a"}));
    const DH5Group group = file.group("/a");
    EXPECT_EQ(group.groups(), (std::set<std::string>{"b"}));
    EXPECT_EQ(group.datasets(), (std::set<std::string>{"text", "uints"}));
    EXPECT_EQ(group.attributes(), (std::set<std::string>{"NX_class", "number", "short"}));

    // (type, bits, shape) of what was read: the shape fastest first.
    Image image;
    const auto readAs = [&image](const auto& source) {
        source.read(image);
        return std::make_tuple(image.type(), image.typeBits(),
                               std::vector<unsigned long>(image.shape().begin(), image.shape().end()));
    };
    const DH5Data data = group.dataset("b/shorts");
    EXPECT_EQ(std::make_tuple(data.dataType(), data.dataSize(), data.dim(), data.filter()),
              std::make_tuple(H5Int, 2ul, std::vector<unsigned long>{2, 3}, NONE));
    EXPECT_EQ(readAs(data), std::make_tuple(datatypes::INT, 16ul, std::vector<unsigned long>{3, 2}));
    EXPECT_EQ(reinterpret_cast<const std::int16_t*>(image.cdata())[5], 2);
    EXPECT_EQ(readAs(file.dataset("/a/uints")), std::make_tuple(datatypes::UINT, 32ul, std::vector<unsigned long>{2}));
    EXPECT_EQ(reinterpret_cast<const std::uint32_t*>(image.cdata())[1], 4000000000u);
    const DH5Data text = file.dataset("/a/text");
    EXPECT_EQ(std::make_pair(text.dataType(), text.dataSize()), std::make_pair(H5String, 5ul));
    EXPECT_EQ(readAs(text), std::make_tuple(datatypes::CHAR, 40ul, std::vector<unsigned long>{}));
    EXPECT_EQ(std::string(image.cdata(), 5), "hello");
    EXPECT_EQ(readAs(text.attribute("doubles")), std::make_tuple(datatypes::FLOAT, 64ul, std::vector<unsigned long>{3}));
    EXPECT_EQ(reinterpret_cast<const double*>(image.cdata())[1], -1e300);

    std::string nxClass;
    int number = 0;
    group.attribute("NX_class").read(nxClass);
    group.attribute("number").read(number);
    EXPECT_EQ(std::make_pair(nxClass, number), std::make_pair(std::string("NXdata"), -7));
    EXPECT_EQ(group.attribute("NX_class").numberOfElements(), 1u);
    EXPECT_EQ(text.attribute("doubles").numberOfElements(), 3u);
    expectFailure([&] { group.attribute("NX_class").read(number); },
                  "HDF5 attribute NX_class of /a holds text");
    expectFailure([&] { text.attribute("doubles").read(number); },
                  "HDF5 attribute doubles of /a/text holds 3");
}

TEST(H5Layer, VariableLengthStringsAsH5pyWritesThem)
{
    norvexa_test::TempDir dir;
    const std::string path = (dir.path() / "vlen.h5").string();
    {
        DH5File file(path, "w");
        file.addGroup("/entry", true);
    }
    // A str attribute as h5py stores it: variable-length UTF-8, scalar and array.
    const hid_t file = H5Fopen(path.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
    const hid_t type = H5Tcopy(H5T_C_S1);
    H5Tset_size(type, H5T_VARIABLE);
    H5Tset_cset(type, H5T_CSET_UTF8);
    const hid_t scalar = H5Screate(H5S_SCALAR);
    const hsize_t two = 2;
    const hid_t pair = H5Screate_simple(1, &two, nullptr);
    const char* one[] = {"NXentry"};
    const char* both[] = {"a", "longer"};
    const hid_t a =
        H5Acreate_by_name(file, "/entry", "NX_class", type, scalar, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
    const hid_t b =
        H5Acreate_by_name(file, "/entry", "names", type, pair, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
    H5Awrite(a, type, one);
    H5Awrite(b, type, both);
    for (hid_t id : {a, b, scalar, pair, type, file})
        H5Idec_ref(id);

    const DH5Group entry = DH5File(path, "r").group("/entry");
    const DH5Attribute nxClass = entry.attribute("NX_class");
    std::string text;
    nxClass.read(text);
    EXPECT_EQ(std::make_tuple(text, nxClass.dataType(), nxClass.numberOfElements()),
              std::make_tuple(std::string("NXentry"), H5String, 1ul));
    Image image;
    entry.attribute("names").read(image);
    EXPECT_EQ(std::make_pair(image.type(), image.typeBits()), std::make_pair(datatypes::CHAR, 48ul)); // the longest
    EXPECT_EQ(std::string(image.cdata(), 12), std::string("a\0\0\0\0\0longer", 12));
}

TEST(H5Layer, HandlesShareTheObjectAndTheLastOneClosesIt)
{
    norvexa_test::TempDir dir;
    const std::string path = (dir.path() / "share.h5").string();
    DH5Data data;
    EXPECT_FALSE(data.isOpen());
    expectFailure([&] { data.dim(); }, "HDF5 dataset handle refers to nothing");
    expectFailure([&] { DH5Group().links(); }, "HDF5 group handle refers to nothing");
    {
        DH5File file(path, "w");
        data = file.addDataset("/d", H5Int, 4, {2}, NONE);
    }
    const int values[] = {1, 2};
    data.write(values); // the dataset keeps its file open
    DH5Data copy = data;
    data = DH5Data();
    EXPECT_EQ(copy.dim(), (std::vector<unsigned long>{2}));
    // Still open: HDF5 refuses to truncate it.
    {
        DH5DontPrint quiet;
        expectFailure([&] { DH5File(path, "w"); }, "Cannot create HDF5 file " + path);
    }
    copy = DH5Data();
    EXPECT_NO_THROW(DH5File(path, "w"));
    EXPECT_THROW(DH5File(path, "a"), DBadParameterException);
}

TEST(H5Layer, FailuresRaiseAndClearTheErrorStack)
{
    norvexa_test::TempDir dir;
    const std::string path = (dir.path() / "f.h5").string();
    ASSERT_TRUE(printingIsOn());
    std::optional<DH5DontPrint> quiet(std::in_place);
    {
        DH5DontPrint nested; // guards nest: the inner one's end leaves printing off
    }
    EXPECT_FALSE(printingIsOn());
    expectFailure([&] { DH5File((dir.path() / "missing.h5").string(), "r"); }, "Cannot open HDF5 file");
    DH5File file(path, "w");
    DH5Group group = file.addGroup("/entry/data", true);
    EXPECT_NO_THROW(file.addGroup("/entry/data", true)); // already there: fine, as mkdir -p
    expectFailure([&] { file.addGroup("/entry/data", false); }, "Cannot create HDF5 group /entry/data");
    expectFailure([&] { file.group("/entry/nothing"); }, "Cannot open HDF5 group /entry/nothing: ");
    expectFailure([&] { group.dataset("nothing"); }, "Cannot open HDF5 dataset /entry/data/nothing: ");
    expectFailure([&] { group.attribute("NX_class"); },
                  "Cannot open HDF5 attribute NX_class of /entry/data: ");
    expectFailure([&] { group.removeAttribute("NX_class"); },
                  "Cannot remove HDF5 attribute NX_class of /entry/data");
    group.addAttribute("NX_class", H5String, 6, {});
    expectFailure([&] { group.addAttribute("NX_class", H5Int, 4, {}); },
                  "Cannot create HDF5 attribute NX_class");
    group.removeAttribute("NX_class");
    EXPECT_TRUE(group.attributes().empty());

    DH5Data frames = group.addDataset("frames", H5UInt, 2, {-1, 2, 2}, NONE);
    std::vector<std::uint16_t> out(4);
    expectFailure(
        [&] {
            frames.readSlice(out.data(), {0, 0, 0}, {1, 2, 2});
        },
        "Cannot read HDF5 dataset /entry/data/frames: ");
    expectFailure([&] { frames.readRawChunk({0, 0, 0}); }, "No chunk is stored");
    expectFailure([&] { group.addDataset("fixed", H5Int, 4, {2}, NONE).writeChunk(out.data(), {3}); },
                  "Cannot write a frame of HDF5 dataset /entry/data/fixed");
    EXPECT_THROW(frames.readSlice(out.data(), {0, 0}, {1, 2}), DBadParameterException);
    EXPECT_THROW(group.addDataset("bad", H5Float, 2, {1}, NONE), DBadParameterException);
    EXPECT_THROW(group.addDataset("bad", H5Int, 4, {2, -1}, NONE), DBadParameterException);
    EXPECT_THROW(group.addDataset("bad", H5UInt, 4, {-1, 2, 2}, DCompression::FILTER_BS16_LZ4),
                 DBadParameterException);
    EXPECT_EQ(H5Eget_num(H5E_DEFAULT), 0);
}

TEST(H5Layer, ExternalLinksResolveBesideTheMasterAndMayDangle)
{
    norvexa_test::TempDir dir;
    fs::create_directories(dir.path() / "series");
    fs::create_directories(dir.path() / "elsewhere");
    const auto writeData = [](const fs::path& path, std::uint16_t first) {
        DH5File data(path.string(), "w");
        data.addDataset("/entry/data/data", H5UInt, 2, {2}, NONE).write(ramp(2, first).data());
    };
    writeData(dir.path() / "series" / "data.h5", 1);
    writeData(dir.path() / "elsewhere" / "data.h5", 9);
    {
        DH5File master((dir.path() / "series" / "master.h5").string(), "w");
        master.addGroup("/entry/data", true).addDataset("local", H5Int, 4, {}, NONE);
        master.createExternalLink("data.h5", "/entry/data/data", "/entry/data/data_000001");
        master.createExternalLink("gone.h5", "/entry/data/data", "/entry/data/data_000002");
    }

    // The working directory holds a file of the same name; the link must not find it.
    norvexa_test::WorkingDirectory cwd(dir.path() / "elsewhere");
    DH5File master("../series/master.h5", "r");
    const DH5Group group = master.group("/entry/data");
    std::uint16_t values[2] = {};
    master.dataset("/entry/data/data_000001").readSlice(values, {0}, {2});
    EXPECT_EQ(values[0], 1);
    group.dataset("data_000001").readSlice(values, {1}, {1});
    EXPECT_EQ(values[0], 2);

    EXPECT_EQ(group.links(), (std::set<std::string>{"data_000001", "data_000002", "local"}));
    EXPECT_EQ(group.datasets(), (std::set<std::string>{"data_000001", "local"}));
    EXPECT_TRUE(group.groups().empty());
    for (const auto& [name, valid] : {std::pair{"data_000001", true}, std::pair{"local", true},
                                      std::pair{"data_000002", false}, std::pair{"data_000003", false},
                                      std::pair{"no/such/path", false}})
        EXPECT_EQ(group.linkIsValid(name), valid) << name;
    EXPECT_EQ(H5Eget_num(H5E_DEFAULT), 0);

    fs::remove(dir.path() / "series" / "data.h5");
    EXPECT_FALSE(group.linkIsValid("data_000001"));
    EXPECT_EQ(group.links().count("data_000001"), 1u);
    DH5DontPrint quiet;
    expectFailure([&] { group.dataset("data_000001"); },
                  "Cannot open HDF5 dataset /entry/data/data_000001: ");
}

TEST(H5Layer, CompressedChunksRoundTripThroughThePipeline)
{
    // The built-in filters decode whether or not plugins for the same ids are installed.
    registerBuiltinFilters();
    EXPECT_TRUE(builtinFilterInUse(DCompression::FILTER_LZ4));
    EXPECT_TRUE(builtinFilterInUse(DCompression::FILTER_BS32_LZ4));

    norvexa_test::TempDir dir;
    const std::string path = (dir.path() / "chunks.h5").string();
    const unsigned long height = 37, width = 61, n = height * width; // not a multiple of 8
    struct Case {
        DCompression::FILTER filter;
        DataType type;
        unsigned long size;
    };
    for (const Case& c :
         {Case{DCompression::FILTER_LZ4, H5Int, 2}, Case{DCompression::FILTER_BS16_LZ4, H5UInt, 2},
          Case{DCompression::FILTER_BS32_LZ4, H5Float, 4}, Case{NONE, H5UInt, 2}}) {
        SCOPED_TRACE(c.filter);
        std::vector<char> frame0(n * c.size), frame5(n * c.size);
        for (std::size_t i = 0; i < frame0.size(); ++i) {
            frame0[i] = static_cast<char>(i % 7 == 0 ? i / 7 : 0);
            frame5[i] = static_cast<char>(i * 13);
        }
        {
            DH5File file(path, "w");
            DH5Data data = file.addDataset("/entry/data/data", c.type, c.size,
                                           {-1, long(height), long(width)}, c.filter);
            EXPECT_EQ(data.dim(), (std::vector<unsigned long>{0, height, width}));
            EXPECT_EQ(data.filter(), c.filter);
            // A chunk made by the codec is stored as it is and lands in frames 0 to 4.
            const std::vector<char> chunk = image::codec::encode(c.filter, frame0.data(), frame0.size());
            for (unsigned long f = 0; f < 5; ++f)
                data.writePrecompressedChunk(chunk.data(), chunk.size(), {f, 0, 0});
            EXPECT_EQ(data.dim()[0], 5u);
            EXPECT_EQ(data.readRawChunk({4, 0, 0}), chunk);
            // Plain pixels at frame 5 of 5: the dataset grows by one, the pipeline compresses.
            data.writeChunk(frame5.data(), {5, 0, 0});
            EXPECT_EQ(data.dim(), (std::vector<unsigned long>{6, height, width}));
            const std::vector<char> stored = data.readRawChunk({5, 0, 0});
            std::vector<char> decoded(frame5.size());
            image::codec::decode(c.filter, stored.data(), stored.size(), decoded.data(), decoded.size());
            EXPECT_EQ(decoded, frame5);
        }
        const DH5Data data = DH5File(path, "r").dataset("/entry/data/data");
        std::vector<char> out(2 * n * c.size);
        const std::uint64_t decodedBefore = builtinChunksDecoded();
        data.readSlice(out.data(), {4, 0, 0}, {2, height, width});
        EXPECT_EQ(builtinChunksDecoded() - decodedBefore, c.filter == NONE ? 0u : 2u);
        EXPECT_TRUE(std::equal(frame0.begin(), frame0.end(), out.begin()));
        EXPECT_TRUE(std::equal(frame5.begin(), frame5.end(), out.begin() + frame0.size()));
        Image image;
        data.read(image);
        EXPECT_EQ(image.shape().size(), 3u);
        EXPECT_EQ(image.shape()[0], width);
        EXPECT_EQ(image.shape()[2], 6u);
        EXPECT_TRUE(std::equal(frame5.begin(), frame5.end(), image.cdata() + 5 * frame0.size()));
    }
}

namespace {
// A file whose one dataset, [1, 4] in one chunk, has the filter `id` with `values`, and
// the bytes `chunk` stored as its chunk.
void writeFilteredFile(const std::string& path, H5Z_filter_t id, const std::vector<unsigned>& values,
                       const std::vector<char>& chunk, hid_t type = H5T_STD_U16LE)
{
    const hid_t file = H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT);
    const hsize_t dims[] = {1, 4};
    const hid_t space = H5Screate_simple(2, dims, nullptr);
    const hid_t dcpl = H5Pcreate(H5P_DATASET_CREATE);
    H5Pset_chunk(dcpl, 2, dims);
    H5Pset_filter(dcpl, id, H5Z_FLAG_OPTIONAL, values.size(), values.data());
    const hid_t data = H5Dcreate2(file, "data", type, space, H5P_DEFAULT, dcpl, H5P_DEFAULT);
    const hsize_t offset[] = {0, 0};
    EXPECT_GE(H5Dwrite_chunk(data, H5P_DEFAULT, 0, offset, chunk.size(), chunk.data()), 0);
    for (hid_t h : {data, dcpl, space, file})
        H5Idec_ref(h);
}
} // namespace

TEST(H5Layer, BadChunksAndMissingFiltersFailCleanly)
{
    norvexa_test::TempDir dir;
    const std::string path = (dir.path() / "bad.h5").string();
    DH5DontPrint quiet;
    const std::vector<std::uint16_t> pixels = ramp(4, 1);
    const char* plain = reinterpret_cast<const char*>(pixels.data());
    std::vector<std::uint16_t> out(4);

    registerBuiltinFilters();
    if (H5Zfilter_avail(307) > 0) {
        GTEST_SKIP() << "a bzip2 plugin is installed";
    }
    H5Eclear2(H5E_DEFAULT);
    writeFilteredFile(path, 307, {}, std::vector<char>(plain, plain + 8));
    EXPECT_THROW_MSG(DH5File(path, "r").dataset("/data").readSlice(out.data(), {0, 0}, {1, 4}),
                     DRuntimeException, "HDF5 filter 307 (bzip2) is not available for dataset /data");
    EXPECT_EQ(H5Eget_num(H5E_DEFAULT), 0);

    struct Case {
        const char* label;
        H5Z_filter_t id;
        std::vector<unsigned> values;
        std::vector<char> chunk;
        const char* message;
        hid_t type;
    };
    const std::vector<char> lz4 = image::codec::encode(DCompression::FILTER_LZ4, plain, 8);
    const std::vector<char> bs16 = image::codec::encode(DCompression::FILTER_BS16_LZ4, plain, 8);
    std::vector<char> huge = lz4;
    huge[0] = 0x10; // a plain size of 2^60 bytes
    const std::vector<char> truncated(lz4.begin(), lz4.end() - 3);
    const Case cases[] = {
        {"truncated", LZ4_FILTER_ID, {}, truncated, "lz4 filter: Compressed chunk is truncated", H5T_STD_U16LE},
        {"huge size", LZ4_FILTER_ID, {}, huge, "lz4 filter: the chunk's plain size 1152921504606846984 does not fit",
         H5T_STD_U16LE},
        {"8-byte elements", BITSHUFFLE_FILTER_ID, {}, bs16, "bitshuffle filter: element size 8", H5T_STD_U64LE},
        {"no LZ4", BITSHUFFLE_FILTER_ID, {0, 0}, bs16, "bitshuffle filter: compression 0", H5T_STD_U16LE},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        writeFilteredFile(path, c.id, c.values, c.chunk, c.type);
        const DH5Data data = DH5File(path, "r").dataset("/data");
        try {
            data.readSlice(out.data(), {0, 0}, {1, 4});
            ADD_FAILURE() << "no exception";
        } catch (const DRuntimeException& e) {
            EXPECT_NE(std::string(e.what()).find(std::string("Cannot read HDF5 dataset /data: ") + c.message),
                      std::string::npos)
                << e.what();
        }
        EXPECT_EQ(H5Eget_num(H5E_DEFAULT), 0);
    }
    // The good bitshuffle chunk reads with the plugin's parameters.
    writeFilteredFile(path, BITSHUFFLE_FILTER_ID, {0, 2}, bs16);
    DH5File(path, "r").dataset("/data").readSlice(out.data(), {0, 0}, {1, 4});
    EXPECT_EQ(out, pixels);
}

TEST(H5Layer, StoredChunksMustBeAbleToHoldTheirFrame)
{
    registerBuiltinFilters();
    norvexa_test::TempDir dir;
    const std::string path = (dir.path() / "short.h5").string();
    const unsigned long side = 4096; // a frame of 64 MiB; zeros compress to some 250 KiB
    const std::vector<char> zeros(side * side * 4, 0);
    const struct {
        DCompression::FILTER filter;
        std::vector<char> chunk;
        bool inFile;
    } cases[] = {
        // A compressed chunk may decode to more than the file holds.
        {DCompression::FILTER_LZ4, image::codec::encode(DCompression::FILTER_LZ4, zeros.data(), zeros.size()), true},
        // A plain one of 64 bytes cannot be a frame of 64 MiB, nor can a compressed one.
        {NONE, std::vector<char>(64), false},
        {DCompression::FILTER_LZ4, std::vector<char>(64), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.filter);
        {
            DH5File file(path, "w");
            DH5Data data = file.addDataset("/data", H5UInt, 4, {-1, long(side), long(side)}, c.filter);
            data.writePrecompressedChunk(c.chunk.data(), c.chunk.size(), {0, 0, 0});
        }
        ASSERT_LT(fs::file_size(path), zeros.size());
        const DH5Data data = DH5File(path, "r").dataset("/data");
        EXPECT_EQ(data.sliceInFile({0, 0, 0}, {1, side, side}), c.inFile);
        EXPECT_THROW(data.sliceInFile({0, 0, 0}, {2, side, side}), DBadParameterException);
        if (!c.inFile) {
            // A whole read (a header item) is refused before it takes memory.
            image::DBasicImage<image::StdAllocator> image;
            EXPECT_THROW_MSG(data.read(image), DRuntimeException, "Data of HDF5 dataset /data is not in the file");
        }
    }
    {
        // Four frames never written: a frame reads as the fill value (an acquisition not yet
        // done), but a whole read of 256 MiB over no stored byte is a damaged header item.
        DH5File file(path, "w");
        DH5Data data = file.addDataset("/data", H5UInt, 4, {4, long(side), long(side)}, DCompression::FILTER_LZ4);
    }
    const DH5Data data = DH5File(path, "r").dataset("/data");
    EXPECT_TRUE(data.sliceInFile({0, 0, 0}, {1, side, side}));
    image::DBasicImage<image::StdAllocator> image;
    EXPECT_THROW_MSG(data.read(image), DRuntimeException, "Data of HDF5 dataset /data is not in the file");
}

#include "foundation/hdf5/DH5Filters.h"

#include "foundation/hdf5/DH5DontPrint.h"

#include <hdf5.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <exception>
#include <mutex>
#include <string>
#include <vector>

#include <sys/mman.h>

namespace norvexa {
namespace hdf5 {

namespace {

using image::DCompression;

constexpr std::size_t HEADER_SIZE = 12; // 8 bytes plain size, 4 bytes block size, big-endian
constexpr unsigned BITSHUFFLE_LZ4 = 2;  // the compression code of cd_values[4]
// The format version written into cd_values[0..1], as the usual plugin writes it.
constexpr unsigned BITSHUFFLE_MAJOR = 0;
constexpr unsigned BITSHUFFLE_MINOR = 3;

std::atomic<bool> builtinLz4{false};
std::atomic<bool> builtinBitshuffle{false};
std::atomic<std::uint64_t> decodedChunks{0};

/// Reports a failed chunk on the HDF5 error stack (a filter can't throw through C) and
/// returns 0, HDF5's sign of failure.
std::size_t failChunk(const char* filter, const std::string& text)
{
    H5Epush2(H5E_DEFAULT, __FILE__, filter, __LINE__, H5E_ERR_CLS, H5E_PLINE, H5E_CANTFILTER, "%s filter: %s",
             filter, text.c_str());
    return 0;
}

std::uint64_t plainSizeOf(const unsigned char* chunk)
{
    std::uint64_t size = 0;
    for (int i = 0; i < 8; ++i)
        size = (size << 8) | chunk[i];
    return size;
}

/// Maps the pages of a fresh frame-sized output buffer in two calls instead of one fault
/// per page. HDF5 frees every filter output, so each frame's buffer comes new from the
/// system, and taking its 4 KiB pages one fault at a time cost twice the decoding itself
/// (60 ms against 26 ms for a 4148 x 4362 frame of 32 bits). Huge pages are asked for
/// where the kernel grants them on request; kernels without either call fall back to
/// plain faults.
void prefault(void* buffer, std::size_t size)
{
#ifdef MADV_POPULATE_WRITE
    constexpr int populateWrite = MADV_POPULATE_WRITE;
#else
    constexpr int populateWrite = 23;
#endif
    constexpr std::uintptr_t page = 4096;
    constexpr std::uintptr_t hugePage = std::uintptr_t(2) << 20;
    if (size < (std::size_t(4) << 20))
        return;
    const auto start = reinterpret_cast<std::uintptr_t>(buffer);
    const auto alignUp = [](std::uintptr_t at, std::uintptr_t to) { return (at + to - 1) & ~(to - 1); };
    const std::uintptr_t hugeBegin = alignUp(start, hugePage);
    const std::uintptr_t hugeEnd = (start + size) & ~(hugePage - 1);
    if (hugeEnd > hugeBegin)
        ::madvise(reinterpret_cast<void*>(hugeBegin), hugeEnd - hugeBegin, MADV_HUGEPAGE);
    const std::uintptr_t begin = alignUp(start, page);
    const std::uintptr_t end = (start + size) & ~(page - 1);
    ::madvise(reinterpret_cast<void*>(begin), end - begin, populateWrite);
}

/// Runs one chunk through the codec: decode when HDF5 reads, encode when it writes. The
/// result replaces *buffer, allocated by HDF5's allocator as the filter interface asks.
std::size_t runCodec(const char* filter, DCompression::FILTER form, unsigned flags, std::size_t nbytes,
                     std::size_t* bufferSize, void** buffer)
{
    try {
        const char* in = static_cast<const char*>(*buffer);
        void* out = nullptr;
        std::size_t outSize = 0;
        if (flags & H5Z_FLAG_REVERSE) {
            if (nbytes < HEADER_SIZE)
                return failChunk(filter, image::codec::text::TRUNCATED);
            const std::uint64_t plain = plainSizeOf(reinterpret_cast<const unsigned char*>(in));
            // LZ4 expands a block at most 255-fold: a larger size in the header is damage,
            // and must not become a huge allocation.
            if (plain == 0 || plain / 256 > nbytes)
                return failChunk(filter, "the chunk's plain size " + std::to_string(plain) +
                                             " does not fit its " + std::to_string(nbytes) + " bytes");
            outSize = static_cast<std::size_t>(plain);
            out = H5allocate_memory(outSize, false);
            if (!out)
                return failChunk(filter, "out of memory");
            prefault(out, outSize);
            try {
                image::codec::decode(form, in, nbytes, static_cast<char*>(out), outSize);
                decodedChunks.fetch_add(1, std::memory_order_relaxed);
            } catch (...) {
                H5free_memory(out);
                throw;
            }
        } else {
            const std::vector<char> chunk = image::codec::encode(form, in, nbytes);
            outSize = chunk.size();
            out = H5allocate_memory(outSize, false);
            if (!out)
                return failChunk(filter, "out of memory");
            std::memcpy(out, chunk.data(), outSize);
        }
        H5free_memory(*buffer);
        *buffer = out;
        *bufferSize = outSize;
        return outSize;
    } catch (const std::exception& e) {
        return failChunk(filter, e.what());
    } catch (...) {
        return failChunk(filter, "unknown failure");
    }
}

std::size_t lz4Filter(unsigned flags, std::size_t, const unsigned[], std::size_t nbytes,
                      std::size_t* bufferSize, void** buffer)
{
    // cd_values[0], the block size, only steers an encoder; ours writes one block.
    return runCodec("lz4", DCompression::FILTER_LZ4, flags, nbytes, bufferSize, buffer);
}

std::size_t bitshuffleFilter(unsigned flags, std::size_t count, const unsigned values[], std::size_t nbytes,
                             std::size_t* bufferSize, void** buffer)
{
    if (count < 3)
        return failChunk("bitshuffle", "the filter parameters lack the element size");
    const unsigned elementSize = values[2];
    if (elementSize != 2 && elementSize != 4)
        return failChunk("bitshuffle",
                         "element size " + std::to_string(elementSize) + " is not supported (2 or 4)");
    const unsigned compression = count > 4 ? values[4] : 0;
    if (compression != BITSHUFFLE_LZ4)
        return failChunk("bitshuffle",
                         "compression " + std::to_string(compression) + " is not supported (2, LZ4)");
    // cd_values[3], the block size, is read from each chunk's header; our encoder picks its own.
    return runCodec("bitshuffle",
                    elementSize == 2 ? DCompression::FILTER_BS16_LZ4 : DCompression::FILTER_BS32_LZ4, flags,
                    nbytes, bufferSize, buffer);
}

/// The caller gives [block size, compression]; stored are [major, minor, element size,
/// block size, compression], the element size from the dataset's type, as the usual plugin
/// stores them.
herr_t bitshuffleSetLocal(hid_t dcpl, hid_t type, hid_t)
{
    unsigned flags = 0;
    std::size_t count = 8;
    unsigned given[8] = {};
    if (H5Pget_filter_by_id2(dcpl, BITSHUFFLE_FILTER_ID, &flags, &count, given, 0, nullptr, nullptr) < 0)
        return -1;
    count = std::min<std::size_t>(count, 8);
    const std::size_t elementSize = H5Tget_size(type);
    if (elementSize == 0)
        return -1;
    unsigned values[11] = {BITSHUFFLE_MAJOR, BITSHUFFLE_MINOR, static_cast<unsigned>(elementSize)};
    std::copy(given, given + count, values + 3);
    return H5Pmodify_filter(dcpl, BITSHUFFLE_FILTER_ID, flags, 3 + count, values);
}

const H5Z_class2_t lz4Class = {
    H5Z_CLASS_T_VERS, static_cast<H5Z_filter_t>(LZ4_FILTER_ID), 1, 1, "lz4", nullptr, nullptr, lz4Filter,
};

const H5Z_class2_t bitshuffleClass = {
    H5Z_CLASS_T_VERS,
    static_cast<H5Z_filter_t>(BITSHUFFLE_FILTER_ID),
    1,
    1,
    "bitshuffle; LZ4",
    nullptr,
    bitshuffleSetLocal,
    bitshuffleFilter,
};

/// Registers `filterClass`. HDF5 replaces an entry of the same id, and looks for a plugin
/// only for an id that has none, so this wins over any plugin installed on the machine:
/// the plugins decode the same chunks several times slower.
bool registerOwn(const H5Z_class2_t& filterClass)
{
    const bool registered = H5Zregister(&filterClass) >= 0;
    H5Eclear2(H5E_DEFAULT);
    return registered;
}

} // namespace

void registerBuiltinFilters()
{
    static std::once_flag once;
    std::call_once(once, [] {
        DH5DontPrint quiet;
        builtinLz4 = registerOwn(lz4Class);
        builtinBitshuffle = registerOwn(bitshuffleClass);
    });
}

std::uint64_t builtinChunksDecoded() noexcept
{
    return decodedChunks.load(std::memory_order_relaxed);
}

bool builtinFilterInUse(DCompression::FILTER filter)
{
    switch (filter) {
    case DCompression::FILTER_LZ4: return builtinLz4;
    case DCompression::FILTER_BS16_LZ4:
    case DCompression::FILTER_BS32_LZ4: return builtinBitshuffle;
    default: return false;
    }
}

} // namespace hdf5
} // namespace norvexa

#include "foundation/image/DLargeBlocks.h"

#include <cstdlib>
#include <mutex>
#include <new>
#include <vector>

namespace norvexa {
namespace image {

namespace {

constexpr std::size_t kHugePage = std::size_t(2) << 20;

// Sizes are rounded so that blocks of nearly the same size share cached blocks; the finer
// step below 8 MiB keeps a chunk of a megabyte or two from taking twice its size.
std::size_t rounded(std::size_t bytes)
{
    const std::size_t step = bytes < (std::size_t(8) << 20) ? std::size_t(1) << 20 : kHugePage;
    return (bytes + step - 1) / step * step;
}

struct Cache {
    std::mutex mutex;
    std::vector<std::pair<std::size_t, void*>> blocks;
    std::size_t bytes = 0;
};

// Never destroyed: images that outlive static destruction still give their blocks back.
Cache& cache()
{
    static Cache* instance = new Cache;
    return *instance;
}

} // namespace

void* DLargeBlocks::allocate(std::size_t bytes)
{
    const std::size_t size = rounded(bytes);
    {
        Cache& c = cache();
        std::lock_guard<std::mutex> lock(c.mutex);
        for (auto it = c.blocks.begin(); it != c.blocks.end(); ++it)
            if (it->first == size) {
                void* block = it->second;
                c.bytes -= size;
                c.blocks.erase(it);
                return block;
            }
    }
    void* block = nullptr;
    if (size < bytes || posix_memalign(&block, kHugePage, size) != 0)
        throw std::bad_alloc();
    return block;
}

void DLargeBlocks::release(void* block, std::size_t bytes) noexcept
{
    if (!block)
        return;
    const std::size_t size = rounded(bytes);
    Cache& c = cache();
    {
        std::lock_guard<std::mutex> lock(c.mutex);
        if (c.blocks.size() < kCacheBlocks && c.bytes + size <= kCacheBytes) {
            try {
                c.blocks.emplace_back(size, block);
                c.bytes += size;
                return;
            } catch (...) {
            }
        }
    }
    std::free(block);
}

void DLargeBlocks::trim() noexcept
{
    Cache& c = cache();
    std::vector<std::pair<std::size_t, void*>> blocks;
    {
        std::lock_guard<std::mutex> lock(c.mutex);
        blocks.swap(c.blocks);
        c.bytes = 0;
    }
    for (auto& entry : blocks)
        std::free(entry.second);
}

} // namespace image
} // namespace norvexa

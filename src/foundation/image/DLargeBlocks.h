#pragma once

#include <cstddef>

namespace norvexa {
namespace image {

/// Heap blocks for whole frames. A fresh block of tens of megabytes costs more in page
/// faults than the copy that fills it, so a few freed blocks are kept for the next frame
/// of the same size (a series of frames allocates the same sizes again and again).
/// That includes a frame's compressed chunk, a few megabytes whose size varies a little
/// from frame to frame: blocks are sized in whole MiB below 8 MiB and in 2 MiB above, so
/// that such neighbours share one cached block. Blocks are 2 MiB aligned. At most
/// kCacheBlocks blocks and kCacheBytes bytes are kept; the cache is thread-safe.
/// (Transparent huge pages were tried and left out: with the kernel's compaction on
/// demand a first touch stalled up to four times longer.)
class DLargeBlocks {
public:
    /// Blocks from this size up are large.
    static constexpr std::size_t kThreshold = std::size_t(1) << 20;
    static constexpr std::size_t kCacheBlocks = 8;
    static constexpr std::size_t kCacheBytes = std::size_t(1) << 30;

    /// A block of at least `bytes` bytes; std::bad_alloc when there is none.
    static void* allocate(std::size_t bytes);
    /// Gives back a block that allocate(bytes) returned.
    static void release(void* block, std::size_t bytes) noexcept;
    /// Frees the cached blocks.
    static void trim() noexcept;
};

} // namespace image
} // namespace norvexa

#pragma once

#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/indexes/iset_index.hpp>
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/mem_algo/rbtree_best_fit.hpp>
#include <boost/interprocess/offset_ptr.hpp>
#include <boost/interprocess/sync/mutex_family.hpp>

#include <memory>

namespace norvexa {
namespace image {

/// The heap form of every allocator-generic class.
using StdAllocator = std::allocator<char>;

/// A managed shared-memory segment: best-fit allocation in a red-black tree, a
/// process-shared mutex family, offset pointers (the segment maps at different
/// addresses in different processes) and the set index.
using ShmSegment = boost::interprocess::basic_managed_shared_memory<
    char,
    boost::interprocess::rbtree_best_fit<boost::interprocess::mutex_family,
                                         boost::interprocess::offset_ptr<void>>,
    boost::interprocess::iset_index>;

/// The shared-memory form: everything it allocates lies in the segment.
using ShmAllocator = boost::interprocess::allocator<char, ShmSegment::segment_manager>;

/// A raw pointer from an allocator's pointer type (plain or offset pointer).
template <class Pointer>
inline auto toRawPointer(const Pointer& p) noexcept
{
    return boost::interprocess::ipcdetail::to_raw_pointer(p);
}

} // namespace image
} // namespace norvexa

#pragma once

#include "TestHelpers.h"

#include "foundation/image/DAllocators.h"

#include <string>

namespace norvexa_test {

/// A managed shared-memory segment under a name no other run uses, removed with the object.
struct SharedSegment {
    explicit SharedSegment(std::size_t bytes)
        : name(uniqueShmName("norvexa_test")), segment(boost::interprocess::create_only, name.c_str(), bytes)
    {
    }
    ~SharedSegment() { boost::interprocess::shared_memory_object::remove(name.c_str()); }
    SharedSegment(const SharedSegment&) = delete;
    SharedSegment& operator=(const SharedSegment&) = delete;
    norvexa::image::ShmAllocator allocator() { return norvexa::image::ShmAllocator(segment.get_segment_manager()); }
    bool contains(const void* p) const
    {
        const char* base = static_cast<const char*>(segment.get_address());
        return p >= base && p < base + segment.get_size();
    }
    std::string name;
    norvexa::image::ShmSegment segment;
};

} // namespace norvexa_test

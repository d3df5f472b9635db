#pragma once

#include "DPixel.h"
#include "foundation/image/DAllocators.h"

#include <boost/container/vector.hpp>

#include <cstddef>
#include <memory>

namespace norvexa {
namespace imglib {

/// A vector of plain values on the heap or in a shared-memory segment (by `Allocator`,
/// an allocator of char that is rebound to T), so that a list such as DArray<DPixel>
/// can cross to another process through a DMessageQueue. The shared form copies to and
/// from the heap form by the converting constructor.
template <class T, class Allocator = image::StdAllocator>
class DArray {
public:
    using allocator_type = Allocator;
    using ElementAllocator = typename std::allocator_traits<Allocator>::template rebind_alloc<T>;
    using Vector = boost::container::vector<T, ElementAllocator>;

    /// Empty.
    explicit DArray(const Allocator& allocator = Allocator()) : _vector(ElementAllocator(allocator)) {}
    /// `count` copies of `value`.
    DArray(std::size_t count, const T& value, const Allocator& allocator = Allocator())
        : _vector(count, value, ElementAllocator(allocator))
    {
    }
    /// A copy in `allocator` of either form, element by element.
    template <class OtherAllocator>
    DArray(const DArray<T, OtherAllocator>& other, const Allocator& allocator)
        : _vector(other.vector().begin(), other.vector().end(), ElementAllocator(allocator))
    {
    }

    /// The elements, with the whole interface of the vector.
    Vector& vector() noexcept { return _vector; }
    const Vector& vector() const noexcept { return _vector; }

    std::size_t size() const noexcept { return _vector.size(); }
    bool empty() const noexcept { return _vector.empty(); }
    T& operator[](std::size_t i) { return _vector[i]; }
    const T& operator[](std::size_t i) const { return _vector[i]; }
    void pushBack(const T& value) { _vector.push_back(value); }
    void clear() noexcept { _vector.clear(); }
    Allocator allocator() const { return Allocator(_vector.get_allocator()); }

private:
    Vector _vector;
};

extern template class DArray<DPixel, image::StdAllocator>;
extern template class DArray<DPixel, image::ShmAllocator>;

} // namespace imglib
} // namespace norvexa

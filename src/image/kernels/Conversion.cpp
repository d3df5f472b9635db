// asType: every (source, target) pair of pixel types.

#include "foundation/image/DBasicImage.h"
#include "foundation/image/DBinaryDispatcher.h"
#include "image/kernels/PixelMath.h"

#include <cstring>

namespace norvexa {
namespace kernels {
template <class T, class S>
NORVEXA_HOT_LOOP void convertLoop(const S* in, T* out, std::size_t n)
{
    for (std::size_t i = 0; i < n; ++i)
        out[i] = convert<T>(in[i]);
}
} // namespace kernels

namespace image {

template <class Allocator>
template <class T>
DBasicImage<Allocator> DBasicImage<Allocator>::asType() const
{
    DBasicImage result(_shape, allocator(), datatypes::PixelTraits<T>::type,
                       datatypes::PixelTraits<T>::bits);
    const std::size_t n = size();
    datatypes::dispatchType(_type, _typeBits, [&](auto tag) {
        using S = typename decltype(tag)::type;
        if (n == 0)
            return;
        if constexpr (std::is_same_v<S, T>) {
            std::memcpy(result.data(), cdata(), n * sizeof(T));
        } else {
            kernels::convertLoop(reinterpret_cast<const S*>(cdata()),
                                 reinterpret_cast<T*>(result.data()), n);
        }
    });
    return result;
}

template <class Allocator>
DBasicImage<Allocator> DBasicImage<Allocator>::asType(datatypes::Type type,
                                                      unsigned long typeBits) const
{
    return datatypes::dispatchType(type, typeBits, [&](auto tag) {
        return this->template asType<typename decltype(tag)::type>();
    });
}

template DBasicImage<StdAllocator> DBasicImage<StdAllocator>::asType(datatypes::Type,
                                                                     unsigned long) const;
#define NORVEXA_INSTANTIATE_AS_TYPE(T, CLASS, BITS)                                                \
    template DBasicImage<StdAllocator> DBasicImage<StdAllocator>::asType<T>() const;
NORVEXA_PIXEL_TYPES(NORVEXA_INSTANTIATE_AS_TYPE)
#undef NORVEXA_INSTANTIATE_AS_TYPE

} // namespace image
} // namespace norvexa

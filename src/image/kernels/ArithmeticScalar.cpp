// Arithmetic of an image with a scalar of any pixel type, out of place and in place.

#include "foundation/image/DBinaryDispatcher.h"
#include "image/kernels/Arithmetic.h"

namespace norvexa {
namespace kernels {

template <class T>
Image arithmeticScalar(Op op, const Image& a, T value)
{
    return datatypes::dispatchType(a.type(), a.typeBits(), [&](auto tag) {
        using L = typename decltype(tag)::type;
        using Res = ScalarResultType<L, T>;
        Image result(a.shape(), a.allocator(), datatypes::PixelTraits<Res>::type,
                     datatypes::PixelTraits<Res>::bits);
        combineScalar(op, reinterpret_cast<const L*>(a.cdata()), value,
                         reinterpret_cast<Res*>(result.data()), a.size());
        return result;
    });
}

template <class T>
void arithmeticScalarInPlace(Op op, Image& a, T value)
{
    datatypes::dispatchType(a.type(), a.typeBits(), [&](auto tag) {
        using L = typename decltype(tag)::type;
        L* pixels = reinterpret_cast<L*>(a.data());
        combineScalar(op, pixels, value, pixels, a.size());
    });
}

} // namespace kernels

namespace image {

#define NORVEXA_SCALAR_OPERATOR(SYMBOL, OP)                                                        \
    template <class Allocator>                                                                     \
    template <class T, class>                                                                      \
    DBasicImage<Allocator> DBasicImage<Allocator>::operator SYMBOL(const T& value) const           \
    {                                                                                              \
        return kernels::arithmeticScalar<T>(kernels::Op::OP, *this, value);                        \
    }                                                                                              \
    template <class Allocator>                                                                     \
    template <class T, class>                                                                      \
    DBasicImage<Allocator>& DBasicImage<Allocator>::operator SYMBOL##=(const T& value)             \
    {                                                                                              \
        kernels::arithmeticScalarInPlace<T>(kernels::Op::OP, *this, value);                        \
        return *this;                                                                              \
    }
NORVEXA_SCALAR_OPERATOR(+, Add)
NORVEXA_SCALAR_OPERATOR(-, Sub)
NORVEXA_SCALAR_OPERATOR(*, Mul)
NORVEXA_SCALAR_OPERATOR(/, Div)
#undef NORVEXA_SCALAR_OPERATOR

#define NORVEXA_INSTANTIATE_SCALAR(T, CLASS, BITS)                                                 \
    template DBasicImage<StdAllocator> DBasicImage<StdAllocator>::operator+(const T&) const;       \
    template DBasicImage<StdAllocator> DBasicImage<StdAllocator>::operator-(const T&) const;       \
    template DBasicImage<StdAllocator> DBasicImage<StdAllocator>::operator*(const T&) const;       \
    template DBasicImage<StdAllocator> DBasicImage<StdAllocator>::operator/(const T&) const;       \
    template DBasicImage<StdAllocator>& DBasicImage<StdAllocator>::operator+=(const T&);          \
    template DBasicImage<StdAllocator>& DBasicImage<StdAllocator>::operator-=(const T&);          \
    template DBasicImage<StdAllocator>& DBasicImage<StdAllocator>::operator*=(const T&);          \
    template DBasicImage<StdAllocator>& DBasicImage<StdAllocator>::operator/=(const T&);
NORVEXA_PIXEL_TYPES(NORVEXA_INSTANTIATE_SCALAR)
#undef NORVEXA_INSTANTIATE_SCALAR

} // namespace image
} // namespace norvexa

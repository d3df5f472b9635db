// Out-of-place arithmetic of two images: 144 (left, right) bodies.

#include "foundation/DException.h"
#include "foundation/image/DBinaryDispatcher.h"
#include "image/kernels/Arithmetic.h"

namespace norvexa {
namespace kernels {

void requireSameShape(const Image& a, const Image& b)
{
    if (a.shape() != b.shape())
        throw DRuntimeException("Image sizes do not coincide");
}

namespace {
struct Combine {
    Op op;

    template <class L, class R>
    Image fire(const Image& a, const Image& b) const
    {
        using Res = ResultType<L, R>;
        Image result(a.shape(), a.allocator(), datatypes::PixelTraits<Res>::type,
                     datatypes::PixelTraits<Res>::bits);
        combine(op, reinterpret_cast<const L*>(a.cdata()),
                                   reinterpret_cast<const R*>(b.cdata()),
                                   reinterpret_cast<Res*>(result.data()), a.size());
        return result;
    }
};
} // namespace

Image arithmetic(Op op, const Image& a, const Image& b)
{
    requireSameShape(a, b);
    return datatypes::PixelDispatcher<Combine, const Image, const Image, Image>::Go(a, b, Combine{op});
}

} // namespace kernels

namespace image {

template <class Allocator>
DBasicImage<Allocator> DBasicImage<Allocator>::operator+(const DBasicImage& other) const
{
    return kernels::arithmetic(kernels::Op::Add, *this, other);
}
template <class Allocator>
DBasicImage<Allocator> DBasicImage<Allocator>::operator-(const DBasicImage& other) const
{
    return kernels::arithmetic(kernels::Op::Sub, *this, other);
}
template <class Allocator>
DBasicImage<Allocator> DBasicImage<Allocator>::operator*(const DBasicImage& other) const
{
    return kernels::arithmetic(kernels::Op::Mul, *this, other);
}
template <class Allocator>
DBasicImage<Allocator> DBasicImage<Allocator>::operator/(const DBasicImage& other) const
{
    return kernels::arithmetic(kernels::Op::Div, *this, other);
}

template DBasicImage<StdAllocator> DBasicImage<StdAllocator>::operator+(const DBasicImage&) const;
template DBasicImage<StdAllocator> DBasicImage<StdAllocator>::operator-(const DBasicImage&) const;
template DBasicImage<StdAllocator> DBasicImage<StdAllocator>::operator*(const DBasicImage&) const;
template DBasicImage<StdAllocator> DBasicImage<StdAllocator>::operator/(const DBasicImage&) const;

} // namespace image
} // namespace norvexa

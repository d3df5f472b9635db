// In-place arithmetic of two images: 144 (left, right) bodies; the left keeps its type.

#include "foundation/image/DBinaryDispatcher.h"
#include "image/kernels/Arithmetic.h"

namespace norvexa {
namespace kernels {

namespace {
struct CombineInPlace {
    Op op;

    template <class L, class R>
    void fire(Image& a, const Image& b) const
    {
        L* pixels = reinterpret_cast<L*>(a.data());
        combine(op, pixels, reinterpret_cast<const R*>(b.cdata()), pixels,
                                   a.size());
    }
};
} // namespace

void arithmeticInPlace(Op op, Image& a, const Image& b)
{
    requireSameShape(a, b);
    datatypes::PixelDispatcher<CombineInPlace, Image, const Image, void>::Go(a, b, CombineInPlace{op});
}

} // namespace kernels

namespace image {

template <class Allocator>
DBasicImage<Allocator>& DBasicImage<Allocator>::operator+=(const DBasicImage& other)
{
    kernels::arithmeticInPlace(kernels::Op::Add, *this, other);
    return *this;
}
template <class Allocator>
DBasicImage<Allocator>& DBasicImage<Allocator>::operator-=(const DBasicImage& other)
{
    kernels::arithmeticInPlace(kernels::Op::Sub, *this, other);
    return *this;
}
template <class Allocator>
DBasicImage<Allocator>& DBasicImage<Allocator>::operator*=(const DBasicImage& other)
{
    kernels::arithmeticInPlace(kernels::Op::Mul, *this, other);
    return *this;
}
template <class Allocator>
DBasicImage<Allocator>& DBasicImage<Allocator>::operator/=(const DBasicImage& other)
{
    kernels::arithmeticInPlace(kernels::Op::Div, *this, other);
    return *this;
}

template DBasicImage<StdAllocator>& DBasicImage<StdAllocator>::operator+=(const DBasicImage&);
template DBasicImage<StdAllocator>& DBasicImage<StdAllocator>::operator-=(const DBasicImage&);
template DBasicImage<StdAllocator>& DBasicImage<StdAllocator>::operator*=(const DBasicImage&);
template DBasicImage<StdAllocator>& DBasicImage<StdAllocator>::operator/=(const DBasicImage&);

} // namespace image
} // namespace norvexa

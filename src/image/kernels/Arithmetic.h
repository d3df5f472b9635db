#pragma once

// Internal to the kernels: the loops of the pixel arithmetic and the entry points that
// the operators of DBasicImage call.

#include "foundation/image/DBasicImage.h"
#include "image/kernels/PixelMath.h"

#include <cstddef>

namespace norvexa {
namespace kernels {

using Image = image::DBasicImage<image::StdAllocator>;

/// Raises DRuntimeException "Image sizes do not coincide" unless the shapes are equal.
void requireSameShape(const Image& a, const Image& b);

template <Op op, class Res, class A, class B>
NORVEXA_HOT_LOOP void combineLoop(const A* a, const B* b, Res* out, std::size_t n)
{
    using C = ComputeType<op, A, B>;
    for (std::size_t i = 0; i < n; ++i)
        out[i] = store<Res>(apply<op, C>(static_cast<C>(a[i]), static_cast<C>(b[i])));
}

/// out[i] = a[i] op b[i], computed in ComputeType and stored as Res; `out` may be `a`.
template <class Res, class A, class B>
void combine(Op op, const A* a, const B* b, Res* out, std::size_t n)
{
    switch (op) {
    case Op::Add: combineLoop<Op::Add>(a, b, out, n); break;
    case Op::Sub: combineLoop<Op::Sub>(a, b, out, n); break;
    case Op::Mul: combineLoop<Op::Mul>(a, b, out, n); break;
    case Op::Div: combineLoop<Op::Div>(a, b, out, n); break;
    }
}

template <Op op, class Res, class A, class T>
NORVEXA_HOT_LOOP void combineScalarLoop(const A* a, T scalar, Res* out, std::size_t n)
{
    using C = ComputeType<op, A, T>;
    const C value = static_cast<C>(scalar);
    for (std::size_t i = 0; i < n; ++i)
        out[i] = store<Res>(apply<op, C>(static_cast<C>(a[i]), value));
}

/// out[i] = a[i] op value; `out` may be `a`.
template <class Res, class A, class T>
void combineScalar(Op op, const A* a, T value, Res* out, std::size_t n)
{
    switch (op) {
    case Op::Add: combineScalarLoop<Op::Add>(a, value, out, n); break;
    case Op::Sub: combineScalarLoop<Op::Sub>(a, value, out, n); break;
    case Op::Mul: combineScalarLoop<Op::Mul>(a, value, out, n); break;
    case Op::Div: combineScalarLoop<Op::Div>(a, value, out, n); break;
    }
}

Image arithmetic(Op op, const Image& a, const Image& b);
void arithmeticInPlace(Op op, Image& a, const Image& b);
template <class T>
Image arithmeticScalar(Op op, const Image& a, T value);
template <class T>
void arithmeticScalarInPlace(Op op, Image& a, T value);

} // namespace kernels
} // namespace norvexa
